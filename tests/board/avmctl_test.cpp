// avmctl on the virtual board: the program runs as a child of the test,
// with the test's environment (the board wrapper's variables and the
// testbed's), so its module opens this board's nodes and files and the
// models here see what it sends. For each subsystem a setter and a getter
// with what crossed the wire, the watch of a direction of arrival and a
// camera event, JSON output, scripts, and every way a command line can be
// wrong: exit status 2, one line on stderr, and nothing on the wire.
#include <gtest/gtest.h>

#include <cutils/properties.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <regex>
#include <string>
#include <vector>

#include "amp/amp_tuning.h"
#include "amp_fixture.h"
#include "camera/ptz_frame.h"
#include "cam_download.h"
#include "camera_on_board.h"
#include "dsp_commands.h"
#include "log_capture.h"
#include "process_env.h"
#include "sim/amp_model.h"
#include "sim/board.h"
#include "sim/dsp_audio_model.h"
#include "sim/dsp_model.h"
#include "sim/hdmi_out_model.h"
#include "sim/hid_camera_model.h"
#include "sim/ptz_camera_model.h"
#include "sim/uac_mixer_model.h"
#include "sim/usb_sysfs.h"
#include "test_helpers.h"

extern char **environ;

using namespace std::chrono_literals;
using avmtest::prop;

namespace {

// The program from the build (CMake gives its path); under an emulator
// runChild starts it under the same one.
constexpr const char *kAvmctl = AVMCTL_PROGRAM;
constexpr auto kWire = 10s; // generous: a busy 2-core machine, a child's start-up
constexpr auto kChildRuns = 60s;

// This process's whole environment: complete before any thread started
// (tests/board-wrapper's variables, UMOCKDEV_DIR of the testbed), so the
// child's module finds this board.
std::vector<std::string> boardEnvironment()
{
    std::vector<std::string> env;
    for (char **e = environ; *e; ++e)
        env.emplace_back(*e);
    return env;
}

std::vector<std::string> command(const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {kAvmctl};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

avmtest::ChildResult avmctl(const std::vector<std::string> &args)
{
    return avmtest::runChild(command(args), boardEnvironment());
}

std::string describe(const avmtest::ChildResult &run)
{
    return "exit " + std::to_string(run.exitCode) + "\nstdout:\n" + run.output + "stderr:\n" + run.errors;
}

const PtzProtocolEntry &ptzRow(uint32_t cmd) { return gPtzProtocolTable[cmd]; }

// The board with the DSP and the DSP link switched on; camera tests add
// the camera switch.
class Avmctl : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(property_set("persist.vendor.dsp.communication", "1"), 0); }

    void cameraOn()
    {
        ASSERT_EQ(property_set("persist.vendor.cam.communication", "1"), 0);
        ASSERT_EQ(property_set("persist.sys.dsp.sendDoaToCamera", "1"), 0);
    }

    // What avmctl's operations sent to the DSP: the detection thread's
    // version queries go out on their own schedule and are left out.
    std::vector<std::string> dspWire() const { return avmtest::withoutVersionQueries(dsp.commands()); }

    // Runs avmctl, which must succeed.
    std::string ok(const std::vector<std::string> &args)
    {
        const avmtest::ChildResult run = avmctl(args);
        EXPECT_EQ(run.exitCode, 0) << describe(run);
        EXPECT_EQ(run.errors, "") << describe(run);
        return run.output;
    }

    avmtest::LogCapture log;
    sim::Board board;
    sim::DspModel dsp{board};
    sim::DspAudio audio{dsp};
};

// ------------------------------------------------------------ the audio DSP

TEST_F(Avmctl, SetVolumeReachesTheDspBeforeAvmctlLeaves)
{
    EXPECT_EQ(ok({"set_volume", "2", "40"}), "1\n");
    // avmctl has exited: what it queued was on the line before it left.
    EXPECT_TRUE(dsp.waitForCommand("MV=-11.10", kWire));
    EXPECT_EQ(dspWire(), (std::vector<std::string>{"MV=-11.10"}));
    EXPECT_TRUE(sim::waitUntil([&] { return audio.mainDb() == -11.1f; }, kWire));
    EXPECT_EQ(prop("persist.zel.dsp.volumeVal"), "40");
}

TEST_F(Avmctl, GetMuteAsksTheDspAndPrintsItsAnswer)
{
    audio.setMainMuted(true);
    EXPECT_EQ(ok({"get_mute", "2"}), "1\n");
    EXPECT_EQ(dspWire(), (std::vector<std::string>{"MT=?"}));
    audio.setMainMuted(false);
    EXPECT_EQ(ok({"get_mute", "2"}), "0\n");
}

TEST_F(Avmctl, ASoundModeSendsAllEightBandsBeforeAvmctlLeaves)
{
    EXPECT_EQ(ok({"set_soundMode", "1"}), "1\n");
    EXPECT_TRUE(dsp.waitForCommandCount(8, kWire));
    const auto bands = avmtest::withPrefix(dspWire(), "USER_EQ[");
    ASSERT_EQ(bands.size(), 8u);
    EXPECT_EQ(bands[0], "USER_EQ[0]=4,120,0.0000,1.2");
    EXPECT_EQ(bands[7], "USER_EQ[7]=0,2000,0.0000,1.0");
    EXPECT_EQ(ok({"get_soundMode"}), "1\n");
    EXPECT_EQ(prop("persist.zel.dsp.soundMode"), "1");
}

TEST_F(Avmctl, DoaReportingOnAndTheDspsAnswerToTheQuery)
{
    EXPECT_EQ(ok({"setDspDoaReport", "1"}), "524\n") << "the bytes posted";
    EXPECT_TRUE(sim::waitUntil([&] { return audio.doaReporting(); }, kWire));
    EXPECT_EQ(ok({"getDspDoaReport"}), "1\n");
    EXPECT_EQ(dspWire(), (std::vector<std::string>{"MIC_DOA_REP=1", "MIC_DOA_REP=?"}));
}

TEST_F(Avmctl, CallBySlotIsTheSameCall)
{
    EXPECT_EQ(ok({"call", "2", "2", "40"}), "1\n");
    EXPECT_TRUE(dsp.waitForCommand("MV=-11.10", kWire));
    EXPECT_EQ(ok({"call", "3", "2"}), "40\n");
}

TEST_F(Avmctl, NumbersInHexAndTextWithBlanksReachTheModuleAsTyped)
{
    EXPECT_EQ(ok({"set_balance", "0x4b"}), "1\n");
    EXPECT_EQ(ok({"send_cmd_to_dsp", "SND", "PLAY=1"}), "524\n");
    EXPECT_TRUE(dsp.waitForCommand("SND PLAY=1", kWire));
    EXPECT_EQ(dspWire(), (std::vector<std::string>{"BAL_LEFT=0.50", "BAL_RIGHT=1.00", "SND PLAY=1"}));
}

TEST_F(Avmctl, AValueTheModuleRefusesIsPassedOnAndItsAnswerPrinted)
{
    EXPECT_EQ(ok({"set_volume", "2", "101"}), "0\n");
    EXPECT_EQ(ok({"send_cmd_to_dsp", "MARK"}), "524\n");
    EXPECT_TRUE(dsp.waitForCommand("MARK", kWire));
    EXPECT_EQ(dspWire(), (std::vector<std::string>{"MARK"})) << "the module sent nothing for 101";
}

// ------------------------------------------------------------ the USB mixer

TEST_F(Avmctl, UsbVolumeAndMuteGoToTheMixer)
{
    sim::UacMixer mixer{board};
    EXPECT_EQ(ok({"set_volume", "0", "30"}), "0\n") << "the mixer's write returns 0";
    EXPECT_EQ(mixer.volume(), -14);
    mixer.setSwitchValue(0);
    EXPECT_EQ(ok({"get_mute", "0"}), "1\n");
    const auto calls = mixer.calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_FALSE(calls.back().write);
    EXPECT_EQ(calls.back().numid, sim::UacMixer::kSwitchNumid);
    EXPECT_TRUE(dspWire().empty());
}

// ------------------------------------------------------------ the amplifiers

TEST_F(Avmctl, WallPlacementProgramsTheAmplifiersOnAFloorWallProduct)
{
    sim::AmpModel amp{board, sim::AmpFitting::Ad82120};
    ASSERT_EQ(property_set("persist.vendor.floor_wall", "1"), 0);
    amptest::generateTuningFiles(board);
    EXPECT_EQ(ok({"set_dsp_spk_eq_mode", "1"}), "1\n");
    EXPECT_TRUE(dsp.waitForCommand("SPK_EQ_MODE=WALL", kWire));
    // The tables the child programmed, read here from the same files.
    parseAmp_RL_Wall_Info();
    parseAmp_SUB_Wall_Info();
    amptest::expectAdFormat(amp, sim::AmpModel::kAdMain, m_reg_tab_RL_wall, m_ram1_tab_RL_wall);
    amptest::expectAdFormat(amp, sim::AmpModel::kAdSub, m_reg_tab_SUB_wall, m_ram1_tab_SUB_wall);
    EXPECT_EQ(ok({"get_dsp_spk_eq_mode"}), "1\n");
    EXPECT_EQ(prop("persist.zel.dsp.spkEqMode"), "WALL");
}

// ------------------------------------------------------------ the PTZ camera

TEST_F(Avmctl, CameraSetterAndGetterAreFramesOnItsLine)
{
    cameraOn();
    sim::PtzCameraModel camera{board};
    camera.setCurrentTemperature(47);
    EXPECT_EQ(ok({"set_cam_auto_black_screen", "1"}), "1\n");
    EXPECT_EQ(camera.autoBlackScreen(), 1);
    const auto &set = ptzRow(PTZ_CMD_SET_AUTO_BLACK_SCREEN);
    EXPECT_GE(camera.countFrames(set.sendMain, set.sendSub), 1u); // resends included
    EXPECT_EQ(ok({"get_cam_current_temperature"}), "47\n");
    const auto &get = ptzRow(PTZ_CMD_GET_CURRENT_TEMPERATURE);
    EXPECT_GE(camera.countFrames(get.sendMain, get.sendSub), 1u);
}

TEST_F(Avmctl, CameraLogsComeOverHidIntoTheDirectoryGiven)
{
    cameraOn();
    sim::PtzCameraModel ptz{board};
    sim::UsbSysfs usb{board};
    usb.attach("1-1", avmtest::kCamVid, avmtest::kCamPid);
    sim::HidCameraModel camera{board, "/dev/hidraw0", avmtest::kCamVid, avmtest::kCamPid};
    const std::string log = "[1000.000001] kmsg: a made-up line\n";
    camera.setFile("/var/volatile/log/kmsg.log", log);
    avmtest::TempDir dir;
    // Without start-up: its detection thread opens the HID channel again
    // for the camera's version, and a download that starts meanwhile loses
    // its first request (the module's own order of things, which a service
    // calling long after start-up never meets). The file ends by the
    // module's 8 s wait for more of it.
    EXPECT_EQ(ok({"--no-init", "get_cam_logs", dir.path()}), "1\n");
    std::ifstream fetched(dir.path() + "/CamLogs/kmsg.log", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(fetched), {}), avmtest::asDownloaded(log));
    const auto requests = camera.fileRequests();
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests[0], "/var/volatile/log/kmsg.log");
}

TEST_F(Avmctl, TheIspPairIsPrintedAndInJson)
{
    cameraOn();
    sim::PtzCameraModel camera{board};
    camera.setIspEnv(1, 300, 400);
    const std::string plain = ok({"get_camera_isp_env"});
    const std::string json = ok({"--json", "get_camera_isp_env"});
    EXPECT_TRUE(std::regex_match(plain, std::regex("-?[0-9]+ \\(pair 300, 400\\)\n"))) << plain;
    EXPECT_TRUE(std::regex_match(json, std::regex("\\{\"op\":\"get_camera_isp_env\",\"slot\":27,\"args\":\\[\\],"
                                                  "\"result\":-?[0-9]+,\"pair\":\\[300,400\\]\\}\n")))
        << json;
}

// ------------------------------------------------------------ the HDMI-out converter

TEST_F(Avmctl, AScriptConnectsAndDisconnectsTheConverter)
{
    sim::HdmiOutModel converter{board};
    const std::string script = board.root() + "/hdmi.avmctl";
    std::ofstream(script) << "# the converter's made-up ids\n"
                             "usb_hdmiOut_init 0x3c3c 0x0a01\n"
                             "connect_usb_hdmiOut\n"
                             "disconnect_usb_hdmiOut\n"
                             "usb_hdmiOut_deinit\n";
    EXPECT_EQ(ok({"--script", script}), "usb_hdmiOut_init 0x3c3c 0x0a01 = 0\n"
                                        "connect_usb_hdmiOut = 1\n"
                                        "disconnect_usb_hdmiOut = 1\n"
                                        "usb_hdmiOut_deinit = 0\n");
    EXPECT_EQ(converter.connectRequests(), 1u);
    ASSERT_EQ(converter.count(sim::HdmiOutModel::Kind::Disconnect), 1u);
    EXPECT_EQ(converter.packets(sim::HdmiOutModel::Kind::Disconnect)[0].type, sim::HdmiOutModel::kTypeDisconnect);
    EXPECT_TRUE(converter.errors().empty()) << converter.errors().front();
}

// ------------------------------------------------------------ JSON

TEST_F(Avmctl, JsonLinesNameTheOperationItsSlotAndArguments)
{
    EXPECT_EQ(ok({"--json", "send_cmd_to_dsp", "A \"quoted\" text"}),
              "{\"op\":\"send_cmd_to_dsp\",\"slot\":22,\"args\":[\"A \\\"quoted\\\" text\"],\"result\":524}\n");
    EXPECT_EQ(ok({"--json", "get_volume", "2"}), "{\"op\":\"get_volume\",\"slot\":3,\"args\":[2],\"result\":0}\n");
}

// ------------------------------------------------------------ watch

TEST_F(Avmctl, WatchPrintsADirectionOfArrivalAndACameraEventUntilInterrupted)
{
    cameraOn();
    sim::PtzCameraModel camera{board};
    avmtest::ChildProcess watch(command({"watch"}), boardEnvironment());
    ASSERT_TRUE(watch.waitForOutput([](auto &, auto &err) { return err.find("watching") != std::string::npos; },
                                    kChildRuns));
    audio.raiseDoa(90);
    ASSERT_TRUE(watch.waitForOutput([](auto &out, auto &) { return out.find(" doa 90\n") != std::string::npos; },
                                    kWire));
    // The module handed the direction on to the camera too.
    const auto &doa = ptzRow(PTZ_CMD_SEND_DOA);
    ASSERT_TRUE(camera.waitForFrames(doa.sendMain, doa.sendSub, 1, kWire));
    EXPECT_EQ(camera.lastFrame(doa.sendMain, doa.sendSub)->data(0), 90);
    camera.raiseOpen();
    ASSERT_TRUE(watch.waitForOutput(
        [](auto &out, auto &) { return out.find(" camera status 1\n") != std::string::npos; }, kWire));
    watch.signal(SIGINT);
    const avmtest::ChildResult run = watch.wait();
    EXPECT_EQ(run.exitCode, 0) << describe(run);
    const std::regex line("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} (doa 90|camera status 1)");
    std::istringstream lines(run.output);
    int events = 0;
    for (std::string text; std::getline(lines, text); ++events)
        EXPECT_TRUE(std::regex_match(text, line)) << text;
    EXPECT_EQ(events, 2) << run.output;
}

TEST_F(Avmctl, WatchInJsonNamesTheEventWithItsTimes)
{
    avmtest::ChildProcess watch(command({"--json", "watch"}), boardEnvironment());
    ASSERT_TRUE(watch.waitForOutput([](auto &, auto &err) { return err.find("watching") != std::string::npos; },
                                    kChildRuns));
    audio.raiseDoa(-45);
    ASSERT_TRUE(watch.waitForOutput([](auto &out, auto &) { return out.find('\n') != std::string::npos; }, kWire));
    watch.signal(SIGTERM);
    const avmtest::ChildResult run = watch.wait();
    EXPECT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_TRUE(std::regex_match(run.output, std::regex("\\{\"event\":\"doa\",\"value\":-45,\"time\":\"[-0-9T:.]+\","
                                                        "\"elapsed\":[0-9]+\\.[0-9]{3}\\}\n")))
        << run.output;
}

TEST_F(Avmctl, WatchForSomeSecondsEndsByItself)
{
    const auto start = std::chrono::steady_clock::now();
    avmtest::ChildProcess watch(command({"watch", "1"}), boardEnvironment());
    ASSERT_TRUE(watch.waitForEnd(kChildRuns)) << "still watching";
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
    const avmtest::ChildResult run = watch.wait();
    EXPECT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_EQ(run.output, "") << "nothing happened";
}

TEST_F(Avmctl, AStartUpThatFailsEndsWithStatusOneBeforeAnyOperation)
{
    cameraOn(); // with no camera on its line: the PTZ link cannot start
    const avmtest::ChildResult run = avmctl({"set_volume", "2", "40"});
    EXPECT_EQ(run.exitCode, 1) << describe(run);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.errors, "avmctl: start-up failed (hal_init returned -1); --logs shows the module's reasons\n");
    EXPECT_EQ(prop("persist.zel.dsp.volumeVal"), "") << "set_volume was not called";
}

// ------------------------------------------------------------ wrong command lines

struct BadLine {
    const char *name;
    std::vector<std::string> args;
    std::string error; // the one line on stderr, without "avmctl: "
};

// The test list shows the case's name, not its bytes.
void PrintTo(const BadLine &line, std::ostream *os) { *os << line.name; }

class AvmctlRefuses : public Avmctl, public ::testing::WithParamInterface<BadLine> {};

TEST_P(AvmctlRefuses, WithStatusTwoAOneLineReasonAndNothingOnTheWire)
{
    const BadLine &bad = GetParam();
    const avmtest::ChildResult run = avmctl(bad.args);
    EXPECT_EQ(run.exitCode, 2) << describe(run);
    EXPECT_EQ(run.output, "") << describe(run);
    EXPECT_EQ(run.errors, "avmctl: " + bad.error + "\n");
    // Whatever the refused run had sent would be on the line before the
    // marker of the next one.
    EXPECT_EQ(ok({"send_cmd_to_dsp", "MARK"}), "524\n");
    ASSERT_TRUE(dsp.waitForCommand("MARK", kWire));
    EXPECT_EQ(dspWire(), (std::vector<std::string>{"MARK"}));
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, AvmctlRefuses,
    ::testing::Values(
        BadLine{"UnknownOperation", {"set_volum", "2", "40"},
                "unknown operation \"set_volum\" (avmctl --help lists them)"},
        BadLine{"MissingArgument", {"set_volume", "2"},
                "set_volume: missing <volume>, a number (usage: set_volume <channel> <volume>)"},
        BadLine{"TextForANumber", {"set_volume", "2", "forty"},
                "set_volume: <volume> must be a number, not \"forty\" (usage: set_volume <channel> <volume>)"},
        BadLine{"NumberWithAUnit", {"set_volume", "2", "40dB"},
                "set_volume: <volume> must be a number, not \"40dB\" (usage: set_volume <channel> <volume>)"},
        BadLine{"NumberBeyond32Bits", {"set_volume", "2", "4294967336"},
                "set_volume: <volume> 4294967336 is out of range -2147483648..2147483647 "
                "(usage: set_volume <channel> <volume>)"},
        BadLine{"NumberBeyond64Bits", {"set_volume", "99999999999999999999", "40"},
                "set_volume: <channel> 99999999999999999999 is out of range (usage: set_volume <channel> <volume>)"},
        BadLine{"PayloadLengthBeyondTheBuffer",
                {"usb_hdmiOut_packet_process", "1", "5", "2000000", "0", "0", "0", "1", "1", "x"},
                "usb_hdmiOut_packet_process: <length> 2000000 is out of range -2147483648..1048576 (usage: "
                "usb_hdmiOut_packet_process <type> <total> <length> <p1> <p2> <p3> <width> <height> <payload>)"},
        BadLine{"ExtraArgument", {"set_volume", "2", "40", "7"},
                "set_volume: unexpected argument \"7\" (usage: set_volume <channel> <volume>)"},
        BadLine{"SlotOutsideTheRecord", {"call", "50", "2"}, "call: no operation in slot \"50\" (slots 0..49)"},
        BadLine{"SlotThatIsNoNumber", {"call", "two", "2"}, "call: no operation in slot \"two\" (slots 0..49)"},
        BadLine{"WatchForNoTime", {"watch", "0"}, "watch: <seconds> must be a number 1..86400, not \"0\""},
        BadLine{"UnknownOption", {"--volume", "set_volume", "2", "40"},
                "unknown option \"--volume\" (avmctl --help lists them)"},
        BadLine{"NothingToDo", {}, "no operation given (avmctl --help lists them)"}),
    [](const ::testing::TestParamInfo<BadLine> &info) { return std::string(info.param.name); });

TEST_F(Avmctl, AScriptWithABadLineCallsNothingAtAll)
{
    const std::string script = board.root() + "/bad.avmctl";
    std::ofstream(script) << "set_volume 2 40\n"
                             "\n"
                             "set_mute 2 on\n";
    const avmtest::ChildResult run = avmctl({"--script", script});
    EXPECT_EQ(run.exitCode, 2) << describe(run);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.errors, "avmctl: " + script +
                              ":3: set_mute: <mute> must be a number, not \"on\" (usage: set_mute <channel> <mute>)\n");
    EXPECT_EQ(ok({"send_cmd_to_dsp", "MARK"}), "524\n");
    ASSERT_TRUE(dsp.waitForCommand("MARK", kWire));
    EXPECT_EQ(dspWire(), (std::vector<std::string>{"MARK"})) << "line 1 was not called";
    EXPECT_EQ(prop("persist.zel.dsp.volumeVal"), "");
}

TEST_F(Avmctl, HelpListsEveryOperationWithItsArguments)
{
    const avmtest::ChildResult run = avmctl({"--help"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.errors, "");
    EXPECT_NE(run.output.find("   2  set_volume <channel> <volume>\n"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("        <channel>  0=uac 1=spdif 2=main\n"), std::string::npos);
    EXPECT_NE(run.output.find("  20  usb_hdmiOut_packet_process <type> <total> <length> <p1> <p2> <p3> <width> "
                              "<height> <payload>\n"),
              std::string::npos);
    EXPECT_NE(run.output.find("  49  get_cam_auto_black_screen\n"), std::string::npos);
    EXPECT_TRUE(dsp.commands().empty()) << "help loads nothing";
}

} // namespace
