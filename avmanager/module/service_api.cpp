/*
 * Service API: slots 2..49 of the operations table. Each operation checks
 * the feature switch of its peripheral, returns a fixed result when the
 * switch is off, and otherwise forwards its arguments unchanged and returns
 * the subsystem's result unchanged. No state, no locks. Runs on whatever
 * service thread calls it.
 *
 * The switched-off results are deliberately not uniform (-1 for most
 * queries, 0 for most setters); a caller cannot tell a closed gate from a
 * genuine 0, and that is kept.
 */
#include "avmanager_hal.h"

#include <android/log.h>

#include "camera/cam_logs.h"
#include "camera/ptz_requests.h"
#include "codec/usb_hdmi_out.h"
#include "dsp/dsp_audio.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_pickup.h"
#include "dsp/dsp_sound_modes.h"
#include "fig/dsp_fig.h"
#include "common/feature_switches.h"

#define LOG_TAG "qor_avmanager_hal"
#define LOG_ENTER() __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "[%s]", __func__)

// The gate of every DSP or camera operation: log, check the switch, return
// `off` when it is closed, otherwise the forwarded call's result.
#define GATE(switchOn, off, call)                                                                 \
    do {                                                                                          \
        LOG_ENTER();                                                                              \
        if (!(switchOn))                                                                          \
            return off;                                                                           \
        return call;                                                                              \
    } while (0)

#define DSP_GATE(off, call) GATE(enableDspCommunication(), off, call)
#define CAMERA_GATE(off, call) GATE(enableCameraCommunication(), off, call)

extern "C" {

int avmanager_set_volume(avm_self_t, int channel, int volume)
{
    DSP_GATE(-1, dspHal_set_volume(channel, static_cast<unsigned>(volume)));
}

int avmanager_get_volume(avm_self_t, int channel)
{
    DSP_GATE(-1, dspHal_get_volume(channel));
}

int avmanager_set_mute(avm_self_t, int channel, int mute)
{
    DSP_GATE(0, dspHal_set_mute(channel, mute));
}

int avmanager_get_mute(avm_self_t, int channel)
{
    DSP_GATE(0, dspHal_get_mute(channel));
}

int avmanager_set_balance(avm_self_t, int balance)
{
    DSP_GATE(0, dspHal_set_balance(static_cast<unsigned>(balance)));
}

int avmanager_get_balance(void)
{
    DSP_GATE(-1, dspHal_get_balance());
}

int avmanager_get_hotplug(avm_self_t, int peripheral)
{
    DSP_GATE(-1, dspHal_get_hotPlug(peripheral));
}

int avmanager_set_soundMode(avm_self_t, int mode)
{
    DSP_GATE(0, dspHal_set_soundMode(mode));
}

int avmanager_get_soundMode(void)
{
    DSP_GATE(-1, dspHal_get_soundMode());
}

int avmanager_set_Treble(avm_self_t, int treble)
{
    DSP_GATE(0, dspHal_set_treble(static_cast<unsigned>(treble)));
}

int avmanager_get_Treble(void)
{
    DSP_GATE(-1, dspHal_get_treble());
}

int avmanager_set_Bass(avm_self_t, int bass)
{
    DSP_GATE(0, dspHal_set_bass(static_cast<unsigned>(bass)));
}

int avmanager_get_Bass(void)
{
    DSP_GATE(-1, dspHal_get_bass());
}

int avmanager_set_powerDown(void)
{
    DSP_GATE(0, dspHal_set_powerDown());
}

// The HDMI-out operations have no switch.
int avmanager_usb_hdmiOut_init(avm_self_t, int vendor_id, int product_id)
{
    LOG_ENTER();
    return codecHal_usb_hdmiOut_init(vendor_id, product_id);
}

int avmanager_usb_hdmiOut_deinit(void)
{
    LOG_ENTER();
    return codecHal_usb_hdmiOut_deinit();
}

int avmanager_connect_usb_hdmiOut(void)
{
    LOG_ENTER();
    return codecHal_usb_hdmiOut_connect();
}

int avmanager_disconnect_usb_hdmiOut(void)
{
    LOG_ENTER();
    return codecHal_usb_hdmiOut_disconnect();
}

int avmanager_usb_hdmiOut_packet_process(avm_self_t, int type, int total_len, int this_len,
                                         int param1, int param2, int param3, int width, int height,
                                         const uint8_t *payload)
{
    return codecHal_usb_hdmiOut_data_process(type, total_len, this_len, param1, param2, param3,
                                             width, height, payload);
}

int avmanager_set_usbchannel(avm_self_t, int channel)
{
    CAMERA_GATE(0, ptz_send_usb_channel_info(static_cast<uint32_t>(channel)));
}

int avmanager_send_cmd_to_dsp(avm_self_t, const char *cmd)
{
    DSP_GATE(-1, send_cmd_to_dsp(cmd));
}

int avmanager_set_camera_autotest(avm_self_t, int mode)
{
    CAMERA_GATE(0, ptz_set_autotest(static_cast<uint32_t>(mode)));
}

int avmanager_get_camera_autotest_result(void)
{
    CAMERA_GATE(0, ptz_get_autotest_status());
}

int avmanager_set_dsp_audio_out_mode(avm_self_t, const char *mode)
{
    DSP_GATE(0, dspHal_set_audioMode(mode));
}

int avmanager_get_dsp_audio_out_mode(void)
{
    DSP_GATE(-1, dspHal_get_audioMode());
}

int avmanager_get_camera_isp_env(avm_self_t, int32_t *pair)
{
    CAMERA_GATE(-1, ptz_get_isp_env(pair));
}

void avmanager_set_camera_status_callback(avm_self_t, avmanager_camera_status_cb cb)
{
    LOG_ENTER();
    if (enableCameraCommunication())
        ptz_set_camera_status_callback(cb);
}

// A device without the DSP link can still switch its amplifier tuning
// between floor and wall placement.
int avmanager_set_dsp_spk_eq_mode(avm_self_t, int mode)
{
    LOG_ENTER();
    if (enableDspCommunication() || enableAudioWallFloorProp())
        return dspHal_set_spk_eq_mode(mode);
    return 0;
}

int avmanager_get_dsp_spk_eq_mode(void)
{
    LOG_ENTER();
    if (enableDspCommunication() || enableAudioWallFloorProp())
        return dspHal_get_spk_eq_mode();
    return -1;
}

int avmanager_set_dsp_user_eq_param(avm_self_t, int index, int type, int freq, int gain, int q)
{
    DSP_GATE(0, dspHal_set_user_eq_param(index, type, freq, gain, q));
}

int avmanager_get_dsp_user_eq_gain(avm_self_t, int index)
{
    DSP_GATE(0, dspHal_get_user_eq_gain(index));
}

int avmanager_setDspDoaReport(avm_self_t, int on)
{
    DSP_GATE(0, dspHal_set_doa_status(on));
}

int avmanager_getDspDoaReport(void)
{
    DSP_GATE(0, dspHal_get_doa_status());
}

// The smart-listening operations need both links and always return 0; the
// results of the forwarded calls are ignored.
int avmanager_setSmartListenStatic(avm_self_t, int start_angle, int end_angle)
{
    LOG_ENTER();
    if (enableCameraCommunication() && enableDspCommunication()) {
        ptz_set_smart_listen_report_status(0);
        dspHal_set_mic_bar_angle(start_angle, end_angle, 1);
    }
    return 0;
}

int avmanager_setSmartListenOff(void)
{
    LOG_ENTER();
    if (enableCameraCommunication() && enableDspCommunication()) {
        ptz_set_smart_listen_report_status(0);
        dspHal_set_mic_bar_angle(0, 180, 1); // the full half-circle, fixed
    }
    return 0;
}

int avmanager_setSmartListenDynamic(void)
{
    LOG_ENTER();
    if (enableCameraCommunication() && enableDspCommunication())
        ptz_set_smart_listen_report_status(1); // the camera's reports steer the pickup
    return 0;
}

int avmanager_set_dsp_status_callback(avm_self_t, avmanager_dsp_status_cb cb)
{
    DSP_GATE(-1, dspFigHal_set_status_callback(cb));
}

int avmanager_set_cam_follow_sound_source_mode(avm_self_t, int mode)
{
    CAMERA_GATE(-1, ptz_set_cam_follow_sound_source_mode(mode));
}

int avmanager_get_cam_follow_sound_source_mode(void)
{
    CAMERA_GATE(0, ptz_get_cam_follow_sound_source_mode());
}

int avmanager_reset_cam_parameters(void)
{
    CAMERA_GATE(0, ptz_cam_reset_factory_parameters());
}

int avmanager_get_cam_logs(avm_self_t, const char *directory)
{
    CAMERA_GATE(0, getCamLogs(directory));
}

int avmanager_get_cam_limit_max_temperature(void)
{
    CAMERA_GATE(-1, static_cast<int>(ptz_get_cam_limit_max_temperature()));
}

int avmanager_get_cam_current_temperature(void)
{
    CAMERA_GATE(-1, static_cast<int>(ptz_get_cam_current_temperature()));
}

uint8_t *avmanager_get_cam_funclist(void)
{
    CAMERA_GATE(nullptr, ptz_get_cam_funclist());
}

int avmanager_get_cam_support_black_screen(void)
{
    CAMERA_GATE(0, ptz_get_cam_support_black_screen());
}

int avmanager_set_cam_auto_black_screen(avm_self_t, int on)
{
    CAMERA_GATE(0, ptz_cam_set_auto_black_screen(static_cast<uint8_t>(on)));
}

int avmanager_get_cam_auto_black_screen(void)
{
    CAMERA_GATE(0, ptz_get_cam_auto_black_screen());
}

} // extern "C"
