// Soak run of the module on the virtual board: several service threads
// call a mix of the HMI operations for a long time while a checker on the
// board side watches what reaches the peripherals.
//
// Every link is live: the audio DSP on its serial line, the PTZ camera on
// its own, the amplifiers on I2C, the USB mixer, the HDMI-out converter and
// the camera's HID interface. The checker fails the run when
//   - a DSP command is lost, torn or out of order within its sender (each
//     thread posts raw commands numbered in sequence and main-volume levels
//     from a range of its own, so every command names its sender),
//   - a query that waits for a reply takes longer than the bound its wait
//     allows (DSP: nine looks 100 ms apart; PTZ: three frames, each 10 ms
//     after its write plus 500 ms of looks), with a margin for a busy
//     machine,
//   - the process holds more descriptors at the end than after the
//     warm-up, or its resident memory grew by more than the slack.
//
// Run under the board wrapper (scripts/run-soak). Prints a summary table;
// the exit status is non-zero on any violation.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <android/log.h>
#include <cutils/properties.h>
#include <hardware/hardware.h>

#include "avmanager_hal.h"
#include "bench_support.h"
#include "dsp/dsp_audio.h"
#include "sim/amp_model.h"
#include "sim/board.h"
#include "sim/dsp_audio_model.h"
#include "sim/dsp_file_store.h"
#include "sim/dsp_model.h"
#include "sim/hdmi_out_model.h"
#include "sim/hid_camera_model.h"
#include "sim/ptz_camera_model.h"
#include "sim/uac_mixer_model.h"
#include "sim/usb_sysfs.h"

namespace {

using bench::fmt;
using bench::openDescriptors;
using bench::residentKiB;

using namespace std::chrono_literals;
using sim::Clock;

// ------------------------------------------------------------ bounds

// A DSP query looks at its reply flag nine times, 100 ms apart.
constexpr double kDspQueryBoundMs = 9 * 100.0;
// A PTZ request sends at most three frames; each is followed by 10 ms of
// pacing and ten looks 50 ms apart.
constexpr double kPtzRequestBoundMs = 3 * (10.0 + 10 * 50.0);
// What a busy machine may add to a bound (sleeps that overshoot, threads
// that wait for a core): as much again. The run also reports how late a
// plain 100 ms sleep came back, to tell a slow machine from a slow module.
constexpr double kDspQueryMarginMs = kDspQueryBoundMs;
constexpr double kPtzRequestMarginMs = kPtzRequestBoundMs;
// Resident memory may grow this much from the warm-up to the end (the
// allocator's and GLib's caches settling; a leak per call over tens of
// thousands of calls is far above it).
constexpr long kRssSlackKiB = 4096;
// DSP commands posted and not yet at the DSP, over all threads: well
// inside the command pipe's room (64 KiB of 524-byte records), and short
// enough that a query behind them is answered within its nine looks.
constexpr int kDspCredit = 32;
// A thread that waits this long for room in the pipe reports a stall.
constexpr auto kStallAfter = 10s;
// The warm-up: this share of every thread's calls, before the baseline.
constexpr long kWarmupPercent = 10;
// Main-volume indices the threads share out: 2..100 (0 and 1 both send
// the same silent level).
constexpr int kFirstVolume = 2;
constexpr int kVolumes = 99;
constexpr int kMaxThreads = 32; // at least three levels a thread
constexpr size_t kHdmiPacket = 4096;
constexpr const char *kTagPrefix = "SOAK_TAG=";
constexpr uint8_t kCurrentCelsius = 47; // what the camera model answers
constexpr uint8_t kMaxCelsius = 85;

double msSince(Clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// Only the checker's findings are printed; the module's log lines are
// counted.
std::atomic<long> gLogLines{0};
void soakLogger(const struct __android_logger_data *, const char *) { gLogLines.fetch_add(1, std::memory_order_relaxed); }

bool allDigits(const std::string &s, size_t from, size_t to)
{
    if (from >= to || to > s.size())
        return false;
    for (size_t i = from; i < to; ++i)
        if (s[i] < '0' || s[i] > '9')
            return false;
    return true;
}

// A decimal number with an optional sign and fraction.
bool isNumber(const std::string &s)
{
    size_t i = s[0] == '-' ? 1 : 0;
    const size_t dot = s.find('.');
    if (dot == std::string::npos)
        return allDigits(s, i, s.size());
    return allDigits(s, i, dot) && allDigits(s, dot + 1, s.size());
}

std::vector<std::string> splitCommas(const std::string &s)
{
    std::vector<std::string> out(1);
    for (char c : s) {
        if (c == ',')
            out.emplace_back();
        else
            out.back() += c;
    }
    return out;
}

// ------------------------------------------------------------ the checker

// Kinds of DSP command the soak posts, counted at both ends.
enum Kind { kTag, kMainLevel, kMainMute, kMainMuteQuery, kSpdifQuery, kHotplugQuery, kBalance, kEqLine, kSpeakerEq, kKinds };
const char *const kKindNames[kKinds] = {"raw tagged command",   "main level",       "main mute",
                                        "main mute query",      "S/PDIF query",     "hot-plug query",
                                        "balance gain",         "equaliser line",   "speaker placement"};

// Watches every command as it reaches the DSP model (one per zero byte on
// the line) and checks it against what the threads posted.
class DspChecker {
public:
    DspChecker(sim::Trace &trace, int threads) : trace_(trace), threads_(threads)
    {
        range_ = kVolumes / threads;
        nextTag_.assign(static_cast<size_t>(threads), 0);
        levelsSeen_.assign(static_cast<size_t>(threads), 0);
        for (int t = 0; t < threads; ++t)
            for (int k = 0; k < range_; ++k)
                levelOwner_[fmt("MV=%.2f", convertVolToDb(AUDIO_CHANNEL_MAIN, volumeOf(t, k)))] = {t, k};
        id_ = trace.addListener([this](const sim::TraceEvent &e) {
            if (e.link != "dsp" || !e.toDevice)
                return;
            std::lock_guard<std::mutex> lock(mutex_);
            for (uint8_t c : e.bytes) {
                if (c != 0) {
                    partial_ += static_cast<char>(c);
                    continue;
                }
                onCommand(partial_);
                partial_.clear();
            }
        });
    }
    ~DspChecker() { trace_.removeListener(id_); }

    // The main-volume index thread t posts as its k-th level.
    unsigned volumeOf(int t, long k) const
    {
        return static_cast<unsigned>(kFirstVolume + t * range_ + static_cast<int>(k % range_));
    }

    // Room in the pipe for n commands; false after a stall (taken anyway).
    // First come, first served: the link frees one command's room every
    // 8 ms, so without turns a sound mode waiting for room for its eight
    // commands would be overtaken by single ones for as long as they come.
    bool acquire(int n)
    {
        const auto t0 = Clock::now();
        const long ticket = nextTicket_.fetch_add(1);
        while (serving_.load() != ticket)
            std::this_thread::sleep_for(1ms);
        bool inTime = true;
        while (inflight_.load() + n > kDspCredit) {
            if (Clock::now() - t0 > kStallAfter) {
                inTime = false;
                stalls_.fetch_add(1);
                break;
            }
            std::this_thread::sleep_for(1ms);
        }
        inflight_.fetch_add(n);
        serving_.fetch_add(1);
        return inTime;
    }
    void release(int n) { inflight_.fetch_sub(n); }
    void posted(Kind kind, long n = 1) { posted_[kind].fetch_add(n); }
    void refused() { refused_.fetch_add(1); }
    int inflight() const { return inflight_.load(); }
    long stalls() const { return stalls_.load(); }
    long refusedPosts() const { return refused_.load(); }
    long postedOf(Kind kind) const { return posted_[kind].load(); }

    // Waits until every posted command has reached the DSP.
    bool drain(std::chrono::milliseconds timeout)
    {
        return sim::waitUntil([&] { return inflight_.load() <= 0; }, timeout);
    }

    struct Report {
        long total = 0;
        long arrived[kKinds] = {};
        long gaps = 0;       // tagged commands missing from their thread's sequence
        long outOfOrder = 0; // commands that came before or after their turn
        long torn = 0;       // texts the soak never posts and the module never sends
        long other = 0;      // the module's own commands (detection, version queries)
        std::vector<std::string> examples;
        std::map<std::string, long> otherTexts;
        std::vector<long> tagsSeen; // per thread
    };
    Report report() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Report r = report_;
        r.tagsSeen = nextTag_;
        return r;
    }

private:
    void violation(const std::string &what)
    {
        if (report_.examples.size() < 8)
            report_.examples.push_back(what);
    }

    void arrived(Kind kind)
    {
        ++report_.arrived[kind];
        inflight_.fetch_sub(1);
    }

    // Commands the module sends by itself: its detection thread's queries
    // and the version query.
    static bool moduleOwn(const std::string &c)
    {
        if (c.size() > 2 && c.compare(c.size() - 2, 2, "=?") == 0) {
            for (size_t i = 0; i + 2 < c.size(); ++i)
                if (!((c[i] >= 'A' && c[i] <= 'Z') || c[i] == '_'))
                    return false;
            return true;
        }
        return c.rfind("AUX_TEST", 0) == 0 || c.rfind("MIC_PWR", 0) == 0;
    }

    void onCommand(const std::string &c)
    {
        ++report_.total;
        if (c.rfind(kTagPrefix, 0) == 0) {
            const size_t start = std::strlen(kTagPrefix);
            const size_t comma = c.find(',', start);
            if (comma != std::string::npos && allDigits(c, start, comma) && allDigits(c, comma + 1, c.size())) {
                const long t = std::atol(c.c_str() + start);
                const long seq = std::atol(c.c_str() + comma + 1);
                if (t < threads_) {
                    long &next = nextTag_[static_cast<size_t>(t)];
                    if (seq > next) {
                        ++report_.gaps;
                        violation(fmt("thread %ld: tagged command %ld arrived where %ld was due (lost)", t, seq, next));
                    } else if (seq < next) {
                        ++report_.outOfOrder;
                        violation(fmt("thread %ld: tagged command %ld arrived after %ld (reordered or repeated)", t,
                                      seq, next - 1));
                    }
                    next = seq + 1;
                    arrived(kTag);
                    return;
                }
            }
        } else if (c == "MT=?" || c == "VS=?") {
            arrived(c == "MT=?" ? kMainMuteQuery : kSpdifQuery);
            return;
        } else if (c.rfind("MV=", 0) == 0) {
            const auto owner = levelOwner_.find(c);
            if (owner != levelOwner_.end()) {
                const auto [t, k] = owner->second;
                long &seen = levelsSeen_[static_cast<size_t>(t)];
                if (seen % range_ != k) {
                    ++report_.outOfOrder;
                    violation(fmt("thread %d: main level %s arrived as level %ld of its cycle, due %ld", t,
                                  c.c_str(), static_cast<long>(k), seen % range_));
                }
                ++seen;
                arrived(kMainLevel);
                return;
            }
        } else if (c == "MT=1" || c == "MT=0") {
            arrived(kMainMute);
            return;
        } else if (c == "PER_STAT=1?") {
            arrived(kHotplugQuery);
            return;
        } else if (c.rfind("BAL_LEFT=", 0) == 0 || c.rfind("BAL_RIGHT=", 0) == 0) {
            const std::string value = c.substr(c.find('=') + 1);
            if (value.size() == 4 && isNumber(value)) {
                arrived(kBalance);
                return;
            }
        } else if (c.rfind("USER_EQ[", 0) == 0 && c.size() > 11 && c[8] >= '0' && c[8] <= '7' &&
                   c.compare(9, 2, "]=") == 0) {
            const auto fields = splitCommas(c.substr(11));
            bool ok = fields.size() == 4;
            for (const auto &f : fields)
                ok = ok && !f.empty() && isNumber(f);
            if (ok) {
                arrived(kEqLine);
                return;
            }
        } else if (c == "SPK_EQ_MODE=WALL" || c == "SPK_EQ_MODE=FOOT") {
            arrived(kSpeakerEq);
            return;
        }
        if (moduleOwn(c)) {
            ++report_.other;
            ++report_.otherTexts[c];
            return;
        }
        ++report_.torn;
        violation("torn or unknown command \"" +
                  sim::renderBytes(reinterpret_cast<const uint8_t *>(c.data()), c.size()) + "\"");
    }

    sim::Trace &trace_;
    const int threads_;
    int id_ = 0;
    int range_ = 1;
    std::map<std::string, std::pair<int, int>> levelOwner_; // "MV=..." -> thread, place in its cycle
    std::atomic<int> inflight_{0};
    std::atomic<long> nextTicket_{0}; // turns of acquire(), in the order they were asked for
    std::atomic<long> serving_{0};
    std::atomic<long> stalls_{0};
    std::atomic<long> refused_{0};
    std::atomic<long> posted_[kKinds] = {};
    mutable std::mutex mutex_; // guards what follows (the DSP line's reader thread vs. the main thread)
    std::string partial_;
    std::vector<long> nextTag_;    // per thread: the tag due next
    std::vector<long> levelsSeen_; // per thread: main levels arrived
    Report report_;
};

// ------------------------------------------------------------ the session

struct Session {
    sim::Board board;
    sim::DspModel dsp{board};
    sim::DspAudio audio{dsp};
    sim::DspFileStore files{dsp};
    sim::UacMixer uac{board};
    sim::PtzCameraModel ptz{board};
    sim::AmpModel amp{board, sim::AmpFitting::Acm8625};
    sim::HdmiOutModel hdmi{board};
    sim::UsbSysfs usb{board};
    sim::HidCameraModel hid{board, "/dev/hidraw0"};
    const avmanager_module_t *hal = nullptr;
    std::string camLogDir;
};

// Durations of one kind of call, with the bound it is held to (0: only
// reported).
class Durations {
public:
    Durations(std::string name, double boundMs, double marginMs)
        : name_(std::move(name)), boundMs_(boundMs), marginMs_(marginMs)
    {
    }
    void add(double ms)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++n_;
        sum_ += ms;
        max_ = std::max(max_, ms);
        if (boundMs_ > 0 && ms >= boundMs_)
            ++atBound_;
        if (boundMs_ > 0 && ms > boundMs_ + marginMs_)
            ++over_;
    }
    void addFailure()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++failures_;
    }
    const std::string &name() const { return name_; }
    long n() const { return n_; }
    double mean() const { return n_ ? sum_ / static_cast<double>(n_) : 0.0; }
    double max() const { return max_; }
    long atBound() const { return atBound_; }
    long over() const { return over_; }
    long failures() const { return failures_; }
    double boundMs() const { return boundMs_; }
    double marginMs() const { return marginMs_; }

private:
    std::string name_;
    double boundMs_;
    double marginMs_;
    std::mutex mutex_; // guards the counters (every worker thread)
    long n_ = 0;
    double sum_ = 0;
    double max_ = 0;
    long atBound_ = 0; // reached the bound: the wait ran out (a fallback answer)
    long over_ = 0;    // beyond bound and margin: a violation
    long failures_ = 0;
};

struct Figures {
    Durations dspQuery{"DSP query (reply wait)", kDspQueryBoundMs, kDspQueryMarginMs};
    Durations ptzRequest{"PTZ request (reply wait)", kPtzRequestBoundMs, kPtzRequestMarginMs};
    Durations dspSetter{"DSP setter (posting)", 0, 0};
    Durations propertyGet{"getter from the property store", 0, 0};
    Durations uac{"USB mixer volume / mute", 0, 0};
    Durations amp{"amplifier format switch", 0, 0};
    Durations hdmi{"HDMI-out packet (4096 bytes)", 0, 0};
    Durations camLogs{"camera log request over HID", 0, 0};
    Durations sleepProbe{"a plain 100 ms sleep (the machine's lateness)", 0, 0};
};

// The mix, in thousandths of the calls: mostly calls that post one DSP
// command (the link carries one per 8 ms, so it sets the pace), the rest
// getters, the USB mixer, the camera and the amplifiers.
enum Op {
    kOpTag, kOpMainLevel, kOpMainMute, kOpBalance, kOpTone, kOpSoundMode, kOpMuteQuery, kOpSpdifQuery,
    kOpHotplugQuery, kOpGetter, kOpUacVolume, kOpUacMute, kOpPtz, kOpAmp, kOpHdmi, kOpCamLogs, kOps
};
constexpr int kWeights[kOps] = {300, 150, 20, 20, 10, 5, 8, 6, 6, 309, 60, 40, 40, 2, 20, 4};
static_assert([] {
    int sum = 0;
    for (int w : kWeights)
        sum += w;
    return sum == 1000;
}());

struct Worker {
    int index = 0;
    uint64_t rng = 0;
    long tagsPosted = 0;
    long levelsPosted = 0;
    long hdmiSent = 0;     // since the converter's record was last emptied
    long hdmiDecoded = 0;  // whole packets the converter decoded
    long hdmiTotal = 0;
    long calls = 0;
};

uint64_t nextRandom(uint64_t &s)
{
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return s;
}

class Soak {
public:
    Soak(Session &s, int threads) : s_(s), threads_(threads), checker_(s.board.trace(), threads)
    {
        workers_.resize(static_cast<size_t>(threads));
        for (int t = 0; t < threads; ++t) {
            workers_[static_cast<size_t>(t)].index = t;
            workers_[static_cast<size_t>(t)].rng = 0x9E3779B97F4A7C15ull * static_cast<uint64_t>(t + 1);
        }
        hdmiPayload_.resize(kHdmiPacket);
        for (size_t i = 0; i < hdmiPayload_.size(); ++i)
            hdmiPayload_[i] = static_cast<uint8_t>(i * 31 + 7);
    }

    // Every thread makes `calls` calls; returns when all have ended.
    void runPhase(long calls)
    {
        std::atomic<bool> done{false};
        std::vector<std::thread> threads;
        for (auto &w : workers_)
            threads.emplace_back([this, &w, calls] {
                for (long i = 0; i < calls; ++i)
                    call(w);
            });
        // The models keep a log of what they saw; it is theirs, not the
        // module's: emptied as the run goes so it does not count as growth.
        // How late a plain 100 ms sleep comes back on this machine.
        std::thread probe([&] {
            while (!done.load()) {
                const auto p0 = Clock::now();
                std::this_thread::sleep_for(100ms);
                figures_.sleepProbe.add(msSince(p0));
            }
        });
        std::thread keeper([&] {
            auto lastReport = Clock::now();
            while (!done.load()) {
                std::this_thread::sleep_for(200ms);
                s_.dsp.clearCommands();
                s_.uac.clearCalls();
                s_.amp.clearLog();
                s_.ptz.clearFrames();
                if (Clock::now() - lastReport >= 15s) {
                    lastReport = Clock::now();
                    long made = 0;
                    for (const auto &w : workers_)
                        made += w.calls;
                    std::fprintf(stderr, "soak: %ld calls, %ld DSP commands checked, %d in the pipe\n", made,
                                 checker_.report().total, checker_.inflight());
                }
            }
        });
        for (auto &th : threads)
            th.join();
        done.store(true);
        keeper.join();
        probe.join();
    }

    DspChecker &checker() { return checker_; }
    void injectGap() { injectGap_ = true; }
    Figures &figures() { return figures_; }
    const std::vector<Worker> &workers() const { return workers_; }

private:
    void postOne(Kind kind, int commands, const std::function<bool()> &post)
    {
        checker_.acquire(commands);
        const auto t0 = Clock::now();
        if (post()) {
            checker_.posted(kind, commands);
        } else {
            checker_.release(commands);
            checker_.refused();
        }
        figures_.dspSetter.add(msSince(t0));
    }

    void query(Kind kind, const std::function<void()> &ask)
    {
        checker_.acquire(1);
        checker_.posted(kind);
        const auto t0 = Clock::now();
        ask();
        figures_.dspQuery.add(msSince(t0));
    }

    template <class F>
    void timed(Durations &d, F f)
    {
        const auto t0 = Clock::now();
        const bool ok = f();
        d.add(msSince(t0));
        if (!ok)
            d.addFailure();
    }

    Op pick(Worker &w)
    {
        int r = static_cast<int>(nextRandom(w.rng) % 1000);
        int op = 0;
        while (r >= kWeights[op]) {
            r -= kWeights[op];
            ++op;
        }
        // The HDMI-out stream is sent from one thread, as the converter's
        // link expects; the camera logs are fetched by one thread at a time.
        if (op == kOpHdmi && w.index != 0)
            op = kOpGetter;
        if (op == kOpCamLogs && w.index != (threads_ > 1 ? 1 : 0))
            op = kOpGetter;
        return static_cast<Op>(op);
    }

    void call(Worker &w)
    {
        const auto *h = s_.hal;
        const uint64_t r = nextRandom(w.rng);
        switch (pick(w)) {
        case kOpTag: {
            // --inject-gap: thread 0 skips one number once, as a lost
            // command would look; the checker must catch it.
            if (injectGap_ && w.index == 0 && w.tagsPosted == 5) {
                injectGap_ = false;
                ++w.tagsPosted;
            }
            const std::string text = fmt("%s%d,%ld", kTagPrefix, w.index, w.tagsPosted);
            postOne(kTag, 1, [&] {
                const bool ok = h->send_cmd_to_dsp(h, text.c_str()) > 0;
                w.tagsPosted += ok ? 1 : 0;
                return ok;
            });
            break;
        }
        case kOpMainLevel:
            postOne(kMainLevel, 1, [&] {
                const bool ok =
                    h->set_volume(h, AUDIO_CHANNEL_MAIN, static_cast<int>(checker_.volumeOf(w.index, w.levelsPosted))) == 1;
                w.levelsPosted += ok ? 1 : 0;
                return ok;
            });
            break;
        case kOpMainMute:
            postOne(kMainMute, 1, [&] { return h->set_mute(h, AUDIO_CHANNEL_MAIN, static_cast<int>(r % 2)) == 1; });
            break;
        case kOpBalance:
            postOne(kBalance, 2, [&] { return h->set_balance(h, static_cast<int>(r % 101)) == 1; });
            break;
        case kOpTone:
            postOne(kEqLine, 1, [&] {
                return (r % 2 ? h->set_Treble(h, static_cast<int>(r % 101)) : h->set_Bass(h, static_cast<int>(r % 101))) == 1;
            });
            break;
        case kOpSoundMode:
            // The preset modes: eight equaliser lines each.
            postOne(kEqLine, 8, [&] { return h->set_soundMode(h, static_cast<int>(r % 4)) == 1; });
            break;
        case kOpMuteQuery:
            query(kMainMuteQuery, [&] { h->get_mute(h, AUDIO_CHANNEL_MAIN); });
            break;
        case kOpSpdifQuery:
            query(kSpdifQuery, [&] { h->get_mute(h, AUDIO_CHANNEL_SPDIF); });
            break;
        case kOpHotplugQuery:
            query(kHotplugQuery, [&] { h->get_hotplug(h, 1); });
            break;
        case kOpGetter:
            timed(figures_.propertyGet, [&] {
                switch (r % 6) {
                case 0: return h->get_volume(h, AUDIO_CHANNEL_MAIN) >= 0;
                case 1: return h->get_balance() >= 0;
                case 2: return h->get_soundMode() >= 0;
                case 3: return h->get_Treble() >= 0;
                case 4: return h->get_Bass() >= 0;
                default: return h->get_dsp_spk_eq_mode() >= 0;
                }
            });
            break;
        case kOpUacVolume:
            timed(figures_.uac, [&] { return h->set_volume(h, AUDIO_CHANNEL_UAC, 30 + static_cast<int>(r % 71)) == 1; });
            break;
        case kOpUacMute:
            timed(figures_.uac, [&] { return h->get_mute(h, AUDIO_CHANNEL_UAC) >= 0; });
            break;
        case kOpPtz:
            ptzRequest(w);
            break;
        case kOpAmp:
            // Switches the amplifiers' tuning and tells the DSP the placement.
            checker_.acquire(1);
            timed(figures_.amp, [&] {
                const bool ok = h->set_dsp_spk_eq_mode(h, static_cast<int>(r % 2)) == 1;
                if (ok)
                    checker_.posted(kSpeakerEq);
                else
                    checker_.release(1);
                return ok;
            });
            break;
        case kOpHdmi:
            hdmiPacket(w);
            break;
        case kOpCamLogs:
            timed(figures_.camLogs, [&] { return h->get_cam_logs(h, s_.camLogDir.c_str()) == 1; });
            break;
        case kOps:
            break;
        }
        ++w.calls;
    }

    // One camera request, a different kind on each thread (the camera link
    // expects one outstanding request per kind).
    void ptzRequest(Worker &w)
    {
        const auto *h = s_.hal;
        const auto t0 = Clock::now();
        bool answered = true;
        switch (w.index % 6) {
        // The two temperature requests share one answer slot, so either
        // may read the other's answer when both are out at once.
        case 0: answered = isTemperature(h->get_cam_current_temperature()); break;
        case 1: answered = isTemperature(h->get_cam_limit_max_temperature()); break;
        case 2: h->get_camera_autotest_result(); break;
        case 3: h->get_cam_support_black_screen(); break;
        case 4: h->get_cam_auto_black_screen(); break;
        default: {
            int32_t pair[2] = {0, 0};
            answered = h->get_camera_isp_env(h, pair) >= 0;
            break;
        }
        }
        figures_.ptzRequest.add(msSince(t0));
        if (!answered) {
            figures_.ptzRequest.addFailure();
            ptzUnanswered_[w.index % 6].fetch_add(1);
        }
    }

    static bool isTemperature(int celsius) { return celsius == kCurrentCelsius || celsius == kMaxCelsius; }

    void hdmiPacket(Worker &w)
    {
        const auto *h = s_.hal;
        const int len = static_cast<int>(kHdmiPacket);
        timed(figures_.hdmi, [&] {
            return h->usb_hdmiOut_packet_process(h, 1, len, len, 0, 0, 0, 1920, 1080, hdmiPayload_.data()) == 0;
        });
        ++w.hdmiSent;
        ++w.hdmiTotal;
        // This thread alone sends: the converter's record holds exactly
        // its packets since the last look.
        if (w.hdmiSent >= 50)
            collectHdmi(w);
    }

    // Counts the packets the converter decoded whole and byte-exact, then
    // empties its record.
    void collectHdmi(Worker &w)
    {
        for (const auto &p : s_.hdmi.packets(sim::HdmiOutModel::Kind::Data))
            w.hdmiDecoded += p.complete && p.thisLen == kHdmiPacket && p.payload == hdmiPayload_ ? 1 : 0;
        s_.hdmi.clear();
        s_.hdmi.usb().clearTransfers();
        w.hdmiSent = 0;
    }

public:
    // The converter's count of the packets sent since its last look.
    void finishHdmi()
    {
        for (auto &w : workers_)
            if (w.hdmiSent > 0)
                collectHdmi(w);
    }

private:
    Session &s_;
    const int threads_;
    DspChecker checker_;
    Figures figures_;
    std::vector<Worker> workers_;
    std::vector<uint8_t> hdmiPayload_;
    bool injectGap_ = false; // set before the threads start; thread 0 alone clears it

public:
    // Camera requests without the expected answer, by kind.
    std::atomic<long> ptzUnanswered_[6] = {};
    static constexpr const char *kPtzNames[6] = {"current temperature", "maximum temperature", "autotest result",
                                                 "black-screen support", "auto black screen", "ISP environment"};
};

struct Sample {
    int fds;
    long rssKiB;
};

Sample sample() { return {openDescriptors(), residentKiB()}; }

void usage()
{
    std::fprintf(stderr,
                 "usage: soak [--threads N] [--calls N] [--inject-gap]\n"
                 "  --threads N   service threads calling the module (1..%d, default 8)\n"
                 "  --calls N     calls per thread (default 10000; the first %ld %% are the warm-up)\n"
                 "  --inject-gap  checks the checker: thread 0 leaves one number out of its\n"
                 "                sequence of tagged commands, so the run must fail\n"
                 "Runs under the board wrapper (scripts/run-soak). About 58 %% of the calls post a\n"
                 "DSP command and the DSP link carries one per 8 ms, so the run takes about\n"
                 "threads x calls x 5 ms: some 7 minutes for 8 x 10000, half a minute for\n"
                 "8 x 300 (plus about 15 s of start-up). Exits non-zero on any violation.\n",
                 kMaxThreads, kWarmupPercent);
}

} // namespace

int main(int argc, char **argv)
{
    int threads = 8;
    long calls = 10000;
    bool injectGap = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--threads" && i + 1 < argc) {
            threads = std::atoi(argv[++i]);
        } else if (arg == "--calls" && i + 1 < argc) {
            calls = std::atol(argv[++i]);
        } else if (arg == "--inject-gap") {
            injectGap = true;
        } else {
            usage();
            return arg == "--help" || arg == "-h" ? 0 : 2;
        }
    }
    if (threads < 1 || threads > kMaxThreads || calls < 10) {
        usage();
        return 2;
    }

    // The testbed first (it sets UMOCKDEV_DIR), then liblog's logger,
    // before any thread exists.
    sim::initBoardProcess();
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(soakLogger);

    auto *s = new Session; // lives until exit, with the module's threads
    const std::string cmd = "python3 '" AVM_SOURCE_DIR "/scripts/gen-tuning-files' '" + s->board.root() + "'";
    if (std::system(cmd.c_str()) != 0)
        std::fprintf(stderr, "soak: cannot install the tuning files\n");
    s->files.setFile(sim::kDspConfigPath, sim::installConfigBundle(s->board));
    // The dual x3m camera: its sysfs entry and its HID interface. It holds
    // no log files, so each log request is answered with a refusal.
    s->usb.attach("1-1", 0x2E7D, 0x051A, 0x0412);
    s->hid.setIds(0x2E7D, 0x051A);
    s->ptz.setCurrentTemperature(kCurrentCelsius);
    s->ptz.setMaxTemperature(kMaxCelsius);
    s->camLogDir = s->board.root() + "/soak-camlogs";
    s->board.writeFile("/soak-camlogs/.keep", "");
    property_set("persist.vendor.dsp.communication", "1");
    property_set("persist.vendor.cam.communication", "1");

    const hw_module_t *module = nullptr;
    if (hw_get_module(AVMANAGER_HARDWARE_MODULE_ID, &module) != 0 || module == nullptr) {
        std::fprintf(stderr, "soak: cannot load the module\n");
        return 1;
    }
    s->hal = reinterpret_cast<const avmanager_module_t *>(module);
    const auto start = Clock::now();
    if (s->hal->hal_init() != 0)
        std::fprintf(stderr, "soak: start-up reported a failure; going on\n");
    // A floor/wall product from here on: format switches reach the
    // amplifiers.
    property_set("persist.vendor.floor_wall", "1");
    const bool hdmiUp = s->hal->usb_hdmiOut_init(s->hal, sim::HdmiOutModel::kVendorId, sim::HdmiOutModel::kProductId) == 0;
    if (hdmiUp)
        s->hal->connect_usb_hdmiOut();
    const bool hdmiAcked = sim::waitUntil(
        [&] { return s->hdmi.unechoedAcks() == 0 && s->hdmi.count(sim::HdmiOutModel::Kind::Echo) > 0; }, 5000ms);
    const bool hidUp = sim::waitUntil([&] { return s->hid.rawInfoRequests() > 0; }, 10000ms);
    // Start-up's restore and detection traffic over: the line quiet.
    // The detection thread keeps asking the DSP's version every 300 ms, so
    // quiet means nothing else for a second.
    size_t windowCount = s->dsp.commandCount();
    auto windowStart = Clock::now();
    sim::waitUntil(
        [&] {
            if (Clock::now() - windowStart < 1s)
                return false;
            const size_t n = s->dsp.commandCount();
            if (n - windowCount <= 4)
                return true;
            windowCount = n;
            windowStart = Clock::now();
            return false;
        },
        30000ms);
    s->board.trace().setKeep(false);
    s->dsp.clearCommands();
    s->hdmi.clear();
    std::fprintf(stderr, "soak: board up in %.1f s (HDMI-out %s, camera HID %s); %d threads x %ld calls\n",
                 msSince(start) / 1000.0, hdmiUp && hdmiAcked ? "connected" : "NOT connected",
                 hidUp ? "open" : "NOT seen", threads, calls);

    Soak soak(*s, threads);
    if (injectGap)
        soak.injectGap();
    const Sample atStart = sample();
    const long warmup = std::max(1L, calls * kWarmupPercent / 100);
    const auto t0 = Clock::now();
    soak.runPhase(warmup);
    const bool drained1 = soak.checker().drain(10000ms);
    std::this_thread::sleep_for(500ms);
    const Sample afterWarmup = sample();
    soak.runPhase(calls - warmup);
    const bool drained2 = soak.checker().drain(10000ms);
    soak.finishHdmi();
    std::this_thread::sleep_for(500ms);
    s->dsp.clearCommands();
    s->uac.clearCalls();
    s->amp.clearLog();
    s->ptz.clearFrames();
    const Sample atEnd = sample();
    const double secs = msSince(t0) / 1000.0;

    // ------------------------------------------------------------ summary
    const auto rep = soak.checker().report();
    std::vector<std::string> violations;
    auto check = [&](bool ok, const std::string &what) {
        if (!ok)
            violations.push_back(what);
        return ok ? "ok" : "FAIL";
    };
    std::printf("\nSoak: %d threads x %ld calls (%ld warm-up), %.1f s, %ld module log lines\n\n", threads, calls,
                warmup, secs, gLogLines.load());
    std::printf("| Check | Posted | At the DSP / measured | Result |\n|---|---|---|---|\n");
    for (int k = 0; k < kKinds; ++k) {
        const long posted = soak.checker().postedOf(static_cast<Kind>(k));
        std::printf("| DSP %s | %ld | %ld | %s |\n", kKindNames[k], posted, rep.arrived[k],
                    check(posted == rep.arrived[k], fmt("DSP %s: %ld posted, %ld arrived", kKindNames[k], posted,
                                                        rep.arrived[k])));
    }
    std::string perThread;
    bool tagsOk = true;
    for (int t = 0; t < threads; ++t) {
        const long posted = soak.workers()[static_cast<size_t>(t)].tagsPosted;
        tagsOk = tagsOk && rep.tagsSeen[static_cast<size_t>(t)] == posted;
        perThread += fmt("%s%ld", t ? "/" : "", posted);
    }
    std::printf("| tagged commands per thread, in order | %s | last tag seen matches | %s |\n", perThread.c_str(),
                check(tagsOk, "the last tagged command of a thread is not the last it posted"));
    std::printf("| DSP tagged commands missing from their thread's sequence | - | %ld | %s |\n", rep.gaps,
                check(rep.gaps == 0, fmt("%ld tagged DSP commands lost", rep.gaps)));
    std::printf("| DSP commands out of order within a thread | - | %ld | %s |\n", rep.outOfOrder,
                check(rep.outOfOrder == 0, fmt("%ld DSP commands out of order", rep.outOfOrder)));
    std::printf("| DSP commands torn or unknown | - | %ld | %s |\n", rep.torn,
                check(rep.torn == 0, fmt("%ld torn or unknown DSP commands", rep.torn)));
    std::printf("| DSP posts refused by the module | - | %ld | %s |\n", soak.checker().refusedPosts(),
                check(soak.checker().refusedPosts() == 0, "the module refused DSP posts"));
    std::printf("| waits for room in the pipe over %lld s | - | %ld | %s |\n",
                static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(kStallAfter).count()),
                soak.checker().stalls(),
                check(soak.checker().stalls() == 0 && drained1 && drained2, "the DSP link stalled"));
    std::printf("| the module's own DSP commands | - | %ld | info |\n", rep.other);

    std::printf("\n| Call | Calls | Mean ms | Max ms | Bound ms (+ margin) | Ran to the bound | Over | Failed | Result |\n"
                "|---|---|---|---|---|---|---|---|---|\n");
    const Figures &f = soak.figures();
    for (const Durations *d : {&f.dspQuery, &f.ptzRequest, &f.dspSetter, &f.propertyGet, &f.uac, &f.amp, &f.hdmi,
                               &f.camLogs, &f.sleepProbe}) {
        const bool bounded = d->boundMs() > 0;
        // A PTZ request that runs out of looks returns the no-answer value;
        // with a live camera each should be answered.
        // The USB mixer's volume setter reports 0 when the mixer's write
        // returns 0, as it does on success: its result says nothing here.
        const bool failuresMatter = d != &f.propertyGet && d != &f.uac;
        const bool ok = d->over() == 0 && (!failuresMatter || d->failures() == 0);
        std::printf("| %s | %ld | %.1f | %.1f | %s | %s | %s | %s | %s |\n", d->name().c_str(), d->n(), d->mean(),
                    d->max(), bounded ? fmt("%.0f (+%.0f)", d->boundMs(), d->marginMs()).c_str() : "-",
                    bounded ? std::to_string(d->atBound()).c_str() : "-",
                    bounded ? std::to_string(d->over()).c_str() : "-",
                    failuresMatter ? std::to_string(d->failures()).c_str() : "-",
                    check(ok, fmt("%s: %ld over the bound, %ld failed (max %.1f ms)", d->name().c_str(), d->over(),
                                  d->failures(), d->max())));
    }
    long hdmiTotal = 0, hdmiDecoded = 0;
    for (const auto &w : soak.workers()) {
        hdmiTotal += w.hdmiTotal;
        hdmiDecoded += w.hdmiDecoded;
    }
    std::printf("| HDMI-out packets decoded whole by the converter | %ld | %ld | - | - | - | - | - | %s |\n", hdmiTotal,
                hdmiDecoded, check(hdmiTotal == hdmiDecoded, "the converter did not decode every HDMI-out packet"));

    std::printf("\n| Resource | At start | After warm-up | At the end | Growth after warm-up | Allowed | Result |\n"
                "|---|---|---|---|---|---|---|\n");
    std::printf("| open descriptors | %d | %d | %d | %d | 0 | %s |\n", atStart.fds, afterWarmup.fds, atEnd.fds,
                atEnd.fds - afterWarmup.fds,
                check(atEnd.fds <= afterWarmup.fds, fmt("descriptors grew from %d to %d", afterWarmup.fds, atEnd.fds)));
    std::printf("| resident memory KiB | %ld | %ld | %ld | %ld | %ld | %s |\n", atStart.rssKiB, afterWarmup.rssKiB,
                atEnd.rssKiB, atEnd.rssKiB - afterWarmup.rssKiB, kRssSlackKiB,
                check(atEnd.rssKiB - afterWarmup.rssKiB <= kRssSlackKiB,
                      fmt("resident memory grew by %ld KiB", atEnd.rssKiB - afterWarmup.rssKiB)));

    std::string unanswered;
    for (int k = 0; k < 6; ++k)
        if (const long n = soak.ptzUnanswered_[k].load())
            unanswered += fmt(" %s x%ld", Soak::kPtzNames[k], n);
    if (!unanswered.empty())
        std::printf("\nCamera requests without the expected answer:%s\n", unanswered.c_str());
    if (!rep.otherTexts.empty()) {
        std::printf("\nThe module's own DSP commands:");
        for (const auto &[text, n] : rep.otherTexts)
            std::printf(" \"%s\" x%ld", text.c_str(), n);
        std::printf("\n");
    }
    if (!rep.examples.empty()) {
        std::printf("\nFirst findings of the DSP checker:\n");
        for (const auto &e : rep.examples)
            std::printf("- %s\n", e.c_str());
    }
    if (violations.empty()) {
        std::printf("\nsoak: PASS\n");
    } else {
        std::printf("\nsoak: FAIL (%zu violation(s))\n", violations.size());
        for (const auto &v : violations)
            std::printf("- %s\n", v.c_str());
    }
    std::fflush(stdout);
    // The module's threads outlive main's objects by design: leave without
    // tearing them down.
    _exit(violations.empty() ? 0 : 1);
}
