/*
 * Camera HID channel and log retrieval (hidraw reports, log download).
 */
#ifndef AVM_CAM_HID_H
#define AVM_CAM_HID_H

#ifdef __cplusplus
extern "C" {
#endif

int getCamLogs(const char *directory);

#ifdef __cplusplus
}
#endif

#endif
