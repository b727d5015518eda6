// Sound-direction reports from the DSP on the virtual board: forwarded to
// the camera as a DOA frame only when both the DOA and the camera switch
// are on.
#include <gtest/gtest.h>

#include <cutils/properties.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "camera/camera_pipe.h"
#include "camera/ptz_link.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_replies.h"
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
constexpr uint8_t kDoaMain = 0x21; // the camera's DOA frame
constexpr uint8_t kDoaSub = 0x00;

class AudioDoaToCamera : public ::testing::Test, protected avmtest::DspOnBoard {
protected:
    void start(const char *doaSwitch, const char *cameraSwitch)
    {
        property_set("persist.sys.dsp.sendDoaToCamera", doaSwitch);
        property_set("persist.vendor.cam.communication", cameraSwitch);
        ASSERT_EQ(initCameraPipe(), 0);
        ASSERT_EQ(camera_ptzHal_init(), 0);
        cameraUp = true;
        ASSERT_EQ(dsp_process_init(), 0);
        dspUp = true;
    }

    void TearDown() override
    {
        if (cameraUp)
            avmtest::stopPtzLink();
        if (dspUp)
            avmtest::stopDspLink(&dsp);
    }

    // Raises a report, then a harmless reply; once that one is handled the
    // report has been too.
    void raiseAndSync(int angle)
    {
        mainMuteReplied = 0;
        audio.raiseDoa(angle);
        std::this_thread::sleep_for(250ms);
        dsp.send("MT=0");
        ASSERT_TRUE(sim::waitUntil([] { return mainMuteReplied.load() == 1; }, kWire));
    }

    sim::PtzCameraModel camera{board};
    bool cameraUp = false;
    bool dspUp = false;
};

TEST_F(AudioDoaToCamera, ReportWithBothSwitchesOnReachesTheCamera)
{
    start("1", "1");
    audio.raiseDoa(300);
    ASSERT_TRUE(camera.waitForFrames(kDoaMain, kDoaSub, 1, kWire));
    auto frame = camera.lastFrame(kDoaMain, kDoaSub);
    ASSERT_TRUE(frame.has_value());
    EXPECT_TRUE(frame->checksumOk);
    EXPECT_EQ(frame->length(), 2);
    EXPECT_EQ(frame->data(0), 300 & 0xFF);
    EXPECT_EQ(frame->data(1), 300 >> 8);
}

TEST_F(AudioDoaToCamera, ReportWithTheDoaSwitchOffSendsNothingToTheCamera)
{
    start("0", "1");
    raiseAndSync(135);
    std::this_thread::sleep_for(300ms); // give a leaked frame time to show
    EXPECT_EQ(camera.countFrames(kDoaMain, kDoaSub), 0u);
}

TEST_F(AudioDoaToCamera, ReportWithTheCameraSwitchOffSendsNothingToTheCamera)
{
    start("1", "0");
    raiseAndSync(135);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(camera.countFrames(kDoaMain, kDoaSub), 0u);
}

} // namespace
