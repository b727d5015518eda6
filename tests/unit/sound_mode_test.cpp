// Sound-mode logic that needs no link: the stored placement and mode, the
// user gains read from the stereo-enhancer ini, and the refusals.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <android/log.h>
#include <fcntl.h>
#include <unistd.h>

#include "dsp/dsp_sound_modes.h"
#include "log_capture.h"
#include "module_state.h"

namespace {

class SoundModeUnit : public avmtest::FreshModule {
protected:
    void SetUp() override
    {
        avmtest::FreshModule::SetUp();
        // Without a link a request goes to descriptor 0: make that fail.
        int ro = open("/dev/null", O_RDONLY);
        ASSERT_GE(ro, 0);
        ASSERT_EQ(dup2(ro, 0), 0);
        close(ro);
    }

    void writeIni(const std::string &content)
    {
        const std::filesystem::path path = root.path() + DSP_STEREO_ENHANCER_INI;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << content;
    }

    avmtest::FreshPropertyStore props;
    avmtest::FreshRoot root;
    avmtest::LogCapture log;
};

} // namespace

TEST_F(SoundModeUnit, PlacementIsWallOnlyForExactlyWall)
{
    EXPECT_EQ(dspHal_get_spk_eq_mode(), 0) << "unset reads FOOT";
    props.set("persist.zel.dsp.spkEqMode", "WALL");
    EXPECT_EQ(dspHal_get_spk_eq_mode(), 1);
    for (const char *other : {"wall", "WALL ", "WAL", "FOOT", "1", ""}) {
        props.set("persist.zel.dsp.spkEqMode", other);
        EXPECT_EQ(dspHal_get_spk_eq_mode(), 0) << other;
    }
}

TEST_F(SoundModeUnit, GainsAreHundredthsOfADecibelTruncatedTowardZero)
{
    writeIni("[user_mode]\nEQ11_G=350\nEQ12_G=-250\nEQ13_G=99\nEQ14_G=-99\nEQ18_G=6000\n");
    EXPECT_EQ(getEqGainFromIni(0), 3);
    EXPECT_EQ(getEqGainFromIni(1), -2);
    EXPECT_EQ(getEqGainFromIni(2), 0);
    EXPECT_EQ(getEqGainFromIni(3), 0);
    EXPECT_EQ(getEqGainFromIni(7), 60);
    EXPECT_EQ(dspHal_get_user_eq_gain(1), -2);
    EXPECT_TRUE(log.contains("DSP", "getEqGainFromIni, result(-250) \n"));
}

TEST_F(SoundModeUnit, AMissingGainKeyOrFileReadsAsZero)
{
    EXPECT_EQ(getEqGainFromIni(0), 0);
    EXPECT_TRUE(log.contains("DSP", "getEqGainFromIni, INI load file "
                                    "(/mnt/vendor/param/audio/quor_stereo_enhancer.ini) error!\n"));
    writeIni("[user_mode]\nEQ11_FC=100\n");
    EXPECT_EQ(getEqGainFromIni(0), 0);
    EXPECT_EQ(getEqGainFromIni(8), 0);
    EXPECT_EQ(getEqGainFromIni(-1), 0);
    EXPECT_TRUE(log.contains("DSP", "getEqGainFromIni, result((null)) \n"));
}

TEST_F(SoundModeUnit, GetSoundModeReadsThePropertyIntoTheCurrentMode)
{
    EXPECT_EQ(dspHal_get_soundMode(), 0);
    props.set("persist.zel.dsp.soundMode", "3");
    EXPECT_EQ(dspHal_get_soundMode(), 3);
    EXPECT_EQ(g_soundMode.load(), 3);
    EXPECT_TRUE(log.contains("DSP", "dspHal_get_soundMode g_soundMode 3"));
}

TEST_F(SoundModeUnit, SetSoundMode5AndMinus1SendNothingAndLeaveThePropertyAsItWas)
{
    props.set("persist.zel.dsp.soundMode", "2");
    g_soundMode = 2;
    EXPECT_EQ(dspHal_set_soundMode(5), 0);
    EXPECT_EQ(dspHal_set_soundMode(-1), 0);
    EXPECT_EQ(props.get("persist.zel.dsp.soundMode"), "2");
    EXPECT_EQ(g_soundMode.load(), 2);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SoundModeUnit, AFailedPostStillRecordsTheModeAndReturns0)
{
    EXPECT_EQ(dspHal_set_soundMode(1), 0);
    EXPECT_EQ(props.get("persist.zel.dsp.soundMode"), "1");
    EXPECT_EQ(g_soundMode.load(), 1);
    EXPECT_EQ(log.priorityOf("DSP", "dspHal_get_soundMode mode 1"), ANDROID_LOG_INFO);
}

TEST_F(SoundModeUnit, APlacementOfTwoIsRefusedWithoutPersisting)
{
    EXPECT_EQ(dspHal_set_spk_eq_mode(2), 0);
    EXPECT_EQ(dspHal_set_spk_eq_mode(-1), 0);
    EXPECT_FALSE(props.isSet("persist.zel.dsp.spkEqMode"));
    EXPECT_EQ(FirstTime.load(), 1);
}
