/*
 * USB tool over libusbhost.
 *
 * usbtool_device_init runs one libusbhost scan of the attached devices,
 * opens the one whose ids match the target ("%04x:%04x"), claims its
 * interface and learns its bulk IN and OUT endpoints; the buffer calls
 * then move data with bulk transfers. usbtool_getCamVersion runs the same
 * kind of scan with the lsusb callbacks, which log the target's release
 * number (bcdDevice). Every scan ends after the devices present at its
 * start were reported (lsusb_discovery_done returns 1).
 *
 * Threads: the detection thread (usbtool_getCamVersion on each pass for
 * the cameras read this way) and whichever thread uses the bulk calls.
 * Each operation holds gUsbToolLock for its whole run; the callbacks run
 * inside usb_host_run on that thread, under the same hold.
 *
 * State (gUsbTool, under gUsbToolLock): the open device, the host
 * context of the scan in progress, the target text, the two endpoint
 * addresses and the mode flag set by usbtool_getCamVersion.
 *
 * Descriptors come from the device and are not trusted: the walk over
 * them (common/usb_descriptors.cpp) keeps only what lies inside them.
 *
 * Log tag "DETECT_HAL".
 */
#include "camera/usb_tool.h"
#include "common/usb_descriptors.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <mutex>

#include <android/log.h>
#include <endian.h>
#include <usbhost/usbhost.h>

#define LOG_TAG "DETECT_HAL"
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

constexpr uint8_t kNoEndpoint = 0xFF;
constexpr unsigned kTransferTimeoutMs = 1000;
constexpr int kStringTimeoutMs = 1000;
constexpr uint8_t kEndpointDirIn = 0x80; // bit 7 of an endpoint address
constexpr size_t kTargetSize = 16;       // "vvvv:pppp" and room to spare

struct UsbTool {
    usb_device *device = nullptr;          // the open device, or none
    usb_host_context *context = nullptr;   // the scan in progress
    char target[kTargetSize] = {};         // ids looked for, "%04x:%04x"
    uint8_t inEndpoint = kNoEndpoint;      // bulk IN address
    uint8_t outEndpoint = kNoEndpoint;     // bulk OUT address
    uint8_t mode = 0;                      // 1: the lsusb scan reads the version
};

std::mutex gUsbToolLock; // held by every operation for its whole run
UsbTool gUsbTool;        // under gUsbToolLock

void formatIds(char *out, size_t size, unsigned vid, unsigned pid)
{
    snprintf(out, size, "%04x:%04x", vid & 0xFFFFu, pid & 0xFFFFu);
}

bool matchesTarget(usb_device *device)
{
    char ids[kTargetSize];
    formatIds(ids, sizeof ids, usb_device_get_vendor_id(device), usb_device_get_product_id(device));
    return strcmp(ids, gUsbTool.target) == 0;
}

const char *orEmpty(const char *text) { return text ? text : ""; }

void closeDevice()
{
    if (gUsbTool.device != nullptr) {
        usb_device_close(gUsbTool.device);
        gUsbTool.device = nullptr;
    }
}

// Runs one scan with the given callbacks (under gUsbToolLock).
int runScan(usb_device_added_cb added, usb_device_removed_cb removed)
{
    gUsbTool.context = usb_host_init();
    if (gUsbTool.context == nullptr) {
        LOGE("usb_host_init failed!");
        return -1;
    }
    usb_host_run(gUsbTool.context, added, removed, lsusb_discovery_done, nullptr);
    usb_host_cleanup(gUsbTool.context);
    gUsbTool.context = nullptr;
    return 0;
}

} // namespace

extern "C" {

int usbtool_device_init(uint32_t vid, uint32_t pid)
{
    std::lock_guard<std::mutex> lock(gUsbToolLock);
    gUsbTool.inEndpoint = kNoEndpoint;
    gUsbTool.outEndpoint = kNoEndpoint;
    gUsbTool.context = nullptr;
    if (gUsbTool.device != nullptr) {
        LOGE("current device disconnected");
        closeDevice();
    }
    formatIds(gUsbTool.target, sizeof gUsbTool.target, vid, pid);
    return runScan(usbTool_device_added, usbTool_device_removed);
}

int usbTool_device_added(const char *devname, void *)
{
    usb_device *device = usb_device_open(devname);
    if (device == nullptr) {
        LOGE("can't open device %s: %s", orEmpty(devname), strerror(errno));
        return 0;
    }
    if (!matchesTarget(device)) {
        usb_device_close(device);
        return 0;
    }
    // A second device with the same ids takes the place of the first.
    closeDevice();
    gUsbTool.device = device;

    // The most recent interface and the first two endpoints, stopping once
    // both are known: endpoints listed before any interface count, and
    // any past the second are not kept.
    UsbDescWalk walk;
    usbDescWalk(device, USB_DESC_WALK_ONCE_KNOWN, &walk);
    const usb_interface_descriptor *interface = walk.interface;
    const usb_endpoint_descriptor *const *endpoints = walk.endpoints;
    if (interface == nullptr) {
        LOGE("interface not found!");
        return -1;
    }
    if (walk.endpointCount < 2) {
        LOGE("endpoints not found!");
        return -1;
    }
    if (usb_device_claim_interface(device, interface->bInterfaceNumber) != 0)
        LOGE("ignoring usb_claim_interface errno: %d!", errno);
    if (endpoints[0]->bEndpointAddress & kEndpointDirIn) {
        gUsbTool.inEndpoint = endpoints[0]->bEndpointAddress;
        gUsbTool.outEndpoint = endpoints[1]->bEndpointAddress;
    } else {
        gUsbTool.inEndpoint = endpoints[1]->bEndpointAddress;
        gUsbTool.outEndpoint = endpoints[0]->bEndpointAddress;
    }
    return 0;
}

int usbTool_device_removed(const char *devname, void *)
{
    if (gUsbTool.device != nullptr && devname != nullptr &&
        strcmp(orEmpty(usb_device_get_name(gUsbTool.device)), devname) == 0) {
        LOGE("removed current device!!");
        closeDevice();
    }
    return 0;
}

int usbtool_buffer_read(void *buffer, int length)
{
    std::lock_guard<std::mutex> lock(gUsbToolLock);
    int ret = -1;
    if (gUsbTool.device != nullptr && buffer != nullptr && length >= 0)
        ret = usb_device_bulk_transfer(gUsbTool.device, gUsbTool.inEndpoint, buffer,
                                       static_cast<unsigned>(length), kTransferTimeoutMs);
    if (ret < 0)
        LOGE("usbtool_buffer_read failed!");
    return ret;
}

int usbtool_buffer_write(const void *buffer, int length)
{
    std::lock_guard<std::mutex> lock(gUsbToolLock);
    int ret = -1;
    if (gUsbTool.device != nullptr && buffer != nullptr && length >= 0)
        // The transfer only reads an OUT buffer; the call takes it as void *.
        ret = usb_device_bulk_transfer(gUsbTool.device, gUsbTool.outEndpoint, const_cast<void *>(buffer),
                                       static_cast<unsigned>(length), kTransferTimeoutMs);
    if (ret < 0)
        LOGE("usb_device_bulk_transfer failed! result %d", ret);
    return ret;
}

int usbtool_getCamVersion(uint32_t vid, uint32_t pid)
{
    std::lock_guard<std::mutex> lock(gUsbToolLock);
    gUsbTool.mode = 1;
    formatIds(gUsbTool.target, sizeof gUsbTool.target, vid, pid);
    return runScan(lsusb_device_added, lsusb_device_removed);
}

int lsusb_device_added(const char *devname, void *)
{
    usb_device *device = usb_device_open(devname);
    if (device == nullptr) {
        LOGE("can't open device %s: %s", orEmpty(devname), strerror(errno));
        return 0;
    }
    if (gUsbTool.mode != 1) {
        char *manufacturer = usb_device_get_manufacturer_name(device, kStringTimeoutMs);
        char *product = usb_device_get_product_name(device, kStringTimeoutMs);
        char *serial = usb_device_get_serial(device, kStringTimeoutMs);
        LOGE("%s: %04x:%04x %s %s %s\n", orEmpty(devname), usb_device_get_vendor_id(device),
             usb_device_get_product_id(device), orEmpty(manufacturer), orEmpty(product), orEmpty(serial));
        free(manufacturer);
        free(product);
        free(serial);
    } else if (matchesTarget(device)) {
        const usb_device_descriptor *descriptor = usb_device_get_device_descriptor(device);
        if (descriptor != nullptr)
            LOGI("%04x", static_cast<unsigned>(le16toh(descriptor->bcdDevice)));
    }
    usb_device_close(device);
    return 0;
}

int lsusb_device_removed(const char *, void *)
{
    return 0;
}

int lsusb_discovery_done(void *)
{
    // Ends the run once the devices present at its start were reported.
    return 1;
}

uint8_t usbtool_in_endpoint(void)
{
    std::lock_guard<std::mutex> lock(gUsbToolLock);
    return gUsbTool.inEndpoint;
}

uint8_t usbtool_out_endpoint(void)
{
    std::lock_guard<std::mutex> lock(gUsbToolLock);
    return gUsbTool.outEndpoint;
}

int usbtool_device_is_open(void)
{
    std::lock_guard<std::mutex> lock(gUsbToolLock);
    return gUsbTool.device != nullptr ? 1 : 0;
}

#ifdef AVM_HOST_BUILD
void usb_tool_resetForTest(void)
{
    std::lock_guard<std::mutex> lock(gUsbToolLock);
    closeDevice();
    gUsbTool = UsbTool{};
}

void usb_tool_setTargetForTest(uint32_t vid, uint32_t pid)
{
    std::lock_guard<std::mutex> lock(gUsbToolLock);
    formatIds(gUsbTool.target, sizeof gUsbTool.target, vid, pid);
}
#endif

} // extern "C"
