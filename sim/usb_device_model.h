/*
 * A USB device behind a usbfs node ("/dev/bus/usb/BBB/DDD", numbered by the
 * board in the order devices are added), for any model that is a USB
 * device: the HDMI-out converter, a camera, ...
 *
 * What the node answers, as the kernel's usbfs does:
 *  - read(): the device descriptor followed by the configuration
 *    descriptor with its interfaces and endpoints (or raw descriptor bytes
 *    set by the test); every read starts at the first byte. As the
 *    kernel's usbfs does, the bytes from a descriptor shorter than 2 bytes
 *    or running past the configuration's end onwards are counted but not
 *    written: the caller's buffer keeps what it held there;
 *  - USBDEVFS_CLAIMINTERFACE / USBDEVFS_RELEASEINTERFACE: claim state per
 *    interface (ENOENT for an interface the device does not have, EINVAL
 *    to release one that is not claimed);
 *  - USBDEVFS_CONTROL: standard GET_DESCRIPTOR requests (device,
 *    configuration, language list, strings; a missing string stalls with
 *    EPIPE), anything else through a handler or accepted without data;
 *    every control transfer is recorded;
 *  - USBDEVFS_BULK: OUT transfers captured with their time, IN transfers
 *    answered from a queue per endpoint or by a handler. An IN transfer
 *    with nothing to answer waits, as the kernel holds it: data queued
 *    meanwhile ends it at once, otherwise it fails with ETIMEDOUT when
 *    its time-out has passed (a time-out of 0 waits for data however
 *    long); ENOENT for an endpoint the device does not have.
 * Transfers fail on demand (an errno for the next n calls of a kind, or
 * until cleared). Unplugging takes the node out of its bus directory (the
 * device is not listed, opens fail with ENOENT) and fails every later call
 * on a descriptor still open with ENODEV, as the kernel does; replugging
 * puts it back under the same name, unclaimed.
 *
 * umockdev serves one call per descriptor at a time, so a waiting IN
 * would hold back the OUT transfers another thread of the module makes on
 * the same descriptor; the board's preload shim (sim/preload) sends bulk
 * IN transfers through a second descriptor of the node for that reason.
 *
 * Threads: the handler runs on umockdev's worker thread; tests and the
 * console call the setters and read the records from their own threads.
 * All state is guarded by one mutex; observers are called on the worker
 * thread outside it, one call at a time, in transfer order.
 */
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "board.h"

namespace sim {

struct UsbEndpoint {
    uint8_t address = 0x81;     // bit 7 set: IN
    uint8_t attributes = 0x02;  // transfer type: 2 bulk, 3 interrupt, ...
    uint16_t maxPacketSize = 512;
    uint8_t interval = 0;
};

struct UsbInterface {
    uint8_t number = 0;
    uint8_t alternateSetting = 0;
    uint8_t interfaceClass = 0xff; // the vendor's own class
    uint8_t interfaceSubClass = 0;
    uint8_t interfaceProtocol = 0;
    std::vector<UsbEndpoint> endpoints; // in the order the device lists them
};

// What the device says about itself. Empty strings have no descriptor
// (index 0).
struct UsbDeviceDescription {
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    uint16_t bcdDevice = 0x0100; // release number
    uint16_t bcdUsb = 0x0200;
    uint8_t deviceClass = 0;
    uint8_t deviceSubClass = 0;
    uint8_t deviceProtocol = 0;
    uint8_t maxPacketSize0 = 64;
    std::string manufacturer;
    std::string product;
    std::string serial;
    std::vector<uint16_t> languages = {0x0409};
    uint8_t configurationValue = 1;
    uint8_t configurationAttributes = 0x80; // bus powered
    uint8_t maxPower = 50;                  // in 2 mA units
    std::vector<UsbInterface> interfaces;
};

// The descriptors a device with this description reads back as: device
// descriptor, then the configuration with its interfaces and endpoints.
std::vector<uint8_t> usbDescriptors(const UsbDeviceDescription &description);
// The pieces, for devices that list their descriptors in an unusual order:
// one interface descriptor (without its endpoints), one endpoint
// descriptor, and the device and configuration descriptors of
// `description` followed by `body` as the configuration's contents.
std::vector<uint8_t> usbInterfaceDescriptor(const UsbInterface &interface);
std::vector<uint8_t> usbEndpointDescriptor(const UsbEndpoint &endpoint);
std::vector<uint8_t> usbDescriptorsListing(const UsbDeviceDescription &description, const std::vector<uint8_t> &body);

class UsbDevice {
public:
    enum class Transfer { Read, Claim, Release, Control, BulkOut, BulkIn };

    struct ControlTransfer {
        Clock::time_point when;
        uint8_t requestType = 0;
        uint8_t request = 0;
        uint16_t value = 0;
        uint16_t index = 0;
        uint16_t length = 0;
        std::vector<uint8_t> data; // OUT: what the host sent; IN: what was answered
        int result = 0;            // bytes, or -errno
    };

    struct BulkTransfer {
        Clock::time_point when;
        uint8_t endpoint = 0;
        std::vector<uint8_t> bytes; // OUT: what the host sent; IN: what was answered
        bool claimed = false;       // the endpoint's interface was claimed
    };

    struct ClaimEvent {
        bool claim = true; // false: release
        unsigned interface = 0;
        int result = 0;    // 0, or -errno
    };

    // Answers a control request the model does not know. `data` holds what
    // the host sent (OUT) or is filled with the answer (IN, at most
    // setup.length bytes). Returns the byte count, or -1 with *err set.
    using ControlHandler = std::function<int(const ControlTransfer &setup, std::vector<uint8_t> &data, int *err)>;
    // Answers a bulk IN with nothing queued: fills at most `length` bytes
    // of `data`; returns the byte count, or -1 with *err set.
    using InHandler = std::function<int(uint8_t endpoint, size_t length, std::vector<uint8_t> &data, int *err)>;
    // Told about every bulk transfer that succeeded (OUT and IN), in order.
    using BulkObserver = std::function<void(const BulkTransfer &transfer)>;

    // Adds the device to the board under the next usbfs node. `link` names
    // it in the board's trace.
    UsbDevice(Board &board, UsbDeviceDescription description, std::string link = "usb");
    ~UsbDevice();
    UsbDevice(const UsbDevice &) = delete;
    UsbDevice &operator=(const UsbDevice &) = delete;

    const std::string &devnode() const { return devnode_; }
    const UsbDeviceDescription &description() const { return description_; }
    // What read() of the node answers.
    std::vector<uint8_t> descriptors() const;
    // Answers read() with these bytes instead (malformed or unusual devices).
    void setRawDescriptors(std::vector<uint8_t> bytes);

    // Plug state.
    void unplug();
    void replug();
    bool plugged() const;

    // Claims.
    bool claimed(unsigned interface) const;
    std::vector<ClaimEvent> claimEvents() const;

    // Control transfers, in order.
    std::vector<ControlTransfer> controlTransfers() const;
    void setControlHandler(ControlHandler handler);

    // Bulk transfers that succeeded, in order (both directions).
    std::vector<BulkTransfer> bulkTransfers() const;
    std::vector<BulkTransfer> bulkOut() const;
    std::vector<BulkTransfer> bulkIn() const;
    void clearTransfers();
    // Bulk IN transfers asked for, answered or not.
    size_t inRequests() const;
    // Attempts of bulk OUT transfers, failed ones included.
    size_t outAttempts() const;
    void setBulkObserver(BulkObserver observer);
    // Keeps bulk transfers out of the board's trace (a model that traces
    // its own decoding of them); control and claims are always traced.
    void setTraceBulk(bool on);

    // Bulk IN answers: queued per endpoint, each answer one transfer (cut
    // to the length the host asks for); a transfer waiting on the endpoint
    // takes it at once.
    void queueIn(uint8_t endpoint, std::vector<uint8_t> bytes);
    size_t queuedIn(uint8_t endpoint) const;
    // Bulk IN transfers waiting for data now.
    size_t waitingIn() const;
    void setInHandler(InHandler handler);

    // Failures: the next `count` calls of `kind` fail with `err`;
    // count < 0: every call until clearFailure().
    void failTransfers(Transfer kind, int err, int count = -1);
    void clearFailure(Transfer kind);

private:
    struct Failure {
        int err = 0;
        int remaining = 0; // < 0: until cleared
    };

    // A bulk IN transfer waiting for data.
    struct WaitingIn {
        std::shared_ptr<PendingCall> call;
        uint8_t endpoint = 0;
        uint8_t *data = nullptr; // the host's buffer, valid until the call completes
        size_t length = 0;
        bool claimed = false;
    };

    int handle(IoctlCall &call, int *err);
    int handleRead(IoctlCall &call, int *err);
    int handleClaim(IoctlCall &call, bool claim, int *err);
    int handleControl(IoctlCall &call, int *err);
    int handleBulk(IoctlCall &call, int *err);
    // Under mutex_: whether a call of `kind` fails now, and with what.
    bool failNow(Transfer kind, int *err);
    const UsbEndpoint *findEndpoint(uint8_t address, const UsbInterface **owner) const;
    bool standardDescriptor(const ControlTransfer &setup, std::vector<uint8_t> &answer, int *err) const;
    void trace(bool toDevice, const std::string &note, const uint8_t *bytes = nullptr, size_t size = 0);
    // Records, traces and reports a bulk transfer that succeeded.
    void finishBulk(const BulkTransfer &record, bool traced, const BulkObserver &observer);
    // Under mutex_: drops waiting IN transfers that expired, gives `bytes`
    // to the oldest one waiting on `endpoint` and returns its call, claimed
    // and filled but not answered yet; nullptr when none waits.
    std::shared_ptr<PendingCall> claimWaiting(uint8_t endpoint, const std::vector<uint8_t> &bytes,
                                              BulkTransfer &record);

    Board &board_;
    const UsbDeviceDescription description_;
    const std::string link_;
    const std::string devnode_;

    mutable std::mutex mutex_;                         // guards everything below
    std::vector<uint8_t> descriptors_;                 // what read() answers
    bool plugged_ = true;
    std::map<unsigned, bool> claims_;                  // interface -> claimed
    std::vector<ClaimEvent> claimEvents_;
    std::vector<ControlTransfer> controls_;
    std::vector<BulkTransfer> bulk_;
    size_t inRequests_ = 0;
    size_t outAttempts_ = 0;
    std::map<uint8_t, std::deque<std::vector<uint8_t>>> inQueues_;
    ControlHandler controlHandler_;
    InHandler inHandler_;
    BulkObserver observer_;
    bool traceBulk_ = true;
    std::map<Transfer, Failure> failures_;
    std::vector<WaitingIn> waiting_;                   // IN transfers waiting for data

    std::unique_ptr<IoctlNode> node_; // last: the handler may run as soon as it exists
};

} // namespace sim
