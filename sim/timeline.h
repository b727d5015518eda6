/*
 * Timeline of a session on the virtual board, written as a Chrome
 * trace-event JSON file (Perfetto UI, chrome://tracing, or the console's
 * own viewer, tools/console/timeline_viewer.html, open it).
 *
 * What it records:
 *  - the module's own spans, async spans and counters (its ATRACE_* calls,
 *    handed over by the platform's tracing sink on the thread that made
 *    them): slices and counters of the module's threads, category "hal",
 *    as a system trace on the device shows them;
 *  - every trace event of the board's links (Trace listener): one track
 *    per link direction, each chunk of bytes or register access a slice
 *    as long as it took on the line or the bus, labelled with its text or
 *    its decoded frame;
 *  - the module's log lines (the program's liblog logger hands them in on
 *    the logging thread): ticks on the rows of the module's threads;
 *  - marks of the program driving the session (console commands, bench
 *    rows) on a track of their own.
 * When the file is written, spans of what the module is doing are derived
 * from the wire and the log: DSP reply waits (a query on the wire until
 * the module's receive thread logs the answer), file-transfer requests and
 * the whole configuration upgrade, PTZ requests until their reply frame,
 * resent requests (retries) and amplifier format switches (the switch's log
 * line until the last I2C transaction of its burst).
 *
 * Threads: events, log lines and trace calls arrive on any thread; one
 * mutex guards the record, held only to append or to copy. Writing takes
 * a copy and builds and writes the file outside the lock, so a slow or
 * failing disk never holds up a thread of the module.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "board.h"

namespace sim {

// One log line of the module as the logger saw it.
struct LogRecord {
    Clock::time_point when;
    int tid = 0;         // kernel thread id of the logging thread
    int priority = 0;    // android_LogPriority
    std::string tag;
    std::string text;    // trailing line breaks removed
};

// One trace call of the module, as the platform's tracing sink handed it
// over.
struct HalRecord {
    enum class Kind : uint8_t { Begin, End, AsyncBegin, AsyncEnd, Counter };
    Clock::time_point when;
    int tid = 0;          // kernel thread id of the tracing thread
    Kind kind = Kind::Begin;
    int64_t value = 0;    // the cookie of an async span, the value of a counter
    std::string name;     // empty for End
};

// A span of the program driving the session (a console command, a bench row).
struct MarkRecord {
    Clock::time_point start;
    Clock::time_point end;
    std::string track;
    std::string name;
};

class Timeline {
public:
    Timeline() = default;
    ~Timeline();
    Timeline(const Timeline &) = delete;
    Timeline &operator=(const Timeline &) = delete;

    // Records every event the trace gets, and the module's trace calls,
    // from now on, until detach() (or destruction). One trace at a time.
    void attach(Trace &trace);
    void detach();
    // Registers (true) or removes (false) the tracing sink alone: the
    // module's trace calls are recorded while it is registered, and the
    // "hal" tag is on. Returns false when the platform has no room for
    // another sink.
    bool traceModule(bool on);

    void addEvent(const TraceEvent &event);
    // From the logger, on the thread that logs (its id is taken here).
    void addLog(int priority, const char *tag, const char *text);
    void addLog(LogRecord record);
    void addMark(const std::string &track, const std::string &name, Clock::time_point start,
                 Clock::time_point end);
    // From the tracing sink, on the thread that traced (time and thread id
    // are taken here); or a record made up by a test.
    void addHal(HalRecord::Kind kind, const char *name, int64_t value);
    void addHal(HalRecord record);

    void clear();
    size_t eventCount() const;
    size_t logCount() const;
    size_t halCount() const;

    // The whole record as Chrome trace-event JSON (an object with
    // "traceEvents"); times in microseconds from the earliest record.
    std::string json() const;
    // Writes json() to path + ".part", then renames it to path; false with
    // the failing step and its system error on failure (the partial file
    // is removed, the record kept).
    bool write(const std::string &path, std::string *error = nullptr) const;

private:
    mutable std::mutex mutex_;        // guards the four records and the attachment
    std::vector<TraceEvent> events_;
    std::vector<LogRecord> logs_;
    std::vector<MarkRecord> marks_;
    std::vector<HalRecord> hal_;
    Trace *trace_ = nullptr;          // attached trace, if any
    int listenerId_ = 0;
    int sinkHandle_ = 0;              // registered tracing sink, 0 when none
};

} // namespace sim
