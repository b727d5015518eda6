/*
 * Camera HID channel: finds the camera's hidraw node among
 * "/dev/hidraw0".."/dev/hidraw9" by its USB ids, opens it, sends reports
 * of at most 64 bytes, receives reports of at most 1024 bytes, and runs
 * the receive thread that hands version answers to the camera detection
 * and every report to the camera log download.
 */
#ifndef AVM_CAM_HID_H
#define AVM_CAM_HID_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define HIDRAW_NODE_COUNT 10
#define HIDRAW_SEND_MAX 64
#define HIDRAW_RECV_MAX 1024

int check_hidraw_name(void);
int hal_hidraw_init(uint32_t vid, uint32_t pid);
int hal_hidraw_open(void);
int hal_hidraw_sendData(const void *buf, int len);
int hal_hidraw_recvData(void *buf, int len);
bool hal_hidraw_isConnect(void);
int hal_hidraw_deinit(void);
int joinHidThreadPool(void);
/* The receive thread. `arg` carries the start it belongs to (as the
 * channel's start counter plus one), or NULL for the current one; a later
 * start or a stop ends it after its read in progress. */
void *hal_hidRcveData_THREAD(void *arg);
/* What the receive thread does with each report it reads (n bytes, at
 * most HIDRAW_RECV_MAX are looked at): a version answer's text goes to the
 * camera detection, and every report to the log download. */
void hal_hidraw_handle_report(const uint8_t *report, int n);

/* The node the channel found last ("" until one was found). Copied into
 * out (size bytes, always terminated). */
void hal_hidraw_path(char *out, int size);

#ifdef AVM_HOST_BUILD
/* Only tests call this: stops the receive thread, closes the node and
 * forgets the path, ids and lock state, as at process start. */
void cam_hid_resetForTest(void);
#endif

#ifdef __cplusplus
}
#endif

#endif
