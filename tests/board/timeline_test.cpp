// The timeline: a scripted console session written with --timeline parses
// as Chrome trace-event JSON and holds the session's link traffic, the
// module's log lines, the console's commands, the module's own spans
// (nested, in order, one per command, request and chunk as counted on the
// wire) and the spans derived from wire and log (reply waits, file chunks
// and the upgrade, PTZ requests, amplifier switches, I2C transactions);
// and the derivation itself, fed with traffic and log lines made up here
// (resends, missing replies), as is the pairing of the module's trace
// calls.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/avm_trace.h"
#include "dsp/dsp_reply_wait.h"
#include "log_capture.h"
#include "process_env.h"
#include "sim/board.h"
#include "sim/timeline.h"
#include "timeline_spans_board.h"

namespace {

using json = nlohmann::json;
using namespace std::chrono_literals;

std::string dirOf(const std::string &path) { return path.substr(0, path.find_last_of('/')); }

json readJson(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return json::parse(text.str(), nullptr, false);
}

// Every row's name, by (pid, tid), as the metadata gives it. Read once
// per look-up of many events: a file holds thousands, and the sanitizer
// builds pay for every access.
using RowNames = std::map<std::pair<int, int>, std::string>;
RowNames rowNames(const json &doc)
{
    RowNames names;
    for (const auto &e : doc["traceEvents"])
        if (e["ph"] == "M" && e["name"] == "thread_name")
            names[{e["pid"].get<int>(), e["tid"].get<int>()}] = e["args"]["name"].get<std::string>();
    return names;
}

std::string rowName(const RowNames &names, int pid, int tid)
{
    const auto it = names.find({pid, tid});
    return it == names.end() ? "" : it->second;
}

// The name of the row (pid, tid) as its metadata gives it.
std::string rowName(const json &doc, int pid, int tid)
{
    return rowName(rowNames(doc), pid, tid);
}

std::vector<json> eventsWhere(const json &doc, const std::function<bool(const json &)> &pred)
{
    std::vector<json> out;
    for (const auto &e : doc["traceEvents"])
        if (pred(e))
            out.push_back(e);
    return out;
}

bool startsWith(const std::string &s, const std::string &prefix) { return s.rfind(prefix, 0) == 0; }

// Spans ("X") on the row with this name whose name starts with `prefix`.
std::vector<json> spansOn(const json &doc, const std::string &row, const std::string &prefix)
{
    const RowNames names = rowNames(doc);
    return eventsWhere(doc, [&](const json &e) {
        return e["ph"] == "X" && rowName(names, e["pid"], e["tid"]) == row &&
               startsWith(e["name"].get<std::string>(), prefix);
    });
}

// Every occurrence of `pattern` in the texts of a link row (a slice is what
// the peer read at once, which may hold several commands or frames).
size_t occurrencesOnRow(const json &doc, const std::string &row, const std::string &pattern)
{
    size_t n = 0;
    for (const auto &e : spansOn(doc, row, "")) {
        if (!e.contains("args") || !e["args"].contains("text"))
            continue;
        const std::string text = e["args"]["text"];
        for (size_t at = text.find(pattern); at != std::string::npos; at = text.find(pattern, at + 1))
            ++n;
    }
    return n;
}

// How many commands starting with `prefix` the module wrote to the DSP.
size_t commandsOnWire(const json &doc, const std::string &prefix)
{
    return occurrencesOnRow(doc, "dsp  module -> device", prefix);
}

// How many PTZ frames with these codes the module wrote to the camera: a
// camera reader that runs late takes several frames in one slice.
size_t ptzFramesOnWire(const json &doc, uint8_t main, uint8_t sub)
{
    const uint8_t head[] = {0xAA, 0xBB, 0xCC, main, sub};
    return occurrencesOnRow(doc, "ptz  module -> device", sim::renderBytes(head, sizeof head));
}

// The console of this build plays tests/console/timeline.script with
// --timeline; the file it wrote, parsed (discarded when the run failed).
json recordScriptedSession()
{
    avmtest::TempDir dir;
    const std::string out = dirOf(avmtest::selfPath());
    const std::string file = dir.path() + "/session.json";
    const char *path = getenv("PATH");
    const char *tmp = getenv("TMPDIR");
    const auto child = avmtest::runChild(
        {avmtest::sourceDir() + "/tests/board-wrapper", out + "/avconsole", "--script", avmtest::sourceDir() + "/tests/console/timeline.script",
         "--timeline", file},
        {"PATH=" + std::string(path ? path : "/usr/bin:/bin"), "AVMANAGER_HAL_PATH=" + out,
         "TMPDIR=" + std::string(tmp ? tmp : "/tmp")});
    EXPECT_EQ(child.exitCode, 0) << child.output << child.errors;
    EXPECT_NE(child.output.find("written to " + file), std::string::npos) << child.output;
    return readJson(file);
}

TEST(Timeline, ScriptedConsoleSessionIsReadableAndComplete)
{
    const json doc = recordScriptedSession();
    ASSERT_FALSE(doc.is_discarded()) << "not JSON";
    ASSERT_TRUE(doc.contains("traceEvents"));
    ASSERT_TRUE(doc["traceEvents"].is_array());
    for (const auto &e : doc["traceEvents"]) {
        ASSERT_TRUE(e.contains("ph") && e.contains("pid") && e.contains("tid") && e.contains("name")) << e.dump();
        if (e["ph"] == "X") {
            EXPECT_GE(e["ts"].get<double>(), 0.0) << e.dump();
            EXPECT_GT(e["dur"].get<double>(), 0.0) << e.dump();
        }
    }

    // One row per link direction, with the bytes as their text: a slice is
    // what the DSP read at once, which on a busy machine may hold the next
    // command too. The setter, and the restore after the DSP's restart
    // sends it again.
    const RowNames names = rowNames(doc);
    const auto volume = eventsWhere(doc, [&](const json &e) {
        return e["ph"] == "X" && rowName(names, e["pid"], e["tid"]) == "dsp  module -> device" &&
               e.contains("args") && e["args"].contains("text") && e["args"]["text"].get<std::string>().find("MV=-11.10\\0") != std::string::npos;
    });
    ASSERT_EQ(volume.size(), 2u);
    const std::string first = volume[0]["args"]["text"];
    EXPECT_EQ(first.rfind("MV=-11.10\\0", 0), 0u) << first;
    EXPECT_GE(volume[0]["args"]["bytes"].get<int>(), 10);
    EXPECT_FALSE(spansOn(doc, "dsp  device -> module", "MT=").empty());
    EXPECT_FALSE(spansOn(doc, "ptz  module -> device", "frame 0x").empty());
    const auto i2c = spansOn(doc, "i2c-1  module -> device", "");
    EXPECT_GT(i2c.size(), 1000u) << "a switch on the ACM8625 fitting writes two equaliser tables";

    // What the module did, from the wire and the log.
    const auto waits = spansOn(doc, "dsp reply waits", "MT=? -> MT=");
    ASSERT_EQ(waits.size(), 1u);
    EXPECT_EQ(waits[0]["args"]["read by the module"], true);
    // One upgrade after the version query at start-up, one after the restart.
    EXPECT_EQ(spansOn(doc, "dsp file transfer", "configuration upgrade").size(), 2u);
    // One chunk span per FWDAT command that crossed the line, resends
    // included (a reply that comes late on a loaded machine makes the
    // upgrade send a chunk again): counted on the wire, in whatever reads
    // the DSP made of them.
    EXPECT_EQ(spansOn(doc, "dsp file transfer", "chunk ").size(), commandsOnWire(doc, "FWDAT="));
    EXPECT_EQ(spansOn(doc, "dsp file transfer", "chunk 2880,20").size(), commandsOnWire(doc, "FWDAT=2880,20,"));
    // The made-up bundle is 2900 bytes: 12 chunks of 240 and one of 20, in
    // each of the two upgrades, each sent once plus once for every resend
    // the timeline shows of it. An upgrade that a late answer cut short (as
    // the module does when it takes a resent chunk's answer for the next
    // one) sends chunks of its own before the next announcement starts
    // another, so these are lower bounds; the chunk spans above match the
    // wire one for one.
    EXPECT_GE(commandsOnWire(doc, "FWDAT="), 26u + spansOn(doc, "retries", "resend FWDAT=").size());
    EXPECT_GE(commandsOnWire(doc, "FWDAT=2880,20,"), 2u + spansOn(doc, "retries", "resend FWDAT=2880,20,").size());
    EXPECT_FALSE(spansOn(doc, "dsp file transfer", "FWSTR").empty());
    EXPECT_FALSE(spansOn(doc, "dsp file transfer", "FWEND").empty());
    EXPECT_FALSE(spansOn(doc, "ptz requests", "frame 0x").empty());
    EXPECT_EQ(spansOn(doc, "amplifier switches", "format switch to wall").size(), 1u);
    // The restore after the DSP's restart applies the stored floor
    // placement too.
    EXPECT_EQ(spansOn(doc, "amplifier switches", "format switch to floor").size(), 2u);
    // A reply that comes late on a loaded machine is resent, as the module
    // must, so resends may appear; each is labelled as one.
    for (const auto &retry : spansOn(doc, "retries", ""))
        EXPECT_TRUE(startsWith(retry["name"].get<std::string>(), "resend ")) << retry.dump();

    // The module's log lines on the rows of its threads, and the console's
    // commands.
    const auto logs = eventsWhere(doc, [](const json &e) { return e["ph"] == "i" && e["cat"] == "log"; });
    ASSERT_FALSE(logs.empty());
    bool sawUpgradeLine = false;
    for (const auto &l : logs) {
        EXPECT_EQ(l["pid"], 2);
        EXPECT_TRUE(startsWith(rowName(names, 2, l["tid"]), "thread ")) << l.dump();
        sawUpgradeLine = sawUpgradeLine || l["args"]["text"].get<std::string>().rfind("dspHalWriteUsart", 0) == 0;
    }
    EXPECT_TRUE(sawUpgradeLine);
    EXPECT_EQ(spansOn(doc, "console commands", "set_volume 2 40").size(), 1u);
    EXPECT_EQ(spansOn(doc, "console commands", "get_cam_current_temperature").size(), 1u);
}

// I2C transactions on the wire from start to end (in microseconds).
size_t i2cBetween(const json &doc, double start, double end)
{
    size_t n = 0;
    for (const auto &e : spansOn(doc, "i2c-1  module -> device", "")) {
        const double at = e["ts"].get<double>() + e["dur"].get<double>();
        n += at >= start && at <= end + 1.0;
    }
    return n;
}

TEST(Timeline, ScriptedSessionHoldsTheModulesOwnSpansNestedAndCountedAsOnTheWire)
{
    const json doc = recordScriptedSession();
    ASSERT_FALSE(doc.is_discarded()) << "not JSON";
    using avmtest::childrenOf;
    using avmtest::halSpans;
    using avmtest::namesOf;
    const auto all = halSpans(doc);
    ASSERT_FALSE(all.empty());
    const RowNames rows = rowNames(doc);
    for (const auto &s : all)
        EXPECT_EQ(rowName(rows, 2, s.tid).rfind("thread " + std::to_string(s.tid) + ":", 0), 0u)
            << "a module span on a row of its thread: " << s.name;
    EXPECT_EQ(doc["otherData"]["module span ends without their begin"], 0);
    // The module's threads are shown first, above the links.
    for (const auto &e : eventsWhere(doc, [](const json &e) { return e["ph"] == "M" && e["name"] == "process_sort_index"; }))
        if (e["pid"] == 2)
            EXPECT_EQ(e["args"]["sort_index"], 1);
        else
            EXPECT_GT(e["args"]["sort_index"].get<int>(), 1);

    // Start-up: one span, its steps inside it in order.
    const auto init = halSpans(doc, "init");
    ASSERT_GE(init.size(), 1u);
    EXPECT_EQ(init[0].name, "init");
    EXPECT_EQ(namesOf(childrenOf(all, init[0])),
              (std::vector<std::string>{"init camera pipe", "init dsp link", "init ptz link", "init detection thread"}));

    // Posted commands: one async span each, from the post to its write on
    // the transmit thread, and one write span there per command of that
    // kind on the wire.
    const auto commands = avmtest::halAsyncSpans(doc, "dsp command");
    EXPECT_EQ(commands.size(), halSpans(doc, "dsp write").size());
    for (const auto &c : commands)
        EXPECT_GE(c.end, c.start) << "cookie " << c.cookie;
    EXPECT_EQ(halSpans(doc, "dsp write kind=main_volume").size(), commandsOnWire(doc, "MV="));
    EXPECT_EQ(halSpans(doc, "dsp write kind=main_mute").size(), commandsOnWire(doc, "MT="));
    EXPECT_EQ(halSpans(doc, "dsp write kind=version").size(), commandsOnWire(doc, "VER_FULL=?"));
    // The query: one wait with one outcome. The DSP answers at once, but
    // on a loaded machine its reply can be read after the module stopped
    // looking (the module then returns the stored level, as it must); a
    // time-out is marked only once the whole wait has passed. Both outcomes
    // on their own are shown by DspSpans.
    const auto waits = halSpans(doc, "dsp reply wait query=MT=?");
    ASSERT_EQ(waits.size(), commandsOnWire(doc, "MT=?"));
    ASSERT_EQ(waits.size(), 1u);
    const auto outcome = namesOf(childrenOf(all, waits[0]));
    ASSERT_EQ(outcome.size(), 1u);
    if (outcome[0] == kTraceDspTimedOut)
        EXPECT_GE(waits[0].end - waits[0].start, 1000.0 * kDspQueryWait.looks * kDspQueryWait.stepMs)
            << "timed out before the wait was over";
    else
        EXPECT_EQ(outcome[0], kTraceDspAnswered);

    // The file transfers, each inside an upgrade: FWSTR, the chunks in
    // order of offset, FWEND. A transfer can end early (at start-up a
    // chunk's answer may share a read with the DSP's announcement and be
    // missed, and the resend is then refused); the ones that reach FWEND
    // are the upgrades the wire view derives. One chunk span per chunk the
    // line carried, resends included; every file command written is a send
    // or chunk span.
    size_t completed = 0;
    for (const auto &u : halSpans(doc, "dsp file transfer size=2900")) {
        EXPECT_EQ(u.within, "dsp config upgrade");
        const auto requests = childrenOf(all, u);
        ASSERT_FALSE(requests.empty());
        EXPECT_EQ(requests.front().name, "dsp file request word=FWSTR");
        const bool reachedEnd = requests.back().name == "dsp file request word=FWEND";
        completed += reachedEnd;
        std::vector<long long> offsets;
        for (size_t i = 1; i < requests.size() - (reachedEnd ? 1 : 0); ++i) {
            EXPECT_EQ(requests[i].name, "dsp file request word=FWDAT");
            // Each chunk request holds its writes; a resend is the same chunk.
            const auto writes = childrenOf(all, requests[i]);
            ASSERT_FALSE(writes.empty());
            for (size_t k = 0; k < writes.size(); ++k) {
                EXPECT_EQ(writes[k].args["attempt"], k + 1) << writes[k].name;
                EXPECT_EQ(writes[k].args["offset"], writes[0].args["offset"]) << writes[k].name;
            }
            if (reachedEnd) {
                EXPECT_EQ(namesOf(childrenOf(all, writes.back())), std::vector<std::string>{"dsp answered"});
            }
            offsets.push_back(writes[0].args["offset"].get<long long>());
        }
        for (size_t i = 0; i < offsets.size(); ++i)
            EXPECT_EQ(offsets[i], static_cast<long long>(240 * i));
        if (reachedEnd) {
            EXPECT_EQ(offsets.size(), 13u);
        }
    }
    EXPECT_EQ(completed, spansOn(doc, "dsp file transfer", "configuration upgrade").size())
        << "the module's view and the wire's agree";
    EXPECT_GE(completed, 1u);
    EXPECT_EQ(halSpans(doc, "dsp chunk").size(), commandsOnWire(doc, "FWDAT="));
    EXPECT_EQ(halSpans(doc, "dsp chunk offset=2880 length=20").size(), commandsOnWire(doc, "FWDAT=2880,20,"));
    EXPECT_EQ(halSpans(doc, "dsp file send word=FINF").size(), commandsOnWire(doc, "FINF="));
    EXPECT_EQ(halSpans(doc, "dsp file send word=FWSTR").size(), commandsOnWire(doc, "FWSTR="));
    EXPECT_EQ(halSpans(doc, "dsp file send word=FWEND").size(), commandsOnWire(doc, "FWEND="));

    // The PTZ request: one frame span per frame of its kind on the wire,
    // each with its outcome.
    const auto ptz = halSpans(doc, "ptz request cmd=18");
    ASSERT_EQ(ptz.size(), 1u);
    const auto frames = childrenOf(all, ptz[0]);
    EXPECT_EQ(frames.size(), ptzFramesOnWire(doc, 0x20, 0xBA));
    for (const auto &frame : frames) {
        const auto outcome = namesOf(childrenOf(all, frame));
        EXPECT_TRUE(outcome == std::vector<std::string>{"ptz answered"} ||
                    outcome == std::vector<std::string>{"ptz timed out"})
            << frame.name;
    }

    // The amplifier switches that ran (a restore pass that finds the
    // format in place marks it and programs nothing): each sets the
    // counter, on its thread at its end, to the transactions the bus saw
    // while it ran. Switches take turns: one that waited for another has
    // its own transactions after that one's end.
    std::vector<avmtest::HalSpan> switches;
    for (const auto &s : halSpans(doc, "amp format switch"))
        if (namesOf(childrenOf(all, s)) != std::vector<std::string>{"amp same format"})
            switches.push_back(s);
    const auto counts = avmtest::counterSamples(doc, "amp i2c transactions");
    ASSERT_EQ(counts.size(), switches.size());
    for (const auto &sw : switches) {
        double from = sw.start;
        for (const auto &other : switches)
            if (other.end > from && other.end < sw.end)
                from = other.end;
        const auto count = std::find_if(counts.begin(), counts.end(), [&](const avmtest::HalCounterSample &c) {
            return c.tid == sw.tid && c.at >= sw.start && c.at <= sw.end;
        });
        ASSERT_NE(count, counts.end()) << sw.name;
        EXPECT_EQ(static_cast<size_t>(count->value), i2cBetween(doc, from, sw.end)) << sw.name;
    }
    // The session's own two: to the wall placement, then back to the floor.
    const auto names = namesOf(switches);
    const auto wall = std::find(names.begin(), names.end(), "amp format switch format=wall");
    ASSERT_NE(wall, names.end());
    EXPECT_EQ(std::count(names.begin(), names.end(), "amp format switch format=wall"), 1);
    ASSERT_NE(wall + 1, names.end());
    EXPECT_EQ(*(wall + 1), "amp format switch format=floor");
}

// Traffic and log lines made up here, at chosen times.
struct Script {
    sim::Timeline timeline;
    sim::Clock::time_point t0 = sim::Clock::now();

    sim::Clock::time_point at(int ms) { return t0 + std::chrono::milliseconds(ms); }
    void wire(const std::string &link, bool toDevice, const std::vector<uint8_t> &bytes, int startMs, int endMs)
    {
        sim::TraceEvent e;
        e.link = link;
        e.toDevice = toDevice;
        e.bytes = bytes;
        e.note = sim::renderBytes(bytes.data(), bytes.size());
        e.start = at(startMs);
        e.when = at(endMs);
        timeline.addEvent(e);
    }
    void text(bool toDevice, const std::string &t, int startMs, int endMs)
    {
        std::vector<uint8_t> bytes(t.begin(), t.end());
        if (toDevice)
            bytes.push_back(0);
        wire("dsp", toDevice, bytes, startMs, endMs);
    }
    void log(const std::string &tag, const std::string &t, int ms)
    {
        timeline.addLog({at(ms), 4242, 6, tag, t});
    }
    static std::vector<uint8_t> frame(uint8_t main, uint8_t sub)
    {
        std::vector<uint8_t> f(64, 0);
        f[0] = 0xAA;
        f[1] = 0xBB;
        f[2] = 0xCC;
        f[3] = main;
        f[4] = sub;
        return f;
    }
};

TEST(Timeline, DerivesWaitsRetriesAndMissingRepliesFromWireAndLog)
{
    Script s;
    // A query answered and read 100 ms after the reply; one never answered.
    s.text(true, "MV=?", 0, 1);
    s.text(false, "MV=-9.00", 2, 3);
    s.log("DSP", "MV=-9.00", 103);
    s.text(true, "PER_STAT=1?", 200, 201);
    // A chunk sent three times: the DSP answered only the third.
    const std::string chunk = "FWDAT=0,2,200,ABCD";
    s.text(true, "FINF=/data/misc/AllConfigs.bin", 1200, 1201);
    s.text(false, "FINF=NULL", 1202, 1203);
    s.log("DSP", "FINF=NULL", 1303);
    s.text(true, chunk, 1400, 1401);
    s.text(true, chunk, 2208, 2209);
    s.text(true, chunk, 3016, 3017);
    s.text(false, "FWDAT=0,2,OK", 3018, 3019);
    s.log("DSP", "dsp not respond", 2208);
    s.log("DSP", "FWDAT=0,2,OK", 3119);
    // A PTZ request resent once, then answered.
    s.wire("ptz", true, Script::frame(0x02, 0x05), 5000, 5006);
    s.wire("ptz", true, Script::frame(0x02, 0x05), 5520, 5526);
    s.wire("ptz", false, Script::frame(0x02, 0x06), 5530, 5536);
    s.timeline.addMark("bench rows", "made-up session", s.at(0), s.at(6000));

    const json doc = json::parse(s.timeline.json(), nullptr, false);
    ASSERT_FALSE(doc.is_discarded());
    const auto answered = spansOn(doc, "dsp reply waits", "MV=? -> MV=-9.00");
    ASSERT_EQ(answered.size(), 1u);
    EXPECT_NEAR(answered[0]["ts"].get<double>(), 0.0, 1.0);
    EXPECT_NEAR(answered[0]["dur"].get<double>(), 103000.0, 1.0) << "until the module's read, not the wire";
    const auto missing = spansOn(doc, "dsp reply waits", "PER_STAT=1? (no reply)");
    ASSERT_EQ(missing.size(), 1u);
    EXPECT_NEAR(missing[0]["dur"].get<double>(), 900000.0, 1.0);

    const auto retries = spansOn(doc, "retries", "resend FWDAT=0,2");
    ASSERT_EQ(retries.size(), 2u);
    EXPECT_NEAR(retries[0]["dur"].get<double>(), 808000.0, 1.0);
    const auto chunks = spansOn(doc, "dsp file transfer", "chunk 0,2");
    ASSERT_EQ(chunks.size(), 3u);
    EXPECT_EQ(chunks[2]["args"]["answer"], "FWDAT=0,2,OK");
    EXPECT_EQ(spansOn(doc, "dsp file transfer", "FINF").size(), 1u);

    EXPECT_EQ(spansOn(doc, "retries", "resend frame 0x02/0x05").size(), 1u);
    const auto ptz = spansOn(doc, "ptz requests", "frame 0x02/0x05 -> reply");
    ASSERT_EQ(ptz.size(), 1u) << "only the frame the reply came after waited for it";
    EXPECT_NEAR(ptz[0]["ts"].get<double>(), 5520000.0, 1.0);

    const auto logs = eventsWhere(doc, [](const json &e) { return e["ph"] == "i"; });
    EXPECT_EQ(logs.size(), 4u);
    EXPECT_EQ(rowName(doc, 2, 4242), "thread 4242: DSP");
    EXPECT_EQ(spansOn(doc, "bench rows", "made-up session").size(), 1u);
    EXPECT_EQ(rowName(doc, 1, 1), "dsp  module -> device");
}

TEST(Timeline, ListensToTheBoardsTraceUntilDetached)
{
    sim::Board board;
    sim::Timeline timeline;
    timeline.attach(board.trace());
    sim::TraceEvent e;
    e.link = "i2c-1";
    e.toDevice = true;
    e.note = "W 58 p0 [04]=0c";
    e.when = sim::Clock::now();
    board.trace().add(e);
    EXPECT_EQ(timeline.eventCount(), 1u);
    timeline.detach();
    board.trace().add(e);
    EXPECT_EQ(timeline.eventCount(), 1u);
    EXPECT_EQ(board.trace().snapshot().size(), 2u) << "the board keeps its own record";

    std::string error;
    EXPECT_FALSE(timeline.write("/nonexistent-dir/x.json", &error));
    EXPECT_FALSE(error.empty());
    avmtest::TempDir dir;
    ASSERT_TRUE(timeline.write(dir.path() + "/t.json", &error)) << error;
    const json doc = readJson(dir.path() + "/t.json");
    ASSERT_FALSE(doc.is_discarded());
    EXPECT_EQ(spansOn(doc, "i2c-1  module -> device", "W 58 p0 [04]=0c").size(), 1u);
}

} // namespace
