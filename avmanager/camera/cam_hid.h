/*
 * Camera HID channel and log retrieval (hidraw reports, log download).
 */
#ifndef AVM_CAM_HID_H
#define AVM_CAM_HID_H

#ifdef __cplusplus
extern "C" {
#endif

int getCamLogs(const char *directory);
// Non-zero makes every report and chunk of a log download be logged.
void setCamHidTransferFileDebug(int flag);

#ifdef __cplusplus
}
#endif

#endif
