// Placeholder until this unit is built: every function does nothing.
#include "camera/ptz_requests.h"

extern "C" {
int ptz_send_usb_channel_info(uint32_t channel)
{
    return 0;
}

int ptz_set_autotest(uint32_t value)
{
    return 0;
}

int ptz_get_autotest_status(void)
{
    return 0;
}

int ptz_get_isp_env(int32_t *pair)
{
    return 0;
}

void ptz_set_camera_status_callback(PtzCameraStatusCallback callback)
{
}

void ptz_test_camera_status_callback(void)
{
}

int ptz_get_angle_listen_model(void)
{
    return 0;
}

int ptz_set_smart_listen_report_status(uint8_t status)
{
    return 0;
}

int ptz_set_cam_follow_sound_source_mode(int on)
{
    return 0;
}

int ptz_get_cam_follow_sound_source_mode(void)
{
    return 0;
}

int ptz_cam_reset_factory_parameters(void)
{
    return 0;
}

uint32_t ptz_get_cam_current_temperature(void)
{
    return 0;
}

uint32_t ptz_get_cam_limit_max_temperature(void)
{
    return 0;
}

uint8_t * ptz_get_cam_funclist(void)
{
    return nullptr;
}

int ptz_get_cam_support_black_screen(void)
{
    return 0;
}

int ptz_cam_set_auto_black_screen(uint8_t status)
{
    return 0;
}

int ptz_get_cam_auto_black_screen(void)
{
    return 0;
}

}
