/*
 * avmctl on the console's board. Started with --no-module, the console
 * brings up the board and its models but loads no module of its own, so
 * avmctl can be the one that drives the lines: from the console
 * (`avmctl <arguments>`, its output among the trace lines) or from another
 * shell with the environment printed at start-up.
 */
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "console.h"

extern char **environ;

namespace console {

namespace {

// What a program started on this board needs of the console's environment.
constexpr const char *kBoardVariables[] = {"UMOCKDEV_DIR", "LD_PRELOAD", "AVMANAGER_ROOT",
                                           "AVMANAGER_PROPERTY_DIR", "AVMANAGER_HAL_PATH", "TMPDIR"};

// avmctl next to the console.
std::string avmctlPath()
{
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return "avmctl";
    std::string path(self, static_cast<size_t>(n));
    return path.substr(0, path.rfind('/') + 1) + "avmctl";
}

std::string shellQuoted(const std::string &text)
{
    std::string out = "'";
    for (const char c : text)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// Prints the complete lines of `pending` (keeping a partial last line).
void printLines(std::string &pending, const char *prefix)
{
    size_t end;
    while ((end = pending.find('\n')) != std::string::npos) {
        consolePrint(prefix + pending.substr(0, end));
        pending.erase(0, end + 1);
    }
}

} // namespace

std::string avmctlCommandLine()
{
    std::string line;
    for (const char *name : kBoardVariables)
        if (const char *value = getenv(name))
            line += std::string(name) + "=" + shellQuoted(value) + " ";
    return line + shellQuoted(avmctlPath());
}

void runAvmctl(const Args &args)
{
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        consolePrint(std::string("avmctl: pipe: ") + std::strerror(errno));
        return;
    }
    std::vector<std::string> argv = {avmctlPath()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char *> pointers;
    for (auto &arg : argv)
        pointers.push_back(arg.data());
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // The terminal stays the console's; both output streams come here.
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDERR_FILENO);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    if (spawned != 0) {
        close(out[0]);
        consolePrint("avmctl: " + argv[0] + ": " + std::strerror(spawned));
        return;
    }
    std::string pending;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(out[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        pending.append(buffer, static_cast<size_t>(n));
        printLines(pending, "  avmctl| ");
    }
    close(out[0]);
    if (!pending.empty())
        consolePrint("  avmctl| " + pending);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    consolePrint("avmctl exit status " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1));
}

} // namespace console
