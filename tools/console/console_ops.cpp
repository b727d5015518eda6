/*
 * The module's operation table as console commands: each operation by its
 * name without the "avmanager_" prefix, arguments parsed from the command
 * line, called through the HMI slot exactly as the service would, result
 * printed.
 */
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "console.h"

namespace console {

namespace {

// Arguments of one call, split by kind in the order they were typed.
struct Parsed {
    std::vector<int> ints;
    std::vector<std::string> texts;
    int i(size_t n) const { return n < ints.size() ? ints[n] : 0; }
    const char *s(size_t n) const { return n < texts.size() ? texts[n].c_str() : ""; }
};

using Invoke = std::function<std::string(const avmanager_module_t *hal, const Parsed &p)>;

struct Entry {
    Operation op;
    Invoke invoke;
};

std::string num(long value) { return std::to_string(value); }

int printCameraStatus(int status)
{
    consolePrint("  [camera status callback] " + num(status));
    return 0;
}

int printDspStatus(int status)
{
    consolePrint("  [dsp status callback] " + num(status));
    return 0;
}

// usb_hdmiOut_packet_process reads the payload by the lengths it is given,
// its last piece as a whole 512-byte transfer; the console hands it a
// zero-filled buffer at least that large, rounded up to a multiple of 512.
std::string packetProcess(const avmanager_module_t *hal, const Parsed &p)
{
    constexpr size_t kTransfer = 512;
    const std::string payload = unescape(p.s(0));
    size_t size = payload.size();
    for (int n : {p.i(1), p.i(2)})
        if (n > 0 && static_cast<size_t>(n) > size)
            size = static_cast<size_t>(n);
    std::vector<uint8_t> buffer((size / kTransfer + 1) * kTransfer, 0);
    std::memcpy(buffer.data(), payload.data(), payload.size());
    return num(hal->usb_hdmiOut_packet_process(hal, p.i(0), p.i(1), p.i(2), p.i(3), p.i(4), p.i(5),
                                               p.i(6), p.i(7), buffer.data()));
}

std::string funclist(const avmanager_module_t *hal, const Parsed &)
{
    const uint8_t *list = hal->get_cam_funclist();
    if (!list)
        return "null";
    // The camera's function list is a 57-byte slot: a length, then the list.
    constexpr size_t kFunclistSize = 57;
    std::string out;
    char hex[4];
    for (size_t i = 0; i < kFunclistSize; ++i) {
        std::snprintf(hex, sizeof hex, i ? " %02x" : "%02x", list[i]);
        out += hex;
    }
    return out;
}

std::string ispEnv(const avmanager_module_t *hal, const Parsed &)
{
    int32_t pair[2] = {0, 0};
    const int result = hal->get_camera_isp_env(hal, pair);
    return num(result) + " (pair " + num(pair[0]) + ", " + num(pair[1]) + ")";
}

constexpr ArgKind I = ArgKind::Int;
constexpr ArgKind T = ArgKind::Text;

const std::vector<Entry> &table()
{
    static const std::vector<Entry> entries = {
        {{"hal_init", {}, ""}, [](auto h, auto &) { return num(h->hal_init()); }},
        {{"hal_release", {}, ""}, [](auto h, auto &) { return num(h->hal_release()); }},
        {{"set_volume", {I, I}, "<channel 0=uac 1=spdif 2=main> <volume>"},
         [](auto h, auto &p) { return num(h->set_volume(h, p.i(0), p.i(1))); }},
        {{"get_volume", {I}, "<channel>"}, [](auto h, auto &p) { return num(h->get_volume(h, p.i(0))); }},
        {{"set_mute", {I, I}, "<channel> <mute>"},
         [](auto h, auto &p) { return num(h->set_mute(h, p.i(0), p.i(1))); }},
        {{"get_mute", {I}, "<channel>"}, [](auto h, auto &p) { return num(h->get_mute(h, p.i(0))); }},
        {{"set_balance", {I}, "<balance>"}, [](auto h, auto &p) { return num(h->set_balance(h, p.i(0))); }},
        {{"get_balance", {}, ""}, [](auto h, auto &) { return num(h->get_balance()); }},
        {{"get_hotplug", {I}, "<peripheral>"}, [](auto h, auto &p) { return num(h->get_hotplug(h, p.i(0))); }},
        {{"set_soundMode", {I}, "<mode>"}, [](auto h, auto &p) { return num(h->set_soundMode(h, p.i(0))); }},
        {{"get_soundMode", {}, ""}, [](auto h, auto &) { return num(h->get_soundMode()); }},
        {{"set_Treble", {I}, "<treble>"}, [](auto h, auto &p) { return num(h->set_Treble(h, p.i(0))); }},
        {{"get_Treble", {}, ""}, [](auto h, auto &) { return num(h->get_Treble()); }},
        {{"set_Bass", {I}, "<bass>"}, [](auto h, auto &p) { return num(h->set_Bass(h, p.i(0))); }},
        {{"get_Bass", {}, ""}, [](auto h, auto &) { return num(h->get_Bass()); }},
        {{"set_powerDown", {}, ""}, [](auto h, auto &) { return num(h->set_powerDown()); }},
        {{"usb_hdmiOut_init", {I, I}, "<vendor id> <product id>"},
         [](auto h, auto &p) { return num(h->usb_hdmiOut_init(h, p.i(0), p.i(1))); }},
        {{"usb_hdmiOut_deinit", {}, ""}, [](auto h, auto &) { return num(h->usb_hdmiOut_deinit()); }},
        {{"connect_usb_hdmiOut", {}, ""}, [](auto h, auto &) { return num(h->connect_usb_hdmiOut()); }},
        {{"disconnect_usb_hdmiOut", {}, ""}, [](auto h, auto &) { return num(h->disconnect_usb_hdmiOut()); }},
        {{"usb_hdmiOut_packet_process", {I, I, I, I, I, I, I, I, T},
          "<type> <total len> <this len> <p1> <p2> <p3> <width> <height> <payload text>"},
         packetProcess},
        {{"set_usbchannel", {I}, "<channel>"}, [](auto h, auto &p) { return num(h->set_usbchannel(h, p.i(0))); }},
        {{"send_cmd_to_dsp", {T}, "<command text>"},
         [](auto h, auto &p) { return num(h->send_cmd_to_dsp(h, p.s(0))); }},
        {{"set_camera_autotest", {I}, "<mode>"},
         [](auto h, auto &p) { return num(h->set_camera_autotest(h, p.i(0))); }},
        {{"get_camera_autotest_result", {}, ""}, [](auto h, auto &) { return num(h->get_camera_autotest_result()); }},
        {{"set_dsp_audio_out_mode", {T}, "<mode text>"},
         [](auto h, auto &p) { return num(h->set_dsp_audio_out_mode(h, p.s(0))); }},
        {{"get_dsp_audio_out_mode", {}, ""}, [](auto h, auto &) { return num(h->get_dsp_audio_out_mode()); }},
        {{"get_camera_isp_env", {}, "(prints the out pair)"}, ispEnv},
        {{"set_camera_status_callback", {}, "(installs a printing callback)"},
         [](auto h, auto &) {
             h->set_camera_status_callback(h, printCameraStatus);
             return std::string("done");
         }},
        {{"set_dsp_spk_eq_mode", {I}, "<0=floor 1=wall>"},
         [](auto h, auto &p) { return num(h->set_dsp_spk_eq_mode(h, p.i(0))); }},
        {{"get_dsp_spk_eq_mode", {}, ""}, [](auto h, auto &) { return num(h->get_dsp_spk_eq_mode()); }},
        {{"set_dsp_user_eq_param", {I, I, I, I, I}, "<index> <type> <freq> <gain> <q>"},
         [](auto h, auto &p) { return num(h->set_dsp_user_eq_param(h, p.i(0), p.i(1), p.i(2), p.i(3), p.i(4))); }},
        {{"get_dsp_user_eq_gain", {I}, "<index>"},
         [](auto h, auto &p) { return num(h->get_dsp_user_eq_gain(h, p.i(0))); }},
        {{"setDspDoaReport", {I}, "<on>"}, [](auto h, auto &p) { return num(h->setDspDoaReport(h, p.i(0))); }},
        {{"getDspDoaReport", {}, ""}, [](auto h, auto &) { return num(h->getDspDoaReport()); }},
        {{"setSmartListenStatic", {I, I}, "<start angle> <end angle>"},
         [](auto h, auto &p) { return num(h->setSmartListenStatic(h, p.i(0), p.i(1))); }},
        {{"setSmartListenOff", {}, ""}, [](auto h, auto &) { return num(h->setSmartListenOff()); }},
        {{"setSmartListenDynamic", {}, ""}, [](auto h, auto &) { return num(h->setSmartListenDynamic()); }},
        {{"set_dsp_status_callback", {}, "(installs a printing callback)"},
         [](auto h, auto &) { return num(h->set_dsp_status_callback(h, printDspStatus)); }},
        {{"audio_floor_wall_Parase_Init", {}, ""},
         [](auto h, auto &) { return num(h->audio_floor_wall_Parase_Init()); }},
        {{"set_cam_follow_sound_source_mode", {I}, "<mode>"},
         [](auto h, auto &p) { return num(h->set_cam_follow_sound_source_mode(h, p.i(0))); }},
        {{"get_cam_follow_sound_source_mode", {}, ""},
         [](auto h, auto &) { return num(h->get_cam_follow_sound_source_mode()); }},
        {{"reset_cam_parameters", {}, ""}, [](auto h, auto &) { return num(h->reset_cam_parameters()); }},
        {{"get_cam_logs", {T}, "<directory>"}, [](auto h, auto &p) { return num(h->get_cam_logs(h, p.s(0))); }},
        {{"get_cam_limit_max_temperature", {}, ""},
         [](auto h, auto &) { return num(h->get_cam_limit_max_temperature()); }},
        {{"get_cam_current_temperature", {}, ""},
         [](auto h, auto &) { return num(h->get_cam_current_temperature()); }},
        {{"get_cam_funclist", {}, "(prints the 57-byte list)"}, funclist},
        {{"get_cam_support_black_screen", {}, ""},
         [](auto h, auto &) { return num(h->get_cam_support_black_screen()); }},
        {{"set_cam_auto_black_screen", {I}, "<on>"},
         [](auto h, auto &p) { return num(h->set_cam_auto_black_screen(h, p.i(0))); }},
        {{"get_cam_auto_black_screen", {}, ""}, [](auto h, auto &) { return num(h->get_cam_auto_black_screen()); }},
    };
    return entries;
}

} // namespace

const std::vector<Operation> &operations()
{
    static const std::vector<Operation> ops = [] {
        std::vector<Operation> out;
        for (const auto &entry : table())
            out.push_back(entry.op);
        return out;
    }();
    return ops;
}

bool parseInt(const std::string &text, long *value)
{
    if (text.empty())
        return false;
    errno = 0;
    char *end = nullptr;
    const long parsed = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0')
        return false;
    *value = parsed;
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
            if (i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
                std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
                out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
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

bool callOperation(const avmanager_module_t *hal, const std::string &name, const Args &args)
{
    for (const auto &entry : table()) {
        if (name != entry.op.name)
            continue;
        // A text argument that comes last takes the rest of the line.
        const auto &kinds = entry.op.args;
        Parsed parsed;
        size_t a = 0;
        for (size_t k = 0; k < kinds.size(); ++k) {
            if (a >= args.size()) {
                consolePrint("usage: " + name + " " + entry.op.note);
                return false;
            }
            if (kinds[k] == ArgKind::Int) {
                long value = 0;
                if (!parseInt(args[a], &value)) {
                    consolePrint("not a number: " + args[a]);
                    return false;
                }
                parsed.ints.push_back(static_cast<int>(value));
                ++a;
            } else if (k + 1 == kinds.size()) {
                std::string rest;
                for (; a < args.size(); ++a)
                    rest += (rest.empty() ? "" : " ") + args[a];
                parsed.texts.push_back(rest);
            } else {
                parsed.texts.push_back(args[a++]);
            }
        }
        if (a < args.size()) {
            consolePrint("usage: " + name + " " + entry.op.note);
            return false;
        }
        consolePrint("= " + entry.invoke(hal, parsed));
        return true;
    }
    return false;
}

} // namespace console
