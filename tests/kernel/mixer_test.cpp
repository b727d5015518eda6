// The USB audio mixer under the real kernel: sound card 2's control
// device, with the playback switch and volume at the numeric ids the
// module addresses (user-defined controls of the kernel). The module's
// element reads and writes are checked on the values the kernel holds.
#include <gtest/gtest.h>

#include "dsp/uac_mixer.h"
#include "log_capture.h"
#include "sim/kernel/kernel_mixer.h"

using sim::kernel::KernelMixer;

namespace {

class KernelMixerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(mixer.error(), "") << "card 2 has not got its controls"; }

    avmtest::LogCapture log;
    KernelMixer mixer;
};

} // namespace

TEST_F(KernelMixerTest, VolumeIsWrittenAsGivenAndReadBack)
{
    EXPECT_EQ(isUacDeviceExist(), 1);
    EXPECT_EQ(set_uac_volume(-14), 0);
    EXPECT_EQ(mixer.volume(), -14) << "written without conversion";
    ASSERT_TRUE(mixer.setVolume(14336));
    EXPECT_EQ(get_uac_volume(), 14336);
    ASSERT_TRUE(mixer.setVolume(-9));
    EXPECT_EQ(get_uac_volume(), -9);
    EXPECT_TRUE(log.contains("DSP", "get_uac_volume failed!!"));
}

TEST_F(KernelMixerTest, MuteInvertsIntoTheSwitchAndTheQueryReportsTheSwitch)
{
    EXPECT_EQ(get_uac_mute(), 1); // sound on
    EXPECT_EQ(set_uac_mute(1), 0);
    EXPECT_EQ(mixer.switchValue(), 0);
    EXPECT_EQ(get_uac_mute(), 0);
    EXPECT_EQ(set_uac_mute(0), 0);
    EXPECT_EQ(mixer.switchValue(), 1);
    // Mute 2 writes switch value 3: the kernel refuses a value outside the
    // switch's range, and the write's result is returned.
    EXPECT_EQ(set_uac_mute(2), -1);
    EXPECT_EQ(mixer.switchValue(), 1);
    EXPECT_EQ(get_uac_mute(), 1);
}
