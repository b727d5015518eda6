// The camera log download's receiving side without the board: each HID
// report handed over at each stage of a file, what lands in the save
// file, the debug dump, and the append-to-file utilities.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <android/log.h>

#include "camera/cam_logs.h"
#include "log_capture.h"
#include "md5sum.h"

namespace {

using Bytes = std::vector<uint8_t>;
const char *const kTag = "CamHidTransferFile";

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

Bytes answer(uint32_t size, uint8_t refused = 0)
{
    Bytes report(64, 0);
    const uint8_t head[] = {0xAA, 0xBB, 0xCC, 0x26, 0x03};
    std::copy(head, head + 5, report.begin());
    report[7] = refused;
    report[8] = static_cast<uint8_t>(size >> 24);
    report[9] = static_cast<uint8_t>(size >> 16);
    report[10] = static_cast<uint8_t>(size >> 8);
    report[11] = static_cast<uint8_t>(size);
    return report;
}

Bytes data(const std::string &bytes)
{
    Bytes report(2 + bytes.size());
    report[0] = 0xBB;
    report[1] = 0x02;
    for (size_t i = 0; i < bytes.size(); ++i)
        report[2 + i] = static_cast<uint8_t>(bytes[i]);
    return report;
}

int hand(const Bytes &report) { return handleRecvCamHidMsg(report.data(), static_cast<int>(report.size())); }

class CamLogs : public ::testing::Test {
protected:
    void SetUp() override { cam_logs_resetForTest(CAM_FILE_IDLE, nullptr); }
    void TearDown() override { cam_logs_resetForTest(CAM_FILE_IDLE, nullptr); }

    // The context as a download leaves it after sending its request.
    void requested() { cam_logs_resetForTest(CAM_FILE_REQUESTED, save().c_str()); }
    std::string save() const { return dir.path() + "/kmsg.log"; }

    avmtest::LogCapture log;
    avmtest::TempDir dir;
};

TEST_F(CamLogs, ADataReportBeforeTheAnswerIsRejected)
{
    requested();
    EXPECT_EQ(hand(data("early")), 0);
    EXPECT_EQ(log.count(kTag, "not match CMD_HEAD_ACK_DOWNLOAD_FILE error !"), 1u);
    EXPECT_EQ(log.priorityOf(kTag, "not match CMD_HEAD_ACK_DOWNLOAD_FILE error !"), ANDROID_LOG_ERROR);
    EXPECT_EQ(cam_logs_status().stage, static_cast<uint32_t>(CAM_FILE_REQUESTED));
    EXPECT_FALSE(std::filesystem::exists(save()));
}

TEST_F(CamLogs, TheAnswerCarriesTheSizeBigEndian)
{
    requested();
    hand(answer(0x01020304));
    const CamFileStatus st = cam_logs_status();
    EXPECT_EQ(st.totalSize, 0x01020304u);
    EXPECT_EQ(st.stage, static_cast<uint32_t>(CAM_FILE_ACKED));
    EXPECT_TRUE(log.contains(kTag, "ack size = 16909060 "));
}

TEST_F(CamLogs, ARefusalClearsTheCountersAndEndsTheFile)
{
    requested();
    hand(answer(100, 1));
    const CamFileStatus st = cam_logs_status();
    EXPECT_EQ(st.stage, static_cast<uint32_t>(CAM_FILE_REFUSED));
    EXPECT_EQ(st.totalSize, 0u);
    EXPECT_EQ(st.received, 0u);
    EXPECT_EQ(st.done, 0);
}

TEST_F(CamLogs, DataLandsInOrderAndTheFileIsDoneAtItsSize)
{
    requested();
    hand(answer(10));
    hand(data("abcdef"));
    EXPECT_EQ(cam_logs_status().stage, static_cast<uint32_t>(CAM_FILE_RECEIVING));
    EXPECT_EQ(cam_logs_status().done, 0);
    hand(data("ghij"));
    EXPECT_EQ(cam_logs_status().received, 10u);
    EXPECT_EQ(cam_logs_status().done, 1);
    EXPECT_EQ(slurp(save()), "abcdefghij");
    // Whatever else comes is written on.
    hand(data("kl"));
    EXPECT_EQ(slurp(save()), "abcdefghijkl");
    EXPECT_EQ(cam_logs_status().received, 12u);
}

TEST_F(CamLogs, AnAnswerWhileDataIsExpectedIsRejected)
{
    requested();
    hand(answer(10));
    hand(answer(10));
    EXPECT_EQ(log.count(kTag, "not match CMD_HEAD_DOWNLOAD_FILE_DATA error !"), 1u);
    EXPECT_EQ(cam_logs_status().received, 0u);
}

TEST_F(CamLogs, AReportWithNoDownloadInFlightIsOnlyLogged)
{
    hand(data("x"));
    EXPECT_TRUE(log.contains(kTag, "Nothing to do , CamFileContext.stage = 0"));
    cam_logs_resetForTest(CAM_FILE_REFUSED, nullptr);
    hand(answer(3));
    EXPECT_TRUE(log.contains(kTag, "Nothing to do , CamFileContext.stage = 4"));
    EXPECT_EQ(cam_logs_status().stage, static_cast<uint32_t>(CAM_FILE_REFUSED));
}

TEST_F(CamLogs, ShortReportsAreReadAsZeroFilled)
{
    requested();
    const Bytes head = {0xAA, 0xBB, 0xCC, 0x26, 0x03};
    hand(head); // no refusal byte, no size: a file of size 0
    EXPECT_EQ(cam_logs_status().stage, static_cast<uint32_t>(CAM_FILE_ACKED));
    EXPECT_EQ(cam_logs_status().totalSize, 0u);
    hand(Bytes{0xBB}); // too short to be data
    EXPECT_EQ(log.count(kTag, "not match CMD_HEAD_DOWNLOAD_FILE_DATA error !"), 1u);
    hand(Bytes{0xBB, 0x02}); // data report without data
    EXPECT_EQ(cam_logs_status().received, 0u);
    EXPECT_EQ(cam_logs_status().done, 1);
    EXPECT_EQ(handleRecvCamHidMsg(nullptr, 5), 0);
    EXPECT_EQ(handleRecvCamHidMsg(head.data(), -1), 0);
}

TEST_F(CamLogs, TheDebugSwitchDumpsTheFirst15BytesOfEachReport)
{
    setCamHidTransferFileDebug(1);
    EXPECT_EQ(cam_logs_status().debug, 1);
    const Bytes three = {0xAA, 0x01, 0xFF};
    debug_hid_msg(three.data(), 3, "recvBuff");
    EXPECT_EQ(log.countContaining(kTag, "recvBuff["), 15u);
    EXPECT_TRUE(log.contains(kTag, "recvBuff[0] = 0xaa "));
    EXPECT_TRUE(log.contains(kTag, "recvBuff[2] = 0xff "));
    EXPECT_TRUE(log.contains(kTag, "recvBuff[14] = 0x00 "));
    // With it on, each data report is reported too.
    cam_logs_resetForTest(CAM_FILE_ACKED, save().c_str());
    setCamHidTransferFileDebug(1);
    hand(data("abc"));
    EXPECT_TRUE(log.contains(kTag, "recv file size 3 dataSize 3 total size 0!"));
    setCamHidTransferFileDebug(0);
    log.clear();
    debug_hid_msg(three.data(), 3, "recvBuff");
    hand(data("d"));
    EXPECT_EQ(log.countContaining(kTag, "recvBuff["), 0u);
    EXPECT_EQ(log.countContaining(kTag, "recv file size"), 0u);
}

TEST_F(CamLogs, AddingALineAppendsItAndReturnsItsLength)
{
    const std::string path = dir.path() + "/lines.txt";
    EXPECT_EQ(save2file_add_line_by_str(path.c_str(), "first\n"), 6);
    EXPECT_EQ(save2file_add_line_by_str(path.c_str(), "second\n"), 7);
    EXPECT_EQ(slurp(path), "first\nsecond\n");
    EXPECT_EQ(save2file_printf(path.c_str(), "%s=%d\n", "n", 42), 5);
    EXPECT_EQ(slurp(path), "first\nsecond\nn=42\n");
    EXPECT_EQ(save2file_add_line_by_str(nullptr, "x"), -1);
    EXPECT_EQ(save2file_add_line_by_str((dir.path() + "/no/such").c_str(), "x"), -1);
}

TEST_F(CamLogs, ALineFileThatGrowsPast1000000BytesStartsOver)
{
    const std::string path = dir.path() + "/big.txt";
    const std::string chunk(400000, 'z');
    EXPECT_EQ(save2file_add_line_by_str(path.c_str(), chunk.c_str()), 400000);
    EXPECT_EQ(save2file_add_line_by_str(path.c_str(), chunk.c_str()), 400000);
    EXPECT_EQ(save2file_add_line_by_str(path.c_str(), chunk.c_str()), 0);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(save2file_add_line_by_str(path.c_str(), "again"), 5);
    EXPECT_EQ(slurp(path), "again");
}

TEST_F(CamLogs, BuffersAreAppendedAsTheyAre)
{
    const std::string path = dir.path() + "/raw.bin";
    const char bytes[4] = {'a', '\0', 'b', '\n'};
    EXPECT_EQ(save2file_add_line_by_buffer(path.c_str(), bytes, 4), 4);
    EXPECT_EQ(save2file_add_line_by_buffer(path.c_str(), bytes, 2), 2);
    EXPECT_EQ(slurp(path), std::string(bytes, 4) + std::string(bytes, 2));
    char back[16] = {};
    EXPECT_EQ(save2file_read_file_by_buffer(path.c_str(), back, sizeof back), 6);
    EXPECT_EQ(std::string(back, 6), std::string(bytes, 4) + std::string(bytes, 2));
    EXPECT_EQ(save2file_read_file_by_buffer(path.c_str(), back, 3), 3);
    EXPECT_EQ(save2file_read_file_by_buffer((dir.path() + "/none").c_str(), back, 3), -1);
}

TEST_F(CamLogs, ATickedLineStartsWithTheTimeOfDay)
{
    const std::string path = dir.path() + "/ticks.txt";
    EXPECT_EQ(save2file_add_line_by_buffer_with_tick(path.c_str(), "event", 5), 5);
    const std::string line = slurp(path);
    long sec = 0, usec = 0;
    char text[16] = {};
    ASSERT_EQ(sscanf(line.c_str(), "[%ld.%ld] %15s", &sec, &usec, text), 3) << line;
    EXPECT_STREQ(text, "event");
    EXPECT_GT(sec, 1600000000L);
    EXPECT_EQ(line.back(), '\n');
}

} // namespace
