/*
 * Camera HID channel.
 *
 * The camera's raw HID interface is one of "/dev/hidraw0".."/dev/hidraw9":
 * the first node whose raw information carries the camera's vendor and
 * product id and which takes a 64-byte probe report is the camera's. The
 * channel is opened on first need (version request or log download) and
 * stays open; a read or write error closes it and stops the receive
 * thread, and the next send or receive opens the node again.
 *
 * Threads:
 *  - the detection thread and service threads (log download) run
 *    hal_hidraw_init, hal_hidraw_open and hal_hidraw_sendData;
 *  - the receive thread (hal_hidRcveData_THREAD) runs hal_hidraw_recvData
 *    and hands each report on: a version answer's text to
 *    detectHal_camera_version_update, every report to handleRecvCamHidMsg.
 *
 * State (gHidDev):
 *   fd, isOpen     the open node; changed under gHidStateLock, read
 *                  without it (atomics)
 *   pathKnown, path the node found by check_hidraw_name; path under
 *                  gHidStateLock
 *   vid, pid       ids looked for; set by hal_hidraw_init
 *   running        the receive loop's run flag
 *   generation     which receive thread is the current one; a start makes
 *                  a new one, an older thread ends after its current read
 *   inFlight       reads and writes on the node in progress; a close waits
 *                  for them (a while), so no call is cut off mid-way
 *   thread, threadStarted  the current receive thread; under gHidInitLock
 * Locks:
 *   gHidCloseLock  the lock that guards closing the node. It is a flag
 *                  standing for "locked" rather than a mutex because
 *                  hal_hidraw_init can return with it held and a later
 *                  init takes it over again by re-initialising it.
 *   gHidInitLock   serialises hal_hidraw_init calls; never held by the
 *                  receive thread.
 *   gHidStateLock  held for a moment while the descriptor or path change.
 *
 * Log tag "hidraw".
 */
#include "common/avm_trace.h"
#include "camera/cam_hid.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdint>
#include <cstring>

#include <atomic>
#include <mutex>

#include <android/log.h>
#include <fcntl.h>
#include <linux/hidraw.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "camera/cam_detect.h"
#include "camera/cam_logs.h"

#define LOG_TAG "hidraw"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

constexpr const char kHidrawDir[] = "/dev";
constexpr size_t kPathSize = 64;
constexpr useconds_t kAfterCloseUs = 1000;   // pause after closing on an error
constexpr useconds_t kStopSettleUs = 1000;   // init: pause after stopping the loop
constexpr unsigned kNotOpenPauseS = 1;       // receive attempt on a closed channel
constexpr useconds_t kCloseLockPollUs = 1000;
// A close waits this long at most for a read or write on the node to end;
// a read of a silent camera can last until its next report.
constexpr int kCloseWaitPolls = 100;
constexpr useconds_t kCloseWaitPollUs = 1000;

// The version answer: head AA BB CC 20 07, text from byte 7.
constexpr uint8_t kVersionAnswerHead[] = {0xAA, 0xBB, 0xCC, 0x20, 0x07};
constexpr size_t kVersionTextOffset = 7;

struct HidrawDev {
    std::atomic<int> fd{-1};            // open node, -1 when closed
    std::atomic<uint8_t> isOpen{0};     // 1 while the node is open
    std::atomic<uint8_t> pathKnown{0};  // path holds the camera's node
    char path[kPathSize] = {};          // under gHidStateLock
    std::atomic<uint32_t> vid{0};       // ids looked for; set by hal_hidraw_init
    std::atomic<uint32_t> pid{0};
    std::atomic<int> running{0};        // receive loop runs while set
    std::atomic<uint32_t> generation{0}; // the current receive thread's
    std::atomic<int> inFlight{0};       // reads and writes in progress
    pthread_t thread{};                 // current receive thread; under gHidInitLock
    bool threadStarted = false;         // thread may be joined; under gHidInitLock
};

HidrawDev gHidDev;
std::atomic_flag gHidCloseLock = ATOMIC_FLAG_INIT;

// On a receive thread: the generation it serves, plus one; 0 on every
// other thread.
thread_local uint32_t tServedGeneration = 0;

// Whether the calling thread is a receive thread that a stop or a later
// start has retired. Such a thread, finding the channel closed on its way
// out, must not open the node again: the channel would be open after the
// stop, with nobody reading it.
bool retiredReceiveThread()
{
    return tServedGeneration != 0 && gHidDev.generation.load() != tServedGeneration - 1u;
}

std::mutex gHidInitLock;
std::mutex gHidStateLock;

void lockClose()
{
    while (gHidCloseLock.test_and_set(std::memory_order_acquire))
        usleep(kCloseLockPollUs);
}

void unlockClose() { gHidCloseLock.clear(std::memory_order_release); }

constexpr int kAnyFd = -2;

// Takes the node out of use and closes it (the caller holds
// gHidCloseLock). With `only` set, only if that descriptor is still the
// channel's: an error on a descriptor the channel has replaced leaves the
// new one alone. With `stop`, the receive loop is told to end as well,
// before the close waits for the reads and writes in progress, so the
// receive thread ends when its read returns instead of reading on.
// Returns whether it closed the channel's descriptor.
bool closeNode(int only = kAnyFd, bool stop = false)
{
    int fd;
    {
        std::lock_guard<std::mutex> lock(gHidStateLock);
        fd = gHidDev.fd.load();
        if (only != kAnyFd && fd != only)
            return false;
        if (stop)
            gHidDev.running.store(0);
        gHidDev.fd.store(-1);
        gHidDev.isOpen.store(0);
    }
    if (fd < 0)
        return false;
    for (int i = 0; i < kCloseWaitPolls && gHidDev.inFlight.load() != 0; ++i)
        usleep(kCloseWaitPollUs);
    close(fd);
    return true;
}

bool closeNodeGuarded(int only = kAnyFd, bool stop = false)
{
    lockClose();
    bool closed = closeNode(only, stop);
    unlockClose();
    return closed;
}

// Opens the known node read-write and makes it the channel's descriptor;
// a descriptor the channel already has stays the channel's.
int openKnownPath()
{
    std::lock_guard<std::mutex> lock(gHidStateLock);
    // Checked under the lock a stop's close takes after retiring the
    // thread: either this open comes first and the stop closes it, or the
    // thread sees itself retired.
    if (retiredReceiveThread())
        return -1;
    int fd = open(gHidDev.path, O_RDWR);
    if (fd < 0) {
        LOGE("open hidraw Error\r\n");
        gHidDev.isOpen.store(0);
        return -1;
    }
    int current = gHidDev.fd.load();
    if (current >= 0) {
        close(fd);
        gHidDev.isOpen.store(1);
        return current;
    }
    gHidDev.fd.store(fd);
    gHidDev.isOpen.store(1);
    return fd;
}

// The descriptor for one read or write, counted in flight; -1 when the
// channel has none (then nothing is counted).
int enterCall()
{
    gHidDev.inFlight.fetch_add(1);
    int fd = gHidDev.fd.load();
    if (fd < 0)
        gHidDev.inFlight.fetch_sub(1);
    return fd;
}

void leaveCall() { gHidDev.inFlight.fetch_sub(1); }

// Ends the receive thread of the previous start (under gHidInitLock). It
// was told to stop; it is let go rather than waited for, since a read of a
// silent camera can last until the camera's next report. It touches no
// descriptor but its own after that.
void releaseReceiveThread()
{
    if (!gHidDev.threadStarted)
        return;
    pthread_detach(gHidDev.thread);
    gHidDev.threadStarted = false;
}

void joinReceiveThread()
{
    if (!gHidDev.threadStarted)
        return;
    pthread_join(gHidDev.thread, nullptr);
    gHidDev.threadStarted = false;
}

} // namespace

extern "C" {

int check_hidraw_name(void)
{
    const uint32_t vid = gHidDev.vid.load();
    const uint32_t pid = gHidDev.pid.load();
    int result = -1;
    for (int i = 0; i < HIDRAW_NODE_COUNT; ++i) {
        char node[kPathSize];
        snprintf(node, sizeof node, "%s/hidraw%d", kHidrawDir, i);
        int fd = open(node, O_RDWR);
        if (fd < 0)
            continue;
        struct hidraw_devinfo info;
        memset(&info, 0, sizeof info);
        if (ioctl(fd, HIDIOCGRAWINFO, &info) >= 0 && static_cast<uint16_t>(info.vendor) == vid &&
            static_cast<uint16_t>(info.product) == pid) {
            LOGI("found %s vid 0x%04x pid 0x%04x\r\n", node, vid, pid);
            const uint8_t probe[HIDRAW_SEND_MAX] = {};
            if (write(fd, probe, sizeof probe) >= 1) {
                std::lock_guard<std::mutex> lock(gHidStateLock);
                snprintf(gHidDev.path, sizeof gHidDev.path, "%s", node);
                gHidDev.pathKnown.store(1);
                // The probe's descriptor is neither kept nor closed; the
                // channel opens the node afresh. Deliberate.
                return 1;
            }
            LOGE("%s can't communicate !\r\n", node);
            result = 0;
        }
        close(fd);
    }
    return result;
}

int hal_hidraw_open(void)
{
    if (gHidDev.pathKnown.load())
        return openKnownPath();
    if (gHidDev.isOpen.load())
        return gHidDev.fd.load();
    gHidDev.pathKnown.store(0);
    if (check_hidraw_name() == 1)
        return openKnownPath();
    return -1;
}

int hal_hidraw_init(uint32_t vid, uint32_t pid)
{
    // Concurrent inits (detection thread and a log download) take turns.
    std::lock_guard<std::mutex> initLock(gHidInitLock);
    // Re-initialising takes the close lock over, even from a failed init
    // that left it held.
    gHidCloseLock.clear(std::memory_order_release);
    closeNodeGuarded();
    gHidDev.running.store(0);
    gHidDev.generation.fetch_add(1);
    releaseReceiveThread();
    usleep(kStopSettleUs);
    gHidDev.vid.store(vid);
    gHidDev.pid.store(pid);
    gHidDev.running.store(1);
    lockClose();
    if (check_hidraw_name() != 1) {
        gHidDev.pathKnown.store(0);
        // Returns with the close lock held, deliberately; the next init
        // re-initialises it.
        return -1;
    }
    int fd = openKnownPath();
    if (fd >= 1)
        LOGI("Open hidraw device succeed!\n");
    // The thread is told which generation it serves, not left to read it
    // when it gets to run.
    const uintptr_t generation = gHidDev.generation.load() + 1u;
    if (pthread_create(&gHidDev.thread, nullptr, hal_hidRcveData_THREAD, reinterpret_cast<void *>(generation)) != 0) {
        LOGE("acreate hal_hidRcveData_THREAD create thread failed\n");
        // The close lock stays held here too.
        return -1;
    }
    gHidDev.threadStarted = true;
    unlockClose();
    return 0;
}

int hal_hidraw_sendData(const void *buf, int len)
{
    if (!gHidDev.isOpen.load()) {
        LOGE("%s[%d] device is not open yet.\r\n", __func__, __LINE__);
        hal_hidraw_open();
        return -1;
    }
    size_t count = len <= 0 ? 0 : len > HIDRAW_SEND_MAX ? HIDRAW_SEND_MAX : static_cast<size_t>(len);
    int fd = enterCall();
    ssize_t ret = -1;
    int err = EBADF; // closed by another thread just now
    if (fd >= 0) {
        ret = write(fd, buf, count);
        err = errno;
        leaveCall();
    }
    if (ret < 0) {
        LOGE("%s write device Error: %s\r\n", __func__, strerror(err));
        closeNodeGuarded(fd, true);
        usleep(kAfterCloseUs);
        return -1;
    }
    LOGD("sendData retVal %d\r\n", static_cast<int>(ret));
    return static_cast<int>(ret);
}

int hal_hidraw_recvData(void *buf, int len)
{
    if (!gHidDev.isOpen.load()) {
        LOGE("%s[%d] device is not open yet.\r\n", __func__, __LINE__);
        if (!retiredReceiveThread())
            hal_hidraw_open();
        sleep(kNotOpenPauseS);
        return -1;
    }
    size_t count = len <= 0 ? 0 : len > HIDRAW_RECV_MAX ? HIDRAW_RECV_MAX : static_cast<size_t>(len);
    if (count > 0)
        memset(buf, 0, count);
    int fd = enterCall();
    ssize_t ret = -1;
    int err = EBADF; // closed by another thread just now
    if (fd >= 0) {
        ret = read(fd, buf, count);
        err = errno;
        leaveCall();
    }
    if (ret < 0) {
        LOGE("%s read device Error: %s\r\n", __func__, strerror(err));
        // An error on a descriptor the channel has replaced stops nothing.
        closeNodeGuarded(fd, true);
        usleep(kAfterCloseUs);
        return -1;
    }
    return static_cast<int>(ret);
}

bool hal_hidraw_isConnect(void)
{
    return gHidDev.isOpen.load() != 0;
}

int hal_hidraw_deinit(void)
{
    gHidDev.running.store(0);
    gHidDev.generation.fetch_add(1);
    // Stopping takes the close lock over as a start does, so a failed start
    // that left it held cannot hold the stop up.
    gHidCloseLock.clear(std::memory_order_release);
    closeNodeGuarded(kAnyFd, true);
    return 0;
}

int joinHidThreadPool(void)
{
    {
        std::lock_guard<std::mutex> initLock(gHidInitLock);
        joinReceiveThread();
    }
    // Destroying the lock fails while it is held, as a mutex would.
    if (gHidCloseLock.test(std::memory_order_acquire))
        return EBUSY;
    return 0;
}

void *hal_hidRcveData_THREAD(void *arg)
{
    uint8_t report[HIDRAW_RECV_MAX];
    // A later start or a stop makes this thread an old one: it ends. The
    // generation comes with the argument (plus one); without one, the
    // current one is served.
    const uintptr_t given = reinterpret_cast<uintptr_t>(arg);
    const uint32_t generation = given != 0 ? static_cast<uint32_t>(given - 1u) : gHidDev.generation.load();
    tServedGeneration = generation + 1u;
    while (gHidDev.running.load() && gHidDev.generation.load() == generation) {
        int n = hal_hidraw_recvData(report, HIDRAW_RECV_MAX);
        if (n < 1)
            continue;
        hal_hidraw_handle_report(report, n);
    }
    return nullptr;
}

void hal_hidraw_handle_report(const uint8_t *report, int n)
{
    if (report == nullptr || n < 1)
        return;
    // One read is at most HIDRAW_RECV_MAX bytes; the copy has a spare byte
    // so a version text that fills the read ends terminated.
    const size_t size = static_cast<size_t>(n) > HIDRAW_RECV_MAX ? HIDRAW_RECV_MAX : static_cast<size_t>(n);
    uint8_t copy[HIDRAW_RECV_MAX + 1];
    memcpy(copy, report, size);
    copy[size] = 0;
    if (size >= sizeof kVersionAnswerHead && memcmp(copy, kVersionAnswerHead, sizeof kVersionAnswerHead) == 0) {
        const char *text = size > kVersionTextOffset ? reinterpret_cast<const char *>(copy + kVersionTextOffset) : "";
        AvmTraceSpan span(kTraceHidVersionAnswer);
        detectHal_camera_version_update(text);
    }
    LOGD("CamHidTransferFile: recved size %d ", static_cast<int>(size));
    handleRecvCamHidMsg(copy, static_cast<int>(size));
}

void hal_hidraw_path(char *out, int size)
{
    if (out == nullptr || size <= 0)
        return;
    std::lock_guard<std::mutex> lock(gHidStateLock);
    snprintf(out, static_cast<size_t>(size), "%s", gHidDev.pathKnown.load() ? gHidDev.path : "");
}

#ifdef AVM_HOST_BUILD
void cam_hid_resetForTest(void)
{
    std::lock_guard<std::mutex> initLock(gHidInitLock);
    gHidDev.running.store(0);
    gHidCloseLock.clear(std::memory_order_release);
    closeNodeGuarded();
    joinReceiveThread();
    std::lock_guard<std::mutex> lock(gHidStateLock);
    gHidDev.pathKnown.store(0);
    gHidDev.path[0] = '\0';
    gHidDev.vid.store(0);
    gHidDev.pid.store(0);
}
#endif

} // extern "C"
