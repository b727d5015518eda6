/*
 * The module record HMI, start-up and release. Runs on the service's
 * calling thread. No state of its own beyond the feature-switch caches;
 * every subsystem keeps its own globals. Start-up has no roll-back: a
 * failing step returns -1 and leaves the earlier steps running.
 */
#include "common/avm_trace.h"
#include "avmanager_hal.h"

#include <cstddef>

#include <android/log.h>

#include "amp/amp_program.h"
#include "amp/amp_tuning.h"
#include "camera/camera_pipe.h"
#include "camera/detect.h"
#include "camera/ptz_link.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_restore.h"
#include "common/feature_switches.h"

#define LOG_TAG "qor_avmanager_hal"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

extern "C" {

// Each step of start-up is a span inside the whole, so a system trace of
// the device's boot shows where start-up spends its time. A step that is
// switched off is no span.
int avmanager_hal_init(void)
{
    AvmTraceSpan span(kTraceInit);
    LOGD("[%s]!", __func__);
    if (enableCameraCommunication()) {
        AvmTraceSpan step(kTraceInitCameraPipe);
        initCameraPipe(); // result ignored: the camera link reports its own failure
    }
    // Runs before the DSP link exists: its request goes to descriptor 0 of
    // the not yet created pipe; what counts here is the stored property.
    if (enableAudioWallFloorProp()) {
        AvmTraceSpan step(kTraceInitSpeakerPlacement);
        if (initDspSpkEqMode() < 0) {
            LOGE("[%s]:initDspSpkEqMode failed!!", __func__);
            return -1;
        }
    }
    if (enableDspCommunication()) {
        AvmTraceSpan step(kTraceInitDspLink);
        if (dsp_process_init() < 0) {
            LOGE("[%s]:dsp_process_init failed!!", __func__);
            return -1;
        }
    }
    if (enableCameraCommunication()) {
        AvmTraceSpan step(kTraceInitPtzLink);
        if (camera_ptzHal_init() < 0) {
            LOGE("[%s]:camera_ptzHal_init failed!!", __func__);
            return -1;
        }
    }
    AvmTraceSpan step(kTraceInitDetection);
    int ret = detect_version_init();
    if (ret < 0) {
        LOGE("[%s]:detect_version_init failed!!", __func__);
        return -1;
    }
    return ret;
}

// Deliberately narrower than start-up: the PTZ link and the detection
// thread keep running.
int avmanager_hal_release(void)
{
    AvmTraceSpan span(kTraceRelease);
    LOGD("[%s]", __func__);
    if (enableDspCommunication()) {
        AvmTraceSpan step(kTraceReleaseDspLink);
        dsp_process_deinit();
    }
    if (enableCameraCommunication()) {
        AvmTraceSpan step(kTraceReleaseCameraPipe);
        return unInitCameraPipe();
    }
    return 0;
}

// The slot is kept; the floor/wall tuning is loaded on the first speaker
// placement request instead.
int avmanager_audio_floor_wall_Parase_Init(void)
{
    LOGD("%s", __func__);
    return 0;
}

int Aprojectid_ampini_parase_init(void)
{
    parse_PidAmp_RL_Info();
    parse_PidAmp_SUB_Info();
    HV_SetPIDAMP_Parameter();
    return 1;
}

// The module is never opened as a device: the service calls the table.
static struct hw_module_methods_t gAvmanagerModuleMethods = {nullptr};

__attribute__((visibility("default"))) avmanager_module_t HMI = {
    .common =
        {
            .tag = HARDWARE_MODULE_TAG,
            .module_api_version = 1,
            .hal_api_version = HARDWARE_HAL_API_VERSION,
            .id = AVMANAGER_HARDWARE_MODULE_ID,
            .name = "Default AVAPI HAL",
            .author = "The QUOR AV Project",
            .methods = &gAvmanagerModuleMethods,
            .dso = nullptr,
            .reserved = {},
        },
    .reserved_words = {},
    .hal_init = avmanager_hal_init,
    .hal_release = avmanager_hal_release,
    .set_volume = avmanager_set_volume,
    .get_volume = avmanager_get_volume,
    .set_mute = avmanager_set_mute,
    .get_mute = avmanager_get_mute,
    .set_balance = avmanager_set_balance,
    .get_balance = avmanager_get_balance,
    .get_hotplug = avmanager_get_hotplug,
    .set_soundMode = avmanager_set_soundMode,
    .get_soundMode = avmanager_get_soundMode,
    .set_Treble = avmanager_set_Treble,
    .get_Treble = avmanager_get_Treble,
    .set_Bass = avmanager_set_Bass,
    .get_Bass = avmanager_get_Bass,
    .set_powerDown = avmanager_set_powerDown,
    .usb_hdmiOut_init = avmanager_usb_hdmiOut_init,
    .usb_hdmiOut_deinit = avmanager_usb_hdmiOut_deinit,
    .connect_usb_hdmiOut = avmanager_connect_usb_hdmiOut,
    .disconnect_usb_hdmiOut = avmanager_disconnect_usb_hdmiOut,
    .usb_hdmiOut_packet_process = avmanager_usb_hdmiOut_packet_process,
    .set_usbchannel = avmanager_set_usbchannel,
    .send_cmd_to_dsp = avmanager_send_cmd_to_dsp,
    .set_camera_autotest = avmanager_set_camera_autotest,
    .get_camera_autotest_result = avmanager_get_camera_autotest_result,
    .set_dsp_audio_out_mode = avmanager_set_dsp_audio_out_mode,
    .get_dsp_audio_out_mode = avmanager_get_dsp_audio_out_mode,
    .get_camera_isp_env = avmanager_get_camera_isp_env,
    .set_camera_status_callback = avmanager_set_camera_status_callback,
    .set_dsp_spk_eq_mode = avmanager_set_dsp_spk_eq_mode,
    .get_dsp_spk_eq_mode = avmanager_get_dsp_spk_eq_mode,
    .set_dsp_user_eq_param = avmanager_set_dsp_user_eq_param,
    .get_dsp_user_eq_gain = avmanager_get_dsp_user_eq_gain,
    .setDspDoaReport = avmanager_setDspDoaReport,
    .getDspDoaReport = avmanager_getDspDoaReport,
    .setSmartListenStatic = avmanager_setSmartListenStatic,
    .setSmartListenOff = avmanager_setSmartListenOff,
    .setSmartListenDynamic = avmanager_setSmartListenDynamic,
    .set_dsp_status_callback = avmanager_set_dsp_status_callback,
    .audio_floor_wall_Parase_Init = avmanager_audio_floor_wall_Parase_Init,
    .set_cam_follow_sound_source_mode = avmanager_set_cam_follow_sound_source_mode,
    .get_cam_follow_sound_source_mode = avmanager_get_cam_follow_sound_source_mode,
    .reset_cam_parameters = avmanager_reset_cam_parameters,
    .get_cam_logs = avmanager_get_cam_logs,
    .get_cam_limit_max_temperature = avmanager_get_cam_limit_max_temperature,
    .get_cam_current_temperature = avmanager_get_cam_current_temperature,
    .get_cam_funclist = avmanager_get_cam_funclist,
    .get_cam_support_black_screen = avmanager_get_cam_support_black_screen,
    .set_cam_auto_black_screen = avmanager_set_cam_auto_black_screen,
    .get_cam_auto_black_screen = avmanager_get_cam_auto_black_screen,
};

} // extern "C"

// The loading service finds every field and slot by offset: on the
// device (32-bit ARM, 4-byte pointers) the record is laid out like this.
#if defined(__arm__)
static_assert(offsetof(avmanager_module_t, common.tag) == 0);
static_assert(offsetof(avmanager_module_t, common.module_api_version) == 4);
static_assert(offsetof(avmanager_module_t, common.hal_api_version) == 6);
static_assert(offsetof(avmanager_module_t, common.id) == 8);
static_assert(offsetof(avmanager_module_t, common.name) == 12);
static_assert(offsetof(avmanager_module_t, common.author) == 16);
static_assert(offsetof(avmanager_module_t, common.methods) == 20);
static_assert(offsetof(avmanager_module_t, common.dso) == 24);
static_assert(offsetof(avmanager_module_t, common.reserved) == 28);
static_assert(offsetof(avmanager_module_t, reserved_words) == 128);
static_assert(offsetof(avmanager_module_t, hal_init) == 160);
static_assert(offsetof(avmanager_module_t, set_volume) == 168);
static_assert(offsetof(avmanager_module_t, get_cam_auto_black_screen) == 356);
static_assert(sizeof(avmanager_module_t) == 360);
#endif
// On every target the table is exactly 50 pointer-sized slots after the
// eight reserved words.
static_assert(offsetof(avmanager_module_t, get_cam_auto_black_screen) -
                  offsetof(avmanager_module_t, hal_init) ==
              (AVMANAGER_OPERATION_COUNT - 1) * sizeof(void *));
static_assert(offsetof(avmanager_module_t, hal_init) ==
              sizeof(hw_module_t) + 8 * sizeof(uint32_t));
