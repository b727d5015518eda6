/*
 * The walk over a USB device's descriptors that the camera's USB tool and
 * the HDMI-out link both make when they find their device: it keeps the
 * most recent interface descriptor and the first two endpoint descriptors,
 * in the order the device lists them. The two callers differ only in when
 * the walk ends: the USB tool stops as soon as an interface and two
 * endpoints are known, the HDMI-out link walks every descriptor (so its
 * interface is the last one listed).
 *
 * The descriptors come from whatever is plugged in and are not trusted;
 * see usb_descriptors.cpp for what the walk checks and why.
 */
#ifndef AVM_USB_DESCRIPTORS_H
#define AVM_USB_DESCRIPTORS_H

#include <stdint.h>

#include <usbhost/usbhost.h>

#ifdef __cplusplus
extern "C" {
#endif

/* When the walk ends, besides the end of the descriptors. */
enum UsbDescWalkEnd {
    USB_DESC_WALK_TO_END = 0,     /* every descriptor is looked at */
    USB_DESC_WALK_ONCE_KNOWN = 1, /* ends once an interface and two endpoints are known */
};

/* What a walk found. Pointers point into the device's descriptor bytes and
 * stay valid while the device is open. */
struct UsbDescWalk {
    const struct usb_interface_descriptor *interface; /* the most recent one, or NULL */
    const struct usb_endpoint_descriptor *endpoints[2]; /* the first two, in listing order */
    int endpointCount;                                 /* 0..2 */
    int descriptors;                                   /* descriptors the walk stepped over */
};

/* Walks `device`'s descriptors into `out` (zeroed first). */
void usbDescWalk(struct usb_device *device, enum UsbDescWalkEnd end, struct UsbDescWalk *out);

#ifdef __cplusplus
}
#endif

#endif
