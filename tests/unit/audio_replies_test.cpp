// The DSP reply handlers: what each accepts, what it stores, and the
// deliberate oddities of the hot-plug and equaliser parsing.
#include <gtest/gtest.h>

#include <android/log.h>
#include <string>
#include <utility>

#include "camera/camera_pipe.h"
#include "dsp/dsp_replies.h"
#include "log_capture.h"
#include "module_state.h"

namespace {

using avmtest::LogCapture;
using avmtest::FreshPropertyStore;

// Every test starts from a freshly loaded module (reply caches, switches).
class AudioReplies : public avmtest::FreshModule {};

// The first message waiting in the camera pipe after a marker was queued
// behind whatever the handler queued: {type, value}.
std::pair<uint32_t, uint32_t> firstCameraMessageBeforeMarker()
{
    EXPECT_EQ(sendAutoTestToCameraPipe(0x5a5a), 1); // the marker
    uint32_t type = 0, value = 0;
    EXPECT_EQ(recvMsgFromCameraPipe(&type, &value), 1);
    return {type, value};
}

TEST_F(AudioReplies, SpdifLevelOfMinus65IsStored)
{
    EXPECT_EQ(dsp_spdif_dbVol_update("VS=-65.00"), 1);
    EXPECT_EQ(spdifDbReplied.load(), 1);
    EXPECT_EQ(spdifDbReply.load(), -65.0f);
}

TEST_F(AudioReplies, SpdifLevelBelowMinus65OrAboveZeroIsIgnored)
{
    dsp_spdif_dbVol_update("VS=-20.50");
    spdifDbReplied = 0;
    EXPECT_EQ(dsp_spdif_dbVol_update("VS=-65.01"), 1);
    EXPECT_EQ(dsp_spdif_dbVol_update("VS=0.5"), 1);
    EXPECT_EQ(spdifDbReplied.load(), 0);
    EXPECT_EQ(spdifDbReply.load(), -20.5f);
}

TEST_F(AudioReplies, MainLevelInRangeIsStoredWithItsFlag)
{
    EXPECT_EQ(dsp_main_dbVol_update("MV=-9.10"), 1);
    EXPECT_EQ(mainDbReplied.load(), 1);
    EXPECT_EQ(mainDbReply.load(), -9.1f);
    EXPECT_EQ(dsp_main_dbVol_update("MV=0.00"), 1);
    EXPECT_EQ(mainDbReply.load(), 0.0f);
}

TEST_F(AudioReplies, NonNumericOrHugeLevelChangesNothing)
{
    EXPECT_EQ(dsp_main_dbVol_update("MV=abc"), 1); // atof gives 0.0: a valid level
    EXPECT_EQ(mainDbReplied.load(), 1);
    mainDbReplied = 0;
    mainDbReply = -30.0f;
    dsp_main_dbVol_update("MV=nan");
    dsp_main_dbVol_update("MV=1e300");
    dsp_main_dbVol_update("MV=-1e300");
    dsp_main_dbVol_update("MV=-inf");
    EXPECT_EQ(mainDbReplied.load(), 0);
    EXPECT_EQ(mainDbReply.load(), -30.0f);
}

TEST_F(AudioReplies, NullTextGivesZeroAndChangesNothing)
{
    EXPECT_EQ(dsp_spdif_dbVol_update(nullptr), 0);
    EXPECT_EQ(dsp_main_dbVol_update(nullptr), 0);
    EXPECT_EQ(dsp_mainMute_status_update(nullptr), 0);
    EXPECT_EQ(dsp_doa_status_update(nullptr), 0);
    EXPECT_EQ(dsp_hotPlug_status_update(nullptr), 0);
    EXPECT_EQ(dsp_balance_status_update(3, nullptr), 0);
    EXPECT_EQ(dsp_led_status_update(nullptr), 0);
    EXPECT_EQ(dsp_parse_doa(nullptr), 0);
    EXPECT_EQ(dsp_parse_audio_out_mode(nullptr), 0);
    dsp_parse_EQInfo(nullptr);
    dsp_fullVersion_update(nullptr);
    EXPECT_EQ(spdifDbReplied.load() | mainDbReplied.load() | mainMuteReplied.load() |
                  doaReportReplied.load() | hotPlugReplied.load() | audioOutModeReplied.load(),
              0);
    for (auto &flag : userEqInfoReplied)
        EXPECT_EQ(flag.load(), 0);
}

TEST_F(AudioReplies, MuteRepliesZeroAndOneAreStored)
{
    EXPECT_EQ(dsp_mainMute_status_update("MT=1"), 1);
    EXPECT_EQ(mainMuteReply.load(), 1);
    EXPECT_EQ(mainMuteReplied.load(), 1);
    EXPECT_EQ(dsp_mainMute_status_update("MT=0 trailing"), 1);
    EXPECT_EQ(mainMuteReply.load(), 0);
}

TEST_F(AudioReplies, MuteReplyWithValueTwoLeavesTheFlagUnchanged)
{
    // An earlier answer said muted, and a new wait has cleared the flag.
    mainMuteReply = 1;
    mainMuteReplied = 0;
    EXPECT_EQ(dsp_mainMute_status_update("MT=2"), 1);
    EXPECT_EQ(mainMuteReplied.load(), 0);
    EXPECT_EQ(mainMuteReply.load(), 1);
}

TEST_F(AudioReplies, DoaReportStatusOnAndOff)
{
    EXPECT_EQ(dsp_doa_status_update("MIC_DOA_REP=1"), 1);
    EXPECT_EQ(doaReportReply.load(), 1);
    EXPECT_EQ(doaReportReplied.load(), 1);
    doaReportReplied = 0;
    EXPECT_EQ(dsp_doa_status_update("MIC_DOA_REP=0"), 1);
    EXPECT_EQ(doaReportReply.load(), 0);
    EXPECT_EQ(doaReportReplied.load(), 1);
    doaReportReplied = 0;
    EXPECT_EQ(dsp_doa_status_update("MIC_DOA_REP=7"), 1);
    EXPECT_EQ(dsp_doa_status_update("MIC_DOA_REP="), 1);
    EXPECT_EQ(doaReportReplied.load(), 0);
}

TEST_F(AudioReplies, HotPlugOneCommaOneSetsTheFlagButNotTheState)
{
    LogCapture log;
    hotPlugState = 5;
    EXPECT_EQ(dsp_hotPlug_status_update("PER_STAT=1,1"), 1);
    EXPECT_EQ(hotPlugReplied.load(), 1);
    EXPECT_EQ(hotPlugState.load(), 5);
    EXPECT_TRUE(log.contains("DSP", "dsp_hotPlug_status_update per_id 11 hotplug_stat 1"));
    EXPECT_EQ(log.priorityOf("DSP", "dsp_hotPlug_status_update per_id 11 hotplug_stat 1"),
              ANDROID_LOG_INFO);
}

TEST_F(AudioReplies, HotPlugOneCommaBlankOneStoresStateOne)
{
    LogCapture log;
    EXPECT_EQ(dsp_hotPlug_status_update("PER_STAT=1, 1"), 1);
    EXPECT_EQ(hotPlugState.load(), 1);
    EXPECT_EQ(hotPlugReplied.load(), 1);
    EXPECT_TRUE(log.contains("DSP", "dsp_hotPlug_status_update per_id 1 hotplug_stat 1"));
}

TEST_F(AudioReplies, HotPlugLoneOneStoresStateZero)
{
    hotPlugState = 1;
    EXPECT_EQ(dsp_hotPlug_status_update("PER_STAT=1"), 1);
    EXPECT_EQ(hotPlugState.load(), 0);
}

TEST_F(AudioReplies, HotPlugOtherPeripheralIsLoggedButNotStored)
{
    LogCapture log;
    hotPlugState = 7;
    EXPECT_EQ(dsp_hotPlug_status_update("PER_STAT=2, 1"), 1);
    EXPECT_EQ(hotPlugState.load(), 7);
    EXPECT_EQ(hotPlugReplied.load(), 1);
    EXPECT_TRUE(log.contains("DSP", "dsp_hotPlug_status_update per_id 2 hotplug_stat 1"));
}

TEST_F(AudioReplies, HotPlugWithoutTokensGivesZero)
{
    EXPECT_EQ(dsp_hotPlug_status_update("PER_STAT="), 0);
    EXPECT_EQ(dsp_hotPlug_status_update("PER_STAT=,,,"), 0);
    EXPECT_EQ(dsp_hotPlug_status_update("PER"), 0);
    EXPECT_EQ(hotPlugReplied.load(), 0);
}

TEST_F(AudioReplies, HotPlugManyLongTokensStayInsideTheWorkBuffer)
{
    std::string text = "PER_STAT=";
    for (int i = 0; i < 60; ++i)
        text += std::string(40, static_cast<char>('0' + i % 10)) + ",";
    EXPECT_EQ(dsp_hotPlug_status_update(text.c_str()), 1);
    EXPECT_EQ(hotPlugReplied.load(), 1);
}

TEST_F(AudioReplies, UserEqIndexThreeFillsBandThreeAndItsFlag)
{
    dsp_parse_EQInfo("USER_EQ[3]=1,1000,2.5,0.7");
    EXPECT_EQ(userEqInfoReplied[3].load(), 1);
    EXPECT_EQ(userEqInfo[3].index.load(), 3);
    EXPECT_EQ(userEqInfo[3].type.load(), 1);
    EXPECT_EQ(userEqInfo[3].freq.load(), 1000);
    EXPECT_EQ(userEqInfo[3].gain.load(), 2.5f);
    EXPECT_EQ(userEqInfo[3].q.load(), 0.7f);
    for (unsigned i = 0; i < kUserEqBands; ++i) {
        if (i != 3) {
            EXPECT_EQ(userEqInfoReplied[i].load(), 0) << i;
        }
    }
}

TEST_F(AudioReplies, UserEqIndexEightStoresNothing)
{
    dsp_parse_EQInfo("USER_EQ[8]=1,1000,2.5,0.7");
    for (auto &flag : userEqInfoReplied)
        EXPECT_EQ(flag.load(), 0);
}

TEST_F(AudioReplies, UserEqNegativeIndexIsIgnored)
{
    dsp_parse_EQInfo("USER_EQ[-1]=1,1000,2.5,0.7");
    dsp_parse_EQInfo("USER_EQ[-2147483648]=1,1000,2.5,0.7");
    for (auto &flag : userEqInfoReplied)
        EXPECT_EQ(flag.load(), 0);
}

TEST_F(AudioReplies, UserEqFieldsNotScannedStayZero)
{
    dsp_parse_EQInfo("USER_EQ[5]=2,440");
    EXPECT_EQ(userEqInfoReplied[5].load(), 1);
    EXPECT_EQ(userEqInfo[5].type.load(), 2);
    EXPECT_EQ(userEqInfo[5].freq.load(), 440);
    EXPECT_EQ(userEqInfo[5].gain.load(), 0.0f);
    EXPECT_EQ(userEqInfo[5].q.load(), 0.0f);
}

TEST_F(AudioReplies, UserEqTextThatIsNotABandLineReportsBandZeroAsZero)
{
    userEqInfo[0].freq = 123;
    dsp_parse_EQInfo("USER_EQ=?");
    EXPECT_EQ(userEqInfoReplied[0].load(), 1);
    EXPECT_EQ(userEqInfo[0].freq.load(), 0);
}

TEST_F(AudioReplies, BalanceAndLedRepliesAreAcceptedAndNotStored)
{
    EXPECT_EQ(dsp_balance_status_update(3, "BAL_LEFT=0.50"), 1);
    EXPECT_EQ(dsp_balance_status_update(4, "BAL_RIGHT=1.00"), 1);
    EXPECT_EQ(dsp_led_status_update("LS=1"), 1);
}

TEST_F(AudioReplies, DoaReportWithEitherSwitchOffSendsNothingToTheCamera)
{
    FreshPropertyStore props;
    props.set("persist.sys.dsp.sendDoaToCamera", "1");
    props.set("persist.vendor.cam.communication", "0");
    ASSERT_EQ(initCameraPipe(), 0);
    EXPECT_EQ(dsp_parse_doa("90"), 0);
    EXPECT_EQ(firstCameraMessageBeforeMarker(), std::make_pair(2u, 0x5a5au));
}

TEST_F(AudioReplies, DoaReportWithTheDoaSwitchOffSendsNothingToTheCamera)
{
    FreshPropertyStore props;
    props.set("persist.sys.dsp.sendDoaToCamera", "0");
    props.set("persist.vendor.cam.communication", "1");
    ASSERT_EQ(initCameraPipe(), 0);
    EXPECT_EQ(dsp_parse_doa("90"), 0);
    EXPECT_EQ(firstCameraMessageBeforeMarker(), std::make_pair(2u, 0x5a5au));
}

TEST_F(AudioReplies, DoaReportWithBothSwitchesOnGoesToTheCamera)
{
    FreshPropertyStore props;
    props.set("persist.sys.dsp.sendDoaToCamera", "1");
    props.set("persist.vendor.cam.communication", "1");
    ASSERT_EQ(initCameraPipe(), 0);
    EXPECT_EQ(dsp_parse_doa("90"), 1);
    EXPECT_EQ(firstCameraMessageBeforeMarker(), std::make_pair(0u, 90u));
}

TEST_F(AudioReplies, AudioOutModeReplyIsStoredAsSent)
{
    FreshPropertyStore props;
    EXPECT_EQ(dsp_parse_audio_out_mode("LINEOUT"), 1);
    EXPECT_EQ(props.get("persist.zel.dsp.audioOutMode"), "LINEOUT");
    EXPECT_EQ(audioOutModeReplied.load(), 1);
    EXPECT_EQ(dsp_parse_audio_out_mode("speaker"), 1);
    EXPECT_EQ(props.get("persist.zel.dsp.audioOutMode"), "speaker");
}

TEST_F(AudioReplies, AudioOutModeTooLongForAPropertyStillRaisesTheFlag)
{
    FreshPropertyStore props;
    props.set("persist.zel.dsp.audioOutMode", "EARPHONE");
    EXPECT_EQ(dsp_parse_audio_out_mode(std::string(200, 'X').c_str()), 1);
    EXPECT_EQ(props.get("persist.zel.dsp.audioOutMode"), "EARPHONE");
    EXPECT_EQ(audioOutModeReplied.load(), 1);
}

TEST_F(AudioReplies, FullVersionWritesVersionAndUpdatePropertiesAndLogs)
{
    FreshPropertyStore props;
    LogCapture log;
    props.set("persist.sys.dune.update", "1");
    dsp_fullVersion_update("VER_FULL=DSP-2.4.17 (made up)");
    EXPECT_EQ(props.get("persist.sys.dune.version"), "DSP-2.4.17 (made up)");
    EXPECT_EQ(props.get("persist.sys.dune.update"), "0");
    EXPECT_TRUE(log.contains("DETECT_HAL", "dsp_fullVersion_update DSP-2.4.17 (made up)"));
    EXPECT_EQ(log.priorityOf("DETECT_HAL", "dsp_fullVersion_update DSP-2.4.17 (made up)"),
              ANDROID_LOG_ERROR);
}

TEST_F(AudioReplies, FullVersionTooLongForAPropertyFailsSilently)
{
    FreshPropertyStore props;
    props.set("persist.sys.dune.version", "old");
    std::string text = "VER_FULL=" + std::string(600, 'v');
    dsp_fullVersion_update(text.c_str());
    EXPECT_EQ(props.get("persist.sys.dune.version"), "old");
    EXPECT_EQ(props.get("persist.sys.dune.update"), "0");
}

TEST_F(AudioReplies, ShortTextsDoNotReadPastTheirEnd)
{
    FreshPropertyStore props;
    EXPECT_EQ(dsp_main_dbVol_update("M"), 1); // empty value reads as 0.0 dB
    EXPECT_EQ(dsp_mainMute_status_update("M"), 1);
    dsp_fullVersion_update("VER");
    EXPECT_EQ(props.get("persist.sys.dune.version"), "");
    EXPECT_EQ(props.get("persist.sys.dune.update"), "0");
}

TEST_F(AudioReplies, SplitDataFormatCopiesTokensOneCharacterApart)
{
    char out[25] = {};
    EXPECT_EQ(splitDataFormat("PER_STAT=1, 1", out, sizeof out, ","), 2);
    EXPECT_STREQ(out, "1 1");
    char small[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(splitDataFormat("PER_STAT=abcdef,ghijk,lm,no,pq", small, sizeof small, ","), 5);
    EXPECT_EQ(small[3], '\0');
    EXPECT_EQ(splitDataFormat("PER_STAT=", out, sizeof out, ","), 0);
    EXPECT_EQ(splitDataFormat(nullptr, out, sizeof out, ","), -1);
    EXPECT_EQ(splitDataFormat("x", nullptr, 0, ","), -1);
    EXPECT_EQ(splitDataFormat("x", out, sizeof out, nullptr), -1);
}

TEST_F(AudioReplies, ParseIntIsAtoiClampedToTheIntRange)
{
    EXPECT_EQ(dspParseInt(" 42abc"), 42);
    EXPECT_EQ(dspParseInt("-7"), -7);
    EXPECT_EQ(dspParseInt("abc"), 0);
    EXPECT_EQ(dspParseInt(""), 0);
    EXPECT_EQ(dspParseInt(nullptr), 0);
    EXPECT_EQ(dspParseInt("99999999999999999999"), 2147483647);
    EXPECT_EQ(dspParseInt("-99999999999999999999"), -2147483647 - 1);
}

} // namespace
