// The audio and pickup operations down to the request records they post
// into the DSP command pipe, the properties they keep and the answers of
// their queries. The pipe is the real one, under a private board root; no
// transmit thread runs, so the test reads the records back itself, and a
// small stand-in for the receive thread answers queries through the reply
// handlers.
#include <gtest/gtest.h>

#include <android/log.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "avmanager_hal.h"
#include "dsp/dsp_audio.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_pickup.h"
#include "dsp/dsp_replies.h"
#include "dsp_commands.h"
#include "log_capture.h"
#include "module_state.h"
#include "test_helpers.h"

namespace {

using namespace std::chrono_literals;
using avmtest::LogCapture;
using avmtest::FreshRoot;
using avmtest::FreshPropertyStore;
using Clock = std::chrono::steady_clock;

using Posted = avmtest::PostedRequest;

std::vector<Posted> drainPipe() { return avmtest::drainPostedRequests(); }

class AudioCommands : public avmtest::FreshModule {
protected:
    void SetUp() override
    {
        avmtest::FreshModule::SetUp();
        ASSERT_EQ(dsp_mkfifo_init(), 0);
    }

    FreshPropertyStore props_;
    FreshRoot root_;
    LogCapture log_;
};

// Stands in for the receive thread: takes every record out of the pipe and
// lets `answer` call reply handlers for the queries it recognises.
class FakeDsp {
public:
    explicit FakeDsp(std::function<void(const std::string &)> answer) : answer_(std::move(answer))
    {
        thread_ = std::thread([this] {
            while (!stop_) {
                DspRequest request;
                if (dsp_mkfifo_read(&request) > 0) {
                    request.text[DSP_REQUEST_TEXT_SIZE - 1] = '\0';
                    {
                        std::lock_guard<std::mutex> lock(mutex_);
                        seen_.push_back({request.cmd, request.text});
                    }
                    answer_(request.text);
                } else {
                    std::this_thread::sleep_for(1ms);
                }
            }
        });
    }
    ~FakeDsp()
    {
        stop_ = true;
        thread_.join();
    }
    std::vector<Posted> seen()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return seen_;
    }

private:
    std::function<void(const std::string &)> answer_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::vector<Posted> seen_;
    std::thread thread_;
};

using avmtest::msSince;

// ------------------------------------------------------------------ volume

TEST_F(AudioCommands, SetMainVolume100SendsZeroDbPersistsAndReturnsOne)
{
    EXPECT_EQ(dspHal_set_volume(AUDIO_CHANNEL_MAIN, 100), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{23, "MV=0.00"}}));
    EXPECT_EQ(props_.get("persist.zel.dsp.volumeVal"), "100");
    EXPECT_EQ(g_volume.load(), 100);
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_volume value 100"));
    EXPECT_EQ(log_.priorityOf("DSP", "dspHal_set_volume value 100"), ANDROID_LOG_INFO);
}

TEST_F(AudioCommands, SetMainVolume101SendsNothingAndLeavesThePropertyUnchanged)
{
    props_.set("persist.zel.dsp.volumeVal", "40");
    g_volume = 40;
    EXPECT_EQ(dspHal_set_volume(AUDIO_CHANNEL_MAIN, 101), 0);
    EXPECT_TRUE(drainPipe().empty());
    EXPECT_EQ(props_.get("persist.zel.dsp.volumeVal"), "40");
    EXPECT_EQ(g_volume.load(), 40);
    EXPECT_EQ(log_.countContaining("DSP", "dspHal_set_volume"), 0u);
}

TEST_F(AudioCommands, SetMainVolumeZeroAndOneBothSendMinus65)
{
    EXPECT_EQ(dspHal_set_volume(AUDIO_CHANNEL_MAIN, 0), 1);
    EXPECT_EQ(dspHal_set_volume(AUDIO_CHANNEL_MAIN, 1), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{23, "MV=-65.00"}, {23, "MV=-65.00"}}));
}

TEST_F(AudioCommands, SetMainVolume40SendsTheTableLevelWithTwoDecimals)
{
    EXPECT_EQ(dspHal_set_volume(AUDIO_CHANNEL_MAIN, 40), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{23, "MV=-11.10"}}));
    EXPECT_EQ(props_.get("persist.zel.dsp.volumeVal"), "40");
}

TEST_F(AudioCommands, SetSpdifVolumeSendsVsWithCodeFive)
{
    EXPECT_EQ(dspHal_set_volume(AUDIO_CHANNEL_SPDIF, 50), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{5, "VS=-9.00"}}));
    EXPECT_EQ(props_.get("persist.zel.dsp.volumeVal"), "50");
}

TEST_F(AudioCommands, SetVolumeOnAnUnknownChannelSendsNothingButPersistsAndKeepsTheIndex)
{
    EXPECT_EQ(dspHal_set_volume(7, 40), 0);
    EXPECT_TRUE(drainPipe().empty());
    EXPECT_EQ(props_.get("persist.zel.dsp.volumeVal"), "40");
    EXPECT_EQ(g_volume.load(), 40);
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_volume value 40"));
}

TEST_F(AudioCommands, SetMainVolumeDirectDoesNotClampTheLevel)
{
    EXPECT_EQ(set_main_volume(-80.0f), 1);
    EXPECT_EQ(set_main_volume(3.5f), 1);
    EXPECT_EQ(set_spdif_volume(-99.0f), static_cast<int>(sizeof(DspRequest)));
    EXPECT_EQ(drainPipe(),
              (std::vector<Posted>{{23, "MV=-80.00"}, {23, "MV=3.50"}, {5, "VS=-99.00"}}));
}

TEST_F(AudioCommands, GetVolumeReadsThePersistedIndexAndDoesNotAskTheDsp)
{
    props_.set("persist.zel.dsp.volumeVal", "63");
    EXPECT_EQ(dspHal_get_volume(AUDIO_CHANNEL_MAIN), 63);
    EXPECT_TRUE(drainPipe().empty());
    EXPECT_TRUE(log_.contains("DSP", "dspHal_get_volume value 63"));
}

TEST_F(AudioCommands, GetVolumeOfAnUnsetPropertyIsZero)
{
    EXPECT_EQ(dspHal_get_volume(0), 0);
}

TEST_F(AudioCommands, MainVolumeReplyOfZeroDbReads99)
{
    FakeDsp dsp([](const std::string &q) {
        if (q == "MV=?")
            dsp_main_dbVol_update("MV=0.00");
    });
    EXPECT_EQ(get_main_volume(), 99);
    EXPECT_EQ(dsp.seen(), (std::vector<Posted>{{23, "MV=?"}}));
}

TEST_F(AudioCommands, MainVolumeReplyOfMinus9Point10Reads49)
{
    FakeDsp dsp([](const std::string &q) {
        if (q == "MV=?")
            dsp_main_dbVol_update("MV=-9.10");
    });
    EXPECT_EQ(get_main_volume(), 49);
}

TEST_F(AudioCommands, MainVolumeWithoutReplyFallsBackToTheLastIndexAfterAbout900Ms)
{
    dspHal_set_volume(AUDIO_CHANNEL_MAIN, 37);
    drainPipe();
    mainDbReplied = 1; // a stale flag from an earlier reply must not count
    auto start = Clock::now();
    EXPECT_EQ(get_main_volume(), 37);
    EXPECT_GE(msSince(start), 800);
    EXPECT_LT(msSince(start), 5000);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{23, "MV=?"}}));
}

TEST_F(AudioCommands, SpdifVolumeQueryUsesTheSpdifReply)
{
    FakeDsp dsp([](const std::string &q) {
        if (q == "VS=?")
            dsp_spdif_dbVol_update("VS=-60.00");
    });
    EXPECT_EQ(get_spdif_volume(), 1);
    EXPECT_EQ(dsp.seen(), (std::vector<Posted>{{5, "VS=?"}}));
}

TEST_F(AudioCommands, ReplyArrivingAfterTheFirstLookIsStillTaken)
{
    FakeDsp dsp([](const std::string &q) {
        if (q == "MV=?") {
            std::this_thread::sleep_for(350ms);
            dsp_main_dbVol_update("MV=-9.00");
        }
    });
    auto start = Clock::now();
    EXPECT_EQ(get_main_volume(), 49);
    EXPECT_GE(msSince(start), 350);
}

// -------------------------------------------------------------------- mute

TEST_F(AudioCommands, MainMuteSendsMtOneAndMtZero)
{
    EXPECT_EQ(dspHal_set_mute(AUDIO_CHANNEL_MAIN, 1), 1);
    EXPECT_EQ(g_mute.load(), 1);
    EXPECT_EQ(dspHal_set_mute(AUDIO_CHANNEL_MAIN, 0), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{24, "MT=1"}, {24, "MT=0"}}));
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_mute bMute 1"));
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_mute bMute 0"));
}

TEST_F(AudioCommands, SpdifUnmuteBeforeAnyReplySendsZeroDb)
{
    EXPECT_EQ(dspHal_set_mute(AUDIO_CHANNEL_SPDIF, 0), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{5, "VS=0.00"}}));
}

TEST_F(AudioCommands, SpdifMuteIsMinus65AndUnmuteRestoresTheLastReportedLevel)
{
    dsp_spdif_dbVol_update("VS=-23.70");
    dspHal_set_volume(AUDIO_CHANNEL_SPDIF, 90);
    drainPipe();
    EXPECT_EQ(dspHal_set_mute(AUDIO_CHANNEL_SPDIF, 1), 1);
    EXPECT_EQ(dspHal_set_mute(AUDIO_CHANNEL_SPDIF, 0), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{5, "VS=-65.00"}, {5, "VS=-23.70"}}));
}

TEST_F(AudioCommands, MuteOnAnUnknownChannelKeepsTheRequestAndSendsNothing)
{
    EXPECT_EQ(dspHal_set_mute(9, 3), 0);
    EXPECT_EQ(g_mute.load(), 3);
    EXPECT_TRUE(drainPipe().empty());
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_mute bMute 3"));
}

TEST_F(AudioCommands, SpdifMuteQueryWithMinus65ReplyIsMuted)
{
    FakeDsp dsp([](const std::string &q) {
        if (q == "VS=?")
            dsp_spdif_dbVol_update("VS=-65.00");
    });
    EXPECT_EQ(get_spdif_mute(), 1);
}

TEST_F(AudioCommands, SpdifMuteQueryWithMinus64Point99ReplyIsNotMuted)
{
    FakeDsp dsp([](const std::string &q) {
        if (q == "VS=?")
            dsp_spdif_dbVol_update("VS=-64.99");
    });
    EXPECT_EQ(dspHal_get_mute(AUDIO_CHANNEL_SPDIF), 0);
    EXPECT_TRUE(log_.contains("DSP", "dspHal_get_mute bMute 0"));
}

TEST_F(AudioCommands, MainMuteQueryUsesTheReply)
{
    FakeDsp dsp([](const std::string &q) {
        if (q == "MT=?")
            dsp_mainMute_status_update("MT=1");
    });
    EXPECT_EQ(dspHal_get_mute(AUDIO_CHANNEL_MAIN), 1);
    EXPECT_EQ(dsp.seen(), (std::vector<Posted>{{24, "MT=?"}}));
    EXPECT_TRUE(log_.contains("DSP", "dspHal_get_mute bMute 1"));
}

TEST_F(AudioCommands, MuteQueriesWithoutReplyFallBackToTheLastRequest)
{
    dspHal_set_mute(AUDIO_CHANNEL_MAIN, 5);
    drainPipe();
    auto start = Clock::now();
    EXPECT_EQ(get_main_mute(), 1);
    EXPECT_GE(msSince(start), 800);
    EXPECT_EQ(get_spdif_mute(), 1);
    dspHal_set_mute(AUDIO_CHANNEL_MAIN, 0);
    EXPECT_EQ(get_main_mute(), 0);
}

TEST_F(AudioCommands, MuteQueryOnAnUnknownChannelIsZeroAndSendsNothing)
{
    EXPECT_EQ(dspHal_get_mute(4), 0);
    EXPECT_TRUE(drainPipe().empty());
}

// ----------------------------------------------------------------- balance

TEST_F(AudioCommands, Balance51SendsLeft098AndRight100)
{
    EXPECT_EQ(dspHal_set_balance(51), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{26, "BAL_LEFT=0.98"}, {26, "BAL_RIGHT=1.00"}}));
    EXPECT_EQ(props_.get("persist.zel.dsp.balanceVal"), "51");
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_balance value 51"));
}

TEST_F(AudioCommands, BalanceGainsAcrossTheRange)
{
    const std::pair<unsigned, std::pair<const char *, const char *>> cases[] = {
        {50, {"BAL_LEFT=1.00", "BAL_RIGHT=1.00"}}, {0, {"BAL_LEFT=1.00", "BAL_RIGHT=0.00"}},
        {100, {"BAL_LEFT=0.00", "BAL_RIGHT=1.00"}}, {75, {"BAL_LEFT=0.50", "BAL_RIGHT=1.00"}},
        {25, {"BAL_LEFT=1.00", "BAL_RIGHT=0.50"}}};
    for (const auto &c : cases) {
        EXPECT_EQ(dspHal_set_balance(c.first), 1);
        EXPECT_EQ(drainPipe(), (std::vector<Posted>{{26, c.second.first}, {26, c.second.second}}))
            << c.first;
    }
}

TEST_F(AudioCommands, BalanceAbove100SendsNothingAndStoresNothing)
{
    EXPECT_EQ(dspHal_set_balance(101), 0);
    EXPECT_TRUE(drainPipe().empty());
    EXPECT_FALSE(props_.isSet("persist.zel.dsp.balanceVal"));
}

TEST_F(AudioCommands, GetBalanceReadsTheProperty)
{
    props_.set("persist.zel.dsp.balanceVal", "61");
    EXPECT_EQ(dspHal_get_balance(), 61);
    EXPECT_TRUE(log_.contains("DSP", "dspHal_get_balance 61"));
    EXPECT_TRUE(drainPipe().empty());
}

// -------------------------------------------------------------------- tone

TEST_F(AudioCommands, Treble37SendsMinus3AndInSoundMode2IsNotPersisted)
{
    props_.set("persist.zel.dsp.soundMode", "2");
    EXPECT_EQ(dspHal_set_treble(37), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{27, "USER_EQ[6]=6,6000,-3.0000,0.7070"}}));
    EXPECT_FALSE(props_.isSet("persist.zel.dsp.trebleVal"));
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_treble value 37"));
    EXPECT_EQ(dspHal_get_treble(), 30);
    EXPECT_TRUE(log_.contains("DSP", "dspHal_get_treble value 30 "));
    EXPECT_EQ(log_.priorityOf("DSP", "dspHal_get_treble value 30 "), ANDROID_LOG_ERROR);
}

TEST_F(AudioCommands, TrebleInTheUserModeIsPersistedAndReadBack)
{
    props_.set("persist.zel.dsp.soundMode", "4");
    EXPECT_EQ(dspHal_set_treble(50), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{27, "USER_EQ[6]=6,6000,0.0000,0.7070"}}));
    EXPECT_EQ(props_.get("persist.zel.dsp.trebleVal"), "50");
    EXPECT_EQ(dspHal_get_treble(), 50);
}

TEST_F(AudioCommands, BassUsesBandSevenWithTheTrebleFilter)
{
    props_.set("persist.zel.dsp.soundMode", "4");
    EXPECT_EQ(dspHal_set_bass(0), 1);
    EXPECT_EQ(dspHal_set_bass(100), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{27, "USER_EQ[7]=6,6000,-10.0000,0.7070"},
                                                {27, "USER_EQ[7]=6,6000,10.0000,0.7070"}}));
    EXPECT_EQ(props_.get("persist.zel.dsp.bassVal"), "100");
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_bass value 0"));
    EXPECT_EQ(dspHal_get_bass(), 100);
    EXPECT_EQ(log_.priorityOf("DSP", "dspHal_get_bass value 100 "), ANDROID_LOG_INFO);
}

TEST_F(AudioCommands, ToneQueriesInPresetModesAreThirtyEvenWithStoredValues)
{
    props_.set("persist.zel.dsp.trebleVal", "80");
    props_.set("persist.zel.dsp.bassVal", "20");
    EXPECT_EQ(dspHal_get_treble(), 30); // unset sound mode reads as 0
    EXPECT_EQ(dspHal_get_bass(), 30);
    props_.set("persist.zel.dsp.soundMode", "4");
    EXPECT_EQ(dspHal_get_treble(), 80);
    EXPECT_EQ(dspHal_get_bass(), 20);
}

TEST_F(AudioCommands, ToneAbove100SendsNothing)
{
    props_.set("persist.zel.dsp.soundMode", "4");
    EXPECT_EQ(dspHal_set_treble(101), 0);
    EXPECT_EQ(dspHal_set_bass(1000), 0);
    EXPECT_TRUE(drainPipe().empty());
    EXPECT_FALSE(props_.isSet("persist.zel.dsp.trebleVal"));
}

// ------------------------------------------------------ power down, hotplug

TEST_F(AudioCommands, PowerDownPostsCodeSixWithAnEmptyText)
{
    EXPECT_EQ(dspHal_set_powerDown(), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{6, ""}}));
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_powerDown success!"));
    EXPECT_FALSE(log_.contains("DSP", "dspHal_set_powerDown failed!"));
}

TEST_F(AudioCommands, HotPlugQueryReturnsThePeripheralOneState)
{
    FakeDsp dsp([](const std::string &q) {
        if (q == "PER_STAT=1?")
            dsp_hotPlug_status_update("PER_STAT=1, 1");
    });
    EXPECT_EQ(dspHal_get_hotPlug(1), 1);
    EXPECT_EQ(dsp.seen(), (std::vector<Posted>{{25, "PER_STAT=1?"}}));
}

TEST_F(AudioCommands, HotPlugQueryForAnotherPeripheralReturnsPeripheralOnesLastState)
{
    dsp_hotPlug_status_update("PER_STAT=1, 4");
    FakeDsp dsp([](const std::string &q) {
        if (q == "PER_STAT=2?")
            dsp_hotPlug_status_update("PER_STAT=2, 1");
    });
    EXPECT_EQ(dspHal_get_hotPlug(2), 4);
}

TEST_F(AudioCommands, HotPlugQueryWithoutReplyIsZero)
{
    dsp_hotPlug_status_update("PER_STAT=1, 4");
    auto start = Clock::now();
    EXPECT_EQ(dspHal_get_hotPlug(1), 0);
    EXPECT_GE(msSince(start), 800);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{25, "PER_STAT=1?"}}));
}

// ------------------------------------------------------------------ pickup

TEST_F(AudioCommands, DoaReportSetterSendsTheStateWithCode29)
{
    EXPECT_EQ(dspHal_set_doa_status(1), static_cast<int>(sizeof(DspRequest)));
    EXPECT_EQ(dspHal_set_doa_status(0), static_cast<int>(sizeof(DspRequest)));
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{29, "MIC_DOA_REP=1"}, {29, "MIC_DOA_REP=0"}}));
}

TEST_F(AudioCommands, DoaReportQueryUsesTheReply)
{
    FakeDsp dsp([](const std::string &q) {
        if (q == "MIC_DOA_REP=?")
            dsp_doa_status_update("MIC_DOA_REP=1");
    });
    EXPECT_EQ(dspHal_get_doa_status(), 1);
    EXPECT_EQ(dsp.seen(), (std::vector<Posted>{{29, "MIC_DOA_REP=?"}}));
}

TEST_F(AudioCommands, DoaReportQueryWithNoDspReturnsZeroAfterAbout900Ms)
{
    dsp_doa_status_update("MIC_DOA_REP=1");
    auto start = Clock::now();
    EXPECT_EQ(dspHal_get_doa_status(), 0);
    EXPECT_GE(msSince(start), 800);
    EXPECT_LT(msSince(start), 5000);
}

TEST_F(AudioCommands, MicBarAngleSendsPlainAndStaticForms)
{
    EXPECT_GT(dspHal_set_mic_bar_angle(30, 150, 0), 0);
    EXPECT_GT(dspHal_set_mic_bar_angle(30, 150, 1), 0);
    EXPECT_GT(dspHal_set_mic_bar_angle(-5, 400, 7), 0);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{29, "MIC_BAR=30,150"},
                                                {29, "MIC_BAR=30,150,static"},
                                                {29, "MIC_BAR=-5,400,static"}}));
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_mic_bar_angle startAngle:30 endAngle:150 isStatic:0"));
}

TEST_F(AudioCommands, ZoomSendsOneForAnyNonZeroAndReturnsZero)
{
    EXPECT_EQ(dspHal_set_zoom_enable(5), 0);
    EXPECT_EQ(dspHal_set_zoom_enable(0), 0);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{29, "ZOOM_MODE=1"}, {29, "ZOOM_MODE=0"}}));
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_zoom_enable[ZOOM_MODE=1] ok"));
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_zoom_enable[ZOOM_MODE=0] ok"));
}

TEST_F(AudioCommands, AudioModeSetterSendsTheNameAndStoresIt)
{
    EXPECT_EQ(dspHal_set_audioMode("LINEOUT"), 1);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{29, "AOM=LINEOUT"}}));
    EXPECT_EQ(props_.get("persist.zel.dsp.audioOutMode"), "LINEOUT");
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_audioOutMode mode LINEOUT"));
}

TEST_F(AudioCommands, AudioModeQueryWithLowerCaseSpeakerFallsBackToZero)
{
    props_.set("persist.zel.dsp.audioOutMode", "speaker");
    auto start = Clock::now();
    EXPECT_EQ(dspHal_get_audioMode(), 0);
    EXPECT_GE(msSince(start), 250); // 15 steps of 20 ms without a reply
    EXPECT_LT(msSince(start), 5000);
    EXPECT_EQ(drainPipe(), (std::vector<Posted>{{29, "AOM=?"}}));
}

TEST_F(AudioCommands, AudioModeQueryWithWiremicReturnsThree)
{
    props_.set("persist.zel.dsp.audioOutMode", "WIREMIC");
    EXPECT_EQ(dspHal_get_audioMode(), 3);
}

TEST_F(AudioCommands, AudioModeQueryOfAnUnsetPropertyIsTheSpeaker)
{
    EXPECT_EQ(dspHal_get_audioMode(), 0);
}

TEST_F(AudioCommands, AudioModeQueryTakesTheRouteTheDspReports)
{
    props_.set("persist.zel.dsp.audioOutMode", "SPEAKER");
    FakeDsp dsp([](const std::string &q) {
        if (q == "AOM=?")
            dsp_parse_audio_out_mode("EARPHONE");
    });
    EXPECT_EQ(dspHal_get_audioMode(), 2);
    EXPECT_EQ(props_.get("persist.zel.dsp.audioOutMode"), "EARPHONE");
}

TEST_F(AudioCommands, EqInfoForIndexEightIsNullAndSendsNothing)
{
    EXPECT_EQ(get_dsp_EQInfo(8), nullptr);
    EXPECT_EQ(get_dsp_EQInfo(0xFFFFFFFFu), nullptr);
    EXPECT_TRUE(drainPipe().empty());
}

TEST_F(AudioCommands, EqInfoQueryReturnsTheBandRecord)
{
    FakeDsp dsp([](const std::string &q) {
        if (q == "USER_EQ[3]=?")
            dsp_parse_EQInfo("USER_EQ[3]=1,1000,2.5,0.7");
    });
    UserEqInfo *band = get_dsp_EQInfo(3);
    ASSERT_EQ(band, &userEqInfo[3]);
    EXPECT_EQ(band->freq.load(), 1000);
    EXPECT_EQ(band->gain.load(), 2.5f);
    EXPECT_EQ(dsp.seen(), (std::vector<Posted>{{27, "USER_EQ[3]=?"}}));
}

TEST_F(AudioCommands, EqInfoQueryWithoutReplyIsNull)
{
    dsp_parse_EQInfo("USER_EQ[2]=1,1000,2.5,0.7");
    auto start = Clock::now();
    EXPECT_EQ(get_dsp_EQInfo(2), nullptr);
    EXPECT_GE(msSince(start), 800);
}

// ------------------------------------------------------- pipe unavailable

// Without the board's /tmp the pipe cannot be created, so every post fails.
class AudioCommandsWithoutPipe : public avmtest::FreshModule {
protected:
    void SetUp() override
    {
        avmtest::FreshModule::SetUp();
        std::filesystem::remove_all(root_.path() + "/tmp");
        ASSERT_EQ(dsp_mkfifo_init(), -1);
    }

    FreshPropertyStore props_;
    FreshRoot root_;
    LogCapture log_;
};

TEST_F(AudioCommandsWithoutPipe, FailedPowerDownLogsBothLinesAndReturnsZero)
{
    EXPECT_EQ(dspHal_set_powerDown(), 0);
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_powerDown failed!"));
    EXPECT_EQ(log_.priorityOf("DSP", "dspHal_set_powerDown failed!"), ANDROID_LOG_ERROR);
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_powerDown success!"));
}

TEST_F(AudioCommandsWithoutPipe, SettersReportTheFailedPost)
{
    EXPECT_EQ(dspHal_set_volume(AUDIO_CHANNEL_MAIN, 30), 0);
    EXPECT_EQ(props_.get("persist.zel.dsp.volumeVal"), "30"); // persisted regardless
    EXPECT_EQ(dspHal_set_mute(AUDIO_CHANNEL_MAIN, 1), 0);
    EXPECT_EQ(dspHal_set_balance(50), 0);
    EXPECT_EQ(set_spdif_volume(-10.0f), -1);
    EXPECT_EQ(set_main_mute(1), -1);
    EXPECT_EQ(dspHal_set_doa_status(1), -1);
    EXPECT_EQ(dspHal_set_mic_bar_angle(0, 180, 1), -1);
}

TEST_F(AudioCommandsWithoutPipe, AudioModeIsNotStoredWhenThePostFails)
{
    props_.set("persist.zel.dsp.audioOutMode", "SPEAKER");
    EXPECT_EQ(dspHal_set_audioMode("LINEOUT"), 0);
    EXPECT_EQ(props_.get("persist.zel.dsp.audioOutMode"), "SPEAKER");
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_audioOutMode mode LINEOUT"));
}

TEST_F(AudioCommandsWithoutPipe, ZoomStillReturnsZero)
{
    EXPECT_EQ(dspHal_set_zoom_enable(1), 0);
    EXPECT_TRUE(log_.contains("DSP", "dspHal_set_zoom_enable[ZOOM_MODE=1] ok"));
}

} // namespace
