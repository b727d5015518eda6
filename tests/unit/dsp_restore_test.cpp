// Parameter restore without a DSP: what the restore posts into the DSP
// link's pipe (code and text, in order), its log lines and its result. No
// reference bundle exists here, so the upgrade check steps aside at once.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <android/log.h>
#include <cutils/properties.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "dsp/dsp_audio.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_restore.h"
#include "dsp_commands.h"
#include "log_capture.h"
#include "module_state.h"

namespace {

using avmtest::indexOf;

using Posted = avmtest::PostedRequest;

class Restore : public avmtest::FreshModule {
protected:
    void SetUp() override
    {
        avmtest::FreshModule::SetUp();
        ASSERT_EQ(dsp_mkfifo_init(), 0);
    }

    // Everything posted so far, in order.
    static std::vector<Posted> drain() { return avmtest::drainPostedRequests(); }

    static std::vector<std::string> texts(const std::vector<Posted> &posted)
    {
        std::vector<std::string> out;
        for (const auto &p : posted)
            out.push_back(p.text);
        return out;
    }


    avmtest::FreshRoot root;
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
};

} // namespace

TEST_F(Restore, WithNoPropertiesSendsOnlyUnmuteAndFloorEqModeAndLogsOtherStepsFailed)
{
    EXPECT_EQ(dspHalInitParameter(), 1);
    std::vector<Posted> posted = drain();
    ASSERT_EQ(posted.size(), 2u);
    EXPECT_EQ(posted[0].cmd, DSP_CMD_MAIN_MUTE);
    EXPECT_EQ(posted[0].text, "MT=0");
    EXPECT_EQ(posted[1].text, "SPK_EQ_MODE=FOOT");
    for (const char *line : {"initDspSoundMode FAILED!!", "initDspMute FAILED!!", "initDspVolume FAILED!!",
                             "initDspBalance FAILED!!", "initDspTreble FAILED!!", "initDspBass FAILED!!"})
        EXPECT_EQ(log.count("DSP", line), 1u) << line;
    EXPECT_EQ(log.count("DSP", "initDspSpkEqMode FAILED!!"), 0u);
    EXPECT_TRUE(log.contains("DSP", "initDspSoundMode 0 ret -1"));
    EXPECT_TRUE(log.contains("DSP", "initDspVolume 0 ret -1"));
    EXPECT_TRUE(log.contains("DSP", "initDspBalance 0 ret -1"));
    EXPECT_TRUE(log.contains("DSP", "initDspTreble 0 ret -1"));
    EXPECT_TRUE(log.contains("DSP", "initDspBass 0 ret -1"));
    EXPECT_EQ(log.priorityOf("DSP", "initDspVolume FAILED!!"), ANDROID_LOG_INFO);
}

TEST_F(Restore, UpgradeCheckWithoutReferenceBundleStepsAside)
{
    dspHalInitParameter();
    EXPECT_EQ(log.countContaining("DSP", "get local file "), 1u);
    EXPECT_TRUE(log.contains("DSP", "NOT Need To Upgrade AllConfigs\n"));
    EXPECT_EQ(log.count("DSP", "upgradeAllConfigs successful, abort init parameter!"), 0u);
}

TEST_F(Restore, MuteStepIsAlwaysLoggedAsFailed)
{
    props.set("persist.zel.dsp.volumeVal", "40");
    dspHalInitParameter();
    dspHalInitParameter();
    EXPECT_EQ(log.count("DSP", "initDspMute FAILED!!"), 2u);
}

TEST_F(Restore, MuteStepUnmutesAndClearsTheCachedMute)
{
    g_mute.store(1);
    EXPECT_EQ(initDspMute(), 0);
    EXPECT_EQ(g_mute.load(), 0);
    std::vector<Posted> posted = drain();
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0].cmd, DSP_CMD_MAIN_MUTE);
    EXPECT_EQ(posted[0].text, "MT=0");
    EXPECT_TRUE(log.contains("DSP", "initDspMute"));
    EXPECT_TRUE(log.contains("DSP", "dspHal_set_mute bMute 0"));
}

TEST_F(Restore, LowerCaseWallRestoresFloorMode)
{
    props.set("persist.zel.dsp.spkEqMode", "wall");
    EXPECT_EQ(initDspSpkEqMode(), 1);
    std::vector<std::string> t = texts(drain());
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0], "SPK_EQ_MODE=FOOT");
}

TEST_F(Restore, UpperCaseWallRestoresWallMode)
{
    props.set("persist.zel.dsp.spkEqMode", "WALL");
    EXPECT_EQ(initDspSpkEqMode(), 1);
    std::vector<std::string> t = texts(drain());
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0], "SPK_EQ_MODE=WALL");
}

TEST_F(Restore, VolumeAbcRestoresVolumeZeroAndIsNotSkipped)
{
    props.set("persist.zel.dsp.volumeVal", "abc");
    EXPECT_EQ(initDspVolume(), 1);
    std::vector<Posted> posted = drain();
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0].cmd, DSP_CMD_MAIN_VOLUME);
    EXPECT_EQ(posted[0].text, "MV=-65.00");
    EXPECT_TRUE(log.contains("DSP", "initDspVolume 0 ret 1"));
    EXPECT_EQ(log.count("DSP", "initDspVolume FAILED!!"), 0u);
}

TEST_F(Restore, EmptyPropertyStepReturnsMinusOne)
{
    EXPECT_EQ(initDspSoundMode(), -1);
    EXPECT_EQ(initDspVolume(), -1);
    EXPECT_EQ(initDspBalance(), -1);
    EXPECT_EQ(initDspTreble(), -1);
    EXPECT_EQ(initDspBass(), -1);
    EXPECT_TRUE(drain().empty());
}

TEST_F(Restore, StoredSettingsAreSentInTheRestoreOrder)
{
    props.set("persist.zel.dsp.soundMode", "1");
    props.set("persist.zel.dsp.volumeVal", "40");
    props.set("persist.zel.dsp.balanceVal", "75");
    props.set("persist.zel.dsp.trebleVal", "55");
    props.set("persist.zel.dsp.bassVal", "45");
    props.set("persist.zel.dsp.spkEqMode", "WALL");
    EXPECT_EQ(dspHalInitParameter(), 1);
    std::vector<std::string> t = texts(drain());

    long mute = indexOf(t, "MT=0");
    long volume = indexOf(t, "MV=");
    long left = indexOf(t, "BAL_LEFT=0.50");
    long right = indexOf(t, "BAL_RIGHT=1.00");
    long treble = indexOf(t, "USER_EQ[6]=6,6000,1.0000,0.7070");
    long bass = indexOf(t, "USER_EQ[7]=6,6000,-1.0000,0.7070");
    ASSERT_GT(mute, 0) << "sound mode lines come first";
    EXPECT_LT(mute, volume);
    EXPECT_LT(volume, left);
    EXPECT_LT(left, right);
    EXPECT_LT(right, treble);
    EXPECT_LT(treble, bass);
    EXPECT_EQ(t.back(), "SPK_EQ_MODE=WALL");
    EXPECT_EQ(static_cast<size_t>(bass), t.size() - 2);

    EXPECT_TRUE(log.contains("DSP", "initDspSoundMode 1 ret 1"));
    EXPECT_TRUE(log.contains("DSP", "initDspVolume 40 ret 1"));
    EXPECT_TRUE(log.contains("DSP", "initDspBalance 75 ret 1"));
    EXPECT_TRUE(log.contains("DSP", "initDspTreble 55 ret 1"));
    EXPECT_TRUE(log.contains("DSP", "initDspBass 45 ret 1"));
    EXPECT_EQ(log.count("DSP", "initDspVolume FAILED!!"), 0u);
    EXPECT_EQ(log.count("DSP", "initDspMute FAILED!!"), 1u);
}

TEST_F(Restore, UpdateVersoinInfoMarksTheUpdate)
{
    props.set("persist.sys.dune.update", "0");
    EXPECT_EQ(updateVersoinInfo(), 0);
    EXPECT_EQ(props.get("persist.sys.dune.update"), "1");
}
