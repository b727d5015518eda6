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
    long baud = 0;
    if (sub == "rate" && args.size() == 2 && parseInt(args[1], &baud) && baud >= 0) {
        dsp.setLineRate(static_cast<unsigned>(baud));
        return true;
    }
    return false;
}

bool dspFileCommands(sim::DspFileStore &files, const Args &args)
{
    if (args.size() == 1 && args[0] == "reboot") {
        files.reboot();
        return true;
    }
    if (args.size() == 1 && args[0] == "log") {
        for (const auto &command : files.fileCommands())
            consolePrint("  " + command);
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

bool ptzCommands(sim::PtzCameraModel &ptz, const Args &args)
{
    long a = 0;
    long b = 0;
    if (args.size() == 1 && args[0] == "open") {
        ptz.raiseOpen();
        return true;
    }
    if (args.size() == 1 && args[0] == "close") {
        ptz.raiseClose();
        return true;
    }
    if (args.size() == 2 && args[0] == "temp" && parseInt(args[1], &a) && a >= 0 && a <= 255) {
        ptz.setCurrentTemperature(static_cast<uint8_t>(a));
        return true;
    }
    if (args.size() == 3 && args[0] == "angle" && parseInt(args[1], &a) && parseInt(args[2], &b) &&
        a >= 0 && a <= 255 && b >= 0 && b <= 255) {
        ptz.raiseAngleReport(static_cast<uint8_t>(a), static_cast<uint8_t>(b));
        return true;
    }
    bool on = false;
    if (args.size() == 2 && args[0] == "silent" && onOff(args, 1, &on)) {
        ptz.setSilent(on);
        return true;
    }
    if (args.size() == 1 && args[0] == "frames") {
        consolePrint("ptz received " + std::to_string(ptz.frameCount()) + " frame(s)");
        return true;
    }
    return false;
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

} // namespace

void buildModels(sim::Board &board, ModelSet &models)
{
    auto &dsp = models.add("dsp", std::make_unique<sim::DspModel>(board), ModelSet::Commands<sim::DspModel>(dspCommands),
                           "dsp say <text> | log | clear | silent on|off | garbage on|off | rate <baud>");
    models.add("dspfs", std::make_unique<sim::DspFileStore>(dsp), ModelSet::Commands<sim::DspFileStore>(dspFileCommands),
               "dspfs reboot | log");
    models.add("audio", std::make_unique<sim::DspAudio>(dsp), ModelSet::Commands<sim::DspAudio>(dspAudioCommands),
               "audio version <text> | doa <angle> | state");
    models.add("uac", std::make_unique<sim::UacMixer>(board), ModelSet::Commands<sim::UacMixer>(uacCommands),
               "uac state | volume <value> | calls");
    models.add("ptz", std::make_unique<sim::PtzCameraModel>(board), ModelSet::Commands<sim::PtzCameraModel>(ptzCommands),
               "ptz open | close | temp <celsius> | angle <start> <end> | silent on|off | frames");
    models.add("amp", std::make_unique<sim::AmpModel>(board, sim::AmpFitting::Acm8625),
               ModelSet::Commands<sim::AmpModel>(ampCommands), "amp state | fitting acm8625|ad82120|none");
    // Further peripherals: one models.add(...) line each, here. A model
    // named "ptz" turns the camera feature switch on by default.
}

} // namespace console
