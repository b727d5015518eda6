/*
 * Bulk endpoints of a FunctionFS function, served by two threads.
 */
#include "ffs_bulk.h"

#include <unistd.h>

#include <cerrno>

namespace sim::kernel {

namespace {
// How long a thread waits before it looks again at an endpoint that the
// host has not configured (FunctionFS answers EAGAIN then).
constexpr std::chrono::milliseconds kIdle{5};
// How long an OUT transfer waits for an IN write under way to return.
constexpr std::chrono::milliseconds kInGrace{200};
} // namespace

FfsBulk::FfsBulk(FfsFunction &function, size_t inIndex, size_t outIndex, size_t transferSize, Observer observer)
    : inFd_(function.endpoint(inIndex)), outFd_(function.endpoint(outIndex)), transferSize_(transferSize),
      observer_(std::move(observer))
{
    reader_ = std::thread([this] { readLoop(); });
    writer_ = std::thread([this] { writeLoop(); });
}

FfsBulk::~FfsBulk()
{
    // The owner unplugs the device first, which ends a transfer in
    // progress; a thread between transfers sees the flag.
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    queued_.notify_all();
    reader_.join();
    writer_.join();
}

void FfsBulk::record(Transfer transfer)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        transfers_.push_back(transfer);
    }
    if (observer_)
        observer_(transfer);
}

void FfsBulk::readLoop()
{
    std::vector<uint8_t> buffer(transferSize_);
    while (!stopping_ && outFd_ >= 0) {
        const ssize_t n = read(outFd_, buffer.data(), buffer.size());
        if (n < 0) {
            // Not configured yet, or unplugged mid-transfer.
            std::this_thread::sleep_for(kIdle);
            continue;
        }
        const Clock::time_point when = Clock::now();
        {
            std::unique_lock<std::mutex> lock(mutex_);
            written_.wait_for(lock, kInGrace, [this] { return !inFlight_; });
        }
        record({when, false, std::vector<uint8_t>(buffer.begin(), buffer.begin() + n)});
    }
}

void FfsBulk::writeLoop()
{
    while (inFd_ >= 0) {
        std::vector<uint8_t> bytes;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            queued_.wait(lock, [this] { return stopping_ || !inQueue_.empty(); });
            if (stopping_)
                return;
            bytes = inQueue_.front();
            inFlight_ = true;
        }
        const ssize_t n = write(inFd_, bytes.data(), bytes.size());
        if (n < 0) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                inFlight_ = false;
            }
            written_.notify_all();
            std::this_thread::sleep_for(kIdle);
            continue;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            inQueue_.pop_front();
        }
        bytes.resize(static_cast<size_t>(n));
        record({Clock::now(), true, std::move(bytes)});
        {
            std::lock_guard<std::mutex> lock(mutex_);
            inFlight_ = false;
        }
        written_.notify_all();
    }
}

void FfsBulk::queueIn(std::vector<uint8_t> bytes)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        inQueue_.push_back(std::move(bytes));
    }
    queued_.notify_all();
}

size_t FfsBulk::queuedIn() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return inQueue_.size();
}

std::vector<FfsBulk::Transfer> FfsBulk::transfers() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return transfers_;
}

std::vector<FfsBulk::Transfer> FfsBulk::out() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Transfer> result;
    for (const auto &t : transfers_)
        if (!t.in)
            result.push_back(t);
    return result;
}

std::vector<FfsBulk::Transfer> FfsBulk::in() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Transfer> result;
    for (const auto &t : transfers_)
        if (t.in)
            result.push_back(t);
    return result;
}

} // namespace sim::kernel
