// Unusual descriptor layouts through the real kernel's enumeration: a
// device presents exactly the bytes of the hardening cases (endpoints
// listed before their interface, a zero length, a record cut by the
// configuration's total length), the host side of the kernel enumerates
// it, and the module's HDMI-out scan reads what the kernel kept through
// usbfs. Asserted on the bytes read back (the kernel skips what follows
// a broken descriptor) and on the scan's outcome and log lines, as for the
// same layouts on the virtual board.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/usb/ch9.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "codec/usb_hdmi_out.h"
#include "log_capture.h"
#include "sim/hdmi_out_model.h"
#include "sim/kernel/gadgetfs_device.h"
#include "sim/usb_device_model.h"

using sim::kernel::GadgetfsDevice;

namespace {

constexpr const char *kTag = "CODECHAL";
constexpr int kVid = sim::HdmiOutModel::kVendorId;
constexpr int kPid = sim::HdmiOutModel::kProductId;

const sim::UsbEndpoint kIn{0x81, 0x02, 512, 0};
const sim::UsbEndpoint kOut{0x01, 0x02, 512, 0};

// The converter's ids and no strings (a string request would go to the
// test's side of the device, which stalls it).
sim::UsbDeviceDescription converterIds()
{
    sim::UsbDeviceDescription d;
    d.vendorId = kVid;
    d.productId = kPid;
    sim::UsbInterface interface;
    interface.endpoints = {kIn, kOut};
    d.interfaces = {interface};
    return d;
}

std::vector<uint8_t> join(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> out;
    for (const auto &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

struct Layout {
    std::vector<uint8_t> device;        // 18 bytes
    std::vector<uint8_t> configuration; // header and body, as presented
};

Layout layout(const std::vector<uint8_t> &body)
{
    const std::vector<uint8_t> all = sim::usbDescriptorsListing(converterIds(), body);
    return {std::vector<uint8_t>(all.begin(), all.begin() + 18), std::vector<uint8_t>(all.begin() + 18, all.end())};
}

// Bytes as hex, for messages that show where two differ.
std::string hex(const std::vector<uint8_t> &bytes)
{
    std::string out;
    char b[4];
    for (uint8_t v : bytes) {
        std::snprintf(b, sizeof b, "%02x ", v);
        out += b;
    }
    return out;
}

constexpr uint8_t kUntouched = 0xEE;

// What the device's usbfs node reads back, into a buffer marked
// kUntouched.
std::vector<uint8_t> readBack(const std::string &node)
{
    std::vector<uint8_t> buf(4096, kUntouched);
    const int fd = open(node.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        ADD_FAILURE() << "open " << node << ": " << std::strerror(errno);
        return {};
    }
    const ssize_t n = read(fd, buf.data(), buf.size());
    if (n < 0)
        ADD_FAILURE() << "read " << node << ": " << std::strerror(errno);
    close(fd);
    buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buf;
}

class KernelDescriptorLayout : public ::testing::Test {
protected:
    void TearDown() override { codecHal_usb_hdmiOut_deinit(); }

    // The device is enumerated, and reads back as it was presented up to
    // `kept` bytes; usbfs counts the rest but leaves the reader's buffer
    // as it was there.
    void present(const Layout &l, size_t kept)
    {
        device = std::make_unique<GadgetfsDevice>(l.device, l.configuration);
        ASSERT_EQ(device->error(), "");
        std::vector<uint8_t> expected = join({l.device, l.configuration});
        std::fill(expected.begin() + static_cast<long>(kept), expected.end(), kUntouched);
        EXPECT_EQ(hex(readBack(device->hostNode())), hex(expected));
    }

    avmtest::LogCapture log;
    std::unique_ptr<GadgetfsDevice> device;
};

} // namespace

TEST_F(KernelDescriptorLayout, EndpointsListedBeforeTheirInterfaceAreTakenAndTheInterfaceClaimed)
{
    sim::UsbInterface interface;
    interface.endpoints = {kIn, kOut};
    const Layout l = layout(join({sim::usbEndpointDescriptor(kIn), sim::usbEndpointDescriptor(kOut),
                                  sim::usbInterfaceDescriptor(interface)}));
    present(l, l.device.size() + l.configuration.size()); // all of it
    EXPECT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    EXPECT_TRUE(log.contains(kTag, "founded usb hdmiOut device!!!"));
    EXPECT_FALSE(log.countContaining(kTag, "ignoring usb_claim_interface") > 0) << "the kernel has interface 0";
    EXPECT_FALSE(log.contains(kTag, "endpoints not found!"));
}

TEST_F(KernelDescriptorLayout, AZeroLengthEndsTheWalkWithOneEndpointAndTheDeviceIsLeft)
{
    sim::UsbInterface interface;
    interface.endpoints = {kIn, kOut};
    present(layout(join({sim::usbInterfaceDescriptor(interface), sim::usbEndpointDescriptor(kIn),
                         std::vector<uint8_t>{0, USB_DT_ENDPOINT}, sim::usbEndpointDescriptor(kOut)})),
            18 + 9 + 9 + 7); // up to the zero length
    EXPECT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), -1);
    EXPECT_TRUE(log.contains(kTag, "founded usb hdmiOut device!!!"));
    EXPECT_TRUE(log.contains(kTag, "endpoints not found!"));
}

TEST_F(KernelDescriptorLayout, ARecordCutByTheTotalLengthIsNotTaken)
{
    sim::UsbInterface interface;
    interface.endpoints = {kIn, kOut};
    std::vector<uint8_t> body = join(
        {sim::usbInterfaceDescriptor(interface), sim::usbEndpointDescriptor(kIn), sim::usbEndpointDescriptor(kOut)});
    body.resize(body.size() - 4); // the OUT endpoint keeps 3 of its 7 bytes
    present(layout(body), 18 + 9 + 9 + 7); // up to the cut record
    EXPECT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), -1);
    EXPECT_TRUE(log.contains(kTag, "endpoints not found!"));
}
