// Volume tables and the conversions between the volume index, dB and the
// USB mixer scale.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "avmanager_hal.h"
#include "dsp/dsp_audio.h"
#include "dsp/uac_mixer.h"

namespace {

const float *const kTables[] = {volume_to_spdif_db, volume_to_main_db, volume_to_uac_db};

TEST(AudioTables, AllThreeTablesHoldTheSameValues)
{
    for (int i = 0; i < AVM_VOLUME_STEPS; ++i) {
        EXPECT_EQ(volume_to_spdif_db[i], volume_to_main_db[i]) << i;
        EXPECT_EQ(volume_to_spdif_db[i], volume_to_uac_db[i]) << i;
    }
}

TEST(AudioTables, LowerHalfFollowsTheListedCurve)
{
    const float expected[50] = {-65, -65, -60, -55, -51, -47, -43, -40, -37, -34,
                                -32, -30, -28, -26.2f, -24.9f, -23.7f, -22.6f, -21.6f, -20.7f, -19.9f,
                                -19.2f, -18.6f, -18, -17.4f, -16.9f, -16.4f, -15.9f, -15.4f, -15, -14.6f,
                                -14.2f, -13.8f, -13.4f, -13.1f, -12.8f, -12.5f, -12.2f, -11.9f, -11.6f, -11.35f,
                                -11.1f, -10.85f, -10.6f, -10.4f, -10.2f, -10, -9.8f, -9.6f, -9.4f, -9.2f};
    for (const float *table : kTables)
        for (int i = 0; i < 50; ++i)
            EXPECT_EQ(table[i], expected[i]) << i;
}

TEST(AudioTables, UpperHalfIsAStraightLineOfPoint18DbPerStep)
{
    for (const float *table : kTables)
        for (int i = 50; i <= 100; ++i)
            EXPECT_EQ(table[i], static_cast<float>(-0.18 * (100 - i))) << i;
    EXPECT_EQ(volume_to_main_db[50], -9.0f);
    EXPECT_EQ(volume_to_main_db[100], 0.0f);
    EXPECT_FALSE(std::signbit(volume_to_main_db[100])); // prints as "0.00", not "-0.00"
}

TEST(AudioTables, TwoLowestStepsAreBothSilent)
{
    for (const float *table : kTables) {
        EXPECT_EQ(table[0], -65.0f);
        EXPECT_EQ(table[1], -65.0f);
    }
}

TEST(AudioConversions, VolToDbPicksTheTableByChannelAndGivesZeroAbove100)
{
    EXPECT_EQ(convertVolToDb(AUDIO_CHANNEL_SPDIF, 50), -9.0f);
    EXPECT_EQ(convertVolToDb(AUDIO_CHANNEL_MAIN, 30), volume_to_main_db[30]);
    EXPECT_EQ(convertVolToDb(AUDIO_CHANNEL_UAC, 2), -60.0f);
    EXPECT_EQ(convertVolToDb(9, 2), -60.0f);
    EXPECT_EQ(convertVolToDb(AUDIO_CHANNEL_MAIN, 101), 0.0f);
    EXPECT_EQ(convertVolToDb(AUDIO_CHANNEL_MAIN, 0xFFFFFFFFu), 0.0f);
}

TEST(AudioConversions, DbToVolMapsAnExactTableValueOneStepDown)
{
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_MAIN, 0.0f), 99u);
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_MAIN, -9.0f), 49u);
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_MAIN, -60.0f), 1u);
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_MAIN, -65.0f), 0u);
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_SPDIF, 0.0f), 99u);
}

TEST(AudioConversions, DbToVolBetweenStepsGivesTheLowerStep)
{
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_MAIN, -9.1f), 49u);
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_MAIN, -0.1f), 99u);
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_SPDIF, -62.0f), 1u);
}

TEST(AudioConversions, DbToVolOutsideTheScaleOrNotANumberGivesZero)
{
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_MAIN, 0.5f), 0u);
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_MAIN, -65.5f), 0u);
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_MAIN, std::numeric_limits<float>::quiet_NaN()), 0u);
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_MAIN, std::numeric_limits<float>::infinity()), 0u);
}

TEST(AudioConversions, DbToVolForTheUsbOrAnUnknownChannelIsZero)
{
    EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_UAC, -9.1f), 0u);
    EXPECT_EQ(convertDbToVol(5, -9.1f), 0u);
}

TEST(AudioConversions, RoundTripLosesOneStep)
{
    for (unsigned v = 3; v <= 100; ++v)
        EXPECT_EQ(convertDbToVol(AUDIO_CHANNEL_MAIN, convertVolToDb(AUDIO_CHANNEL_MAIN, v)), v - 1) << v;
}

TEST(UacConversions, VolToUacVolAbove100AndAt100GiveFullScale)
{
    EXPECT_EQ(convertVolToUacVol(101), 16640);
    EXPECT_EQ(convertVolToUacVol(100), 16640);
}

TEST(UacConversions, VolToUacVolUses256StepsPerDbAboveMinus65)
{
    EXPECT_EQ(convertVolToUacVol(50), 14336);
    EXPECT_EQ(convertVolToUacVol(0), 0);
    EXPECT_EQ(convertVolToUacVol(1), 0);
    EXPECT_EQ(convertVolToUacVol(2), 1280);
    // -26.2 dB: 16640 - 6707.2, truncated toward zero.
    EXPECT_EQ(convertVolToUacVol(13), 9932);
}

TEST(UacConversions, UacVolToVolIsWholeDbNotTheTable)
{
    EXPECT_EQ(convertUacVolToVol(16641), 100u);
    EXPECT_EQ(convertUacVolToVol(16640), 65u);
    EXPECT_EQ(convertUacVolToVol(-5), 0u);
    EXPECT_EQ(convertUacVolToVol(0), 0u);
    EXPECT_EQ(convertUacVolToVol(14336), 56u);
    EXPECT_EQ(convertUacVolToVol(255), 0u);
    EXPECT_EQ(convertUacVolToVol(256), 1u);
}

} // namespace
