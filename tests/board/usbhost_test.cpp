// The host libusbhost against USB device models on the virtual board:
// scanning /dev/bus/usb, identifying devices by their descriptors, walking
// descriptors, claiming, bulk transfers both ways, control transfers,
// strings, and a host run that sees devices come and go.
#include <gtest/gtest.h>

#include <usbhost/usbhost.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <endian.h>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "sim/board.h"
#include "sim/usb_device_model.h"
#include "test_helpers.h"

using namespace std::chrono_literals;

namespace {

constexpr auto kWait = 5s;

sim::UsbDeviceDescription camera()
{
    sim::UsbDeviceDescription d;
    d.vendorId = 0x1bcf;
    d.productId = 0x2680;
    d.bcdDevice = 0x0317;
    d.manufacturer = "Made Up Optics";
    d.product = "Test Camera";
    d.serial = "SN0001";
    sim::UsbInterface video;
    video.number = 0;
    video.endpoints = {{0x83, 0x03, 16, 8}};
    sim::UsbInterface bulk;
    bulk.number = 1;
    bulk.endpoints = {{0x02, 0x02, 512, 0}, {0x81, 0x02, 512, 0}};
    d.interfaces = {video, bulk};
    return d;
}

sim::UsbDeviceDescription converter()
{
    sim::UsbDeviceDescription d;
    d.vendorId = 0x3c3c;
    d.productId = 0x0a01;
    sim::UsbInterface i;
    i.endpoints = {{0x81, 0x02, 512, 0}, {0x01, 0x02, 512, 0}};
    d.interfaces = {i};
    return d;
}

std::vector<uint8_t> bytes(std::initializer_list<int> list)
{
    std::vector<uint8_t> out;
    for (int b : list)
        out.push_back(static_cast<uint8_t>(b));
    return out;
}

// Records what a host run reports, from the run's thread.
struct RunLog {
    std::mutex mutex;
    std::vector<std::string> events; // "+name", "-name", "done"
    std::atomic<bool> stopOnNext{false};
    int stopAfterAdded = -1;         // end the run after this many additions

    void add(const std::string &event)
    {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(event);
    }
    std::vector<std::string> snapshot()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return events;
    }
    // Waits until `event` was reported `times` times.
    bool waitFor(const std::string &event, size_t times = 1)
    {
        return sim::waitUntil(
            [&] {
                std::lock_guard<std::mutex> lock(mutex);
                return static_cast<size_t>(std::count(events.begin(), events.end(), event)) >= times;
            },
            kWait);
    }
};

// The callbacks decide whether to end the run before they log the event:
// a test that waits for an event and then asks for the next one to end
// the run must not end it with the event it waited for.
int onAdded(const char *name, void *data)
{
    auto *log = static_cast<RunLog *>(data);
    const bool stop = log->stopOnNext.load();
    log->add(std::string("+") + name);
    if (log->stopAfterAdded >= 0) {
        int added = 0;
        for (const auto &e : log->snapshot())
            added += e[0] == '+';
        if (added >= log->stopAfterAdded)
            return 1;
    }
    return stop ? 1 : 0;
}

int onRemoved(const char *name, void *data)
{
    auto *log = static_cast<RunLog *>(data);
    const bool stop = log->stopOnNext.load();
    log->add(std::string("-") + name);
    return stop ? 1 : 0;
}

int onDone(void *data)
{
    static_cast<RunLog *>(data)->add("done");
    return 0;
}

int onDoneEnds(void *data)
{
    static_cast<RunLog *>(data)->add("done");
    return 1;
}

} // namespace

TEST(UsbHost, DevicesAreNumberedInTheOrderTheBoardAddsThem)
{
    sim::Board board;
    sim::UsbDevice first(board, camera());
    sim::UsbDevice second(board, converter());
    EXPECT_EQ(first.devnode(), "/dev/bus/usb/001/002");
    EXPECT_EQ(second.devnode(), "/dev/bus/usb/001/003");
    DIR *bus = opendir("/dev/bus/usb/001");
    ASSERT_NE(bus, nullptr);
    std::vector<std::string> names;
    while (dirent *entry = readdir(bus))
        if (entry->d_name[0] != '.')
            names.push_back(entry->d_name);
    closedir(bus);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"002", "003"}));
}

TEST(UsbHost, ScanReportsEveryDeviceThenDiscoveryDone)
{
    sim::Board board;
    sim::UsbDevice first(board, camera());
    sim::UsbDevice second(board, converter());
    usb_host_context *context = usb_host_init();
    ASSERT_NE(context, nullptr);
    RunLog log;
    usb_host_run(context, onAdded, onRemoved, onDoneEnds, &log);
    usb_host_cleanup(context);
    EXPECT_EQ(log.snapshot(),
              (std::vector<std::string>{"+/dev/bus/usb/001/002", "+/dev/bus/usb/001/003", "done"}));
}

TEST(UsbHost, AnEmptyBusReportsOnlyDiscoveryDone)
{
    sim::Board board;
    usb_host_context *context = usb_host_init();
    ASSERT_NE(context, nullptr);
    RunLog log;
    usb_host_run(context, onAdded, onRemoved, onDoneEnds, &log);
    usb_host_cleanup(context);
    EXPECT_EQ(log.snapshot(), (std::vector<std::string>{"done"}));
}

TEST(UsbHost, AnAddedCallbackEndsTheRunBeforeDiscoveryDone)
{
    sim::Board board;
    sim::UsbDevice first(board, camera());
    sim::UsbDevice second(board, converter());
    usb_host_context *context = usb_host_init();
    RunLog log;
    log.stopAfterAdded = 1;
    usb_host_run(context, onAdded, onRemoved, onDone, &log);
    usb_host_cleanup(context);
    EXPECT_EQ(log.snapshot(), (std::vector<std::string>{"+/dev/bus/usb/001/002"}));
}

TEST(UsbHost, OpenIdentifiesTheDeviceByItsDescriptors)
{
    sim::Board board;
    sim::UsbDevice cam(board, camera());
    usb_device *device = usb_device_open(cam.devnode().c_str());
    ASSERT_NE(device, nullptr) << std::strerror(errno);
    EXPECT_STREQ(usb_device_get_name(device), "/dev/bus/usb/001/002");
    EXPECT_GE(usb_device_get_fd(device), 0);
    EXPECT_EQ(usb_device_get_vendor_id(device), 0x1bcf);
    EXPECT_EQ(usb_device_get_product_id(device), 0x2680);
    const usb_device_descriptor *desc = usb_device_get_device_descriptor(device);
    ASSERT_NE(desc, nullptr);
    EXPECT_EQ(desc->bLength, USB_DT_DEVICE_SIZE);
    EXPECT_EQ(desc->bDescriptorType, USB_DT_DEVICE);
    EXPECT_EQ(le16toh(desc->bcdDevice), 0x0317);
    EXPECT_EQ(desc->iManufacturer, 1);
    EXPECT_EQ(desc->iProduct, 2);
    EXPECT_EQ(desc->iSerialNumber, 3);
    EXPECT_EQ(desc->bNumConfigurations, 1);
    usb_device_close(device);
}

TEST(UsbHost, OpenFailsForAMissingNodeAndForANodeWithoutADeviceDescriptor)
{
    sim::Board board;
    errno = 0;
    EXPECT_EQ(usb_device_open("/dev/bus/usb/001/009"), nullptr);
    EXPECT_EQ(errno, ENOENT);

    sim::UsbDevice odd(board, converter());
    odd.setRawDescriptors(bytes({9, 2, 9, 0, 0, 1, 0, 0x80, 50})); // a configuration only
    errno = 0;
    EXPECT_EQ(usb_device_open(odd.devnode().c_str()), nullptr);
    EXPECT_EQ(errno, EINVAL);
    odd.setRawDescriptors(bytes({18, 1, 0, 2})); // cut short
    errno = 0;
    EXPECT_EQ(usb_device_open(odd.devnode().c_str()), nullptr);
    EXPECT_EQ(errno, EINVAL);

    odd.failTransfers(sim::UsbDevice::Transfer::Read, EIO);
    errno = 0;
    EXPECT_EQ(usb_device_open(odd.devnode().c_str()), nullptr);
    EXPECT_EQ(errno, EIO);
}

TEST(UsbHost, IterationWalksDescriptorsInTheDevicesOrder)
{
    sim::Board board;
    sim::UsbDevice cam(board, camera());
    usb_device *device = usb_device_open(cam.devnode().c_str());
    ASSERT_NE(device, nullptr);
    usb_descriptor_iter iter;
    usb_descriptor_iter_init(device, &iter);
    std::vector<std::pair<int, int>> seen; // type, interface number or endpoint address
    while (usb_descriptor_header *header = usb_descriptor_iter_next(&iter)) {
        int detail = 0;
        if (header->bDescriptorType == USB_DT_INTERFACE)
            detail = reinterpret_cast<usb_interface_descriptor *>(header)->bInterfaceNumber;
        if (header->bDescriptorType == USB_DT_ENDPOINT)
            detail = reinterpret_cast<usb_endpoint_descriptor *>(header)->bEndpointAddress;
        seen.emplace_back(header->bDescriptorType, detail);
    }
    EXPECT_EQ(seen, (std::vector<std::pair<int, int>>{{USB_DT_DEVICE, 0},
                                                      {USB_DT_CONFIG, 0},
                                                      {USB_DT_INTERFACE, 0},
                                                      {USB_DT_ENDPOINT, 0x83},
                                                      {USB_DT_INTERFACE, 1},
                                                      {USB_DT_ENDPOINT, 0x02},
                                                      {USB_DT_ENDPOINT, 0x81}}));
    usb_device_close(device);
}

TEST(UsbHost, IterationStopsAtADescriptorThatDoesNotFit)
{
    sim::Board board;
    sim::UsbDevice odd(board, converter());
    std::vector<uint8_t> raw = sim::usbDescriptors(converter());
    const size_t whole = raw.size();
    raw.push_back(0); // a zero length would never advance
    raw.push_back(5);
    odd.setRawDescriptors(raw);
    usb_device *device = usb_device_open(odd.devnode().c_str());
    ASSERT_NE(device, nullptr);
    usb_descriptor_iter iter;
    usb_descriptor_iter_init(device, &iter);
    int count = 0;
    while (usb_descriptor_iter_next(&iter))
        ++count;
    EXPECT_EQ(count, 5); // device, configuration, interface, two endpoints
    usb_device_close(device);

    raw.resize(whole);
    raw.push_back(40); // claims more bytes than follow
    raw.push_back(5);
    raw.push_back(1);
    odd.setRawDescriptors(raw);
    device = usb_device_open(odd.devnode().c_str());
    ASSERT_NE(device, nullptr);
    usb_descriptor_iter_init(device, &iter);
    count = 0;
    while (usb_descriptor_iter_next(&iter))
        ++count;
    EXPECT_EQ(count, 5);
    usb_device_close(device);
}

TEST(UsbHost, ClaimAndReleaseFollowTheKernelsAnswers)
{
    sim::Board board;
    sim::UsbDevice cam(board, camera());
    usb_device *device = usb_device_open(cam.devnode().c_str());
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(usb_device_claim_interface(device, 1), 0);
    EXPECT_TRUE(cam.claimed(1));
    EXPECT_FALSE(cam.claimed(0));
    errno = 0;
    EXPECT_EQ(usb_device_claim_interface(device, 7), -1);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(usb_device_release_interface(device, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(usb_device_release_interface(device, 1), 0);
    EXPECT_FALSE(cam.claimed(1));
    cam.failTransfers(sim::UsbDevice::Transfer::Claim, EBUSY, 1);
    errno = 0;
    EXPECT_EQ(usb_device_claim_interface(device, 0), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(usb_device_claim_interface(device, 0), 0);
    const auto events = cam.claimEvents();
    ASSERT_EQ(events.size(), 6u);
    EXPECT_TRUE(events[0].claim);
    EXPECT_EQ(events[0].interface, 1u);
    EXPECT_EQ(events[0].result, 0);
    EXPECT_EQ(events[1].result, -ENOENT);
    EXPECT_FALSE(events[2].claim);
    EXPECT_EQ(events[2].result, -EINVAL);
    EXPECT_EQ(events[4].result, -EBUSY);
    usb_device_close(device);
}

TEST(UsbHost, BulkOutIsCapturedWithItsBytesAndTime)
{
    sim::Board board;
    sim::UsbDevice conv(board, converter());
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    ASSERT_EQ(usb_device_claim_interface(device, 0), 0);
    std::vector<uint8_t> data(512);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 7);
    const auto before = sim::Clock::now();
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x01, data.data(), 512, 1000), 512);
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x01, data.data(), 3, 1000), 3);
    const auto out = conv.bulkOut();
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].endpoint, 0x01);
    EXPECT_EQ(out[0].bytes, data);
    EXPECT_TRUE(out[0].claimed);
    EXPECT_GE(out[0].when, before);
    EXPECT_LE(out[0].when, out[1].when);
    EXPECT_EQ(out[1].bytes, std::vector<uint8_t>(data.begin(), data.begin() + 3));
    usb_device_close(device);
}

TEST(UsbHost, BulkOnAnUnclaimedInterfaceWorksAndIsMarked)
{
    sim::Board board;
    sim::UsbDevice conv(board, converter());
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    uint8_t byte = 1;
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x01, &byte, 1, 1000), 1);
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x01, &byte, 1, 1000), 1);
    const auto out = conv.bulkOut();
    ASSERT_EQ(out.size(), 2u);
    EXPECT_FALSE(out[0].claimed);
    EXPECT_TRUE(out[1].claimed); // the kernel claimed it on first use
    usb_device_close(device);
}

TEST(UsbHost, BulkInIsAnsweredFromTheQueueThenByTheHandler)
{
    sim::Board board;
    sim::UsbDevice conv(board, converter());
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    conv.queueIn(0x81, bytes({1, 2, 3, 4, 5}));
    conv.queueIn(0x81, bytes({9}));
    uint8_t buf[512] = {};
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x81, buf, 4, 1000), 4); // cut to what was asked
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + 4), bytes({1, 2, 3, 4}));
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x81, buf, sizeof buf, 1000), 1);
    EXPECT_EQ(buf[0], 9);
    errno = 0;
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x81, buf, sizeof buf, 1000), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    conv.setInHandler([](uint8_t ep, size_t length, std::vector<uint8_t> &data, int *) {
        data.assign(length, static_cast<uint8_t>(ep));
        return static_cast<int>(length);
    });
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x81, buf, 8, 1000), 8);
    EXPECT_EQ(buf[7], 0x81);
    EXPECT_EQ(conv.inRequests(), 4u);
    EXPECT_EQ(conv.bulkIn().size(), 3u);
    usb_device_close(device);
}

// As the kernel holds it: a bulk IN with nothing to read ends by its
// time-out, not at once (kernel.KernelUsbHost.ABulkInWithNothingToReadIsHeldForItsTimeOut
// shows the kernel doing it).
TEST(UsbHost, ABulkInWithNothingToReadIsHeldForItsTimeOut)
{
    sim::Board board;
    sim::UsbDevice conv(board, converter());
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    uint8_t buf[512] = {};
    const auto start = std::chrono::steady_clock::now();
    errno = 0;
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x81, buf, sizeof buf, 700), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(avmtest::msSince(start), 690);
    EXPECT_EQ(conv.inRequests(), 1u);
    EXPECT_TRUE(conv.bulkIn().empty());
    usb_device_close(device);
}

// A waiting bulk IN ends as soon as data comes, and meanwhile OUT
// transfers on the same descriptor go through (the HDMI-out reader waits
// on IN while the data goes OUT).
TEST(UsbHost, AWaitingBulkInEndsWhenDataComesAndOutTransfersGoOnMeanwhile)
{
    sim::Board board;
    sim::UsbDevice conv(board, converter());
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    int got = 0;
    uint8_t in[512] = {};
    long long took = 0;
    std::thread reader([&] {
        const auto start = std::chrono::steady_clock::now();
        got = usb_device_bulk_transfer(device, 0x81, in, sizeof in, 20000);
        took = avmtest::msSince(start);
    });
    EXPECT_TRUE(sim::waitUntil([&] { return conv.waitingIn() == 1; }, 5s));
    uint8_t out[5] = {1, 2, 3, 4, 5};
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x01, out, sizeof out, 1000), 5);
    const auto sent = conv.bulkOut();
    EXPECT_EQ(sent.size(), 1u);
    EXPECT_TRUE(!sent.empty() && sent[0].bytes == bytes({1, 2, 3, 4, 5}));
    EXPECT_EQ(conv.waitingIn(), 1u) << "the IN transfer still waits";
    conv.queueIn(0x81, bytes({7, 8, 9}));
    reader.join();
    EXPECT_EQ(got, 3);
    EXPECT_EQ(std::vector<uint8_t>(in, in + 3), bytes({7, 8, 9}));
    EXPECT_LT(took, 15000) << "ended by the data, not by its 20 s";
    EXPECT_EQ(conv.queuedIn(0x81), 0u);
    ASSERT_EQ(conv.bulkIn().size(), 1u);
    EXPECT_EQ(conv.bulkIn()[0].bytes, bytes({7, 8, 9}));
    usb_device_close(device);
}

// A waiting bulk IN is recorded and reported to the device's observer
// before the host has its bytes: a converter that sees the host echo what
// it read has always seen the read first.
TEST(UsbHost, AWaitingBulkInIsRecordedBeforeTheHostHasIt)
{
    sim::Board board;
    sim::UsbDevice conv(board, converter());
    std::atomic<bool> observed{false};
    conv.setBulkObserver([&](const sim::UsbDevice::BulkTransfer &transfer) {
        // A slow observer: the host must still not have the bytes before it is done.
        std::this_thread::sleep_for(300ms);
        if (transfer.endpoint == 0x81)
            observed = true;
    });
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    int got = 0;
    bool observedFirst = false;
    size_t recordedFirst = 0;
    uint8_t in[512] = {};
    std::thread reader([&] {
        got = usb_device_bulk_transfer(device, 0x81, in, sizeof in, 20000);
        observedFirst = observed;
        recordedFirst = conv.bulkIn().size();
    });
    // Not an ASSERT: the reader must be released and joined either way
    // (bytes queued before it waits are read from the queue).
    EXPECT_TRUE(sim::waitUntil([&] { return conv.waitingIn() == 1; }, kWait));
    conv.queueIn(0x81, bytes({0, 0, 0, 2}));
    reader.join();
    EXPECT_EQ(got, 4);
    EXPECT_TRUE(observedFirst) << "the host had the bytes before the observer saw them";
    EXPECT_EQ(recordedFirst, 1u) << "the host had the bytes before they were recorded";
    usb_device_close(device);
}

// Unplugged while a bulk IN waits: it ends with ENODEV.
TEST(UsbHost, AWaitingBulkInEndsWithTheDevice)
{
    sim::Board board;
    sim::UsbDevice conv(board, converter());
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    int got = 0;
    int err = 0;
    std::thread reader([&] {
        uint8_t in[512];
        got = usb_device_bulk_transfer(device, 0x81, in, sizeof in, 20000);
        err = errno;
    });
    EXPECT_TRUE(sim::waitUntil([&] { return conv.waitingIn() == 1; }, 5s));
    conv.unplug();
    reader.join();
    EXPECT_EQ(got, -1);
    EXPECT_EQ(err, ENODEV);
    usb_device_close(device);
}

// As the kernel's usbfs does (kernel.KernelDescriptorLayout.* show it):
// from a descriptor the configuration parse cannot take on (a zero length
// here), the bytes are counted but not written, so the reader's buffer
// keeps what it held there.
TEST(UsbHost, BytesFromABrokenDescriptorOnAreCountedButNotWritten)
{
    sim::Board board;
    sim::UsbDeviceDescription d = converter();
    sim::UsbInterface interface = d.interfaces[0];
    std::vector<uint8_t> body = sim::usbInterfaceDescriptor(interface);
    for (const auto &part : {sim::usbEndpointDescriptor(interface.endpoints[0]), std::vector<uint8_t>{0, 5},
                             sim::usbEndpointDescriptor(interface.endpoints[1])})
        body.insert(body.end(), part.begin(), part.end());
    const std::vector<uint8_t> raw = sim::usbDescriptorsListing(d, body);
    sim::UsbDevice conv(board, d);
    conv.setRawDescriptors(raw);
    const int fd = open(conv.devnode().c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    std::vector<uint8_t> buf(256, 0xEE);
    EXPECT_EQ(read(fd, buf.data(), buf.size()), static_cast<ssize_t>(raw.size()));
    close(fd);
    const size_t kept = 18 + 9 + 9 + 7; // up to the zero length
    EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + static_cast<long>(kept)),
              std::vector<uint8_t>(raw.begin(), raw.begin() + static_cast<long>(kept)));
    EXPECT_EQ(std::vector<uint8_t>(buf.begin() + static_cast<long>(kept), buf.begin() + static_cast<long>(raw.size())),
              std::vector<uint8_t>(raw.size() - kept, 0xEE));
}

TEST(UsbHost, TransfersFailOnDemandAndOnUnknownEndpoints)
{
    sim::Board board;
    sim::UsbDevice conv(board, converter());
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    uint8_t buf[512] = {};
    errno = 0;
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x05, buf, sizeof buf, 1000), -1);
    EXPECT_EQ(errno, ENOENT);
    conv.failTransfers(sim::UsbDevice::Transfer::BulkOut, EPIPE, 2);
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x01, buf, sizeof buf, 1000), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x01, buf, sizeof buf, 1000), -1);
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x01, buf, sizeof buf, 1000), 512);
    conv.failTransfers(sim::UsbDevice::Transfer::BulkIn, EOVERFLOW);
    conv.queueIn(0x81, bytes({1}));
    for (int i = 0; i < 3; ++i) {
        errno = 0;
        EXPECT_EQ(usb_device_bulk_transfer(device, 0x81, buf, sizeof buf, 1000), -1);
        EXPECT_EQ(errno, EOVERFLOW);
    }
    conv.clearFailure(sim::UsbDevice::Transfer::BulkIn);
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x81, buf, sizeof buf, 1000), 1);
    EXPECT_EQ(conv.outAttempts(), 4u); // the unknown endpoint counts too
    EXPECT_EQ(conv.bulkOut().size(), 1u);
    usb_device_close(device);
}

TEST(UsbHost, ControlTransfersAreRecordedBothWays)
{
    sim::Board board;
    sim::UsbDevice conv(board, converter());
    conv.setControlHandler([](const sim::UsbDevice::ControlTransfer &setup, std::vector<uint8_t> &data, int *err) {
        if (setup.request == 0x10) {
            data = bytes({0xde, 0xad, 0xbe, 0xef});
            return 4;
        }
        if (setup.request == 0x11) {
            *err = EPIPE;
            return -1;
        }
        return static_cast<int>(data.size());
    });
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(usb_device_control_transfer(device, 0xa1, 0xaa, 0, 0, nullptr, 0, 1000), 0);
    uint8_t out[3] = {7, 8, 9};
    EXPECT_EQ(usb_device_control_transfer(device, 0x41, 0x20, 0x1234, 2, out, 3, 1000), 3);
    uint8_t in[16] = {};
    EXPECT_EQ(usb_device_control_transfer(device, 0xc0, 0x10, 0, 0, in, 2, 1000), 2); // cut to wLength
    EXPECT_EQ(in[0], 0xde);
    EXPECT_EQ(in[1], 0xad);
    EXPECT_EQ(in[2], 0);
    errno = 0;
    EXPECT_EQ(usb_device_control_transfer(device, 0xc0, 0x11, 0, 0, in, 2, 1000), -1);
    EXPECT_EQ(errno, EPIPE);
    conv.failTransfers(sim::UsbDevice::Transfer::Control, ETIMEDOUT, 1);
    errno = 0;
    EXPECT_EQ(usb_device_control_transfer(device, 0xa1, 0xaa, 0, 0, nullptr, 0, 1000), -1);
    EXPECT_EQ(errno, ETIMEDOUT);

    const auto controls = conv.controlTransfers();
    ASSERT_EQ(controls.size(), 5u);
    EXPECT_EQ(controls[0].requestType, 0xa1);
    EXPECT_EQ(controls[0].request, 0xaa);
    EXPECT_EQ(controls[0].value, 0);
    EXPECT_EQ(controls[0].index, 0);
    EXPECT_EQ(controls[0].length, 0);
    EXPECT_EQ(controls[0].result, 0);
    EXPECT_EQ(controls[1].value, 0x1234);
    EXPECT_EQ(controls[1].index, 2);
    EXPECT_EQ(controls[1].data, bytes({7, 8, 9}));
    EXPECT_EQ(controls[2].data, bytes({0xde, 0xad}));
    EXPECT_EQ(controls[3].result, -EPIPE);
    EXPECT_EQ(controls[4].result, -ETIMEDOUT);
    usb_device_close(device);
}

TEST(UsbHost, StringsAreReadWithTheLanguageListFirst)
{
    sim::Board board;
    sim::UsbDevice cam(board, camera());
    usb_device *device = usb_device_open(cam.devnode().c_str());
    ASSERT_NE(device, nullptr);
    char *manufacturer = usb_device_get_manufacturer_name(device, 1000);
    char *product = usb_device_get_product_name(device, 1000);
    char *serial = usb_device_get_serial(device, 1000);
    ASSERT_NE(manufacturer, nullptr);
    ASSERT_NE(product, nullptr);
    ASSERT_NE(serial, nullptr);
    EXPECT_STREQ(manufacturer, "Made Up Optics");
    EXPECT_STREQ(product, "Test Camera");
    EXPECT_STREQ(serial, "SN0001");
    free(manufacturer);
    free(product);
    free(serial);
    const auto controls = cam.controlTransfers();
    ASSERT_EQ(controls.size(), 6u);
    EXPECT_EQ(controls[0].requestType, 0x80);
    EXPECT_EQ(controls[0].request, USB_REQ_GET_DESCRIPTOR);
    EXPECT_EQ(controls[0].value, 0x0300);
    EXPECT_EQ(controls[0].index, 0);
    EXPECT_EQ(controls[0].data, bytes({4, 3, 0x09, 0x04}));
    EXPECT_EQ(controls[1].value, 0x0301);
    EXPECT_EQ(controls[1].index, 0x0409);
    EXPECT_EQ(controls[3].value, 0x0302);
    EXPECT_EQ(controls[5].value, 0x0303);
    usb_device_close(device);
}

TEST(UsbHost, StringsOutsideAsciiAndMissingStrings)
{
    sim::Board board;
    sim::UsbDeviceDescription d = converter();
    d.product = "Caf\xc3\xa9";
    sim::UsbDevice conv(board, d);
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    char *product = usb_device_get_product_name(device, 1000);
    ASSERT_NE(product, nullptr);
    EXPECT_STREQ(product, "Caf??");
    free(product);
    EXPECT_EQ(usb_device_get_manufacturer_name(device, 1000), nullptr); // index 0
    errno = 0;
    EXPECT_EQ(usb_device_get_string(device, 9, 1000), nullptr); // the device stalls
    EXPECT_EQ(errno, EIO);
    usb_device_close(device);
}

TEST(UsbHost, UnplugFailsCallsOnAnOpenDeviceAndReplugBringsItBack)
{
    sim::Board board;
    sim::UsbDevice conv(board, converter());
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    ASSERT_EQ(usb_device_claim_interface(device, 0), 0);
    conv.unplug();
    EXPECT_FALSE(conv.plugged());
    uint8_t buf[512] = {};
    errno = 0;
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x01, buf, sizeof buf, 1000), -1);
    EXPECT_EQ(errno, ENODEV);
    errno = 0;
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x81, buf, sizeof buf, 1000), -1);
    EXPECT_EQ(errno, ENODEV);
    errno = 0;
    EXPECT_EQ(usb_device_control_transfer(device, 0xa1, 0xaa, 0, 0, nullptr, 0, 1000), -1);
    EXPECT_EQ(errno, ENODEV);
    errno = 0;
    EXPECT_EQ(usb_device_claim_interface(device, 0), -1);
    EXPECT_EQ(errno, ENODEV);
    usb_device_close(device);

    errno = 0;
    EXPECT_EQ(usb_device_open(conv.devnode().c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
    usb_host_context *context = usb_host_init();
    RunLog log;
    usb_host_run(context, onAdded, onRemoved, onDoneEnds, &log);
    usb_host_cleanup(context);
    EXPECT_EQ(log.snapshot(), (std::vector<std::string>{"done"}));

    conv.replug();
    device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr) << std::strerror(errno);
    EXPECT_FALSE(conv.claimed(0));
    EXPECT_EQ(usb_device_bulk_transfer(device, 0x01, buf, sizeof buf, 1000), 512);
    usb_device_close(device);
}

TEST(UsbHost, ARunReportsRemovalAndAdditionUntilACallbackEndsIt)
{
    sim::Board board;
    auto conv = std::make_unique<sim::UsbDevice>(board, converter());
    usb_host_context *context = usb_host_init();
    ASSERT_NE(context, nullptr);
    RunLog log;
    std::thread run([&] {
        usb_host_run(context, onAdded, onRemoved, onDone, &log);
        log.add("ended");
    });
    ASSERT_TRUE(log.waitFor("done"));
    // Removed while the run watches (and while a descriptor is open).
    usb_device *device = usb_device_open(conv->devnode().c_str());
    ASSERT_NE(device, nullptr);
    conv->unplug();
    EXPECT_TRUE(log.waitFor("-/dev/bus/usb/001/002"));
    usb_device_close(device);
    conv->replug();
    EXPECT_TRUE(log.waitFor("+/dev/bus/usb/001/002", 2));
    // A new device; its callback ends the run.
    log.stopOnNext = true;
    sim::UsbDevice cam(board, camera());
    EXPECT_TRUE(log.waitFor("ended"));
    run.join();
    usb_host_cleanup(context);
    EXPECT_EQ(log.snapshot(), (std::vector<std::string>{"+/dev/bus/usb/001/002", "done", "-/dev/bus/usb/001/002",
                                                        "+/dev/bus/usb/001/002", "+/dev/bus/usb/001/003",
                                                        "ended"}));
}

TEST(UsbHost, TheTraceShowsClaimsControlAndBulk)
{
    sim::Board board;
    sim::UsbDevice conv(board, converter(), "hdmi-out");
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    ASSERT_EQ(usb_device_claim_interface(device, 0), 0);
    ASSERT_EQ(usb_device_control_transfer(device, 0xa1, 0xaa, 0, 0, nullptr, 0, 1000), 0);
    uint8_t data[4] = {0, 0, 0, 5};
    ASSERT_EQ(usb_device_bulk_transfer(device, 0x01, data, 4, 1000), 4);
    usb_device_close(device);
    std::vector<std::string> notes;
    for (const auto &event : board.trace().snapshot())
        if (event.link == "hdmi-out")
            notes.push_back(event.note);
    EXPECT_EQ(notes, (std::vector<std::string>{
                         "CLAIM interface 0",
                         "CONTROL type 0xa1 request 0xaa value 0x0000 index 0x0000 length 0 -> 0",
                         "BULK OUT 0x01 4 bytes: 00 00 00 05"}));
}

TEST(UsbHost, ANewBoardDoesNotListTheDevicesOfAnEarlierOne)
{
    {
        sim::Board board;
        sim::UsbDevice conv(board, converter());
        EXPECT_EQ(access(conv.devnode().c_str(), F_OK), 0);
    }
    sim::Board board;
    DIR *bus = opendir("/dev/bus/usb/001");
    std::vector<std::string> names;
    if (bus) {
        while (dirent *entry = readdir(bus))
            if (entry->d_name[0] != '.')
                names.push_back(entry->d_name);
        closedir(bus);
    }
    EXPECT_TRUE(names.empty());
    // Numbering starts again on the new board, and the node answers.
    sim::UsbDevice conv(board, converter());
    EXPECT_EQ(conv.devnode(), "/dev/bus/usb/001/002");
    usb_device *device = usb_device_open(conv.devnode().c_str());
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(usb_device_get_vendor_id(device), 0x3c3c);
    usb_device_close(device);
}
