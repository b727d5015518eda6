// Camera discovery without the board: the supported-camera table, one
// device's uevent file as the sysfs scan reads it, the property counter
// and the camera version property.
#include <gtest/gtest.h>

#include <climits>
#include <sys/stat.h>
#include <cstring>
#include <string>

#include <android/log.h>
#include <cutils/properties.h>

#include "camera/cam_detect.h"
#include "log_capture.h"
#include "md5sum.h"
#include "process_env.h"

namespace {

class CamDetect : public ::testing::Test {
protected:
    void SetUp() override { cam_detect_resetForTest(); }
    void TearDown() override { cam_detect_resetForTest(); }

    // Scans a uevent file holding `content`.
    bool scan(const std::string &content)
    {
        const std::string path = avmtest::writeBytes(dir.path(), "uevent", content);
        return cam_detect_scan_uevent(path.c_str());
    }

    avmtest::LogCapture log;
    avmtest::FreshPropertyStore props;
    avmtest::TempDir dir;
};

TEST_F(CamDetect, TheTableHoldsTheEightCamerasInMatchOrder)
{
    struct Row {
        uint32_t vid, pid;
        const char *name;
    };
    const Row rows[SUPPORT_CAM_COUNT] = {
        {0x2E7D, 0x0502, "cam 3559"},       {0x2E7D, 0x0508, "cam 95828"},
        {0x2E7D, 0x0F4F, "cam x3m"},        {0x2E7D, 0x051A, "cam x3m dual"},
        {0x2E7D, 0x051B, "cam x3m single"}, {0x1BCF, 0x2680, "cam 2688"},
        {0x254A, 0x0C02, "cam smart 3559"}, {0x0BDA, 0x5876, "cam spca 2680"},
    };
    for (int i = 0; i < SUPPORT_CAM_COUNT; ++i) {
        EXPECT_EQ(gSupportCamList[i].vid, rows[i].vid) << i;
        EXPECT_EQ(gSupportCamList[i].pid, rows[i].pid) << i;
        EXPECT_STREQ(gSupportCamList[i].name, rows[i].name) << i;
        // The name field is zero-filled after the text.
        for (size_t j = strlen(rows[i].name); j < CAM_NAME_SIZE; ++j)
            EXPECT_EQ(gSupportCamList[i].name[j], '\0') << i;
    }
    static_assert(sizeof(SupportCamInfo) == 80);
}

TEST_F(CamDetect, NothingIsCurrentUntilACameraWasFound)
{
    const SupportCamInfo cam = cam_detect_current();
    EXPECT_EQ(cam.vid, 0u);
    EXPECT_EQ(cam.pid, 0u);
    EXPECT_STREQ(cam.name, "");
    EXPECT_TRUE(cam_detect_need_update_version());
}

TEST_F(CamDetect, AProductLineOfASupportedCameraMakesItCurrent)
{
    EXPECT_TRUE(scan("MAJOR=189\nDEVTYPE=usb_device\nPRODUCT=2e7d/51a/100\nBUSNUM=001\n"));
    const SupportCamInfo cam = cam_detect_current();
    EXPECT_EQ(cam.vid, 0x2E7Du);
    EXPECT_EQ(cam.pid, 0x051Au);
    EXPECT_STREQ(cam.name, "cam x3m dual");
    EXPECT_TRUE(log.contains("DETECT_HAL", std::to_string(getppid()) + " " + std::to_string(gettid()) +
                                               " 2e7d:051a\n"));
    EXPECT_EQ(log.priorityOf("DETECT_HAL", std::to_string(getppid()) + " " + std::to_string(gettid()) +
                                               " 2e7d:051a\n"),
              ANDROID_LOG_INFO);
}

TEST_F(CamDetect, ProductIdsAreReadAsAHexScanReadsThem)
{
    EXPECT_TRUE(scan("PRODUCT=2E7D/0502/0100\n")); // upper case, leading zeros
    EXPECT_STREQ(cam_detect_current().name, "cam 3559");
    EXPECT_TRUE(scan("PRODUCT=0x1bcf/0x2680/1\n"));
    EXPECT_STREQ(cam_detect_current().name, "cam 2688");
    EXPECT_TRUE(scan("PRODUCT=bda/5876\n")); // the trailing field is not needed
    EXPECT_STREQ(cam_detect_current().name, "cam spca 2680");
    EXPECT_TRUE(scan("PRODUCT= 254a/ c02/"));
    EXPECT_STREQ(cam_detect_current().name, "cam smart 3559");
}

TEST_F(CamDetect, OtherLinesAndOtherDevicesAreNoCamera)
{
    EXPECT_FALSE(scan("PRODUCT=1ff7/51a/100\n")); // row 3's product, another vendor
    EXPECT_FALSE(scan("PRODUCT=46d/c31c/4900\n"));
    EXPECT_FALSE(scan(" PRODUCT=2e7d/51a/100\n"));
    EXPECT_FALSE(scan("product=2e7d/51a/100\n"));
    EXPECT_FALSE(scan("PRODUCT=2e7d,51a,100\n"));
    EXPECT_FALSE(scan("PRODUCT=/51a/\n"));
    EXPECT_FALSE(scan("INTERFACE=2e7d/51a/100\n"));
    EXPECT_FALSE(scan(""));
    EXPECT_FALSE(scan(std::string("PRODUCT=2e7d\0/51a/100\n", 22)));
    EXPECT_EQ(cam_detect_current().vid, 0u);
}

TEST_F(CamDetect, TheFirstSupportedLineOfAFileWins)
{
    EXPECT_TRUE(scan("PRODUCT=46d/c31c/1\nPRODUCT=2e7d/508/1\nPRODUCT=2e7d/502/1\n"));
    EXPECT_STREQ(cam_detect_current().name, "cam 95828");
}

TEST_F(CamDetect, AnUnsupportedDeviceLeavesTheCurrentCameraAsItWas)
{
    ASSERT_TRUE(scan("PRODUCT=2e7d/f4f/1\n"));
    EXPECT_FALSE(scan("PRODUCT=46d/c31c/1\n"));
    EXPECT_STREQ(cam_detect_current().name, "cam x3m");
}

TEST_F(CamDetect, AVeryLongLineIsReadWhole)
{
    EXPECT_TRUE(scan(std::string(100000, 'A') + "\nPRODUCT=2e7d/51b/1\n"));
    EXPECT_STREQ(cam_detect_current().name, "cam x3m single");
}

TEST_F(CamDetect, AnUnreadableUeventIsLogged)
{
    const std::string path = dir.path() + "/missing/uevent";
    EXPECT_FALSE(cam_detect_scan_uevent(path.c_str()));
    const std::string line = std::to_string(getppid()) + " " + std::to_string(gettid()) + " open " + path +
                             " failed!\n";
    EXPECT_TRUE(log.contains("DETECT_HAL", line));
    EXPECT_EQ(log.priorityOf("DETECT_HAL", line), ANDROID_LOG_ERROR);
}

TEST_F(CamDetect, TheCounterOfAnUnsetKeyBecomes1)
{
    propAutoIncrement("persist.mic.fail_num");
    EXPECT_EQ(props.get("persist.mic.fail_num"), "1");
    propAutoIncrement("persist.mic.fail_num");
    EXPECT_EQ(props.get("persist.mic.fail_num"), "2");
}

// The store writes a new file beside the old one and renames it over it,
// so even a write of the same value shows as a new file.
ino_t propertyFile(const std::string &dir, const std::string &key)
{
    struct stat st;
    return stat((dir + "/" + key).c_str(), &st) == 0 ? st.st_ino : 0;
}

TEST_F(CamDetect, ANegativeCounterIsWrittenBackUnchanged)
{
    props.set("persist.mic.fail_num", "-3");
    const ino_t before = propertyFile(props.dir(), "persist.mic.fail_num");
    ASSERT_NE(before, 0u);
    propAutoIncrement("persist.mic.fail_num");
    EXPECT_EQ(props.get("persist.mic.fail_num"), "-3");
    EXPECT_NE(propertyFile(props.dir(), "persist.mic.fail_num"), before) << "written back";
}

TEST_F(CamDetect, TheCounterReadsLikeANumberAndStopsAtItsTop)
{
    props.set("k.count", "41abc");
    propAutoIncrement("k.count");
    EXPECT_EQ(props.get("k.count"), "42");
    props.set("k.count", "abc");
    propAutoIncrement("k.count");
    EXPECT_EQ(props.get("k.count"), "1");
    props.set("k.count", "2147483647");
    propAutoIncrement("k.count");
    EXPECT_EQ(props.get("k.count"), "2147483647");
    props.set("k.count", "99999999999");
    propAutoIncrement("k.count");
    EXPECT_EQ(props.get("k.count"), "2147483647");
    propAutoIncrement(nullptr);
}

TEST_F(CamDetect, AVersionTextIsStoredAndEndsTheAsking)
{
    detectHal_camera_version_update(nullptr);
    EXPECT_TRUE(cam_detect_need_update_version());
    EXPECT_FALSE(props.isSet(CAM_VERSION_PROPERTY));
    detectHal_camera_version_update("X3M 1.0.0 (made up)");
    EXPECT_EQ(props.get(CAM_VERSION_PROPERTY), "X3M 1.0.0 (made up)");
    EXPECT_FALSE(cam_detect_need_update_version());
    // That the detection then leaves sysfs and the camera alone is shown on
    // the board (CamDetectBoard.WithTheVersionKnownTheDetectionLeavesSysfsAlone),
    // where a camera is there to be looked at.
}

TEST_F(CamDetect, AVersionTooLongForAPropertyLeavesThePropertyAsItWas)
{
    props.set(CAM_VERSION_PROPERTY, "old");
    detectHal_camera_version_update(std::string(120, 'v').c_str());
    EXPECT_EQ(props.get(CAM_VERSION_PROPERTY), "old");
    EXPECT_FALSE(cam_detect_need_update_version());
}

} // namespace
