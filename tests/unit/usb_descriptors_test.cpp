// The USB descriptor walk of the camera's USB tool and the HDMI-out link,
// on descriptor bytes made up here and handed out by an iterator that
// trusts every length byte, as a platform library may: this program
// defines the libusbhost iterator calls itself, so the module's walk runs
// on them instead of the host library's (which guards its own walk). Each
// set of bytes lives in a buffer of exactly its size, so the sanitizer
// builds catch any read past it.
#include <gtest/gtest.h>

#include <linux/usb/ch9.h>

#include <cstring>
#include <memory>
#include <vector>

#include "common/usb_descriptors.h"

namespace {

// What the walk's device stands for here: the descriptor bytes.
struct FakeDevice {
    std::unique_ptr<uint8_t[]> bytes;
    size_t size = 0;
};

// How the iterator below misbehaves.
enum class Iterator { Trusting, Backwards };
Iterator gIterator = Iterator::Trusting;
int gSteps = 0; // descriptors handed out by the iterator

FakeDevice device(const std::vector<uint8_t> &bytes)
{
    FakeDevice d;
    d.size = bytes.size();
    d.bytes.reset(new uint8_t[d.size == 0 ? 1 : d.size]);
    if (d.size > 0)
        memcpy(d.bytes.get(), bytes.data(), d.size);
    return d;
}

usb_device *asDevice(FakeDevice &d) { return reinterpret_cast<usb_device *>(&d); }

std::vector<uint8_t> endpoint(uint8_t address) { return {USB_DT_ENDPOINT_SIZE, USB_DT_ENDPOINT, address, 2, 0, 2, 0}; }

std::vector<uint8_t> interface(uint8_t number) { return {USB_DT_INTERFACE_SIZE, USB_DT_INTERFACE, number, 0, 2, 0xff, 0, 0, 0}; }

std::vector<uint8_t> operator+(std::vector<uint8_t> a, const std::vector<uint8_t> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class UsbDescriptorWalk : public ::testing::Test {
protected:
    void SetUp() override
    {
        gIterator = Iterator::Trusting;
        gSteps = 0;
    }
    UsbDescWalk walk(const std::vector<uint8_t> &bytes, UsbDescWalkEnd end)
    {
        held = device(bytes);
        UsbDescWalk w;
        usbDescWalk(asDevice(held), end, &w);
        return w;
    }
    FakeDevice held;
};

} // namespace

// The iterator a platform library may have: it steps by each descriptor's
// own length byte and only checks that it has not yet reached the end.
extern "C" void usb_descriptor_iter_init(struct usb_device *d, struct usb_descriptor_iter *iter)
{
    auto *fake = reinterpret_cast<FakeDevice *>(d);
    iter->device = d;
    iter->config = fake->bytes.get();
    iter->config_end = fake->bytes.get() + fake->size;
    iter->curr_desc = fake->bytes.get();
}

extern "C" struct usb_descriptor_header *usb_descriptor_iter_next(struct usb_descriptor_iter *iter)
{
    if (iter->curr_desc >= iter->config_end || ++gSteps > 1000)
        return nullptr;
    auto *header = reinterpret_cast<usb_descriptor_header *>(iter->curr_desc);
    if (gIterator == Iterator::Backwards)
        iter->curr_desc = iter->config; // starts over, forever
    else
        iter->curr_desc += header->bLength; // may step past the end, or not at all
    return header;
}

TEST_F(UsbDescriptorWalk, TwelveEndpointsBeforeTheInterfaceKeepTheFirstTwo)
{
    std::vector<uint8_t> bytes;
    for (uint8_t i = 1; i <= 12; ++i)
        bytes = bytes + endpoint(i % 2 ? i : static_cast<uint8_t>(0x80 | i));
    bytes = bytes + interface(3) + interface(4);
    const UsbDescWalk once = walk(bytes, USB_DESC_WALK_ONCE_KNOWN);
    ASSERT_NE(once.interface, nullptr);
    EXPECT_EQ(once.interface->bInterfaceNumber, 3);
    ASSERT_EQ(once.endpointCount, 2);
    EXPECT_EQ(once.endpoints[0]->bEndpointAddress, 0x01);
    EXPECT_EQ(once.endpoints[1]->bEndpointAddress, 0x82);
    EXPECT_EQ(once.descriptors, 13) << "stopped at the first interface";
    const UsbDescWalk all = walk(bytes, USB_DESC_WALK_TO_END);
    ASSERT_NE(all.interface, nullptr);
    EXPECT_EQ(all.interface->bInterfaceNumber, 4) << "the most recent interface";
    EXPECT_EQ(all.endpoints[1]->bEndpointAddress, 0x82);
    EXPECT_EQ(all.descriptors, 14);
}

TEST_F(UsbDescriptorWalk, AZeroLengthThatTheIteratorCannotStepOverEndsTheWalk)
{
    const auto bytes = interface(0) + endpoint(0x81) + std::vector<uint8_t>{0, USB_DT_ENDPOINT, 0x02, 2} + endpoint(0x02);
    const UsbDescWalk w = walk(bytes, USB_DESC_WALK_TO_END);
    EXPECT_NE(w.interface, nullptr);
    EXPECT_EQ(w.endpointCount, 1);
    EXPECT_EQ(w.descriptors, 3) << "the zero-length one is the last looked at";
    EXPECT_LT(gSteps, 10) << "the walk did not follow the iterator round";
}

TEST_F(UsbDescriptorWalk, ALengthOfOneIsSteppedOverAndTheWalkGoesOn)
{
    // The trusting iterator steps one byte on: the next "descriptor" starts
    // inside the broken one. Nothing there is whole, so nothing is taken
    // until the real descriptors line up again.
    const auto bytes = std::vector<uint8_t>{1} + interface(5) + endpoint(0x81) + endpoint(0x02);
    const UsbDescWalk w = walk(bytes, USB_DESC_WALK_TO_END);
    ASSERT_NE(w.interface, nullptr);
    EXPECT_EQ(w.interface->bInterfaceNumber, 5);
    EXPECT_EQ(w.endpointCount, 2);
}

TEST_F(UsbDescriptorWalk, ARecordCutShortByTheEndIsNotTaken)
{
    const auto whole = interface(0) + endpoint(0x81);
    const auto cut = endpoint(0x02);
    const auto bytes = whole + std::vector<uint8_t>(cut.begin(), cut.begin() + 4);
    const UsbDescWalk w = walk(bytes, USB_DESC_WALK_TO_END);
    EXPECT_NE(w.interface, nullptr);
    EXPECT_EQ(w.endpointCount, 1);
    const auto cutInterface = interface(1);
    const UsbDescWalk w2 = walk(endpoint(0x81) + endpoint(0x02) +
                                    std::vector<uint8_t>(cutInterface.begin(), cutInterface.begin() + 5),
                                USB_DESC_WALK_TO_END);
    EXPECT_EQ(w2.interface, nullptr);
    EXPECT_EQ(w2.endpointCount, 2);
}

TEST_F(UsbDescriptorWalk, ALastByteAloneIsNotReadAsAHeader)
{
    // One byte left: its type byte would lie past the bytes read.
    const auto bytes = interface(0) + endpoint(0x81) + endpoint(0x02) + std::vector<uint8_t>{7};
    const UsbDescWalk w = walk(bytes, USB_DESC_WALK_TO_END);
    EXPECT_NE(w.interface, nullptr);
    EXPECT_EQ(w.endpointCount, 2);
    EXPECT_EQ(w.descriptors, 3);
}

TEST_F(UsbDescriptorWalk, ShortRecordsOfTheRightTypeAreSteppedOver)
{
    const auto bytes = std::vector<uint8_t>{5, USB_DT_INTERFACE, 9, 0, 0} + std::vector<uint8_t>{4, USB_DT_ENDPOINT, 0x85, 2} +
                       interface(1) + endpoint(0x81) + endpoint(0x02);
    const UsbDescWalk w = walk(bytes, USB_DESC_WALK_ONCE_KNOWN);
    ASSERT_NE(w.interface, nullptr);
    EXPECT_EQ(w.interface->bInterfaceNumber, 1);
    ASSERT_EQ(w.endpointCount, 2);
    EXPECT_EQ(w.endpoints[0]->bEndpointAddress, 0x81);
}

TEST_F(UsbDescriptorWalk, AnIteratorThatStartsOverEndsTheWalk)
{
    gIterator = Iterator::Backwards;
    const UsbDescWalk w = walk(endpoint(0x81) + interface(0), USB_DESC_WALK_TO_END);
    EXPECT_EQ(w.descriptors, 1);
    EXPECT_LT(gSteps, 10);
}

TEST_F(UsbDescriptorWalk, NoBytesAndNoDeviceFindNothing)
{
    const UsbDescWalk empty = walk({}, USB_DESC_WALK_TO_END);
    EXPECT_EQ(empty.interface, nullptr);
    EXPECT_EQ(empty.endpointCount, 0);
    EXPECT_EQ(empty.descriptors, 0);
    UsbDescWalk none;
    usbDescWalk(nullptr, USB_DESC_WALK_ONCE_KNOWN, &none);
    EXPECT_EQ(none.descriptors, 0);
}
