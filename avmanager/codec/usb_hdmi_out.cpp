/*
 * The USB HDMI-out link is not built yet: the converter is never found,
 * so every operation reports failure.
 */
#include "codec/usb_hdmi_out.h"

#include <android/log.h>

#define LOG_TAG "CODECHAL"

extern "C" {

int codecHal_usb_hdmiOut_init(int vendorId, int productId)
{
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: HDMI-out link not built\n", __func__);
    return -1;
}

int codecHal_usb_hdmiOut_deinit(void)
{
    return 0;
}

int codecHal_usb_hdmiOut_connect(void)
{
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: HDMI-out link not built\n", __func__);
    return 0;
}

int codecHal_usb_hdmiOut_disconnect(void)
{
    return 1;
}

int codecHal_usb_hdmiOut_data_process(int type, int TotalLen, int ThisLen, int param1, int param2,
                                      int param3, int Width, int Height, const uint8_t *payload)
{
    return -1;
}

}
