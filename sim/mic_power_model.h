/*
 * The microphone power switch: the sysfs attribute
 * "/sys/class/hwmisc_cls/hwmisc_dev/mic_power" (a class link to its device
 * directory, as the kernel has it). The module writes it through the
 * shell ("echo 0 > ..."); the model records every value written, with the
 * time it arrived, by watching the attribute for completed writes.
 *
 * Threads: a watcher thread of its own records the writes; tests and the
 * console read them from their threads. The attribute is taken away
 * again with the model.
 */
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "board.h"

namespace sim {

class MicPowerSwitch {
public:
    struct Write {
        std::string value; // what was written, without the trailing newline
        Clock::time_point when;
    };

    static constexpr const char *kPath = "/sys/class/hwmisc_cls/hwmisc_dev/mic_power";

    explicit MicPowerSwitch(Board &board);
    ~MicPowerSwitch();
    MicPowerSwitch(const MicPowerSwitch &) = delete;
    MicPowerSwitch &operator=(const MicPowerSwitch &) = delete;

    std::vector<Write> writes() const;
    std::vector<std::string> values() const;
    // The attribute's content now ("1" at power-on).
    std::string current() const;
    bool waitForWrites(size_t n, std::chrono::milliseconds timeout) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace sim
