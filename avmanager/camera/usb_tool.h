/*
 * USB tool: finds a USB device by vendor and product id through libusbhost
 * and talks bulk transfers to it; reads a camera's release number
 * (bcdDevice) from its device descriptor.
 */
#ifndef AVM_USB_TOOL_H
#define AVM_USB_TOOL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

int usbtool_device_init(uint32_t vid, uint32_t pid);
int usbtool_buffer_read(void *buffer, int length);
int usbtool_buffer_write(const void *buffer, int length);
int usbtool_getCamVersion(uint32_t vid, uint32_t pid);

/* libusbhost callbacks. */
int usbTool_device_added(const char *devname, void *client_data);
int usbTool_device_removed(const char *devname, void *client_data);
int lsusb_device_added(const char *devname, void *client_data);
int lsusb_device_removed(const char *devname, void *client_data);
int lsusb_discovery_done(void *client_data);

/* Bulk endpoint addresses of the open device (0xFF when unknown). */
uint8_t usbtool_in_endpoint(void);
uint8_t usbtool_out_endpoint(void);
/* Whether usbtool_device_init left a device open. */
int usbtool_device_is_open(void);

#ifdef AVM_HOST_BUILD
/* Only tests call this: closes the open device and forgets the target, as
 * at process start. */
void usb_tool_resetForTest(void);
/* Only tests call this: sets the ids the scan callbacks look for, as
 * usbtool_device_init does, without scanning the attached devices, so a
 * test can hand usbTool_device_added a device node of its own. */
void usb_tool_setTargetForTest(uint32_t vid, uint32_t pid);
#endif

#ifdef __cplusplus
}
#endif

#endif
