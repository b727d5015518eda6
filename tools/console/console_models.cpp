/*
 * The peripheral models the console puts on its board, and their console
 * commands. Adding a model is one models.add(...) line in buildModels().
 */
#include <cstdio>
#include <cstdlib>

#include "console.h"
#include "sim/amp_model.h"
#include "sim/dsp_audio_model.h"
#include "sim/dsp_file_store.h"
#include "sim/dsp_model.h"
#include "sim/ptz_camera_model.h"
#include "sim/uac_mixer_model.h"

namespace console {

ModelSet::~ModelSet()
{
    // Features that hang on a model were added after it: drop them first.
    while (!entries_.empty())
        entries_.pop_back();
}

bool ModelSet::has(const std::string &name) const
{
    for (const auto &entry : entries_)
        if (entry.name == name)
            return true;
    return false;
}

bool ModelSet::command(const std::string &name, const Args &args) const
{
    for (const auto &entry : entries_)
        if (entry.name == name && entry.command)
            return entry.command(args);
    return false;
}

std::vector<std::string> ModelSet::helpLines() const
{
    std::vector<std::string> lines;
    for (const auto &entry : entries_)
        if (entry.command)
            lines.push_back(entry.help);
    return lines;
}

std::vector<std::string> ModelSet::names() const
{
    std::vector<std::string> out;
    for (const auto &entry : entries_)
        out.push_back(entry.name);
    return out;
}

namespace {

// Joins args[from..] with single spaces (the text of "dsp say ...").
std::string joinFrom(const Args &args, size_t from)
{
    std::string out;
    for (size_t i = from; i < args.size(); ++i) {
        if (i > from)
            out += ' ';
        out += args[i];
    }
    return out;
}

bool onOff(const Args &args, size_t index, bool *value)
{
    if (args.size() <= index)
        return false;
    if (args[index] == "on" || args[index] == "1") {
        *value = true;
        return true;
    }
    if (args[index] == "off" || args[index] == "0") {
        *value = false;
        return true;
    }
    return false;
}

bool dspCommands(sim::DspModel &dsp, const Args &args)
{
    if (args.empty())
        return false;
    const std::string &sub = args[0];
    if (sub == "say" && args.size() >= 2) {
        dsp.send(unescape(joinFrom(args, 1)));
        return true;
    }
    if (sub == "log") {
        const auto commands = dsp.commands();
        consolePrint("dsp received " + std::to_string(commands.size()) + " command(s)");
        for (const auto &command : commands)
            consolePrint("  \"" + sim::renderBytes(reinterpret_cast<const uint8_t *>(command.data()),
                                                   command.size()) + "\"");
        return true;
    }
    if (sub == "clear") {
        dsp.clearCommands();
        return true;
    }
    bool on = false;
    if (sub == "silent" && onOff(args, 1, &on)) {
        dsp.setSilent(on);
        return true;
    }
    if (sub == "garbage" && onOff(args, 1, &on)) {
        dsp.setGarbage(on);
        return true;
    }
    if (sub == "noise" && onOff(args, 1, &on)) {
        dsp.setNoise(on);
        return true;
    }
    if (sub == "split" && onOff(args, 1, &on)) {
        dsp.setSplitAnswers(on);
        return true;
    }
    long baud = 0;
    if (sub == "rate" && args.size() == 2 && parseInt(args[1], &baud) && baud >= 0) {
        dsp.setLineRate(static_cast<unsigned>(baud));
        return true;
    }
    return false;
}

// The restores ended when the DSP last restarted: a wait looks for one
// after it.
uint64_t gRestoresAtRestart = 0;

bool dspFileCommands(sim::DspFileStore &files, const Args &args)
{
    if (args.size() == 1 && args[0] == "reboot") {
        gRestoresAtRestart = restoresEnded();
        files.reboot();
        return true;
    }
    if (args.size() == 1 && args[0] == "forget") {
        // A DSP without its configuration copy: the next restore sends the
        // whole bundle.
        gRestoresAtRestart = restoresEnded();
        files.removeFile(sim::kDspConfigPath);
        files.reboot();
        return true;
    }
    long ms = 0;
    if (args.size() == 2 && args[0] == "wait" && parseInt(args[1], &ms) && ms > 0) {
        // Until the module's restore that the DSP's last restart (or
        // start-up) began has ended, so a script waits for the upgrade and
        // the restore rather than for a time that a busy machine may
        // overrun: a restart during the restore would go unheard. Whether
        // the DSP then holds its copy is said, not waited for: an upgrade
        // that failed in both passes is not tried again until the next
        // restart.
        if (!restoresWatched()) {
            consolePrint("dspfs wait: the module's restores are not seen here (--no-module)");
            return true;
        }
        const bool ended =
            sim::waitUntil([] { return restoresEnded() > gRestoresAtRestart; }, std::chrono::milliseconds(ms));
        if (!ended)
            consolePrint("no restore ended after " + args[1] + " ms");
        else if (files.file(sim::kDspConfigPath))
            consolePrint("configuration copy held, restore ended");
        else
            consolePrint("restore ended without a configuration copy");
        return true;
    }
    if (args.size() == 1 && args[0] == "log") {
        for (const auto &command : files.fileCommands())
            consolePrint("  " + command);
        return true;
    }
    if (args.size() == 1 && args[0] == "files") {
        const auto copy = files.file(sim::kDspConfigPath);
        if (copy)
            consolePrint(std::string(sim::kDspConfigPath) + " " + std::to_string(copy->size()) + " bytes, md5 " +
                         sim::dspMd5Hex(*copy));
        else
            consolePrint(std::string(sim::kDspConfigPath) + " absent");
        return true;
    }
    long value = 0;
    bool on = false;
    if (args.size() == 3 && args[0] == "fault" && args[1] == "reject" && parseInt(args[2], &value) && value >= 0) {
        files.rejectChunkAt(static_cast<uint32_t>(value));
        return true;
    }
    if (args.size() == 3 && args[0] == "fault" && args[1] == "repeat" && onOff(args, 2, &on)) {
        files.setRepeatOffset(on);
        return true;
    }
    if (args.size() == 3 && args[0] == "fault" && args[1] == "silent" && onOff(args, 2, &on)) {
        files.setSilent(on);
        return true;
    }
    return false;
}

bool dspAudioCommands(sim::DspAudio &audio, const Args &args)
{
    long value = 0;
    if (args.size() >= 2 && args[0] == "version") {
        audio.announceVersion(joinFrom(args, 1));
        return true;
    }
    if (args.size() == 2 && args[0] == "doa" && parseInt(args[1], &value)) {
        audio.raiseDoa(static_cast<int>(value));
        return true;
    }
    if (args.size() == 1 && args[0] == "state") {
        char line[256];
        std::snprintf(line, sizeof line,
                      "main %.2f dB%s, spdif %.2f dB, balance %.2f/%.2f, route %s, speaker eq \"%s\", doa %s",
                      audio.mainDb(), audio.mainMuted() ? " (muted)" : "", audio.spdifDb(),
                      audio.balanceLeft(), audio.balanceRight(), audio.audioOutRoute().c_str(),
                      audio.speakerEqMode().c_str(), audio.doaReporting() ? "on" : "off");
        consolePrint(line);
        return true;
    }
    return false;
}

bool uacCommands(sim::UacMixer &mixer, const Args &args)
{
    long value = 0;
    if (args.size() == 1 && args[0] == "state") {
        consolePrint("switch " + std::to_string(mixer.switchValue()) + ", volume " +
                     std::to_string(mixer.volume()));
        return true;
    }
    if (args.size() == 2 && args[0] == "volume" && parseInt(args[1], &value)) {
        mixer.setVolume(value);
        return true;
    }
    if (args.size() == 1 && args[0] == "calls") {
        for (const auto &call : mixer.calls())
            consolePrint(std::string("  ") + (call.write ? "write" : "read") + " numid " +
                         std::to_string(call.numid) + " = " + std::to_string(call.value));
        return true;
    }
    return false;
}

// Parses args[from..] as bytes 0..255.
bool parseBytes(const Args &args, size_t from, std::vector<uint8_t> *bytes)
{
    long v = 0;
    for (size_t i = from; i < args.size(); ++i) {
        if (!parseInt(args[i], &v) || v < 0 || v > 255)
            return false;
        bytes->push_back(static_cast<uint8_t>(v));
    }
    return true;
}

bool ptzCommands(sim::PtzCameraModel &ptz, const Args &args)
{
    if (args.empty())
        return false;
    const std::string &sub = args[0];
    std::vector<uint8_t> b;
    const bool bytesOk = parseBytes(args, 1, &b);
    // Notifications and questions the camera raises.
    if (args.size() == 1 && sub == "open") {
        ptz.raiseOpen();
        return true;
    }
    if (args.size() == 1 && sub == "close") {
        ptz.raiseClose();
        return true;
    }
    if (sub == "angle" && bytesOk && b.size() == 2) {
        ptz.raiseAngleReport(b[0], b[1]);
        return true;
    }
    if (sub == "doaset" && bytesOk && (b.size() == 1 || b.size() == 2)) {
        ptz.raiseDoaStatusSet(b[0], b.size() == 2 ? b[1] : 1);
        return true;
    }
    if (args.size() == 1 && sub == "askmodel") {
        ptz.askProductModel();
        return true;
    }
    if (args.size() == 1 && sub == "askdoa") {
        ptz.askDoaStatus();
        return true;
    }
    // What the camera answers next.
    if (sub == "temp" && bytesOk && b.size() == 1) {
        ptz.setCurrentTemperature(b[0]);
        return true;
    }
    if (sub == "maxtemp" && bytesOk && b.size() == 1) {
        ptz.setMaxTemperature(b[0]);
        return true;
    }
    if (sub == "funclist" && bytesOk) {
        ptz.setFunclist(b);
        return true;
    }
    if (sub == "autotest" && bytesOk) {
        ptz.setAutotestBytes(b);
        return true;
    }
    if (sub == "blackscreen" && bytesOk && b.size() == 2) {
        ptz.setSupportBlackScreen(b[0]);
        ptz.setAutoBlackScreen(b[1]);
        return true;
    }
    if (sub == "eptz" && bytesOk && b.size() == 2) {
        ptz.setElectronicPtzStatus(b[0]);
        ptz.setElectronicPtzMode(b[1]);
        return true;
    }
    long first = 0;
    long second = 0;
    long third = 0;
    if (sub == "isp" && args.size() == 4 && parseInt(args[1], &first) && parseInt(args[2], &second) &&
        parseInt(args[3], &third) && first >= 0 && first <= 255) {
        ptz.setIspEnv(static_cast<uint8_t>(first), static_cast<uint32_t>(second), static_cast<uint32_t>(third));
        return true;
    }
    // Faults.
    bool on = false;
    if (args.size() == 2 && sub == "silent" && onOff(args, 1, &on)) {
        ptz.setSilent(on);
        return true;
    }
    if (args.size() == 1 && (sub == "unplug" || sub == "replug")) {
        ptz.setUnplugged(sub == "unplug");
        return true;
    }
    if (args.size() == 3 && sub == "fault" && onOff(args, 2, &on)) {
        if (args[1] == "checksum")
            ptz.setBadChecksum(on);
        else if (args[1] == "len57")
            ptz.setLength57(on);
        else if (args[1] == "split")
            ptz.setSplitFrames(on);
        else
            return false;
        return true;
    }
    long ms = 0;
    if (args.size() == 2 && sub == "delay" && parseInt(args[1], &ms) && ms >= 0) {
        ptz.setReplyDelay(std::chrono::milliseconds(ms));
        return true;
    }
    // What the camera has seen.
    if (args.size() == 1 && sub == "frames") {
        consolePrint("ptz received " + std::to_string(ptz.frameCount()) + " frame(s)");
        return true;
    }
    if (args.size() == 1 && sub == "state") {
        const auto model = ptz.modelAnswer();
        consolePrint("usb channel " + std::to_string(ptz.usbChannel()) + ", autotest " +
                     std::to_string(ptz.autotestMode()) + ", smart-listen report " +
                     std::to_string(ptz.smartListenReport()) + ", auto black screen " +
                     std::to_string(ptz.autoBlackScreen()) + ", electronic ptz " +
                     std::to_string(ptz.electronicPtzStatus()) + "/" + std::to_string(ptz.electronicPtzMode()) +
                     ", factory resets " + std::to_string(ptz.factoryResets()) + ", model answer \"" +
                     (model ? *model : std::string("-")) + "\", doa answer " + std::to_string(ptz.doaStatusAnswer()));
        return true;
    }
    return false;
}

std::string hex2(unsigned value)
{
    char text[8];
    std::snprintf(text, sizeof text, "%02x", value & 0xFFu);
    return text;
}

bool ampCommands(sim::AmpModel &amp, const Args &args)
{
    if (args.size() == 1 && args[0] == "state") {
        const bool acm = amp.fitting() == sim::AmpFitting::Acm8625;
        const bool ad = amp.fitting() == sim::AmpFitting::Ad82120;
        if (acm || ad) {
            for (uint8_t addr : acm ? std::vector<uint8_t>{sim::AmpModel::kAcmStereo, sim::AmpModel::kAcmMono}
                                    : std::vector<uint8_t>{sim::AmpModel::kAdMain, sim::AmpModel::kAdSub})
                consolePrint(amp.describe(addr));
        } else {
            consolePrint("no amplifiers fitted");
        }
        return true;
    }
    long n = 0;
    if (args.size() == 1 && args[0] == "log") {
        for (const auto &access : amp.accesses())
            consolePrint(std::string("  ") + (access.write ? "write" : "read ") + " 0x" + hex2(access.addr) +
                         " reg 0x" + hex2(access.reg) + " = 0x" + hex2(access.value) + (access.acked ? "" : " (refused)"));
        return true;
    }
    if (args.size() == 2 && args[0] == "fail" && parseInt(args[1], &n) && n >= 0) {
        amp.failEvery(static_cast<unsigned>(n));
        return true;
    }
    if (args.size() == 2 && args[0] == "fitting") {
        if (args[1] == "acm8625")
            amp.setFitting(sim::AmpFitting::Acm8625);
        else if (args[1] == "ad82120")
            amp.setFitting(sim::AmpFitting::Ad82120);
        else if (args[1] == "none")
            amp.setFitting(sim::AmpFitting::None);
        else
            return false;
        return true;
    }
    return false;
}

// The made-up amplifier tuning files and stereo-enhancer ini, from their
// one generator.
void installTuningFiles(sim::Board &board)
{
    const std::string cmd = std::string("python3 '") + AVM_SOURCE_DIR + "/scripts/gen-tuning-files' '" + board.root() + "'";
    if (std::system(cmd.c_str()) != 0)
        consolePrint("cannot install the tuning files: " + cmd);
}

} // namespace

void buildModels(sim::Board &board, ModelSet &models)
{
    auto &dsp = models.add("dsp", std::make_unique<sim::DspModel>(board), ModelSet::Commands<sim::DspModel>(dspCommands),
                           "dsp say <text> | log | clear | silent on|off | garbage on|off | noise on|off | split on|off | "
                           "rate <baud>");
    auto &audio = models.add("audio", std::make_unique<sim::DspAudio>(dsp),
                             ModelSet::Commands<sim::DspAudio>(dspAudioCommands),
                             "audio version <text> | doa <angle> | state");
    auto &files = models.add("dspfs", std::make_unique<sim::DspFileStore>(dsp),
                             ModelSet::Commands<sim::DspFileStore>(dspFileCommands),
                             "dspfs reboot | forget | wait <ms> | files | log | fault reject <offset> | fault repeat|silent on|off");
    // A DSP restart forgets every audio setting; the module restores them.
    files.addRebootHook([&audio] { audio.forgetSettings(); });
    sim::installConfigBundle(board);
    models.add("uac", std::make_unique<sim::UacMixer>(board), ModelSet::Commands<sim::UacMixer>(uacCommands),
               "uac state | volume <value> | calls");
    models.add("ptz", std::make_unique<sim::PtzCameraModel>(board), ModelSet::Commands<sim::PtzCameraModel>(ptzCommands),
               "ptz open | close | angle <start> <end> | doaset <status> [len] | askmodel | askdoa | temp <c> | "
               "maxtemp <c> | funclist <bytes> | autotest <bytes> | blackscreen <support> <auto> | "
               "eptz <status> <mode> | isp <first> <second> <third> | silent on|off | unplug | replug | "
               "fault checksum|len57|split on|off | delay <ms> | frames | state");
    models.add("amp", std::make_unique<sim::AmpModel>(board, sim::AmpFitting::Acm8625),
               ModelSet::Commands<sim::AmpModel>(ampCommands),
               "amp state | log | fail <n> | fitting acm8625|ad82120|none");
    installTuningFiles(board);
    addFigModels(board, models, &dsp);
    addUsbModels(board, models);
    addDetectModels(board, models, dsp);
    addFaultModels(board, models);
    // Further peripherals: one models.add(...) line each, here. A model
    // named "ptz" turns the camera feature switch on by default.
}

} // namespace console
