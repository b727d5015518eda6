/*
 * USB devices in the board's sysfs. Files are made directly in the
 * testbed's /sys tree (umockdev redirects the module's /sys paths there);
 * the bookkeeping belongs to the test thread.
 */
#include "usb_sysfs.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <umockdev.h>

namespace sim {

namespace {

constexpr const char *kBusDir = "/sys/bus/usb/devices";
constexpr const char *kHubDir = "/sys/devices/platform/avm-board/usb1";
constexpr const char *kRootHub = "usb1";
// Relative link target from /sys/bus/usb/devices/<entry> to the hub.
constexpr const char *kLinkUp = "../../../devices/platform/avm-board/usb1";

std::string hex(unsigned value)
{
    char text[16];
    std::snprintf(text, sizeof text, "%x", value);
    return text;
}

} // namespace

UsbSysfs::UsbSysfs(Board &board) : board_(board)
{
    gchar *dir = umockdev_testbed_get_root_dir(board.testbed());
    testbedRoot_ = dir ? dir : "";
    g_free(dir);
    std::error_code ec;
    std::filesystem::create_directories(testbedPath(kBusDir), ec);
    std::filesystem::create_directories(testbedPath(kHubDir), ec);
    made_.push_back(kHubDir);
    Device hub;
    hub.name = kRootHub;
    hub.vid = 0x1d6b;
    hub.pid = 0x0002;
    hub.bcdDevice = 0x0606;
    hub.devnum = 1;
    writeUevent(kHubDir, ueventFor(hub));
    const std::string entry = testbedPath(std::string(kBusDir) + "/" + kRootHub);
    std::filesystem::remove_all(entry, ec);
    symlink(kLinkUp, entry.c_str());
    made_.push_back(std::string(kBusDir) + "/" + kRootHub);
}

UsbSysfs::~UsbSysfs()
{
    std::error_code ec;
    for (const Device &device : std::vector<Device>(devices_))
        remove(device.name);
    for (auto it = made_.rbegin(); it != made_.rend(); ++it)
        std::filesystem::remove_all(testbedPath(*it), ec);
}

std::string UsbSysfs::testbedPath(const std::string &sysPath) const { return testbedRoot_ + sysPath; }

std::string UsbSysfs::deviceDir(const std::string &name) const { return std::string(kHubDir) + "/" + name; }

std::string UsbSysfs::ueventFor(const Device &device, bool interface)
{
    char devname[32];
    std::snprintf(devname, sizeof devname, "bus/usb/%03d/%03d", device.busnum, device.devnum);
    const std::string product = "PRODUCT=" + hex(device.vid) + "/" + hex(device.pid) + "/" + hex(device.bcdDevice);
    if (interface)
        return "DEVTYPE=usb_interface\n" + product + "\nTYPE=239/2/1\nINTERFACE=14/1/0\nMODALIAS=usb:v" +
               hex(device.vid) + "p" + hex(device.pid) + "\n";
    return "MAJOR=189\nMINOR=" + std::to_string(device.devnum - 1) + "\nDEVNAME=" + devname +
           "\nDEVTYPE=usb_device\nDRIVER=usb\n" + product + "\nTYPE=239/2/1\nBUSNUM=" +
           std::to_string(device.busnum) + "\nDEVNUM=" + std::to_string(device.devnum) + "\n";
}

void UsbSysfs::writeUevent(const std::string &sysDir, const std::string &content)
{
    std::error_code ec;
    std::filesystem::create_directories(testbedPath(sysDir), ec);
    const std::string path = testbedPath(sysDir + "/uevent");
    std::filesystem::remove_all(path, ec);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

void UsbSysfs::link(const std::string &name)
{
    const std::string entry = testbedPath(std::string(kBusDir) + "/" + name);
    std::error_code ec;
    std::filesystem::remove_all(entry, ec);
    const std::string target = std::string(kLinkUp) + "/" + name;
    symlink(target.c_str(), entry.c_str());
}

int UsbSysfs::attach(const std::string &name, uint16_t vid, uint16_t pid, uint16_t bcdDevice)
{
    remove(name);
    Device device;
    device.name = name;
    device.vid = vid;
    device.pid = pid;
    device.bcdDevice = bcdDevice;
    device.devnum = nextDevnum_++;
    writeUevent(deviceDir(name), ueventFor(device));
    // The first interface lists as well, with the device's ids.
    const std::string interface = name + ":1.0";
    writeUevent(deviceDir(name) + "/" + interface, ueventFor(device, true));
    const std::string entry = testbedPath(std::string(kBusDir) + "/" + interface);
    std::error_code ec;
    std::filesystem::remove_all(entry, ec);
    const std::string target = std::string(kLinkUp) + "/" + name + "/" + interface;
    symlink(target.c_str(), entry.c_str());
    link(name);
    devices_.push_back(device);
    return device.devnum;
}

int UsbSysfs::listedAt(const std::string &name) const
{
    const std::vector<std::string> names = listing();
    for (size_t i = 0; i < names.size(); ++i)
        if (names[i] == name || names[i] == name + ":1.0")
            return static_cast<int>(i);
    return -1;
}

std::vector<std::string> UsbSysfs::attachInOrder(const std::vector<std::pair<uint16_t, uint16_t>> &ids)
{
    constexpr int kCandidates = 99;
    // Attaches the devices one by one, in the order given or (for a file
    // system that lists the newest entry first) from the last one back,
    // each under the first free name that lists it on the right side of
    // the ones placed so far.
    for (const bool backwards : {false, true}) {
        std::vector<std::string> names(ids.size());
        bool ok = true;
        for (size_t step = 0; step < ids.size() && ok; ++step) {
            const size_t i = backwards ? ids.size() - 1 - step : step;
            ok = false;
            for (int k = 1; k <= kCandidates && !ok; ++k) {
                const std::string name = "1-" + std::to_string(k);
                if (std::any_of(devices_.begin(), devices_.end(), [&](const Device &d) { return d.name == name; }))
                    continue;
                attach(name, ids[i].first, ids[i].second);
                const std::string &neighbour = step == 0 ? name : names[backwards ? i + 1 : i - 1];
                ok = step == 0 || (backwards ? listedAt(name) < listedAt(neighbour)
                                             : listedAt(neighbour) < listedAt(name));
                if (ok)
                    names[i] = name;
                else
                    remove(name);
            }
        }
        if (ok)
            return names;
        for (const auto &name : names)
            if (!name.empty())
                remove(name);
    }
    return {};
}

void UsbSysfs::attachRaw(const std::string &name, const std::string &content)
{
    remove(name);
    Device device;
    device.name = name;
    device.devnum = nextDevnum_++;
    writeUevent(deviceDir(name), content);
    link(name);
    devices_.push_back(device);
}

void UsbSysfs::remove(const std::string &name)
{
    std::error_code ec;
    std::filesystem::remove_all(testbedPath(std::string(kBusDir) + "/" + name), ec);
    std::filesystem::remove_all(testbedPath(std::string(kBusDir) + "/" + name + ":1.0"), ec);
    std::filesystem::remove_all(testbedPath(deviceDir(name)), ec);
    devices_.erase(std::remove_if(devices_.begin(), devices_.end(),
                                  [&](const Device &d) { return d.name == name; }),
                   devices_.end());
}

void UsbSysfs::breakUevent(const std::string &name)
{
    // A dangling link: the file cannot be opened, the entry still lists.
    // The interface's uevent goes the same way.
    for (const std::string &dir : {deviceDir(name), deviceDir(name) + "/" + name + ":1.0"}) {
        const std::string path = testbedPath(dir + "/uevent");
        std::error_code ec;
        if (!std::filesystem::exists(std::filesystem::symlink_status(path, ec)))
            continue;
        std::filesystem::remove_all(path, ec);
        symlink("missing-uevent", path.c_str());
    }
}

void UsbSysfs::addPlainDirectory(const std::string &name, const std::string &ueventContent)
{
    const std::string sysDir = std::string(kBusDir) + "/" + name;
    writeUevent(sysDir, ueventContent);
    made_.push_back(sysDir);
}

std::vector<UsbSysfs::Device> UsbSysfs::devices() const { return devices_; }

std::vector<std::string> UsbSysfs::listing() const
{
    std::vector<std::string> names;
    DIR *dir = opendir(testbedPath(kBusDir).c_str());
    if (dir == nullptr)
        return names;
    while (dirent *entry = readdir(dir))
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    closedir(dir);
    return names;
}

} // namespace sim
