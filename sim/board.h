/*
 * The virtual board: a umockdev testbed in which the module's /dev and /sys
 * paths resolve to simulated peripherals, plus the board root for the
 * module's other files (AVMANAGER_ROOT) and property store
 * (AVMANAGER_PROPERTY_DIR = $AVMANAGER_ROOT/properties).
 *
 * The process runs under tests/board-wrapper (scripts/run-board uses it
 * too), which sets the whole environment before the program starts: the
 * board never changes the environment, since other threads read it. The
 * testbed is one per process, made by initBoardProcess() before any other
 * thread starts and kept to the end; boards made one after the other in a
 * process share it, and each starts from an empty root with every node
 * masked (USB device nodes are taken out of their bus directory instead,
 * as unplugged devices).
 *
 * A masked node does not exist for the module (the board's preload shim
 * answers ENOENT), and nothing reaches the host's own devices: under the
 * board's /dev trees (serial ports, I2C, sound, hidraw, usbfs) a path the
 * testbed lacks is absent too. A model claims its node when it is
 * constructed.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

typedef struct _UMockdevTestbed UMockdevTestbed;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;

namespace sim {

using Clock = std::chrono::steady_clock;

// One record of what crossed a link.
struct TraceEvent {
    Clock::time_point when;     // when it was over (the last byte, the answer)
    Clock::time_point start{};  // when it began, if it took time on the line or
                                // the bus; left at the epoch for an instant
    std::string link;           // "dsp", "ptz", "i2c-1", "controlC2", ...
    bool toDevice;              // true: module -> peripheral
    std::vector<uint8_t> bytes; // raw bytes (serial) or a rendered record (ioctl)
    std::string note;           // human-readable rendering, may be empty
};

// Time `bytes` take on a serial line at `baud` with 8N1 framing (ten bit
// times a byte); zero for an unpaced line (baud 0).
Clock::duration wireTime(size_t bytes, unsigned baud);

// Escapes bytes for display: printable ASCII as is, the rest as \0, \n,
// \xNN, ...
std::string renderBytes(const uint8_t *data, size_t size);

// Live trace of every link of a board; the console prints it as it grows.
class Trace {
public:
    using Listener = std::function<void(const TraceEvent &)>;
    void add(TraceEvent event);
    std::vector<TraceEvent> snapshot() const;
    void clear();
    // Called for every new event (from the thread that added it).
    void setListener(Listener listener);
    // Further listeners (a timeline recorder next to the console's
    // printer); removeListener(id) returns once no call of it runs.
    int addListener(Listener listener);
    void removeListener(int id);
    // Whether add() keeps events for snapshot() (on by default). A long
    // run that only listens turns it off so the record does not grow.
    void setKeep(bool keep);

private:
    mutable std::mutex mutex_;                  // guards events_, keep_ and the listener lists
    std::shared_mutex callMutex_;               // shared while listeners run; removal takes it whole
    std::vector<TraceEvent> events_;
    bool keep_ = true;
    Listener listener_;
    std::vector<std::pair<int, Listener>> more_; // added listeners, by id
    int nextId_ = 1;
};

// Makes the process's testbed. Call it first thing in main, before any
// thread exists: making a testbed sets UMOCKDEV_DIR. Aborts with a hint
// when the board environment is missing. Board() calls it too.
void initBoardProcess();

class Board {
public:
    Board();
    ~Board();
    Board(const Board &) = delete;
    Board &operator=(const Board &) = delete;

    // Board root ($AVMANAGER_ROOT, emptied when the board is made); the
    // property store is root()/properties.
    const std::string &root() const { return root_; }
    // An absolute device path as it lies under the root ("/tmp/x" ->
    // root()+"/tmp/x").
    std::string rootPath(const std::string &absolutePath) const;
    // Writes a file under the root, creating its directories.
    void writeFile(const std::string &absolutePath, const std::string &content);
    std::string readFile(const std::string &absolutePath) const;

    UMockdevTestbed *testbed() { return testbed_; }
    Trace &trace() { return trace_; }

    // Claims a masked node as a pty-backed serial line; returns the master
    // descriptor (owned by the board).
    int addSerialNode(const std::string &devnode);
    // Hides a node again (a peripheral that was removed): open, access and
    // stat fail with ENOENT; it still shows in a listing of its directory.
    void mask(const std::string &devnode);
    // Takes a node out of its directory (a USB device unplugged from its
    // bus): it no longer lists either. Only for the board's own /dev trees
    // (see above), where a missing node cannot fall through to the host.
    void removeNode(const std::string &devnode);
    // Claims a node as an emulated device (pty-backed; an attached ioctl
    // handler takes its calls over); returns its sysfs path, "" on
    // failure. A node claimed again after mask() comes back as it was.
    std::string addNode(const std::string &devnode);
    // Where a /dev node lies inside the testbed.
    std::string devPath(const std::string &devnode) const;
    // The usbfs node for the next USB device added to this board:
    // "/dev/bus/usb/001/002", then 003, ... in the order devices are added
    // (device numbers 2..127 on bus 001, then bus 002, ...).
    std::string nextUsbNode();

    // Serial peers. A serial node can carry several models (the audio DSP
    // and the Fig DSP both sit on /dev/ttyS2), but one at a time is on the
    // line: only that one reads what the module writes and writes to it.
    // The line made last takes the node; when it goes, the one before is on
    // the line again. selectSerialPeer puts the line with that link name on
    // the node (false when there is none).
    bool selectSerialPeer(const std::string &devnode, const std::string &link);
    // Link name of the line on the node, "" when none.
    std::string serialPeer(const std::string &devnode) const;

    // Which of a node's lines is on it; shared with the node's lines.
    struct PeerSlot {
        std::mutex mutex;               // guards both fields; held by a line while it reads
        std::vector<std::string> lines; // link names of the node's lines, oldest first
        std::string active;             // link name of the line on the node
    };
    std::shared_ptr<PeerSlot> peerSlot(const std::string &devnode);

private:
    UMockdevTestbed *testbed_ = nullptr; // the process's testbed
    std::string testbedRoot_;            // umockdev's directory (UMOCKDEV_DIR)
    std::string root_;
    Trace trace_;
    mutable std::mutex peersMutex_;      // guards peers_ (lines come and go on any thread)
    std::map<std::string, std::shared_ptr<PeerSlot>> peers_; // by devnode
    std::atomic<int> usbDevices_{0}; // USB device nodes handed out by nextUsbNode()
};

// Board side of a serial line: a reader thread hands every chunk the module
// writes to a receiver; write() sends bytes to the module, optionally paced
// at a real line rate. Both directions are traced. While another line of
// the same node is on it (Board::selectSerialPeer), this one neither reads
// nor writes (write() returns false).
class SerialLine {
public:
    using Receiver = std::function<void(const uint8_t *data, size_t size)>;
    SerialLine(Board &board, const std::string &devnode, std::string link);
    ~SerialLine();
    void start(Receiver receiver);
    void stop();
    // Writes all bytes to the module (the module's port read timing joins
    // bytes less than 0.1 s apart into one chunk).
    bool write(const void *data, size_t size);
    // 0: as fast as possible; otherwise the line runs at baud/10 bytes per
    // second both ways: bytes written to the module leave no faster, and
    // bytes the module wrote reach the receiver when their last byte would
    // have crossed the line (the module's own write returns at once, as
    // into a UART's transmit buffer).
    void setLineRate(unsigned baud);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

struct Deferrals;

// A call whose answer comes later (a blocking read with no report waiting).
// complete() may be called from any thread, once; a call dropped without
// completion fails with EIO.
class PendingCall {
public:
    PendingCall(UMockdevIoctlClient *client, bool read);
    ~PendingCall();
    PendingCall(const PendingCall &) = delete;
    PendingCall &operator=(const PendingCall &) = delete;
    // read(): the buffer to fill before complete(); nullptr otherwise.
    uint8_t *buffer();
    size_t bufferSize() const;
    void complete(int result, int err = 0);
    // Answering in two steps lets a model record what it answered before
    // the caller can act on it: claim() takes the call (false when it was
    // completed already: it expired, say), the model fills the buffer and
    // records, then finish() hands the answer over.
    bool claim();
    void finish(int result, int err = 0);
    bool completed() const { return done_; }

private:
    UMockdevIoctlClient *client_; // a reference of our own
    bool read_;
    std::atomic<bool> done_{false};
};

// One ioctl/read/write call from the module on an emulated node. Pointer
// arguments are resolved into local memory; changes are synced back when
// the call completes.
class IoctlCall {
public:
    enum class Kind { Ioctl, Read, Write };
    explicit IoctlCall(UMockdevIoctlClient *client, Kind kind = Kind::Ioctl,
                       struct Deferrals *deferrals = nullptr)
        : client_(client), kind_(kind), deferrals_(deferrals)
    {
    }
    // ioctl(), read() or write() on the node. For read/write the handler
    // returns the byte count.
    Kind kind() const { return kind_; }
    // The ioctl request (0 for read/write).
    unsigned long request() const;
    // The argument as an integer (for requests that pass a value).
    unsigned long argValue() const;
    // The memory the argument points to (len bytes), or nullptr.
    void *resolveArg(size_t len);
    // Memory a pointer at `offset` inside already resolved `parent` points
    // to (len bytes), or nullptr.
    void *resolvePointer(void *parent, size_t offset, size_t len);
    // read(): the buffer to fill (bufferSize() bytes requested);
    // write(): the bytes written. nullptr/0 for an ioctl.
    uint8_t *buffer();
    size_t bufferSize() const;
    // Answers later: take the handle, return IoctlNode::kDeferred from the
    // handler and complete the handle when the answer is there. umockdev
    // serves other nodes meanwhile, but the module's descriptor is busy:
    // another call on the same descriptor waits until this one completes.
    // With expireAfter > 0 the call completes by itself with expireResult
    // (and expireErr, for a negative result) when nobody answered it in
    // time: a read that returns nothing lets a module thread write on the
    // same descriptor; a transfer ends by its time-out.
    std::shared_ptr<PendingCall> defer(std::chrono::milliseconds expireAfter = std::chrono::milliseconds(0),
                                       int expireResult = 0, int expireErr = 0);
    bool deferred() const { return deferred_; }

private:
    void *keep(void *resolved);

    UMockdevIoctlClient *client_;
    Kind kind_;
    struct Deferrals *deferrals_; // the node's expiry timer for deferred calls
    bool deferred_ = false;
    std::vector<std::shared_ptr<void>> keep_; // resolved blocks, released after completion
};

// A node whose ioctls a model answers: handle() returns the ioctl result
// and sets *err for a negative one. Runs on umockdev's worker thread.
class IoctlNode {
public:
    using Handler = std::function<int(IoctlCall &call, int *err)>;
    // Handler result of a call answered later through IoctlCall::defer().
    static constexpr int kDeferred = -0x7fff0000;
    IoctlNode(Board &board, const std::string &devnode, Handler handler);
    ~IoctlNode();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Polls pred every few milliseconds until it holds or the timeout passes.
bool waitUntil(const std::function<bool()> &pred, std::chrono::milliseconds timeout);

} // namespace sim
