// The camera's HID channel on the virtual board: finding the camera's
// hidraw node among hidraw0..9 by its ids, the probe report, opening, the
// 64-byte send and 1024-byte receive limits, the receive thread, and what
// read and write errors, an unplugged camera and a failed start leave
// behind. Asserted on the reports the camera model saw, the module's log
// lines and the channel's state.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <android/log.h>
#include <dlfcn.h>
#include <cutils/properties.h>

#include "camera/cam_detect.h"
#include "camera/cam_hid.h"
#include "hid_channel.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/board.h"
#include "sim/hid_camera_model.h"
#include "test_helpers.h"

using namespace std::chrono_literals;

namespace {

constexpr uint32_t kVid = 0x2E7D;
constexpr uint32_t kPid = 0x051A;
constexpr auto kWait = 5s;

// The camera's 64-byte answer to a version request, carrying `version`.
std::vector<uint8_t> versionAnswer(const std::string &version)
{
    std::vector<uint8_t> answer(64, 0);
    const uint8_t head[] = {0xAA, 0xBB, 0xCC, 0x20, 0x07, 0x00, 0x00};
    std::memcpy(answer.data(), head, sizeof head);
    std::memcpy(answer.data() + sizeof head, version.data(), std::min(version.size(), answer.size() - sizeof head));
    return answer;
}

std::string channelPath()
{
    char path[64] = {};
    hal_hidraw_path(path, sizeof path);
    return path;
}

// Descriptors this process has open on what a node of the board links to,
// leaving out the ones the board's preload shim opened for itself (reads
// go through a second descriptor of the node there).
int descriptorsOn(sim::Board &board, const std::string &node)
{
    const auto shimOwns = reinterpret_cast<int (*)(int)>(dlsym(RTLD_DEFAULT, "avm_board_preload_owns"));
    if (shimOwns == nullptr)
        return -1;
    char target[PATH_MAX] = {};
    if (readlink(board.devPath(node).c_str(), target, sizeof target - 1) <= 0)
        return -1;
    int n = 0;
    DIR *dir = opendir("/proc/self/fd");
    if (!dir)
        return -1;
    while (dirent *entry = readdir(dir)) {
        char link[PATH_MAX] = {};
        const std::string path = std::string("/proc/self/fd/") + entry->d_name;
        if (readlink(path.c_str(), link, sizeof link - 1) > 0 && std::strcmp(link, target) == 0 &&
            !shimOwns(std::atoi(entry->d_name)))
            ++n;
    }
    closedir(dir);
    return n;
}

class CamHidBoard : public ::testing::Test {
protected:
    void TearDown() override
    {
        // The channel and its receive thread end before the cameras go.
        std::vector<sim::HidCameraLogic *> cameras;
        for (auto &model : models)
            cameras.push_back(model.get());
        avmtest::stopHidChannel(cameras);
        models.clear();
    }

    // A camera (or any HID device) on a hidraw node, kept to the end of
    // the test.
    sim::HidCameraModel &add(const char *node, uint16_t vid = kVid, uint16_t pid = kPid)
    {
        models.push_back(std::make_unique<sim::HidCameraModel>(board, node, vid, pid));
        return *models.back();
    }

    avmtest::LogCapture log;
    sim::Board board;
    std::vector<std::unique_ptr<sim::HidCameraModel>> models;
};

TEST_F(CamHidBoard, TheFirstNodeWithTheCamerasIdsThatTakesTheProbeIsTheCamera)
{
    auto &keyboard = add("/dev/hidraw1", 0x046D, 0xC31C);
    auto &camera = add("/dev/hidraw3");
    auto &twin = add("/dev/hidraw6");
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    EXPECT_TRUE(hal_hidraw_isConnect());
    EXPECT_EQ(channelPath(), "/dev/hidraw3");
    // The keyboard was asked who it is and left alone; the camera took one
    // all-zero 64-byte report, whose first byte hidraw takes for the
    // report number (63 bytes reach the camera); the later node was never
    // looked at.
    EXPECT_EQ(keyboard.rawInfoRequests(), 1u);
    EXPECT_TRUE(keyboard.reportsWritten().empty());
    ASSERT_EQ(camera.reportsWritten().size(), 1u);
    EXPECT_EQ(camera.reportsWritten()[0], std::vector<uint8_t>(63, 0));
    EXPECT_EQ(twin.rawInfoRequests(), 0u);
    EXPECT_TRUE(log.contains("hidraw", "Open hidraw device succeed!\n"));
    EXPECT_EQ(log.priorityOf("hidraw", "Open hidraw device succeed!\n"), ANDROID_LOG_INFO);
}

TEST_F(CamHidBoard, AMatchingNodeThatCannotBeWrittenFailsTheCheckAndTheStart)
{
    auto &camera = add("/dev/hidraw2");
    camera.setWriteError(true);
    EXPECT_EQ(hal_hidraw_init(kVid, kPid), -1);
    EXPECT_FALSE(hal_hidraw_isConnect());
    EXPECT_EQ(log.count("hidraw", "/dev/hidraw2 can't communicate !\r\n"), 1u);
    EXPECT_EQ(log.priorityOf("hidraw", "/dev/hidraw2 can't communicate !\r\n"), ANDROID_LOG_ERROR);
    // With the ids stored by the start, the check itself says 0.
    EXPECT_EQ(check_hidraw_name(), 0);
    EXPECT_EQ(channelPath(), "");
}

TEST_F(CamHidBoard, NoNodeWithTheIdsGivesMinusOne)
{
    auto &other = add("/dev/hidraw0", 0x1234, 0x5678);
    EXPECT_EQ(hal_hidraw_init(kVid, kPid), -1);
    EXPECT_EQ(check_hidraw_name(), -1);
    EXPECT_TRUE(other.reportsWritten().empty());
}

TEST_F(CamHidBoard, ScanningNeverOpensTheHostsOwnHidrawNodes)
{
    // No camera on this board: every hidraw node is absent, whatever the
    // machine running the test has plugged in.
    for (int i = 0; i < HIDRAW_NODE_COUNT; ++i) {
        const std::string node = "/dev/hidraw" + std::to_string(i);
        errno = 0;
        const int fd = open(node.c_str(), O_RDWR);
        EXPECT_EQ(fd, -1) << node;
        EXPECT_EQ(errno, ENOENT) << node;
        if (fd >= 0)
            close(fd);
    }
    EXPECT_EQ(hal_hidraw_init(kVid, kPid), -1);
    EXPECT_EQ(log.countContaining("hidraw", "found"), 0u);
}

TEST_F(CamHidBoard, AFailedStartLeavesTheCloseLockHeldUntilTheNextStartTakesItOver)
{
    EXPECT_EQ(hal_hidraw_init(kVid, kPid), -1);
    // The lock is still held: tearing it down fails as for a locked mutex.
    EXPECT_EQ(joinHidThreadPool(), EBUSY);
    auto &camera = add("/dev/hidraw4");
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    EXPECT_EQ(channelPath(), "/dev/hidraw4");
    EXPECT_EQ(avmtest::stopHidChannel(camera), 0);
    EXPECT_FALSE(hal_hidraw_isConnect());
}

TEST_F(CamHidBoard, TheProbesDescriptorIsNeitherKeptNorClosed)
{
    auto &camera = add("/dev/hidraw0");
    ASSERT_EQ(descriptorsOn(board, "/dev/hidraw0"), 0);
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    // The probe's descriptor and the channel's.
    EXPECT_EQ(descriptorsOn(board, "/dev/hidraw0"), 2);
    ASSERT_EQ(avmtest::stopHidChannel(camera), 0);
    // The channel's own descriptor is closed; the probe's stays open.
    EXPECT_EQ(descriptorsOn(board, "/dev/hidraw0"), 1);
}

TEST_F(CamHidBoard, ASendWritesAtMost64Bytes)
{
    auto &camera = add("/dev/hidraw0");
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    std::vector<uint8_t> big(100, 0x5A);
    EXPECT_EQ(hal_hidraw_sendData(big.data(), static_cast<int>(big.size())), 64);
    const uint8_t small[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(hal_hidraw_sendData(small, sizeof small), 10);
    const auto reports = camera.reportsWritten();
    ASSERT_EQ(reports.size(), 3u); // probe, then the two sends
    EXPECT_EQ(reports[1], std::vector<uint8_t>(64, 0x5A));
    EXPECT_EQ(reports[2], std::vector<uint8_t>(small, small + 10));
    EXPECT_TRUE(log.contains("hidraw", "sendData retVal 64\r\n"));
}

TEST_F(CamHidBoard, AReceiveReadsAtMost1024Bytes)
{
    auto &camera = add("/dev/hidraw0");
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    // Without the receive thread, the channel opened again by hand. The
    // thread is stopped while it waits in its read, so the report that
    // wakes it is not left for the read below.
    ASSERT_TRUE(sim::waitUntil([&] { return camera.readsWaiting() == 1; }, kWait));
    ASSERT_EQ(avmtest::stopHidChannel(camera), 0);
    ASSERT_GE(hal_hidraw_open(), 0);
    std::vector<uint8_t> report(1500);
    for (size_t i = 0; i < report.size(); ++i)
        report[i] = static_cast<uint8_t>(i);
    camera.sendReport(report);
    std::vector<uint8_t> buf(2000, 0xEE);
    int n = 0;
    ASSERT_TRUE(sim::waitUntil(
        [&] {
            n = hal_hidraw_recvData(buf.data(), static_cast<int>(buf.size()));
            return n != 0;
        },
        kWait));
    ASSERT_EQ(n, 1024);
    EXPECT_TRUE(std::equal(buf.begin(), buf.begin() + 1024, report.begin()));
    // Nothing past the 1024 bytes asked for was touched.
    EXPECT_EQ(buf[1024], 0xEE);
}

// A receive on a closed channel says so, opens the known node again,
// and pauses a second before it fails, so a receive loop on a closed
// channel tries once a second; so it does when the node cannot be opened.
TEST_F(CamHidBoard, AReceiveOnAClosedChannelOpensTheNodeAgainAndPausesASecond)
{
    auto &camera = add("/dev/hidraw0");
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    ASSERT_EQ(avmtest::stopHidChannel(camera), 0);
    ASSERT_FALSE(hal_hidraw_isConnect());
    // A receive thread stopped between its loop check and its read has
    // logged the same line once already; only this call's line is counted.
    const size_t notOpenBefore = log.countContaining("hidraw", "] device is not open yet.\r\n");
    const size_t recvBefore = log.countContaining("hidraw", "hal_hidraw_recvData[");
    uint8_t buf[64];
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(hal_hidraw_recvData(buf, sizeof buf), -1);
    EXPECT_GE(avmtest::msSince(start), 1000);
    EXPECT_EQ(log.countContaining("hidraw", "] device is not open yet.\r\n") - notOpenBefore, 1u);
    EXPECT_EQ(log.countContaining("hidraw", "hal_hidraw_recvData[") - recvBefore, 1u);
    EXPECT_TRUE(hal_hidraw_isConnect()) << "opened again";

    hal_hidraw_deinit();
    camera.unplug();
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(hal_hidraw_recvData(buf, sizeof buf), -1);
    EXPECT_GE(avmtest::msSince(start), 1000);
    EXPECT_TRUE(log.contains("hidraw", "open hidraw Error\r\n"));
    EXPECT_FALSE(hal_hidraw_isConnect());
}

TEST_F(CamHidBoard, TheReceiveThreadHandsTheVersionAnswerToTheCameraVersion)
{
    auto &camera = add("/dev/hidraw0");
    camera.setVersion("X3M-DUAL 2.7.1 (made up)");
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    uint8_t request[64] = {0xAA, 0xBB, 0xCC, 0x20, 0x06};
    ASSERT_EQ(hal_hidraw_sendData(request, sizeof request), 64);
    EXPECT_TRUE(sim::waitUntil([] { return avmtest::prop(CAM_VERSION_PROPERTY) == "X3M-DUAL 2.7.1 (made up)"; },
                               kWait));
    EXPECT_FALSE(cam_detect_need_update_version());
    EXPECT_TRUE(log.waitFor("hidraw", "CamHidTransferFile: recved size 64 ", kWait));
}

// As on the kernel, a read with nothing to report waits until the camera
// has one: the receive thread's read stays open, no empty read comes back
// meanwhile, and the camera's next report ends it.
TEST_F(CamHidBoard, AReadWaitsForTheCamerasNextReportAndEndsWithIt)
{
    auto &camera = add("/dev/hidraw0");
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    ASSERT_TRUE(sim::waitUntil([&] { return camera.readsWaiting() == 1; }, kWait));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(camera.readsWaiting(), 1u);
    EXPECT_EQ(camera.readsAnswered(), 0u);
    EXPECT_EQ(log.countContaining("hidraw", "CamHidTransferFile: recved size"), 0u);

    camera.sendReport(versionAnswer("X3M-DUAL 3.0.0"));
    EXPECT_TRUE(sim::waitUntil([] { return avmtest::prop(CAM_VERSION_PROPERTY) == "X3M-DUAL 3.0.0"; }, kWait));
    EXPECT_EQ(camera.readsAnswered(), 1u);
    EXPECT_EQ(log.countContaining("hidraw", "CamHidTransferFile: recved size 64 "), 1u);
    // The thread reads on, and waits again.
    EXPECT_TRUE(sim::waitUntil([&] { return camera.readsWaiting() == 1; }, kWait));
}

// A waiting read's report is counted and traced before the module has it,
// so whoever sees the module act on a report also sees it answered: a slow
// trace listener holds the report back, and the module has not acted on
// it when the listener returns.
TEST_F(CamHidBoard, AWaitingReadsReportIsCountedAndTracedBeforeTheModuleHasIt)
{
    auto &camera = add("/dev/hidraw0");
    std::atomic<int> traced{0};
    std::atomic<size_t> answeredWhenTraced{0};
    std::atomic<bool> actedBeforeTraced{false};
    const int listener = board.trace().addListener([&](const sim::TraceEvent &event) {
        if (event.link != "hid" || event.toDevice)
            return;
        answeredWhenTraced = camera.readsAnswered();
        std::this_thread::sleep_for(300ms);
        if (avmtest::prop(CAM_VERSION_PROPERTY) == "X3M-DUAL 3.0.2")
            actedBeforeTraced = true;
        ++traced;
    });
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    ASSERT_TRUE(sim::waitUntil([&] { return camera.readsWaiting() == 1; }, kWait));
    camera.sendReport(versionAnswer("X3M-DUAL 3.0.2"));
    EXPECT_TRUE(sim::waitUntil([] { return avmtest::prop(CAM_VERSION_PROPERTY) == "X3M-DUAL 3.0.2"; }, kWait));
    board.trace().removeListener(listener);
    EXPECT_EQ(traced.load(), 1);
    EXPECT_EQ(answeredWhenTraced.load(), 1u) << "traced before it was counted";
    EXPECT_FALSE(actedBeforeTraced.load()) << "the module had the report before it was traced";
}

// The module writes on the descriptor its receive thread reads: a read
// that waits holds none of the writes back, and the answer they ask for
// ends the read.
TEST_F(CamHidBoard, WritesGoOutWhileAReadWaitsOnTheSameDescriptor)
{
    auto &camera = add("/dev/hidraw0");
    camera.setVersion("X3M-DUAL 3.1.0 (made up)");
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    ASSERT_TRUE(sim::waitUntil([&] { return camera.readsWaiting() == 1; }, kWait));
    const uint8_t other[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(hal_hidraw_sendData(other, sizeof other), 8);
    EXPECT_EQ(camera.reportsWritten().size(), 4u); // the probe and the three
    EXPECT_EQ(camera.readsWaiting(), 1u);
    EXPECT_EQ(camera.readsAnswered(), 0u);
    uint8_t request[64] = {0xAA, 0xBB, 0xCC, 0x20, 0x06};
    ASSERT_EQ(hal_hidraw_sendData(request, sizeof request), 64);
    EXPECT_TRUE(sim::waitUntil([] { return avmtest::prop(CAM_VERSION_PROPERTY) == "X3M-DUAL 3.1.0 (made up)"; },
                               kWait));
    EXPECT_EQ(camera.readsAnswered(), 1u);
}

// A stop closes the node under the receive thread's read; as on the
// kernel the read goes on waiting, and the thread ends only once a report
// comes.
TEST_F(CamHidBoard, AReadOutlivesTheStopThatClosedItsNodeUntilAReportComes)
{
    auto &camera = add("/dev/hidraw0");
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    ASSERT_TRUE(sim::waitUntil([&] { return camera.readsWaiting() == 1; }, kWait));
    hal_hidraw_deinit();
    EXPECT_FALSE(hal_hidraw_isConnect());
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(camera.readsWaiting(), 1u);
    EXPECT_EQ(camera.readsAnswered(), 0u);
    EXPECT_EQ(avmtest::stopHidChannel(camera), 0);
    EXPECT_EQ(camera.readsWaiting(), 0u);
    EXPECT_EQ(camera.readsAnswered(), 1u);
    // The stopped thread took the report and did not read again.
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(camera.readsWaiting(), 0u);
}

TEST_F(CamHidBoard, AWriteErrorClosesTheChannelAndTheNextSendOpensItAgain)
{
    auto &camera = add("/dev/hidraw0");
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    // The receive thread waits in its read, so only the sends below find
    // the channel closed.
    ASSERT_TRUE(sim::waitUntil([&] { return camera.readsWaiting() == 1; }, kWait));
    camera.setWriteError(true);
    const uint8_t report[4] = {1, 2, 3, 4};
    EXPECT_EQ(hal_hidraw_sendData(report, sizeof report), -1);
    EXPECT_FALSE(hal_hidraw_isConnect());
    EXPECT_TRUE(log.contains("hidraw", "hal_hidraw_sendData write device Error: Input/output error\r\n"));
    camera.setWriteError(false);
    // Not open: says so, fails, and opens the known node again.
    EXPECT_EQ(hal_hidraw_sendData(report, sizeof report), -1);
    EXPECT_EQ(log.countContaining("hidraw", "hal_hidraw_sendData["), 1u);
    EXPECT_EQ(log.countContaining("hidraw", "] device is not open yet.\r\n"), 1u);
    EXPECT_TRUE(hal_hidraw_isConnect());
    EXPECT_EQ(hal_hidraw_sendData(report, sizeof report), 4);
}

TEST_F(CamHidBoard, AReadErrorClosesTheChannelAndEndsTheReceiveThread)
{
    auto &camera = add("/dev/hidraw0");
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    camera.setReadError(true);
    EXPECT_TRUE(log.waitFor("hidraw", "hal_hidraw_recvData read device Error: Input/output error\r\n", kWait));
    EXPECT_TRUE(sim::waitUntil([] { return !hal_hidraw_isConnect(); }, kWait));
    // The thread ended by itself: joining it returns at once.
    EXPECT_EQ(joinHidThreadPool(), 0);
    EXPECT_EQ(log.countContaining("hidraw", "read device Error"), 1u);
}

TEST_F(CamHidBoard, AnUnpluggedCameraClosesTheChannelAndIsNoLongerFound)
{
    auto &camera = add("/dev/hidraw0");
    ASSERT_EQ(hal_hidraw_init(kVid, kPid), 0);
    camera.unplug();
    EXPECT_TRUE(log.waitFor("hidraw", "read device Error: No such device\r\n", kWait));
    EXPECT_TRUE(sim::waitUntil([] { return !hal_hidraw_isConnect(); }, kWait));
    EXPECT_EQ(check_hidraw_name(), -1);
    // Plugged back, the next start finds it again.
    camera.plug();
    EXPECT_EQ(hal_hidraw_init(kVid, kPid), 0);
    EXPECT_TRUE(hal_hidraw_isConnect());
}

} // namespace
