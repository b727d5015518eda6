// Arbitrary descriptor bytes of a USB device through the camera USB tool's
// scan callback, as usb_host_run calls it: whatever a device lists (no
// interface, endpoints before it, zero or short lengths, a record cut off
// by the end), the callback returns, reads nothing outside the bytes, and
// keeps as bulk IN and OUT the first two whole endpoint descriptors, or
// none. When the tool took the device, one bulk write and one bulk read
// go to it (they fail on a regular file).
//
// Input: what read() of the device's usbfs node gives, the device
// descriptor first. The input is written to a file that stands for the
// node; the host libusbhost opens it and reads the descriptors from it.
// The tool looks for the camera read through the USB tool, 1bcf:2680. In
// inputs of at least a device descriptor whose bNumConfigurations (byte
// 17) is odd, the harness writes the device descriptor type (byte 1) and
// the camera's ids (bytes 8..11), so the walk is reached in depth; the
// others keep their own bytes.
//
// Checks (abort on failure), against a walk of the bytes made here with
// the host libusbhost's rules (descriptors from the first byte, each by
// its length byte, ending at a length under 2 or past the bytes read):
//  - the tool kept the device exactly when it can be opened and has the
//    camera's ids, and the callback failed exactly when it kept it
//    without an interface or two endpoints;
//  - the IN and OUT endpoints are both 0xFF, or the address bytes of the
//    first two whole endpoint descriptors (IN the first when its
//    direction bit is set, else the second);
//  - the shared descriptor walk, run on the same node the way the tool
//    runs it, finds the interface, endpoints and descriptor count that
//    walk does.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "camera/usb_tool.h"
#include "fuzz_starters.h"
#include "usb_node.h"

using namespace avmfuzz::usbnode;

namespace {

constexpr const char *kHarness = "fuzz_usb_tool_descriptors";
constexpr uint16_t kCameraVid = 0x1bcf;
constexpr uint16_t kCameraPid = 0x2680;
constexpr uint8_t kNoEndpoint = 0xFF;

} // namespace

// Made-up devices: the camera with one interface and its IN and OUT
// endpoints, OUT listed first, twelve endpoints before the interface, a
// zero length before the interface, a last endpoint cut off by the end, a
// short endpoint record before a whole one, and a device with other ids
// (two configurations, so its bytes are kept).
std::vector<std::string> avmfuzz::starters()
{
    const Bytes camera = deviceDescriptor(kCameraVid, kCameraPid);
    std::vector<Bytes> twelve;
    for (uint8_t i = 1; i <= 12; ++i)
        twelve.push_back(endpointDescriptor(static_cast<uint8_t>(i % 2 ? i : 0x80 | i)));
    twelve.push_back(interfaceDescriptor(0, 12));
    std::string cut = listing(camera, 1, {interfaceDescriptor(0, 2), endpointDescriptor(0x81), endpointDescriptor(0x02)});
    cut.resize(cut.size() - 3);
    const Bytes shortEndpoint = {6, USB_DT_ENDPOINT, 0x83, USB_ENDPOINT_XFER_BULK, 0x00, 0x02};
    return {listing(camera, 1, {interfaceDescriptor(0, 2), endpointDescriptor(0x81), endpointDescriptor(0x02)}),
            listing(camera, 1, {interfaceDescriptor(1, 2), endpointDescriptor(0x03), endpointDescriptor(0x84)}),
            listing(camera, 1, twelve),
            listing(camera, 1, {Bytes{0, USB_DT_INTERFACE}, interfaceDescriptor(0, 2), endpointDescriptor(0x81),
                                endpointDescriptor(0x02)}),
            cut,
            listing(camera, 1, {interfaceDescriptor(0, 3), shortEndpoint, endpointDescriptor(0x81),
                                endpointDescriptor(0x02)}),
            listing(deviceDescriptor(0x046d, 0xc31c, 2), 1,
                    {interfaceDescriptor(0, 1, 3), endpointDescriptor(0x81)})};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string &path = nodePath(kHarness);
    const Node node = nodeOf(data, size, kCameraVid, kCameraPid, USB_DESC_WALK_ONCE_KNOWN);
    writeNode(kHarness, path, node.bytes);

    usb_tool_resetForTest();
    usb_tool_setTargetForTest(kCameraVid, kCameraPid);
    const int ret = usbTool_device_added(path.c_str(), nullptr);
    const bool taken = usbtool_device_is_open() != 0;
    const uint8_t in = usbtool_in_endpoint();
    const uint8_t out = usbtool_out_endpoint();
    if (taken) {
        uint8_t buffer[64] = {};
        usbtool_buffer_write(buffer, sizeof buffer);
        usbtool_buffer_read(buffer, sizeof buffer);
    }
    usb_tool_resetForTest();

    const bool complete = node.found.complete();
    check(kHarness, taken == node.ours, "the tool kept a device other than an openable camera, or not the camera");
    check(kHarness, ret == (node.ours && !complete ? -1 : 0), "the callback's result does not match what the device lists");
    if (node.ours && complete)
        check(kHarness, in == node.inEndpoint() && out == node.outEndpoint(),
              "the endpoints kept are not the first two whole endpoint descriptors");
    else
        check(kHarness, in == kNoEndpoint && out == kNoEndpoint, "endpoints kept from a device not fully taken");
    checkSharedWalk(kHarness, path, node, USB_DESC_WALK_ONCE_KNOWN);
    return 0;
}
