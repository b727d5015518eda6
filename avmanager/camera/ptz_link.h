/*
 * PTZ link: the camera's serial line "/dev/ttyS1", frame sending with
 * reply waits, framing of received bytes, dispatch, and its threads.
 */
#ifndef AVM_PTZ_LINK_H
#define AVM_PTZ_LINK_H

#include <stddef.h>
#include <stdint.h>

#include "camera/ptz_frame.h"

#ifdef __cplusplus
#include <atomic>
extern "C" {
#endif

#define PTZ_UART_DEVICE "/dev/ttyS1"
#define PTZ_FIFO_PATH "/mnt/expand/.PTZControl_fifo"

/* Start and stop. */
int camera_ptzHal_init(void);
int camera_ptzHal_deinit(void);
void joinPtzThreadPool(void);

/* Serial line. */
int ptzHal_uart_init(void);
int ptzHal_uart_deinit(void);
int ptzHalWriteUsart(const PtzPacket *pkt);
int ptzHalReadUsart(uint8_t *buf);

/* Frames. */
int ptz_tx_protocol_handle(PtzMsg msg);
void ptz_rx_protocol_handle(const uint8_t *buf, int len);
void read_data_from_cam(const uint8_t *buf, int len);
void ptz_parse_packet(const PtzPacket *pkt);
int camera_ptzControl_parse_msg_tx(uint32_t type, uint32_t value);

/* Threads (started by camera_ptzHal_init). */
void *camera_ptzControl_tx_thread(void *arg);
void *camera_ptzControl_rx_thread(void *arg);
void *camera_ptzControl_test_thread(void *arg);

/* Debug level ("persist.vendor.cam.debuglevel"). */
void ptzHalInitDebugLevel(void);
void ptzHalSetDebugLevel(int level);
int ptzHalGetDebugLevel(void);

/* The named pipe of PtzMsg records offered to other local components. */
int ptz_mkfifo_init(void);
int ptz_mkfifo_exit(void);
int ptz_mkfifo_read_fd_open(void);
int ptz_mkfifo_write_fd_open(void);
int ptz_mkfifo_read(void *buf);
int ptz_mkfifo_write(uint32_t cmd, uint32_t value);

#ifdef __cplusplus
}

/* 1 when the camera's reply for that id has arrived and its result slot is
 * filled. Set (release) by the receiver, cleared and polled (acquire) by the
 * one requester waiting for that id. */
extern std::atomic<uint8_t> gPtzAckFlags[PTZ_CMD_MAX];
#endif

#if defined(__cplusplus) && defined(AVM_HOST_BUILD)
// Clears every acknowledgement flag, the receive frame and the debug level, as at process start. Only tests call it (a test program runs many tests in one process).
void ptzLink_resetForTest();
// Joins the test thread of a stopped link, which the module itself never
// joins. Only tests call it, so that a test process ends with no thread
// left over.
void ptzLink_joinTestThreadForTest();
#endif

#endif
