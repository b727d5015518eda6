// Camera log download on the virtual board: the camera in sysfs and on
// /dev/hidraw0 serves its log files; the module fetches them over the HID
// channel into <dir>/CamLogs. Asserted on the files that land, the
// requests the camera saw, the module's log lines and the timing the
// download is known for (a received file ends by its 8 s wait).
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <android/log.h>
#include <cutils/properties.h>

#include "avmanager_hal.h"
#include "camera/cam_hid.h"
#include "hid_channel.h"
#include "camera/cam_logs.h"
#include "camera/ptz_link.h"
#include "cam_download.h"
#include "camera_on_board.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/ptz_camera_model.h"

using namespace std::chrono_literals;

namespace {

constexpr auto kWait = 5s;
const std::string kRemote = "/var/volatile/log/";

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// Made-up log text of the given size.
std::string madeUpLog(const std::string &tag, size_t size)
{
    std::string out;
    for (int line = 0; out.size() < size; ++line)
        out += "[" + std::to_string(1000 + line) + ".000001] " + tag + ": made-up line " +
               std::to_string(line) + "\n";
    out.resize(size);
    return out;
}

// The camera's answer that it has no such file.
sim::HidCameraModel::Report refusal()
{
    sim::HidCameraModel::Report report(64, 0);
    const uint8_t head[] = {0xAA, 0xBB, 0xCC, 0x26, 0x03, 0x00, 0x00, 0x01};
    std::copy(head, head + sizeof head, report.begin());
    return report;
}

class CameraLogsBoard : public ::testing::Test, protected avmtest::CameraOnBoard {
protected:
    void TearDown() override { avmtest::stopHidChannel(camera); }

    std::string camLogs() const { return dir.path() + "/CamLogs"; }

    avmtest::TempDir dir;
};

// Each file lands as the camera's copy followed by the zero padding of its
// last 64-byte report.
TEST_F(CameraLogsBoard, ThreeFilesTheThirdRefusedLandThroughSlot43WithTheLastReportsPadding)
{
    const std::string kmsg = madeUpLog("kmsg", 3000);
    const std::string kmsg1 = madeUpLog("kmsg-old", 701);
    camera.setFile(kRemote + "kmsg.log", kmsg);
    camera.setFile(kRemote + "kmsg_1.log", kmsg1);
    ASSERT_EQ(property_set("persist.vendor.cam.communication", "1"), 0);
    const avmanager_module_t *hmi = avmtest::loadModule();
    ASSERT_NE(hmi, nullptr);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(hmi->get_cam_logs(hmi, dir.path().c_str()), 1);
    // Each received file ends by its 8 s wait.
    EXPECT_GE(avmtest::msSince(start), 2 * 8000 - 200);

    EXPECT_EQ(slurp(camLogs() + "/kmsg.log"), avmtest::asDownloaded(kmsg));
    EXPECT_EQ(slurp(camLogs() + "/kmsg.log").size(), 3038u); // 49 reports of 62 data bytes
    EXPECT_EQ(slurp(camLogs() + "/kmsg_1.log"), avmtest::asDownloaded(kmsg1));
    EXPECT_FALSE(std::filesystem::exists(camLogs() + "/kmsg_2.log"));
    EXPECT_FALSE(std::filesystem::exists(camLogs() + "/ipcamera.log"));
    EXPECT_EQ(camera.fileRequests(), (std::vector<std::string>{kRemote + "kmsg.log", kRemote + "kmsg_1.log",
                                                                kRemote + "kmsg_2.log", kRemote + "ipcamera.log",
                                                                kRemote + "watchdog.log"}));
    // Each request report: head, name length, name, zeros.
    const auto reports = camera.reportsWritten();
    ASSERT_GE(reports.size(), 2u);
    const std::vector<uint8_t> &first = reports[1];
    ASSERT_EQ(first.size(), 64u);
    const std::string name = kRemote + "kmsg.log";
    EXPECT_EQ(std::vector<uint8_t>(first.begin(), first.begin() + 6),
              (std::vector<uint8_t>{0xAA, 0xBB, 0xCC, 0x26, 0x02, static_cast<uint8_t>(name.size())}));
    EXPECT_EQ(std::string(first.begin() + 6, first.begin() + 6 + static_cast<long>(name.size())), name);
    EXPECT_TRUE(std::all_of(first.begin() + 6 + static_cast<long>(name.size()), first.end(),
                            [](uint8_t b) { return b == 0; }));

    const char *tag = "CamHidTransferFile";
    EXPECT_TRUE(log.contains(tag, "getCamLogs start = : " + camLogs() + "!\n"));
    EXPECT_TRUE(log.contains(tag, "request file = " + kRemote + "kmsg.log \n"));
    EXPECT_TRUE(log.contains(tag, "save file = " + camLogs() + "/kmsg.log \n"));
    EXPECT_TRUE(log.contains(tag, "ack size = 3000 "));
    EXPECT_TRUE(log.contains(tag, "time out finish = " + kRemote + "kmsg.log \n"));
    EXPECT_TRUE(log.contains(tag, "time out finish = " + kRemote + "kmsg_1.log \n"));
    EXPECT_TRUE(log.contains(tag, "cant not request = " + kRemote + "kmsg_2.log \n"));
    EXPECT_TRUE(log.contains(tag, "cant not request = " + kRemote + "watchdog.log \n"));
    EXPECT_EQ(cam_logs_status().stage, 0u);
}

// A camera that holds more than fifty logs of one name: fifty are asked
// for (name.log, name_1.log, ... name_49.log) and no more. The files are
// counted on the HID line; each one's wait is shortened here, since its
// length is shown by the tests above.
TEST_F(CameraLogsBoard, AtMostFiftyFilesOfANameAreFetched)
{
    for (int k = 0; k < 60; ++k)
        camera.setFile(kRemote + (k == 0 ? std::string("kmsg.log") : "kmsg_" + std::to_string(k) + ".log"),
                       "log " + std::to_string(k) + "\n");
    cam_logs_setAnswerPollsForTest(25);
    const int ret = getCamLog("kmsg", dir.path().c_str());
    cam_logs_setAnswerPollsForTest(0);
    EXPECT_EQ(ret, 64) << "the last request's send";
    const auto requests = camera.fileRequests();
    ASSERT_EQ(requests.size(), 50u);
    EXPECT_EQ(requests.front(), kRemote + "kmsg.log");
    for (int k = 1; k < 50; ++k)
        EXPECT_EQ(requests[static_cast<size_t>(k)], kRemote + "kmsg_" + std::to_string(k) + ".log");
    EXPECT_EQ(log.count("CamHidTransferFile", "request file = " + kRemote + "kmsg_50.log \n"), 0u);
    EXPECT_EQ(log.countContaining("CamHidTransferFile", "time out finish = "), 50u);
    EXPECT_EQ(cam_logs_status().stage, 0u);
}

TEST_F(CameraLogsBoard, ACameraThatRefusesTheFirstNameEndsAfterOneRequest)
{
    const auto start = std::chrono::steady_clock::now();
    // The result is that of the request's send.
    EXPECT_EQ(getCamLog("kmsg", dir.path().c_str()), 64);
    EXPECT_LT(avmtest::msSince(start), 8000);
    EXPECT_EQ(camera.fileRequests(), std::vector<std::string>{kRemote + "kmsg.log"});
    EXPECT_EQ(log.count("CamHidTransferFile", "cant not request = " + kRemote + "kmsg.log \n"), 1u);
    EXPECT_EQ(log.priorityOf("CamHidTransferFile", "cant not request = " + kRemote + "kmsg.log \n"),
              ANDROID_LOG_ERROR);
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/kmsg.log"));
}

TEST_F(CameraLogsBoard, ACameraThatAnswersNothingEndsEachFileByTheTimeOut)
{
    camera.setFile(kRemote + "kmsg.log", madeUpLog("kmsg", 100));
    camera.setSilent(true);
    int result = 0;
    const auto start = std::chrono::steady_clock::now();
    std::thread download([&] { result = getCamLog("kmsg", dir.path().c_str()); });
    // The second file is asked for only after the first one's wait ran out.
    ASSERT_TRUE(camera.waitForFileRequests(2, 20s));
    const long long firstFile = avmtest::msSince(start);
    EXPECT_GE(firstFile, 8000 - 200);
    EXPECT_TRUE(log.contains("CamHidTransferFile", "time out finish = " + kRemote + "kmsg.log \n"));
    // Nothing came, so nothing was written.
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/kmsg.log"));
    // The camera wakes up and refuses the second name: the series ends.
    camera.setSilent(false);
    camera.sendReport(refusal());
    download.join();
    EXPECT_EQ(result, 64);
    EXPECT_EQ(camera.fileRequests().size(), 2u);
}

TEST_F(CameraLogsBoard, AnAnswerOfTheWrongKindIsDroppedAndTheFileEndsByItsWait)
{
    camera.setWrongKind(true);
    std::thread download([&] { getCamLog("ipcamera", dir.path().c_str()); });
    EXPECT_TRUE(log.waitFor("CamHidTransferFile", "not match CMD_HEAD_ACK_DOWNLOAD_FILE error !", kWait));
    ASSERT_TRUE(camera.waitForFileRequests(2, 20s));
    camera.setWrongKind(false);
    camera.sendReport(refusal());
    download.join();
    EXPECT_TRUE(log.contains("CamHidTransferFile", "time out finish = " + kRemote + "ipcamera.log \n"));
    EXPECT_TRUE(log.contains("CamHidTransferFile", "cant not request = " + kRemote + "ipcamera_1.log \n"));
}

TEST_F(CameraLogsBoard, ACameraThatDoesNotHandOutLogsIsNotAsked)
{
    usb.remove("1-1");
    usb.attach("1-1", 0x2E7D, 0x0F4F); // the x3m, not the dual one
    EXPECT_EQ(getCamLogs(dir.path().c_str()), 1);
    EXPECT_TRUE(std::filesystem::is_directory(camLogs()));
    EXPECT_TRUE(camera.reportsWritten().empty());
    EXPECT_EQ(camera.rawInfoRequests(), 0u);
    EXPECT_FALSE(hal_hidraw_isConnect());
}

TEST_F(CameraLogsBoard, NoCameraFetchesNothing)
{
    usb.remove("1-1");
    EXPECT_EQ(getCamLog("kmsg", dir.path().c_str()), 0);
    EXPECT_TRUE(camera.reportsWritten().empty());
}

TEST_F(CameraLogsBoard, ALogDirectoryThatCannotBeMadeEndsWithZero)
{
    const std::string missing = dir.path() + "/no/such/dir";
    EXPECT_EQ(getCamLogs(missing.c_str()), 0);
    EXPECT_TRUE(log.contains("CamHidTransferFile", "mkdir " + missing + "/CamLogs error"));
    EXPECT_TRUE(camera.reportsWritten().empty());
}

TEST_F(CameraLogsBoard, AnExistingLogDirectoryIsUsedAsItIs)
{
    ASSERT_TRUE(std::filesystem::create_directory(camLogs()));
    std::ofstream(camLogs() + "/keep.txt") << "kept";
    camera.setRefuseAll(true);
    EXPECT_EQ(getCamLogs(dir.path().c_str()), 1);
    EXPECT_EQ(slurp(camLogs() + "/keep.txt"), "kept");
    EXPECT_EQ(camera.fileRequests().size(), 3u);
}

TEST_F(CameraLogsBoard, ACameraWithoutItsHidNodeFailsTheStartAndSaysSo)
{
    camera.unplug();
    EXPECT_EQ(getCamLog("kmsg", dir.path().c_str()), -1);
    EXPECT_TRUE(log.contains("CamHidTransferFile", "hal_hidraw_init FAILED!!"));
}

TEST_F(CameraLogsBoard, AFailedRequestIsReturnedAndLeavesTheDownloadIdle)
{
    ASSERT_EQ(hal_hidraw_init(avmtest::kCamVid, avmtest::kCamPid), 0);
    camera.setWriteError(true);
    EXPECT_EQ(getCamLog("kmsg", dir.path().c_str()), -1);
    EXPECT_TRUE(log.contains("CamHidTransferFile", "direct hal_hidraw_sendData FAILED!!"));
    EXPECT_EQ(cam_logs_status().stage, 0u);
    EXPECT_FALSE(hal_hidraw_isConnect());
    // A later download runs: the channel starts again and the camera answers.
    camera.setWriteError(false);
    EXPECT_EQ(getCamLog("kmsg", dir.path().c_str()), 64);
    EXPECT_EQ(camera.fileRequests(), std::vector<std::string>{kRemote + "kmsg.log"});
}

TEST_F(CameraLogsBoard, TheDebugTestCommandLogsEveryReport)
{
    sim::PtzCameraModel ptz(board);
    ASSERT_EQ(camera_ptzHal_init(), 0);
    ASSERT_EQ(property_set("vendor.camera.test", "debug"), 0);
    ASSERT_TRUE(sim::waitUntil([] { return cam_logs_status().debug != 0; }, kWait));
    EXPECT_EQ(getCamLog("kmsg", dir.path().c_str()), 64);
    const char *tag = "CamHidTransferFile";
    // The request as sent and the refusal as received, byte by byte.
    EXPECT_TRUE(log.contains(tag, "sendBuff[0] = 0xaa "));
    EXPECT_TRUE(log.contains(tag, "sendBuff[4] = 0x02 "));
    EXPECT_TRUE(log.contains(tag, "recvBuff[4] = 0x03 "));
    EXPECT_TRUE(log.contains(tag, "recvBuff[7] = 0x01 "));
    EXPECT_EQ(log.countContaining(tag, "recvBuff["), 15u);
    avmtest::stopPtzLink();
}

} // namespace
