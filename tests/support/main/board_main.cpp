// main of every board test program.
//
// A board test runs the module on the process's testbed; module threads
// (the PTZ link, the detection thread) outlive release by design and keep
// using the nodes and files of the board they started on, so each board
// test gets a process of its own. Started with one test selected (as ctest
// does), the program runs it. Started with several, it says so and runs
// each in a child of its own through tests/board-wrapper (which gives each
// child a fresh board root and testbed), then sums up.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "process_env.h"
#include "sim/board.h"

extern char **environ;

namespace {

bool startsWith(const std::string &s, const char *prefix) { return s.rfind(prefix, 0) == 0; }

// Flags that select or order tests: the parent handles them itself.
bool isSelectionFlag(const std::string &arg)
{
    for (const char *flag : {"--gtest_filter", "--gtest_repeat", "--gtest_shuffle",
                             "--gtest_random_seed", "--gtest_list_tests", "--gtest_output"})
        if (startsWith(arg, flag))
            return true;
    return false;
}

// "Suite.Name" of every test the arguments select, as the program lists
// them.
std::vector<std::string> selectedTests(const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {avmtest::selfPath()};
    for (const auto &arg : args)
        if (!startsWith(arg, "--gtest_list_tests"))
            argv.push_back(arg);
    argv.push_back("--gtest_list_tests");
    std::vector<std::string> env;
    for (char **e = environ; *e; ++e)
        env.emplace_back(*e);
    const avmtest::ChildResult listing = avmtest::runChild(argv, env);
    std::vector<std::string> tests;
    std::string suite;
    size_t pos = 0;
    while (pos < listing.output.size()) {
        size_t end = listing.output.find('\n', pos);
        if (end == std::string::npos)
            end = listing.output.size();
        std::string line = listing.output.substr(pos, end - pos);
        pos = end + 1;
        const size_t comment = line.find("  #");
        if (comment != std::string::npos)
            line.erase(comment);
        if (line.empty())
            continue;
        if (line[0] != ' ') {
            suite = line;
        } else if (!suite.empty()) {
            tests.push_back(suite + line.substr(line.find_first_not_of(' ')));
        }
    }
    return tests;
}

int runOne(const char *wrapper, const std::string &test, const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {wrapper, avmtest::selfPath()};
    for (const auto &arg : args)
        if (!isSelectionFlag(arg))
            argv.push_back(arg);
    argv.push_back("--gtest_filter=" + test);
    std::vector<char *> cargv;
    for (auto &a : argv)
        cargv.push_back(a.data());
    cargv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, wrapper, nullptr, nullptr, cargv.data(), environ) != 0)
        return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int runEachInItsOwnProcess(const std::vector<std::string> &tests, const std::vector<std::string> &args)
{
    const char *wrapper = getenv("AVM_BOARD_WRAPPER");
    if (!wrapper || !*wrapper) {
        std::fprintf(stderr, "board tests run under tests/board-wrapper\n");
        return 1;
    }
    const int repeat = std::max(1, GTEST_FLAG_GET(repeat));
    std::printf("[==========] %zu board tests selected: each runs in a process of its own "
                "(module threads outlive a test), started through %s\n",
                tests.size(), wrapper);
    std::fflush(stdout);
    std::vector<std::string> failed;
    std::mt19937 shuffle(static_cast<unsigned>(GTEST_FLAG_GET(random_seed)));
    for (int round = 0; round < repeat; ++round) {
        std::vector<std::string> order = tests;
        if (GTEST_FLAG_GET(shuffle))
            std::shuffle(order.begin(), order.end(), shuffle);
        for (const auto &test : order) {
            if (runOne(wrapper, test, args) != 0)
                failed.push_back(test);
        }
    }
    std::printf("[==========] %zu runs of %zu board tests, each in its own process\n",
                tests.size() * static_cast<size_t>(repeat), tests.size());
    if (failed.empty()) {
        std::printf("[  PASSED  ] all of them\n");
        return 0;
    }
    std::printf("[  FAILED  ] %zu runs, listed below:\n", failed.size());
    for (const auto &test : failed)
        std::printf("[  FAILED  ] %s\n", test.c_str());
    return 1;
}

// Whether the filter names one test outright ("Suite.Name", as ctest runs
// them): then no listing is needed to know that one test is selected,
// which spares a second start of the program (a costly one under qemu).
bool namesOneTest(const std::string &filter)
{
    const size_t dot = filter.find('.');
    return dot != std::string::npos && dot > 0 && dot + 1 < filter.size() &&
           filter.find_first_of("*?:-", 0) == std::string::npos;
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests))
        return RUN_ALL_TESTS();
    const bool one = namesOneTest(GTEST_FLAG_GET(filter)) && !GTEST_FLAG_GET(shuffle);
    if (!one || GTEST_FLAG_GET(repeat) > 1) {
        const std::vector<std::string> tests = selectedTests(args);
        if (tests.size() > 1 || GTEST_FLAG_GET(repeat) > 1)
            return runEachInItsOwnProcess(tests, args);
    }
    // One test: the environment came from the wrapper; the testbed is made
    // before any thread starts.
    avmtest::installLogCapture();
    sim::initBoardProcess();
    return RUN_ALL_TESTS();
}
