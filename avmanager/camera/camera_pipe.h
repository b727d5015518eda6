/*
 * Camera pipe: an in-process queue (anonymous pipe) of 12-byte messages
 * that any thread hands to the PTZ sender thread.
 */
#ifndef AVM_CAMERA_PIPE_H
#define AVM_CAMERA_PIPE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

int initCameraPipe(void);
int unInitCameraPipe(void);
int sendDoaToCameraPipe(uint32_t value);
int sendUsbChannelInfoToCameraPipe(uint32_t value);
int sendAutoTestToCameraPipe(uint32_t value);

#ifdef __cplusplus
}
#endif

#endif
