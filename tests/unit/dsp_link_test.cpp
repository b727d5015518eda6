// DSP link without the board: the request pipe under a private root, an
// ordinary pipe standing in for the port, and the reply handlers replaced
// by recorders (this executable's definitions take the place of the
// module's, as the module calls them through the dynamic linker).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <android/log.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "dsp/dsp_link.h"
#include "dsp_commands.h"
#include "dsp_pipe_port.h"
#include "log_capture.h"
#include "module_state.h"
#include "test_helpers.h"

namespace {

struct Call {
    std::string handler;
    std::string arg;
    int channel = 0;
    uint32_t length = 0;
};

std::mutex gCallsMutex;
std::vector<Call> gCalls;

void record(const char *handler, const char *arg, int channel = 0, uint32_t length = 0)
{
    std::lock_guard<std::mutex> lock(gCallsMutex);
    gCalls.push_back({handler, arg ? arg : "", channel, length});
}

std::vector<Call> calls()
{
    std::lock_guard<std::mutex> lock(gCallsMutex);
    return gCalls;
}

size_t callCount(const std::string &handler)
{
    size_t n = 0;
    for (const auto &c : calls())
        n += c.handler == handler;
    return n;
}

// Restore passes can be held at a gate to make "in quick succession" exact.
std::mutex gGateMutex;
std::condition_variable gGateCv;
bool gGateClosed = false;
std::atomic<int> gRestorePasses{0};

} // namespace

extern "C" {
int dsp_spdif_dbVol_update(const char *t) { record("dsp_spdif_dbVol_update", t); return 0; }
int dsp_main_dbVol_update(const char *t) { record("dsp_main_dbVol_update", t); return 0; }
int dsp_mainMute_status_update(const char *t) { record("dsp_mainMute_status_update", t); return 0; }
int dsp_doa_status_update(const char *t) { record("dsp_doa_status_update", t); return 0; }
int dsp_hotPlug_status_update(const char *t) { record("dsp_hotPlug_status_update", t); return 0; }
int dsp_balance_status_update(int ch, const char *t) { record("dsp_balance_status_update", t, ch); return 0; }
int dsp_led_status_update(const char *t) { record("dsp_led_status_update", t); return 0; }
void dsp_parse_EQInfo(const char *t) { record("dsp_parse_EQInfo", t); }
int dsp_parse_doa(const char *v) { record("dsp_parse_doa", v); return 0; }
int dsp_parse_audio_out_mode(const char *v) { record("dsp_parse_audio_out_mode", v); return 0; }
void dsp_fullVersion_update(const char *t) { record("dsp_fullVersion_update", t); }
int dsp_mic_status_update(const char *v) { record("dsp_mic_status_update", v); return 0; }
int dsp_mic_aux_test_update(const char *v) { record("dsp_mic_aux_test_update", v); return 0; }
int updateVersoinInfo(void) { record("updateVersoinInfo", nullptr); return 0; }
void dsp_rx_file_operations_handle(DspRequest m)
{
    char text[DSP_REQUEST_TEXT_SIZE + 1] = {};
    memcpy(text, m.text, DSP_REQUEST_TEXT_SIZE);
    record("dsp_rx_file_operations_handle", text, 0, m.length);
}
int dspHalInitParameter(void)
{
    gRestorePasses.fetch_add(1);
    std::unique_lock<std::mutex> lock(gGateMutex);
    gGateCv.wait(lock, [] { return !gGateClosed; });
    return 0;
}
}

namespace {

using namespace std::chrono_literals;

bool waitUntil(const std::function<bool()> &pred, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (pred())
            return true;
        std::this_thread::sleep_for(2ms);
    }
    return pred();
}

using avmtest::receivedChunk;

// A private board root holding /tmp, so the request pipe lands in it.
class DspLinkTest : public avmtest::FreshModule {
protected:
    void SetUp() override
    {
        avmtest::FreshModule::SetUp();
        // Descriptor 0 is written to before the pipe exists: keep it harmless.
        ASSERT_TRUE(avmtest::sinkDescriptorZero());
        {
            std::lock_guard<std::mutex> lock(gCallsMutex);
            gCalls.clear();
        }
        // A restore an earlier test started has ended; passes count afresh.
        ASSERT_TRUE(waitUntil([] { return !initParameterLock.test(); }, 5000ms));
        gRestorePasses.store(0);
    }
    void TearDown() override
    {
        // A restore a test started ends before the next test begins.
        {
            std::lock_guard<std::mutex> lock(gGateMutex);
            gGateClosed = false;
        }
        gGateCv.notify_all();
        EXPECT_TRUE(waitUntil([] { return !initParameterLock.test(); }, 5000ms));
        gDspHalDev.running.store(0);
    }

    std::string fifoPath() const { return root.path() + "/tmp/.DSP_fifo"; }

    // An ordinary pipe stands in for the port.
    void usePipeAsPort() { ASSERT_TRUE(port.attach()); }
    std::string portBytes() { return port.bytes(); }

    avmtest::LogCapture log;
    avmtest::FreshRoot root;
    avmtest::DspPipePort port;
};

// ---- request pipe ---------------------------------------------------------

TEST_F(DspLinkTest, PipeEndsStartAtDescriptorZeroAndAnEarlyPostWritesThere)
{
    EXPECT_EQ(gDspFifoDev.writeFd.load(), 0);
    EXPECT_EQ(gDspFifoDev.readFd.load(), 0);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(dup2(p[1], 0), 0);
    close(p[1]);
    EXPECT_EQ(dsp_post(DSP_CMD_EQ, "SPK_EQ=1"), 524);
    DspRequest got;
    ASSERT_EQ(read(p[0], &got, sizeof(got)), 524);
    EXPECT_EQ(got.cmd, DSP_CMD_EQ);
    EXPECT_STREQ(got.text, "SPK_EQ=1");
    close(p[0]);
}

TEST_F(DspLinkTest, EarlyPostToAnUnwritableDescriptorZeroFailsAndDropsIt)
{
    int ro = open("/dev/null", O_RDONLY);
    ASSERT_EQ(dup2(ro, 0), 0);
    close(ro);
    EXPECT_EQ(dsp_post(DSP_CMD_EQ, "SPK_EQ=1"), -1);
    EXPECT_EQ(gDspFifoDev.writeFd.load(), -1);
    EXPECT_EQ(log.countContaining("DSP", ", write error.(Bad file descriptor)\n"), 1u);
}

TEST_F(DspLinkTest, MkfifoInitCreatesThePipeUnderTheRootAndOpensReaderThenWriter)
{
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    struct stat st;
    ASSERT_EQ(stat(fifoPath().c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    int rd = gDspFifoDev.readFd.load();
    int wr = gDspFifoDev.writeFd.load();
    EXPECT_GT(rd, 0);
    EXPECT_GT(wr, 0);
    auto lines = log.lines();
    int readLine = -1, writeLine = -1;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].text.rfind("dsp_mkfifo_read_fd_open:", 0) == 0 &&
            lines[i].text.find(", open ok fd=" + std::to_string(rd) + ".\n") != std::string::npos)
            readLine = static_cast<int>(i);
        if (lines[i].text.rfind("dsp_mkfifo_write_fd_open:", 0) == 0 &&
            lines[i].text.find(", open ok fd=" + std::to_string(wr) + ".\n") != std::string::npos)
            writeLine = static_cast<int>(i);
    }
    ASSERT_GE(readLine, 0);
    ASSERT_GE(writeLine, 0);
    EXPECT_LT(readLine, writeLine);
    EXPECT_EQ(lines[readLine].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(dsp_mkfifo_read_fd_open(), 0);
    EXPECT_EQ(dsp_mkfifo_write_fd_open(), 0);
    EXPECT_EQ(gDspFifoDev.readFd.load(), rd);
}

TEST_F(DspLinkTest, MkfifoInitReplacesAStaleFile)
{
    {
        FILE *f = fopen(fifoPath().c_str(), "w");
        ASSERT_NE(f, nullptr);
        fputs("stale", f);
        fclose(f);
    }
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    struct stat st;
    ASSERT_EQ(stat(fifoPath().c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

TEST_F(DspLinkTest, MkfifoInitFailsWhenThePipeCannotBeCreated)
{
    ASSERT_EQ(rmdir((root.path() + "/tmp").c_str()), 0);
    EXPECT_EQ(dsp_mkfifo_init(), -1);
    EXPECT_EQ(log.priorityOf("DSP", "createnamed pipe failed.\n"), ANDROID_LOG_ERROR);
    EXPECT_EQ(gDspFifoDev.writeFd.load(), -1);
    EXPECT_EQ(gDspFifoDev.readFd.load(), -1);
}

TEST_F(DspLinkTest, PostWritesOneWholeRecordThatTheReaderGetsBack)
{
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    EXPECT_EQ(dsp_post(DSP_CMD_MAIN_VOLUME, "MV=-20.00"), 524);
    DspRequest got;
    memset(&got, 0x5A, sizeof(got));
    EXPECT_EQ(dsp_mkfifo_read(&got), 524);
    EXPECT_EQ(got.cmd, DSP_CMD_MAIN_VOLUME);
    EXPECT_EQ(got.param, 0u);
    EXPECT_EQ(got.length, 0u);
    EXPECT_STREQ(got.text, "MV=-20.00");
    // The rest of the text field is zero, as posted.
    for (size_t i = strlen(got.text); i < sizeof(got.text); ++i)
        ASSERT_EQ(got.text[i], 0) << i;
}

TEST_F(DspLinkTest, ReadingAnEmptyPipeReturnsMinusOne)
{
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    DspRequest got;
    EXPECT_EQ(dsp_mkfifo_read(&got), -1);
    EXPECT_EQ(dsp_mkfifo_read(nullptr), -1);
}

TEST_F(DspLinkTest, SendCmdToDspPostsFreeTextCode29)
{
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    EXPECT_EQ(send_cmd_to_dsp("MIC_BAR=0,180,1"), 524);
    DspRequest got;
    ASSERT_EQ(dsp_mkfifo_read(&got), 524);
    EXPECT_EQ(got.cmd, 29);
    EXPECT_STREQ(got.text, "MIC_BAR=0,180,1");
}

TEST_F(DspLinkTest, PostedTextOf511CharactersIsKeptWholeAndLongerTextIsCutTo511)
{
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    std::string exact(511, 'A');
    std::string longer(700, 'B');
    EXPECT_EQ(dsp_post(DSP_CMD_FREE_TEXT, exact.c_str()), 524);
    EXPECT_EQ(send_cmd_to_dsp(longer.c_str()), 524);
    DspRequest got;
    ASSERT_EQ(dsp_mkfifo_read(&got), 524);
    EXPECT_EQ(std::string(got.text), exact);
    ASSERT_EQ(dsp_mkfifo_read(&got), 524);
    EXPECT_EQ(std::string(got.text), std::string(511, 'B'));
    EXPECT_EQ(got.text[511], '\0');
}

TEST_F(DspLinkTest, NullTextIsPostedAsAnEmptyCommand)
{
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    EXPECT_EQ(send_cmd_to_dsp(nullptr), 524);
    DspRequest got;
    ASSERT_EQ(dsp_mkfifo_read(&got), 524);
    EXPECT_STREQ(got.text, "");
}

TEST_F(DspLinkTest, LostWriteEndFailsOneRequestAndTheNextReopensAndSucceeds)
{
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    int wr = gDspFifoDev.writeFd.load();
    ASSERT_GT(wr, 0);
    // The write end goes away underneath the link.
    close(wr);
    EXPECT_EQ(dsp_post(DSP_CMD_FREE_TEXT, "LOST"), -1);
    EXPECT_EQ(gDspFifoDev.writeFd.load(), -1);
    bool logged = false;
    for (const auto &l : log.lines())
        if (l.tag == "DSP" && l.text.rfind("dsp_mkfifo_write:", 0) == 0 &&
            l.text.find(", write error.(Bad file descriptor)\n") != std::string::npos) {
            logged = true;
            EXPECT_EQ(l.priority, ANDROID_LOG_ERROR);
        }
    EXPECT_TRUE(logged);

    EXPECT_EQ(dsp_post(DSP_CMD_FREE_TEXT, "BACK"), 524);
    EXPECT_GE(gDspFifoDev.writeFd.load(), 0);
    DspRequest got;
    ASSERT_EQ(dsp_mkfifo_read(&got), 524);
    EXPECT_STREQ(got.text, "BACK");
    EXPECT_EQ(dsp_mkfifo_read(&got), -1);
}

TEST_F(DspLinkTest, WriteEndThatCannotBeOpenedLogsReadErrorInTheWritePath)
{
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    close(gDspFifoDev.writeFd.exchange(-1));
    ASSERT_EQ(unlink(fifoPath().c_str()), 0);
    EXPECT_EQ(dsp_post(DSP_CMD_FREE_TEXT, "X"), -1);
    size_t openError = 0, readError = 0;
    for (const auto &l : log.lines()) {
        if (l.tag != "DSP")
            continue;
        if (l.text.rfind("dsp_mkfifo_write_fd_open:", 0) == 0 &&
            l.text.find(", open error.(No such file or directory)\n") != std::string::npos)
            ++openError;
        if (l.text.rfind("dsp_mkfifo_write:", 0) == 0 &&
            l.text.find(", read error.(No such file or directory)\n") != std::string::npos)
            ++readError;
    }
    EXPECT_EQ(openError, 1u);
    EXPECT_EQ(readError, 1u);
}

// ---- transmit side ---------------------------------------------------------

TEST_F(DspLinkTest, CommandTableFormsEachCodesTextAndSendsOneZeroByte)
{
    usePipeAsPort();
    struct Case {
        int32_t cmd;
        uint32_t param;
        const char *text;
        std::string wire;
    };
    const Case cases[] = {
        {1, 0x1234, "ignored", "KS=52"},
        {5, 0, "VS=-10.00", "VS=-10.00"},
        {6, 0, "ignored", "PD=1"},
        {7, 0, "", "VER_FULL=?"},
        {19, 0, "", "MIC_TEST=?"},
        {20, 0, "", "SND_PLAY=0,1000,-12,1000"},
        {21, 0, "", "MIC_TEST_RET=?"},
        {22, 0x103, "", "EQ_MODEL=3"},
        {23, 0, "MV=-20.00", "MV=-20.00"},
        {24, 0, "MT=1", "MT=1"},
        {25, 0, "PER_STAT=?", "PER_STAT=?"},
        {26, 0, "BAL=50", "BAL=50"},
        {27, 0, "TREBLE=3", "TREBLE=3"},
        {29, 0, "AOM=1", "AOM=1"},
    };
    for (const auto &c : cases) {
        DspRequest r = receivedChunk(c.text);
        r.length = 0;
        r.cmd = c.cmd;
        r.param = c.param;
        int expected = static_cast<int>(c.wire.size() + 1);
        EXPECT_EQ(dsp_tx_protocol_handle(r), expected) << c.cmd;
        EXPECT_EQ(portBytes(), c.wire + std::string(1, '\0')) << c.cmd;
    }
    EXPECT_TRUE(log.contains("DSP", "KEY：1-52[KS=52] !!!!!!!!\n"));
}

TEST_F(DspLinkTest, UnknownCodesIncluding28ReturnMinusOneAndNothingReachesThePort)
{
    usePipeAsPort();
    for (int32_t cmd : {-1, 0, 2, 3, 4, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 28, 30, 1000}) {
        DspRequest r = receivedChunk("MV=-1.00");
        r.cmd = cmd;
        EXPECT_EQ(dsp_tx_protocol_handle(r), -1) << cmd;
    }
    EXPECT_EQ(portBytes(), "");
    EXPECT_EQ(log.countContaining("DSP", "dspHalWriteUsart"), 0u);
}

TEST_F(DspLinkTest, CommandOf511CharactersGoesOutWholeWithItsTerminator)
{
    usePipeAsPort();
    DspRequest r = receivedChunk(std::string(511, 'Q'));
    r.cmd = DSP_CMD_FREE_TEXT;
    EXPECT_EQ(dsp_tx_protocol_handle(r), 512);
    EXPECT_EQ(portBytes(), std::string(511, 'Q') + std::string(1, '\0'));
}

TEST_F(DspLinkTest, UnterminatedTextFieldIsSentCutTo511)
{
    usePipeAsPort();
    DspRequest r;
    memset(&r, 'Z', sizeof(r));
    r.cmd = DSP_CMD_FREE_TEXT;
    EXPECT_EQ(dspHalWriteUsart(r), 512);
    EXPECT_EQ(portBytes(), std::string(511, 'Z') + std::string(1, '\0'));
}

TEST_F(DspLinkTest, SuccessfulPortWriteLogsTheTextAndPausesEightMilliseconds)
{
    usePipeAsPort();
    DspRequest r = receivedChunk("MT=0");
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(dspHalWriteUsart(r), 5);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 7500us);
    bool found = false;
    for (const auto &l : log.lines())
        if (l.tag == "DSP" && l.text.rfind("dspHalWriteUsart,", 0) == 0 &&
            l.text.size() > 9 && l.text.substr(l.text.size() - 9) == " : MT=0\r\n") {
            found = true;
            EXPECT_EQ(l.priority, ANDROID_LOG_INFO);
        }
    EXPECT_TRUE(found);
    EXPECT_TRUE(log.contains("UART", "lenth:5\n"));
}

TEST_F(DspLinkTest, FailedPortWriteLogsItsResultAndReturnsIt)
{
    gDspHalDev.fd.store(-1);
    DspRequest r = receivedChunk("MT=0");
    EXPECT_EQ(dspHalWriteUsart(r), -1);
    bool found = false;
    for (const auto &l : log.lines())
        if (l.tag == "DSP" && l.text.rfind("dspHalWriteUsart,", 0) == 0 &&
            l.text.find(" error: retlen= -1\r\n") != std::string::npos) {
            found = true;
            EXPECT_EQ(l.priority, ANDROID_LOG_ERROR);
        }
    EXPECT_TRUE(found);
}

TEST_F(DspLinkTest, TransmitThreadTurnsQueuedRecordsIntoPortWritesInOrder)
{
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    usePipeAsPort();
    gDspHalDev.running.store(1);
    pthread_t tx;
    ASSERT_EQ(pthread_create(&tx, nullptr, dspHal_tx_thread, nullptr), 0);
    EXPECT_EQ(dsp_post(DSP_CMD_VERSION, ""), 524);
    EXPECT_EQ(dsp_post(DSP_CMD_MAIN_VOLUME, "MV=-3.00"), 524);
    EXPECT_EQ(dsp_post(28, "DROPPED"), 524);
    EXPECT_EQ(send_cmd_to_dsp("ZOOM=2"), 524);
    std::string wire;
    std::string expected = std::string("VER_FULL=?") + '\0' + "MV=-3.00" + '\0' + "ZOOM=2" + '\0';
    EXPECT_TRUE(waitUntil([&] { wire += portBytes(); return wire.size() >= expected.size(); }, 5000ms));
    gDspHalDev.running.store(0);
    pthread_join(tx, nullptr);
    wire += portBytes();
    EXPECT_EQ(wire, expected);
}

TEST_F(DspLinkTest, ConcurrentPostersKeepEveryRecordWhole)
{
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    constexpr int kThreads = 8, kEach = 25;
    std::vector<std::thread> threads;
    std::atomic<int> ok{0};
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &ok] {
            for (int i = 0; i < kEach; ++i) {
                std::string text = "T" + std::to_string(t) + "=" + std::to_string(i) + std::string(200, 'x');
                // A full pipe refuses the post; the poster tries again.
                while (send_cmd_to_dsp(text.c_str()) != 524)
                    std::this_thread::sleep_for(1ms);
                ++ok;
            }
        });
    // Drain while posting so the pipe never fills.
    std::vector<std::string> got;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (static_cast<int>(got.size()) < kThreads * kEach && std::chrono::steady_clock::now() < deadline) {
        DspRequest r;
        int n = dsp_mkfifo_read(&r);
        if (n < 1) {
            std::this_thread::sleep_for(1ms);
            continue;
        }
        ASSERT_EQ(n, 524);
        ASSERT_EQ(r.cmd, 29);
        got.emplace_back(r.text);
    }
    for (auto &th : threads)
        th.join();
    EXPECT_EQ(ok.load(), kThreads * kEach);
    ASSERT_EQ(got.size(), static_cast<size_t>(kThreads * kEach));
    std::vector<int> next(kThreads, 0);
    for (const auto &text : got) {
        int t = 0, i = 0;
        ASSERT_EQ(sscanf(text.c_str(), "T%d=%d", &t, &i), 2) << text;
        ASSERT_EQ(text.size(), text.find('x') + 200) << text;
        // Each poster's records arrive in its own order.
        EXPECT_EQ(i, next[t]++) << text;
    }
}

// ---- receive side ----------------------------------------------------------

TEST_F(DspLinkTest, DispatchTableHasTheFifteenPrefixesInOrder)
{
    const std::pair<const char *, const char *> expected[] = {
        {"MIC_TEST=", "dsp_mic_status_update"},
        {"VER_FULL=", "dsp_fullVersion_update"},
        {"LS=", "dsp_led_status_update"},
        {"VS=", "dsp_spdif_dbVol_update"},
        {"MV=", "dsp_main_dbVol_update"},
        {"MT=", "dsp_mainMute_status_update"},
        {"PER_STAT=", "dsp_hotPlug_status_update"},
        {"BAL_LEFT=", "dsp_balance_status_update"},
        {"BAL_RIGHT=", "dsp_balance_status_update"},
        {"USER_EQ", "dsp_parse_EQInfo"},
        {"MIC_PWR_ON=", "updateVersoinInfo"},
        {"MIC_DOA=", "dsp_parse_doa"},
        {"AOM=", "dsp_parse_audio_out_mode"},
        {"AUX_TEST", "dsp_mic_aux_test_update"},
        {"MIC_DOA_REP=", "dsp_doa_status_update"},
    };
    ASSERT_EQ(dsp_rx_row_count(), 15);
    for (int row = 1; row <= 15; ++row) {
        EXPECT_STREQ(dsp_rx_prefix(row), expected[row - 1].first) << row;
        EXPECT_STREQ(dsp_rx_handler_name(row), expected[row - 1].second) << row;
    }
    EXPECT_EQ(dsp_rx_prefix(0), nullptr);
    EXPECT_EQ(dsp_rx_prefix(16), nullptr);
    EXPECT_EQ(dsp_rx_handler_name(-1), nullptr);
}

TEST_F(DspLinkTest, MicDoaRepReplyReachesDoaStatusUpdateNotParseDoa)
{
    EXPECT_EQ(dsp_rx_match("MIC_DOA_REP=1"), 15);
    DspRequest r = receivedChunk("MIC_DOA_REP=1");
    EXPECT_EQ(dsp_rx_dispatch(&r), 15);
    EXPECT_EQ(callCount("dsp_parse_doa"), 0u);
    auto c = calls();
    ASSERT_EQ(c.size(), 2u);
    EXPECT_EQ(c[0].handler, "dsp_doa_status_update");
    EXPECT_EQ(c[0].arg, "MIC_DOA_REP=1");
    EXPECT_EQ(c[1].handler, "dsp_rx_file_operations_handle");
}

TEST_F(DspLinkTest, EachPrefixReachesItsHandlerWithTheDocumentedArgument)
{
    struct Case {
        const char *reply;
        const char *handler;
        const char *arg;
        int channel;
    };
    const Case cases[] = {
        {"MIC_TEST=1,2", "dsp_mic_status_update", "1,2", 0},
        {"VER_FULL=DSP 1.2.3", "dsp_fullVersion_update", "VER_FULL=DSP 1.2.3", 0},
        {"LS=1", "dsp_led_status_update", "LS=1", 0},
        {"VS=-12.00", "dsp_spdif_dbVol_update", "VS=-12.00", 0},
        {"MV=-20.50", "dsp_main_dbVol_update", "MV=-20.50", 0},
        {"MT=1", "dsp_mainMute_status_update", "MT=1", 0},
        {"PER_STAT=3", "dsp_hotPlug_status_update", "PER_STAT=3", 0},
        {"BAL_LEFT=-3.00", "dsp_balance_status_update", "BAL_LEFT=-3.00", 3},
        {"BAL_RIGHT=-4.00", "dsp_balance_status_update", "BAL_RIGHT=-4.00", 4},
        {"USER_EQ=1,2,3", "dsp_parse_EQInfo", "USER_EQ=1,2,3", 0},
        {"MIC_PWR_ON=1", "updateVersoinInfo", "", 0},
        {"MIC_DOA=123", "dsp_parse_doa", "123", 0},
        {"AOM=2", "dsp_parse_audio_out_mode", "2", 0},
        {"AUX_TEST=OK", "dsp_mic_aux_test_update", "=OK", 0},
        {"MIC_DOA_REP=0", "dsp_doa_status_update", "MIC_DOA_REP=0", 0},
    };
    gGateClosed = false;
    for (const auto &c : cases) {
        {
            std::lock_guard<std::mutex> lock(gCallsMutex);
            gCalls.clear();
        }
        DspRequest r = receivedChunk(c.reply);
        EXPECT_GT(dsp_rx_dispatch(&r), 0) << c.reply;
        auto got = calls();
        ASSERT_EQ(got.size(), 2u) << c.reply;
        EXPECT_EQ(got[0].handler, c.handler) << c.reply;
        EXPECT_EQ(got[0].arg, c.arg) << c.reply;
        EXPECT_EQ(got[0].channel, c.channel) << c.reply;
        EXPECT_EQ(got[1].handler, "dsp_rx_file_operations_handle");
        EXPECT_EQ(got[1].arg, c.reply);
        EXPECT_EQ(got[1].length, strlen(c.reply));
    }
    // The version row also started a restore.
    EXPECT_TRUE(waitUntil([] { return gRestorePasses.load() == 2; }, 5000ms));
}

TEST_F(DspLinkTest, UnmatchedChunkStillGoesToTheFileTransferHandler)
{
    DspRequest r = receivedChunk("FWDAT=0,240,OK");
    EXPECT_EQ(dsp_rx_dispatch(&r), 0);
    auto c = calls();
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c[0].handler, "dsp_rx_file_operations_handle");
    EXPECT_EQ(c[0].arg, "FWDAT=0,240,OK");
    EXPECT_EQ(c[0].length, 14u);
    // Case and position matter: the prefix must start the chunk.
    EXPECT_EQ(dsp_rx_match("mv=1"), 0);
    EXPECT_EQ(dsp_rx_match(" MV=1"), 0);
    EXPECT_EQ(dsp_rx_match("MV"), 0);
    EXPECT_EQ(dsp_rx_match(""), 0);
    EXPECT_EQ(dsp_rx_match(nullptr), 0);
}

TEST_F(DspLinkTest, ChunkHoldingSeveralRepliesIsNotSplit)
{
    DspRequest r = receivedChunk("MV=-1.00\nMT=1\n");
    EXPECT_EQ(dsp_rx_dispatch(&r), 5);
    EXPECT_EQ(callCount("dsp_main_dbVol_update"), 1u);
    EXPECT_EQ(callCount("dsp_mainMute_status_update"), 0u);
    EXPECT_EQ(calls()[0].arg, "MV=-1.00\nMT=1\n");
}

TEST_F(DspLinkTest, FullSizeChunkIsHandedOnWholeAndTerminated)
{
    DspRequest r;
    memset(&r, 0, sizeof(r));
    std::string big = "MV=" + std::string(508, '9') + "7";
    ASSERT_EQ(big.size(), 512u);
    memcpy(r.text, big.data(), 512);
    r.length = 512;
    EXPECT_EQ(dsp_rx_dispatch(&r), 5);
    auto c = calls();
    ASSERT_EQ(c.size(), 2u);
    // All 512 bytes reach the reply handler, the last one included.
    EXPECT_EQ(c[0].arg, big);
    EXPECT_EQ(c[1].arg, big);
    EXPECT_EQ(c[1].length, 512u);
    // A bogus length is held to the text field.
    r.length = 100000;
    EXPECT_EQ(dsp_rx_dispatch(&r), 5);
    EXPECT_EQ(calls().back().length, 512u);
    EXPECT_EQ(dsp_rx_dispatch(nullptr), 0);
}

TEST_F(DspLinkTest, ChunkEndsAtItsByteCountWhateverFollowsInTheRecord)
{
    DspRequest r = receivedChunk("MT=1");
    memcpy(r.text + 4, "XYZ", 3); // stale bytes past the count
    EXPECT_EQ(dsp_rx_dispatch(&r), 6);
    auto c = calls();
    ASSERT_EQ(c.size(), 2u);
    EXPECT_EQ(c[0].arg, "MT=1");
    EXPECT_EQ(c[1].arg, "MT=1");
    EXPECT_EQ(c[1].length, 4u);
}

TEST_F(DspLinkTest, FullSizeMicTestAnswerReachesItsHandlerWhole)
{
    std::string answer = "MIC_TEST=" + std::string(502, '1') + "9";
    ASSERT_EQ(answer.size(), 512u);
    DspRequest r = receivedChunk(answer);
    EXPECT_EQ(dsp_rx_dispatch(&r), 1);
    ASSERT_GE(calls().size(), 1u);
    EXPECT_EQ(calls()[0].arg, answer.substr(9));
}

TEST_F(DspLinkTest, TwoVersionRepliesInQuickSuccessionStartOneRestore)
{
    {
        std::lock_guard<std::mutex> lock(gGateMutex);
        gGateClosed = true;
    }
    DspRequest r = receivedChunk("VER_FULL=1.0.0");
    EXPECT_EQ(dsp_rx_dispatch(&r), 2);
    ASSERT_TRUE(waitUntil([] { return gRestorePasses.load() == 1; }, 5000ms));
    // The restore is still running: the second announcement starts nothing.
    EXPECT_EQ(dsp_rx_dispatch(&r), 2);
    EXPECT_EQ(callCount("dsp_fullVersion_update"), 2u);
    {
        std::lock_guard<std::mutex> lock(gGateMutex);
        gGateClosed = false;
    }
    gGateCv.notify_all();
    ASSERT_TRUE(waitUntil([] { return gRestorePasses.load() == 2; }, 5000ms));
    // The restore runs its two passes and then frees the lock.
    ASSERT_TRUE(waitUntil([] { return !initParameterLock.test(); }, 5000ms));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(gRestorePasses.load(), 2);
    EXPECT_EQ(log.count("DSP", "init_parameter_thread enter \n"), 1u);

    // A later announcement restores again.
    EXPECT_EQ(dsp_rx_dispatch(&r), 2);
    EXPECT_TRUE(waitUntil([] { return gRestorePasses.load() == 4 && !initParameterLock.test(); }, 5000ms));
    EXPECT_EQ(log.count("DSP", "init_parameter_thread enter \n"), 2u);
}

TEST_F(DspLinkTest, ReceiveThreadLogsEachChunkAndDispatchesIt)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    gDspHalDev.fd.store(p[0]);
    gDspHalDev.running.store(1);
    pthread_t rx;
    ASSERT_EQ(pthread_create(&rx, nullptr, dspHal_rx_thread, nullptr), 0);
    ASSERT_EQ(write(p[1], "MV=-7.00", 8), 8);
    EXPECT_TRUE(waitUntil([] { return callCount("dsp_rx_file_operations_handle") == 1; }, 5000ms));
    gDspHalDev.running.store(0);
    ASSERT_EQ(write(p[1], "AOM=1", 5), 5); // wakes the reader so it sees the flag
    pthread_join(rx, nullptr);
    auto c = calls();
    ASSERT_GE(c.size(), 2u);
    EXPECT_EQ(c[0].handler, "dsp_main_dbVol_update");
    EXPECT_EQ(c[0].arg, "MV=-7.00");
    EXPECT_EQ(c[1].length, 8u);
    EXPECT_EQ(log.priorityOf("DSP", "MV=-7.00"), ANDROID_LOG_ERROR);
    gDspHalDev.fd.store(-1);
    close(p[0]);
    close(p[1]);
}

TEST_F(DspLinkTest, ReadWithoutABufferFails)
{
    EXPECT_EQ(dspHalReadUsart(nullptr), -1);
}

TEST_F(DspLinkTest, ReadReturnsWhatOnePortReadGives)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    gDspHalDev.fd.store(p[0]);
    ASSERT_EQ(write(p[1], "LS=1", 4), 4);
    char buf[DSP_REQUEST_TEXT_SIZE] = {};
    EXPECT_EQ(dspHalReadUsart(buf), 4);
    EXPECT_STREQ(buf, "LS=1");
    gDspHalDev.fd.store(-1);
    close(p[0]);
    close(p[1]);
}

TEST_F(DspLinkTest, ClosedPortCountsAsAFailedWait)
{
    gDspHalDev.fd.store(-1);
    char buf[DSP_REQUEST_TEXT_SIZE];
    EXPECT_LT(dspHalReadUsart(buf), 0);
    EXPECT_EQ(log.priorityOf("DSP", "dspHal select timeout."), ANDROID_LOG_INFO);
}

TEST_F(DspLinkTest, DeinitOfALinkThatNeverStartedSkipsTheUnsetThreadsAndClosesNothing)
{
    EXPECT_EQ(dsp_process_deinit(), 0);
    EXPECT_EQ(gDspHalDev.running.load(), 0);
    EXPECT_EQ(gDspHalDev.fd.load(), -1);
    // The uart lock can be set up and torn down again.
    gDspHalDev.fd.store(-1);
    EXPECT_EQ(dsp_process_deinit(), 0);
}

} // namespace
