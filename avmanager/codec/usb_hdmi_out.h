/*
 * USB HDMI-out converter link: finds the converter by vendor and product
 * id over libusbhost, sends it the connect request, waits for its
 * acknowledgement on the bulk IN endpoint (echoing it back), then carries
 * framed data packets and heartbeats on the bulk OUT endpoint.
 *
 * Every transfer in either direction is 512 bytes. An outgoing packet
 * starts with a 64-byte header of sixteen big-endian 32-bit words (word 0
 * the packet type); the acknowledgement is an IN transfer starting
 * 00 00 00 02.
 */
#ifndef AVM_USB_HDMI_OUT_H
#define AVM_USB_HDMI_OUT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Size of every transfer, and the unit the payload is cut into. */
#define USB_HDMI_OUT_XFER_SIZE 512
/* Header words of an outgoing packet (64 bytes). */
#define USB_HDMI_OUT_HEADER_WORDS 16
/* Longest payload of one data packet. */
#define USB_HDMI_OUT_MAX_THIS_LEN 512000
/* Packet types the link itself sends; data packets carry the caller's. */
#define USB_HDMI_OUT_TYPE_DISCONNECT 3
#define USB_HDMI_OUT_TYPE_HEARTBEAT 5
/* Word 0 of the converter's acknowledgement. */
#define USB_HDMI_OUT_TYPE_ACK 2

/* The fields of a data packet header, as init_protocol_packet takes them. */
typedef struct usbHdmiOutPacketFields {
    uint32_t type;
    uint32_t thisLen;
    uint32_t totalLen;
    uint32_t param1;
    uint32_t param2;
    uint32_t param3;
    uint32_t width;
    uint32_t height;
} usbHdmiOutPacketFields;

/* Finds the converter with these ids, claims its interface and starts the
 * acknowledgement reader. 0 when the converter is connected, -1 otherwise. */
int codecHal_usb_hdmiOut_init(int vendorId, int productId);
/* Stops the reader (joined), closes the converter, clears every flag. 0. */
int codecHal_usb_hdmiOut_deinit(void);
/* Sends the connect request and starts the heartbeat clock. 1, or 0 when
 * the USB host cannot be set up. */
int codecHal_usb_hdmiOut_connect(void);
/* Sends the disconnect packet and forgets the acknowledgement; the
 * converter stays open. 1. */
int codecHal_usb_hdmiOut_disconnect(void);
/* Sends one data packet: the header, then ThisLen payload bytes in 512-byte
 * transfers, then a heartbeat when one is due. -1 when refused (no payload,
 * no acknowledgement yet, ThisLen above 512000), else 0 whatever the
 * transfers gave.
 *
 * A last piece of 1..511 bytes still goes out as one whole 512-byte
 * transfer starting at that piece: `payload` must be readable for ThisLen
 * rounded up to the next multiple of 512 bytes. The bytes past ThisLen are
 * padding the converter ignores. */
int codecHal_usb_hdmiOut_data_process(int type, int TotalLen, int ThisLen, int param1, int param2,
                                      int param3, int Width, int Height, const uint8_t *payload);

/* Sends a header (sixteen words, already big-endian) as one 512-byte
 * transfer, then `length` payload bytes as above (the same readability
 * rule). Result of the last transfer. */
int codecHal_usb_hdmiOut_send_data(const uint32_t *header, const uint8_t *payload, int length);
/* Sends a heartbeat when more than a second has passed since the last one
 * (or since connect); logs the data packet's values with it. Bytes
 * transferred, or 0 when none was due. */
int codecHal_usb_hdmiOut_send_heartBeat(int type, int TotalLen, int ThisLen, int param1, int param2,
                                        int param3, int Width, int Height);
/* Fills a header (sixteen words, big-endian) from a field record, in the
 * data packet's word order with the complement of thisLen in word 2. */
void init_protocol_packet(uint32_t *packet, const usbHdmiOutPacketFields *fields);

/* One bulk transfer of at most `length` bytes under the transfer mutex,
 * 1000 ms time-out; -1 without a buffer or a converter. */
int usb_hdmiOut_bulk_xfer(int endpoint, void *buffer, int length);
/* The connect control request; -1 on failure or without a converter. */
int usb_hdmiOut_control_xfer(void);
/* Closes a converter still open and makes a USB host context. 0 or -1. */
int usb_hdmiOut_host_init(void);
/* Scans the attached devices once, then frees the host context. 0. */
int usb_hdmiOut_host_run(void);

/* libusbhost callbacks of the scan. */
int usbHdmiOut_device_added(const char *devName, void *clientData);
int usbHdmiOut_device_removed(const char *devName, void *clientData);
int usbHdmiOut_discovery_done(void *clientData);

/* The acknowledgement reader, started by init. */
void *usb_hdmiOut_read_thread(void *arg);

#ifdef AVM_HOST_BUILD
/* What the link holds, for tests. */
typedef struct UsbHdmiOutTestState {
    uint32_t inEndpoint;  /* bulk IN address the scan kept (0 before any) */
    uint32_t outEndpoint; /* bulk OUT address the scan kept (0 before any) */
    int connected;        /* the connected flag */
    int deviceOpen;       /* a converter is open */
    int readerStarted;    /* an acknowledgement reader exists, not yet joined */
} UsbHdmiOutTestState;
/* Only tests call this: sets the ids the scan callback looks for, as
 * codecHal_usb_hdmiOut_init does, without scanning the attached devices or
 * starting the reader, so a test can hand usbHdmiOut_device_added a device
 * node of its own. */
void usb_hdmiOut_setTargetForTest(int vendorId, int productId);
/* Only tests call this: a snapshot of what the scan left. */
UsbHdmiOutTestState usb_hdmiOut_stateForTest(void);
/* Only tests call this: stops and joins the reader, frees the host
 * context, closes the converter and forgets the target, endpoints, flags
 * and heartbeat clock, as at process start (the locks are kept). */
void usb_hdmiOut_resetForTest(void);
#endif

#ifdef __cplusplus
}
#endif

#endif
