#include "module_state.h"

#include "amp/amp_tuning.h"
#include "camera/cam_detect.h"
#include "camera/cam_hid.h"
#include "camera/cam_logs.h"
#include "camera/camera_pipe.h"
#include "camera/detect.h"
#include "camera/ptz_link.h"
#include "camera/ptz_requests.h"
#include "camera/usb_tool.h"
#include "dsp/dsp_audio.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_replies.h"
#include "dsp/dsp_sound_modes.h"
#include "dsp/file_transfer.h"
#include "fig/dsp_fig.h"
#include "common/feature_switches.h"
#include "test_helpers.h"

namespace avmtest {

void resetModuleState()
{
    // The detection thread goes first: it reads the state reset below.
    detect_resetForTest();
    ampTuning_resetForTest();
    cam_detect_resetForTest();
    cam_hid_resetForTest();
    cam_logs_resetForTest(CAM_FILE_IDLE, nullptr);
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
    usb_tool_resetForTest();
    // dup2 replaces descriptor 0 in one step: no other open can take it.
    EXPECT_TRUE(sinkDescriptorZero());
}

} // namespace avmtest
