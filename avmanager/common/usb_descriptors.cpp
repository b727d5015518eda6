/*
 * USB descriptor walk shared by the camera's USB tool and the HDMI-out
 * link. No state; runs on the caller's thread.
 *
 * Anyone can make a USB device report any ids and any descriptors, so the
 * walk trusts nothing it reads:
 *  - it keeps at most two endpoints, however many a device lists before
 *    (or without) an interface;
 *  - a descriptor is taken as an interface or an endpoint only when its
 *    length byte covers the whole record and the record lies inside the
 *    bytes read from the device; a shorter one is stepped over;
 *  - it ends when the iterator hands out a descriptor that does not lie
 *    after the previous one or whose head runs past the bytes read.
 * The iterator is the platform's libusbhost on the device, not ours: one
 * that steps by a length byte of 0 would hand out the same descriptor
 * forever, and one that does not check the end would walk off the bytes.
 * The host libusbhost ends its walk at such a descriptor itself; the
 * guard here keeps the module safe whichever iterator it runs on.
 */
#include "common/usb_descriptors.h"

#include <cstddef>
#include <cstdint>

namespace {

constexpr size_t kHeaderSize = 2; // bLength, bDescriptorType

// The record at `bytes` when it is of `type`, says it is at least `size`
// bytes long, and all of those lie before `limit`.
const uint8_t *wholeRecord(const uint8_t *bytes, const uint8_t *limit, uint8_t type, size_t size)
{
    const auto *header = reinterpret_cast<const usb_descriptor_header *>(bytes);
    if (header->bDescriptorType != type || header->bLength < size)
        return nullptr;
    if (static_cast<size_t>(limit - bytes) < size)
        return nullptr;
    return bytes;
}

} // namespace

extern "C" void usbDescWalk(usb_device *device, UsbDescWalkEnd end, UsbDescWalk *out)
{
    *out = UsbDescWalk{};
    if (device == nullptr)
        return;
    usb_descriptor_iter iter;
    usb_descriptor_iter_init(device, &iter);
    const uint8_t *begin = iter.config;
    const uint8_t *limit = iter.config_end;
    if (begin == nullptr || limit == nullptr || limit < begin)
        return;
    const uint8_t *previous = nullptr;
    while (end != USB_DESC_WALK_ONCE_KNOWN || out->interface == nullptr || out->endpointCount < 2) {
        const usb_descriptor_header *header = usb_descriptor_iter_next(&iter);
        if (header == nullptr)
            break;
        // Compared as addresses: a pointer the iterator made up need not
        // point into the bytes at all.
        const auto at = reinterpret_cast<uintptr_t>(header);
        if (at < reinterpret_cast<uintptr_t>(begin) || at > reinterpret_cast<uintptr_t>(limit) ||
            reinterpret_cast<uintptr_t>(limit) - at < kHeaderSize ||
            (previous != nullptr && at <= reinterpret_cast<uintptr_t>(previous)))
            break;
        const auto *bytes = reinterpret_cast<const uint8_t *>(header);
        previous = bytes;
        ++out->descriptors;
        if (const uint8_t *d = wholeRecord(bytes, limit, USB_DT_INTERFACE, USB_DT_INTERFACE_SIZE))
            out->interface = reinterpret_cast<const usb_interface_descriptor *>(d);
        else if (out->endpointCount < 2)
            if (const uint8_t *e = wholeRecord(bytes, limit, USB_DT_ENDPOINT, USB_DT_ENDPOINT_SIZE))
                out->endpoints[out->endpointCount++] = reinterpret_cast<const usb_endpoint_descriptor *>(e);
    }
}
