/*
 * DSP command link: requests are queued as DspRequest records in the named
 * pipe "/tmp/.DSP_fifo"; the transmit thread turns them into text on
 * "/dev/ttyS2"; the receive thread dispatches each chunk read from the port
 * to the reply handlers and to the file-transfer answer handler.
 */
#ifndef AVM_DSP_LINK_H
#define AVM_DSP_LINK_H

#include <stdint.h>
#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DSP_REQUEST_TEXT_SIZE 512
#define DSP_FIFO_PATH "/tmp/.DSP_fifo"
#define DSP_UART_PATH "/dev/ttyS2"

/* Command codes: select how the transmit thread forms the text. */
enum DspCmdCode {
    DSP_CMD_KEY = 1,              /* "KS=%d" with the parameter byte */
    DSP_CMD_SPDIF_VOLUME = 5,     /* caller's text */
    DSP_CMD_POWER_DOWN = 6,       /* "PD=1" */
    DSP_CMD_VERSION = 7,          /* "VER_FULL=?" */
    DSP_CMD_MIC_TEST = 19,        /* "MIC_TEST=?" */
    DSP_CMD_TEST_TONE = 20,       /* "SND_PLAY=0,1000,-12,1000" */
    DSP_CMD_MIC_TEST_RESULT = 21, /* "MIC_TEST_RET=?" */
    DSP_CMD_EQ_MODEL = 22,        /* "EQ_MODEL=%d" with the parameter byte */
    DSP_CMD_MAIN_VOLUME = 23,     /* caller's text */
    DSP_CMD_MAIN_MUTE = 24,       /* caller's text */
    DSP_CMD_HOTPLUG = 25,         /* caller's text */
    DSP_CMD_BALANCE = 26,         /* caller's text */
    DSP_CMD_EQ = 27,              /* caller's text */
    DSP_CMD_FREE_TEXT = 29,       /* caller's text */
};

/* The unit written into and read out of the pipe, and the record the
 * receive thread builds for each chunk. 524 bytes, layout fixed. */
typedef struct DspRequest {
    int32_t cmd;     /* command code 1..29; 0 in received chunks */
    uint32_t param;  /* only the low byte is used */
    uint32_t length; /* received chunks: bytes read */
    char text[DSP_REQUEST_TEXT_SIZE];
} DspRequest;

int dsp_process_init(void);
int dsp_process_deinit(void);
int dsp_mkfifo_init(void);
int dsp_mkfifo_write(DspRequest request);
int dsp_mkfifo_read(DspRequest *buffer);
int dsp_mkfifo_read_fd_open(void);
int dsp_mkfifo_write_fd_open(void);
int send_cmd_to_dsp(const char *text);
int dspHalWriteUsart(DspRequest request);
int dspHalReadUsart(char *buffer);
int dspHal_uart_init(void);
int dspHal_uart_deinit(void);
int dsp_tx_protocol_handle(DspRequest request);
void *dspHal_tx_thread(void *arg);
void *dspHal_rx_thread(void *arg);
void *init_parameter_thread(void *arg);

/* Posts a request with this code and text (bounded to 511 characters).
 * The one way every DSP unit posts; returns dsp_mkfifo_write's result. */
int dsp_post(int32_t cmd, const char *text);

#ifdef __cplusplus
}
#endif

#endif
