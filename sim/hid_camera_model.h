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
 * waits, as the kernel's does, until the camera has one, however long that
 * takes, and every read waiting then gets a copy (the kernel hands each
 * report to each open file). The board's preload shim reads through a
 * second descriptor of the node, so the module's writes on its own
 * descriptor go out meanwhile, and a read under way outlives a close of
 * the node by another thread. Unplugging takes the node away; waiting
 * reads end and later reads and writes fail.
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
#include <vector>

#include "board.h"
#include "hid_camera_logic.h"

namespace sim {

class HidCameraModel : public HidCameraLogic {
public:
    // The model of the dual x3m camera on /dev/hidraw0 unless told
    // otherwise.
    explicit HidCameraModel(Board &board, std::string node = "/dev/hidraw0", uint16_t vid = 0x2E7D,
                            uint16_t pid = 0x051A);
    ~HidCameraModel() override;

    const std::string &node() const { return node_; }
    size_t rawInfoRequests() const;
    // Reads answered with a report, and reads waiting for one now.
    size_t readsAnswered() const;
    size_t readsWaiting() const;

    // Reads waiting for a report end with EIO as well.
    void setReadError(bool on) override;

    void unplug(); // the node goes away
    void plug();   // and comes back
    bool plugged() const;

private:
    int handle(IoctlCall &call, int *err);
    // Hands a queued report to the reads waiting for one.
    void answerWaitingReads();
    // Ends every waiting read with -1 and `err`.
    void failWaitingReads(int err);
    void trace(bool toDevice, const uint8_t *data, size_t size, const std::string &note);

    Board &board_;
    std::string node_;
    mutable std::mutex mutex_; // guards the fields below; taken before the logic's
    size_t rawInfo_ = 0;
    size_t readsAnswered_ = 0;
    bool unplugged_ = false;
    std::vector<std::shared_ptr<PendingCall>> waitingReads_;
    std::unique_ptr<IoctlNode> ioctl_; // last: its handler may run at once
};

} // namespace sim
