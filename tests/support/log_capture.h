/*
 * Captures every line the module logs through liblog (tag, priority,
 * text), for assertions, while a LogCapture lives; debug lines are kept.
 * The logger is installed once per process (installLogCapture, from main)
 * and never swapped, since module threads log at any time.
 */
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "process_env.h"

namespace avmtest {

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<LogLine> lines() const;
    void clear();
    // Lines with this tag whose text equals `text` exactly.
    size_t count(const std::string &tag, const std::string &text) const;
    // Lines with this tag whose text contains `part`.
    size_t countContaining(const std::string &tag, const std::string &part) const;
    bool contains(const std::string &tag, const std::string &text) const { return count(tag, text) > 0; }
    bool waitFor(const std::string &tag, const std::string &part, std::chrono::milliseconds timeout) const;
    // Priority of the first line with this tag and exact text, or -1.
    int priorityOf(const std::string &tag, const std::string &text) const;
};

// A fresh temporary directory, removed with its contents on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

} // namespace avmtest
