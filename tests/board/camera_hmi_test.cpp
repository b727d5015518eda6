// The camera operations through the module record on the virtual board,
// with the DSP and the PTZ camera models: every camera slot's round trip,
// the DSP's sound-direction reports reaching the camera, the camera's
// reports reaching the DSP, and the camera status callback.
#include <gtest/gtest.h>

#include <android/log.h>
#include <cutils/properties.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "avmanager_hal.h"
#include "camera/ptz_link.h"
#include "camera/ptz_requests.h"
#include "dsp_on_board.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/board.h"
#include "sim/dsp_audio_model.h"
#include "sim/dsp_model.h"
#include "sim/ptz_camera_model.h"

using namespace std::chrono_literals;

namespace {

constexpr auto kWire = 5s; // generous: a busy 2-core machine

// The module with camera and DSP communication on, DOA forwarding on
// unless a test changes the switches before startModule().
class CameraBoard : public ::testing::Test, protected avmtest::DspOnBoard {
protected:
    void SetUp() override
    {
        property_set("persist.vendor.cam.communication", "1");
        property_set("persist.vendor.dsp.communication", "1");
        property_set("persist.sys.dsp.sendDoaToCamera", "1");
    }

    void startModule()
    {
        up = avmtest::startModule(hmi);
        ASSERT_TRUE(up);
    }

    void TearDown() override
    {
        if (!up)
            return;
        avmtest::releaseModule(hmi, &dsp);
        // The PTZ link outlives release; stop it so its threads end.
        avmtest::stopPtzLink();
    }

    bool dspGot(const std::string &command) { return dsp.waitForCommand(command, kWire); }

    size_t dspCount(const std::string &command)
    {
        size_t n = 0;
        for (const auto &c : dsp.commands())
            n += c == command;
        return n;
    }

    sim::PtzCameraModel camera{board};
    const avmanager_module_t *hmi = nullptr;
    bool up = false;
};

class CameraHmi : public CameraBoard {
protected:
    void SetUp() override
    {
        CameraBoard::SetUp();
        startModule();
    }
};

// ------------------------------------------------------------ DOA forward

TEST_F(CameraHmi, DspDoaReportReachesTheCameraAsASendDoaFrame)
{
    audio.raiseDoa(120);
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x00, 1, kWire));
    auto f = camera.lastFrame(0x21, 0x00);
    EXPECT_TRUE(f->checksumOk);
    EXPECT_EQ(f->length(), 2);
    EXPECT_EQ(f->data(0), 120);
    EXPECT_EQ(f->data(1), 0);
    audio.raiseDoa(300);
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x00, 2, kWire));
    EXPECT_EQ(camera.lastFrame(0x21, 0x00)->data(0), 300 & 0xFF);
    EXPECT_EQ(camera.lastFrame(0x21, 0x00)->data(1), 300 >> 8);
}

TEST_F(CameraBoard, DspDoaReportIsNotForwardedWhenDoaForwardingIsOff)
{
    property_set("persist.sys.dsp.sendDoaToCamera", "0");
    startModule();
    audio.raiseDoa(90);
    // The link itself works: a request still gets through afterwards.
    camera.setCurrentTemperature(20);
    EXPECT_EQ(hmi->get_cam_current_temperature(), 20);
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(camera.countFrames(0x21, 0x00), 0u);
}

TEST_F(CameraBoard, DspDoaReportIsNotForwardedWhenCameraCommunicationIsOff)
{
    property_set("persist.vendor.cam.communication", "0");
    startModule();
    audio.raiseDoa(90);
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(camera.frameCount(), 0u);
}

// ------------------------------------------------- camera reports to DSP

TEST_F(CameraHmi, CameraDoaStatusSetReachesTheDsp)
{
    camera.raiseDoaStatusSet(1);
    ASSERT_TRUE(dspGot("MIC_DOA_REP=1"));
    EXPECT_TRUE(camera.waitForFrames(0x21, 0x13, 1, kWire));
    EXPECT_TRUE(sim::waitUntil([&] { return audio.doaReporting(); }, kWire));
    // Any value but 1 switches reporting off.
    camera.raiseDoaStatusSet(2);
    ASSERT_TRUE(dspGot("MIC_DOA_REP=0"));
    EXPECT_TRUE(log.contains("PTZ", "ptz_recv_doa_status_set  to Mic 3308, status : 2 \n"));
}

TEST_F(CameraHmi, CameraDoaStatusSetOfLengthTwoIsOnlyLogged)
{
    camera.raiseDoaStatusSet(1, 2);
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x13, 1, kWire));
    ASSERT_TRUE(log.waitFor("PTZ", "ptz_recv_doa_status_set  to Mic 3308, status : 1 \n", kWire));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(dspCount("MIC_DOA_REP=1"), 0u);
    EXPECT_EQ(dspCount("MIC_DOA_REP=0"), 0u);
}

TEST_F(CameraHmi, CameraDoaStatusQuestionIsAnsweredWithTheDspState)
{
    audio.setDoaReporting(true);
    camera.askDoaStatus();
    ASSERT_TRUE(sim::waitUntil([&] { return camera.doaStatusAnswer() >= 0; }, kWire));
    EXPECT_EQ(camera.doaStatusAnswer(), 1);
    EXPECT_TRUE(dspGot("MIC_DOA_REP=?"));
}

TEST_F(CameraHmi, AngleReportsSteerTheMicBarOnlyInDynamicMode)
{
    EXPECT_EQ(hmi->setSmartListenDynamic(), 0);
    EXPECT_EQ(camera.smartListenReport(), 1);
    camera.raiseAngleReport(30, 150);
    ASSERT_TRUE(dspGot("MIC_BAR=30,150"));
    EXPECT_TRUE(sim::waitUntil([&] { return audio.micBar().start == 30 && !audio.micBar().isStatic; }, kWire));

    EXPECT_EQ(hmi->setSmartListenOff(), 0);
    EXPECT_EQ(camera.smartListenReport(), 0);
    ASSERT_TRUE(dspGot("MIC_BAR=0,180,static"));
    camera.raiseAngleReport(10, 20);
    ASSERT_TRUE(camera.waitForFrames(0x31, 0x1F, 2, kWire));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(dspCount("MIC_BAR=10,20"), 0u);
}

TEST_F(CameraHmi, SmartListenStaticStopsReportsAndFixesTheSector)
{
    EXPECT_EQ(hmi->setSmartListenStatic(hmi, 45, 135), 0);
    EXPECT_EQ(camera.smartListenReport(), 0);
    ASSERT_TRUE(dspGot("MIC_BAR=45,135,static"));
}

// ------------------------------------------------- camera open and close

TEST_F(CameraHmi, CameraOpenWithDejitterZoomsTheDspAndCallsBack)
{
    property_set("persist.vendor.cam.dejitter", "true");
    avmtest::clearRecordedStatuses();
    hmi->set_camera_status_callback(hmi, avmtest::recordStatus);
    camera.raiseOpen();
    ASSERT_TRUE(dspGot("ZOOM_MODE=1"));
    ASSERT_TRUE(sim::waitUntil([] { return avmtest::recordedStatuses().size() == 1; }, kWire));
    EXPECT_EQ(avmtest::recordedStatuses(), std::vector<int>{1});
    EXPECT_TRUE(camera.waitForFrames(0x20, 0x01, 1, kWire));
    camera.raiseClose();
    ASSERT_TRUE(dspGot("ZOOM_MODE=0"));
    ASSERT_TRUE(sim::waitUntil([] { return avmtest::recordedStatuses().size() == 2; }, kWire));
    EXPECT_EQ(avmtest::recordedStatuses(), (std::vector<int>{1, 0}));
}

TEST_F(CameraHmi, CameraOpenWithoutDejitterLeavesTheZoomAlone)
{
    property_set("persist.vendor.cam.dejitter", "TRUE");
    camera.raiseOpen();
    ASSERT_TRUE(log.waitFor("PTZ", "ptz_recv_camera_status_open\n", kWire));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(dspCount("ZOOM_MODE=1"), 0u);
    EXPECT_EQ(ptz_cam_is_open(), 1u);
}

TEST_F(CameraBoard, StatusCallbackWithCameraOffRegistersNothing)
{
    property_set("persist.vendor.cam.communication", "0");
    startModule();
    avmtest::clearRecordedStatuses();
    hmi->set_camera_status_callback(hmi, avmtest::recordStatus);
    ptz_test_camera_status_callback();
    EXPECT_TRUE(avmtest::recordedStatuses().empty());
}

// ------------------------------------------------------ slot round trips

TEST_F(CameraHmi, SetUsbChannelReachesTheCamera)
{
    EXPECT_EQ(hmi->set_usbchannel(hmi, 3), 1);
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x02, 1, kWire));
    EXPECT_EQ(camera.usbChannel(), 3);
}

TEST_F(CameraHmi, SetCameraAutotestReachesTheCamera)
{
    EXPECT_EQ(hmi->set_camera_autotest(hmi, 1), 1);
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x06, 1, kWire));
    EXPECT_EQ(camera.autotestMode(), 1);
}

TEST_F(CameraHmi, GetCameraAutotestResult)
{
    camera.setAutotestBytes({0, 1, 1, 0});
    EXPECT_EQ(hmi->get_camera_autotest_result(), 0b0110);
}

TEST_F(CameraHmi, GetCameraIspEnv)
{
    camera.setIspEnv(7, 256, 2);
    int32_t pair[2] = {0, 0};
    EXPECT_EQ(hmi->get_camera_isp_env(hmi, pair), 7);
    EXPECT_EQ(pair[0], 256);
    EXPECT_EQ(pair[1], 2);
}

TEST_F(CameraHmi, FollowSoundSourceModeRoundTrip)
{
    EXPECT_EQ(hmi->set_cam_follow_sound_source_mode(hmi, 1), 1);
    EXPECT_EQ(hmi->get_cam_follow_sound_source_mode(), 1);
    EXPECT_EQ(hmi->set_cam_follow_sound_source_mode(hmi, 0), 1);
    EXPECT_EQ(hmi->get_cam_follow_sound_source_mode(), 0);
}

TEST_F(CameraHmi, ResetCamParameters)
{
    EXPECT_EQ(hmi->reset_cam_parameters(), 1);
    EXPECT_EQ(camera.factoryResets(), 1);
}

TEST_F(CameraHmi, Temperatures)
{
    camera.setCurrentTemperature(48);
    camera.setMaxTemperature(90);
    EXPECT_EQ(hmi->get_cam_current_temperature(), 48);
    EXPECT_EQ(hmi->get_cam_limit_max_temperature(), 90);
}

TEST_F(CameraHmi, SilentCameraTemperatureReadsMinusOneThroughTheApi)
{
    camera.setSilent(true);
    EXPECT_EQ(hmi->get_cam_current_temperature(), -1);
}

TEST_F(CameraHmi, FunctionList)
{
    camera.setFunclist({0xA1, 0xB2});
    uint8_t *list = hmi->get_cam_funclist();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0], 2);
    EXPECT_EQ(list[1], 0xA1);
    EXPECT_EQ(list[2], 0xB2);
}

TEST_F(CameraHmi, BlackScreen)
{
    camera.setSupportBlackScreen(1);
    EXPECT_EQ(hmi->get_cam_support_black_screen(), 1);
    EXPECT_EQ(hmi->set_cam_auto_black_screen(hmi, 1), 1);
    EXPECT_EQ(camera.autoBlackScreen(), 1);
    EXPECT_EQ(hmi->get_cam_auto_black_screen(), 1);
}

TEST_F(CameraBoard, CameraSlotsWithCameraOffReturnTheirFixedResultsAndSendNothing)
{
    property_set("persist.vendor.cam.communication", "0");
    startModule();
    int32_t pair[2] = {5, 6};
    EXPECT_EQ(hmi->set_usbchannel(hmi, 3), 0);
    EXPECT_EQ(hmi->set_camera_autotest(hmi, 1), 0);
    EXPECT_EQ(hmi->get_camera_autotest_result(), 0);
    EXPECT_EQ(hmi->get_camera_isp_env(hmi, pair), -1);
    EXPECT_EQ(pair[0], 5);
    EXPECT_EQ(hmi->set_cam_follow_sound_source_mode(hmi, 1), -1);
    EXPECT_EQ(hmi->get_cam_follow_sound_source_mode(), 0);
    EXPECT_EQ(hmi->reset_cam_parameters(), 0);
    EXPECT_EQ(hmi->get_cam_limit_max_temperature(), -1);
    EXPECT_EQ(hmi->get_cam_current_temperature(), -1);
    EXPECT_EQ(hmi->get_cam_funclist(), nullptr);
    EXPECT_EQ(hmi->get_cam_support_black_screen(), 0);
    EXPECT_EQ(hmi->set_cam_auto_black_screen(hmi, 1), 0);
    EXPECT_EQ(hmi->get_cam_auto_black_screen(), 0);
    EXPECT_EQ(hmi->setSmartListenDynamic(), 0);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(camera.frameCount(), 0u);
}

TEST_F(CameraHmi, HostileFramesNeverStopTheReceiver)
{
    for (int i = 0; i < 30; ++i) {
        std::vector<uint8_t> junk(64);
        for (size_t j = 0; j < junk.size(); ++j)
            junk[j] = static_cast<uint8_t>(i * 37 + j * 11);
        junk[0] = 0xAA;
        junk[1] = 0xBB;
        junk[2] = 0xCC;
        camera.sendBytes(junk);
    }
    camera.setBadChecksum(true);
    camera.raiseOpen();
    camera.setBadChecksum(false);
    camera.setLength57(true);
    camera.raiseOpen();
    camera.setLength57(false);
    std::this_thread::sleep_for(300ms);
    camera.setCurrentTemperature(44);
    EXPECT_EQ(hmi->get_cam_current_temperature(), 44);
}

} // namespace
