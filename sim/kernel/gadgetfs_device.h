/*
 * A USB device of the kernel board whose descriptors are exactly the
 * bytes a test gives (gadgetfs): the device descriptor and one
 * configuration with whatever it holds, however unusual (endpoints
 * before their interface, zero lengths, a record cut by the total
 * length). The host side of the kernel enumerates it as it would such a
 * device, so what its usbfs node reads back is what the kernel kept.
 *
 * gadgetfs takes the first free device controller; only one such device
 * at a time. It answers the standard requests itself and completes the
 * configuration it hands over; every other request it hands over
 * (strings, vendor requests) is stalled, so give no string indices.
 * Threads: one reads the control endpoint's events.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace sim::kernel {

class GadgetfsDevice {
public:
    // `configuration` starts with its 9-byte header; its total length is
    // taken from there.
    GadgetfsDevice(const std::vector<uint8_t> &device, const std::vector<uint8_t> &configuration);
    ~GadgetfsDevice();
    GadgetfsDevice(const GadgetfsDevice &) = delete;
    GadgetfsDevice &operator=(const GadgetfsDevice &) = delete;

    // Empty once the host has the device; otherwise what went wrong.
    const std::string &error() const { return error_; }
    // Its entry under /sys/bus/usb/devices and its usbfs node.
    const std::string &hostEntry() const { return entry_; }
    std::string hostNode() const;

private:
    void events();

    std::string mountDir_;
    int ep0_ = -1;
    std::atomic<bool> stopping_{false};
    std::thread events_;
    std::string entry_;
    std::string error_;
};

} // namespace sim::kernel
