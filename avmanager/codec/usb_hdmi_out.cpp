/*
 * USB HDMI-out link: owns the converter's libusbhost device. Init scans
 * the attached devices once for the converter's "%04x:%04x" ids, claims
 * its interface, takes the first two endpoints as IN and OUT, and starts
 * the acknowledgement reader. Connect sends the control request 0xA1/0xAA
 * and starts the heartbeat clock. Once the converter has acknowledged
 * (an IN transfer starting 00 00 00 02, echoed back at once), data packets
 * go out as a 512-byte header transfer followed by the payload in 512-byte
 * transfers, and a heartbeat (type 5) follows a packet when more than a
 * second has passed since the last one. Disconnect sends type 3 and
 * forgets the acknowledgement; deinit closes everything and joins the
 * reader.
 *
 * Threads:
 *  - service threads: init, deinit, connect, disconnect and data (the API
 *    is meant to send data from one thread);
 *  - the acknowledgement reader (usb_hdmiOut_read_thread): the only IN
 *    reader; echoes acknowledgements on the OUT endpoint.
 * Every OUT transfer (data, heartbeat, disconnect, echo) holds the transfer
 * mutex for that one 512-byte transfer only, so two senders' transfers can
 * interleave between, never within, transfers. The IN read runs outside
 * the mutex.
 *
 * Lock order: transfer mutex, then the handle lock. The handle lock only
 * keeps the device handle alive while a transfer uses it (transfers hold
 * it shared; opening and closing hold it exclusively): closing the
 * converter waits for a transfer in flight instead of pulling the handle
 * from under it.
 *
 * State record gUsbHdmiOutDev (fields below), plus the heartbeat clock
 * gHeartbeatStartUs / gHeartbeatEndUs (tpstart / tpend, wall-clock
 * microseconds), and for the tracer the number of the connect whose
 * acknowledgement is awaited (gAckWaitCookie).
 */
#include "common/avm_trace.h"
#include "codec/usb_hdmi_out.h"
#include "common/usb_descriptors.h"

#include <android/log.h>
#include <arpa/inet.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>
#include <usbhost/usbhost.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#define LOG_TAG "CODECHAL"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

constexpr unsigned kConnectRequestType = 0xA1;
constexpr unsigned kConnectRequest = 0xAA;
constexpr unsigned kTransferTimeoutMs = 1000;
constexpr unsigned kEndpointIn = 0x80;          // endpoint address bit: device to host
constexpr size_t kHeaderBytes = USB_HDMI_OUT_HEADER_WORDS * sizeof(uint32_t);
constexpr useconds_t kAfterReadUs = 8 * 1000;   // reader pause after a read that was no ack
constexpr useconds_t kIdleUs = 10 * 1000;       // reader pause while not connected
constexpr int64_t kHeartbeatPeriodUs = 1000000; // at most one heartbeat a second
constexpr double kHeartbeatToleranceS = 1e-7;
constexpr size_t kTargetSize = 32;              // "%04x:%04x" of any two ints

static_assert(kHeaderBytes == 64, "a packet header is sixteen 32-bit words");
static_assert(kHeaderBytes <= USB_HDMI_OUT_XFER_SIZE, "the header goes out in one transfer");

// Header word positions.
enum HeaderWord {
    kWordType = 0,
    kWordThisLen = 1,
    kWordThisLenComplement = 2,
    kWordTotalLen = 8,
    kWordThisLenAgain = 9,
    kWordParam1 = 10,
    kWordParam2 = 11,
    kWordParam3 = 12,
    kWordWidth = 13,
    kWordHeight = 14,
};

struct UsbHdmiOutDev {
    std::atomic<uint32_t> ctrlRequestType;   // set by connect; read by the control transfer
    std::atomic<uint32_t> ctrlRequest;       // set by connect; read by the control transfer
    std::atomic<uint32_t> inEndpoint;        // set by the scan (service thread); read by the reader
    std::atomic<uint32_t> outEndpoint;       // set by the scan; read by every OUT transfer
    std::atomic<uint8_t> connected;          // set by the scan, cleared by deinit; read by the reader, init, connect
    std::atomic<uint32_t> readThreadRunning; // set by init, cleared by deinit; read by the reader
    std::atomic<uint32_t> acknowledged;      // set by the reader; cleared by disconnect and deinit; read by data
    pthread_t readThread;                    // set by init, joined by deinit; valid while readerStarted
    std::atomic<bool> readerStarted;         // a reader exists and has not been joined (service threads)
    pthread_mutex_t xferMutex;               // serialises every bulk OUT transfer, one transfer at a time
    pthread_rwlock_t handleLock;             // guards `device` (see the lock order above)
    usb_device *device;                      // the converter; under handleLock
    usb_host_context *hostContext;           // between host init and run; service thread
    char target[kTargetSize];                // ids given to init; written by init, read by its scan
};

UsbHdmiOutDev gUsbHdmiOutDev{{0}, {0}, {0}, {0}, {0}, {0}, {0}, {}, {false},
                             PTHREAD_MUTEX_INITIALIZER, PTHREAD_RWLOCK_INITIALIZER,
                             nullptr, nullptr, {}};
std::atomic<int64_t> gHeartbeatStartUs{0}; // tpstart: set by connect and each heartbeat
std::atomic<int64_t> gHeartbeatEndUs{0};   // tpend: set by each heartbeat offer
// While tracing: the connect whose acknowledgement is awaited (0: none),
// and the last connect number handed out. Service threads and the reader.
std::atomic<int32_t> gAckWaitCookie{0};
std::atomic<uint32_t> gConnectCount{0};

pthread_once_t gLocksOnce = PTHREAD_ONCE_INIT;

// The locks are made once per process: making a mutex again while another
// thread may hold it is not defined, so a second init keeps the first ones.
// The handle lock prefers writers, so closing the converter is not held
// off by a stream of transfers.
void initLocks()
{
    pthread_mutex_init(&gUsbHdmiOutDev.xferMutex, nullptr);
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&gUsbHdmiOutDev.handleLock, &attr);
    pthread_rwlockattr_destroy(&attr);
}

void ensureLocks()
{
    pthread_once(&gLocksOnce, initLocks);
}

int64_t wallClockUs()
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

// Closes the converter, if open, under the handle lock (waits for a
// transfer in flight).
void closeDevice(bool logIt)
{
    pthread_rwlock_wrlock(&gUsbHdmiOutDev.handleLock);
    if (gUsbHdmiOutDev.device) {
        if (logIt)
            LOGE("current device disconnected!");
        usb_device_close(gUsbHdmiOutDev.device);
        gUsbHdmiOutDev.device = nullptr;
    }
    pthread_rwlock_unlock(&gUsbHdmiOutDev.handleLock);
}

void freeHostContext()
{
    if (gUsbHdmiOutDev.hostContext) {
        usb_host_cleanup(gUsbHdmiOutDev.hostContext);
        gUsbHdmiOutDev.hostContext = nullptr;
    }
}

// A header in wire order from values already cut to their widths.
void buildHeader(uint32_t *words, uint32_t type, uint32_t thisLen, uint32_t totalLen, uint32_t param1,
                 uint32_t param2, uint32_t param3, uint32_t width, uint32_t height)
{
    memset(words, 0, kHeaderBytes);
    words[kWordType] = htonl(type);
    words[kWordThisLen] = htonl(thisLen);
    words[kWordThisLenComplement] = htonl(~thisLen);
    words[kWordTotalLen] = htonl(totalLen);
    words[kWordThisLenAgain] = htonl(thisLen);
    words[kWordParam1] = htonl(param1);
    words[kWordParam2] = htonl(param2);
    words[kWordParam3] = htonl(param3);
    words[kWordWidth] = htonl(width);
    words[kWordHeight] = htonl(height);
}

// Sends a packet of the link's own (heartbeat, disconnect): word 0 the
// type, everything else zero, one 512-byte transfer.
int sendLinkPacket(uint32_t type)
{
    uint8_t packet[USB_HDMI_OUT_XFER_SIZE] = {};
    const uint32_t word = htonl(type);
    memcpy(packet, &word, sizeof word);
    return usb_hdmiOut_bulk_xfer(static_cast<int>(gUsbHdmiOutDev.outEndpoint.load(std::memory_order_relaxed)),
                                 packet, USB_HDMI_OUT_XFER_SIZE);
}

// Starts the reader unless one is already serving (a second init while
// the first reader runs keeps that reader: two would race for the
// acknowledgements, and the first could never be joined). The running
// flag is raised here, before the thread exists, so a deinit right after
// init always stops it.
int startReader()
{
    if (gUsbHdmiOutDev.readerStarted.load())
        return 0;
    gUsbHdmiOutDev.readThreadRunning.store(1, std::memory_order_relaxed);
    const int ret = pthread_create(&gUsbHdmiOutDev.readThread, nullptr, usb_hdmiOut_read_thread, nullptr);
    if (ret == 0)
        gUsbHdmiOutDev.readerStarted.store(true);
    else
        gUsbHdmiOutDev.readThreadRunning.store(0, std::memory_order_relaxed);
    return ret;
}

// Ends the traced wait for an acknowledgement, if one is open: it came,
// or the connection it was for is gone.
void endAckWait()
{
    const int32_t cookie = gAckWaitCookie.exchange(0);
    if (cookie != 0)
        ATRACE_ASYNC_END(kTraceHdmiAckWait, cookie);
}

// Starts the traced wait for the acknowledgement of a connect (ending one
// still open from an earlier connect).
void beginAckWait()
{
    if (!ATRACE_ENABLED())
        return;
    int32_t cookie = static_cast<int32_t>((gConnectCount.fetch_add(1) + 1u) & 0x7FFFFFFFu);
    if (cookie == 0)
        cookie = 1;
    ATRACE_ASYNC_BEGIN(kTraceHdmiAckWait, cookie);
    const int32_t earlier = gAckWaitCookie.exchange(cookie);
    if (earlier != 0)
        ATRACE_ASYNC_END(kTraceHdmiAckWait, earlier);
}

// Bulk transfers a data packet takes: its header, then the payload in
// transfers of 512 bytes, the last one padded.
int packetTransfers(int length)
{
    return 1 + (length > 0 ? (length + USB_HDMI_OUT_XFER_SIZE - 1) / USB_HDMI_OUT_XFER_SIZE : 0);
}

bool isAck(const uint8_t *buf)
{
    return buf[0] == 0 && buf[1] == 0 && buf[2] == 0 && buf[3] == USB_HDMI_OUT_TYPE_ACK;
}

} // namespace

extern "C" {

int usb_hdmiOut_bulk_xfer(int endpoint, void *buffer, int length)
{
    if (!buffer || length < 0)
        return -1;
    ensureLocks();
    pthread_mutex_lock(&gUsbHdmiOutDev.xferMutex);
    pthread_rwlock_rdlock(&gUsbHdmiOutDev.handleLock);
    int ret = -1;
    if (gUsbHdmiOutDev.device)
        ret = usb_device_bulk_transfer(gUsbHdmiOutDev.device, endpoint, buffer,
                                       static_cast<unsigned>(length), kTransferTimeoutMs);
    else
        errno = ENODEV;
    pthread_rwlock_unlock(&gUsbHdmiOutDev.handleLock);
    pthread_mutex_unlock(&gUsbHdmiOutDev.xferMutex);
    return ret;
}

int usb_hdmiOut_control_xfer(void)
{
    ensureLocks();
    pthread_rwlock_rdlock(&gUsbHdmiOutDev.handleLock);
    int ret = -1;
    if (gUsbHdmiOutDev.device) {
        ret = usb_device_control_transfer(
            gUsbHdmiOutDev.device, static_cast<int>(gUsbHdmiOutDev.ctrlRequestType.load(std::memory_order_relaxed)),
            static_cast<int>(gUsbHdmiOutDev.ctrlRequest.load(std::memory_order_relaxed)), 0, 0, nullptr, 0,
            kTransferTimeoutMs);
        if (ret < 0)
            ret = -1;
    }
    pthread_rwlock_unlock(&gUsbHdmiOutDev.handleLock);
    return ret;
}

int usbHdmiOut_device_added(const char *devName, void *)
{
    ensureLocks();
    usb_device *device = usb_device_open(devName);
    if (!device) {
        LOGE("can't open device %s: %s", devName, strerror(errno));
        return 0;
    }
    const uint16_t vid = usb_device_get_vendor_id(device);
    const uint16_t pid = usb_device_get_product_id(device);
    LOGD("usb_hdmiOut_device_added vid %d pid %d", vid, pid);
    char ids[kTargetSize];
    snprintf(ids, sizeof ids, "%04x:%04x", vid, pid);
    if (strcmp(ids, gUsbHdmiOutDev.target) != 0) {
        usb_device_close(device);
        return 0;
    }
    LOGI("founded usb hdmiOut device!!!");

    // The most recent interface and the first two endpoints, read as the
    // device lists them. Unlike the camera's USB tool, the walk goes on to
    // the last descriptor: with several interfaces, the last one listed is
    // claimed, with the first two endpoints of the whole configuration.
    UsbDescWalk walk;
    usbDescWalk(device, USB_DESC_WALK_TO_END, &walk);
    const usb_interface_descriptor *interface = walk.interface;
    const usb_endpoint_descriptor *const *endpoints = walk.endpoints;
    if (!interface) {
        LOGE("interface not found!");
        usb_device_close(device);
        return 0;
    }
    if (walk.endpointCount < 2) {
        LOGE("endpoints not found!");
        usb_device_close(device);
        return 0;
    }
    if (usb_device_claim_interface(device, interface->bInterfaceNumber) != 0)
        LOGE("ignoring usb_claim_interface errno: %d!", errno);
    // Decided on the first endpoint alone: if it is not IN, the second is
    // taken as IN whatever its direction.
    const bool firstIsIn = endpoints[0]->bEndpointAddress & kEndpointIn;
    gUsbHdmiOutDev.inEndpoint.store(endpoints[firstIsIn ? 0 : 1]->bEndpointAddress, std::memory_order_relaxed);
    gUsbHdmiOutDev.outEndpoint.store(endpoints[firstIsIn ? 1 : 0]->bEndpointAddress, std::memory_order_relaxed);

    pthread_rwlock_wrlock(&gUsbHdmiOutDev.handleLock);
    // A second converter with the same ids in one scan replaces the first,
    // which is closed rather than lost.
    if (gUsbHdmiOutDev.device)
        usb_device_close(gUsbHdmiOutDev.device);
    gUsbHdmiOutDev.device = device;
    pthread_rwlock_unlock(&gUsbHdmiOutDev.handleLock);
    gUsbHdmiOutDev.connected.store(1, std::memory_order_relaxed);
    return 0;
}

int usbHdmiOut_device_removed(const char *devName, void *)
{
    ensureLocks();
    pthread_rwlock_wrlock(&gUsbHdmiOutDev.handleLock);
    if (gUsbHdmiOutDev.device && devName && strcmp(devName, usb_device_get_name(gUsbHdmiOutDev.device)) == 0) {
        LOGE("removed current device!!");
        usb_device_close(gUsbHdmiOutDev.device);
        gUsbHdmiOutDev.device = nullptr;
        // The connected flag stays set on purpose: the reader keeps trying
        // (and failing) until a new init.
    }
    pthread_rwlock_unlock(&gUsbHdmiOutDev.handleLock);
    return 0;
}

int usbHdmiOut_discovery_done(void *)
{
    // One scan of what is attached is all init wants.
    return 1;
}

int usb_hdmiOut_host_init(void)
{
    ensureLocks();
    closeDevice(true);
    // A context made by a connect that never ran is freed, not dropped.
    freeHostContext();
    gUsbHdmiOutDev.hostContext = usb_host_init();
    return gUsbHdmiOutDev.hostContext ? 0 : -1;
}

int usb_hdmiOut_host_run(void)
{
    usb_host_run(gUsbHdmiOutDev.hostContext, usbHdmiOut_device_added, usbHdmiOut_device_removed,
                 usbHdmiOut_discovery_done, nullptr);
    freeHostContext();
    return 0;
}

void *usb_hdmiOut_read_thread(void *)
{
    // The running flag was raised by init before this thread started.
    while (gUsbHdmiOutDev.readThreadRunning.load(std::memory_order_relaxed)) {
        if (!gUsbHdmiOutDev.connected.load(std::memory_order_relaxed)) {
            usleep(kIdleUs);
            continue;
        }
        uint8_t buf[USB_HDMI_OUT_XFER_SIZE] = {};
        int len = -1;
        pthread_rwlock_rdlock(&gUsbHdmiOutDev.handleLock);
        if (gUsbHdmiOutDev.device)
            len = usb_device_bulk_transfer(gUsbHdmiOutDev.device,
                                           static_cast<int>(gUsbHdmiOutDev.inEndpoint.load(std::memory_order_relaxed)),
                                           buf, sizeof buf, kTransferTimeoutMs);
        pthread_rwlock_unlock(&gUsbHdmiOutDev.handleLock);
        if (len > 0 && isAck(buf)) {
            LOGE("usb_hdmiOut read ack success %d %d %d %d %d!", buf[0], buf[1], buf[2], buf[3], buf[4]);
            gUsbHdmiOutDev.acknowledged.store(1, std::memory_order_relaxed);
            endAckWait();
            AvmTraceSpan echo(kTraceHdmiAckEcho);
            const int ret = usb_hdmiOut_bulk_xfer(
                static_cast<int>(gUsbHdmiOutDev.outEndpoint.load(std::memory_order_relaxed)), buf, sizeof buf);
            if (ret < 0)
                LOGE("read_thread usb_hdmiOut_bulk_xfer failed! retVal %d", ret);
            continue;
        }
        usleep(kAfterReadUs);
    }
    pthread_exit(nullptr);
}

int codecHal_usb_hdmiOut_init(int vendorId, int productId)
{
    AvmTraceSpan span(kTraceHdmiInit);
    ensureLocks();
    snprintf(gUsbHdmiOutDev.target, sizeof gUsbHdmiOutDev.target, "%04x:%04x", static_cast<unsigned>(vendorId),
             static_cast<unsigned>(productId));
    if (usb_hdmiOut_host_init() < 0) {
        LOGE("usb_hdmiOut_host_init failed!");
        return -1;
    }
    usb_hdmiOut_host_run();
    // Connected stays set from an earlier init whose converter was removed,
    // so such an init reports success even when this scan found nothing.
    if (!gUsbHdmiOutDev.connected.load(std::memory_order_relaxed))
        return -1;
    const int ret = startReader();
    LOGI("codecHal_usb_hdmiOut_init success! retVal %d", ret);
    return 0;
}

int codecHal_usb_hdmiOut_deinit(void)
{
    AvmTraceSpan span(kTraceHdmiDeinit);
    ensureLocks();
    gUsbHdmiOutDev.readThreadRunning.store(0, std::memory_order_relaxed);
    freeHostContext();
    gUsbHdmiOutDev.acknowledged.store(0, std::memory_order_relaxed);
    endAckWait();
    gUsbHdmiOutDev.connected.store(0, std::memory_order_relaxed);
    closeDevice(true);
    if (gUsbHdmiOutDev.readerStarted.exchange(false))
        pthread_join(gUsbHdmiOutDev.readThread, nullptr);
    return 0;
}

int codecHal_usb_hdmiOut_connect(void)
{
    AvmTraceSpan span(kTraceHdmiConnect);
    gUsbHdmiOutDev.ctrlRequestType.store(kConnectRequestType, std::memory_order_relaxed);
    gUsbHdmiOutDev.ctrlRequest.store(kConnectRequest, std::memory_order_relaxed);
    if (!gUsbHdmiOutDev.connected.load(std::memory_order_relaxed) && usb_hdmiOut_host_init() < 0)
        return 0;
    // The converter answers with its acknowledgement, not with this result.
    beginAckWait();
    usb_hdmiOut_control_xfer();
    LOGI("codecHal_usb_hdmiOut_connect success!");
    gHeartbeatStartUs.store(wallClockUs(), std::memory_order_relaxed);
    return 1;
}

int codecHal_usb_hdmiOut_disconnect(void)
{
    // The transfer's result is not looked at: the one line logged is the
    // success line, whatever the transfer did.
    AvmTraceSpan span(kTraceHdmiDisconnect);
    sendLinkPacket(USB_HDMI_OUT_TYPE_DISCONNECT);
    LOGI("codecHal_usb_hdmiOut_disconnect success!");
    gUsbHdmiOutDev.acknowledged.store(0, std::memory_order_relaxed);
    endAckWait();
    return 1;
}

int codecHal_usb_hdmiOut_send_data(const uint32_t *header, const uint8_t *payload, int length)
{
    const int out = static_cast<int>(gUsbHdmiOutDev.outEndpoint.load(std::memory_order_relaxed));
    // The header goes out as a whole transfer from a buffer of our own;
    // bytes 64..511 are zero.
    uint8_t packet[USB_HDMI_OUT_XFER_SIZE] = {};
    if (header)
        memcpy(packet, header, kHeaderBytes);
    int ret = usb_hdmiOut_bulk_xfer(out, packet, USB_HDMI_OUT_XFER_SIZE);
    if (ret < 0)
        LOGE("usb_hdmiOut_bulk_xfer headPacket error %d!", ret);
    // The payload is only read (an OUT transfer); the transfer call takes
    // a plain pointer.
    auto *bytes = const_cast<uint8_t *>(payload);
    int offset = 0;
    while (length - offset >= USB_HDMI_OUT_XFER_SIZE) {
        ret = usb_hdmiOut_bulk_xfer(out, bytes ? bytes + offset : nullptr, USB_HDMI_OUT_XFER_SIZE);
        if (ret < 0)
            LOGE("usb_hdmiOut_bulk_xfer tx_buff error %d!", ret);
        offset += USB_HDMI_OUT_XFER_SIZE;
    }
    // The last 1..511 bytes still go out as a whole transfer: it reads past
    // the payload up to the next multiple of 512, which the caller makes
    // readable; the converter ignores the padding.
    if (length - offset > 0) {
        ret = usb_hdmiOut_bulk_xfer(out, bytes ? bytes + offset : nullptr, USB_HDMI_OUT_XFER_SIZE);
        if (ret < 0)
            LOGE("usb_hdmiOut_bulk_xfer tx_buff error %d!", ret);
    }
    return ret;
}

int codecHal_usb_hdmiOut_send_heartBeat(int type, int TotalLen, int ThisLen, int param1, int param2, int param3,
                                        int Width, int Height)
{
    const int64_t now = wallClockUs();
    gHeartbeatEndUs.store(now, std::memory_order_relaxed);
    const double elapsed =
        static_cast<double>(now - gHeartbeatStartUs.load(std::memory_order_relaxed)) / kHeartbeatPeriodUs;
    if (elapsed <= 1.0 + kHeartbeatToleranceS)
        return 0;
    // A failed heartbeat is reported by the result only; the line logged
    // is the packet's summary.
    AvmTraceSpan span(kTraceHdmiHeartbeat);
    const int ret = sendLinkPacket(USB_HDMI_OUT_TYPE_HEARTBEAT);
    LOGI("ThisLen %d TotalLen %d Width %d Height %d", ThisLen, TotalLen, Width, Height);
    gHeartbeatStartUs.store(wallClockUs(), std::memory_order_relaxed);
    return ret;
}

void init_protocol_packet(uint32_t *packet, const usbHdmiOutPacketFields *fields)
{
    if (!packet || !fields)
        return;
    // Copied as given: unlike a data packet, nothing is cut to width.
    buildHeader(packet, fields->type, fields->thisLen, fields->totalLen, fields->param1, fields->param2,
                fields->param3, fields->width, fields->height);
}

int codecHal_usb_hdmiOut_data_process(int type, int TotalLen, int ThisLen, int param1, int param2, int param3,
                                      int Width, int Height, const uint8_t *payload)
{
    if (!payload || !gUsbHdmiOutDev.acknowledged.load(std::memory_order_relaxed))
        return -1;
    if (ThisLen > USB_HDMI_OUT_MAX_THIS_LEN) {
        LOGE("usb hdmiOut packet ThisLen overrun!!");
        return -1;
    }
    uint32_t header[USB_HDMI_OUT_HEADER_WORDS];
    buildHeader(header, static_cast<uint32_t>(type) & 0xffff, static_cast<uint32_t>(ThisLen),
                static_cast<uint32_t>(TotalLen), static_cast<uint32_t>(param1) & 0xff,
                static_cast<uint32_t>(param2) & 0xff, static_cast<uint32_t>(param3) & 0xff,
                static_cast<uint32_t>(Width) & 0xffff, static_cast<uint32_t>(Height) & 0xffff);
    {
        AvmTraceSpan span(kTraceHdmiPacket, "type=%d length=%d transfers=%d", type & 0xffff, ThisLen,
                          packetTransfers(ThisLen));
        codecHal_usb_hdmiOut_send_data(header, payload, ThisLen);
    }
    codecHal_usb_hdmiOut_send_heartBeat(type, TotalLen, ThisLen, param1, param2, param3, Width, Height);
    // The transfers' results are logged, not reported.
    return 0;
}

#ifdef AVM_HOST_BUILD
void usb_hdmiOut_setTargetForTest(int vendorId, int productId)
{
    snprintf(gUsbHdmiOutDev.target, sizeof gUsbHdmiOutDev.target, "%04x:%04x", static_cast<unsigned>(vendorId),
             static_cast<unsigned>(productId));
}

UsbHdmiOutTestState usb_hdmiOut_stateForTest(void)
{
    ensureLocks();
    UsbHdmiOutTestState state{};
    state.inEndpoint = gUsbHdmiOutDev.inEndpoint.load();
    state.outEndpoint = gUsbHdmiOutDev.outEndpoint.load();
    state.connected = gUsbHdmiOutDev.connected.load();
    pthread_rwlock_rdlock(&gUsbHdmiOutDev.handleLock);
    state.deviceOpen = gUsbHdmiOutDev.device != nullptr;
    pthread_rwlock_unlock(&gUsbHdmiOutDev.handleLock);
    state.readerStarted = gUsbHdmiOutDev.readerStarted.load();
    return state;
}

void usb_hdmiOut_resetForTest(void)
{
    ensureLocks();
    // The reader first: it may be in a transfer on the converter.
    gUsbHdmiOutDev.readThreadRunning.store(0);
    if (gUsbHdmiOutDev.readerStarted.exchange(false))
        pthread_join(gUsbHdmiOutDev.readThread, nullptr);
    freeHostContext();
    closeDevice(false);
    gUsbHdmiOutDev.ctrlRequestType.store(0);
    gUsbHdmiOutDev.ctrlRequest.store(0);
    gUsbHdmiOutDev.inEndpoint.store(0);
    gUsbHdmiOutDev.outEndpoint.store(0);
    gUsbHdmiOutDev.connected.store(0);
    gUsbHdmiOutDev.acknowledged.store(0);
    memset(gUsbHdmiOutDev.target, 0, sizeof gUsbHdmiOutDev.target);
    gHeartbeatStartUs.store(0);
    gHeartbeatEndUs.store(0);
    gAckWaitCookie.store(0);
    gConnectCount.store(0);
}
#endif

} // extern "C"
