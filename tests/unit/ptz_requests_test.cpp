// Camera requests and reply handlers without a camera: decoding of every
// reply into its result slot, the defaults the queries return when nothing
// answers, the camera-open state and the status callback.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include <android/log.h>

#include "camera/camera_pipe.h"
#include "camera/ptz_link.h"
#include "camera/ptz_requests.h"
#include "dsp/dsp_link.h"
#include "dsp_commands.h"
#include "log_capture.h"
#include "module_state.h"
#include "sim/ptz_wire.h"
#include "test_helpers.h"

namespace {

using Bytes = std::vector<uint8_t>;

void feed(uint8_t main, uint8_t sub, const Bytes &payload, int length = -1)
{
    auto f = sim::makePtzFrame(main, sub, payload);
    if (length >= 0) {
        f[5] = static_cast<uint8_t>(length);
        f[63] = sim::ptzChecksum(f.data(), 63);
    }
    ptz_rx_protocol_handle(f.data(), static_cast<int>(f.size()));
}

template <typename T> T slot(const PtzResponse &response)
{
    T v{};
    memcpy(&v, response.result, sizeof v);
    return v;
}


// Every test starts from a freshly loaded module.
class PtzReplies : public avmtest::FreshModule {};
class PtzRequestsPipe : public avmtest::FreshModule {};
class PtzRequestsWithoutCamera : public avmtest::FreshModule {};

TEST_F(PtzReplies, AutotestLengthThreeWithDataOneZeroFiveGivesFive)
{
    avmtest::LogCapture log;
    feed(0x21, 0x09, {1, 0, 5});
    EXPECT_EQ(slot<int32_t>(gPtzAutotestResponse), 0b101);
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_autotest_result\n"));
    EXPECT_EQ(log.priorityOf("PTZ", "ptz_respond_get_autotest_result\n"), ANDROID_LOG_INFO);
}

TEST_F(PtzReplies, AutotestUsesAtMostFourBytesAndLengthZeroGivesZero)
{
    feed(0x21, 0x09, {1, 1, 1, 1, 1, 1});
    EXPECT_EQ(slot<int32_t>(gPtzAutotestResponse), 0xF);
    feed(0x21, 0x09, {1, 1, 1}, 0);
    EXPECT_EQ(slot<int32_t>(gPtzAutotestResponse), 0);
}

TEST_F(PtzReplies, IspReplyIsDecodedBigEndian)
{
    avmtest::LogCapture log;
    feed(0x21, 0x11, {0x07, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x02});
    uint32_t values[3];
    memcpy(values, gPtzIspEnvResponse.result, sizeof values);
    EXPECT_EQ(values[0], 7u);
    EXPECT_EQ(values[1], 256u);
    EXPECT_EQ(values[2], 2u);
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_isp_env_result\n"));
}

TEST_F(PtzReplies, TemperatureOfLengthOneIsTheFirstByte)
{
    feed(0x20, 0xBB, {0xC8});
    EXPECT_EQ(slot<uint32_t>(gPtzTemperatureResponse), 200u);
}

TEST_F(PtzReplies, TemperatureWithUnexpectedLengthGivesZeroAndLogsTheLength)
{
    avmtest::LogCapture log;
    feed(0x20, 0xBD, {40, 41});
    EXPECT_EQ(slot<uint32_t>(gPtzTemperatureResponse), 0u);
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_temperature_value_result len = 2 \n"));
    EXPECT_EQ(log.priorityOf("PTZ", "ptz_respond_get_temperature_value_result len = 2 \n"), ANDROID_LOG_ERROR);
}

TEST_F(PtzReplies, BlackScreenFlagsAreNonZeroBytesOfLengthOne)
{
    feed(0x20, 0xF5, {7});
    EXPECT_EQ(slot<uint8_t>(gPtzSupportBlackScreenResponse), 1);
    feed(0x20, 0xF9, {0});
    EXPECT_EQ(slot<uint8_t>(gPtzAutoBlackScreenResponse), 0);
    feed(0x20, 0xF9, {3});
    EXPECT_EQ(slot<uint8_t>(gPtzAutoBlackScreenResponse), 1);
}

TEST_F(PtzReplies, BlackScreenWithUnexpectedLengthGivesZeroAndLogsTheLength)
{
    avmtest::LogCapture log;
    feed(0x20, 0xF5, {1}, 0);
    EXPECT_EQ(slot<uint8_t>(gPtzSupportBlackScreenResponse), 0);
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_support_black_screen len = 0 \n"));
    feed(0x20, 0xF9, {1, 1});
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_auto_black_screen len = 2 \n"));
    EXPECT_EQ(log.priorityOf("PTZ", "ptz_respond_get_auto_black_screen len = 2 \n"), ANDROID_LOG_ERROR);
}

TEST_F(PtzReplies, DebugLevelLogsTheDecodedFlags)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    ptzHalSetDebugLevel(1);
    feed(0x20, 0xF5, {1});
    feed(0x20, 0xF9, {1});
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_support_black_screen : 1 \n"));
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_auto_black_screen : 1 \n"));
}

TEST_F(PtzReplies, AngleListenModelIsOneOnlyForLengthOneAndValueOne)
{
    avmtest::LogCapture log;
    feed(0x31, 0x1B, {1});
    EXPECT_EQ(slot<uint8_t>(gPtzAngleListenModelResponse), 1);
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_angle_listen_model, result size: 1 \n"));
    feed(0x31, 0x1B, {2});
    EXPECT_EQ(slot<uint8_t>(gPtzAngleListenModelResponse), 0);
    feed(0x31, 0x1B, {1, 0});
    EXPECT_EQ(slot<uint8_t>(gPtzAngleListenModelResponse), 0);
}

TEST_F(PtzReplies, ElectronicStatusIsOneOnlyForValueOne)
{
    feed(0x20, 0x93, {1});
    EXPECT_EQ(slot<uint8_t>(gPtzElectronicPtzStatusResponse), 1);
    feed(0x20, 0x93, {2});
    EXPECT_EQ(slot<uint8_t>(gPtzElectronicPtzStatusResponse), 0);
}

TEST_F(PtzReplies, ElectronicModeKeepsThePreviousValueUnlessLengthIsOne)
{
    avmtest::LogCapture log;
    feed(0x20, 0xB1, {2});
    EXPECT_EQ(slot<uint32_t>(gPtzElectronicPtzModeResponse), 2u);
    feed(0x20, 0xB1, {5, 5});
    EXPECT_EQ(slot<uint32_t>(gPtzElectronicPtzModeResponse), 2u);
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_electronic_ptz_mode, result size: 2 \n"));
}

TEST_F(PtzReplies, FunclistCopiesTheLengthByteAndAllFiftySixBytes)
{
    Bytes payload(56);
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<uint8_t>(i + 1);
    feed(0x31, 0xFF, payload, 3);
    const uint8_t *list = static_cast<const uint8_t *>(gPtzFunclistResponse.result);
    EXPECT_EQ(list[0], 3);
    for (int i = 0; i < 56; ++i)
        EXPECT_EQ(list[1 + i], i + 1) << i;
}

TEST_F(PtzReplies, FunclistDebugLinesRepeatForEveryByteCopied)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    ptzHalSetDebugLevel(1);
    feed(0x31, 0xFF, {0xA, 0xB, 0xC});
    EXPECT_EQ(log.count("PTZ", "ptz_respond_get_funclist_value_result: valid length = 3\n"), 56u);
    EXPECT_EQ(log.count("PTZ", "ptz_respond_get_funclist_value_result: data =  A  B  C\n"), 56u);
}

TEST_F(PtzRequestsWithoutCamera, QueriesReturnTheirDefaults)
{
    avmtest::FreshPropertyStore props;
    EXPECT_EQ(ptz_get_autotest_status(), -1);
    EXPECT_EQ(ptz_get_cam_current_temperature(), 0xFFFFFFFFu);
    EXPECT_EQ(ptz_get_cam_limit_max_temperature(), 0xFFFFFFFFu);
    EXPECT_EQ(ptz_get_cam_support_black_screen(), 0);
    EXPECT_EQ(ptz_get_cam_auto_black_screen(), 0);
    EXPECT_EQ(ptz_get_angle_listen_model(), 0);
    EXPECT_EQ(ptz_get_cam_follow_sound_source_mode(), 0);
}

TEST_F(PtzRequestsWithoutCamera, StaleReplyIsNeverReturnedByALaterQuery)
{
    avmtest::FreshPropertyStore props;
    feed(0x20, 0xBB, {50});
    feed(0x21, 0x09, {1});
    feed(0x20, 0xF5, {1});
    EXPECT_EQ(ptz_get_cam_limit_max_temperature(), 0xFFFFFFFFu);
    EXPECT_EQ(ptz_get_autotest_status(), -1);
    EXPECT_EQ(ptz_get_cam_support_black_screen(), 0);
}

TEST_F(PtzRequestsWithoutCamera, IspEnvReturnsOneAndLeavesThePairWhenSendingFails)
{
    avmtest::FreshPropertyStore props;
    feed(0x21, 0x11, {9, 0, 0, 0, 1, 0, 0, 0, 1});
    int32_t pair[2] = {-7, -8};
    EXPECT_EQ(ptz_get_isp_env(pair), 1);
    EXPECT_EQ(pair[0], -7);
    EXPECT_EQ(pair[1], -8);
}

TEST_F(PtzRequestsWithoutCamera, SettersReturnZeroWhenNothingIsSent)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    EXPECT_EQ(ptz_set_smart_listen_report_status(1), 0);
    EXPECT_TRUE(log.contains("PTZ", "ptz_set_smart_listen_report_status, status : 1 \n"));
    EXPECT_EQ(ptz_cam_set_auto_black_screen(1), 0);
    EXPECT_TRUE(log.contains("PTZ", "ptz_cam_set_auto_black_screen, status : 1 \n"));
    EXPECT_EQ(ptz_cam_reset_factory_parameters(), 0);
    EXPECT_TRUE(log.contains("PTZ", "ptz_cam_reset_factory_parameters \n"));
}

TEST_F(PtzRequestsWithoutCamera, FollowSoundSourceOnStopsAfterTheFirstFailedCommand)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    EXPECT_EQ(ptz_set_cam_follow_sound_source_mode(1), 0);
    EXPECT_TRUE(log.contains("PTZ", "ptz_set_cam_follow_sound_source_mode, status : 1 \n"));
    // One send attempted (id 13), none for id 15.
    EXPECT_EQ(log.count("PTZ", "ptz_tx_protocol_handle,628 error: retlen= -1."), 1u);
}

TEST_F(PtzRequestsPipe, UsbChannelIsRecordedAndQueued)
{
    ASSERT_EQ(initCameraPipe(), 0);
    EXPECT_EQ(gUsbChannelInfo.load(), PTZ_USB_CHANNEL_NONE);
    EXPECT_EQ(ptz_send_usb_channel_info(4), 1);
    EXPECT_EQ(gUsbChannelInfo.load(), 4u);
    EXPECT_EQ(ptz_set_autotest(1), 1);
    uint32_t type = 0, value = 0;
    ASSERT_EQ(recvMsgFromCameraPipe(&type, &value), 1);
    EXPECT_EQ(type, 1u);
    EXPECT_EQ(value, 4u);
    ASSERT_EQ(recvMsgFromCameraPipe(&type, &value), 1);
    EXPECT_EQ(type, 2u);
    EXPECT_EQ(value, 1u);
    unInitCameraPipe();
}

TEST_F(PtzRequestsPipe, UsbChannelIsRecordedEvenWithoutAPipe)
{
    EXPECT_EQ(ptz_send_usb_channel_info(6), 0);
    EXPECT_EQ(gUsbChannelInfo.load(), 6u);
}

// The camera's reports that reach the DSP are checked on the DSP's request
// pipe, in a fresh root of this process.
class PtzCameraStatus : public avmtest::FreshModule {
protected:
    void SetUp() override
    {
        avmtest::FreshModule::SetUp();
        ASSERT_EQ(dsp_mkfifo_init(), 0);
    }
    void TearDown() override { avmtest::resetModuleState(); }

    avmtest::FreshRoot root;
};

TEST_F(PtzCameraStatus, TestCallbackRunsOpenThenClose)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    avmtest::clearRecordedStatuses();
    ptz_set_camera_status_callback(avmtest::recordStatus);
    ptz_test_camera_status_callback();
    EXPECT_EQ(avmtest::recordedStatuses(), (std::vector<int>{1, 0}));
    EXPECT_EQ(ptz_cam_is_open(), 0u);
    EXPECT_TRUE(log.contains("PTZ", "ptz_recv_camera_status_open\n"));
    EXPECT_TRUE(log.contains("PTZ", "ptz_recv_camera_status_close\n"));
}

TEST_F(PtzCameraStatus, NullCallbackStopsTheCalls)
{
    avmtest::FreshPropertyStore props;
    avmtest::clearRecordedStatuses();
    ptz_set_camera_status_callback(avmtest::recordStatus);
    ptz_set_camera_status_callback(nullptr);
    ptz_test_camera_status_callback();
    EXPECT_TRUE(avmtest::recordedStatuses().empty());
}

TEST_F(PtzCameraStatus, OpenFrameSetsTheFlagAndCallsBack)
{
    avmtest::FreshPropertyStore props;
    avmtest::clearRecordedStatuses();
    ptz_set_camera_status_callback(avmtest::recordStatus);
    EXPECT_EQ(ptz_cam_is_open(), 0u);
    feed(0x20, 0x00, {});
    EXPECT_EQ(ptz_cam_is_open(), 1u);
    feed(0x20, 0x02, {});
    EXPECT_EQ(ptz_cam_is_open(), 0u);
    EXPECT_EQ(avmtest::recordedStatuses(), (std::vector<int>{1, 0}));
}

TEST_F(PtzCameraStatus, DoaStatusSetLogsTheStatusWithItsDoubleBlank)
{
    avmtest::LogCapture log;
    // Length 2: logged, but the DSP is not told.
    feed(0x21, 0x12, {1, 0});
    EXPECT_TRUE(log.contains("PTZ", "ptz_recv_doa_status_set  to Mic 3308, status : 1 \n"));
    EXPECT_TRUE(avmtest::drainPostedRequests().empty());
    // Length 1 tells the DSP.
    feed(0x21, 0x12, {1});
    EXPECT_EQ(avmtest::drainPostedRequests(),
              (std::vector<avmtest::PostedRequest>{{DSP_CMD_FREE_TEXT, "MIC_DOA_REP=1"}}));
}

TEST_F(PtzCameraStatus, AngleReportIsIgnoredWhileReportingIsOff)
{
    feed(0x31, 0x1E, {0, 30, 150});
    EXPECT_TRUE(avmtest::drainPostedRequests().empty());
    // With reporting on, the same report steers the microphone bar.
    ptz_set_smart_listen_report_status(1);
    feed(0x31, 0x1E, {0, 30, 150});
    EXPECT_EQ(avmtest::drainPostedRequests(),
              (std::vector<avmtest::PostedRequest>{{DSP_CMD_FREE_TEXT, "MIC_BAR=30,150"}}));
}

} // namespace
