/*
 * The DSP link on the virtual board with the DSP model's audio feature and
 * file store, for the tests of what the module does when the DSP announces
 * itself (configuration upgrade, then the restore of stored settings).
 * Tear-down lets a restore still in flight finish before the link goes
 * down, and on failure prints what crossed the line and what was logged.
 */
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>

#include "dsp_on_board.h"
#include "log_capture.h"
#include "sim/board.h"
#include "sim/dsp_audio_model.h"
#include "sim/dsp_file_store.h"
#include "sim/dsp_model.h"

namespace avmtest {

class DspStoreBoard : public ::testing::Test, protected DspOnBoard {
protected:
    void TearDown() override;

    void startLink();

    // Waits until the line has been quiet for longer than one request's
    // poll window (40 s at most).
    void settle();

    // At least `n` speaker-equaliser commands have reached the DSP: each
    // restoring pass ends with one.
    bool waitForSpeakerEq(size_t n, std::chrono::milliseconds timeout);

    sim::DspFileStore store{dsp};
    bool linkUp = false;
};

} // namespace avmtest
