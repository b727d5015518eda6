/*
 * avmanager: the audio/video hardware module of the conferencing device.
 *
 * The platform loader opens "avmanager_hal" and finds HMI, an
 * avmanager_module_t: the standard module header, eight reserved words and
 * a table of 50 operations. The service finds each operation by its slot, so
 * slots are never reordered; new operations may only be appended.
 *
 * Operations that take arguments receive the calling service's module
 * pointer first; it is ignored.
 */
#ifndef AVMANAGER_HAL_H
#define AVMANAGER_HAL_H

#include <stdint.h>
#include <hardware/hardware.h>

#ifdef __cplusplus
extern "C" {
#endif

#define AVMANAGER_HARDWARE_MODULE_ID "avmanager_hal"
#define AVMANAGER_OPERATION_COUNT 50

/* Channel selector of the volume and mute operations. */
enum {
    AUDIO_CHANNEL_UAC = 0,   /* USB audio-class output (USB mixer) */
    AUDIO_CHANNEL_SPDIF = 1, /* S/PDIF output of the DSP */
    AUDIO_CHANNEL_MAIN = 2,  /* main output of the DSP */
};

/* Speaker placement of the speaker-equaliser operations. */
enum { SPK_EQ_MODE_FLOOR = 0, SPK_EQ_MODE_WALL = 1 };

struct avmanager_module;
typedef const struct avmanager_module *avm_self_t;

/* Called with 1 when the camera reports it opened, 0 when it closed. */
typedef int (*avmanager_camera_status_cb)(int status);
/* Called with 1 when the secondary microphone opens, 0 when it closes. */
typedef int (*avmanager_dsp_status_cb)(int status);

typedef struct avmanager_module {
    struct hw_module_t common;
    uint32_t reserved_words[8];

    /* 0 */ int (*hal_init)(void);
    /* 1 */ int (*hal_release)(void);
    /* 2 */ int (*set_volume)(avm_self_t self, int channel, int volume);
    /* 3 */ int (*get_volume)(avm_self_t self, int channel);
    /* 4 */ int (*set_mute)(avm_self_t self, int channel, int mute);
    /* 5 */ int (*get_mute)(avm_self_t self, int channel);
    /* 6 */ int (*set_balance)(avm_self_t self, int balance);
    /* 7 */ int (*get_balance)(void);
    /* 8 */ int (*get_hotplug)(avm_self_t self, int peripheral);
    /* 9 */ int (*set_soundMode)(avm_self_t self, int mode);
    /* 10 */ int (*get_soundMode)(void);
    /* 11 */ int (*set_Treble)(avm_self_t self, int treble);
    /* 12 */ int (*get_Treble)(void);
    /* 13 */ int (*set_Bass)(avm_self_t self, int bass);
    /* 14 */ int (*get_Bass)(void);
    /* 15 */ int (*set_powerDown)(void);
    /* 16 */ int (*usb_hdmiOut_init)(avm_self_t self, int vendor_id, int product_id);
    /* 17 */ int (*usb_hdmiOut_deinit)(void);
    /* 18 */ int (*connect_usb_hdmiOut)(void);
    /* 19 */ int (*disconnect_usb_hdmiOut)(void);
    /* 20: sends this_len payload bytes as one data packet; the payload must
     * be readable up to this_len rounded up to a multiple of 512 (its last
     * piece goes out as a whole 512-byte transfer). 0, or -1 when refused. */
    int (*usb_hdmiOut_packet_process)(avm_self_t self, int type, int total_len, int this_len,
                                               int param1, int param2, int param3, int width,
                                               int height, const uint8_t *payload);
    /* 21 */ int (*set_usbchannel)(avm_self_t self, int channel);
    /* 22 */ int (*send_cmd_to_dsp)(avm_self_t self, const char *cmd);
    /* 23 */ int (*set_camera_autotest)(avm_self_t self, int mode);
    /* 24 */ int (*get_camera_autotest_result)(void);
    /* 25 */ int (*set_dsp_audio_out_mode)(avm_self_t self, const char *mode);
    /* 26 */ int (*get_dsp_audio_out_mode)(void);
    /* 27 */ int (*get_camera_isp_env)(avm_self_t self, int32_t *pair);
    /* 28 */ void (*set_camera_status_callback)(avm_self_t self, avmanager_camera_status_cb cb);
    /* 29 */ int (*set_dsp_spk_eq_mode)(avm_self_t self, int mode);
    /* 30 */ int (*get_dsp_spk_eq_mode)(void);
    /* 31 */ int (*set_dsp_user_eq_param)(avm_self_t self, int index, int type, int freq, int gain, int q);
    /* 32 */ int (*get_dsp_user_eq_gain)(avm_self_t self, int index);
    /* 33 */ int (*setDspDoaReport)(avm_self_t self, int on);
    /* 34 */ int (*getDspDoaReport)(void);
    /* 35 */ int (*setSmartListenStatic)(avm_self_t self, int start_angle, int end_angle);
    /* 36 */ int (*setSmartListenOff)(void);
    /* 37 */ int (*setSmartListenDynamic)(void);
    /* 38 */ int (*set_dsp_status_callback)(avm_self_t self, avmanager_dsp_status_cb cb);
    /* 39 */ int (*audio_floor_wall_Parase_Init)(void);
    /* 40 */ int (*set_cam_follow_sound_source_mode)(avm_self_t self, int mode);
    /* 41 */ int (*get_cam_follow_sound_source_mode)(void);
    /* 42 */ int (*reset_cam_parameters)(void);
    /* 43 */ int (*get_cam_logs)(avm_self_t self, const char *directory);
    /* 44 */ int (*get_cam_limit_max_temperature)(void);
    /* 45 */ int (*get_cam_current_temperature)(void);
    /* 46 */ uint8_t *(*get_cam_funclist)(void);
    /* 47 */ int (*get_cam_support_black_screen)(void);
    /* 48 */ int (*set_cam_auto_black_screen)(avm_self_t self, int on);
    /* 49 */ int (*get_cam_auto_black_screen)(void);
} avmanager_module_t;

/* The record the loader resolves. */
extern avmanager_module_t HMI;

/* The operations of the table, exported under their own names. */
int avmanager_hal_init(void);
int avmanager_hal_release(void);
int avmanager_set_volume(avm_self_t self, int channel, int volume);
int avmanager_get_volume(avm_self_t self, int channel);
int avmanager_set_mute(avm_self_t self, int channel, int mute);
int avmanager_get_mute(avm_self_t self, int channel);
int avmanager_set_balance(avm_self_t self, int balance);
int avmanager_get_balance(void);
int avmanager_get_hotplug(avm_self_t self, int peripheral);
int avmanager_set_soundMode(avm_self_t self, int mode);
int avmanager_get_soundMode(void);
int avmanager_set_Treble(avm_self_t self, int treble);
int avmanager_get_Treble(void);
int avmanager_set_Bass(avm_self_t self, int bass);
int avmanager_get_Bass(void);
int avmanager_set_powerDown(void);
int avmanager_usb_hdmiOut_init(avm_self_t self, int vendor_id, int product_id);
int avmanager_usb_hdmiOut_deinit(void);
int avmanager_connect_usb_hdmiOut(void);
int avmanager_disconnect_usb_hdmiOut(void);
/* `payload` must be readable for this_len rounded up to the next multiple
 * of 512 bytes: the last 1..511 payload bytes go out as a whole 512-byte
 * transfer, the bytes after them as padding the converter ignores. */
int avmanager_usb_hdmiOut_packet_process(avm_self_t self, int type, int total_len, int this_len,
                                         int param1, int param2, int param3, int width, int height,
                                         const uint8_t *payload);
int avmanager_set_usbchannel(avm_self_t self, int channel);
int avmanager_send_cmd_to_dsp(avm_self_t self, const char *cmd);
int avmanager_set_camera_autotest(avm_self_t self, int mode);
int avmanager_get_camera_autotest_result(void);
int avmanager_set_dsp_audio_out_mode(avm_self_t self, const char *mode);
int avmanager_get_dsp_audio_out_mode(void);
int avmanager_get_camera_isp_env(avm_self_t self, int32_t *pair);
void avmanager_set_camera_status_callback(avm_self_t self, avmanager_camera_status_cb cb);
int avmanager_set_dsp_spk_eq_mode(avm_self_t self, int mode);
int avmanager_get_dsp_spk_eq_mode(void);
int avmanager_set_dsp_user_eq_param(avm_self_t self, int index, int type, int freq, int gain, int q);
int avmanager_get_dsp_user_eq_gain(avm_self_t self, int index);
int avmanager_setDspDoaReport(avm_self_t self, int on);
int avmanager_getDspDoaReport(void);
int avmanager_setSmartListenStatic(avm_self_t self, int start_angle, int end_angle);
int avmanager_setSmartListenOff(void);
int avmanager_setSmartListenDynamic(void);
int avmanager_set_dsp_status_callback(avm_self_t self, avmanager_dsp_status_cb cb);
int avmanager_audio_floor_wall_Parase_Init(void);
int avmanager_set_cam_follow_sound_source_mode(avm_self_t self, int mode);
int avmanager_get_cam_follow_sound_source_mode(void);
int avmanager_reset_cam_parameters(void);
int avmanager_get_cam_logs(avm_self_t self, const char *directory);
int avmanager_get_cam_limit_max_temperature(void);
int avmanager_get_cam_current_temperature(void);
uint8_t *avmanager_get_cam_funclist(void);
int avmanager_get_cam_support_black_screen(void);
int avmanager_set_cam_auto_black_screen(avm_self_t self, int on);
int avmanager_get_cam_auto_black_screen(void);

/* Start-up programming of the amplifiers from the start-up tuning file;
 * exported outside the table. Returns 1. */
int Aprojectid_ampini_parase_init(void);

#ifdef __cplusplus
}
#endif

#endif
