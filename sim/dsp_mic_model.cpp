/*
 * Microphone feature of the DSP model. Runs on the DSP model's reader
 * thread; answers are sent outside the lock.
 */
#include "dsp_mic_model.h"

#include <cstdio>
#include <thread>

namespace sim {

namespace {

constexpr int kAuxTests = 4;

std::string micFinal(int count, unsigned bits)
{
    return "MIC_TEST=" + std::to_string(count) + "," + std::to_string(bits);
}

std::string auxAnswer(int index, const std::string &what)
{
    return "AUX_TEST[" + std::to_string(index) + "]=" + what;
}

// "AUX_TEST[n]=?" / "AUX_TEST_RET[n]=?": the index, or -1.
int auxIndex(const std::string &command, const char *word)
{
    int index = -1;
    int consumed = 0;
    const std::string format = std::string(word) + "[%d]=?%n";
    if (std::sscanf(command.c_str(), format.c_str(), &index, &consumed) != 1 ||
        consumed != static_cast<int>(command.size()) || index < 0 || index >= kAuxTests)
        return -1;
    return index;
}

} // namespace

DspMicTest::DspMicTest(DspModel &dsp, std::string version) : state_(std::make_shared<State>())
{
    state_->version = std::move(version);
    std::shared_ptr<State> state = state_;
    dsp.addResponder([state](DspModel &d, const std::string &command) { return handle(*state, d, command); });
}

bool DspMicTest::handle(State &st, DspModel &dsp, const std::string &command)
{
    std::string reply;
    {
        std::lock_guard<std::mutex> lock(st.mutex);
        int index = -1;
        if (command == "VER_FULL=?") {
            ++st.seen[command];
            if (!st.versionSilent)
                reply = "VER_FULL=" + st.version;
        } else if (command == "MIC_TEST=?") {
            ++st.seen[command];
            st.micLeft = st.duration;
            reply = st.micLeft > 0 ? "MIC_TEST=TESTING" : micFinal(st.micCount, st.micBits);
            if (st.micLeft == 0)
                st.micLeft = -1;
        } else if (command == "MIC_TEST_RET=?") {
            ++st.seen[command];
            if (st.micLeft > 0)
                --st.micLeft;
            if (st.micLeft > 0) {
                reply = "MIC_TEST=TESTING";
            } else {
                reply = micFinal(st.micCount, st.micBits);
                st.micLeft = -1;
            }
        } else if ((index = auxIndex(command, "AUX_TEST")) >= 0) {
            ++st.seen[command];
            st.auxLeft[index] = st.duration;
            const bool pass = st.auxPass.count(index) ? st.auxPass[index] : true;
            reply = auxAnswer(index, st.duration > 0 ? "TESTING" : pass ? "PASS" : "FAIL");
            if (st.duration == 0)
                st.auxLeft.erase(index);
        } else if ((index = auxIndex(command, "AUX_TEST_RET")) >= 0) {
            ++st.seen[command];
            int &left = st.auxLeft[index];
            if (left > 0)
                --left;
            const bool pass = st.auxPass.count(index) ? st.auxPass[index] : true;
            if (left > 0) {
                reply = auxAnswer(index, "TESTING");
            } else {
                reply = auxAnswer(index, pass ? "PASS" : "FAIL");
                st.auxLeft.erase(index);
            }
        } else {
            return false;
        }
        if (st.testsSilent && command != "VER_FULL=?")
            reply.clear();
    }
    if (reply.empty())
        return true;
    // Spaced from the previous answer so that each one is read on its own.
    Clock::time_point due;
    {
        std::lock_guard<std::mutex> lock(st.mutex);
        due = st.lastAnswer + kAnswerGap;
    }
    std::this_thread::sleep_until(due);
    dsp.send(reply);
    std::lock_guard<std::mutex> lock(st.mutex);
    st.lastAnswer = Clock::now();
    return true;
}

void DspMicTest::setMicResult(int count, unsigned bits)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->micCount = count;
    state_->micBits = bits;
}

void DspMicTest::setAuxResult(int index, bool pass)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->auxPass[index] = pass;
}

void DspMicTest::setTestDuration(int resultQueries)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->duration = resultQueries < 0 ? 0 : resultQueries;
}

void DspMicTest::setVersion(const std::string &version)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->version = version;
}

void DspMicTest::setVersionSilent(bool silent)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->versionSilent = silent;
}

void DspMicTest::setTestsSilent(bool silent)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->testsSilent = silent;
}

int DspMicTest::queries(const std::string &text) const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->seen.find(text);
    return it == state_->seen.end() ? 0 : it->second;
}

bool DspMicTest::micTestRunning() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->micLeft > 0;
}

bool DspMicTest::auxTestRunning(int index) const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->auxLeft.find(index);
    return it != state_->auxLeft.end() && it->second > 0;
}

} // namespace sim
