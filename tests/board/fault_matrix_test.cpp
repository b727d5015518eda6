// The fault matrix: one named test per way a peripheral, a bus or the
// platform lets the module down, each bounded in time, each checking the
// fallback the module is meant to take AND that it keeps serving once the
// fault is gone (a later operation works). The faults are the board
// models' own fault modes.
//
//   FaultDsp      silent, noise between answers, answers split at every
//                 byte, reboot during an upgrade and during a restore, the
//                 port vanishing and coming back
//   FaultCamera   silent, bad checksums, frames split and merged, unplugged
//                 while a request waits
//   FaultI2c      a NACK on every Nth transfer, the fitting absent, the bus
//                 absent
//   FaultUsb      the HDMI-out converter removed in the middle of a stream
//   FaultHid      the camera unplugged in the middle of a log download and
//                 while its version is asked
//   FaultFig      the Fig DSP silent, babbling, sending only broken CRCs
//   FaultMixer    the USB mixer absent, refusing
//   FaultStore    the property store read-only, full
//   FaultPipe     the request pipe's path taken by a regular file, by a
//                 directory
#include <gtest/gtest.h>

#include <android/log.h>
#include <cutils/properties.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include "amp/amp_i2c.h"
#include "amp_fixture.h"
#include "avmanager_hal.h"
#include "camera_on_board.h"
#include "camera/cam_detect.h"
#include "camera/cam_hid.h"
#include "hid_channel.h"
#include "camera/cam_logs.h"
#include "camera/ptz_link.h"
#include "camera/ptz_requests.h"
#include "codec/usb_hdmi_out.h"
#include "dsp/dsp_audio.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_replies.h"
#include "dsp_on_board.h"
#include "fig_fixture.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/amp_model.h"
#include "sim/board.h"
#include "sim/dsp_audio_model.h"
#include "sim/dsp_file_store.h"
#include "sim/dsp_model.h"
#include "sim/fig_dsp_model.h"
#include "sim/hdmi_out_model.h"
#include "sim/ptz_camera_model.h"
#include "sim/uac_mixer_model.h"

using namespace std::chrono_literals;

namespace {

constexpr auto kWire = 5s;        // a command and its answer, on a busy 2-core machine
constexpr auto kLong = 60s;       // an upgrade, a restore, a stream
constexpr long long kDspFallbackMs = 800;   // a DSP query waits 9 x 100 ms before its fallback
constexpr long long kCameraFallbackMs = 1200; // a camera request: 3 sends, 500 ms of polls each
constexpr long long kBoundMs = 8000;        // any single wait, however loaded the machine

constexpr int kMain = AUDIO_CHANNEL_MAIN;
constexpr int kUac = AUDIO_CHANNEL_UAC;

using avmtest::msSince;
using avmtest::prop;
using Clock = std::chrono::steady_clock;

// Runs a query that must fall back: at least `atLeastMs`, never beyond the
// bound; returns its result.
template <class Query>
auto boundedFallback(Query query, long long atLeastMs)
{
    const auto start = Clock::now();
    auto result = query();
    const long long took = msSince(start);
    EXPECT_GE(took, atLeastMs) << "answered although nothing could answer";
    EXPECT_LT(took, kBoundMs) << "the wait has no bound";
    return result;
}

// The module started through HMI on a board with the DSP, its audio
// feature and its file store (a DSP restart forgets the audio settings).
class DspModule : public ::testing::Test, protected avmtest::DspOnBoard {
protected:
    void SetUp() override
    {
        // What start-up posts before the pipe exists goes to descriptor 0.
        ASSERT_TRUE(avmtest::sinkDescriptorZero());
        property_set("persist.vendor.dsp.communication", "1");
        store.addRebootHook([this] { audio.forgetSettings(); });
    }

    void TearDown() override
    {
        // A restore still posting would outlive the link.
        EXPECT_TRUE(sim::waitUntil([] { return !initParameterLock.test(); }, kLong));
        if (up)
            avmtest::releaseModule(hmi, &dsp);
        if (HasFailure())
            for (const auto &l : log.lines())
                std::fprintf(stderr, "  log %s/%d: %.120s\n", l.tag.c_str(), l.priority, l.text.c_str());
    }

    void start()
    {
        up = avmtest::startModule(hmi);
        ASSERT_TRUE(up);
    }

    // Everything posted before has reached the DSP once the marker has.
    void flush(const std::string &marker)
    {
        ASSERT_EQ(hmi->send_cmd_to_dsp(hmi, marker.c_str()), 524);
        ASSERT_TRUE(dsp.waitForCommand(marker, kWire)) << marker;
    }

    // The receive thread has handled every chunk the DSP sent before: it
    // has logged a harmless one sent after them.
    void syncReceiver()
    {
        const std::string marker = "LS=" + std::to_string(++syncs);
        dsp.send(marker);
        ASSERT_TRUE(log.waitFor("DSP", marker, kWire));
    }

    size_t received(const std::string &command) const
    {
        size_t n = 0;
        for (const auto &c : dsp.commands())
            n += c == command;
        return n;
    }

    sim::DspFileStore store{dsp};
    const avmanager_module_t *hmi = nullptr;
    bool up = false;
    int syncs = 0;
};

// ================================================================== DSP

class FaultDsp : public DspModule {};

TEST_F(FaultDsp, SilentDspLeavesEveryQueryOnItsFallbackWithinItsBoundAndCommandsStillGoOut)
{
    start();
    ASSERT_EQ(hmi->set_mute(hmi, kMain, 1), 1);
    ASSERT_TRUE(dsp.waitForCommand("MT=1", kWire));
    dsp.setSilent(true);

    EXPECT_EQ(boundedFallback([&] { return hmi->get_mute(hmi, kMain); }, kDspFallbackMs), 1); // the request
    EXPECT_EQ(boundedFallback([&] { return hmi->get_hotplug(hmi, 1); }, kDspFallbackMs), 0);
    EXPECT_EQ(boundedFallback([&] { return hmi->getDspDoaReport(); }, kDspFallbackMs), 0);
    EXPECT_TRUE(dsp.waitForCommand("MT=?", kWire));
    // The link never gives the DSP up: commands keep going out.
    EXPECT_EQ(hmi->set_volume(hmi, kMain, 40), 1);
    EXPECT_TRUE(dsp.waitForCommand("MV=-11.10", kWire));

    // It speaks again: a query is answered by it, not by the fallback (1).
    // On a busy machine one answer may still miss its 0.9 s wait; one of
    // the queries within the wire bound must not.
    dsp.setSilent(false);
    audio.setMainMuted(false);
    EXPECT_TRUE(sim::waitUntil([&] { return hmi->get_mute(hmi, kMain) == 0; }, kWire));
}

TEST_F(FaultDsp, NoiseBetweenAnswersIsDroppedAndTheAnswersStillCount)
{
    start();
    ASSERT_EQ(hmi->set_mute(hmi, kMain, 1), 1);
    ASSERT_TRUE(dsp.waitForCommand("MT=1", kWire));
    // A query answered as wanted within three tries: a receive thread held
    // off on a busy machine may read a burst and the answer after it as one
    // chunk, which loses that answer (as on the device); the next query
    // gets a fresh burst and answer.
    auto answered = [](const std::function<int()> &query, int want) {
        for (int i = 0; i < 3; ++i)
            if (query() == want)
                return true;
        return false;
    };
    dsp.setNoise(true);
    audio.setMainMuted(false); // the DSP's own state, which only an answer can tell
    audio.setHotPlugState(1, 1);
    EXPECT_TRUE(answered([&] { return hmi->get_mute(hmi, kMain); }, 0));
    EXPECT_TRUE(answered([&] { return hmi->get_hotplug(hmi, 1); }, 1));
    audio.setDoaReporting(true);
    EXPECT_TRUE(answered([&] { return hmi->getDspDoaReport(); }, 1));

    // Answers replaced by garbage leave the queries on their fallbacks.
    dsp.setNoise(false);
    dsp.setGarbage(true);
    EXPECT_EQ(boundedFallback([&] { return hmi->get_mute(hmi, kMain); }, kDspFallbackMs), 1);

    dsp.setGarbage(false);
    EXPECT_TRUE(answered([&] { return hmi->get_mute(hmi, kMain); }, 0));
    EXPECT_EQ(hmi->set_volume(hmi, kMain, 40), 1);
    EXPECT_TRUE(dsp.waitForCommand("MV=-11.10", kWire));
}

TEST_F(FaultDsp, AnswersSplitAtEveryByteAreNeverJoinedAndQueriesFallBack)
{
    start();
    ASSERT_EQ(hmi->set_mute(hmi, kMain, 1), 1);
    ASSERT_TRUE(dsp.waitForCommand("MT=1", kWire));
    audio.setMainMuted(false);
    const size_t logged = log.lines().size();
    dsp.setSplitAnswers(true);
    // "MT=0" arrives a byte at a time, every piece read as a reply of its
    // own, none of them an answer.
    EXPECT_EQ(boundedFallback([&] { return hmi->get_mute(hmi, kMain); }, kDspFallbackMs), 1);
    std::vector<std::string> pieces;
    ASSERT_TRUE(sim::waitUntil(
        [&] {
            // The chunks the receive thread logged since, in order.
            pieces.clear();
            std::string joined;
            const auto lines = log.lines();
            for (size_t i = logged; i < lines.size(); ++i)
                if (lines[i].tag == "DSP" && lines[i].priority == ANDROID_LOG_ERROR && !lines[i].text.empty() &&
                    std::string("MT=0").find(lines[i].text) != std::string::npos) {
                    pieces.push_back(lines[i].text);
                    joined += lines[i].text;
                }
            return joined == "MT=0";
        },
        kWire));
    EXPECT_GE(pieces.size(), 2u);
    EXPECT_EQ(log.count("DSP", "MT=0"), 0u);

    dsp.setSplitAnswers(false);
    EXPECT_EQ(hmi->get_mute(hmi, kMain), 0);
}

TEST_F(FaultDsp, AnAnswerSplitAtAnyByteIsReadAsTwoChunksAndOnlyItsFirstPieceCanCount)
{
    start();
    const std::string answer = "MV=-11.10";
    for (size_t k = 1; k < answer.size(); ++k) {
        SCOPED_TRACE("split after byte " + std::to_string(k));
        const std::string first = answer.substr(0, k);
        const std::string second = answer.substr(k);
        mainDbReplied = 0;
        mainDbReply = -30.0f;
        const size_t firstSeen = log.count("DSP", first);
        const size_t secondSeen = log.count("DSP", second);
        dsp.send(first);
        ASSERT_TRUE(sim::waitUntil([&] { return log.count("DSP", first) > firstSeen; }, kWire));
        dsp.send(second);
        ASSERT_TRUE(sim::waitUntil([&] { return log.count("DSP", second) > secondSeen; }, kWire));
        // Each piece is a reply of its own: only a first piece that still
        // reads as a level (from "MV=" on) is taken, as that level.
        if (k >= 3) {
            const float level = static_cast<float>(std::atof(first.c_str() + 3));
            EXPECT_EQ(mainDbReplied.load(), 1);
            EXPECT_EQ(mainDbReply.load(), level);
        } else {
            EXPECT_EQ(mainDbReplied.load(), 0);
            EXPECT_EQ(mainDbReply.load(), -30.0f);
        }
    }
    // Whole again, the answer is taken whole.
    mainDbReplied = 0;
    dsp.send(answer);
    ASSERT_TRUE(sim::waitUntil([] { return mainDbReplied.load() == 1; }, kWire));
    EXPECT_EQ(mainDbReply.load(), -11.1f);
}

TEST_F(FaultDsp, RebootDuringAConfigurationUpgradeEndsThatTransferAndTheNextPassSendsItWhole)
{
    const std::string bundle = sim::installConfigBundle(board);
    property_set("persist.zel.dsp.volumeVal", "40");
    start();
    store.reboot(); // the DSP has no copy: the whole bundle goes over
    ASSERT_TRUE(sim::waitUntil([&] { return store.chunksAccepted() >= 4; }, kLong));
    store.reboot(); // again, in the middle of the chunks

    // The chunk in flight is refused, that pass gives up and restores the
    // settings; the second pass of the same announcement finds no copy and
    // sends the bundle again, whole.
    ASSERT_TRUE(log.waitFor("DSP", "FWDAT failed\n", kLong));
    ASSERT_TRUE(sim::waitUntil([&] { return store.transfersCompleted() == 1; }, kLong));
    EXPECT_EQ(store.file(sim::kDspConfigPath).value_or(""), bundle);
    EXPECT_TRUE(log.waitFor("DSP", "upgradeAllConfigs successful, abort init parameter!", kLong));
    ASSERT_TRUE(sim::waitUntil([] { return !initParameterLock.test(); }, kLong));
    // The announcement in the middle found the restore running.
    EXPECT_EQ(log.count("DSP", "init_parameter_thread enter \n"), 1u);

    // Serving on: a command, and the next announcement restores (the copy
    // is equal now, so nothing is sent over).
    flush("MARK=1");
    const size_t volumes = received("MV=-11.10");
    store.reboot();
    EXPECT_TRUE(sim::waitUntil([&] { return received("MV=-11.10") > volumes; }, kLong));
    EXPECT_TRUE(log.waitFor("DSP", "NOT Need To Upgrade AllConfigs\n", kLong));
    EXPECT_EQ(store.transfersCompleted(), 1u);
}

TEST_F(FaultDsp, RebootDuringARestoreEndsWithEveryStoredSettingRestored)
{
    property_set("persist.zel.dsp.volumeVal", "40");
    property_set("persist.zel.dsp.balanceVal", "75");
    start();
    store.reboot();
    // The restore is under way: its unmute has reached the DSP...
    ASSERT_TRUE(dsp.waitForCommand("MT=0", kLong));
    // ...when the DSP restarts and forgets everything again.
    store.reboot();
    const std::string announced = "dsp_fullVersion_update " + store.version();
    ASSERT_TRUE(sim::waitUntil([&] { return log.count("DETECT_HAL", announced) == 2; }, kLong));
    syncReceiver(); // the announcement is handled: a restore it started holds the lock
    // Whatever restore runs is over and all it posted has gone out.
    ASSERT_TRUE(sim::waitUntil([] { return !initParameterLock.test(); }, kLong));
    flush("MARK=1");
    // Whatever the timing, the second pass (or, if the restore had already
    // ended, the restore this announcement started) puts everything back.
    EXPECT_TRUE(sim::waitUntil([&] { return audio.mainDb() == -11.1f; }, kLong));
    EXPECT_EQ(audio.balanceLeft(), 0.5f);
    EXPECT_EQ(prop("persist.sys.dune.version"), store.version());

    // And the link serves on.
    audio.setMainMuted(true);
    EXPECT_EQ(hmi->get_mute(hmi, kMain), 1);
}

TEST_F(FaultDsp, PortVanishingAndComingBackIsSurvivedAndARestartReopensIt)
{
    start();
    ASSERT_EQ(hmi->set_volume(hmi, kMain, 40), 1);
    ASSERT_TRUE(dsp.waitForCommand("MV=-11.10", kWire));

    // The port goes: its node disappears and nothing answers on the line.
    board.mask("/dev/ttyS2");
    dsp.setSilent(true);
    EXPECT_EQ(boundedFallback([&] { return hmi->get_mute(hmi, kMain); }, kDspFallbackMs), 0);
    EXPECT_EQ(hmi->set_volume(hmi, kMain, 30), 1); // posted; the link never declares the DSP lost

    // A restart while it is gone fails at the port and says so.
    avmtest::releaseModule(hmi, &dsp);
    up = false;
    EXPECT_EQ(hmi->hal_init(), -1);
    EXPECT_TRUE(log.contains("DSP", "openUsartDevice failed!"));
    EXPECT_TRUE(log.contains("DSP", "dspHal_uart_init error!"));
    EXPECT_TRUE(log.contains("qor_avmanager_hal", "[avmanager_hal_init]:dsp_process_init failed!!"));

    // It comes back: the next restart opens it and the DSP hears the
    // module again.
    ASSERT_FALSE(board.addNode("/dev/ttyS2").empty());
    dsp.setSilent(false);
    avmtest::releaseModule(hmi, &dsp);
    start();
    const size_t before = received("MV=-11.10");
    EXPECT_EQ(hmi->set_volume(hmi, kMain, 40), 1);
    EXPECT_TRUE(sim::waitUntil([&] { return received("MV=-11.10") > before; }, kWire));
    audio.setMainMuted(true);
    EXPECT_EQ(hmi->get_mute(hmi, kMain), 1);
}

// =============================================================== Camera

// The module with camera and DSP communication on, the camera model on
// /dev/ttyS1.
class FaultCamera : public ::testing::Test, protected avmtest::DspOnBoard {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(avmtest::sinkDescriptorZero());
        property_set("persist.vendor.cam.communication", "1");
        property_set("persist.vendor.dsp.communication", "1");
        up = avmtest::startModule(hmi);
        ASSERT_TRUE(up);
        camera.setCurrentTemperature(47);
    }

    void TearDown() override
    {
        if (!up)
            return;
        avmtest::releaseModule(hmi, &dsp);
        avmtest::stopPtzLink(); // the PTZ link outlives release
    }

    int temperature() { return hmi->get_cam_current_temperature(); }

    // The camera answers a request again.
    void expectServing()
    {
        camera.setCurrentTemperature(52);
        EXPECT_EQ(temperature(), 52);
    }

    sim::PtzCameraModel camera{board};
    const avmanager_module_t *hmi = nullptr;
    bool up = false;
};

constexpr uint8_t kTempMain = 0x20; // the current-temperature request's codes
constexpr uint8_t kTempSub = 0xBA;

TEST_F(FaultCamera, SilentCameraGivesEveryRequestItsDefaultWithinItsBound)
{
    camera.setSilent(true);
    EXPECT_EQ(boundedFallback([&] { return temperature(); }, kCameraFallbackMs), -1);
    EXPECT_EQ(camera.countFrames(kTempMain, kTempSub), 3u); // three sends, no more
    EXPECT_EQ(boundedFallback([&] { return hmi->get_camera_autotest_result(); }, kCameraFallbackMs), -1);
    EXPECT_EQ(boundedFallback([&] { return hmi->set_cam_auto_black_screen(hmi, 1); }, kCameraFallbackMs), 0);
    // Each of the three requests was sent three times and given up. The
    // module gives up half a second after its last send; the model may
    // read that frame later on a loaded machine, so it is waited for (up
    // to 5 s), and a tenth frame would still fail.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (camera.frameCount() < 9u && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(camera.frameCount(), 9u);
    EXPECT_EQ(log.count("PTZ", "ptzHalWriteUsart no ack,count:3\n"), 3u);

    camera.setSilent(false);
    expectServing();
}

TEST_F(FaultCamera, BadChecksumsAreLoggedAndDroppedAndTheLinkRecovers)
{
    avmtest::clearRecordedStatuses();
    hmi->set_camera_status_callback(hmi, avmtest::recordStatus);
    camera.setBadChecksum(true);
    EXPECT_EQ(boundedFallback([&] { return temperature(); }, kCameraFallbackMs), -1);
    EXPECT_EQ(log.countContaining("PTZ", "crc failed,expect:"), 3u);
    camera.raiseOpen(); // dropped too: not answered, not reported

    camera.setBadChecksum(false);
    expectServing(); // answered after the bad open frame: that one is done with
    EXPECT_EQ(ptz_cam_is_open(), 0u);
    EXPECT_EQ(camera.countFrames(0x20, 0x01), 0u);
    EXPECT_TRUE(avmtest::recordedStatuses().empty());
    camera.raiseOpen();
    EXPECT_TRUE(sim::waitUntil([] { return ptz_cam_is_open() == 1u; }, kWire));
}

// Bytes the module has read from the camera line, from its frame dumps
// ("read[N]:..." while its debug level is 1 or more).
size_t bytesReadFromCamera(const avmtest::LogCapture &log)
{
    size_t total = 0;
    for (const auto &line : log.lines()) {
        if (line.tag == "PTZ" && line.text.rfind("read[", 0) == 0)
            total += std::strtoul(line.text.c_str() + 5, nullptr, 10);
    }
    return total;
}

TEST_F(FaultCamera, SplitFramesAreLostMergedFramesAreBothTakenAndTheLinkRecovers)
{
    ptzHalSetDebugLevel(1); // every read is dumped: the test sees what the module has taken
    camera.setSplitFrames(true);
    EXPECT_EQ(boundedFallback([&] { return temperature(); }, kCameraFallbackMs), -1);
    EXPECT_EQ(log.countContaining("PTZ", "ptz_parse_packet"), 0u);
    camera.setSplitFrames(false);
    // Every split reply (one per try) must be read before the merged write:
    // a half still waiting on the line would be read with the frames below
    // and shift both across reads. Counted from the module's reads, since a
    // pause proves nothing when its reader runs late.
    // The camera answers each of the three tries once it has read it, which
    // a late camera reader does after the request gave up.
    ASSERT_TRUE(camera.waitForFrames(kTempMain, kTempSub, 3, kWire));
    const size_t sent = camera.countFrames(kTempMain, kTempSub) * sim::PtzCameraModel::kFrameSize;
    EXPECT_TRUE(sim::waitUntil([&] { return bytesReadFromCamera(log) >= sent; }, kWire));
    EXPECT_EQ(bytesReadFromCamera(log), sent);

    // Two frames in one write: the reader takes them as two 64-byte reads.
    const auto open = sim::PtzCameraModel::makeFrame(0x20, 0x00, {});
    const auto angle = sim::PtzCameraModel::makeFrame(0x31, 0x1E, {0, 30, 150});
    std::vector<uint8_t> merged(open.size() + angle.size());
    std::copy(open.begin(), open.end(), merged.begin());
    std::copy(angle.begin(), angle.end(), merged.begin() + static_cast<long>(open.size()));
    camera.sendBytes(merged);
    EXPECT_TRUE(sim::waitUntil([] { return ptz_cam_is_open() == 1u; }, kWire));
    EXPECT_TRUE(camera.waitForFrames(0x20, 0x01, 1, kWire)) << "the open is answered";
    EXPECT_TRUE(camera.waitForFrames(0x31, 0x1F, 1, kWire)) << "the angle report is answered";
    expectServing();
}

TEST_F(FaultCamera, UnpluggedWhileARequestWaitsTheRequestEndsOnItsDefault)
{
    camera.setReplyDelay(400ms); // the answer would come while the request polls
    std::atomic<int> result{0};
    std::atomic<long long> took{-1};
    std::thread asker([&] {
        const auto start = Clock::now();
        result = temperature();
        took = msSince(start);
    });
    ASSERT_TRUE(camera.waitForFrames(kTempMain, kTempSub, 1, kWire));
    camera.setUnplugged(true); // gone, its answer with it
    asker.join();
    EXPECT_EQ(result.load(), -1);
    EXPECT_LT(took.load(), kBoundMs);
    // Unplugged, every request ends on its default.
    EXPECT_EQ(boundedFallback([&] { return hmi->get_camera_autotest_result(); }, kCameraFallbackMs), -1);

    camera.setUnplugged(false);
    camera.setReplyDelay(0ms);
    expectServing();
}

// ================================================================== I2C

// A floor/wall product: start-up programs the floor tuning on the
// amplifiers, each placement request switches them.
class FaultI2c : public ::testing::Test, protected avmtest::DspOnBoard {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(avmtest::sinkDescriptorZero());
        amptest::generateTuningFiles(board);
        property_set("persist.vendor.dsp.communication", "1");
        property_set("persist.vendor.floor_wall", "1");
    }

    void TearDown() override
    {
        if (up)
            avmtest::releaseModule(hmi, &dsp);
    }

    void start()
    {
        up = avmtest::startModule(hmi);
        ASSERT_TRUE(up);
    }

    // A placement request runs to its end and the DSP is told.
    void place(int mode, const char *dspLine)
    {
        const auto started = Clock::now();
        EXPECT_EQ(hmi->set_dsp_spk_eq_mode(hmi, mode), 1);
        EXPECT_LT(msSince(started), 120000) << "a switch must end";
        EXPECT_TRUE(dsp.waitForCommand(dspLine, kWire)) << dspLine;
    }

    void expectFloorProgrammed(const sim::AmpModel &amp)
    {
        amptest::expectAdFormat(amp, sim::AmpModel::kAdMain, m_reg_tab_RL_floor, m_ram1_tab_RL_floor);
        amptest::expectAdFormat(amp, sim::AmpModel::kAdSub, m_reg_tab_SUB_floor, m_ram1_tab_SUB_floor);
    }

    const avmanager_module_t *hmi = nullptr;
    bool up = false;
};

TEST_F(FaultI2c, NackOnEveryNthTransferNeverAbortsASwitchAndAFaultFreeOneProgramsEverything)
{
    sim::AmpModel amp(board, sim::AmpFitting::Ad82120);
    start();
    const uint32_t before = gAmpI2cWriteFailCount.load();
    amp.failEvery(7);
    place(1, "SPK_EQ_MODE=WALL");
    EXPECT_GT(gAmpI2cWriteFailCount.load() - before, 100u) << "every failed write is counted";
    EXPECT_TRUE(log.waitFor("DSP", "Sound i2c_write failed: ", kWire));
    EXPECT_GT(amp.writesTo(sim::AmpModel::kAdMain).size(), 500u) << "the switch ran to its end";

    amp.failEvery(0);
    const bool mainMuted = amp.muted(sim::AmpModel::kAdMain);
    place(0, "SPK_EQ_MODE=FOOT");
    expectFloorProgrammed(amp);
    // A mute the faulty switch left behind is kept, as any mute from
    // before a switch is.
    EXPECT_EQ(amp.muted(sim::AmpModel::kAdMain), mainMuted);
    EXPECT_EQ(prop("persist.zel.dsp.spkEqMode"), "FOOT");
}

TEST_F(FaultI2c, WithTheFittingAbsentEverySwitchRunsToItsEndAndAFittingThatAppearsIsProgrammed)
{
    sim::AmpModel amp(board, sim::AmpFitting::None); // the bus, nothing on it
    start();
    EXPECT_EQ(mDeviceExistStatus.load(), 0) << "no ACM8625 answered: the AD82120 fitting is assumed";
    EXPECT_GT(log.countContaining("DSP", "Sound i2c_write failed: "), 0u);
    place(1, "SPK_EQ_MODE=WALL");
    EXPECT_EQ(prop("persist.zel.dsp.spkEqMode"), "WALL");

    amp.setFitting(sim::AmpFitting::Ad82120);
    place(0, "SPK_EQ_MODE=FOOT");
    expectFloorProgrammed(amp);
    EXPECT_FALSE(amp.muted(sim::AmpModel::kAdMain));
    EXPECT_FALSE(amp.muted(sim::AmpModel::kAdSub));
}

TEST_F(FaultI2c, WithTheBusAbsentStartUpAndEverySwitchRunToTheirEndAndTheDspServesOn)
{
    // No amplifier model: /dev/i2c-1 does not exist.
    start();
    EXPECT_TRUE(log.contains("DSP", "standard_i2c_write Standard_i2c_open Failed\n"));
    place(1, "SPK_EQ_MODE=WALL");
    place(0, "SPK_EQ_MODE=FOOT");
    EXPECT_EQ(hmi->set_volume(hmi, kMain, 40), 1);
    EXPECT_TRUE(dsp.waitForCommand("MV=-11.10", kWire));
}

// ================================================================== USB

class FaultUsb : public ::testing::Test {
protected:
    void TearDown() override { hmi->usb_hdmiOut_deinit(); }

    // A test pattern of `size` bytes, padded to the next 512 (the link
    // reads whole transfers).
    static std::vector<uint8_t> pattern(size_t size, unsigned salt)
    {
        std::vector<uint8_t> buf((size + 511) / 512 * 512, 0);
        std::mt19937 rng(salt);
        for (size_t i = 0; i < size; ++i)
            buf[i] = static_cast<uint8_t>(rng());
        return buf;
    }

    int send(const std::vector<uint8_t> &buf, int thisLen)
    {
        return hmi->usb_hdmiOut_packet_process(hmi, 1, thisLen, thisLen, 1, 2, 3, 1920, 1080, buf.data());
    }

    void ready()
    {
        ASSERT_EQ(hmi->usb_hdmiOut_init(hmi, sim::HdmiOutModel::kVendorId, sim::HdmiOutModel::kProductId), 0);
        ASSERT_EQ(hmi->connect_usb_hdmiOut(), 1);
        ASSERT_TRUE(converter.waitForCount(sim::HdmiOutModel::Kind::Echo, 1, kWire));
    }

    avmtest::LogCapture log;
    sim::Board board;
    sim::HdmiOutModel converter{board};
    const avmanager_module_t *hmi = avmtest::loadModule();
};

TEST_F(FaultUsb, HdmiOutConverterRemovedMidStreamFailsOnlyItsTransfersAndANewInitStreamsAgain)
{
    ASSERT_NE(hmi, nullptr);
    ready();
    std::atomic<bool> done{false};
    std::atomic<int> refused{0};
    std::thread sender([&] {
        const auto buf = pattern(51200, 3);
        for (int i = 0; i < 30; ++i)
            refused += send(buf, 51200) != 0;
        done = true;
    });
    ASSERT_TRUE(sim::waitUntil([&] { return converter.count(sim::HdmiOutModel::Kind::Data) >= 2; }, kWire));
    converter.unplug();
    EXPECT_TRUE(sim::waitUntil([&] { return done.load(); }, kLong)) << "the sender never hangs";
    sender.join();
    EXPECT_EQ(refused.load(), 0); // taken, their transfers failing
    EXPECT_GE(log.count("CODECHAL", "usb_hdmiOut_bulk_xfer tx_buff error -1!"), 1u);
    EXPECT_TRUE(converter.errors().empty()) << converter.errors().front();

    converter.replug();
    converter.clear();
    EXPECT_EQ(hmi->usb_hdmiOut_deinit(), 0);
    ready();
    const auto buf = pattern(3000, 4);
    EXPECT_EQ(send(buf, 3000), 0);
    const auto data = converter.packets(sim::HdmiOutModel::Kind::Data);
    ASSERT_EQ(data.size(), 1u);
    EXPECT_TRUE(data[0].complete);
    EXPECT_TRUE(std::equal(data[0].payload.begin(), data[0].payload.end(), buf.begin()));
    EXPECT_EQ(data[0].payload.size(), 3000u);
}

// ================================================================== HID

// The camera on its sysfs entry and /dev/hidraw0 (see camera_on_board.h).
class FaultHid : public ::testing::Test, protected avmtest::CameraOnBoard {
protected:
    void TearDown() override { avmtest::stopHidChannel(camera); }

    static std::string slurp(const std::string &path)
    {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream out;
        out << in.rdbuf();
        return out.str();
    }

    static constexpr const char *kLogsTag = "CamHidTransferFile";
    const std::string kRemote = "/var/volatile/log/";
    avmtest::TempDir dir;
};

TEST_F(FaultHid, UnpluggedMidDownloadKeepsWhatArrivedEndsWithinItsWaitAndTheNextDownloadIsWhole)
{
    // One byte per report, so the download is still running when the
    // camera goes: short reports (as kernels that pass a short input
    // report on deliver them), else each would carry 61 bytes of padding.
    std::string content;
    for (int line = 0; content.size() < 30000; ++line)
        content += "[" + std::to_string(2000 + line) + ".000001] made-up camera log line\n";
    content.resize(30000);
    camera.setFile(kRemote + "kmsg.log", content);
    camera.setShortReports(true);
    camera.setChunkSize(1);
    int result = 0;
    const auto start = Clock::now();
    std::thread download([&] { result = getCamLog("kmsg", dir.path().c_str()); });
    ASSERT_TRUE(sim::waitUntil([] { return cam_logs_status().received >= 100; }, 20s));
    camera.unplug();
    download.join();
    // The file's wait runs out (800 polls of 10 ms); the next name's
    // request cannot go out and ends the series with its failure.
    EXPECT_LT(msSince(start), 20000);
    EXPECT_LT(result, 0);
    EXPECT_TRUE(log.contains(kLogsTag, "time out finish = " + kRemote + "kmsg.log \n"));
    EXPECT_TRUE(log.contains(kLogsTag, "direct hal_hidraw_sendData FAILED!!"));
    const std::string saved = slurp(dir.path() + "/kmsg.log");
    EXPECT_GE(saved.size(), 100u);
    EXPECT_LT(saved.size(), content.size());
    EXPECT_EQ(saved, content.substr(0, saved.size())) << "what arrived is kept in place";
    EXPECT_EQ(cam_logs_status().stage, static_cast<uint32_t>(CAM_FILE_IDLE));
    EXPECT_FALSE(hal_hidraw_isConnect());

    // Back again: the next download starts the channel anew and is whole.
    camera.plug();
    camera.setChunkSize(62);
    EXPECT_EQ(getCamLog("kmsg", dir.path().c_str()), 64); // kmsg_1 refused: the request's send
    EXPECT_EQ(slurp(dir.path() + "/kmsg.log"), content);
}

TEST_F(FaultHid, UnpluggedWhileItsVersionIsAskedTheVersionStaysUnknownAndIsAskedAgainWhenBack)
{
    camera.setSilent(true);
    EXPECT_EQ(detectCamVersion(), 64);
    ASSERT_TRUE(sim::waitUntil([&] { return camera.versionRequests() == 1; }, 5s));
    camera.unplug();
    // The receive thread's read fails: the channel closes on its own.
    ASSERT_TRUE(sim::waitUntil([] { return !hal_hidraw_isConnect(); }, 5s));
    EXPECT_TRUE(cam_detect_need_update_version());
    EXPECT_EQ(prop("persist.vendor.cam.version"), "");
    // While the node is gone a pass fails at once and says so.
    const auto start = Clock::now();
    EXPECT_EQ(detectCamVersion(), -1);
    EXPECT_LT(msSince(start), 2000);
    EXPECT_TRUE(log.contains("DETECT_HAL", "hal_hidraw_init FAILED!!"));

    camera.plug();
    camera.setSilent(false);
    camera.setVersion("X3M-DUAL 3.1.1 (made up)");
    EXPECT_EQ(detectCamVersion(), 64);
    ASSERT_TRUE(sim::waitUntil([] { return prop("persist.vendor.cam.version") == "X3M-DUAL 3.1.1 (made up)"; }, 5s));
    EXPECT_FALSE(cam_detect_need_update_version());
    EXPECT_EQ(camera.versionRequests(), 2u);
}

// ================================================================== Fig

class FaultFig : public ::testing::Test, protected figtest::FigBoard {
protected:
    void SetUp() override { startFig(); }

    // The microphone opens and the module answers as it should: the
    // acknowledgement and DOA on.
    void expectServing(uint8_t id)
    {
        const size_t doaOn = fig.countCommand(sim::FigDspModel::kDoaOn);
        fig.micOn(id);
        EXPECT_TRUE(fig.waitForAcks(id, 1, figtest::kWire));
        EXPECT_TRUE(fig.waitForCommand(sim::FigDspModel::kDoaOn, doaOn + 1, figtest::kWire));
        EXPECT_EQ(dspFig_mic_is_open(), 1);
    }
};

TEST_F(FaultFig, SilentFigDspLeavesTheVersionUnknownAndTheDoaStatusAsItWasAndIsAskedAgain)
{
    // While it still answers, DOA reporting is turned off: the status
    // becomes 1 (the inverse of reporting), away from its start value.
    EXPECT_EQ(dspFigHalAppRequestDoa(0), 0);
    ASSERT_TRUE(fig.waitForCommand(sim::FigDspModel::kDoaOff, 1, figtest::kWire));
    ASSERT_TRUE(sim::waitUntil([] { return dspFigHal_get_doa_status() == 1; }, figtest::kWire));

    fig.setSilent(true);
    EXPECT_EQ(detect_Fig_Dsp_Version(), 0);
    EXPECT_TRUE(fig.waitForCommand(sim::FigDspModel::kVersion, 1, figtest::kWire));
    EXPECT_EQ(dspFigHalAppRequestDoa(1), 0);
    EXPECT_TRUE(fig.waitForCommand(sim::FigDspModel::kDoaOn, 1, figtest::kWire));
    // No answer to DOA_ON: the status stays what the last answer made it.
    std::this_thread::sleep_for(figtest::kQuiet);
    EXPECT_EQ(dspFigHal_get_doa_status(), 1);
    EXPECT_EQ(prop("persist.sys.fig.dune.version"), "");

    fig.setSilent(false);
    EXPECT_EQ(detect_Fig_Dsp_Version(), 0); // still unknown: asked again
    EXPECT_TRUE(fig.waitForCommand(sim::FigDspModel::kVersion, 2, figtest::kWire));
    EXPECT_TRUE(sim::waitUntil([&] { return prop("persist.sys.fig.dune.version") == fig.version(); },
                               figtest::kWire));
    expectServing('1');
}

TEST_F(FaultFig, BabblingFigDspIsSkippedAndTheFramesInsideTheBabbleAreHandled)
{
    fig.setNoise(true);
    std::mt19937 rng(77);
    sim::FigDspModel::Bytes babble(3000);
    for (auto &b : babble)
        b = static_cast<uint8_t>(rng()); // starts of frames ("#") included
    fig.sendRaw(babble);
    expectServing('1');
    fig.sendRaw(babble);
    const size_t acks = fig.countAcks('2');
    fig.micOff('2');
    EXPECT_TRUE(fig.waitForAcks('2', acks + 1, figtest::kWire));
    EXPECT_TRUE(sim::waitUntil([] { return dspFig_mic_is_open() == 0; }, figtest::kWire));
}

TEST_F(FaultFig, OnlyBrokenCrcsAreDroppedWithoutAnswerAndTheFirstGoodFrameIsHandled)
{
    fig.setCorruptCrc(true);
    for (int i = 0; i < 5; ++i)
        fig.micOn('1');
    fig.sendDoaReport(90.0f);
    fig.setCorruptCrc(false);
    // The good frame after the broken ones is answered: they were dropped.
    fig.sendFrame(sim::FigDspModel::kTypeCommand, figtest::pingPayload('4'));
    ASSERT_TRUE(fig.waitForAcks('4', 1, figtest::kWire));
    EXPECT_EQ(fig.countAcks('1'), 0u);
    EXPECT_EQ(dspFig_mic_is_open(), 0);
    EXPECT_EQ(fig.countCommand(sim::FigDspModel::kDoaOn), 0u);
    expectServing('1');
}

// ================================================================ Mixer

class FaultMixer : public ::testing::Test, protected avmtest::DspOnBoard {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(avmtest::sinkDescriptorZero());
        property_set("persist.vendor.dsp.communication", "1");
    }

    void TearDown() override
    {
        if (up)
            avmtest::releaseModule(hmi, &dsp);
    }

    void start()
    {
        up = avmtest::startModule(hmi);
        ASSERT_TRUE(up);
    }

    // The DSP side is untouched by what the mixer does.
    void expectDspServing()
    {
        const size_t before = dsp.commandCount();
        EXPECT_EQ(hmi->set_volume(hmi, kMain, 40), 1);
        EXPECT_TRUE(dsp.waitForCommandCount(before + 1, kWire));
        EXPECT_TRUE(dsp.waitForCommand("MV=-11.10", kWire));
    }

    const avmanager_module_t *hmi = nullptr;
    bool up = false;
};

TEST_F(FaultMixer, AbsentMixerFailsEveryUsbAudioCallAfterSayingSoAndAMixerThatAppearsIsUsed)
{
    start();
    // (A mixer call that worked reports 0 as well: the ioctl's own result.)
    EXPECT_EQ(hmi->set_volume(hmi, kUac, 50), 0);
    EXPECT_EQ(hmi->set_mute(hmi, kUac, 1), 0);
    EXPECT_EQ(hmi->get_mute(hmi, kUac), 0); // not known to be muted
    EXPECT_EQ(log.count("DSP", "open UAC failed!"), 3u);
    EXPECT_EQ(prop("persist.zel.dsp.volumeVal"), "50");
    expectDspServing();

    sim::UacMixer mixer(board); // the USB audio card is plugged in
    EXPECT_EQ(hmi->set_volume(hmi, kUac, 50), 0);
    EXPECT_EQ(mixer.volume(), -9);
    EXPECT_EQ(hmi->set_mute(hmi, kUac, 1), 0);
    EXPECT_EQ(mixer.switchValue(), 0);
    EXPECT_EQ(hmi->get_mute(hmi, kUac), 1);
    EXPECT_EQ(log.count("DSP", "open UAC failed!"), 3u);
}

TEST_F(FaultMixer, RefusingMixerFailsItsCallsWithTheirLogsAndServesAgainOnceItAccepts)
{
    sim::UacMixer mixer(board);
    mixer.setVolume(-20);
    start();
    mixer.refuseReads(EIO);
    EXPECT_EQ(hmi->set_volume(hmi, kUac, 50), 0);
    EXPECT_EQ(log.count("DSP", "set_uac_volume failed!"), 1u);
    EXPECT_EQ(hmi->set_mute(hmi, kUac, 1), 0);
    EXPECT_EQ(hmi->get_mute(hmi, kUac), 0); // an error reads as not muted
    EXPECT_EQ(mixer.volume(), -20);
    EXPECT_EQ(mixer.switchValue(), 1);
    mixer.refuseReads(0);
    mixer.refuseWrites(EIO);
    EXPECT_EQ(hmi->set_volume(hmi, kUac, 50), 0);
    EXPECT_EQ(log.count("DSP", "set_uac_volume failed!"), 2u);
    EXPECT_EQ(mixer.volume(), -20);
    expectDspServing();

    mixer.refuseWrites(0);
    EXPECT_EQ(hmi->set_volume(hmi, kUac, 50), 0);
    EXPECT_EQ(mixer.volume(), -9);
    EXPECT_EQ(hmi->set_mute(hmi, kUac, 1), 0);
    EXPECT_EQ(hmi->get_mute(hmi, kUac), 1);
    EXPECT_EQ(log.count("DSP", "set_uac_volume failed!"), 2u);
}

// ================================================================ Store

// The property store refuses writes: the module goes on applying settings
// to the peripherals; only what it would have remembered is lost.
class FaultStore : public DspModule {
protected:
    void refuse(const char *marker) { board.writeFile("/properties/" + std::string(marker), ""); }
    void accept(const char *marker) { std::filesystem::remove(board.rootPath("/properties/" + std::string(marker))); }

    void expectWritesRefusedButServed()
    {
        ASSERT_EQ(prop("persist.zel.dsp.volumeVal"), "62");
        EXPECT_EQ(hmi->set_volume(hmi, kMain, 40), 1);
        EXPECT_TRUE(dsp.waitForCommand("MV=-11.10", kWire)) << "the DSP still gets the level";
        EXPECT_EQ(prop("persist.zel.dsp.volumeVal"), "62") << "the stored level stays";
        EXPECT_EQ(hmi->get_volume(hmi, kMain), 62) << "the stored level answers";
        audio.announceVersion("AVM-DSP 9.9.9");
        EXPECT_TRUE(log.waitFor("DETECT_HAL", "dsp_fullVersion_update AVM-DSP 9.9.9", kWire));
        EXPECT_EQ(prop("persist.sys.dune.version"), "");
        // The restore that announcement started sends what is stored.
        const float stored = convertVolToDb(kMain, 62);
        EXPECT_TRUE(sim::waitUntil([&] { return std::fabs(audio.mainDb() - stored) < 0.006f; }, kLong));
        syncReceiver();
        EXPECT_TRUE(sim::waitUntil([] { return !initParameterLock.test(); }, kLong));
    }

    void expectWritesKeptAgain()
    {
        EXPECT_EQ(hmi->set_volume(hmi, kMain, 40), 1);
        EXPECT_EQ(prop("persist.zel.dsp.volumeVal"), "40");
        EXPECT_EQ(hmi->get_volume(hmi, kMain), 40);
    }
};

TEST_F(FaultStore, ReadOnlyStoreKeepsTheOldValuesWhileTheDspGetsTheNewOnes)
{
    property_set("persist.zel.dsp.volumeVal", "62");
    start();
    refuse(".readonly");
    EXPECT_EQ(property_set("persist.test.key", "1"), -EROFS);
    expectWritesRefusedButServed();
    accept(".readonly");
    expectWritesKeptAgain();
}

TEST_F(FaultStore, FullStoreKeepsTheOldValuesWhileTheDspGetsTheNewOnes)
{
    property_set("persist.zel.dsp.volumeVal", "62");
    start();
    refuse(".full");
    EXPECT_EQ(property_set("persist.test.key", "1"), -ENOSPC);
    expectWritesRefusedButServed();
    accept(".full");
    expectWritesKeptAgain();
}

// ================================================================= Pipe

class FaultPipe : public DspModule {
protected:
    std::string fifo() const { return board.rootPath("/tmp/.DSP_fifo"); }
};

TEST_F(FaultPipe, RegularFileOnThePipesPathIsReplacedByThePipeAtStartUp)
{
    board.writeFile("/tmp/.DSP_fifo", "left over from an earlier run");
    start();
    struct stat st;
    ASSERT_EQ(stat(fifo().c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(hmi->set_volume(hmi, kMain, 40), 1);
    EXPECT_TRUE(dsp.waitForCommand("MV=-11.10", kWire));
}

TEST_F(FaultPipe, DirectoryOnThePipesPathFailsStartUpWithoutAHangAndARestartAfterItGoesWorks)
{
    board.writeFile("/tmp/.DSP_fifo/inside", "x");
    const avmanager_module_t *module = avmtest::loadModule();
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(module->hal_init(), -1);
    EXPECT_TRUE(log.contains("DSP", "createnamed pipe failed.\n"));
    EXPECT_TRUE(log.contains("DSP", "mkfifo_dsp_init error!"));
    // Requests are refused at once, not queued nowhere.
    const auto started = Clock::now();
    EXPECT_EQ(module->set_volume(module, kMain, 40), 0);
    EXPECT_LT(msSince(started), kBoundMs);

    std::filesystem::remove_all(fifo());
    avmtest::releaseModule(module, &dsp);
    start();
    EXPECT_EQ(hmi->set_volume(hmi, kMain, 40), 1);
    EXPECT_TRUE(dsp.waitForCommand("MV=-11.10", kWire));
}

} // namespace
