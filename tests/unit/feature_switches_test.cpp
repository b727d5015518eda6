// Feature switches: which values count as on, which switches are cached,
// and what each one logs.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include <android/log.h>

#include "log_capture.h"
#include "common/feature_switches.h"

namespace {

struct SwitchCase {
    const char *value;
    int expected;
};

// On exactly when the value starts with '1'.
const SwitchCase kValues[] = {
    {"1", 1}, {"10", 1}, {"1abc", 1}, {"0", 0}, {"true", 0}, {"2", 0}, {"", 0}, {" 1", 0},
};

// Every test starts as a freshly started service: no switch read yet.
class FeatureSwitches : public ::testing::Test {
protected:
    void SetUp() override { featureSwitches_resetForTest(); }
};

} // namespace

TEST_F(FeatureSwitches, AValueCountsAsOnExactlyWhenItStartsWithOne)
{
    avmtest::FreshPropertyStore props;
    for (const auto &c : kValues) {
        props.set("persist.vendor.floor_wall", c.value);
        EXPECT_EQ(enableAudioWallFloorProp(), c.expected) << '"' << c.value << '"';
    }
}

TEST_F(FeatureSwitches, MissingPropertiesReadAsOff)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    EXPECT_EQ(enableCameraCommunication(), 0);
    EXPECT_EQ(enableDspCommunication(), 0);
    EXPECT_EQ(enableSendDoaToCamera(), 0);
    EXPECT_EQ(enableAudioWallFloorProp(), 0);
    EXPECT_TRUE(log.contains("AVMANAGER", "enableCameraCommunication:false\n"));
    EXPECT_TRUE(log.contains("AVMANAGER", "enableDspCommunication:false\n"));
    EXPECT_TRUE(log.contains("AVMANAGER", "enableSendDoaToCamera:false\n"));
    EXPECT_TRUE(log.contains("DSP", "false\n"));
}

TEST_F(FeatureSwitches, CachedSwitchesReadAndLogOnceWithTheirPropertyKeys)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    props.set("persist.vendor.cam.communication", "1abc");
    props.set("persist.vendor.dsp.communication", "10");
    props.set("persist.sys.dsp.sendDoaToCamera", "1");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(enableCameraCommunication(), 1);
        EXPECT_EQ(enableDspCommunication(), 1);
        EXPECT_EQ(enableSendDoaToCamera(), 1);
    }
    EXPECT_EQ(log.count("AVMANAGER", "enableCameraCommunication:true\n"), 1u);
    EXPECT_EQ(log.count("AVMANAGER", "enableDspCommunication:true\n"), 1u);
    EXPECT_EQ(log.count("AVMANAGER", "enableSendDoaToCamera:true\n"), 1u);
    EXPECT_EQ(log.lines().size(), 3u);
}

TEST_F(FeatureSwitches, DspSwitchSetToOneAfterTheFirstQueryHasNoEffectUntilRestart)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    props.set("persist.vendor.dsp.communication", "0");
    EXPECT_EQ(enableDspCommunication(), 0);
    props.set("persist.vendor.dsp.communication", "1");
    EXPECT_EQ(enableDspCommunication(), 0);
    EXPECT_EQ(enableDspCommunication(), 0);
    EXPECT_EQ(log.count("AVMANAGER", "enableDspCommunication:false\n"), 1u);
    EXPECT_EQ(log.countContaining("AVMANAGER", "enableDspCommunication:true"), 0u);
}

TEST_F(FeatureSwitches, CameraAndDoaSwitchesAreCachedToo)
{
    avmtest::FreshPropertyStore props;
    props.set("persist.vendor.cam.communication", "1");
    props.set("persist.sys.dsp.sendDoaToCamera", "0");
    EXPECT_EQ(enableCameraCommunication(), 1);
    EXPECT_EQ(enableSendDoaToCamera(), 0);
    props.set("persist.vendor.cam.communication", "0");
    props.set("persist.sys.dsp.sendDoaToCamera", "1");
    EXPECT_EQ(enableCameraCommunication(), 1);
    EXPECT_EQ(enableSendDoaToCamera(), 0);
}

TEST_F(FeatureSwitches, FloorWallChangeBetweenTwoCallsTakesEffectAtOnce)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    props.set("persist.vendor.floor_wall", "0");
    EXPECT_EQ(enableAudioWallFloorProp(), 0);
    props.set("persist.vendor.floor_wall", "1");
    EXPECT_EQ(enableAudioWallFloorProp(), 1);
    props.set("persist.vendor.floor_wall", "true");
    EXPECT_EQ(enableAudioWallFloorProp(), 0);
    // Read and logged on every call, under the DSP tag.
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].tag, "DSP");
    EXPECT_EQ(lines[0].text, "false\n");
    EXPECT_EQ(lines[1].text, "true\n");
    EXPECT_EQ(lines[2].text, "false\n");
}

TEST_F(FeatureSwitches, ConcurrentFirstCallsAgreeOnTheValue)
{
    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    props.set("persist.vendor.dsp.communication", "1");
    std::vector<std::thread> threads;
    std::atomic<int> on{0};
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&on] { on += enableDspCommunication(); });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(on.load(), 8);
    size_t logged = log.count("AVMANAGER", "enableDspCommunication:true\n");
    EXPECT_GE(logged, 1u);
    EXPECT_LE(logged, 8u);
}
