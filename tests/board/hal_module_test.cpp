// Start-up and release of the module on the virtual board, through HMI as
// the loader finds it. The DSP link is the real one; the other start-up
// steps (camera pipe, speaker placement, PTZ link, detection) are replaced
// by recorders in this executable, which take the place of the module's
// own as it calls them through the dynamic linker. That makes the order of
// the steps, their results and what is left running observable.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <android/log.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <hardware/hardware.h>
#include <sys/stat.h>
#include <unistd.h>

#include "avmanager_hal.h"
#include "dsp/dsp_link.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/board.h"
#include "sim/dsp_model.h"

using namespace std::chrono_literals;

namespace {

std::mutex gStepsMutex;
std::vector<std::string> gSteps; // start-up collaborators, in call order

// Results the recorders hand back.
int gCameraPipeInitResult = 0;
int gCameraPipeUninitResult = 0;
int gSpkEqResult = 0;
int gPtzInitResult = 0;
int gDetectResult = 0;

// What the DSP link looked like when each recorder ran.
int gLinkRunningAtSpkEq = -1;
int gWriteFdAtSpkEq = -2;
int gLinkRunningAtPtzInit = -1;

void step(const char *name)
{
    std::lock_guard<std::mutex> lock(gStepsMutex);
    gSteps.emplace_back(name);
}

std::vector<std::string> steps()
{
    std::lock_guard<std::mutex> lock(gStepsMutex);
    return gSteps;
}

} // namespace

extern "C" {
int initCameraPipe(void) { step("initCameraPipe"); return gCameraPipeInitResult; }
int unInitCameraPipe(void) { step("unInitCameraPipe"); return gCameraPipeUninitResult; }
int initDspSpkEqMode(void)
{
    step("initDspSpkEqMode");
    gLinkRunningAtSpkEq = gDspHalDev.running.load();
    gWriteFdAtSpkEq = gDspFifoDev.writeFd.load();
    return gSpkEqResult;
}
int camera_ptzHal_init(void)
{
    step("camera_ptzHal_init");
    gLinkRunningAtPtzInit = gDspHalDev.running.load();
    return gPtzInitResult;
}
int detect_version_init(void) { step("detect_version_init"); return gDetectResult; }
void parse_PidAmp_RL_Info(void) { step("parse_PidAmp_RL_Info"); }
void parse_PidAmp_SUB_Info(void) { step("parse_PidAmp_SUB_Info"); }
void HV_SetPIDAMP_Parameter(void) { step("HV_SetPIDAMP_Parameter"); }
}

namespace {

class HalModuleBoard : public ::testing::Test {
protected:
    void SetUp() override
    {
        // The placement step may post before the DSP pipe exists, which
        // writes to descriptor 0.
        ASSERT_TRUE(avmtest::sinkDescriptorZero());
        hmi = avmtest::loadModule();
        ASSERT_NE(hmi, nullptr);
    }

    void TearDown() override
    {
        if (gDspHalDev.txThread != pthread_t{})
            stopLink();
    }

    void setSwitches(const char *camera, const char *dspSwitch, const char *floorWall)
    {
        ASSERT_EQ(property_set("persist.vendor.cam.communication", camera), 0);
        ASSERT_EQ(property_set("persist.vendor.dsp.communication", dspSwitch), 0);
        ASSERT_EQ(property_set("persist.vendor.floor_wall", floorWall), 0);
    }

    // Release, without sitting out the receive thread's select.
    int stopLink() { return avmtest::releaseModule(hmi, dsp.get()); }

    bool fifoExists()
    {
        struct stat st;
        return stat(board.rootPath("/tmp/.DSP_fifo").c_str(), &st) == 0;
    }

    avmtest::LogCapture log;
    sim::Board board;
    std::unique_ptr<sim::DspModel> dsp;
    const avmanager_module_t *hmi = nullptr;
};

TEST_F(HalModuleBoard, HmiFoundByIdCarriesTheHeaderAndFiftyOperations)
{
    EXPECT_EQ(hmi->common.tag, HARDWARE_MODULE_TAG);
    EXPECT_EQ(hmi->common.module_api_version, 1);
    EXPECT_EQ(hmi->common.hal_api_version, 0x0100);
    EXPECT_STREQ(hmi->common.id, "avmanager_hal");
    EXPECT_STREQ(hmi->common.name, "Default AVAPI HAL");
    EXPECT_STREQ(hmi->common.author, "The QUOR AV Project");
    ASSERT_NE(hmi->common.methods, nullptr);
    EXPECT_EQ(hmi->common.methods->open, nullptr);
    // The record ships with no handle; the loader fills in the one it opened.
    EXPECT_NE(hmi->common.dso, nullptr);
    for (auto word : hmi->common.reserved)
        EXPECT_EQ(word, 0u);
    for (auto word : hmi->reserved_words)
        EXPECT_EQ(word, 0u);
    EXPECT_EQ(hmi->hal_init, &avmanager_hal_init);
    EXPECT_EQ(hmi->hal_release, &avmanager_hal_release);
    EXPECT_EQ(hmi->send_cmd_to_dsp, &avmanager_send_cmd_to_dsp);
    EXPECT_EQ(hmi->audio_floor_wall_Parase_Init, &avmanager_audio_floor_wall_Parase_Init);
    EXPECT_EQ(hmi->get_cam_auto_black_screen, &avmanager_get_cam_auto_black_screen);
    const void *const *slots = reinterpret_cast<const void *const *>(&hmi->hal_init);
    for (int i = 0; i < AVMANAGER_OPERATION_COUNT; ++i)
        EXPECT_NE(slots[i], nullptr) << "slot " << i;
}

TEST_F(HalModuleBoard, EverySwitchOffRunsOnlyDetectionAndReturnsItsResult)
{
    setSwitches("0", "0", "0");
    gDetectResult = 7;
    EXPECT_EQ(hmi->hal_init(), 7);
    EXPECT_EQ(steps(), std::vector<std::string>{"detect_version_init"});
    EXPECT_FALSE(fifoExists());
    EXPECT_EQ(log.countContaining("UART", "OpenDev"), 0u);
    EXPECT_FALSE(log.contains("DSP", "dsp_process_init finish!"));
    EXPECT_EQ(log.priorityOf("qor_avmanager_hal", "[avmanager_hal_init]!"), ANDROID_LOG_DEBUG);
    EXPECT_EQ(log.countContaining("qor_avmanager_hal", "failed"), 0u);
}

TEST_F(HalModuleBoard, StartupRunsItsStepsInOrderWithEverySwitchOn)
{
    dsp = std::make_unique<sim::DspModel>(board);
    setSwitches("1", "1", "1");
    EXPECT_EQ(hmi->hal_init(), 0);
    EXPECT_EQ(steps(), (std::vector<std::string>{"initCameraPipe", "initDspSpkEqMode", "camera_ptzHal_init",
                                                 "detect_version_init"}));
    // The placement step runs before the DSP link exists: its pipe ends
    // are still at descriptor 0.
    EXPECT_EQ(gLinkRunningAtSpkEq, 0);
    EXPECT_EQ(gWriteFdAtSpkEq, 0);
    // The PTZ step runs after the DSP link is up.
    EXPECT_EQ(gLinkRunningAtPtzInit, 1);
    EXPECT_TRUE(fifoExists());
    EXPECT_TRUE(log.contains("DSP", "dsp_process_init finish!"));
    EXPECT_EQ(send_cmd_to_dsp("HELLO=1"), 524);
    EXPECT_TRUE(dsp->waitForCommand("HELLO=1", 3000ms));
}

TEST_F(HalModuleBoard, DspSwitchSetToOneAfterTheFirstQueryHasNoEffectUntilRestart)
{
    dsp = std::make_unique<sim::DspModel>(board);
    setSwitches("0", "0", "0");
    EXPECT_EQ(hmi->send_cmd_to_dsp(hmi, "EARLY=1"), -1);
    ASSERT_EQ(property_set("persist.vendor.dsp.communication", "1"), 0);
    EXPECT_EQ(hmi->hal_init(), 0);
    EXPECT_FALSE(fifoExists());
    EXPECT_EQ(hmi->send_cmd_to_dsp(hmi, "LATE=1"), -1);
    EXPECT_EQ(log.count("AVMANAGER", "enableDspCommunication:false\n"), 1u);
    EXPECT_EQ(log.countContaining("AVMANAGER", "enableDspCommunication:true"), 0u);
    EXPECT_EQ(dsp->commandCount(), 0u);
}

TEST_F(HalModuleBoard, FloorWallChangeBetweenTwoCallsTakesEffectAtOnce)
{
    setSwitches("0", "0", "0");
    EXPECT_EQ(hmi->hal_init(), 0);
    EXPECT_EQ(steps(), std::vector<std::string>{"detect_version_init"});
    ASSERT_EQ(property_set("persist.vendor.floor_wall", "1"), 0);
    EXPECT_EQ(hmi->hal_init(), 0);
    EXPECT_EQ(steps(), (std::vector<std::string>{"detect_version_init", "initDspSpkEqMode", "detect_version_init"}));
    EXPECT_EQ(log.count("DSP", "false\n"), 1u);
    EXPECT_EQ(log.count("DSP", "true\n"), 1u);
}

TEST_F(HalModuleBoard, FailingDspLinkReturnsMinusOneAndLeavesTheCameraPipeOpen)
{
    // No DSP model: /dev/ttyS2 stays masked and cannot be opened.
    setSwitches("1", "1", "0");
    EXPECT_EQ(hmi->hal_init(), -1);
    EXPECT_TRUE(log.contains("UART", "OpenDev /dev/ttyS2 failed\n"));
    EXPECT_EQ(log.priorityOf("DSP", "openUsartDevice failed!"), ANDROID_LOG_ERROR);
    EXPECT_EQ(log.priorityOf("DSP", "dspHal_uart_init error!"), ANDROID_LOG_ERROR);
    EXPECT_EQ(log.priorityOf("qor_avmanager_hal", "[avmanager_hal_init]:dsp_process_init failed!!"),
              ANDROID_LOG_ERROR);
    // The camera pipe opened in the step before stays open; later steps
    // never ran.
    EXPECT_EQ(steps(), std::vector<std::string>{"initCameraPipe"});
    // No roll-back inside the link either: the pipe and the running flag stay.
    EXPECT_TRUE(fifoExists());
    EXPECT_EQ(gDspHalDev.running.load(), 1);
    EXPECT_EQ(gDspHalDev.fd.load(), -1);
}

TEST_F(HalModuleBoard, FailingPlacementStepReturnsMinusOneBeforeTheDspLink)
{
    dsp = std::make_unique<sim::DspModel>(board);
    setSwitches("0", "1", "1");
    gSpkEqResult = -1;
    EXPECT_EQ(hmi->hal_init(), -1);
    EXPECT_EQ(log.priorityOf("qor_avmanager_hal", "[avmanager_hal_init]:initDspSpkEqMode failed!!"),
              ANDROID_LOG_ERROR);
    EXPECT_EQ(steps(), std::vector<std::string>{"initDspSpkEqMode"});
    EXPECT_FALSE(fifoExists());
}

TEST_F(HalModuleBoard, FailingPtzLinkReturnsMinusOneAndSkipsDetection)
{
    setSwitches("1", "0", "0");
    gPtzInitResult = -1;
    EXPECT_EQ(hmi->hal_init(), -1);
    EXPECT_EQ(log.priorityOf("qor_avmanager_hal", "[avmanager_hal_init]:camera_ptzHal_init failed!!"),
              ANDROID_LOG_ERROR);
    EXPECT_EQ(steps(), (std::vector<std::string>{"initCameraPipe", "camera_ptzHal_init"}));
}

TEST_F(HalModuleBoard, CameraPipeFailureIsIgnored)
{
    setSwitches("1", "0", "0");
    gCameraPipeInitResult = -1;
    gDetectResult = 3;
    EXPECT_EQ(hmi->hal_init(), 3);
    EXPECT_EQ(steps(), (std::vector<std::string>{"initCameraPipe", "camera_ptzHal_init", "detect_version_init"}));
}

TEST_F(HalModuleBoard, FailingDetectionReturnsMinusOne)
{
    setSwitches("0", "0", "0");
    gDetectResult = -5;
    EXPECT_EQ(hmi->hal_init(), -1);
    EXPECT_EQ(log.priorityOf("qor_avmanager_hal", "[avmanager_hal_init]:detect_version_init failed!!"),
              ANDROID_LOG_ERROR);
}

TEST_F(HalModuleBoard, ReleaseWithTheCameraSwitchOffReturnsZero)
{
    setSwitches("0", "0", "0");
    gCameraPipeUninitResult = 9;
    EXPECT_EQ(hmi->hal_release(), 0);
    EXPECT_TRUE(steps().empty());
    EXPECT_EQ(log.priorityOf("qor_avmanager_hal", "[avmanager_hal_release]"), ANDROID_LOG_DEBUG);
}

TEST_F(HalModuleBoard, ReleaseWithTheCameraSwitchOnReturnsTheCameraPipeResult)
{
    setSwitches("1", "0", "0");
    gCameraPipeUninitResult = 9;
    EXPECT_EQ(hmi->hal_release(), 9);
    EXPECT_EQ(steps(), std::vector<std::string>{"unInitCameraPipe"});
}

TEST_F(HalModuleBoard, ReleaseStopsTheDspLinkAndNothingElse)
{
    dsp = std::make_unique<sim::DspModel>(board);
    setSwitches("1", "1", "0");
    ASSERT_EQ(hmi->hal_init(), 0);
    {
        std::lock_guard<std::mutex> lock(gStepsMutex);
        gSteps.clear();
    }
    EXPECT_EQ(stopLink(), 0);
    EXPECT_EQ(gDspHalDev.running.load(), 0);
    EXPECT_EQ(gDspHalDev.fd.load(), -1);
    // Only the camera pipe is closed besides the DSP link.
    EXPECT_EQ(steps(), std::vector<std::string>{"unInitCameraPipe"});
}

TEST_F(HalModuleBoard, FloorWallParseSlotLogsItsNameAndReturnsZero)
{
    EXPECT_EQ(hmi->audio_floor_wall_Parase_Init(), 0);
    EXPECT_EQ(log.priorityOf("qor_avmanager_hal", "avmanager_audio_floor_wall_Parase_Init"), ANDROID_LOG_DEBUG);
    EXPECT_TRUE(steps().empty());
}

TEST_F(HalModuleBoard, AmplifierIniEntryRunsItsThreeStepsInOrderAndReturnsOne)
{
    EXPECT_EQ(Aprojectid_ampini_parase_init(), 1);
    EXPECT_EQ(steps(), (std::vector<std::string>{"parse_PidAmp_RL_Info", "parse_PidAmp_SUB_Info",
                                                 "HV_SetPIDAMP_Parameter"}));
}

} // namespace
