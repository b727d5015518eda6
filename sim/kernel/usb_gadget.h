/*
 * USB gadgets under a real kernel, for the kernel board: a device made in
 * configfs (/sys/kernel/config/usb_gadget) on one of dummy_hcd's device
 * controllers, whose host side is a USB bus of the same kernel. The host
 * then enumerates it as it would the peripheral: its sysfs entry, usbfs
 * node, hidraw node and descriptors are the kernel's own.
 *
 *   UsbGadget      the device: ids, strings, one configuration, functions
 *                  linked in the order they become interfaces; bind to a
 *                  controller (plug) and unbind (unplug).
 *   FfsFunction    a FunctionFS function: interface and endpoint
 *                  descriptors written from a UsbInterface description,
 *                  control requests to the interface handed to a handler,
 *                  one file per endpoint.
 *
 * Everything is torn down in the destructors, so the next test of the
 * same machine starts from no gadget at all.
 *
 * Threads: a gadget is made and changed by one thread (a test's); an
 * FfsFunction runs its control thread, started when it is made.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/usb_device_model.h"

namespace sim::kernel {

// The device controllers dummy_hcd gives (loaded with num=3 by
// scripts/kernel-vm): the camera, the HDMI-out converter, and one for
// devices with unusual descriptors.
inline constexpr const char *kCameraController = "dummy_udc.0";
inline constexpr const char *kConverterController = "dummy_udc.1";
inline constexpr const char *kSpareController = "dummy_udc.2";

// Writes `text` to a sysfs or configfs attribute; false on failure.
bool writeAttribute(const std::string &path, const std::string &text);
// The attribute's content without its trailing newline, "" on failure.
std::string readAttribute(const std::string &path);

class UsbGadget {
public:
    // Makes the gadget `name` with the description's ids, release number
    // and strings and one configuration; its interfaces come from the
    // functions added. ok() says whether configfs took it.
    UsbGadget(std::string name, const UsbDeviceDescription &description);
    ~UsbGadget();
    UsbGadget(const UsbGadget &) = delete;
    UsbGadget &operator=(const UsbGadget &) = delete;

    bool ok() const { return error_.empty(); }
    const std::string &error() const { return error_; }
    const std::string &dir() const { return dir_; }

    // A function instance ("hid.cam", "ffs.tool"); returns its configfs
    // directory, "" on failure. Its attributes are written before it is
    // linked into the configuration: the kernel refuses changes after.
    std::string makeFunction(const std::string &instance);
    // Links a function made here into the configuration. Functions become
    // interfaces in the order they are linked.
    bool link(const std::string &instance);

    // Plugs the device into `controller`'s bus and waits until the host
    // has it configured (its sysfs entry shows the gadget's ids); unplug
    // takes it away and waits until the host has let it go.
    bool plug(const std::string &controller);
    bool unplug();
    bool plugged() const { return !controller_.empty(); }

    // The host's view while plugged: "1-1" (its entry under
    // /sys/bus/usb/devices) and "/dev/bus/usb/001/002".
    std::string hostEntry() const;
    std::string hostNode() const;

private:
    bool hostHasIt() const;

    std::string name_;
    std::string dir_;
    uint16_t vid_ = 0;
    uint16_t pid_ = 0;
    std::string controller_;            // bound to, "" while unplugged
    std::vector<std::string> functions_; // instances made here
    std::vector<std::string> linked_;    // and linked, in order
    std::string error_;
};

class FfsFunction {
public:
    // Answers a control request to the interface: for an IN request fills
    // `data` (at most length bytes), for an OUT request reads it; false
    // stalls the request.
    using SetupHandler = std::function<bool(uint8_t requestType, uint8_t request, uint16_t value, uint16_t index,
                                            uint16_t length, std::vector<uint8_t> &data)>;
    // Told on enable (true: the host configured the device) and disable.
    using EnableHandler = std::function<void(bool enabled)>;

    // Adds the FunctionFS instance `instance` ("ffs.NAME") to the gadget,
    // mounts it under /dev/ffs-NAME and writes the interface's
    // descriptors (full and high speed). Must be done before plug().
    FfsFunction(UsbGadget &gadget, const std::string &instance, const UsbInterface &interface);
    ~FfsFunction();
    FfsFunction(const FfsFunction &) = delete;
    FfsFunction &operator=(const FfsFunction &) = delete;

    bool ok() const { return error_.empty(); }
    const std::string &error() const { return error_; }

    void setSetupHandler(SetupHandler handler);
    void setEnableHandler(EnableHandler handler);
    bool enabled() const { return enabled_.load(); }

    // The endpoint file of the interface's n-th endpoint (0-based, in the
    // description's order), opened for reading (OUT) or writing (IN);
    // -1 when missing. The function keeps it open.
    int endpoint(size_t n) const;

private:
    void controlLoop();

    std::string mountDir_;
    int ep0_ = -1;
    std::vector<int> endpoints_;
    std::atomic<bool> enabled_{false};
    std::atomic<bool> stopping_{false};
    mutable std::mutex mutex_; // guards the two handlers (set by a test, run by the control thread)
    SetupHandler setup_;
    EnableHandler onEnable_;
    std::thread control_;
    std::string error_;
};

} // namespace sim::kernel
