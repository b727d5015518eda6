/*
 * The module's own trace record in a timeline file (sim::Timeline's
 * Chrome trace-event JSON), read back for assertions: its spans with
 * their thread, depth and the span they are in, its async spans and its
 * counters (category "hal").
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace sim {
class Timeline;
}

namespace avmtest {

// A span of the module: an "X" slice, or a "B" that never ended.
struct HalSpan {
    std::string name;
    int tid = 0;
    double start = 0;     // microseconds from the file's first record
    double end = 0;       // the start of a span that never ended
    size_t depth = 0;     // spans it is in, on its thread
    std::string within;   // the name of the span it is in ("" at depth 0)
    nlohmann::json args;  // as written: the name's key=value words, depth, within
    bool ended = true;
};

// An async span: a "b" and, when it ended, its "e".
struct HalAsyncSpan {
    double start = 0;
    double end = -1; // -1: never ended
    int64_t cookie = 0;
    int beginTid = 0;
    int endTid = 0;
};

// The record as the timeline's file holds it.
nlohmann::json timelineDoc(const sim::Timeline &timeline);

// Every module span in order of start (a span before the ones it holds).
std::vector<HalSpan> halSpans(const nlohmann::json &doc);
// Those whose name starts with `prefix`.
std::vector<HalSpan> halSpans(const nlohmann::json &doc, const std::string &prefix);
// The spans directly inside `parent`, in order.
std::vector<HalSpan> childrenOf(const std::vector<HalSpan> &all, const HalSpan &parent);
std::vector<std::string> namesOf(const std::vector<HalSpan> &spans);
// The async spans of that name, in order of start.
std::vector<HalAsyncSpan> halAsyncSpans(const nlohmann::json &doc, const std::string &name);
// One value a counter took.
struct HalCounterSample {
    double at = 0; // microseconds
    int tid = 0;   // the thread that set it
    int64_t value = 0;
};
// The samples of a counter, in order.
std::vector<HalCounterSample> counterSamples(const nlohmann::json &doc, const std::string &name);
// The values a counter took, in order.
std::vector<int64_t> counterValues(const nlohmann::json &doc, const std::string &name);

} // namespace avmtest
