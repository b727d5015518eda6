/*
 * Microphone feature of the DSP model: the DSP's firmware version and its
 * microphone self-tests.
 *
 *   "VER_FULL=?"         -> "VER_FULL=<version>"
 *   "MIC_TEST=?"         starts the microphone test -> "MIC_TEST=TESTING"
 *   "MIC_TEST_RET=?"     -> "MIC_TEST=TESTING" while the test runs, then
 *                           "MIC_TEST=<count>,<bits>" (one bit per
 *                           microphone, 1 = working)
 *   "AUX_TEST[n]=?"      starts auxiliary test n -> "AUX_TEST[n]=TESTING"
 *   "AUX_TEST_RET[n]=?"  -> "AUX_TEST[n]=TESTING" while it runs, then
 *                           "AUX_TEST[n]=PASS" or "AUX_TEST[n]=FAIL"
 *
 * A test runs for a given number of result queries (two unless told
 * otherwise); with zero the start query gets the final answer at once.
 * Answers go out at least kAnswerGap apart, as the DSP gives them: the
 * module reads whatever arrives within 0.1 s as one reply, and the
 * detection thread asks several questions at once.
 * Faults: the version and the test queries can each be left unanswered.
 *
 * Threads: commands arrive on the DSP model's reader thread; tests and the
 * console use the setters and getters. The state is shared with the
 * responder the DSP model keeps, under one mutex.
 */
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "dsp_model.h"

namespace sim {

class DspMicTest {
public:
    static constexpr std::chrono::milliseconds kAnswerGap{150};

    explicit DspMicTest(DspModel &dsp, std::string version = "AVM-DSP 2.4.1 build 0917");

    // The answer to the microphone test: count and bit mask.
    void setMicResult(int count, unsigned bits);
    // The answer to auxiliary test n (0..3).
    void setAuxResult(int index, bool pass);
    // Result queries answered "TESTING" before the final answer.
    void setTestDuration(int resultQueries);
    void setVersion(const std::string &version);
    void setVersionSilent(bool silent); // "VER_FULL=?" gets no answer
    void setTestsSilent(bool silent);   // test queries get no answer

    // Queries seen, by their text ("MIC_TEST=?", "AUX_TEST[1]=?", ...).
    int queries(const std::string &text) const;
    bool micTestRunning() const;
    bool auxTestRunning(int index) const;

private:
    struct State {
        mutable std::mutex mutex; // guards everything below
        Clock::time_point lastAnswer{}; // when the last answer went out
        std::string version;
        int micCount = 4;
        unsigned micBits = 0xF;
        std::map<int, bool> auxPass;
        int duration = 2;
        int micLeft = -1;              // result queries left; -1: no test
        std::map<int, int> auxLeft;    // per index, as micLeft
        bool versionSilent = false;
        bool testsSilent = false;
        std::map<std::string, int> seen;
    };
    static bool handle(State &state, DspModel &dsp, const std::string &command);

    std::shared_ptr<State> state_;
};

} // namespace sim
