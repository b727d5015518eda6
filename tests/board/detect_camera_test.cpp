// USB camera discovery and versions on the virtual board: the kernel's
// USB device list in sysfs, the supported-camera table, the version asked
// over the camera's HID channel and published as a property, the cameras
// whose release number is read through libusbhost, and the USB tool's
// bulk transfers. Asserted on the current camera, properties, the reports
// and transfers the models saw, and the module's log lines.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <android/log.h>
#include <cutils/properties.h>
#include <linux/usb/ch9.h>

#include "avmanager_hal.h"
#include "camera/cam_detect.h"
#include "camera/cam_hid.h"
#include "hid_channel.h"
#include "camera/usb_tool.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/board.h"
#include "sim/hid_camera_model.h"
#include "sim/usb_device_model.h"
#include "sim/usb_sysfs.h"

using namespace std::chrono_literals;

namespace {

constexpr auto kWait = 5s;
const char *const kTag = "DETECT_HAL";

bool isCurrent(uint32_t vid, uint32_t pid)
{
    const SupportCamInfo cam = cam_detect_current();
    return cam.vid == vid && cam.pid == pid;
}

// A camera read through its USB descriptor: bulk interface 0 with an IN
// and an OUT endpoint.
sim::UsbDeviceDescription usbCamera(uint16_t vid, uint16_t pid, uint16_t bcd)
{
    sim::UsbDeviceDescription d;
    d.vendorId = vid;
    d.productId = pid;
    d.bcdDevice = bcd;
    d.manufacturer = "Made-up Optics";
    d.product = "Conference Cam";
    d.serial = "MU-0001";
    sim::UsbInterface interface;
    interface.endpoints = {sim::UsbEndpoint{0x81, 0x02, 512, 0}, sim::UsbEndpoint{0x02, 0x02, 512, 0}};
    d.interfaces = {interface};
    return d;
}

class CamDetectBoard : public ::testing::Test {
protected:
    void TearDown() override
    {
        // The channel and its receive thread end before the cameras go.
        std::vector<sim::HidCameraLogic *> hids;
        for (auto &camera : cameras)
            hids.push_back(camera.get());
        avmtest::stopHidChannel(hids);
        cameras.clear();
    }

    // The camera's HID interface on a hidraw node, kept to the end of the
    // test.
    sim::HidCameraModel &hid(const char *node, uint16_t vid = 0x2E7D, uint16_t pid = 0x051A)
    {
        cameras.push_back(std::make_unique<sim::HidCameraModel>(board, node, vid, pid));
        return *cameras.back();
    }

    avmtest::LogCapture log;
    sim::Board board;
    std::vector<std::unique_ptr<sim::HidCameraModel>> cameras;
};

TEST_F(CamDetectBoard, OfTwoSupportedCamerasTheOneListedFirstWins)
{
    sim::UsbSysfs usb(board);
    // cam 3559 listed before cam smart 3559.
    const auto names = usb.attachInOrder({{0x2E7D, 0x0502}, {0x254A, 0x0C02}});
    ASSERT_EQ(names.size(), 2u);
    ASSERT_LT(usb.listedAt(names[0]), usb.listedAt(names[1]));
    ASSERT_TRUE(get_camera_pidVid());
    EXPECT_STREQ(cam_detect_current().name, "cam 3559");
    EXPECT_TRUE(log.contains(kTag, std::to_string(getppid()) + " " + std::to_string(gettid()) + " 2e7d:0502\n"));
    // The other way round.
    for (const auto &name : names)
        usb.remove(name);
    const auto swapped = usb.attachInOrder({{0x254A, 0x0C02}, {0x2E7D, 0x0502}});
    ASSERT_EQ(swapped.size(), 2u);
    ASSERT_TRUE(get_camera_pidVid());
    EXPECT_STREQ(cam_detect_current().name, "cam smart 3559");
    EXPECT_TRUE(log.contains(kTag, std::to_string(getppid()) + " " + std::to_string(gettid()) + " 254a:0c02\n"));
}

TEST_F(CamDetectBoard, Row3sUeventLineIsTheDualCameraThatHandsOutItsLogs)
{
    sim::UsbSysfs usb(board);
    usb.attachRaw("1-1", "DEVTYPE=usb_device\nPRODUCT=2e7d/51a/100\nTYPE=239/2/1\n");
    ASSERT_TRUE(get_camera_pidVid());
    const SupportCamInfo cam = cam_detect_current();
    EXPECT_EQ(cam.vid, 0x2E7Du);
    EXPECT_EQ(cam.pid, 0x051Au);
    EXPECT_STREQ(cam.name, "cam x3m dual");
    EXPECT_TRUE(isCamSupportCatchLogs(0x2E7D, 0x051A));
    EXPECT_FALSE(isCamSupportCatchLogs(0x2E7D, 0x0F4F)); // row 2's ids
}

TEST_F(CamDetectBoard, Row3sProductUnderAnotherVendorIsNoSupportedCamera)
{
    sim::UsbSysfs usb(board);
    usb.attachRaw("1-1", "DEVTYPE=usb_device\nPRODUCT=1ff7/51a/100\n");
    EXPECT_FALSE(get_camera_pidVid());
    EXPECT_FALSE(isCamSupportCatchLogs(0x1FF7, 0x051A));
    EXPECT_EQ(cam_detect_current().vid, 0u);
}

TEST_F(CamDetectBoard, AnUnsupportedDeviceLeavesTheCurrentCameraAsItWas)
{
    sim::UsbSysfs usb(board);
    usb.attach("1-1", 0x2E7D, 0x0F4F);
    ASSERT_TRUE(get_camera_pidVid());
    usb.remove("1-1");
    usb.attach("1-2", 0x046D, 0xC31C); // a keyboard
    EXPECT_FALSE(get_camera_pidVid());
    EXPECT_STREQ(cam_detect_current().name, "cam x3m");
}

TEST_F(CamDetectBoard, AnUnreadableUeventIsLoggedAndTheScanGoesOn)
{
    sim::UsbSysfs usb(board);
    // The broken entry is listed first, the working camera after it.
    const auto names = usb.attachInOrder({{0x2E7D, 0x0502}, {0x2E7D, 0x051B}});
    ASSERT_EQ(names.size(), 2u);
    usb.breakUevent(names[0]);
    ASSERT_TRUE(get_camera_pidVid());
    EXPECT_TRUE(isCurrent(0x2E7D, 0x051B));
    const std::string prefix = std::to_string(getppid()) + " " + std::to_string(gettid()) +
                               " open /sys/bus/usb/devices/" + names[0];
    EXPECT_GE(log.countContaining(kTag, prefix), 1u);
    usb.remove(names[1]);
    EXPECT_FALSE(get_camera_pidVid());
    const std::string line = prefix + "/uevent failed!\n";
    EXPECT_TRUE(log.contains(kTag, line));
    EXPECT_EQ(log.priorityOf(kTag, line), ANDROID_LOG_ERROR);
}

TEST_F(CamDetectBoard, PlainDirectoriesInTheDeviceListAreSkipped)
{
    sim::UsbSysfs usb(board);
    usb.addPlainDirectory("9-9", "PRODUCT=2e7d/502/100\n");
    EXPECT_FALSE(get_camera_pidVid());
    EXPECT_EQ(cam_detect_current().vid, 0u);
}

TEST_F(CamDetectBoard, WithoutTheSysfsTreeNoCameraIsAttached)
{
    // The board's /sys has no USB devices, whatever the machine has.
    EXPECT_NE(access("/sys/bus/usb/devices", F_OK), 0);
    EXPECT_FALSE(get_camera_pidVid());
    EXPECT_EQ(detectCamVersion(), 0);
    EXPECT_EQ(log.countContaining(kTag, "founded camera"), 0u);
}

TEST_F(CamDetectBoard, WithTheVersionKnownTheDetectionLeavesSysfsAlone)
{
    sim::UsbSysfs usb(board);
    usb.attach("1-1", 0x2E7D, 0x051A);
    auto &camera = hid("/dev/hidraw0");
    detectHal_camera_version_update("X3M-DUAL 9.9.9 (made up)");
    ASSERT_FALSE(cam_detect_need_update_version());
    // A scan would log this broken entry.
    usb.breakUevent("1-1");
    EXPECT_EQ(detectCamVersion(), 0);
    EXPECT_EQ(log.countContaining(kTag, "open /sys/bus/usb/devices"), 0u);
    EXPECT_EQ(log.countContaining(kTag, "founded camera"), 0u);
    EXPECT_EQ(camera.versionRequests(), 0u);
    EXPECT_EQ(camera.rawInfoRequests(), 0u);
}

TEST_F(CamDetectBoard, TheVersionRequestGoesOutAndItsAnswerBecomesTheProperty)
{
    sim::UsbSysfs usb(board);
    usb.attach("1-1", 0x2E7D, 0x051A);
    auto &camera = hid("/dev/hidraw0");
    camera.setVersion("X3M-DUAL 3.1.0 (made up)");
    EXPECT_EQ(detectCamVersion(), 64);
    EXPECT_TRUE(log.contains(kTag, "founded camera vid 2e7d pid 51a name: cam x3m dual!"));
    ASSERT_TRUE(sim::waitUntil([] { return avmtest::prop("persist.vendor.cam.version") == "X3M-DUAL 3.1.0 (made up)"; },
                               kWait));
    EXPECT_FALSE(cam_detect_need_update_version());
    // The request: head AA BB CC 20 06 and zeros, checksum byte included.
    const auto reports = camera.reportsWritten();
    ASSERT_EQ(reports.size(), 2u); // probe, request
    std::vector<uint8_t> request(64, 0);
    request[0] = 0xAA;
    request[1] = 0xBB;
    request[2] = 0xCC;
    request[3] = 0x20;
    request[4] = 0x06;
    EXPECT_EQ(reports[1], request);
    // Known now: no second request.
    EXPECT_EQ(detectCamVersion(), 0);
    EXPECT_EQ(camera.versionRequests(), 1u);
}

TEST_F(CamDetectBoard, AnOpenChannelIsUsedAsItIs)
{
    sim::UsbSysfs usb(board);
    usb.attach("1-1", 0x2E7D, 0x0508);
    auto &camera = hid("/dev/hidraw5", 0x2E7D, 0x0508);
    camera.setSilent(true);
    ASSERT_EQ(hal_hidraw_init(0x2E7D, 0x0508), 0);
    EXPECT_EQ(detectCamVersion(), 64);
    EXPECT_TRUE(log.contains(kTag, "hal_hidraw dev have opedend! direct to send."));
    EXPECT_EQ(camera.probes(), 1u); // no second start
    EXPECT_TRUE(cam_detect_need_update_version());
}

TEST_F(CamDetectBoard, ACameraWithoutItsHidNodeFailsTheStart)
{
    sim::UsbSysfs usb(board);
    usb.attach("1-1", 0x2E7D, 0x0502);
    EXPECT_EQ(detectCamVersion(), -1);
    EXPECT_TRUE(log.contains(kTag, "hal_hidraw_init FAILED!!"));
    EXPECT_EQ(log.priorityOf(kTag, "hal_hidraw_init FAILED!!"), ANDROID_LOG_ERROR);
}

TEST_F(CamDetectBoard, TheDetectionThreadPublishesTheCameraVersion)
{
    sim::UsbSysfs usb(board);
    usb.attach("1-1", 0x2E7D, 0x051A);
    auto &camera = hid("/dev/hidraw0");
    camera.setVersion("X3M-DUAL 4.0.2 (made up)");
    const avmanager_module_t *hmi = nullptr;
    ASSERT_TRUE(avmtest::startModule(hmi)); // every switch off: detection only
    EXPECT_TRUE(sim::waitUntil([] { return avmtest::prop("persist.vendor.cam.version") == "X3M-DUAL 4.0.2 (made up)"; },
                               kWait));
    // Later passes leave the camera alone. Until the answer is in, every
    // pass asks (one when the answer is quick, more on a busy machine); a
    // pass that had begun before the answer may still ask once, so the
    // count is taken a pass later and must not move after that.
    std::this_thread::sleep_for(400ms);
    const size_t asked = camera.versionRequests();
    EXPECT_GE(asked, 1u);
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(camera.versionRequests(), asked);
}

class UsbCameraBoard : public CamDetectBoard, public ::testing::WithParamInterface<int> {};

TEST_P(UsbCameraBoard, TheReleaseNumberIsLoggedAndTheCameraKeepsAsking)
{
    const SupportCamInfo &row = gSupportCamList[GetParam()];
    sim::UsbSysfs usb(board);
    usb.attach("1-1", static_cast<uint16_t>(row.vid), static_cast<uint16_t>(row.pid), 0x0412);
    sim::UsbDevice device(board, usbCamera(static_cast<uint16_t>(row.vid), static_cast<uint16_t>(row.pid), 0x0412));
    // Another device on the bus is looked at and left.
    sim::UsbDevice other(board, usbCamera(0x046D, 0xC31C, 0x0999));
    EXPECT_EQ(detectCamVersion(), 0);
    EXPECT_EQ(log.count(kTag, "0412"), 1u);
    EXPECT_EQ(log.priorityOf(kTag, "0412"), ANDROID_LOG_INFO);
    EXPECT_EQ(log.count(kTag, "0999"), 0u);
    EXPECT_TRUE(cam_detect_need_update_version());
    EXPECT_EQ(avmtest::prop("persist.vendor.cam.version"), "");
    // Nothing was stored, so the next pass asks again.
    EXPECT_EQ(detectCamVersion(), 0);
    EXPECT_EQ(log.count(kTag, "0412"), 2u);
}

INSTANTIATE_TEST_SUITE_P(Rows5And7, UsbCameraBoard, ::testing::Values(5, 7));

TEST_F(CamDetectBoard, TheUsbToolOpensTheDeviceLearnsItsEndpointsAndMovesBulkData)
{
    sim::UsbDevice other(board, usbCamera(0x046D, 0xC31C, 0x0100));
    sim::UsbDevice device(board, usbCamera(0x1BCF, 0x2680, 0x0100));
    ASSERT_EQ(usbtool_device_init(0x1BCF, 0x2680), 0);
    ASSERT_EQ(usbtool_device_is_open(), 1);
    EXPECT_EQ(usbtool_in_endpoint(), 0x81);
    EXPECT_EQ(usbtool_out_endpoint(), 0x02);
    EXPECT_TRUE(device.claimed(0));
    EXPECT_FALSE(other.claimed(0));
    const uint8_t out[5] = {'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(usbtool_buffer_write(out, sizeof out), 5);
    ASSERT_EQ(device.bulkOut().size(), 1u);
    EXPECT_EQ(device.bulkOut()[0].endpoint, 0x02);
    EXPECT_EQ(device.bulkOut()[0].bytes, std::vector<uint8_t>(out, out + 5));
    device.queueIn(0x81, {9, 8, 7});
    uint8_t in[16] = {};
    EXPECT_EQ(usbtool_buffer_read(in, sizeof in), 3);
    EXPECT_EQ(in[0], 9);
    EXPECT_EQ(in[2], 7);
    // Nothing queued: the transfer fails and says so.
    EXPECT_LT(usbtool_buffer_read(in, sizeof in), 0);
    EXPECT_TRUE(log.contains(kTag, "usbtool_buffer_read failed!"));
    // Opening again drops the device held so far.
    ASSERT_EQ(usbtool_device_init(0x1BCF, 0x2680), 0);
    EXPECT_TRUE(log.contains(kTag, "current device disconnected"));
}

TEST_F(CamDetectBoard, TheUsbToolEndpointsComeTheOtherWayRound)
{
    sim::UsbDeviceDescription d = usbCamera(0x1BCF, 0x2680, 0x0100);
    d.interfaces[0].endpoints = {sim::UsbEndpoint{0x03, 0x02, 512, 0}, sim::UsbEndpoint{0x84, 0x02, 512, 0}};
    sim::UsbDevice device(board, d);
    ASSERT_EQ(usbtool_device_init(0x1BCF, 0x2680), 0);
    EXPECT_EQ(usbtool_in_endpoint(), 0x84);
    EXPECT_EQ(usbtool_out_endpoint(), 0x03);
}

TEST_F(CamDetectBoard, TheUsbToolWithoutAnInterfaceOrTwoEndpointsSaysSo)
{
    sim::UsbDeviceDescription none = usbCamera(0x1BCF, 0x2680, 0x0100);
    none.interfaces.clear();
    {
        sim::UsbDevice device(board, none);
        EXPECT_EQ(usbtool_device_init(0x1BCF, 0x2680), 0);
        EXPECT_TRUE(log.contains(kTag, "interface not found!"));
        EXPECT_EQ(usbtool_in_endpoint(), 0xFF);
    }
    sim::UsbDeviceDescription one = usbCamera(0x0BDA, 0x5876, 0x0100);
    one.interfaces[0].endpoints.resize(1);
    sim::UsbDevice device(board, one);
    EXPECT_EQ(usbtool_device_init(0x0BDA, 0x5876), 0);
    EXPECT_TRUE(log.contains(kTag, "endpoints not found!"));
    EXPECT_FALSE(device.claimed(0));
}

TEST_F(CamDetectBoard, TheUsbToolForgetsItsDeviceWhenItIsRemoved)
{
    sim::UsbDevice device(board, usbCamera(0x1BCF, 0x2680, 0x0100));
    ASSERT_EQ(usbtool_device_init(0x1BCF, 0x2680), 0);
    ASSERT_EQ(usbtool_device_is_open(), 1);
    EXPECT_EQ(usbTool_device_removed("/dev/bus/usb/009/009", nullptr), 0);
    EXPECT_EQ(usbtool_device_is_open(), 1);
    EXPECT_EQ(usbTool_device_removed(device.devnode().c_str(), nullptr), 0);
    EXPECT_EQ(usbtool_device_is_open(), 0);
    EXPECT_TRUE(log.contains(kTag, "removed current device!!"));
    uint8_t buf[4] = {};
    EXPECT_LT(usbtool_buffer_write(buf, sizeof buf), 0);
    EXPECT_TRUE(log.contains(kTag, "usb_device_bulk_transfer failed! result -1"));
}

TEST_F(CamDetectBoard, BeforeAnyVersionReadTheListingCallbackLogsEachDevice)
{
    sim::UsbDevice device(board, usbCamera(0x1BCF, 0x2680, 0x0100));
    EXPECT_EQ(lsusb_device_added(device.devnode().c_str(), nullptr), 0);
    const std::string line = device.devnode() + ": 1bcf:2680 Made-up Optics Conference Cam MU-0001\n";
    EXPECT_TRUE(log.contains(kTag, line));
    EXPECT_EQ(log.priorityOf(kTag, line), ANDROID_LOG_ERROR);
    EXPECT_EQ(lsusb_device_added("/dev/bus/usb/009/009", nullptr), 0);
    EXPECT_EQ(log.countContaining(kTag, "can't open device /dev/bus/usb/009/009: "), 1u);
    EXPECT_EQ(lsusb_device_removed(device.devnode().c_str(), nullptr), 0);
    EXPECT_EQ(lsusb_discovery_done(nullptr), 1);
}

} // namespace

// Anyone can make a USB device report the camera's ids. One that lists
// twelve endpoints before its interface: the tool keeps the first two,
// claims the interface that follows them, and its transfers go to those
// two endpoints.
TEST_F(CamDetectBoard, TheUsbToolKeepsTheFirstTwoOfTwelveEndpointsListedBeforeTheInterface)
{
    sim::UsbDeviceDescription d = usbCamera(0x1BCF, 0x2680, 0x0100);
    sim::UsbInterface &interface = d.interfaces[0];
    interface.number = 3;
    interface.endpoints.clear();
    // OUT 0x01, IN 0x82, OUT 0x03, IN 0x84, ... OUT 0x0b, IN 0x8c.
    for (uint8_t i = 1; i <= 12; ++i)
        interface.endpoints.push_back(sim::UsbEndpoint{static_cast<uint8_t>(i % 2 ? i : (0x80 | i)), 0x02, 512, 0});
    std::vector<uint8_t> body;
    for (const auto &endpoint : interface.endpoints) {
        const auto e = sim::usbEndpointDescriptor(endpoint);
        body.insert(body.end(), e.begin(), e.end());
    }
    const auto head = sim::usbInterfaceDescriptor(interface);
    body.insert(body.end(), head.begin(), head.end());
    sim::UsbDevice device(board, d);
    device.setRawDescriptors(sim::usbDescriptorsListing(d, body));

    ASSERT_EQ(usbtool_device_init(0x1BCF, 0x2680), 0);
    ASSERT_EQ(usbtool_device_is_open(), 1);
    EXPECT_EQ(log.countContaining(kTag, "not found!"), 0u);
    const auto claims = device.claimEvents();
    ASSERT_EQ(claims.size(), 1u);
    EXPECT_EQ(claims[0].interface, 3u);
    EXPECT_EQ(claims[0].result, 0);
    // The first endpoint is OUT, so the second is IN.
    EXPECT_EQ(usbtool_in_endpoint(), 0x82);
    EXPECT_EQ(usbtool_out_endpoint(), 0x01);
    const uint8_t out[3] = {1, 2, 3};
    EXPECT_EQ(usbtool_buffer_write(out, sizeof out), 3);
    ASSERT_EQ(device.bulkOut().size(), 1u);
    EXPECT_EQ(device.bulkOut()[0].endpoint, 0x01);
    device.queueIn(0x82, {7, 7});
    device.queueIn(0x84, {9, 9, 9});
    uint8_t in[8] = {};
    EXPECT_EQ(usbtool_buffer_read(in, sizeof in), 2);
    ASSERT_EQ(device.bulkIn().size(), 1u);
    EXPECT_EQ(device.bulkIn()[0].endpoint, 0x82);
    EXPECT_EQ(device.queuedIn(0x84), 1u);
}

namespace {

// A camera-tool device whose descriptors after the device and
// configuration descriptors are `body`, raw.
struct HostileLayout {
    const char *name;
    std::vector<uint8_t> body;
    const char *log; // what the scan says, or nullptr when it takes the device
};

std::vector<uint8_t> concat(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> out;
    for (const auto &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

std::vector<HostileLayout> hostileLayouts()
{
    sim::UsbInterface interface;
    interface.number = 0;
    const auto iface = sim::usbInterfaceDescriptor(interface);
    const auto in = sim::usbEndpointDescriptor(sim::UsbEndpoint{0x81, 0x02, 512, 0});
    const auto out = sim::usbEndpointDescriptor(sim::UsbEndpoint{0x02, 0x02, 512, 0});
    std::vector<uint8_t> truncatedOut(out.begin(), out.begin() + 4);
    std::vector<uint8_t> truncatedIface(iface.begin(), iface.begin() + 5);
    return {
        {"no interface at all", {}, "interface not found!"},
        {"a zero length before the interface", concat({{0x00, USB_DT_INTERFACE, 0, 0}, iface, in, out}),
         "interface not found!"},
        {"a length of one before the interface", concat({{0x01, USB_DT_ENDPOINT}, iface, in, out}),
         "interface not found!"},
        {"a zero length between the endpoints", concat({iface, in, {0x00, USB_DT_ENDPOINT, 0x02}, out}),
         "endpoints not found!"},
        {"a last endpoint running past the end", concat({iface, in, truncatedOut}), "endpoints not found!"},
        {"an interface cut short by the end", concat({in, out, truncatedIface}), "interface not found!"},
        {"a length running far past the end", concat({iface, in, {0xff, USB_DT_ENDPOINT, 0x02, 0x02}}),
         "endpoints not found!"},
        {"a zero length after everything is known", concat({iface, in, out, {0x00, 0x00}}), nullptr},
        {"an endpoint shorter than an endpoint record before the endpoints",
         concat({iface, {0x04, USB_DT_ENDPOINT, 0x85, 0x02}, in, out}), nullptr},
    };
}

} // namespace

// Broken descriptor sets from a device with the camera's ids: zero and
// one-byte lengths, lengths past the end, truncated records, a record too
// short for its type, no interface. The scan never hangs or reads outside
// the bytes (the sanitizer builds check the latter); it says what it missed
// and claims nothing, or takes the whole records it found before the break.
TEST_F(CamDetectBoard, TheUsbToolSurvivesBrokenDescriptorsAndSaysWhatItMissed)
{
    for (const auto &layout : hostileLayouts()) {
        SCOPED_TRACE(layout.name);
        log.clear();
        sim::UsbDevice device(board, usbCamera(0x1BCF, 0x2680, 0x0100));
        device.setRawDescriptors(sim::usbDescriptorsListing(device.description(), layout.body));
        EXPECT_EQ(usbtool_device_init(0x1BCF, 0x2680), 0);
        if (layout.log != nullptr) {
            EXPECT_TRUE(log.contains(kTag, layout.log));
            EXPECT_EQ(log.countContaining(kTag, "not found!"), 1u);
            EXPECT_TRUE(device.claimEvents().empty());
            EXPECT_EQ(usbtool_in_endpoint(), 0xFF);
        } else {
            EXPECT_EQ(log.countContaining(kTag, "not found!"), 0u);
            ASSERT_EQ(device.claimEvents().size(), 1u);
            EXPECT_EQ(usbtool_in_endpoint(), 0x81);
            EXPECT_EQ(usbtool_out_endpoint(), 0x02);
        }
        usb_tool_resetForTest();
    }
}

// Two interfaces with two endpoints each: the tool stops as soon as it
// knows an interface and two endpoints, so it claims the first interface
// and uses its endpoints. (The HDMI-out scan walks on and claims the last
// interface listed: HdmiOut.TheLastInterfaceListedIsClaimedWithTheFirstTwoEndpoints.)
TEST_F(CamDetectBoard, WithTwoInterfacesTheUsbToolClaimsTheFirstAndUsesItsEndpoints)
{
    sim::UsbDeviceDescription d = usbCamera(0x1BCF, 0x2680, 0x0100);
    sim::UsbInterface second;
    second.number = 1;
    second.endpoints = {sim::UsbEndpoint{0x83, 0x02, 512, 0}, sim::UsbEndpoint{0x04, 0x02, 512, 0}};
    d.interfaces.push_back(second);
    sim::UsbDevice device(board, d);
    ASSERT_EQ(usbtool_device_init(0x1BCF, 0x2680), 0);
    const auto claims = device.claimEvents();
    ASSERT_EQ(claims.size(), 1u);
    EXPECT_EQ(claims[0].interface, 0u);
    EXPECT_EQ(usbtool_in_endpoint(), 0x81);
    EXPECT_EQ(usbtool_out_endpoint(), 0x02);
    const uint8_t out[2] = {5, 6};
    EXPECT_EQ(usbtool_buffer_write(out, sizeof out), 2);
    ASSERT_EQ(device.bulkOut().size(), 1u);
    EXPECT_EQ(device.bulkOut()[0].endpoint, 0x02);
}
