/*
 * The secondary microphone DSP link is not built yet: the status callback
 * is kept but nothing ever calls it.
 */
#include "fig/dsp_fig.h"

#include <atomic>

// Written by service threads, read by the Fig receive thread once it exists.
static std::atomic<DspFigStatusCallback> mDspFigStatusCallback{nullptr};

extern "C" int dspFigHal_set_status_callback(DspFigStatusCallback callback)
{
    mDspFigStatusCallback.store(callback, std::memory_order_relaxed);
    return 0;
}
