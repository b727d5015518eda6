/*
 * avmctl: calls the module's operations from a shell, as the service
 * would. It loads the module by its id, runs its start-up, calls one
 * operation (or a script of them), lets what they queued reach the
 * peripherals and exits; `watch` prints the module's callbacks as they
 * come.
 *
 * Threads: the main thread parses, calls and waits. The module's threads
 * call the callbacks and log; a signal thread, started before any other,
 * takes SIGINT/SIGTERM/SIGHUP (blocked everywhere else). Everything printed
 * goes through the output unit, which keeps lines whole.
 */
#pragma once

#include <chrono>
#include <string>

#include "operations.h"

namespace avmctl {

// Exit statuses.
constexpr int kExitDone = 0;
constexpr int kExitModule = 1;     // the module could not be loaded or started
constexpr int kExitUsage = 2;      // a wrong command line or script: nothing was called
constexpr int kExitInterrupted = 130;

// ------------------------------------------------------------ output (avmctl_output.cpp)

// JSON lines instead of plain text (set once, before any thread).
void setJsonOutput(bool json);
// One operation's result on stdout. `command` is the command as written;
// plain output prefixes it when `withCommand` (a script) and shows the
// value alone otherwise.
void printResult(const std::string &command, const avmops::Operation &op, const avmops::Values &values,
                 const avmops::Result &result, bool withCommand);
// One event on stdout with its time: `name` as plain text shows it
// ("camera status"), `key` as JSON names it ("camera_status").
void printEvent(const char *name, const char *key, long long value);
// "avmctl: <message>" on stderr: an error, or a note on what avmctl does.
void printMessage(const std::string &message);
// A line of the module's log on stderr ("log DSP/E: ...").
void printLogLine(int priority, const char *tag, const char *message);

// ------------------------------------------------------------ events (avmctl_events.cpp)

// The callbacks avmctl hands the module: each call is printed as an event.
avmops::Callbacks eventCallbacks();
// Installs liblog's logger: the module's lines go to stderr when
// `printLogs`, and a direction of arrival the DSP reports becomes an event
// while watching. On the device every line still goes to logd. Call before
// any thread starts.
void followModuleLog(bool printLogs);
// When the module last did something on its links (steady clock): a
// line logged by the DSP or PTZ link, or noteLinkActivity().
std::chrono::steady_clock::time_point lastLinkActivity();
void noteLinkActivity();
// Starts the signal thread; call first in main, before any other thread.
void startSignalThread();
// Prints the callbacks and directions of arrival until a signal comes or
// `duration` has passed (zero: until a signal).
void watch(const avmanager_module_t *hal, std::chrono::seconds duration);

// ------------------------------------------------------------ settling (avmctl_settle.cpp)

// Waits until the module's links have settled, so that leaving loses
// nothing the operations queued and cuts no work the module started on its
// own (a DSP's version answer starts a parameter restore, and a
// configuration upgrade when the DSP's copy differs).
void waitForLinksToSettle();

} // namespace avmctl
