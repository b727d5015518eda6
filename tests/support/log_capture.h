/*
 * Captures every line the module logs through liblog (tag, priority,
 * text), for assertions. Installs itself as liblog's logger and lowers the
 * minimum priority so debug lines are kept; restores stderr on destruction.
 */
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

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

// A fresh, private property store for one test (AVMANAGER_PROPERTY_DIR),
// removed on destruction.
class TempPropertyStore {
public:
    TempPropertyStore();
    ~TempPropertyStore();
    const std::string &dir() const { return dir_; }
    void set(const std::string &key, const std::string &value);
    std::string get(const std::string &key) const; // "" when unset
    bool isSet(const std::string &key) const;

private:
    std::string dir_;
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
