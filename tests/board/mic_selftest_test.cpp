// The detection thread's microphone work on the virtual board, as factory
// tools drive it: request and result properties, the DSP's test queries
// and answers on the DSP line, the DSP version query, the one-time
// microphone power cycle after boot on the power switch, and the counters.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <android/log.h>
#include <cutils/properties.h>

#include "avmanager_hal.h"
#include "dsp_commands.h"
#include "dsp_on_board.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/board.h"
#include "sim/dsp_mic_model.h"
#include "sim/mic_power_model.h"

using namespace std::chrono_literals;

namespace {

constexpr auto kWait = 10s;
using avmtest::prop;

// Records every value a property takes, as a tool polling it would see
// them (consecutive repeats once).
class PropertyWatch {
public:
    explicit PropertyWatch(std::string key) : key_(std::move(key))
    {
        thread_ = std::thread([this] {
            while (!stop_.load()) {
                const std::string value = prop(key_.c_str());
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    if (values_.empty() || values_.back() != value)
                        values_.push_back(value);
                }
                std::this_thread::sleep_for(5ms);
            }
        });
    }
    ~PropertyWatch()
    {
        stop_.store(true);
        thread_.join();
    }
    std::vector<std::string> values() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return values_;
    }
    // Whether `first` was seen and `then` after it.
    bool sawInOrder(const std::string &first, const std::string &then) const
    {
        const auto seen = values();
        for (size_t i = 0; i < seen.size(); ++i)
            if (seen[i] == first)
                for (size_t j = i + 1; j < seen.size(); ++j)
                    if (seen[j] == then)
                        return true;
        return false;
    }

private:
    std::string key_;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    std::vector<std::string> values_;
    std::thread thread_;
};

class MicSelfTestBoard : public ::testing::Test, protected avmtest::DspOnBoard {
protected:
    void TearDown() override
    {
        if (up)
            avmtest::releaseModule(hmi, &dsp);
    }

    void set(const char *key, const char *value) { ASSERT_EQ(property_set(key, value), 0) << key; }

    void start()
    {
        set("persist.vendor.dsp.communication", "1");
        up = avmtest::startModule(hmi);
        ASSERT_TRUE(up);
    }

    size_t sent(const std::string &command) const
    {
        size_t n = 0;
        for (const auto &c : dsp.commands())
            n += c == command;
        return n;
    }

    size_t sentWithPrefix(const std::string &prefix) const { return avmtest::withPrefix(dsp.commands(), prefix).size(); }

    // A count of commands once it has stopped moving for a second, given
    // up after ten: queries the module posted before an answer came in
    // still cross the line after it, and the DSP model records a command
    // only once it has answered it (its answers go out 150 ms apart).
    static size_t settled(const std::function<size_t()> &count)
    {
        size_t last = count();
        for (int i = 0; i < 10; ++i) {
            std::this_thread::sleep_for(1s);
            const size_t now = count();
            if (now == last)
                break;
            last = now;
        }
        return last;
    }

    sim::DspMicTest mic{dsp};
    sim::MicPowerSwitch power{board};
    const avmanager_module_t *hmi = nullptr;
    bool up = false;
};

TEST_F(MicSelfTestBoard, AFactoryMicrophoneTestGoesTestingThenGivesOneDigitPerMicrophone)
{
    mic.setMicResult(4, 5);
    // The DSP is busy at first: the tool sees "testing" while it waits.
    mic.setTestsSilent(true);
    set("persist.sys.offmic", "true");
    set("mic.hw.test.req", "1");
    PropertyWatch ret("mic.hw.test.ret");
    start();
    ASSERT_TRUE(sim::waitUntil([] { return prop("mic.hw.test.ret") == "testing"; }, kWait));
    ASSERT_TRUE(dsp.waitForCommand("MIC_TEST=?", kWait));
    mic.setTestsSilent(false);
    ASSERT_TRUE(sim::waitUntil([] { return prop("mic.hw.test.ret") == "0101"; }, kWait));
    // The tool polling the result saw it go from testing to the digits.
    EXPECT_TRUE(sim::waitUntil([&] { return ret.sawInOrder("testing", "0101"); }, kWait));
    EXPECT_EQ(prop("mic.hw.test.req"), "0");
    // The test is started (again on each pass until the DSP says it is
    // testing), then its result is asked for until it comes.
    EXPECT_GE(sent("MIC_TEST=?"), 1u);
    EXPECT_GE(sent("MIC_TEST_RET=?"), 2u);
    EXPECT_LT(avmtest::indexOf(dsp.commands(), "MIC_TEST=?"), avmtest::indexOf(dsp.commands(), "MIC_TEST_RET=?"));
    // The answer reached its handler. Two answers 150 ms apart can arrive
    // in one read on a busy machine ("MIC_TEST=4,5MIC_TEST=4,5", the first
    // counts), so the line is matched up to the status; the unit test
    // pins its exact text.
    EXPECT_GE(log.countContaining("DETECT_HAL", "dsp_mic_status_update enter status 4,5"), 1u);
    // Nothing more is asked once the answer is in.
    const size_t queries = settled([&] { return sentWithPrefix("MIC_TEST"); });
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(sentWithPrefix("MIC_TEST"), queries);
}

TEST_F(MicSelfTestBoard, TwoAuxiliaryTestsReportPassAndFail)
{
    mic.setAuxResult(0, true);
    mic.setAuxResult(1, false);
    set("mic.hw.auxtest.num", "2");
    set("mic.hw.auxtest0.req", "1");
    set("mic.hw.auxtest1.req", "1");
    // Both tests show "testing" while the DSP is busy with them.
    mic.setTestsSilent(true);
    PropertyWatch ret0("mic.hw.auxtest0.ret");
    PropertyWatch ret1("mic.hw.auxtest1.ret");
    start();
    ASSERT_TRUE(sim::waitUntil([] { return prop("mic.hw.auxtest0.ret") == "testing" &&
                                           prop("mic.hw.auxtest1.ret") == "testing"; },
                               kWait));
    ASSERT_TRUE(dsp.waitForCommand("AUX_TEST[1]=?", kWait));
    mic.setTestsSilent(false);
    ASSERT_TRUE(sim::waitUntil([] { return prop("mic.hw.auxtest0.ret") == "1" && prop("mic.hw.auxtest1.ret") == "0"; },
                               kWait));
    // The tool polling the results saw both go from testing to the result.
    EXPECT_TRUE(sim::waitUntil([&] { return ret0.sawInOrder("testing", "1"); }, kWait));
    EXPECT_TRUE(sim::waitUntil([&] { return ret1.sawInOrder("testing", "0"); }, kWait));
    EXPECT_EQ(prop("mic.hw.auxtest0.req"), "0");
    EXPECT_EQ(prop("mic.hw.auxtest1.req"), "0");
    for (const char *command : {"AUX_TEST[0]=?", "AUX_TEST[1]=?"})
        EXPECT_GE(sent(command), 1u) << command;
    EXPECT_GE(sent("AUX_TEST_RET[0]=?"), 2u);
    EXPECT_GE(sent("AUX_TEST_RET[1]=?"), 2u);
    // Without "persist.sys.offmic" the microphone test itself is not run.
    EXPECT_EQ(sent("MIC_TEST=?"), 0u);
}

TEST_F(MicSelfTestBoard, AFailedFirstTestPowerCyclesTheMicrophonesOncePerBoot)
{
    set("vendor.mic.test.monitor", "1");
    set("vendor.mic.test.ret", "0111");
    start();
    ASSERT_TRUE(power.waitForWrites(2, kWait));
    const auto writes = power.writes();
    EXPECT_EQ(power.values(), (std::vector<std::string>{"0", "1"}));
    // Off for three seconds (the watcher may record the first write late
    // on a busy machine, which only shortens the gap it sees).
    EXPECT_GE(writes[1].when - writes[0].when, 2000ms);
    EXPECT_EQ(power.current(), "1");
    EXPECT_TRUE(log.contains("DETECT_HAL", "mictest reset\n"));
    // A new test is asked for (the request is written just after the result).
    EXPECT_TRUE(sim::waitUntil([] { return prop("mic.hw.test.ret") == "ING"; }, kWait));
    EXPECT_TRUE(sim::waitUntil([] { return prop("mic.hw.test.req") == "1"; }, kWait)) << prop("mic.hw.test.req");
    // The failure is still there on the next passes; the cycle is not
    // repeated.
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(power.writes().size(), 2u);
    EXPECT_EQ(log.count("DETECT_HAL", "mictest reset\n"), 1u);
}

// The first result after boot passed: the once-per-boot check is used up
// by it, so a failure seen later does not power-cycle either. The
// detection passes are counted on the DSP line: with the microphone test
// left unanswered, each pass asks "MIC_TEST=?" once, after its monitor
// step; so two more queries mean a whole pass looked at the result.
TEST_F(MicSelfTestBoard, APassedFirstTestLeavesThePowerAlone)
{
    mic.setTestsSilent(true);
    set("persist.sys.offmic", "true");
    set("vendor.mic.test.monitor", "1");
    set("vendor.mic.test.ret", "1111");
    start();
    ASSERT_TRUE(sim::waitUntil([&] { return sent("MIC_TEST=?") >= 1; }, kWait)) << "no detection pass";
    set("vendor.mic.test.ret", "0000");
    const size_t passes = sent("MIC_TEST=?");
    ASSERT_TRUE(sim::waitUntil([&] { return sent("MIC_TEST=?") >= passes + 2; }, kWait))
        << "no detection pass saw the failure";
    EXPECT_TRUE(power.writes().empty());
    EXPECT_EQ(log.count("DETECT_HAL", "mictest reset\n"), 0u);
    EXPECT_NE(prop("mic.hw.test.ret"), "ING") << "no re-test was asked for";
}

TEST_F(MicSelfTestBoard, WithRecordTestOnTheCountersCountTestsFailuresAndRepeatedFailures)
{
    mic.setMicResult(4, 15);
    set("persist.sys.offmic", "true");
    set("persist.mic.en_record_test", "1");
    set("persist.mic.test_num", "7");
    set("vendor.mic.test.monitor", "1");
    set("vendor.mic.test.ret", "testing");
    start();
    ASSERT_TRUE(sim::waitUntil([] { return prop("persist.mic.test_num") == "8"; }, kWait));
    // Logged just after the count is stored.
    EXPECT_TRUE(log.waitFor("DETECT_HAL", "detectMicStatus enter \n", kWait));
    // The result the monitor sees comes in failed.
    set("vendor.mic.test.ret", "0011");
    ASSERT_TRUE(sim::waitUntil([] { return prop("persist.mic.fail_num") == "1"; }, kWait));
    ASSERT_TRUE(power.waitForWrites(2, kWait));
    // After the power cycle it still fails.
    ASSERT_TRUE(sim::waitUntil([] { return prop("persist.mic.dual_fail_num") == "1"; }, kWait));
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(prop("persist.mic.test_num"), "8"); // once per boot
    EXPECT_EQ(prop("persist.mic.fail_num"), "1");
    EXPECT_EQ(prop("persist.mic.dual_fail_num"), "1");
    EXPECT_EQ(power.writes().size(), 2u);
}

TEST_F(MicSelfTestBoard, UnansweredTheMicrophoneTestIsAskedForEvery300Ms)
{
    mic.setTestsSilent(true);
    set("persist.sys.offmic", "true");
    const auto began = std::chrono::steady_clock::now();
    start();
    // Asked again and again; never more often than once a pass, which
    // sleeps 300 ms (a busy machine only makes passes slower).
    ASSERT_TRUE(sim::waitUntil([&] { return sent("MIC_TEST=?") >= 4; }, kWait));
    const size_t asked = sent("MIC_TEST=?");
    const long long elapsed = avmtest::msSince(began);
    EXPECT_LE(asked, static_cast<size_t>(elapsed / 300 + 1)) << elapsed << " ms";
    EXPECT_EQ(sent("MIC_TEST_RET=?"), 0u);
    EXPECT_EQ(prop("mic.hw.test.ret"), "testing");
    // Once the DSP answers for good, the queries stop.
    mic.setTestsSilent(false);
    ASSERT_TRUE(sim::waitUntil([] { return prop("mic.hw.test.ret") == "1111"; }, kWait));
    const size_t queries = settled([&] { return sentWithPrefix("MIC_TEST"); });
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(sentWithPrefix("MIC_TEST"), queries);
}

TEST_F(MicSelfTestBoard, AStatusAnswerOf4And5Gives0101)
{
    mic.setTestDuration(0); // the start query gets the final answer
    mic.setMicResult(4, 5);
    set("persist.sys.offmic", "true");
    start();
    ASSERT_TRUE(sim::waitUntil([] { return prop("mic.hw.test.ret") == "0101"; }, kWait));
    EXPECT_EQ(sent("MIC_TEST_RET=?"), 0u);
}

TEST_F(MicSelfTestBoard, AnAuxiliaryTestCountOf5RunsNoAuxiliaryTest)
{
    // The version left unanswered is asked on every pass: three passes
    // went by without an auxiliary test.
    mic.setVersionSilent(true);
    set("mic.hw.auxtest.num", "5");
    set("mic.hw.auxtest0.req", "1");
    start();
    ASSERT_TRUE(sim::waitUntil([&] { return sent("VER_FULL=?") >= 3; }, kWait));
    EXPECT_EQ(sentWithPrefix("AUX_TEST"), 0u);
    EXPECT_EQ(prop("mic.hw.auxtest0.ret"), "");
}

TEST_F(MicSelfTestBoard, WithoutOffmicNoMicrophoneQueryGoesOutWhileTheVersionIsStillAsked)
{
    mic.setVersionSilent(true);
    set("mic.hw.test.req", "1");
    start();
    // The version stays unanswered, so it is asked for on every pass.
    ASSERT_TRUE(sim::waitUntil([&] { return sent("VER_FULL=?") >= 3; }, kWait));
    EXPECT_EQ(sentWithPrefix("MIC_TEST"), 0u);
    EXPECT_EQ(prop("persist.sys.dune.update"), "1");
    EXPECT_EQ(prop("mic.hw.test.ret"), "");
}

TEST_F(MicSelfTestBoard, TheVersionIsAskedAtStartAndAgainWhenTheMicrophonesPowerUp)
{
    mic.setVersion("AVM-DSP 7.7.7 (made up)");
    // A query goes out every 300 ms until an answer is in, so a slow
    // machine may see one more before the answer.
    auto versionQueries = [&] { return settled([&] { return sent("VER_FULL=?"); }); };
    start();
    ASSERT_TRUE(sim::waitUntil([] { return prop("persist.sys.dune.version") == "AVM-DSP 7.7.7 (made up)"; }, kWait));
    // The update flag is written just after the version.
    EXPECT_TRUE(sim::waitUntil([] { return prop("persist.sys.dune.update") == "0"; }, kWait))
        << prop("persist.sys.dune.update");
    // The answer changed the stored version (from nothing), which is asked
    // about once more; then the queries stop.
    ASSERT_TRUE(sim::waitUntil([&] { return sent("VER_FULL=?") >= 2u; }, kWait));
    const size_t atStart = versionQueries();
    EXPECT_GE(atStart, 2u);
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(sent("VER_FULL=?"), atStart);
    // The DSP reports the microphones powered: the version is refreshed.
    dsp.send("MIC_PWR_ON=1");
    ASSERT_TRUE(sim::waitUntil([&] { return sent("VER_FULL=?") > atStart; }, kWait));
    const size_t afterPower = versionQueries();
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(sent("VER_FULL=?"), afterPower);
    // And a changed stored version is asked about too.
    set("persist.sys.dune.version", "edited");
    ASSERT_TRUE(sim::waitUntil([&] { return sent("VER_FULL=?") > afterPower; }, kWait));
}

} // namespace
