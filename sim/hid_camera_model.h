/*
 * The camera's raw HID interface on a hidraw node of the virtual board
 * (link "hid"): answers the raw-information request (HIDIOCGRAWINFO) with
 * its USB ids and carries reports between the module and the camera's
 * side of the channel (HidCameraLogic: version answers, log download,
 * faults).
 *
 * As the kernel's hidraw does for a device without numbered reports, a
 * report written with a first byte of 0 reaches the camera without that
 * byte (the kernel takes it for the report number), while the write
 * still returns the whole count.
 *
 * Each read of the node returns one report; with nothing to report a read
 * waits a little and comes back empty, which lets the module's writes on
 * the same descriptor through (umockdev serves one call per descriptor at
 * a time). Unplugging takes the node away; reads and writes then fail.
 *
 * Threads: calls arrive on umockdev's worker thread; tests and the console
 * use the setters and getters from their own.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "board.h"
#include "hid_camera_logic.h"

namespace sim {

class HidCameraModel : public HidCameraLogic {
public:
    // An empty read comes back after this long.
    static constexpr std::chrono::milliseconds kIdleRead{20};

    // The model of the dual x3m camera on /dev/hidraw0 unless told
    // otherwise.
    explicit HidCameraModel(Board &board, std::string node = "/dev/hidraw0", uint16_t vid = 0x2E7D,
                            uint16_t pid = 0x051A);
    ~HidCameraModel() override;

    const std::string &node() const { return node_; }
    size_t rawInfoRequests() const;

    void unplug(); // the node goes away
    void plug();   // and comes back
    bool plugged() const;

private:
    int handle(IoctlCall &call, int *err);
    void trace(bool toDevice, const uint8_t *data, size_t size, const std::string &note);

    Board &board_;
    std::string node_;
    mutable std::mutex mutex_; // guards the two fields below
    size_t rawInfo_ = 0;
    bool unplugged_ = false;
    std::unique_ptr<IoctlNode> ioctl_; // last: its handler may run at once
};

} // namespace sim
