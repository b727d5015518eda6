// The host libusbhost against the kernel's own usbfs: a claim refused
// while a kernel driver holds the interface, calls on a device that was
// unplugged, and bulk IN transfers held for their time-out and ended
// early when data comes. The same calls the virtual board's USB device
// model answers, asserted on the kernel's answers.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <linux/usb/ch9.h>
#include <usbhost/usbhost.h>

#include "sim/board.h"
#include "sim/kernel/kernel_camera.h"
#include "test_helpers.h"

using namespace std::chrono_literals;
using sim::kernel::KernelCamera;

namespace {

constexpr auto kWait = 10s;

class KernelUsbHost : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(camera.error(), "") << "the camera gadget did not come up";
        device = usb_device_open(camera.hostNode().c_str());
        ASSERT_NE(device, nullptr);
        // Interface 0: the bulk pair, as the kernel enumerated it.
        usb_descriptor_iter it;
        usb_descriptor_iter_init(device, &it);
        while (usb_descriptor_header *d = usb_descriptor_iter_next(&it)) {
            if (d->bDescriptorType == USB_DT_INTERFACE)
                interface = reinterpret_cast<usb_interface_descriptor *>(d)->bInterfaceNumber;
            if (d->bDescriptorType == USB_DT_ENDPOINT && interface == 0) {
                const auto *e = reinterpret_cast<usb_endpoint_descriptor *>(d);
                (e->bEndpointAddress & USB_DIR_IN ? in : out) = e->bEndpointAddress;
            }
        }
        ASSERT_NE(in, 0);
        ASSERT_NE(out, 0);
    }
    void TearDown() override
    {
        if (device)
            usb_device_close(device);
    }

    KernelCamera camera{0x1BCF, 0x2680};
    usb_device *device = nullptr;
    int interface = -1;
    uint8_t in = 0;
    uint8_t out = 0;
};

} // namespace

TEST_F(KernelUsbHost, AClaimIsRefusedWhileAKernelDriverHoldsTheInterface)
{
    // usbhid holds interface 1 (the HID channel): busy.
    errno = 0;
    EXPECT_EQ(usb_device_claim_interface(device, 1), -1);
    EXPECT_EQ(errno, EBUSY);
    // Interface 0 has no driver: claimed, released, and there is no 2.
    EXPECT_EQ(usb_device_claim_interface(device, 0), 0);
    EXPECT_EQ(usb_device_release_interface(device, 0), 0);
    errno = 0;
    EXPECT_EQ(usb_device_claim_interface(device, 2), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(KernelUsbHost, ABulkInWithNothingToReadIsHeldForItsTimeOut)
{
    ASSERT_EQ(usb_device_claim_interface(device, 0), 0);
    uint8_t buf[512];
    const auto start = std::chrono::steady_clock::now();
    errno = 0;
    EXPECT_EQ(usb_device_bulk_transfer(device, in, buf, sizeof buf, 700), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(avmtest::msSince(start), 690);
}

TEST_F(KernelUsbHost, ABulkInEndsAsSoonAsDataComes)
{
    ASSERT_EQ(usb_device_claim_interface(device, 0), 0);
    std::thread late([&] {
        std::this_thread::sleep_for(300ms);
        camera.tool().queueIn({1, 2, 3, 4});
    });
    uint8_t buf[512];
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(usb_device_bulk_transfer(device, in, buf, sizeof buf, 20000), 4);
    const long long took = avmtest::msSince(start);
    late.join();
    EXPECT_GE(took, 250);
    EXPECT_LT(took, 15000) << "the transfer waits for the data, not for its 20 s";
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + 4), (std::vector<uint8_t>{1, 2, 3, 4}));
}

TEST_F(KernelUsbHost, CallsOnAnUnpluggedDeviceFailWithNoDevice)
{
    ASSERT_EQ(usb_device_claim_interface(device, 0), 0);
    const std::string node = camera.hostNode();
    ASSERT_TRUE(camera.unplug());
    EXPECT_TRUE(sim::waitUntil([&] { return access(node.c_str(), F_OK) != 0; }, kWait)) << "the node leaves /dev";
    uint8_t buf[64] = {};
    errno = 0;
    EXPECT_EQ(usb_device_bulk_transfer(device, out, buf, sizeof buf, 1000), -1);
    EXPECT_EQ(errno, ENODEV);
    errno = 0;
    EXPECT_EQ(usb_device_bulk_transfer(device, in, buf, sizeof buf, 1000), -1);
    EXPECT_EQ(errno, ENODEV);
    errno = 0;
    EXPECT_LT(usb_device_control_transfer(device, USB_DIR_IN | USB_TYPE_STANDARD | USB_RECIP_DEVICE,
                                          USB_REQ_GET_DESCRIPTOR, USB_DT_DEVICE << 8, 0, buf, 18, 1000),
              0);
    EXPECT_EQ(errno, ENODEV);
    errno = 0;
    EXPECT_EQ(usb_device_release_interface(device, 0), -1);
    EXPECT_EQ(errno, ENODEV);
}
