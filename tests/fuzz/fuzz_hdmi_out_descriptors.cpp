// Arbitrary descriptor bytes of a USB device through the HDMI-out link's
// scan callback, as usb_host_run calls it during init: whatever a device
// lists (several interfaces, endpoints before any interface, zero or short
// lengths, a record cut off by the end), the callback returns, reads
// nothing outside the bytes, and keeps the converter with the first two
// whole endpoint descriptors as bulk IN and OUT, or does not keep it. The
// callback starts no acknowledgement reader; the converter it kept is
// closed after each input.
//
// Input: what read() of the device's usbfs node gives, the device
// descriptor first. The input is written to a file that stands for the
// node; the host libusbhost opens it and reads the descriptors from it.
// The link looks for the converter the board uses, 3c3c:0a01. In inputs
// of at least a device descriptor whose bNumConfigurations (byte 17) is
// odd, the harness writes the device descriptor type (byte 1) and the
// converter's ids (bytes 8..11), so the walk is reached in depth; the
// others keep their own bytes.
//
// Checks (abort on failure), against a walk of the bytes made here with
// the host libusbhost's rules (descriptors from the first byte, each by
// its length byte, ending at a length under 2 or past the bytes read):
//  - the link kept the device, connected, exactly when it can be opened,
//    has the converter's ids, and lists an interface and two whole
//    endpoints; no reader was started;
//  - the IN and OUT endpoints are the address bytes of the first two
//    whole endpoint descriptors (IN the first when its direction bit is
//    set, else the second), or left as they were (0);
//  - the shared descriptor walk, run on the same node the way the link
//    runs it (to the last descriptor), finds the last interface, the
//    endpoints and the descriptor count that walk does.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "codec/usb_hdmi_out.h"
#include "fuzz_starters.h"
#include "usb_node.h"

using namespace avmfuzz::usbnode;

namespace {

constexpr const char *kHarness = "fuzz_hdmi_out_descriptors";
constexpr uint16_t kConverterVid = 0x3c3c;
constexpr uint16_t kConverterPid = 0x0a01;

} // namespace

// Made-up devices: the converter with one interface and its IN and OUT
// endpoints, OUT listed first, two OUT endpoints, two interfaces with two
// endpoints each, twelve endpoints before the interface, a zero length
// before the interface, a last endpoint cut off by the end, an interface
// record too short to count, and a device with other ids (two
// configurations, so its bytes are kept).
std::vector<std::string> avmfuzz::starters()
{
    const Bytes converter = deviceDescriptor(kConverterVid, kConverterPid);
    std::vector<Bytes> twelve;
    for (uint8_t i = 1; i <= 12; ++i)
        twelve.push_back(endpointDescriptor(static_cast<uint8_t>(i % 2 ? 0x80 | i : i)));
    twelve.push_back(interfaceDescriptor(0, 12));
    std::string cut =
        listing(converter, 1, {interfaceDescriptor(0, 2), endpointDescriptor(0x81), endpointDescriptor(0x01)});
    cut.resize(cut.size() - 3);
    const Bytes shortInterface = {8, USB_DT_INTERFACE, 0, 0, 2, 0xFF, 0, 0};
    return {listing(converter, 1, {interfaceDescriptor(0, 2), endpointDescriptor(0x81), endpointDescriptor(0x01)}),
            listing(converter, 1, {interfaceDescriptor(0, 2), endpointDescriptor(0x02), endpointDescriptor(0x82)}),
            listing(converter, 1, {interfaceDescriptor(0, 2), endpointDescriptor(0x01), endpointDescriptor(0x02)}),
            listing(converter, 2, {interfaceDescriptor(0, 2), endpointDescriptor(0x81), endpointDescriptor(0x01),
                                   interfaceDescriptor(1, 2), endpointDescriptor(0x83), endpointDescriptor(0x03)}),
            listing(converter, 1, twelve),
            listing(converter, 1, {Bytes{0, USB_DT_INTERFACE}, interfaceDescriptor(0, 2), endpointDescriptor(0x81),
                                   endpointDescriptor(0x01)}),
            cut,
            listing(converter, 1, {shortInterface, endpointDescriptor(0x81), endpointDescriptor(0x01)}),
            listing(deviceDescriptor(0x046d, 0xc31c, 2), 1,
                    {interfaceDescriptor(0, 1, 3), endpointDescriptor(0x81)})};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string &path = nodePath(kHarness);
    const Node node = nodeOf(data, size, kConverterVid, kConverterPid, USB_DESC_WALK_TO_END);
    writeNode(kHarness, path, node.bytes);

    usb_hdmiOut_resetForTest();
    usb_hdmiOut_setTargetForTest(kConverterVid, kConverterPid);
    const int ret = usbHdmiOut_device_added(path.c_str(), nullptr);
    const UsbHdmiOutTestState state = usb_hdmiOut_stateForTest();
    usb_hdmiOut_resetForTest();

    check(kHarness, ret == 0, "the callback asked the scan to stop");
    check(kHarness, state.readerStarted == 0, "the callback started a reader");
    const bool kept = node.ours && node.found.complete();
    check(kHarness, (state.deviceOpen != 0) == kept, "the link kept a device it should not have, or not the converter");
    check(kHarness, (state.connected != 0) == kept, "the connected flag does not follow the device kept");
    if (kept)
        check(kHarness, state.inEndpoint == node.inEndpoint() && state.outEndpoint == node.outEndpoint(),
              "the endpoints kept are not the first two whole endpoint descriptors");
    else
        check(kHarness, state.inEndpoint == 0 && state.outEndpoint == 0, "endpoints changed by a device not kept");
    checkSharedWalk(kHarness, path, node, USB_DESC_WALK_TO_END);
    return 0;
}
