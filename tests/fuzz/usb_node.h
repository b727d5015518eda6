// What the two USB descriptor harnesses share: a file that stands for a
// device's usbfs node (the host libusbhost opens it and read()s the
// descriptors from it, as from the kernel's node), descriptor builders for
// their starters, and a walk of the bytes made here with the host
// libusbhost's rules, against which the module's walk is checked.
#pragma once

#include <fcntl.h>
#include <linux/usb/ch9.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <usbhost/usbhost.h>

#include "common/usb_descriptors.h"
#include "process_env.h"

namespace avmfuzz::usbnode {

using Bytes = std::vector<uint8_t>;

// The host libusbhost reads at most this much of a node, and refuses
// device names of 64 characters or more.
constexpr size_t kNodeReadMax = 4096;
constexpr size_t kNodeNameMax = 64;

inline void check(const char *harness, bool ok, const char *what)
{
    if (!ok) {
        fprintf(stderr, "%s: %s\n", harness, what);
        abort();
    }
}

// What a walk of the bytes finds: offsets of the interface kept and of the
// first two whole endpoints (-1 when none), and descriptors stepped over.
struct Found {
    long interface = -1;
    long endpoints[2] = {-1, -1};
    int endpointCount = 0;
    int descriptors = 0;
    bool complete() const { return interface >= 0 && endpointCount == 2; }
};

// The walk the host libusbhost's iterator gives: from the first byte, one
// descriptor per length byte, ending at a length under 2 or one that runs
// past the bytes; with `end` USB_DESC_WALK_ONCE_KNOWN also once an
// interface and two endpoints are known. A record counts only when its
// length covers it; the most recent interface is kept.
inline Found walkOf(const uint8_t *bytes, size_t size, UsbDescWalkEnd end)
{
    Found f;
    size_t at = 0;
    while (end != USB_DESC_WALK_ONCE_KNOWN || !f.complete()) {
        if (size - at < 2)
            break;
        const size_t length = bytes[at];
        if (length < 2 || length > size - at)
            break;
        ++f.descriptors;
        if (bytes[at + 1] == USB_DT_INTERFACE && length >= USB_DT_INTERFACE_SIZE)
            f.interface = static_cast<long>(at);
        else if (f.endpointCount < 2 && bytes[at + 1] == USB_DT_ENDPOINT && length >= USB_DT_ENDPOINT_SIZE)
            f.endpoints[f.endpointCount++] = static_cast<long>(at);
        at += length;
    }
    return f;
}

// A node's bytes and what the host libusbhost makes of them.
struct Node {
    Bytes bytes;
    size_t readSize = 0; // what the library reads of it
    bool opens = false;  // a whole device descriptor first
    bool ours = false;   // opens, with the ids looked for
    Found found;         // the walk of what is read

    // The bulk IN and OUT addresses the first two whole endpoints give: IN
    // is the first when its direction bit is set, else the second.
    uint8_t inEndpoint() const { return firstIsIn() ? address(0) : address(1); }
    uint8_t outEndpoint() const { return firstIsIn() ? address(1) : address(0); }

private:
    uint8_t address(int i) const { return bytes[static_cast<size_t>(found.endpoints[i]) + 2]; }
    bool firstIsIn() const { return (address(0) & USB_DIR_IN) != 0; }
};

// The input as a node of a device with ids vid:pid looked for. In inputs of
// at least a device descriptor whose bNumConfigurations (byte 17) is odd,
// the device descriptor type (byte 1) and the ids (bytes 8..11) are written
// in, so the walk is reached in depth; the others keep their own bytes.
inline Node nodeOf(const uint8_t *data, size_t size, uint16_t vid, uint16_t pid, UsbDescWalkEnd end)
{
    Node n;
    n.bytes.assign(data, data + size);
    Bytes &b = n.bytes;
    if (b.size() >= USB_DT_DEVICE_SIZE && (b[17] & 1)) {
        b[1] = USB_DT_DEVICE;
        b[8] = static_cast<uint8_t>(vid);
        b[9] = static_cast<uint8_t>(vid >> 8);
        b[10] = static_cast<uint8_t>(pid);
        b[11] = static_cast<uint8_t>(pid >> 8);
    }
    n.readSize = b.size() < kNodeReadMax ? b.size() : kNodeReadMax;
    n.opens = n.readSize >= USB_DT_DEVICE_SIZE && b[1] == USB_DT_DEVICE;
    n.ours = n.opens && (b[8] | b[9] << 8) == vid && (b[10] | b[11] << 8) == pid;
    n.found = walkOf(b.data(), n.readSize, end);
    return n;
}

// The node's path, under this process's root.
inline const std::string &nodePath(const char *harness)
{
    static const std::string path = avmtest::processRoot() + "/usb-node";
    check(harness, path.size() < kNodeNameMax, "the private root's path is too long for a USB device name; "
                                                "use a shorter TMPDIR");
    return path;
}

inline void writeNode(const char *harness, const std::string &path, const Bytes &bytes)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    check(harness, fd >= 0, "cannot create the device node file");
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        check(harness, n > 0, "cannot write the device node file");
        done += static_cast<size_t>(n);
    }
    close(fd);
}

// The module's shared walk, run on the node as its caller runs it, finds
// what the walk of the bytes found.
inline void checkSharedWalk(const char *harness, const std::string &path, const Node &node, UsbDescWalkEnd end)
{
    if (!node.opens)
        return;
    usb_device *device = usb_device_open(path.c_str());
    check(harness, device != nullptr, "the node does not open a second time");
    const auto *base = reinterpret_cast<const uint8_t *>(usb_device_get_device_descriptor(device));
    auto offsetIn = [base](const void *p) {
        return p == nullptr ? -1L : static_cast<long>(static_cast<const uint8_t *>(p) - base);
    };
    UsbDescWalk walk;
    usbDescWalk(device, end, &walk);
    check(harness, offsetIn(walk.interface) == node.found.interface, "the walk kept another interface");
    check(harness, walk.endpointCount == node.found.endpointCount, "the walk kept another number of endpoints");
    for (int i = 0; i < walk.endpointCount; ++i)
        check(harness, offsetIn(walk.endpoints[i]) == node.found.endpoints[i], "the walk kept another endpoint");
    check(harness, walk.descriptors == node.found.descriptors, "the walk stepped over another number of descriptors");
    usb_device_close(device);
}

// Descriptors as a device lists them, for the starters.
inline Bytes deviceDescriptor(uint16_t vid, uint16_t pid, uint8_t configurations = 1)
{
    return {USB_DT_DEVICE_SIZE, USB_DT_DEVICE, 0x00, 0x02, 0xEF, 0x02, 0x01, 64,
            static_cast<uint8_t>(vid), static_cast<uint8_t>(vid >> 8),
            static_cast<uint8_t>(pid), static_cast<uint8_t>(pid >> 8),
            0x00, 0x01, 1, 2, 3, configurations};
}

inline Bytes interfaceDescriptor(uint8_t number, uint8_t endpoints, uint8_t cls = 0xFF)
{
    return {USB_DT_INTERFACE_SIZE, USB_DT_INTERFACE, number, 0, endpoints, cls, 0, 0, 0};
}

inline Bytes endpointDescriptor(uint8_t address)
{
    return {USB_DT_ENDPOINT_SIZE, USB_DT_ENDPOINT, address, USB_ENDPOINT_XFER_BULK, 0x00, 0x02, 0};
}

// A device descriptor, then a configuration descriptor whose total length
// covers `body`, then `body`.
inline std::string listing(const Bytes &device, uint8_t interfaces, const std::vector<Bytes> &body)
{
    Bytes rest;
    for (const Bytes &b : body)
        rest.insert(rest.end(), b.begin(), b.end());
    const auto total = static_cast<uint16_t>(USB_DT_CONFIG_SIZE + rest.size());
    const Bytes config = {USB_DT_CONFIG_SIZE, USB_DT_CONFIG, static_cast<uint8_t>(total),
                          static_cast<uint8_t>(total >> 8), interfaces, 1, 0, 0x80, 250};
    Bytes out = device;
    out.insert(out.end(), config.begin(), config.end());
    out.insert(out.end(), rest.begin(), rest.end());
    return std::string(out.begin(), out.end());
}

} // namespace avmfuzz::usbnode
