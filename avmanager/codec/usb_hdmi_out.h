/*
 * USB HDMI-out converter link (libusbhost bulk transfers).
 */
#ifndef AVM_USB_HDMI_OUT_H
#define AVM_USB_HDMI_OUT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

int codecHal_usb_hdmiOut_init(int vendorId, int productId);
int codecHal_usb_hdmiOut_deinit(void);
int codecHal_usb_hdmiOut_connect(void);
int codecHal_usb_hdmiOut_disconnect(void);
int codecHal_usb_hdmiOut_data_process(int type, int TotalLen, int ThisLen, int param1, int param2,
                                      int param3, int Width, int Height, const uint8_t *payload);

#ifdef __cplusplus
}
#endif

#endif
