#include "process_env.h"

#include <android/log.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>

#include <cutils/properties.h>
#include <elf.h>

namespace avmtest {

void captureLine(const struct __android_logger_data *data, const char *message); // log_capture.cpp

namespace {

// Directories every board root carries for the module's own files.
constexpr const char *kRootDirs[] = {
    "/tmp", "/mnt/expand", "/mnt/vendor/param/audio", "/system/etc/dsp_config",
    "/data", "/properties",
};

std::string gMadeRoot; // set by initProcessRoot before any thread, read after

void emptyDirectory(const std::string &dir)
{
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    for (const auto &entry : std::filesystem::directory_iterator(dir, ec))
        std::filesystem::remove_all(entry.path(), ec);
}

std::string requiredEnv(const char *name)
{
    const char *value = getenv(name);
    if (!value || !*value) {
        std::fprintf(stderr, "%s is not set: the test program's main sets it up "
                             "(initProcessRoot, or tests/board-wrapper for board tests)\n",
                     name);
        std::abort();
    }
    return value;
}

// The ELF machine of a program file, or -1 when it is not an ELF file.
int elfMachine(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    Elf32_Ehdr header = {}; // e_machine sits at the same offset in both classes
    const ssize_t n = read(fd, &header, sizeof header);
    close(fd);
    if (n != static_cast<ssize_t>(sizeof header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        return -1;
    return header.e_machine;
}

// The emulator the tests of this build run under (a cross build's), or "".
#ifdef AVM_TEST_EMULATOR
constexpr const char *kTestEmulator = AVM_TEST_EMULATOR;
#else
constexpr const char *kTestEmulator = "";
#endif

// The emulator a child program runs under, "" when it runs as it is: a
// cross build's tests run under an emulator (qemu-user without binfmt
// registration), and so must the programs of the same build they start.
// Host programs (the shell, md5sum) run as they are.
std::string emulatorFor(const std::string &program)
{
    if (!*kTestEmulator)
        return "";
    static const int self = elfMachine(selfPath());
    return self >= 0 && elfMachine(program) == self ? kTestEmulator : "";
}

} // namespace

std::string initProcessRoot()
{
    // Under $TMPDIR when it names a directory (the fuzz runs keep theirs on
    // a memory file system), else under /tmp.
    const char *tmpdir = getenv("TMPDIR");
    std::string tmpl = std::string(tmpdir && *tmpdir ? tmpdir : "/tmp") + "/avm-test-XXXXXX";
    if (!mkdtemp(tmpl.data())) {
        std::perror("mkdtemp");
        std::abort();
    }
    gMadeRoot = tmpl;
    const std::string props = gMadeRoot + "/properties";
    std::filesystem::create_directories(props);
    // No thread exists yet: this is the only place a test program changes
    // its environment.
    setenv("AVMANAGER_ROOT", gMadeRoot.c_str(), 1);
    setenv("AVMANAGER_PROPERTY_DIR", props.c_str(), 1);
    installLogCapture();
    return gMadeRoot;
}

void removeProcessRoot()
{
    if (gMadeRoot.empty())
        return;
    std::error_code ec;
    std::filesystem::remove_all(gMadeRoot, ec);
}

std::string processRoot() { return requiredEnv("AVMANAGER_ROOT"); }

void installLogCapture()
{
    static std::once_flag once;
    std::call_once(once, [] {
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        __android_log_set_logger(captureLine);
    });
}

FreshRoot::FreshRoot() : path_(processRoot())
{
    emptyDirectory(path_);
    std::error_code ec;
    for (const char *dir : kRootDirs)
        std::filesystem::create_directories(path_ + dir, ec);
}

FreshRoot::~FreshRoot() { emptyDirectory(path_); }

FreshPropertyStore::FreshPropertyStore() : dir_(requiredEnv("AVMANAGER_PROPERTY_DIR"))
{
    emptyDirectory(dir_);
}

FreshPropertyStore::~FreshPropertyStore() { emptyDirectory(dir_); }

void FreshPropertyStore::set(const std::string &key, const std::string &value)
{
    if (property_set(key.c_str(), value.c_str()) != 0)
        std::abort();
}

std::string FreshPropertyStore::get(const std::string &key) const
{
    char value[PROPERTY_VALUE_MAX];
    property_get(key.c_str(), value, "");
    return value;
}

bool FreshPropertyStore::isSet(const std::string &key) const
{
    return std::filesystem::exists(dir_ + "/" + key);
}

ChildResult runChild(const std::vector<std::string> &argv, const std::vector<std::string> &env)
{
    return ChildProcess(argv, env).wait();
}

ChildProcess::ChildProcess(const std::vector<std::string> &argv, const std::vector<std::string> &env)
{
    if (argv.empty())
        return;
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        return;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    std::vector<std::string> command;
    const std::string emulator = emulatorFor(argv[0]);
    if (!emulator.empty())
        command.push_back(emulator);
    command.insert(command.end(), argv.begin(), argv.end());
    std::vector<char *> args;
    for (const auto &a : command)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    std::vector<std::string> entries = env;
    for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
        const std::string prefix = std::string(name) + "=";
        const bool given = std::any_of(entries.begin(), entries.end(),
                                       [&](const std::string &e) { return e.rfind(prefix, 0) == 0; });
        if (const char *value = getenv(name); value != nullptr && !given)
            entries.push_back(prefix + value);
    }
    std::vector<char *> envp;
    for (const auto &e : entries)
        envp.push_back(const_cast<char *>(e.c_str()));
    envp.push_back(nullptr);
    const int rc = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    if (rc != 0) {
        pid_ = -1;
        result_.errors = std::string("posix_spawn: ") + std::strerror(rc);
        close(out[0]);
        close(err[0]);
        return;
    }
    fds_[0] = out[0];
    fds_[1] = err[0];
}

ChildProcess::~ChildProcess()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        wait();
    }
    for (int fd : fds_)
        if (fd >= 0)
            close(fd);
}

bool ChildProcess::readSome(std::chrono::milliseconds timeout)
{
    struct pollfd fds[2] = {{fds_[0], POLLIN, 0}, {fds_[1], POLLIN, 0}};
    if (fds_[0] < 0 && fds_[1] < 0)
        return false;
    const int ready = poll(fds, 2, static_cast<int>(timeout.count()));
    if (ready <= 0)
        return true; // nothing yet, or EINTR: the caller looks at its clock
    std::string *sinks[2] = {&result_.output, &result_.errors};
    for (int i = 0; i < 2; ++i) {
        if (fds_[i] < 0 || fds[i].revents == 0)
            continue;
        char buf[4096];
        const ssize_t n = read(fds_[i], buf, sizeof buf);
        if (n > 0) {
            sinks[i]->append(buf, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            close(fds_[i]);
            fds_[i] = -1;
        }
    }
    return fds_[0] >= 0 || fds_[1] >= 0;
}

bool ChildProcess::waitForOutput(const std::function<bool(const std::string &out, const std::string &err)> &seen,
                                 std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (seen(result_.output, result_.errors))
            return true;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !readSome(std::min(left, std::chrono::milliseconds(100))))
            return seen(result_.output, result_.errors);
    }
}

bool ChildProcess::waitForEnd(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (!readSome(std::max(std::chrono::milliseconds(0), std::min(left, std::chrono::milliseconds(100)))))
            return true;
        if (left.count() <= 0)
            return false;
    }
}

void ChildProcess::signal(int signal)
{
    if (pid_ > 0)
        kill(pid_, signal);
}

ChildResult ChildProcess::wait()
{
    // Both pipes at once, so a child filling one cannot stall on it.
    while (readSome(std::chrono::milliseconds(-1))) {
    }
    if (pid_ > 0) {
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
        if (WIFEXITED(status))
            result_.exitCode = WEXITSTATUS(status);
    }
    return result_;
}

std::string shellCommandFor(const std::string &program)
{
    const std::string emulator = emulatorFor(program);
    const std::string quoted = "'" + program + "'";
    return emulator.empty() ? quoted : "'" + emulator + "' " + quoted;
}

std::string selfPath()
{
    char path[PATH_MAX] = {};
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string();
}

std::string sourceDir()
{
    return AVM_SOURCE_DIR;
}

} // namespace avmtest
