// Sound modes, user equaliser bands and speaker placement on the virtual
// board: the DSP link up against the DSP model, the amplifier model on
// I2C bus 1, made-up ini files under the board root.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <android/log.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <unistd.h>

#include "amp_fixture.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_sound_modes.h"
#include "module_on_board.h"
#include "sim/dsp_model.h"

using namespace std::chrono_literals;

namespace {

constexpr const char *kEnhancer = "/mnt/vendor/param/audio/quor_stereo_enhancer.ini";

const std::vector<std::vector<std::string>> kPresetLines = {
    {"USER_EQ[0]=4,120,0.0000,0.7070", "USER_EQ[1]=0,500,0.0000,1.0", "USER_EQ[2]=0,1000,0.0000,1.0",
     "USER_EQ[3]=0,2000,0.0000,1.0", "USER_EQ[4]=0,4000,0.0000,1.0", "USER_EQ[5]=0,8000,0.0000,1.0",
     "USER_EQ[6]=0,0,0.0000,0.0", "USER_EQ[7]=0,0,0.0000,0.0"},
    {"USER_EQ[0]=4,120,0.0000,1.2", "USER_EQ[1]=1,250,6.0000,1.0", "USER_EQ[2]=1,500,-2.0000,2.0",
     "USER_EQ[3]=0,2000,3.0000,1.0", "USER_EQ[4]=1,4000,4.0000,1.0", "USER_EQ[5]=1,8000,6.0000,1.0",
     "USER_EQ[6]=0,200,0.0000,1.0", "USER_EQ[7]=0,2000,0.0000,1.0"},
    {"USER_EQ[0]=4,400,0.0000,0.7070", "USER_EQ[1]=1,500,1.0000,2.0", "USER_EQ[2]=1,1000,3.0000,1.0",
     "USER_EQ[3]=1,2000,2.0000,1.0", "USER_EQ[4]=1,4000,3.0000,1.0", "USER_EQ[5]=2,10000,0.0000,0.7",
     "USER_EQ[6]=0,0,0.0000,0.0", "USER_EQ[7]=0,0,0.0000,0.0"},
    {"USER_EQ[0]=4,200,0.0000,0.7070", "USER_EQ[1]=1,500,3.0000,2.0", "USER_EQ[2]=1,1000,4.0000,1.0",
     "USER_EQ[3]=1,2000,3.0000,1.0", "USER_EQ[4]=1,4000,2.0000,1.0", "USER_EQ[5]=2,8000,0.0000,0.7",
     "USER_EQ[6]=0,200,0.0000,1.0", "USER_EQ[7]=0,2000,0.0000,1.0"},
};

// The user-mode lines the generator's made-up stereo-enhancer ini gives.
const std::vector<std::string> kGeneratedUserLines = {
    "USER_EQ[0]=1,100,3,1",  "USER_EQ[1]=1,250,-2,1",  "USER_EQ[2]=1,500,1,1",  "USER_EQ[3]=1,1000,0,1",
    "USER_EQ[4]=1,2000,2,1", "USER_EQ[5]=1,4000,-1,1", "USER_EQ[6]=1,8000,4,1", "USER_EQ[7]=1,12000,-6,1",
};

using avmtest::prop;

class SoundModeBoard : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Requests posted while the link is down go to descriptor 0.
        ASSERT_TRUE(avmtest::sinkDescriptorZero());
    }

    void TearDown() override
    {
        if (started)
            stopLink();
    }

    void startLink()
    {
        ASSERT_GE(dsp_process_init(), 0);
        started = true;
    }

    // Stops the link without sitting out the receive thread's select.
    void stopLink()
    {
        avmtest::stopDspLink(dsp.get());
        started = false;
    }

    // Commands received so far that are equaliser lines or placements.
    std::vector<std::string> eqCommands() const
    {
        std::vector<std::string> out;
        for (const auto &c : dsp->commands())
            if (c.rfind("USER_EQ[", 0) == 0 || c.rfind("SPK_EQ_MODE=", 0) == 0)
                out.push_back(c);
        return out;
    }

    // Makes posts fail: descriptor 0 becomes read-only and there is no link.
    static void breakPosting() { ASSERT_TRUE(avmtest::sinkDescriptorZero(O_RDONLY)); }

    avmtest::LogCapture log;
    sim::Board board;
    std::unique_ptr<sim::DspModel> dsp = std::make_unique<sim::DspModel>(board);
    sim::AmpModel amp{board, sim::AmpFitting::Ad82120};
    bool started = false;
};

} // namespace

class SoundModePresets : public SoundModeBoard, public ::testing::WithParamInterface<int> {};

TEST_P(SoundModePresets, EachPresetSendsItsEightLinesInBandOrder)
{
    const int mode = GetParam();
    startLink();
    EXPECT_EQ(dspHal_set_soundMode(mode), 1);
    ASSERT_TRUE(dsp->waitForCommandCount(8, 3000ms));
    EXPECT_EQ(eqCommands(), kPresetLines[static_cast<size_t>(mode)]);
    EXPECT_EQ(prop("persist.zel.dsp.soundMode"), std::to_string(mode));
    EXPECT_EQ(g_soundMode.load(), mode);
    EXPECT_TRUE(log.contains("DSP", "dspHal_get_soundMode mode " + std::to_string(mode)));
}

INSTANTIATE_TEST_SUITE_P(AllPresets, SoundModePresets, ::testing::Values(0, 1, 2, 3));

TEST_F(SoundModeBoard, Mode2SendsBand5AsHighShelfAndBands6And7Flat)
{
    startLink();
    EXPECT_EQ(dspHal_set_soundMode(2), 1);
    ASSERT_TRUE(dsp->waitForCommandCount(8, 3000ms));
    const auto lines = eqCommands();
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[5], "USER_EQ[5]=2,10000,0.0000,0.7");
    EXPECT_EQ(lines[6], "USER_EQ[6]=0,0,0.0000,0.0");
    EXPECT_EQ(lines[7], "USER_EQ[7]=0,0,0.0000,0.0");
}

TEST_F(SoundModeBoard, ModesOutOfRangeSendNothingAndKeepTheProperty)
{
    startLink();
    ASSERT_EQ(property_set("persist.zel.dsp.soundMode", "3"), 0);
    EXPECT_EQ(dspHal_set_soundMode(5), 0);
    EXPECT_EQ(dspHal_set_soundMode(-1), 0);
    EXPECT_EQ(dspHal_set_soundMode(1), 1);
    ASSERT_TRUE(dsp->waitForCommandCount(8, 3000ms));
    EXPECT_EQ(eqCommands(), kPresetLines[1]) << "only the valid switch reached the DSP";
    EXPECT_EQ(prop("persist.zel.dsp.soundMode"), "1");
}

TEST_F(SoundModeBoard, UserModeSendsTheIniBandsInOrderReadingTheFileSixteenTimes)
{
    amptest::generateTuningFiles(board);
    startLink();
    EXPECT_EQ(dspHal_set_soundMode(4), 1);
    ASSERT_TRUE(dsp->waitForCommandCount(8, 3000ms));
    EXPECT_EQ(eqCommands(), kGeneratedUserLines);
    EXPECT_EQ(log.countContaining("DSP", "getEqFreqFromIni, result("), 8u);
    EXPECT_EQ(log.countContaining("DSP", "getEqGainFromIni, result("), 8u);
    EXPECT_TRUE(log.contains("DSP", "getEqFreqFromIni, result(100) \n"));
    EXPECT_TRUE(log.contains("DSP", "getEqGainFromIni, result(350) \n"));
    EXPECT_EQ(prop("persist.zel.dsp.soundMode"), "4");
}

TEST_F(SoundModeBoard, UserModeBand0WithFrequency100AndGain350IsSentAs3dB)
{
    board.writeFile(kEnhancer, "[user_mode]\nEQ11_FC=100\nEQ11_G=350\n");
    startLink();
    EXPECT_EQ(dspHal_set_soundMode(4), 1);
    ASSERT_TRUE(dsp->waitForCommandCount(8, 3000ms));
    const auto lines = eqCommands();
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[0], "USER_EQ[0]=1,100,3,1");
    EXPECT_EQ(lines[1], "USER_EQ[1]=1,0,0,1") << "missing keys count as 0";
    EXPECT_TRUE(log.contains("DSP", "getEqFreqFromIni, result((null)) \n"));
}

TEST_F(SoundModeBoard, UserModeWithoutTheIniStillSendsEightLines)
{
    startLink();
    EXPECT_EQ(dspHal_set_soundMode(4), 1);
    ASSERT_TRUE(dsp->waitForCommandCount(8, 3000ms));
    const auto lines = eqCommands();
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[7], "USER_EQ[7]=1,0,0,1");
    EXPECT_EQ(log.count("DSP", "getEqFreqFromIni, INI load file "
                               "(/mnt/vendor/param/audio/quor_stereo_enhancer.ini) error!\n"),
              8u);
    EXPECT_EQ(log.priorityOf("DSP", "getEqGainFromIni, INI load file "
                                    "(/mnt/vendor/param/audio/quor_stereo_enhancer.ini) error!\n"),
              ANDROID_LOG_INFO);
}

TEST_F(SoundModeBoard, DirectBandSettingSendsAllFiveFieldsAsIntegers)
{
    startLink();
    EXPECT_EQ(dspHal_set_user_eq_param(3, 1, 1000, 5, 2), 1);
    ASSERT_TRUE(dsp->waitForCommand("USER_EQ[3]=1,1000,5,2", 3000ms));
    EXPECT_TRUE(log.contains("DSP", "dspHal_set_user_eq index[3], type[1], freq[1000], gain[5], q[2]"));
}

TEST_F(SoundModeBoard, DirectBandSettingOutsideItsRangesIsRefused)
{
    startLink();
    EXPECT_EQ(dspHal_set_user_eq_param(3, 1, 19, 5, 2), 0);
    EXPECT_EQ(dspHal_set_user_eq_param(3, 1, 20001, 5, 2), 0);
    EXPECT_EQ(dspHal_set_user_eq_param(3, 1, 1000, 61, 2), 0);
    EXPECT_EQ(dspHal_set_user_eq_param(3, 1, 1000, 5, 0), 0);
    EXPECT_EQ(dspHal_set_user_eq_param(3, 1, 1000, 5, 11), 0);
    EXPECT_EQ(dspHal_set_user_eq_param(8, 1, 1000, 5, 2), 0);
    EXPECT_EQ(dspHal_set_user_eq_param(-1, 1, 1000, 5, 2), 0);
    EXPECT_EQ(dspHal_set_user_eq_param(3, 8, 1000, 5, 2), 0);
    EXPECT_EQ(dspHal_set_user_eq_param(3, 1, 1000, -61, 2), 0);
    EXPECT_EQ(log.countContaining("DSP", "dspHal_set_user_eq"), 0u);
    // The edges themselves are accepted.
    EXPECT_EQ(dspHal_set_user_eq_param(7, 7, 20000, -60, 10), 1);
    EXPECT_EQ(dspHal_set_user_eq_param(0, 0, 20, 60, 1), 1);
    ASSERT_TRUE(dsp->waitForCommandCount(2, 3000ms));
    EXPECT_EQ(eqCommands(), (std::vector<std::string>{"USER_EQ[7]=7,20000,-60,10", "USER_EQ[0]=0,20,60,1"}));
}

TEST_F(SoundModeBoard, DirectBandSettingReachesTheDspButNotTheUserModeFile)
{
    amptest::generateTuningFiles(board);
    const std::string before = board.readFile(kEnhancer);
    startLink();
    EXPECT_EQ(dspHal_set_user_eq_param(0, 1, 1000, 5, 2), 1);
    EXPECT_EQ(dspHal_get_user_eq_gain(0), 3) << "still the file's 350";
    EXPECT_EQ(board.readFile(kEnhancer), before);
    EXPECT_TRUE(log.contains("DSP", "setEqGainToIni, index(0), gain(5)\n"));
    EXPECT_EQ(log.countContaining("DSP", "setEqGainToIni, set result("), 0u) << "only band 7 reports the update";
    EXPECT_EQ(dspHal_set_user_eq_param(7, 1, 1000, -5, 2), 1);
    EXPECT_TRUE(log.contains("DSP", "setEqGainToIni, set result(0)\n"));
    // A later switch to the user mode restores the file's gains.
    EXPECT_EQ(dspHal_set_soundMode(4), 1);
    ASSERT_TRUE(dsp->waitForCommandCount(10, 3000ms));
    const auto lines = eqCommands();
    ASSERT_EQ(lines.size(), 10u);
    EXPECT_EQ(lines[2], kGeneratedUserLines[0]);
}

TEST_F(SoundModeBoard, DirectBandSettingWithoutTheIniStillPosts)
{
    startLink();
    EXPECT_EQ(dspHal_set_user_eq_param(2, 1, 500, 1, 1), 1);
    EXPECT_TRUE(log.contains("DSP", "setEqGainToIni, INI load file "
                                    "(/mnt/vendor/param/audio/quor_stereo_enhancer.ini) error!\n"));
}

TEST_F(SoundModeBoard, WallOnAProductWithoutFloorWallSupportTellsOnlyTheDsp)
{
    ASSERT_EQ(property_set("persist.vendor.floor_wall", "0"), 0);
    amptest::generateTuningFiles(board);
    startLink();
    EXPECT_EQ(dspHal_set_spk_eq_mode(1), 1);
    ASSERT_TRUE(dsp->waitForCommand("SPK_EQ_MODE=WALL", 3000ms));
    EXPECT_TRUE(amp.accesses().empty()) << "the amplifiers are left alone";
    EXPECT_EQ(prop("persist.zel.dsp.spkEqMode"), "WALL");
    EXPECT_EQ(FirstTime.load(), 1);
    EXPECT_TRUE(log.contains("DSP", "dspHal_set_spkEqMode mode WALL"));
    EXPECT_EQ(dspHal_get_spk_eq_mode(), 1);
}

TEST_F(SoundModeBoard, FloorOnAFloorWallProductLoadsTheTuningOnceAndProgramsTheAmplifiers)
{
    ASSERT_EQ(property_set("persist.vendor.floor_wall", "1"), 0);
    amptest::generateTuningFiles(board);
    startLink();
    EXPECT_EQ(dspHal_set_spk_eq_mode(0), 1);
    ASSERT_TRUE(dsp->waitForCommand("SPK_EQ_MODE=FOOT", 3000ms));
    EXPECT_EQ(FirstTime.load(), 0);
    EXPECT_EQ(mDeviceExistStatus.load(), 0);
    amptest::expectAdFormat(amp, 0x60, m_reg_tab_RL_floor, m_ram1_tab_RL_floor);
    amptest::expectAdFormat(amp, 0x62, m_reg_tab_SUB_floor, m_ram1_tab_SUB_floor);
    EXPECT_EQ(prop("persist.zel.dsp.spkEqMode"), "FOOT");
    EXPECT_EQ(log.count("DSP", "true\n"), 2u) << "the switch is read before loading and before programming";
}

TEST_F(SoundModeBoard, SettingThePlacementTwiceNeverReReadsTheFiles)
{
    ASSERT_EQ(property_set("persist.vendor.floor_wall", "1"), 0);
    amptest::generateTuningFiles(board);
    startLink();
    EXPECT_EQ(dspHal_set_spk_eq_mode(1), 1);
    const uint32_t wallReg = m_reg_tab_RL_wall[5];
    amptest::generateTuningFiles(board, "--variant 7");
    EXPECT_EQ(dspHal_set_spk_eq_mode(0), 1);
    EXPECT_EQ(dspHal_set_spk_eq_mode(1), 1);
    EXPECT_EQ(m_reg_tab_RL_wall[5], wallReg);
    EXPECT_EQ(log.countContaining("DSP", "parseAmp_RL_Wall_Info, parse ("), 1u);
    amptest::expectAdFormat(amp, 0x60, m_reg_tab_RL_wall, m_ram1_tab_RL_wall);
    ASSERT_TRUE(dsp->waitForCommandCount(3, 3000ms));
    EXPECT_EQ(eqCommands(), (std::vector<std::string>{"SPK_EQ_MODE=WALL", "SPK_EQ_MODE=FOOT", "SPK_EQ_MODE=WALL"}));
}

TEST_F(SoundModeBoard, APlacementOtherThanFloorOrWallIsRefused)
{
    ASSERT_EQ(property_set("persist.zel.dsp.spkEqMode", "WALL"), 0);
    startLink();
    EXPECT_EQ(dspHal_set_spk_eq_mode(2), 0);
    EXPECT_EQ(prop("persist.zel.dsp.spkEqMode"), "WALL");
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(eqCommands().empty());
}

TEST_F(SoundModeBoard, AFailedPostPersistsTheModeButNotThePlacement)
{
    breakPosting();
    ASSERT_EQ(property_set("persist.zel.dsp.spkEqMode", "FOOT"), 0);
    EXPECT_EQ(dspHal_set_spk_eq_mode(1), 0);
    EXPECT_EQ(prop("persist.zel.dsp.spkEqMode"), "FOOT");
    EXPECT_EQ(dspHal_set_soundMode(2), 0);
    EXPECT_EQ(prop("persist.zel.dsp.soundMode"), "2");
    EXPECT_EQ(dspHal_set_user_eq_param(3, 1, 1000, 5, 2), 0);
}

TEST_F(SoundModeBoard, TheMeetingSwitchAndBackReturnsToTheStoredPlacement)
{
    ASSERT_EQ(property_set("persist.vendor.floor_wall", "1"), 0);
    amptest::generateTuningFiles(board);
    startLink();
    EXPECT_EQ(dspHal_set_spk_eq_mode(1), 1);
    HV_SetSoundEQ(2);
    HV_SetSoundEQ(dspHal_get_spk_eq_mode());
    amptest::expectAdFormat(amp, 0x60, m_reg_tab_RL_wall, m_ram1_tab_RL_wall);
    EXPECT_FALSE(amp.muted(0x62));
}
