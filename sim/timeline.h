/*
 * Timeline of a session on the virtual board, written as a Chrome
 * trace-event JSON file (Perfetto UI, chrome://tracing, or the console's
 * own viewer, tools/console/timeline_viewer.html, open it).
 *
 * What it records, all from outside the module:
 *  - every trace event of the board's links (Trace listener): one track
 *    per link direction, each chunk of bytes or register access a slice
 *    as long as it took on the line or the bus, labelled with its text or
 *    its decoded frame;
 *  - the module's log lines (the program's liblog logger hands them in on
 *    the logging thread): one track per module thread, an instant each;
 *  - marks of the program driving the session (console commands, bench
 *    rows) on a track of their own.
 * When the file is written, spans of what the module is doing are derived
 * from the wire and the log: DSP reply waits (a query on the wire until
 * the module's receive thread logs the answer), file-transfer requests and
 * the whole configuration upgrade, PTZ requests until their reply frame,
 * resent requests (retries) and amplifier format switches (the switch's log
 * line until the last I2C transaction of its burst).
 *
 * Threads: events and log lines arrive on any thread; one mutex guards the
 * record. Writing takes a copy and builds the file outside the lock.
 */
#pragma once

#include <chrono>
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

    // Records every event the trace gets from now on, until detach() (or
    // destruction). One trace at a time.
    void attach(Trace &trace);
    void detach();

    void addEvent(const TraceEvent &event);
    // From the logger, on the thread that logs (its id is taken here).
    void addLog(int priority, const char *tag, const char *text);
    void addLog(LogRecord record);
    void addMark(const std::string &track, const std::string &name, Clock::time_point start,
                 Clock::time_point end);

    void clear();
    size_t eventCount() const;
    size_t logCount() const;

    // The whole record as Chrome trace-event JSON (an object with
    // "traceEvents"); times in microseconds from the earliest record.
    std::string json() const;
    // Writes json() to path (replacing it); false with a reason on failure.
    bool write(const std::string &path, std::string *error = nullptr) const;

private:
    mutable std::mutex mutex_;        // guards the three records and the attachment
    std::vector<TraceEvent> events_;
    std::vector<LogRecord> logs_;
    std::vector<MarkRecord> marks_;
    Trace *trace_ = nullptr;          // attached trace, if any
    int listenerId_ = 0;
};

} // namespace sim
