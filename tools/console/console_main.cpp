/*
 * avconsole entry point: board bring-up, feature switches, module loading
 * and start-up, then the command loop (interactive, from a script, or the
 * built-in demo when stdin is not a terminal).
 */
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>
#include <unistd.h>

#include <android/log.h>
#include <cutils/properties.h>
#include <hardware/hardware.h>

#include "console.h"
#include "sim/timeline.h"
#include "sim/trace_summary.h"

namespace console {

namespace {

// Live trace printing: off, on (long events shortened), or full.
enum TraceMode : int { kTraceOff, kTraceShort, kTraceFull };
std::atomic<int> gTraceMode{kTraceShort};
std::atomic<bool> gLogsOn{false};       // the module's log lines
std::atomic<long long> gLastTraffic{0}; // steady-clock ns of the last trace event

constexpr const char *kDspSwitch = "persist.vendor.dsp.communication";
constexpr const char *kCamSwitch = "persist.vendor.cam.communication";

// The timeline being recorded ("timeline on FILE", --timeline FILE): set
// and cleared by the main thread; the logger reads it on any thread, and
// the recorder lives until the process ends, so a late reader never finds
// it gone.
std::atomic<sim::Timeline *> gTimeline{nullptr};
std::string gTimelinePath; // main thread only

// How long the demo waits for the traffic a command caused.
constexpr auto kQuietGap = std::chrono::milliseconds(250);
constexpr auto kSettleCap = std::chrono::milliseconds(3000);

const char *const kDemo[] = {
    "set_volume 2 40",
    "audio state",
    "get_volume 2",
    "set_mute 2 1",
    "get_mute 2",
    "set_balance 75",
    "set_soundMode 1",
    "set_volume 0 30",
    "uac state",
    "ptz temp 47",
    "get_cam_current_temperature",
    "ptz open",
    "dsp say MV=-9.00",
    "dspfs reboot",
    "audio state",
    "hdmi init",
    "hdmi connect",
    "hdmi send 4096 1",
    "hdmi disconnect",
    "hdmi deinit",
};

long long nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               sim::Clock::now().time_since_epoch())
        .count();
}

void printEvent(const sim::TraceEvent &event)
{
    gLastTraffic.store(nowNs(), std::memory_order_relaxed);
    const int mode = gTraceMode.load(std::memory_order_relaxed);
    if (mode == kTraceOff)
        return;
    std::string note = event.note;
    if (mode == kTraceShort)
        note = sim::traceSummary(event);
    else if (note.empty())
        note = sim::renderBytes(event.bytes.data(), event.bytes.size());
    consolePrint("  " + event.link + (event.toDevice ? " <- \"" : " -> \"") + note + "\"");
}

// The module's log lines, shown compactly when "logs on".
void printLog(const struct __android_logger_data *data, const char *message)
{
    if (sim::Timeline *timeline = gTimeline.load(std::memory_order_acquire))
        timeline->addLog(data->priority, data->tag, message);
    if (!gLogsOn.load(std::memory_order_relaxed))
        return;
    std::string text = message ? message : "";
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    static const char kLevels[] = "??VDIWEF";
    const char level = data->priority >= 0 && data->priority < 8 ? kLevels[data->priority] : '?';
    consolePrint(std::string("  log ") + (data->tag ? data->tag : "") + "/" + level + ": " + text);
}

// Waits until no traffic has crossed any link for kQuietGap (at most
// kSettleCap), so a command's traffic prints under it.
void settle()
{
    const auto start = sim::Clock::now();
    const auto gap = std::chrono::duration_cast<std::chrono::nanoseconds>(kQuietGap).count();
    sim::waitUntil(
        [&] {
            const long long since = nowNs() - gLastTraffic.load(std::memory_order_relaxed);
            return since >= gap && sim::Clock::now() - start >= kQuietGap;
        },
        kSettleCap);
}

Args split(const std::string &line)
{
    Args out;
    std::istringstream in(line);
    std::string word;
    while (in >> word)
        out.push_back(word);
    return out;
}

void listProperties()
{
    const char *dir = getenv("AVMANAGER_PROPERTY_DIR");
    DIR *d = dir ? opendir(dir) : nullptr;
    if (!d) {
        consolePrint("(no property store)");
        return;
    }
    std::vector<std::string> keys;
    while (dirent *entry = readdir(d))
        if (entry->d_name[0] != '.')
            keys.push_back(entry->d_name);
    closedir(d);
    std::sort(keys.begin(), keys.end());
    for (const auto &key : keys) {
        char value[PROPERTY_VALUE_MAX] = {};
        property_get(key.c_str(), value, "");
        consolePrint("[" + key + "]: [" + value + "]");
    }
}

// The one recorder of the process (see gTimeline).
sim::Timeline &recorder()
{
    static auto *timeline = new sim::Timeline;
    return *timeline;
}

void timelineOn(sim::Board &board, const std::string &path)
{
    sim::Timeline &timeline = recorder();
    if (gTimeline.load() != nullptr)
        consolePrint("timeline: already recording to " + gTimelinePath + " (timeline off first)");
    else {
        timeline.clear();
        timeline.attach(board.trace());
        gTimelinePath = path;
        gTimeline.store(&timeline, std::memory_order_release);
        consolePrint("timeline: recording to " + path);
    }
}

// Stops recording and writes the record to `path` (the file recording
// started with, when empty). A file that cannot be written (a full disk)
// loses nothing: the recording goes on, and another "timeline off" tries
// again, to the same or another file.
void timelineOff(sim::Board &board, const std::string &path = "")
{
    sim::Timeline *timeline = gTimeline.exchange(nullptr);
    if (timeline == nullptr) {
        consolePrint("timeline: not recording");
        return;
    }
    timeline->detach();
    const std::string target = path.empty() ? gTimelinePath : path;
    std::string error;
    if (timeline->write(target, &error)) {
        consolePrint("timeline: " + std::to_string(timeline->eventCount()) + " link events, " +
                     std::to_string(timeline->logCount()) + " log lines and " +
                     std::to_string(timeline->halCount()) + " module trace calls written to " + target +
                     " (open it in Perfetto UI, chrome://tracing or tools/console/timeline_viewer.html)");
        return;
    }
    timeline->attach(board.trace());
    gTimelinePath = target;
    gTimeline.store(timeline, std::memory_order_release);
    consolePrint("timeline: " + error + "; still recording, nothing lost: timeline off [<file>] writes it");
}

void help(const ModelSet &models)
{
    consolePrint("module operations (name without \"avmanager_\"):");
    for (const auto &op : avmops::operations())
        consolePrint("  " + std::to_string(op.slot) + "\t" + avmops::usage(op));
    consolePrint("models:");
    for (const auto &line : models.helpLines())
        consolePrint("  " + line);
    consolePrint("console:");
    consolePrint("  help | trace on|full|off | logs on|off | timeline on <file> | timeline off [<file>] | props");
    consolePrint("  getprop <key> | setprop <key> <value> | sleep <ms> | quit");
    consolePrint("  avmctl <arguments>   (with --no-module: avmctl calls the module on this board)");
    consolePrint("  (on a terminal: tab completes, up and down walk the history, ^C drops the line)");
}

enum class Outcome { Continue, Quit };

Outcome run(sim::Board &board, const avmanager_module_t *hal, const ModelSet &models, const std::string &line)
{
    const Args words = split(line);
    if (words.empty() || words[0][0] == '#')
        return Outcome::Continue;
    const std::string &cmd = words[0];
    const Args rest(words.begin() + 1, words.end());
    if (cmd == "quit" || cmd == "exit")
        return Outcome::Quit;
    if (cmd == "help") {
        help(models);
    } else if (cmd == "trace" && rest.size() == 1 && (rest[0] == "on" || rest[0] == "off" || rest[0] == "full")) {
        gTraceMode.store(rest[0] == "on" ? kTraceShort : rest[0] == "full" ? kTraceFull : kTraceOff,
                         std::memory_order_relaxed);
    } else if (cmd == "logs" && rest.size() == 1 && (rest[0] == "on" || rest[0] == "off")) {
        gLogsOn.store(rest[0] == "on", std::memory_order_relaxed);
    } else if (cmd == "timeline" && rest.size() == 2 && rest[0] == "on") {
        timelineOn(board, rest[1]);
    } else if (cmd == "timeline" && (rest.size() == 1 || rest.size() == 2) && rest[0] == "off") {
        timelineOff(board, rest.size() == 2 ? rest[1] : "");
    } else if (cmd == "props") {
        listProperties();
    } else if (cmd == "getprop" && rest.size() == 1) {
        char value[PROPERTY_VALUE_MAX] = {};
        property_get(rest[0].c_str(), value, "");
        consolePrint(value);
    } else if (cmd == "setprop" && rest.size() == 2) {
        if (property_set(rest[0].c_str(), rest[1].c_str()) != 0)
            consolePrint("setprop failed");
    } else if (cmd == "sleep" && rest.size() == 1) {
        long ms = 0;
        if (parseInt(rest[0], &ms) && ms > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    } else if (models.has(cmd)) {
        if (!models.command(cmd, rest))
            consolePrint("unknown " + cmd + " command (try help)");
    } else if (cmd == "avmctl") {
        // Two modules would drive the same lines.
        if (hal)
            consolePrint("avmctl: the console's module holds the board; start the console with --no-module");
        else
            runAvmctl(rest);
    } else if (!hal && avmops::findOperation(cmd)) {
        consolePrint("no module here (--no-module): avmctl " + cmd + " calls it");
    } else if (!callOperation(hal, cmd, rest)) {
        consolePrint("unknown command: " + cmd + " (try help)");
    }
    return Outcome::Continue;
}

// Runs a command line, as a mark on the timeline when one is recorded.
Outcome runMarked(sim::Board &board, const avmanager_module_t *hal, const ModelSet &models, const std::string &line)
{
    const auto start = sim::Clock::now();
    const Outcome outcome = run(board, hal, models, line);
    if (sim::Timeline *timeline = gTimeline.load(std::memory_order_acquire))
        if (line.find_first_not_of(' ') != std::string::npos)
            timeline->addMark("console commands", line, start, sim::Clock::now());
    return outcome;
}

void usage()
{
    std::printf("usage: avconsole [--script FILE] [--dsp 0|1] [--cam 0|1] [--prop KEY=VALUE]...\n"
                "                 [--no-trace] [--logs] [--timeline FILE] [--no-module]\n"
                "Runs under umockdev-wrapper (scripts/run-board). Without a terminal and\n"
                "without --script it plays a short demo and exits. --no-module brings up the\n"
                "board without loading the module, for avmctl to call it.\n");
}

} // namespace

} // namespace console

int main(int argc, char **argv)
{
    using namespace console;
    std::string script;
    std::string timelinePath;
    std::string dspSwitch = "1";
    std::string camSwitch;
    std::vector<std::pair<std::string, std::string>> extraProps;
    bool loadModule = true;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--script" && hasValue) {
            script = argv[++i];
        } else if (arg == "--dsp" && hasValue) {
            dspSwitch = argv[++i];
        } else if (arg == "--cam" && hasValue) {
            camSwitch = argv[++i];
        } else if (arg == "--prop" && hasValue) {
            const std::string kv = argv[++i];
            const size_t eq = kv.find('=');
            if (eq == std::string::npos) {
                usage();
                return 2;
            }
            extraProps.emplace_back(kv.substr(0, eq), kv.substr(eq + 1));
        } else if (arg == "--timeline" && hasValue) {
            timelinePath = argv[++i];
        } else if (arg == "--logs") {
            gLogsOn.store(true);
        } else if (arg == "--no-trace") {
            gTraceMode.store(kTraceOff);
        } else if (arg == "--no-module") {
            loadModule = false;
        } else if (arg == "--help" || arg == "-h") {
            usage();
            return 0;
        } else {
            usage();
            return 2;
        }
    }

    // Process-wide set-up before any thread: the testbed (which sets
    // UMOCKDEV_DIR) and liblog's logger. The environment came from
    // scripts/run-board.
    sim::initBoardProcess();
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(printLog);
    int status = 0;
    {
        // The board and its models live until the process ends: the
        // module's threads (the camera link, the detection thread, the HID
        // receive thread) outlive release by design and keep using the
        // board's nodes, so tearing the models down under them would pull
        // umockdev's sockets away mid-call.
        sim::Board &board = *new sim::Board;
        board.trace().setListener(printEvent);
        if (!timelinePath.empty())
            timelineOn(board, timelinePath);
        ModelSet &models = *new ModelSet;
        buildModels(board, models);
        if (camSwitch.empty())
            camSwitch = models.has("ptz") ? "1" : "0";
        property_set(kDspSwitch, dspSwitch.c_str());
        property_set(kCamSwitch, camSwitch.c_str());
        for (const auto &[key, value] : extraProps)
            property_set(key.c_str(), value.c_str());

        std::string names;
        for (const auto &name : models.names())
            names += " " + name;
        consolePrint("virtual board at " + board.root() + "; models:" + names);

        const avmanager_module_t *hal = nullptr;
        if (loadModule) {
            // Before the module's first thread: its restores are followed
            // from their first span.
            if (!watchRestores())
                consolePrint("cannot follow the module's restores: the tracer takes no more sinks");
            const hw_module_t *module = nullptr;
            const int loaded = hw_get_module(AVMANAGER_HARDWARE_MODULE_ID, &module);
            if (loaded != 0 || !module) {
                consolePrint("cannot load " + std::string(AVMANAGER_HARDWARE_MODULE_ID) + ": " +
                             std::strerror(loaded < 0 ? -loaded : EINVAL));
                board.trace().setListener(nullptr);
                return 1;
            }
            hal = reinterpret_cast<const avmanager_module_t *>(module);
            consolePrint("> hal_init");
            consolePrint("= " + std::to_string(hal->hal_init()));
            settle();
        } else {
            consolePrint("no module loaded: `avmctl <arguments>` here calls it, or from another shell:");
            consolePrint("  " + avmctlCommandLine() + " <arguments>");
        }

        const bool interactive = script.empty() && isatty(STDIN_FILENO);
        if (!script.empty()) {
            std::ifstream in(script);
            if (!in) {
                consolePrint("cannot read " + script);
                status = 1;
            }
            std::string line;
            while (status == 0 && std::getline(in, line)) {
                if (line.empty() || line[0] == '#')
                    continue;
                consolePrint("> " + line);
                if (runMarked(board, hal, models, line) == Outcome::Quit)
                    break;
                settle();
            }
        } else if (interactive) {
            consolePrint("type help for the commands, quit to leave (tab completes)");
            std::vector<std::string> words = {"help", "trace", "logs", "timeline", "props", "getprop",
                                              "setprop", "sleep", "avmctl", "quit"};
            for (const auto &op : avmops::operations())
                words.push_back(op.name);
            setCompletions(words, models.helpLines(),
                           {{"trace", {"on", "full", "off"}}, {"logs", {"on", "off"}}, {"timeline", {"on", "off"}}});
            runLineEditor("avm> ", [&](const std::string &line) {
                return runMarked(board, hal, models, line) != Outcome::Quit;
            });
        } else if (!hal) {
            consolePrint("--no-module needs a terminal or --script");
            status = 2;
        } else {
            for (const char *line : kDemo) {
                consolePrint(std::string("> ") + line);
                runMarked(board, hal, models, line);
                settle();
            }
        }

        if (hal) {
            consolePrint("> hal_release");
            consolePrint("= " + std::to_string(hal->hal_release()));
            settle();
        }
        if (gTimeline.load() != nullptr)
            timelineOff(board);
        // The camera link outlives release by design; its lines stop here.
        gLogsOn.store(false, std::memory_order_relaxed);
        board.trace().setListener(nullptr);
    }
    // Leave without static destructors, for the same reason.
    std::fflush(stdout);
    std::fflush(stderr);
    _exit(status);
}
