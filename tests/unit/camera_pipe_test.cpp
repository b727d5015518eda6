// Camera pipe: 12-byte messages from any thread to the PTZ sender thread.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <thread>
#include <vector>

#include <android/log.h>

#include "camera/camera_pipe.h"
#include "log_capture.h"
#include "test_helpers.h"
#include "module_state.h"

namespace {

// Every test starts from a freshly loaded module.
class CameraPipe : public avmtest::FreshModule {};

TEST_F(CameraPipe, UsbChannelBeforeInitReturnsZeroAndSendsNothing)
{
    // Before start-up both ends are descriptor 0, which counts as absent:
    // make it a pipe of the test's own and see that nothing goes there.
    int watch[2];
    ASSERT_EQ(pipe2(watch, O_NONBLOCK), 0);
    ASSERT_EQ(dup2(watch[1], 0), 0);
    close(watch[1]);
    EXPECT_EQ(sendUsbChannelInfoToCameraPipe(3), 0);
    EXPECT_EQ(sendDoaToCameraPipe(1), 0);
    EXPECT_EQ(sendAutoTestToCameraPipe(1), 0);
    char byte = 0;
    errno = 0;
    EXPECT_EQ(read(watch[0], &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(watch[0]);
    ASSERT_TRUE(avmtest::sinkDescriptorZero());
    ASSERT_EQ(initCameraPipe(), 0);
    // Nothing from before: the first message read is the one sent now.
    ASSERT_EQ(sendDoaToCameraPipe(42), 1);
    uint32_t type = 9, value = 9;
    ASSERT_EQ(recvMsgFromCameraPipe(&type, &value), 1);
    EXPECT_EQ(type, 0u);
    EXPECT_EQ(value, 42u);
    unInitCameraPipe();
}

TEST_F(CameraPipe, MessageIsLengthTypeValueInHostOrder)
{
    ASSERT_EQ(initCameraPipe(), 0);
    ASSERT_EQ(sendUsbChannelInfoToCameraPipe(0x01020304), 1);
    uint32_t words[3] = {0, 0, 0};
    ASSERT_EQ(recvDataFromCameraPipe(words, sizeof words), 12);
    EXPECT_EQ(words[0], 8u);
    EXPECT_EQ(words[1], 1u);
    EXPECT_EQ(words[2], 0x01020304u);
    unInitCameraPipe();
}

TEST_F(CameraPipe, EachProducerSendsItsType)
{
    ASSERT_EQ(initCameraPipe(), 0);
    EXPECT_EQ(sendDoaToCameraPipe(10), 1);
    EXPECT_EQ(sendUsbChannelInfoToCameraPipe(11), 1);
    EXPECT_EQ(sendAutoTestToCameraPipe(12), 1);
    EXPECT_EQ(sendMsgToCameraPipe(7, 13), 1);
    const uint32_t expected[][2] = {{0, 10}, {1, 11}, {2, 12}, {7, 13}};
    for (const auto &e : expected) {
        uint32_t type = 0, value = 0;
        ASSERT_EQ(recvMsgFromCameraPipe(&type, &value), 1);
        EXPECT_EQ(type, e[0]);
        EXPECT_EQ(value, e[1]);
    }
    unInitCameraPipe();
}

TEST_F(CameraPipe, ThreeConcurrentProducersYieldThreeWholeMessages)
{
    ASSERT_EQ(initCameraPipe(), 0);
    constexpr int kPerThread = 200;
    std::vector<std::thread> producers;
    producers.emplace_back([] {
        for (int i = 0; i < kPerThread; ++i)
            sendDoaToCameraPipe(1000 + i);
    });
    producers.emplace_back([] {
        for (int i = 0; i < kPerThread; ++i)
            sendUsbChannelInfoToCameraPipe(2000 + i);
    });
    producers.emplace_back([] {
        for (int i = 0; i < kPerThread; ++i)
            sendAutoTestToCameraPipe(3000 + i);
    });
    std::multiset<std::pair<uint32_t, uint32_t>> seen;
    for (int i = 0; i < 3 * kPerThread; ++i) {
        uint32_t type = 0, value = 0;
        ASSERT_EQ(recvMsgFromCameraPipe(&type, &value), 1);
        seen.insert({type, value});
    }
    for (auto &t : producers)
        t.join();
    for (int i = 0; i < kPerThread; ++i) {
        EXPECT_EQ(seen.count({0u, static_cast<uint32_t>(1000 + i)}), 1u);
        EXPECT_EQ(seen.count({1u, static_cast<uint32_t>(2000 + i)}), 1u);
        EXPECT_EQ(seen.count({2u, static_cast<uint32_t>(3000 + i)}), 1u);
    }
    unInitCameraPipe();
}

TEST_F(CameraPipe, ReceiveWithoutPipeLogsReadLenFailed)
{
    avmtest::LogCapture log;
    uint32_t type = 0, value = 0;
    EXPECT_EQ(recvMsgFromCameraPipe(&type, &value), 0);
    EXPECT_TRUE(log.contains("PTZ", "read len failed\n"));
    EXPECT_EQ(log.priorityOf("PTZ", "read len failed\n"), ANDROID_LOG_ERROR);
    EXPECT_EQ(recvDataFromCameraPipe(&type, 4), 0);
    EXPECT_EQ(sendDataToCameraPipe(&type, 4), 0);
}

TEST_F(CameraPipe, WrongLengthWordIsReportedAndTheRestReadAsTheNextMessage)
{
    avmtest::LogCapture log;
    ASSERT_EQ(initCameraPipe(), 0);
    // A bad length word followed by a whole message: the next read takes
    // the message's own length word and proceeds normally.
    const uint32_t bad = 5;
    ASSERT_EQ(sendDataToCameraPipe(&bad, sizeof bad), 4);
    ASSERT_EQ(sendDoaToCameraPipe(77), 1);
    uint32_t type = 0, value = 0;
    EXPECT_EQ(recvMsgFromCameraPipe(&type, &value), 0);
    EXPECT_TRUE(log.contains("PTZ", "read len invailed\n"));
    ASSERT_EQ(recvMsgFromCameraPipe(&type, &value), 1);
    EXPECT_EQ(type, 0u);
    EXPECT_EQ(value, 77u);
    unInitCameraPipe();
}

TEST_F(CameraPipe, MisalignedStreamDesynchronisesTheFollowingMessages)
{
    avmtest::LogCapture log;
    ASSERT_EQ(initCameraPipe(), 0);
    // A stray length word 8 shifts every later message by four bytes.
    const uint32_t stray = 8;
    ASSERT_EQ(sendDataToCameraPipe(&stray, sizeof stray), 4);
    ASSERT_EQ(sendDoaToCameraPipe(5), 1);
    uint32_t type = 0, value = 0;
    ASSERT_EQ(recvMsgFromCameraPipe(&type, &value), 1);
    EXPECT_EQ(type, 8u);  // the real message's length word
    EXPECT_EQ(value, 0u); // its type
    unInitCameraPipe();
}

TEST_F(CameraPipe, ReleaseWithMessagesQueuedMakesTheNextReadFail)
{
    avmtest::LogCapture log;
    ASSERT_EQ(initCameraPipe(), 0);
    ASSERT_EQ(sendDoaToCameraPipe(1), 1);
    unInitCameraPipe();
    uint32_t type = 0, value = 0;
    EXPECT_EQ(recvMsgFromCameraPipe(&type, &value), 0);
    EXPECT_TRUE(log.contains("PTZ", "read len failed\n"));
}

TEST_F(CameraPipe, ShortBodyLogsReadDataInvailed)
{
    avmtest::LogCapture log;
    ASSERT_EQ(initCameraPipe(), 0);
    // A length word and only half a body: the body read returns 4 bytes.
    const uint32_t partial[2] = {8, 1};
    ASSERT_EQ(sendDataToCameraPipe(partial, sizeof partial), 8);
    uint32_t type = 0, value = 0;
    EXPECT_EQ(recvMsgFromCameraPipe(&type, &value), 0);
    EXPECT_TRUE(log.contains("PTZ", "read data invailed\n"));
    EXPECT_EQ(log.priorityOf("PTZ", "read data invailed\n"), ANDROID_LOG_ERROR);
    unInitCameraPipe();
}

TEST_F(CameraPipe, AfterReleaseProducersGetZero)
{
    ASSERT_EQ(initCameraPipe(), 0);
    EXPECT_EQ(sendDoaToCameraPipe(1), 1);
    EXPECT_EQ(unInitCameraPipe(), 0);
    EXPECT_EQ(sendDoaToCameraPipe(1), 0);
    EXPECT_EQ(sendUsbChannelInfoToCameraPipe(1), 0);
}

} // namespace
