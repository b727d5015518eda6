// Configuration upgrade on the virtual board: the DSP model announces
// itself, the module compares the DSP's copy of the bundle with the
// reference and sends the reference over in chunks when they differ.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cutils/properties.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "dsp/config_upgrade.h"
#include "dsp/dsp_link.h"
#include "dsp/file_transfer.h"
#include "dsp_commands.h"
#include "dsp_store_board.h"
#include "log_capture.h"
#include "md5sum.h"
#include "sim/board.h"
#include "sim/dsp_audio_model.h"
#include "sim/dsp_file_store.h"
#include "sim/dsp_model.h"

using namespace std::chrono_literals;

namespace {

const std::string kDspFile = "/data/misc/AllConfigs.bin";

using avmtest::indexOf;
using avmtest::md5sumOfBytes;
using avmtest::withPrefix;

// The commands up to and including the first FWEND, each resend of the
// command before it dropped: on a busy machine an answer can come after
// the module's wait for it, and the module then sends the same command
// again (the DSP model answers the late copy with ERR_OFFSET).
std::vector<std::string> withoutResends(const std::vector<std::string> &cmds)
{
    std::vector<std::string> out;
    for (const auto &c : cmds)
        if (out.empty() || c != out.back())
            out.push_back(c);
    return out;
}

// Writes of a command starting with `prefix` that repeat the write before
// them because its wait ran out: the module logs every write, "dsp not
// respond" for every wait that ends without an answer, and "dsp not respond
// corrent" for an answer it refuses. A write repeated after a refused
// answer is not counted.
size_t resentAfterTimeOut(const avmtest::LogCapture &log, const std::string &prefix)
{
    size_t resent = 0;
    std::string lastWrite;
    bool timedOut = false;
    bool refused = false;
    for (const auto &line : log.lines()) {
        if (line.tag != "DSP")
            continue;
        timedOut = timedOut || line.text == "dsp not respond\n";
        refused = refused || line.text == "dsp not respond corrent\n";
        const size_t at = line.text.find(" : ");
        if (line.text.rfind("dspHalWriteUsart,", 0) != 0 || at == std::string::npos)
            continue;
        const std::string written = line.text.substr(at + 3);
        resent += timedOut && !refused && written == lastWrite && written.rfind(prefix, 0) == 0;
        lastWrite = written;
        timedOut = false;
        refused = false;
    }
    return resent;
}

std::vector<std::string> firstTransfer(const std::vector<std::string> &cmds)
{
    std::vector<std::string> out = withoutResends(cmds);
    const long end = indexOf(out, "FWEND=");
    if (end >= 0)
        out.resize(static_cast<size_t>(end) + 1);
    return out;
}

// "FWDAT=<off>,<len>," of every chunk a bundle of `size` bytes goes as.
std::vector<std::string> expectedChunkHeads(size_t size)
{
    std::vector<std::string> out;
    for (size_t off = 0; off < size; off += 240) {
        size_t len = size - off < 240 ? size - off : 240;
        out.push_back("FWDAT=" + std::to_string(off) + "," + std::to_string(len) + ",");
    }
    return out;
}

class ConfigUpgrade : public avmtest::DspStoreBoard {
protected:
    // The first pass of an announcement upgraded the configuration.
    bool waitForUpgrade(std::chrono::milliseconds timeout)
    {
        return log.waitFor("DSP", "upgradeAllConfigs successful, abort init parameter!", timeout);
    }

    // Both passes of one announcement are over: the second pass always ends
    // with the speaker-equaliser step.
    bool waitForRestoreEnd(int passesWithRestore, std::chrono::milliseconds timeout)
    {
        return waitForSpeakerEq(static_cast<size_t>(passesWithRestore), timeout);
    }
};

} // namespace

TEST_F(ConfigUpgrade, MissingCopyGetsWholeBundleInOrderAndThatPassSkipsTheRestore)
{
    const std::string bundle = sim::installConfigBundle(board);
    property_set("persist.zel.dsp.volumeVal", "40");
    startLink();
    store.reboot();

    ASSERT_TRUE(waitForRestoreEnd(1, 30s));
    ASSERT_TRUE(store.file(kDspFile).has_value());
    EXPECT_EQ(*store.file(kDspFile), bundle);
    EXPECT_EQ(md5sumOfBytes(*store.file(kDspFile), board.root()),
              md5sumOfBytes(board.readFile(sim::kConfigBundlePath), board.root()));
    EXPECT_EQ(store.transfersCompleted(), 1u);

    const std::vector<std::string> cmds = withoutResends(dsp.commands());
    // First pass: FINF, FWSTR, the chunks in order, FWEND.
    long finf = indexOf(cmds, "FINF=");
    ASSERT_GE(finf, 0);
    EXPECT_EQ(cmds[finf], "FINF=/data/misc/AllConfigs.bin");
    EXPECT_EQ(cmds[finf + 1], "FWSTR=/data/misc/AllConfigs.bin,2900," + sim::dspMd5Hex(bundle));
    std::vector<std::string> heads = expectedChunkHeads(bundle.size());
    ASSERT_EQ(heads.size(), 13u);
    for (size_t i = 0; i < heads.size(); ++i)
        EXPECT_EQ(cmds[finf + 2 + i].rfind(heads[i], 0), 0u) << cmds[finf + 2 + i];
    long fwend = finf + 2 + static_cast<long>(heads.size());
    EXPECT_EQ(cmds[fwend], "FWEND=/data/misc/AllConfigs.bin");
    // The upgrading pass restores nothing: the next command is the second
    // pass's FINF.
    EXPECT_EQ(cmds[fwend + 1], "FINF=/data/misc/AllConfigs.bin");
    EXPECT_EQ(withPrefix(cmds, "FWSTR=").size(), 1u);
    EXPECT_EQ(withPrefix(cmds, "MT=").size(), 1u);
    EXPECT_EQ(log.count("DSP", "upgradeAllConfigs successful, abort init parameter!"), 1u);
    EXPECT_EQ(log.count("DSP", "NOT Need To Upgrade AllConfigs\n"), 1u);
}

TEST_F(ConfigUpgrade, EveryChunkCarriesItsBytesAsUpperCaseHexWithTextChecksum)
{
    const std::string bundle = sim::installConfigBundle(board, 500);
    startLink();
    store.reboot();
    ASSERT_TRUE(waitForUpgrade(30s));
    std::vector<std::string> chunks = withPrefix(firstTransfer(dsp.commands()), "FWDAT=");
    ASSERT_EQ(chunks.size(), 3u);
    size_t offset = 0;
    for (const std::string &c : chunks) {
        // FWDAT=<off>,<len>,<sum>,<hex>
        size_t p1 = c.find(','), p2 = c.find(',', p1 + 1), p3 = c.find(',', p2 + 1);
        ASSERT_NE(p3, std::string::npos);
        size_t len = std::stoul(c.substr(p1 + 1, p2 - p1 - 1));
        unsigned sum = static_cast<unsigned>(std::stoul(c.substr(p2 + 1, p3 - p2 - 1)));
        std::string hex = c.substr(p3 + 1);
        ASSERT_EQ(hex.size(), 2 * len);
        unsigned total = 0;
        std::string expectedHex;
        for (size_t i = 0; i < len; ++i) {
            char two[3];
            snprintf(two, sizeof(two), "%02X", static_cast<unsigned char>(bundle[offset + i]));
            expectedHex += two;
        }
        for (char ch : hex)
            total += static_cast<unsigned char>(ch);
        EXPECT_EQ(hex, expectedHex);
        EXPECT_EQ(sum, total % 256);
        offset += len;
    }
    EXPECT_EQ(offset, bundle.size());
}

TEST_F(ConfigUpgrade, BundleOf500BytesGoesAsChunksOf240_240_20)
{
    sim::installConfigBundle(board, 500);
    startLink();
    store.reboot();
    ASSERT_TRUE(waitForUpgrade(30s));
    std::vector<std::string> chunks = withPrefix(firstTransfer(dsp.commands()), "FWDAT=");
    ASSERT_EQ(chunks.size(), 3u);
    EXPECT_EQ(chunks[0].rfind("FWDAT=0,240,", 0), 0u);
    EXPECT_EQ(chunks[1].rfind("FWDAT=240,240,", 0), 0u);
    EXPECT_EQ(chunks[2].rfind("FWDAT=480,20,", 0), 0u);
}

TEST_F(ConfigUpgrade, DspAnsweringNullToFinfTriggersFullTransfer)
{
    const std::string bundle = sim::installConfigBundle(board, 500);
    store.removeFile(kDspFile);
    startLink();
    store.reboot();
    ASSERT_TRUE(waitForUpgrade(30s));
    EXPECT_TRUE(log.contains("DSP", "parse_inf catch fileName\n"));
    const std::vector<std::string> first = firstTransfer(dsp.commands());
    EXPECT_EQ(first.front(), "FINF=/data/misc/AllConfigs.bin");
    EXPECT_EQ(withPrefix(first, "FWSTR=").size(), 1u);
    EXPECT_EQ(withPrefix(first, "FWDAT=").size(), 3u);
    EXPECT_EQ(first.back(), "FWEND=/data/misc/AllConfigs.bin");
    EXPECT_EQ(store.file(kDspFile).value_or(""), bundle);
}

TEST_F(ConfigUpgrade, TransferCompletesAtTheRealLineRate)
{
    const std::string bundle = sim::installConfigBundle(board, 500);
    dsp.setLineRate(115200);
    startLink();
    store.reboot();
    ASSERT_TRUE(waitForUpgrade(30s));
    EXPECT_EQ(store.file(kDspFile).value_or(""), bundle);
}

TEST_F(ConfigUpgrade, OldCopyIsReplacedByTheReference)
{
    const std::string bundle = sim::installConfigBundle(board, 700);
    store.setFile(kDspFile, "an older configuration");
    startLink();
    store.reboot();
    ASSERT_TRUE(waitForUpgrade(30s));
    EXPECT_TRUE(log.contains("DSP", "parse_inf catch fileName and fileLen and fileMd5\n"));
    EXPECT_EQ(store.file(kDspFile).value_or(""), bundle);
}

TEST_F(ConfigUpgrade, EqualCopyIsNotSentAndBothPassesRestore)
{
    const std::string bundle = sim::installConfigBundle(board, 700);
    store.setFile(kDspFile, bundle);
    startLink();
    store.reboot();
    ASSERT_TRUE(waitForRestoreEnd(2, 30s));
    // Counted on the wire less the resends the log shows: the second
    // pass's request can follow the first one's directly while the first
    // pass's restore still waits in the transmit queue.
    const std::vector<std::string> cmds = dsp.commands();
    EXPECT_EQ(withPrefix(cmds, "FINF=").size() - resentAfterTimeOut(log, "FINF="), 2u);
    EXPECT_TRUE(withPrefix(cmds, "FWSTR=").empty());
    EXPECT_TRUE(withPrefix(cmds, "FWDAT=").empty());
    EXPECT_EQ(withPrefix(cmds, "MT=0").size() - resentAfterTimeOut(log, "MT=0"), 2u);
    EXPECT_EQ(log.count("DSP", "local file and dsp file not different!\n"), 2u);
    EXPECT_EQ(log.count("DSP", "FINF failed\n"), 2u);
    EXPECT_EQ(log.count("DSP", "dsp not respond corrent\n"), 2u);
    EXPECT_EQ(log.count("DSP", "NOT Need To Upgrade AllConfigs\n"), 2u);
}

TEST_F(ConfigUpgrade, RepeatedOffsetAnswerIsNotAcceptedAndEndsTransferAfterFirstPoll)
{
    sim::installConfigBundle(board, 500);
    store.setRepeatOffset(true);
    startLink();
    store.reboot();
    // No upgrade completes: both passes restore.
    ASSERT_TRUE(waitForRestoreEnd(2, 30s));
    const std::vector<std::string> cmds = dsp.commands();
    // In each pass that gets to the chunks, the first chunk is answered
    // with offset 0 and accepted; the second is answered with offset 0
    // again and the transfer ends there, without a second write of that
    // chunk. Both passes do unless a busy machine makes an earlier answer
    // miss its wait, which ends that pass before the chunks with a line
    // of its own; and a chunk is written again only after its wait ran out.
    const size_t endedEarly =
        log.count("DSP", "NOT Need To Upgrade AllConfigs\n") + log.count("DSP", "start_send_file_to_dsp failed\n");
    ASSERT_LT(endedEarly, 2u) << "no pass got to the chunks";
    const size_t passes = 2 - endedEarly;
    EXPECT_EQ(withPrefix(cmds, "FWDAT=0,240,").size(), passes + resentAfterTimeOut(log, "FWDAT=0,240,"));
    EXPECT_EQ(withPrefix(cmds, "FWDAT=240,240,").size(), passes + resentAfterTimeOut(log, "FWDAT=240,240,"));
    EXPECT_TRUE(withPrefix(cmds, "FWDAT=480,").empty());
    EXPECT_TRUE(withPrefix(cmds, "FWEND=").empty());
    EXPECT_EQ(log.count("DSP", "FWDAT failed\n"), passes);
    EXPECT_EQ(log.count("DSP", "send_file_to_dsp failed\n"), passes);
    EXPECT_EQ(log.count("DSP", "upgradeAllConfigs successful, abort init parameter!"), 0u);
    EXPECT_EQ(store.transfersCompleted(), 0u);
}

TEST_F(ConfigUpgrade, RejectedChunkEndsTransferWithLoggedNumbers)
{
    sim::installConfigBundle(board, 500);
    store.rejectChunkAt(240);
    startLink();
    store.reboot();
    // The first pass fails at offset 240; the second pass (rejection was
    // one-shot) completes the upgrade.
    ASSERT_TRUE(log.waitFor("DSP", "upgradeAllConfigs successful, abort init parameter!", 30s));
    ASSERT_TRUE(waitForRestoreEnd(1, 5s));
    EXPECT_TRUE(log.contains("DSP", "FWDAT 240,240,240,240\n"));
    EXPECT_EQ(log.count("DSP", "FWDAT failed\n"), 1u);
    EXPECT_EQ(log.count("DSP", "upgradeAllConfigs successful, abort init parameter!"), 1u);
    EXPECT_EQ(store.transfersCompleted(), 1u);
}

TEST_F(ConfigUpgrade, SilentDspGetsEachRequestWrittenThreeTimes)
{
    sim::installConfigBundle(board, 500);
    store.setSilent(true);
    startLink();
    const auto start = sim::Clock::now();
    EXPECT_EQ(isNeedToUpgradeAllConfigs(), 0);
    const auto elapsed = sim::Clock::now() - start;
    EXPECT_GE(elapsed, 2200ms); // 3 x 16 x 50 ms of polling
    ASSERT_TRUE(dsp.waitForCommandCount(3, 2s));
    EXPECT_EQ(dsp.commands(), std::vector<std::string>(3, "FINF=/data/misc/AllConfigs.bin"));
    EXPECT_EQ(log.count("DSP", "dsp not respond\n"), 3u);
    EXPECT_EQ(log.count("DSP", "dsp not respond corrent\n"), 1u);
    EXPECT_EQ(log.count("DSP", "FINF failed\n"), 1u);
}

TEST_F(ConfigUpgrade, MissingReferenceBundleSkipsTheCheck)
{
    startLink();
    store.reboot();
    ASSERT_TRUE(waitForRestoreEnd(2, 30s));
    EXPECT_TRUE(withPrefix(dsp.commands(), "FINF=").empty());
    EXPECT_EQ(log.count("DSP", "get local file " + board.rootPath(sim::kConfigBundlePath) + " info failed\n"),
              2u);
}

TEST_F(ConfigUpgrade, HostileAnswersNeverStopTheReceiveThread)
{
    const std::string bundle = sim::installConfigBundle(board, 500);
    file_xfer_descriptor_fill("/x", kDspFile.c_str(), 500, sim::dspMd5Hex(bundle).c_str());
    startLink();
    // The answer with zero bytes in it and the long ones go first: the
    // module logs what it read up to the first zero byte, in reads of at
    // most 128 bytes, and on a busy machine it may read several answers at
    // once; the short last one must stay whole in the log.
    const std::vector<std::string> hostile = {
        std::string("FWSTR=\0\0\0OK", 11),
        "FWEND=" + std::string(700, 'E'),
        "FINF=" + std::string(600, ','),
        "FINF=/wrong/path,500," + sim::dspMd5Hex(bundle),
        "FINF=",
        "FINF=/data/misc/AllConfigs.bin,99999999999999999999999999999,zz",
        "FWDAT=99999999999999999999999999,-99999999999999999999,OK",
        "FWDAT=1",
        "FWDAT=,,,,,,,",
        "FWSTR=",
        "FWEND=,",
        "FWDAT=-1,-1,OK",
    };
    for (const std::string &h : hostile) {
        dsp.send(h);
        usleep(150 * 1000); // one port read per answer
    }
    // The link still works: an announcement runs the check and a restore.
    // It goes out once the module has read the last hostile answer, and a
    // pause after, so it is not read in one chunk with it (the receive
    // side does not split chunks, and the model may write late on a busy
    // machine).
    ASSERT_TRUE(log.waitFor("DSP", "FWDAT=-1,-1,OK", 10s));
    usleep(500 * 1000);
    store.reboot();
    ASSERT_TRUE(waitForUpgrade(30s));
    EXPECT_EQ(store.file(kDspFile).value_or(""), bundle);
}

// The DSP model's file store on its own, driven through the port the way
// the module writes: checks of every chunk and of the end of a file.
namespace {

class FileStoreModel : public ::testing::Test {
protected:
    void SetUp() override
    {
        fd = open("/dev/ttyS2", O_RDWR | O_NOCTTY);
        ASSERT_GE(fd, 0);
        struct termios tio;
        ASSERT_EQ(tcgetattr(fd, &tio), 0);
        cfmakeraw(&tio);
        tio.c_cc[VMIN] = 0;
        tio.c_cc[VTIME] = 0;
        ASSERT_EQ(tcsetattr(fd, TCSANOW, &tio), 0);
    }
    void TearDown() override
    {
        if (fd >= 0)
            close(fd);
    }

    // Writes one command with its zero byte and gathers the answer until
    // the line has been quiet for 150 ms after it (no answer within 3 s:
    // empty; a busy machine may take long for the first byte).
    std::string ask(const std::string &command)
    {
        std::string bytes = command;
        bytes.push_back('\0');
        EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        return collect();
    }

    std::string collect(std::chrono::milliseconds quiet = 150ms)
    {
        std::string out;
        const auto deadline = sim::Clock::now() + 3s;
        auto lastByte = sim::Clock::now();
        while (sim::Clock::now() < deadline) {
            struct pollfd pfd = {fd, POLLIN, 0};
            if (poll(&pfd, 1, 10) > 0) {
                char buf[512];
                ssize_t n = read(fd, buf, sizeof(buf));
                if (n > 0) {
                    out.append(buf, static_cast<size_t>(n));
                    lastByte = sim::Clock::now();
                }
            } else if (!out.empty() && sim::Clock::now() - lastByte > quiet) {
                break;
            }
        }
        return out;
    }

    static std::string hexOf(const std::string &bytes)
    {
        std::string out;
        char two[3];
        for (unsigned char c : bytes) {
            snprintf(two, sizeof(two), "%02X", c);
            out += two;
        }
        return out;
    }

    static unsigned sumOf(const std::string &text)
    {
        unsigned total = 0;
        for (unsigned char c : text)
            total += c;
        return total % 256;
    }

    static std::string chunkCommand(size_t offset, const std::string &bytes)
    {
        std::string hex = hexOf(bytes);
        return "FWDAT=" + std::to_string(offset) + "," + std::to_string(bytes.size()) + "," +
               std::to_string(sumOf(hex)) + "," + hex;
    }

    sim::Board board;
    sim::DspModel dsp{board};
    sim::DspFileStore store{dsp};
    int fd = -1;
};

} // namespace

TEST_F(FileStoreModel, AnswersFinfWithLengthAndMd5OrNull)
{
    EXPECT_EQ(ask("FINF=/data/misc/AllConfigs.bin"), "FINF=NULL");
    store.setFile(kDspFile, "abc");
    EXPECT_EQ(ask("FINF=/data/misc/AllConfigs.bin"),
              "FINF=/data/misc/AllConfigs.bin,3,900150983cd24fb0d6963f7d28e17f72");
}

TEST_F(FileStoreModel, KeepsTheNewCopyOnlyAfterAVerifiedEnd)
{
    const std::string content = sim::makeConfigBundle(300);
    store.setFile(kDspFile, "old");
    EXPECT_EQ(ask("FWSTR=/data/misc/AllConfigs.bin,300," + sim::dspMd5Hex(content)),
              "FWSTR=/data/misc/AllConfigs.bin,OK");
    EXPECT_EQ(ask(chunkCommand(0, content.substr(0, 240))), "FWDAT=0,240,OK");
    EXPECT_EQ(store.file(kDspFile).value_or(""), "old");
    EXPECT_EQ(ask(chunkCommand(240, content.substr(240))), "FWDAT=240,60,OK");
    EXPECT_EQ(ask("FWEND=/data/misc/AllConfigs.bin"), "FWEND=/data/misc/AllConfigs.bin,OK");
    EXPECT_EQ(store.file(kDspFile).value_or(""), content);
    EXPECT_EQ(store.chunksAccepted(), 2u);
    EXPECT_EQ(store.transfersCompleted(), 1u);
}

TEST_F(FileStoreModel, RejectsGapsBadChecksumsBadHexAndWrongLengths)
{
    const std::string content = sim::makeConfigBundle(100);
    ask("FWSTR=/data/misc/AllConfigs.bin,100," + sim::dspMd5Hex(content));
    EXPECT_EQ(ask(chunkCommand(10, content.substr(10, 20))), "FWDAT=10,20,ERR_OFFSET");
    std::string hex = hexOf(content.substr(0, 20));
    EXPECT_EQ(ask("FWDAT=0,20," + std::to_string((sumOf(hex) + 1) % 256) + "," + hex), "FWDAT=0,20,ERR_SUM");
    EXPECT_EQ(ask("FWDAT=0,21," + std::to_string(sumOf(hex)) + "," + hex), "FWDAT=0,21,ERR_LEN");
    std::string bad = "ZZ" + hex.substr(2);
    EXPECT_EQ(ask("FWDAT=0,20," + std::to_string(sumOf(bad)) + "," + bad), "FWDAT=0,20,ERR_HEX");
    EXPECT_EQ(ask("FWDAT=99999999999,20,1,00"), "FWDAT=99999999999,20,ERR_ARGS");
    EXPECT_EQ(store.chunksAccepted(), 0u);
}

TEST_F(FileStoreModel, RejectsAnEndWhoseMd5DiffersAndKeepsTheOldCopy)
{
    const std::string content = sim::makeConfigBundle(50);
    store.setFile(kDspFile, "old");
    ask("FWSTR=/data/misc/AllConfigs.bin,50,ffffffffffffffffffffffffffffffff");
    EXPECT_EQ(ask(chunkCommand(0, content)), "FWDAT=0,50,OK");
    EXPECT_EQ(ask("FWEND=/data/misc/AllConfigs.bin"), "FWEND=/data/misc/AllConfigs.bin,ERR_MD5");
    EXPECT_EQ(store.file(kDspFile).value_or(""), "old");
}

TEST_F(FileStoreModel, FaultModesRejectRepeatAndSilence)
{
    const std::string content = sim::makeConfigBundle(480);
    ask("FWSTR=/data/misc/AllConfigs.bin,480," + sim::dspMd5Hex(content));
    store.rejectChunkAt(0);
    EXPECT_EQ(ask(chunkCommand(0, content.substr(0, 240))), "FWDAT=0,240,ERR_REJECT");
    EXPECT_EQ(ask(chunkCommand(0, content.substr(0, 240))), "FWDAT=0,240,OK");
    store.setRepeatOffset(true);
    EXPECT_EQ(ask(chunkCommand(240, content.substr(240))), "FWDAT=0,240,OK");
    store.setRepeatOffset(false);
    store.setSilent(true);
    EXPECT_EQ(ask("FINF=/data/misc/AllConfigs.bin"), "");
    EXPECT_EQ(store.fileCommands().back(), "FINF=/data/misc/AllConfigs.bin");
}

TEST_F(FileStoreModel, AMissedChunkIsNeitherAnsweredNorStoredAndItsResendIsTaken)
{
    const std::string content = sim::makeConfigBundle(480);
    ask("FWSTR=/data/misc/AllConfigs.bin,480," + sim::dspMd5Hex(content));
    store.missChunkOnceAt(0);
    EXPECT_EQ(ask(chunkCommand(0, content.substr(0, 240))), "");
    EXPECT_EQ(store.chunksAccepted(), 0u);
    EXPECT_EQ(ask(chunkCommand(0, content.substr(0, 240))), "FWDAT=0,240,OK");
    EXPECT_EQ(ask(chunkCommand(240, content.substr(240))), "FWDAT=240,240,OK");
    EXPECT_EQ(store.chunksAccepted(), 2u);
}

TEST_F(FileStoreModel, RebootForgetsTheTransferRunsHooksAndAnnounces)
{
    int hooks = 0;
    store.addRebootHook([&] { ++hooks; });
    const std::string content = sim::makeConfigBundle(20);
    ask("FWSTR=/data/misc/AllConfigs.bin,20," + sim::dspMd5Hex(content));
    store.reboot();
    EXPECT_EQ(collect(), "VER_FULL=" + store.version());
    EXPECT_EQ(hooks, 1);
    EXPECT_EQ(ask(chunkCommand(0, content)), "FWDAT=0,20,ERR_STATE");
}
