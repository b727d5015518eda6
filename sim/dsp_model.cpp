/*
 * Audio DSP model core: owns the "dsp" serial line on /dev/ttyS2, splits
 * what the module writes into zero-terminated commands, hands each one to
 * the responders in the order they were added, then records it.
 *
 * Threads: commands arrive on the line's reader thread, which also runs the
 * responders (a responder's send() writes from there). Tests read the
 * command log from their own thread. Impl::mutex guards the log, the
 * partial command and the responder list; fault switches are atomics.
 */
#include "dsp_model.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <random>
#include <thread>

namespace sim {

namespace {
constexpr const char *kDspNode = "/dev/ttyS2";
constexpr const char *kDspLink = "dsp";
} // namespace

struct DspModel::Impl {
    SerialLine line;                     // the DSP end of /dev/ttyS2
    mutable std::mutex mutex;            // guards the fields below
    std::condition_variable changed;     // signalled for every new command
    std::vector<std::string> commands;   // every command, in order of arrival
    std::string partial;                 // bytes of a command not yet terminated
    std::vector<Responder> responders;   // offered each command in order
    std::mt19937 random{20261122u};      // garbage bytes (reader/test thread, under mutex)
    std::atomic<bool> silent{false};     // replies are dropped
    std::atomic<bool> garbage{false};    // replies replaced by random bytes
    std::atomic<bool> noise{false};      // a random burst and a pause before each reply
    std::atomic<bool> split{false};      // replies a byte at a time, a pause after each

    explicit Impl(Board &board) : line(board, kDspNode, kDspLink) {}
};

DspModel::DspModel(Board &board) : board_(board), impl_(std::make_unique<Impl>(board))
{
    impl_->line.start([this](const uint8_t *data, size_t size) {
        // A chunk may carry several commands and the tail of one that the
        // next chunk completes.
        std::vector<std::string> complete;
        {
            std::lock_guard<std::mutex> lock(impl_->mutex);
            for (size_t i = 0; i < size; ++i) {
                if (data[i] == 0) {
                    complete.push_back(impl_->partial);
                    impl_->partial.clear();
                } else {
                    impl_->partial += static_cast<char>(data[i]);
                }
            }
        }
        for (const std::string &command : complete) {
            std::vector<Responder> responders;
            {
                std::lock_guard<std::mutex> lock(impl_->mutex);
                responders = impl_->responders;
            }
            for (auto &responder : responders)
                if (responder(*this, command))
                    break;
            // Recorded once handled: whoever sees a command in the record
            // also sees what it did to the model's state.
            {
                std::lock_guard<std::mutex> lock(impl_->mutex);
                impl_->commands.push_back(command);
            }
            impl_->changed.notify_all();
        }
    });
}

DspModel::~DspModel() { impl_->line.stop(); }

std::vector<std::string> DspModel::commands() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->commands;
}

size_t DspModel::commandCount() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->commands.size();
}

void DspModel::clearCommands()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->commands.clear();
}

bool DspModel::waitForCommand(const std::string &text, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] {
        for (const auto &command : impl_->commands)
            if (command == text)
                return true;
        return false;
    });
}

bool DspModel::waitForCommandCount(size_t n, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return impl_->commands.size() >= n; });
}

void DspModel::send(const std::string &reply)
{
    if (impl_->silent.load(std::memory_order_relaxed))
        return;
    std::string bytes = reply;
    if (impl_->garbage.load(std::memory_order_relaxed)) {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        std::uniform_int_distribution<int> byte(0, 255);
        for (char &c : bytes)
            c = static_cast<char>(byte(impl_->random));
    }
    if (impl_->noise.load(std::memory_order_relaxed)) {
        std::string burst;
        {
            std::lock_guard<std::mutex> lock(impl_->mutex);
            std::uniform_int_distribution<int> length(1, 32);
            std::uniform_int_distribution<int> byte(0, 255);
            burst.resize(static_cast<size_t>(length(impl_->random)));
            for (char &c : burst)
                c = static_cast<char>(byte(impl_->random));
        }
        burst[0] = static_cast<char>(burst[0] | 0x80);
        impl_->line.write(burst.data(), burst.size());
        std::this_thread::sleep_for(kChunkGap);
    }
    if (impl_->split.load(std::memory_order_relaxed)) {
        for (char c : bytes) {
            impl_->line.write(&c, 1);
            std::this_thread::sleep_for(kChunkGap);
        }
        return;
    }
    impl_->line.write(bytes.data(), bytes.size());
}

void DspModel::addResponder(Responder responder)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->responders.push_back(std::move(responder));
}

void DspModel::setSilent(bool silent) { impl_->silent.store(silent, std::memory_order_relaxed); }

void DspModel::setGarbage(bool garbage) { impl_->garbage.store(garbage, std::memory_order_relaxed); }

void DspModel::setNoise(bool noise) { impl_->noise.store(noise, std::memory_order_relaxed); }

void DspModel::setSplitAnswers(bool split) { impl_->split.store(split, std::memory_order_relaxed); }

void DspModel::setLineRate(unsigned baud) { impl_->line.setLineRate(baud); }

} // namespace sim
