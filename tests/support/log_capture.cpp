#include "log_capture.h"

#include <android/log.h>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include <cutils/properties.h>

#include "process_env.h"

namespace avmtest {

namespace {

// The captured lines. Never destroyed: module threads that outlive the
// tests (the PTZ link) may still log while the program exits.
struct Captured {
    std::mutex mutex;
    std::vector<LogLine> lines; // guarded by mutex
};
Captured &captured()
{
    static Captured *instance = new Captured;
    return *instance;
}
std::atomic<int> gCaptures{0};   // live LogCapture objects

} // namespace

// liblog's logger for the whole test program (installed once by
// installLogCapture): lines go to the capture while a LogCapture lives,
// to stderr otherwise. The logger itself is never swapped while threads
// run.
void captureLine(const struct __android_logger_data *data, const char *message)
{
    if (gCaptures.load(std::memory_order_acquire) == 0) {
        __android_log_stderr_logger(data, message);
        return;
    }
    std::lock_guard<std::mutex> lock(captured().mutex);
    captured().lines.push_back({data->priority, data->tag ? data->tag : "", message ? message : ""});
}

namespace {

std::string makeTempDir(const char *prefix)
{
    std::string tmpl = std::string("/tmp/") + prefix + "XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data()))
        abort();
    return buf.data();
}

} // namespace

LogCapture::LogCapture()
{
    installLogCapture();
    clear();
    gCaptures.fetch_add(1, std::memory_order_acq_rel);
}

LogCapture::~LogCapture() { gCaptures.fetch_sub(1, std::memory_order_acq_rel); }

std::vector<LogLine> LogCapture::lines() const
{
    std::lock_guard<std::mutex> lock(captured().mutex);
    return captured().lines;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lock(captured().mutex);
    captured().lines.clear();
}

size_t LogCapture::count(const std::string &tag, const std::string &text) const
{
    size_t n = 0;
    for (const auto &l : lines())
        n += (l.tag == tag && l.text == text);
    return n;
}

size_t LogCapture::countContaining(const std::string &tag, const std::string &part) const
{
    size_t n = 0;
    for (const auto &l : lines())
        n += (l.tag == tag && l.text.find(part) != std::string::npos);
    return n;
}

bool LogCapture::waitFor(const std::string &tag, const std::string &part, std::chrono::milliseconds timeout) const
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    do {
        if (countContaining(tag, part) > 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    } while (std::chrono::steady_clock::now() < deadline);
    return countContaining(tag, part) > 0;
}

int LogCapture::priorityOf(const std::string &tag, const std::string &text) const
{
    for (const auto &l : lines())
        if (l.tag == tag && l.text == text)
            return l.priority;
    return -1;
}

TempDir::TempDir() : path_(makeTempDir("avm-dir-")) {}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

} // namespace avmtest
