// Parameter restore on the virtual board: each announcement of the DSP
// model runs the upgrade check and then sends every stored setting again,
// twice; an announcement that upgraded the configuration restores nothing
// in that pass.
#include <gtest/gtest.h>


#include <cutils/properties.h>

#include <chrono>
#include <string>
#include <vector>

#include "dsp/dsp_link.h"
#include "dsp_commands.h"
#include "dsp_store_board.h"
#include "log_capture.h"
#include "sim/board.h"
#include "sim/dsp_audio_model.h"
#include "sim/dsp_file_store.h"
#include "sim/dsp_model.h"

using namespace std::chrono_literals;

namespace {

const std::string kDspFile = "/data/misc/AllConfigs.bin";

using avmtest::indexOf;
using avmtest::withPrefix;

// The restore's requests go through the link's queue while the upgrade
// check writes FINF straight to the port, so a pass's FINF can overtake the
// previous pass's queued settings. Passes are therefore compared on the
// queued commands only.
std::vector<std::string> withoutFinf(const std::vector<std::string> &cmds)
{
    std::vector<std::string> out;
    for (const auto &c : cmds)
        if (c.rfind("FINF=", 0) != 0)
            out.push_back(c);
    return out;
}

// The commands after the n-th FINF (0-based), FINFs left out.
std::vector<std::string> afterFinf(const std::vector<std::string> &cmds, int n)
{
    long start = -1;
    for (int i = 0; i <= n; ++i) {
        start = indexOf(cmds, "FINF=", static_cast<size_t>(start + 1));
        if (start < 0)
            return {};
    }
    return withoutFinf(std::vector<std::string>(cmds.begin() + start + 1, cmds.end()));
}

class DspRestore : public avmtest::DspStoreBoard {
protected:
    void storeSettings()
    {
        property_set("persist.zel.dsp.soundMode", "1");
        property_set("persist.zel.dsp.volumeVal", "40");
        property_set("persist.zel.dsp.balanceVal", "75");
        property_set("persist.zel.dsp.trebleVal", "55");
        property_set("persist.zel.dsp.bassVal", "45");
        property_set("persist.zel.dsp.spkEqMode", "WALL");
    }

    // Checks one restoring pass (FINFs left out) starting at `from`: sound
    // mode lines first, then unmute, main volume, balance, treble, bass and
    // the speaker equaliser last. Returns the index after the pass.
    size_t expectRestoreOrder(const std::vector<std::string> &p, size_t from = 0)
    {
        long mute = indexOf(p, "MT=0", from);
        EXPECT_GT(mute, static_cast<long>(from)) << "sound mode lines come before the unmute";
        if (mute < 0)
            return p.size();
        for (long i = static_cast<long>(from); i < mute; ++i)
            EXPECT_EQ(p[i].rfind("USER_EQ[", 0), 0u) << p[i];
        long volume = indexOf(p, "MV=", mute);
        long left = indexOf(p, "BAL_LEFT=0.50", mute);
        long right = indexOf(p, "BAL_RIGHT=1.00", mute);
        long treble = indexOf(p, "USER_EQ[6]=6,6000,1.0000,0.7070", mute);
        long bass = indexOf(p, "USER_EQ[7]=6,6000,-1.0000,0.7070", mute);
        EXPECT_EQ(volume, mute + 1);
        EXPECT_EQ(left, volume + 1);
        EXPECT_EQ(right, left + 1);
        EXPECT_EQ(treble, right + 1);
        EXPECT_EQ(bass, treble + 1);
        if (bass < 0 || static_cast<size_t>(bass + 1) >= p.size()) {
            ADD_FAILURE() << "no speaker equaliser line";
            return p.size();
        }
        EXPECT_EQ(p[bass + 1], "SPK_EQ_MODE=WALL");
        return static_cast<size_t>(bass + 2);
    }
};

} // namespace

TEST_F(DspRestore, AfterUpgradeSecondPassRestoresEveryStoredSettingInOrder)
{
    const std::string bundle = sim::installConfigBundle(board, 500);
    storeSettings();
    audio.setMainMuted(true);
    startLink();
    store.reboot();
    ASSERT_TRUE(waitForSpeakerEq(1, 30s));

    const std::vector<std::string> cmds = dsp.commands();
    // The upgrading pass ends with FWEND and posts nothing; the second pass
    // restores.
    long secondFinf = indexOf(cmds, "FINF=", 1);
    ASSERT_GT(secondFinf, 0);
    EXPECT_EQ(cmds[secondFinf - 1], "FWEND=/data/misc/AllConfigs.bin");
    std::vector<std::string> second = afterFinf(cmds, 1);
    EXPECT_EQ(expectRestoreOrder(second), second.size());
    EXPECT_EQ(store.file(kDspFile).value_or(""), bundle);

    // The DSP model applied what was restored.
    ASSERT_TRUE(sim::waitUntil([&] { return audio.speakerEqMode() == "WALL"; }, 2s));
    EXPECT_FALSE(audio.mainMuted());
    EXPECT_FLOAT_EQ(audio.balanceLeft(), 0.5f);
    EXPECT_FLOAT_EQ(audio.balanceRight(), 1.0f);
    EXPECT_FLOAT_EQ(audio.eqBand(6).gain, 1.0f);
    EXPECT_FLOAT_EQ(audio.eqBand(7).gain, -1.0f);
}

TEST_F(DspRestore, VerFullWhileUpgradeSucceedsSendsNoStoredSettings)
{
    sim::installConfigBundle(board, 500);
    storeSettings();
    startLink();
    store.reboot();
    ASSERT_TRUE(log.waitFor("DSP", "upgradeAllConfigs successful, abort init parameter!", 30s));
    // The second pass's FINF follows the upgrading pass at once; nothing was
    // queued in between.
    ASSERT_TRUE(sim::waitUntil([&] { return withPrefix(dsp.commands(), "FINF=").size() >= 2; }, 5s));
    const std::vector<std::string> cmds = dsp.commands();
    // The upgrading pass: from its FINF to its FWEND, the next FINF right
    // after. (On a busy machine an earlier pass can lose its answers to the
    // wait and restore instead; the pass that upgraded is the one looked at.)
    long end = indexOf(cmds, "FWEND=");
    ASSERT_GT(end, 0);
    long begin = end;
    while (begin > 0 && cmds[static_cast<size_t>(begin)].rfind("FINF=", 0) != 0)
        --begin;
    ASSERT_LT(static_cast<size_t>(end) + 1, cmds.size());
    EXPECT_EQ(cmds[static_cast<size_t>(end) + 1].rfind("FINF=", 0), 0u) << cmds[static_cast<size_t>(end) + 1];
    std::vector<std::string> upgrading(cmds.begin() + begin, cmds.begin() + end + 1);
    for (const char *prefix : {"MT=", "MV=", "BAL_", "USER_EQ", "SPK_EQ_MODE="})
        EXPECT_TRUE(withPrefix(upgrading, prefix).empty()) << prefix;
}

TEST_F(DspRestore, EveryAnnouncementRestoresEverySettingTwice)
{
    // No reference bundle: the upgrade check steps aside in both passes.
    storeSettings();
    startLink();
    store.reboot();
    ASSERT_TRUE(waitForSpeakerEq(2, 30s));
    const std::vector<std::string> cmds = withoutFinf(dsp.commands());
    size_t next = expectRestoreOrder(cmds);
    EXPECT_EQ(expectRestoreOrder(cmds, next), cmds.size());
    EXPECT_TRUE(withPrefix(dsp.commands(), "FINF=").empty());
    EXPECT_EQ(log.count("DSP", "initDspMute FAILED!!"), 2u);
    EXPECT_EQ(log.count("DSP", "initDspVolume FAILED!!"), 0u);
}

TEST_F(DspRestore, WithNoStoredSettingsOnlyUnmuteAndFloorModeAreSent)
{
    startLink();
    store.reboot();
    ASSERT_TRUE(waitForSpeakerEq(2, 30s));
    EXPECT_EQ(withoutFinf(dsp.commands()),
              (std::vector<std::string>{"MT=0", "SPK_EQ_MODE=FOOT", "MT=0", "SPK_EQ_MODE=FOOT"}));
    for (const char *line : {"initDspSoundMode FAILED!!", "initDspVolume FAILED!!", "initDspBalance FAILED!!",
                             "initDspTreble FAILED!!", "initDspBass FAILED!!"})
        EXPECT_EQ(log.count("DSP", line), 2u) << line;
}

TEST_F(DspRestore, LowerCaseWallStoredRestoresFloorMode)
{
    property_set("persist.zel.dsp.spkEqMode", "wall");
    startLink();
    store.reboot();
    ASSERT_TRUE(waitForSpeakerEq(2, 30s));
    EXPECT_EQ(withPrefix(dsp.commands(), "SPK_EQ_MODE="),
              (std::vector<std::string>{"SPK_EQ_MODE=FOOT", "SPK_EQ_MODE=FOOT"}));
}

TEST_F(DspRestore, VolumeAbcStoredRestoresVolumeZero)
{
    property_set("persist.zel.dsp.volumeVal", "abc");
    startLink();
    store.reboot();
    ASSERT_TRUE(waitForSpeakerEq(2, 30s));
    EXPECT_EQ(withPrefix(dsp.commands(), "MV="), (std::vector<std::string>{"MV=-65.00", "MV=-65.00"}));
    EXPECT_EQ(log.count("DSP", "initDspVolume 0 ret 1"), 2u);
}

TEST_F(DspRestore, MicPowerOnMarksVersionInformationForRefresh)
{
    property_set("persist.sys.dune.update", "0");
    startLink();
    dsp.send("MIC_PWR_ON=1");
    EXPECT_TRUE(sim::waitUntil(
        [] {
            char value[PROPERTY_VALUE_MAX] = {};
            property_get("persist.sys.dune.update", value, "");
            return std::string(value) == "1";
        },
        5s));
}
