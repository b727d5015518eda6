/*
 * The Fig DSP (secondary microphone processor) in the console: its model
 * on /dev/ttyS2 and the commands that start and stop the module's Fig link
 * and drive the model.
 *
 * /dev/ttyS2 carries the audio DSP too, and the two links are not meant to
 * hold the port at once. So "fig start" stops the module's main DSP link
 * (if it runs), puts the Fig model on the line and starts the Fig link;
 * "fig stop" stops the Fig link, puts the audio DSP model back and starts
 * the main DSP link again. The module's Fig operations are not in the HMI
 * table; the console finds them in the loaded module by name.
 */
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include <cutils/properties.h>
#include <hardware/hardware.h>

#include "avmanager/dsp/dsp_link.h"
#include "avmanager/fig/dsp_fig.h"
#include "console.h"
#include "sim/dsp_model.h"
#include "sim/fig_dsp_model.h"

namespace console {

namespace {

constexpr const char *kSerialNode = "/dev/ttyS2";
constexpr const char *kDspLink = "dsp";
// While the main DSP link stops, its receive thread waits for the port;
// a newline this often wakes it (above the port's 0.1 s inter-byte time).
constexpr auto kNudgeEvery = std::chrono::milliseconds(150);
// How long the console waits for the module to act on a microphone frame:
// a format switch writes more than a thousand amplifier registers, and a
// busy machine may take seconds for it.
constexpr auto kModuleActs = std::chrono::milliseconds(30000);

// The console's side of the Fig DSP: the model and the module's Fig link.
// Used from the console's command thread only.
class FigConsole {
public:
    FigConsole(sim::Board &board, sim::DspModel *dsp) : board_(board), dsp_(dsp), model_(board)
    {
        // The newest model takes the line; the audio DSP keeps it until
        // the Fig link starts.
        board_.selectSerialPeer(kSerialNode, kDspLink);
    }

    ~FigConsole()
    {
        // At exit: the Fig link stops; the main link stays as release left it.
        if (linkUp_ && find())
            call<int (*)()>("dspFig_deinit")();
    }

    sim::FigDspModel &model() { return model_; }
    bool linkUp() const { return linkUp_; }

    bool start()
    {
        if (linkUp_) {
            consolePrint("the Fig link runs already");
            return true;
        }
        if (!find())
            return true;
        auto *mainLink = symbol<DspHalDev *>("gDspHalDev");
        mainWasUp_ = mainLink && mainLink->running.load() != 0;
        if (mainWasUp_) {
            consolePrint("stopping the main DSP link: ttyS2 goes to the Fig DSP");
            stopMainLink();
        }
        board_.selectSerialPeer(kSerialNode, sim::FigDspModel::kLink);
        const int rc = call<int (*)()>("dspFig_init")();
        consolePrint("dspFig_init = " + std::to_string(rc));
        linkUp_ = rc == 0;
        if (!linkUp_)
            restoreDsp();
        return true;
    }

    bool stop()
    {
        if (!linkUp_) {
            consolePrint("the Fig link is not running (fig start)");
            return true;
        }
        consolePrint("dspFig_deinit = " + std::to_string(call<int (*)()>("dspFig_deinit")()));
        linkUp_ = false;
        restoreDsp();
        return true;
    }

    // Calls a module function by name; only after find() succeeded.
    template <class Fn>
    Fn call(const char *name)
    {
        return reinterpret_cast<Fn>(dlsym(dso_, name));
    }

    template <class T>
    T symbol(const char *name)
    {
        return dso_ ? static_cast<T>(dlsym(dso_, name)) : nullptr;
    }

    // The loaded module; false (with a message) when it is not there.
    bool find()
    {
        if (dso_)
            return true;
        const hw_module_t *module = nullptr;
        if (hw_get_module(AVMANAGER_HARDWARE_MODULE_ID, &module) != 0 || !module || !module->dso) {
            consolePrint("the module is not loaded");
            return false;
        }
        dso_ = module->dso;
        for (const char *name : {"dspFig_init", "dspFig_deinit", "dsp_process_init", "dsp_process_deinit",
                                 "gDspHalDev", "gDspFigDev", "dspFigHalAppRequestDoa", "detect_Fig_Dsp_Version",
                                 "dspFigHal_send_usb_switch_msg", "dspFigHal_get_doa_status", "dspFig_mic_is_open"}) {
            if (!dlsym(dso_, name)) {
                consolePrint(std::string("the module has no ") + name);
                dso_ = nullptr;
                return false;
            }
        }
        return true;
    }

private:
    void stopMainLink()
    {
        std::atomic<bool> done{false};
        std::thread stopper([&] {
            call<int (*)()>("dsp_process_deinit")();
            done = true;
        });
        while (!done) {
            if (dsp_)
                dsp_->send("\n");
            std::this_thread::sleep_for(kNudgeEvery);
        }
        stopper.join();
    }

    void restoreDsp()
    {
        board_.selectSerialPeer(kSerialNode, kDspLink);
        if (mainWasUp_) {
            const int rc = call<int (*)()>("dsp_process_init")();
            consolePrint("the audio DSP is back on ttyS2: dsp_process_init = " + std::to_string(rc));
        }
        mainWasUp_ = false;
    }

    sim::Board &board_;
    sim::DspModel *dsp_;      // the audio DSP model, nudged while its link stops
    sim::FigDspModel model_;  // the Fig DSP on ttyS2
    void *dso_ = nullptr;     // the loaded module
    bool linkUp_ = false;     // the console started the Fig link
    bool mainWasUp_ = false;  // the main DSP link ran before fig start
};

bool onOffWord(const std::string &word, bool *on)
{
    if (word == "on" || word == "1") {
        *on = true;
        return true;
    }
    if (word == "off" || word == "0") {
        *on = false;
        return true;
    }
    return false;
}

uint8_t idArg(const Args &args, uint8_t fallback)
{
    return args.size() >= 2 && !args[1].empty() ? static_cast<uint8_t>(args[1][0]) : fallback;
}

void printState(FigConsole &fig)
{
    sim::FigDspModel &model = fig.model();
    char version[PROPERTY_VALUE_MAX] = {};
    property_get("persist.sys.fig.dune.version", version, "");
    std::string line = std::string("link ") + (fig.linkUp() ? "up" : "down");
    if (fig.find()) {
        const auto *dev = fig.symbol<const DspFigDev *>("gDspFigDev");
        char text[256];
        std::snprintf(text, sizeof text,
                      ", doa status %d, mic open %d, mic on %d, app doa request %d, usb switch %d, "
                      "need version %d, debug log %d",
                      fig.call<int (*)()>("dspFigHal_get_doa_status")(),
                      fig.call<bool (*)()>("dspFig_mic_is_open")() ? 1 : 0, dev->micOn.load(),
                      dev->appDoaRequest.load(), dev->usbSwitchState.load(), dev->needVersion.load(),
                      dev->debugLog.load());
        line += text;
    }
    line += std::string(", version \"") + version + "\"";
    consolePrint(line);
    consolePrint("model: doa reporting " + std::string(model.doaReporting() ? "on" : "off") + ", answers version \"" +
                 model.version() + "\", usb switch requests " + std::to_string(model.usbSwitchRequests()) +
                 ", frames received " + std::to_string(model.frames().size()));
}

bool figCommands(FigConsole &fig, const Args &args)
{
    if (args.empty())
        return false;
    sim::FigDspModel &model = fig.model();
    const std::string &sub = args[0];
    if (args.size() == 1 && sub == "start")
        return fig.start();
    if (args.size() == 1 && sub == "stop")
        return fig.stop();
    if (args.size() == 1 && sub == "state") {
        printState(fig);
        return true;
    }
    if (args.size() == 1 && sub == "log") {
        for (const auto &frame : model.frames())
            consolePrint(std::string("  ") + (frame.crcOk && frame.endOk ? "" : "(bad) ") + "\"" +
                         sim::renderBytes(frame.bytes.data(), frame.bytes.size()) + "\"" +
                         (frame.zeroAfter ? " + \\0" : ""));
        return true;
    }
    // What the Fig DSP raises; only heard while the Fig link runs.
    if ((sub == "micon" || sub == "micoff" || sub == "doa") && !fig.linkUp())
        consolePrint("(the Fig link is not running: fig start)");
    if ((args.size() == 1 || args.size() == 2) && (sub == "micon" || sub == "micoff")) {
        const uint8_t id = idArg(args, sub == "micon" ? '1' : '2');
        const size_t acks = model.countAcks(id);
        if (sub == "micon")
            model.micOn(id);
        else
            model.micOff(id);
        // The module acknowledges a frame last, once it has acted on it (a
        // format switch programs the amplifiers first), so the next command
        // finds the switch done.
        if (fig.linkUp() && !model.waitForAcks(id, acks + 1, kModuleActs))
            consolePrint("(the module has not acknowledged the frame yet)");
        return true;
    }
    long value = 0;
    if (args.size() == 2 && sub == "doa" && parseInt(args[1], &value)) {
        model.sendDoaReport(static_cast<float>(value));
        return true;
    }
    if (args.size() >= 2 && sub == "version") {
        model.setVersion(args[1]);
        return true;
    }
    // The module's own Fig requests.
    bool on = false;
    if (args.size() == 2 && sub == "request" && onOffWord(args[1], &on) && fig.find()) {
        consolePrint("dspFigHalAppRequestDoa = " + std::to_string(fig.call<int (*)(int)>("dspFigHalAppRequestDoa")(on)));
        return true;
    }
    if (args.size() == 1 && sub == "askversion" && fig.find()) {
        consolePrint("detect_Fig_Dsp_Version = " + std::to_string(fig.call<int (*)()>("detect_Fig_Dsp_Version")()));
        return true;
    }
    if (args.size() == 2 && sub == "usb" && parseInt(args[1], &value) && fig.find()) {
        consolePrint("dspFigHal_send_usb_switch_msg = " +
                     std::to_string(fig.call<int (*)(int)>("dspFigHal_send_usb_switch_msg")(static_cast<int>(value))));
        return true;
    }
    // Faults of what the model sends.
    if (args.size() == 2 && sub == "silent" && onOffWord(args[1], &on)) {
        model.setSilent(on);
        return true;
    }
    if (args.size() == 3 && sub == "fault" && onOffWord(args[2], &on)) {
        if (args[1] == "crc")
            model.setCorruptCrc(on);
        else if (args[1] == "split")
            model.setSplitFrames(on);
        else if (args[1] == "noise")
            model.setNoise(on);
        else
            return false;
        return true;
    }
    return false;
}

} // namespace

void addFigModels(sim::Board &board, ModelSet &models, sim::DspModel *dsp)
{
    models.add("fig", std::make_unique<FigConsole>(board, dsp), ModelSet::Commands<FigConsole>(figCommands),
               "fig start | stop | state | log | micon [id] | micoff [id] | doa <angle> | version <text> | "
               "request on|off | askversion | usb <target> | silent on|off | fault crc|split|noise on|off");
}

} // namespace console
