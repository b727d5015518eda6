// File answers from the DSP (flags of the file-operation table, log lines),
// hex encoding and the local file operations.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <android/log.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "dsp/config_upgrade.h"
#include "dsp/file_transfer.h"
#include "dsp_commands.h"
#include "log_capture.h"

namespace {

const char *kDspPath = "/data/misc/AllConfigs.bin";
const char *kMd5 = "0123456789abcdef0123456789abcdef";

using avmtest::receivedChunk;

void deliver(const std::string &bytes)
{
    dsp_rx_file_operations_handle(receivedChunk(bytes));
}

uint8_t replied(int i)
{
    return gFileOpsInfoList[i].replied.load();
}

uint8_t accepted(int i)
{
    return gFileOpsInfoList[i].accepted.load();
}

std::string readFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void writeFile(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

class FileAnswers : public ::testing::Test {
protected:
    void SetUp() override
    {
        fileTransfer_resetForTest();
        file_xfer_descriptor_fill("/system/etc/dsp_config/AllConfigs.bin", kDspPath, 2900, kMd5);
    }
    avmtest::LogCapture log;
};

} // namespace

TEST(FileOpsTable, HoldsTheEightCommandWordsInOrder)
{
    fileTransfer_resetForTest();
    const char *words[] = {"FWSTR=", "FWDAT=", "FWEND=", "FRDAT=", "FINF=", "FCOPY=", "FDEL=", "FMOV="};
    for (int i = 0; i < FILE_OPS_COUNT; ++i) {
        EXPECT_STREQ(gFileOpsInfoList[i].cmd, words[i]);
        EXPECT_NE(gFileOpsInfoList[i].handler, nullptr);
        EXPECT_EQ(replied(i), 0);
        EXPECT_EQ(accepted(i), 0);
    }
}

TEST_F(FileAnswers, FwstrAnswerWithStatusOkSetsBothFlags)
{
    deliver("FWSTR=/data/misc/AllConfigs.bin,OK");
    EXPECT_EQ(replied(FILE_OPS_WSTR), 1);
    EXPECT_EQ(accepted(FILE_OPS_WSTR), 1);
}

TEST_F(FileAnswers, FwstrAnswerWithOtherStatusSetsOnlyRepliedFlag)
{
    deliver("FWSTR=/data/misc/AllConfigs.bin,BUSY");
    EXPECT_EQ(replied(FILE_OPS_WSTR), 1);
    EXPECT_EQ(accepted(FILE_OPS_WSTR), 0);
    EXPECT_TRUE(log.contains("DSP", "FWSTR error:BUSY\n"));
    EXPECT_EQ(log.priorityOf("DSP", "FWSTR error:BUSY\n"), ANDROID_LOG_ERROR);
}

TEST_F(FileAnswers, FwstrStatusMustBeExactlyOk)
{
    deliver("FWSTR=/data/misc/AllConfigs.bin,OKAY");
    EXPECT_EQ(replied(FILE_OPS_WSTR), 1);
    EXPECT_EQ(accepted(FILE_OPS_WSTR), 0);
}

TEST_F(FileAnswers, FwstrAnswerWithoutStatusLogsParseError)
{
    deliver("FWSTR=/data/misc/AllConfigs.bin");
    EXPECT_EQ(replied(FILE_OPS_WSTR), 1);
    EXPECT_EQ(accepted(FILE_OPS_WSTR), 0);
    EXPECT_TRUE(log.contains("DSP", "FWSTR parse error\n"));
}

TEST_F(FileAnswers, FwdatAnswerOkForTheChunkInFlightIsAccepted)
{
    file_xfer_descriptor_set_chunk(240, 240);
    deliver("FWDAT=240,240,OK");
    EXPECT_EQ(replied(FILE_OPS_WDAT), 1);
    EXPECT_EQ(accepted(FILE_OPS_WDAT), 1);
}

TEST_F(FileAnswers, FwdatAnswerOkWithAnotherOffsetSetsOnlyRepliedFlag)
{
    file_xfer_descriptor_set_chunk(240, 240);
    deliver("FWDAT=0,240,OK");
    EXPECT_EQ(replied(FILE_OPS_WDAT), 1);
    EXPECT_EQ(accepted(FILE_OPS_WDAT), 0);
}

TEST_F(FileAnswers, FwdatAnswerOkWithAnotherLengthSetsOnlyRepliedFlag)
{
    file_xfer_descriptor_set_chunk(480, 20);
    deliver("FWDAT=480,240,OK");
    EXPECT_EQ(replied(FILE_OPS_WDAT), 1);
    EXPECT_EQ(accepted(FILE_OPS_WDAT), 0);
}

TEST_F(FileAnswers, FwdatErrorStatusLogsExpectedAndAnsweredNumbers)
{
    file_xfer_descriptor_set_chunk(480, 20);
    deliver("FWDAT=240,19,ERR_SUM");
    EXPECT_EQ(replied(FILE_OPS_WDAT), 1);
    EXPECT_EQ(accepted(FILE_OPS_WDAT), 0);
    EXPECT_TRUE(log.contains("DSP", "FWDAT 480,240,20,19\n"));
}

TEST_F(FileAnswers, FwdatAnswerWithMissingFieldReusesFwstrParseErrorText)
{
    file_xfer_descriptor_set_chunk(0, 240);
    deliver("FWDAT=0,240");
    EXPECT_EQ(replied(FILE_OPS_WDAT), 1);
    EXPECT_EQ(accepted(FILE_OPS_WDAT), 0);
    EXPECT_EQ(log.count("DSP", "FWSTR parse error\n"), 1u);
    EXPECT_EQ(log.countContaining("DSP", "FWDAT parse error"), 0u);
}

TEST_F(FileAnswers, FwdatAnswerWithHugeNumbersIsNotAcceptedAndDoesNotCrash)
{
    file_xfer_descriptor_set_chunk(0, 240);
    deliver("FWDAT=99999999999999999999999999,-99999999999999999999999,OK");
    EXPECT_EQ(accepted(FILE_OPS_WDAT), 0);
    // 2^32 must not wrap onto offset 0.
    deliver("FWDAT=4294967296,240,OK");
    EXPECT_EQ(accepted(FILE_OPS_WDAT), 0);
    deliver("FWDAT=99999999999999999999999999,-99999999999999999999999,BAD");
    EXPECT_EQ(log.countContaining("DSP", "FWDAT 0,"), 1u);
    EXPECT_EQ(replied(FILE_OPS_WDAT), 1);
}

TEST_F(FileAnswers, FwendAnswerOkIsAcceptedAndNamesTheFile)
{
    deliver("FWEND=/data/misc/AllConfigs.bin,OK");
    EXPECT_EQ(replied(FILE_OPS_WEND), 1);
    EXPECT_EQ(accepted(FILE_OPS_WEND), 1);
    EXPECT_TRUE(log.contains("DSP", "file name:/data/misc/AllConfigs.bin, status:OK\n"));
    EXPECT_EQ(log.countContaining("DSP", "FWEND error"), 0u);
}

TEST_F(FileAnswers, FwendErrorStatusLogsErrorAndTheFile)
{
    deliver("FWEND=/data/misc/AllConfigs.bin,ERR_MD5");
    EXPECT_EQ(replied(FILE_OPS_WEND), 1);
    EXPECT_EQ(accepted(FILE_OPS_WEND), 0);
    EXPECT_TRUE(log.contains("DSP", "FWEND error:ERR_MD5\n"));
    EXPECT_TRUE(log.contains("DSP", "file name:/data/misc/AllConfigs.bin, status:ERR_MD5\n"));
}

TEST_F(FileAnswers, FwendAnswerWithoutStatusLogsParseError)
{
    deliver("FWEND=");
    EXPECT_EQ(replied(FILE_OPS_WEND), 1);
    EXPECT_EQ(accepted(FILE_OPS_WEND), 0);
    EXPECT_TRUE(log.contains("DSP", "FWEND parse error\n"));
}

TEST_F(FileAnswers, FinfAnswerNullCountsAsDifference)
{
    deliver("FINF=NULL");
    EXPECT_EQ(replied(FILE_OPS_INF), 1);
    EXPECT_EQ(accepted(FILE_OPS_INF), 1);
    EXPECT_TRUE(log.contains("DSP", "parse_inf catch fileName\n"));
}

TEST_F(FileAnswers, FinfAnswerWithEqualLengthAndMd5IsNoDifference)
{
    deliver(std::string("FINF=/data/misc/AllConfigs.bin,2900,") + kMd5);
    EXPECT_EQ(replied(FILE_OPS_INF), 1);
    EXPECT_EQ(accepted(FILE_OPS_INF), 0);
    EXPECT_TRUE(log.contains("DSP", "local file and dsp file not different!\n"));
}

TEST_F(FileAnswers, FinfAnswerWithOtherMd5IsDifference)
{
    deliver("FINF=/data/misc/AllConfigs.bin,2900,ffffffffffffffffffffffffffffffff");
    EXPECT_EQ(accepted(FILE_OPS_INF), 1);
    EXPECT_TRUE(log.contains("DSP", "parse_inf catch fileName and fileLen and fileMd5\n"));
}

TEST_F(FileAnswers, FinfAnswerWithOtherLengthIsDifference)
{
    deliver(std::string("FINF=/data/misc/AllConfigs.bin,2899,") + kMd5);
    EXPECT_EQ(accepted(FILE_OPS_INF), 1);
    EXPECT_TRUE(log.contains("DSP", "parse_inf catch fileName and fileLen and fileMd5\n"));
}

TEST_F(FileAnswers, FinfMd5IsComparedOverTheLocalMd5LengthOnly)
{
    deliver(std::string("FINF=/data/misc/AllConfigs.bin,2900,") + kMd5 + "trailing");
    EXPECT_EQ(accepted(FILE_OPS_INF), 0);
    EXPECT_TRUE(log.contains("DSP", "local file and dsp file not different!\n"));
}

TEST_F(FileAnswers, FinfAnswerForAnotherPathIsNoDifference)
{
    deliver("FINF=/data/misc/Other.bin,1,ffffffffffffffffffffffffffffffff");
    EXPECT_EQ(replied(FILE_OPS_INF), 1);
    EXPECT_EQ(accepted(FILE_OPS_INF), 0);
    EXPECT_TRUE(log.contains("DSP", "local file and dsp file not different!\n"));
}

TEST_F(FileAnswers, FinfAnswerWithPathAndOtherLengthOnlyIsDifference)
{
    deliver("FINF=/data/misc/AllConfigs.bin,12");
    EXPECT_EQ(accepted(FILE_OPS_INF), 1);
    EXPECT_TRUE(log.contains("DSP", "parse_inf catch fileName and fileLen\n"));
}

TEST_F(FileAnswers, FinfAnswerWithPathAndSameLengthOnlyIsNoDifference)
{
    deliver("FINF=/data/misc/AllConfigs.bin,2900");
    EXPECT_EQ(accepted(FILE_OPS_INF), 0);
    EXPECT_TRUE(log.contains("DSP", "local file and dsp file not different!\n"));
}

TEST_F(FileAnswers, FinfAnswerWithOnlyAnotherPathIsNoDifference)
{
    deliver("FINF=/data/misc/AllConfigs.bin");
    EXPECT_EQ(replied(FILE_OPS_INF), 1);
    EXPECT_EQ(accepted(FILE_OPS_INF), 0);
}

TEST_F(FileAnswers, FinfAnswerWithHugeLengthIsDifference)
{
    deliver(std::string("FINF=/data/misc/AllConfigs.bin,99999999999999999999999999,") + kMd5);
    EXPECT_EQ(accepted(FILE_OPS_INF), 1);
}

TEST_F(FileAnswers, AnswersToCommandsNeverSentSetOnlyRepliedFlag)
{
    deliver("FRDAT=x,OK");
    deliver("FCOPY=a,b,OK");
    deliver("FDEL=a,OK");
    deliver("FMOV=a,b,OK");
    for (int i : {FILE_OPS_RDAT, FILE_OPS_COPY, FILE_OPS_DEL, FILE_OPS_MOV}) {
        EXPECT_EQ(replied(i), 1) << i;
        EXPECT_EQ(accepted(i), 0) << i;
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(FileAnswers, ChunkThatIsNoFileAnswerIsIgnored)
{
    deliver("MV=-9.00");
    deliver("FWST=x,OK");
    deliver(" FWSTR=x,OK");
    deliver("");
    for (int i = 0; i < FILE_OPS_COUNT; ++i) {
        EXPECT_EQ(replied(i), 0) << i;
        EXPECT_EQ(accepted(i), 0) << i;
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(FileAnswers, UnterminatedFullChunkIsCutTo512Bytes)
{
    // 512 bytes without a terminator: the status field runs to the end of
    // the record and must be read no further.
    std::string text = "FWEND=/data/misc/AllConfigs.bin,OK";
    text.append(512 - text.size(), 'X');
    ASSERT_EQ(text.size(), 512u);
    DspRequest r = receivedChunk(text);
    ASSERT_NE(r.text[511], '\0');
    dsp_rx_file_operations_handle(r);
    EXPECT_EQ(replied(FILE_OPS_WEND), 1);
    EXPECT_EQ(accepted(FILE_OPS_WEND), 1);
    std::string status = "OK" + std::string(512 - 34, 'X');
    EXPECT_TRUE(log.contains("DSP", "file name:/data/misc/AllConfigs.bin, status:" + status + "\n"));
}

TEST_F(FileAnswers, ChunkWithManySeparatorsIsHandled)
{
    deliver("FINF=" + std::string(507, ','));
    deliver("FWDAT=" + std::string(506, '='));
    deliver("FWSTR=,,,,,,,,OK");
    EXPECT_EQ(accepted(FILE_OPS_INF), 0);
    EXPECT_EQ(accepted(FILE_OPS_WDAT), 0);
    EXPECT_EQ(replied(FILE_OPS_WSTR), 1);
}

TEST(FileDescriptor, FillCutsPathsTo128Characters)
{
    file_xfer_descriptor_reset();
    std::string longPath(300, 'p');
    file_xfer_descriptor_fill(longPath.c_str(), longPath.c_str(), 7, kMd5);
    file_xfer_descriptor_set_chunk(5, 6);
    PrepareToSendFileInfo info = file_xfer_descriptor_get();
    EXPECT_EQ(std::string(info.localPath), longPath.substr(0, 128));
    EXPECT_EQ(std::string(info.dspPath), longPath.substr(0, 128));
    EXPECT_EQ(info.fileLen, 7u);
    EXPECT_STREQ(info.md5, kMd5);
    EXPECT_EQ(info.offset, 5u);
    EXPECT_EQ(info.chunkLen, 6u);
    file_xfer_descriptor_reset();
    info = file_xfer_descriptor_get();
    EXPECT_EQ(info.fileLen, 0u);
    EXPECT_STREQ(info.dspPath, "");
}

TEST(HexEncoding, Data2hexOf0AFFGivesUpperCaseText)
{
    const uint8_t bytes[] = {0x0A, 0xFF};
    char text[8];
    memset(text, '#', sizeof(text));
    EXPECT_EQ(data2hex(bytes, 2, text, sizeof(text)), 4);
    EXPECT_EQ(std::string(text, 4), "0AFF");
    EXPECT_EQ(text[4], '#'); // no terminator written
}

TEST(HexEncoding, Data2hexStopsAtHalfTheCapacity)
{
    const uint8_t bytes[] = {0x12, 0x34, 0x56};
    char text[5];
    memset(text, '#', sizeof(text));
    EXPECT_EQ(data2hex(bytes, 3, text, 5), 4);
    EXPECT_EQ(std::string(text, 5), "1234#");
}

TEST(HexEncoding, Hex2dataAcceptsLowerAndUpperCase)
{
    uint8_t lower[2] = {0, 0};
    uint8_t upper[2] = {0, 0};
    EXPECT_EQ(hex2data("0aff", 4, lower, 2), 2);
    EXPECT_EQ(hex2data("0AFF", 4, upper, 2), 2);
    EXPECT_EQ(lower[0], 0x0A);
    EXPECT_EQ(lower[1], 0xFF);
    EXPECT_EQ(memcmp(lower, upper, 2), 0);
}

TEST(HexEncoding, Hex2dataStopsAtCapacityAndOddLength)
{
    uint8_t out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(hex2data("0102030", 7, out, 4), 3);
    EXPECT_EQ(out[2], 0x03);
    EXPECT_EQ(out[3], 0xEE);
    EXPECT_EQ(hex2data("01020304", 8, out, 1), 1);
    EXPECT_EQ(out[1], 0x02);
}

TEST(HexEncoding, Hex2dataDoesNotValidateCharacters)
{
    uint8_t out[1] = {0};
    EXPECT_EQ(hex2data("zz", 2, out, 1), 1); // arithmetic result, no failure
    EXPECT_EQ(hex2data("\x01\xff", 2, out, 1), 1);
}

TEST(HexEncoding, RoundTripOfEveryByteValue)
{
    uint8_t bytes[256];
    for (int i = 0; i < 256; ++i)
        bytes[i] = static_cast<uint8_t>(i);
    char text[512];
    ASSERT_EQ(data2hex(bytes, 256, text, sizeof(text)), 512);
    uint8_t back[256];
    ASSERT_EQ(hex2data(text, 512, back, sizeof(back)), 256);
    EXPECT_EQ(memcmp(bytes, back, 256), 0);
}

TEST(FileXfer, CreateWithA513CharacterPathFails)
{
    std::string path = "/" + std::string(512, 'a');
    ASSERT_EQ(path.size(), 513u);
    EXPECT_EQ(file_xfer_create(path.c_str()), nullptr);
}

TEST(FileXfer, CreateWithA512CharacterPathSucceedsAndOwnsACopy)
{
    std::string path = "/" + std::string(511, 'a');
    FileXferHandle *h = file_xfer_create(path.c_str());
    ASSERT_NE(h, nullptr);
    EXPECT_NE(h->path, path.c_str());
    EXPECT_EQ(std::string(h->path), path);
    EXPECT_EQ(h->fd, -1);
    file_xfer_free(h);
}

TEST(FileXfer, TwoWritesOnOneHandleTruncateTheFileOnlyOnce)
{
    avmtest::TempDir dir;
    std::string path = dir.path() + "/out.bin";
    writeFile(path, "previous content that is long");
    FileXferHandle *h = file_xfer_create(path.c_str());
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(file_xfer_write(h, 0, "abc", 3), 3);
    EXPECT_GE(h->fd, 0);
    EXPECT_EQ(file_xfer_write(h, 3, "def", 3), 3);
    file_xfer_free(h);
    EXPECT_EQ(readFile(path), "abcdef");
}

TEST(FileXfer, WriteHexDecodesAndReturnsTwiceTheBytes)
{
    avmtest::TempDir dir;
    std::string path = dir.path() + "/hex.bin";
    FileXferHandle *h = file_xfer_create(path.c_str());
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(file_xfer_write_hex(h, 0, "0aFF10", 6), 6);
    EXPECT_EQ(file_xfer_write_hex(h, 3, "41", 2), 2);
    file_xfer_free(h);
    EXPECT_EQ(readFile(path), std::string("\x0a\xff\x10" "A", 4));
}

TEST(FileXfer, ReadIsSelfContainedAndReadHexEncodes)
{
    avmtest::TempDir dir;
    std::string path = dir.path() + "/in.bin";
    writeFile(path, std::string("\x00\x01\xfe\xff" "xyz", 7));
    FileXferHandle *h = file_xfer_create(path.c_str());
    ASSERT_NE(h, nullptr);
    char buf[8] = {};
    EXPECT_EQ(file_xfer_read(h, 4, buf, 8), 3);
    EXPECT_EQ(std::string(buf, 3), "xyz");
    EXPECT_EQ(h->fd, -1);
    char hex[9] = {};
    EXPECT_EQ(file_xfer_read_hex(h, 0, hex, 8), 8);
    EXPECT_STREQ(hex, "0001FEFF");
    EXPECT_EQ(h->fd, -1);
    file_xfer_free(h);
}

// The upgrade's chunk reader: one chunk of the reference file as
// upper-case hex; a chunk the file does not hold whole, or one longer than
// the upgrade's 240 bytes, is refused with the read failure line.
TEST(UpgradeChunk, AChunkIsReadAsHexAndAChunkTooLongOrPastTheEndIsRefused)
{
    avmtest::TempDir dir;
    const std::string path = dir.path() + "/AllConfigs.bin";
    writeFile(path, std::string(300, '\x5a') + "\x01\x02");
    char hex[2 * ALL_CONFIGS_CHUNK_SIZE + 2] = {};
    EXPECT_EQ(read_local_file_transfer_to_hex_ascii(path.c_str(), 298, 4, hex, sizeof hex), 8);
    EXPECT_EQ(std::string(hex, 8), "5A5A0102");
    EXPECT_EQ(read_local_file_transfer_to_hex_ascii(path.c_str(), 0, ALL_CONFIGS_CHUNK_SIZE, hex, sizeof hex),
              2 * ALL_CONFIGS_CHUNK_SIZE);
    avmtest::LogCapture log;
    EXPECT_EQ(read_local_file_transfer_to_hex_ascii(path.c_str(), 300, 4, hex, sizeof hex), -1);
    EXPECT_EQ(log.count("DSP", "read failed:2\n"), 1u);
    EXPECT_EQ(read_local_file_transfer_to_hex_ascii(path.c_str(), 0, ALL_CONFIGS_CHUNK_SIZE + 1, hex, sizeof hex), -1);
    EXPECT_EQ(log.count("DSP", "read failed:-1\n"), 1u);
}

TEST(FileXfer, ReadOfMissingFileReturnsOpenFailure)
{
    FileXferHandle *h = file_xfer_create("/nonexistent/avm/file.bin");
    ASSERT_NE(h, nullptr);
    char buf[4];
    EXPECT_LT(file_xfer_read(h, 0, buf, 4), 0);
    file_xfer_free(h);
}

TEST(FileXfer, InfoOfMissingFileIsNegativeAndLogsOpenFailure)
{
    avmtest::LogCapture log;
    FileXferInfo info;
    EXPECT_LT(file_xfer_info("/nonexistent/avm/file.bin", &info), 0);
    EXPECT_TRUE(log.contains("DSP", "open failed:No such file or directory\n"));
    EXPECT_EQ(log.priorityOf("DSP", "open failed:No such file or directory\n"), ANDROID_LOG_ERROR);
}

TEST(FileXfer, InfoOfDirectoryReturnsNonNegativeDescriptorDeliberately)
{
    avmtest::LogCapture log;
    avmtest::TempDir dir;
    FileXferInfo info;
    int ret = file_xfer_info(dir.path().c_str(), &info);
    EXPECT_GE(ret, 0);
    EXPECT_EQ(log.countContaining("DSP", "fstat failed:"), 1u);
    EXPECT_STREQ(info.md5, "");
}

TEST(FileXfer, InfoGivesLengthAndLowerCaseMd5)
{
    avmtest::TempDir dir;
    std::string path = dir.path() + "/abc.txt";
    writeFile(path, "abc");
    FileXferInfo info;
    EXPECT_EQ(file_xfer_info(path.c_str(), &info), 0);
    EXPECT_EQ(info.len, 3u);
    EXPECT_STREQ(info.md5, "900150983cd24fb0d6963f7d28e17f72");
}

TEST(FileXfer, VerifyComparesLengthAndMd5)
{
    avmtest::TempDir dir;
    std::string path = dir.path() + "/abc.txt";
    writeFile(path, "abc");
    FileXferInfo good = {3, "900150983cd24fb0d6963f7d28e17f72"};
    FileXferInfo badLen = {4, "900150983cd24fb0d6963f7d28e17f72"};
    FileXferInfo badMd5 = {3, "900150983cd24fb0d6963f7d28e17f73"};
    EXPECT_EQ(file_xfer_verify(path.c_str(), &good), 0);
    EXPECT_EQ(file_xfer_verify(path.c_str(), &badLen), -1);
    EXPECT_EQ(file_xfer_verify(path.c_str(), &badMd5), -1);
    EXPECT_EQ(file_xfer_verify((dir.path() + "/none").c_str(), &good), -1);
}

TEST(FileXfer, CopyCreatesTargetWithoutTruncating)
{
    avmtest::TempDir dir;
    std::string from = dir.path() + "/from";
    std::string to = dir.path() + "/to";
    std::string big(1300, 'b');
    writeFile(from, big);
    EXPECT_EQ(file_xfer_copy(from.c_str(), to.c_str()), 0);
    EXPECT_EQ(readFile(to), big);
    writeFile(from, "short");
    EXPECT_EQ(file_xfer_copy(from.c_str(), to.c_str()), 0);
    EXPECT_EQ(readFile(to), "short" + big.substr(5));
}

TEST(FileXfer, CopyReportsTheFailingOpen)
{
    avmtest::TempDir dir;
    std::string from = dir.path() + "/from";
    writeFile(from, "x");
    EXPECT_LT(file_xfer_copy((dir.path() + "/missing").c_str(), (dir.path() + "/to").c_str()), 0);
    EXPECT_LT(file_xfer_copy(from.c_str(), (dir.path() + "/no/dir/to").c_str()), 0);
}

TEST(FileXfer, MoveRemovesTheSourceEvenWhenTheCopyFails)
{
    avmtest::TempDir dir;
    std::string from = dir.path() + "/from";
    writeFile(from, "moving");
    EXPECT_EQ(file_xfer_move(from.c_str(), (dir.path() + "/to").c_str()), 0);
    EXPECT_EQ(readFile(dir.path() + "/to"), "moving");
    EXPECT_NE(access(from.c_str(), F_OK), 0);

    writeFile(from, "lost");
    EXPECT_EQ(file_xfer_move(from.c_str(), (dir.path() + "/no/dir/to").c_str()), 0);
    EXPECT_NE(access(from.c_str(), F_OK), 0);
}

TEST(FileXfer, DelRemovesAndAlwaysReturnsZero)
{
    avmtest::TempDir dir;
    std::string path = dir.path() + "/gone";
    writeFile(path, "x");
    EXPECT_EQ(file_xfer_del(path.c_str()), 0);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_EQ(file_xfer_del(path.c_str()), 0);
}
