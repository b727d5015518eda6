/*
 * The two bulk endpoints of a FunctionFS function, served: a reader thread
 * takes every OUT transfer the host makes, a writer thread hands queued IN
 * data to the host one transfer at a time (a write completes when the
 * host has read it). Both tell an observer what crossed, in order per
 * direction.
 *
 * An unplugged device's transfers end with an error; the threads then
 * wait for the host to configure it again. Data queued meanwhile stays
 * queued.
 *
 * The two threads learn of their transfers independently, so an OUT
 * transfer the host made in answer to an IN it read (an echo) could be
 * seen first. While an IN write is under way, an OUT transfer is
 * recorded only once the write has returned or a short grace has passed
 * (the IN is then still waiting for the host, so the OUT came first).
 */
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "sim/board.h"
#include "usb_gadget.h"

namespace sim::kernel {

class FfsBulk {
public:
    struct Transfer {
        Clock::time_point when;
        bool in = false;            // true: the host read it
        std::vector<uint8_t> bytes;
    };
    using Observer = std::function<void(const Transfer &transfer)>;

    // `inIndex` and `outIndex`: the endpoints' places in the interface
    // the function was made from. `transferSize` bytes are asked for per
    // OUT read (a host transfer of at most that many arrives whole).
    FfsBulk(FfsFunction &function, size_t inIndex, size_t outIndex, size_t transferSize, Observer observer);
    ~FfsBulk();
    FfsBulk(const FfsBulk &) = delete;
    FfsBulk &operator=(const FfsBulk &) = delete;

    void queueIn(std::vector<uint8_t> bytes);
    size_t queuedIn() const;
    // Every transfer so far (both directions).
    std::vector<Transfer> transfers() const;
    std::vector<Transfer> out() const;
    std::vector<Transfer> in() const;

private:
    void readLoop();
    void writeLoop();
    void record(Transfer transfer);

    int inFd_;
    int outFd_;
    size_t transferSize_;
    Observer observer_;
    mutable std::mutex mutex_;              // guards the queue and the record
    std::condition_variable queued_;        // new IN data or stop
    std::condition_variable written_;       // an IN write returned
    bool inFlight_ = false;                 // an IN write is under way
    std::deque<std::vector<uint8_t>> inQueue_;
    std::vector<Transfer> transfers_;
    std::atomic<bool> stopping_{false};
    std::thread reader_;
    std::thread writer_;
};

} // namespace sim::kernel
