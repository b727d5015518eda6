// The Fig DSP link on the virtual board, against the Fig DSP model on
// /dev/ttyS2: the command frames byte for byte, acknowledgements, the
// parser fed through the port (splits, back-to-back frames, bad CRCs,
// noise, truncated frames), DOA replies and reports, the version query,
// the USB switch request, start and stop, and the port the main DSP link
// shares.
#include <gtest/gtest.h>

#include <android/log.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "dsp/dsp_link.h"
#include "dsp_pipe_port.h"
#include "fig_fixture.h"

using namespace std::chrono_literals;
using namespace figtest;
using avmtest::prop;

namespace {

class FigLink : public ::testing::Test, protected FigBoard {};

} // namespace

// ---------------------------------------------------------------- commands

TEST_F(FigLink, TheFourCommandFramesAreByteExactWithTheirCrcAndSentAs16Bytes)
{
    startFig();
    EXPECT_EQ(dspFigHalAppRequestDoa(0), 0); // microphone off, no request: DOA_OFF
    ASSERT_TRUE(fig.waitForBytes(16, kWire));
    EXPECT_EQ(dspFigHalAppRequestDoa(1), 0); // DOA_ON
    ASSERT_TRUE(fig.waitForBytes(32, kWire));
    EXPECT_EQ(detect_Fig_Dsp_Version(), 0); // VERSION, the version is not known yet
    ASSERT_TRUE(fig.waitForBytes(48, kWire));
    EXPECT_EQ(dspFigHal_send_usb_switch_msg(1), 0);
    ASSERT_TRUE(fig.waitForBytes(64, kWire));

    const std::string expected = std::string("# \n7DOA_OFF77s\n") + '\0' + "# \n8DOA_ON990v\n" + '\0' +
                                 "# \n3VERSION86;\n" + '\0' + "# \n5USBSWITCH0\n" + '\0';
    const Bytes wire = fig.received();
    ASSERT_EQ(wire.size(), 64u) << "four commands of 16 bytes, nothing else";
    EXPECT_EQ(std::string(wire.begin(), wire.end()), expected);
    // The model checks each frame with its own CRC and sees the zero byte.
    const auto frames = fig.frames();
    ASSERT_EQ(frames.size(), 4u);
    const char crcs[] = {'s', 'v', ';', '0'};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_TRUE(frames[i].crcOk) << i;
        EXPECT_TRUE(frames[i].endOk) << i;
        EXPECT_TRUE(frames[i].zeroAfter) << i;
        EXPECT_EQ(frames[i].bytes.size(), 15u) << i;
        EXPECT_EQ(frames[i].bytes[13], static_cast<uint8_t>(crcs[i])) << i;
        EXPECT_EQ(FigDspModel::crc8(frames[i].payload.data(), frames[i].payload.size()),
                  static_cast<uint8_t>(crcs[i]));
    }
    EXPECT_EQ(fig.strayBytes(), 0u);
    EXPECT_EQ(log.count("UART", "lenth:16\n"), 4u) << "each frame in one write of 16 bytes";
}

TEST_F(FigLink, ASecondUsbSwitchRequestForTheSameTargetReturnsMinusOneAndSendsNothing)
{
    startFig();
    EXPECT_EQ(dspFigHal_send_usb_switch_msg(1), 0);
    ASSERT_TRUE(fig.waitForCommand(FigDspModel::kUsbSwitch, 1, kWire));
    EXPECT_EQ(gDspFigDev.usbSwitchState.load(), 1);
    EXPECT_EQ(dspFigHal_send_usb_switch_msg(1), -1);
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(fig.received().size(), 16u) << "the second request sent nothing";
    // Another target goes out again, with the same frame: it carries no target.
    EXPECT_EQ(dspFigHal_send_usb_switch_msg(0), 0);
    ASSERT_TRUE(fig.waitForCommand(FigDspModel::kUsbSwitch, 2, kWire));
    EXPECT_EQ(fig.usbSwitchRequests(), 2u);
    EXPECT_EQ(gDspFigDev.usbSwitchState.load(), 0);
}

TEST_F(FigLink, AUsbSwitchRequestThatCannotBeWrittenFailsAndCanBeRepeated)
{
    // The port is not open yet: nothing is written.
    EXPECT_EQ(dspFigHal_send_usb_switch_msg(1), -1);
    EXPECT_EQ(gDspFigDev.usbSwitchState.load(), DSP_FIG_USB_SWITCH_NONE);
    EXPECT_EQ(log.countContaining("UART", "fd is error! func[writeUsartDevice]"), 1u);
    startFig();
    EXPECT_EQ(dspFigHal_send_usb_switch_msg(1), 0);
    ASSERT_TRUE(fig.waitForCommand(FigDspModel::kUsbSwitch, 1, kWire));
}

TEST_F(FigLink, DoaRepliesSetTheInverseStatus)
{
    startFig();
    EXPECT_EQ(dspFigHal_get_doa_status(), 0);
    dspFigHalAppRequestDoa(0);
    ASSERT_TRUE(sim::waitUntil([] { return dspFigHal_get_doa_status() == 1; }, kWire))
        << "DOA_OFF answered with '7',1: status 1";
    EXPECT_FALSE(fig.doaReporting());
    dspFigHalAppRequestDoa(1);
    ASSERT_TRUE(sim::waitUntil([] { return dspFigHal_get_doa_status() == 0; }, kWire))
        << "DOA_ON answered with '8',1: status 0";
    EXPECT_TRUE(fig.doaReporting());
    // A reply whose second byte is not 1 changes nothing.
    fig.sendFrame(FigDspModel::kTypeReply, Bytes{'7', 0});
    fig.sendRaw(pingFrame('q'));
    ASSERT_TRUE(fig.waitForAcks('q', 1, kWire));
    EXPECT_EQ(dspFigHal_get_doa_status(), 0);
}

TEST_F(FigLink, UpdateDoaStatusConfigResendsByTheSameRule)
{
    startFig();
    updateDoaStatusConfig();
    ASSERT_TRUE(fig.waitForCommand(FigDspModel::kDoaOff, 1, kWire));
    gDspFigDev.appDoaRequest.store(1);
    updateDoaStatusConfig();
    ASSERT_TRUE(fig.waitForCommand(FigDspModel::kDoaOn, 1, kWire));
    EXPECT_EQ(fig.countCommand(FigDspModel::kDoaOff), 1u);
}

TEST_F(FigLink, TheVersionReplyIsPublishedAndNotAskedForAgain)
{
    fig.setVersion("DUNE-7.1.0");
    startFig();
    EXPECT_EQ(detect_Fig_Dsp_Version(), 0);
    // Clearing the update flag is the update's last step.
    ASSERT_TRUE(sim::waitUntil([] { return prop("persist.sys.fig.dune.update") == "0"; }, kWire));
    EXPECT_EQ(prop("persist.sys.fig.dune.version"), "DUNE-7.1.0");
    EXPECT_EQ(gDspFigDev.needVersion.load(), 0);
    EXPECT_EQ(detect_Fig_Dsp_Version(), 0);
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(fig.countCommand(FigDspModel::kVersion), 1u);
    EXPECT_FALSE(log.contains("DSP_FIG", " fig_Dsp_Version_update : version : DUNE-7.1.0"))
        << "logged only when debugging";
}

TEST_F(FigLink, AFlaggedUpdateAsksForTheVersionAgain)
{
    ASSERT_EQ(property_set("persist.sys.dsp_fig_enlog", "1"), 0);
    fig.setVersion("DUNE-7.1.0");
    startFig();
    detect_Fig_Dsp_Version();
    ASSERT_TRUE(sim::waitUntil([] { return prop("persist.sys.fig.dune.update") == "0"; }, kWire));
    ASSERT_EQ(property_set("persist.sys.fig.dune.update", "1"), 0);
    fig.setVersion("DUNE-7.2.0");
    detect_Fig_Dsp_Version();
    // The debug line is the update's last step.
    ASSERT_TRUE(log.waitFor("DSP_FIG", " fig_Dsp_Version_update : version : DUNE-7.2.0", kWire));
    EXPECT_EQ(prop("persist.sys.fig.dune.version"), "DUNE-7.2.0");
    EXPECT_EQ(fig.countCommand(FigDspModel::kVersion), 2u);
    EXPECT_EQ(prop("persist.sys.fig.dune.update"), "0");
}

TEST_F(FigLink, AVersionTooLongForAPropertyChangesNothing)
{
    const std::string longVersion(100, 'v');
    fig.setVersion(longVersion);
    startFig();
    detect_Fig_Dsp_Version();
    ASSERT_TRUE(log.waitFor("DSP_FIG", " fig_Dsp_Version_update : set persist.sys.fig.dune.version error : " + longVersion,
                            kWire));
    EXPECT_EQ(log.priorityOf("DSP_FIG",
                             " fig_Dsp_Version_update : set persist.sys.fig.dune.version error : " + longVersion),
              ANDROID_LOG_ERROR);
    EXPECT_EQ(prop("persist.sys.fig.dune.version"), "");
    EXPECT_EQ(prop("persist.sys.fig.dune.update"), "");
    EXPECT_EQ(gDspFigDev.needVersion.load(), 1) << "still asked for";
}

TEST_F(FigLink, WithTheFigDspSilentTheVersionStaysUnknownAndIsAskedForAgain)
{
    fig.setSilent(true);
    startFig();
    detect_Fig_Dsp_Version();
    ASSERT_TRUE(fig.waitForCommand(FigDspModel::kVersion, 1, kWire));
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(gDspFigDev.needVersion.load(), 1);
    EXPECT_EQ(prop("persist.sys.fig.dune.version"), "");
    fig.setSilent(false);
    detect_Fig_Dsp_Version();
    ASSERT_TRUE(fig.waitForCommand(FigDspModel::kVersion, 2, kWire));
    ASSERT_TRUE(sim::waitUntil([] { return prop("persist.sys.fig.dune.update") == "0"; }, kWire));
    EXPECT_EQ(prop("persist.sys.fig.dune.version"), fig.version());
}

// ---------------------------------------------------------------- parser

TEST_F(FigLink, EverySplitOfAValidFrameAcrossReadsIsParsed)
{
    startFig();
    const Bytes whole = pingFrame('A');
    for (size_t cut = 1; cut < whole.size(); ++cut) {
        Bytes frame = pingFrame(static_cast<uint8_t>('A' + cut));
        fig.sendRaw(Bytes(frame.begin(), frame.begin() + static_cast<long>(cut)));
        // Well inside the port's inter-byte time: the frame is still one frame.
        std::this_thread::sleep_for(10ms);
        fig.sendRaw(Bytes(frame.begin() + static_cast<long>(cut), frame.end()));
        ASSERT_TRUE(fig.waitForAcks(static_cast<uint8_t>('A' + cut), 1, kWire)) << "cut after byte " << cut;
    }
    EXPECT_EQ(fig.countAcks(), whole.size() - 1);
}

TEST_F(FigLink, FramesBackToBackInOneReadAreAllHandledInOrder)
{
    startFig();
    Bytes burst;
    for (uint8_t id : {'1', '2', '3'}) {
        const Bytes f = pingFrame(id);
        burst.insert(burst.end(), f.begin(), f.end());
    }
    fig.sendRaw(burst);
    ASSERT_TRUE(fig.waitForAcks('3', 1, kWire));
    Bytes expected;
    for (uint8_t id : {'1', '2', '3'}) {
        const Bytes a = ackOnWire(id);
        expected.insert(expected.end(), a.begin(), a.end());
    }
    EXPECT_EQ(fig.received(), expected);
}

TEST_F(FigLink, AWrongCrcFollowedByAValidFrameInTheSameBytesHandlesOnlyTheValidOne)
{
    ASSERT_EQ(property_set("persist.sys.dsp_fig_enlog", "1"), 0);
    startFig();
    Bytes bad = pingFrame('x');
    bad[bad.size() - 2] ^= 0x5A;
    Bytes bytes = bad;
    const Bytes good = pingFrame('y');
    bytes.insert(bytes.end(), good.begin(), good.end());
    fig.sendRaw(bytes);
    EXPECT_EQ(waitAck('y'), ackOnWire('y'));
    EXPECT_EQ(fig.countAcks('x'), 0u);
    EXPECT_EQ(log.countContaining("DSP_FIG", "uart_packet_process: crc mismatch"), 1u);
}

TEST_F(FigLink, AFrameWithAWrongCrcIsDiscardedAndParsingResumesAtTheNextStartInsideIt)
{
    startFig();
    // A frame whose payload carries a whole valid frame, and whose own CRC
    // is wrong: the outer frame goes, the inner one is found and handled.
    Bytes payload{'9'};
    const Bytes inner = pingFrame('i');
    payload.insert(payload.end(), inner.begin(), inner.end());
    Bytes outer = FigDspModel::makeFrame(FigDspModel::kTypeCommand, payload);
    outer[outer.size() - 2] ^= 0x01;
    fig.sendRaw(outer);
    EXPECT_EQ(waitAck('i'), ackOnWire('i'));
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(fig.countAcks('9'), 0u);
    EXPECT_EQ(fig.countAcks(), 1u);
}

TEST_F(FigLink, CorruptedCrcsAreDroppedSilentlyUnlessDebugging)
{
    startFig();
    fig.setCorruptCrc(true);
    fig.micOn('1');
    fig.setCorruptCrc(false);
    fig.sendRaw(pingFrame('z'));
    waitAck('z');
    EXPECT_EQ(fig.countAcks('1'), 0u);
    EXPECT_EQ(fig.countCommand(FigDspModel::kDoaOn), 0u);
    EXPECT_FALSE(dspFig_mic_is_open());
    EXPECT_EQ(log.countContaining("DSP_FIG", "mismatch"), 0u);
}

TEST_F(FigLink, ALengthZeroFrameIsParsedAndAcknowledgedWithIdentifierZero)
{
    startFig();
    // "#", command, length 0, CRC of nothing (0), terminator.
    fig.sendRaw(Bytes{0x23, 0x20, 0x00, 0x00, 0x0A});
    // Without a payload the echoed identifier is the CRC byte, 0.
    EXPECT_EQ(waitAck(0x00), ackOnWire(0x00));
    EXPECT_EQ(ackOnWire(0x00), (Bytes{0x23, 0x2E, 0x01, 0x00, 0x00, 0x0A}));
    // A length-0 frame with a CRC byte other than 0 is a bad frame.
    fig.sendRaw(Bytes{0x23, 0x20, 0x00, 0x07, 0x0A});
    fig.sendRaw(pingFrame('k'));
    waitAck('k');
    EXPECT_EQ(fig.countAcks(0x00), 1u);
}

TEST_F(FigLink, TypesA0AndAEAreParsedAndIgnored)
{
    ASSERT_EQ(property_set("persist.sys.dsp_fig_enlog", "1"), 0);
    startFig();
    Bytes bytes = FigDspModel::makeFrame(0xA0, std::string("1MIC_ON990"));
    const Bytes ae = FigDspModel::makeFrame(0xAE, std::string("4PING"));
    const Bytes ping = pingFrame('m');
    bytes.insert(bytes.end(), ae.begin(), ae.end());
    bytes.insert(bytes.end(), ping.begin(), ping.end());
    fig.sendRaw(bytes);
    EXPECT_EQ(waitAck('m'), ackOnWire('m')) << "only the command frame is answered";
    EXPECT_FALSE(dspFig_mic_is_open()) << "a MIC_ON text in a 0xA0 frame is ignored";
    EXPECT_EQ(log.countContaining("DSP_FIG", "mismatch"), 0u) << "both were whole frames, not framing errors";
    // An unknown type is a framing error.
    fig.sendRaw(FigDspModel::makeFrame(0x21, std::string("1PING")));
    fig.sendRaw(pingFrame('n'));
    waitAck('n');
    EXPECT_EQ(log.countContaining("DSP_FIG", "uart_packet_process: type mismatch (0x21)"), 1u);
}

TEST_F(FigLink, NoiseBetweenFramesIsDropped)
{
    startFig();
    fig.setNoise(true);
    for (uint8_t id : {'a', 'b', 'c', 'd', 'e'})
        fig.sendFrame(FigDspModel::kTypeCommand, pingPayload(id));
    ASSERT_TRUE(fig.waitForAcks('e', 1, kWire));
    for (uint8_t id : {'a', 'b', 'c', 'd', 'e'})
        EXPECT_EQ(fig.countAcks(id), 1u) << id;
}

TEST_F(FigLink, FramesTheModelSplitsAcrossTwoWritesAreParsed)
{
    startFig();
    fig.setSplitFrames(true, 15ms);
    fig.micOn('1');
    fig.micOff('2');
    ASSERT_TRUE(fig.waitForAcks('2', 1, kWire));
    EXPECT_EQ(fig.countAcks('1'), 1u);
    EXPECT_EQ(fig.countCommand(FigDspModel::kDoaOn), 1u);
    EXPECT_EQ(fig.countCommand(FigDspModel::kDoaOff), 1u);
}

TEST_F(FigLink, ATruncatedFrameIsGivenUpWhenTheLineGoesQuietAndTheFrameInsideItIsHandled)
{
    startFig();
    // A start that announces 200 payload bytes swallows the frame that
    // follows; when the line goes quiet the parser gives the start up and
    // finds the frame.
    Bytes bytes{0x23, 0x20, 200, '1', 'P', 'I'};
    const Bytes ping = pingFrame('t');
    bytes.insert(bytes.end(), ping.begin(), ping.end());
    fig.sendRaw(bytes);
    EXPECT_EQ(waitAck('t'), ackOnWire('t'));
    EXPECT_EQ(fig.countAcks(), 1u);
}

TEST_F(FigLink, ALongestFrameOf255PayloadBytesIsParsed)
{
    startFig();
    std::string payload = "LMIC_ON990";
    payload.resize(DSP_FIG_MAX_PAYLOAD, '.');
    fig.sendFrame(FigDspModel::kTypeCommand, payload);
    EXPECT_EQ(waitAck('L').size(), 16u + 6u) << "DOA_ON, then the acknowledgement";
    EXPECT_TRUE(dspFig_mic_is_open());
}

// ---------------------------------------------------------------- DOA reports

namespace {

constexpr uint8_t kCameraDoaMain = 0x21; // the camera's DOA frame
constexpr uint8_t kCameraDoaSub = 0x00;

class FigDoaReport : public FigLink {
protected:
    void start(const char *doaSwitch, const char *cameraSwitch)
    {
        ASSERT_EQ(property_set("persist.sys.dsp.sendDoaToCamera", doaSwitch), 0);
        ASSERT_EQ(property_set("persist.vendor.cam.communication", cameraSwitch), 0);
        startCamera();
        startFig();
    }

    // Sends a report, then a frame that is acknowledged: once that is, the
    // report has been handled.
    void reportAndSync(float angle, uint8_t syncId)
    {
        fig.sendDoaReport(angle);
        fig.sendRaw(pingFrame(syncId));
        ASSERT_TRUE(fig.waitForAcks(syncId, 1, kWire));
    }
};

} // namespace

TEST_F(FigDoaReport, ADoaReportReachesTheCameraAsItsDoaFrameWhenBothSwitchesAreOn)
{
    start("1", "1");
    fig.sendDoaReport(123.7f, 42, {1.0f, 2.0f, 3.0f, 4.0f, 5.0f});
    ASSERT_TRUE(camera->waitForFrames(kCameraDoaMain, kCameraDoaSub, 1, kWire));
    const auto frame = camera->lastFrame(kCameraDoaMain, kCameraDoaSub);
    ASSERT_TRUE(frame.has_value());
    EXPECT_TRUE(frame->checksumOk);
    EXPECT_EQ(frame->length(), 2);
    EXPECT_EQ(frame->data(0), 123) << "the angle truncated to an integer";
    EXPECT_EQ(frame->data(1), 0);
    EXPECT_EQ(fig.countAcks(), 0u) << "reports are not acknowledged";
}

TEST_F(FigDoaReport, ADoaReportIsNotForwardedWithTheDoaSwitchOff)
{
    start("0", "1");
    reportAndSync(90.0f, 's');
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(camera->countFrames(kCameraDoaMain, kCameraDoaSub), 0u);
}

TEST_F(FigDoaReport, ADoaReportIsNotForwardedWithTheCameraSwitchOff)
{
    start("1", "0");
    reportAndSync(90.0f, 's');
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(camera->countFrames(kCameraDoaMain, kCameraDoaSub), 0u);
}

TEST_F(FigDoaReport, AnAngleNoIntegerHoldsIsNotForwarded)
{
    start("1", "1");
    reportAndSync(std::numeric_limits<float>::quiet_NaN(), 'n');
    reportAndSync(std::numeric_limits<float>::infinity(), 'i');
    reportAndSync(3.0e10f, 'o');
    fig.sendDoaReport(-30.9f);
    ASSERT_TRUE(camera->waitForFrames(kCameraDoaMain, kCameraDoaSub, 1, kWire));
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(camera->countFrames(kCameraDoaMain, kCameraDoaSub), 1u);
    const auto frame = camera->lastFrame(kCameraDoaMain, kCameraDoaSub);
    ASSERT_TRUE(frame.has_value());
    // -30 as it lies in the pipe's unsigned word, low two bytes.
    EXPECT_EQ(frame->data(0), 0xE2);
    EXPECT_EQ(frame->data(1), 0xFF);
}

TEST_F(FigDoaReport, WithDebugLoggingTheStampAndTheSixFloatsAreLogged)
{
    ASSERT_EQ(property_set("persist.sys.dsp_fig_enlog", "1"), 0);
    start("0", "0");
    fig.sendDoaReport(45.5f, 1234567890123ull, {1.5f, -2.5f, 3.25f, 4.0f, 0.125f});
    fig.sendRaw(pingFrame('s'));
    ASSERT_TRUE(fig.waitForAcks('s', 1, kWire));
    EXPECT_TRUE(log.contains("DSP_FIG", "handleDoaReport: stamp(1234567890123), angle(45.500000), 1.500000, "
                                        "-2.500000, 3.250000, 4.000000, 0.125000\n"));
}

TEST_F(FigDoaReport, AReportTooShortToHoldTheAngleIsIgnored)
{
    start("1", "1");
    fig.sendFrame(FigDspModel::kTypeDoa, Bytes{'6', 1, 2, 3, 4, 5, 6, 7, 8, 0, 0});
    fig.sendRaw(pingFrame('s'));
    ASSERT_TRUE(fig.waitForAcks('s', 1, kWire));
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(camera->countFrames(kCameraDoaMain, kCameraDoaSub), 0u);
}

// ---------------------------------------------------------------- start and stop

TEST(FigLinkStart, WithNothingOnTheLineInitFailsWithBothMessages)
{
    avmtest::LogCapture log;
    sim::Board board; // /dev/ttyS2 is masked: no peer on it
    EXPECT_EQ(dspFig_init(), -1);
    EXPECT_TRUE(log.contains("DSP_FIG", "openUsartDevice failed!"));
    EXPECT_TRUE(log.contains("DSP_FIG", "dspHal_uart_init error!"));
    EXPECT_EQ(log.priorityOf("DSP_FIG", "dspHal_uart_init error!"), ANDROID_LOG_ERROR);
    EXPECT_FALSE(log.contains("DSP_FIG", "dsp_process_init finish!"));
    EXPECT_EQ(gDspFigDev.fd.load(), -1);
    EXPECT_EQ(dspFigHal_uart_init(), -1);
    EXPECT_EQ(log.count("DSP_FIG", "openUsartDevice failed!"), 2u);
}

// A second start while the link runs succeeds as the first did, with the
// same one line, and keeps the running link: the port is not opened again
// and one receive thread answers each frame once.
TEST_F(FigLink, InitLogsItsFinishAndASecondInitKeepsTheRunningLink)
{
    startFig();
    EXPECT_TRUE(log.contains("DSP_FIG", "dsp_process_init finish!"));
    EXPECT_TRUE(log.contains("UART", "OpenDev /dev/ttyS2 success\n"));
    EXPECT_EQ(gDspFigDev.running.load(), 1);
    const int port = gDspFigDev.fd.load();
    log.clear();
    EXPECT_EQ(dspFig_init(), 0);
    std::vector<std::string> lines;
    for (const auto &line : log.lines())
        if (line.tag == "DSP_FIG" || line.tag == "UART")
            lines.push_back(line.tag + ": " + line.text);
    EXPECT_EQ(lines, std::vector<std::string>{"DSP_FIG: dsp_process_init finish!"});
    EXPECT_EQ(gDspFigDev.fd.load(), port) << "the port was not opened again";
    fig.sendRaw(pingFrame('t'));
    ASSERT_TRUE(fig.waitForAcks('t', 1, kWire));
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(fig.countAcks('t'), 1u) << "one receive thread";
}

// Debug logging is on for exactly "1": other values that begin with it
// leave it off, at start and when asked again.
TEST_F(FigLink, OnlyADebugPropertyOfExactlyOneTurnsDebugLoggingOn)
{
    for (const char *value : {"10", "1 ", "1x", "11"}) {
        SCOPED_TRACE(value);
        ASSERT_EQ(property_set("persist.sys.dsp_fig_enlog", value), 0);
        startFig();
        EXPECT_EQ(gDspFigDev.debugLog.load(), 0);
        setDspFigDebugLog();
        EXPECT_EQ(gDspFigDev.debugLog.load(), 0);
        // With logging off a broken frame is dropped without a word.
        Bytes bad = pingFrame('x');
        bad[bad.size() - 2] ^= 0xff;
        log.clear();
        fig.sendRaw(bad);
        fig.sendRaw(pingFrame('y'));
        ASSERT_TRUE(fig.waitForAcks('y', 1, kWire));
        EXPECT_EQ(log.countContaining("DSP_FIG", "crc mismatch"), 0u);
        dspFig_deinit();
        figUp = false;
        fig.clearLog();
    }
    ASSERT_EQ(property_set("persist.sys.dsp_fig_enlog", "1"), 0);
    startFig();
    EXPECT_EQ(gDspFigDev.debugLog.load(), 1);
    Bytes bad = pingFrame('x');
    bad[bad.size() - 2] ^= 0xff;
    fig.sendRaw(bad);
    fig.sendRaw(pingFrame('z'));
    ASSERT_TRUE(fig.waitForAcks('z', 1, kWire));
    EXPECT_EQ(log.countContaining("DSP_FIG", "crc mismatch"), 1u);
}

TEST_F(FigLink, TheDebugPropertyIsReadAtInitAndSetDspFigDebugLogCanOnlyTurnItOn)
{
    ASSERT_EQ(property_set("persist.sys.dsp_fig_enlog", "1"), 0);
    startFig();
    EXPECT_EQ(gDspFigDev.debugLog.load(), 1);
    ASSERT_EQ(property_set("persist.sys.dsp_fig_enlog", "0"), 0);
    setDspFigDebugLog();
    EXPECT_EQ(gDspFigDev.debugLog.load(), 1) << "only turns logging on";
    // A restart reads the property again.
    dspFig_deinit();
    figUp = false;
    startFig();
    EXPECT_EQ(gDspFigDev.debugLog.load(), 0);
    ASSERT_EQ(property_set("persist.sys.dsp_fig_enlog", "1"), 0);
    setDspFigDebugLog();
    EXPECT_EQ(gDspFigDev.debugLog.load(), 1);
}

TEST_F(FigLink, StoppingClosesTheMainDspPortAndNotTheFigPort)
{
    // The write end of a pipe in the main DSP link's record stands for its
    // port: its read end sees the end of the stream once the module closed
    // it, whatever another thread opens under the same number meanwhile.
    avmtest::DspPipePort mainPort;
    ASSERT_TRUE(mainPort.attach());
    startFig();
    const int figPort = gDspFigDev.fd.load();
    ASSERT_GE(figPort, 0);
    EXPECT_EQ(dspFig_deinit(), 0);
    figUp = false;
    EXPECT_EQ(gDspHalDev.fd.load(), -1) << "the record no longer names the closed port";
    EXPECT_TRUE(mainPort.closedByLink()) << "the main DSP link's port was closed";
    EXPECT_EQ(gDspFigDev.fd.load(), figPort);
    EXPECT_NE(fcntl(figPort, F_GETFD), -1) << "the Fig port stays open";
    // Commands still reach the Fig DSP; nothing reads its frames any more.
    dspFigHalAppRequestDoa(1);
    ASSERT_TRUE(fig.waitForCommand(FigDspModel::kDoaOn, 1, kWire));
    fig.sendRaw(pingFrame('1'));
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(fig.countAcks(), 0u);
    // The separate port stop does the same.
    avmtest::DspPipePort again;
    ASSERT_TRUE(again.attach());
    EXPECT_EQ(dspFigHal_uart_deinit(), 0);
    EXPECT_EQ(gDspHalDev.fd.load(), -1);
    EXPECT_TRUE(again.closedByLink());
    EXPECT_NE(fcntl(figPort, F_GETFD), -1);
}

TEST_F(FigLink, TheLinkCanBeStoppedAndStartedAgain)
{
    startFig();
    dspFig_deinit();
    figUp = false;
    startFig();
    fig.sendRaw(pingFrame('r'));
    EXPECT_EQ(waitAck('r'), ackOnWire('r'));
}

// Both links on the one port: something a product is not meant to do. Each
// byte the Fig DSP sends goes to whichever link reads it first, so neither
// sees a reliable stream; what the module writes all reaches the line; and
// stopping the Fig link closes the main link's port, after which the main
// link's commands fail while the Fig port still works.
TEST_F(FigLink, BothLinksOnTheSharedPortSplitTheFigDspsBytesAndStoppingFigClosesTheMainPort)
{
    ASSERT_TRUE(avmtest::sinkDescriptorZero());
    ASSERT_EQ(dsp_process_init(), 0);
    startFig();
    ASSERT_GE(gDspHalDev.fd.load(), 0);
    ASSERT_GE(gDspFigDev.fd.load(), 0);
    EXPECT_NE(gDspHalDev.fd.load(), gDspFigDev.fd.load()) << "the port is open twice";

    // The main link's text commands reach the line, outside any frame.
    EXPECT_GT(send_cmd_to_dsp("VER_FULL=?"), 0);
    const std::string text = std::string("VER_FULL=?") + '\0';
    ASSERT_TRUE(sim::waitUntil([&] { return find(fig.received(), Bytes(text.begin(), text.end())) != std::string::npos; },
                               kWire));
    dspFigHalAppRequestDoa(1);
    ASSERT_TRUE(fig.waitForCommand(FigDspModel::kDoaOn, 1, kWire));

    // The Fig DSP's frames are shared out between the two readers, one
    // frame at a time so each one's fate can be told: the main link logs
    // every chunk it reads, and the Fig link acknowledges a frame it got
    // whole. A frame with any byte in the main link's chunks is never
    // acknowledged; one with none always is.
    constexpr size_t kSent = 10;
    size_t toMain = 0;
    // The Fig DSP's answer to DOA_ON is read (and logged) first.
    std::this_thread::sleep_for(kQuiet);
    for (size_t i = 0; i < kSent; ++i) {
        const uint8_t id = static_cast<uint8_t>('a' + i);
        const Bytes frame = pingFrame(id);
        const std::string text(frame.begin(), frame.end());
        // The main link's reads of this frame: DSP lines that are pieces of it.
        auto mainPieces = [&] {
            size_t n = 0;
            for (const auto &line : log.lines())
                n += line.tag == "DSP" && !line.text.empty() && text.find(line.text) != std::string::npos;
            return n;
        };
        log.clear();
        fig.sendRaw(frame);
        ASSERT_TRUE(sim::waitUntil([&] { return fig.countAcks(id) > 0 || mainPieces() > 0; }, kWire)) << id;
        // A frame the Fig link started and lost is given up after the
        // line's quiet time, so the next frame starts afresh.
        std::this_thread::sleep_for(kQuiet);
        const bool mainRead = mainPieces() > 0;
        toMain += mainRead;
        EXPECT_EQ(fig.countAcks(id), mainRead ? 0u : 1u) << "frame " << id;
    }
    EXPECT_EQ(fig.countAcks(), kSent - toMain);
    RecordProperty("frames read by the main link", static_cast<int>(toMain));

    fig.clearLog();
    EXPECT_EQ(dspFig_deinit(), 0);
    figUp = false;
    EXPECT_EQ(gDspHalDev.fd.load(), -1) << "stopping the Fig link closed the main port";
    EXPECT_GT(send_cmd_to_dsp("MV=?"), 0) << "posting still works";
    ASSERT_TRUE(log.waitFor("DSP", "dspHalWriteUsart", kWire));
    EXPECT_TRUE(sim::waitUntil([&] { return log.countContaining("DSP", "error: retlen= -1") >= 1u; }, kWire));
    dspFigHalAppRequestDoa(0);
    ASSERT_TRUE(fig.waitForCommand(FigDspModel::kDoaOff, 1, kWire)) << "the Fig port still works";
    const std::string mv = "MV=?";
    EXPECT_EQ(find(fig.received(), Bytes(mv.begin(), mv.end())), std::string::npos);
    avmtest::stopDspLink(nullptr);
}
