// The module's figures on the virtual board, each next to the bound its
// timing contract and the physics of its link allow (contract.h), in one
// table. Serial lines run at an emulated 115200 baud both ways and the
// amplifiers charge 100 us per I2C transaction, so every figure is what
// the device would show, plus the emulation's own overhead.
//
// Run under the board wrapper (scripts/run-bench). Prints the table;
// --timeline FILE also writes the traffic of the measured rows, and the
// module's own spans, as a Chrome trace-event file. Exits non-zero only
// when a figure could not be measured: speed is reported, never judged
// here.
//
// The module's tracing is on (the timeline's sink registered) for every
// row but the setter row, which is measured with it off, as on a device
// that is not recording a system trace, and again with it on.
#include "common/avm_trace.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <android/log.h>
#include <cutils/properties.h>
#include <hardware/hardware.h>

#include "amp/amp_program.h"
#include "avmanager_hal.h"
#include "bench_support.h"
#include "contract.h"
#include "dsp/dsp_audio.h"
#include "dsp/dsp_link.h"
#include "sim/amp_model.h"
#include "sim/board.h"
#include "sim/dsp_audio_model.h"
#include "sim/dsp_file_store.h"
#include "sim/dsp_mic_model.h"
#include "sim/dsp_model.h"
#include "sim/hdmi_out_model.h"
#include "sim/ptz_camera_model.h"
#include "sim/timeline.h"
#include "sim/uac_mixer_model.h"

namespace {

using bench::fmt;
using bench::openDescriptors;
using bench::residentKiB;

using namespace std::chrono_literals;
using contract::Seconds;
using sim::Clock;

// ------------------------------------------------------------ reporting

struct Row {
    std::string figure;
    std::string measured;
    std::string bound;
    std::string ratio;
    std::string target;
    std::string verdict; // "yes", "no", or "" when there is no target
    std::string note;
    bool measuredOk = false;
};

std::vector<Row> gRows;

double msOf(Seconds s) { return s.count() * 1000.0; }
double msOf(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return NAN;
    std::sort(values.begin(), values.end());
    const double rank = p / 100.0 * static_cast<double>(values.size() - 1);
    const size_t lo = static_cast<size_t>(std::floor(rank));
    const size_t hi = std::min(values.size() - 1, lo + 1);
    return values[lo] + (values[hi] - values[lo]) * (rank - static_cast<double>(lo));
}

void failed(const std::string &figure, const std::string &why)
{
    Row row;
    row.figure = figure;
    row.measured = "not measured: " + why;
    gRows.push_back(row);
    std::fprintf(stderr, "bench: %s: %s\n", figure.c_str(), why.c_str());
}

// ------------------------------------------------------------ the session

// Log lines go to the timeline while it records; nothing is printed (the
// table is the output).
std::atomic<sim::Timeline *> gTimeline{nullptr};
std::atomic<long> gLogLines{0};

void benchLogger(const struct __android_logger_data *data, const char *message)
{
    gLogLines.fetch_add(1, std::memory_order_relaxed);
    if (sim::Timeline *timeline = gTimeline.load(std::memory_order_acquire))
        timeline->addLog(data->priority, data->tag, message);
}

std::string sourceDir() { return AVM_SOURCE_DIR; }

// Every DSP command as it reached the DSP model (one per zero byte), with
// when its first and last byte crossed the line.
class DspArrivals {
public:
    struct Item {
        Clock::time_point start;
        Clock::time_point end;
        std::string text;
    };
    explicit DspArrivals(sim::Trace &trace) : trace_(trace)
    {
        id_ = trace.addListener([this](const sim::TraceEvent &e) {
            if (e.link != "dsp" || !e.toDevice)
                return;
            std::lock_guard<std::mutex> lock(mutex_);
            for (uint8_t c : e.bytes) {
                if (c == 0) {
                    lastEnd_ = e.when;
                    items_.push_back({e.start, e.when, partial_});
                    partial_.clear();
                } else {
                    partial_ += static_cast<char>(c);
                }
            }
        });
    }
    ~DspArrivals() { trace_.removeListener(id_); }
    // Commands counted since the start (also those trimmed away).
    size_t count() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return dropped_ + items_.size();
    }
    Item at(size_t i) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return items_.at(i - dropped_);
    }
    std::vector<Item> since(size_t from) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const size_t first = std::min(std::max(from, dropped_) - dropped_, items_.size());
        return std::vector<Item>(items_.begin() + static_cast<long>(first), items_.end());
    }
    // Forgets the commands kept so far (a long run would grow the record);
    // they still count.
    void trim()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        dropped_ += items_.size();
        items_.clear();
        items_.shrink_to_fit();
    }
    Clock::time_point lastEnd() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return lastEnd_;
    }

private:
    sim::Trace &trace_;
    int id_ = 0;
    mutable std::mutex mutex_;
    std::vector<Item> items_;
    size_t dropped_ = 0; // items trimmed away
    Clock::time_point lastEnd_{};
    std::string partial_;
};

struct Session {
    sim::Board board;
    sim::DspModel dsp{board};
    sim::DspAudio audio{dsp};
    sim::DspFileStore files{dsp};
    // Answers the detection thread's version query, as the DSP does; left
    // unanswered, the query would go out every 300 ms in the middle of the
    // measured traffic.
    sim::DspMicTest version{dsp};
    sim::UacMixer uac{board};
    sim::PtzCameraModel ptz{board};
    sim::AmpModel amp{board, sim::AmpFitting::Acm8625};
    sim::HdmiOutModel hdmi{board};
    sim::Timeline timeline;
    DspArrivals arrivals{board.trace()};
    const avmanager_module_t *hal = nullptr;
    std::vector<int> boardThreads;   // every thread before start-up: the board's and GLib's
    std::vector<int> startupThreads; // the module's threads from start-up, in order of creation
    std::vector<int> hdmiThreads;    // the module's threads from the HDMI-out init
};

std::vector<int> threadIds()
{
    std::vector<int> out;
    if (DIR *dir = opendir("/proc/self/task")) {
        while (dirent *entry = readdir(dir))
            if (entry->d_name[0] != '.')
                out.push_back(std::atoi(entry->d_name));
        closedir(dir);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<int> newThreads(const std::vector<int> &before)
{
    std::vector<int> out;
    for (int tid : threadIds())
        if (!std::binary_search(before.begin(), before.end(), tid))
            out.push_back(tid);
    return out;
}

// Waits until the DSP line has been quiet for `gap`.
void waitDspQuiet(const Session &s, Clock::duration gap)
{
    sim::waitUntil([&] { return Clock::now() - s.arrivals.lastEnd() >= gap; }, 3000ms);
}

void mark(Session &s, const std::string &name, Clock::time_point start)
{
    s.timeline.addMark("bench rows", name, start, Clock::now());
}

// ------------------------------------------------------------ rows

void setterLatency(Session &s, bool traced)
{
    const std::string figure = std::string("one setter on an idle link -> its bytes on the DSP wire") +
                               (traced ? ", tracing into the timeline" : "");
    // Off: no sink, so the "hal" tag is off and every trace call is the
    // tracer's check alone.
    s.timeline.traceModule(traced);
    constexpr int kSamples = 300;
    std::vector<double> latencies;
    size_t wireBytes = 0;
    const auto rowStart = Clock::now();
    for (int i = 0; i < kSamples; ++i) {
        // Idle: the last command's pacing is long over; a varying pause
        // puts the call anywhere in the transmit thread's idle step.
        waitDspQuiet(s, 20ms);
        std::this_thread::sleep_for(std::chrono::microseconds(5000 + (i * 733) % 3000));
        const size_t before = s.arrivals.count();
        const auto t0 = Clock::now();
        s.hal->set_volume(s.hal, AUDIO_CHANNEL_MAIN, 20 + i % 60);
        // Its own command: one the module posted on its own may cross first.
        DspArrivals::Item item;
        auto arrived = [&] {
            for (const auto &a : s.arrivals.since(before))
                if (a.text.rfind("MV=", 0) == 0) {
                    item = a;
                    return true;
                }
            return false;
        };
        if (!sim::waitUntil(arrived, 2000ms)) {
            failed(figure, "a command did not reach the DSP");
            return;
        }
        wireBytes = std::max(wireBytes, item.text.size() + 1);
        latencies.push_back(msOf(item.end - t0));
    }
    mark(s, traced ? "setter latency, traced" : "setter latency", rowStart);
    s.timeline.traceModule(true);
    const double p50 = percentile(latencies, 50);
    const double p99 = percentile(latencies, 99);
    const Seconds bound = contract::kDspIdlePoll + contract::wire(wireBytes);
    Row row;
    row.figure = figure;
    row.measured = fmt("p50 %.2f ms, p99 %.2f ms (n=%d)", p50, p99, kSamples);
    row.bound = fmt("%.2f ms = idle poll %.0f ms + %zu bytes on the line %.2f ms", msOf(bound),
                    msOf(contract::kDspIdlePoll), wireBytes, msOf(contract::wire(wireBytes)));
    row.ratio = fmt("p50 %.2f, p99 %.2f", p50 / msOf(bound), p99 / msOf(bound));
    row.target = "p50 <= 2 ms, p99 <= 4 ms";
    row.verdict = p50 <= 2.0 && p99 <= 4.0 ? "yes" : "no";
    row.note = traced ? "with every trace call of the module recorded by the timeline's sink"
                      : "from the call to the last byte at the DSP; the module's tracing off";
    row.measuredOk = true;
    gRows.push_back(row);
}

// Runs of each span cost measurement: short runs, many of them, so that
// on a loaded machine some run without being preempted.
constexpr int kCostRuns = 20;

// Nanoseconds per call of `pair` (one span begun and ended): the fastest
// of kCostRuns runs of `n`, the one least disturbed by the rest of the
// machine.
template <typename Pair> double nsPerPair(long n, Pair pair, const std::function<void()> &between = {})
{
    double best = INFINITY;
    for (int run = 0; run < kCostRuns; ++run) {
        const auto t0 = Clock::now();
        for (long i = 0; i < n; ++i)
            pair();
        const auto t1 = Clock::now();
        best = std::min(best, std::chrono::duration<double, std::nano>(t1 - t0).count() / static_cast<double>(n));
        if (between)
            between();
    }
    return best;
}

// What a span of the module costs: with tracing off (no sink: the check
// and a branch), and with a sink that records every call as the board's
// timeline does.
void spanCost(Session &s)
{
    const std::string off = "one module span (begin and end), tracing off";
    const std::string on = "one module span (begin and end), into the timeline's sink";
    const auto rowStart = Clock::now();
    s.timeline.traceModule(false);
    if (atrace_get_enabled_tags() != 0) {
        failed(off, "another tracing sink is registered");
        s.timeline.traceModule(true);
        return;
    }
    constexpr long kOffPairs = 1'000'000;
    const double spanOff = nsPerPair(kOffPairs, [] { AvmTraceSpan span(kTraceDspRestore); });
    const double namedOff = nsPerPair(
        kOffPairs, [] { AvmTraceSpan span(kTraceDspChunk, "offset=%u length=%u attempt=%d", 2640u, 240u, 1); });
    const double rawOff = nsPerPair(kOffPairs, [] {
        ATRACE_BEGIN(kTraceDspRestore);
        ATRACE_END();
    });
    // A timeline of its own, emptied between runs so its record stays small.
    constexpr long kOnPairs = 20'000;
    sim::Timeline sink;
    sink.traceModule(true);
    const double spanOn = nsPerPair(
        kOnPairs, [] { AvmTraceSpan span(kTraceDspRestore); }, [&] { sink.clear(); });
    const double namedOn = nsPerPair(
        kOnPairs, [] { AvmTraceSpan span(kTraceDspChunk, "offset=%u length=%u attempt=%d", 2640u, 240u, 1); },
        [&] { sink.clear(); });
    sink.traceModule(false);
    s.timeline.traceModule(true);
    mark(s, "span cost", rowStart);

    Row row;
    row.figure = off;
    row.measured = fmt("%.2f ns a span, %.2f ns with a formatted name (%.2f ns for ATRACE_BEGIN and ATRACE_END; %ld "
                       "pairs, best of %d runs)",
                       spanOff, namedOff, rawOff, kOffPairs, kCostRuns);
    row.bound = "none: a call to atrace_get_enabled_tags (one relaxed load) and a branch per check";
    row.ratio = "-";
    row.target = "report";
    row.note = "AvmTraceSpan checks once and owes its end (a formatted name is made only when tracing); the two macros "
               "check once each";
    row.measuredOk = true;
    gRows.push_back(row);
    row = Row{};
    row.figure = on;
    row.measured = fmt("%.0f ns a span with a constant name, %.0f ns with a formatted one (%ld pairs, best of %d runs)",
                       spanOn, namedOn, kOnPairs, kCostRuns);
    row.bound = "none: the sink takes the time, a lock and a copy of the name per call";
    row.ratio = "-";
    row.target = "report";
    row.note = "the board's recorder; on the device the calls write the kernel's trace buffer instead";
    row.measuredOk = true;
    gRows.push_back(row);
}

void sustainedCommands(Session &s)
{
    const std::string figure = "sustained DSP commands from 4 threads";
    constexpr int kThreads = 4;
    constexpr auto kRun = 4s;
    constexpr long kOutstanding = 24; // well inside the pipe's room
    constexpr size_t kWarmup = 25;
    waitDspQuiet(s, 50ms);
    const size_t base = s.arrivals.count();
    std::atomic<long> posted{0};
    std::atomic<bool> stop{false};
    std::atomic<long> refused{0};
    const auto rowStart = Clock::now();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            int v = t * 10;
            while (!stop.load()) {
                const long inFlight = posted.load() - static_cast<long>(s.arrivals.count() - base);
                if (inFlight >= kOutstanding) {
                    std::this_thread::sleep_for(500us);
                    continue;
                }
                posted.fetch_add(1);
                if (s.hal->set_volume(s.hal, AUDIO_CHANNEL_MAIN, 10 + (v++ % 80)) != 1)
                    refused.fetch_add(1);
            }
        });
    std::this_thread::sleep_for(kRun);
    stop.store(true);
    for (auto &th : threads)
        th.join();
    sim::waitUntil([&] { return static_cast<long>(s.arrivals.count() - base) >= posted.load() - refused.load(); },
                   5000ms);
    mark(s, "4 threads posting", rowStart);
    const auto items = s.arrivals.since(base);
    if (items.size() < kWarmup + 50 || refused.load() != 0) {
        failed(figure, fmt("%zu commands arrived, %ld posts refused", items.size(), refused.load()));
        return;
    }
    // Steady state: from the end of the warm-up to the last command posted
    // while all four threads were still posting.
    const size_t first = kWarmup;
    const size_t last = items.size() - 1 - std::min<size_t>(items.size() / 10, kOutstanding);
    const double span = std::chrono::duration<double>(items[last].end - items[first].end).count();
    const double rate = static_cast<double>(last - first) / span;
    const double bound = 1.0 / contract::kDspWritePacing.count();
    Row row;
    row.figure = figure;
    row.measured = fmt("%.1f commands/s (%zu commands)", rate, last - first);
    row.bound = fmt("%.1f commands/s = one per %.0f ms of pacing", bound, msOf(contract::kDspWritePacing));
    row.ratio = fmt("%.3f", rate / bound);
    row.target = ">= 0.95";
    row.verdict = rate / bound >= 0.95 ? "yes" : "no";
    row.measuredOk = true;
    gRows.push_back(row);
}

void queryWithReply(Session &s)
{
    const std::string figure = "DSP query with the reply present (get_main_volume)";
    constexpr int kSamples = 20;
    std::vector<double> times;
    s.audio.setMainDb(-11.10f);
    const auto rowStart = Clock::now();
    for (int i = 0; i < kSamples; ++i) {
        waitDspQuiet(s, 30ms);
        const size_t before = s.arrivals.count();
        const auto t0 = Clock::now();
        const int volume = get_main_volume();
        const auto t1 = Clock::now();
        // A query that fell back to the cached value had no reply in time.
        const auto sent = s.arrivals.since(before);
        if (sent.empty() || sent.front().text != "MV=?" || volume != static_cast<int>(convertDbToVol(AUDIO_CHANNEL_MAIN, -11.10f))) {
            failed(figure, fmt("the query did not get its reply (volume %d)", volume));
            return;
        }
        times.push_back(msOf(t1 - t0));
    }
    mark(s, "DSP queries", rowStart);
    const std::string query = "MV=?";
    const std::string reply = "MV=-11.10";
    // The reply is in the module's hands after the transmit thread's idle
    // step, both texts on the line and the read time; the query looks at
    // its flag every 100 ms, the first time 100 ms after posting.
    const Seconds ready = contract::kDspIdlePoll + contract::wire(query.size() + 1) +
                          contract::wire(reply.size()) + contract::kInterByteTime;
    const Seconds bound = contract::gridPoint(ready, contract::kDspReplyPoll, contract::kDspReplyPoll);
    const double p50 = percentile(times, 50);
    const double p99 = percentile(times, 99);
    Row row;
    row.figure = figure;
    row.measured = fmt("p50 %.1f ms, p99 %.1f ms (n=%d)", p50, p99, kSamples);
    row.bound = fmt("%.0f ms: reply in hand after %.1f ms (idle poll, line, read time %.0f ms), seen at the next "
                    "%.0f ms look",
                    msOf(bound), msOf(ready), msOf(contract::kInterByteTime), msOf(contract::kDspReplyPoll));
    row.ratio = fmt("p50 %.3f, p99 %.3f", p50 / msOf(bound), p99 / msOf(bound));
    row.target = "<= 1.05";
    row.verdict = p50 / msOf(bound) <= 1.05 ? "yes" : "no";
    row.measuredOk = true;
    gRows.push_back(row);
}

std::string upperHex(const std::string &bytes)
{
    static const char kDigits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

void configUpgrade(Session &s)
{
    const std::string figure = "configuration upgrade of a 64 KiB file at 115200 baud";
    constexpr size_t kSize = 64 * 1024;
    const std::string bundle = sim::installConfigBundle(s.board, kSize);
    s.files.removeFile(sim::kDspConfigPath);
    waitDspQuiet(s, 100ms);
    const size_t before = s.arrivals.count();
    const size_t done = s.files.transfersCompleted();
    const auto rowStart = Clock::now();
    s.files.reboot(); // announces itself: the module checks and upgrades

    // The upgrade is over when the module starts its second restore pass,
    // which asks FINF again.
    auto finfs = [&] {
        std::vector<DspArrivals::Item> out;
        for (const auto &item : s.arrivals.since(before))
            if (item.text.rfind("FINF=", 0) == 0)
                out.push_back(item);
        return out;
    };
    if (!sim::waitUntil([&] { return finfs().size() >= 2; }, 180s) || s.files.transfersCompleted() != done + 1) {
        failed(figure, "the upgrade did not complete");
        return;
    }
    const auto f = finfs();
    const Seconds measured = std::chrono::duration<double>(f[1].start - f[0].start);
    waitDspQuiet(s, 300ms);
    mark(s, "configuration upgrade", rowStart);

    // Every exchange the upgrade makes, with the texts it must send and
    // the DSP's answers.
    const std::string path = sim::kDspConfigPath;
    std::vector<std::pair<size_t, size_t>> exchanges; // request bytes (with its zero), answer bytes
    exchanges.emplace_back(("FINF=" + path).size() + 1, std::string("FINF=NULL").size());
    exchanges.emplace_back(("FWSTR=" + path + "," + std::to_string(kSize) + "," + sim::dspMd5Hex(bundle)).size() + 1,
                           ("FWSTR=" + path + ",OK").size());
    size_t chunks = 0;
    for (size_t off = 0; off < bundle.size(); off += contract::kFileChunk) {
        const std::string piece = bundle.substr(off, contract::kFileChunk);
        const std::string hex = upperHex(piece);
        unsigned sum = 0;
        for (char c : hex)
            sum += static_cast<unsigned char>(c);
        const std::string head = "FWDAT=" + std::to_string(off) + "," + std::to_string(piece.size());
        exchanges.emplace_back((head + "," + std::to_string(sum & 0xFF) + "," + hex).size() + 1,
                               (head + ",OK").size());
        ++chunks;
    }
    exchanges.emplace_back(("FWEND=" + path).size() + 1, ("FWEND=" + path + ",OK").size());
    Seconds bound = contract::kRestorePause;
    Seconds line{0};
    Seconds perChunk{0};
    for (const auto &[q, a] : exchanges) {
        bound += contract::fileExchange(q, a);
        line += contract::wire(q) + contract::wire(a);
    }
    perChunk = contract::fileExchange(exchanges[2].first, exchanges[2].second);
    Row row;
    row.figure = figure;
    row.measured = fmt("%.2f s (%zu chunks)", measured.count(), chunks);
    row.bound = fmt("%.2f s: per chunk %.0f ms = %.1f ms on the line + read time %.0f ms, seen at the next %.0f ms "
                    "look after the %.0f ms pacing",
                    bound.count(), msOf(perChunk), msOf(contract::wire(exchanges[2].first) +
                                                         contract::wire(exchanges[2].second)),
                    msOf(contract::kInterByteTime), msOf(contract::kFilePoll), msOf(contract::kDspWritePacing));
    row.ratio = fmt("%.3f (to the pure line rate, %.2f s: %.2f)", measured / bound, line.count(), measured / line);
    row.target = "<= 1.10";
    row.verdict = measured / bound <= 1.10 ? "yes" : "no";
    row.note = "from the first FINF on the line to the second (the restore pass after the upgrade)";
    row.measuredOk = true;
    gRows.push_back(row);
}

void ptzRequest(Session &s)
{
    const std::string figure = "PTZ request with the answer present (get_cam_current_temperature)";
    constexpr int kSamples = 20;
    std::vector<double> times;
    s.ptz.setCurrentTemperature(47);
    const auto rowStart = Clock::now();
    for (int i = 0; i < kSamples; ++i) {
        std::this_thread::sleep_for(20ms);
        const auto t0 = Clock::now();
        const int celsius = s.hal->get_cam_current_temperature();
        const auto t1 = Clock::now();
        if (celsius != 47) {
            failed(figure, fmt("no answer (got %d)", celsius));
            return;
        }
        times.push_back(msOf(t1 - t0));
    }
    mark(s, "PTZ requests", rowStart);
    // The request's frame and the reply's on the line; a 64-byte read
    // returns as soon as its frame is in. The first look is right after
    // the 10 ms pacing, then every 50 ms.
    const Seconds ready = contract::wire(contract::kPtzFrame) * 2.0;
    // The sum the pacing, the line and the read alone would give.
    const Seconds physical = contract::kPtzWritePacing + ready;
    const Seconds bound = contract::gridPoint(ready, contract::kPtzWritePacing, contract::kPtzAckPoll);
    const double p50 = percentile(times, 50);
    const double p99 = percentile(times, 99);
    Row row;
    row.figure = figure;
    row.measured = fmt("p50 %.1f ms, p99 %.1f ms (n=%d)", p50, p99, kSamples);
    row.bound = fmt("%.0f ms: pacing %.0f ms, two frames on the line %.1f ms, read at once; seen at the next %.0f ms "
                    "look",
                    msOf(bound), msOf(contract::kPtzWritePacing), msOf(ready), msOf(contract::kPtzAckPoll));
    row.ratio = fmt("p50 %.3f (to pacing + two frames + read alone, %.1f ms: %.2f)", p50 / msOf(bound),
                    msOf(physical), p50 / msOf(physical));
    row.target = "<= 1.10";
    row.verdict = p50 / msOf(bound) <= 1.10 ? "yes" : "no";
    row.measuredOk = true;
    gRows.push_back(row);
}

void ampSwitch(Session &s)
{
    struct Fitting {
        sim::AmpFitting fitting;
        const char *name;
    };
    const auto charge = std::chrono::duration_cast<std::chrono::microseconds>(contract::kI2cTransaction);
    for (const Fitting f : {Fitting{sim::AmpFitting::Acm8625, "ACM8625"}, Fitting{sim::AmpFitting::Ad82120, "AD82120"}}) {
        const std::string figure = std::string("amplifier format switch, ") + f.name + " fitting";
        s.amp.setTransactionTime(std::chrono::microseconds(0));
        s.amp.setFitting(f.fitting);
        acm8625m_get_dev_status(); // the module finds the fitting again
        const bool ad = f.fitting == sim::AmpFitting::Ad82120;
        // The waits of a switch: the settle time; on the AD82120 the 1 ms
        // before each RAM, except the subwoofer's in the wall format.
        auto waitsOf = [&](int mode) {
            Seconds waits = contract::kAmpSettle;
            if (ad)
                waits += contract::kAmpRamWait * (mode == 0 ? 2.0 : 1.0);
            return waits;
        };
        // One switch unmeasured (the first after a fitting change runs
        // whatever the format), then floor and wall in turn: first with
        // the bus free of charge, which leaves the emulation's own cost
        // per access, then at 100 us a transaction.
        s.hal->set_dsp_spk_eq_mode(s.hal, 1);
        struct Sample {
            double ms;
            double boundMs;
            double waitsMs;
            size_t transactions;
        };
        auto run = [&](int count, std::chrono::microseconds perTransaction) {
            s.amp.setTransactionTime(perTransaction);
            std::vector<Sample> out;
            for (int k = 0; k < count; ++k) {
                const int mode = k % 2 == 0 ? 0 : 1;
                const size_t tx0 = s.amp.transactionCount();
                const auto t0 = Clock::now();
                s.hal->set_dsp_spk_eq_mode(s.hal, mode);
                const auto t1 = Clock::now();
                const size_t tx = s.amp.transactionCount() - tx0;
                const Seconds bound = contract::kI2cTransaction * static_cast<double>(tx) + waitsOf(mode);
                out.push_back({msOf(t1 - t0), msOf(bound), msOf(waitsOf(mode)), tx});
            }
            s.amp.setTransactionTime(std::chrono::microseconds(0));
            return out;
        };
        const auto rowStart = Clock::now();
        const auto free = run(4, std::chrono::microseconds(0));
        const auto charged = run(6, charge);
        mark(s, figure, rowStart);
        if (charged.empty() || charged[0].transactions == 0) {
            failed(figure, "no I2C transactions seen");
            continue;
        }
        std::vector<double> ratios, times, emulation;
        for (const auto &x : charged) {
            times.push_back(x.ms);
            ratios.push_back(x.ms / x.boundMs);
        }
        for (const auto &x : free)
            emulation.push_back((x.ms - x.waitsMs) / static_cast<double>(x.transactions));
        const double ratio = percentile(ratios, 50);
        const double perAccess = percentile(emulation, 50); // ms of emulation per transaction
        std::vector<double> corrected;
        for (const auto &x : charged)
            corrected.push_back((x.ms - perAccess * static_cast<double>(x.transactions)) / x.boundMs);
        Row row;
        row.figure = figure;
        row.measured = fmt("p50 %.0f ms (n=6, %zu transactions a switch)", percentile(times, 50),
                           charged[0].transactions);
        row.bound = fmt("%.0f ms = %zu x %.0f us + waits (settle %.0f ms%s)", charged[0].boundMs,
                        charged[0].transactions, contract::kI2cTransaction.count() * 1e6, msOf(contract::kAmpSettle),
                        ad ? ", 1 ms before each RAM" : "");
        row.ratio = fmt("%.2f (less the emulation's own %.0f us an access: %.2f)", ratio, perAccess * 1000.0,
                        percentile(corrected, 50));
        row.target = "<= 1.20";
        row.verdict = ratio <= 1.20 ? "yes" : "no";
        row.note = fmt("each access is an open, three ioctls and a close of /dev/i2c-1; through umockdev they cost "
                       "%.0f us (median of %zu switches with the bus free of charge, waits taken off)",
                       perAccess * 1000.0, free.size());
        row.measuredOk = true;
        gRows.push_back(row);
    }
}

void hdmiStream(Session &s)
{
    const std::string figure = "HDMI-out stream (512 000-byte packets)";
    constexpr int kPackets = 8;
    const auto before = threadIds();
    if (s.hal->usb_hdmiOut_init(s.hal, sim::HdmiOutModel::kVendorId, sim::HdmiOutModel::kProductId) != 0) {
        failed(figure, "the converter was not found");
        return;
    }
    s.hdmiThreads = newThreads(before);
    s.hal->connect_usb_hdmiOut();
    std::vector<uint8_t> payload(contract::kHdmiMaxPacket + contract::kUsbTransfer);
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<uint8_t>(i * 31 + 7);
    const int len = static_cast<int>(contract::kHdmiMaxPacket);
    auto send = [&] {
        return s.hal->usb_hdmiOut_packet_process(s.hal, 1, len, len, 0, 0, 0, 1920, 1080, payload.data());
    };
    // Data is refused until the converter's acknowledgement was read.
    if (!sim::waitUntil([&] { return s.hdmi.unechoedAcks() == 0 && s.hdmi.count(sim::HdmiOutModel::Kind::Echo) > 0; },
                        3000ms)) {
        failed(figure, "no acknowledgement");
        return;
    }
    const size_t transfers0 = s.hdmi.outTransfers();
    const auto t0 = Clock::now();
    for (int i = 0; i < kPackets; ++i)
        if (send() != 0) {
            failed(figure, "a packet was refused");
            return;
        }
    const auto t1 = Clock::now();
    mark(s, "HDMI-out stream", t0);
    const size_t transfers = s.hdmi.outTransfers() - transfers0;
    const auto data = s.hdmi.packets(sim::HdmiOutModel::Kind::Data);
    size_t complete = 0;
    for (const auto &p : data)
        complete += p.complete && p.thisLen == contract::kHdmiMaxPacket ? 1 : 0;
    if (complete < static_cast<size_t>(kPackets)) {
        failed(figure, fmt("the converter decoded %zu whole packets of %d", complete, kPackets));
        return;
    }
    const double secs = std::chrono::duration<double>(t1 - t0).count();
    const double bytes = static_cast<double>(kPackets) * contract::kHdmiMaxPacket;
    Row row;
    row.figure = figure;
    row.measured = fmt("%.1f MB/s payload, %.0f transfers/s (%zu transfers of %zu bytes)", bytes / secs / 1e6,
                       static_cast<double>(transfers) / secs, transfers, contract::kUsbTransfer);
    row.bound = "none: the model charges no bus time";
    row.ratio = "-";
    row.target = "report";
    row.note = "each 512-byte transfer is one usbfs call through the emulation";
    row.measuredOk = true;
    gRows.push_back(row);
}

// CPU time of every thread of the process, in seconds, by thread id.
struct ThreadCpu {
    int tid;
    std::string name;
    double seconds;
};

std::vector<ThreadCpu> threadCpu()
{
    std::vector<ThreadCpu> out;
    DIR *dir = opendir("/proc/self/task");
    if (!dir)
        return out;
    while (dirent *entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        const std::string base = std::string("/proc/self/task/") + entry->d_name;
        ThreadCpu t{std::atoi(entry->d_name), "", 0.0};
        std::ifstream comm(base + "/comm");
        std::getline(comm, t.name);
        std::ifstream sched(base + "/schedstat");
        double ns = 0;
        if (sched >> ns) {
            t.seconds = ns / 1e9;
        } else {
            // Clock ticks of user and system time (fields 14 and 15).
            std::ifstream stat(base + "/stat");
            std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
            const size_t paren = text.rfind(')');
            std::istringstream fields(paren == std::string::npos ? "" : text.substr(paren + 2));
            std::string field;
            double utime = 0, stime = 0;
            for (int i = 3; fields >> field; ++i) {
                if (i == 14)
                    utime = std::atof(field.c_str());
                if (i == 15) {
                    stime = std::atof(field.c_str());
                    break;
                }
            }
            t.seconds = (utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
        }
        out.push_back(t);
    }
    closedir(dir);
    return out;
}

void idleCpu(Session &s)
{
    const std::string figure = "idle CPU, every link up, 10 s";
    constexpr auto kIdle = 10s;
    // Links up: the DSP link and the PTZ link since start-up, the HDMI-out
    // reader since the stream (the Fig DSP shares the DSP's port and is
    // not up at the same time).
    waitDspQuiet(s, 200ms);
    const auto before = threadCpu();
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(kIdle);
    const double wall = std::chrono::duration<double>(Clock::now() - t0).count();
    auto after = threadCpu();
    std::sort(after.begin(), after.end(), [](const ThreadCpu &a, const ThreadCpu &b) { return a.tid < b.tid; });
    static const char *const kStartupNames[] = {"DSP transmit", "DSP receive", "PTZ sender", "PTZ receiver",
                                                "PTZ test"};
    auto nameOf = [&](int tid) -> std::string {
        for (size_t k = 0; k < s.startupThreads.size(); ++k)
            if (s.startupThreads[k] == tid)
                return s.startupThreads.size() == 5 ? kStartupNames[k] : "start-up thread " + std::to_string(k + 1);
        for (int h : s.hdmiThreads)
            if (h == tid)
                return "HDMI-out reader";
        return "";
    };
    double module = 0, board = 0;
    int moduleThreads = 0;
    std::string perThread;
    for (const auto &a : after) {
        double was = 0;
        for (const auto &b : before)
            if (b.tid == a.tid)
                was = b.seconds;
        const double used = (a.seconds - was) / wall * 100.0;
        const std::string name = nameOf(a.tid);
        if (name.empty()) {
            // The board's threads, GLib's and umockdev's, the bench's own.
            board += used;
            continue;
        }
        module += used;
        ++moduleThreads;
        perThread += fmt("%s%s %.2f %%", perThread.empty() ? "" : ", ", name.c_str(), used);
    }
    if (moduleThreads == 0) {
        failed(figure, "no module thread found");
        return;
    }
    // What one wake-up costs on this machine: a bare loop of the DSP
    // transmit thread's idle step (an empty pipe read and a 3 ms sleep).
    double wakeUs = 0;
    {
        int ends[2];
        if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) == 0) {
            constexpr int kSteps = 500;
            char buf[sizeof(DspRequest)];
            timespec c0{}, c1{};
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c0);
            for (int i = 0; i < kSteps; ++i) {
                (void)!read(ends[0], buf, sizeof buf);
                usleep(3000);
            }
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c1);
            wakeUs = ((c1.tv_sec - c0.tv_sec) * 1e6 + (c1.tv_nsec - c0.tv_nsec) / 1e3) / kSteps;
            close(ends[0]);
            close(ends[1]);
        }
    }
    Row row;
    row.figure = figure;
    row.measured = fmt("%.2f %% of one core (%d module threads)", module, moduleThreads);
    row.bound = "-";
    row.ratio = "-";
    row.target = "< 1 %";
    row.verdict = module < 1.0 ? "yes" : "no";
    row.note = fmt("by thread: %s; the board's emulation threads used %.2f %% more. One wake-up (an empty read "
                   "and a 3 ms sleep, outside the module) costs %.0f us of CPU here, %.2f %% at 333 a second",
                   perThread.c_str(), board, wakeUs, wakeUs * 333.0 / 1e4);
    row.measuredOk = true;
    gRows.push_back(row);
}

void soak(Session &s)
{
    const std::string figure = "RSS and open descriptors over 100 000 mixed calls";
    constexpr long kCalls = 100000;
    constexpr long kSample = 10000;
    constexpr long kOutstanding = 16; // DSP posts kept well inside the pipe's room
    // Only listeners from here on: the board's own record would grow.
    s.board.trace().setKeep(false);
    waitDspQuiet(s, 100ms);
    const size_t base = s.arrivals.count();
    long posts = 0;
    std::vector<long> rss;
    std::vector<int> fds;
    const auto t0 = Clock::now();
    for (long i = 1; i <= kCalls; ++i) {
        const auto *h = s.hal;
        switch (i % 8) {
        case 0:
            h->get_volume(h, AUDIO_CHANNEL_MAIN);
            break;
        case 1:
            h->get_balance();
            break;
        case 2:
            h->get_soundMode();
            break;
        case 3:
            h->get_Treble();
            break;
        case 4:
            h->set_volume(h, AUDIO_CHANNEL_UAC, static_cast<int>(i % 100)); // the USB mixer, open to close
            break;
        case 5:
            h->get_dsp_spk_eq_mode();
            break;
        case 6:
            h->get_Bass();
            break;
        default:
            // A DSP setter when the link has room, otherwise a getter.
            if (posts - static_cast<long>(s.arrivals.count() - base) < kOutstanding) {
                h->set_volume(h, AUDIO_CHANNEL_MAIN, static_cast<int>(i % 100));
                ++posts;
            } else {
                h->get_balance();
            }
        }
        if (i % kSample == 0) {
            // The models keep a log of what they saw; it is theirs, not
            // the module's.
            s.dsp.clearCommands();
            s.uac.clearCalls();
            s.arrivals.trim();
            rss.push_back(residentKiB());
            fds.push_back(openDescriptors());
        }
    }
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    s.board.trace().setKeep(true);
    long maxRss = 0;
    int maxFds = 0;
    for (size_t k = 1; k < rss.size(); ++k) {
        maxRss = std::max(maxRss, rss[k] - rss[0]);
        maxFds = std::max(maxFds, fds[k] - fds[0]);
    }
    Row row;
    row.figure = figure;
    row.measured = fmt("RSS %ld -> %ld KiB, descriptors %d -> %d (after 10 000 -> after 100 000; %ld DSP posts; %.1f s)",
                       rss.front(), rss.back(), fds.front(), fds.back(), posts, secs);
    row.bound = "-";
    row.ratio = fmt("max growth after warm-up: %ld KiB, %d descriptors", maxRss, maxFds);
    row.target = "flat after warm-up";
    // A page or two of allocator noise is flat; a leak per call is not.
    row.verdict = maxRss <= 256 && maxFds == 0 ? "yes" : "no";
    row.measuredOk = true;
    gRows.push_back(row);
}

void printTable(const std::string &load)
{
    std::printf("\n| Figure | Measured | Bound | Ratio | Target | Met |\n|---|---|---|---|---|---|\n");
    for (const auto &r : gRows)
        std::printf("| %s | %s | %s | %s | %s | %s |\n", r.figure.c_str(), r.measured.c_str(), r.bound.c_str(),
                    r.ratio.c_str(), r.target.c_str(), r.verdict.c_str());
    std::printf("\nNotes:\n");
    for (const auto &r : gRows)
        if (!r.note.empty())
            std::printf("- %s: %s\n", r.figure.c_str(), r.note.c_str());
    std::printf("- machine: %s\n", load.c_str());
}

std::string machineLoad()
{
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return fmt("%ld cores, load average %s %s %s", sysconf(_SC_NPROCESSORS_ONLN), a.c_str(), b.c_str(), c.c_str());
}

} // namespace

int main(int argc, char **argv)
{
    std::string timelinePath;
    std::string only;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--timeline" && i + 1 < argc) {
            timelinePath = argv[++i];
        } else if (arg == "--only" && i + 1 < argc) {
            only = argv[++i];
        } else {
            std::fprintf(stderr, "usage: bench_figures [--timeline FILE] [--only ROW[,ROW...]]\n"
                                 "rows: setter spans sustained query upgrade ptz amp hdmi idle soak\n");
            return 2;
        }
    }
    auto wanted = [&](const char *row) {
        return only.empty() || ("," + only + ",").find(std::string(",") + row + ",") != std::string::npos;
    };

    // The testbed first (it sets UMOCKDEV_DIR), then liblog's logger,
    // before any thread exists.
    sim::initBoardProcess();
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(benchLogger);
    const std::string loadBefore = machineLoad();

    auto *s = new Session; // lives until exit, with the module's threads
    const std::string cmd = "python3 '" + sourceDir() + "/scripts/gen-tuning-files' '" + s->board.root() + "'";
    if (std::system(cmd.c_str()) != 0)
        std::fprintf(stderr, "bench: cannot install the tuning files\n");
    s->files.setFile(sim::kDspConfigPath, sim::installConfigBundle(s->board));
    property_set("persist.vendor.dsp.communication", "1");
    property_set("persist.vendor.cam.communication", "1");
    const hw_module_t *module = nullptr;
    if (hw_get_module(AVMANAGER_HARDWARE_MODULE_ID, &module) != 0 || module == nullptr) {
        std::fprintf(stderr, "bench: cannot load the module\n");
        return 1;
    }
    s->hal = reinterpret_cast<const avmanager_module_t *>(module);
    s->boardThreads = threadIds();
    const int initResult = s->hal->hal_init();
    s->startupThreads = newThreads(s->boardThreads);
    if (initResult != 0)
        std::fprintf(stderr, "bench: start-up reported a failure; measuring anyway\n");
    // A floor/wall product from here on (at start-up it would post its
    // placement before the DSP link exists).
    property_set("persist.vendor.floor_wall", "1");
    s->dsp.setLineRate(contract::kBaud);
    s->ptz.setLineRate(contract::kBaud);
    // Start-up's own traffic ends before the first row: the detection
    // thread's version query, answered, and the parameter restore the
    // answer starts.
    if (!sim::waitUntil([] {
            char version[PROPERTY_VALUE_MAX] = {};
            property_get("persist.sys.dune.version", version, "");
            return version[0] != '\0';
        }, 5000ms))
        std::fprintf(stderr, "bench: the DSP version was not answered at start-up\n");
    sim::waitUntil([&] { return Clock::now() - s->arrivals.lastEnd() >= 1000ms; }, 15000ms);

    s->timeline.attach(s->board.trace());
    gTimeline.store(&s->timeline, std::memory_order_release);
    const auto start = Clock::now();
    if (wanted("setter")) {
        setterLatency(*s, false);
        setterLatency(*s, true);
    }
    if (wanted("spans"))
        spanCost(*s);
    if (wanted("sustained"))
        sustainedCommands(*s);
    if (wanted("query"))
        queryWithReply(*s);
    if (wanted("upgrade"))
        configUpgrade(*s);
    if (wanted("ptz"))
        ptzRequest(*s);
    if (wanted("amp"))
        ampSwitch(*s);
    if (wanted("hdmi"))
        hdmiStream(*s);
    // The long idle and soak rows stay out of the timeline.
    gTimeline.store(nullptr, std::memory_order_release);
    s->timeline.detach();
    if (!timelinePath.empty()) {
        std::string error;
        if (s->timeline.write(timelinePath, &error))
            std::fprintf(stderr, "bench: timeline of %zu link events, %zu log lines and %zu module trace calls in %s\n",
                         s->timeline.eventCount(), s->timeline.logCount(), s->timeline.halCount(),
                         timelinePath.c_str());
        else
            std::fprintf(stderr, "bench: %s\n", error.c_str());
    }
    s->timeline.clear();
    if (wanted("idle"))
        idleCpu(*s);
    if (wanted("soak"))
        soak(*s);
    std::fprintf(stderr, "bench: %.0f s\n", std::chrono::duration<double>(Clock::now() - start).count());

    printTable(loadBefore + " before, " + machineLoad() + " after");
    bool allMeasured = true;
    for (const auto &r : gRows)
        allMeasured = allMeasured && r.measuredOk;
    std::fflush(stdout);
    // The module's threads outlive main's objects by design: leave without
    // tearing them down.
    _exit(allMeasured ? 0 : 1);
}
