/*
 * Secondary microphone DSP (Fig DSP) link on "/dev/ttyS2": CRC-8 framed
 * messages in both directions, a receive thread that assembles frames byte
 * by byte, the DOA on/off policy, the version properties, and the switch of
 * the amplifiers to the meeting format while the microphone is on.
 *
 * Frame: "#", type, payload length N, N payload bytes (byte 0 is the
 * command identifier, an ASCII digit), CRC-8 of the payload (polynomial
 * 0x07, initial 0, no reflection, no final XOR), 0x0A.
 */
#ifndef AVM_DSP_FIG_H
#define AVM_DSP_FIG_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <pthread.h>

#ifdef __cplusplus
#include <atomic>
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define DSP_FIG_UART_PATH "/dev/ttyS2"

#define DSP_FIG_FRAME_START 0x23 /* "#" */
#define DSP_FIG_FRAME_END 0x0A
#define DSP_FIG_MAX_PAYLOAD 255
/* Start, type, length, payload, CRC, terminator. */
#define DSP_FIG_MAX_FRAME (DSP_FIG_MAX_PAYLOAD + 5)
/* The receive area holds one frame in progress and a little more. */
#define DSP_FIG_RX_RAW_SIZE 264
#define DSP_FIG_VERSION_SIZE 256

/* Frame types. */
enum {
    DSP_FIG_TYPE_COMMAND = 0x20, /* command or notification; acknowledged */
    DSP_FIG_TYPE_DOA = 0x25,     /* sound-direction report */
    DSP_FIG_TYPE_REPLY = 0x2E,   /* reply; also the acknowledgement's type */
    DSP_FIG_TYPE_A0 = 0xA0,      /* accepted by the parser, then ignored */
    DSP_FIG_TYPE_AE = 0xAE,      /* accepted by the parser, then ignored */
};

/* Parser states: where the next byte goes. */
enum {
    DSP_FIG_WAIT_START = 0,
    DSP_FIG_WAIT_TYPE = 1,
    DSP_FIG_WAIT_LENGTH = 2,
    DSP_FIG_WAIT_PAYLOAD = 3,
    DSP_FIG_WAIT_CRC = 4,
    DSP_FIG_WAIT_END = 5,
};

/* USB switch state before any request. */
#define DSP_FIG_USB_SWITCH_NONE (-1)

/* One parsed frame. */
typedef struct DspFigPacket {
    uint8_t type;                          /* frame type */
    uint8_t length;                        /* payload length N */
    uint8_t data[DSP_FIG_MAX_PAYLOAD + 2]; /* payload, then its CRC and the terminator */
} DspFigPacket;

/* The receive buffer: raw bytes of the frame in progress (and whatever
 * followed it), the parser's position in them, and the last whole frame. */
typedef struct DspFigRxBuffer {
    uint8_t raw[DSP_FIG_RX_RAW_SIZE];
    uint16_t count;       /* bytes in raw */
    uint16_t pos;         /* next byte of raw to scan */
    uint8_t state;        /* DSP_FIG_WAIT_* */
    uint8_t frameType;    /* type of the frame in progress */
    uint8_t frameLength;  /* length of the frame in progress */
    DspFigPacket packet;  /* filled when a frame completes */
} DspFigRxBuffer;

typedef int (*DspFigStatusCallback)(int status);

int dspFig_init(void);
int dspFig_deinit(void);
int dspFigHal_uart_init(void);
int dspFigHal_uart_deinit(void);
void setDspFigDebugLog(void);
int detect_Fig_Dsp_Version(void);
void fig_Dsp_Version_update(const char *text);
int dspFigHalAppRequestDoa(int enable);
void updateDoaStatusConfig(void);
int dspFigHal_get_doa_status(void);
int dspFigHal_send_usb_switch_msg(int target);
int dspFigHal_set_status_callback(DspFigStatusCallback callback);
int dspFigCallback(int status);
bool dspFig_mic_is_open(void);
int enFigSwSoundFormat(void);
void *dspFigHal_rx_thread(void *arg);

/* Runs the frame parser over the buffered bytes, from the scan position to
 * the count. 1 when a whole frame was parsed into buffer->packet (the bytes
 * after it moved to the front), 0 when the bytes ran out first. Any bytes
 * are accepted. */
int uart_packet_process(DspFigRxBuffer *buffer);
/* Acts on one parsed frame (acknowledgement, microphone switch, DOA status,
 * version, DOA report). */
void process_packet(const DspFigPacket *packet);

/* The receive thread's two steps, for the thread and for replaying bytes
 * without a port. A byte that arrived: kept when it is "#" or a frame is in
 * progress, dropped otherwise; every frame it completes is processed. */
void dspFigHal_rx_feed_byte(DspFigRxBuffer *buffer, uint8_t byte);
/* The line went quiet: works off what is buffered, giving up a frame that
 * did not complete and restarting at the next "#" after its start, until
 * nothing is left to parse. */
void dspFigHal_rx_work_off(DspFigRxBuffer *buffer);

#ifdef AVM_HOST_BUILD
/* Only tests call this: stops nothing, but puts every field of the link,
 * the receive buffer, the version text and the status callback back to
 * their start values. */
void dspFig_resetForTest(void);
#endif

#ifdef __cplusplus
}

/* The link record. Flags are single values read and written without locks
 * by the threads named on each field. */
struct DspFigDev {
    std::atomic<int32_t> fd;             /* Fig port, -1 closed; set by init (service thread), used by the receive thread and every sender */
    pthread_t rxThread;                  /* receive thread; service thread (init sets, deinit joins and clears) */
    std::atomic<uint8_t> running;        /* 1 while the receive thread should run; service thread writes, receive thread reads */
    std::atomic<uint8_t> debugLog;       /* debug logging; service thread sets, anyone reads */
    std::atomic<uint8_t> doaStatus;      /* 0 reporting on, 1 off (inverse); receive thread writes, service threads read */
    std::atomic<uint8_t> micOn;          /* microphone state last acted on; receive thread */
    std::atomic<uint8_t> micOpen;        /* microphone on as last reported; receive thread writes, anyone reads */
    std::atomic<uint8_t> appDoaRequest;  /* application wants DOA reports; service threads write, receive thread reads */
    std::atomic<int32_t> usbSwitchState; /* last USB switch target sent, -1 none; service threads */
    std::atomic<uint8_t> needVersion;    /* version not known yet; receive thread clears, service threads read */
};

static_assert(sizeof(DspFigPacket) == DSP_FIG_MAX_PAYLOAD + 4, "type, length, payload, CRC, terminator");

extern "C" {
extern DspFigDev gDspFigDev;
}
#endif

#endif
