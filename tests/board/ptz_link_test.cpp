// The PTZ link and camera requests on the virtual board, against the PTZ
// camera model on /dev/ttyS1: frames on the wire, reply waits and resends,
// framing of what the camera sends, camera-initiated frames and their
// answers, the sender thread draining the camera pipe, the test property.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>

#include <android/log.h>
#include <cutils/properties.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "camera/camera_pipe.h"
#include "camera/ptz_link.h"
#include "camera/ptz_requests.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/board.h"
#include "sim/ptz_camera_model.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr auto kWire = 5s; // generous: a busy 2-core machine

using avmtest::msSince;
using avmtest::prop;

// The camera pipe and the PTZ link started as start-up does, with the
// camera model on the line.
class PtzLink : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(initCameraPipe(), 0);
        ASSERT_EQ(camera_ptzHal_init(), 0);
        up = true;
    }

    void TearDown() override
    {
        if (up)
            avmtest::stopPtzLink();
    }

    bool waitAck(uint32_t id) const
    {
        return sim::waitUntil([id] { return gPtzAckFlags[id].load() != 0; }, kWire);
    }

    // Frames that `requests` answered requests put on the line: one each,
    // plus one more for every reply wait that ended before the answer came
    // (a late answer on a busy machine makes the link send again, as it
    // must). The link logs each such wait; the third one sends nothing.
    size_t sentFor(size_t requests) const
    {
        return requests + log.count("PTZ", "ptzHalWriteUsart no ack,count:1\n") +
               log.count("PTZ", "ptzHalWriteUsart no ack,count:2\n");
    }

    avmtest::LogCapture log;
    sim::Board board;
    sim::PtzCameraModel camera{board};
    bool up = false;
};

// --------------------------------------------------------------- requests

TEST_F(PtzLink, CurrentTemperatureRoundTrip)
{
    camera.setCurrentTemperature(47);
    EXPECT_EQ(ptz_get_cam_current_temperature(), 47u);
    auto frames = camera.frames();
    ASSERT_EQ(frames.size(), sentFor(1));
    EXPECT_TRUE(frames[0].checksumOk);
    EXPECT_EQ(frames[0].main(), 0x20);
    EXPECT_EQ(frames[0].sub(), 0xBA);
    EXPECT_EQ(frames[0].length(), 0);
    EXPECT_TRUE(log.contains("PTZ", "ptz_parse_packet, main:0x20, sub:0xbb\n"));
}

TEST_F(PtzLink, MaxTemperatureRoundTrip)
{
    camera.setMaxTemperature(95);
    EXPECT_EQ(ptz_get_cam_limit_max_temperature(), 95u);
    EXPECT_EQ(camera.countFrames(0x20, 0xBC), sentFor(1));
}

TEST_F(PtzLink, SilentCameraTemperatureGivesAllOnesAfterAboutOnePointFiveSeconds)
{
    camera.setSilent(true);
    const auto start = Clock::now();
    EXPECT_EQ(ptz_get_cam_current_temperature(), 0xFFFFFFFFu);
    EXPECT_GE(msSince(start), 1400);
    EXPECT_LT(msSince(start), 6000);
    EXPECT_TRUE(camera.waitForFrames(0x20, 0xBA, 3, kWire));
    EXPECT_EQ(camera.countFrames(0x20, 0xBA), 3u);
    EXPECT_EQ(log.count("PTZ", "ptzHalWriteUsart no ack,count:1\n"), 1u);
    EXPECT_EQ(log.count("PTZ", "ptzHalWriteUsart no ack,count:2\n"), 1u);
    EXPECT_EQ(log.count("PTZ", "ptzHalWriteUsart no ack,count:3\n"), 1u);
    EXPECT_EQ(log.priorityOf("PTZ", "ptzHalWriteUsart no ack,count:1\n"), ANDROID_LOG_INFO);
}

TEST_F(PtzLink, ReplyArrivingDuringTheSleepIsSeenAtTheNextPoll)
{
    camera.setReplyDelay(120ms);
    camera.setCurrentTemperature(33);
    // Polled every 50 ms: the reply is taken at the poll after it came,
    // well before the attempt's 500 ms are over. A link that looked only at
    // the end would never answer sooner than that; a busy machine may be
    // slow once, so the fastest of three requests counts.
    long long fastest = LLONG_MAX;
    size_t requests = 0;
    for (; requests < 3 && fastest >= 450; ++requests) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(ptz_get_cam_current_temperature(), 33u);
        fastest = std::min(fastest, avmtest::msSince(start));
    }
    EXPECT_LT(fastest, 450);
    // Each request went out once, unless a busy machine made a wait end
    // before its answer.
    EXPECT_EQ(camera.countFrames(0x20, 0xBA), sentFor(requests));
}

TEST_F(PtzLink, LateTemperatureReplyLandsInTheSharedSlotAndTheNextQueryOverwritesIt)
{
    camera.setCurrentTemperature(61);
    camera.holdReplies();
    EXPECT_EQ(ptz_get_cam_current_temperature(), 0xFFFFFFFFu);
    EXPECT_EQ(camera.countFrames(0x20, 0xBA), 3u);
    // The three replies come after the request gave up; they are still
    // decoded into the slot that the maximum-temperature query shares.
    camera.releaseHeldReplies();
    ASSERT_TRUE(sim::waitUntil(
        [&] { return log.countContaining("PTZ", "ptz_parse_packet, main:0x20, sub:0xbb") >= 3; }, kWire));
    // One more round trip through the receiver: once it is answered, the
    // last late reply's handler has run (frames are handled in order).
    camera.setSupportBlackScreen(1);
    ASSERT_EQ(ptz_get_cam_support_black_screen(), 1);
    uint32_t slot = 0;
    memcpy(&slot, gPtzTemperatureResponse.result, sizeof slot);
    EXPECT_EQ(slot, 61u);
    camera.setSilent(true);
    EXPECT_EQ(ptz_get_cam_limit_max_temperature(), 0xFFFFFFFFu);
}

TEST_F(PtzLink, ReplyAfterTheThirdAttemptIsTooLateButStillFillsTheSlot)
{
    camera.setAutotestBytes({1, 1});
    camera.holdReplies();
    const auto start = Clock::now();
    EXPECT_EQ(ptz_tx_protocol_handle(PtzMsg{PTZ_CMD_GET_AUTOTEST_RESULT, 0}), -1);
    EXPECT_GE(msSince(start), 1400);
    camera.releaseHeldReplies();
    ASSERT_TRUE(waitAck(PTZ_CMD_GET_AUTOTEST_RESULT));
    ASSERT_TRUE(sim::waitUntil(
        [&] { return log.countContaining("PTZ", "ptz_parse_packet, main:0x21, sub:0x9") >= 3; }, kWire));
    // A round trip through the receiver orders the last late handler before the read.
    ASSERT_EQ(ptz_cam_set_auto_black_screen(1), 1);
    int32_t slot = 0;
    memcpy(&slot, gPtzAutotestResponse.result, sizeof slot);
    EXPECT_EQ(slot, 3);
}

TEST_F(PtzLink, RowWithoutWaitReturnsAfterOneWrite)
{
    camera.setSilent(true);
    const auto start = Clock::now();
    EXPECT_EQ(ptz_tx_protocol_handle(PtzMsg{PTZ_CMD_SEND_DOA, 0x0105}), 64);
    EXPECT_LT(msSince(start), 1000);
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x00, 1, kWire));
    auto f = camera.lastFrame(0x21, 0x00);
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(f->length(), 2);
    EXPECT_EQ(f->data(0), 0x05);
    EXPECT_EQ(f->data(1), 0x01);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(camera.countFrames(0x21, 0x00), 1u);
}

TEST_F(PtzLink, ConsecutiveFramesAreAtLeastTenMillisecondsApart)
{
    // Every written frame is followed by a 10 ms pause in the writer, so
    // four sends take at least 40 ms (the model's read times may bunch).
    camera.setSilent(true);
    const auto start = Clock::now();
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(ptz_tx_protocol_handle(PtzMsg{PTZ_CMD_SEND_DOA, static_cast<uint32_t>(i)}), 64);
    EXPECT_GE(msSince(start), 40);
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x00, 4, kWire));
    auto frames = camera.frames();
    ASSERT_EQ(frames.size(), 4u);
    for (size_t i = 0; i < frames.size(); ++i)
        EXPECT_EQ(frames[i].data(0), i);
}

TEST_F(PtzLink, AutotestReplyOfLengthThreeGivesFive)
{
    camera.setAutotestBytes({1, 0, 5});
    EXPECT_EQ(ptz_get_autotest_status(), 5);
    EXPECT_EQ(camera.countFrames(0x21, 0x08), sentFor(1));
}

TEST_F(PtzLink, SilentCameraAutotestGivesMinusOne)
{
    camera.setSilent(true);
    EXPECT_EQ(ptz_get_autotest_status(), -1);
}

TEST_F(PtzLink, IspReplyGivesSevenAndThePair256And2)
{
    camera.setIspEnv(7, 256, 2);
    int32_t pair[2] = {0, 0};
    EXPECT_EQ(ptz_get_isp_env(pair), 7);
    EXPECT_EQ(pair[0], 256);
    EXPECT_EQ(pair[1], 2);
    auto f = camera.lastFrame(0x21, 0x10);
    ASSERT_TRUE(f.has_value());
}

TEST_F(PtzLink, IspWithoutReplyReturnsOneAndLeavesThePair)
{
    camera.setSilent(true);
    int32_t pair[2] = {11, 12};
    EXPECT_EQ(ptz_get_isp_env(pair), 1);
    EXPECT_EQ(pair[0], 11);
    EXPECT_EQ(pair[1], 12);
}

TEST_F(PtzLink, FunclistIsFetchedOnceWhenTheFirstReplyHasALength)
{
    camera.setFunclist({0x10, 0x20, 0x30});
    uint8_t *list = ptz_get_cam_funclist();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0], 3);
    EXPECT_EQ(list[1], 0x10);
    EXPECT_EQ(list[3], 0x30);
    EXPECT_EQ(ptz_get_cam_funclist(), list);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(camera.countFrames(0x31, 0xFE), sentFor(1));
}

TEST_F(PtzLink, FunclistOfLengthZeroIsFetchedAgainEveryCall)
{
    camera.setFunclist({});
    EXPECT_EQ(ptz_get_cam_funclist()[0], 0);
    EXPECT_EQ(ptz_get_cam_funclist()[0], 0);
    EXPECT_EQ(camera.countFrames(0x31, 0xFE), sentFor(2));
}

TEST_F(PtzLink, FollowSoundSourceOnSendsStatusThenMode)
{
    EXPECT_EQ(ptz_set_cam_follow_sound_source_mode(1), 1);
    auto frames = camera.frames();
    // The status, then the mode (each sent again only after a late answer).
    ASSERT_EQ(frames.size(), sentFor(2));
    EXPECT_EQ(frames.front().sub(), 0x94);
    EXPECT_EQ(frames.front().data(0), 1);
    EXPECT_EQ(frames.back().sub(), 0x96);
    EXPECT_EQ(frames.back().data(0), 2);
    const auto firstMode = std::find_if(frames.begin(), frames.end(), [](const auto &f) { return f.sub() == 0x96; });
    EXPECT_TRUE(std::all_of(firstMode, frames.end(), [](const auto &f) { return f.sub() == 0x96; }));
    EXPECT_EQ(camera.electronicPtzStatus(), 1);
    EXPECT_EQ(camera.electronicPtzMode(), 2);
    EXPECT_EQ(ptz_get_cam_follow_sound_source_mode(), 1);
    EXPECT_EQ(log.count("PTZ", "PTZ_CMD_GET_ELECTRONIC_PTZ_STATUS, status : 1 \n"), 1u);
    EXPECT_EQ(log.count("PTZ", "PTZ_CMD_GET_ELECTRONIC_PTZ_STATUS, status : 2 \n"), 1u);
}

TEST_F(PtzLink, FollowSoundSourceOffSendsOnlyTheStatusAndKeepsTheMode)
{
    camera.setElectronicPtzMode(2);
    EXPECT_EQ(ptz_set_cam_follow_sound_source_mode(0), 1);
    EXPECT_EQ(camera.frameCount(), sentFor(1));
    EXPECT_EQ(camera.countFrames(0x20, 0x94), camera.frameCount());
    EXPECT_EQ(camera.lastFrame(0x20, 0x94)->data(0), 0);
    EXPECT_EQ(camera.electronicPtzMode(), 2);
    // Status 0: the mode is not asked for.
    EXPECT_EQ(ptz_get_cam_follow_sound_source_mode(), 0);
    EXPECT_EQ(camera.countFrames(0x20, 0xB0), 0u);
}

TEST_F(PtzLink, FollowSoundSourceOnWithoutFirstReplyReturnsZeroAndSkipsTheMode)
{
    camera.setSilent(true);
    EXPECT_EQ(ptz_set_cam_follow_sound_source_mode(1), 0);
    EXPECT_EQ(camera.countFrames(0x20, 0x94), 3u);
    EXPECT_EQ(camera.countFrames(0x20, 0x96), 0u);
}

TEST_F(PtzLink, FollowSoundSourceIsOffForAnotherMode)
{
    camera.setElectronicPtzStatus(1);
    camera.setElectronicPtzMode(1);
    EXPECT_EQ(ptz_get_cam_follow_sound_source_mode(), 0);
    // The status was asked, then the mode.
    EXPECT_GE(camera.countFrames(0x20, 0xB0), 1u);
    EXPECT_EQ(camera.frameCount(), sentFor(2));
}

TEST_F(PtzLink, BlackScreenRequests)
{
    camera.setSupportBlackScreen(1);
    EXPECT_EQ(ptz_get_cam_support_black_screen(), 1);
    EXPECT_EQ(ptz_cam_set_auto_black_screen(1), 1);
    EXPECT_EQ(camera.autoBlackScreen(), 1);
    EXPECT_EQ(ptz_get_cam_auto_black_screen(), 1);
    EXPECT_EQ(ptz_cam_set_auto_black_screen(0), 1);
    EXPECT_EQ(ptz_get_cam_auto_black_screen(), 0);
}

TEST_F(PtzLink, BlackScreenReplyOfWrongLengthGivesZero)
{
    camera.setReplyPayload(0x20, 0xF4, {1, 1});
    EXPECT_EQ(ptz_get_cam_support_black_screen(), 0);
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_support_black_screen len = 2 \n"));
}

TEST_F(PtzLink, TemperatureReplyOfWrongLengthGivesZero)
{
    camera.setReplyPayload(0x20, 0xBA, {});
    EXPECT_EQ(ptz_get_cam_current_temperature(), 0u);
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_temperature_value_result len = 0 \n"));
}

TEST_F(PtzLink, AngleListenModelResetAndSmartListenReport)
{
    camera.setAngleListenModel(1);
    EXPECT_EQ(ptz_get_angle_listen_model(), 1);
    camera.setAngleListenModel(0);
    EXPECT_EQ(ptz_get_angle_listen_model(), 0);
    EXPECT_EQ(ptz_cam_reset_factory_parameters(), 1);
    EXPECT_EQ(camera.factoryResets(), 1);
    EXPECT_EQ(camera.lastFrame(0x20, 0xA0)->raw[63], 0xF1);
    EXPECT_EQ(ptz_set_smart_listen_report_status(1), 1);
    EXPECT_EQ(camera.smartListenReport(), 1);
}

TEST_F(PtzLink, SilentCameraSettersReturnZero)
{
    camera.setSilent(true);
    EXPECT_EQ(ptz_set_smart_listen_report_status(0), 0);
    EXPECT_EQ(camera.countFrames(0x31, 0x1C), 3u);
}

// ---------------------------------------------------------------- framing

TEST_F(PtzLink, TwoFramesBackToBackInOne128ByteStreamAreBothDispatched)
{
    auto a = sim::PtzCameraModel::makeFrame(0x20, 0xBB, {30});
    auto b = sim::PtzCameraModel::makeFrame(0x20, 0xF5, {1});
    Bytes stream(a.size() + b.size());
    memcpy(stream.data(), a.data(), a.size());
    memcpy(stream.data() + a.size(), b.data(), b.size());
    camera.sendBytes(stream);
    EXPECT_TRUE(waitAck(PTZ_CMD_GET_CURRENT_TEMPERATURE));
    EXPECT_TRUE(waitAck(PTZ_CMD_GET_SUPPORT_BLACK_SCREEN));
}

TEST_F(PtzLink, FrameSplitAcrossReadsIsLost)
{
    camera.setSplitFrames(true);
    EXPECT_EQ(ptz_get_cam_current_temperature(), 0xFFFFFFFFu);
    EXPECT_EQ(camera.countFrames(0x20, 0xBA), 3u);
    EXPECT_EQ(log.countContaining("PTZ", "ptz_parse_packet"), 0u);
}

TEST_F(PtzLink, ReplyWithLengthByte57IsDropped)
{
    camera.setLength57(true);
    EXPECT_EQ(ptz_get_cam_current_temperature(), 0xFFFFFFFFu);
    EXPECT_EQ(log.countContaining("PTZ", "ptz_parse_packet"), 0u);
    EXPECT_EQ(log.countContaining("PTZ", "crc failed"), 0u);
}

TEST_F(PtzLink, ReplyWithWrongChecksumIsLoggedAndDropped)
{
    camera.setBadChecksum(true);
    EXPECT_EQ(ptz_get_cam_current_temperature(), 0xFFFFFFFFu);
    // One failed check per reply the camera sent, one per try on the wire;
    // the last try's reply can be checked after the request gave up.
    const size_t tries = camera.countFrames(0x20, 0xBA);
    EXPECT_EQ(tries, 3u);
    EXPECT_TRUE(sim::waitUntil([&] { return log.countContaining("PTZ", "crc failed,expect:") >= tries; }, kWire));
    EXPECT_EQ(log.countContaining("PTZ", "crc failed,expect:"), tries);
}

TEST_F(PtzLink, HostileBytesNeverStopTheReceiver)
{
    std::mt19937 rng(1234);
    for (int round = 0; round < 40; ++round) {
        Bytes junk(1 + rng() % 200);
        for (auto &b : junk)
            b = static_cast<uint8_t>(rng());
        if (round % 3 == 0 && junk.size() > 6) {
            junk[0] = 0xAA;
            junk[1] = 0xBB;
            junk[2] = 0xCC;
            junk[5] = static_cast<uint8_t>(rng() % 256);
        }
        camera.sendBytes(junk);
    }
    auto bad = sim::PtzCameraModel::makeFrame(0x20, 0xBB, {1});
    bad[5] = 0xFF;
    camera.sendBytes(Bytes(bad.begin(), bad.end()));
    std::this_thread::sleep_for(300ms);
    camera.setCurrentTemperature(52);
    EXPECT_EQ(ptz_get_cam_current_temperature(), 52u);
}

// ---------------------------------------------------- camera-initiated

TEST_F(PtzLink, CameraOpenIsAnsweredAndReported)
{
    avmtest::clearRecordedStatuses();
    ptz_set_camera_status_callback(avmtest::recordStatus);
    camera.raiseOpen();
    ASSERT_TRUE(camera.waitForFrames(0x20, 0x01, 1, kWire));
    ASSERT_TRUE(sim::waitUntil([] { return avmtest::recordedStatuses().size() == 1; }, kWire));
    EXPECT_EQ(avmtest::recordedStatuses(), std::vector<int>{1});
    EXPECT_EQ(ptz_cam_is_open(), 1u);
    camera.raiseClose();
    ASSERT_TRUE(camera.waitForFrames(0x20, 0x03, 1, kWire));
    ASSERT_TRUE(sim::waitUntil([] { return avmtest::recordedStatuses().size() == 2; }, kWire));
    EXPECT_EQ(avmtest::recordedStatuses(), (std::vector<int>{1, 0}));
    EXPECT_EQ(ptz_cam_is_open(), 0u);
}

TEST_F(PtzLink, ProductModelQuestionIsAnsweredWithTheModelText)
{
    property_set("persist.vendor.product.model", "QX-Room 9");
    camera.askProductModel();
    ASSERT_TRUE(sim::waitUntil([&] { return camera.modelAnswer().has_value(); }, kWire));
    EXPECT_EQ(*camera.modelAnswer(), "QX-Room 9");
    EXPECT_EQ(camera.lastFrame(0x21, 0x05)->length(), 9);
    // No channel was ever set: nothing else follows.
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(camera.countFrames(0x21, 0x02), 0u);
}

TEST_F(PtzLink, ProductModelQuestionResendsTheKnownUsbChannel)
{
    property_set("ro.product.vendor.model", "Fallback-1");
    EXPECT_EQ(ptz_send_usb_channel_info(2), 1);
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x02, 1, kWire));
    camera.askProductModel();
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x02, 2, kWire));
    EXPECT_EQ(*camera.modelAnswer(), "Fallback-1");
    EXPECT_EQ(camera.lastFrame(0x21, 0x02)->data(0), 2);
}

TEST_F(PtzLink, DoaStatusQuestionWithoutDspIsAnsweredZero)
{
    camera.askDoaStatus();
    ASSERT_TRUE(sim::waitUntil([&] { return camera.doaStatusAnswer() >= 0; }, kWire));
    EXPECT_EQ(camera.doaStatusAnswer(), 0);
    EXPECT_EQ(camera.lastFrame(0x21, 0x15)->length(), 1);
}

TEST_F(PtzLink, AngleReportIsAcknowledged)
{
    camera.raiseAngleReport(30, 150);
    ASSERT_TRUE(camera.waitForFrames(0x31, 0x1F, 1, kWire));
}

// ---------------------------------------------------------- camera pipe

TEST_F(PtzLink, SenderThreadTurnsPipeMessagesIntoCommands)
{
    EXPECT_EQ(sendDoaToCameraPipe(0x0107), 1);
    EXPECT_EQ(sendUsbChannelInfoToCameraPipe(3), 1);
    EXPECT_EQ(sendAutoTestToCameraPipe(1), 1);
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x06, 1, kWire));
    auto doa = camera.lastFrame(0x21, 0x00);
    ASSERT_TRUE(doa.has_value());
    EXPECT_EQ(doa->data(0), 0x07);
    EXPECT_EQ(doa->data(1), 0x01);
    EXPECT_EQ(camera.usbChannel(), 3);
    EXPECT_EQ(camera.autotestMode(), 1);
}

TEST_F(PtzLink, UnknownPipeMessageIsLoggedAndTheNextStillSent)
{
    EXPECT_EQ(sendMsgToCameraPipe(9, 1), 1);
    EXPECT_EQ(sendDoaToCameraPipe(5), 1);
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x00, 1, kWire));
    EXPECT_TRUE(log.contains("PTZ", "camera_ptzControl_parse_msg_tx failed\n"));
}

// ---------------------------------------------------------- test property

TEST_F(PtzLink, TestPropertyDebugTurnsOnDumpsAndPersistsLevelOne)
{
    property_set("vendor.camera.test", "debug");
    ASSERT_TRUE(log.waitFor("PTZ", "end getprop debug\n", kWire));
    EXPECT_TRUE(log.contains("PTZ", "getprop debug\n"));
    ASSERT_TRUE(sim::waitUntil([] { return prop("vendor.camera.test") == "OK"; }, kWire));
    EXPECT_EQ(ptzHalGetDebugLevel(), 1);
    EXPECT_EQ(prop("persist.vendor.cam.debuglevel"), "1");
    camera.setCurrentTemperature(40);
    EXPECT_EQ(ptz_get_cam_current_temperature(), 40u);
    EXPECT_GE(log.countContaining("PTZ", "write[64]:aabbcc20ba"), 1u);
    EXPECT_GE(log.countContaining("PTZ", "read[64]:aabbcc20bb01"), 1u);
    // Across a restart the stored level comes back: a restarted module
    // starts at level 0 (without storing it) and reads the stored one.
    ptzLink_resetForTest();
    ASSERT_EQ(ptzHalGetDebugLevel(), 0);
    ptzHalInitDebugLevel();
    EXPECT_EQ(ptzHalGetDebugLevel(), 1);
}

TEST_F(PtzLink, TestPropertyNodebugTurnsDumpsOff)
{
    ptzHalSetDebugLevel(1);
    property_set("vendor.camera.test", "nodebug");
    ASSERT_TRUE(log.waitFor("PTZ", "end getprop nodebug\n", kWire));
    EXPECT_EQ(ptzHalGetDebugLevel(), 0);
    EXPECT_EQ(prop("persist.vendor.cam.debuglevel"), "0");
}

TEST_F(PtzLink, TestPropertySendsDoaAndUsbChannel)
{
    property_set("vendor.camera.test", "senddoa");
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x00, 1, kWire));
    EXPECT_EQ(camera.lastFrame(0x21, 0x00)->data(0), 1);
    ASSERT_TRUE(sim::waitUntil([] { return prop("vendor.camera.test") == "OK"; }, kWire));
    property_set("vendor.camera.test", "sendusb");
    ASSERT_TRUE(camera.waitForFrames(0x21, 0x02, 1, kWire));
    EXPECT_EQ(camera.usbChannel(), 2);
}

TEST_F(PtzLink, TestPropertyIspenvLogsTheResult)
{
    camera.setIspEnv(4, 0x01000000, 9);
    property_set("vendor.camera.test", "ispenv");
    ASSERT_TRUE(log.waitFor("PTZ", "end getprop ispenv\n", kWire));
    EXPECT_TRUE(log.contains("PTZ", "ret=4,16777216,9\n"));
}

TEST_F(PtzLink, TestPropertyTeststatusPlaysOpenAndClose)
{
    avmtest::clearRecordedStatuses();
    ptz_set_camera_status_callback(avmtest::recordStatus);
    property_set("vendor.camera.test", "teststatus");
    ASSERT_TRUE(log.waitFor("PTZ", "end getprop teststatus\n", kWire));
    EXPECT_EQ(avmtest::recordedStatuses(), (std::vector<int>{1, 0}));
    // Played locally: nothing goes to the camera.
    EXPECT_EQ(camera.frameCount(), 0u);
}

TEST_F(PtzLink, TestPropertyUnknownValueOnlyLogsAndResets)
{
    property_set("vendor.camera.test", "bogus");
    ASSERT_TRUE(log.waitFor("PTZ", "end getprop bogus\n", kWire));
    ASSERT_TRUE(sim::waitUntil([] { return prop("vendor.camera.test") == "OK"; }, kWire));
    EXPECT_EQ(camera.frameCount(), 0u);
}

// ------------------------------------------------------------ lifecycle

TEST_F(PtzLink, StopThenJoinEndsTheThreads)
{
    EXPECT_EQ(camera_ptzHal_deinit(), 0);
    up = false;
    // The sender wakes on its next pipe message.
    std::atomic<bool> joined{false};
    std::thread waker([&] {
        while (!joined) {
            sendAutoTestToCameraPipe(0);
            std::this_thread::sleep_for(50ms);
        }
    });
    const auto start = Clock::now();
    joinPtzThreadPool();
    joined = true;
    EXPECT_LT(msSince(start), 6000);
    // The line was already closed by the stop: the second close fails.
    EXPECT_TRUE(log.contains("PTZ", "close uart dev fail!!"));
    waker.join();
    ptzLink_joinTestThreadForTest(); // the module never joins it
}

TEST(PtzLinkStart, MissingSerialLineFailsStartUp)
{
    avmtest::LogCapture log;
    sim::Board board;
    EXPECT_EQ(camera_ptzHal_init(), -1);
    EXPECT_TRUE(log.contains("PTZ", "openUsartDevice failed!"));
    EXPECT_TRUE(log.contains("PTZ", "ptzHal_uart_init error!!"));
}

} // namespace
