// The camera under the real kernel: a USB gadget with the camera's ids on
// dummy_hcd, enumerated by the host side of the same kernel. The module
// finds it in the kernel's own USB device list, talks to it through the
// hidraw node usbhid made for it (version, log download) and through
// usbfs (the USB tool), and sees it go and come back. Asserted, as on the
// virtual board, on the reports and transfers that reached the camera,
// the files and properties the module wrote, and its log lines.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <cutils/properties.h>

#include "cam_download.h"
#include "camera/cam_detect.h"
#include "camera/cam_hid.h"
#include "camera/cam_logs.h"
#include "camera/usb_tool.h"
#include "hid_channel.h"
#include "log_capture.h"
#include "sim/board.h"
#include "sim/kernel/kernel_camera.h"
#include "sim/kernel/usb_gadget.h"
#include "test_helpers.h"

using namespace std::chrono_literals;
using sim::kernel::KernelCamera;

namespace {

constexpr auto kWait = 10s;
const char *const kDetectTag = "DETECT_HAL";
const char *const kLogsTag = "CamHidTransferFile";
const std::string kRemote = "/var/volatile/log/";

std::string channelPath()
{
    char path[64] = {};
    hal_hidraw_path(path, sizeof path);
    return path;
}

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

std::vector<uint8_t> versionRequest()
{
    std::vector<uint8_t> request(64, 0);
    const uint8_t head[] = {0xAA, 0xBB, 0xCC, 0x20, 0x06};
    std::memcpy(request.data(), head, sizeof head);
    return request;
}

class KernelCameraTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(camera.error(), "") << "the camera gadget did not come up"; }
    void TearDown() override { stopChannel(); }

    // The channel and its receive thread end before the camera goes.
    void stopChannel() { avmtest::stopHidChannel(camera); }

    avmtest::LogCapture log;
    KernelCamera camera;
};

} // namespace

TEST_F(KernelCameraTest, TheKernelsDeviceListNamesTheCameraAndItsVersionArrivesOverHidraw)
{
    ASSERT_TRUE(get_camera_pidVid());
    const SupportCamInfo current = cam_detect_current();
    EXPECT_EQ(current.vid, KernelCamera::kVid);
    EXPECT_EQ(current.pid, KernelCamera::kPid);
    EXPECT_STREQ(current.name, "cam x3m dual");
    EXPECT_TRUE(isCamSupportCatchLogs(KernelCamera::kVid, KernelCamera::kPid));

    camera.setVersion("X3M-DUAL 3.1.0 (made up)");
    EXPECT_EQ(detectCamVersion(), 64);
    EXPECT_TRUE(log.contains(kDetectTag, "founded camera vid 2e7d pid 51a name: cam x3m dual!"));
    ASSERT_TRUE(sim::waitUntil(
        [] { return avmtest::prop("persist.vendor.cam.version") == "X3M-DUAL 3.1.0 (made up)"; }, kWait));
    EXPECT_FALSE(cam_detect_need_update_version());
    // The channel is the hidraw node the kernel made for the camera.
    EXPECT_EQ(channelPath(), camera.hidraw());
    // What reached the camera: the all-zero probe without its first byte
    // (hidraw takes it for the report number), then the whole request.
    const auto reports = camera.reportsWritten();
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0], std::vector<uint8_t>(63, 0));
    EXPECT_EQ(reports[1], versionRequest());
    EXPECT_EQ(camera.probes(), 1u);
    EXPECT_EQ(camera.versionRequests(), 1u);
}

TEST_F(KernelCameraTest, ALogComesDownInWholeReportsAndTheRefusedNameEndsTheSeries)
{
    const std::string kmsg = [] {
        std::string text;
        for (int line = 0; text.size() < 1000; ++line)
            text += "[" + std::to_string(100 + line) + ".000001] made-up kernel log line\n";
        text.resize(1000);
        return text;
    }();
    camera.setFile(kRemote + "kmsg.log", kmsg);
    avmtest::TempDir dir;
    const auto start = std::chrono::steady_clock::now();
    // kmsg_1.log is refused: the send result of its request is returned.
    EXPECT_EQ(getCamLog("kmsg", dir.path().c_str()), 64);
    // The received file ends by its 8 s wait.
    EXPECT_GE(avmtest::msSince(start), 8000 - 200);
    EXPECT_EQ(slurp(dir.path() + "/kmsg.log"), avmtest::asDownloaded(kmsg));
    EXPECT_EQ(slurp(dir.path() + "/kmsg.log").size(), 1054u); // 17 reports of 62 data bytes
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/kmsg_1.log"));
    EXPECT_EQ(camera.fileRequests(), (std::vector<std::string>{kRemote + "kmsg.log", kRemote + "kmsg_1.log"}));
    // The request report as the camera got it: head, name length, name,
    // zeros, 64 bytes (its first byte is not 0, so hidraw sends it all).
    const auto reports = camera.reportsWritten();
    ASSERT_GE(reports.size(), 2u);
    const std::vector<uint8_t> &request = reports[1];
    ASSERT_EQ(request.size(), 64u);
    const std::string name = kRemote + "kmsg.log";
    EXPECT_EQ(std::vector<uint8_t>(request.begin(), request.begin() + 6),
              (std::vector<uint8_t>{0xAA, 0xBB, 0xCC, 0x26, 0x02, static_cast<uint8_t>(name.size())}));
    EXPECT_EQ(std::string(request.begin() + 6, request.begin() + 6 + static_cast<long>(name.size())), name);
    EXPECT_TRUE(log.contains(kLogsTag, "ack size = 1000 "));
    EXPECT_TRUE(log.contains(kLogsTag, "time out finish = " + kRemote + "kmsg.log \n"));
    EXPECT_TRUE(log.contains(kLogsTag, "cant not request = " + kRemote + "kmsg_1.log \n"));
    EXPECT_EQ(cam_logs_status().stage, 0u);
}

// Why the camera sends whole reports: this kernel drops an input report
// shorter than the report descriptor says before hidraw sees it, so a
// file's short last report never arrives.
TEST_F(KernelCameraTest, AShortLastReportIsDroppedByTheKernel)
{
    const std::string content(1000, 'k'); // 16 whole reports and 8 bytes
    camera.setFile(kRemote + "kmsg.log", content);
    camera.setShortReports(true);
    avmtest::TempDir dir;
    EXPECT_EQ(getCamLog("kmsg", dir.path().c_str()), 64);
    EXPECT_EQ(slurp(dir.path() + "/kmsg.log"), content.substr(0, 16 * 62));
    EXPECT_TRUE(log.contains(kLogsTag, "ack size = 1000 "));
    EXPECT_TRUE(log.contains(kLogsTag, "time out finish = " + kRemote + "kmsg.log \n"));
}

TEST_F(KernelCameraTest, UnpluggedTheCameraLeavesTheDeviceListAndTheChannelAndIsFoundAgainWhenBack)
{
    ASSERT_EQ(hal_hidraw_init(KernelCamera::kVid, KernelCamera::kPid), 0);
    const std::string node = channelPath();
    EXPECT_EQ(node, camera.hidraw());

    ASSERT_TRUE(camera.unplug());
    EXPECT_FALSE(get_camera_pidVid());
    EXPECT_FALSE(std::filesystem::exists(node));
    // The receive thread's read fails once the camera is gone: the channel
    // closes and the thread ends; a send then finds it closed.
    EXPECT_TRUE(log.waitFor("hidraw", "read device Error", kWait));
    EXPECT_TRUE(sim::waitUntil([] { return !hal_hidraw_isConnect(); }, kWait));
    joinHidThreadPool();
    EXPECT_EQ(hal_hidraw_sendData(versionRequest().data(), 64), -1);

    ASSERT_TRUE(camera.plug());
    EXPECT_TRUE(get_camera_pidVid());
    camera.setVersion("X3M-DUAL 3.1.1 (made up)");
    ASSERT_EQ(detectCamVersion(), 64);
    EXPECT_TRUE(sim::waitUntil(
        [] { return avmtest::prop("persist.vendor.cam.version") == "X3M-DUAL 3.1.1 (made up)"; }, kWait));
    EXPECT_EQ(channelPath(), camera.hidraw());
}

// The USB tool on a camera read through its USB descriptor (row "cam
// 2688"): its first interface is the vendor bulk pair.
class KernelUsbToolTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(camera.error(), "") << "the camera gadget did not come up"; }

    // The endpoint addresses the kernel enumerated for interface 0.
    std::vector<uint8_t> kernelEndpoints() const
    {
        std::vector<uint8_t> out;
        const std::string interface = "/sys/bus/usb/devices/" + camera.hostEntry() + ":1.0";
        for (const auto &entry : std::filesystem::directory_iterator(interface))
            if (entry.path().filename().string().rfind("ep_", 0) == 0)
                out.push_back(static_cast<uint8_t>(
                    std::stoul(sim::kernel::readAttribute(entry.path().string() + "/bEndpointAddress"), nullptr, 16)));
        return out;
    }

    avmtest::LogCapture log;
    KernelCamera camera{0x1BCF, 0x2680};
};

TEST_F(KernelUsbToolTest, TheToolFindsTheBulkPairTheKernelListsAndItsTransfersReachTheCamera)
{
    ASSERT_EQ(usbtool_device_init(0x1BCF, 0x2680), 0);
    ASSERT_EQ(usbtool_device_is_open(), 1);
    const std::vector<uint8_t> endpoints = kernelEndpoints();
    ASSERT_EQ(endpoints.size(), 2u);
    const uint8_t in = (endpoints[0] & 0x80) ? endpoints[0] : endpoints[1];
    const uint8_t out = (endpoints[0] & 0x80) ? endpoints[1] : endpoints[0];
    EXPECT_EQ(usbtool_in_endpoint(), in);
    EXPECT_EQ(usbtool_out_endpoint(), out);
    EXPECT_FALSE(log.countContaining(kDetectTag, "ignoring usb_claim_interface") > 0)
        << "interface 0 has no kernel driver: the claim succeeds";

    const uint8_t hello[] = {'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(usbtool_buffer_write(hello, sizeof hello), 5);
    ASSERT_TRUE(sim::waitUntil([&] { return camera.tool().out().size() == 1; }, kWait));
    EXPECT_EQ(camera.tool().out()[0].bytes, std::vector<uint8_t>(hello, hello + 5));

    camera.tool().queueIn({'a', 'b', 'c'});
    uint8_t buf[64] = {};
    EXPECT_EQ(usbtool_buffer_read(buf, sizeof buf), 3);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), 3), "abc");

    // Nothing to read: the kernel holds the transfer for its 1000 ms.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_LT(usbtool_buffer_read(buf, sizeof buf), 0);
    EXPECT_GE(avmtest::msSince(start), 950);
    EXPECT_TRUE(log.contains(kDetectTag, "usbtool_buffer_read failed!"));
}
