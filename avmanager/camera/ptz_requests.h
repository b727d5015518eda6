/*
 * Camera requests offered to the service, and the handlers of the camera's
 * replies and notifications.
 */
#ifndef AVM_PTZ_REQUESTS_H
#define AVM_PTZ_REQUESTS_H

#include <stdint.h>

#include "camera/ptz_frame.h"

#ifdef __cplusplus
#include <atomic>
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

/* The camera-open flag: 1 after the camera reported open, 0 after close. */
uint32_t ptz_cam_is_open(void);

/* Handlers the receiver calls for matched frames (command table rows). */
void ptz_recv_camera_status_open(uint32_t cmd, const PtzPacket *pkt);
void ptz_recv_camera_status_close(uint32_t cmd, const PtzPacket *pkt);
void ptz_recv_angle_report(uint32_t cmd, const PtzPacket *pkt);
void ptz_recv_doa_status_set(uint32_t cmd, const PtzPacket *pkt);
void ptz_respond_get_autotest_result(uint32_t cmd, const PtzPacket *pkt);
void ptz_respond_get_isp_env_result(uint32_t cmd, const PtzPacket *pkt);
void ptz_respond_get_angle_listen_model(uint32_t cmd, const PtzPacket *pkt);
void ptz_respond_get_electronic_ptz_status(uint32_t cmd, const PtzPacket *pkt);
void ptz_respond_get_electronic_ptz_mode(uint32_t cmd, const PtzPacket *pkt);
void ptz_respond_get_temperature_value_result(uint32_t cmd, const PtzPacket *pkt);
void ptz_respond_get_funclist_value_result(uint32_t cmd, const PtzPacket *pkt);
void ptz_respond_get_support_black_screen(uint32_t cmd, const PtzPacket *pkt);
void ptz_respond_get_auto_black_screen(uint32_t cmd, const PtzPacket *pkt);

/* Responses (handler + result slot) referenced by the command table. Rows
 * 18 and 19 share gPtzTemperatureResponse. */
extern PtzResponse gPtzRecvOpenResponse;
extern PtzResponse gPtzRecvCloseResponse;
extern PtzResponse gPtzAutotestResponse;
extern PtzResponse gPtzIspEnvResponse;
extern PtzResponse gPtzAngleListenModelResponse;
extern PtzResponse gPtzAngleReportResponse;
extern PtzResponse gPtzDoaStatusSetResponse;
extern PtzResponse gPtzElectronicPtzStatusResponse;
extern PtzResponse gPtzElectronicPtzModeResponse;
extern PtzResponse gPtzTemperatureResponse;
extern PtzResponse gPtzFunclistResponse;
extern PtzResponse gPtzSupportBlackScreenResponse;
extern PtzResponse gPtzAutoBlackScreenResponse;

#define PTZ_FUNCLIST_SLOT_SIZE 57 /* length byte + 56 data bytes */
#define PTZ_USB_CHANNEL_NONE 0xFFFFFFFFu

#ifdef __cplusplus
}

/* Last channel given to ptz_send_usb_channel_info, PTZ_USB_CHANNEL_NONE
 * until then. Written by service threads, read by whichever thread builds
 * a product-model answer. */
extern std::atomic<uint32_t> gUsbChannelInfo;
#endif

#if defined(__cplusplus) && defined(AVM_HOST_BUILD)
// Puts every reply slot, the camera-open state, the reporting switches and the status callback back as at process start. Only tests call it (a test program runs many tests in one process).
void ptzRequests_resetForTest();
#endif

#endif
