/*
 * The virtual board core: the process's umockdev testbed, the board root,
 * the live trace, pty-backed serial lines and ioctl-emulated nodes.
 *
 * Threads: the test (or console) thread builds and tears down the board and
 * its models; every SerialLine runs one reader thread; ioctl handlers run on
 * umockdev's worker thread; a node with timed deferred calls runs one
 * expiry thread that completes them. Trace is shared by all of them and is
 * guarded by its own mutex. The node bookkeeping (which devnode is backed
 * by which sysfs device) is process-wide, guarded by ProcessTestbed::mutex.
 */
#include "board.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sstream>
#include <sys/stat.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include <filesystem>

#include <umockdev.h>

namespace sim {

namespace {

// Every peripheral node the module knows; all of them start masked.
constexpr const char *kKnownNodes[] = {
    "/dev/ttyS1",   "/dev/ttyS2",   "/dev/i2c-1",   "/dev/snd/controlC2",
    "/dev/hidraw0", "/dev/hidraw1", "/dev/hidraw2", "/dev/hidraw3",
    "/dev/hidraw4", "/dev/hidraw5", "/dev/hidraw6", "/dev/hidraw7",
    "/dev/hidraw8", "/dev/hidraw9",
};

// Directories of /dev that must exist in the testbed even when empty: the
// module lists them, and a missing one would list the host's.
constexpr const char *kTestbedDirs[] = {"/dev/bus/usb", "/dev/snd"};

// Directories every board root carries for the module's own files.
constexpr const char *kRootDirs[] = {
    "/tmp", "/mnt/expand", "/mnt/vendor/param/audio", "/system/etc/dsp_config",
    "/data", "/properties",
};

// Serial reader poll period: bounds how long stop() waits for the thread.
constexpr int kReaderPollMs = 20;
// Pause after the module closed its end (the master reports EIO/HUP until
// the port is reopened).
constexpr auto kClosedPortPause = std::chrono::milliseconds(5);
// Paced writes sleep after this many bytes.
constexpr size_t kPaceGroup = 8;
// A write that cannot make progress for this long fails.
constexpr auto kWriteStall = std::chrono::seconds(2);

// A node claimed in this process: its testbed device and what its /dev
// entry links to when it is not masked.
struct NodeRecord {
    std::string syspath;
    std::string target;
};

std::string nodeName(const std::string &devnode)
{
    constexpr std::string_view prefix = "/dev/";
    if (devnode.compare(0, prefix.size(), prefix) == 0)
        return devnode.substr(prefix.size());
    return devnode;
}

// Subsystem recorded for an emulated node; only informative for the module.
std::string subsystemFor(const std::string &name)
{
    if (name.rfind("tty", 0) == 0)
        return "tty";
    if (name.rfind("snd/", 0) == 0)
        return "sound";
    if (name.rfind("i2c-", 0) == 0)
        return "i2c-dev";
    if (name.rfind("hidraw", 0) == 0)
        return "hidraw";
    return "misc";
}

// Renders bytes as a C-like string literal body: printable ASCII as is,
// the rest escaped.
std::string escapeBytes(const uint8_t *data, size_t size)
{
    std::string out;
    out.reserve(size + 8);
    for (size_t i = 0; i < size; ++i) {
        const uint8_t c = data[i];
        switch (c) {
        case 0: out += "\\0"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '\\': out += "\\\\"; break;
        case '"': out += "\\\""; break;
        default:
            if (c >= 0x20 && c < 0x7f) {
                out += static_cast<char>(c);
            } else {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\x%02x", c);
                out += buf;
            }
        }
    }
    return out;
}

} // namespace

Clock::duration wireTime(size_t bytes, unsigned baud)
{
    if (baud == 0)
        return Clock::duration::zero();
    // Ten bit times per byte: start bit, eight data bits, stop bit.
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(static_cast<double>(bytes) * 10.0 / baud));
}

std::string renderBytes(const uint8_t *data, size_t size) { return escapeBytes(data, size); }

// ---------------------------------------------------------------- Trace

void Trace::add(TraceEvent event)
{
    Listener listener;
    std::vector<Listener> more;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (keep_)
            events_.push_back(event);
        listener = listener_;
        for (const auto &entry : more_)
            more.push_back(entry.second);
    }
    std::shared_lock<std::shared_mutex> calling(callMutex_);
    if (listener)
        listener(event);
    for (const auto &l : more)
        l(event);
}

std::vector<TraceEvent> Trace::snapshot() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

void Trace::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    events_.clear();
}

void Trace::setListener(Listener listener)
{
    std::lock_guard<std::mutex> lock(mutex_);
    listener_ = std::move(listener);
}

int Trace::addListener(Listener listener)
{
    std::lock_guard<std::mutex> lock(mutex_);
    const int id = nextId_++;
    more_.emplace_back(id, std::move(listener));
    return id;
}

void Trace::removeListener(int id)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        more_.erase(std::remove_if(more_.begin(), more_.end(), [id](const auto &e) { return e.first == id; }),
                    more_.end());
    }
    // A call that copied the listener before it went finishes first.
    std::unique_lock<std::shared_mutex> wait(callMutex_);
}

void Trace::setKeep(bool keep)
{
    std::lock_guard<std::mutex> lock(mutex_);
    keep_ = keep;
    if (!keep)
        events_.clear();
}

// ---------------------------------------------------------------- Testbed

namespace {

// The process's one umockdev testbed. Creating a testbed starts its worker
// thread and sets UMOCKDEV_DIR; finalising one unsets it. Both change the
// environment, which no thread may do while others run (module threads
// read it through the path helper, the property store and umockdev's own
// path redirection), so the testbed is made once, before any other thread
// (initBoardProcess), and lives until the process ends. Its directory lies
// under the wrapper's private TMPDIR, which the wrapper removes afterwards.
struct ProcessTestbed {
    UMockdevTestbed *testbed = nullptr;
    std::string dir;                    // umockdev's directory (UMOCKDEV_DIR)
    std::mutex mutex;                   // guards nodes and the /dev entries
    std::map<std::string, NodeRecord> nodes; // every node claimed in this process
    std::atomic<int> boards{0};         // boards alive (at most one)
};

ProcessTestbed &processTestbed()
{
    // Never destroyed: module threads may outlive every board.
    static ProcessTestbed *instance = [] {
        auto *made = new ProcessTestbed;
        made->testbed = umockdev_testbed_new();
        gchar *dir = umockdev_testbed_get_root_dir(made->testbed);
        made->dir = dir ? dir : "";
        g_free(dir);
        return made;
    }();
    return *instance;
}

// Hides a /dev entry: a Unix socket where the node was. The board's shim
// (sim/preload) makes such a path absent (ENOENT) for open, access and
// stat. Even without the shim the host's node would not be reached:
// umockdev redirects any /dev path that exists in the testbed, and opening
// a socket fails with ENXIO. (A dangling link would not do: umockdev
// follows it, finds nothing and falls through to the host's node.)
bool placeMask(const std::string &path)
{
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    std::filesystem::remove_all(path, ec);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        std::fprintf(stderr, "virtual board: mask path too long: %s\n", path.c_str());
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sock < 0)
        return false;
    const bool ok = bind(sock, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0;
    if (!ok)
        std::fprintf(stderr, "virtual board: cannot mask %s: %s\n", path.c_str(), std::strerror(errno));
    close(sock); // the socket file stays; nothing listens on it
    return ok;
}

// A USB device that is not there is not listed by its bus either (as
// when it is unplugged); any other node is hidden behind a mask.
bool isUsbfsNode(const std::string &devnode) { return devnode.rfind("/dev/bus/usb/", 0) == 0; }

// Whether umockdev's preload library is loaded: asked of the loader, since
// LD_PRELOAD only says what was asked for (under qemu-arm it names the
// library without a path, and a loader passes over one of the other
// machine without a word; tests/board-wrapper).
bool umockdevPreloadLoaded()
{
    bool found = false;
    dl_iterate_phdr(
        [](struct dl_phdr_info *info, size_t, void *data) {
            if (info->dlpi_name && std::strstr(info->dlpi_name, "libumockdev-preload"))
                *static_cast<bool *>(data) = true;
            return 0;
        },
        &found);
    return found;
}

std::string requiredRoot()
{
    const char *root = getenv("AVMANAGER_ROOT");
    const char *props = getenv("AVMANAGER_PROPERTY_DIR");
    if (!root || !*root || !props || std::string(props) != std::string(root) + "/properties") {
        std::fprintf(stderr, "virtual board: AVMANAGER_ROOT and AVMANAGER_PROPERTY_DIR "
                             "(=$AVMANAGER_ROOT/properties) must be set before the program "
                             "starts; run it through tests/board-wrapper or scripts/run-board\n");
        std::abort();
    }
    return root;
}

} // namespace

void initBoardProcess()
{
    // Without umockdev nothing is redirected, and without the board's shim
    // in front of it the host's own devices show through: refuse both.
    if (!umockdevPreloadLoaded() || !dlsym(RTLD_DEFAULT, "avm_board_preload_active")) {
        std::fprintf(stderr, "virtual board: the board's shim and umockdev's preload are not "
                             "loaded; run the program through tests/board-wrapper or "
                             "scripts/run-board\n");
        std::abort();
    }
    requiredRoot();
    processTestbed();
}

// ---------------------------------------------------------------- Board

Board::Board()
{
    initBoardProcess();
    ProcessTestbed &tb = processTestbed();
    // Boards share the process's nodes: one at a time.
    if (tb.boards.fetch_add(1) != 0) {
        std::fprintf(stderr, "virtual board: another board of this process is still alive; "
                             "make boards one after the other\n");
        std::abort();
    }
    testbed_ = tb.testbed;
    testbedRoot_ = tb.dir;
    root_ = requiredRoot();

    // A board starts from an empty root, even after an earlier board of
    // this process.
    std::error_code ec;
    std::filesystem::create_directories(root_, ec);
    for (const auto &entry : std::filesystem::directory_iterator(root_, ec))
        std::filesystem::remove_all(entry.path(), ec);
    for (const char *dir : kRootDirs)
        std::filesystem::create_directories(root_ + dir, ec);

    // Directories the module lists must exist in the testbed, or the
    // listing falls through to the host's.
    for (const char *dir : kTestbedDirs)
        std::filesystem::create_directories(testbedRoot_ + dir, ec);

    std::vector<std::string> claimed;
    {
        std::lock_guard<std::mutex> lock(tb.mutex);
        for (const auto &node : tb.nodes)
            claimed.push_back(node.first);
    }
    for (const char *node : kKnownNodes)
        mask(node);
    for (const auto &node : claimed)
        isUsbfsNode(node) ? removeNode(node) : mask(node);
}

Board::~Board()
{
    trace_.setListener(nullptr);
    // The testbed and the root outlive the board (see ProcessTestbed); what
    // this board claimed is hidden again for the next one.
    std::vector<std::string> claimed;
    {
        std::lock_guard<std::mutex> lock(processTestbed().mutex);
        for (const auto &node : processTestbed().nodes)
            claimed.push_back(node.first);
    }
    for (const auto &node : claimed)
        isUsbfsNode(node) ? removeNode(node) : mask(node);
    processTestbed().boards.fetch_sub(1);
}

std::string Board::rootPath(const std::string &absolutePath) const
{
    if (!absolutePath.empty() && absolutePath[0] == '/')
        return root_ + absolutePath;
    return root_ + "/" + absolutePath;
}

void Board::writeFile(const std::string &absolutePath, const std::string &content)
{
    const std::string path = rootPath(absolutePath);
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string Board::readFile(const std::string &absolutePath) const
{
    std::ifstream in(rootPath(absolutePath), std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::string Board::devPath(const std::string &devnode) const
{
    return testbedRoot_ + "/dev/" + nodeName(devnode);
}

std::string Board::nextUsbNode()
{
    // Device 1 of each bus is its root hub, which the board does not model.
    constexpr int kDevicesPerBus = 126;
    const int n = usbDevices_.fetch_add(1);
    char node[32];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", 1 + n / kDevicesPerBus,
                  2 + n % kDevicesPerBus);
    return node;
}

std::string Board::addNode(const std::string &devnode)
{
    // umockdev cannot create a node twice in one testbed (nor take a device
    // away again), so a node keeps its device and pty for the process's
    // life; claiming it again just puts its node back.
    ProcessTestbed &tb = processTestbed();
    std::lock_guard<std::mutex> lock(tb.mutex);
    const std::string path = devPath(devnode);
    std::error_code ec;
    auto it = tb.nodes.find(devnode);
    if (it != tb.nodes.end()) {
        std::filesystem::remove_all(path, ec);
        if (symlink(it->second.target.c_str(), path.c_str()) != 0) {
            std::fprintf(stderr, "virtual board: cannot restore %s: %s\n", devnode.c_str(),
                         std::strerror(errno));
            return std::string();
        }
        return it->second.syspath;
    }
    // Drop the mask so umockdev can create the node.
    std::filesystem::remove_all(path, ec);
    const std::string name = nodeName(devnode);
    std::string leaf = name;
    std::replace(leaf.begin(), leaf.end(), '/', '_');
    const std::string subsystem = subsystemFor(name);
    const std::string devpath = "/devices/platform/avm-board/" + subsystem + "/" + leaf;
    const std::string record = "P: " + devpath + "\nN: " + name + "\nE: SUBSYSTEM=" + subsystem +
                               "\nE: DEVNAME=" + devnode + "\n\n";
    GError *error = nullptr;
    if (!umockdev_testbed_add_from_string(testbed_, record.c_str(), &error)) {
        std::fprintf(stderr, "virtual board: cannot add %s: %s\n", devnode.c_str(),
                     error ? error->message : "?");
        g_clear_error(&error);
        placeMask(path);
        return std::string();
    }
    // The node umockdev made is a link to the slave side of its pty.
    char target[PATH_MAX] = {};
    const ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
    NodeRecord entry;
    entry.syspath = "/sys" + devpath;
    entry.target = n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
    tb.nodes[devnode] = entry;
    return entry.syspath;
}

int Board::addSerialNode(const std::string &devnode)
{
    if (addNode(devnode).empty())
        return -1;
    const int master = umockdev_testbed_get_dev_fd(testbed_, devnode.c_str());
    if (master < 0) {
        std::fprintf(stderr, "virtual board: %s is not backed by a pty\n", devnode.c_str());
        return -1;
    }
    // A line claimed again starts empty.
    tcflush(master, TCIOFLUSH);
    // A UART has no line discipline: put the slave side in raw mode until
    // the module configures it, so nothing is echoed or translated.
    if (const char *slave = ptsname(master)) {
        const int fd = open(slave, O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (fd >= 0) {
            struct termios tio;
            if (tcgetattr(fd, &tio) == 0) {
                cfmakeraw(&tio);
                tcsetattr(fd, TCSANOW, &tio);
            }
            close(fd);
        }
    }
    return master;
}

std::shared_ptr<Board::PeerSlot> Board::peerSlot(const std::string &devnode)
{
    std::lock_guard<std::mutex> lock(peersMutex_);
    auto &slot = peers_[devnode];
    if (!slot)
        slot = std::make_shared<PeerSlot>();
    return slot;
}

bool Board::selectSerialPeer(const std::string &devnode, const std::string &link)
{
    std::shared_ptr<PeerSlot> slot = peerSlot(devnode);
    std::lock_guard<std::mutex> lock(slot->mutex);
    if (std::find(slot->lines.begin(), slot->lines.end(), link) == slot->lines.end())
        return false;
    slot->active = link;
    return true;
}

std::string Board::serialPeer(const std::string &devnode) const
{
    std::shared_ptr<PeerSlot> slot;
    {
        std::lock_guard<std::mutex> lock(peersMutex_);
        auto it = peers_.find(devnode);
        if (it == peers_.end())
            return std::string();
        slot = it->second;
    }
    std::lock_guard<std::mutex> lock(slot->mutex);
    return slot->active;
}

void Board::mask(const std::string &devnode)
{
    std::lock_guard<std::mutex> lock(processTestbed().mutex);
    placeMask(devPath(devnode));
}

void Board::removeNode(const std::string &devnode)
{
    std::lock_guard<std::mutex> lock(processTestbed().mutex);
    std::error_code ec;
    std::filesystem::remove_all(devPath(devnode), ec);
}

// ---------------------------------------------------------------- SerialLine

struct SerialLine::Impl {
    Board &board;
    std::string devnode;
    std::string link;
    std::shared_ptr<Board::PeerSlot> peers; // which line of the node is on it
    int fd = -1;                       // our own dup of the pty master
    std::atomic<unsigned> baud{0};     // pacing; 0 = unpaced
    Clock::time_point rxFree{};        // reader: when the line to us is free again
    std::atomic<bool> stopping{false}; // set by stop(), read by the reader
    std::thread reader;                // started by start()
    std::mutex writeMutex;             // one writer at a time keeps chunks whole
    Receiver receiver;                 // called on the reader thread

    Impl(Board &b, std::string node, std::string name)
        : board(b), devnode(std::move(node)), link(std::move(name))
    {
    }

    void trace(bool toDevice, const uint8_t *data, size_t size, Clock::time_point start)
    {
        TraceEvent event;
        event.when = Clock::now();
        event.start = start;
        event.link = link;
        event.toDevice = toDevice;
        event.bytes.assign(data, data + size);
        event.note = escapeBytes(data, size);
        board.trace().add(std::move(event));
    }

    bool onLine()
    {
        std::lock_guard<std::mutex> lock(peers->mutex);
        return peers->active == link;
    }

    void run()
    {
        uint8_t buf[4096];
        while (!stopping.load(std::memory_order_relaxed)) {
            if (!onLine()) {
                // Another line of this node is on it: its bytes are not ours.
                std::this_thread::sleep_for(std::chrono::milliseconds(kReaderPollMs));
                continue;
            }
            struct pollfd pfd = {fd, POLLIN, 0};
            const int ready = poll(&pfd, 1, kReaderPollMs);
            if (ready < 0) {
                if (errno != EINTR)
                    std::this_thread::sleep_for(kClosedPortPause);
                continue;
            }
            if (ready == 0)
                continue;
            if (!(pfd.revents & POLLIN)) {
                // Hang-up: the module has its end closed; wait for a reopen.
                std::this_thread::sleep_for(kClosedPortPause);
                continue;
            }
            ssize_t n = 0;
            {
                // Read only while on the line; a selection waits for the
                // read, so no byte goes to a line that was just replaced.
                std::lock_guard<std::mutex> lock(peers->mutex);
                if (peers->active != link)
                    continue;
                n = read(fd, buf, sizeof buf);
                if (n < 0 && errno != EAGAIN && errno != EINTR)
                    n = -2;
            }
            if (n > 0) {
                // At a line rate, the bytes reach the peer when the last of
                // them would have crossed the line, which stays busy with
                // earlier bytes until then.
                Clock::time_point start = Clock::now();
                const unsigned rate = baud.load(std::memory_order_relaxed);
                if (rate != 0) {
                    start = std::max(start, rxFree);
                    rxFree = start + wireTime(static_cast<size_t>(n), rate);
                    std::this_thread::sleep_until(rxFree);
                }
                trace(true, buf, static_cast<size_t>(n), start);
                if (receiver)
                    receiver(buf, static_cast<size_t>(n));
            } else if (n == -2) {
                std::this_thread::sleep_for(kClosedPortPause);
            }
        }
    }

    bool writeSome(const uint8_t *data, size_t size)
    {
        size_t done = 0;
        auto lastProgress = Clock::now();
        while (done < size) {
            const ssize_t n = ::write(fd, data + done, size - done);
            if (n > 0) {
                done += static_cast<size_t>(n);
                lastProgress = Clock::now();
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
                return false;
            if (Clock::now() - lastProgress > kWriteStall)
                return false;
            struct pollfd pfd = {fd, POLLOUT, 0};
            poll(&pfd, 1, kReaderPollMs);
        }
        return true;
    }
};

SerialLine::SerialLine(Board &board, const std::string &devnode, std::string link)
    : impl_(std::make_unique<Impl>(board, devnode, std::move(link)))
{
    // The newest line of a node takes it.
    impl_->peers = board.peerSlot(devnode);
    {
        std::lock_guard<std::mutex> lock(impl_->peers->mutex);
        impl_->peers->lines.push_back(impl_->link);
        impl_->peers->active = impl_->link;
    }
    const int master = board.addSerialNode(devnode);
    if (master >= 0) {
        // The testbed owns its descriptor; ours survives a mask() of the node.
        impl_->fd = fcntl(master, F_DUPFD_CLOEXEC, 0);
        if (impl_->fd >= 0) {
            const int flags = fcntl(impl_->fd, F_GETFL);
            fcntl(impl_->fd, F_SETFL, flags | O_NONBLOCK);
        }
    }
}

SerialLine::~SerialLine()
{
    stop();
    if (impl_->fd >= 0)
        close(impl_->fd);
    // The line before this one is on the node again.
    std::lock_guard<std::mutex> lock(impl_->peers->mutex);
    auto &lines = impl_->peers->lines;
    auto it = std::find(lines.rbegin(), lines.rend(), impl_->link);
    if (it != lines.rend())
        lines.erase(std::next(it).base());
    if (impl_->peers->active == impl_->link)
        impl_->peers->active = lines.empty() ? std::string() : lines.back();
}

void SerialLine::start(Receiver receiver)
{
    if (impl_->reader.joinable() || impl_->fd < 0)
        return;
    impl_->receiver = std::move(receiver);
    impl_->stopping.store(false, std::memory_order_relaxed);
    impl_->reader = std::thread([impl = impl_.get()] {
        // Named, so CPU figures and debuggers tell the board's threads
        // from the module's.
        pthread_setname_np(pthread_self(), ("avm-line-" + impl->link).substr(0, 15).c_str());
        impl->run();
    });
}

void SerialLine::stop()
{
    impl_->stopping.store(true, std::memory_order_relaxed);
    if (impl_->reader.joinable())
        impl_->reader.join();
}

bool SerialLine::write(const void *data, size_t size)
{
    if (impl_->fd < 0 || !impl_->onLine())
        return false;
    const auto *bytes = static_cast<const uint8_t *>(data);
    std::lock_guard<std::mutex> lock(impl_->writeMutex);
    const unsigned baud = impl_->baud.load(std::memory_order_relaxed);
    bool ok = true;
    const auto start = Clock::now();
    if (baud == 0) {
        ok = impl_->writeSome(bytes, size);
    } else {
        for (size_t done = 0; done < size && ok;) {
            const size_t n = std::min(kPaceGroup, size - done);
            ok = impl_->writeSome(bytes + done, n);
            done += n;
            std::this_thread::sleep_until(start + wireTime(done, baud));
        }
    }
    impl_->trace(false, bytes, size, start);
    return ok;
}

void SerialLine::setLineRate(unsigned baud) { impl_->baud.store(baud, std::memory_order_relaxed); }

// ---------------------------------------------------------------- IoctlCall

unsigned long IoctlCall::request() const
{
    return kind_ == Kind::Ioctl ? umockdev_ioctl_client_get_request(client_) : 0;
}

unsigned long IoctlCall::argValue() const
{
    UMockdevIoctlData *arg = umockdev_ioctl_client_get_arg(client_);
    unsigned long value = 0;
    if (arg && arg->data && arg->data_len > 0)
        std::memcpy(&value, arg->data, std::min(sizeof value, static_cast<size_t>(arg->data_len)));
    return value;
}

void *IoctlCall::keep(void *resolved)
{
    auto *data = static_cast<UMockdevIoctlData *>(resolved);
    keep_.emplace_back(data, [](void *p) { g_object_unref(p); });
    return data->data;
}

void *IoctlCall::resolveArg(size_t len)
{
    if (kind_ != Kind::Ioctl || len == 0)
        return nullptr;
    UMockdevIoctlData *arg = umockdev_ioctl_client_get_arg(client_);
    if (!arg || argValue() == 0)
        return nullptr;
    GError *error = nullptr;
    UMockdevIoctlData *resolved = umockdev_ioctl_data_resolve(arg, 0, len, &error);
    if (!resolved) {
        g_clear_error(&error);
        return nullptr;
    }
    return keep(resolved);
}

void *IoctlCall::resolvePointer(void *parent, size_t offset, size_t len)
{
    if (!parent || len == 0)
        return nullptr;
    for (auto &held : keep_) {
        auto *data = static_cast<UMockdevIoctlData *>(held.get());
        if (data->data != parent)
            continue;
        if (data->data_len < 0 || offset + sizeof(void *) > static_cast<size_t>(data->data_len))
            return nullptr;
        void *pointer = nullptr;
        std::memcpy(&pointer, data->data + offset, sizeof pointer);
        if (!pointer)
            return nullptr;
        GError *error = nullptr;
        UMockdevIoctlData *resolved = umockdev_ioctl_data_resolve(data, offset, len, &error);
        if (!resolved) {
            g_clear_error(&error);
            return nullptr;
        }
        return keep(resolved);
    }
    return nullptr;
}

uint8_t *IoctlCall::buffer()
{
    if (kind_ == Kind::Ioctl)
        return nullptr;
    UMockdevIoctlData *arg = umockdev_ioctl_client_get_arg(client_);
    return arg ? arg->data : nullptr;
}

size_t IoctlCall::bufferSize() const
{
    if (kind_ == Kind::Ioctl)
        return 0;
    UMockdevIoctlData *arg = umockdev_ioctl_client_get_arg(client_);
    return arg && arg->data_len > 0 ? static_cast<size_t>(arg->data_len) : 0;
}

// Completes deferred calls that nobody answered in time. One per node,
// its thread started on the first timed deferral.
struct Deferrals {
    struct Entry {
        Clock::time_point due;
        std::shared_ptr<PendingCall> call;
        int result;
        int err;
    };
    std::mutex mutex;              // guards entries and stopping
    std::condition_variable wake;  // new entry or stop
    std::vector<Entry> entries;    // timed deferrals not yet expired
    bool stopping = false;
    std::thread thread;            // the expiry thread

    void add(std::shared_ptr<PendingCall> call, Clock::time_point due, int result, int err)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping)
            return;
        entries.push_back({due, std::move(call), result, err});
        if (!thread.joinable())
            thread = std::thread([this] {
                pthread_setname_np(pthread_self(), "avm-expiry");
                run();
            });
        wake.notify_all();
    }

    void run()
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!stopping) {
            auto next = Clock::now() + std::chrono::seconds(1);
            std::vector<Entry> expired;
            for (auto it = entries.begin(); it != entries.end();) {
                if (it->call->completed()) {
                    it = entries.erase(it);
                } else if (it->due <= Clock::now()) {
                    expired.push_back(std::move(*it));
                    it = entries.erase(it);
                } else {
                    next = std::min(next, it->due);
                    ++it;
                }
            }
            if (!expired.empty()) {
                lock.unlock();
                for (auto &entry : expired)
                    entry.call->complete(entry.result, entry.err);
                expired.clear();
                lock.lock();
                continue;
            }
            wake.wait_until(lock, next);
        }
    }

    void stop()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
            wake.notify_all();
        }
        if (thread.joinable())
            thread.join();
        entries.clear();
    }
};

std::shared_ptr<PendingCall> IoctlCall::defer(std::chrono::milliseconds expireAfter, int expireResult, int expireErr)
{
    deferred_ = true;
    auto pending = std::make_shared<PendingCall>(client_, kind_ == Kind::Read);
    if (expireAfter.count() > 0 && deferrals_)
        deferrals_->add(pending, Clock::now() + expireAfter, expireResult, expireErr);
    return pending;
}

// ---------------------------------------------------------------- PendingCall

PendingCall::PendingCall(UMockdevIoctlClient *client, bool read)
    : client_(static_cast<UMockdevIoctlClient *>(g_object_ref(client))), read_(read)
{
}

PendingCall::~PendingCall()
{
    complete(-1, EIO);
    g_object_unref(client_);
}

uint8_t *PendingCall::buffer()
{
    UMockdevIoctlData *arg = read_ ? umockdev_ioctl_client_get_arg(client_) : nullptr;
    return arg ? arg->data : nullptr;
}

size_t PendingCall::bufferSize() const
{
    UMockdevIoctlData *arg = read_ ? umockdev_ioctl_client_get_arg(client_) : nullptr;
    return arg && arg->data_len > 0 ? static_cast<size_t>(arg->data_len) : 0;
}

void PendingCall::complete(int result, int err)
{
    if (claim())
        finish(result, err);
}

bool PendingCall::claim()
{
    return !done_.exchange(true);
}

void PendingCall::finish(int result, int err)
{
    umockdev_ioctl_client_complete(client_, result, result >= 0 ? 0 : (err ? err : EIO));
}

// ---------------------------------------------------------------- IoctlNode

namespace {

// Shared between the node and umockdev's worker thread; freed when the
// signal handlers are gone (GLib keeps it alive through a running emission).
struct IoctlState {
    std::mutex mutex;            // held while a handler runs and by ~IoctlNode
    bool alive = true;           // false once the node is being torn down
    IoctlNode::Handler handler;  // the model's handler
    Deferrals *deferrals = nullptr; // the node's, valid while alive
};

struct SignalData {
    std::shared_ptr<IoctlState> state;
    IoctlCall::Kind kind;
};

gboolean onCall(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer user)
{
    auto *data = static_cast<SignalData *>(user);
    int err = 0;
    long ret = -1;
    {
        std::lock_guard<std::mutex> lock(data->state->mutex);
        if (data->state->alive && data->state->handler) {
            IoctlCall call(client, data->kind, data->state->deferrals);
            ret = data->state->handler(call, &err);
            if (call.deferred() && ret == IoctlNode::kDeferred)
                return TRUE;
            if (ret >= 0)
                err = 0;
            else if (err == 0)
                err = EIO;
            umockdev_ioctl_client_complete(client, ret, err);
            return TRUE;
        }
    }
    umockdev_ioctl_client_complete(client, -1, ENODEV);
    return TRUE;
}

void freeSignalData(gpointer user, GClosure *) { delete static_cast<SignalData *>(user); }

} // namespace

struct IoctlNode::Impl {
    Board &board;
    std::string devnode;
    UMockdevIoctlBase *base = nullptr;  // our handler object, attached to devnode
    std::shared_ptr<IoctlState> state;  // see IoctlState
    bool attached = false;              // attach succeeded
    Deferrals deferrals;                // expiry of timed deferred calls

    explicit Impl(Board &b) : board(b) {}
};

IoctlNode::IoctlNode(Board &board, const std::string &devnode, Handler handler)
    : impl_(std::make_unique<Impl>(board))
{
    impl_->devnode = devnode;
    impl_->state = std::make_shared<IoctlState>();
    impl_->state->handler = std::move(handler);
    impl_->state->deferrals = &impl_->deferrals;
    if (board.addNode(devnode).empty())
        return;
    impl_->base = umockdev_ioctl_base_new();
    const std::pair<const char *, IoctlCall::Kind> signals[] = {
        {"handle-ioctl", IoctlCall::Kind::Ioctl},
        {"handle-read", IoctlCall::Kind::Read},
        {"handle-write", IoctlCall::Kind::Write},
    };
    for (const auto &sig : signals)
        g_signal_connect_data(impl_->base, sig.first, G_CALLBACK(onCall),
                              new SignalData{impl_->state, sig.second}, freeSignalData,
                              GConnectFlags(0));
    GError *error = nullptr;
    impl_->attached =
        umockdev_testbed_attach_ioctl(board.testbed(), devnode.c_str(), impl_->base, &error);
    if (!impl_->attached) {
        std::fprintf(stderr, "virtual board: cannot attach ioctl handler to %s: %s\n",
                     devnode.c_str(), error ? error->message : "?");
        g_clear_error(&error);
    }
}

IoctlNode::~IoctlNode()
{
    {
        // Waits for a handler that is running right now.
        std::lock_guard<std::mutex> lock(impl_->state->mutex);
        impl_->state->alive = false;
    }
    impl_->deferrals.stop();
    if (impl_->attached)
        umockdev_testbed_detach_ioctl(impl_->board.testbed(), impl_->devnode.c_str(), nullptr);
    if (impl_->base) {
        g_signal_handlers_disconnect_matched(impl_->base, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr,
                                             reinterpret_cast<gpointer>(onCall), nullptr);
        g_object_unref(impl_->base);
    }
    // Without its handler the node would be a bare pty: hide it, as for a
    // peripheral that is not there.
    if (impl_->attached) {
        if (isUsbfsNode(impl_->devnode))
            impl_->board.removeNode(impl_->devnode);
        else
            impl_->board.mask(impl_->devnode);
    }
}

// ---------------------------------------------------------------- waitUntil

bool waitUntil(const std::function<bool()> &pred, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        if (pred())
            return true;
        if (Clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

} // namespace sim
