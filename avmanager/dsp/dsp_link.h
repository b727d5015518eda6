/*
 * DSP command link: requests are queued as DspRequest records in the named
 * pipe "/tmp/.DSP_fifo"; the transmit thread turns them into text on
 * "/dev/ttyS2"; the receive thread dispatches each chunk read from the port
 * to the reply handlers and to the file-transfer answer handler.
 */
#ifndef AVM_DSP_LINK_H
#define AVM_DSP_LINK_H

#include <stddef.h>
#include <stdint.h>
#include <pthread.h>

#ifdef __cplusplus
#include <atomic>
#endif

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
    uint32_t length; /* received chunks: bytes read; posted requests: 0, or the
                        post's trace number while tracing is on */
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

/* Receive dispatch, as the receive thread runs it on every chunk it reads:
 * the first reply handler whose prefix starts the text gets it, then the
 * file-transfer handler gets the whole record regardless. `chunk->length`
 * is the number of bytes read (at most 512); the handlers always see a
 * terminated text. Returns the 1-based row of the handler that matched, or
 * 0 when none did. Any bytes are accepted. */
int dsp_rx_dispatch(const DspRequest *chunk);
/* The 1-based row of the reply handler the text would go to, or 0. */
int dsp_rx_match(const char *text);
/* Number of rows of the reply dispatch table. */
int dsp_rx_row_count(void);
/* Name of the handler of a 1-based row, or NULL outside the table. */
const char *dsp_rx_handler_name(int row);
/* Prefix of a 1-based row, or NULL outside the table. */
const char *dsp_rx_prefix(int row);

#ifdef __cplusplus
}

/* The link device record. Written by the service thread in
 * dsp_process_init/dsp_process_deinit; read by the transmit, receive and
 * file-transfer threads. */
struct DspHalDev {
    std::atomic<int32_t> fd;  /* serial port, -1 when closed; set by init/deinit, read by the link's threads */
    pthread_t txThread;       /* transmit thread; service thread (init sets, deinit joins and clears) */
    pthread_t rxThread;       /* receive thread; service thread (init sets, deinit joins and clears) */
    pthread_t auxThread;      /* joined at shutdown but started by nothing, so it stays zero */
    uint32_t reserved;        /* unused word of the record */
    std::atomic<int32_t> running; /* 1 while the link is up; service thread writes, link threads read */
};

/* The request pipe's two ends. Both start at 0 (not -1) until
 * dsp_mkfifo_init sets them to -1: a request posted before the link is up
 * goes to descriptor 0. The write end is opened, used and dropped by any
 * posting thread; the read end belongs to the transmit thread. */
struct DspFifoDev {
    std::atomic<int32_t> writeFd; /* write end; any posting thread */
    std::atomic<int32_t> readFd;  /* read end; transmit thread (and dsp_mkfifo_init) */
};

extern "C" {
extern DspHalDev gDspHalDev;
extern DspFifoDev gDspFifoDev;
/* Created and destroyed with the link; no operation holds it. */
extern pthread_mutex_t dspLock;
/* Set while a parameter restore runs: taken by the receive thread, released
 * by the restore thread (a flag, since a mutex may not be unlocked by a
 * thread that does not own it). */
extern std::atomic_flag initParameterLock;
}
#endif

#if defined(__cplusplus) && defined(AVM_HOST_BUILD)
// Closes the request pipe's ends and puts them back at descriptor 0, as at process start; the link itself must be down. Only tests call it (a test program runs many tests in one process).
void dspLink_resetForTest();
#endif

#endif
