/*
 * PTZ frames: the fixed 64-byte frame exchanged with the PTZ camera on its
 * serial line, its checksum, the command table that maps each host command
 * id to the frame codes of both directions, and the payload builder.
 */
#ifndef AVM_PTZ_FRAME_H
#define AVM_PTZ_FRAME_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PTZ_PKT_SIZE 64       /* every frame, both directions */
#define PTZ_PKT_DATA_SIZE 56  /* payload bytes, offsets 7..62 */
#define PTZ_PKT_MAX_LENGTH 56 /* a received length byte above this drops the frame */
#define PTZ_PKT_HEAD0 0xAA
#define PTZ_PKT_HEAD1 0xBB
#define PTZ_PKT_HEAD2 0xCC

/* One frame as it crosses the wire. */
typedef struct PtzPacket {
    uint8_t head0;                    /* 0xAA */
    uint8_t head1;                    /* 0xBB */
    uint8_t head2;                    /* 0xCC */
    uint8_t main;                     /* main command code */
    uint8_t sub;                      /* sub command code */
    uint8_t length;                   /* meaningful payload bytes, 0..56 */
    uint8_t reserved;                 /* 0 on send; counted in the checksum */
    uint8_t data[PTZ_PKT_DATA_SIZE];  /* payload, zero beyond length on send */
    uint8_t checksum;                 /* 8-bit sum of bytes 0..62 */
} PtzPacket;

/* A request as the rest of the module hands it to the link. */
typedef struct PtzMsg {
    uint32_t cmd;   /* PtzCmdId */
    uint32_t value; /* only the low one or two bytes reach the wire */
} PtzMsg;

/* The host's command ids; each is the index of its row in gPtzProtocolTable. */
typedef enum PtzCmdId {
    PTZ_CMD_CAMERA_OPEN = 0,
    PTZ_CMD_CAMERA_CLOSE = 1,
    PTZ_CMD_SEND_DOA = 2,
    PTZ_CMD_SEND_USB_CHANNEL = 3,
    PTZ_CMD_GET_PRODUCT_MODEL = 4,
    PTZ_CMD_SET_AUTOTEST = 5,
    PTZ_CMD_GET_AUTOTEST_RESULT = 6,
    PTZ_CMD_GET_ISP_ENV = 7,
    PTZ_CMD_GET_ANGLE_LISTEN_MODEL = 8,
    PTZ_CMD_SET_SMART_LISTEN_REPORT = 9,
    PTZ_CMD_ANGLE_REPORT = 10,
    PTZ_CMD_GET_DOA_STATUS = 11,
    PTZ_CMD_SET_DOA_STATUS = 12,
    PTZ_CMD_SET_ELECTRONIC_PTZ_STATUS = 13,
    PTZ_CMD_GET_ELECTRONIC_PTZ_STATUS = 14,
    PTZ_CMD_SET_ELECTRONIC_PTZ_MODE = 15,
    PTZ_CMD_GET_ELECTRONIC_PTZ_MODE = 16,
    PTZ_CMD_RESET_FACTORY_PARAMETERS = 17,
    PTZ_CMD_GET_CURRENT_TEMPERATURE = 18,
    PTZ_CMD_GET_LIMIT_MAX_TEMPERATURE = 19,
    PTZ_CMD_GET_FUNCLIST = 20,
    PTZ_CMD_GET_SUPPORT_BLACK_SCREEN = 21,
    PTZ_CMD_SET_AUTO_BLACK_SCREEN = 22,
    PTZ_CMD_GET_AUTO_BLACK_SCREEN = 23,
    PTZ_CMD_MAX = 24 /* number of rows */
} PtzCmdId;

/* Called by the receiver thread with the row's command id and the frame. */
typedef void (*PtzResponseHandler)(uint32_t cmd, const PtzPacket *pkt);

/* What the receiver does with a matched frame, and where the result goes. */
typedef struct PtzResponse {
    PtzResponseHandler handler; /* decodes the frame, or null */
    void *result;               /* result slot the handler fills, or null */
    uint32_t resultLen;         /* slot size in bytes */
} PtzResponse;

/* One row of gPtzProtocolTable. */
typedef struct PtzProtocolEntry {
    uint32_t cmd;          /* command id, equal to the row index */
    uint8_t sendMain;      /* byte 3 when the host sends this command */
    uint8_t sendSub;       /* byte 4 when the host sends this command */
    uint8_t waitReply;     /* the sender waits for the matching reply */
    uint8_t recvMain;      /* byte 3 of the camera's frame for this command */
    uint8_t recvSub;       /* byte 4 of the camera's frame for this command */
    uint8_t replyOnRecv;   /* answer each received frame with this row's send frame */
    PtzResponse *response; /* handler and result slot, or null */
} PtzProtocolEntry;

/* The 24 rows, in id order. Never changed at run time. */
extern PtzProtocolEntry gPtzProtocolTable[PTZ_CMD_MAX];

void initPktHead(uint8_t *head);
PtzProtocolEntry *getPtzProtocolByCmd(uint32_t id);
void initPktData(PtzPacket *pkt, const PtzMsg *msg);
uint8_t KSProtocalCalcCheckSum(const uint8_t *buf, int len);
void showPktData(const char *label, const uint8_t *buf, int len);

#ifdef __cplusplus
}

static_assert(sizeof(PtzPacket) == PTZ_PKT_SIZE, "PtzPacket is one 64-byte frame");
static_assert(offsetof(PtzPacket, data) == 7, "payload starts at byte 7");
static_assert(offsetof(PtzPacket, checksum) == 63, "checksum is the last byte");
static_assert(sizeof(PtzMsg) == 8, "PtzMsg is two 32-bit words");
#endif

#endif
