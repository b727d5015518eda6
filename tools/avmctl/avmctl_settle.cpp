/*
 * Leaving without losing anything. A DSP setter returns once its request
 * is in the DSP link's pipe; the link's transmit thread writes it to the
 * port later, one request every 8 ms. A camera message (USB channel,
 * autotest) waits in the camera pipe for the PTZ sender, which looks every
 * 5 ms. And start-up asks the DSP for its version: its answer starts the
 * module's parameter restore (settings sent again, twice), with a
 * configuration upgrade first when the DSP's copy differs. Cutting that
 * short would leave the DSP half-written.
 *
 * So avmctl leaves once the links have been quiet for a while: the DSP
 * pipe empty, and nothing logged by the DSP or PTZ link (their threads log
 * every command written and every reply read) for kQuietGap, counted from
 * the last operation at the earliest. A write made stays in the port's
 * buffer whatever happens to the process afterwards.
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

constexpr auto kPollEvery = std::chrono::milliseconds(20);
// Covers a thread taking a request and writing it, descheduled on a busy
// machine, and the pause between a reply and the next step of an upgrade.
// With half a second, a setter's command once never reached the DSP
// while two test suites shared the two cores: the pipe was empty, so the
// transmit thread had taken it, but nothing was written before avmctl left.
constexpr auto kQuietGap = std::chrono::seconds(1);
// A link that never settles (a DSP that keeps talking) must not hold
// avmctl for ever; a configuration upgrade takes a few seconds.
constexpr auto kSettleCap = std::chrono::seconds(30);

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

void waitForLinksToSettle()
{
    char path[PATH_MAX];
    avm_path(DSP_FIFO_PATH, path, sizeof path);
    noteLinkActivity(); // the operations just ran
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        const int queued = queuedBytes(path);
        if (queued > 0)
            noteLinkActivity();
        const auto now = std::chrono::steady_clock::now();
        if (now - lastLinkActivity() >= kQuietGap)
            return;
        if (now - start >= kSettleCap) {
            printMessage("the module was still busy on its links after " + std::to_string(kSettleCap.count()) +
                         " s (" + std::to_string(queued / static_cast<int>(sizeof(DspRequest))) +
                         " DSP request(s) queued); leaving anyway");
            return;
        }
        std::this_thread::sleep_for(kPollEvery);
    }
}

} // namespace avmctl
