/*
 * libusbhost as the module sees it on the device: the calls it uses, with
 * the platform library's signatures and meaning. On the device the
 * platform's libusbhost provides them; on the host, platform/host/usbhost.cpp
 * implements them over Linux usbfs ("/dev/bus/usb/BBB/DDD").
 */
#ifndef AVM_PLATFORM_USBHOST_H
#define AVM_PLATFORM_USBHOST_H

#include <stddef.h>
#include <stdint.h>

#include <linux/usb/ch9.h>

#ifdef __cplusplus
extern "C" {
#endif

struct usb_host_context;
struct usb_device;

// Called for every device present when the run starts and for every device
// added later; a non-zero result ends usb_host_run.
typedef int (*usb_device_added_cb)(const char *dev_name, void *client_data);
// Called for every device removed during the run; non-zero ends the run.
typedef int (*usb_device_removed_cb)(const char *dev_name, void *client_data);
// Called once the devices present at the start were reported; non-zero
// ends the run.
typedef int (*usb_discovery_done_cb)(void *client_data);

// A context for usb_host_run, or NULL.
struct usb_host_context *usb_host_init(void);
void usb_host_cleanup(struct usb_host_context *context);
// Reports the devices present, then watches for additions and removals
// until a callback returns non-zero.
void usb_host_run(struct usb_host_context *context, usb_device_added_cb added_cb,
                  usb_device_removed_cb removed_cb, usb_discovery_done_cb discovery_done_cb,
                  void *client_data);

// Opens a device by its name ("/dev/bus/usb/001/002"); NULL on failure
// (errno set).
struct usb_device *usb_device_open(const char *dev_name);
void usb_device_close(struct usb_device *device);
int usb_device_get_fd(struct usb_device *device);
const char *usb_device_get_name(struct usb_device *device);
uint16_t usb_device_get_vendor_id(struct usb_device *device);
uint16_t usb_device_get_product_id(struct usb_device *device);
const struct usb_device_descriptor *usb_device_get_device_descriptor(struct usb_device *device);
// A string descriptor as UTF-8 (ASCII), malloc'ed (free it), or NULL.
char *usb_device_get_string(struct usb_device *device, int id, int timeout);
char *usb_device_get_manufacturer_name(struct usb_device *device, int timeout);
char *usb_device_get_product_name(struct usb_device *device, int timeout);
char *usb_device_get_serial(struct usb_device *device, int timeout);

// Walks the descriptors read from the device: device, configuration,
// interface, endpoint, ... in the order the device gave them.
struct usb_descriptor_iter {
    struct usb_device *device;
    unsigned char *config;
    unsigned char *config_end;
    unsigned char *curr_desc;
};
void usb_descriptor_iter_init(struct usb_device *device, struct usb_descriptor_iter *iter);
// The next descriptor, or NULL at the end.
struct usb_descriptor_header *usb_descriptor_iter_next(struct usb_descriptor_iter *iter);

int usb_device_claim_interface(struct usb_device *device, unsigned int interface);
int usb_device_release_interface(struct usb_device *device, unsigned int interface);
// Bytes transferred, or a negative result (errno set). timeout in ms.
int usb_device_control_transfer(struct usb_device *device, int requestType, int request, int value,
                                int index, void *buffer, int length, unsigned int timeout);
int usb_device_bulk_transfer(struct usb_device *device, int endpoint, void *buffer, unsigned int length,
                             unsigned int timeout);

#ifdef __cplusplus
}
#endif

#endif
