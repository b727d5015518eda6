/*
 * A gadgetfs device presenting a test's own descriptor bytes.
 */
#include "gadgetfs_device.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/usb/ch9.h>
#include <linux/usb/gadgetfs.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "sim/board.h"
#include "usb_gadget.h"

namespace sim::kernel {

namespace {

constexpr const char *kMountDir = "/dev/gadget";
constexpr std::chrono::milliseconds kHostWait{20000};
constexpr int kPollMs = 100;

// The host's entry for a device with these ids, "" while none.
std::string entryWithIds(uint16_t vid, uint16_t pid)
{
    char want[2][8];
    std::snprintf(want[0], sizeof want[0], "%04x", vid);
    std::snprintf(want[1], sizeof want[1], "%04x", pid);
    std::string found;
    DIR *dir = opendir("/sys/bus/usb/devices");
    if (!dir)
        return "";
    while (dirent *e = readdir(dir)) {
        const std::string name = e->d_name;
        if (name[0] == '.' || name.find(':') != std::string::npos || name.rfind("usb", 0) == 0)
            continue;
        const std::string base = "/sys/bus/usb/devices/" + name;
        if (readAttribute(base + "/idVendor") == want[0] && readAttribute(base + "/idProduct") == want[1])
            found = name;
    }
    closedir(dir);
    return found;
}

} // namespace

GadgetfsDevice::GadgetfsDevice(const std::vector<uint8_t> &device, const std::vector<uint8_t> &configuration)
{
    if (device.size() != USB_DT_DEVICE_SIZE || configuration.size() < USB_DT_CONFIG_SIZE) {
        error_ = "a device descriptor of 18 bytes and a configuration of at least 9 are needed";
        return;
    }
    mkdir(kMountDir, 0755);
    if (mount("gadgetfs", kMountDir, "gadgetfs", 0, nullptr) != 0) {
        error_ = std::string("mount gadgetfs: ") + std::strerror(errno);
        return;
    }
    mountDir_ = kMountDir;
    // The control endpoint's file is named after the controller.
    std::string ep0;
    if (DIR *dir = opendir(kMountDir)) {
        while (dirent *e = readdir(dir))
            if (e->d_name[0] != '.')
                ep0 = std::string(kMountDir) + "/" + e->d_name;
        closedir(dir);
    }
    ep0_ = ep0.empty() ? -1 : open(ep0.c_str(), O_RDWR | O_CLOEXEC);
    if (ep0_ < 0) {
        error_ = "no control endpoint under " + std::string(kMountDir);
        return;
    }
    // Tag 0, the configuration for full and for high speed, the device.
    std::vector<uint8_t> setup(4, 0);
    setup.insert(setup.end(), configuration.begin(), configuration.end());
    setup.insert(setup.end(), configuration.begin(), configuration.end());
    setup.insert(setup.end(), device.begin(), device.end());
    if (write(ep0_, setup.data(), setup.size()) != static_cast<ssize_t>(setup.size())) {
        error_ = std::string("gadgetfs refused the descriptors: ") + std::strerror(errno);
        return;
    }
    events_ = std::thread([this] { events(); });
    const uint16_t vid = static_cast<uint16_t>(device[8] | device[9] << 8);
    const uint16_t pid = static_cast<uint16_t>(device[10] | device[11] << 8);
    // The host's entry shows before its usbfs node is made: both are
    // waited for. A layout the host cannot configure never gets a
    // configuration, so that is not waited for.
    if (!waitUntil([&] { return !(entry_ = entryWithIds(vid, pid)).empty() && access(hostNode().c_str(), F_OK) == 0; },
                   kHostWait))
        error_ = "the host did not enumerate the device";
}

GadgetfsDevice::~GadgetfsDevice()
{
    stopping_ = true;
    if (events_.joinable())
        events_.join();
    // Closing the control endpoint unbinds the device.
    if (ep0_ >= 0)
        close(ep0_);
    if (!mountDir_.empty())
        umount(mountDir_.c_str());
}

std::string GadgetfsDevice::hostNode() const
{
    if (entry_.empty())
        return "";
    const std::string base = "/sys/bus/usb/devices/" + entry_;
    char node[32];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", std::atoi(readAttribute(base + "/busnum").c_str()),
                  std::atoi(readAttribute(base + "/devnum").c_str()));
    return node;
}

void GadgetfsDevice::events()
{
    while (!stopping_) {
        pollfd pfd{ep0_, POLLIN, 0};
        if (poll(&pfd, 1, kPollMs) <= 0)
            continue;
        usb_gadgetfs_event events[4];
        const ssize_t n = read(ep0_, events, sizeof events);
        if (n <= 0)
            continue;
        for (size_t i = 0; i < static_cast<size_t>(n) / sizeof events[0]; ++i) {
            if (events[i].type != GADGETFS_SETUP)
                continue;
            const usb_ctrlrequest &setup = events[i].u.setup;
            // gadgetfs took SET_CONFIGURATION and SET_INTERFACE already and
            // waits for the status stage, which may not be stalled.
            if ((setup.bRequestType & USB_TYPE_MASK) == USB_TYPE_STANDARD &&
                (setup.bRequest == USB_REQ_SET_CONFIGURATION || setup.bRequest == USB_REQ_SET_INTERFACE)) {
                (void)!read(ep0_, nullptr, 0);
                continue;
            }
            // Anything else is stalled: answered in the direction opposite
            // to the request's.
            if (setup.bRequestType & USB_DIR_IN)
                (void)!read(ep0_, nullptr, 0);
            else
                (void)!write(ep0_, nullptr, 0);
        }
    }
}

} // namespace sim::kernel
