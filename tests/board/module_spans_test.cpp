// The module's own spans on the virtual board, as the timeline records
// them through the platform's tracing sink: one span per command, request,
// chunk, frame and packet as counted on the wire, nested and in order, with
// their outcomes marked (an answer, a time-out, a resend); and a timeline
// whose file cannot be written (a full or stalled disk) never holds the
// module up.
#include <gtest/gtest.h>

#include <cutils/properties.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <thread>
#include <vector>

#include "amp/amp_program.h"
#include "amp/amp_tuning.h"
#include "amp_fixture.h"
#include "camera/camera_pipe.h"
#include "camera/ptz_link.h"
#include "camera/ptz_requests.h"
#include "codec/usb_hdmi_out.h"
#include "dsp/dsp_audio.h"
#include "dsp/dsp_link.h"
#include "dsp_commands.h"
#include "dsp_store_board.h"
#include "fig_fixture.h"
#include "module_on_board.h"
#include "sim/amp_model.h"
#include "sim/hdmi_out_model.h"
#include "sim/ptz_camera_model.h"
#include "sim/timeline.h"
#include "timeline_spans_board.h"

using namespace std::chrono_literals;
using avmtest::childrenOf;
using avmtest::halAsyncSpans;
using avmtest::halSpans;
using avmtest::namesOf;
using avmtest::timelineDoc;
using avmtest::withPrefix;
using json = nlohmann::json;

namespace {

// The outcome marked inside a span: the names of its children that are
// outcome marks.
std::vector<std::string> outcomes(const std::vector<avmtest::HalSpan> &all, const avmtest::HalSpan &span)
{
    std::vector<std::string> out;
    for (const auto &c : childrenOf(all, span))
        if (c.name == "dsp answered" || c.name == "dsp timed out" || c.name == "dsp not accepted" ||
            c.name == "ptz answered" || c.name == "ptz timed out")
            out.push_back(c.name);
    return out;
}

size_t count(const std::vector<std::string> &all, const std::string &text)
{
    return static_cast<size_t>(std::count(all.begin(), all.end(), text));
}

// ---- DSP: queries, posted commands, the configuration upgrade --------------

class DspSpans : public avmtest::DspStoreBoard {
protected:
    void TearDown() override
    {
        avmtest::DspStoreBoard::TearDown();
        timeline.detach();
    }
    sim::Timeline timeline;
};

TEST_F(DspSpans, AQueryThatTimesOutIsMarkedSoAndOneThatIsAnsweredToo)
{
    startLink();
    timeline.attach(board.trace());
    dsp.setSilent(true);
    get_main_mute();
    dsp.setSilent(false);
    audio.setMainMuted(true);
    // A reply the module reads after its whole wait is a time-out too (a
    // loaded machine), so the query is asked again until one is answered.
    constexpr size_t kMaxAnsweredTries = 5;
    size_t asked = 1;
    int muted = 0;
    while (muted != 1 && asked < 1 + kMaxAnsweredTries) {
        muted = get_main_mute();
        ++asked;
    }
    EXPECT_EQ(muted, 1);
    // One wait per query on the wire, counted once the DSP has read them all.
    EXPECT_TRUE(sim::waitUntil([&] { return count(dsp.commands(), "MT=?") == asked; }, 5s));
    const json doc = timelineDoc(timeline);
    const auto all = halSpans(doc);
    const auto waits = halSpans(doc, "dsp reply wait");
    ASSERT_EQ(waits.size(), count(dsp.commands(), "MT=?"));
    ASSERT_EQ(waits.size(), asked);
    EXPECT_EQ(waits[0].name, "dsp reply wait query=MT=?");
    EXPECT_EQ(waits[0].args["query"], "MT=?");
    for (size_t i = 0; i + 1 < waits.size(); ++i) {
        EXPECT_EQ(outcomes(all, waits[i]), std::vector<std::string>{"dsp timed out"}) << i;
        EXPECT_GE(waits[i].end - waits[i].start, 900000.0) << "the whole wait: nine looks 100 ms apart";
    }
    EXPECT_EQ(outcomes(all, waits.back()), std::vector<std::string>{"dsp answered"});

    // Each posted command is an async span from the post (on this thread)
    // to its write (on the transmit thread), and one write span there.
    const auto commands = halAsyncSpans(doc, "dsp command");
    ASSERT_EQ(commands.size(), dsp.commands().size());
    for (const auto &c : commands) {
        EXPECT_GT(c.end, c.start);
        EXPECT_NE(c.beginTid, c.endTid);
    }
    EXPECT_EQ(halSpans(doc, "dsp write kind=main_mute").size(), asked);
    EXPECT_FALSE(avmtest::counterValues(doc, "dsp queued commands").empty());
    // The receive thread's span for each reply read so far: the answered
    // one, and any late reply to a query asked again.
    const size_t received = halSpans(doc, "dsp receive handler=dsp_mainMute_status_update").size();
    EXPECT_GE(received, 1u);
    EXPECT_LE(received, asked - 1);
}

TEST_F(DspSpans, TheUpgradeIsNestedInTheRestoreAndAResentChunkIsASecondChunkSpan)
{
    sim::installConfigBundle(board, 500);
    store.missChunkOnceAt(240);
    startLink();
    timeline.attach(board.trace());
    store.reboot();
    ASSERT_TRUE(log.waitFor("DSP", "upgradeAllConfigs successful, abort init parameter!", 30s));
    // Both passes are over: nothing writes file commands any more.
    ASSERT_TRUE(sim::waitUntil([] { return !initParameterLock.test(); }, 40s));
    const json doc = timelineDoc(timeline);
    // The model reads the line on a thread of its own, which a busy machine
    // may hold back: it has seen every write once it has as many as the
    // module traced.
    auto caughtUp = [&](const char *prefix, const char *span) {
        return withPrefix(dsp.commands(), prefix).size() >= halSpans(doc, span).size();
    };
    ASSERT_TRUE(sim::waitUntil(
        [&] {
            return caughtUp("FWDAT=", "dsp chunk") && caughtUp("FINF=", "dsp file send word=FINF") &&
                   caughtUp("FWSTR=", "dsp file send word=FWSTR");
        },
        10s));
    const auto all = halSpans(doc);

    // The first restore pass holds the upgrade: the check, then the file.
    const auto restores = halSpans(doc, "dsp restore");
    ASSERT_GE(restores.size(), 1u);
    ASSERT_EQ(namesOf(childrenOf(all, restores[0])), std::vector<std::string>{"dsp config upgrade"});
    const auto upgrade = childrenOf(all, restores[0])[0];
    EXPECT_EQ(namesOf(childrenOf(all, upgrade)),
              (std::vector<std::string>{"dsp file request word=FINF", "dsp file transfer size=500"}));
    const auto transfer = childrenOf(all, upgrade)[1];
    EXPECT_EQ(transfer.args["size"], 500);
    const auto requests = childrenOf(all, transfer);
    ASSERT_EQ(namesOf(requests),
              (std::vector<std::string>{"dsp file request word=FWSTR", "dsp file request word=FWDAT",
                                        "dsp file request word=FWDAT", "dsp file request word=FWDAT",
                                        "dsp file request word=FWEND"}));
    // One chunk span per chunk written, resends included, as on the wire;
    // the second chunk's first copy went unanswered, so it was sent again.
    // (A busy machine may make any answer late and a chunk go again: the
    // counts come from the wire.)
    const std::vector<std::pair<uint32_t, uint32_t>> chunks = {{0, 240}, {240, 240}, {480, 20}};
    for (size_t i = 0; i < chunks.size(); ++i) {
        const auto writes = childrenOf(all, requests[i + 1]);
        const std::string name = "dsp chunk offset=" + std::to_string(chunks[i].first) +
                                 " length=" + std::to_string(chunks[i].second);
        const std::string head = "FWDAT=" + std::to_string(chunks[i].first) + "," +
                                 std::to_string(chunks[i].second) + ",";
        ASSERT_EQ(writes.size(), withPrefix(store.fileCommands(), head).size()) << name;
        for (size_t k = 0; k < writes.size(); ++k)
            EXPECT_EQ(writes[k].name, name + " attempt=" + std::to_string(k + 1));
        EXPECT_EQ(outcomes(all, writes.back()), std::vector<std::string>{"dsp answered"}) << name;
    }
    const auto resent = childrenOf(all, requests[2]);
    ASSERT_GE(resent.size(), 2u) << "the missed chunk went again";
    EXPECT_EQ(outcomes(all, resent[0]), std::vector<std::string>{"dsp timed out"});
    EXPECT_EQ(resent[1].args["offset"], 240);
    EXPECT_EQ(resent[1].args["attempt"], 2);

    // Across the whole session: every chunk written is a chunk span, every
    // file command a send or chunk span; each chunk answered was handled
    // on the receive thread.
    const auto wire = dsp.commands();
    EXPECT_EQ(halSpans(doc, "dsp chunk").size(), withPrefix(wire, "FWDAT=").size());
    EXPECT_EQ(halSpans(doc, "dsp file send word=FINF").size(), withPrefix(wire, "FINF=").size());
    EXPECT_EQ(halSpans(doc, "dsp file send word=FWSTR").size(), withPrefix(wire, "FWSTR=").size());
    EXPECT_GE(halSpans(doc, "dsp file answer word=FWDAT").size(), 3u);
    // The passes of the restore run on their own thread, not the receive
    // thread that reads the answers.
    EXPECT_NE(restores[0].tid, halSpans(doc, "dsp file answer")[0].tid);
}

// ---- PTZ camera -----------------------------------------------------------

class PtzSpans : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(initCameraPipe(), 0);
        ASSERT_EQ(camera_ptzHal_init(), 0);
        timeline.attach(board.trace());
    }
    void TearDown() override
    {
        timeline.detach();
        avmtest::stopPtzLink();
    }
    // Frames of this main/sub pair the module wrote.
    size_t framesSent(uint8_t main, uint8_t sub) const { return camera.countFrames(main, sub); }
    avmtest::LogCapture log;
    sim::Board board;
    sim::PtzCameraModel camera{board};
    sim::Timeline timeline;
};

TEST_F(PtzSpans, ARequestIsOneSpanWithAFrameSpanPerTryAndItsOutcome)
{
    camera.setSilent(true);
    ptz_get_cam_current_temperature();
    camera.setSilent(false);
    camera.setCurrentTemperature(41);
    EXPECT_EQ(ptz_get_cam_current_temperature(), 41u);
    const json doc = timelineDoc(timeline);
    const auto all = halSpans(doc);
    const auto requests = halSpans(doc, "ptz request cmd=18");
    ASSERT_EQ(requests.size(), 2u);
    const auto unanswered = childrenOf(all, requests[0]);
    ASSERT_EQ(namesOf(unanswered),
              (std::vector<std::string>{"ptz frame attempt=1", "ptz frame attempt=2", "ptz frame attempt=3"}));
    for (const auto &frame : unanswered)
        EXPECT_EQ(outcomes(all, frame), std::vector<std::string>{"ptz timed out"});
    const auto answered = childrenOf(all, requests[1]);
    ASSERT_FALSE(answered.empty());
    EXPECT_EQ(outcomes(all, answered.back()), std::vector<std::string>{"ptz answered"});
    // One frame span per frame on the wire: three, then as many as the
    // answer took (a reply late on a busy machine makes it two).
    const auto *row = getPtzProtocolByCmd(PTZ_CMD_GET_CURRENT_TEMPERATURE);
    ASSERT_NE(row, nullptr);
    // The model reads on a thread of its own, which may lag behind.
    const size_t traced = unanswered.size() + answered.size();
    sim::waitUntil([&] { return framesSent(row->sendMain, row->sendSub) >= traced; }, 5s);
    EXPECT_EQ(traced, framesSent(row->sendMain, row->sendSub));
    // The reply's handling on the receive thread.
    EXPECT_GE(halSpans(doc, "ptz receive cmd=18").size(), 1u);
}

TEST_F(PtzSpans, ACameraPipeMessageIsSentUnderItsOwnSpan)
{
    ASSERT_EQ(sendUsbChannelInfoToCameraPipe(2), 1);
    const auto *row = getPtzProtocolByCmd(PTZ_CMD_SEND_USB_CHANNEL);
    ASSERT_NE(row, nullptr);
    ASSERT_TRUE(sim::waitUntil([&] { return framesSent(row->sendMain, row->sendSub) >= 1; }, 5s));
    auto ended = [&] {
        for (const auto &s : halSpans(timelineDoc(timeline), "ptz pipe message"))
            if (s.ended)
                return true;
        return false;
    };
    ASSERT_TRUE(sim::waitUntil(ended, 5s));
    const json doc = timelineDoc(timeline);
    const auto messages = halSpans(doc, "ptz pipe message type=1");
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(namesOf(childrenOf(halSpans(doc), messages[0])), std::vector<std::string>{"ptz request cmd=3"});
}

// ---- amplifiers -----------------------------------------------------------

TEST(AmpSpans, ASwitchCountsItsTransactionsAsTheBusSawThem)
{
    sim::Board board;
    sim::AmpModel amp(board, sim::AmpFitting::Ad82120);
    amptest::generateTuningFiles(board);
    acm8625m_get_dev_status();
    parseAmp_RL_Floor_Info();
    parseAmp_SUB_Floor_Info();
    sim::Timeline timeline;
    timeline.attach(board.trace());
    amp.clearLog();
    HV_SetSoundEQ(AMP_FORMAT_FLOOR);
    const size_t onTheBus = amp.transactionCount();
    HV_SetSoundEQ(AMP_FORMAT_FLOOR);
    timeline.detach();
    const json doc = timelineDoc(timeline);
    const auto switches = halSpans(doc, "amp format switch");
    ASSERT_EQ(switches.size(), 2u);
    EXPECT_EQ(switches[0].name, "amp format switch format=floor");
    EXPECT_EQ(switches[0].args["format"], "floor");
    EXPECT_TRUE(childrenOf(halSpans(doc), switches[0]).empty());
    EXPECT_EQ(namesOf(childrenOf(halSpans(doc), switches[1])), std::vector<std::string>{"amp same format"});
    EXPECT_GT(onTheBus, 100u);
    EXPECT_EQ(avmtest::counterValues(doc, "amp i2c transactions"),
              std::vector<int64_t>{static_cast<int64_t>(onTheBus)});
}

// ---- Fig DSP --------------------------------------------------------------

class FigSpans : public ::testing::Test, protected figtest::FigBoard {
protected:
    ~FigSpans() override { timeline.detach(); }
    sim::Timeline timeline;
};

TEST_F(FigSpans, FramesInAndOutAcknowledgementsAndDoaAreTraced)
{
    startFig();
    timeline.attach(board.trace());
    fig.sendFrame(sim::FigDspModel::kTypeCommand, figtest::pingPayload('4'));
    waitAck('4');
    fig.sendFrame(sim::FigDspModel::kTypeCommand, figtest::pingPayload('|'));
    waitAck('|');
    ASSERT_EQ(dspFigHalAppRequestDoa(1), 0);
    ASSERT_TRUE(fig.waitForCommand("8DOA_ON990", 1, figtest::kWire));
    fig.sendDoaReport(-37.6f);
    ASSERT_TRUE(sim::waitUntil(
        [&] { return !avmtest::counterValues(timelineDoc(timeline), "fig doa angle").empty(); }, figtest::kWire));
    timeline.detach();

    const json doc = timelineDoc(timeline);
    // One acknowledgement span per acknowledgement on the wire, named by
    // the identifier's number, inside the span of the frame it answers.
    const auto acks = halSpans(doc, "fig ack");
    ASSERT_EQ(acks.size(), fig.countAcks());
    EXPECT_EQ(namesOf(acks), (std::vector<std::string>{"fig ack id=52", "fig ack id=124"}));
    for (const auto &ack : acks)
        EXPECT_EQ(ack.within, "fig receive type=32");
    EXPECT_EQ(halSpans(doc, "fig send frame=doa_on").size(), fig.countCommand("8DOA_ON990"));
    EXPECT_EQ(avmtest::counterValues(doc, "fig doa reporting"), std::vector<int64_t>{1});
    EXPECT_EQ(avmtest::counterValues(doc, "fig doa angle"), std::vector<int64_t>{-37});
    EXPECT_EQ(halSpans(doc, "fig receive type=37").size(), 1u) << "the DOA report";
}

// ---- HDMI-out -------------------------------------------------------------

TEST(HdmiSpans, PacketsHeartbeatsAndTheAcknowledgementWaitAreTraced)
{
    sim::Board board;
    avmtest::LogCapture logs;
    sim::HdmiOutModel model(board);
    sim::Timeline timeline;
    timeline.attach(board.trace());
    ASSERT_EQ(codecHal_usb_hdmiOut_init(sim::HdmiOutModel::kVendorId, sim::HdmiOutModel::kProductId), 0);
    ASSERT_EQ(codecHal_usb_hdmiOut_connect(), 1);
    ASSERT_TRUE(model.waitForCount(sim::HdmiOutModel::Kind::Echo, 1, 10s));
    ASSERT_TRUE(logs.waitFor("CODECHAL", "usb_hdmiOut read ack success", 10s));
    std::vector<uint8_t> payload(3 * 512, 0x5A);
    EXPECT_EQ(codecHal_usb_hdmiOut_data_process(1, 1300, 1300, 0, 0, 0, 1280, 720, payload.data()), 0);
    // A heartbeat follows a packet more than a second after the connect.
    std::this_thread::sleep_for(1100ms);
    EXPECT_EQ(codecHal_usb_hdmiOut_data_process(1, 100, 100, 0, 0, 0, 1280, 720, payload.data()), 0);
    ASSERT_TRUE(model.waitForCount(sim::HdmiOutModel::Kind::Heartbeat, 1, 10s));
    codecHal_usb_hdmiOut_deinit();
    timeline.detach();

    const json doc = timelineDoc(timeline);
    const auto waits = halAsyncSpans(doc, "hdmi ack wait");
    ASSERT_EQ(waits.size(), 1u);
    EXPECT_GT(waits[0].end, waits[0].start) << "ended by the reader when the acknowledgement came";
    EXPECT_NE(waits[0].beginTid, waits[0].endTid);
    EXPECT_EQ(halSpans(doc, "hdmi ack echo").size(), model.count(sim::HdmiOutModel::Kind::Echo));
    const auto packets = halSpans(doc, "hdmi packet");
    const auto onTheWire = model.packets(sim::HdmiOutModel::Kind::Data);
    ASSERT_EQ(packets.size(), onTheWire.size());
    ASSERT_EQ(packets.size(), 2u);
    for (size_t i = 0; i < packets.size(); ++i) {
        EXPECT_EQ(packets[i].args["transfers"], onTheWire[i].transfers) << packets[i].name;
        EXPECT_EQ(packets[i].args["length"], onTheWire[i].thisLen);
    }
    EXPECT_EQ(packets[0].name, "hdmi packet type=1 length=1300 transfers=4");
    EXPECT_EQ(halSpans(doc, "hdmi heartbeat").size(), model.count(sim::HdmiOutModel::Kind::Heartbeat));
    EXPECT_EQ(halSpans(doc, "hdmi init").size(), 1u);
    EXPECT_EQ(halSpans(doc, "hdmi deinit").size(), 1u);
}

// ---- a timeline whose file cannot be written ------------------------------

class FailingTimelineDisk : public avmtest::DspStoreBoard {
protected:
    void TearDown() override
    {
        avmtest::DspStoreBoard::TearDown();
        timeline.detach();
    }
    avmtest::TempDir dir;
    sim::Timeline timeline;
};

TEST_F(FailingTimelineDisk, AFullDiskFailsTheWriteWithItsReasonAndTheModuleKeepsItsSpans)
{
    startLink();
    timeline.attach(board.trace());
    EXPECT_EQ(get_main_mute(), 0);
    // The partial file lands on a device that is always full.
    const std::string path = dir.path() + "/session.json";
    ASSERT_EQ(symlink("/dev/full", (path + ".part").c_str()), 0);
    std::string error;
    EXPECT_FALSE(timeline.write(path, &error));
    EXPECT_NE(error.find("No space left on device"), std::string::npos) << error;
    struct stat st;
    EXPECT_NE(lstat((path + ".part").c_str(), &st), 0) << "the partial file is removed";
    EXPECT_NE(stat(path.c_str(), &st), 0) << "nothing half-written under the name";
    // Recording goes on; a later write holds every span, before and after.
    EXPECT_EQ(get_main_mute(), 0);
    ASSERT_TRUE(timeline.write(path, &error)) << error;
    std::FILE *file = std::fopen(path.c_str(), "r");
    ASSERT_NE(file, nullptr);
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, file)) > 0)
        text.append(buf, n);
    std::fclose(file);
    const json doc = json::parse(text, nullptr, false);
    ASSERT_FALSE(doc.is_discarded());
    EXPECT_EQ(halSpans(doc, "dsp reply wait query=MT=?").size(), 2u);
}

TEST_F(FailingTimelineDisk, AStalledWriteNeverHoldsTheModuleUp)
{
    startLink();
    timeline.attach(board.trace());
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(get_main_mute(), 0);
    // A disk that stops taking data: the partial file is a pipe whose
    // reader reads nothing yet and holds one page, so the write stalls
    // once that is full.
    const std::string path = dir.path() + "/session.json";
    ASSERT_EQ(mkfifo((path + ".part").c_str(), 0600), 0);
    // With no reader at all the write gives up at once: under umockdev a
    // waiting open would hold every other path call of the process.
    std::string error;
    EXPECT_FALSE(timeline.write(path, &error));
    EXPECT_NE(error.find("cannot open"), std::string::npos) << error;
    ASSERT_EQ(mkfifo((path + ".part").c_str(), 0600), 0) << "the failed write removed its partial file";
    const int reader = open((path + ".part").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    ASSERT_GE(fcntl(reader, F_SETPIPE_SZ, 4096), 4096);
    ASSERT_GT(timeline.json().size(), 2 * 4096u) << "the record must not fit the pipe";
    std::atomic<bool> written{false};
    bool ok = false;
    std::thread writer([&] {
        std::string reason;
        ok = timeline.write(path, &reason);
        written = true;
    });
    // A service thread goes on querying the DSP meanwhile; a module held up
    // by the stalled write would stop it (and this test fails after its
    // wait instead of hanging: the write is released below either way).
    const size_t before = timeline.halCount();
    std::atomic<size_t> answered{0};
    std::atomic<bool> stop{false};
    std::thread service([&] {
        while (!stop.load()) {
            get_main_mute();
            answered.fetch_add(1);
        }
    });
    // (Only the count is looked at here: the record is not read while the
    // write may hold it.)
    EXPECT_TRUE(sim::waitUntil([&] { return answered.load() >= 5; }, 30s))
        << answered.load() << " queries answered while the write stalled";
    stop.store(true);
    EXPECT_FALSE(written.load()) << "the write was meant to be stalled all along";
    // The disk comes back: what the write sends is read and dropped.
    fcntl(reader, F_SETFL, fcntl(reader, F_GETFL) & ~O_NONBLOCK);
    char buf[65536];
    while (read(reader, buf, sizeof buf) > 0) {
    }
    close(reader);
    writer.join();
    service.join();
    EXPECT_TRUE(ok);
    EXPECT_GT(timeline.halCount(), before + 29) << "spans recorded while the write was stalled";
}

} // namespace
