/*
 * avmctl's output: results and events on stdout, errors and the module's
 * log on stderr, as plain lines or JSON lines. Callbacks print from the
 * module's threads, so every line is written whole under one lock and
 * flushed at once (a reader on a pipe sees each event when it happens).
 */
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>

#include "avmctl.h"

namespace avmctl {

namespace {

bool gJson = false; // set before any thread, read after
std::mutex gOutput; // keeps lines whole on stdout and stderr
const auto gStart = std::chrono::steady_clock::now();

void writeLine(FILE *stream, const std::string &line)
{
    std::lock_guard<std::mutex> lock(gOutput);
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

// The arguments in the order the operation takes them, as a JSON array.
std::string jsonArgs(const avmops::Operation &op, const avmops::Values &values)
{
    std::string out = "[";
    size_t ints = 0;
    size_t texts = 0;
    for (size_t a = 0; a < op.args.size(); ++a) {
        out += a ? "," : "";
        if (op.args[a].type == avmops::ArgType::Int)
            out += std::to_string(values.i(ints++));
        else
            out += avmops::jsonString(values.s(texts++));
    }
    return out + "]";
}

// Local wall-clock time with milliseconds, as logcat prints it.
std::string clockText(bool iso)
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const long long ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[48];
    std::strftime(text, sizeof text, iso ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S", &local);
    char full[64];
    std::snprintf(full, sizeof full, "%s.%03lld", text, ms);
    return full;
}

} // namespace

void setJsonOutput(bool json) { gJson = json; }

void printResult(const std::string &command, const avmops::Operation &op, const avmops::Values &values,
                 const avmops::Result &result, bool withCommand)
{
    if (gJson) {
        writeLine(stdout, std::string("{\"op\":") + avmops::jsonString(op.name) + ",\"slot\":" +
                              std::to_string(op.slot) + ",\"args\":" + jsonArgs(op, values) +
                              ",\"result\":" + result.json + result.extra + "}");
        return;
    }
    writeLine(stdout, withCommand ? command + " = " + result.text : result.text);
}

void printEvent(const char *name, const char *key, long long value)
{
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - gStart).count();
    if (gJson) {
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%.3f", elapsed);
        writeLine(stdout, std::string("{\"event\":") + avmops::jsonString(key) + ",\"value\":" +
                              std::to_string(value) + ",\"time\":" + avmops::jsonString(clockText(true)) +
                              ",\"elapsed\":" + seconds + "}");
        return;
    }
    writeLine(stdout, clockText(false) + " " + name + " " + std::to_string(value));
}

void printMessage(const std::string &message) { writeLine(stderr, "avmctl: " + message); }

void printLogLine(int priority, const char *tag, const char *message)
{
    static const char kLevels[] = "??VDIWEF";
    const char level = priority >= 0 && priority < 8 ? kLevels[priority] : '?';
    std::string text = message ? message : "";
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    writeLine(stderr, std::string("log ") + (tag ? tag : "") + "/" + level + ": " + text);
}

} // namespace avmctl
