// The Fig DSP's microphone reports on the virtual board: MIC_ON switches
// the amplifiers (AD82120 model on /dev/i2c-1) to the meeting format, calls
// the status callback registered through slot 38 and sends DOA_ON; MIC_OFF
// returns to the stored placement. The switch is edge-triggered and held
// back by an open camera, a running boot video and the factory ageing test.
#include <gtest/gtest.h>

#include <android/log.h>
#include <cutils/properties.h>

#include <string>
#include <vector>

#include "amp_fixture.h"
#include "dsp/dsp_sound_modes.h"
#include "fig_fixture.h"

using namespace std::chrono_literals;
using namespace figtest;
using avmtest::prop;

namespace {

constexpr const char *kMeetingLog = "mic on, set sound foramt to meeting mode !";
constexpr const char *kPlacementLog = "mic off, set sound foramt to foot or wall mode !";
constexpr const char *kBootVideoLog = "boot video not exit, dont support switch sound format !";
constexpr const char *kAgeingLog = "now is at factoryaging mode, dont support switch sound format !";
constexpr const char *kAgeingClass = "com.tarsa.factoryaging.MainActivity";

class FigMicrophone : public ::testing::Test, protected FigBoard {
protected:
    // A floor/wall product whose stored placement is `placement` (0 floor,
    // 1 wall): the tuning files are loaded and the amplifiers programmed
    // for it, as the first placement request does; the boot video is over
    // and the status callback is registered through slot 38.
    void SetUp() override
    {
        ASSERT_TRUE(avmtest::sinkDescriptorZero()); // placement requests with no DSP link up
        ASSERT_EQ(property_set("persist.vendor.floor_wall", "1"), 0);
        amptest::generateTuningFiles(board);
        avmtest::clearRecordedStatuses();
    }

    // The link stops before the amplifier model goes.
    void TearDown() override
    {
        if (figUp)
            dspFig_deinit();
        figUp = false;
    }

    void prepare(int placement, const char *bootVideo = "0")
    {
        ASSERT_EQ(dspHal_set_spk_eq_mode(placement), 1);
        ASSERT_EQ(dspHal_get_spk_eq_mode(), placement);
        if (bootVideo) {
            ASSERT_EQ(property_set("service.bootvideo.exit", bootVideo), 0);
        }
        ASSERT_EQ(property_set("persist.vendor.dsp.communication", "1"), 0);
        const avmanager_module_t *hmi = avmtest::loadModule();
        ASSERT_NE(hmi, nullptr);
        ASSERT_EQ(hmi->set_dsp_status_callback(hmi, avmtest::recordStatus), 0);
        amp.clearLog();
        board.trace().clear();
        startFig();
    }

    void expectMeeting()
    {
        amptest::expectAdFormat(amp, sim::AmpModel::kAdMain, m_reg_tab_RL_meeting, m_ram1_tab_RL_meeting);
        EXPECT_TRUE(amp.muted(sim::AmpModel::kAdSub)) << "the subwoofer stays muted in the meeting format";
        EXPECT_FALSE(amp.muted(sim::AmpModel::kAdMain));
    }

    void expectWall()
    {
        amptest::expectAdFormat(amp, sim::AmpModel::kAdMain, m_reg_tab_RL_wall, m_ram1_tab_RL_wall);
        amptest::expectAdFormat(amp, sim::AmpModel::kAdSub, m_reg_tab_SUB_wall, m_ram1_tab_SUB_wall);
        EXPECT_FALSE(amp.muted(sim::AmpModel::kAdSub));
        EXPECT_FALSE(amp.muted(sim::AmpModel::kAdMain));
    }

    // The last moment anything crossed I2C bus 1.
    sim::Clock::time_point lastI2c()
    {
        sim::Clock::time_point last{};
        for (const auto &event : board.trace().snapshot())
            if (event.link == "i2c-1")
                last = event.when;
        return last;
    }

    // When the acknowledgement of `id` crossed the Fig line.
    sim::Clock::time_point ackSeen(uint8_t id) const
    {
        for (const auto &frame : fig.frames())
            if (frame.isAck() && frame.payload[0] == id)
                return frame.when;
        return {};
    }

    sim::AmpModel amp{board, sim::AmpFitting::Ad82120};
};

} // namespace

TEST_F(FigMicrophone, MicOnSwitchesTheAmplifiersToMeetingCallsTheCallbackAndSendsDoaOnThenTheAck)
{
    prepare(SPK_EQ_MODE_WALL);
    fig.micOn('1');
    ASSERT_TRUE(fig.waitForAcks('1', 1, kSwitch));
    // On the wire: DOA_ON (16 bytes), then the acknowledgement, nothing else.
    Bytes expected = commandOnWire(FigDspModel::kDoaOn);
    const Bytes ack = ackOnWire('1');
    expected.insert(expected.end(), ack.begin(), ack.end());
    EXPECT_EQ(fig.received(), expected);
    // The acknowledgement goes out after the switch has ended.
    EXPECT_FALSE(amp.writesTo(sim::AmpModel::kAdMain).empty());
    EXPECT_GT(ackSeen('1'), lastI2c());
    expectMeeting();
    EXPECT_EQ(avmtest::recordedStatuses(), std::vector<int>{1});
    EXPECT_TRUE(log.contains("DSP_FIG", kMeetingLog));
    EXPECT_TRUE(dspFig_mic_is_open());
    EXPECT_TRUE(fig.doaReporting());
}

TEST_F(FigMicrophone, MicOffReturnsToTheStoredPlacement)
{
    prepare(SPK_EQ_MODE_WALL);
    fig.micOn('1');
    ASSERT_TRUE(fig.waitForAcks('1', 1, kSwitch));
    fig.clearLog();
    amp.clearLog();
    fig.micOff('2');
    ASSERT_TRUE(fig.waitForAcks('2', 1, kSwitch));
    // Nobody asked for DOA reports: they stop with the microphone.
    Bytes expected = commandOnWire(FigDspModel::kDoaOff);
    const Bytes ack = ackOnWire('2');
    expected.insert(expected.end(), ack.begin(), ack.end());
    EXPECT_EQ(fig.received(), expected);
    EXPECT_FALSE(amp.writesTo(sim::AmpModel::kAdSub).empty());
    expectWall();
    EXPECT_EQ(avmtest::recordedStatuses(), (std::vector<int>{1, 0}));
    EXPECT_TRUE(log.contains("DSP_FIG", kPlacementLog));
    EXPECT_FALSE(dspFig_mic_is_open());
}

TEST_F(FigMicrophone, MicOffReturnsToTheFloorPlacementWhenThatIsStored)
{
    prepare(SPK_EQ_MODE_FLOOR);
    fig.micOn('1');
    ASSERT_TRUE(fig.waitForAcks('1', 1, kSwitch));
    fig.micOff('2');
    ASSERT_TRUE(fig.waitForAcks('2', 1, kSwitch));
    amptest::expectAdFormat(amp, sim::AmpModel::kAdMain, m_reg_tab_RL_floor, m_ram1_tab_RL_floor);
    amptest::expectAdFormat(amp, sim::AmpModel::kAdSub, m_reg_tab_SUB_floor, m_ram1_tab_SUB_floor);
    EXPECT_FALSE(amp.muted(sim::AmpModel::kAdSub));
}

TEST_F(FigMicrophone, MicOffWithTheApplicationAskingForDoaKeepsReportingOn)
{
    prepare(SPK_EQ_MODE_WALL);
    dspFigHalAppRequestDoa(1);
    ASSERT_TRUE(fig.waitForCommand(FigDspModel::kDoaOn, 1, kWire));
    fig.micOn('1');
    ASSERT_TRUE(fig.waitForAcks('1', 1, kSwitch));
    fig.micOff('2');
    ASSERT_TRUE(fig.waitForAcks('2', 1, kSwitch));
    EXPECT_EQ(fig.countCommand(FigDspModel::kDoaOn), 3u);
    EXPECT_EQ(fig.countCommand(FigDspModel::kDoaOff), 0u);
    EXPECT_TRUE(fig.doaReporting());
}

TEST_F(FigMicrophone, TwoMicOnFramesAcknowledgeBothButSendDoaOnAndSwitchOnlyOnce)
{
    prepare(SPK_EQ_MODE_WALL);
    fig.micOn('1');
    ASSERT_TRUE(fig.waitForAcks('1', 1, kSwitch));
    const size_t writes = amp.writesTo(sim::AmpModel::kAdMain).size();
    fig.micOn('3');
    ASSERT_TRUE(fig.waitForAcks('3', 1, kWire));
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(fig.countCommand(FigDspModel::kDoaOn), 1u);
    EXPECT_EQ(fig.countAcks(), 2u);
    EXPECT_EQ(amp.writesTo(sim::AmpModel::kAdMain).size(), writes) << "no second switch";
    EXPECT_EQ(log.count("DSP_FIG", kMeetingLog), 1u);
    EXPECT_EQ(avmtest::recordedStatuses(), std::vector<int>{1});
    EXPECT_TRUE(dspFig_mic_is_open());
}

TEST_F(FigMicrophone, MicOffWithoutAnEarlierMicOnOnlyAcknowledges)
{
    prepare(SPK_EQ_MODE_WALL);
    fig.micOff('2');
    EXPECT_EQ(waitAck('2'), ackOnWire('2'));
    std::this_thread::sleep_for(kQuiet);
    EXPECT_TRUE(amp.accesses().empty());
    EXPECT_TRUE(avmtest::recordedStatuses().empty());
}

TEST_F(FigMicrophone, MicOnWhileTheCameraIsOpenSendsDoaOnAndTheAckButLeavesTheSoundFormat)
{
    prepare(SPK_EQ_MODE_WALL);
    startCamera();
    openCamera();
    fig.micOn('1');
    ASSERT_TRUE(fig.waitForAcks('1', 1, kWire));
    Bytes expected = commandOnWire(FigDspModel::kDoaOn);
    const Bytes ack = ackOnWire('1');
    expected.insert(expected.end(), ack.begin(), ack.end());
    EXPECT_EQ(fig.received(), expected);
    EXPECT_TRUE(log.contains("DSP_FIG", kMeetingLog)) << "allowed, but held back by the camera";
    EXPECT_TRUE(amp.accesses().empty()) << "no amplifier register touched";
    EXPECT_TRUE(avmtest::recordedStatuses().empty());
    // Closing the microphone while the camera is still open leaves it too.
    fig.micOff('2');
    ASSERT_TRUE(fig.waitForAcks('2', 1, kWire));
    EXPECT_TRUE(amp.accesses().empty());
    expectWall();
}

TEST_F(FigMicrophone, WithTheBootVideoRunningTheFormatNeverSwitchesButDoaCommandsGoOut)
{
    prepare(SPK_EQ_MODE_WALL, "1");
    fig.micOn('1');
    ASSERT_TRUE(fig.waitForAcks('1', 1, kWire));
    fig.micOff('2');
    ASSERT_TRUE(fig.waitForAcks('2', 1, kWire));
    EXPECT_EQ(fig.countCommand(FigDspModel::kDoaOn), 1u);
    EXPECT_EQ(fig.countCommand(FigDspModel::kDoaOff), 1u);
    EXPECT_TRUE(amp.accesses().empty());
    EXPECT_TRUE(avmtest::recordedStatuses().empty());
    EXPECT_EQ(log.count("DSP_FIG", kBootVideoLog), 2u);
    EXPECT_EQ(log.count("DSP_FIG", kMeetingLog), 0u);
    EXPECT_EQ(log.count("DSP_FIG", kPlacementLog), 0u);
}

TEST_F(FigMicrophone, AnUnsetBootVideoPropertyCountsAsStillPlaying)
{
    prepare(SPK_EQ_MODE_WALL, nullptr);
    fig.micOn('1');
    ASSERT_TRUE(fig.waitForAcks('1', 1, kWire));
    EXPECT_EQ(fig.countCommand(FigDspModel::kDoaOn), 1u);
    EXPECT_TRUE(amp.accesses().empty());
    EXPECT_TRUE(log.contains("DSP_FIG", kBootVideoLog));
}

TEST_F(FigMicrophone, TheFactoryAgeingClassBlocksTheSwitch)
{
    ASSERT_EQ(property_set("persist.sys.current.class", kAgeingClass), 0);
    prepare(SPK_EQ_MODE_WALL);
    fig.micOn('1');
    ASSERT_TRUE(fig.waitForAcks('1', 1, kWire));
    EXPECT_EQ(fig.countCommand(FigDspModel::kDoaOn), 1u);
    EXPECT_TRUE(amp.accesses().empty());
    EXPECT_TRUE(avmtest::recordedStatuses().empty());
    EXPECT_TRUE(log.contains("DSP_FIG", kAgeingLog));
    EXPECT_FALSE(log.contains("DSP_FIG", kBootVideoLog));
    EXPECT_FALSE(log.contains("DSP_FIG", kMeetingLog));
}

TEST_F(FigMicrophone, AClassThatOnlyStartsLikeTheAgeingTestDoesNotBlock)
{
    ASSERT_EQ(property_set("persist.sys.current.class", "com.tarsa.factoryaging.MainActivity2"), 0);
    prepare(SPK_EQ_MODE_WALL);
    fig.micOn('1');
    ASSERT_TRUE(fig.waitForAcks('1', 1, kSwitch));
    expectMeeting();
    EXPECT_FALSE(log.contains("DSP_FIG", kAgeingLog));
}

TEST_F(FigMicrophone, WithTheDspSwitchOffSlot38RegistersNothing)
{
    ASSERT_EQ(property_set("persist.vendor.dsp.communication", "0"), 0);
    ASSERT_EQ(dspHal_set_spk_eq_mode(SPK_EQ_MODE_WALL), 1);
    ASSERT_EQ(property_set("service.bootvideo.exit", "0"), 0);
    const avmanager_module_t *hmi = avmtest::loadModule();
    ASSERT_NE(hmi, nullptr);
    EXPECT_EQ(hmi->set_dsp_status_callback(hmi, avmtest::recordStatus), -1);
    startFig();
    fig.micOn('1');
    ASSERT_TRUE(fig.waitForAcks('1', 1, kSwitch));
    expectMeeting();
    EXPECT_TRUE(avmtest::recordedStatuses().empty()) << "the format switched, nobody was told";
}

TEST_F(FigMicrophone, OnTheAcm8625FittingTheSubwooferStaysMutedThroughTheMeeting)
{
    amp.setFitting(sim::AmpFitting::Acm8625);
    prepare(SPK_EQ_MODE_WALL);
    ASSERT_EQ(mDeviceExistStatus.load(), 1);
    fig.micOn('1');
    ASSERT_TRUE(fig.waitForAcks('1', 1, kSwitch));
    // The fitting has no meeting tables: the meeting programming goes to the
    // other fitting's address and nothing answers there.
    size_t refused = 0;
    for (const auto &access : amp.accesses())
        if (access.addr == sim::AmpModel::kAdMain && access.write && !access.acked)
            ++refused;
    EXPECT_GT(refused, 100u);
    EXPECT_TRUE(amp.writesTo(sim::AmpModel::kAdMain).empty());
    EXPECT_TRUE(amp.muted(sim::AmpModel::kAcmMono));
    EXPECT_FALSE(amp.muted(sim::AmpModel::kAcmStereo));
    EXPECT_EQ(avmtest::recordedStatuses(), std::vector<int>{1});
    fig.micOff('2');
    ASSERT_TRUE(fig.waitForAcks('2', 1, kSwitch));
    EXPECT_FALSE(amp.muted(sim::AmpModel::kAcmMono)) << "leaving the meeting releases the subwoofer";
    EXPECT_FALSE(amp.muted(sim::AmpModel::kAcmStereo));
    amptest::expectAcmEq(amp, sim::AmpModel::kAcmStereo, tab_L_RL_wall, tab_R_RL_wall);
    amptest::expectAcmEq(amp, sim::AmpModel::kAcmMono, tab_L_SUB_wall, tab_R_SUB_wall);
}
