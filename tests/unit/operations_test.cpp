// The operation table the console and avmctl share, against a record whose
// every slot records its own number and arguments: each entry calls the
// slot it names with the arguments as parsed; the argument checks; the
// payload buffer slot 20 is lent; the number and text helpers.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "operations.h"

namespace {

// What the record saw last.
struct Seen {
    int slot = -1;
    std::vector<long long> ints;
    std::string text;
    std::vector<uint8_t> payload;          // slot 20: the buffer up to its last whole transfer
    avmanager_camera_status_cb camera = nullptr;
    avmanager_dsp_status_cb dsp = nullptr;
};
Seen gSeen;
uint8_t gFunclist[57];
constexpr size_t kTransfer = 512;

int seen(int slot, std::vector<long long> ints = {}, const char *text = nullptr)
{
    gSeen.slot = slot;
    gSeen.ints = std::move(ints);
    gSeen.text = text ? text : "";
    return 1000 + slot; // a result no slot returns by chance
}

using M = avm_self_t;

avmanager_module_t recordingModule()
{
    avmanager_module_t m{};
    m.hal_init = [] { return seen(0); };
    m.hal_release = [] { return seen(1); };
    m.set_volume = [](M, int a, int b) { return seen(2, {a, b}); };
    m.get_volume = [](M, int a) { return seen(3, {a}); };
    m.set_mute = [](M, int a, int b) { return seen(4, {a, b}); };
    m.get_mute = [](M, int a) { return seen(5, {a}); };
    m.set_balance = [](M, int a) { return seen(6, {a}); };
    m.get_balance = [] { return seen(7); };
    m.get_hotplug = [](M, int a) { return seen(8, {a}); };
    m.set_soundMode = [](M, int a) { return seen(9, {a}); };
    m.get_soundMode = [] { return seen(10); };
    m.set_Treble = [](M, int a) { return seen(11, {a}); };
    m.get_Treble = [] { return seen(12); };
    m.set_Bass = [](M, int a) { return seen(13, {a}); };
    m.get_Bass = [] { return seen(14); };
    m.set_powerDown = [] { return seen(15); };
    m.usb_hdmiOut_init = [](M, int a, int b) { return seen(16, {a, b}); };
    m.usb_hdmiOut_deinit = [] { return seen(17); };
    m.connect_usb_hdmiOut = [] { return seen(18); };
    m.disconnect_usb_hdmiOut = [] { return seen(19); };
    m.usb_hdmiOut_packet_process = [](M, int type, int total, int length, int p1, int p2, int p3, int w, int h,
                                      const uint8_t *payload) {
        // The module reads up to the length rounded up to a whole transfer
        // (ASan would stop a read past the buffer lent).
        const size_t readable = length > 0 ? (static_cast<size_t>(length) + kTransfer - 1) / kTransfer * kTransfer : 0;
        gSeen.payload.assign(payload, payload + readable);
        return seen(20, {type, total, length, p1, p2, p3, w, h});
    };
    m.set_usbchannel = [](M, int a) { return seen(21, {a}); };
    m.send_cmd_to_dsp = [](M, const char *t) { return seen(22, {}, t); };
    m.set_camera_autotest = [](M, int a) { return seen(23, {a}); };
    m.get_camera_autotest_result = [] { return seen(24); };
    m.set_dsp_audio_out_mode = [](M, const char *t) { return seen(25, {}, t); };
    m.get_dsp_audio_out_mode = [] { return seen(26); };
    m.get_camera_isp_env = [](M, int32_t *pair) {
        pair[0] = 7;
        pair[1] = -8;
        return seen(27);
    };
    m.set_camera_status_callback = [](M, avmanager_camera_status_cb cb) {
        gSeen.camera = cb;
        seen(28);
    };
    m.set_dsp_spk_eq_mode = [](M, int a) { return seen(29, {a}); };
    m.get_dsp_spk_eq_mode = [] { return seen(30); };
    m.set_dsp_user_eq_param = [](M, int a, int b, int c, int d, int e) { return seen(31, {a, b, c, d, e}); };
    m.get_dsp_user_eq_gain = [](M, int a) { return seen(32, {a}); };
    m.setDspDoaReport = [](M, int a) { return seen(33, {a}); };
    m.getDspDoaReport = [] { return seen(34); };
    m.setSmartListenStatic = [](M, int a, int b) { return seen(35, {a, b}); };
    m.setSmartListenOff = [] { return seen(36); };
    m.setSmartListenDynamic = [] { return seen(37); };
    m.set_dsp_status_callback = [](M, avmanager_dsp_status_cb cb) {
        gSeen.dsp = cb;
        return seen(38);
    };
    m.audio_floor_wall_Parase_Init = [] { return seen(39); };
    m.set_cam_follow_sound_source_mode = [](M, int a) { return seen(40, {a}); };
    m.get_cam_follow_sound_source_mode = [] { return seen(41); };
    m.reset_cam_parameters = [] { return seen(42); };
    m.get_cam_logs = [](M, const char *t) { return seen(43, {}, t); };
    m.get_cam_limit_max_temperature = [] { return seen(44); };
    m.get_cam_current_temperature = [] { return seen(45); };
    m.get_cam_funclist = [] {
        seen(46);
        return gFunclist;
    };
    m.get_cam_support_black_screen = [] { return seen(47); };
    m.set_cam_auto_black_screen = [](M, int a) { return seen(48, {a}); };
    m.get_cam_auto_black_screen = [] { return seen(49); };
    return m;
}

const avmanager_module_t kRecorder = recordingModule();

// Parses `words` for the operation `name` and calls it on the recorder.
avmops::Result call(const char *name, const std::vector<std::string> &words, const avmops::Callbacks &callbacks = {})
{
    const avmops::Operation *op = avmops::findOperation(name);
    EXPECT_NE(op, nullptr) << name;
    if (!op)
        return {};
    avmops::Values values;
    std::string error;
    EXPECT_TRUE(avmops::parseArgs(*op, words, &values, &error)) << error;
    gSeen = Seen{};
    return avmops::invoke(*op, &kRecorder, values, callbacks);
}

std::string refusal(const char *name, const std::vector<std::string> &words)
{
    const avmops::Operation *op = avmops::findOperation(name);
    avmops::Values values;
    std::string error;
    EXPECT_FALSE(avmops::parseArgs(*op, words, &values, &error));
    return error;
}

int cameraCallback(int) { return 0; }
int dspCallback(int) { return 0; }

TEST(OperationTable, EveryEntryCallsTheSlotItNamesWithItsArguments)
{
    const auto &ops = avmops::operations();
    ASSERT_EQ(ops.size(), static_cast<size_t>(AVMANAGER_OPERATION_COUNT));
    std::set<std::string> names;
    for (size_t slot = 0; slot < ops.size(); ++slot) {
        const avmops::Operation &op = ops[slot];
        EXPECT_EQ(op.slot, static_cast<int>(slot));
        EXPECT_TRUE(names.insert(op.name).second) << op.name;
        EXPECT_NE(op.help[0], '\0') << op.name;
        // Arguments 11, 12, ... in order; texts "t0", "t1", ...
        std::vector<std::string> words;
        std::vector<long long> ints;
        for (const auto &arg : op.args) {
            if (arg.type == avmops::ArgType::Int) {
                ints.push_back(11 + static_cast<long long>(ints.size()));
                words.push_back(std::to_string(ints.back()));
            } else {
                words.push_back("t" + std::to_string(words.size()));
            }
        }
        avmops::Values values;
        std::string error;
        ASSERT_TRUE(avmops::parseArgs(op, words, &values, &error)) << error;
        gSeen = Seen{};
        const avmops::Result result = avmops::invoke(op, &kRecorder, values, {});
        EXPECT_EQ(gSeen.slot, static_cast<int>(slot)) << op.name << " calls another slot";
        EXPECT_EQ(gSeen.ints, ints) << op.name;
        if (slot != 28 && slot != 46) {
            EXPECT_EQ(result.text.substr(0, 4), std::to_string(1000 + slot)) << op.name;
        }
    }
}

TEST(OperationTable, NamesWithThePrefixAliasesAndSlotsFindTheSameEntry)
{
    EXPECT_EQ(avmops::findOperation("avmanager_set_volume"), avmops::findOperation("set_volume"));
    EXPECT_EQ(avmops::findOperation("init"), avmops::operationAtSlot(0));
    EXPECT_EQ(avmops::findOperation("release"), avmops::operationAtSlot(1));
    EXPECT_EQ(avmops::operationAtSlot(49)->name, std::string("get_cam_auto_black_screen"));
    EXPECT_EQ(avmops::findOperation("set_volum"), nullptr);
    EXPECT_EQ(avmops::findOperation("avmanager_"), nullptr);
    EXPECT_EQ(avmops::operationAtSlot(-1), nullptr);
    EXPECT_EQ(avmops::operationAtSlot(50), nullptr);
}

TEST(OperationTable, ResultsAsTextAndJson)
{
    avmops::Result r = call("set_volume", {"2", "40"});
    EXPECT_EQ(r.text, "1002");
    EXPECT_EQ(r.json, "1002");
    EXPECT_EQ(r.extra, "");
    r = call("get_camera_isp_env", {});
    EXPECT_EQ(r.text, "1027 (pair 7, -8)");
    EXPECT_EQ(r.extra, ",\"pair\":[7,-8]");
    std::memset(gFunclist, 0, sizeof gFunclist);
    gFunclist[0] = 2;
    gFunclist[1] = 0xA1;
    gFunclist[56] = 0xFF;
    r = call("get_cam_funclist", {});
    EXPECT_EQ(r.text.substr(0, 9), "02 a1 00 ");
    EXPECT_EQ(r.text.size(), 57u * 3 - 1);
    EXPECT_EQ(r.text.substr(r.text.size() - 2), "ff");
    EXPECT_EQ(r.json.substr(0, 10), "[2,161,0,0");
    EXPECT_EQ(r.json.substr(r.json.size() - 7), ",0,255]");
}

TEST(OperationTable, TheCallbackOperationsInstallTheFrontEndsFunctions)
{
    avmops::Callbacks callbacks;
    callbacks.cameraStatus = cameraCallback;
    callbacks.dspStatus = dspCallback;
    avmops::Result r = call("set_camera_status_callback", {}, callbacks);
    EXPECT_EQ(gSeen.camera, cameraCallback);
    EXPECT_EQ(r.text, "done");
    EXPECT_EQ(r.json, "null");
    call("set_dsp_status_callback", {}, callbacks);
    EXPECT_EQ(gSeen.dsp, dspCallback);
}

TEST(OperationTable, NumbersInDecimalHexAndTheWhole32BitRange)
{
    call("set_dsp_user_eq_param", {"0x7", "-0x1", "+20000", "-2147483648", "2147483647"});
    EXPECT_EQ(gSeen.ints, (std::vector<long long>{7, -1, 20000, INT32_MIN, INT32_MAX}));
    call("set_balance", {"010"});
    EXPECT_EQ(gSeen.ints, (std::vector<long long>{10})) << "no octal";
    call("set_volume", {"0X1F", "-0"});
    EXPECT_EQ(gSeen.ints, (std::vector<long long>{31, 0}));
}

TEST(OperationTable, ArgumentsTheToolCannotParseAreRefusedWithAReason)
{
    EXPECT_EQ(refusal("set_volume", {"2"}), "set_volume: missing <volume>, a number (usage: set_volume <channel> <volume>)");
    EXPECT_EQ(refusal("set_volume", {"2", "0x"}),
              "set_volume: <volume> must be a number, not \"0x\" (usage: set_volume <channel> <volume>)");
    EXPECT_EQ(refusal("set_volume", {"2", ""}),
              "set_volume: <volume> must be a number, not \"\" (usage: set_volume <channel> <volume>)");
    EXPECT_EQ(refusal("set_volume", {"2", "1e3"}),
              "set_volume: <volume> must be a number, not \"1e3\" (usage: set_volume <channel> <volume>)");
    EXPECT_EQ(refusal("set_volume", {"2", "2147483648"}),
              "set_volume: <volume> 2147483648 is out of range -2147483648..2147483647 "
              "(usage: set_volume <channel> <volume>)");
    EXPECT_EQ(refusal("set_volume", {"2", "-2147483649"}),
              "set_volume: <volume> -2147483649 is out of range -2147483648..2147483647 "
              "(usage: set_volume <channel> <volume>)");
    EXPECT_EQ(refusal("set_volume", {"2", "40", "1"}),
              "set_volume: unexpected argument \"1\" (usage: set_volume <channel> <volume>)");
    EXPECT_EQ(refusal("get_balance", {"1"}), "get_balance: unexpected argument \"1\" (usage: get_balance)");
    EXPECT_EQ(refusal("get_cam_logs", {}),
              "get_cam_logs: missing <directory>, text (usage: get_cam_logs <directory>)");
}

TEST(OperationTable, ALastTextTakesTheRestOfTheWords)
{
    call("send_cmd_to_dsp", {"SND_PLAY=0,1000", "", "x"});
    EXPECT_EQ(gSeen.slot, 22);
    EXPECT_EQ(gSeen.text, "SND_PLAY=0,1000  x");
    call("get_cam_logs", {"/data/with blank"});
    EXPECT_EQ(gSeen.text, "/data/with blank");
}

TEST(OperationTable, APacketsPayloadIsLentReadableToItsLastWholeTransfer)
{
    // 5 bytes typed, a length of 1000: two transfers' worth, zero after the text.
    call("usb_hdmiOut_packet_process", {"1", "1000", "1000", "1", "2", "3", "1920", "1080", "ab\\x00\\xffc"});
    ASSERT_EQ(gSeen.payload.size(), 2 * kTransfer);
    EXPECT_EQ(std::vector<uint8_t>(gSeen.payload.begin(), gSeen.payload.begin() + 6),
              (std::vector<uint8_t>{'a', 'b', 0, 0xff, 'c', 0}));
    for (size_t i = 5; i < gSeen.payload.size(); ++i)
        ASSERT_EQ(gSeen.payload[i], 0) << i;
    // The longest length the table takes, and a length the module refuses.
    call("usb_hdmiOut_packet_process", {"1", "0", "1048576", "0", "0", "0", "0", "0", "x"});
    EXPECT_EQ(gSeen.payload.size(), 1048576u);
    call("usb_hdmiOut_packet_process", {"1", "0", "512001", "0", "0", "0", "0", "0", "x"});
    EXPECT_EQ(gSeen.ints[2], 512001);
    call("usb_hdmiOut_packet_process", {"1", "0", "-5", "0", "0", "0", "0", "0", ""});
    EXPECT_EQ(gSeen.ints[2], -5);
    EXPECT_EQ(refusal("usb_hdmiOut_packet_process", {"1", "0", "1048577", "0", "0", "0", "0", "0", "x"}),
              "usb_hdmiOut_packet_process: <length> 1048577 is out of range -2147483648..1048576 (usage: "
              "usb_hdmiOut_packet_process <type> <total> <length> <p1> <p2> <p3> <width> <height> <payload>)");
}

TEST(OperationTable, UsageAndArgumentLinesComeFromTheEntry)
{
    const avmops::Operation &op = *avmops::findOperation("set_dsp_user_eq_param");
    EXPECT_EQ(avmops::usage(op), "set_dsp_user_eq_param <index> <type> <freq> <gain> <q>");
    const auto lines = avmops::argumentLines(op);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[2], "<freq>  20..20000 Hz");
    EXPECT_TRUE(avmops::argumentLines(*avmops::findOperation("get_balance")).empty());
}

TEST(OperationText, NumbersAtTheEdgesOf64Bits)
{
    long long v = 0;
    EXPECT_EQ(avmops::parseNumber("-9223372036854775808", &v), avmops::NumberError::None);
    EXPECT_EQ(v, INT64_MIN);
    EXPECT_EQ(avmops::parseNumber("9223372036854775807", &v), avmops::NumberError::None);
    EXPECT_EQ(v, INT64_MAX);
    EXPECT_EQ(avmops::parseNumber("9223372036854775808", &v), avmops::NumberError::OutOfRange);
    EXPECT_EQ(avmops::parseNumber("0x10000000000000000", &v), avmops::NumberError::OutOfRange);
    EXPECT_EQ(avmops::parseNumber("99999999999999999999z", &v), avmops::NumberError::NotANumber);
    EXPECT_EQ(avmops::parseNumber("-", &v), avmops::NumberError::NotANumber);
    EXPECT_EQ(avmops::parseNumber(" 1", &v), avmops::NumberError::NotANumber);
    long small = 0;
    EXPECT_TRUE(avmops::parseInt("-12", &small));
    EXPECT_EQ(small, -12);
    EXPECT_FALSE(avmops::parseInt("12ms", &small));
}

TEST(OperationText, EscapesAndJsonStrings)
{
    EXPECT_EQ(avmops::unescape("a\\0b\\n\\r\\t\\s\\\\\\x41\\xZ1\\"), std::string("a\0b\n\r\t \\AxZ1\\", 13));
    EXPECT_EQ(avmops::jsonString("say \"hi\"\\\n\x01\xc3"), "\"say \\\"hi\\\"\\\\\\n\\u0001\\u00c3\"");
}

} // namespace
