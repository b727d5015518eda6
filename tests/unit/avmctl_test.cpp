// avmctl without a board (the ARM build runs it under the emulator too):
// its help, the module loaded by id and called through its record on the
// build's ABI, and command lines it refuses before loading anything. What
// the operations send to the peripherals is proved on the virtual board
// (tests/board/avmctl_test.cpp).
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "process_env.h"

extern char **environ;

namespace {

// The program from the build (CMake gives its path); under an emulator
// runChild starts it under the same one.
constexpr const char *kAvmctl = AVMCTL_PROGRAM;

// This process's environment: its private root and property store, and
// the directory of the module.
avmtest::ChildResult avmctl(const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {kAvmctl};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> env;
    for (char **e = environ; *e; ++e)
        env.emplace_back(*e);
    return avmtest::runChild(argv, env);
}

std::string describe(const avmtest::ChildResult &run)
{
    return "exit " + std::to_string(run.exitCode) + "\nstdout:\n" + run.output + "stderr:\n" + run.errors;
}

TEST(AvmctlCli, HelpListsEachOfTheFiftyOperationsInSlotOrder)
{
    const avmtest::ChildResult run = avmctl({"--help"});
    EXPECT_EQ(run.exitCode, 0) << describe(run);
    std::istringstream lines(run.output);
    const std::regex operation(" {2,3}([0-9]+)  ([A-Za-z_]+).*");
    int next = 0;
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_match(line, match, operation)) {
            EXPECT_EQ(std::stoi(match[1]), next++) << line;
        }
    }
    EXPECT_EQ(next, 50) << run.output;
}

TEST(AvmctlCli, TheModuleAnswersThroughItsRecordWithoutStartUp)
{
    avmtest::FreshPropertyStore store;
    // A floor/wall product reads its stored placement without the DSP link.
    store.set("persist.vendor.floor_wall", "1");
    store.set("persist.zel.dsp.spkEqMode", "WALL");
    avmtest::ChildResult run = avmctl({"--no-init", "get_dsp_spk_eq_mode"});
    EXPECT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_EQ(run.output, "1\n");
    EXPECT_EQ(run.errors, "");
    store.set("persist.zel.dsp.spkEqMode", "FOOT");
    run = avmctl({"--no-init", "--json", "call", "30"});
    EXPECT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_EQ(run.output, "{\"op\":\"get_dsp_spk_eq_mode\",\"slot\":30,\"args\":[],\"result\":0}\n");
}

TEST(AvmctlCli, WithoutStartUpTheDspSwitchIsOffAndItsFixedResultIsPrinted)
{
    avmtest::FreshPropertyStore store;
    const avmtest::ChildResult run = avmctl({"--no-init", "get_volume", "2"});
    EXPECT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_EQ(run.output, "-1\n");
}

TEST(AvmctlCli, ARefusedCommandLineSaysWhyOnOneLineAndExitsWithTwo)
{
    avmtest::ChildResult run = avmctl({"set_volume", "2", "4294967336"});
    EXPECT_EQ(run.exitCode, 2) << describe(run);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.errors, "avmctl: set_volume: <volume> 4294967336 is out of range -2147483648..2147483647 "
                          "(usage: set_volume <channel> <volume>)\n");
    run = avmctl({"--script", "/nonexistent/commands"});
    EXPECT_EQ(run.exitCode, 2) << describe(run);
    EXPECT_EQ(run.errors, "avmctl: cannot read /nonexistent/commands: No such file or directory\n");
    run = avmctl({"--script", "x", "get_volume", "2"});
    EXPECT_EQ(run.exitCode, 2) << describe(run);
    EXPECT_EQ(run.errors, "avmctl: --script and a command cannot be given together\n");
    run = avmctl({"--script"});
    EXPECT_EQ(run.exitCode, 2) << describe(run);
    EXPECT_EQ(run.errors, "avmctl: --script needs a file (- reads standard input)\n");
    run = avmctl({"sleep"});
    EXPECT_EQ(run.exitCode, 2) << describe(run);
    EXPECT_EQ(run.errors, "avmctl: sleep: missing <ms> (usage: sleep <ms>)\n");
}

} // namespace
