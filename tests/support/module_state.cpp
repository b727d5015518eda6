#include "module_state.h"

#include "amp/amp_tuning.h"
#include "camera/camera_pipe.h"
#include "camera/ptz_link.h"
#include "camera/ptz_requests.h"
#include "dsp/dsp_audio.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_replies.h"
#include "dsp/dsp_sound_modes.h"
#include "dsp/file_transfer.h"
#include "fig/dsp_fig.h"
#include "module/feature_switches.h"
#include "test_helpers.h"

namespace avmtest {

void resetModuleState()
{
    ampTuning_resetForTest();
    cameraPipe_resetForTest();
    dspAudio_resetForTest();
    dspFig_resetForTest();
    dspLink_resetForTest();
    dspReplies_resetForTest();
    dspSoundModes_resetForTest();
    featureSwitches_resetForTest();
    fileTransfer_resetForTest();
    ptzLink_resetForTest();
    ptzRequests_resetForTest();
    // dup2 replaces descriptor 0 in one step: no other open can take it.
    EXPECT_TRUE(sinkDescriptorZero());
}

} // namespace avmtest
