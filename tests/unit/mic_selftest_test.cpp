// The microphone self-tests without the board: one detection pass at a
// time, the DSP's answers handed to the update handlers, and the request,
// result and counter properties. What a pass posts to the DSP link is
// recorded by this executable's dsp_post, and the microphone power cycle
// by its reset_mic (both take the place of the module's own, which the
// module calls through the dynamic linker).
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <android/log.h>
#include <cutils/properties.h>

#include "camera/cam_detect.h"
#include "camera/detect.h"
#include "dsp/dsp_link.h"
#include "log_capture.h"
#include "process_env.h"

namespace {

std::mutex gMutex;
std::vector<std::pair<int, std::string>> gPosts; // guarded by gMutex
int gMicResets = 0;                              // guarded by gMutex

std::vector<std::pair<int, std::string>> posts()
{
    std::lock_guard<std::mutex> lock(gMutex);
    return gPosts;
}

int micResets()
{
    std::lock_guard<std::mutex> lock(gMutex);
    return gMicResets;
}

} // namespace

extern "C" {
int dsp_post(int32_t cmd, const char *text)
{
    std::lock_guard<std::mutex> lock(gMutex);
    gPosts.emplace_back(cmd, text ? text : "");
    return static_cast<int>(sizeof(DspRequest));
}

void reset_mic(void)
{
    std::lock_guard<std::mutex> lock(gMutex);
    ++gMicResets;
}
}

namespace {

using Post = std::pair<int, std::string>;

class MicSelfTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        detect_resetForTest();
        cam_detect_resetForTest();
        std::lock_guard<std::mutex> lock(gMutex);
        gPosts.clear();
        gMicResets = 0;
    }
    void TearDown() override { detect_resetForTest(); }

    std::string get(const char *key) const { return props.get(key); }

    avmtest::LogCapture log;
    avmtest::FreshPropertyStore props;
};

std::string parsed(const char *text)
{
    char out[MIC_STATUS_OUT_SIZE];
    memset(out, 'x', sizeof out);
    out[sizeof out - 1] = '\0';
    parseMicStatus(text, out);
    return out;
}

// ---- parseMicStatus

TEST_F(MicSelfTest, AStatusOf4And5Gives0101)
{
    EXPECT_EQ(parsed("4,5"), "0101");
}

TEST_F(MicSelfTest, StatusDigitsGoHighestBitFirst)
{
    EXPECT_EQ(parsed("3,1"), "001");
    EXPECT_EQ(parsed("3,4"), "100");
    EXPECT_EQ(parsed("8,255"), "11111111");
    EXPECT_EQ(parsed("2,7"), "11"); // bits above the count do not show
}

TEST_F(MicSelfTest, ACountOfZeroGivesAnEmptyString)
{
    EXPECT_EQ(parsed("0,5"), "");
}

TEST_F(MicSelfTest, AMissingBitMaskCountsAsZero)
{
    EXPECT_EQ(parsed("3"), "000");
    // Empty fields are skipped as the tokeniser skips them.
    EXPECT_EQ(parsed(",5"), "00000");
    EXPECT_EQ(parsed("2,,3"), "11");
}

TEST_F(MicSelfTest, BitPositionsOf32OrMoreGiveZero)
{
    EXPECT_EQ(parsed("34,-1"), "00" + std::string(32, '1'));
}

TEST_F(MicSelfTest, ACountOutside0To511LeavesTheOutputUntouched)
{
    const std::string untouched(MIC_STATUS_OUT_SIZE - 1, 'x');
    EXPECT_EQ(parsed("512,1"), untouched);
    EXPECT_EQ(parsed("-1,1"), untouched);
    EXPECT_EQ(parsed("99999999999,1"), untouched);
    EXPECT_EQ(parsed("511,0"), std::string(511, '0'));
    char out[4] = "abc";
    parseMicStatus(nullptr, out);
    EXPECT_STREQ(out, "abc");
}

// ---- the microphone test

TEST_F(MicSelfTest, WithOffmicNotExactlyTrueNoTestIsServed)
{
    for (const char *value : {"", "TRUE", "1", "true ", "false"}) {
        if (*value)
            props.set("persist.sys.offmic", value);
        props.set("mic.hw.test.req", "1");
        EXPECT_EQ(detectMicStatus(), 0) << value;
    }
    EXPECT_TRUE(posts().empty());
    EXPECT_FALSE(props.isSet("mic.hw.test.ret"));
}

TEST_F(MicSelfTest, AnUnsetRequestCountsAsARequest)
{
    props.set("persist.sys.offmic", "true");
    detectMicStatus();
    EXPECT_EQ(posts(), (std::vector<Post>{{DSP_CMD_MIC_TEST, ""}}));
    EXPECT_EQ(get("mic.hw.test.ret"), "testing");
    // Until the DSP answers, each pass starts the test again.
    detectMicStatus();
    EXPECT_EQ(posts().size(), 2u);
    EXPECT_EQ(posts()[1].first, DSP_CMD_MIC_TEST);
}

TEST_F(MicSelfTest, ARequestOtherThan1IsNotServed)
{
    props.set("persist.sys.offmic", "true");
    props.set("mic.hw.test.req", "0");
    detectMicStatus();
    EXPECT_TRUE(posts().empty());
}

TEST_F(MicSelfTest, WhileTheDspIsTestingItsResultIsAskedFor)
{
    props.set("persist.sys.offmic", "true");
    detectMicStatus();
    dsp_mic_status_update("TESTING");
    EXPECT_EQ(get("mic.hw.test.ret"), "testing");
    detectMicStatus();
    detectMicStatus();
    EXPECT_EQ(posts(), (std::vector<Post>{{DSP_CMD_MIC_TEST, ""}, {DSP_CMD_MIC_TEST_RESULT, ""},
                                          {DSP_CMD_MIC_TEST_RESULT, ""}}));
    // The final answer ends the request.
    dsp_mic_status_update("4,5");
    EXPECT_EQ(get("mic.hw.test.ret"), "0101");
    EXPECT_EQ(get("mic.hw.test.req"), "0");
    detectMicStatus();
    EXPECT_EQ(posts().size(), 3u);
    EXPECT_TRUE(log.contains("DETECT_HAL", "dsp_mic_status_update enter status 4,5 \n"));
}

TEST_F(MicSelfTest, AFinalAnswerWithABadCountLeavesAnEmptyResult)
{
    props.set("mic.hw.test.ret", "testing");
    dsp_mic_status_update("600,1");
    EXPECT_EQ(get("mic.hw.test.ret"), "");
    EXPECT_EQ(get("mic.hw.test.req"), "0");
}

TEST_F(MicSelfTest, TheTestCountGoesUpOncePerBootWithRecordTestOn)
{
    props.set("persist.sys.offmic", "true");
    props.set("persist.mic.en_record_test", "1");
    props.set("persist.mic.test_num", "41");
    detectMicStatus();
    detectMicStatus();
    EXPECT_EQ(get("persist.mic.test_num"), "42");
    EXPECT_EQ(log.count("DETECT_HAL", "detectMicStatus enter \n"), 1u);
    // Switching counting off later does not undo this boot's flag.
    props.set("persist.mic.en_record_test", "0");
    detectMicStatus();
    EXPECT_EQ(get("persist.mic.test_num"), "42");
}

TEST_F(MicSelfTest, WithoutRecordTestNothingIsCounted)
{
    props.set("persist.sys.offmic", "true");
    props.set("persist.mic.test_num", "41");
    detectMicStatus();
    EXPECT_EQ(get("persist.mic.test_num"), "41");
}

// ---- auxiliary tests

TEST_F(MicSelfTest, AnAuxiliaryTestIsStartedThenAskedForUntilItsFinalAnswer)
{
    props.set("mic.hw.auxtest0.req", "1");
    EXPECT_EQ(testMicAuxAll(), 1);
    EXPECT_EQ(posts(), (std::vector<Post>{{DSP_CMD_FREE_TEXT, "AUX_TEST[0]=?"}}));
    EXPECT_EQ(get("mic.hw.auxtest0.ret"), "testing");
    dsp_mic_aux_test_update("[0]=TESTING");
    testMicAuxAll();
    EXPECT_EQ(posts().back(), (Post{DSP_CMD_FREE_TEXT, "AUX_TEST_RET[0]=?"}));
    dsp_mic_aux_test_update("[0]=PASS");
    EXPECT_EQ(get("mic.hw.auxtest0.ret"), "1");
    EXPECT_EQ(get("mic.hw.auxtest0.req"), "0");
    EXPECT_EQ(testMicAuxAll(), 0);
}

TEST_F(MicSelfTest, AnAuxiliaryAnswerWithoutPassIsAFailure)
{
    props.set("mic.hw.auxtest.num", "4");
    props.set("mic.hw.auxtest3.req", "1");
    dsp_mic_aux_test_update("[3]=FAIL");
    EXPECT_EQ(get("mic.hw.auxtest3.ret"), "0");
    EXPECT_EQ(get("mic.hw.auxtest3.req"), "0");
}

TEST_F(MicSelfTest, TheNumberOfAuxiliaryTestsComesFromItsFirstCharacter)
{
    for (int i = 0; i < 4; ++i)
        props.set("mic.hw.auxtest" + std::to_string(i) + ".req", "1");
    props.set("mic.hw.auxtest.num", "4");
    EXPECT_EQ(testMicAuxAll(), 4);
    EXPECT_EQ(posts().size(), 4u);
    EXPECT_EQ(posts()[3].second, "AUX_TEST[3]=?");
    props.set("mic.hw.auxtest.num", "3x");
    EXPECT_EQ(testMicAuxAll(), 3);
    for (const char *none : {"0", "9", "x"}) {
        props.set("mic.hw.auxtest.num", none);
        EXPECT_EQ(testMicAuxAll(), 0) << none;
    }
}

TEST_F(MicSelfTest, AnAuxiliaryTestCountOf5RunsNone)
{
    props.set("mic.hw.auxtest.num", "5");
    props.set("mic.hw.auxtest0.req", "1");
    EXPECT_EQ(testMicAuxAll(), 0);
    EXPECT_TRUE(posts().empty());
}

TEST_F(MicSelfTest, AnAuxiliaryAnswerWithoutAValidIndexIsRejected)
{
    props.set("mic.hw.auxtest0.req", "1");
    for (const char *value : {"_RET[0]=PASS", "", "[", "[4]=PASS", "[x]=PASS"}) {
        log.clear();
        EXPECT_EQ(dsp_mic_aux_test_update(value), -1) << value;
        EXPECT_EQ(log.count("DETECT_HAL", "get_mic_aux_test_respone_index invailed\n"), 1u) << value;
    }
    EXPECT_EQ(dsp_mic_aux_test_update(nullptr), -1);
    EXPECT_EQ(get("mic.hw.auxtest0.req"), "1");
    EXPECT_FALSE(props.isSet("mic.hw.auxtest0.ret"));
}

// ---- DSP version

TEST_F(MicSelfTest, TheVersionIsAskedWhileTheUpdateFlagIsSetOrTheVersionChanged)
{
    props.set("persist.sys.dune.update", "1");
    detectMicVersion();
    detectMicVersion();
    EXPECT_EQ(posts(), (std::vector<Post>{{DSP_CMD_VERSION, ""}, {DSP_CMD_VERSION, ""}}));
    props.set("persist.sys.dune.update", "0");
    EXPECT_EQ(detectMicVersion(), 0);
    EXPECT_EQ(posts().size(), 2u);
    props.set("persist.sys.dune.version", "AVM-DSP 1.0 (made up)");
    detectMicVersion();
    EXPECT_EQ(posts().size(), 3u);
    EXPECT_EQ(detectMicVersion(), 0);
    EXPECT_EQ(posts().size(), 3u);
}

// ---- the monitor and the power cycle

TEST_F(MicSelfTest, TheMonitorSwitchIsOnWhenItStartsWith1)
{
    EXPECT_EQ(need_monitor_mic_test(), 0);
    props.set("vendor.mic.test.monitor", "10");
    EXPECT_EQ(need_monitor_mic_test(), 1);
    props.set("vendor.mic.test.monitor", "0");
    EXPECT_EQ(need_monitor_mic_test(), 0);
}

TEST_F(MicSelfTest, TheMonitoredResultIsTestingFailedOrPassed)
{
    EXPECT_EQ(get_mic_test_reset(), 0); // unset reads "testingNULL"
    props.set("vendor.mic.test.ret", "testing0");
    EXPECT_EQ(get_mic_test_reset(), 0);
    props.set("vendor.mic.test.ret", "1011");
    EXPECT_EQ(get_mic_test_reset(), 1);
    props.set("vendor.mic.test.ret", "1111");
    EXPECT_EQ(get_mic_test_reset(), 2);
}

TEST_F(MicSelfTest, DetectAgainSchedulesANewTest)
{
    detect_again();
    EXPECT_EQ(get("mic.hw.test.ret"), "ING");
    EXPECT_EQ(get("mic.hw.test.req"), "1");
}

TEST_F(MicSelfTest, WithoutTheMonitorThePowerIsNeverCycled)
{
    props.set("vendor.mic.test.ret", "0000");
    reset_mic_when_first_detect();
    EXPECT_EQ(micResets(), 0);
    EXPECT_FALSE(props.isSet("mic.hw.test.ret"));
}

TEST_F(MicSelfTest, AFailedFirstResultCyclesThePowerOnceAndAsksAgain)
{
    props.set("vendor.mic.test.monitor", "1");
    props.set("vendor.mic.test.ret", "testing");
    reset_mic_when_first_detect(); // still testing: nothing decided
    EXPECT_EQ(micResets(), 0);
    props.set("vendor.mic.test.ret", "0111");
    reset_mic_when_first_detect();
    EXPECT_EQ(micResets(), 1);
    EXPECT_EQ(get("mic.hw.test.ret"), "ING");
    EXPECT_EQ(get("mic.hw.test.req"), "1");
    // The repeated test fails too: counted only with record test on.
    reset_mic_when_first_detect();
    reset_mic_when_first_detect();
    EXPECT_EQ(micResets(), 1);
    EXPECT_FALSE(props.isSet("persist.mic.dual_fail_num"));
    EXPECT_FALSE(props.isSet("persist.mic.fail_num"));
}

TEST_F(MicSelfTest, AFirstResultThatPassedEndsTheMonitoring)
{
    props.set("vendor.mic.test.monitor", "1");
    props.set("vendor.mic.test.ret", "1111");
    reset_mic_when_first_detect();
    props.set("vendor.mic.test.ret", "0000");
    reset_mic_when_first_detect();
    EXPECT_EQ(micResets(), 0);
}

TEST_F(MicSelfTest, WithRecordTestOnFailuresAreCounted)
{
    props.set("persist.sys.offmic", "true");
    props.set("persist.mic.en_record_test", "1");
    props.set("mic.hw.test.req", "0");
    detectMicStatus(); // sees record test on
    props.set("vendor.mic.test.monitor", "1");
    props.set("vendor.mic.test.ret", "0111");
    props.set("persist.mic.dual_fail_num", "4");
    reset_mic_when_first_detect();
    EXPECT_EQ(get("persist.mic.fail_num"), "1");
    EXPECT_EQ(get("persist.mic.dual_fail_num"), "4");
    // The re-test after the power cycle fails too: a repeated failure.
    reset_mic_when_first_detect();
    EXPECT_EQ(get("persist.mic.dual_fail_num"), "5");
    EXPECT_EQ(get("persist.mic.fail_num"), "1");
    EXPECT_EQ(micResets(), 1);
}

TEST_F(MicSelfTest, ARepeatedTestThatPassesCountsNoRepeatedFailure)
{
    props.set("persist.sys.offmic", "true");
    props.set("persist.mic.en_record_test", "1");
    props.set("mic.hw.test.req", "0");
    detectMicStatus();
    props.set("vendor.mic.test.monitor", "1");
    props.set("vendor.mic.test.ret", "0111");
    reset_mic_when_first_detect();
    props.set("vendor.mic.test.ret", "1111");
    reset_mic_when_first_detect();
    EXPECT_FALSE(props.isSet("persist.mic.dual_fail_num"));
    EXPECT_EQ(get("persist.mic.fail_num"), "1");
}

} // namespace
