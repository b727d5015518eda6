#include "timeline_spans_board.h"

#include <algorithm>
#include <map>

#include "sim/timeline.h"

namespace avmtest {

using json = nlohmann::json;

namespace {

// Slices are written with at least 1 us; this much slack keeps a child
// that ends with its parent inside it.
constexpr double kSlackUs = 1.5;

bool isHal(const json &e)
{
    return e.contains("cat") && e["cat"] == "hal";
}

} // namespace

json timelineDoc(const sim::Timeline &timeline)
{
    return json::parse(timeline.json(), nullptr, false);
}

std::vector<HalSpan> halSpans(const json &doc)
{
    std::vector<HalSpan> out;
    if (!doc.is_object() || !doc.contains("traceEvents"))
        return out;
    for (const auto &e : doc["traceEvents"]) {
        if (!isHal(e) || (e["ph"] != "X" && e["ph"] != "B"))
            continue;
        HalSpan s;
        s.name = e["name"].get<std::string>();
        s.tid = e["tid"].get<int>();
        s.start = e["ts"].get<double>();
        s.ended = e["ph"] == "X";
        s.end = s.ended ? s.start + e["dur"].get<double>() : s.start;
        s.args = e.value("args", json::object());
        s.depth = s.args.value("depth", size_t{0});
        s.within = s.args.value("within", std::string());
        out.push_back(std::move(s));
    }
    std::stable_sort(out.begin(), out.end(), [](const HalSpan &a, const HalSpan &b) {
        return a.start < b.start || (a.start == b.start && a.depth < b.depth);
    });
    return out;
}

std::vector<HalSpan> halSpans(const json &doc, const std::string &prefix)
{
    std::vector<HalSpan> out;
    for (auto &s : halSpans(doc))
        if (s.name.rfind(prefix, 0) == 0)
            out.push_back(std::move(s));
    return out;
}

std::vector<HalSpan> childrenOf(const std::vector<HalSpan> &all, const HalSpan &parent)
{
    std::vector<HalSpan> out;
    for (const auto &s : all)
        if (s.tid == parent.tid && s.depth == parent.depth + 1 && s.within == parent.name &&
            s.start >= parent.start - kSlackUs && s.start <= parent.end + kSlackUs)
            out.push_back(s);
    return out;
}

std::vector<std::string> namesOf(const std::vector<HalSpan> &spans)
{
    std::vector<std::string> out;
    for (const auto &s : spans)
        out.push_back(s.name);
    return out;
}

std::vector<HalAsyncSpan> halAsyncSpans(const json &doc, const std::string &name)
{
    std::vector<HalAsyncSpan> out;
    std::map<std::string, std::vector<size_t>> open; // by id: spans begun and not yet ended
    for (const auto &e : doc["traceEvents"]) {
        if (!isHal(e) || e["name"] != name || (e["ph"] != "b" && e["ph"] != "e"))
            continue;
        const std::string id = e["id"].get<std::string>();
        if (e["ph"] == "b") {
            HalAsyncSpan s;
            s.start = e["ts"].get<double>();
            s.cookie = e["args"].value("cookie", int64_t{0});
            s.beginTid = e["tid"].get<int>();
            open[id].push_back(out.size());
            out.push_back(s);
        } else if (!open[id].empty()) {
            HalAsyncSpan &s = out[open[id].front()];
            open[id].erase(open[id].begin());
            s.end = e["ts"].get<double>();
            s.endTid = e["tid"].get<int>();
        }
    }
    std::stable_sort(out.begin(), out.end(),
                     [](const HalAsyncSpan &a, const HalAsyncSpan &b) { return a.start < b.start; });
    return out;
}

std::vector<HalCounterSample> counterSamples(const json &doc, const std::string &name)
{
    std::vector<HalCounterSample> out;
    for (const auto &e : doc["traceEvents"])
        if (isHal(e) && e["ph"] == "C" && e["name"] == name)
            out.push_back({e["ts"].get<double>(), e["tid"].get<int>(), e["args"]["value"].get<int64_t>()});
    std::stable_sort(out.begin(), out.end(),
                     [](const HalCounterSample &a, const HalCounterSample &b) { return a.at < b.at; });
    return out;
}

std::vector<int64_t> counterValues(const json &doc, const std::string &name)
{
    std::vector<int64_t> out;
    for (const auto &s : counterSamples(doc, name))
        out.push_back(s.value);
    return out;
}

} // namespace avmtest
