/*
 * The module on the virtual board, as the board tests start and stop it:
 * loading HMI by id, start-up, a release that does not sit out the DSP
 * receive thread's select time-out; with it the small helpers every test
 * shares (test_helpers.h).
 */
#pragma once

#include <fcntl.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "avmanager_hal.h"
#include "test_helpers.h"

namespace sim {
class DspModel;
}

namespace avmtest {

// HMI as the loader finds it by the module id; records a failure and
// gives nullptr when the loader does not find it.
const avmanager_module_t *loadModule();

// Loads HMI into `hmi` and runs start-up; true when start-up succeeded
// (failures are recorded).
bool startModule(const avmanager_module_t *&hmi);

// Runs `stop` (release, or the DSP link's own stop) on a thread of its
// own and returns its result. Until it returns, the DSP sends a newline
// every 150 ms: the receive thread wakes from its select and sees the
// link going down at once instead of after its 5 s time-out. The gap is
// above the port's 0.1 s inter-byte time, so each byte ends a read. The
// DSP's fault modes (silence, garbage, noise, split answers) are switched off first so the bytes go
// out; with no DSP model the helper only waits.
int stopNudgingDsp(sim::DspModel *dsp, const std::function<int()> &stop);

// hal_release through HMI, nudging the DSP as above.
int releaseModule(const avmanager_module_t *hmi, sim::DspModel *dsp);

// dsp_process_deinit, nudging the DSP as above.
int stopDspLink(sim::DspModel *dsp);

// Stops the PTZ link (camera_ptzHal_deinit, whose result it returns) and
// joins all three of its threads, so none outlives the test: the sender
// waits on the camera pipe, so messages are queued until it has ended, and
// the test thread, which the module never joins, is joined here.
int stopPtzLink();

} // namespace avmtest
