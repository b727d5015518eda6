/*
 * What the module tells avmctl while it runs: the two callbacks of its
 * record (the camera opened or closed, the Fig DSP's microphone on or
 * off), and the directions of arrival the DSP reports. The record has no
 * callback for a direction of arrival: the module hands it on to the
 * camera and logs the DSP's report as it reads it, so avmctl follows the
 * module's log for it.
 *
 * Signals: SIGINT, SIGTERM and SIGHUP are blocked in every thread and
 * taken by one thread of their own. During `watch` a signal ends the
 * watch; at any other time it ends avmctl at once.
 */
#include <android/log.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "avmctl.h"

namespace avmctl {

namespace {

// The DSP link logs every reply it reads under this tag, as it came; a
// direction-of-arrival report starts with the key below and the angle.
constexpr const char *kDspLogTag = "DSP";
constexpr const char *kDoaReportKey = "MIC_DOA=";
// The PTZ link's tag: with the DSP's, what the module does on its serial
// lines on its own threads is logged under these two.
constexpr const char *kPtzLogTag = "PTZ";
// Lines of the DSP link that come back for ever while nothing happens: the
// detection thread's version query, asked every 300 ms of a DSP that does
// not answer it, and the receive thread's wait running out.
constexpr const char *kIdleDspLines[] = {": VER_FULL=?", "dspHal select timeout."};

std::atomic<bool> gPrintLogs{false};
std::atomic<bool> gFollowDoa{false};
std::atomic<std::chrono::steady_clock::rep> gLastActivity{0};

struct WatchState {
    std::mutex mutex; // guards both flags
    std::condition_variable wake;
    bool watching = false;
    bool signalled = false;
};
WatchState gWatch;

int onCameraStatus(int status)
{
    printEvent("camera status", "camera_status", status);
    return 0;
}

int onDspStatus(int status)
{
    printEvent("dsp status", "dsp_status", status);
    return 0;
}

// The angle as the module reads it: an optional sign and the digits that
// follow; false when there are none.
bool leadingAngle(const char *text, long long *angle)
{
    const char *digits = text + (*text == '-' || *text == '+');
    if (*digits < '0' || *digits > '9')
        return false;
    char *end = nullptr;
    *angle = std::strtoll(text, &end, 10);
    return true;
}

bool isLinkActivity(const char *tag, const char *message)
{
    if (!tag || !message || (std::strcmp(tag, kDspLogTag) != 0 && std::strcmp(tag, kPtzLogTag) != 0))
        return false;
    for (const char *idle : kIdleDspLines)
        if (std::strstr(message, idle))
            return false;
    return true;
}

void followLine(int priority, const char *tag, const char *message)
{
    if (gPrintLogs.load(std::memory_order_relaxed))
        printLogLine(priority, tag, message);
    if (isLinkActivity(tag, message))
        noteLinkActivity();
    if (!gFollowDoa.load(std::memory_order_relaxed) || !tag || !message || std::strcmp(tag, kDspLogTag) != 0 ||
        std::strncmp(message, kDoaReportKey, std::strlen(kDoaReportKey)) != 0)
        return;
    long long angle = 0;
    if (leadingAngle(message + std::strlen(kDoaReportKey), &angle))
        printEvent("doa", "doa", angle);
}

#if defined(__ANDROID__)
// The device's liblog: every line still goes to logd, so logcat keeps it.
void onLogLine(const struct __android_log_message *line)
{
    followLine(line->priority, line->tag, line->message);
    __android_log_logd_logger(line);
}
#else
void onLogLine(const struct __android_logger_data *data, const char *message)
{
    followLine(data->priority, data->tag, message);
}
#endif

sigset_t endingSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

void takeSignals(sigset_t set)
{
    for (;;) {
        int signal = 0;
        if (sigwait(&set, &signal) != 0)
            continue;
        std::lock_guard<std::mutex> lock(gWatch.mutex);
        if (gWatch.watching) {
            gWatch.signalled = true;
            gWatch.wake.notify_all();
            continue;
        }
        // Every line printed so far went out whole and flushed; the
        // module's threads are still running, so no destructors.
        _exit(kExitInterrupted);
    }
}

} // namespace

std::chrono::steady_clock::time_point lastLinkActivity()
{
    return std::chrono::steady_clock::time_point(
        std::chrono::steady_clock::duration(gLastActivity.load(std::memory_order_acquire)));
}

void noteLinkActivity()
{
    gLastActivity.store(std::chrono::steady_clock::now().time_since_epoch().count(), std::memory_order_release);
}

avmops::Callbacks eventCallbacks()
{
    avmops::Callbacks callbacks;
    callbacks.cameraStatus = onCameraStatus;
    callbacks.dspStatus = onDspStatus;
    return callbacks;
}

void followModuleLog(bool printLogs)
{
    gPrintLogs.store(printLogs);
    if (printLogs)
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(onLogLine);
}

void startSignalThread()
{
    const sigset_t set = endingSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread(takeSignals, set).detach();
}

void watch(const avmanager_module_t *hal, std::chrono::seconds duration)
{
    {
        std::lock_guard<std::mutex> lock(gWatch.mutex);
        gWatch.watching = true;
        gWatch.signalled = false;
    }
    hal->set_camera_status_callback(hal, onCameraStatus);
    hal->set_dsp_status_callback(hal, onDspStatus);
    gFollowDoa.store(true);
    // Says when the callbacks are in place (a script waiting for it reads it here).
    printMessage("watching camera status, dsp status and doa; ^C ends");
    {
        std::unique_lock<std::mutex> lock(gWatch.mutex);
        const auto done = [] { return gWatch.signalled; };
        if (duration.count() > 0)
            gWatch.wake.wait_for(lock, duration, done);
        else
            gWatch.wake.wait(lock, done);
        gWatch.watching = false;
    }
    // The callbacks stay: later operations of a script may still see them.
    gFollowDoa.store(false);
}

} // namespace avmctl
