// The service API's gates on the virtual board: with an operation's
// feature switch off, the operation returns its fixed result and nothing
// reaches the DSP line or the camera line. The links are started by hand
// here (start-up would not start them with the switches off) so that
// anything leaking through a closed gate would show on the wire.
#include <gtest/gtest.h>

#include <cutils/properties.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "amp_fixture.h"
#include "avmanager_hal.h"
#include "camera/ptz_requests.h"
#include "dsp/dsp_link.h"
#include "dsp_commands.h"
#include "dsp_on_board.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/board.h"
#include "sim/dsp_audio_model.h"
#include "sim/dsp_model.h"
#include "sim/ptz_camera_model.h"

using namespace std::chrono_literals;

namespace {

constexpr auto kWire = 5s;

std::atomic<int> gCameraCallbackCalls{0};
int cameraCallback(int)
{
    ++gCameraCallbackCalls;
    return 0;
}

int gDspCallbackDummy(int)
{
    return 0;
}

struct GatedOp {
    int slot;
    const char *name;
    std::function<intptr_t(const avmanager_module_t *)> call;
    intptr_t whenOff;
};

// Every gated operation of slots 2..49, called with plausible arguments,
// and its result with the gate closed. The HDMI-out operations (16..20)
// have no switch and slot 39 does nothing; they are not in the table.
std::vector<GatedOp> dspOps()
{
    return {
        {2, "set_volume", [](auto m) { return m->set_volume(m, AUDIO_CHANNEL_MAIN, 40); }, -1},
        {3, "get_volume", [](auto m) { return m->get_volume(m, AUDIO_CHANNEL_MAIN); }, -1},
        {4, "set_mute", [](auto m) { return m->set_mute(m, AUDIO_CHANNEL_MAIN, 1); }, 0},
        {5, "get_mute", [](auto m) { return m->get_mute(m, AUDIO_CHANNEL_MAIN); }, 0},
        {6, "set_balance", [](auto m) { return m->set_balance(m, 60); }, 0},
        {7, "get_balance", [](auto m) { return m->get_balance(); }, -1},
        {8, "get_hotplug", [](auto m) { return m->get_hotplug(m, 1); }, -1},
        {9, "set_soundMode", [](auto m) { return m->set_soundMode(m, 1); }, 0},
        {10, "get_soundMode", [](auto m) { return m->get_soundMode(); }, -1},
        {11, "set_Treble", [](auto m) { return m->set_Treble(m, 60); }, 0},
        {12, "get_Treble", [](auto m) { return m->get_Treble(); }, -1},
        {13, "set_Bass", [](auto m) { return m->set_Bass(m, 60); }, 0},
        {14, "get_Bass", [](auto m) { return m->get_Bass(); }, -1},
        {15, "set_powerDown", [](auto m) { return m->set_powerDown(); }, 0},
        {22, "send_cmd_to_dsp", [](auto m) { return m->send_cmd_to_dsp(m, "KS=1"); }, -1},
        {25, "set_dsp_audio_out_mode", [](auto m) { return m->set_dsp_audio_out_mode(m, "LINEOUT"); }, 0},
        {26, "get_dsp_audio_out_mode", [](auto m) { return m->get_dsp_audio_out_mode(); }, -1},
        {29, "set_dsp_spk_eq_mode", [](auto m) { return m->set_dsp_spk_eq_mode(m, 1); }, 0},
        {30, "get_dsp_spk_eq_mode", [](auto m) { return m->get_dsp_spk_eq_mode(); }, -1},
        {31, "set_dsp_user_eq_param",
         [](auto m) { return m->set_dsp_user_eq_param(m, 2, 1, 1000, 3, 1); }, 0},
        {32, "get_dsp_user_eq_gain", [](auto m) { return m->get_dsp_user_eq_gain(m, 2); }, 0},
        {33, "setDspDoaReport", [](auto m) { return m->setDspDoaReport(m, 1); }, 0},
        {34, "getDspDoaReport", [](auto m) { return m->getDspDoaReport(); }, 0},
        {38, "set_dsp_status_callback",
         [](auto m) { return m->set_dsp_status_callback(m, gDspCallbackDummy); }, -1},
    };
}

// The smart-listening operations need both switches and return 0 always.
std::vector<GatedOp> bothOps()
{
    return {
        {35, "setSmartListenStatic", [](auto m) { return m->setSmartListenStatic(m, 30, 150); }, 0},
        {36, "setSmartListenOff", [](auto m) { return m->setSmartListenOff(); }, 0},
        {37, "setSmartListenDynamic", [](auto m) { return m->setSmartListenDynamic(); }, 0},
    };
}

std::vector<GatedOp> cameraOps()
{
    return {
        {21, "set_usbchannel", [](auto m) { return m->set_usbchannel(m, 2); }, 0},
        {23, "set_camera_autotest", [](auto m) { return m->set_camera_autotest(m, 1); }, 0},
        {24, "get_camera_autotest_result", [](auto m) { return m->get_camera_autotest_result(); }, 0},
        {27, "get_camera_isp_env",
         [](auto m) {
             static int32_t pair[2] = {7, 7};
             intptr_t r = m->get_camera_isp_env(m, pair);
             return pair[0] == 7 && pair[1] == 7 ? r : 1000; // the out record stays untouched
         },
         -1},
        {28, "set_camera_status_callback",
         [](auto m) {
             m->set_camera_status_callback(m, cameraCallback);
             return intptr_t{0};
         },
         0},
        {40, "set_cam_follow_sound_source_mode",
         [](auto m) { return m->set_cam_follow_sound_source_mode(m, 1); }, -1},
        {41, "get_cam_follow_sound_source_mode",
         [](auto m) { return m->get_cam_follow_sound_source_mode(); }, 0},
        {42, "reset_cam_parameters", [](auto m) { return m->reset_cam_parameters(); }, 0},
        {43, "get_cam_logs", [](auto m) { return m->get_cam_logs(m, "/tmp/camlogs"); }, 0},
        {44, "get_cam_limit_max_temperature",
         [](auto m) { return m->get_cam_limit_max_temperature(); }, -1},
        {45, "get_cam_current_temperature", [](auto m) { return m->get_cam_current_temperature(); }, -1},
        {46, "get_cam_funclist",
         [](auto m) { return reinterpret_cast<intptr_t>(m->get_cam_funclist()); }, 0},
        {47, "get_cam_support_black_screen",
         [](auto m) { return m->get_cam_support_black_screen(); }, 0},
        {48, "set_cam_auto_black_screen", [](auto m) { return m->set_cam_auto_black_screen(m, 1); }, 0},
        {49, "get_cam_auto_black_screen", [](auto m) { return m->get_cam_auto_black_screen(); }, 0},
    };
}

class ServiceApiGates : public ::testing::Test, protected avmtest::DspOnBoard {
protected:
    void load(const char *dspSwitch, const char *cameraSwitch, const char *floorWall = "0")
    {
        property_set("persist.vendor.dsp.communication", dspSwitch);
        property_set("persist.vendor.cam.communication", cameraSwitch);
        property_set("persist.vendor.floor_wall", floorWall);
        hmi = avmtest::loadModule();
        ASSERT_NE(hmi, nullptr);
        ASSERT_EQ(dsp_process_init(), 0);
        dspUp = true;
    }

    void TearDown() override
    {
        if (dspUp)
            avmtest::stopDspLink(&dsp);
    }

    // What reached the DSP before this point (the marker goes through the
    // link itself, not through a gate).
    std::vector<std::string> dspWire()
    {
        EXPECT_GE(send_cmd_to_dsp("MARK"), 1);
        EXPECT_TRUE(dsp.waitForCommand("MARK", kWire));
        // The detection thread's version queries are not the gates' doing.
        return avmtest::withoutVersionQueries(avmtest::without(dsp.commands(), "MARK"));
    }

    void expectClosed(const std::vector<GatedOp> &ops)
    {
        for (const auto &op : ops)
            EXPECT_EQ(op.call(hmi), op.whenOff) << "slot " << op.slot << " " << op.name;
    }

    sim::PtzCameraModel camera{board};
    const avmanager_module_t *hmi = nullptr;
    bool dspUp = false;
};

TEST_F(ServiceApiGates, EveryGatedOperationWithAllSwitchesOffGivesItsFixedResultAndSendsNothing)
{
    load("0", "0");
    expectClosed(dspOps());
    expectClosed(bothOps());
    expectClosed(cameraOps());
    EXPECT_TRUE(dspWire().empty());
    EXPECT_EQ(camera.frameCount(), 0u);
    // Nothing was stored either.
    char value[PROPERTY_VALUE_MAX];
    for (const char *key : {"persist.zel.dsp.volumeVal", "persist.zel.dsp.balanceVal",
                            "persist.zel.dsp.trebleVal", "persist.zel.dsp.bassVal",
                            "persist.zel.dsp.soundMode", "persist.zel.dsp.audioOutMode",
                            "persist.zel.dsp.spkEqMode"})
        EXPECT_EQ(property_get(key, value, ""), 0) << key;
}

TEST_F(ServiceApiGates, EveryOperationLogsItsNameUnderTheServiceTag)
{
    load("0", "0");
    expectClosed(dspOps());
    expectClosed(cameraOps());
    EXPECT_TRUE(log.contains("qor_avmanager_hal", "[avmanager_set_volume]"));
    EXPECT_TRUE(log.contains("qor_avmanager_hal", "[avmanager_get_cam_auto_black_screen]"));
}

TEST_F(ServiceApiGates, DspOperationsWithOnlyTheCameraSwitchOnStayClosed)
{
    load("0", "1");
    expectClosed(dspOps());
    expectClosed(bothOps());
    EXPECT_TRUE(dspWire().empty());
}

TEST_F(ServiceApiGates, CameraOperationsWithOnlyTheDspSwitchOnStayClosed)
{
    load("1", "0");
    expectClosed(cameraOps());
    expectClosed(bothOps());
    EXPECT_TRUE(dspWire().empty());
    EXPECT_EQ(camera.frameCount(), 0u);
}

TEST_F(ServiceApiGates, WithTheDspSwitchOffGetVolumeIsMinusOneAndGetMuteIsZeroAndNothingIsSent)
{
    load("0", "0");
    property_set("persist.zel.dsp.volumeVal", "40");
    EXPECT_EQ(avmanager_get_volume(hmi, AUDIO_CHANNEL_MAIN), -1);
    EXPECT_EQ(avmanager_get_mute(hmi, AUDIO_CHANNEL_MAIN), 0);
    EXPECT_TRUE(dspWire().empty());
}

// With floor/wall support the speaker placement also programs the
// amplifiers, so this board carries them and their tuning files.
class ServiceApiFloorWall : public ServiceApiGates {
protected:
    sim::AmpModel amp{board, sim::AmpFitting::Ad82120};
};

TEST_F(ServiceApiFloorWall, SpeakerEqModeWithTheDspOffAndFloorWallOnStillReachesTheDsp)
{
    amptest::generateTuningFiles(board);
    load("0", "0", "1");
    EXPECT_EQ(avmanager_set_dsp_spk_eq_mode(hmi, 1), 1);
    EXPECT_EQ(dspWire(), (std::vector<std::string>{"SPK_EQ_MODE=WALL"}));
    char value[PROPERTY_VALUE_MAX];
    property_get("persist.zel.dsp.spkEqMode", value, "");
    EXPECT_STREQ(value, "WALL");
    EXPECT_EQ(avmanager_get_dsp_spk_eq_mode(), 1);
}

TEST_F(ServiceApiGates, SmartListenOffSendsTheWholeHalfCircle)
{
    load("1", "1");
    EXPECT_EQ(avmanager_setSmartListenOff(), 0);
    ASSERT_TRUE(dsp.waitForCommand("MIC_BAR=0,180,static", kWire));
    EXPECT_TRUE(sim::waitUntil([&] { return audio.micBar().end == 180 && audio.micBar().isStatic; },
                               kWire));
    EXPECT_TRUE(log.contains("DSP", "dspHal_set_mic_bar_angle startAngle:0 endAngle:180 isStatic:1"));
}

TEST_F(ServiceApiGates, SmartListenStaticFixesTheGivenSector)
{
    load("1", "1");
    EXPECT_EQ(avmanager_setSmartListenStatic(hmi, 30, 150), 0);
    EXPECT_TRUE(dsp.waitForCommand("MIC_BAR=30,150,static", kWire));
}

TEST_F(ServiceApiGates, CameraStatusCallbackWithTheCameraSwitchOffRegistersNothing)
{
    load("0", "0");
    avmanager_set_camera_status_callback(hmi, cameraCallback);
    ptz_test_camera_status_callback();
    EXPECT_EQ(gCameraCallbackCalls.load(), 0);
}

TEST_F(ServiceApiGates, FloorWallInitSlotAlwaysReturnsZero)
{
    load("0", "0");
    EXPECT_EQ(hmi->audio_floor_wall_Parase_Init(), 0);
    EXPECT_TRUE(dspWire().empty());
}

} // namespace
