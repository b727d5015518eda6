// PTZ link without a camera: framing of received chunks, checksum check,
// dispatch order, ack flags, the send path's failure handling, the debug
// level and the PtzMsg named pipe.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <vector>

#include <android/log.h>

#include "camera/camera_pipe.h"
#include "camera/ptz_link.h"
#include "camera/ptz_requests.h"
#include "log_capture.h"
#include "module_state.h"
#include "sim/ptz_wire.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes frame(uint8_t main, uint8_t sub, const Bytes &payload = {})
{
    auto f = sim::makePtzFrame(main, sub, payload);
    return Bytes(f.begin(), f.end());
}

void feed(const Bytes &bytes)
{
    ptz_rx_protocol_handle(bytes.data(), static_cast<int>(bytes.size()));
}

uint32_t temperatureSlot()
{
    uint32_t v = 0;
    memcpy(&v, gPtzTemperatureResponse.result, sizeof v);
    return v;
}

bool acked(uint32_t id)
{
    return gPtzAckFlags[id].load() != 0;
}

// Every test starts from a freshly loaded module.
class PtzLinkDebug : public avmtest::FreshModule {};
class PtzLinkDispatch : public avmtest::FreshModule {};
class PtzLinkFraming : public avmtest::FreshModule {};
class PtzLinkSend : public avmtest::FreshModule {};

TEST_F(PtzLinkFraming, WholeFrameIsDispatchedAndAcked)
{
    avmtest::LogCapture log;
    feed(frame(0x20, 0xBB, {41}));
    EXPECT_TRUE(log.contains("PTZ", "ptz_parse_packet, main:0x20, sub:0xbb\n"));
    EXPECT_EQ(temperatureSlot(), 41u);
    EXPECT_TRUE(acked(PTZ_CMD_GET_CURRENT_TEMPERATURE));
    EXPECT_FALSE(acked(PTZ_CMD_GET_LIMIT_MAX_TEMPERATURE));
}

TEST_F(PtzLinkFraming, TwoFramesBackToBackInOneStreamAreBothDispatched)
{
    avmtest::LogCapture log;
    Bytes stream = frame(0x20, 0xBB, {30});
    Bytes second = frame(0x20, 0xF5, {1});
    stream.insert(stream.end(), second.begin(), second.end());
    ASSERT_EQ(stream.size(), 128u);
    // The reader takes at most 64 bytes per read: two chunks.
    feed(Bytes(stream.begin(), stream.begin() + 64));
    feed(Bytes(stream.begin() + 64, stream.end()));
    EXPECT_TRUE(acked(PTZ_CMD_GET_CURRENT_TEMPERATURE));
    EXPECT_TRUE(acked(PTZ_CMD_GET_SUPPORT_BLACK_SCREEN));
    EXPECT_EQ(log.countContaining("PTZ", "ptz_parse_packet, main:"), 2u);
}

TEST_F(PtzLinkFraming, TwoFramesInOneChunkAreBothDispatched)
{
    Bytes stream = frame(0x20, 0xBB, {30});
    Bytes second = frame(0x20, 0xF9, {1});
    stream.insert(stream.end(), second.begin(), second.end());
    feed(stream);
    EXPECT_TRUE(acked(PTZ_CMD_GET_CURRENT_TEMPERATURE));
    EXPECT_TRUE(acked(PTZ_CMD_GET_AUTO_BLACK_SCREEN));
}

TEST_F(PtzLinkFraming, FrameStartingAtByteTenOfOneChunkAndEndingInTheNextIsLost)
{
    avmtest::LogCapture log;
    Bytes stream(10, 0x00);
    Bytes f = frame(0x20, 0xBB, {33});
    stream.insert(stream.end(), f.begin(), f.end());
    feed(Bytes(stream.begin(), stream.begin() + 64));
    feed(Bytes(stream.begin() + 64, stream.end()));
    EXPECT_FALSE(acked(PTZ_CMD_GET_CURRENT_TEMPERATURE));
    EXPECT_EQ(log.countContaining("PTZ", "ptz_parse_packet"), 0u);
    EXPECT_EQ(log.countContaining("PTZ", "crc failed"), 0u);
}

TEST_F(PtzLinkFraming, FrameSplitAcrossTwoCallsIsLost)
{
    Bytes f = frame(0x20, 0xF5, {1});
    feed(Bytes(f.begin(), f.begin() + 20));
    feed(Bytes(f.begin() + 20, f.end()));
    EXPECT_FALSE(acked(PTZ_CMD_GET_SUPPORT_BLACK_SCREEN));
}

TEST_F(PtzLinkFraming, LengthByte57IsDroppedEvenWithRightChecksum)
{
    avmtest::LogCapture log;
    Bytes f = frame(0x20, 0xBB, {12});
    f[5] = 57;
    f[63] = sim::ptzChecksum(f.data(), 63);
    feed(f);
    EXPECT_FALSE(acked(PTZ_CMD_GET_CURRENT_TEMPERATURE));
    EXPECT_EQ(log.countContaining("PTZ", "ptz_parse_packet"), 0u);
    EXPECT_EQ(log.countContaining("PTZ", "crc failed"), 0u);
}

TEST_F(PtzLinkFraming, LengthByte56IsAccepted)
{
    Bytes payload(56, 0x11);
    feed(frame(0x31, 0xFF, payload));
    EXPECT_TRUE(acked(PTZ_CMD_GET_FUNCLIST));
}

TEST_F(PtzLinkFraming, BadChecksumIsLoggedAndDropped)
{
    avmtest::LogCapture log;
    Bytes f = frame(0x20, 0xBB, {12});
    const uint8_t good = f[63];
    f[63] = static_cast<uint8_t>(good + 1);
    feed(f);
    EXPECT_FALSE(acked(PTZ_CMD_GET_CURRENT_TEMPERATURE));
    char text[64];
    snprintf(text, sizeof text, "crc failed,expect:%hhd,actual:%hhd\n", static_cast<int8_t>(good),
             static_cast<int8_t>(good + 1));
    EXPECT_TRUE(log.contains("PTZ", text));
    EXPECT_EQ(log.priorityOf("PTZ", text), ANDROID_LOG_ERROR);
    EXPECT_EQ(log.countContaining("PTZ", "ptz_parse_packet"), 0u);
}

TEST_F(PtzLinkFraming, RejectedHeadByteIsNotReexaminedAsANewHead)
{
    // AA AA BB CC ...: the second AA is rejected in the BB state and the
    // machine hunts again from the following byte, so the frame is lost.
    Bytes f = frame(0x20, 0xBB, {12});
    Bytes stream{0xAA};
    stream.insert(stream.end(), f.begin(), f.end());
    feed(stream);
    EXPECT_FALSE(acked(PTZ_CMD_GET_CURRENT_TEMPERATURE));
}

TEST_F(PtzLinkFraming, GarbageBeforeAFrameIsSkipped)
{
    Bytes stream{0x00, 0x13, 0xAA, 0x01, 0xBB};
    Bytes f = frame(0x20, 0xBB, {12});
    stream.insert(stream.end(), f.begin(), f.end());
    feed(stream);
    EXPECT_TRUE(acked(PTZ_CMD_GET_CURRENT_TEMPERATURE));
}

TEST_F(PtzLinkFraming, UnknownCodesAreDroppedSilentlyAfterTheParseLog)
{
    avmtest::LogCapture log;
    feed(frame(0x55, 0x66, {1}));
    EXPECT_TRUE(log.contains("PTZ", "ptz_parse_packet, main:0x55, sub:0x66\n"));
    for (uint32_t id = 0; id < PTZ_CMD_MAX; ++id)
        EXPECT_FALSE(acked(id)) << id;
}

TEST_F(PtzLinkFraming, ReceiveCodes20_93SelectRowFourteen)
{
    avmtest::LogCapture log;
    feed(frame(0x20, 0x93, {1}));
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_electronic_ptz_status, result size: 1 \n"));
    EXPECT_TRUE(acked(PTZ_CMD_GET_ELECTRONIC_PTZ_STATUS));
    for (uint32_t id = 15; id < PTZ_CMD_MAX; ++id)
        EXPECT_FALSE(acked(id)) << id;
}

TEST_F(PtzLinkFraming, SecondEntryBehavesTheSame)
{
    Bytes f = frame(0x20, 0xBD, {90});
    read_data_from_cam(f.data(), static_cast<int>(f.size()));
    EXPECT_TRUE(acked(PTZ_CMD_GET_LIMIT_MAX_TEMPERATURE));
    EXPECT_EQ(temperatureSlot(), 90u);
    read_data_from_cam(nullptr, 10);
}

TEST_F(PtzLinkDispatch, CameraInitiatedFrameIsAnsweredBeforeItsHandlerRuns)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    feed(frame(0x20, 0x00));
    // No line here: the answer's write fails, but it is attempted first.
    auto lines = log.lines();
    int answer = -1, handler = -1;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (answer < 0 && lines[i].text == "ptz_tx_protocol_handle,628 error: retlen= -1.")
            answer = static_cast<int>(i);
        if (handler < 0 && lines[i].text == "ptz_recv_camera_status_open\n")
            handler = static_cast<int>(i);
    }
    ASSERT_GE(answer, 0);
    ASSERT_GE(handler, 0);
    EXPECT_LT(answer, handler);
    EXPECT_EQ(ptz_cam_is_open(), 1u);
    // Notifications are not waited for: no ack.
    EXPECT_FALSE(acked(PTZ_CMD_CAMERA_OPEN));
}

TEST_F(PtzLinkSend, FailedWriteReturnsAtOnceWithoutRetry)
{
    avmtest::LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ptz_tx_protocol_handle(PtzMsg{PTZ_CMD_GET_CURRENT_TEMPERATURE, 0}), -1);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_LT(elapsed, std::chrono::milliseconds(1400)); // three reply waits would take 1.5 s
    EXPECT_EQ(log.count("PTZ", "ptzHalWriteUsart,430 error: retlen= -1\r\n"), 1u);
    EXPECT_EQ(log.count("PTZ", "ptz_tx_protocol_handle,628 error: retlen= -1."), 1u);
    EXPECT_EQ(log.priorityOf("PTZ", "ptz_tx_protocol_handle,628 error: retlen= -1."), ANDROID_LOG_ERROR);
    EXPECT_EQ(log.countContaining("PTZ", "no ack"), 0u);
}

TEST_F(PtzLinkSend, UnknownPipeMessageTypeIsLoggedAndDropped)
{
    avmtest::LogCapture log;
    EXPECT_EQ(camera_ptzControl_parse_msg_tx(3, 1), -1);
    EXPECT_TRUE(log.contains("PTZ", "camera_ptzControl_parse_msg_tx failed\n"));
    EXPECT_EQ(log.priorityOf("PTZ", "camera_ptzControl_parse_msg_tx failed\n"), ANDROID_LOG_ERROR);
    EXPECT_EQ(log.countContaining("PTZ", "ptzHalWriteUsart"), 0u);
}

TEST_F(PtzLinkDebug, LevelIsTheFirstDigitOfTheProperty)
{
    avmtest::FreshPropertyStore props;
    ptzHalInitDebugLevel();
    EXPECT_EQ(ptzHalGetDebugLevel(), 0);
    props.set("persist.vendor.cam.debuglevel", "3");
    ptzHalInitDebugLevel();
    EXPECT_EQ(ptzHalGetDebugLevel(), 3);
    props.set("persist.vendor.cam.debuglevel", "x");
    ptzHalInitDebugLevel();
    EXPECT_EQ(ptzHalGetDebugLevel(), 'x' - '0');
}

TEST_F(PtzLinkDebug, SetLevelPersistsIt)
{
    avmtest::FreshPropertyStore props;
    ptzHalSetDebugLevel(1);
    EXPECT_EQ(ptzHalGetDebugLevel(), 1);
    EXPECT_EQ(props.get("persist.vendor.cam.debuglevel"), "1");
    ptzHalSetDebugLevel(0);
    EXPECT_EQ(props.get("persist.vendor.cam.debuglevel"), "0");
}

TEST_F(PtzLinkDebug, LevelOneLogsDecodedReplyValues)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    ptzHalSetDebugLevel(1);
    feed(frame(0x20, 0xBB, {7}));
    EXPECT_TRUE(log.contains("PTZ", "ptz_respond_get_temperature_value_result : 7 \n"));
}

class PtzFifo : public avmtest::FreshModule {
protected:
    void SetUp() override
    {
        avmtest::FreshModule::SetUp();
        std::filesystem::create_directories(root.path() + "/mnt/expand");
    }
    void TearDown() override { ptz_mkfifo_exit(); }
    avmtest::FreshRoot root;
    avmtest::LogCapture log;
};

TEST_F(PtzFifo, RecordsRoundTripThroughTheNamedPipe)
{
    ASSERT_EQ(ptz_mkfifo_init(), 0);
    EXPECT_TRUE(std::filesystem::is_fifo(root.path() + "/mnt/expand/.PTZControl_fifo"));
    EXPECT_EQ(log.countContaining("PTZ", "ptz_mkfifo_read_fd_open:"), 1u);
    EXPECT_EQ(log.countContaining("PTZ", "ptz_mkfifo_write_fd_open:"), 1u);
    EXPECT_EQ(ptz_mkfifo_write(PTZ_CMD_SEND_DOA, 0x1234), 8);
    PtzMsg msg{0, 0};
    EXPECT_EQ(ptz_mkfifo_read(&msg), 8);
    EXPECT_EQ(msg.cmd, 2u);
    EXPECT_EQ(msg.value, 0x1234u);
    EXPECT_EQ(ptz_mkfifo_exit(), 0);
}

TEST_F(PtzFifo, InitReplacesAStaleFile)
{
    {
        FILE *f = fopen((root.path() + "/mnt/expand/.PTZControl_fifo").c_str(), "w");
        ASSERT_NE(f, nullptr);
        fclose(f);
    }
    ASSERT_EQ(ptz_mkfifo_init(), 0);
    EXPECT_TRUE(std::filesystem::is_fifo(root.path() + "/mnt/expand/.PTZControl_fifo"));
}

TEST_F(PtzFifo, CreationFailureIsLogged)
{
    std::filesystem::remove_all(root.path() + "/mnt");
    EXPECT_EQ(ptz_mkfifo_init(), -1);
    EXPECT_TRUE(log.contains("PTZ", "createnamed pipe failed.\n"));
}

TEST_F(PtzFifo, WriteWithoutFifoLogsTheReadErrorText)
{
    EXPECT_EQ(ptz_mkfifo_write(1, 2), -1);
    EXPECT_EQ(log.countContaining("PTZ", "ptz_mkfifo_write_fd_open:"), 1u);
    EXPECT_EQ(log.countContaining("PTZ", ", read error.("), 1u);
    uint8_t buf[8];
    EXPECT_EQ(ptz_mkfifo_read(buf), -1);
    EXPECT_EQ(log.countContaining("PTZ", ", read error.("), 2u);
}

} // namespace
