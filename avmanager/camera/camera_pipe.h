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

/* Message types; each becomes one PTZ command in the sender thread. */
enum {
    CAMERA_PIPE_MSG_DOA = 0,         /* sent as PTZ_CMD_SEND_DOA */
    CAMERA_PIPE_MSG_USB_CHANNEL = 1, /* sent as PTZ_CMD_SEND_USB_CHANNEL */
    CAMERA_PIPE_MSG_AUTOTEST = 2,    /* sent as PTZ_CMD_SET_AUTOTEST */
};

/* One message as it lies in the pipe, host byte order. */
typedef struct CameraPipeMsg {
    uint32_t length; /* always 8: the two words that follow */
    uint32_t type;   /* CAMERA_PIPE_MSG_* */
    uint32_t value;  /* the value to send */
} CameraPipeMsg;

int initCameraPipe(void);
int unInitCameraPipe(void);
int sendDataToCameraPipe(const void *buf, size_t count);
int recvDataFromCameraPipe(void *buf, size_t count);
int sendMsgToCameraPipe(uint32_t type, uint32_t value);
int sendDoaToCameraPipe(uint32_t value);
int sendUsbChannelInfoToCameraPipe(uint32_t value);
int sendAutoTestToCameraPipe(uint32_t value);
int recvMsgFromCameraPipe(uint32_t *type, uint32_t *value);

#ifdef __cplusplus
}

static_assert(sizeof(CameraPipeMsg) == 12, "a camera pipe message is 12 bytes");
#endif

#if defined(__cplusplus) && defined(AVM_HOST_BUILD)
// Closes the pipe and puts both ends back at descriptor 0, as at process start. Only tests call it (a test program runs many tests in one process).
void cameraPipe_resetForTest();
#endif

#endif
