// The audio operations through the module record on the virtual board:
// the command text on the DSP line, the DSP model's state, the persisted
// property and the returned value, with and without an answer; the USB
// mixer's element calls; hostile replies from the DSP.
#include <gtest/gtest.h>

#include <android/log.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "avmanager_hal.h"
#include "dsp/dsp_audio.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_pickup.h"
#include "dsp/dsp_replies.h"
#include "dsp/uac_mixer.h"
#include "dsp_commands.h"
#include "dsp_on_board.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/board.h"
#include "sim/dsp_audio_model.h"
#include "sim/dsp_model.h"
#include "sim/uac_mixer_model.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kWire = 5s; // generous: a busy 2-core machine

using avmtest::msSince;
using avmtest::prop;

// The model applies a command just after recording it.
bool applied(const std::function<bool()> &pred)
{
    return sim::waitUntil(pred, kWire);
}

// The module on a board with the DSP and its audio feature; the USB mixer
// is present unless a test says otherwise.
class AudioBoard : public ::testing::Test, protected avmtest::DspOnBoard {
protected:
    void startModule()
    {
        property_set("persist.vendor.dsp.communication", "1");
        up = avmtest::startModule(hmi);
        ASSERT_TRUE(up);
    }

    void TearDown() override
    {
        if (up)
            avmtest::releaseModule(hmi, &dsp);
    }

    // Everything the module posted before this point has reached the DSP
    // once the marker has.
    void flushWire()
    {
        ASSERT_GE(hmi->send_cmd_to_dsp(hmi, "MARK"), 1);
        ASSERT_TRUE(dsp.waitForCommand("MARK", kWire));
    }

    // What the test's operations sent: the detection thread's version
    // queries go out on their own schedule and are left out.
    std::vector<std::string> wire()
    {
        return avmtest::withoutVersionQueries(avmtest::without(dsp.commands(), "MARK"));
    }

    // The DSP's answer to a level query, as the module reads it. The module
    // waits about 900 ms for the reply and otherwise returns the level it
    // stored (`stored`); on a loaded machine a reply can miss that wait, so
    // the stored level is asked again, up to five times, each a new query
    // on the wire. A module that never reads the answer still fails.
    template <typename Query> int answerTo(Query query, int stored)
    {
        int value = query();
        for (int attempt = 1; attempt < 5 && value == stored; ++attempt)
            value = query();
        return value;
    }

    const avmanager_module_t *hmi = nullptr;
    bool up = false;
};

class AudioHmi : public AudioBoard {
protected:
    void SetUp() override { startModule(); }
    sim::UacMixer mixer{board};
};

// ------------------------------------------------------------------ volume

TEST_F(AudioHmi, MainVolumeRoundTrip)
{
    EXPECT_EQ(hmi->set_volume(hmi, AUDIO_CHANNEL_MAIN, 40), 1);
    ASSERT_TRUE(dsp.waitForCommand("MV=-11.10", kWire));
    EXPECT_TRUE(applied([&] { return audio.mainDb() == -11.1f; }));
    EXPECT_EQ(prop("persist.zel.dsp.volumeVal"), "40");
    EXPECT_EQ(hmi->get_volume(hmi, AUDIO_CHANNEL_MAIN), 40);
    // The DSP answers with the level it holds; a table value reads one step down.
    EXPECT_EQ(answerTo(get_main_volume, 40), 39);
    EXPECT_TRUE(dsp.waitForCommand("MV=?", kWire));
}

TEST_F(AudioHmi, MainVolume100SendsZeroDbAnd101SendsNothing)
{
    EXPECT_EQ(hmi->set_volume(hmi, AUDIO_CHANNEL_MAIN, 100), 1);
    EXPECT_EQ(hmi->set_volume(hmi, AUDIO_CHANNEL_MAIN, 101), 0);
    flushWire();
    EXPECT_EQ(wire(), (std::vector<std::string>{"MV=0.00"}));
    EXPECT_EQ(prop("persist.zel.dsp.volumeVal"), "100");
}

TEST_F(AudioHmi, MainVolumeZeroAndOneAreBothSilent)
{
    hmi->set_volume(hmi, AUDIO_CHANNEL_MAIN, 0);
    hmi->set_volume(hmi, AUDIO_CHANNEL_MAIN, 1);
    flushWire();
    EXPECT_EQ(wire(), (std::vector<std::string>{"MV=-65.00", "MV=-65.00"}));
    EXPECT_TRUE(applied([&] { return audio.mainDb() == -65.0f; }));
}

TEST_F(AudioHmi, SpdifVolumeRoundTrip)
{
    EXPECT_EQ(hmi->set_volume(hmi, AUDIO_CHANNEL_SPDIF, 50), 1);
    ASSERT_TRUE(dsp.waitForCommand("VS=-9.00", kWire));
    EXPECT_TRUE(applied([&] { return audio.spdifDb() == -9.0f; }));
    EXPECT_EQ(prop("persist.zel.dsp.volumeVal"), "50");
    EXPECT_EQ(answerTo(get_spdif_volume, 50), 49);
}

TEST_F(AudioHmi, UnknownChannelSendsNothingButPersists)
{
    EXPECT_EQ(hmi->set_volume(hmi, 7, 40), 0);
    flushWire();
    EXPECT_TRUE(wire().empty());
    EXPECT_EQ(prop("persist.zel.dsp.volumeVal"), "40");
    EXPECT_EQ(g_volume.load(), 40);
    EXPECT_TRUE(mixer.calls().empty());
}

TEST_F(AudioHmi, MainVolumeQueryWithoutReplyFallsBackAfterAbout900Ms)
{
    hmi->set_volume(hmi, AUDIO_CHANNEL_MAIN, 62);
    dsp.setSilent(true);
    auto start = Clock::now();
    EXPECT_EQ(get_main_volume(), 62);
    EXPECT_GE(msSince(start), 800);
    EXPECT_LT(msSince(start), 5000);
    EXPECT_TRUE(dsp.waitForCommand("MV=?", kWire));
}

TEST_F(AudioHmi, DirectMainVolumeIsNotClamped)
{
    EXPECT_EQ(set_main_volume(-80.0f), 1);
    ASSERT_TRUE(dsp.waitForCommand("MV=-80.00", kWire));
    EXPECT_TRUE(applied([&] { return audio.mainDb() == -80.0f; }));
}

// -------------------------------------------------------------------- mute

TEST_F(AudioHmi, MainMuteRoundTripWithReply)
{
    EXPECT_EQ(hmi->set_mute(hmi, AUDIO_CHANNEL_MAIN, 1), 1);
    ASSERT_TRUE(dsp.waitForCommand("MT=1", kWire));
    EXPECT_TRUE(applied([&] { return audio.mainMuted(); }));
    auto start = Clock::now();
    EXPECT_EQ(hmi->get_mute(hmi, AUDIO_CHANNEL_MAIN), 1);
    EXPECT_TRUE(dsp.waitForCommand("MT=?", kWire));
    EXPECT_GE(msSince(start), 90); // the first look comes after 100 ms
    audio.setMainMuted(false);     // the DSP's own state wins over the request
    EXPECT_EQ(hmi->get_mute(hmi, AUDIO_CHANNEL_MAIN), 0);
    EXPECT_TRUE(log.contains("DSP", "dspHal_get_mute bMute 0"));
}

TEST_F(AudioHmi, MainMuteQueryWithoutReplyFallsBackToTheRequest)
{
    hmi->set_mute(hmi, AUDIO_CHANNEL_MAIN, 1);
    ASSERT_TRUE(dsp.waitForCommand("MT=1", kWire));
    dsp.setSilent(true);
    auto start = Clock::now();
    EXPECT_EQ(hmi->get_mute(hmi, AUDIO_CHANNEL_MAIN), 1);
    EXPECT_GE(msSince(start), 800);
    EXPECT_LT(msSince(start), 5000);
}

TEST_F(AudioHmi, SpdifUnmuteBeforeAnyReplySendsZeroDb)
{
    EXPECT_EQ(hmi->set_mute(hmi, AUDIO_CHANNEL_SPDIF, 0), 1);
    ASSERT_TRUE(dsp.waitForCommand("VS=0.00", kWire));
    EXPECT_TRUE(applied([&] { return audio.spdifDb() == 0.0f; }));
}

TEST_F(AudioHmi, SpdifMuteIsMinus65AndTheQueryReadsItBack)
{
    EXPECT_EQ(hmi->set_mute(hmi, AUDIO_CHANNEL_SPDIF, 1), 1);
    ASSERT_TRUE(dsp.waitForCommand("VS=-65.00", kWire));
    ASSERT_TRUE(applied([&] { return audio.spdifDb() == -65.0f; }));
    EXPECT_EQ(hmi->get_mute(hmi, AUDIO_CHANNEL_SPDIF), 1);
    audio.setSpdifDb(-64.99f);
    EXPECT_EQ(hmi->get_mute(hmi, AUDIO_CHANNEL_SPDIF), 0);
}

TEST_F(AudioHmi, SpdifUnmuteRestoresTheLevelTheDspLastReported)
{
    audio.setSpdifDb(-23.7f);
    EXPECT_EQ(get_spdif_volume(), 14); // the reply "VS=-23.70" is now the cached level
    hmi->set_volume(hmi, AUDIO_CHANNEL_SPDIF, 90);
    hmi->set_mute(hmi, AUDIO_CHANNEL_SPDIF, 1);
    hmi->set_mute(hmi, AUDIO_CHANNEL_SPDIF, 0);
    flushWire();
    EXPECT_EQ(wire(), (std::vector<std::string>{"VS=?", "VS=-1.80", "VS=-65.00", "VS=-23.70"}));
}

// --------------------------------------------------------------- USB mixer

TEST_F(AudioHmi, UsbVolume50WritesMinus9ToTheMixer)
{
    // The mixer's write call returns 0, so the operation reports 0.
    EXPECT_EQ(hmi->set_volume(hmi, AUDIO_CHANNEL_UAC, 50), 0);
    EXPECT_EQ(mixer.volume(), -9);
    auto calls = mixer.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_FALSE(calls[0].write);
    EXPECT_EQ(calls[0].numid, 4u);
    EXPECT_TRUE(calls[1].write);
    EXPECT_EQ(calls[1].numid, 4u);
    EXPECT_EQ(calls[1].value, -9);
    EXPECT_EQ(prop("persist.zel.dsp.volumeVal"), "50");
    flushWire();
    EXPECT_TRUE(wire().empty());
}

TEST_F(AudioHmi, UsbVolumeWritesWholeDbForOtherSteps)
{
    hmi->set_volume(hmi, AUDIO_CHANNEL_UAC, 100);
    EXPECT_EQ(mixer.volume(), 0);
    hmi->set_volume(hmi, AUDIO_CHANNEL_UAC, 30);
    EXPECT_EQ(mixer.volume(), -14);
}

TEST_F(AudioHmi, UsbMuteInvertsIntoTheSwitch)
{
    EXPECT_EQ(set_uac_mute(1), 0);
    EXPECT_EQ(mixer.switchValue(), 0);
    EXPECT_EQ(set_uac_mute(0), 0);
    EXPECT_EQ(mixer.switchValue(), 1);
    // Mute 2 writes switch value 3, which the switch (0 or 1) refuses, as
    // the kernel does.
    EXPECT_EQ(set_uac_mute(2), -1);
    EXPECT_EQ(mixer.switchValue(), 1);
    auto calls = mixer.calls();
    ASSERT_EQ(calls.size(), 6u);
    for (const auto &call : calls)
        EXPECT_EQ(call.numid, 3u);
}

TEST_F(AudioHmi, UsbMuteQueryReportsTheSwitchAndTheServiceSeesMute)
{
    mixer.setSwitchValue(1);
    EXPECT_EQ(get_uac_mute(), 1); // sound on
    EXPECT_EQ(hmi->get_mute(hmi, AUDIO_CHANNEL_UAC), 0);
    EXPECT_EQ(hmi->set_mute(hmi, AUDIO_CHANNEL_UAC, 1), 0); // ioctl result 0 reads as not done
    EXPECT_EQ(mixer.switchValue(), 0);
    EXPECT_EQ(get_uac_mute(), 0);
    EXPECT_EQ(hmi->get_mute(hmi, AUDIO_CHANNEL_UAC), 1);
    mixer.setSwitchValue(5);
    EXPECT_EQ(get_uac_mute(), 1);
}

TEST_F(AudioHmi, UsbVolumeReadBack)
{
    EXPECT_EQ(isUacDeviceExist(), 1);
    mixer.setVolume(14336);
    EXPECT_EQ(get_uac_volume(), 14336);
    mixer.setVolume(-9);
    EXPECT_EQ(get_uac_volume(), -9);
    EXPECT_TRUE(log.contains("DSP", "get_uac_volume failed!!"));
}

TEST_F(AudioHmi, UsbMixerRefusingReadsIsReported)
{
    mixer.refuseReads(EIO);
    EXPECT_EQ(set_uac_volume(-9), -1);
    EXPECT_TRUE(log.contains("DSP", "set_uac_volume failed!"));
    EXPECT_EQ(get_uac_volume(), -1);
    EXPECT_TRUE(log.contains("DSP", "get_uac_volume failed!!"));
    log.clear();
    EXPECT_EQ(set_uac_mute(1), -1);
    EXPECT_EQ(get_uac_mute(), -1);
    // The mute calls log nothing (the module's threads may log meanwhile).
    for (const auto &line : log.lines())
        EXPECT_EQ(line.text.find("uac"), std::string::npos) << line.text;
    EXPECT_EQ(hmi->get_mute(hmi, AUDIO_CHANNEL_UAC), 0);
    for (const auto &call : mixer.calls())
        EXPECT_FALSE(call.write);
}

TEST_F(AudioHmi, UsbMixerRefusingWritesIsReported)
{
    mixer.refuseWrites(EPERM);
    mixer.setVolume(100);
    EXPECT_EQ(set_uac_volume(-9), -1);
    EXPECT_TRUE(log.contains("DSP", "set_uac_volume failed!"));
    EXPECT_EQ(mixer.volume(), 100);
    EXPECT_EQ(set_uac_mute(1), -1);
}

// Only the mixer on the board, and no module thread: nothing but this
// test's own thread opens a descriptor, so the number the test frees is
// the one the mixer's open gets.
class QuietMixerBoard : public ::testing::Test {
protected:
    avmtest::LogCapture log;
    sim::Board board;
    sim::UacMixer mixer{board};
};

TEST_F(QuietMixerBoard, UsbMixerOnDescriptorZeroIsFailureWithoutLogAndWithoutClose)
{
    // The pty behind the node, as the descriptor will show it (umockdev
    // reports the node itself with the device numbers of its record).
    struct stat node;
    ASSERT_EQ(stat(board.devPath("/dev/snd/controlC2").c_str(), &node), 0);
    const int saved = dup(0);
    ASSERT_GE(saved, 0);
    close(0);
    const int result = set_uac_volume(-9);
    struct stat zero;
    const bool zeroStillOpen = fstat(0, &zero) == 0;
    const bool zeroIsTheMixer = zeroStillOpen && zero.st_rdev == node.st_rdev;
    // Put the test's own standard input back before asserting.
    dup2(saved, 0);
    close(saved);
    EXPECT_TRUE(zeroIsTheMixer) << "the mixer's open did not get descriptor 0";
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(zeroStillOpen);
    EXPECT_TRUE(mixer.calls().empty());
    EXPECT_EQ(log.countContaining("DSP", "UAC"), 0u);
    EXPECT_EQ(log.countContaining("DSP", "failed"), 0u);
}

class AudioWithoutUsbCard : public AudioBoard {
protected:
    void SetUp() override { startModule(); }
};

TEST_F(AudioWithoutUsbCard, EveryMixerOperationFailsAfterLoggingOpenFailed)
{
    EXPECT_EQ(isUacDeviceExist(), 0);
    EXPECT_EQ(set_uac_volume(-9), -1);
    EXPECT_EQ(get_uac_volume(), -1);
    EXPECT_EQ(set_uac_mute(1), -1);
    EXPECT_EQ(get_uac_mute(), -1);
    EXPECT_EQ(log.count("DSP", "open UAC failed!"), 4u);
    EXPECT_EQ(log.priorityOf("DSP", "open UAC failed!"), ANDROID_LOG_ERROR);
}

TEST_F(AudioWithoutUsbCard, UsbMuteQueryIsNotMutedWhenTheMixerCannotBeOpened)
{
    EXPECT_EQ(hmi->get_mute(hmi, AUDIO_CHANNEL_UAC), 0);
    EXPECT_EQ(hmi->set_volume(hmi, AUDIO_CHANNEL_UAC, 50), 0);
    EXPECT_EQ(prop("persist.zel.dsp.volumeVal"), "50");
}

// ---------------------------------------------------------- balance, tone

TEST_F(AudioHmi, BalanceRoundTrip)
{
    EXPECT_EQ(hmi->set_balance(hmi, 75), 1);
    ASSERT_TRUE(dsp.waitForCommand("BAL_RIGHT=1.00", kWire));
    EXPECT_EQ(wire(), (std::vector<std::string>{"BAL_LEFT=0.50", "BAL_RIGHT=1.00"}));
    EXPECT_TRUE(applied([&] { return audio.balanceLeft() == 0.5f && audio.balanceRight() == 1.0f; }));
    EXPECT_EQ(prop("persist.zel.dsp.balanceVal"), "75");
    EXPECT_EQ(hmi->get_balance(), 75);
}

TEST_F(AudioHmi, Balance51AndOutOfRange)
{
    EXPECT_EQ(hmi->set_balance(hmi, 51), 1);
    EXPECT_EQ(hmi->set_balance(hmi, 101), 0);
    flushWire();
    EXPECT_EQ(wire(), (std::vector<std::string>{"BAL_LEFT=0.98", "BAL_RIGHT=1.00"}));
    EXPECT_EQ(prop("persist.zel.dsp.balanceVal"), "51");
}

TEST_F(AudioHmi, TrebleAndBassInTheUserModeRoundTrip)
{
    property_set("persist.zel.dsp.soundMode", "4");
    EXPECT_EQ(hmi->set_Treble(hmi, 37), 1);
    EXPECT_EQ(hmi->set_Bass(hmi, 80), 1);
    ASSERT_TRUE(dsp.waitForCommand("USER_EQ[7]=6,6000,6.0000,0.7070", kWire));
    EXPECT_TRUE(dsp.waitForCommand("USER_EQ[6]=6,6000,-3.0000,0.7070", kWire));
    EXPECT_TRUE(applied([&] { return audio.eqBand(7).gain == 6.0f; }));
    EXPECT_EQ(audio.eqBand(6).type, 6);
    EXPECT_EQ(audio.eqBand(6).freq, 6000);
    EXPECT_FLOAT_EQ(audio.eqBand(6).gain, -3.0f);
    EXPECT_EQ(audio.eqBand(7).type, 6);
    EXPECT_EQ(prop("persist.zel.dsp.trebleVal"), "37");
    EXPECT_EQ(prop("persist.zel.dsp.bassVal"), "80");
    EXPECT_EQ(hmi->get_Treble(), 37);
    EXPECT_EQ(hmi->get_Bass(), 80);
}

TEST_F(AudioHmi, TrebleInAPresetModeIsSentButNotPersisted)
{
    property_set("persist.zel.dsp.soundMode", "2");
    EXPECT_EQ(hmi->set_Treble(hmi, 37), 1);
    ASSERT_TRUE(dsp.waitForCommand("USER_EQ[6]=6,6000,-3.0000,0.7070", kWire));
    EXPECT_EQ(prop("persist.zel.dsp.trebleVal"), "");
    EXPECT_EQ(hmi->get_Treble(), 30);
    EXPECT_EQ(hmi->get_Bass(), 30);
}

// ------------------------------------------------------ power, hot-plug

TEST_F(AudioHmi, PowerDownReachesTheDspAsPd1)
{
    EXPECT_EQ(hmi->set_powerDown(), 1);
    ASSERT_TRUE(dsp.waitForCommand("PD=1", kWire));
    EXPECT_TRUE(applied([&] { return audio.poweredDown(); }));
    EXPECT_TRUE(log.contains("DSP", "dspHal_set_powerDown success!"));
}

TEST_F(AudioHmi, HotPlugQueryWithReply)
{
    audio.setHotPlugState(1, 1);
    EXPECT_EQ(hmi->get_hotplug(hmi, 1), 1);
    EXPECT_TRUE(dsp.waitForCommand("PER_STAT=1?", kWire));
    audio.setHotPlugState(1, 0);
    EXPECT_EQ(hmi->get_hotplug(hmi, 1), 0);
    EXPECT_TRUE(log.contains("DSP", "dsp_hotPlug_status_update per_id 1 hotplug_stat 0"));
}

TEST_F(AudioHmi, HotPlugQueryForAnotherPeripheralGivesPeripheralOnesState)
{
    audio.setHotPlugState(1, 1);
    audio.setHotPlugState(2, 0);
    EXPECT_EQ(hmi->get_hotplug(hmi, 1), 1);
    EXPECT_EQ(hmi->get_hotplug(hmi, 2), 1);
    EXPECT_TRUE(log.contains("DSP", "dsp_hotPlug_status_update per_id 2 hotplug_stat 0"));
}

TEST_F(AudioHmi, HotPlugQueryWithoutReplyIsZero)
{
    audio.setHotPlugState(1, 1);
    dsp.setSilent(true);
    auto start = Clock::now();
    EXPECT_EQ(hmi->get_hotplug(hmi, 1), 0);
    EXPECT_GE(msSince(start), 800);
    EXPECT_LT(msSince(start), 5000);
}

// ------------------------------------------------------- pickup, routing

TEST_F(AudioHmi, DoaReportRoundTrip)
{
    EXPECT_EQ(hmi->setDspDoaReport(hmi, 1), static_cast<int>(sizeof(DspRequest)));
    ASSERT_TRUE(dsp.waitForCommand("MIC_DOA_REP=1", kWire));
    EXPECT_TRUE(applied([&] { return audio.doaReporting(); }));
    EXPECT_EQ(hmi->getDspDoaReport(), 1);
    hmi->setDspDoaReport(hmi, 0);
    ASSERT_TRUE(dsp.waitForCommand("MIC_DOA_REP=0", kWire));
    ASSERT_TRUE(applied([&] { return !audio.doaReporting(); }));
    EXPECT_EQ(hmi->getDspDoaReport(), 0);
}

TEST_F(AudioHmi, DoaReportQueryWithNoAnswerIsZeroAfterAbout900Ms)
{
    audio.setDoaReporting(true);
    dsp.setSilent(true);
    auto start = Clock::now();
    EXPECT_EQ(hmi->getDspDoaReport(), 0);
    EXPECT_GE(msSince(start), 800);
    EXPECT_LT(msSince(start), 5000);
}

TEST_F(AudioHmi, AudioOutRouteByNameAndBackByIndex)
{
    EXPECT_EQ(hmi->set_dsp_audio_out_mode(hmi, "LINEOUT"), 1);
    ASSERT_TRUE(dsp.waitForCommand("AOM=LINEOUT", kWire));
    EXPECT_TRUE(applied([&] { return audio.audioOutRoute() == "LINEOUT"; }));
    EXPECT_EQ(prop("persist.zel.dsp.audioOutMode"), "LINEOUT");
    EXPECT_EQ(hmi->get_dsp_audio_out_mode(), 1);
    EXPECT_TRUE(dsp.waitForCommand("AOM=?", kWire));
}

TEST_F(AudioHmi, AudioOutRouteQueryTakesTheDspsAnswerIntoTheProperty)
{
    property_set("persist.zel.dsp.audioOutMode", "SPEAKER");
    audio.setAudioOutRoute("WIREMIC");
    EXPECT_EQ(hmi->get_dsp_audio_out_mode(), 3);
    EXPECT_EQ(prop("persist.zel.dsp.audioOutMode"), "WIREMIC");
}

TEST_F(AudioHmi, AudioOutRouteQueryWithoutAnswerUsesTheStoredRoute)
{
    property_set("persist.zel.dsp.audioOutMode", "EARPHONE");
    dsp.setSilent(true);
    auto start = Clock::now();
    EXPECT_EQ(hmi->get_dsp_audio_out_mode(), 2);
    EXPECT_GE(msSince(start), 250);
    EXPECT_LT(msSince(start), 5000);
}

TEST_F(AudioHmi, MicBarAndZoomReachTheDsp)
{
    EXPECT_GT(dspHal_set_mic_bar_angle(30, 150, 1), 0);
    ASSERT_TRUE(dsp.waitForCommand("MIC_BAR=30,150,static", kWire));
    ASSERT_TRUE(applied([&] { return audio.micBar().isStatic; }));
    EXPECT_EQ(audio.micBar().start, 30);
    EXPECT_EQ(audio.micBar().end, 150);
    EXPECT_TRUE(audio.micBar().isStatic);
    EXPECT_GT(dspHal_set_mic_bar_angle(10, 20, 0), 0);
    ASSERT_TRUE(dsp.waitForCommand("MIC_BAR=10,20", kWire));
    EXPECT_TRUE(applied([&] { return !audio.micBar().isStatic && audio.micBar().end == 20; }));
    EXPECT_EQ(dspHal_set_zoom_enable(1), 0);
    ASSERT_TRUE(dsp.waitForCommand("ZOOM_MODE=1", kWire));
    EXPECT_TRUE(applied([&] { return audio.zoomMode() == 1; }));
}

TEST_F(AudioHmi, EqualiserBandReadBack)
{
    audio.setEqBand(3, {1, 1000, 2.5f, 0.707f});
    UserEqInfo *band = get_dsp_EQInfo(3);
    ASSERT_NE(band, nullptr);
    EXPECT_EQ(band->index.load(), 3);
    EXPECT_EQ(band->type.load(), 1);
    EXPECT_EQ(band->freq.load(), 1000);
    EXPECT_FLOAT_EQ(band->gain.load(), 2.5f);
    EXPECT_FLOAT_EQ(band->q.load(), 0.707f);
    EXPECT_EQ(get_dsp_EQInfo(8), nullptr);
    flushWire();
    EXPECT_EQ(wire(), (std::vector<std::string>{"USER_EQ[3]=?"}));
}

TEST_F(AudioHmi, VersionAnnouncementIsPublished)
{
    audio.announceVersion("DSP-9.8.7-madeup");
    ASSERT_TRUE(sim::waitUntil([] { return prop("persist.sys.dune.version") == "DSP-9.8.7-madeup"; },
                               kWire));
    // The update flag is written just after the version: wait for it too.
    EXPECT_TRUE(sim::waitUntil([] { return prop("persist.sys.dune.update") == "0"; }, kWire))
        << prop("persist.sys.dune.update");
    EXPECT_TRUE(log.waitFor("DETECT_HAL", "dsp_fullVersion_update DSP-9.8.7-madeup", kWire));
}

// --------------------------------------------------------- hostile replies

// Sends a reply, then a harmless one after a gap; once the second has been
// handled the first has been too.
class AudioHostile : public AudioHmi {
protected:
    void sendThenSync(const std::string &reply)
    {
        mainMuteReplied = 0;
        dsp.send(reply);
        // The port's read timing splits chunks on silence; a receive thread
        // held off on a busy machine may still read both in one chunk, where
        // only the first counts, so the harmless one goes again until one is
        // read on its own.
        for (int i = 0; i < 10 && mainMuteReplied.load() == 0; ++i) {
            std::this_thread::sleep_for(250ms);
            dsp.send("MT=0");
            sim::waitUntil([] { return mainMuteReplied.load() >= 1; }, 1s);
        }
        ASSERT_GE(mainMuteReplied.load(), 1);
    }
};

TEST_F(AudioHostile, LongReplyIsHandledWithoutOverrun)
{
    sendThenSync("MV=-12.50" + std::string(502, ' '));
    EXPECT_EQ(mainDbReply.load(), -12.5f);
    sendThenSync("PER_STAT=" + std::string(502, ','));
    sendThenSync("PER_STAT=" + std::string(502, '7'));
    sendThenSync("VER_FULL=" + std::string(502, 'v'));
    sendThenSync("USER_EQ[1]=" + std::string(500, '9'));
    sendThenSync(std::string(511, 'A'));
}

TEST_F(AudioHostile, TruncatedRepliesChangeOnlyWhatTheyDescribe)
{
    mainDbReplied = 0;
    mainDbReply = -30.0f;
    sendThenSync("MV=");        // an empty number reads as 0.0 dB: accepted
    EXPECT_EQ(mainDbReply.load(), 0.0f);
    mainDbReplied = 0;
    sendThenSync("MV=-9");
    EXPECT_EQ(mainDbReply.load(), -9.0f);
    sendThenSync("MIC_DOA_REP=");
    EXPECT_EQ(doaReportReplied.load(), 0);
    sendThenSync("USER_EQ[9");
    for (auto &flag : userEqInfoReplied)
        EXPECT_EQ(flag.load(), 0);
    sendThenSync("USER_EQ");
    EXPECT_EQ(userEqInfoReplied[0].load(), 1); // a line without a band reads as band 0
    EXPECT_EQ(userEqInfo[0].type.load(), 0);
}

TEST_F(AudioHostile, NonNumericLevelsAreIgnored)
{
    mainDbReply = -30.0f;
    spdifDbReply = -31.0f;
    sendThenSync("MV=nan");
    sendThenSync("VS=1e99");
    sendThenSync("MV=-1e99");
    EXPECT_EQ(mainDbReplied.load(), 0);
    EXPECT_EQ(spdifDbReplied.load(), 0);
    EXPECT_EQ(mainDbReply.load(), -30.0f);
    EXPECT_EQ(spdifDbReply.load(), -31.0f);
}

// Binary bytes, a zero byte inside a reply, fields that are not numbers:
// the receive thread goes on (each reply is followed by one that must be
// read), and each handler reads the text up to the zero byte, or up to the
// first field it cannot read, as it reads any reply.
TEST_F(AudioHostile, UnterminatedAndBinaryChunksDoNotCrash)
{
    std::string binary;
    for (int i = 0; i < 300; ++i)
        binary.push_back(static_cast<char>(i * 37));
    // The level ends at the zero byte that follows "MV=": no number, which
    // reads as 0 dB, a level the DSP can report.
    mainDbReply = -40.0f;
    sendThenSync("MV=" + binary);
    EXPECT_EQ(mainDbReply.load(), 0.0f);
    // "1" and nothing after the zero byte: peripheral 1, state 0.
    hotPlugState = 7;
    sendThenSync(std::string("PER_STAT=1\0, 1", 14));
    EXPECT_TRUE(log.contains("DSP", "dsp_hotPlug_status_update per_id 1 hotplug_stat 0"));
    EXPECT_EQ(hotPlugState.load(), 0);
    // Band 2 whose type is no number: the fields not reached read as 0.
    userEqInfoReplied[2] = 0;
    userEqInfo[2].type = 9;
    sendThenSync("USER_EQ[2]=\xff\xfe,1,2");
    EXPECT_EQ(userEqInfoReplied[2].load(), 1);
    EXPECT_EQ(userEqInfo[2].type.load(), 0);
    EXPECT_EQ(userEqInfo[2].freq.load(), 0);
}

TEST_F(AudioHostile, SeveralRepliesInOneChunkAreReadAsTheFirst)
{
    mainMuteReply = 0;
    sendThenSync("MV=-7.20MT=1VS=-3.00");
    EXPECT_EQ(mainDbReply.load(), -7.2f);
    EXPECT_EQ(spdifDbReplied.load(), 0);
}

TEST_F(AudioHostile, GarbageAnswersLeaveTheQueriesOnTheirFallbacks)
{
    hmi->set_volume(hmi, AUDIO_CHANNEL_MAIN, 44);
    dsp.setGarbage(true);
    EXPECT_EQ(get_main_volume(), 44);
    EXPECT_EQ(hmi->getDspDoaReport(), 0);
    EXPECT_EQ(get_dsp_EQInfo(5), nullptr);
}

} // namespace
