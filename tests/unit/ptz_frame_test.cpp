// PTZ frames: layout, head, checksum, the command table and the payload
// rules of each command.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <android/log.h>

#include "camera/camera_pipe.h"
#include "camera/ptz_frame.h"
#include "camera/ptz_link.h"
#include "camera/ptz_requests.h"
#include "log_capture.h"
#include "module_state.h"

namespace {

// A frame built exactly as the sender builds it.
PtzPacket buildFrame(uint32_t cmd, uint32_t value)
{
    PtzPacket pkt;
    memset(&pkt, 0, sizeof pkt);
    initPktHead(&pkt.head0);
    PtzMsg msg{cmd, value};
    initPktData(&pkt, &msg);
    pkt.checksum = KSProtocalCalcCheckSum(&pkt.head0, PTZ_PKT_SIZE - 1);
    return pkt;
}

struct Row {
    uint32_t id;
    uint8_t sendMain, sendSub, wait, recvMain, recvSub, replyOnRecv;
    bool hasHandler;
};

// The command table as documented, row by row.
constexpr Row kRows[] = {
    {0, 0x20, 0x01, 0, 0x20, 0x00, 1, true},   {1, 0x20, 0x03, 0, 0x20, 0x02, 1, true},
    {2, 0x21, 0x00, 0, 0x21, 0x01, 0, false},  {3, 0x21, 0x02, 1, 0x21, 0x03, 0, false},
    {4, 0x21, 0x05, 0, 0x21, 0x04, 1, false},  {5, 0x21, 0x06, 1, 0x21, 0x07, 0, false},
    {6, 0x21, 0x08, 1, 0x21, 0x09, 0, true},   {7, 0x21, 0x10, 1, 0x21, 0x11, 0, true},
    {8, 0x31, 0x1A, 1, 0x31, 0x1B, 0, true},   {9, 0x31, 0x1C, 1, 0x31, 0x1D, 0, false},
    {10, 0x31, 0x1F, 0, 0x31, 0x1E, 1, true},  {11, 0x21, 0x15, 0, 0x21, 0x14, 1, false},
    {12, 0x21, 0x13, 0, 0x21, 0x12, 1, true},  {13, 0x20, 0x94, 1, 0x20, 0x95, 0, false},
    {14, 0x20, 0x92, 1, 0x20, 0x93, 0, true},  {15, 0x20, 0x96, 1, 0x20, 0x97, 0, false},
    {16, 0x20, 0xB0, 1, 0x20, 0xB1, 0, true},  {17, 0x20, 0xA0, 1, 0x20, 0xA1, 0, false},
    {18, 0x20, 0xBA, 1, 0x20, 0xBB, 0, true},  {19, 0x20, 0xBC, 1, 0x20, 0xBD, 0, true},
    {20, 0x31, 0xFE, 1, 0x31, 0xFF, 0, true},  {21, 0x20, 0xF4, 1, 0x20, 0xF5, 0, true},
    {22, 0x20, 0xF6, 1, 0x20, 0xF7, 0, false}, {23, 0x20, 0xF8, 1, 0x20, 0xF9, 0, true},
};

// Every test starts from a freshly loaded module.
class PtzFrame : public avmtest::FreshModule {};

TEST_F(PtzFrame, PacketIsSixtyFourBytesWithPayloadAtSevenAndChecksumLast)
{
    EXPECT_EQ(sizeof(PtzPacket), 64u);
    EXPECT_EQ(offsetof(PtzPacket, length), 5u);
    EXPECT_EQ(offsetof(PtzPacket, data), 7u);
    EXPECT_EQ(offsetof(PtzPacket, checksum), 63u);
    EXPECT_EQ(sizeof(PtzMsg), 8u);
}

TEST_F(PtzFrame, HeadIsAaBbCc)
{
    uint8_t head[3] = {0, 0, 0};
    initPktHead(head);
    EXPECT_EQ(head[0], 0xAA);
    EXPECT_EQ(head[1], 0xBB);
    EXPECT_EQ(head[2], 0xCC);
}

TEST_F(PtzFrame, TableHasTwentyFourRowsAsDocumented)
{
    for (const Row &r : kRows) {
        SCOPED_TRACE(r.id);
        const PtzProtocolEntry &e = gPtzProtocolTable[r.id];
        EXPECT_EQ(e.cmd, r.id);
        EXPECT_EQ(e.sendMain, r.sendMain);
        EXPECT_EQ(e.sendSub, r.sendSub);
        EXPECT_EQ(e.waitReply, r.wait);
        EXPECT_EQ(e.recvMain, r.recvMain);
        EXPECT_EQ(e.recvSub, r.recvSub);
        EXPECT_EQ(e.replyOnRecv, r.replyOnRecv);
        EXPECT_EQ(e.response != nullptr && e.response->handler != nullptr, r.hasHandler);
        EXPECT_EQ(getPtzProtocolByCmd(r.id), &e);
    }
}

TEST_F(PtzFrame, ResultSlotSizesFollowTheTable)
{
    EXPECT_EQ(gPtzProtocolTable[6].response->resultLen, 4u);
    EXPECT_EQ(gPtzProtocolTable[7].response->resultLen, 12u);
    EXPECT_EQ(gPtzProtocolTable[8].response->resultLen, 1u);
    EXPECT_EQ(gPtzProtocolTable[14].response->resultLen, 1u);
    EXPECT_EQ(gPtzProtocolTable[16].response->resultLen, 4u);
    EXPECT_EQ(gPtzProtocolTable[18].response->resultLen, 4u);
    EXPECT_EQ(gPtzProtocolTable[20].response->resultLen, 57u);
    EXPECT_EQ(gPtzProtocolTable[21].response->resultLen, 1u);
    EXPECT_EQ(gPtzProtocolTable[23].response->resultLen, 1u);
}

TEST_F(PtzFrame, TemperatureRowsShareOneResponseAndSlot)
{
    EXPECT_EQ(gPtzProtocolTable[18].response, gPtzProtocolTable[19].response);
    EXPECT_EQ(gPtzProtocolTable[18].response->result, gPtzProtocolTable[19].response->result);
}

TEST_F(PtzFrame, AutotestAndTemperatureSlotsStartAllOnes)
{
    uint32_t autotest = 0;
    uint32_t temperature = 0;
    memcpy(&autotest, gPtzProtocolTable[6].response->result, 4);
    memcpy(&temperature, gPtzProtocolTable[18].response->result, 4);
    EXPECT_EQ(autotest, 0xFFFFFFFFu);
    EXPECT_EQ(temperature, 0xFFFFFFFFu);
    uint32_t mode = 1;
    memcpy(&mode, gPtzProtocolTable[16].response->result, 4);
    EXPECT_EQ(mode, 0u);
}

TEST_F(PtzFrame, ResetFactoryFrameChecksumIs0xF1)
{
    PtzPacket pkt = buildFrame(PTZ_CMD_RESET_FACTORY_PARAMETERS, 0);
    EXPECT_EQ(pkt.main, 0x20);
    EXPECT_EQ(pkt.sub, 0xA0);
    EXPECT_EQ(pkt.length, 0);
    EXPECT_EQ(pkt.checksum, 0xF1);
}

TEST_F(PtzFrame, ZeroLengthFrameStillSixtyFourBytesWithChecksumOverAllLeadingBytes)
{
    PtzPacket pkt = buildFrame(PTZ_CMD_GET_CURRENT_TEMPERATURE, 0);
    EXPECT_EQ(pkt.length, 0);
    const uint8_t *bytes = &pkt.head0;
    unsigned sum = 0;
    for (int i = 0; i < 63; ++i)
        sum += bytes[i];
    EXPECT_EQ(pkt.checksum, static_cast<uint8_t>(sum));
    for (int i = 7; i < 63; ++i)
        EXPECT_EQ(bytes[i], 0) << i;
}

TEST_F(PtzFrame, SendDoaValue0x1234GivesLittleEndianPair)
{
    PtzPacket pkt = buildFrame(PTZ_CMD_SEND_DOA, 0x1234);
    EXPECT_EQ(pkt.main, 0x21);
    EXPECT_EQ(pkt.sub, 0x00);
    EXPECT_EQ(pkt.length, 2);
    EXPECT_EQ(pkt.data[0], 0x34);
    EXPECT_EQ(pkt.data[1], 0x12);
    EXPECT_EQ(pkt.data[2], 0x00);
}

TEST_F(PtzFrame, SendDoaValue0x10000LosesTheHighBits)
{
    PtzPacket pkt = buildFrame(PTZ_CMD_SEND_DOA, 0x10000);
    EXPECT_EQ(pkt.length, 2);
    EXPECT_EQ(pkt.data[0], 0x00);
    EXPECT_EQ(pkt.data[1], 0x00);
}

TEST_F(PtzFrame, OneByteCommandsCarryTheLowByte)
{
    for (uint32_t id : {3u, 5u, 9u, 13u, 15u, 22u}) {
        SCOPED_TRACE(id);
        PtzPacket pkt = buildFrame(id, 0x1A5);
        EXPECT_EQ(pkt.length, 1);
        EXPECT_EQ(pkt.data[0], 0xA5);
        EXPECT_EQ(pkt.data[1], 0);
    }
}

TEST_F(PtzFrame, OtherCommandsHaveNoPayload)
{
    for (uint32_t id : {0u, 1u, 6u, 7u, 8u, 10u, 12u, 14u, 16u, 17u, 18u, 19u, 20u, 21u, 23u}) {
        SCOPED_TRACE(id);
        PtzPacket pkt = buildFrame(id, 0xFFFF);
        EXPECT_EQ(pkt.length, 0);
        EXPECT_EQ(pkt.data[0], 0);
    }
}

TEST_F(PtzFrame, LookupOfIdTwentyFourReturnsNone)
{
    EXPECT_EQ(getPtzProtocolByCmd(24), nullptr);
    EXPECT_EQ(getPtzProtocolByCmd(0xFFFFFFFF), nullptr);
    EXPECT_NE(getPtzProtocolByCmd(23), nullptr);
}

TEST_F(PtzFrame, UnknownCommandIdGivesZeroCodesAndNoPayload)
{
    PtzPacket pkt = buildFrame(24, 0x55);
    EXPECT_EQ(pkt.head0, 0xAA);
    EXPECT_EQ(pkt.main, 0);
    EXPECT_EQ(pkt.sub, 0);
    EXPECT_EQ(pkt.length, 0);
    EXPECT_EQ(pkt.checksum, static_cast<uint8_t>(0xAA + 0xBB + 0xCC));
}

TEST_F(PtzFrame, ChecksumOfNothingIsZero)
{
    const uint8_t bytes[2] = {1, 2};
    EXPECT_EQ(KSProtocalCalcCheckSum(bytes, 0), 0);
    EXPECT_EQ(KSProtocalCalcCheckSum(bytes, -5), 0);
    EXPECT_EQ(KSProtocalCalcCheckSum(bytes, 2), 3);
    const uint8_t wrap[3] = {0xFF, 0x02, 0x00};
    EXPECT_EQ(KSProtocalCalcCheckSum(wrap, 3), 0x01);
}

TEST_F(PtzFrame, ProductModelComesFromTheProductProperty)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    props.set("persist.vendor.product.model", "Quorum X7");
    props.set("ro.product.vendor.model", "fallback");
    PtzPacket pkt = buildFrame(PTZ_CMD_GET_PRODUCT_MODEL, 0);
    EXPECT_EQ(pkt.main, 0x21);
    EXPECT_EQ(pkt.sub, 0x05);
    EXPECT_EQ(pkt.length, 9);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(pkt.data), 9), "Quorum X7");
    EXPECT_EQ(pkt.data[9], 0);
    EXPECT_TRUE(log.contains("PTZ", "get model:Quorum X7"));
}

TEST_F(PtzFrame, ProductModelFallsBackToVendorModel)
{
    avmtest::FreshPropertyStore props;
    props.set("ro.product.vendor.model", "VM-2");
    PtzPacket pkt = buildFrame(PTZ_CMD_GET_PRODUCT_MODEL, 0);
    EXPECT_EQ(pkt.length, 4);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(pkt.data), 4), "VM-2");
}

TEST_F(PtzFrame, ProductModelLongerThanFiftySixIsCut)
{
    avmtest::FreshPropertyStore props;
    const std::string longModel(80, 'M');
    props.set("persist.vendor.product.model", longModel);
    PtzPacket pkt = buildFrame(PTZ_CMD_GET_PRODUCT_MODEL, 0);
    EXPECT_EQ(pkt.length, 56);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(pkt.data), 56), longModel.substr(0, 56));
}

TEST_F(PtzFrame, ProductModelWithoutKnownChannelQueuesNothing)
{
    avmtest::FreshPropertyStore props;
    ASSERT_EQ(initCameraPipe(), 0);
    buildFrame(PTZ_CMD_GET_PRODUCT_MODEL, 0);
    // Only the marker below is in the pipe.
    ASSERT_EQ(sendAutoTestToCameraPipe(9), 1);
    uint32_t type = 0, value = 0;
    ASSERT_EQ(recvMsgFromCameraPipe(&type, &value), 1);
    EXPECT_EQ(type, 2u);
    EXPECT_EQ(value, 9u);
    unInitCameraPipe();
}

TEST_F(PtzFrame, ProductModelRequeuesTheKnownUsbChannel)
{
    avmtest::FreshPropertyStore props;
    ASSERT_EQ(initCameraPipe(), 0);
    ASSERT_EQ(ptz_send_usb_channel_info(3), 1);
    uint32_t type = 0, value = 0;
    ASSERT_EQ(recvMsgFromCameraPipe(&type, &value), 1);
    buildFrame(PTZ_CMD_GET_PRODUCT_MODEL, 0);
    ASSERT_EQ(recvMsgFromCameraPipe(&type, &value), 1);
    EXPECT_EQ(type, 1u);
    EXPECT_EQ(value, 3u);
    unInitCameraPipe();
}

TEST_F(PtzFrame, DoaStatusAnswerIsZeroWhenTheDspSaysNothing)
{
    avmtest::FreshPropertyStore props;
    PtzPacket pkt = buildFrame(PTZ_CMD_GET_DOA_STATUS, 0);
    EXPECT_EQ(pkt.main, 0x21);
    EXPECT_EQ(pkt.sub, 0x15);
    EXPECT_EQ(pkt.length, 1);
    EXPECT_EQ(pkt.data[0], 0);
}

TEST_F(PtzFrame, DebugLevelLogsThePayloadOfEverySend)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    buildFrame(PTZ_CMD_SEND_DOA, 0x1234);
    EXPECT_EQ(log.countContaining("PTZ", "PTZ_CMD_SEND("), 0u);
    ptzHalSetDebugLevel(1);
    buildFrame(PTZ_CMD_SEND_DOA, 0x1234);
    EXPECT_TRUE(log.contains("PTZ", "PTZ_CMD_SEND(2)(4660):data[0]:34,data[1]:12\n"));
}

TEST_F(PtzFrame, ShowPktDataDumpsLowerCaseHex)
{
    avmtest::LogCapture log;
    const uint8_t bytes[] = {0x0A, 0xFF, 0x10};
    showPktData("write", bytes, 3);
    EXPECT_TRUE(log.contains("PTZ", "write[3]:0aff10\n"));
    EXPECT_EQ(log.priorityOf("PTZ", "write[3]:0aff10\n"), ANDROID_LOG_INFO);
}

TEST_F(PtzFrame, ShowPktDataCapsTheTextAtFiveHundredTwelveCharacters)
{
    avmtest::LogCapture log;
    uint8_t bytes[300];
    memset(bytes, 0xAB, sizeof bytes);
    showPktData("read", bytes, 300);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    const std::string prefix = "read[300]:";
    ASSERT_EQ(lines[0].text.rfind(prefix, 0), 0u);
    EXPECT_EQ(lines[0].text.size(), prefix.size() + 512 + 1);
}

} // namespace
