/*
 * Camera pipe: an anonymous pipe through which any thread hands small
 * messages (DOA, USB channel, autotest switch) to the PTZ sender thread,
 * which turns each into one PTZ command. Producers never touch the serial
 * line themselves.
 *
 * Threads: producers are service threads, the PTZ receiver (product-model
 * answers re-queue the USB channel) and the DSP receive thread (DOA
 * reports); they write under gCameraPipeLock. The one consumer is the PTZ
 * sender thread, which reads without a lock. Start-up and release (service
 * thread) create and close the pipe.
 *
 * State record gCameraPipe: the two pipe descriptors. A descriptor below 1
 * counts as absent.
 */
#include "camera/camera_pipe.h"

#include <atomic>
#include <mutex>

#include <android/log.h>
#include <unistd.h>

#define LOG_TAG "PTZ"
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

constexpr uint32_t kMsgWordsLength = 8; // the length word: type + value

struct CameraPipe {
    std::atomic<int> readFd{0};  // set by start-up/release; read by the PTZ sender thread
    std::atomic<int> writeFd{0}; // set by start-up/release; written to by every producer
};

CameraPipe gCameraPipe;

// Serialises producers so that each 12-byte message goes out whole. It lives
// for the whole process: initCameraPipe/unInitCameraPipe do not create or
// destroy it, so a producer racing with release never locks a dead mutex.
std::mutex gCameraPipeLock;

bool present(int fd)
{
    return fd >= 1;
}

} // namespace

extern "C" {

int initCameraPipe(void)
{
    int fds[2];
    if (pipe(fds) < 0)
        return 1;
    gCameraPipe.readFd.store(fds[0], std::memory_order_relaxed);
    gCameraPipe.writeFd.store(fds[1], std::memory_order_relaxed);
    return 0;
}

int unInitCameraPipe(void)
{
    // Each end is marked absent once closed so a later producer gets 0
    // instead of writing into a descriptor number the process reused.
    int fd = gCameraPipe.readFd.exchange(-1);
    if (present(fd))
        close(fd);
    std::lock_guard<std::mutex> lock(gCameraPipeLock);
    fd = gCameraPipe.writeFd.exchange(-1);
    if (present(fd))
        close(fd);
    return 0;
}

int sendDataToCameraPipe(const void *buf, size_t count)
{
    int fd = gCameraPipe.writeFd.load(std::memory_order_relaxed);
    if (!present(fd))
        return 0;
    return static_cast<int>(write(fd, buf, count));
}

int recvDataFromCameraPipe(void *buf, size_t count)
{
    int fd = gCameraPipe.readFd.load(std::memory_order_relaxed);
    if (!present(fd))
        return 0;
    return static_cast<int>(read(fd, buf, count));
}

int sendMsgToCameraPipe(uint32_t type, uint32_t value)
{
    CameraPipeMsg msg{kMsgWordsLength, type, value};
    int ret = 0;
    {
        std::lock_guard<std::mutex> lock(gCameraPipeLock);
        // One write of 12 bytes is atomic on a pipe: messages never interleave.
        ret = sendDataToCameraPipe(&msg, sizeof msg);
    }
    return ret > 0 ? 1 : 0;
}

int sendDoaToCameraPipe(uint32_t value)
{
    return sendMsgToCameraPipe(CAMERA_PIPE_MSG_DOA, value);
}

int sendUsbChannelInfoToCameraPipe(uint32_t value)
{
    return sendMsgToCameraPipe(CAMERA_PIPE_MSG_USB_CHANNEL, value);
}

int sendAutoTestToCameraPipe(uint32_t value)
{
    return sendMsgToCameraPipe(CAMERA_PIPE_MSG_AUTOTEST, value);
}

// Blocks until a message is present. A length word other than 8 is
// reported and the following bytes are then read as the start of the next
// message; the pipe is not resynchronised.
int recvMsgFromCameraPipe(uint32_t *type, uint32_t *value)
{
    uint32_t length = 0;
    if (recvDataFromCameraPipe(&length, sizeof length) != static_cast<int>(sizeof length)) {
        LOGE("read len failed\n");
        return 0;
    }
    if (length != kMsgWordsLength) {
        LOGE("read len invailed\n");
        return 0;
    }
    uint32_t words[2] = {0, 0};
    if (recvDataFromCameraPipe(words, sizeof words) != static_cast<int>(sizeof words)) {
        LOGE("read data invailed\n");
        return 0;
    }
    if (type)
        *type = words[0];
    if (value)
        *value = words[1];
    return 1;
}

} // extern "C"

#ifdef AVM_HOST_BUILD
void cameraPipe_resetForTest()
{
    unInitCameraPipe();
    gCameraPipe.readFd.store(0);
    gCameraPipe.writeFd.store(0);
}
#endif
