/*
 * The operation table: every slot of the module record with its arguments,
 * help and call. Results are printed as the operation returned them.
 */
#include "operations.h"

#include <climits>
#include <cstdio>
#include <cstring>

namespace avmops {

namespace {

constexpr const char *kPrefix = "avmanager_";

// The camera's function list is a 57-byte slot: a length, then the list.
constexpr size_t kFunclistSize = 57;
// usb_hdmiOut_packet_process reads the payload by the length it is given,
// its last piece as a whole transfer of this size.
constexpr size_t kPacketTransfer = 512;
// The largest payload length the tools lend the module a buffer for: twice
// what the module accepts in one packet, so its own refusal can be tried.
constexpr long long kMaxPacketLength = 1 << 20;

Result number(long long value)
{
    const std::string text = std::to_string(value);
    return {text, text, ""};
}

// A zero-filled buffer holding the payload, readable up to the packet
// length rounded up to a whole transfer, as the operation needs it.
Result packetProcess(const Call &c)
{
    const std::string &payload = c.values.s(0);
    size_t size = payload.size();
    if (c.i(2) > 0 && static_cast<size_t>(c.i(2)) > size)
        size = static_cast<size_t>(c.i(2));
    const size_t transfers = size / kPacketTransfer + 1;
    std::vector<uint8_t> buffer(transfers * kPacketTransfer, 0);
    std::memcpy(buffer.data(), payload.data(), payload.size());
    return number(c.hal->usb_hdmiOut_packet_process(c.hal, c.i(0), c.i(1), c.i(2), c.i(3), c.i(4), c.i(5),
                                                    c.i(6), c.i(7), buffer.data()));
}

Result funclist(const Call &c)
{
    const uint8_t *list = c.hal->get_cam_funclist();
    if (!list)
        return {"null", "null", ""};
    Result result;
    result.json = "[";
    char hex[4];
    for (size_t i = 0; i < kFunclistSize; ++i) {
        std::snprintf(hex, sizeof hex, i ? " %02x" : "%02x", list[i]);
        result.text += hex;
        result.json += (i ? "," : "") + std::to_string(list[i]);
    }
    result.json += "]";
    return result;
}

Result ispEnv(const Call &c)
{
    int32_t pair[2] = {0, 0};
    const int value = c.hal->get_camera_isp_env(c.hal, pair);
    Result result = number(value);
    result.text += " (pair " + std::to_string(pair[0]) + ", " + std::to_string(pair[1]) + ")";
    result.extra = ",\"pair\":[" + std::to_string(pair[0]) + "," + std::to_string(pair[1]) + "]";
    return result;
}

constexpr ArgType I = ArgType::Int;
constexpr ArgType T = ArgType::Text;
constexpr ArgType B = ArgType::Bytes;

const Arg kChannel{"channel", I, "0=uac 1=spdif 2=main"};
const Arg kOnOff{"on", I, "1 on, 0 off"};

const std::vector<Operation> &table()
{
    static const std::vector<Operation> ops = {
        {0, "hal_init", "init", {},
         "start-up: camera pipe, speaker placement, DSP link, PTZ link, detection thread",
         [](const Call &c) { return number(c.hal->hal_init()); }},
        {1, "hal_release", "release", {},
         "release: stops the DSP link (waits up to 5 s for its receive thread) and closes the camera pipe",
         [](const Call &c) { return number(c.hal->hal_release()); }},
        {2, "set_volume", "", {kChannel, {"volume", I, "0..100"}}, "sets a volume; 1 done, 0 refused",
         [](const Call &c) { return number(c.hal->set_volume(c.hal, c.i(0), c.i(1))); }},
        {3, "get_volume", "", {kChannel}, "the stored volume (the channel is not looked at)",
         [](const Call &c) { return number(c.hal->get_volume(c.hal, c.i(0))); }},
        {4, "set_mute", "", {kChannel, {"mute", I, "1 mute, 0 unmute"}}, "mutes or unmutes a channel",
         [](const Call &c) { return number(c.hal->set_mute(c.hal, c.i(0), c.i(1))); }},
        {5, "get_mute", "", {kChannel}, "1 when the channel is muted (asks the DSP or the USB mixer)",
         [](const Call &c) { return number(c.hal->get_mute(c.hal, c.i(0))); }},
        {6, "set_balance", "", {{"balance", I, "0..100, 50 centre"}}, "sets the left/right balance",
         [](const Call &c) { return number(c.hal->set_balance(c.hal, c.i(0))); }},
        {7, "get_balance", "", {}, "the stored balance",
         [](const Call &c) { return number(c.hal->get_balance()); }},
        {8, "get_hotplug", "", {{"peripheral", I, "peripheral id the DSP is asked about"}},
         "hot-plug state the DSP reports, 0 without an answer",
         [](const Call &c) { return number(c.hal->get_hotplug(c.hal, c.i(0))); }},
        {9, "set_soundMode", "", {{"mode", I, "0..3 presets, 4 user mode"}}, "switches the sound mode",
         [](const Call &c) { return number(c.hal->set_soundMode(c.hal, c.i(0))); }},
        {10, "get_soundMode", "", {}, "the stored sound mode",
         [](const Call &c) { return number(c.hal->get_soundMode()); }},
        {11, "set_Treble", "", {{"treble", I, "0..100, 50 flat"}}, "sets the treble band",
         [](const Call &c) { return number(c.hal->set_Treble(c.hal, c.i(0))); }},
        {12, "get_Treble", "", {}, "the stored treble (30 outside the user mode)",
         [](const Call &c) { return number(c.hal->get_Treble()); }},
        {13, "set_Bass", "", {{"bass", I, "0..100, 50 flat"}}, "sets the bass band",
         [](const Call &c) { return number(c.hal->set_Bass(c.hal, c.i(0))); }},
        {14, "get_Bass", "", {}, "the stored bass (30 outside the user mode)",
         [](const Call &c) { return number(c.hal->get_Bass()); }},
        {15, "set_powerDown", "", {}, "powers the DSP down",
         [](const Call &c) { return number(c.hal->set_powerDown()); }},
        {16, "usb_hdmiOut_init", "", {{"vendor", I, "USB vendor id, e.g. 0x3c3c"}, {"product", I, "USB product id"}},
         "finds and claims the HDMI-out converter and starts its reader",
         [](const Call &c) { return number(c.hal->usb_hdmiOut_init(c.hal, c.i(0), c.i(1))); }},
        {17, "usb_hdmiOut_deinit", "", {}, "stops the converter's reader and lets it go",
         [](const Call &c) { return number(c.hal->usb_hdmiOut_deinit()); }},
        {18, "connect_usb_hdmiOut", "", {}, "connects the converter and waits for its acknowledgement",
         [](const Call &c) { return number(c.hal->connect_usb_hdmiOut()); }},
        {19, "disconnect_usb_hdmiOut", "", {}, "disconnects the converter",
         [](const Call &c) { return number(c.hal->disconnect_usb_hdmiOut()); }},
        {20, "usb_hdmiOut_packet_process", "",
         {{"type", I, ""}, {"total", I, "total length of the frame"},
          {"length", I, "payload bytes in this packet (the module takes at most 512000)", INT32_MIN, kMaxPacketLength},
          {"p1", I, ""}, {"p2", I, ""}, {"p3", I, ""}, {"width", I, ""}, {"height", I, ""},
          {"payload", B, "payload bytes (escapes \\0 \\xNN ...), zero-filled up to <length>"}},
         "sends one data packet to the converter",
         packetProcess},
        {21, "set_usbchannel", "", {{"channel", I, "USB channel told to the camera"}},
         "tells the camera the USB channel",
         [](const Call &c) { return number(c.hal->set_usbchannel(c.hal, c.i(0))); }},
        {22, "send_cmd_to_dsp", "", {{"command", T, "sent as it is (the DSP gets at most 511 characters)"}},
         "posts a raw DSP command",
         [](const Call &c) { return number(c.hal->send_cmd_to_dsp(c.hal, c.s(0))); }},
        {23, "set_camera_autotest", "", {{"mode", I, ""}}, "switches the camera's autotest",
         [](const Call &c) { return number(c.hal->set_camera_autotest(c.hal, c.i(0))); }},
        {24, "get_camera_autotest_result", "", {}, "the camera's autotest result",
         [](const Call &c) { return number(c.hal->get_camera_autotest_result()); }},
        {25, "set_dsp_audio_out_mode", "", {{"mode", T, "audio-out route as the DSP names it"}},
         "sets the audio-out route",
         [](const Call &c) { return number(c.hal->set_dsp_audio_out_mode(c.hal, c.s(0))); }},
        {26, "get_dsp_audio_out_mode", "", {}, "the audio-out route",
         [](const Call &c) { return number(c.hal->get_dsp_audio_out_mode()); }},
        {27, "get_camera_isp_env", "", {}, "the camera's ISP environment: the result and its pair",
         ispEnv},
        {28, "set_camera_status_callback", "", {},
         "installs a callback that prints each camera status (1 opened, 0 closed)",
         [](const Call &c) {
             c.hal->set_camera_status_callback(c.hal, c.callbacks.cameraStatus);
             return Result{"done", "null", ""};
         }},
        {29, "set_dsp_spk_eq_mode", "", {{"placement", I, "0=floor 1=wall"}},
         "sets the speaker placement (on a floor/wall product, reprograms the amplifiers)",
         [](const Call &c) { return number(c.hal->set_dsp_spk_eq_mode(c.hal, c.i(0))); }},
        {30, "get_dsp_spk_eq_mode", "", {}, "the stored speaker placement, 0 floor, 1 wall",
         [](const Call &c) { return number(c.hal->get_dsp_spk_eq_mode()); }},
        {31, "set_dsp_user_eq_param", "",
         {{"index", I, "band 0..7"}, {"type", I, "filter type 0..7"}, {"freq", I, "20..20000 Hz"},
          {"gain", I, "-60..60 dB"}, {"q", I, "1..10"}},
         "sets one equaliser band directly",
         [](const Call &c) {
             return number(c.hal->set_dsp_user_eq_param(c.hal, c.i(0), c.i(1), c.i(2), c.i(3), c.i(4)));
         }},
        {32, "get_dsp_user_eq_gain", "", {{"index", I, "band 0..7"}}, "a user-mode band's gain from its ini file",
         [](const Call &c) { return number(c.hal->get_dsp_user_eq_gain(c.hal, c.i(0))); }},
        {33, "setDspDoaReport", "", {kOnOff}, "turns the DSP's direction-of-arrival reports on or off",
         [](const Call &c) { return number(c.hal->setDspDoaReport(c.hal, c.i(0))); }},
        {34, "getDspDoaReport", "", {}, "1 when the DSP reports directions of arrival",
         [](const Call &c) { return number(c.hal->getDspDoaReport()); }},
        {35, "setSmartListenStatic", "", {{"start", I, "start angle"}, {"end", I, "end angle"}},
         "fixes the microphone pickup sector",
         [](const Call &c) { return number(c.hal->setSmartListenStatic(c.hal, c.i(0), c.i(1))); }},
        {36, "setSmartListenOff", "", {}, "pickup over the full half-circle, fixed",
         [](const Call &c) { return number(c.hal->setSmartListenOff()); }},
        {37, "setSmartListenDynamic", "", {}, "the camera steers the pickup",
         [](const Call &c) { return number(c.hal->setSmartListenDynamic()); }},
        {38, "set_dsp_status_callback", "", {},
         "installs a callback that prints each microphone status of the Fig DSP (1 on, 0 off)",
         [](const Call &c) { return number(c.hal->set_dsp_status_callback(c.hal, c.callbacks.dspStatus)); }},
        {39, "audio_floor_wall_Parase_Init", "", {}, "does nothing; returns 0",
         [](const Call &c) { return number(c.hal->audio_floor_wall_Parase_Init()); }},
        {40, "set_cam_follow_sound_source_mode", "", {{"mode", I, ""}}, "sets the camera's follow-the-speaker mode",
         [](const Call &c) { return number(c.hal->set_cam_follow_sound_source_mode(c.hal, c.i(0))); }},
        {41, "get_cam_follow_sound_source_mode", "", {}, "the camera's follow-the-speaker mode",
         [](const Call &c) { return number(c.hal->get_cam_follow_sound_source_mode()); }},
        {42, "reset_cam_parameters", "", {}, "resets the camera to its factory parameters",
         [](const Call &c) { return number(c.hal->reset_cam_parameters()); }},
        {43, "get_cam_logs", "", {{"directory", T, "the logs land in <directory>/CamLogs"}},
         "downloads the camera's log files over USB HID",
         [](const Call &c) { return number(c.hal->get_cam_logs(c.hal, c.s(0))); }},
        {44, "get_cam_limit_max_temperature", "", {}, "the camera's temperature limit",
         [](const Call &c) { return number(c.hal->get_cam_limit_max_temperature()); }},
        {45, "get_cam_current_temperature", "", {}, "the camera's temperature",
         [](const Call &c) { return number(c.hal->get_cam_current_temperature()); }},
        {46, "get_cam_funclist", "", {}, "the camera's 57-byte function list (null without it)", funclist},
        {47, "get_cam_support_black_screen", "", {}, "1 when the camera can black out its picture",
         [](const Call &c) { return number(c.hal->get_cam_support_black_screen()); }},
        {48, "set_cam_auto_black_screen", "", {kOnOff}, "switches the camera's automatic black screen",
         [](const Call &c) { return number(c.hal->set_cam_auto_black_screen(c.hal, c.i(0))); }},
        {49, "get_cam_auto_black_screen", "", {}, "the camera's automatic black screen",
         [](const Call &c) { return number(c.hal->get_cam_auto_black_screen()); }},
    };
    return ops;
}

const char *typeName(ArgType type)
{
    switch (type) {
    case ArgType::Int: return "a number";
    case ArgType::Text: return "text";
    case ArgType::Bytes: return "bytes";
    }
    return "";
}

// The words from `from` on, joined by single spaces.
std::string joinFrom(const std::vector<std::string> &words, size_t from)
{
    std::string out;
    for (size_t i = from; i < words.size(); ++i)
        out += (i > from ? " " : "") + words[i];
    return out;
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

const std::string &Values::s(size_t n) const
{
    static const std::string kNone;
    return n < texts.size() ? texts[n] : kNone;
}

const std::vector<Operation> &operations() { return table(); }

const Operation *findOperation(std::string_view name)
{
    if (name.starts_with(kPrefix))
        name.remove_prefix(std::strlen(kPrefix));
    for (const auto &op : table())
        if (name == op.name || (op.alias[0] && name == op.alias))
            return &op;
    return nullptr;
}

const Operation *operationAtSlot(long long slot)
{
    const auto &ops = table();
    return slot >= 0 && slot < static_cast<long long>(ops.size()) ? &ops[static_cast<size_t>(slot)] : nullptr;
}

std::string usage(const Operation &op)
{
    std::string line = op.name;
    for (const auto &arg : op.args)
        line += std::string(" <") + arg.name + ">";
    return line;
}

std::vector<std::string> argumentLines(const Operation &op)
{
    std::vector<std::string> lines;
    for (const auto &arg : op.args)
        if (arg.meaning[0])
            lines.push_back(std::string("<") + arg.name + ">  " + arg.meaning);
    return lines;
}

bool parseArgs(const Operation &op, const std::vector<std::string> &words, Values *values, std::string *error)
{
    *values = Values{};
    const auto fail = [&](const std::string &reason) {
        *error = std::string(op.name) + ": " + reason + " (usage: " + usage(op) + ")";
        return false;
    };
    size_t w = 0;
    for (size_t a = 0; a < op.args.size(); ++a) {
        const Arg &arg = op.args[a];
        const std::string name = std::string("<") + arg.name + ">";
        if (w >= words.size())
            return fail("missing " + name + ", " + typeName(arg.type));
        const std::string &word = words[w];
        if (arg.type == ArgType::Int) {
            long long value = 0;
            switch (parseNumber(word, &value)) {
            case NumberError::NotANumber:
                return fail(name + " must be a number, not \"" + word + "\"");
            case NumberError::OutOfRange:
                return fail(name + " " + word + " is out of range");
            case NumberError::None:
                break;
            }
            if (value < arg.min || value > arg.max)
                return fail(name + " " + word + " is out of range " + std::to_string(arg.min) + ".." +
                            std::to_string(arg.max));
            values->ints.push_back(static_cast<int32_t>(value));
            ++w;
            continue;
        }
        // The last argument takes the rest of the words: a command text may
        // hold blanks.
        std::string text = a + 1 == op.args.size() ? joinFrom(words, w) : word;
        w = a + 1 == op.args.size() ? words.size() : w + 1;
        values->texts.push_back(arg.type == ArgType::Bytes ? unescape(text) : text);
    }
    if (w < words.size())
        return fail("unexpected argument \"" + words[w] + "\"");
    return true;
}

Result invoke(const Operation &op, const avmanager_module_t *hal, const Values &values, const Callbacks &callbacks)
{
    return op.invoke(Call{hal, values, callbacks});
}

NumberError parseNumber(const std::string &text, long long *value)
{
    size_t i = 0;
    bool negative = false;
    if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        negative = text[i++] == '-';
    int base = 10;
    if (i + 1 < text.size() && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
        base = 16;
        i += 2;
    }
    if (i == text.size())
        return NumberError::NotANumber;
    // Accumulated as a magnitude with room for the most negative value.
    constexpr unsigned long long kLimit = static_cast<unsigned long long>(INT64_MAX) + 1;
    unsigned long long magnitude = 0;
    bool overflow = false;
    for (; i < text.size(); ++i) {
        const int digit = hexDigit(text[i]);
        if (digit < 0 || digit >= base)
            return NumberError::NotANumber;
        if (magnitude > (kLimit - static_cast<unsigned>(digit)) / static_cast<unsigned>(base))
            overflow = true;
        else
            magnitude = magnitude * static_cast<unsigned>(base) + static_cast<unsigned>(digit);
    }
    if (overflow || (!negative && magnitude == kLimit))
        return NumberError::OutOfRange;
    *value = negative ? static_cast<long long>(0 - magnitude) : static_cast<long long>(magnitude);
    return NumberError::None;
}

bool parseInt(const std::string &text, long *value)
{
    long long parsed = 0;
    if (parseNumber(text, &parsed) != NumberError::None || parsed < LONG_MIN || parsed > LONG_MAX)
        return false;
    *value = static_cast<long>(parsed);
    return true;
}

std::string unescape(const std::string &text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char c = text[++i];
        switch (c) {
        case '0': out += '\0'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 's': out += ' '; break;
        case 'x':
            if (i + 2 < text.size() && hexDigit(text[i + 1]) >= 0 && hexDigit(text[i + 2]) >= 0) {
                out += static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
                i += 2;
            } else {
                out += 'x';
            }
            break;
        default: out += c; break;
        }
    }
    return out;
}

std::string jsonString(std::string_view text)
{
    std::string out = "\"";
    char escaped[8];
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c >= 0x7f) {
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += ch;
        }
    }
    return out + "\"";
}

} // namespace avmops
