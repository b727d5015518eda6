/*
 * The module record's operations as a command-line tool calls them: one
 * table of the 50 slots (name, slot, arguments with their types and
 * meaning, help text, and how to call it through HMI). The console and
 * avmctl both read it, so the list of operations, their arguments and the
 * way each is called exist once.
 *
 * Arguments are checked here before anything calls the module: a number
 * must be a number and fit the operation's argument; values the module
 * checks itself (a volume of 101, an unknown channel) pass, so its own
 * answer to them can be seen.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "avmanager_hal.h"

namespace avmops {

enum class ArgType {
    Int,   // a signed 32-bit number, decimal or 0x-prefixed hex, within the argument's range
    Text,  // text as typed; the last argument of an operation takes the rest of the words
    Bytes, // text with \0 \n \r \t \s \\ \xNN escapes turned into bytes (a payload)
};

struct Arg {
    const char *name;    // as usage shows it: <name>
    ArgType type;
    const char *meaning; // what the module makes of it, for help ("" when the name says it)
    long long min = INT32_MIN;
    long long max = INT32_MAX;
};

// The arguments of one call, in the order the operation takes them, split
// by type.
struct Values {
    std::vector<int32_t> ints;
    std::vector<std::string> texts; // Text and Bytes arguments
    int32_t i(size_t n) const { return n < ints.size() ? ints[n] : 0; }
    const std::string &s(size_t n) const;
};

// The functions a front-end hands the module through the two operations
// that install a callback.
struct Callbacks {
    avmanager_camera_status_cb cameraStatus = nullptr;
    avmanager_dsp_status_cb dspStatus = nullptr;
};

// What an operation gave back.
struct Result {
    std::string text;  // as printed: "40", "0 (pair 1, 2)", "null", "done"
    std::string json;  // the JSON value of "result": 40, null, [1,2,...]
    std::string extra; // further JSON members, each led by a comma: ,"pair":[1,2]
};

struct Call {
    const avmanager_module_t *hal;
    const Values &values;
    const Callbacks &callbacks;
    int32_t i(size_t n) const { return values.i(n); }
    const char *s(size_t n) const { return values.s(n).c_str(); }
};

struct Operation {
    int slot;
    const char *name;  // the exported name without "avmanager_"
    const char *alias; // a shorter name a tool accepts too ("" for none)
    std::vector<Arg> args;
    const char *help;  // one line: what the call does
    std::function<Result(const Call &call)> invoke;
};

// The 50 operations, in slot order (slot == index).
const std::vector<Operation> &operations();
// By name, with or without the "avmanager_" prefix, or by alias; nullptr
// when there is none.
const Operation *findOperation(std::string_view name);
// By slot; nullptr outside 0..49.
const Operation *operationAtSlot(long long slot);

// "set_volume <channel> <volume>"
std::string usage(const Operation &op);
// Lines describing each argument of op ("    <channel>  0=uac 1=spdif 2=main"); none when
// the usage line says all.
std::vector<std::string> argumentLines(const Operation &op);

// Parses the words that follow the operation's name. On failure returns
// false and a one-line reason naming the operation and the argument.
bool parseArgs(const Operation &op, const std::vector<std::string> &words, Values *values, std::string *error);

// Calls op through the record with parsed values.
Result invoke(const Operation &op, const avmanager_module_t *hal, const Values &values, const Callbacks &callbacks);

// ------------------------------------------------------------ text helpers

enum class NumberError { None, NotANumber, OutOfRange };
// Parses a decimal or 0x-prefixed hex integer with an optional sign (no
// octal: "010" is ten); the whole text must be the number.
NumberError parseNumber(const std::string &text, long long *value);
// parseNumber into a long, for commands that take any number a long holds.
bool parseInt(const std::string &text, long *value);
// Turns \0 \n \r \t \s \\ \xNN escapes into bytes.
std::string unescape(const std::string &text);
// A JSON string literal of text (bytes outside printable ASCII escaped).
std::string jsonString(std::string_view text);

} // namespace avmops
