/*
 * Fig DSP link: the secondary microphone processor on "/dev/ttyS2".
 *
 * The Fig DSP tells us when its microphone is switched on or off, reports
 * where sound comes from (DOA), answers a version query and takes four
 * fixed commands. Every frame is "#", type, length, payload, CRC-8 of the
 * payload, 0x0A. Every command or notification it sends (type 0x20) is
 * acknowledged with a 6-byte reply frame echoing its identifier.
 *
 * While the microphone is on, the amplifiers run the meeting format; when
 * it goes off they return to the stored floor or wall placement. The
 * switch is edge-triggered (repeated reports switch once), refused while
 * the boot video plays or the factory ageing test is in front, and left
 * alone while the PTZ camera is open.
 *
 * Threads:
 *  - the service thread that starts and stops the link (dspFig_init,
 *    dspFig_deinit, dspFigHal_uart_*);
 *  - the receive thread (dspFigHal_rx_thread): the only reader of the port;
 *    parses frames, acknowledges, switches the amplifiers, forwards DOA
 *    reports into the camera pipe;
 *  - binder threads: DOA requests, version query, USB switch, status
 *    callback. They write the port without a lock, like the receive thread:
 *    each frame goes out in one write call.
 *
 * State: gDspFigDev (port, thread, flags; see the record), gDspFigRx (the
 * receive buffer; receive thread only), gDspFigVersion (under
 * gDspFigVersionLock), mDspFigStatusCallback.
 *
 * Log tag "DSP_FIG".
 */
#include "common/avm_trace.h"
#include "fig/dsp_fig.h"

#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <android/log.h>
#include <cutils/properties.h>

#include "amp/amp_program.h"
#include "camera/camera_pipe.h"
#include "camera/ptz_requests.h"
#include "common/hal_usart.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_sound_modes.h"
#include "common/feature_switches.h"

#define LOG_TAG "DSP_FIG"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

extern "C" {

DspFigDev gDspFigDev = {{-1}, {}, {0}, {0}, {0}, {0}, {0}, {0}, {DSP_FIG_USB_SWITCH_NONE}, {1}};

} // extern "C"

namespace {

constexpr unsigned kFigBaud = 115200;
constexpr int kFigDataBits = 8;
constexpr unsigned kFigStopBits = 1;
constexpr char kFigParity = 'N';
constexpr unsigned kFigFlowControl = 0;

constexpr char kDebugLogProp[] = "persist.sys.dsp_fig_enlog";
constexpr char kVersionProp[] = "persist.sys.fig.dune.version";
constexpr char kUpdateProp[] = "persist.sys.fig.dune.update";
constexpr char kBootVideoProp[] = "service.bootvideo.exit";
constexpr char kCurrentClassProp[] = "persist.sys.current.class";

// The four commands we send: fixed frames, each written with the zero byte
// that ends the string, so 16 bytes go out; the Fig DSP ignores the zero.
constexpr char kDoaOffFrame[] = "# \n7DOA_OFF77s\n";
constexpr char kDoaOnFrame[] = "# \n8DOA_ON990v\n";
constexpr char kVersionFrame[] = "# \n3VERSION86;\n";
constexpr char kUsbSwitchFrame[] = "# \n5USBSWITCH0\n";
constexpr size_t kCommandFrameBytes = 16;
static_assert(sizeof(kDoaOffFrame) == kCommandFrameBytes);
static_assert(sizeof(kDoaOnFrame) == kCommandFrameBytes);
static_assert(sizeof(kVersionFrame) == kCommandFrameBytes);
static_assert(sizeof(kUsbSwitchFrame) == kCommandFrameBytes);
using CommandFrame = char[kCommandFrameBytes];

// Frame layout: start, type, length, then the payload.
constexpr size_t kPayloadOffset = 3;
constexpr uint8_t kCrcPolynomial = 0x07;

// Microphone notifications, looked for in the payload after the identifier.
constexpr std::string_view kMicOnText = "MIC_ON990";
constexpr std::string_view kMicOffText = "MIC_OFF99";

// Replies: identifier of the command answered, then (DOA) a success byte or
// (version) the version text.
constexpr uint8_t kReplyDoaOn = '8';
constexpr uint8_t kReplyDoaOff = '7';
constexpr uint8_t kReplyVersion = '3';
constexpr uint8_t kReplyDone = 1;
// DOA status values: the inverse of whether reporting is on.
constexpr uint8_t kDoaStatusReporting = 0;
constexpr uint8_t kDoaStatusStopped = 1;

// DOA report, little-endian: identifier, a 64-bit stamp, the angle and two
// floats, 16 unused bytes, three more floats.
constexpr size_t kDoaStampOffset = 1;
constexpr size_t kDoaAngleOffset = 9;
constexpr size_t kDoaFloatOffsets[] = {13, 17, 37, 41, 45};
constexpr size_t kFloatBytes = 4;

// Class of the factory ageing application; compared over its 36 bytes,
// terminating zero included.
constexpr char kFactoryAgingClass[] = "com.tarsa.factoryaging.MainActivity";
static_assert(sizeof(kFactoryAgingClass) == 36);

// The port's inter-byte time: this long without a byte is a read time-out,
// after which the receive thread works off what it holds and looks at its
// running flag.
constexpr int kRxQuietMs = 100;

std::atomic<DspFigStatusCallback> mDspFigStatusCallback{nullptr}; // binder threads set, receive thread calls

DspFigRxBuffer gDspFigRx; // receive thread only

pthread_mutex_t gDspFigVersionLock = PTHREAD_MUTEX_INITIALIZER; // guards gDspFigVersion
char gDspFigVersion[DSP_FIG_VERSION_SIZE + 1];                // last version stored; receive thread

bool debugOn()
{
    return gDspFigDev.debugLog.load(std::memory_order_relaxed) != 0;
}

bool debugPropertyOn()
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kDebugLogProp, value, "0");
    // Exactly "1": "10" or "1x" leave logging off.
    return strcmp(value, "1") == 0;
}

uint8_t crc8(const uint8_t *data, size_t size)
{
    uint8_t crc = 0;
    for (size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x80) ? static_cast<uint8_t>((crc << 1) ^ kCrcPolynomial) : static_cast<uint8_t>(crc << 1);
    }
    return crc;
}

bool isKnownType(uint8_t type)
{
    switch (type) {
    case DSP_FIG_TYPE_COMMAND:
    case DSP_FIG_TYPE_DOA:
    case DSP_FIG_TYPE_REPLY:
    case DSP_FIG_TYPE_A0:
    case DSP_FIG_TYPE_AE:
        return true;
    default:
        return false;
    }
}

void emptyRx(DspFigRxBuffer *rx)
{
    rx->count = 0;
    rx->pos = 0;
    rx->state = DSP_FIG_WAIT_START;
}

// Gives up the frame that starts the buffer: the next "#" after its first
// byte becomes the start of a new frame, whose type byte is scanned next.
// False (and an empty buffer) when there is no other "#".
bool restartAtNextStart(DspFigRxBuffer *rx)
{
    if (rx->count < 2) {
        emptyRx(rx);
        return false;
    }
    const void *next = memchr(rx->raw + 1, DSP_FIG_FRAME_START, rx->count - 1u);
    if (!next) {
        emptyRx(rx);
        return false;
    }
    const size_t from = static_cast<size_t>(static_cast<const uint8_t *>(next) - rx->raw);
    const size_t left = rx->count - from;
    memmove(rx->raw, rx->raw + from, left);
    rx->count = static_cast<uint16_t>(left);
    rx->state = DSP_FIG_WAIT_TYPE;
    rx->pos = 1;
    return true;
}

// What the trace calls each command frame.
const char *frameName(const CommandFrame &frame)
{
    if (&frame == &kDoaOnFrame)
        return "doa_on";
    if (&frame == &kDoaOffFrame)
        return "doa_off";
    if (&frame == &kVersionFrame)
        return "version";
    if (&frame == &kUsbSwitchFrame)
        return "usb_switch";
    return "unknown";
}

// Writes one fixed command frame; its failure is only logged by the port.
ssize_t sendCommand(const CommandFrame &frame)
{
    AvmTraceSpan span(kTraceFigSend, "frame=%s", frameName(frame));
    return writeUsartDevice(gDspFigDev.fd.load(std::memory_order_acquire), frame, sizeof(frame));
}

// DOA reports stay on while the microphone is on or the application asks
// for them.
void sendDoaByPolicy()
{
    const bool on = gDspFigDev.micOn.load(std::memory_order_relaxed) != 0 ||
                    gDspFigDev.appDoaRequest.load(std::memory_order_relaxed) != 0;
    sendCommand(on ? kDoaOnFrame : kDoaOffFrame);
}

void sendAck(uint8_t id)
{
    AvmTraceSpan span(kTraceFigAck, "id=%u", static_cast<unsigned>(id));
    const uint8_t ack[] = {DSP_FIG_FRAME_START, DSP_FIG_TYPE_REPLY, 1, id, crc8(&id, 1), DSP_FIG_FRAME_END};
    writeUsartDevice(gDspFigDev.fd.load(std::memory_order_acquire), ack, sizeof(ack));
}

void micSwitchedOn()
{
    gDspFigDev.micOpen.store(1, std::memory_order_relaxed);
    if (gDspFigDev.micOn.load(std::memory_order_relaxed))
        return; // already acted on: repeated reports switch once
    AvmTraceSpan span(kTraceFigMicOn);
    gDspFigDev.micOn.store(1, std::memory_order_relaxed);
    LOGI("%s: app doa request(%d), mic on(%d)\n", __func__,
         gDspFigDev.appDoaRequest.load(std::memory_order_relaxed), 1);
    // The microphone is on, so reporting goes on whatever the application
    // asked; a failed write is not retried.
    sendCommand(kDoaOnFrame);
    if (enFigSwSoundFormat()) {
        // The log texts keep their spelling: tools match them as they are.
        LOGI("mic on, set sound foramt to meeting mode !");
        // An open camera keeps the sound format as it is.
        if (ptz_cam_is_open() == 0) {
            dspFigCallback(1);
            HV_SetSoundEQ(AMP_FORMAT_MEETING);
        }
    }
}

void micSwitchedOff()
{
    gDspFigDev.micOpen.store(0, std::memory_order_relaxed);
    if (!gDspFigDev.micOn.load(std::memory_order_relaxed))
        return;
    AvmTraceSpan span(kTraceFigMicOff);
    gDspFigDev.micOn.store(0, std::memory_order_relaxed);
    LOGI("%s: app doa request(%d), mic on(%d)\n", __func__,
         gDspFigDev.appDoaRequest.load(std::memory_order_relaxed), 0);
    sendDoaByPolicy();
    if (enFigSwSoundFormat()) {
        LOGI("mic off, set sound foramt to foot or wall mode !");
        if (ptz_cam_is_open() == 0) {
            dspFigCallback(0);
            HV_SetSoundEQ(dspHal_get_spk_eq_mode());
        }
    }
}

void handleCommand(const DspFigPacket *packet)
{
    // Without a payload this byte is the CRC, which is then always 0.
    const uint8_t id = packet->data[0];
    std::string_view text;
    if (packet->length > 1)
        text = std::string_view(reinterpret_cast<const char *>(packet->data + 1), packet->length - 1u);
    if (text.find(kMicOnText) != std::string_view::npos)
        micSwitchedOn();
    else if (text.find(kMicOffText) != std::string_view::npos)
        micSwitchedOff();
    sendAck(id);
}

void handleReply(const DspFigPacket *packet)
{
    const uint8_t *data = packet->data;
    const size_t length = packet->length;
    if (length >= 2 && data[0] == kReplyDoaOn && data[1] == kReplyDone) {
        // The status is the inverse of whether reporting is on; kept so.
        gDspFigDev.doaStatus.store(kDoaStatusReporting, std::memory_order_relaxed);
        ATRACE_INT(kTraceFigDoaReporting, 1);
    } else if (length >= 2 && data[0] == kReplyDoaOff && data[1] == kReplyDone) {
        gDspFigDev.doaStatus.store(kDoaStatusStopped, std::memory_order_relaxed);
        ATRACE_INT(kTraceFigDoaReporting, 0);
    } else if (length >= 1 && data[0] == kReplyVersion) {
        char text[DSP_FIG_MAX_PAYLOAD + 1];
        memcpy(text, data + 1, length - 1);
        text[length - 1] = '\0';
        fig_Dsp_Version_update(text);
    }
}

float floatAt(const DspFigPacket *packet, size_t offset)
{
    // Fields a short report does not carry read as 0.
    if (offset + kFloatBytes > packet->length)
        return 0.0f;
    const uint8_t *b = packet->data + offset;
    const uint32_t bits = static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
                          static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24;
    return std::bit_cast<float>(bits);
}

uint64_t stampOf(const DspFigPacket *packet)
{
    uint64_t stamp = 0;
    for (size_t i = 0; i < sizeof(stamp) && kDoaStampOffset + i < packet->length; ++i)
        stamp |= static_cast<uint64_t>(packet->data[kDoaStampOffset + i]) << (8 * i);
    return stamp;
}

void handleDoaReport(const DspFigPacket *packet)
{
    if (packet->length < kDoaAngleOffset + kFloatBytes) {
        if (debugOn())
            LOGD("%s: doa report too short, length(%d)\n", __func__, packet->length);
        return;
    }
    const float angle = floatAt(packet, kDoaAngleOffset);
    if (debugOn())
        LOGD("%s: stamp(%llu), angle(%f), %f, %f, %f, %f, %f\n", __func__,
             static_cast<unsigned long long>(stampOf(packet)), static_cast<double>(angle),
             static_cast<double>(floatAt(packet, kDoaFloatOffsets[0])),
             static_cast<double>(floatAt(packet, kDoaFloatOffsets[1])),
             static_cast<double>(floatAt(packet, kDoaFloatOffsets[2])),
             static_cast<double>(floatAt(packet, kDoaFloatOffsets[3])),
             static_cast<double>(floatAt(packet, kDoaFloatOffsets[4])));
    // The angle is passed on truncated to an integer; a value no integer
    // holds (not a number, infinite, out of range) is not passed on.
    const bool whole = angle >= -2147483648.0f && angle < 2147483648.0f;
    if (whole)
        ATRACE_INT(kTraceFigDoaAngle, static_cast<int32_t>(angle));
    if (!(enableSendDoaToCamera() && enableCameraCommunication()))
        return;
    if (!whole) {
        if (debugOn())
            LOGD("%s: angle out of range, not sent\n", __func__);
        return;
    }
    sendDoaToCameraPipe(static_cast<uint32_t>(static_cast<int32_t>(angle)));
}

// Waits up to the port's inter-byte time for one byte. False on a read
// time-out. The descriptor is non-blocking, so a byte that another reader of
// the same port took first cannot hold the thread in read.
bool waitForByte(uint8_t *byte)
{
    const int fd = gDspFigDev.fd.load(std::memory_order_acquire);
    struct pollfd pfd = {fd, POLLIN, 0};
    const int ready = poll(&pfd, 1, kRxQuietMs); // a closed port (-1) just times out
    if (ready == 0)
        return false;
    if (ready > 0 && (pfd.revents & POLLIN)) {
        char c = 0;
        const ssize_t n = readDspUsartDeviceChar(fd, &c);
        if (n == 1) {
            *byte = static_cast<uint8_t>(c);
            return true;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return false;
    }
    // Hang-up, error or end of data: wait as a quiet line would, so a broken
    // port does not spin the thread.
    usleep(kRxQuietMs * 1000);
    return false;
}

} // namespace

extern "C" {

int uart_packet_process(DspFigRxBuffer *rx)
{
    if (!rx)
        return 0;
    if (rx->count > sizeof(rx->raw))
        rx->count = sizeof(rx->raw);
    if (rx->pos > rx->count)
        rx->pos = rx->count;
    while (rx->pos < rx->count) {
        const uint8_t byte = rx->raw[rx->pos];
        bool framingError = false;
        switch (rx->state) {
        case DSP_FIG_WAIT_START:
            if (byte == DSP_FIG_FRAME_START)
                rx->state = DSP_FIG_WAIT_TYPE;
            else
                framingError = true;
            break;
        case DSP_FIG_WAIT_TYPE:
            if (isKnownType(byte)) {
                rx->frameType = byte;
                rx->state = DSP_FIG_WAIT_LENGTH;
            } else {
                if (debugOn())
                    LOGD("%s: type mismatch (0x%02x)\n", __func__, byte);
                framingError = true;
            }
            break;
        case DSP_FIG_WAIT_LENGTH:
            rx->frameLength = byte;
            // An empty payload goes straight to its CRC.
            rx->state = byte == 0 ? DSP_FIG_WAIT_CRC : DSP_FIG_WAIT_PAYLOAD;
            break;
        case DSP_FIG_WAIT_PAYLOAD:
            // The payload ends at frame position length + 2.
            if (rx->pos >= rx->frameLength + 2u)
                rx->state = DSP_FIG_WAIT_CRC;
            break;
        case DSP_FIG_WAIT_CRC: {
            // The CRC of an empty payload is 0.
            const uint8_t crc = crc8(rx->raw + kPayloadOffset, rx->frameLength);
            if (crc == byte) {
                rx->state = DSP_FIG_WAIT_END;
            } else {
                if (debugOn())
                    LOGD("%s: crc mismatch (0x%02x, expected 0x%02x)\n", __func__, byte, crc);
                framingError = true;
            }
            break;
        }
        case DSP_FIG_WAIT_END:
            if (byte != DSP_FIG_FRAME_END) {
                if (debugOn())
                    LOGD("%s: suffix mismatch (0x%02x)\n", __func__, byte);
                framingError = true;
                break;
            }
            rx->packet.type = rx->frameType;
            rx->packet.length = rx->frameLength;
            memcpy(rx->packet.data, rx->raw + kPayloadOffset, rx->frameLength + 2u);
            {
                // The frame ends at this byte; what follows moves to the front.
                const size_t frameSize = rx->pos + 1u;
                const size_t left = rx->count - frameSize;
                memmove(rx->raw, rx->raw + frameSize, left);
                rx->count = static_cast<uint16_t>(left);
            }
            rx->pos = 0;
            rx->state = DSP_FIG_WAIT_START;
            return 1;
        default:
            // Not a state the parser sets: start over.
            framingError = true;
            break;
        }
        if (framingError) {
            if (!restartAtNextStart(rx))
                return 0;
            continue; // the new frame's type byte is at the scan position
        }
        ++rx->pos;
    }
    return 0;
}

void process_packet(const DspFigPacket *packet)
{
    if (!packet)
        return;
    AvmTraceSpan span(kTraceFigReceive, "type=%u", static_cast<unsigned>(packet->type));
    switch (packet->type) {
    case DSP_FIG_TYPE_COMMAND:
        handleCommand(packet);
        break;
    case DSP_FIG_TYPE_REPLY:
        handleReply(packet);
        break;
    case DSP_FIG_TYPE_DOA:
        handleDoaReport(packet);
        break;
    default:
        // 0xA0 and 0xAE frames are parsed but carry nothing for us.
        break;
    }
}

void dspFigHal_rx_feed_byte(DspFigRxBuffer *rx, uint8_t byte)
{
    if (!rx)
        return;
    // Bytes outside frames are dropped.
    if (byte != DSP_FIG_FRAME_START && rx->state == DSP_FIG_WAIT_START)
        return;
    // The parser scans every byte as it is appended, so at most one frame in
    // progress is buffered and the area never fills; should it, the old
    // bytes go rather than run past its end.
    if (rx->count >= sizeof(rx->raw))
        emptyRx(rx);
    rx->raw[rx->count++] = byte;
    while (uart_packet_process(rx) == 1)
        process_packet(&rx->packet);
}

void dspFigHal_rx_work_off(DspFigRxBuffer *rx)
{
    if (!rx)
        return;
    if (rx->count > sizeof(rx->raw))
        rx->count = sizeof(rx->raw);
    while (rx->count > 0) {
        if (rx->pos < rx->count) {
            while (uart_packet_process(rx) == 1)
                process_packet(&rx->packet);
            continue;
        }
        // Everything was scanned and the frame in progress did not complete
        // while the line was quiet: give it up and parse what follows its
        // first byte.
        if (!restartAtNextStart(rx))
            break;
    }
}

void *dspFigHal_rx_thread(void *)
{
    if (!gDspFigDev.running.load(std::memory_order_acquire))
        return nullptr;
    DspFigRxBuffer *rx = &gDspFigRx;
    emptyRx(rx);
    while (gDspFigDev.running.load(std::memory_order_acquire)) {
        uint8_t byte = 0;
        if (waitForByte(&byte))
            dspFigHal_rx_feed_byte(rx, byte);
        else
            dspFigHal_rx_work_off(rx);
    }
    return nullptr;
}

int dspFigHal_uart_init(void)
{
    // Stopping the link never closes the Fig port (see dspFigHal_uart_deinit);
    // a port an earlier start left open is closed here so restarts do not
    // pile up descriptors.
    const int stale = gDspFigDev.fd.exchange(-1, std::memory_order_acq_rel);
    if (stale >= 0)
        close(stale);
    int fd = -1;
    if (openUsartDevice(&fd, DSP_FIG_UART_PATH, kFigBaud, kFigDataBits, kFigStopBits, kFigParity,
                        kFigFlowControl) < 0) {
        LOGE("openUsartDevice failed!");
        return -1;
    }
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    gDspFigDev.fd.store(fd, std::memory_order_release);
    return 0;
}

int dspFigHal_uart_deinit(void)
{
    // Deliberately the main DSP link's port, not the Fig port, as the device
    // has always done. The field is cleared before the close, so nothing
    // later writes to or closes a number that was handed back.
    const int fd = gDspHalDev.fd.exchange(-1, std::memory_order_acq_rel);
    if (fd >= 0)
        close(fd);
    return 0;
}

int dspFig_init(void)
{
    gDspFigDev.debugLog.store(debugPropertyOn() ? 1 : 0, std::memory_order_relaxed);
    if (gDspFigDev.rxThread != pthread_t{}) {
        // Already running: the port stays open and its one receive thread
        // serves it. A second thread would share the receive buffer with
        // the first, and a second descriptor would split the port's bytes
        // between them; the caller sees the start it asked for.
        LOGI("dsp_process_init finish!");
        return 0;
    }
    gDspFigDev.running.store(1, std::memory_order_release);
    // These three lines read as the main DSP link's do; kept word for word.
    if (dspFigHal_uart_init() == -1) {
        LOGE("dspHal_uart_init error!");
        return -1;
    }
    if (pthread_create(&gDspFigDev.rxThread, nullptr, dspFigHal_rx_thread, nullptr) != 0) {
        gDspFigDev.rxThread = pthread_t{};
        LOGE("acreate dspFigHal_rx_thread create thread failed!");
        return -1;
    }
    LOGI("dsp_process_init finish!");
    return 0;
}

int dspFig_deinit(void)
{
    gDspFigDev.running.store(0, std::memory_order_release);
    if (gDspFigDev.rxThread != pthread_t{}) {
        pthread_join(gDspFigDev.rxThread, nullptr);
        gDspFigDev.rxThread = pthread_t{};
    }
    // Closes the main DSP link's port, not the Fig port: kept as it is.
    return dspFigHal_uart_deinit();
}

void setDspFigDebugLog(void)
{
    // Can only turn logging on; turning it off takes a restart of the link.
    if (debugPropertyOn())
        gDspFigDev.debugLog.store(1, std::memory_order_relaxed);
}

int detect_Fig_Dsp_Version(void)
{
    bool ask = gDspFigDev.needVersion.load(std::memory_order_relaxed) != 0;
    if (!ask) {
        char value[PROPERTY_VALUE_MAX] = {};
        property_get(kUpdateProp, value, "");
        ask = value[0] == '1';
    }
    if (ask)
        sendCommand(kVersionFrame);
    return 0;
}

void fig_Dsp_Version_update(const char *text)
{
    if (!text)
        text = "";
    if (property_set(kVersionProp, text) != 0) {
        LOGE(" %s : set persist.sys.fig.dune.version error : %s", __func__, text);
        return;
    }
    gDspFigDev.needVersion.store(0, std::memory_order_relaxed);
    pthread_mutex_lock(&gDspFigVersionLock);
    snprintf(gDspFigVersion, sizeof(gDspFigVersion), "%s", text);
    pthread_mutex_unlock(&gDspFigVersionLock);
    property_set(kUpdateProp, "0");
    if (debugOn())
        LOGD(" %s : version : %s", __func__, text);
}

int dspFigHalAppRequestDoa(int enable)
{
    gDspFigDev.appDoaRequest.store(enable ? 1 : 0, std::memory_order_relaxed);
    LOGI("%s: app doa request(%d), mic on(%d)\n", __func__, enable ? 1 : 0,
         gDspFigDev.micOn.load(std::memory_order_relaxed));
    sendDoaByPolicy();
    return 0;
}

void updateDoaStatusConfig(void)
{
    sendDoaByPolicy();
}

int dspFigHal_get_doa_status(void)
{
    return gDspFigDev.doaStatus.load(std::memory_order_relaxed);
}

int dspFigHal_send_usb_switch_msg(int target)
{
    if (target == gDspFigDev.usbSwitchState.load(std::memory_order_relaxed)) {
        LOGI("%s: already switched to %d\n", __func__, target);
        return -1;
    }
    // The frame carries no target: the Fig DSP toggles.
    if (sendCommand(kUsbSwitchFrame) < 1) {
        LOGE("%s: send to %d failed\n", __func__, target);
        return -1;
    }
    gDspFigDev.usbSwitchState.store(target, std::memory_order_relaxed);
    return 0;
}

int dspFigHal_set_status_callback(DspFigStatusCallback callback)
{
    mDspFigStatusCallback.store(callback, std::memory_order_relaxed);
    return 0;
}

int dspFigCallback(int status)
{
    DspFigStatusCallback callback = mDspFigStatusCallback.load(std::memory_order_relaxed);
    return callback ? callback(status) : 0;
}

bool dspFig_mic_is_open(void)
{
    return gDspFigDev.micOpen.load(std::memory_order_relaxed) != 0;
}

int enFigSwSoundFormat(void)
{
    char bootVideo[PROPERTY_VALUE_MAX] = {};
    property_get(kBootVideoProp, bootVideo, "1");
    const bool bootVideoDone = strcmp(bootVideo, "0") == 0;
    if (!bootVideoDone)
        LOGI("boot video not exit, dont support switch sound format !");
    char current[PROPERTY_VALUE_MAX] = {};
    property_get(kCurrentClassProp, current, "none");
    // Compared with the terminating zero: a longer name that starts the
    // same is not the ageing test.
    if (memcmp(current, kFactoryAgingClass, sizeof(kFactoryAgingClass)) == 0) {
        LOGI("now is at factoryaging mode, dont support switch sound format !");
        return 0;
    }
    return bootVideoDone ? 1 : 0;
}

#ifdef AVM_HOST_BUILD
void dspFig_resetForTest(void)
{
    gDspFigDev.fd.store(-1);
    gDspFigDev.rxThread = pthread_t{};
    gDspFigDev.running.store(0);
    gDspFigDev.debugLog.store(0);
    gDspFigDev.doaStatus.store(0);
    gDspFigDev.micOn.store(0);
    gDspFigDev.micOpen.store(0);
    gDspFigDev.appDoaRequest.store(0);
    gDspFigDev.usbSwitchState.store(DSP_FIG_USB_SWITCH_NONE);
    gDspFigDev.needVersion.store(1);
    memset(&gDspFigRx, 0, sizeof(gDspFigRx));
    pthread_mutex_lock(&gDspFigVersionLock);
    gDspFigVersion[0] = '\0';
    pthread_mutex_unlock(&gDspFigVersionLock);
    mDspFigStatusCallback.store(nullptr);
}
#endif

} // extern "C"
