/*
 * USB devices in the board's sysfs, as the kernel lists them: every device
 * has a directory under /sys/devices/.../usb1 with a "uevent" file, and an
 * entry in /sys/bus/usb/devices that is a symbolic link to it. The root
 * hub "usb1" is always there; devices (cameras, a keyboard, anything with
 * a vendor and product id) are attached and removed by name ("1-1",
 * "1-2", ...). A device also lists its first interface ("1-1:1.0"), as
 * the kernel does.
 *
 * The order in which /sys/bus/usb/devices lists its entries is the order
 * the board's file system gives (on most, an order of name hashes, not of
 * creation). listing() reads it the way the module does; attachInOrder()
 * picks the devices' names so that the listing gives them in the order
 * asked for.
 *
 * Threads: the test (or console) thread only. What it made is removed
 * when the object goes, so the next board starts without USB devices.
 */
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "board.h"

namespace sim {

class UsbSysfs {
public:
    // One attached device.
    struct Device {
        std::string name;    // "1-1"
        uint16_t vid = 0;
        uint16_t pid = 0;
        uint16_t bcdDevice = 0;
        int busnum = 1;
        int devnum = 2;
    };

    explicit UsbSysfs(Board &board);
    ~UsbSysfs();
    UsbSysfs(const UsbSysfs &) = delete;
    UsbSysfs &operator=(const UsbSysfs &) = delete;

    // Attaches a device under `name` with a uevent the kernel would write
    // ("PRODUCT=%x/%x/%x" among its lines); returns its device number on
    // bus 1. Attaching a name again replaces that device.
    int attach(const std::string &name, uint16_t vid, uint16_t pid, uint16_t bcdDevice = 0x0100);
    // Attaches devices (vendor, product) so that their first entries list
    // in this order, choosing their names ("1-1" ... "1-99"); returns the
    // names, or an empty list when no such names were found.
    std::vector<std::string> attachInOrder(const std::vector<std::pair<uint16_t, uint16_t>> &ids);
    // Position in listing() of a device's first entry (its own or its
    // interface's), or -1.
    int listedAt(const std::string &name) const;
    // Attaches a device whose uevent file holds exactly `content`.
    void attachRaw(const std::string &name, const std::string &content);
    // Takes a device (and its interface entry) away.
    void remove(const std::string &name);
    // Makes a device's uevent (and its interface's) unreadable; the
    // entries stay listed.
    void breakUevent(const std::string &name);
    // Adds a plain directory to /sys/bus/usb/devices (not a link; the
    // module skips it).
    void addPlainDirectory(const std::string &name, const std::string &ueventContent);

    std::vector<Device> devices() const;
    // Entry names of /sys/bus/usb/devices in the order a listing gives.
    std::vector<std::string> listing() const;
    // Where a sysfs path lies inside the testbed.
    std::string testbedPath(const std::string &sysPath) const;

    static std::string ueventFor(const Device &device, bool interface = false);

private:
    std::string deviceDir(const std::string &name) const; // "/sys/devices/.../name"
    void link(const std::string &name);
    void writeUevent(const std::string &sysDir, const std::string &content);

    Board &board_;
    std::string testbedRoot_;
    std::vector<Device> devices_;
    std::vector<std::string> made_; // sysfs paths to remove on destruction
    int nextDevnum_ = 2;
};

} // namespace sim
