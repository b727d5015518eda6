/*
 * avconsole: stands in for the system service on the virtual board. It
 * brings up the board with every peripheral model, sets the feature
 * switches, loads the module through the platform loader, runs its start-up
 * and then reads commands: module operations by name, model commands,
 * trace and property commands.
 *
 * Threads: the main thread runs the command loop; the board's reader and
 * ioctl threads print trace events through consolePrint(), which keeps
 * lines whole.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "avmanager_hal.h"
#include "operations.h"
#include "sim/board.h"

namespace sim {
class DspModel;
}

namespace console {

using Args = std::vector<std::string>;

// Prints one line (a newline is added) without tearing against trace
// output from other threads; while the line editor shows its prompt, the
// line goes above it (console_line.cpp).
void consolePrint(const std::string &line);

// The line editor on a terminal (console_line.cpp): editing, history,
// completion. Completion knows `words` as first words, each model's
// subcommands from its help line ("name sub <arg> | sub2 on|off"), and
// the words of `choices` (key: the words before, joined by spaces).
void setCompletions(const std::vector<std::string> &words, const std::vector<std::string> &modelHelp,
                    const std::map<std::string, std::vector<std::string>> &choices);
// Reads lines with the prompt until end of input or until handle returns
// false. Runs on the main thread.
void runLineEditor(const std::string &prompt, const std::function<bool(const std::string &line)> &handle);

// ------------------------------------------------------------ models

// The models of one board, built in order and destroyed in reverse order
// (features that hang on a model go before it).
class ModelSet {
public:
    // Handles "<name> <args...>"; returns false for an unknown subcommand.
    template <class M>
    using Commands = std::function<bool(M &model, const Args &args)>;

    ModelSet() = default;
    ModelSet(const ModelSet &) = delete;
    ModelSet &operator=(const ModelSet &) = delete;
    ~ModelSet();

    template <class M>
    M &add(std::string name, std::unique_ptr<M> model, Commands<M> commands = {},
           std::string help = {})
    {
        M &ref = *model;
        Entry entry;
        entry.name = std::move(name);
        entry.help = std::move(help);
        entry.holder = std::shared_ptr<void>(model.release(), [](void *p) { delete static_cast<M *>(p); });
        if (commands)
            entry.command = [&ref, commands](const Args &args) { return commands(ref, args); };
        entries_.push_back(std::move(entry));
        return ref;
    }

    bool has(const std::string &name) const;
    // Runs a model command; false when no model of that name takes it.
    bool command(const std::string &name, const Args &args) const;
    // "name: help" lines of the models that take commands.
    std::vector<std::string> helpLines() const;
    std::vector<std::string> names() const;

private:
    struct Entry {
        std::string name;
        std::string help;
        std::shared_ptr<void> holder;
        std::function<bool(const Args &)> command;
    };
    std::vector<Entry> entries_;
};

// Builds every model that exists on the board (one line per model).
void buildModels(sim::Board &board, ModelSet &models);
// The USB devices: the HDMI-out converter ("hdmi") and its commands.
void addUsbModels(sim::Board &board, ModelSet &models);
// Device detection: the USB camera ("cam") and the microphones' test
// answers and power switch ("mic", a feature of the DSP model).
void addDetectModels(sim::Board &board, ModelSet &models, sim::DspModel &dsp);

// The Fig DSP model on /dev/ttyS2 and the "fig" commands that start and stop
// the module's Fig link; `dsp` is the audio DSP model it shares the port
// with (console_fig.cpp).
void addFigModels(sim::Board &board, ModelSet &models, sim::DspModel *dsp);

// Faults of the platform under the module ("store": the property store
// refusing writes; console_faults.cpp).
void addFaultModels(sim::Board &board, ModelSet &models);

// ------------------------------------------------------------ restores

// Follows the module's parameter restores through its trace
// (console_restores.cpp). Registered before the module starts; false when
// the tracer takes no more sinks.
bool watchRestores();
// Whether watchRestores() took: with --no-module the module runs in
// avmctl's process and its restores are not seen here.
bool restoresWatched();
// How many restore threads (both passes) have ended so far.
uint64_t restoresEnded();

// ------------------------------------------------------------ operations

// Calls the module operation `name` (the shared table of tools/operations)
// with args and prints its result ("= 1") or why it was not called.
// false when no operation has that name.
bool callOperation(const avmanager_module_t *hal, const std::string &name, const Args &args);

using avmops::parseInt;
using avmops::unescape;

// ------------------------------------------------------------ avmctl

// With --no-module the console loads no module and avmctl drives the board
// (console_avmctl.cpp). The environment and path that run avmctl on this
// board from another shell:
std::string avmctlCommandLine();
// Runs avmctl on this board with args, its output printed as it comes.
void runAvmctl(const Args &args);

} // namespace console
