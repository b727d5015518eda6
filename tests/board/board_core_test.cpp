// The virtual board itself: serial lines through the module's view of
// /dev, masked nodes, the trace, line-rate pacing, ioctl emulation with
// pointer arguments, and the DSP model's command framing.
#include <gtest/gtest.h>

#include <cerrno>
#include <dirent.h>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <thread>
#include <vector>
#include <unistd.h>

#include "sim/board.h"
#include "sim/dsp_model.h"

using namespace std::chrono_literals;

namespace {

// Opens a serial node as the module does: read/write, no controlling
// terminal, raw 115200 8N1, read returns after 128 bytes or 0.1 s of quiet.
int openPortLikeModule(const char *devnode)
{
    const int fd = open(devnode, O_RDWR | O_NOCTTY);
    if (fd < 0)
        return -1;
    struct termios tio;
    if (tcgetattr(fd, &tio) != 0) {
        close(fd);
        return -1;
    }
    cfmakeraw(&tio);
    cfsetispeed(&tio, B115200);
    cfsetospeed(&tio, B115200);
    tio.c_cflag |= CLOCAL | CREAD;
    tio.c_cc[VMIN] = 128;
    tio.c_cc[VTIME] = 1;
    if (tcsetattr(fd, TCSANOW, &tio) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Reads until `want` bytes arrived or the deadline passed.
std::string readFor(int fd, size_t want, std::chrono::milliseconds timeout)
{
    std::string out;
    const auto deadline = sim::Clock::now() + timeout;
    while (out.size() < want && sim::Clock::now() < deadline) {
        struct pollfd pfd = {fd, POLLIN, 0};
        if (poll(&pfd, 1, 20) <= 0)
            continue;
        char buf[512];
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n > 0)
            out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

bool writeAll(int fd, const std::string &bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// What a fake node hands out: a struct whose member points at a buffer,
// like the I2C transfer records.
struct FakeRecord {
    uint32_t tag;
    uint32_t len;
    uint8_t *buf;
};
constexpr unsigned long kFakeFill = _IOWR('Z', 1, FakeRecord);
constexpr unsigned long kFakeValue = _IO('Z', 2);

} // namespace

TEST(BoardCore, UsesTheWrappersPrivateRootAndPropertyStore)
{
    sim::Board board;
    ASSERT_FALSE(board.root().empty());
    EXPECT_STREQ(getenv("AVMANAGER_ROOT"), board.root().c_str());
    EXPECT_EQ(std::string(getenv("AVMANAGER_PROPERTY_DIR")), board.root() + "/properties");
    for (const char *dir : {"/tmp", "/mnt/expand", "/mnt/vendor/param/audio",
                            "/system/etc/dsp_config", "/data", "/properties"}) {
        struct stat st;
        EXPECT_EQ(stat(board.rootPath(dir).c_str(), &st), 0) << dir;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << dir;
    }
    board.writeFile("/mnt/vendor/param/audio/x/y.ini", "[a]\nb=1\n");
    EXPECT_EQ(board.readFile("/mnt/vendor/param/audio/x/y.ini"), "[a]\nb=1\n");
}

TEST(BoardCore, ANewBoardStartsFromAnEmptyRoot)
{
    std::string root;
    {
        sim::Board board;
        root = board.root();
        board.writeFile("/data/file", "x");
        board.writeFile("/properties/persist.test.key", "1");
    }
    sim::Board board;
    EXPECT_EQ(board.root(), root);
    struct stat st;
    EXPECT_NE(stat(board.rootPath("/data/file").c_str(), &st), 0);
    EXPECT_NE(stat(board.rootPath("/properties/persist.test.key").c_str(), &st), 0);
    EXPECT_EQ(stat(board.rootPath("/data").c_str(), &st), 0);
}

TEST(BoardCore, MaskedNodesCannotBeOpened)
{
    sim::Board board;
    std::vector<std::string> nodes = {"/dev/ttyS1", "/dev/ttyS2", "/dev/i2c-1", "/dev/snd/controlC2"};
    for (int i = 0; i < 10; ++i)
        nodes.push_back("/dev/hidraw" + std::to_string(i));
    for (const auto &node : nodes) {
        for (int flags : {O_RDWR, O_RDONLY, O_WRONLY}) {
            errno = 0;
            const int fd = open(node.c_str(), flags | O_NOCTTY | O_NONBLOCK);
            EXPECT_EQ(fd, -1) << node;
            EXPECT_EQ(errno, ENOENT) << node;
            if (fd >= 0)
                close(fd);
        }
        EXPECT_NE(access(node.c_str(), F_OK), 0) << node;
        struct stat st;
        EXPECT_NE(stat(node.c_str(), &st), 0) << node;
    }
}

TEST(BoardCore, NodesTheBoardOwnsButDoesNotModelAreAbsent)
{
    sim::Board board;
    // Legacy serial ports, other I2C adapters and sound cards, HID devices
    // and USB devices of the host never show through.
    for (const char *node : {"/dev/ttyS0", "/dev/ttyS3", "/dev/i2c-0", "/dev/snd/controlC0",
                             "/dev/hidraw10", "/dev/bus/usb/001/001"}) {
        errno = 0;
        EXPECT_EQ(open(node, O_RDWR | O_NOCTTY | O_NONBLOCK), -1) << node;
        EXPECT_EQ(errno, ENOENT) << node;
        EXPECT_NE(access(node, F_OK), 0) << node;
    }
}

TEST(BoardCore, AMaskHidesANodeEveryHostHas)
{
    sim::Board board;
    // /dev/zero is not in the testbed: umockdev hands the open to the host.
    int fd = open("/dev/zero", O_RDONLY);
    ASSERT_GE(fd, 0) << "the host has no /dev/zero";
    char byte = 1;
    EXPECT_EQ(read(fd, &byte, 1), 1);
    close(fd);
    board.mask("/dev/zero");
    for (int flags : {O_RDONLY, O_WRONLY, O_RDWR}) {
        errno = 0;
        fd = open("/dev/zero", flags);
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(errno, ENOENT);
        if (fd >= 0)
            close(fd);
    }
    EXPECT_NE(access("/dev/zero", F_OK), 0);
    EXPECT_EQ(fopen("/dev/zero", "r"), nullptr);
}

TEST(BoardCore, ADanglingLinkWouldNotHideAHostNode)
{
    sim::Board board;
    // Why masks are sockets: umockdev follows a link to decide whether a
    // path is in the testbed, so a dangling one lets the host's node through.
    ASSERT_EQ(symlink("/nonexistent/avm-board-node", board.devPath("/dev/full").c_str()), 0);
    errno = 0;
    const int fd = open("/dev/full", O_WRONLY);
    EXPECT_GE(fd, 0);
    if (fd >= 0) {
        errno = 0;
        EXPECT_EQ(write(fd, "x", 1), -1);
        EXPECT_EQ(errno, ENOSPC); // the host's /dev/full answered
        close(fd);
    }
}

TEST(BoardCore, TheHostsUsbDevicesAreNeverListed)
{
    sim::Board board;
    DIR *dir = opendir("/dev/bus/usb");
    ASSERT_NE(dir, nullptr);
    std::vector<std::string> entries;
    while (dirent *entry = readdir(dir))
        if (entry->d_name[0] != '.')
            entries.push_back(entry->d_name);
    closedir(dir);
    EXPECT_TRUE(entries.empty());
}

TEST(BoardCore, FailedOpensDoNotWearOutUmockdev)
{
    sim::Board board;
    // umockdev keeps a 50-entry table that a failed /dev open used to fill
    // for good; the board's preload shim frees each entry again.
    for (int i = 0; i < 500; ++i) {
        const int fd = open("/dev/hidraw3", O_RDWR);
        ASSERT_EQ(fd, -1) << "attempt " << i;
    }
    sim::SerialLine line(board, "/dev/ttyS2", "dsp");
    for (int i = 0; i < 60; ++i) {
        const int fd = open("/dev/ttyS2", O_RDWR | O_NOCTTY | O_NONBLOCK);
        ASSERT_GE(fd, 0) << "attempt " << i;
        close(fd);
    }
}

TEST(BoardCore, SerialRoundTripThroughTheDeviceNode)
{
    sim::Board board;
    std::mutex mutex;
    std::string received;
    sim::SerialLine line(board, "/dev/ttyS2", "dsp");
    line.start([&](const uint8_t *data, size_t size) {
        std::lock_guard<std::mutex> lock(mutex);
        received.append(reinterpret_cast<const char *>(data), size);
    });
    const int fd = openPortLikeModule("/dev/ttyS2");
    ASSERT_GE(fd, 0) << std::strerror(errno);

    const std::string command("MV=?\0", 5);
    ASSERT_TRUE(writeAll(fd, command));
    EXPECT_TRUE(sim::waitUntil(
        [&] {
            std::lock_guard<std::mutex> lock(mutex);
            return received == command;
        },
        2000ms));

    ASSERT_TRUE(line.write("MV=-9.00", 8));
    EXPECT_EQ(readFor(fd, 8, 2000ms), "MV=-9.00");
    close(fd);
}

TEST(BoardCore, TraceRecordsBothDirectionsWithLinkName)
{
    sim::Board board;
    std::vector<sim::TraceEvent> live;
    std::mutex mutex;
    board.trace().setListener([&](const sim::TraceEvent &event) {
        std::lock_guard<std::mutex> lock(mutex);
        live.push_back(event);
    });
    sim::SerialLine line(board, "/dev/ttyS2", "dsp");
    line.start([](const uint8_t *, size_t) {});
    const int fd = openPortLikeModule("/dev/ttyS2");
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(writeAll(fd, std::string("VER=?\0", 6)));
    ASSERT_TRUE(sim::waitUntil([&] { return !board.trace().snapshot().empty(); }, 2000ms));
    ASSERT_TRUE(line.write("VER=1.2\n", 8));
    EXPECT_EQ(readFor(fd, 8, 2000ms), "VER=1.2\n");
    close(fd);

    const auto events = board.trace().snapshot();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].link, "dsp");
    EXPECT_TRUE(events[0].toDevice);
    EXPECT_EQ(std::string(events[0].bytes.begin(), events[0].bytes.end()), std::string("VER=?\0", 6));
    EXPECT_EQ(events[0].note, "VER=?\\0");
    EXPECT_EQ(events[1].link, "dsp");
    EXPECT_FALSE(events[1].toDevice);
    EXPECT_EQ(events[1].note, "VER=1.2\\n");
    EXPECT_LE(events[0].when, events[1].when);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(live.size(), 2u);

    board.trace().clear();
    EXPECT_TRUE(board.trace().snapshot().empty());
}

TEST(BoardCore, LineRatePacingSlowsLongWrites)
{
    sim::Board board;
    sim::SerialLine line(board, "/dev/ttyS2", "dsp");
    line.start([](const uint8_t *, size_t) {});
    const int fd = openPortLikeModule("/dev/ttyS2");
    ASSERT_GE(fd, 0);
    // Drain on the module side so the pty never fills.
    std::string got;
    std::thread drain([&] { got = readFor(fd, 1152, 5000ms); });
    line.setLineRate(115200);
    const std::string block(1152, 'A');
    const auto start = sim::Clock::now();
    ASSERT_TRUE(line.write(block.data(), block.size()));
    const auto elapsed = sim::Clock::now() - start;
    drain.join();
    close(fd);
    // 1152 bytes at 11520 bytes per second: about 0.1 s.
    EXPECT_GE(elapsed, 90ms);
    EXPECT_EQ(got, block);
}

TEST(BoardCore, UnpacedWritesAreNotThrottled)
{
    sim::Board board;
    sim::SerialLine line(board, "/dev/ttyS2", "dsp");
    line.start([](const uint8_t *, size_t) {});
    const int fd = openPortLikeModule("/dev/ttyS2");
    ASSERT_GE(fd, 0);
    const std::string block(1152, 'B');
    ASSERT_TRUE(line.write(block.data(), block.size()));
    EXPECT_EQ(readFor(fd, block.size(), 3000ms), block);
    close(fd);
}

TEST(BoardCore, ReaderSurvivesPortCloseAndReopen)
{
    sim::Board board;
    std::mutex mutex;
    std::string received;
    sim::SerialLine line(board, "/dev/ttyS2", "dsp");
    line.start([&](const uint8_t *data, size_t size) {
        std::lock_guard<std::mutex> lock(mutex);
        received.append(reinterpret_cast<const char *>(data), size);
    });
    auto receivedIs = [&](const std::string &want) {
        return sim::waitUntil(
            [&] {
                std::lock_guard<std::mutex> lock(mutex);
                return received == want;
            },
            2000ms);
    };

    int fd = openPortLikeModule("/dev/ttyS2");
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(writeAll(fd, "one"));
    EXPECT_TRUE(receivedIs("one"));
    close(fd);
    // Give the reader time to see the hang-up.
    std::this_thread::sleep_for(60ms);

    fd = openPortLikeModule("/dev/ttyS2");
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(writeAll(fd, "two"));
    EXPECT_TRUE(receivedIs("onetwo"));
    ASSERT_TRUE(line.write("back", 4));
    EXPECT_EQ(readFor(fd, 4, 2000ms), "back");
    close(fd);

    const auto stopStart = sim::Clock::now();
    line.stop();
    EXPECT_LT(sim::Clock::now() - stopStart, 2000ms);
}

TEST(BoardCore, MaskHidesAClaimedNodeAgain)
{
    sim::Board board;
    sim::SerialLine line(board, "/dev/ttyS1", "ptz");
    line.start([](const uint8_t *, size_t) {});
    int fd = open("/dev/ttyS1", O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    close(fd);
    board.mask("/dev/ttyS1");
    fd = open("/dev/ttyS1", O_RDWR | O_NOCTTY);
    EXPECT_EQ(fd, -1);
    if (fd >= 0)
        close(fd);
}

TEST(BoardCore, IoctlRoundTripResolvesStructAndNestedPointer)
{
    sim::Board board;
    std::atomic<int> calls{0};
    sim::IoctlNode node(board, "/dev/snd/controlC2", [&](sim::IoctlCall &call, int *err) {
        ++calls;
        if (call.kind() != sim::IoctlCall::Kind::Ioctl) {
            *err = EINVAL;
            return -1;
        }
        if (call.request() == kFakeValue)
            return static_cast<int>(call.argValue() + 1);
        if (call.request() != kFakeFill) {
            *err = ENOTTY;
            return -1;
        }
        auto *record = static_cast<FakeRecord *>(call.resolveArg(sizeof(FakeRecord)));
        if (!record) {
            *err = EFAULT;
            return -1;
        }
        auto *buf = static_cast<uint8_t *>(
            call.resolvePointer(record, offsetof(FakeRecord, buf), record->len));
        if (!buf) {
            *err = EFAULT;
            return -1;
        }
        for (uint32_t i = 0; i < record->len; ++i)
            buf[i] = static_cast<uint8_t>(record->tag + i);
        record->tag = 0xabcd;
        return 7;
    });

    const int fd = open("/dev/snd/controlC2", O_RDWR);
    ASSERT_GE(fd, 0) << std::strerror(errno);

    uint8_t data[6] = {};
    FakeRecord record = {0x10, sizeof data, data};
    EXPECT_EQ(ioctl(fd, kFakeFill, &record), 7);
    EXPECT_EQ(record.tag, 0xabcdu);
    EXPECT_EQ(record.buf, data);
    for (size_t i = 0; i < sizeof data; ++i)
        EXPECT_EQ(data[i], 0x10 + i) << i;

    EXPECT_EQ(ioctl(fd, kFakeValue, 41), 42);

    errno = 0;
    EXPECT_EQ(ioctl(fd, _IO('Z', 9)), -1);
    EXPECT_EQ(errno, ENOTTY);

    record.buf = nullptr;
    errno = 0;
    EXPECT_EQ(ioctl(fd, kFakeFill, &record), -1);
    EXPECT_EQ(errno, EFAULT);
    close(fd);
    EXPECT_EQ(calls.load(), 4);
}

TEST(BoardCore, IoctlNodeAnswersReadAndWrite)
{
    sim::Board board;
    std::mutex mutex;
    std::string written;
    sim::IoctlNode node(board, "/dev/hidraw0", [&](sim::IoctlCall &call, int *err) {
        if (call.kind() == sim::IoctlCall::Kind::Write) {
            std::lock_guard<std::mutex> lock(mutex);
            written.assign(reinterpret_cast<const char *>(call.buffer()), call.bufferSize());
            return static_cast<int>(call.bufferSize());
        }
        if (call.kind() == sim::IoctlCall::Kind::Read) {
            const char reply[] = "report";
            const size_t n = std::min(call.bufferSize(), sizeof reply - 1);
            std::memcpy(call.buffer(), reply, n);
            return static_cast<int>(n);
        }
        *err = ENOTTY;
        return -1;
    });
    const int fd = open("/dev/hidraw0", O_RDWR);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    EXPECT_EQ(write(fd, "hello", 5), 5);
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(written, "hello");
    }
    char buf[64] = {};
    EXPECT_EQ(read(fd, buf, sizeof buf), 6);
    EXPECT_STREQ(buf, "report");
    close(fd);
}

TEST(BoardCore, WaitUntilReturnsWhenPredicateHoldsOrTimesOut)
{
    const auto start = sim::Clock::now();
    int polls = 0;
    EXPECT_TRUE(sim::waitUntil([&] { return ++polls >= 3; }, 2000ms));
    EXPECT_EQ(polls, 3);
    EXPECT_FALSE(sim::waitUntil([] { return false; }, 30ms));
    EXPECT_GE(sim::Clock::now() - start, 30ms);
}

TEST(DspModelCore, SplitsCommandsAtZeroBytesAcrossChunks)
{
    sim::Board board;
    sim::DspModel dsp(board);
    const int fd = openPortLikeModule("/dev/ttyS2");
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(writeAll(fd, std::string("MV=?\0BAL=", 9)));
    ASSERT_TRUE(dsp.waitForCommand("MV=?", 2000ms));
    std::this_thread::sleep_for(30ms);
    ASSERT_TRUE(writeAll(fd, std::string("3\0\0", 3)));
    ASSERT_TRUE(dsp.waitForCommandCount(3, 2000ms));
    EXPECT_EQ(dsp.commands(), (std::vector<std::string>{"MV=?", "BAL=3", ""}));
    EXPECT_EQ(dsp.commandCount(), 3u);
    dsp.clearCommands();
    EXPECT_EQ(dsp.commandCount(), 0u);
    close(fd);
}

TEST(DspModelCore, FirstResponderThatHandlesACommandWins)
{
    sim::Board board;
    sim::DspModel dsp(board);
    std::atomic<int> second{0};
    dsp.addResponder([](sim::DspModel &d, const std::string &command) {
        if (command != "MV=?")
            return false;
        d.send("MV=-9.00");
        return true;
    });
    dsp.addResponder([&](sim::DspModel &, const std::string &) {
        ++second;
        return true;
    });
    const int fd = openPortLikeModule("/dev/ttyS2");
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(writeAll(fd, std::string("MV=?\0", 5)));
    EXPECT_EQ(readFor(fd, 8, 2000ms), "MV=-9.00");
    EXPECT_EQ(second.load(), 0);
    ASSERT_TRUE(writeAll(fd, std::string("VER=?\0", 6)));
    EXPECT_TRUE(sim::waitUntil([&] { return second.load() == 1; }, 2000ms));
    close(fd);
}

TEST(DspModelCore, SilentModeDropsReplies)
{
    sim::Board board;
    sim::DspModel dsp(board);
    const int fd = openPortLikeModule("/dev/ttyS2");
    ASSERT_GE(fd, 0);
    dsp.setSilent(true);
    dsp.send("MV=-9.00");
    EXPECT_EQ(readFor(fd, 1, 200ms), "");
    dsp.setSilent(false);
    dsp.send("MV=-9.00");
    EXPECT_EQ(readFor(fd, 8, 2000ms), "MV=-9.00");
    close(fd);
}

TEST(DspModelCore, GarbageModeKeepsLengthButNotBytes)
{
    sim::Board board;
    sim::DspModel dsp(board);
    const int fd = openPortLikeModule("/dev/ttyS2");
    ASSERT_GE(fd, 0);
    dsp.setGarbage(true);
    const std::string reply = "VER_FULL=1.2.3.4 build 2026-11-01";
    dsp.send(reply);
    const std::string got = readFor(fd, reply.size(), 2000ms);
    EXPECT_EQ(got.size(), reply.size());
    EXPECT_NE(got, reply);
    close(fd);
}

TEST(DspModelCore, RepliesCloserThanTheReadGapJoinIntoOneChunk)
{
    sim::Board board;
    sim::DspModel dsp(board);
    const int fd = openPortLikeModule("/dev/ttyS2");
    ASSERT_GE(fd, 0);
    dsp.send("MV=-9.00");
    dsp.send("BAL=0");
    // VMIN 128 / VTIME 1: one read returns both replies.
    char buf[256];
    const ssize_t n = read(fd, buf, sizeof buf);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), "MV=-9.00BAL=0");
    close(fd);
}

TEST(BoardCore, DeferredReadBlocksUntilTheModelAnswers)
{
    sim::Board board;
    std::mutex mutex;
    std::shared_ptr<sim::PendingCall> pendingRead;
    sim::IoctlNode node(board, "/dev/hidraw3", [&](sim::IoctlCall &call, int *err) {
        std::lock_guard<std::mutex> lock(mutex);
        if (call.kind() == sim::IoctlCall::Kind::Read) {
            // No report waiting: the read blocks, as on a real hidraw node.
            pendingRead = call.defer();
            return sim::IoctlNode::kDeferred;
        }
        if (call.kind() == sim::IoctlCall::Kind::Write) {
            // A request is answered by completing the blocked read.
            if (pendingRead) {
                const size_t n = std::min(pendingRead->bufferSize(), call.bufferSize());
                std::memcpy(pendingRead->buffer(), call.buffer(), n);
                pendingRead->complete(static_cast<int>(n));
                pendingRead.reset();
            }
            return static_cast<int>(call.bufferSize());
        }
        *err = ENOTTY;
        return -1;
    });
    const int fd = open("/dev/hidraw3", O_RDWR);
    ASSERT_GE(fd, 0) << std::strerror(errno);

    std::atomic<ssize_t> readResult{-2};
    char got[64] = {};
    std::thread reader([&] { readResult = read(fd, got, sizeof got); });
    ASSERT_TRUE(sim::waitUntil(
        [&] {
            std::lock_guard<std::mutex> lock(mutex);
            return pendingRead != nullptr;
        },
        2000ms));
    EXPECT_EQ(readResult.load(), -2);

    // A second descriptor, as a sender thread of the module would use.
    const int writer = open("/dev/hidraw3", O_RDWR);
    ASSERT_GE(writer, 0);
    EXPECT_EQ(write(writer, "ping", 4), 4);
    reader.join();
    EXPECT_EQ(readResult.load(), 4);
    EXPECT_EQ(std::string(got, 4), "ping");
    close(writer);
    close(fd);
}

TEST(BoardCore, MaskHidesAnIoctlNode)
{
    sim::Board board;
    sim::IoctlNode node(board, "/dev/i2c-1", [](sim::IoctlCall &, int *err) {
        *err = ENOTTY;
        return -1;
    });
    int fd = open("/dev/i2c-1", O_RDWR);
    ASSERT_GE(fd, 0);
    close(fd);
    board.mask("/dev/i2c-1");
    fd = open("/dev/i2c-1", O_RDWR);
    EXPECT_EQ(fd, -1);
    if (fd >= 0)
        close(fd);
}

TEST(BoardCore, BoardsOfOneProcessShareTheTestbedAndStartMasked)
{
    std::string testbedDir;
    {
        sim::Board board;
        testbedDir = getenv("UMOCKDEV_DIR") ? getenv("UMOCKDEV_DIR") : "";
        ASSERT_FALSE(testbedDir.empty());
        sim::SerialLine line(board, "/dev/ttyS2", "dsp");
        const int fd = open("/dev/ttyS2", O_RDWR | O_NOCTTY | O_NONBLOCK);
        EXPECT_GE(fd, 0);
        if (fd >= 0)
            close(fd);
    }
    sim::Board board;
    EXPECT_STREQ(getenv("UMOCKDEV_DIR"), testbedDir.c_str());
    errno = 0;
    EXPECT_EQ(open("/dev/ttyS2", O_RDWR | O_NOCTTY | O_NONBLOCK), -1);
    EXPECT_EQ(errno, ENOENT);
    // Claimed again on the new board, the line works as before.
    sim::SerialLine line(board, "/dev/ttyS2", "dsp");
    const int fd = open("/dev/ttyS2", O_RDWR | O_NOCTTY | O_NONBLOCK);
    EXPECT_GE(fd, 0);
    if (fd >= 0)
        close(fd);
}

TEST(BoardCore, ExpiringDeferredReadLetsAWriteOnTheSameDescriptorThrough)
{
    sim::Board board;
    std::mutex mutex;
    std::vector<std::string> reports;
    sim::IoctlNode node(board, "/dev/hidraw4", [&](sim::IoctlCall &call, int *err) {
        std::lock_guard<std::mutex> lock(mutex);
        if (call.kind() == sim::IoctlCall::Kind::Read) {
            if (reports.empty()) {
                // Nothing to report: the read comes back empty after a while.
                call.defer(30ms, 0);
                return sim::IoctlNode::kDeferred;
            }
            const std::string report = reports.front();
            reports.erase(reports.begin());
            const size_t n = std::min(call.bufferSize(), report.size());
            std::memcpy(call.buffer(), report.data(), n);
            return static_cast<int>(n);
        }
        if (call.kind() == sim::IoctlCall::Kind::Write) {
            reports.emplace_back("echo:" + std::string(reinterpret_cast<char *>(call.buffer()),
                                                       call.bufferSize()));
            return static_cast<int>(call.bufferSize());
        }
        *err = ENOTTY;
        return -1;
    });
    const int fd = open("/dev/hidraw4", O_RDWR);
    ASSERT_GE(fd, 0) << std::strerror(errno);

    std::atomic<bool> stop{false};
    std::atomic<int> emptyReads{0};
    std::string got;
    std::thread reader([&] {
        char buf[64];
        while (!stop.load()) {
            const ssize_t n = read(fd, buf, sizeof buf);
            if (n == 0)
                ++emptyReads;
            if (n > 0) {
                got.assign(buf, static_cast<size_t>(n));
                return;
            }
            if (n < 0)
                return;
        }
    });
    ASSERT_TRUE(sim::waitUntil([&] { return emptyReads.load() >= 1; }, 2000ms));
    EXPECT_EQ(write(fd, "ping", 4), 4);
    reader.join();
    stop = true;
    EXPECT_EQ(got, "echo:ping");
    close(fd);
}

TEST(BoardCore, DroppedDeferredCallFailsWithEio)
{
    sim::Board board;
    sim::IoctlNode node(board, "/dev/hidraw5", [&](sim::IoctlCall &call, int *err) {
        if (call.kind() == sim::IoctlCall::Kind::Read) {
            call.defer(); // handle dropped at once: the read fails
            return sim::IoctlNode::kDeferred;
        }
        *err = ENOTTY;
        return -1;
    });
    const int fd = open("/dev/hidraw5", O_RDWR);
    ASSERT_GE(fd, 0);
    char buf[8];
    errno = 0;
    EXPECT_EQ(read(fd, buf, sizeof buf), -1);
    EXPECT_EQ(errno, EIO);
    close(fd);
}

TEST(DspModelCore, ANewModelOnTheSameBoardTakesTheNodeOver)
{
    sim::Board board;
    { sim::DspModel first(board); }
    sim::DspModel dsp(board);
    dsp.addResponder([](sim::DspModel &d, const std::string &command) {
        d.send(command + "=ok");
        return true;
    });
    const int fd = openPortLikeModule("/dev/ttyS2");
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(writeAll(fd, std::string("PING\0", 5)));
    EXPECT_EQ(readFor(fd, 7, 2000ms), "PING=ok");
    close(fd);
}

TEST(BoardCore, SerialLineClaimedAgainAfterMaskWorks)
{
    sim::Board board;
    {
        sim::SerialLine first(board, "/dev/ttyS1", "ptz");
        first.start([](const uint8_t *, size_t) {});
    }
    board.mask("/dev/ttyS1");
    const int masked = open("/dev/ttyS1", O_RDWR | O_NOCTTY);
    EXPECT_EQ(masked, -1);
    if (masked >= 0)
        close(masked);

    std::mutex mutex;
    std::string received;
    sim::SerialLine line(board, "/dev/ttyS1", "ptz");
    line.start([&](const uint8_t *data, size_t size) {
        std::lock_guard<std::mutex> lock(mutex);
        received.append(reinterpret_cast<const char *>(data), size);
    });
    const int fd = openPortLikeModule("/dev/ttyS1");
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(writeAll(fd, "again"));
    EXPECT_TRUE(sim::waitUntil(
        [&] {
            std::lock_guard<std::mutex> lock(mutex);
            return received == "again";
        },
        2000ms));
    close(fd);
}

TEST(BoardCore, IoctlNodeCreatedAgainOnTheSameNodeAnswers)
{
    sim::Board board;
    {
        sim::IoctlNode first(board, "/dev/i2c-1", [](sim::IoctlCall &, int *) { return 1; });
    }
    sim::IoctlNode second(board, "/dev/i2c-1", [](sim::IoctlCall &, int *) { return 2; });
    const int fd = open("/dev/i2c-1", O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ioctl(fd, kFakeValue, 0), 2);
    close(fd);
}

TEST(BoardCore, IoctlNodeIsHiddenWhenItsModelGoes)
{
    sim::Board board;
    {
        sim::IoctlNode node(board, "/dev/snd/controlC2", [](sim::IoctlCall &, int *) { return 0; });
        const int fd = open("/dev/snd/controlC2", O_RDWR);
        ASSERT_GE(fd, 0);
        close(fd);
    }
    const int fd = open("/dev/snd/controlC2", O_RDWR);
    EXPECT_EQ(fd, -1);
    if (fd >= 0)
        close(fd);
}
