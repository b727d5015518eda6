/*
 * USB device model behind a usbfs node. The handler runs on umockdev's
 * worker thread; tests and the console read and change the state from
 * their own threads, so everything is guarded by mutex_.
 */
#include "usb_device_model.h"

#include <linux/usb/ch9.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace sim {

namespace {

// The kernel refuses longer usbfs transfers than this in one call.
constexpr size_t kMaxTransfer = 16 * 1024 * 1024;
// Bytes of a bulk transfer shown in the trace.
constexpr size_t kTraceBytes = 16;

void put16(std::vector<uint8_t> &out, uint16_t value)
{
    out.push_back(static_cast<uint8_t>(value & 0xff));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

// String indices: manufacturer 1, product 2, serial 3 when present.
uint8_t stringIndex(const std::string &text, uint8_t index) { return text.empty() ? 0 : index; }

std::vector<uint8_t> deviceDescriptor(const UsbDeviceDescription &d)
{
    std::vector<uint8_t> out;
    out.push_back(USB_DT_DEVICE_SIZE);
    out.push_back(USB_DT_DEVICE);
    put16(out, d.bcdUsb);
    out.push_back(d.deviceClass);
    out.push_back(d.deviceSubClass);
    out.push_back(d.deviceProtocol);
    out.push_back(d.maxPacketSize0);
    put16(out, d.vendorId);
    put16(out, d.productId);
    put16(out, d.bcdDevice);
    out.push_back(stringIndex(d.manufacturer, 1));
    out.push_back(stringIndex(d.product, 2));
    out.push_back(stringIndex(d.serial, 3));
    out.push_back(1); // one configuration
    return out;
}

// A string descriptor: its length, type 3, then UTF-16LE (ASCII text).
std::vector<uint8_t> stringDescriptor(const std::string &text)
{
    const size_t chars = std::min<size_t>(text.size(), 126);
    std::vector<uint8_t> out;
    out.push_back(static_cast<uint8_t>(2 + 2 * chars));
    out.push_back(USB_DT_STRING);
    for (size_t i = 0; i < chars; ++i)
        put16(out, static_cast<uint8_t>(text[i]));
    return out;
}

std::string hex(const uint8_t *bytes, size_t size)
{
    std::string out;
    char buf[4];
    for (size_t i = 0; i < size; ++i) {
        std::snprintf(buf, sizeof buf, i ? " %02x" : "%02x", bytes[i]);
        out += buf;
    }
    return out;
}

std::string hex8(unsigned value)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%02x", value & 0xff);
    return buf;
}

std::string hex16(unsigned value)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%04x", value & 0xffff);
    return buf;
}

} // namespace

std::vector<uint8_t> usbInterfaceDescriptor(const UsbInterface &interface)
{
    return {USB_DT_INTERFACE_SIZE,
            USB_DT_INTERFACE,
            interface.number,
            interface.alternateSetting,
            static_cast<uint8_t>(interface.endpoints.size()),
            interface.interfaceClass,
            interface.interfaceSubClass,
            interface.interfaceProtocol,
            0}; // no interface string
}

std::vector<uint8_t> usbEndpointDescriptor(const UsbEndpoint &endpoint)
{
    std::vector<uint8_t> out{USB_DT_ENDPOINT_SIZE, USB_DT_ENDPOINT, endpoint.address, endpoint.attributes};
    put16(out, endpoint.maxPacketSize);
    out.push_back(endpoint.interval);
    return out;
}

std::vector<uint8_t> usbDescriptorsListing(const UsbDeviceDescription &d, const std::vector<uint8_t> &body)
{
    std::vector<uint8_t> out = deviceDescriptor(d);
    out.push_back(USB_DT_CONFIG_SIZE);
    out.push_back(USB_DT_CONFIG);
    put16(out, static_cast<uint16_t>(USB_DT_CONFIG_SIZE + body.size()));
    // Interfaces count once per number, not per alternate setting.
    std::vector<uint8_t> numbers;
    for (const auto &interface : d.interfaces)
        if (std::find(numbers.begin(), numbers.end(), interface.number) == numbers.end())
            numbers.push_back(interface.number);
    out.push_back(static_cast<uint8_t>(numbers.size()));
    out.push_back(d.configurationValue);
    out.push_back(0); // no configuration string
    out.push_back(d.configurationAttributes);
    out.push_back(d.maxPower);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

std::vector<uint8_t> usbDescriptors(const UsbDeviceDescription &description)
{
    // Each interface followed by its endpoints, as devices list them.
    std::vector<uint8_t> body;
    for (const auto &interface : description.interfaces) {
        const auto head = usbInterfaceDescriptor(interface);
        body.insert(body.end(), head.begin(), head.end());
        for (const auto &endpoint : interface.endpoints) {
            const auto e = usbEndpointDescriptor(endpoint);
            body.insert(body.end(), e.begin(), e.end());
        }
    }
    return usbDescriptorsListing(description, body);
}

UsbDevice::UsbDevice(Board &board, UsbDeviceDescription description, std::string link)
    : board_(board), description_(std::move(description)), link_(std::move(link)),
      devnode_(board.nextUsbNode())
{
    descriptors_ = usbDescriptors(description_);
    node_ = std::make_unique<IoctlNode>(board, devnode_,
                                        [this](IoctlCall &call, int *err) { return handle(call, err); });
}

UsbDevice::~UsbDevice()
{
    // The node leaves its bus directory with the handler.
    node_.reset();
}

std::vector<uint8_t> UsbDevice::descriptors() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return descriptors_;
}

void UsbDevice::setRawDescriptors(std::vector<uint8_t> bytes)
{
    std::lock_guard<std::mutex> lock(mutex_);
    descriptors_ = std::move(bytes);
}

void UsbDevice::unplug()
{
    std::vector<WaitingIn> waiting;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!plugged_)
            return;
        plugged_ = false;
        claims_.clear();
        waiting.swap(waiting_);
    }
    // Transfers waiting for data end with the device.
    for (auto &w : waiting)
        w.call->complete(-1, ENODEV);
    board_.removeNode(devnode_);
    trace(false, "unplugged");
}

void UsbDevice::replug()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (plugged_)
            return;
        plugged_ = true;
    }
    board_.addNode(devnode_);
    trace(false, "plugged in");
}

bool UsbDevice::plugged() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return plugged_;
}

bool UsbDevice::claimed(unsigned interface) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = claims_.find(interface);
    return it != claims_.end() && it->second;
}

std::vector<UsbDevice::ClaimEvent> UsbDevice::claimEvents() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return claimEvents_;
}

std::vector<UsbDevice::ControlTransfer> UsbDevice::controlTransfers() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return controls_;
}

void UsbDevice::setControlHandler(ControlHandler handler)
{
    std::lock_guard<std::mutex> lock(mutex_);
    controlHandler_ = std::move(handler);
}

std::vector<UsbDevice::BulkTransfer> UsbDevice::bulkTransfers() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return bulk_;
}

std::vector<UsbDevice::BulkTransfer> UsbDevice::bulkOut() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<BulkTransfer> out;
    for (const auto &transfer : bulk_)
        if (!(transfer.endpoint & USB_DIR_IN))
            out.push_back(transfer);
    return out;
}

std::vector<UsbDevice::BulkTransfer> UsbDevice::bulkIn() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<BulkTransfer> out;
    for (const auto &transfer : bulk_)
        if (transfer.endpoint & USB_DIR_IN)
            out.push_back(transfer);
    return out;
}

void UsbDevice::clearTransfers()
{
    std::lock_guard<std::mutex> lock(mutex_);
    bulk_.clear();
    controls_.clear();
    claimEvents_.clear();
    inRequests_ = 0;
    outAttempts_ = 0;
}

size_t UsbDevice::inRequests() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return inRequests_;
}

size_t UsbDevice::outAttempts() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return outAttempts_;
}

void UsbDevice::setBulkObserver(BulkObserver observer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    observer_ = std::move(observer);
}

void UsbDevice::setTraceBulk(bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    traceBulk_ = on;
}

void UsbDevice::queueIn(uint8_t endpoint, std::vector<uint8_t> bytes)
{
    BulkTransfer record;
    BulkObserver observer;
    bool traced = true;
    std::shared_ptr<PendingCall> waiting;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        waiting = claimWaiting(endpoint, bytes, record);
        if (!waiting) {
            inQueues_[endpoint].push_back(std::move(bytes));
            return;
        }
        observer = observer_;
        traced = traceBulk_;
    }
    // Recorded before the host has its answer: whoever sees the host act on
    // these bytes also sees the transfer that carried them.
    finishBulk(record, traced, observer);
    waiting->finish(static_cast<int>(record.bytes.size()));
}

std::shared_ptr<PendingCall> UsbDevice::claimWaiting(uint8_t endpoint, const std::vector<uint8_t> &bytes,
                                                     BulkTransfer &record)
{
    waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(),
                                  [](const WaitingIn &w) { return w.call->completed(); }),
                   waiting_.end());
    for (auto it = waiting_.begin(); it != waiting_.end();) {
        if (it->endpoint != endpoint) {
            ++it;
            continue;
        }
        const WaitingIn waiting = *it;
        it = waiting_.erase(it);
        if (!waiting.call->claim())
            continue; // it had just expired
        const size_t n = std::min(bytes.size(), waiting.length);
        if (n > 0)
            std::memcpy(waiting.data, bytes.data(), n);
        record.when = Clock::now();
        record.endpoint = endpoint;
        record.claimed = waiting.claimed;
        record.bytes.assign(bytes.begin(), bytes.begin() + static_cast<long>(n));
        return waiting.call;
    }
    return nullptr;
}

size_t UsbDevice::waitingIn() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<size_t>(std::count_if(waiting_.begin(), waiting_.end(),
                                             [](const WaitingIn &w) { return !w.call->completed(); }));
}

size_t UsbDevice::queuedIn(uint8_t endpoint) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = inQueues_.find(endpoint);
    return it == inQueues_.end() ? 0 : it->second.size();
}

void UsbDevice::setInHandler(InHandler handler)
{
    std::lock_guard<std::mutex> lock(mutex_);
    inHandler_ = std::move(handler);
}

void UsbDevice::failTransfers(Transfer kind, int err, int count)
{
    std::lock_guard<std::mutex> lock(mutex_);
    failures_[kind] = Failure{err, count};
}

void UsbDevice::clearFailure(Transfer kind)
{
    std::lock_guard<std::mutex> lock(mutex_);
    failures_.erase(kind);
}

bool UsbDevice::failNow(Transfer kind, int *err)
{
    if (!plugged_) {
        *err = ENODEV;
        return true;
    }
    auto it = failures_.find(kind);
    if (it == failures_.end() || it->second.remaining == 0)
        return false;
    *err = it->second.err;
    if (it->second.remaining > 0)
        --it->second.remaining;
    return true;
}

const UsbEndpoint *UsbDevice::findEndpoint(uint8_t address, const UsbInterface **owner) const
{
    for (const auto &interface : description_.interfaces)
        for (const auto &endpoint : interface.endpoints)
            if (endpoint.address == address) {
                *owner = &interface;
                return &endpoint;
            }
    return nullptr;
}

void UsbDevice::trace(bool toDevice, const std::string &note, const uint8_t *bytes, size_t size)
{
    TraceEvent event;
    event.when = Clock::now();
    event.link = link_;
    event.toDevice = toDevice;
    event.note = note;
    if (bytes)
        event.bytes.assign(bytes, bytes + size);
    else
        event.bytes.assign(note.begin(), note.end());
    board_.trace().add(std::move(event));
}

int UsbDevice::handle(IoctlCall &call, int *err)
{
    switch (call.kind()) {
    case IoctlCall::Kind::Read:
        return handleRead(call, err);
    case IoctlCall::Kind::Write:
        // usbfs nodes take no writes.
        *err = EINVAL;
        return -1;
    case IoctlCall::Kind::Ioctl:
        break;
    }
    const unsigned long request = call.request();
    if (request == static_cast<unsigned long>(USBDEVFS_CLAIMINTERFACE))
        return handleClaim(call, true, err);
    if (request == static_cast<unsigned long>(USBDEVFS_RELEASEINTERFACE))
        return handleClaim(call, false, err);
    if (request == static_cast<unsigned long>(USBDEVFS_CONTROL))
        return handleControl(call, err);
    if (request == static_cast<unsigned long>(USBDEVFS_BULK))
        return handleBulk(call, err);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!plugged_) {
            *err = ENODEV;
            return -1;
        }
    }
    *err = ENOTTY;
    return -1;
}

// How many bytes of `bytes` (device descriptor, then the configuration)
// the kernel keeps: its configuration parse stops at a descriptor shorter
// than 2 bytes or running past the configuration's end ("skipping
// remainder of the config"), and usbfs then leaves the rest of the
// caller's buffer as it was while still counting it.
static size_t keptByTheKernel(const std::vector<uint8_t> &bytes)
{
    size_t at = USB_DT_DEVICE_SIZE;
    if (bytes.size() < at + USB_DT_CONFIG_SIZE || bytes[at + 1] != USB_DT_CONFIG)
        return bytes.size();
    const size_t end = bytes.size();
    at += std::max<size_t>(bytes[at], 2);
    while (at + 2 <= end) {
        const size_t length = bytes[at];
        if (length < 2 || at + length > end)
            return at;
        at += length;
    }
    return at; // a last byte too short for a descriptor head is not kept either
}

int UsbDevice::handleRead(IoctlCall &call, int *err)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (failNow(Transfer::Read, err))
        return -1;
    const size_t n = std::min(call.bufferSize(), descriptors_.size());
    const size_t written = std::min(n, keptByTheKernel(descriptors_));
    if (written > 0)
        std::memcpy(call.buffer(), descriptors_.data(), written);
    return static_cast<int>(n);
}

int UsbDevice::handleClaim(IoctlCall &call, bool claim, int *err)
{
    auto *number = static_cast<unsigned *>(call.resolveArg(sizeof(unsigned)));
    if (!number) {
        *err = EFAULT;
        return -1;
    }
    int result = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const bool exists = std::any_of(description_.interfaces.begin(), description_.interfaces.end(),
                                        [&](const UsbInterface &i) { return i.number == *number; });
        if (failNow(claim ? Transfer::Claim : Transfer::Release, err)) {
            result = -1;
        } else if (!exists) {
            *err = ENOENT;
            result = -1;
        } else if (!claim && !claims_[*number]) {
            *err = EINVAL;
            result = -1;
        } else {
            claims_[*number] = claim;
        }
        claimEvents_.push_back({claim, *number, result < 0 ? -*err : 0});
    }
    trace(true, std::string(claim ? "CLAIM" : "RELEASE") + " interface " + std::to_string(*number) +
                    (result < 0 ? " failed errno=" + std::to_string(*err) : ""));
    return result;
}

bool UsbDevice::standardDescriptor(const ControlTransfer &setup, std::vector<uint8_t> &answer,
                                   int *err) const
{
    constexpr uint8_t kGetDescriptor = USB_DIR_IN | USB_TYPE_STANDARD | USB_RECIP_DEVICE;
    if (setup.requestType != kGetDescriptor || setup.request != USB_REQ_GET_DESCRIPTOR)
        return false;
    const uint8_t type = static_cast<uint8_t>(setup.value >> 8);
    const uint8_t index = static_cast<uint8_t>(setup.value & 0xff);
    if (type == USB_DT_DEVICE) {
        answer = deviceDescriptor(description_);
    } else if (type == USB_DT_CONFIG && index == 0) {
        // The configuration descriptor with everything under it: what read()
        // gives after the device descriptor.
        const std::vector<uint8_t> all = usbDescriptors(description_);
        answer.assign(all.begin() + USB_DT_DEVICE_SIZE, all.end());
    } else if (type == USB_DT_STRING && index == 0) {
        answer = {static_cast<uint8_t>(2 + 2 * description_.languages.size()), USB_DT_STRING};
        for (uint16_t language : description_.languages)
            put16(answer, language);
    } else if (type == USB_DT_STRING && index >= 1 && index <= 3) {
        const std::string &text =
            index == 1 ? description_.manufacturer : index == 2 ? description_.product : description_.serial;
        if (text.empty()) {
            *err = EPIPE;
            return true;
        }
        answer = stringDescriptor(text);
    } else {
        // No such descriptor: the device stalls the request.
        *err = EPIPE;
        return true;
    }
    if (answer.size() > setup.length)
        answer.resize(setup.length);
    return true;
}

int UsbDevice::handleControl(IoctlCall &call, int *err)
{
    auto *control = static_cast<usbdevfs_ctrltransfer *>(call.resolveArg(sizeof(usbdevfs_ctrltransfer)));
    if (!control) {
        *err = EFAULT;
        return -1;
    }
    ControlTransfer record;
    record.when = Clock::now();
    record.requestType = control->bRequestType;
    record.request = control->bRequest;
    record.value = control->wValue;
    record.index = control->wIndex;
    record.length = control->wLength;
    const bool in = record.requestType & USB_DIR_IN;
    uint8_t *data = nullptr;
    if (record.length > 0) {
        data = static_cast<uint8_t *>(
            call.resolvePointer(control, offsetof(usbdevfs_ctrltransfer, data), record.length));
        if (!data) {
            *err = EFAULT;
            return -1;
        }
        if (!in)
            record.data.assign(data, data + record.length);
    }
    int result = 0;
    ControlHandler handler;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        handler = controlHandler_;
        if (failNow(Transfer::Control, err)) {
            result = -1;
        } else {
            std::vector<uint8_t> answer;
            if (standardDescriptor(record, answer, err)) {
                result = *err ? -1 : static_cast<int>(answer.size());
                if (result > 0)
                    std::memcpy(data, answer.data(), answer.size());
                record.data = answer;
                handler = nullptr;
            }
        }
    }
    if (handler && result == 0) {
        // Outside the lock: the handler may call back into the model.
        std::vector<uint8_t> answer = record.data;
        result = handler(record, answer, err);
        if (result >= 0 && in) {
            const size_t n = std::min<size_t>({answer.size(), record.length, static_cast<size_t>(result)});
            if (n > 0)
                std::memcpy(data, answer.data(), n);
            result = static_cast<int>(n);
            record.data.assign(answer.begin(), answer.begin() + static_cast<long>(n));
        } else if (result < 0 && *err == 0) {
            *err = EPIPE;
        }
    } else if (!handler && result == 0 && !in) {
        // Accepted without a handler: an OUT request takes all its data.
        result = record.length;
    }
    record.result = result < 0 ? -*err : result;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        controls_.push_back(record);
    }
    std::string note = "CONTROL type " + hex8(record.requestType) + " request " + hex8(record.request) +
                       " value " + hex16(record.value) + " index " + hex16(record.index) + " length " +
                       std::to_string(record.length);
    note += result < 0 ? " failed errno=" + std::to_string(*err) : " -> " + std::to_string(result);
    // The host makes every request, whichever way its data goes.
    trace(true, note);
    return result;
}

int UsbDevice::handleBulk(IoctlCall &call, int *err)
{
    auto *bulk = static_cast<usbdevfs_bulktransfer *>(call.resolveArg(sizeof(usbdevfs_bulktransfer)));
    if (!bulk) {
        *err = EFAULT;
        return -1;
    }
    const uint8_t endpoint = static_cast<uint8_t>(bulk->ep);
    const bool in = endpoint & USB_DIR_IN;
    const size_t length = bulk->len;
    if (length > kMaxTransfer) {
        *err = EINVAL;
        return -1;
    }
    uint8_t *data = nullptr;
    if (length > 0) {
        data = static_cast<uint8_t *>(call.resolvePointer(bulk, offsetof(usbdevfs_bulktransfer, data), length));
        if (!data) {
            *err = EFAULT;
            return -1;
        }
    }
    BulkTransfer record;
    record.when = Clock::now();
    record.endpoint = endpoint;
    int result = 0;
    InHandler inHandler;
    BulkObserver observer;
    bool traced = true;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        in ? ++inRequests_ : ++outAttempts_;
        const UsbInterface *owner = nullptr;
        if (failNow(in ? Transfer::BulkIn : Transfer::BulkOut, err)) {
            result = -1;
        } else if (!findEndpoint(endpoint, &owner)) {
            *err = ENOENT;
            result = -1;
        } else {
            // The kernel claims an unclaimed interface on first use; the
            // record says whether the host had claimed it.
            record.claimed = claims_[owner->number];
            claims_[owner->number] = true;
            if (!in) {
                record.bytes.assign(data, data + length);
                result = static_cast<int>(length);
            } else {
                auto &queue = inQueues_[endpoint];
                if (!queue.empty()) {
                    record.bytes = std::move(queue.front());
                    queue.pop_front();
                    if (record.bytes.size() > length)
                        record.bytes.resize(length);
                    result = static_cast<int>(record.bytes.size());
                } else if (inHandler_) {
                    inHandler = inHandler_;
                } else {
                    // Nothing to send yet: the transfer waits for data or
                    // for its time-out, as the kernel holds it.
                    WaitingIn waiting;
                    waiting.call = call.defer(std::chrono::milliseconds(bulk->timeout), -1, ETIMEDOUT);
                    waiting.endpoint = endpoint;
                    waiting.data = data;
                    waiting.length = length;
                    waiting.claimed = record.claimed;
                    waiting_.push_back(std::move(waiting));
                    return IoctlNode::kDeferred;
                }
            }
        }
        observer = observer_;
        traced = traceBulk_;
    }
    if (inHandler) {
        result = inHandler(endpoint, length, record.bytes, err);
        if (result >= 0) {
            if (record.bytes.size() > std::min(length, static_cast<size_t>(result)))
                record.bytes.resize(std::min(length, static_cast<size_t>(result)));
            result = static_cast<int>(record.bytes.size());
        } else if (*err == 0) {
            *err = EIO;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        // Unplugged while the handler ran: the transfer is lost.
        if (!plugged_) {
            *err = ENODEV;
            result = -1;
        }
    }
    if (result < 0) {
        if (traced)
            trace(!in, std::string(in ? "BULK IN " : "BULK OUT ") + hex8(endpoint) + " failed errno=" +
                           std::to_string(*err));
        return -1;
    }
    if (in && result > 0)
        std::memcpy(data, record.bytes.data(), static_cast<size_t>(result));
    finishBulk(record, traced, observer);
    return result;
}

void UsbDevice::finishBulk(const BulkTransfer &record, bool traced, const BulkObserver &observer)
{
    const bool in = record.endpoint & USB_DIR_IN;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        bulk_.push_back(record);
    }
    if (traced)
        trace(!in,
              std::string(in ? "BULK IN " : "BULK OUT ") + hex8(record.endpoint) + " " +
                  std::to_string(record.bytes.size()) +
                  " bytes: " + hex(record.bytes.data(), std::min(record.bytes.size(), kTraceBytes)) +
                  (record.bytes.size() > kTraceBytes ? " ..." : ""),
              record.bytes.data(), record.bytes.size());
    if (observer)
        observer(record);
}

} // namespace sim
