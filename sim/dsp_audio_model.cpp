/*
 * Audio feature of the DSP model. Commands arrive on the DSP model's
 * serial reader thread; the state is guarded by one mutex because tests
 * and the console read and change it from their own threads. Replies are
 * sent outside the lock.
 */
#include "dsp_audio_model.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace sim {

namespace {

bool startsWith(std::string_view s, std::string_view prefix)
{
    return s.substr(0, prefix.size()) == prefix;
}

std::string format(const char *fmt, double a)
{
    char buf[64];
    snprintf(buf, sizeof buf, fmt, a);
    return buf;
}

} // namespace

DspAudio::DspAudio(DspModel &dsp) : dsp_(dsp), state_(std::make_shared<State>())
{
    std::shared_ptr<State> state = state_;
    dsp_.addResponder(
        [state](DspModel &d, const std::string &command) { return handle(*state, d, command); });
}

void DspAudio::announceVersion(const std::string &text)
{
    dsp_.send("VER_FULL=" + text);
}

void DspAudio::raiseDoa(int angle)
{
    dsp_.send("MIC_DOA=" + std::to_string(angle));
}

void DspAudio::forgetSettings()
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    State &s = *state_;
    s.mainDb = State{}.mainDb;
    s.spdifDb = State{}.spdifDb;
    s.mainMuted = false;
    s.balanceLeft = 1.0f;
    s.balanceRight = 1.0f;
    s.eq = {};
    s.doaReporting = false;
    s.route = "SPEAKER";
    s.micBar = {};
    s.zoomMode = 0;
    s.speakerEqMode.clear();
    s.hotPlug.clear();
    s.poweredDown = false;
}

bool DspAudio::handle(State &st, DspModel &dsp, const std::string &command)
{
    std::string_view c = command;
    std::string reply;
    {
        std::lock_guard<std::mutex> lock(st.mutex);
        if (c == "MV=?") {
            reply = format("MV=%.2f", st.mainDb);
        } else if (startsWith(c, "MV=")) {
            st.mainDb = strtof(command.c_str() + 3, nullptr);
        } else if (c == "VS=?") {
            reply = format("VS=%.2f", st.spdifDb);
        } else if (startsWith(c, "VS=")) {
            st.spdifDb = strtof(command.c_str() + 3, nullptr);
        } else if (c == "MT=?") {
            reply = st.mainMuted ? "MT=1" : "MT=0";
        } else if (c == "MT=1" || c == "MT=0") {
            st.mainMuted = c == "MT=1";
        } else if (startsWith(c, "BAL_LEFT=")) {
            st.balanceLeft = strtof(command.c_str() + 9, nullptr);
        } else if (startsWith(c, "BAL_RIGHT=")) {
            st.balanceRight = strtof(command.c_str() + 10, nullptr);
        } else if (startsWith(c, "USER_EQ[")) {
            int index = -1;
            int consumed = 0;
            if (sscanf(command.c_str(), "USER_EQ[%d]=%n", &index, &consumed) < 1 || consumed == 0 ||
                index < 0 || index > 7)
                return false;
            const char *rest = command.c_str() + consumed;
            if (std::string_view(rest) == "?") {
                const EqBand &b = st.eq[index];
                char buf[96];
                snprintf(buf, sizeof buf, "USER_EQ[%d]=%d,%d,%.4f,%.4f", index, b.type, b.freq,
                         static_cast<double>(b.gain), static_cast<double>(b.q));
                reply = buf;
            } else {
                EqBand b;
                if (sscanf(rest, "%d,%d,%f,%f", &b.type, &b.freq, &b.gain, &b.q) != 4)
                    return false;
                st.eq[index] = b;
            }
        } else if (c == "MIC_DOA_REP=?") {
            reply = st.doaReporting ? "MIC_DOA_REP=1" : "MIC_DOA_REP=0";
        } else if (startsWith(c, "MIC_DOA_REP=")) {
            st.doaReporting = atoi(command.c_str() + 12) != 0;
        } else if (c == "AOM=?") {
            reply = "AOM=" + st.route;
        } else if (startsWith(c, "AOM=")) {
            st.route = command.substr(4);
        } else if (startsWith(c, "MIC_BAR=")) {
            MicBar bar;
            char tail[16] = {};
            int n = sscanf(command.c_str() + 8, "%d,%d,%15s", &bar.start, &bar.end, tail);
            if (n < 2)
                return false;
            bar.isStatic = n == 3 && std::string_view(tail) == "static";
            st.micBar = bar;
        } else if (startsWith(c, "ZOOM_MODE=")) {
            st.zoomMode = atoi(command.c_str() + 10);
        } else if (startsWith(c, "SPK_EQ_MODE=")) {
            st.speakerEqMode = command.substr(12);
        } else if (startsWith(c, "PER_STAT=") && c.size() > 9 && c.back() == '?') {
            int peripheral = atoi(command.c_str() + 9);
            auto it = st.hotPlug.find(peripheral);
            // "id, state": the blank after the comma is what makes the
            // module's overlapping token copy read id and state apart.
            reply = "PER_STAT=" + std::to_string(peripheral) + ", " +
                    std::to_string(it == st.hotPlug.end() ? 0 : it->second);
        } else if (c == "PD=1") {
            st.poweredDown = true;
        } else {
            return false;
        }
    }
    if (!reply.empty())
        dsp.send(reply);
    return true;
}

#define SIM_GETTER(type, name, expr)                                                               \
    type DspAudio::name() const                                                                    \
    {                                                                                              \
        std::lock_guard<std::mutex> lock(state_->mutex);                                                  \
        return expr;                                                                               \
    }

SIM_GETTER(float, mainDb, state_->mainDb)
SIM_GETTER(float, spdifDb, state_->spdifDb)
SIM_GETTER(bool, mainMuted, state_->mainMuted)
SIM_GETTER(float, balanceLeft, state_->balanceLeft)
SIM_GETTER(float, balanceRight, state_->balanceRight)
SIM_GETTER(bool, doaReporting, state_->doaReporting)
SIM_GETTER(std::string, audioOutRoute, state_->route)
SIM_GETTER(DspAudio::MicBar, micBar, state_->micBar)
SIM_GETTER(int, zoomMode, state_->zoomMode)
SIM_GETTER(std::string, speakerEqMode, state_->speakerEqMode)
SIM_GETTER(bool, poweredDown, state_->poweredDown)
#undef SIM_GETTER

DspAudio::EqBand DspAudio::eqBand(unsigned index) const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return index < state_->eq.size() ? state_->eq[index] : EqBand{};
}

int DspAudio::hotPlugState(int peripheral) const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->hotPlug.find(peripheral);
    return it == state_->hotPlug.end() ? 0 : it->second;
}

void DspAudio::setMainDb(float db)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->mainDb = db;
}

void DspAudio::setSpdifDb(float db)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->spdifDb = db;
}

void DspAudio::setMainMuted(bool muted)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->mainMuted = muted;
}

void DspAudio::setDoaReporting(bool on)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->doaReporting = on;
}

void DspAudio::setAudioOutRoute(const std::string &route)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->route = route;
}

void DspAudio::setEqBand(unsigned index, const EqBand &band)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (index < state_->eq.size())
        state_->eq[index] = band;
}

void DspAudio::setHotPlugState(int peripheral, int state)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->hotPlug[peripheral] = state;
}

} // namespace sim
