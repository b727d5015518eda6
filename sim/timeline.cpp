/*
 * Timeline recorder and its Chrome trace-event writer; see timeline.h.
 *
 * Track layout of the file (Chrome's "process" and "thread" rows), in
 * display order:
 *   pid 2 "module threads"   one row per module thread that traced or
 *                            logged: its spans (category "hal"), nested,
 *                            and its log lines as ticks; the module's async
 *                            spans and counters belong to this process too
 *   pid 1 "links"            one row per link direction
 *   pid 3 "module activity"  spans derived from wire and log: reply waits,
 *                            file transfer, PTZ requests, retries,
 *                            amplifier switches
 *   pid 4 "session"          the driving program's marks
 * Module spans are "X" slices with their name's " key=value" words, their
 * depth and the span they are in as arguments; a span still open when the
 * file is written is a "B" without its "E". Async spans are "b"/"e" pairs
 * (id: the cookie), counters "C" events.
 */
#include "timeline.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <string_view>

#include <cerrno>
#include <cstring>
#include <deque>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <avm_trace_sink.h>
#include <nlohmann/json.hpp>

namespace sim {

namespace {

using json = nlohmann::json;

constexpr int kLinksPid = 1;
constexpr int kThreadsPid = 2;
constexpr int kActivityPid = 3;
constexpr int kSessionPid = 4;
// The category of the module's own trace calls, as on the device.
constexpr const char *kHalCategory = "hal";

// Rows of the activity process, in display order.
enum ActivityRow { kRowDspWaits = 1, kRowFileTransfer, kRowPtzRequests, kRowRetries, kRowAmplifiers };

// How far a reply or answer is looked for after its request. The DSP's
// query waits give up after 9 x 100 ms; a file request waits up to 16 x
// 50 ms per send; a PTZ request polls 500 ms per frame, three frames.
constexpr auto kDspReplyWindow = std::chrono::milliseconds(900);
constexpr auto kFileAnswerWindow = std::chrono::milliseconds(800);
constexpr auto kPtzReplyWindow = std::chrono::milliseconds(1600);
// Identical requests this close together are a resend.
constexpr auto kDspResendWindow = std::chrono::milliseconds(2500);
constexpr auto kPtzResendWindow = std::chrono::milliseconds(600);
// I2C transactions of one format switch come at least this close together
// (the longest pause inside a switch is its 100 ms settle time).
constexpr auto kAmpBurstGap = std::chrono::milliseconds(150);

constexpr size_t kLabelChars = 72;
constexpr size_t kArgChars = 640;
// A link event keeps its bytes whole: a serial read of up to 4096 bytes,
// every byte escaped as four characters, fits (tests count the commands a
// read carried, and several commands and a file chunk often share one).
constexpr size_t kWireArgChars = 4 * 4096;
constexpr size_t kPtzFrame = 64;

std::string clip(const std::string &text, size_t max)
{
    if (text.size() <= max)
        return text;
    return text.substr(0, max) + "...(" + std::to_string(text.size()) + " chars)";
}

Clock::time_point startOf(const TraceEvent &e)
{
    return e.start == Clock::time_point{} || e.start > e.when ? e.when : e.start;
}

bool startsWith(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

// One command or reply on a text link (the DSP's): a to-device chunk may
// carry several zero-terminated commands, a reply chunk is one reply.
struct TextItem {
    Clock::time_point start;
    Clock::time_point end;
    std::string text;
};

// One 64-byte PTZ frame on the wire.
struct Frame {
    Clock::time_point start;
    Clock::time_point end;
    uint8_t main = 0;
    uint8_t sub = 0;
    std::vector<uint8_t> bytes;
};

bool isFrameHead(const uint8_t *b) { return b[0] == 0xAA && b[1] == 0xBB && b[2] == 0xCC; }

std::string frameLabel(uint8_t main, uint8_t sub)
{
    char text[48];
    std::snprintf(text, sizeof text, "frame 0x%02x/0x%02x", main, sub);
    return text;
}

std::string eventLabel(const TraceEvent &e)
{
    if (e.bytes.size() >= 6 && isFrameHead(e.bytes.data())) {
        std::string label = frameLabel(e.bytes[3], e.bytes[4]);
        if (e.bytes.size() > kPtzFrame)
            label += " +" + std::to_string(e.bytes.size() - kPtzFrame) + " bytes";
        return label;
    }
    std::string note = e.note.empty() ? renderBytes(e.bytes.data(), e.bytes.size()) : e.note;
    // A command's trailing zero says nothing in a label.
    if (note.size() > 2 && note.compare(note.size() - 2, 2, "\\0") == 0)
        note.resize(note.size() - 2);
    return clip(note, kLabelChars);
}

double micros(Clock::time_point t, Clock::time_point origin)
{
    return std::chrono::duration<double, std::micro>(t - origin).count();
}

struct Builder {
    Clock::time_point origin;
    json events = json::array();

    void meta(int pid, int tid, const char *what, const std::string &name, int sortIndex)
    {
        json m = {{"ph", "M"}, {"pid", pid}, {"tid", tid}, {"name", what}, {"args", {{"name", name}}}};
        events.push_back(m);
        json s = {{"ph", "M"},
                  {"pid", pid},
                  {"tid", tid},
                  {"name", std::string(what) == "process_name" ? "process_sort_index" : "thread_sort_index"},
                  {"args", {{"sort_index", sortIndex}}}};
        events.push_back(s);
    }

    void span(int pid, int tid, const std::string &name, const char *category, Clock::time_point start,
              Clock::time_point end, json args = json::object())
    {
        const double ts = micros(start, origin);
        const double dur = std::max(1.0, micros(end, origin) - ts);
        events.push_back({{"ph", "X"},
                          {"pid", pid},
                          {"tid", tid},
                          {"name", name},
                          {"cat", category},
                          {"ts", ts},
                          {"dur", dur},
                          {"args", std::move(args)}});
    }

    // A span whose end was not recorded.
    void begin(int pid, int tid, const std::string &name, const char *category, Clock::time_point start,
               json args)
    {
        events.push_back({{"ph", "B"},
                          {"pid", pid},
                          {"tid", tid},
                          {"name", name},
                          {"cat", category},
                          {"ts", micros(start, origin)},
                          {"args", std::move(args)}});
    }

    // One end of an async span ("b" or "e"), matched by category and id.
    void async(const char *phase, int pid, int tid, const std::string &name, const char *category, int64_t id,
               Clock::time_point when, json args)
    {
        char hex[24];
        std::snprintf(hex, sizeof hex, "0x%llx", static_cast<unsigned long long>(id));
        events.push_back({{"ph", phase},
                          {"pid", pid},
                          {"tid", tid},
                          {"name", name},
                          {"cat", category},
                          {"id", hex},
                          {"ts", micros(when, origin)},
                          {"args", std::move(args)}});
    }

    void counter(int pid, int tid, const std::string &name, const char *category, Clock::time_point when,
                 int64_t value)
    {
        events.push_back({{"ph", "C"},
                          {"pid", pid},
                          {"tid", tid},
                          {"name", name},
                          {"cat", category},
                          {"ts", micros(when, origin)},
                          {"args", {{"value", value}}}});
    }

    void instant(int pid, int tid, const std::string &name, const char *category, Clock::time_point when,
                 json args)
    {
        events.push_back({{"ph", "i"},
                          {"s", "t"},
                          {"pid", pid},
                          {"tid", tid},
                          {"name", name},
                          {"cat", category},
                          {"ts", micros(when, origin)},
                          {"args", std::move(args)}});
    }
};

const char *priorityName(int priority)
{
    static const char *const kNames[] = {"unknown", "default", "verbose", "debug", "info", "warn", "error", "fatal"};
    return priority >= 0 && priority < 8 ? kNames[priority] : "unknown";
}

// The module's receive thread logs each reply it read; the first such line
// at or after `from` holding exactly `text` is when the module had it.
std::optional<Clock::time_point> moduleRead(const std::vector<LogRecord> &logs, const std::string &text,
                                            Clock::time_point from, Clock::duration window)
{
    for (const auto &log : logs) {
        if (log.when < from)
            continue;
        if (log.when > from + window)
            break;
        if (log.text == text)
            return log.when;
    }
    return std::nullopt;
}

// DSP queries ("MV=?", "PER_STAT=1?", ...) until the module read the reply.
void deriveDspWaits(Builder &b, const std::vector<TextItem> &commands, const std::vector<TextItem> &replies,
                    const std::vector<LogRecord> &logs)
{
    for (const auto &command : commands) {
        if (command.text.empty() || command.text.back() != '?')
            continue;
        const size_t eq = command.text.find('=');
        if (eq == std::string::npos)
            continue;
        const std::string key = command.text.substr(0, eq + 1);
        const TextItem *reply = nullptr;
        for (const auto &r : replies) {
            if (r.end < command.end || r.end > command.end + kDspReplyWindow)
                continue;
            if (startsWith(r.text, key)) {
                reply = &r;
                break;
            }
        }
        if (reply == nullptr) {
            b.span(kActivityPid, kRowDspWaits, command.text + " (no reply)", "reply-wait", command.start,
                   command.start + kDspReplyWindow, {{"query", command.text}});
            continue;
        }
        const auto read = moduleRead(logs, reply->text, reply->end, kDspReplyWindow);
        b.span(kActivityPid, kRowDspWaits, command.text + " -> " + clip(reply->text, 32), "reply-wait", command.start,
               read.value_or(reply->end),
               {{"query", command.text},
                {"reply", clip(reply->text, kArgChars)},
                {"reply on the wire (ms after the query)",
                 std::chrono::duration<double, std::milli>(reply->end - command.start).count()},
                {"read by the module", read.has_value()}});
    }
}

// File requests, their chunks, resends and the configuration upgrade.
void deriveFileTransfer(Builder &b, const std::vector<TextItem> &commands, const std::vector<TextItem> &replies,
                        const std::vector<LogRecord> &logs)
{
    static const char *const kWords[] = {"FINF=", "FWSTR=", "FWDAT=", "FWEND="};
    auto wordOf = [](const std::string &text) -> const char * {
        for (const char *word : kWords)
            if (startsWith(text, word))
                return word;
        return nullptr;
    };
    std::vector<const TextItem *> requests;
    for (const auto &c : commands)
        if (wordOf(c.text))
            requests.push_back(&c);

    std::optional<Clock::time_point> upgradeStart;
    size_t chunks = 0;
    for (size_t i = 0; i < requests.size(); ++i) {
        const TextItem &request = *requests[i];
        const char *word = wordOf(request.text);
        const TextItem *answer = nullptr;
        for (const auto &r : replies) {
            if (r.end < request.end || r.end > request.end + kFileAnswerWindow)
                continue;
            if (startsWith(r.text, word)) {
                answer = &r;
                break;
            }
        }
        std::optional<Clock::time_point> read;
        if (answer)
            read = moduleRead(logs, answer->text, answer->end, kFileAnswerWindow);
        const TextItem *next = i + 1 < requests.size() ? requests[i + 1] : nullptr;
        const bool moveOn = next && next->start - request.start <= kDspResendWindow;
        // A request lasts until the module moves on to the next one; the
        // last until the module read its answer.
        Clock::time_point end = moveOn ? next->start : read.value_or(answer ? answer->end : request.end);
        std::string name = word;
        name.pop_back(); // without the '='
        if (std::string(word) == "FWDAT=") {
            // "FWDAT=<offset>,<length>,..." names its chunk.
            const size_t second = request.text.find(',', request.text.find(',') + 1);
            name = "chunk " + request.text.substr(6, second == std::string::npos ? 0 : second - 6);
            ++chunks;
        }
        b.span(kActivityPid, kRowFileTransfer, name, "file-transfer", request.start, end,
               {{"request", clip(request.text, kArgChars)},
                {"answer", answer ? clip(answer->text, kArgChars) : std::string("(none)")},
                {"answer read by the module", read.has_value()}});
        if (moveOn && next->text == request.text)
            b.span(kActivityPid, kRowRetries, "resend " + clip(request.text, 40), "retry", request.start, next->start,
                   {{"request", clip(request.text, kArgChars)}});

        if (std::string(word) == "FINF=")
            upgradeStart = request.start;
        if (std::string(word) == "FWEND=" && upgradeStart) {
            b.span(kActivityPid, kRowFileTransfer, "configuration upgrade", "file-transfer", *upgradeStart,
                   std::max(end, read.value_or(end)),
                   {{"chunks", chunks},
                    {"ended", answer ? clip(answer->text, kArgChars) : std::string("(no answer)")}});
            upgradeStart.reset();
            chunks = 0;
        }
    }
}

// PTZ requests until the reply frame (sub code + 1); resent frames.
void derivePtz(Builder &b, const std::vector<Frame> &sent, const std::vector<Frame> &received)
{
    for (size_t i = 0; i < sent.size(); ++i) {
        const Frame &request = sent[i];
        const Frame *resend = nullptr;
        for (size_t j = i + 1; j < sent.size(); ++j) {
            if (sent[j].start - request.start > kPtzResendWindow)
                break;
            if (sent[j].bytes == request.bytes) {
                resend = &sent[j];
                break;
            }
        }
        if (resend)
            b.span(kActivityPid, kRowRetries, "resend " + frameLabel(request.main, request.sub), "retry",
                   request.start, resend->start);
        for (const auto &reply : received) {
            if (reply.end < request.end || reply.end > request.end + kPtzReplyWindow)
                continue;
            if (reply.main == request.main && reply.sub == static_cast<uint8_t>(request.sub + 1)) {
                if (!resend || reply.end <= resend->start)
                    b.span(kActivityPid, kRowPtzRequests, frameLabel(request.main, request.sub) + " -> reply",
                           "reply-wait", request.start, reply.end);
                break;
            }
        }
    }
}

// Amplifier format switches: the switch's log line until the last I2C
// transaction of the burst that follows it.
void deriveAmpSwitches(Builder &b, const std::vector<LogRecord> &logs, const std::vector<TraceEvent> &i2c)
{
    for (size_t k = 0; k < logs.size(); ++k) {
        const LogRecord &log = logs[k];
        const size_t at = log.text.find("format(");
        if (!startsWith(log.text, "[HV_SetSoundEQ]") || at == std::string::npos ||
            log.text.find("same format") != std::string::npos)
            continue;
        // The mute reads come just before the line; the burst starts there.
        Clock::time_point start = log.when;
        Clock::time_point last = log.when;
        size_t count = 0;
        for (auto it = i2c.rbegin(); it != i2c.rend(); ++it)
            if (it->when <= log.when && log.when - it->when <= kAmpBurstGap && count < 4) {
                start = startOf(*it);
                ++count;
            }
        count = 0;
        for (const auto &e : i2c) {
            if (e.when < log.when)
                continue;
            if (e.when - last > kAmpBurstGap)
                break;
            last = e.when;
            ++count;
        }
        const int format = std::atoi(log.text.c_str() + at + 7);
        static const char *const kFormats[] = {"floor", "wall", "meeting"};
        const std::string name = format >= 0 && format < 3 ? kFormats[format] : std::to_string(format);
        b.span(kActivityPid, kRowAmplifiers, "format switch to " + name, "amplifier", start, last,
               {{"log", log.text}, {"i2c transactions after the line", count}});
    }
}

// A name's " key=value" words (after its constant part) as arguments;
// whole numbers as numbers.
json nameArguments(const std::string &name)
{
    json args = json::object();
    size_t at = name.find(' ');
    while (at != std::string::npos) {
        const size_t end = name.find(' ', at + 1);
        const std::string word = name.substr(at + 1, end == std::string::npos ? std::string::npos : end - at - 1);
        const size_t eq = word.find('=');
        if (eq != std::string::npos && eq > 0) {
            const std::string value = word.substr(eq + 1);
            char *rest = nullptr;
            errno = 0;
            const long long number = std::strtoll(value.c_str(), &rest, 10);
            const bool whole = !value.empty() && rest && *rest == '\0' && errno == 0;
            args[word.substr(0, eq)] = whole ? json(number) : json(value);
        }
        at = end;
    }
    return args;
}

// The first two words of a name: its area and what ("dsp write").
std::string areaOf(const std::string &name)
{
    const size_t first = name.find(' ');
    const size_t second = first == std::string::npos ? first : name.find(' ', first + 1);
    return name.substr(0, second);
}

// The module's trace calls: spans paired per thread in the order each
// thread made them (a thread's calls are appended in that order), async
// spans paired by name and cookie in the order they began, counters as
// they came. Fills areasOf with the outermost spans' areas of each thread
// (for the rows' names); returns how many ends had no begin (a recording
// that started inside a span).
size_t buildHal(Builder &b, const std::vector<HalRecord> &hal, std::map<int, std::vector<std::string>> &areasOf)
{
    std::map<int, std::vector<const HalRecord *>> open;
    std::map<std::pair<std::string, int64_t>, std::deque<const HalRecord *>> asyncOpen;
    size_t unmatched = 0;
    auto noteArea = [&](int tid, const std::string &name) {
        auto &areas = areasOf[tid];
        const std::string area = areaOf(name);
        if (std::find(areas.begin(), areas.end(), area) == areas.end())
            areas.push_back(area);
    };
    for (const auto &r : hal) {
        switch (r.kind) {
        case HalRecord::Kind::Begin:
            open[r.tid].push_back(&r);
            break;
        case HalRecord::Kind::End: {
            auto &stack = open[r.tid];
            if (stack.empty()) {
                ++unmatched;
                break;
            }
            const HalRecord *begun = stack.back();
            stack.pop_back();
            json args = nameArguments(begun->name);
            args["depth"] = stack.size();
            if (!stack.empty())
                args["within"] = stack.back()->name;
            else
                noteArea(r.tid, begun->name);
            b.span(kThreadsPid, r.tid, begun->name, kHalCategory, begun->when, r.when, std::move(args));
            break;
        }
        case HalRecord::Kind::AsyncBegin:
            asyncOpen[{r.name, r.value}].push_back(&r);
            break;
        case HalRecord::Kind::AsyncEnd: {
            auto it = asyncOpen.find({r.name, r.value});
            if (it == asyncOpen.end() || it->second.empty()) {
                ++unmatched;
                break;
            }
            const HalRecord *begun = it->second.front();
            it->second.pop_front();
            json args = nameArguments(begun->name);
            args["cookie"] = begun->value;
            args["begun on thread"] = begun->tid;
            b.async("b", kThreadsPid, begun->tid, begun->name, kHalCategory, begun->value, begun->when,
                    std::move(args));
            b.async("e", kThreadsPid, r.tid, r.name, kHalCategory, r.value, r.when,
                    {{"ended on thread", r.tid}});
            break;
        }
        case HalRecord::Kind::Counter:
            b.counter(kThreadsPid, r.tid, r.name, kHalCategory, r.when, r.value);
            break;
        }
    }
    // Spans still open when the record was taken.
    for (const auto &[tid, stack] : open)
        for (size_t depth = 0; depth < stack.size(); ++depth) {
            json args = nameArguments(stack[depth]->name);
            args["depth"] = depth;
            if (depth > 0)
                args["within"] = stack[depth - 1]->name;
            else
                noteArea(tid, stack[depth]->name);
            b.begin(kThreadsPid, tid, stack[depth]->name, kHalCategory, stack[depth]->when, std::move(args));
        }
    for (const auto &[key, begins] : asyncOpen)
        for (const HalRecord *begun : begins) {
            json args = nameArguments(begun->name);
            args["cookie"] = begun->value;
            args["begun on thread"] = begun->tid;
            b.async("b", kThreadsPid, begun->tid, begun->name, kHalCategory, begun->value, begun->when,
                    std::move(args));
        }
    return unmatched;
}

// The tracing sink's functions: each hands the call to the timeline it was
// registered for, on the thread that traced.
void sinkBegin(void *timeline, const char *name)
{
    static_cast<Timeline *>(timeline)->addHal(HalRecord::Kind::Begin, name, 0);
}

void sinkEnd(void *timeline)
{
    static_cast<Timeline *>(timeline)->addHal(HalRecord::Kind::End, nullptr, 0);
}

void sinkAsyncBegin(void *timeline, const char *name, int32_t cookie)
{
    static_cast<Timeline *>(timeline)->addHal(HalRecord::Kind::AsyncBegin, name, cookie);
}

void sinkAsyncEnd(void *timeline, const char *name, int32_t cookie)
{
    static_cast<Timeline *>(timeline)->addHal(HalRecord::Kind::AsyncEnd, name, cookie);
}

void sinkCounter(void *timeline, const char *name, int64_t value)
{
    static_cast<Timeline *>(timeline)->addHal(HalRecord::Kind::Counter, name, value);
}

int currentThreadId()
{
    thread_local const int tid = static_cast<int>(syscall(SYS_gettid));
    return tid;
}

} // namespace

Timeline::~Timeline() { detach(); }

void Timeline::attach(Trace &trace)
{
    detach();
    const int id = trace.addListener([this](const TraceEvent &event) { addEvent(event); });
    {
        std::lock_guard<std::mutex> lock(mutex_);
        trace_ = &trace;
        listenerId_ = id;
    }
    traceModule(true);
}

void Timeline::detach()
{
    traceModule(false);
    Trace *trace = nullptr;
    int id = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::swap(trace, trace_);
        std::swap(id, listenerId_);
    }
    if (trace)
        trace->removeListener(id);
}

bool Timeline::traceModule(bool on)
{
    if (on) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (sinkHandle_ > 0)
                return true;
        }
        const AvmTraceSink sink{this, sinkBegin, sinkEnd, sinkAsyncBegin, sinkAsyncEnd, sinkCounter};
        const int handle = avm_trace_add_sink(&sink);
        if (handle < 1)
            return false;
        std::lock_guard<std::mutex> lock(mutex_);
        sinkHandle_ = handle;
        return true;
    }
    int handle = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::swap(handle, sinkHandle_);
    }
    // Outside the lock: removal waits for sink calls in flight, which take it.
    if (handle > 0)
        avm_trace_remove_sink(handle);
    return true;
}

void Timeline::addEvent(const TraceEvent &event)
{
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
}

void Timeline::addLog(int priority, const char *tag, const char *text)
{
    LogRecord record;
    record.when = Clock::now();
    record.tid = static_cast<int>(syscall(SYS_gettid));
    record.priority = priority;
    record.tag = tag ? tag : "";
    record.text = text ? text : "";
    addLog(std::move(record));
}

void Timeline::addLog(LogRecord record)
{
    while (!record.text.empty() && (record.text.back() == '\n' || record.text.back() == '\r'))
        record.text.pop_back();
    std::lock_guard<std::mutex> lock(mutex_);
    logs_.push_back(std::move(record));
}

void Timeline::addMark(const std::string &track, const std::string &name, Clock::time_point start,
                       Clock::time_point end)
{
    std::lock_guard<std::mutex> lock(mutex_);
    marks_.push_back({start, end, track, name});
}

void Timeline::addHal(HalRecord::Kind kind, const char *name, int64_t value)
{
    HalRecord record;
    record.when = Clock::now();
    record.tid = currentThreadId();
    record.kind = kind;
    record.value = value;
    if (name)
        record.name = name;
    addHal(std::move(record));
}

void Timeline::addHal(HalRecord record)
{
    std::lock_guard<std::mutex> lock(mutex_);
    hal_.push_back(std::move(record));
}

void Timeline::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    events_.clear();
    logs_.clear();
    marks_.clear();
    hal_.clear();
}

size_t Timeline::eventCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return events_.size();
}

size_t Timeline::logCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return logs_.size();
}

size_t Timeline::halCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return hal_.size();
}

std::string Timeline::json() const
{
    std::vector<TraceEvent> events;
    std::vector<LogRecord> logs;
    std::vector<MarkRecord> marks;
    std::vector<HalRecord> hal;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events = events_;
        logs = logs_;
        marks = marks_;
        hal = hal_;
    }
    // Listeners run on several threads: put everything in time order.
    std::stable_sort(events.begin(), events.end(),
                     [](const TraceEvent &a, const TraceEvent &b) { return a.when < b.when; });
    std::stable_sort(logs.begin(), logs.end(), [](const LogRecord &a, const LogRecord &b) { return a.when < b.when; });

    Builder b;
    b.origin = Clock::time_point::max();
    for (const auto &e : events)
        b.origin = std::min(b.origin, startOf(e));
    for (const auto &l : logs)
        b.origin = std::min(b.origin, l.when);
    for (const auto &m : marks)
        b.origin = std::min(b.origin, m.start);
    for (const auto &h : hal)
        b.origin = std::min(b.origin, h.when);
    if (b.origin == Clock::time_point::max())
        b.origin = Clock::now();

    // The module's threads above the wire they drive.
    b.meta(kThreadsPid, 0, "process_name", "module threads", 1);
    b.meta(kLinksPid, 0, "process_name", "links", 2);
    b.meta(kActivityPid, 0, "process_name", "module activity (from wire and log)", 3);
    b.meta(kSessionPid, 0, "process_name", "session", 4);
    b.meta(kActivityPid, kRowDspWaits, "thread_name", "dsp reply waits", kRowDspWaits);
    b.meta(kActivityPid, kRowFileTransfer, "thread_name", "dsp file transfer", kRowFileTransfer);
    b.meta(kActivityPid, kRowPtzRequests, "thread_name", "ptz requests", kRowPtzRequests);
    b.meta(kActivityPid, kRowRetries, "thread_name", "retries", kRowRetries);
    b.meta(kActivityPid, kRowAmplifiers, "thread_name", "amplifier switches", kRowAmplifiers);

    // Links: one row per direction, in order of first appearance.
    std::map<std::pair<std::string, bool>, int> rows;
    std::vector<TextItem> dspCommands, dspReplies;
    std::vector<Frame> ptzSent, ptzReceived;
    std::vector<TraceEvent> i2c;
    for (const auto &e : events) {
        const auto key = std::make_pair(e.link, e.toDevice);
        auto it = rows.find(key);
        if (it == rows.end()) {
            const int tid = static_cast<int>(rows.size()) + 1;
            it = rows.emplace(key, tid).first;
            b.meta(kLinksPid, tid, "thread_name", e.link + (e.toDevice ? "  module -> device" : "  device -> module"),
                   tid);
        }
        const Clock::time_point start = startOf(e);
        b.span(kLinksPid, it->second, eventLabel(e), e.link.c_str(), start, e.when,
               {{"text", clip(e.note.empty() ? renderBytes(e.bytes.data(), e.bytes.size()) : e.note, kWireArgChars)},
                {"bytes", e.bytes.size()}});

        if (e.link == "dsp") {
            if (e.toDevice) {
                // Split into commands; each ends with its zero byte.
                std::string text;
                for (uint8_t c : e.bytes) {
                    if (c == 0) {
                        dspCommands.push_back({start, e.when, text});
                        text.clear();
                    } else {
                        text += static_cast<char>(c);
                    }
                }
            } else {
                dspReplies.push_back({start, e.when, std::string(e.bytes.begin(), e.bytes.end())});
            }
        } else if (e.link == "ptz") {
            for (size_t off = 0; off + kPtzFrame <= e.bytes.size(); off += kPtzFrame) {
                if (!isFrameHead(e.bytes.data() + off))
                    break;
                Frame f{start, e.when, e.bytes[off + 3], e.bytes[off + 4],
                        std::vector<uint8_t>(e.bytes.begin() + static_cast<long>(off),
                                             e.bytes.begin() + static_cast<long>(off + kPtzFrame))};
                (e.toDevice ? ptzSent : ptzReceived).push_back(std::move(f));
            }
        } else if (e.link.rfind("i2c-", 0) == 0) {
            i2c.push_back(e);
        }
    }

    // Module threads: one row each, named by the tags it logged with, or
    // when it did not log, by its outermost spans.
    std::map<int, std::vector<std::string>> areasOf;
    const size_t unmatchedEnds = buildHal(b, hal, areasOf);
    std::map<int, std::vector<std::string>> tagsOf;
    for (const auto &l : logs) {
        auto &tags = tagsOf[l.tid];
        if (std::find(tags.begin(), tags.end(), l.tag) == tags.end())
            tags.push_back(l.tag);
    }
    for (const auto &[tid, areas] : areasOf)
        if (!tagsOf.count(tid))
            tagsOf[tid] = areas;
    for (const auto &[tid, tags] : tagsOf) {
        std::string name = "thread " + std::to_string(tid) + ":";
        for (size_t k = 0; k < tags.size() && k < 3; ++k)
            name += (k ? ", " : " ") + tags[k];
        if (tags.size() > 3)
            name += ", ...";
        b.meta(kThreadsPid, tid, "thread_name", name, tid);
    }
    for (const auto &l : logs)
        b.instant(kThreadsPid, l.tid, clip(l.tag + ": " + l.text, kLabelChars), "log", l.when,
                  {{"tag", l.tag}, {"priority", priorityName(l.priority)}, {"text", clip(l.text, kArgChars)}});

    // Session marks: one row per track name.
    std::map<std::string, int> markRows;
    for (const auto &m : marks) {
        auto it = markRows.find(m.track);
        if (it == markRows.end()) {
            const int tid = static_cast<int>(markRows.size()) + 1;
            it = markRows.emplace(m.track, tid).first;
            b.meta(kSessionPid, tid, "thread_name", m.track, tid);
        }
        b.span(kSessionPid, it->second, m.name, "session", m.start, m.end);
    }

    deriveDspWaits(b, dspCommands, dspReplies, logs);
    deriveFileTransfer(b, dspCommands, dspReplies, logs);
    derivePtz(b, ptzSent, ptzReceived);
    deriveAmpSwitches(b, logs, i2c);

    nlohmann::json doc = {{"traceEvents", std::move(b.events)},
                {"displayTimeUnit", "ms"},
                {"otherData", {{"producer", "avmanager virtual board"},
                               {"clock", "steady, microseconds from the first record"},
                               {"module trace calls", hal.size()},
                               {"module span ends without their begin", unmatchedEnds}}}};
    // Bytes from peripherals may be anything: replace what is not UTF-8.
    return doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool Timeline::write(const std::string &path, std::string *error) const
{
    const std::string text = json();
    const std::string temp = path + ".part";
    auto fail = [&](const std::string &what) {
        const int err = errno;
        if (error)
            *error = what + ": " + std::strerror(err);
        std::remove(temp.c_str());
        return false;
    };
    // Opened without waiting (a pipe with no reader fails at once rather
    // than hold the open, and with it every path call umockdev serialises,
    // module threads' included); the writes then wait as usual.
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0644);
    if (fd < 0)
        return fail("cannot open " + temp);
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        const int err = errno;
        ::close(fd);
        errno = err;
        return fail("cannot open " + temp);
    }
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            const int err = n < 0 ? errno : EIO;
            ::close(fd);
            errno = err;
            return fail("cannot write " + temp);
        }
        done += static_cast<size_t>(n);
    }
    // A disk that fills up may only say so when the data is flushed.
    if (::fsync(fd) != 0 && errno != EINVAL && errno != EROFS) {
        const int err = errno;
        ::close(fd);
        errno = err;
        return fail("cannot write " + temp);
    }
    if (::close(fd) != 0)
        return fail("cannot write " + temp);
    if (std::rename(temp.c_str(), path.c_str()) != 0)
        return fail("cannot rename " + temp + " to " + path);
    return true;
}

} // namespace sim
