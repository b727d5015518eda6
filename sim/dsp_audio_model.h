/*
 * Audio feature of the DSP model: keeps the DSP's audio state (main and
 * S/PDIF level in dB, main mute, balance, the eight user-equaliser bands,
 * DOA reporting, audio-out route, microphone-bar sector, zoom mode, speaker
 * placement, hot-plug state per peripheral), applies the set commands the
 * module sends and answers its queries in the DSP's reply forms. It can
 * also announce a firmware version and raise sound-direction reports.
 * Silence and garbage are the DSP model's fault modes.
 */
#pragma once

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "dsp_model.h"

namespace sim {

class DspAudio {
public:
    struct EqBand {
        int type = 0;
        int freq = 0;
        float gain = 0.0f;
        float q = 0.0f;
    };
    struct MicBar {
        int start = 0;
        int end = 180;
        bool isStatic = false;
    };

    explicit DspAudio(DspModel &dsp);

    // Sends "VER_FULL=<text>", as a DSP that has just booted does.
    void announceVersion(const std::string &text);
    // Sends a sound-direction report "MIC_DOA=<angle>".
    void raiseDoa(int angle);
    // A DSP restart: every setting goes back to its power-on value (the DSP
    // keeps nothing across restarts; the module restores it).
    void forgetSettings();

    float mainDb() const;
    float spdifDb() const;
    bool mainMuted() const;
    float balanceLeft() const;
    float balanceRight() const;
    EqBand eqBand(unsigned index) const; // index 0..7
    bool doaReporting() const;
    std::string audioOutRoute() const;
    MicBar micBar() const;
    int zoomMode() const;
    std::string speakerEqMode() const; // "" until set
    int hotPlugState(int peripheral) const;
    bool poweredDown() const;

    // Board-side changes (what the DSP would report next).
    void setMainDb(float db);
    void setSpdifDb(float db);
    void setMainMuted(bool muted);
    void setDoaReporting(bool on);
    void setAudioOutRoute(const std::string &route);
    void setEqBand(unsigned index, const EqBand &band);
    void setHotPlugState(int peripheral, int state);

private:
    // The responder outlives this object inside the DSP model (which has
    // no way to remove it), so it shares the state rather than `this`.
    struct State {
        mutable std::mutex mutex; // guards everything below (serial reader thread vs. test)
        float mainDb = -20.0f;
        float spdifDb = -20.0f;
        bool mainMuted = false;
        float balanceLeft = 1.0f;
        float balanceRight = 1.0f;
        std::array<EqBand, 8> eq{};
        bool doaReporting = false;
        std::string route = "SPEAKER";
        MicBar micBar{};
        int zoomMode = 0;
        std::string speakerEqMode;
        std::map<int, int> hotPlug;
        bool poweredDown = false;
    };
    static bool handle(State &state, DspModel &dsp, const std::string &command);

    DspModel &dsp_;
    std::shared_ptr<State> state_;
};

} // namespace sim
