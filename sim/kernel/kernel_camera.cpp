/*
 * The kernel board's camera: an HID gadget served by the camera's HID
 * logic, and the USB tool's bulk interface.
 */
#include "kernel_camera.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace sim::kernel {

namespace {

constexpr const char *kHidFunction = "hid.cam";
constexpr const char *kToolFunction = "ffs.camtool";
constexpr size_t kToolTransfer = 512;
constexpr std::chrono::milliseconds kNodeWait{20000};
constexpr int kPollMs = 100;

// The /dev node of a character device whose sysfs "dev" is `dev`, found
// among the entries of a class directory.
std::string nodeOfClass(const std::string &classDir, const std::string &dev)
{
    DIR *dir = opendir(classDir.c_str());
    if (!dir)
        return "";
    std::string found;
    while (dirent *entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        if (readAttribute(classDir + "/" + entry->d_name + "/dev") == dev) {
            found = std::string("/dev/") + entry->d_name;
            break;
        }
    }
    closedir(dir);
    return found;
}

} // namespace

UsbDeviceDescription KernelCamera::description(uint16_t vid, uint16_t pid)
{
    UsbDeviceDescription d;
    d.vendorId = vid;
    d.productId = pid;
    d.bcdDevice = 0x0412;
    d.manufacturer = "Board Cameras";
    d.product = "PTZ camera (made up)";
    d.serial = "CAM0001";
    UsbInterface tool;
    tool.number = 0;
    tool.endpoints = {UsbEndpoint{0x81, 0x02, 512, 0}, UsbEndpoint{0x02, 0x02, 512, 0}};
    d.interfaces = {tool};
    return d;
}

KernelCamera::KernelCamera(uint16_t vid, uint16_t pid)
    : HidCameraLogic(vid, pid), gadget_("camera", description(vid, pid))
{
    if (!gadget_.ok()) {
        error_ = gadget_.error();
        return;
    }
    const std::string hid = gadget_.makeFunction(kHidFunction);
    const std::vector<uint8_t> &report = reportDescriptor();
    if (hid.empty() || !writeAttribute(hid + "/report_length", std::to_string(kReportSize)) ||
        !writeAttribute(hid + "/report_desc", std::string(report.begin(), report.end()))) {
        error_ = "the HID function was refused: " + gadget_.error();
        return;
    }
    // Interface 0: the tool's bulk pair; interface 1: the HID channel.
    toolFunction_ = std::make_unique<FfsFunction>(gadget_, kToolFunction, description(vid, pid).interfaces[0]);
    if (!toolFunction_->ok()) {
        error_ = toolFunction_->error();
        return;
    }
    tool_ = std::make_unique<FfsBulk>(*toolFunction_, 0, 1, kToolTransfer, nullptr);
    if (!gadget_.link(kHidFunction)) {
        error_ = gadget_.error();
        return;
    }
    hidFunction_ = hid;
    wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
        error_ = std::string("eventfd: ") + std::strerror(errno);
        return;
    }
    setQueuedListener([this] { wake(); });
    hidServer_ = std::thread([this] { serveHid(); });
    if (!plug())
        error_ = "plug: " + gadget_.error();
}

KernelCamera::~KernelCamera()
{
    setQueuedListener(nullptr);
    if (gadget_.plugged())
        gadget_.unplug();
    stopping_ = true;
    wake();
    if (hidServer_.joinable())
        hidServer_.join();
    tool_.reset();
    toolFunction_.reset();
    if (wakeFd_ >= 0)
        close(wakeFd_);
}

void KernelCamera::wake()
{
    if (wakeFd_ >= 0) {
        const uint64_t one = 1;
        (void)!write(wakeFd_, &one, sizeof one);
    }
}

std::string KernelCamera::hidraw() const
{
    const std::string entry = gadget_.hostEntry();
    if (entry.empty())
        return "";
    // <entry>:1.N/<hid device>/hidraw/hidrawM, under the HID interface.
    const std::string base = "/sys/bus/usb/devices/";
    std::string found;
    DIR *devices = opendir(base.c_str());
    if (!devices)
        return "";
    while (dirent *i = readdir(devices)) {
        if (std::strncmp(i->d_name, (entry + ":").c_str(), entry.size() + 1) != 0)
            continue;
        const std::string interface = base + i->d_name;
        DIR *dir = opendir(interface.c_str());
        if (!dir)
            continue;
        while (dirent *e = readdir(dir)) {
            if (e->d_name[0] == '.')
                continue;
            if (DIR *h = opendir((interface + "/" + e->d_name + "/hidraw").c_str())) {
                while (dirent *node = readdir(h))
                    if (std::strncmp(node->d_name, "hidraw", 6) == 0)
                        found = std::string("/dev/") + node->d_name;
                closedir(h);
            }
        }
        closedir(dir);
    }
    closedir(devices);
    return found;
}

bool KernelCamera::plug()
{
    if (!gadget_.plug(kCameraController))
        return false;
    ++generation_;
    wake();
    // usbhid binds the HID interface after the device is configured.
    return waitUntil([this] { return !hidraw().empty() && access(hidraw().c_str(), R_OK | W_OK) == 0; },
                     kNodeWait);
}

bool KernelCamera::unplug()
{
    const bool gone = gadget_.unplug();
    ++generation_;
    wake();
    return gone;
}

// The gadget's /dev/hidgN exists while the device is bound: the server
// opens it after each plug and drops it at each unplug.
void KernelCamera::serveHid()
{
    Report pending;
    bool havePending = false;
    int fd = -1;
    unsigned opened = 0; // generation the descriptor belongs to
    while (!stopping_) {
        if (fd >= 0 && opened != generation_) {
            close(fd);
            fd = -1;
        }
        if (fd < 0 && gadget_.plugged()) {
            opened = generation_;
            const std::string node = nodeOfClass("/sys/class/hidg", readAttribute(hidFunction_ + "/dev"));
            fd = node.empty() ? -1 : open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        }
        if (!havePending)
            havePending = takeReport(pending);
        pollfd fds[2] = {{fd, static_cast<short>(POLLIN | (havePending ? POLLOUT : 0)), 0}, {wakeFd_, POLLIN, 0}};
        if (poll(fds, 2, kPollMs) <= 0)
            continue;
        if (fds[1].revents & POLLIN) {
            uint64_t count = 0;
            (void)!read(wakeFd_, &count, sizeof count);
        }
        if (fds[0].revents & POLLIN) {
            uint8_t report[kReportSize * 2];
            const ssize_t n = read(fd, report, sizeof report);
            if (n > 0)
                received(report, static_cast<size_t>(n));
        }
        if (havePending && (fds[0].revents & POLLOUT)) {
            const ssize_t n = write(fd, pending.data(), pending.size());
            if (n == static_cast<ssize_t>(pending.size()))
                havePending = false;
        }
    }
    if (fd >= 0)
        close(fd);
}

} // namespace sim::kernel
