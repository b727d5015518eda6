/*
 * The virtual board with the DSP model and its audio feature attached, and
 * a capture of what the module logs: the common ground of the board tests
 * that drive the DSP line. Fixtures derive from it next to
 * ::testing::Test and add their own models; the log capture is made first
 * and the board outlives every model on it.
 */
#pragma once

#include "log_capture.h"
#include "sim/board.h"
#include "sim/dsp_audio_model.h"
#include "sim/dsp_model.h"

namespace avmtest {

struct DspOnBoard {
    LogCapture log;
    sim::Board board;
    sim::DspModel dsp{board};
    sim::DspAudio audio{dsp};
};

} // namespace avmtest
