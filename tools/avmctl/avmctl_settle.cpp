/*
 * Leaving without losing what the operations queued. A DSP setter returns
 * once its request is in the DSP link's pipe; the link's transmit thread
 * writes it to the port later, one request every 8 ms. A camera message
 * (USB channel, autotest) waits in the camera pipe for the PTZ sender,
 * which looks every 5 ms. Before avmctl exits (and the module's threads
 * with it), the DSP pipe must be empty, and the threads must have had the
 * time to write what they took last: a write to the port stays in the
 * port's buffer once made, whatever happens to the process.
 */
#include <fcntl.h>
#include <limits.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "avm_paths.h"
#include "avmctl.h"
#include "dsp/dsp_link.h"

namespace avmctl {

namespace {

constexpr auto kPollEvery = std::chrono::milliseconds(5);
// A stuck link must not hold avmctl for ever: a full pipe (64 KiB, 125
// requests) empties in about a second at the link's pace.
constexpr auto kDrainCap = std::chrono::seconds(10);
// From taking a request (or a camera message) to writing it is a few
// microseconds of work for the thread; this covers it being descheduled on
// a busy machine many times over.
constexpr auto kHandOver = std::chrono::milliseconds(200);

// Bytes waiting in the DSP request pipe; 0 when there is no pipe.
int queuedBytes(const char *path)
{
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return 0;
    struct stat info {};
    int queued = 0;
    if (fstat(fd, &info) != 0 || !S_ISFIFO(info.st_mode) || ioctl(fd, FIONREAD, &queued) != 0)
        queued = 0;
    close(fd);
    return queued;
}

} // namespace

void waitForQueuedRequests()
{
    char path[PATH_MAX];
    avm_path(DSP_FIFO_PATH, path, sizeof path);
    const auto deadline = std::chrono::steady_clock::now() + kDrainCap;
    int queued = queuedBytes(path);
    while (queued > 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(kPollEvery);
        queued = queuedBytes(path);
    }
    if (queued > 0)
        printMessage(std::to_string(queued / static_cast<int>(sizeof(DspRequest))) +
                   " DSP request(s) still queued after " + std::to_string(kDrainCap.count()) +
                   " s; the DSP link is not taking them");
    std::this_thread::sleep_for(kHandOver);
}

} // namespace avmctl
