/*
 * configfs gadgets and FunctionFS functions on dummy_hcd (see the header).
 */
#include "usb_gadget.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/usb/ch9.h>
#include <linux/usb/functionfs.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "sim/board.h"

namespace sim::kernel {

namespace {

constexpr const char *kGadgetRoot = "/sys/kernel/config/usb_gadget/";
constexpr const char *kHostDevices = "/sys/bus/usb/devices/";
constexpr const char *kConfig = "configs/c.1";
constexpr const char *kEnglish = "strings/0x409";
// How long the host may take to enumerate or let go of a device (TCG
// guests on a busy machine are slow).
constexpr std::chrono::milliseconds kHostWait{20000};
// Full-speed bulk endpoints carry at most 64 bytes a packet.
constexpr uint16_t kFullSpeedBulk = 64;
// How often the control thread looks at its stop flag.
constexpr int kControlPollMs = 100;

std::string hex4(unsigned value)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%04x", value & 0xffff);
    return buf;
}

void put32(std::vector<uint8_t> &out, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void append(std::vector<uint8_t> &out, const std::vector<uint8_t> &bytes)
{
    out.insert(out.end(), bytes.begin(), bytes.end());
}

bool writeAll(int fd, const std::vector<uint8_t> &bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

bool writeAttribute(const std::string &path, const std::string &text)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const ssize_t n = write(fd, text.data(), text.size());
    close(fd);
    return n == static_cast<ssize_t>(text.size());
}

std::string readAttribute(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    std::string out = text.str();
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r'))
        out.pop_back();
    return out;
}

// ---------------------------------------------------------------- UsbGadget

UsbGadget::UsbGadget(std::string name, const UsbDeviceDescription &d)
    : name_(std::move(name)), dir_(kGadgetRoot + name_), vid_(d.vendorId), pid_(d.productId)
{
    if (mkdir(dir_.c_str(), 0755) != 0) {
        error_ = "mkdir " + dir_ + ": " + std::strerror(errno);
        return;
    }
    const bool ok = writeAttribute(dir_ + "/idVendor", hex4(d.vendorId)) &&
                    writeAttribute(dir_ + "/idProduct", hex4(d.productId)) &&
                    writeAttribute(dir_ + "/bcdDevice", hex4(d.bcdDevice)) &&
                    writeAttribute(dir_ + "/bcdUSB", hex4(d.bcdUsb)) &&
                    writeAttribute(dir_ + "/bDeviceClass", std::to_string(d.deviceClass)) &&
                    mkdir((dir_ + "/" + kEnglish).c_str(), 0755) == 0 &&
                    (d.manufacturer.empty() ||
                     writeAttribute(dir_ + "/" + kEnglish + "/manufacturer", d.manufacturer)) &&
                    (d.product.empty() || writeAttribute(dir_ + "/" + kEnglish + "/product", d.product)) &&
                    (d.serial.empty() || writeAttribute(dir_ + "/" + kEnglish + "/serialnumber", d.serial)) &&
                    mkdir((dir_ + "/" + kConfig).c_str(), 0755) == 0 &&
                    writeAttribute(dir_ + "/" + kConfig + "/MaxPower", std::to_string(2 * d.maxPower));
    if (!ok)
        error_ = "configfs refused the description of " + name_ + ": " + std::strerror(errno);
}

UsbGadget::~UsbGadget()
{
    if (plugged())
        unplug();
    for (auto it = linked_.rbegin(); it != linked_.rend(); ++it)
        unlink((dir_ + "/" + kConfig + "/" + *it).c_str());
    for (auto it = functions_.rbegin(); it != functions_.rend(); ++it)
        rmdir((dir_ + "/functions/" + *it).c_str());
    rmdir((dir_ + "/" + kConfig).c_str());
    rmdir((dir_ + "/" + kEnglish).c_str());
    rmdir(dir_.c_str());
}

std::string UsbGadget::makeFunction(const std::string &instance)
{
    const std::string function = dir_ + "/functions/" + instance;
    if (mkdir(function.c_str(), 0755) != 0) {
        error_ = "mkdir " + function + ": " + std::strerror(errno);
        return "";
    }
    functions_.push_back(instance);
    return function;
}

bool UsbGadget::link(const std::string &instance)
{
    if (symlink((dir_ + "/functions/" + instance).c_str(), (dir_ + "/" + kConfig + "/" + instance).c_str()) != 0) {
        error_ = "link " + instance + ": " + std::strerror(errno);
        return false;
    }
    linked_.push_back(instance);
    return true;
}

bool UsbGadget::hostHasIt() const { return !hostEntry().empty(); }

std::string UsbGadget::hostEntry() const
{
    DIR *dir = opendir(kHostDevices);
    if (!dir)
        return "";
    std::string found;
    while (dirent *entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.find(':') != std::string::npos || name.rfind("usb", 0) == 0 || name[0] == '.')
            continue;
        const std::string base = kHostDevices + name;
        if (readAttribute(base + "/idVendor") == hex4(vid_).substr(2) &&
            readAttribute(base + "/idProduct") == hex4(pid_).substr(2) &&
            !readAttribute(base + "/bConfigurationValue").empty()) {
            found = name;
            break;
        }
    }
    closedir(dir);
    return found;
}

std::string UsbGadget::hostNode() const
{
    const std::string entry = hostEntry();
    if (entry.empty())
        return "";
    const std::string base = kHostDevices + entry;
    char node[32];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", std::atoi(readAttribute(base + "/busnum").c_str()),
                  std::atoi(readAttribute(base + "/devnum").c_str()));
    return node;
}

bool UsbGadget::plug(const std::string &controller)
{
    if (!writeAttribute(dir_ + "/UDC", controller)) {
        error_ = "bind " + name_ + " to " + controller + ": " + std::strerror(errno);
        return false;
    }
    controller_ = controller;
    if (!waitUntil([this] { return hostHasIt(); }, kHostWait)) {
        error_ = "the host did not configure " + name_ + " on " + controller;
        return false;
    }
    return true;
}

bool UsbGadget::unplug()
{
    if (!writeAttribute(dir_ + "/UDC", "\n")) {
        error_ = "unbind " + name_ + ": " + std::strerror(errno);
        return false;
    }
    controller_.clear();
    return waitUntil([this] { return !hostHasIt(); }, kHostWait);
}

// ---------------------------------------------------------------- FfsFunction

FfsFunction::FfsFunction(UsbGadget &gadget, const std::string &instance, const UsbInterface &interface)
{
    if (gadget.makeFunction(instance).empty() || !gadget.link(instance)) {
        error_ = gadget.error();
        return;
    }
    const std::string name = instance.substr(instance.find('.') + 1);
    mountDir_ = "/dev/ffs-" + name;
    mkdir(mountDir_.c_str(), 0755);
    if (mount(name.c_str(), mountDir_.c_str(), "functionfs", 0, nullptr) != 0) {
        error_ = "mount functionfs " + name + ": " + std::strerror(errno);
        mountDir_.clear();
        return;
    }
    ep0_ = open((mountDir_ + "/ep0").c_str(), O_RDWR | O_CLOEXEC);
    if (ep0_ < 0) {
        error_ = "open " + mountDir_ + "/ep0: " + std::strerror(errno);
        return;
    }
    // Full-speed and high-speed descriptor sets: the interface and its
    // endpoints, numbered within the function (the gadget renumbers them).
    UsbInterface local = interface;
    local.number = 0;
    std::vector<uint8_t> fs, hs;
    append(fs, usbInterfaceDescriptor(local));
    append(hs, usbInterfaceDescriptor(local));
    for (const auto &endpoint : interface.endpoints) {
        UsbEndpoint full = endpoint;
        if ((full.attributes & USB_ENDPOINT_XFERTYPE_MASK) == USB_ENDPOINT_XFER_BULK)
            full.maxPacketSize = std::min(full.maxPacketSize, kFullSpeedBulk);
        append(fs, usbEndpointDescriptor(full));
        append(hs, usbEndpointDescriptor(endpoint));
    }
    const uint32_t count = static_cast<uint32_t>(1 + interface.endpoints.size());
    std::vector<uint8_t> descs;
    put32(descs, FUNCTIONFS_DESCRIPTORS_MAGIC_V2);
    put32(descs, 0); // length, below
    put32(descs, FUNCTIONFS_HAS_FS_DESC | FUNCTIONFS_HAS_HS_DESC);
    put32(descs, count);
    put32(descs, count);
    append(descs, fs);
    append(descs, hs);
    const uint32_t length = static_cast<uint32_t>(descs.size());
    for (int i = 0; i < 4; ++i)
        descs[4 + i] = static_cast<uint8_t>(length >> (8 * i));
    std::vector<uint8_t> strings;
    put32(strings, FUNCTIONFS_STRINGS_MAGIC);
    put32(strings, 16);
    put32(strings, 0); // no strings
    put32(strings, 0); // in no language
    if (!writeAll(ep0_, descs) || !writeAll(ep0_, strings)) {
        error_ = "FunctionFS refused the descriptors of " + instance + ": " + std::strerror(errno);
        return;
    }
    for (size_t i = 0; i < interface.endpoints.size(); ++i) {
        const std::string file = mountDir_ + "/ep" + std::to_string(i + 1);
        // Non-blocking only while the host has not configured the device:
        // a transfer itself still waits for the host.
        const int fd = open(file.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            error_ = "open " + file + ": " + std::strerror(errno);
            return;
        }
        endpoints_.push_back(fd);
    }
    control_ = std::thread([this] { controlLoop(); });
}

FfsFunction::~FfsFunction()
{
    stopping_ = true;
    if (control_.joinable())
        control_.join();
    for (int fd : endpoints_)
        close(fd);
    if (ep0_ >= 0)
        close(ep0_);
    if (!mountDir_.empty()) {
        umount(mountDir_.c_str());
        rmdir(mountDir_.c_str());
    }
}

void FfsFunction::setSetupHandler(SetupHandler handler)
{
    std::lock_guard<std::mutex> lock(mutex_);
    setup_ = std::move(handler);
}

void FfsFunction::setEnableHandler(EnableHandler handler)
{
    std::lock_guard<std::mutex> lock(mutex_);
    onEnable_ = std::move(handler);
}

int FfsFunction::endpoint(size_t n) const { return n < endpoints_.size() ? endpoints_[n] : -1; }

void FfsFunction::controlLoop()
{
    while (!stopping_) {
        pollfd pfd{ep0_, POLLIN, 0};
        if (poll(&pfd, 1, kControlPollMs) <= 0)
            continue;
        usb_functionfs_event events[4];
        const ssize_t n = read(ep0_, events, sizeof events);
        if (n <= 0)
            continue;
        for (size_t i = 0; i < static_cast<size_t>(n) / sizeof events[0]; ++i) {
            const usb_functionfs_event &event = events[i];
            if (event.type == FUNCTIONFS_ENABLE || event.type == FUNCTIONFS_DISABLE) {
                enabled_ = event.type == FUNCTIONFS_ENABLE;
                EnableHandler handler;
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    handler = onEnable_;
                }
                if (handler)
                    handler(enabled_);
                continue;
            }
            if (event.type != FUNCTIONFS_SETUP)
                continue;
            const usb_ctrlrequest &setup = event.u.setup;
            const uint16_t length = le16toh(setup.wLength);
            std::vector<uint8_t> data;
            SetupHandler handler;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                handler = setup_;
            }
            const bool in = setup.bRequestType & USB_DIR_IN;
            const bool accepted = handler && handler(setup.bRequestType, setup.bRequest, le16toh(setup.wValue),
                                                     le16toh(setup.wIndex), length, data);
            // Answering in the request's own direction completes it; the
            // other direction stalls it.
            if (accepted && in) {
                data.resize(std::min<size_t>(data.size(), length));
                (void)!write(ep0_, data.data(), data.size());
            } else if (accepted) {
                data.resize(length);
                (void)!read(ep0_, data.data(), data.size());
            } else if (in) {
                (void)!read(ep0_, nullptr, 0);
            } else {
                (void)!write(ep0_, nullptr, 0);
            }
        }
    }
}

} // namespace sim::kernel
