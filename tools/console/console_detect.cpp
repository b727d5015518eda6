/*
 * Device detection on the console's board: the USB camera (its sysfs entry,
 * its raw HID interface with the version it answers and the log files it
 * hands out, and for the cameras read through their USB descriptor a usbfs
 * device), and the microphones (the DSP's test answers and the power
 * switch). Commands attach and remove cameras, set what the camera and the
 * DSP answer, play the factory tool through the request properties, and
 * show what happened.
 */
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <cutils/properties.h>
#include <dlfcn.h>
#include <hardware/hardware.h>

#include "console.h"
#include "sim/dsp_mic_model.h"
#include "sim/dsp_model.h"
#include "sim/hid_camera_model.h"
#include "sim/mic_power_model.h"
#include "sim/usb_device_model.h"
#include "sim/usb_sysfs.h"

namespace console {

namespace {

constexpr int kDefaultRow = 3; // the dual x3m: hands out its logs
constexpr const char *kCameraEntry = "1-1";
constexpr const char *kRemoteLogDir = "/var/volatile/log/";
constexpr uint16_t kUsbCameraRelease = 0x0412;

// The camera as the board has it: a sysfs entry, the HID interface, and a
// usbfs device for the cameras whose version is their release number.
struct CameraRig {
    explicit CameraRig(sim::Board &b) : board(b), usb(b), hid(b, "/dev/hidraw0") {}
    // The module's HID channel is stopped before the camera goes: unplugged
    // first (the detection thread cannot start it again), then its receive
    // thread ended.
    ~CameraRig()
    {
        if (hid.plugged())
            hid.unplug();
        const hw_module_t *module = nullptr;
        if (hw_get_module(AVMANAGER_HARDWARE_MODULE_ID, &module) != 0 || !module || !module->dso)
            return;
        if (auto stop = reinterpret_cast<int (*)(void)>(dlsym(module->dso, "hal_hidraw_deinit")))
            stop();
        if (auto join = reinterpret_cast<int (*)(void)>(dlsym(module->dso, "joinHidThreadPool")))
            join();
    }

    sim::Board &board;
    sim::UsbSysfs usb;
    sim::HidCameraModel hid;
    std::unique_ptr<sim::UsbDevice> usbfs; // rows 5 and 7 only
    int row = -1;                          // attached row, -1: none
};

// The microphones: the DSP's test answers and the power switch.
struct MicRig {
    MicRig(sim::Board &board, sim::DspModel &dsp) : answers(dsp), power(board) {}

    sim::DspMicTest answers;
    sim::MicPowerSwitch power;
};

std::string prop(const std::string &key)
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(key.c_str(), value, "");
    return value;
}

void setProp(const std::string &key, const std::string &value)
{
    if (property_set(key.c_str(), value.c_str()) != 0)
        consolePrint("cannot set " + key);
}

std::string hex4(unsigned value)
{
    char text[8];
    std::snprintf(text, sizeof text, "%04x", value & 0xFFFFu);
    return text;
}

// Made-up log text of the given size.
std::string madeUpLog(const std::string &name, size_t size)
{
    std::string out;
    for (int line = 0; out.size() < size; ++line)
        out += "[" + std::to_string(100 + line) + ".000000] " + name + ": made-up line " + std::to_string(line) + "\n";
    out.resize(size);
    return out;
}

void attach(CameraRig &rig, int row)
{
    static const struct {
        uint16_t vid, pid;
        const char *name;
    } kRows[] = {
        {0x2E7D, 0x0502, "cam 3559"},       {0x2E7D, 0x0508, "cam 95828"},
        {0x2E7D, 0x0F4F, "cam x3m"},        {0x2E7D, 0x051A, "cam x3m dual"},
        {0x2E7D, 0x051B, "cam x3m single"}, {0x1BCF, 0x2680, "cam 2688"},
        {0x254A, 0x0C02, "cam smart 3559"}, {0x0BDA, 0x5876, "cam spca 2680"},
    };
    const auto &r = kRows[row];
    rig.usbfs.reset();
    rig.usb.attach(kCameraEntry, r.vid, r.pid, kUsbCameraRelease);
    rig.hid.setIds(r.vid, r.pid);
    if (!rig.hid.plugged())
        rig.hid.plug();
    if (row == 5 || row == 7) {
        sim::UsbDeviceDescription d;
        d.vendorId = r.vid;
        d.productId = r.pid;
        d.bcdDevice = kUsbCameraRelease;
        d.manufacturer = "Made-up Optics";
        d.product = r.name;
        sim::UsbInterface interface;
        interface.endpoints = {sim::UsbEndpoint{0x81, 0x02, 512, 0}, sim::UsbEndpoint{0x02, 0x02, 512, 0}};
        d.interfaces = {interface};
        rig.usbfs = std::make_unique<sim::UsbDevice>(rig.board, d, "camusb");
    }
    rig.row = row;
    consolePrint("attached " + std::string(r.name) + " (" + hex4(r.vid) + ":" + hex4(r.pid) + ") as " + kCameraEntry);
}

void remove(CameraRig &rig)
{
    rig.usb.remove(kCameraEntry);
    if (rig.hid.plugged())
        rig.hid.unplug();
    rig.usbfs.reset();
    rig.row = -1;
}

// What the console put on the camera: file name -> content.
std::map<std::string, std::string> gServed;

// The files a download left in <dir>/CamLogs, checked against what the
// camera holds.
void showFetched(const std::string &dir)
{
    const std::string logs = dir + "/CamLogs";
    std::error_code ec;
    if (!std::filesystem::is_directory(logs, ec)) {
        consolePrint(logs + ": no such directory");
        return;
    }
    for (const auto &entry : std::filesystem::directory_iterator(logs, ec)) {
        std::ifstream in(entry.path(), std::ios::binary);
        std::ostringstream bytes;
        bytes << in.rdbuf();
        const std::string name = entry.path().filename().string();
        auto served = gServed.find(name);
        const std::string got = bytes.str();
        // The camera sends whole reports and the module saves the padding
        // of the last one too.
        const bool padded = served != gServed.end() && got.size() > served->second.size() &&
                            got.compare(0, served->second.size(), served->second) == 0 &&
                            got.find_first_not_of('\0', served->second.size()) == std::string::npos;
        const std::string verdict =
            served == gServed.end()    ? "not put on the camera here"
            : served->second == got    ? "byte-exact"
            : padded                   ? std::to_string(served->second.size()) + " bytes as on the camera, then " +
                                 std::to_string(got.size() - served->second.size()) +
                                 " zero bytes of the last report"
                                       : "NOT as the camera has it";
        consolePrint("  " + name + " " + std::to_string(got.size()) + " bytes, " + verdict);
    }
}

bool onOff(const std::string &word, bool *on)
{
    if (word == "on" || word == "1")
        *on = true;
    else if (word == "off" || word == "0")
        *on = false;
    else
        return false;
    return true;
}

bool cameraCommands(CameraRig &rig, const Args &args)
{
    if (args.empty())
        return false;
    const std::string &sub = args[0];
    long value = 0;
    bool on = false;
    if (sub == "attach" && args.size() <= 2) {
        long row = kDefaultRow;
        if (args.size() == 2 && (!parseInt(args[1], &row) || row < 0 || row > 7))
            return false;
        attach(rig, static_cast<int>(row));
        return true;
    }
    if (sub == "remove" && args.size() == 1) {
        remove(rig);
        return true;
    }
    if (sub == "keyboard" && args.size() == 1) {
        rig.usb.attach("1-9", 0x046D, 0xC31C);
        return true;
    }
    if (sub == "list" && args.size() == 1) {
        for (const auto &entry : rig.usb.listing())
            consolePrint("  /sys/bus/usb/devices/" + entry);
        return true;
    }
    if (sub == "state" && args.size() == 1) {
        consolePrint(std::string("camera ") + (rig.row >= 0 ? "row " + std::to_string(rig.row) : "none") +
                     ", hid " + rig.hid.node() + " " + hex4(rig.hid.vid()) + ":" + hex4(rig.hid.pid()) +
                     (rig.hid.plugged() ? "" : " (unplugged)") + ", answers version \"" + rig.hid.version() + "\"");
        consolePrint("persist.vendor.cam.version = \"" + prop("persist.vendor.cam.version") + "\", " +
                     std::to_string(rig.hid.versionRequests()) + " version request(s), " +
                     std::to_string(rig.hid.fileRequests().size()) + " file request(s)");
        for (const auto &name : rig.hid.fileRequests())
            consolePrint("  asked for " + name);
        return true;
    }
    if (sub == "version" && args.size() >= 2) {
        std::string text = args[1];
        for (size_t i = 2; i < args.size(); ++i)
            text += " " + args[i];
        rig.hid.setVersion(text);
        return true;
    }
    if (sub == "file" && args.size() == 3 && parseInt(args[2], &value) && value >= 0) {
        const std::string content = madeUpLog(args[1], static_cast<size_t>(value));
        rig.hid.setFile(kRemoteLogDir + args[1], content);
        gServed[args[1]] = content;
        return true;
    }
    if (sub == "chunk" && args.size() == 2 && parseInt(args[1], &value) && value > 0) {
        rig.hid.setChunkSize(static_cast<size_t>(value));
        return true;
    }
    if (sub == "fetched" && args.size() == 2) {
        showFetched(args[1]);
        return true;
    }
    if (sub == "fault" && args.size() == 3 && onOff(args[2], &on)) {
        if (args[1] == "refuse")
            rig.hid.setRefuseAll(on);
        else if (args[1] == "wrongkind")
            rig.hid.setWrongKind(on);
        else if (args[1] == "silent")
            rig.hid.setSilent(on);
        else if (args[1] == "readerror")
            rig.hid.setReadError(on);
        else if (args[1] == "writeerror")
            rig.hid.setWriteError(on);
        else
            return false;
        return true;
    }
    if (sub == "unplug" && args.size() == 1) {
        rig.hid.unplug();
        return true;
    }
    if (sub == "plug" && args.size() == 1) {
        rig.hid.plug();
        return true;
    }
    return false;
}

void showMicState(const MicRig &rig)
{
    consolePrint("mic.hw.test.req = \"" + prop("mic.hw.test.req") + "\", mic.hw.test.ret = \"" +
                 prop("mic.hw.test.ret") + "\", persist.sys.offmic = \"" + prop("persist.sys.offmic") + "\"");
    std::string aux = "mic.hw.auxtest.num = \"" + prop("mic.hw.auxtest.num") + "\"";
    for (int i = 0; i < 4; ++i) {
        const std::string n = std::to_string(i);
        const std::string req = prop("mic.hw.auxtest" + n + ".req");
        const std::string ret = prop("mic.hw.auxtest" + n + ".ret");
        if (!req.empty() || !ret.empty())
            aux += ", aux " + n + " req \"" + req + "\" ret \"" + ret + "\"";
    }
    consolePrint(aux);
    consolePrint("counters: tests " + prop("persist.mic.test_num") + ", failures " + prop("persist.mic.fail_num") +
                 ", repeated failures " + prop("persist.mic.dual_fail_num"));
    std::string power = "power switch \"" + rig.power.current() + "\", written:";
    const auto writes = rig.power.writes();
    for (const auto &write : writes)
        power += " " + write.value + " (+" +
                 std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(write.when - writes[0].when).count()) +
                 " ms)";
    consolePrint(power);
}

bool micCommands(MicRig &rig, const Args &args)
{
    if (args.empty())
        return false;
    const std::string &sub = args[0];
    long a = 0;
    long b = 0;
    bool on = false;
    if (sub == "test" && args.size() == 1) {
        // What a factory tool does to ask for a microphone test.
        setProp("persist.sys.offmic", "true");
        setProp("mic.hw.test.req", "1");
        return true;
    }
    if (sub == "aux" && (args.size() == 2 || args.size() == 3) && parseInt(args[1], &a) && a >= 0 && a <= 3) {
        b = a + 1;
        if (args.size() == 3 && !parseInt(args[2], &b))
            return false;
        setProp("mic.hw.auxtest.num", std::to_string(b));
        setProp("mic.hw.auxtest" + std::to_string(a) + ".req", "1");
        return true;
    }
    if (sub == "result" && args.size() == 3 && parseInt(args[1], &a) && parseInt(args[2], &b) && b >= 0) {
        rig.answers.setMicResult(static_cast<int>(a), static_cast<unsigned>(b));
        return true;
    }
    if (sub == "auxresult" && args.size() == 3 && parseInt(args[1], &a) && a >= 0 && a <= 3 &&
        (args[2] == "pass" || args[2] == "fail")) {
        rig.answers.setAuxResult(static_cast<int>(a), args[2] == "pass");
        return true;
    }
    if (sub == "duration" && args.size() == 2 && parseInt(args[1], &a) && a >= 0) {
        rig.answers.setTestDuration(static_cast<int>(a));
        return true;
    }
    if (sub == "silent" && args.size() == 2 && onOff(args[1], &on)) {
        rig.answers.setTestsSilent(on);
        return true;
    }
    if (sub == "version" && args.size() >= 2) {
        std::string text = args[1];
        for (size_t i = 2; i < args.size(); ++i)
            text += " " + args[i];
        rig.answers.setVersion(text);
        return true;
    }
    if (sub == "monitor" && args.size() == 2) {
        // What the microphone monitor reports; its switch goes on.
        setProp("vendor.mic.test.monitor", "1");
        setProp("vendor.mic.test.ret", args[1]);
        return true;
    }
    if (sub == "record" && args.size() == 2 && onOff(args[1], &on)) {
        setProp("persist.mic.en_record_test", on ? "1" : "0");
        return true;
    }
    if (sub == "state" && args.size() == 1) {
        showMicState(rig);
        return true;
    }
    return false;
}

} // namespace

void addDetectModels(sim::Board &board, ModelSet &models, sim::DspModel &dsp)
{
    auto &camera = models.add("cam", std::make_unique<CameraRig>(board), ModelSet::Commands<CameraRig>(cameraCommands),
                              "cam attach [row 0..7] | remove | keyboard | list | state | version <text> | "
                              "file <name> <bytes> | chunk <bytes> | fetched <dir> | "
                              "fault refuse|wrongkind|silent|readerror|writeerror on|off | unplug | plug");
    // The board has the camera that hands out its logs, with two of them.
    attach(camera, kDefaultRow);
    cameraCommands(camera, {"file", "kmsg.log", "1500"});
    cameraCommands(camera, {"file", "ipcamera.log", "800"});
    models.add("mic", std::make_unique<MicRig>(board, dsp), ModelSet::Commands<MicRig>(micCommands),
               "mic test | aux <n> [count] | result <count> <bits> | auxresult <n> pass|fail | duration <queries> | "
               "silent on|off | version <text> | monitor <result> | record on|off | state");
}

} // namespace console
