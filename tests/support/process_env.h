/*
 * Process-wide state of a test program, set up once before any thread
 * starts and never changed while threads run: the environment (board root
 * and property store), and liblog's logger.
 *
 * Module threads, umockdev's worker and GLib read the environment at any
 * time; setenv/unsetenv while they run is undefined behaviour (and crashes
 * at random), so no test or fixture changes the environment. A test gets
 * fresh state by emptying the process's root or property store instead
 * (FreshRoot, FreshPropertyStore). A test that needs a different
 * environment runs a child program with the environment it wants
 * (runChild).
 */
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace avmtest {

// First thing in a unit test or fuzz program's main: a private board root
// for this process in AVMANAGER_ROOT, with the property store in
// AVMANAGER_PROPERTY_DIR = $AVMANAGER_ROOT/properties, and the capturing
// logger installed. Board programs get their root from tests/board-wrapper
// and call installLogCapture() only. Returns the root.
std::string initProcessRoot();

// Removes the root made by initProcessRoot (at the end of main).
void removeProcessRoot();

// The board root of this process ($AVMANAGER_ROOT); aborts when unset.
std::string processRoot();

// Makes liblog hand every line to the test capture (LogCapture), keeping
// debug lines. Idempotent; main calls it before any thread starts.
void installLogCapture();

// The process's board root, emptied and given the usual directories (/tmp,
// /mnt/expand, /mnt/vendor/param/audio, /system/etc/dsp_config, /data and
// the property store) for one test; emptied again when the test ends.
class FreshRoot {
public:
    FreshRoot();
    ~FreshRoot();
    FreshRoot(const FreshRoot &) = delete;
    FreshRoot &operator=(const FreshRoot &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

// The process's property store ($AVMANAGER_PROPERTY_DIR), emptied for one
// test and again when it ends.
class FreshPropertyStore {
public:
    FreshPropertyStore();
    ~FreshPropertyStore();
    FreshPropertyStore(const FreshPropertyStore &) = delete;
    FreshPropertyStore &operator=(const FreshPropertyStore &) = delete;
    const std::string &dir() const { return dir_; }
    void set(const std::string &key, const std::string &value);
    std::string get(const std::string &key) const; // "" when unset
    bool isSet(const std::string &key) const;

private:
    std::string dir_;
};

// Result of a child program.
struct ChildResult {
    int exitCode = -1;  // -1 when it did not exit normally
    std::string output; // its standard output
    std::string errors; // its standard error
};

// Runs a program with exactly the given environment ("KEY=VALUE" entries;
// nothing else is inherited but the sanitizer options of this run, so a
// sanitized child reports, and suppresses, as its parent does) and
// collects its output. The caller's own environment is untouched. A program of this build runs under the build's
// emulator when the tests themselves do (the ARM build under qemu-user).
ChildResult runChild(const std::vector<std::string> &argv, const std::vector<std::string> &env);

// A child started as runChild starts it, left running: a test reads its
// output while it runs, signals it and then waits for its end. A child
// still running when the object goes is killed and reaped.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string> &argv, const std::vector<std::string> &env);
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    // Reads its output until `seen` holds for what it printed so far
    // (standard output, standard error) or `timeout` passes; true when it held.
    bool waitForOutput(const std::function<bool(const std::string &out, const std::string &err)> &seen,
                       std::chrono::milliseconds timeout);
    // Reads its output until it closed both streams (it ended) or `timeout`
    // passes; true when it ended.
    bool waitForEnd(std::chrono::milliseconds timeout);
    // Sends a signal (to the emulator, which hands it on, under qemu-user).
    void signal(int signal);
    // Reads the rest of its output and waits for it to end.
    ChildResult wait();

private:
    // Reads what is there within `timeout`; false once both streams ended.
    bool readSome(std::chrono::milliseconds timeout);

    pid_t pid_ = -1;
    int fds_[2] = {-1, -1}; // its standard output and standard error
    ChildResult result_;
};

// The start of a shell command that runs `program` (quoted), under the
// build's emulator when runChild would use it; arguments follow.
std::string shellCommandFor(const std::string &program);

// This program's own path (for runChild of a helper mode of the same
// test program).
std::string selfPath();

// The repository's top directory, where the scripts and console scripts a
// test runs live. Fixed when the tests are configured: a path taken from
// __FILE__ is whatever the compiler was given, which a compiler cache may
// have made relative to the build directory.
std::string sourceDir();

} // namespace avmtest
