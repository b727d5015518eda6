/*
 * libusbhost on the host, over Linux usbfs: the calls of
 * platform/include/usbhost/usbhost.h with the platform library's meaning.
 *
 * Devices are the nodes "/dev/bus/usb/BBB/DDD". They are found by listing
 * "/dev/bus/usb" and each bus directory with opendir/readdir (names made of
 * digits only, whatever type the entry reports), and identified by the
 * descriptors read from the node: read() of a usbfs node gives the device
 * descriptor followed by the configuration descriptors. Transfers use the
 * synchronous usbfs requests only (claim, release, bulk, control).
 *
 * usb_host_run reports the devices present, then watches for additions and
 * removals by listing the directories again every kWatchPeriodMs (the
 * platform library is woken by the kernel instead; here the directories are
 * polled, which works wherever the nodes come from).
 *
 * Threads: none of its own. A context belongs to the thread that runs it; a
 * device may be used from several threads at once (each call is one system
 * call on its descriptor), but closing it while another thread uses it is
 * the caller's business, as with the platform library.
 *
 * Errors: NULL or a negative result with errno set, as the platform library
 * reports them.
 */
#include <usbhost/usbhost.h>

#include <dirent.h>
#include <endian.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr const char *kUsbfsRoot = "/dev/bus/usb";
// Longest descriptor set read from a node; the rest of a longer one is
// ignored, as by the platform library.
constexpr size_t kMaxDescriptorsLength = 4096;
// Zeroed room after the descriptors: a caller that reads a whole endpoint
// or interface record from the last descriptor stays inside the buffer.
constexpr size_t kDescriptorSlack = 16;
// How often a running host lists the bus directories again.
constexpr useconds_t kWatchPeriodMs = 50;
// String descriptors: the language list and each string fit in 255 bytes.
constexpr int kStringBufferSize = 256;
constexpr size_t kMaxNameLength = 64;

} // namespace

struct usb_device {
    char name[kMaxNameLength];                                   // "/dev/bus/usb/BBB/DDD"
    int fd;                                                      // the open node
    size_t descLength;                                           // bytes read from the node
    unsigned char desc[kMaxDescriptorsLength + kDescriptorSlack]; // descriptors, then zeros
};

struct usb_host_context {
    // What the last listing found: each node's name and the identity of its
    // entry (a node taken away and put back under the same name between two
    // listings has a new entry).
    std::vector<std::pair<std::string, ino_t>> known;
};

namespace {

// A usbfs directory or node name: digits only (skips ".", "..", and any
// other file that may lie there).
bool usbfsName(const char *name)
{
    if (!*name)
        return false;
    for (const char *c = name; *c; ++c)
        if (*c < '0' || *c > '9')
            return false;
    return true;
}

// The digit-named entries of a directory, sorted by name.
std::vector<std::pair<std::string, ino_t>> listDigits(const std::string &dir)
{
    std::vector<std::pair<std::string, ino_t>> out;
    DIR *d = opendir(dir.c_str());
    if (!d)
        return out;
    while (dirent *entry = readdir(d))
        if (usbfsName(entry->d_name))
            out.emplace_back(entry->d_name, entry->d_ino);
    closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

// Every device node under the usbfs root, by full name, in bus and device
// order. A bus entry that cannot be listed is skipped.
std::vector<std::pair<std::string, ino_t>> listDevices()
{
    std::vector<std::pair<std::string, ino_t>> devices;
    for (const auto &bus : listDigits(kUsbfsRoot)) {
        const std::string busDir = std::string(kUsbfsRoot) + "/" + bus.first;
        for (const auto &node : listDigits(busDir))
            devices.emplace_back(busDir + "/" + node.first, node.second);
    }
    return devices;
}

bool contains(const std::vector<std::pair<std::string, ino_t>> &list,
              const std::pair<std::string, ino_t> &entry)
{
    return std::find(list.begin(), list.end(), entry) != list.end();
}

// Reads one string descriptor in a language; bytes received, or negative.
int readStringDescriptor(usb_device *device, int id, int language, unsigned char *buffer,
                         int timeout)
{
    return usb_device_control_transfer(device, USB_DIR_IN | USB_TYPE_STANDARD | USB_RECIP_DEVICE,
                                       USB_REQ_GET_DESCRIPTOR, (USB_DT_STRING << 8) | id,
                                       language, buffer, kStringBufferSize,
                                       static_cast<unsigned>(timeout));
}

// The byte count a string descriptor really holds: what came, capped by its
// own length field.
int descriptorLength(const unsigned char *buffer, int received)
{
    if (received < 2)
        return 0;
    return std::min(received, static_cast<int>(buffer[0]));
}

} // namespace

extern "C" {

struct usb_host_context *usb_host_init(void)
{
    auto *context = new (std::nothrow) usb_host_context;
    if (!context)
        errno = ENOMEM;
    return context;
}

void usb_host_cleanup(struct usb_host_context *context)
{
    delete context;
}

void usb_host_run(struct usb_host_context *context, usb_device_added_cb added_cb,
                  usb_device_removed_cb removed_cb, usb_discovery_done_cb discovery_done_cb,
                  void *client_data)
{
    if (!context)
        return;
    context->known = listDevices();
    for (const auto &device : context->known)
        if (added_cb && added_cb(device.first.c_str(), client_data))
            return;
    if (discovery_done_cb && discovery_done_cb(client_data))
        return;
    for (;;) {
        usleep(kWatchPeriodMs * 1000);
        std::vector<std::pair<std::string, ino_t>> now = listDevices();
        std::vector<std::pair<std::string, ino_t>> before;
        before.swap(context->known);
        context->known = now;
        // Removals first, so a node put back under the same name is
        // reported gone and then new.
        for (const auto &device : before)
            if (!contains(now, device) && removed_cb && removed_cb(device.first.c_str(), client_data))
                return;
        for (const auto &device : now)
            if (!contains(before, device) && added_cb && added_cb(device.first.c_str(), client_data))
                return;
    }
}

struct usb_device *usb_device_open(const char *dev_name)
{
    if (!dev_name) {
        errno = EINVAL;
        return nullptr;
    }
    if (strlen(dev_name) >= kMaxNameLength) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    int fd = open(dev_name, O_RDWR | O_CLOEXEC);
    if (fd < 0 && errno == EACCES)
        fd = open(dev_name, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    auto *device = static_cast<usb_device *>(calloc(1, sizeof(usb_device)));
    if (!device) {
        close(fd);
        errno = ENOMEM;
        return nullptr;
    }
    memcpy(device->name, dev_name, strlen(dev_name) + 1);
    device->fd = fd;
    const ssize_t n = read(fd, device->desc, kMaxDescriptorsLength);
    // Nothing usable without a whole device descriptor first.
    if (n < static_cast<ssize_t>(USB_DT_DEVICE_SIZE) || device->desc[1] != USB_DT_DEVICE) {
        const int err = n < 0 ? errno : EINVAL;
        close(fd);
        free(device);
        errno = err;
        return nullptr;
    }
    device->descLength = static_cast<size_t>(n);
    return device;
}

void usb_device_close(struct usb_device *device)
{
    if (!device)
        return;
    close(device->fd);
    free(device);
}

int usb_device_get_fd(struct usb_device *device)
{
    return device->fd;
}

const char *usb_device_get_name(struct usb_device *device)
{
    return device->name;
}

const struct usb_device_descriptor *usb_device_get_device_descriptor(struct usb_device *device)
{
    return reinterpret_cast<const usb_device_descriptor *>(device->desc);
}

uint16_t usb_device_get_vendor_id(struct usb_device *device)
{
    return le16toh(usb_device_get_device_descriptor(device)->idVendor);
}

uint16_t usb_device_get_product_id(struct usb_device *device)
{
    return le16toh(usb_device_get_device_descriptor(device)->idProduct);
}

char *usb_device_get_string(struct usb_device *device, int id, int timeout)
{
    if (!device || id <= 0 || id > 0xff) {
        errno = EINVAL;
        return nullptr;
    }
    // The language list first: string descriptor 0, language 0.
    unsigned char languages[kStringBufferSize] = {};
    const int listLength = descriptorLength(languages, readStringDescriptor(device, 0, 0, languages, timeout));
    if (listLength < 4) {
        errno = EIO;
        return nullptr;
    }
    // The string in the first language the device answers in.
    for (int i = 2; i + 1 < listLength; i += 2) {
        const int language = languages[i] | (languages[i + 1] << 8);
        unsigned char buffer[kStringBufferSize] = {};
        const int length = descriptorLength(buffer, readStringDescriptor(device, id, language, buffer, timeout));
        if (length < 2)
            continue;
        // UTF-16LE to ASCII: anything outside ASCII becomes '?'.
        const int chars = (length - 2) / 2;
        char *text = static_cast<char *>(malloc(static_cast<size_t>(chars) + 1));
        if (!text) {
            errno = ENOMEM;
            return nullptr;
        }
        for (int c = 0; c < chars; ++c) {
            const unsigned unit = buffer[2 + 2 * c] | (buffer[3 + 2 * c] << 8);
            text[c] = unit < 0x80 ? static_cast<char>(unit) : '?';
        }
        text[chars] = '\0';
        return text;
    }
    errno = EIO;
    return nullptr;
}

char *usb_device_get_manufacturer_name(struct usb_device *device, int timeout)
{
    return usb_device_get_string(device, usb_device_get_device_descriptor(device)->iManufacturer, timeout);
}

char *usb_device_get_product_name(struct usb_device *device, int timeout)
{
    return usb_device_get_string(device, usb_device_get_device_descriptor(device)->iProduct, timeout);
}

char *usb_device_get_serial(struct usb_device *device, int timeout)
{
    return usb_device_get_string(device, usb_device_get_device_descriptor(device)->iSerialNumber, timeout);
}

void usb_descriptor_iter_init(struct usb_device *device, struct usb_descriptor_iter *iter)
{
    iter->device = device;
    iter->config = device->desc;
    iter->config_end = device->desc + device->descLength;
    iter->curr_desc = device->desc;
}

struct usb_descriptor_header *usb_descriptor_iter_next(struct usb_descriptor_iter *iter)
{
    // Descriptors come from the device: a length that is too short or runs
    // past what was read ends the walk.
    if (iter->curr_desc >= iter->config_end || iter->config_end - iter->curr_desc < 2)
        return nullptr;
    const unsigned length = iter->curr_desc[0];
    if (length < 2 || length > static_cast<unsigned>(iter->config_end - iter->curr_desc))
        return nullptr;
    auto *header = reinterpret_cast<usb_descriptor_header *>(iter->curr_desc);
    iter->curr_desc += length;
    return header;
}

int usb_device_claim_interface(struct usb_device *device, unsigned int interface)
{
    return ioctl(device->fd, USBDEVFS_CLAIMINTERFACE, &interface);
}

int usb_device_release_interface(struct usb_device *device, unsigned int interface)
{
    return ioctl(device->fd, USBDEVFS_RELEASEINTERFACE, &interface);
}

int usb_device_control_transfer(struct usb_device *device, int requestType, int request, int value,
                                int index, void *buffer, int length, unsigned int timeout)
{
    if (length < 0 || length > 0xffff || (length > 0 && !buffer)) {
        errno = EINVAL;
        return -1;
    }
    usbdevfs_ctrltransfer control = {};
    control.bRequestType = static_cast<uint8_t>(requestType);
    control.bRequest = static_cast<uint8_t>(request);
    control.wValue = static_cast<uint16_t>(value);
    control.wIndex = static_cast<uint16_t>(index);
    control.wLength = static_cast<uint16_t>(length);
    control.timeout = timeout;
    control.data = buffer;
    return ioctl(device->fd, USBDEVFS_CONTROL, &control);
}

int usb_device_bulk_transfer(struct usb_device *device, int endpoint, void *buffer, unsigned int length,
                             unsigned int timeout)
{
    if (length > 0 && !buffer) {
        errno = EINVAL;
        return -1;
    }
    usbdevfs_bulktransfer bulk = {};
    bulk.ep = static_cast<unsigned>(endpoint);
    bulk.len = length;
    bulk.timeout = timeout;
    bulk.data = buffer;
    return ioctl(device->fd, USBDEVFS_BULK, &bulk);
}

} // extern "C"
