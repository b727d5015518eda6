#include "log_capture.h"

#include <android/log.h>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include <cutils/properties.h>

namespace avmtest {

namespace {

std::mutex gMutex;
std::vector<LogLine> gLines;

void captureLogger(const struct __android_logger_data *data, const char *message)
{
    std::lock_guard<std::mutex> lock(gMutex);
    gLines.push_back({data->priority, data->tag ? data->tag : "", message ? message : ""});
}

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
    clear();
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(captureLogger);
}

LogCapture::~LogCapture()
{
    __android_log_set_logger(__android_log_stderr_logger);
}

std::vector<LogLine> LogCapture::lines() const
{
    std::lock_guard<std::mutex> lock(gMutex);
    return gLines;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lock(gMutex);
    gLines.clear();
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

TempPropertyStore::TempPropertyStore() : dir_(makeTempDir("avm-props-"))
{
    setenv("AVMANAGER_PROPERTY_DIR", dir_.c_str(), 1);
}

TempPropertyStore::~TempPropertyStore()
{
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

void TempPropertyStore::set(const std::string &key, const std::string &value)
{
    if (property_set(key.c_str(), value.c_str()) != 0)
        abort();
}

std::string TempPropertyStore::get(const std::string &key) const
{
    char value[PROPERTY_VALUE_MAX];
    property_get(key.c_str(), value, "");
    return value;
}

bool TempPropertyStore::isSet(const std::string &key) const
{
    return std::filesystem::exists(dir_ + "/" + key);
}

TempDir::TempDir() : path_(makeTempDir("avm-dir-")) {}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

} // namespace avmtest
