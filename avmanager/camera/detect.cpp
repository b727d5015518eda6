/*
 * Device detection is not built yet: the detection thread (microphone
 * status, versions, self-tests) does not run. Start-up treats it as started
 * so the rest of the module works; the microphone test replies are ignored.
 */
#include "camera/detect.h"

#include <android/log.h>

#define LOG_TAG "DETECT_HAL"

extern "C" {

int detect_version_init(void)
{
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: detection thread not built\n", __func__);
    return 0;
}

int dsp_mic_status_update(const char *value)
{
    return 0;
}

int dsp_mic_aux_test_update(const char *value)
{
    return 0;
}

}
