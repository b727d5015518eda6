/*
 * avmctl entry point: reads the command line (or a script) and checks every
 * command against the operation table before anything is loaded, then
 * loads the module by its id, runs its start-up, calls the operations in
 * order and waits until what they queued has gone out.
 */
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <hardware/hardware.h>

#include "avmctl.h"

namespace avmctl {

namespace {

// The longest `watch SECONDS` (a day); longer watches run until interrupted.
constexpr long long kMaxWatchSeconds = 24 * 60 * 60;
// The longest `sleep MS` of a script (an hour).
constexpr long long kMaxSleepMs = 60 * 60 * 1000;

struct Command {
    enum class Kind { Operation, Watch, Sleep };
    Kind kind = Kind::Operation;
    std::string text;                      // as written, for messages and plain output
    const avmops::Operation *op = nullptr; // Kind::Operation
    avmops::Values values;
    long long watchSeconds = 0;            // Kind::Watch; 0: until interrupted
    long long sleepMs = 0;                 // Kind::Sleep
};

struct Options {
    bool json = false;
    bool init = true;
    bool logs = false;
    std::string script; // "-" for standard input
};

std::string join(const std::vector<std::string> &words)
{
    std::string out;
    for (const auto &word : words)
        out += (out.empty() ? "" : " ") + word;
    return out;
}

// `name [<unit>]` or `name <unit>` of avmctl's own commands: a number
// 1..max; false with the reason.
bool parseCount(const std::vector<std::string> &words, const char *unit, long long max, bool optional,
                long long *value, std::string *error)
{
    const std::string usage = "(usage: " + words[0] + (optional ? " [<" : " <") + unit + (optional ? ">])" : ">)");
    if (words.size() > 2) {
        *error = words[0] + ": unexpected argument \"" + words[2] + "\" " + usage;
        return false;
    }
    if (words.size() == 1) {
        if (!optional)
            *error = words[0] + ": missing <" + unit + "> " + usage;
        return optional;
    }
    if (avmops::parseNumber(words[1], value) != avmops::NumberError::None || *value < 1 || *value > max) {
        *error = words[0] + ": <" + unit + "> must be a number 1.." + std::to_string(max) + ", not \"" + words[1] +
                 "\"";
        return false;
    }
    return true;
}

// One command: an operation by name, `call <slot> ...`, `watch` or `sleep`.
bool parseCommand(const std::vector<std::string> &words, Command *command, std::string *error)
{
    command->text = join(words);
    if (words[0] == "watch") {
        command->kind = Command::Kind::Watch;
        return parseCount(words, "seconds", kMaxWatchSeconds, true, &command->watchSeconds, error);
    }
    if (words[0] == "sleep") {
        command->kind = Command::Kind::Sleep;
        return parseCount(words, "ms", kMaxSleepMs, false, &command->sleepMs, error);
    }
    size_t first = 1;
    if (words[0] == "call") {
        long long slot = -1;
        if (words.size() < 2) {
            *error = "call: missing <slot> (usage: call <slot> [<arguments>])";
            return false;
        }
        if (avmops::parseNumber(words[1], &slot) != avmops::NumberError::None ||
            !(command->op = avmops::operationAtSlot(slot))) {
            *error = "call: no operation in slot \"" + words[1] + "\" (slots 0.." +
                     std::to_string(avmops::operations().size() - 1) + ")";
            return false;
        }
        first = 2;
    } else if (!(command->op = avmops::findOperation(words[0]))) {
        *error = "unknown operation \"" + words[0] + "\" (avmctl --help lists them)";
        return false;
    }
    const std::vector<std::string> args(words.begin() + static_cast<long>(first), words.end());
    return avmops::parseArgs(*command->op, args, &command->values, error);
}

// Reads every line of a script into commands; false with "FILE:LINE:
// reason" at the first bad one.
bool readScript(const std::string &path, std::vector<Command> *commands, std::string *error)
{
    std::ifstream file;
    std::istream *in = &std::cin;
    if (path != "-") {
        file.open(path);
        if (!file) {
            *error = "cannot read " + path + ": " + std::strerror(errno);
            return false;
        }
        in = &file;
    }
    std::string line;
    for (int number = 1; std::getline(*in, line); ++number) {
        std::istringstream split(line);
        std::vector<std::string> words;
        for (std::string word; split >> word;)
            words.push_back(word);
        if (words.empty() || words[0][0] == '#')
            continue;
        Command command;
        std::string reason;
        if (!parseCommand(words, &command, &reason)) {
            *error = (path == "-" ? std::string("<stdin>") : path) + ":" + std::to_string(number) + ": " + reason;
            return false;
        }
        commands->push_back(std::move(command));
    }
    return true;
}

void printHelp()
{
    std::printf(
        "usage: avmctl [options] <operation> [<arguments>]\n"
        "       avmctl [options] call <slot> [<arguments>]\n"
        "       avmctl [options] watch [<seconds>]\n"
        "       avmctl [options] --script <file>     (- reads standard input)\n"
        "\n"
        "Loads the module as the service does, runs its start-up (unless a command is\n"
        "hal_init itself, or --no-init is given), calls the operations in order, waits\n"
        "until what they queued has reached the peripherals, and exits. Stop the service\n"
        "that holds the module first: both would drive the same serial lines.\n"
        "A script has one command a line; # starts a comment; sleep <ms> pauses it (the\n"
        "converter's acknowledgement after connect_usb_hdmiOut comes on its own time).\n"
        "watch prints the camera status and dsp status callbacks and the directions of\n"
        "arrival the DSP reports (doa), with times, until interrupted or for <seconds>.\n"
        "Numbers are decimal or 0x hex and must fit the 32-bit argument; the module's\n"
        "own checks (a volume above 100, an unknown channel) are left to it.\n"
        "\n"
        "options:\n"
        "  --json       results and events as JSON lines\n"
        "  --no-init    call the operations without start-up (the links stay down)\n"
        "  --logs       the module's log lines on standard error\n"
        "  --script F   the commands of file F\n"
        "  -h, --help   this text\n"
        "\n"
        "operations (slot, name, arguments):\n");
    for (const auto &op : avmops::operations()) {
        std::string alias = op.alias[0] ? std::string(" (or ") + op.alias + ")" : "";
        std::printf("  %2d  %s%s\n        %s\n", op.slot, avmops::usage(op).c_str(), alias.c_str(), op.help);
        for (const auto &line : avmops::argumentLines(op))
            std::printf("        %s\n", line.c_str());
    }
    std::printf("\n"
                "exit status: 0 done; 1 the module could not be loaded or started; 2 a wrong\n"
                "command line or script (nothing was called); 130 interrupted\n");
}

// Options up to the first word that is not one (a negative number is an
// argument, so options come first). 0 to go on, else the exit status.
int parseOptions(int argc, char **argv, Options *options, std::vector<std::string> *words)
{
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; ++i) {
        const std::string arg = argv[i];
        if (arg == "--json") {
            options->json = true;
        } else if (arg == "--no-init") {
            options->init = false;
        } else if (arg == "--logs") {
            options->logs = true;
        } else if (arg == "--script") {
            if (i + 1 == argc) {
                printMessage("--script needs a file (- reads standard input)");
                return kExitUsage;
            }
            options->script = argv[++i];
        } else if (arg == "--help" || arg == "-h") {
            printHelp();
            return -1;
        } else if (arg == "--") {
            ++i;
            break;
        } else {
            printMessage("unknown option \"" + arg + "\" (avmctl --help lists them)");
            return kExitUsage;
        }
    }
    for (; i < argc; ++i)
        words->push_back(argv[i]);
    return 0;
}

// The commands of the command line or the script, all checked. 0, or the
// exit status.
int readCommands(const Options &options, const std::vector<std::string> &words, std::vector<Command> *commands)
{
    std::string error;
    if (!options.script.empty() && !words.empty())
        error = "--script and a command cannot be given together";
    else if (!options.script.empty())
        readScript(options.script, commands, &error);
    else if (words.empty())
        error = "no operation given (avmctl --help lists them)";
    else if (Command command; parseCommand(words, &command, &error))
        commands->push_back(std::move(command));
    if (error.empty())
        return 0;
    printMessage(error);
    return kExitUsage;
}

// The module as the service loads it; nullptr (and a message) when it
// cannot be.
const avmanager_module_t *loadModule()
{
    const hw_module_t *module = nullptr;
    const int loaded = hw_get_module(AVMANAGER_HARDWARE_MODULE_ID, &module);
    if (loaded == 0 && module)
        return reinterpret_cast<const avmanager_module_t *>(module);
    printMessage(std::string("cannot load ") + AVMANAGER_HARDWARE_MODULE_ID + ": " +
                 std::strerror(loaded < 0 ? -loaded : EINVAL));
    return nullptr;
}

// Start-up is the caller's when a command is hal_init itself.
bool callsStartUp(const std::vector<Command> &commands)
{
    for (const auto &command : commands)
        if (command.op && command.op->slot == 0)
            return true;
    return false;
}

// Runs the commands in order; true when one of them started the module.
bool runCommands(const avmanager_module_t *hal, const std::vector<Command> &commands, bool script)
{
    const avmops::Callbacks callbacks = eventCallbacks();
    bool startedUp = false;
    for (const auto &command : commands) {
        switch (command.kind) {
        case Command::Kind::Watch:
            watch(hal, std::chrono::seconds(command.watchSeconds));
            break;
        case Command::Kind::Sleep:
            std::this_thread::sleep_for(std::chrono::milliseconds(command.sleepMs));
            break;
        case Command::Kind::Operation:
            printResult(command.text, *command.op, command.values,
                        avmops::invoke(*command.op, hal, command.values, callbacks), script);
            startedUp = startedUp || command.op->slot == 0;
            break;
        }
    }
    return startedUp;
}

// Leaves once the links have settled (when the module was started), with
// the module's threads still running: no static destructors.
[[noreturn]] void leave(bool startedUp, int status)
{
    if (startedUp)
        waitForLinksToSettle();
    std::fflush(stdout);
    std::fflush(stderr);
    _exit(status);
}

} // namespace

} // namespace avmctl

int main(int argc, char **argv)
{
    using namespace avmctl;
    // Before any other thread, so that every thread inherits the blocked
    // signals and only the signal thread takes them.
    startSignalThread();

    Options options;
    std::vector<std::string> words;
    if (const int status = parseOptions(argc, argv, &options, &words); status != 0)
        return status < 0 ? kExitDone : status;
    std::vector<Command> commands;
    if (const int status = readCommands(options, words, &commands); status != 0)
        return status;
    setJsonOutput(options.json);

    // The module posts DSP requests to descriptor 0 until its DSP link is
    // up (a floor/wall product's start-up does): a terminal or a script
    // there must not receive them, so it becomes /dev/null for writing.
    const int sink = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (sink >= 0 && sink != STDIN_FILENO) {
        dup2(sink, STDIN_FILENO);
        close(sink);
    }
    followModuleLog(options.logs);

    const avmanager_module_t *hal = loadModule();
    if (!hal)
        return kExitModule;
    const bool startUp = options.init && !callsStartUp(commands);
    if (startUp) {
        const int result = hal->hal_init();
        if (result < 0) {
            printMessage("start-up failed (hal_init returned " + std::to_string(result) +
                         "); --logs shows the module's reasons");
            leave(true, kExitModule);
        }
    }
    const bool startedUp = runCommands(hal, commands, !options.script.empty());
    leave(startUp || startedUp, kExitDone);
}
