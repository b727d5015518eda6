/*
 * Audio DSP model on /dev/ttyS2: receives NUL-terminated text commands,
 * records them, and answers through responders. Features (audio state,
 * file store, ...) attach responders to the core; the core answers nothing
 * by itself. Fault modes: silence (no answers), garbage (answers replaced
 * by random bytes).
 */
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "board.h"

namespace sim {

class DspModel {
public:
    explicit DspModel(Board &board);
    ~DspModel();

    // Every command received, without its zero byte, in order.
    std::vector<std::string> commands() const;
    size_t commandCount() const;
    void clearCommands();
    // Waits until a command equal to text has been received.
    bool waitForCommand(const std::string &text, std::chrono::milliseconds timeout);
    // Waits until at least n commands have been received.
    bool waitForCommandCount(size_t n, std::chrono::milliseconds timeout);

    // Sends one reply chunk (as the DSP would, without terminator unless
    // included in text).
    void send(const std::string &reply);

    // A responder sees every received command and may answer through
    // send(); returns true when it handled the command.
    using Responder = std::function<bool(DspModel &dsp, const std::string &command)>;
    void addResponder(Responder responder);

    void setSilent(bool silent);   // answers are dropped
    void setGarbage(bool garbage); // answers replaced by random bytes
    // Before each answer, 1..32 random bytes (the first never ASCII, so
    // they never read as a reply) and a pause the module's port reads as
    // the end of a chunk.
    void setNoise(bool noise);
    // Each answer goes out a byte at a time, with that pause after every
    // byte.
    void setSplitAnswers(bool split);
    // The pause that ends a chunk: well above the port's 0.1 s inter-byte
    // time, so that a busy machine does not join the pieces either.
    static constexpr std::chrono::milliseconds kChunkGap{300};
    void setLineRate(unsigned baud);

    Board &board() { return board_; }

private:
    struct Impl;
    Board &board_;
    std::unique_ptr<Impl> impl_;
};

} // namespace sim
