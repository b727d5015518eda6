/*
 * Camera requests offered to the service, and the handlers of the camera's
 * replies and notifications.
 */
#ifndef AVM_PTZ_REQUESTS_H
#define AVM_PTZ_REQUESTS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*PtzCameraStatusCallback)(int status);

int ptz_send_usb_channel_info(uint32_t channel);
int ptz_set_autotest(uint32_t value);
int ptz_get_autotest_status(void);
int ptz_get_isp_env(int32_t *pair);
void ptz_set_camera_status_callback(PtzCameraStatusCallback callback);
void ptz_test_camera_status_callback(void);
int ptz_get_angle_listen_model(void);
int ptz_set_smart_listen_report_status(uint8_t status);
int ptz_set_cam_follow_sound_source_mode(int on);
int ptz_get_cam_follow_sound_source_mode(void);
int ptz_cam_reset_factory_parameters(void);
uint32_t ptz_get_cam_current_temperature(void);
uint32_t ptz_get_cam_limit_max_temperature(void);
uint8_t *ptz_get_cam_funclist(void);
int ptz_get_cam_support_black_screen(void);
int ptz_cam_set_auto_black_screen(uint8_t status);
int ptz_get_cam_auto_black_screen(void);

#ifdef __cplusplus
}
#endif

#endif
