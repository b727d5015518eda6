// Fig DSP link without a port: the frame parser over its receive buffer,
// the receive steps (byte fed, line quiet), what each parsed frame does
// (the module's writes captured on a pipe), the switch permission and the
// version, DOA and USB switch requests. Frames are built with the Fig DSP
// model's own CRC. The sound-format switch itself needs the amplifiers and
// is tested on the board; here the boot video never ends, so no frame
// reaches them.
#include <gtest/gtest.h>

#include <android/log.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "fig/dsp_fig.h"
#include "log_capture.h"
#include "module_state.h"
#include "process_env.h"
#include "sim/fig_wire.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr const char *kAgeingClass = "com.tarsa.factoryaging.MainActivity";

Bytes frame(uint8_t type, const std::string &payload)
{
    return sim::figFrame(type, payload);
}

Bytes command(const std::string &payload)
{
    return frame(DSP_FIG_TYPE_COMMAND, payload);
}

Bytes ack(uint8_t id)
{
    return sim::figFrame(DSP_FIG_TYPE_REPLY, Bytes{id});
}

Bytes onWire(const char *text)
{
    return Bytes(text, text + std::strlen(text) + 1); // with the zero byte
}

Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

void load(DspFigRxBuffer &rx, const Bytes &bytes)
{
    memset(&rx, 0, sizeof rx);
    ASSERT_LE(bytes.size(), sizeof rx.raw);
    memcpy(rx.raw, bytes.data(), bytes.size());
    rx.count = static_cast<uint16_t>(bytes.size());
}

Bytes rawOf(const DspFigRxBuffer &rx)
{
    return Bytes(rx.raw, rx.raw + rx.count);
}

Bytes payloadOf(const DspFigPacket &packet)
{
    return Bytes(packet.data, packet.data + packet.length);
}

// Module state back to its start for every test; the module's writes go
// into a pipe the test reads.
class FigUnit : public avmtest::FreshModule {
protected:
    void SetUp() override
    {
        avmtest::FreshModule::SetUp();
        ASSERT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
        gDspFigDev.fd.store(fds[1]);
    }

    void TearDown() override
    {
        dspFig_resetForTest();
        close(fds[0]);
        close(fds[1]);
    }

    // Everything the module wrote so far.
    Bytes written()
    {
        Bytes out;
        uint8_t buf[512];
        ssize_t n;
        while ((n = read(fds[0], buf, sizeof buf)) > 0)
            out.insert(out.end(), buf, buf + n);
        return out;
    }

    // Feeds bytes as the receive thread would, one at a time.
    void feed(const Bytes &bytes)
    {
        for (uint8_t b : bytes)
            dspFigHal_rx_feed_byte(&rx, b);
    }

    avmtest::FreshPropertyStore props;
    avmtest::LogCapture log;
    DspFigRxBuffer rx{};
    int fds[2] = {-1, -1};
};

// ---------------------------------------------------------------- parser

TEST(DspFigParser, AFrameCompletesOnItsTerminatorIntoThePacketRecord)
{
    const Bytes f = command("1MIC_ON990");
    DspFigRxBuffer rx{};
    for (size_t i = 0; i < f.size(); ++i) {
        rx.raw[rx.count++] = f[i];
        const int done = uart_packet_process(&rx);
        if (i + 1 < f.size()) {
            ASSERT_EQ(done, 0) << "byte " << i;
            EXPECT_EQ(rx.pos, rx.count) << "everything buffered was scanned";
        } else {
            ASSERT_EQ(done, 1);
        }
    }
    EXPECT_EQ(rx.packet.type, DSP_FIG_TYPE_COMMAND);
    EXPECT_EQ(rx.packet.length, 10);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(rx.packet.data), 10), "1MIC_ON990");
    EXPECT_EQ(rx.packet.data[10], f[13]) << "the CRC follows the payload";
    EXPECT_EQ(rx.packet.data[11], DSP_FIG_FRAME_END);
    EXPECT_EQ(rx.count, 0);
    EXPECT_EQ(rx.pos, 0);
    EXPECT_EQ(rx.state, DSP_FIG_WAIT_START);
}

TEST(DspFigParser, TheStatesFollowTheFrame)
{
    const Bytes f = command("42");
    DspFigRxBuffer rx{};
    const uint8_t expected[] = {DSP_FIG_WAIT_TYPE, DSP_FIG_WAIT_LENGTH, DSP_FIG_WAIT_PAYLOAD,
                                DSP_FIG_WAIT_PAYLOAD, DSP_FIG_WAIT_CRC, DSP_FIG_WAIT_END};
    for (size_t i = 0; i + 1 < f.size(); ++i) {
        rx.raw[rx.count++] = f[i];
        ASSERT_EQ(uart_packet_process(&rx), 0);
        EXPECT_EQ(rx.state, expected[i]) << "after byte " << i;
    }
}

TEST(DspFigParser, FramesBackToBackComeOutOneByOneWithWhatFollowsMovedToTheFront)
{
    DspFigRxBuffer rx;
    load(rx, join({command("1AAA"), command("2BB"), Bytes{'#', 0x20}}));
    ASSERT_EQ(uart_packet_process(&rx), 1);
    EXPECT_EQ(payloadOf(rx.packet), (Bytes{'1', 'A', 'A', 'A'}));
    EXPECT_EQ(rawOf(rx), join({command("2BB"), Bytes{'#', 0x20}}));
    EXPECT_EQ(rx.pos, 0);
    ASSERT_EQ(uart_packet_process(&rx), 1);
    EXPECT_EQ(payloadOf(rx.packet), (Bytes{'2', 'B', 'B'}));
    ASSERT_EQ(uart_packet_process(&rx), 0);
    EXPECT_EQ(rawOf(rx), (Bytes{'#', 0x20}));
    EXPECT_EQ(rx.state, DSP_FIG_WAIT_LENGTH) << "the partial frame is kept for the next call";
    EXPECT_EQ(rx.pos, 2);
}

TEST(DspFigParser, AWrongCrcFollowedByAValidFrameInTheSameBytesYieldsTheValidOne)
{
    Bytes bad = command("1BAD");
    bad[bad.size() - 2] ^= 0xFF;
    DspFigRxBuffer rx;
    load(rx, join({bad, command("2GOOD")}));
    ASSERT_EQ(uart_packet_process(&rx), 1);
    EXPECT_EQ(payloadOf(rx.packet), (Bytes{'2', 'G', 'O', 'O', 'D'}));
    EXPECT_EQ(rx.count, 0);
}

TEST(DspFigParser, AWrongCrcResumesAtTheNextStartInsideTheFrame)
{
    // The bad frame's payload holds a whole frame.
    std::string payload = "9";
    const Bytes inner = command("3IN");
    payload.append(inner.begin(), inner.end());
    Bytes outer = command(payload);
    outer[outer.size() - 2] ^= 0x01;
    DspFigRxBuffer rx;
    load(rx, outer);
    ASSERT_EQ(uart_packet_process(&rx), 1);
    EXPECT_EQ(payloadOf(rx.packet), (Bytes{'3', 'I', 'N'}));
    // The outer frame's broken CRC and terminator are left; they hold no start.
    EXPECT_EQ(uart_packet_process(&rx), 0);
    EXPECT_EQ(rx.count, 0);
}

TEST(DspFigParser, AFramingErrorWithFewerThanTwoBytesEmptiesTheBuffer)
{
    DspFigRxBuffer rx;
    load(rx, Bytes{'x'});
    EXPECT_EQ(uart_packet_process(&rx), 0);
    EXPECT_EQ(rx.count, 0);
    EXPECT_EQ(rx.pos, 0);
    EXPECT_EQ(rx.state, DSP_FIG_WAIT_START);
}

TEST(DspFigParser, AFramingErrorWithNoFurtherStartEmptiesTheBuffer)
{
    DspFigRxBuffer rx;
    load(rx, Bytes{'#', 0x99, 'a', 'b', 'c'});
    EXPECT_EQ(uart_packet_process(&rx), 0);
    EXPECT_EQ(rx.count, 0);
    EXPECT_EQ(rx.state, DSP_FIG_WAIT_START);
}

TEST(DspFigParser, ATypeMismatchRestartsAtTheNextStart)
{
    DspFigRxBuffer rx;
    load(rx, join({Bytes{'#', 0x21, 'z'}, command("5OK")}));
    ASSERT_EQ(uart_packet_process(&rx), 1);
    EXPECT_EQ(payloadOf(rx.packet), (Bytes{'5', 'O', 'K'}));
}

TEST(DspFigParser, ASuffixMismatchIsAFramingError)
{
    Bytes f = command("5OK");
    f.back() = 0x0D;
    DspFigRxBuffer rx;
    load(rx, f);
    EXPECT_EQ(uart_packet_process(&rx), 0);
    EXPECT_EQ(rx.count, 0);
}

TEST(DspFigParser, ALengthZeroFrameNeedsACrcOfZero)
{
    DspFigRxBuffer rx;
    load(rx, Bytes{'#', 0x20, 0x00, 0x00, 0x0A});
    ASSERT_EQ(uart_packet_process(&rx), 1);
    EXPECT_EQ(rx.packet.length, 0);
    EXPECT_EQ(rx.packet.data[0], 0x00) << "the CRC";
    EXPECT_EQ(rx.packet.data[1], 0x0A) << "the terminator";
    load(rx, Bytes{'#', 0x20, 0x00, 0x01, 0x0A});
    EXPECT_EQ(uart_packet_process(&rx), 0);
    EXPECT_EQ(rx.count, 0);
}

TEST(DspFigParser, EveryKnownTypeIsAcceptedAndNoOther)
{
    for (int type = 0; type < 256; ++type) {
        DspFigRxBuffer rx;
        load(rx, sim::figFrame(static_cast<uint8_t>(type), Bytes{'1'}));
        const bool known = type == 0x20 || type == 0x25 || type == 0x2E || type == 0xA0 || type == 0xAE;
        EXPECT_EQ(uart_packet_process(&rx), known ? 1 : 0) << "type " << type;
        if (known) {
            EXPECT_EQ(rx.packet.type, type);
        }
    }
}

TEST(DspFigParser, TheLongestFrameFitsTheReceiveArea)
{
    std::string payload(DSP_FIG_MAX_PAYLOAD, 'p');
    DspFigRxBuffer rx;
    load(rx, command(payload));
    ASSERT_EQ(uart_packet_process(&rx), 1);
    EXPECT_EQ(rx.packet.length, 255);
    EXPECT_EQ(rx.packet.data[254], 'p');
    EXPECT_EQ(rx.packet.data[256], DSP_FIG_FRAME_END);
}

TEST(DspFigParser, AnyRecordContentIsHandledWithinTheBuffer)
{
    // Counts, positions and states the parser never sets itself.
    DspFigRxBuffer rx;
    memset(&rx, '#', sizeof rx);
    rx.count = 60000;
    rx.pos = 50000;
    rx.state = 77;
    rx.frameLength = 255;
    EXPECT_EQ(uart_packet_process(&rx), 0);
    EXPECT_LE(rx.count, DSP_FIG_RX_RAW_SIZE);
    memset(&rx, 0, sizeof rx);
    rx.count = DSP_FIG_RX_RAW_SIZE;
    rx.state = 9;
    memset(rx.raw, '#', sizeof rx.raw);
    EXPECT_EQ(uart_packet_process(&rx), 0);
    EXPECT_LE(rx.count, DSP_FIG_RX_RAW_SIZE);
    dspFigHal_rx_work_off(&rx);
    EXPECT_EQ(rx.count, 0);
    EXPECT_EQ(uart_packet_process(nullptr), 0);
}

// ---------------------------------------------------------------- receive steps

TEST_F(FigUnit, BytesOutsideFramesAreDropped)
{
    feed(Bytes{'x', 0x0A, 0x00, 0x20});
    EXPECT_EQ(rx.count, 0);
    feed(Bytes{'#'});
    EXPECT_EQ(rx.count, 1);
}

TEST_F(FigUnit, AFrameFedByteByByteIsAcknowledged)
{
    feed(join({Bytes{'n', 'o', 'i', 's', 'e'}, command("4PING")}));
    EXPECT_EQ(written(), ack('4'));
}

TEST_F(FigUnit, WhenTheLineGoesQuietAnIncompleteFrameIsGivenUpForTheFrameInsideIt)
{
    feed(join({Bytes{'#', 0x20, 200, '1'}, command("7IN")}));
    EXPECT_TRUE(written().empty()) << "the inner frame is still taken as payload";
    dspFigHal_rx_work_off(&rx);
    EXPECT_EQ(written(), ack('7'));
    EXPECT_EQ(rx.count, 0);
}

TEST_F(FigUnit, WorkingOffAPartialFrameWithNoOtherStartEmptiesTheBuffer)
{
    feed(Bytes{'#', 0x20, 5, '1', '2'});
    EXPECT_EQ(rx.count, 5);
    dspFigHal_rx_work_off(&rx);
    EXPECT_EQ(rx.count, 0);
    EXPECT_EQ(rx.state, DSP_FIG_WAIT_START);
    dspFigHal_rx_work_off(&rx); // nothing buffered: nothing happens
    EXPECT_TRUE(written().empty());
}

TEST_F(FigUnit, WorkingOffHandlesEveryFrameLeftBehindABrokenOne)
{
    // Two frames after a broken start, all buffered before the line goes quiet.
    feed(join({Bytes{'#', 0x20, 100}, command("1A"), command("2B")}));
    dspFigHal_rx_work_off(&rx);
    EXPECT_EQ(written(), join({ack('1'), ack('2')}));
}

TEST_F(FigUnit, TheReceiveThreadEndsAtOnceWhenTheLinkIsNotRunning)
{
    EXPECT_EQ(dspFigHal_rx_thread(nullptr), nullptr);
}

// ---------------------------------------------------------------- frames acted on

TEST_F(FigUnit, EveryCommandFrameIsAcknowledgedEchoingItsIdentifier)
{
    feed(command("Z"));
    feed(command("3SOMETHING_ELSE"));
    EXPECT_EQ(written(), join({ack('Z'), ack('3')}));
    EXPECT_EQ(ack('Z').size(), 6u);
}

TEST_F(FigUnit, MicOnSendsDoaOnOnceButAcknowledgesEveryReport)
{
    feed(command("1MIC_ON990"));
    feed(command("2MIC_ON990"));
    EXPECT_EQ(written(), join({onWire("# \n8DOA_ON990v\n"), ack('1'), ack('2')}));
    EXPECT_TRUE(dspFig_mic_is_open());
    EXPECT_EQ(gDspFigDev.micOn.load(), 1);
    EXPECT_EQ(log.countContaining("DSP_FIG", "micSwitchedOn: app doa request(0), mic on(1)"), 1u);
    // The boot video has not ended here: no switch.
    EXPECT_EQ(log.count("DSP_FIG", "boot video not exit, dont support switch sound format !"), 1u);
}

TEST_F(FigUnit, MicOffSendsDoaOffUnlessTheApplicationAsksForReports)
{
    feed(command("1MIC_ON990"));
    feed(command("2MIC_OFF99"));
    EXPECT_EQ(written(), join({onWire("# \n8DOA_ON990v\n"), ack('1'), onWire("# \n7DOA_OFF77s\n"), ack('2')}));
    EXPECT_FALSE(dspFig_mic_is_open());
    EXPECT_EQ(dspFigHalAppRequestDoa(1), 0);
    feed(command("1MIC_ON990"));
    feed(command("2MIC_OFF99"));
    EXPECT_EQ(written(), join({onWire("# \n8DOA_ON990v\n"), onWire("# \n8DOA_ON990v\n"), ack('1'),
                               onWire("# \n8DOA_ON990v\n"), ack('2')}));
}

TEST_F(FigUnit, MicOffBeforeAnyMicOnOnlyAcknowledges)
{
    feed(command("2MIC_OFF99"));
    EXPECT_EQ(written(), ack('2'));
    EXPECT_FALSE(dspFig_mic_is_open());
}

TEST_F(FigUnit, TheMicrophoneTextIsLookedForAfterTheIdentifierAnywhereInThePayload)
{
    feed(command("MIC_ON990")); // identifier 'M': the rest is "IC_ON990"
    EXPECT_EQ(written(), ack('M'));
    EXPECT_FALSE(dspFig_mic_is_open());
    feed(command("1xxMIC_ON990yy"));
    EXPECT_EQ(written(), join({onWire("# \n8DOA_ON990v\n"), ack('1')}));
    EXPECT_TRUE(dspFig_mic_is_open());
}

TEST_F(FigUnit, DoaRepliesSetTheStatusToTheInverseOfReporting)
{
    feed(frame(DSP_FIG_TYPE_REPLY, std::string("7\x01", 2)));
    EXPECT_EQ(dspFigHal_get_doa_status(), 1);
    feed(frame(DSP_FIG_TYPE_REPLY, std::string("8\x01", 2)));
    EXPECT_EQ(dspFigHal_get_doa_status(), 0);
    // Anything else leaves it.
    feed(frame(DSP_FIG_TYPE_REPLY, std::string("7\x00", 2)));
    feed(frame(DSP_FIG_TYPE_REPLY, std::string("7")));
    feed(frame(DSP_FIG_TYPE_REPLY, std::string("71")));
    EXPECT_EQ(dspFigHal_get_doa_status(), 0);
    EXPECT_TRUE(written().empty()) << "replies are not acknowledged";
}

TEST_F(FigUnit, AVersionReplyIsStoredInTheProperties)
{
    props.set("persist.sys.fig.dune.update", "1");
    feed(frame(DSP_FIG_TYPE_REPLY, std::string("3DUNE-2.0.1")));
    EXPECT_EQ(props.get("persist.sys.fig.dune.version"), "DUNE-2.0.1");
    EXPECT_EQ(props.get("persist.sys.fig.dune.update"), "0");
    EXPECT_EQ(gDspFigDev.needVersion.load(), 0);
    // An empty version is a version too.
    feed(frame(DSP_FIG_TYPE_REPLY, std::string("3")));
    EXPECT_EQ(props.get("persist.sys.fig.dune.version"), "");
    EXPECT_TRUE(props.isSet("persist.sys.fig.dune.version"));
}

TEST_F(FigUnit, AVersionThePropertyStoreRefusesChangesNothing)
{
    const std::string version(PROPERTY_VALUE_MAX, 'v');
    feed(frame(DSP_FIG_TYPE_REPLY, "3" + version));
    EXPECT_FALSE(props.isSet("persist.sys.fig.dune.version"));
    EXPECT_FALSE(props.isSet("persist.sys.fig.dune.update"));
    EXPECT_EQ(gDspFigDev.needVersion.load(), 1);
    EXPECT_TRUE(log.contains("DSP_FIG", " fig_Dsp_Version_update : set persist.sys.fig.dune.version error : " + version));
    fig_Dsp_Version_update(nullptr);
    EXPECT_TRUE(props.isSet("persist.sys.fig.dune.version"));
}

TEST_F(FigUnit, ReportsAndFramesOfTypesA0AndAEWriteNothing)
{
    feed(frame(0xA0, std::string("1MIC_ON990")));
    feed(frame(0xAE, std::string("2")));
    feed(sim::figFrame(DSP_FIG_TYPE_DOA, sim::figDoaPayload(10.0f)));
    EXPECT_TRUE(written().empty());
    EXPECT_FALSE(dspFig_mic_is_open());
}

TEST_F(FigUnit, AShortDoaReportIsLoggedWhenDebugging)
{
    gDspFigDev.debugLog.store(1);
    feed(frame(DSP_FIG_TYPE_DOA, std::string("6abc")));
    EXPECT_TRUE(log.contains("DSP_FIG", "handleDoaReport: doa report too short, length(4)\n"));
    EXPECT_EQ(log.priorityOf("DSP_FIG", "handleDoaReport: doa report too short, length(4)\n"), ANDROID_LOG_DEBUG);
}

TEST_F(FigUnit, FramingErrorsAreLoggedOnlyWhenDebugging)
{
    Bytes bad = command("1X");
    bad[bad.size() - 2] ^= 1;
    feed(bad);
    feed(Bytes{'#', 0x42});
    EXPECT_EQ(log.countContaining("DSP_FIG", "mismatch"), 0u);
    gDspFigDev.debugLog.store(1);
    feed(bad);
    feed(Bytes{'#', 0x42});
    Bytes suffix = command("2Y");
    suffix.back() = 'E';
    feed(suffix);
    EXPECT_EQ(log.countContaining("DSP_FIG", "uart_packet_process: crc mismatch"), 1u);
    EXPECT_EQ(log.count("DSP_FIG", "uart_packet_process: type mismatch (0x42)\n"), 1u);
    EXPECT_EQ(log.count("DSP_FIG", "uart_packet_process: suffix mismatch (0x45)\n"), 1u);
}

// ---------------------------------------------------------------- permission

TEST_F(FigUnit, TheSwitchIsAllowedOnlyOnceTheBootVideoHasEnded)
{
    EXPECT_EQ(enFigSwSoundFormat(), 0) << "unset reads as still playing";
    props.set("service.bootvideo.exit", "1");
    EXPECT_EQ(enFigSwSoundFormat(), 0);
    props.set("service.bootvideo.exit", "00");
    EXPECT_EQ(enFigSwSoundFormat(), 0) << "exactly \"0\"";
    EXPECT_EQ(log.count("DSP_FIG", "boot video not exit, dont support switch sound format !"), 3u);
    props.set("service.bootvideo.exit", "0");
    EXPECT_EQ(enFigSwSoundFormat(), 1);
    EXPECT_EQ(log.count("DSP_FIG", "boot video not exit, dont support switch sound format !"), 3u);
}

TEST_F(FigUnit, TheFactoryAgeingClassBlocksTheSwitchOnlyWhenItMatchesWithItsTerminator)
{
    props.set("service.bootvideo.exit", "0");
    props.set("persist.sys.current.class", kAgeingClass);
    EXPECT_EQ(enFigSwSoundFormat(), 0);
    EXPECT_EQ(log.count("DSP_FIG", "now is at factoryaging mode, dont support switch sound format !"), 1u);
    props.set("persist.sys.current.class", std::string(kAgeingClass) + "X");
    EXPECT_EQ(enFigSwSoundFormat(), 1);
    props.set("persist.sys.current.class", std::string(kAgeingClass).substr(0, 34));
    EXPECT_EQ(enFigSwSoundFormat(), 1);
    EXPECT_EQ(log.count("DSP_FIG", "now is at factoryaging mode, dont support switch sound format !"), 1u);
    // Both reasons are logged when both hold.
    props.set("service.bootvideo.exit", "1");
    props.set("persist.sys.current.class", kAgeingClass);
    EXPECT_EQ(enFigSwSoundFormat(), 0);
    EXPECT_EQ(log.count("DSP_FIG", "boot video not exit, dont support switch sound format !"), 1u);
    EXPECT_EQ(log.count("DSP_FIG", "now is at factoryaging mode, dont support switch sound format !"), 2u);
}

// ---------------------------------------------------------------- requests

TEST_F(FigUnit, TheApplicationsDoaRequestSendsOnOrOffByTheMicrophone)
{
    EXPECT_EQ(dspFigHalAppRequestDoa(0), 0);
    EXPECT_EQ(dspFigHalAppRequestDoa(5), 0);
    EXPECT_EQ(gDspFigDev.appDoaRequest.load(), 1);
    EXPECT_EQ(written(), join({onWire("# \n7DOA_OFF77s\n"), onWire("# \n8DOA_ON990v\n")}));
    feed(command("1MIC_ON990"));
    written();
    EXPECT_EQ(dspFigHalAppRequestDoa(0), 0);
    EXPECT_EQ(written(), onWire("# \n8DOA_ON990v\n")) << "the microphone is on";
    updateDoaStatusConfig();
    EXPECT_EQ(written(), onWire("# \n8DOA_ON990v\n"));
}

TEST_F(FigUnit, TheVersionIsAskedForUntilKnownOrWhenAnUpdateIsFlagged)
{
    EXPECT_EQ(detect_Fig_Dsp_Version(), 0);
    EXPECT_EQ(written(), onWire("# \n3VERSION86;\n"));
    fig_Dsp_Version_update("DUNE-1");
    EXPECT_EQ(detect_Fig_Dsp_Version(), 0);
    EXPECT_TRUE(written().empty());
    props.set("persist.sys.fig.dune.update", "1x");
    EXPECT_EQ(detect_Fig_Dsp_Version(), 0);
    EXPECT_EQ(written(), onWire("# \n3VERSION86;\n"));
}

TEST_F(FigUnit, TheUsbSwitchRequestIsSentOncePerTarget)
{
    EXPECT_EQ(dspFigHal_send_usb_switch_msg(2), 0);
    EXPECT_EQ(dspFigHal_send_usb_switch_msg(2), -1);
    EXPECT_EQ(written(), onWire("# \n5USBSWITCH0\n"));
    EXPECT_EQ(dspFigHal_send_usb_switch_msg(-1), 0) << "the start value is a target like any other once changed";
    EXPECT_EQ(written(), onWire("# \n5USBSWITCH0\n"));
}

TEST_F(FigUnit, AUsbSwitchToTheStartValueIsRefused)
{
    EXPECT_EQ(dspFigHal_send_usb_switch_msg(DSP_FIG_USB_SWITCH_NONE), -1);
    EXPECT_TRUE(written().empty());
}

TEST_F(FigUnit, TheStatusCallbackIsForwardedWhenRegistered)
{
    static std::vector<int> seen;
    seen.clear();
    EXPECT_EQ(dspFigCallback(1), 0) << "none registered";
    EXPECT_EQ(dspFigHal_set_status_callback([](int s) {
                  seen.push_back(s);
                  return 7;
              }),
              0);
    EXPECT_EQ(dspFigCallback(1), 7);
    EXPECT_EQ(dspFigCallback(0), 7);
    EXPECT_EQ(seen, (std::vector<int>{1, 0}));
    EXPECT_EQ(dspFigHal_set_status_callback(nullptr), 0);
    EXPECT_EQ(dspFigCallback(1), 0);
    EXPECT_EQ(seen.size(), 2u);
}

TEST_F(FigUnit, SetDspFigDebugLogOnlyTurnsLoggingOn)
{
    setDspFigDebugLog();
    EXPECT_EQ(gDspFigDev.debugLog.load(), 0);
    props.set("persist.sys.dsp_fig_enlog", "1");
    setDspFigDebugLog();
    EXPECT_EQ(gDspFigDev.debugLog.load(), 1);
    props.set("persist.sys.dsp_fig_enlog", "0");
    setDspFigDebugLog();
    EXPECT_EQ(gDspFigDev.debugLog.load(), 1);
}

TEST_F(FigUnit, WritesToAClosedPortAreIgnored)
{
    gDspFigDev.fd.store(-1);
    EXPECT_EQ(dspFigHalAppRequestDoa(1), 0);
    feed(command("1MIC_ON990"));
    EXPECT_TRUE(dspFig_mic_is_open());
    EXPECT_EQ(log.countContaining("UART", "fd is error! func[writeUsartDevice]"), 3u);
}

} // namespace
