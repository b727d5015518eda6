// The DSP link on the virtual board: the module loaded by id, started with
// the DSP switch on, talking to the DSP model on /dev/ttyS2.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <android/log.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "avmanager_hal.h"
#include "dsp/dsp_link.h"
#include "dsp_commands.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/board.h"
#include "sim/dsp_file_store.h"
#include "sim/dsp_model.h"

using namespace std::chrono_literals;

namespace {

// Everything the module wrote to the DSP line, in order.
std::string wireToDsp(sim::Board &board)
{
    std::string out;
    for (const auto &e : board.trace().snapshot())
        if (e.link == "dsp" && e.toDevice)
            out.append(e.bytes.begin(), e.bytes.end());
    return out;
}

class DspLinkBoard : public ::testing::Test {
protected:
    void SetUp() override
    {
        // A request posted before the pipe exists goes to descriptor 0.
        ASSERT_TRUE(avmtest::sinkDescriptorZero());
        ASSERT_EQ(property_set("persist.vendor.dsp.communication", "1"), 0);
        hmi = avmtest::loadModule();
        ASSERT_NE(hmi, nullptr);
    }

    void TearDown() override
    {
        if (started)
            release();
    }

    void start()
    {
        ASSERT_GE(hmi->hal_init(), 0);
        started = true;
    }

    // Quiets the detection thread's version queries, as a DSP answer would:
    // after its first query the stored update flag goes to "0", and one
    // pass later no query is on its way any more.
    void quietDetection()
    {
        ASSERT_TRUE(dsp->waitForCommand("VER_FULL=?", 3000ms));
        ASSERT_EQ(property_set("persist.sys.dune.update", "0"), 0);
        std::this_thread::sleep_for(700ms);
    }

    // Stops the link without sitting out the receive thread's select.
    int release()
    {
        started = false;
        return avmtest::releaseModule(hmi, dsp.get());
    }

    avmtest::LogCapture log;
    sim::Board board;
    std::unique_ptr<sim::DspModel> dsp = std::make_unique<sim::DspModel>(board);
    const avmanager_module_t *hmi = nullptr;
    bool started = false;
};

TEST_F(DspLinkBoard, StartupCreatesThePipeUnderTheBoardRootAndOpensTtyS2)
{
    start();
    struct stat st;
    ASSERT_EQ(stat(board.rootPath("/tmp/.DSP_fifo").c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_TRUE(log.contains("UART", "OpenDev /dev/ttyS2 success\n"));
    EXPECT_TRUE(log.contains("UART", "Set Parity success\n"));
    EXPECT_TRUE(log.contains("DSP", "dsp_process_init finish!"));
    EXPECT_GE(gDspHalDev.fd.load(), 0);
    EXPECT_EQ(gDspHalDev.running.load(), 1);
}

TEST_F(DspLinkBoard, RawCommandReachesTheDspAsItsTextPlusOneZeroByte)
{
    start();
    EXPECT_EQ(hmi->send_cmd_to_dsp(hmi, "MIC_BAR=10,170,1"), 524);
    ASSERT_TRUE(dsp->waitForCommand("MIC_BAR=10,170,1", 3000ms));
    std::string wire = wireToDsp(board);
    const std::string expected = std::string("MIC_BAR=10,170,1") + '\0';
    size_t at = wire.find(expected);
    ASSERT_NE(at, std::string::npos);
    // Exactly one zero byte: the next byte, if any, starts another command.
    if (at + expected.size() < wire.size()) {
        EXPECT_NE(wire[at + expected.size()], '\0');
    }
    EXPECT_EQ(wire.find("MIC_BAR=10,170,1\r"), std::string::npos);
    EXPECT_EQ(wire.find("MIC_BAR=10,170,1\n"), std::string::npos);
}

TEST_F(DspLinkBoard, CommandOf511CharactersArrivesWholeAndLongerOneIsCut)
{
    start();
    const std::string exact(511, 'A');
    const std::string longer = std::string(511, 'B') + "TAIL";
    EXPECT_EQ(send_cmd_to_dsp(exact.c_str()), 524);
    EXPECT_EQ(send_cmd_to_dsp(longer.c_str()), 524);
    EXPECT_TRUE(dsp->waitForCommand(exact, 3000ms));
    EXPECT_TRUE(dsp->waitForCommand(std::string(511, 'B'), 3000ms));
    for (const auto &c : dsp->commands())
        EXPECT_EQ(c.find("TAIL"), std::string::npos);
}

TEST_F(DspLinkBoard, Code28IsDroppedAndNothingReachesThePort)
{
    start();
    EXPECT_EQ(dsp_post(28, "NEVER=1"), 524); // the pipe takes it...
    EXPECT_EQ(dsp_post(DSP_CMD_FREE_TEXT, "MARK=1"), 524);
    ASSERT_TRUE(dsp->waitForCommand("MARK=1", 3000ms));
    // ...the transmit thread drops it before the port.
    EXPECT_EQ(wireToDsp(board).find("NEVER"), std::string::npos);
    DspRequest r;
    memset(&r, 0, sizeof(r));
    r.cmd = 28;
    snprintf(r.text, sizeof(r.text), "NEVER=2");
    EXPECT_EQ(dsp_tx_protocol_handle(r), -1);
    EXPECT_EQ(wireToDsp(board).find("NEVER"), std::string::npos);
}

TEST_F(DspLinkBoard, FixedCommandsGoOutAsTheirTexts)
{
    start();
    for (int32_t code : {DSP_CMD_VERSION, DSP_CMD_MIC_TEST, DSP_CMD_TEST_TONE, DSP_CMD_MIC_TEST_RESULT,
                         DSP_CMD_POWER_DOWN})
        EXPECT_EQ(dsp_post(code, ""), 524);
    for (const char *text : {"VER_FULL=?", "MIC_TEST=?", "SND_PLAY=0,1000,-12,1000", "MIC_TEST_RET=?", "PD=1"})
        EXPECT_TRUE(dsp->waitForCommand(text, 3000ms)) << text;
}

TEST_F(DspLinkBoard, ReplyChunkFromTheDspIsLoggedAndDispatched)
{
    start();
    dsp->send("VER_FULL=QAV-DSP 3.1.4");
    EXPECT_TRUE(log.waitFor("DSP", "VER_FULL=QAV-DSP 3.1.4", 3000ms));
    EXPECT_EQ(log.priorityOf("DSP", "VER_FULL=QAV-DSP 3.1.4"), ANDROID_LOG_ERROR);
    // The version row starts the parameter restore.
    EXPECT_TRUE(log.waitFor("DSP", "init_parameter_thread enter \n", 3000ms));
}

TEST_F(DspLinkBoard, ReplyOfAHundredBytesArrivesAsOneChunk)
{
    start();
    const std::string reply = "FINF=/data/misc/AllConfigs.bin,500," + std::string(65, 'a');
    dsp->send(reply);
    EXPECT_TRUE(log.waitFor("DSP", reply, 3000ms));
    EXPECT_EQ(log.count("DSP", reply), 1u);
}

TEST_F(DspLinkBoard, RepliesSeparatedBySilenceStayApartEvenAtSixtyFourBytes)
{
    start();
    const std::string first = "USER_EQ=" + std::string(56, '1'); // 64 bytes
    const std::string second = "USER_EQ=" + std::string(56, '2');
    dsp->send(first);
    ASSERT_TRUE(log.waitFor("DSP", first, 3000ms));
    std::this_thread::sleep_for(300ms);
    dsp->send(second);
    ASSERT_TRUE(log.waitFor("DSP", second, 3000ms));
    EXPECT_EQ(log.count("DSP", first), 1u);
    EXPECT_EQ(log.count("DSP", second), 1u);
}

TEST_F(DspLinkBoard, TwoVersionAnnouncementsInQuickSuccessionStartOneRestore)
{
    // A configuration bundle on board makes each restore pass first ask the
    // DSP for its copy; this DSP never answers, so the pass waits out its
    // retries (seconds), and the second announcement surely comes while
    // the first restore still runs.
    sim::installConfigBundle(board);
    start();
    dsp->send("VER_FULL=1.0.0");
    ASSERT_TRUE(log.waitFor("DSP", "init_parameter_thread enter \n", 3000ms));
    ASSERT_TRUE(initParameterLock.test());
    dsp->send("VER_FULL=1.0.1");
    ASSERT_TRUE(sim::waitUntil([] { return avmtest::prop("persist.sys.dune.version") == "1.0.1"; }, 3000ms));
    EXPECT_TRUE(initParameterLock.test()) << "the first restore ended before the second announcement";
    // When the restore has ended, only one ran.
    ASSERT_TRUE(sim::waitUntil([] { return !initParameterLock.test(); }, 60000ms));
    EXPECT_EQ(log.count("DSP", "init_parameter_thread enter \n"), 1u);
    // A later announcement restores again.
    dsp->send("VER_FULL=1.0.2");
    ASSERT_TRUE(log.waitFor("DSP", "VER_FULL=1.0.2", 3000ms));
    EXPECT_TRUE(sim::waitUntil([&] { return log.count("DSP", "init_parameter_thread enter \n") == 2; }, 3000ms));
}

TEST_F(DspLinkBoard, LostPipeWriteEndIsReopenedByTheNextRequest)
{
    start();
    // Nothing else may post between the write end going bad and the first
    // request.
    quietDetection();
    // The write end goes bad in place (a read-only descriptor under the
    // same number), so no other thread can take its number meanwhile.
    const int readOnly = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(readOnly, 0);
    ASSERT_EQ(dup2(readOnly, gDspFifoDev.writeFd.load()), gDspFifoDev.writeFd.load());
    close(readOnly);
    EXPECT_EQ(send_cmd_to_dsp("FIRST=1"), -1);
    EXPECT_EQ(send_cmd_to_dsp("SECOND=1"), 524);
    EXPECT_TRUE(dsp->waitForCommand("SECOND=1", 3000ms));
    for (const auto &c : dsp->commands())
        EXPECT_NE(c, "FIRST=1");
}

TEST_F(DspLinkBoard, EightThreadsPostingAtOnceDeliverEveryCommandWhole)
{
    start();
    constexpr int kThreads = 8, kEach = 25;
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t)
        posters.emplace_back([t] {
            for (int i = 0; i < kEach; ++i) {
                std::string text = "CMD" + std::to_string(t) + "_" + std::to_string(i) + "=" + std::string(40, 'p');
                // A full pipe refuses a post; a poster tries again.
                while (send_cmd_to_dsp(text.c_str()) != 524)
                    std::this_thread::sleep_for(2ms);
            }
        });
    for (auto &p : posters)
        p.join();
    // Counts the posted commands only: the detection thread's version
    // queries share the line.
    ASSERT_TRUE(sim::waitUntil(
        [&] { return avmtest::withPrefix(dsp->commands(), "CMD").size() >= kThreads * kEach; }, 20000ms));
    std::set<std::string> seen;
    for (const auto &c : dsp->commands()) {
        if (c.rfind("CMD", 0) != 0)
            continue;
        EXPECT_EQ(c.size(), c.find('=') + 41) << c;
        EXPECT_TRUE(seen.insert(c).second) << "twice: " << c;
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kEach));
}

TEST_F(DspLinkBoard, ConsecutiveCommandsArePacedAtLeastEightMillisecondsApart)
{
    start();
    // Each port write is followed by an 8 ms pause, so the tenth command
    // cannot be written sooner than nine pauses after the first was queued.
    auto t0 = sim::Clock::now();
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(send_cmd_to_dsp(("PACE=" + std::to_string(i)).c_str()), 524);
    ASSERT_TRUE(dsp->waitForCommand("PACE=9", 3000ms));
    sim::Clock::time_point last{};
    for (const auto &e : board.trace().snapshot()) {
        std::string bytes(e.bytes.begin(), e.bytes.end());
        if (e.link == "dsp" && e.toDevice && bytes.find("PACE=9") != std::string::npos)
            last = e.when;
    }
    ASSERT_NE(last, sim::Clock::time_point{});
    EXPECT_GE(last - t0, 9 * 8ms);
}

TEST_F(DspLinkBoard, SilentDspGetsATimeoutLogEveryFiveSecondsWhileCommandsKeepFlowing)
{
    auto t0 = sim::Clock::now();
    start();
    std::vector<sim::Clock::time_point> timeouts;
    int posted = 0;
    auto deadline = t0 + 20s;
    while (timeouts.size() < 2 && sim::Clock::now() < deadline) {
        std::string text = "TICK=" + std::to_string(posted);
        EXPECT_EQ(send_cmd_to_dsp(text.c_str()), 524);
        ++posted;
        EXPECT_TRUE(dsp->waitForCommand(text, 3000ms)) << text;
        for (int i = 0; i < 10; ++i) {
            std::this_thread::sleep_for(50ms);
            size_t n = log.count("DSP", "dspHal select timeout.");
            while (timeouts.size() < n)
                timeouts.push_back(sim::Clock::now());
        }
    }
    ASSERT_EQ(timeouts.size(), 2u);
    EXPECT_GE(timeouts[0] - t0, 4500ms);
    EXPECT_GE(timeouts[1] - timeouts[0], 4000ms);
    EXPECT_EQ(log.priorityOf("DSP", "dspHal select timeout."), ANDROID_LOG_INFO);
    EXPECT_GE(posted, 8);
}

TEST_F(DspLinkBoard, ReleaseStopsTheLinkAndClosesThePort)
{
    start();
    EXPECT_EQ(send_cmd_to_dsp("BEFORE=1"), 524);
    ASSERT_TRUE(dsp->waitForCommand("BEFORE=1", 3000ms));
    // Left to itself, the receive thread notices only after its select
    // time-out: release takes up to five seconds.
    auto t0 = sim::Clock::now();
    EXPECT_EQ(hmi->hal_release(), 0);
    started = false;
    EXPECT_LT(sim::Clock::now() - t0, 30s);
    EXPECT_EQ(gDspHalDev.running.load(), 0);
    EXPECT_EQ(gDspHalDev.fd.load(), -1);
    // The pipe stays: a request is still accepted, but nothing sends it.
    EXPECT_EQ(send_cmd_to_dsp("AFTER=1"), 524);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(wireToDsp(board).find("AFTER=1"), std::string::npos);
    struct stat st;
    EXPECT_EQ(stat(board.rootPath("/tmp/.DSP_fifo").c_str(), &st), 0);
}

} // namespace
