/*
 * PTZ link: owns the serial line "/dev/ttyS1" to the PTZ camera. Sends
 * 64-byte frames and waits for the camera's reply where the command table
 * asks for one (three sends, 500 ms of polling after each), frames the
 * received byte stream, checks and dispatches each frame to its row's
 * handler, and answers camera-initiated frames at once.
 *
 * Threads:
 *  - sender (camera_ptzControl_tx_thread): drains the camera pipe;
 *  - receiver (camera_ptzControl_rx_thread): the only reader of the line,
 *    the only user of gPtzRxPacket and the only setter of ack flags;
 *  - test thread (camera_ptzControl_test_thread): acts on "vendor.camera.test";
 *  - service threads: requests call ptz_tx_protocol_handle directly.
 * There is no lock around the line: every frame is one 64-byte write.
 *
 * State records:
 *  gPtzHalDev    thread handles, running flag and the line's descriptor;
 *  gPtzMkfifoDev descriptors of the PtzMsg named pipe;
 *  gPtzAckFlags  one reply flag per command id;
 *  gPtzRxPacket  the frame being assembled by the receiver;
 *  gPtzDebugLevel 1 or more turns on frame dumps and debug logs.
 */
#include "common/avm_trace.h"
#include "camera/ptz_link.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <android/log.h>
#include <avm_paths.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include "camera/cam_logs.h"
#include "camera/camera_pipe.h"
#include "camera/ptz_requests.h"
#include "common/hal_usart.h"

#define LOG_TAG "PTZ"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

constexpr unsigned kBaud = 115200;
constexpr int kDataBits = 8;
constexpr unsigned kStopBits = 1;
constexpr char kParity = 'N';
constexpr unsigned kFlowControl = 0;

constexpr int kSendAttempts = 3;     // frames sent per request at most
constexpr int kAckPolls = 10;        // ack tests per attempt
constexpr useconds_t kAckPollUs = 50 * 1000;
constexpr useconds_t kWritePaceUs = 10 * 1000; // gap after every frame written
constexpr useconds_t kIdleUs = 5 * 1000;       // pause after an empty read
constexpr unsigned kTestPollS = 1;
constexpr time_t kReadWaitS = 2;
// Line numbers carried by the send failure logs; tools match on them.
constexpr int kTxFailLine = 628;
constexpr int kWriteFailLine = 430;

constexpr char kDebugLevelProp[] = "persist.vendor.cam.debuglevel";
constexpr char kTestProp[] = "vendor.camera.test";
constexpr char kTestIdle[] = "OK";

struct PtzHalDev {
    pthread_t txThread;           // set by start-up (service thread); joined by joinPtzThreadPool
    pthread_t rxThread;           // set by start-up; joined by joinPtzThreadPool
    pthread_t testThread;         // set by start-up; never joined
    std::atomic<bool> txStarted;  // the sender exists and may be joined
    std::atomic<bool> rxStarted;  // the receiver exists and may be joined
    std::atomic<bool> testStarted; // the test thread exists (only tests ever join it)
    std::atomic<uint32_t> running; // written by start/stop; read by all three threads
    std::atomic<int> fd;          // the line; set by start/stop, used by every sender and the receiver
};

struct PtzMkfifoDev {
    std::atomic<int> writeFd; // -1 when closed; any thread using the FIFO
    std::atomic<int> readFd;  // -1 when closed; any thread using the FIFO
};

PtzHalDev gPtzHalDev{{}, {}, {}, {false}, {false}, {false}, {0}, {-1}};
PtzMkfifoDev gPtzMkfifoDev{{-1}, {-1}};
PtzPacket gPtzRxPacket;             // receiver thread only
std::atomic<int> gPtzDebugLevel{0}; // written by start-up and the test thread; read anywhere

const char *fifoPath(char *buf, size_t size)
{
    return avm_path(PTZ_FIFO_PATH, buf, size);
}

bool ackSet(uint32_t id)
{
    return gPtzAckFlags[id].load(std::memory_order_acquire) != 0;
}

void sendTestCommand(uint32_t cmd, uint32_t value)
{
    ptz_tx_protocol_handle(PtzMsg{cmd, value});
}

// One "vendor.camera.test" command, matched whole.
void runTestCommand(const char *cmd)
{
    if (strcmp(cmd, "senddoa") == 0) {
        sendTestCommand(PTZ_CMD_SEND_DOA, 1);
    } else if (strcmp(cmd, "sendusb") == 0) {
        sendTestCommand(PTZ_CMD_SEND_USB_CHANNEL, 2);
    } else if (strcmp(cmd, "debug") == 0) {
        ptzHalSetDebugLevel(1);
        setCamHidTransferFileDebug(1);
    } else if (strcmp(cmd, "nodebug") == 0) {
        ptzHalSetDebugLevel(0);
    } else if (strcmp(cmd, "ispenv") == 0) {
        int32_t pair[2] = {0, 0};
        int ret = ptz_get_isp_env(pair);
        LOGI("ret=%d,%d,%d\n", ret, pair[0], pair[1]);
    } else if (strcmp(cmd, "teststatus") == 0) {
        ptz_test_camera_status_callback();
    }
}

// The framing machine's states, one per frame field.
enum RxState { kHunt, kHead1, kHead2, kMain, kSub, kLength, kReserved, kData, kChecksum };

} // namespace

std::atomic<uint8_t> gPtzAckFlags[PTZ_CMD_MAX];

extern "C" {

/* ---- debug level ---- */

void ptzHalInitDebugLevel(void)
{
    char value[PROPERTY_VALUE_MAX] = {0};
    property_get(kDebugLevelProp, value, "0");
    // A single decimal digit is expected; other text gives a meaningless level.
    gPtzDebugLevel.store(value[0] - '0', std::memory_order_relaxed);
}

void ptzHalSetDebugLevel(int level)
{
    gPtzDebugLevel.store(level, std::memory_order_relaxed);
    char value[PROPERTY_VALUE_MAX];
    snprintf(value, sizeof value, "%d", level);
    property_set(kDebugLevelProp, value);
}

int ptzHalGetDebugLevel(void)
{
    return gPtzDebugLevel.load(std::memory_order_relaxed);
}

/* ---- serial line ---- */

int ptzHal_uart_init(void)
{
    int fd = -1;
    int ret = openUsartDevice(&fd, PTZ_UART_DEVICE, kBaud, kDataBits, kStopBits, kParity, kFlowControl);
    gPtzHalDev.fd.store(fd);
    if (ret < 0) {
        LOGE("openUsartDevice failed!");
        return -1;
    }
    return 0;
}

int ptzHal_uart_deinit(void)
{
    // Marked closed at once so no later frame goes to a reused descriptor.
    int fd = gPtzHalDev.fd.exchange(-1);
    if (close(fd) < 0) {
        LOGE("close uart dev fail!");
        return -1;
    }
    return 0;
}

int ptzHalWriteUsart(const PtzPacket *pkt)
{
    int ret = static_cast<int>(writeUsartDevice(gPtzHalDev.fd.load(), pkt, PTZ_PKT_SIZE));
    if (ret < 1) {
        LOGE("%s,%d error: retlen= %d\r\n", "ptzHalWriteUsart", kWriteFailLine, ret);
        return -1;
    }
    if (ptzHalGetDebugLevel() >= 1)
        showPktData("write", reinterpret_cast<const uint8_t *>(pkt), PTZ_PKT_SIZE);
    usleep(kWritePaceUs); // consecutive frames at least 10 ms apart
    return ret;
}

int ptzHalReadUsart(uint8_t *buf)
{
    memset(buf, 0, 4);
    int fd = gPtzHalDev.fd.load();
    int ret = -1;
    if (fd >= 0 && fd < FD_SETSIZE) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        timeval timeout{kReadWaitS, 0};
        ret = select(fd + 1, &readable, nullptr, nullptr, &timeout);
    } else {
        errno = EBADF; // a closed line reads as a failed wait
    }
    if (ret < 1) {
        usleep(kIdleUs);
        return ret;
    }
    int len = static_cast<int>(readUsartDevice(fd, buf, PTZ_PKT_SIZE));
    if (len < 0)
        return -1;
    if (ptzHalGetDebugLevel() >= 1)
        showPktData("read", buf, len);
    return len;
}

/* ---- frames ---- */

int ptz_tx_protocol_handle(PtzMsg msg)
{
    PtzPacket pkt;
    memset(&pkt, 0, sizeof pkt);
    initPktHead(&pkt.head0);
    initPktData(&pkt, &msg);
    pkt.checksum = KSProtocalCalcCheckSum(&pkt.head0, PTZ_PKT_SIZE - 1);

    const PtzProtocolEntry *entry = getPtzProtocolByCmd(msg.cmd);
    const bool wait = entry && entry->waitReply;
    if (wait && msg.cmd < PTZ_CMD_MAX)
        gPtzAckFlags[msg.cmd].store(0, std::memory_order_relaxed);

    AvmTraceSpan request(kTracePtzRequest, "cmd=%u", static_cast<unsigned>(msg.cmd));
    for (int attempt = 1;;) {
        AvmTraceSpan frame(kTracePtzFrame, "attempt=%d", attempt);
        int written = ptzHalWriteUsart(&pkt);
        if (written < 1) {
            // A failed write is not retried.
            LOGE("%s,%d error: retlen= %d.", "ptz_tx_protocol_handle", kTxFailLine, written);
            return -1;
        }
        if (!wait)
            return written;
        for (int poll = 0; poll < kAckPolls; ++poll) {
            if (ackSet(msg.cmd)) {
                avmTraceMark(kTracePtzAnswered);
                return written;
            }
            usleep(kAckPollUs);
        }
        avmTraceMark(kTracePtzTimedOut);
        LOGI("ptzHalWriteUsart no ack,count:%d\n", attempt);
        if (++attempt > kSendAttempts)
            return -1;
    }
}

// The machine starts afresh in the hunt state on every call: a frame must
// arrive whole within one chunk, and one split across two reads is lost.
void ptz_rx_protocol_handle(const uint8_t *buf, int len)
{
    if (!buf)
        return;
    uint8_t *frame = &gPtzRxPacket.head0;
    RxState state = kHunt;
    int dataIndex = 0;
    for (int i = 0; i < len; ++i) {
        const uint8_t byte = buf[i];
        switch (state) {
        case kHunt:
            if (byte == PTZ_PKT_HEAD0) {
                frame[0] = byte;
                state = kHead1;
            }
            break;
        case kHead1:
            // A rejected byte is not re-examined as a new 0xAA.
            if (byte == PTZ_PKT_HEAD1) {
                frame[1] = byte;
                state = kHead2;
            } else {
                state = kHunt;
            }
            break;
        case kHead2:
            if (byte == PTZ_PKT_HEAD2) {
                frame[2] = byte;
                state = kMain;
            } else {
                state = kHunt;
            }
            break;
        case kMain:
            gPtzRxPacket.main = byte;
            state = kSub;
            break;
        case kSub:
            gPtzRxPacket.sub = byte;
            state = kLength;
            break;
        case kLength:
            if (byte <= PTZ_PKT_MAX_LENGTH) {
                gPtzRxPacket.length = byte;
                state = kReserved;
            } else {
                state = kHunt;
            }
            break;
        case kReserved:
            gPtzRxPacket.reserved = byte;
            dataIndex = 0;
            state = kData;
            break;
        case kData:
            // All 56 payload bytes are taken, whatever the length byte says.
            gPtzRxPacket.data[dataIndex++] = byte;
            if (dataIndex >= PTZ_PKT_DATA_SIZE)
                state = kChecksum;
            break;
        case kChecksum:
            gPtzRxPacket.checksum = byte;
            ptz_parse_packet(&gPtzRxPacket);
            state = kHunt;
            break;
        }
    }
}

void read_data_from_cam(const uint8_t *buf, int len)
{
    ptz_rx_protocol_handle(buf, len);
}

void ptz_parse_packet(const PtzPacket *pkt)
{
    const uint8_t expect = KSProtocalCalcCheckSum(&pkt->head0, PTZ_PKT_SIZE - 1);
    if (expect != pkt->checksum) {
        LOGE("crc failed,expect:%hhd,actual:%hhd\n", static_cast<int8_t>(expect),
             static_cast<int8_t>(pkt->checksum));
        return;
    }
    LOGI("ptz_parse_packet, main:0x%x, sub:0x%x\n", pkt->main, pkt->sub);

    const PtzProtocolEntry *entry = nullptr;
    for (const auto &row : gPtzProtocolTable) {
        if (row.recvMain == pkt->main && row.recvSub == pkt->sub) {
            entry = &row;
            break;
        }
    }
    AvmTraceSpan span(kTracePtzReceive, "cmd=%d", entry ? static_cast<int>(entry->cmd) : -1);
    if (!entry)
        return;
    // Camera-initiated rows never wait, so answering here does not block.
    if (entry->replyOnRecv)
        ptz_tx_protocol_handle(PtzMsg{entry->cmd, 0});
    if (entry->response && entry->response->handler)
        entry->response->handler(entry->cmd, pkt);
    // Set only after the handler filled the slot: a waiting requester
    // always sees a complete result.
    if (entry->waitReply && entry->cmd < PTZ_CMD_MAX)
        gPtzAckFlags[entry->cmd].store(1, std::memory_order_release);
}

int camera_ptzControl_parse_msg_tx(uint32_t type, uint32_t value)
{
    switch (type) {
    case CAMERA_PIPE_MSG_DOA:
        return ptz_tx_protocol_handle(PtzMsg{PTZ_CMD_SEND_DOA, value});
    case CAMERA_PIPE_MSG_USB_CHANNEL:
        return ptz_tx_protocol_handle(PtzMsg{PTZ_CMD_SEND_USB_CHANNEL, value});
    case CAMERA_PIPE_MSG_AUTOTEST:
        return ptz_tx_protocol_handle(PtzMsg{PTZ_CMD_SET_AUTOTEST, value});
    default:
        LOGE("camera_ptzControl_parse_msg_tx failed\n");
        return -1;
    }
}

/* ---- threads ---- */

void *camera_ptzControl_tx_thread(void *)
{
    while (gPtzHalDev.running.load()) {
        uint32_t type = 0;
        uint32_t value = 0;
        if (recvMsgFromCameraPipe(&type, &value)) {
            AvmTraceSpan span(kTracePtzPipeMessage, "type=%u", static_cast<unsigned>(type));
            camera_ptzControl_parse_msg_tx(type, value);
        } else {
            usleep(kIdleUs);
        }
    }
    pthread_exit(nullptr);
}

void *camera_ptzControl_rx_thread(void *)
{
    uint8_t buf[PTZ_PKT_SIZE];
    while (gPtzHalDev.running.load()) {
        memset(buf, 0, sizeof buf);
        int len = ptzHalReadUsart(buf);
        if (len > 0)
            ptz_rx_protocol_handle(buf, len);
    }
    return nullptr;
}

void *camera_ptzControl_test_thread(void *)
{
    while (gPtzHalDev.running.load()) {
        sleep(kTestPollS);
        if (!gPtzHalDev.running.load())
            break; // stopped while asleep: ends without acting
        char value[PROPERTY_VALUE_MAX] = {0};
        property_get(kTestProp, value, kTestIdle);
        if (strcmp(value, kTestIdle) == 0)
            continue;
        LOGI("getprop %s\n", value);
        runTestCommand(value);
        LOGI("end getprop %s\n", value);
        property_set(kTestProp, kTestIdle);
    }
    return nullptr;
}

/* ---- start and stop ---- */

int camera_ptzHal_init(void)
{
    gPtzHalDev.running.store(1);
    ptzHalInitDebugLevel();
    if (ptzHal_uart_init() < 0) {
        LOGE("ptzHal_uart_init error!!");
        return -1;
    }
    // No roll-back: a failed creation leaves the threads already started.
    if (pthread_create(&gPtzHalDev.txThread, nullptr, camera_ptzControl_tx_thread, nullptr) != 0) {
        LOGE("create camera_ptzControl_tx_thread failed!!");
        return -1;
    }
    gPtzHalDev.txStarted.store(true);
    if (pthread_create(&gPtzHalDev.rxThread, nullptr, camera_ptzControl_rx_thread, nullptr) != 0) {
        LOGE("create camera_ptzControl_rx_thread failed!!");
        return -1;
    }
    gPtzHalDev.rxStarted.store(true);
    if (pthread_create(&gPtzHalDev.testThread, nullptr, camera_ptzControl_test_thread, nullptr) != 0) {
        LOGE("create camera_ptzControl_test_thread failed!!");
        return -1;
    }
    gPtzHalDev.testStarted.store(true);
    return 0;
}

// The threads are not joined: each ends when it next tests the flag.
int camera_ptzHal_deinit(void)
{
    gPtzHalDev.running.store(0);
    ptz_mkfifo_exit();
    int ret = ptzHal_uart_deinit();
    if (ret == -1)
        LOGE("close uart dev fail!!");
    return ret;
}

// Joins before clearing the running flag, so it only returns after
// camera_ptzHal_deinit has stopped the threads. The test thread is not joined.
void joinPtzThreadPool(void)
{
    // Only threads that were started are joined (joining a thread that
    // never existed is not defined).
    if (gPtzHalDev.txStarted.exchange(false))
        pthread_join(gPtzHalDev.txThread, nullptr);
    if (gPtzHalDev.rxStarted.exchange(false))
        pthread_join(gPtzHalDev.rxThread, nullptr);
    gPtzHalDev.running.store(0);
    ptz_mkfifo_exit();
    if (ptzHal_uart_deinit() == -1)
        LOGE("close uart dev fail!!");
}

/* ---- PtzMsg named pipe ---- */

int ptz_mkfifo_init(void)
{
    gPtzMkfifoDev.writeFd.store(-1);
    gPtzMkfifoDev.readFd.store(-1);
    char path[256];
    fifoPath(path, sizeof path);
    if (access(path, F_OK) == 0)
        unlink(path);
    if (mkfifo(path, 0777) < 0) {
        LOGE("createnamed pipe failed.\n");
        return -1;
    }
    // The read end first: a non-blocking write end needs a reader to exist.
    if (ptz_mkfifo_read_fd_open() < 0)
        return -1;
    if (ptz_mkfifo_write_fd_open() < 0)
        return -1;
    return 0;
}

int ptz_mkfifo_exit(void)
{
    int fd = gPtzMkfifoDev.writeFd.exchange(-1);
    if (fd >= 0)
        close(fd);
    fd = gPtzMkfifoDev.readFd.exchange(-1);
    if (fd >= 0)
        close(fd);
    return 0;
}

int ptz_mkfifo_read_fd_open(void)
{
    if (gPtzMkfifoDev.readFd.load() >= 0)
        return 0;
    char path[256];
    int fd = open(fifoPath(path, sizeof path), O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        LOGE("%s:%d, open error.(%s)\n", __func__, __LINE__, strerror(errno));
        return -1;
    }
    LOGI("%s:%d, open ok fd=%d.\n", __func__, __LINE__, fd);
    gPtzMkfifoDev.readFd.store(fd);
    return 0;
}

int ptz_mkfifo_write_fd_open(void)
{
    if (gPtzMkfifoDev.writeFd.load() >= 0)
        return 0;
    char path[256];
    int fd = open(fifoPath(path, sizeof path), O_WRONLY | O_NONBLOCK);
    if (fd < 0) {
        LOGE("%s:%d, open error.(%s)\n", __func__, __LINE__, strerror(errno));
        return -1;
    }
    LOGI("%s:%d, open ok fd=%d.\n", __func__, __LINE__, fd);
    gPtzMkfifoDev.writeFd.store(fd);
    return 0;
}

int ptz_mkfifo_read(void *buf)
{
    if (ptz_mkfifo_read_fd_open() < 0) {
        LOGE("%s:%d, read error.(%s)\n", __func__, __LINE__, strerror(errno));
        return -1;
    }
    return static_cast<int>(read(gPtzMkfifoDev.readFd.load(), buf, sizeof(PtzMsg)));
}

int ptz_mkfifo_write(uint32_t cmd, uint32_t value)
{
    if (ptz_mkfifo_write_fd_open() < 0) {
        // Same wording as the read side, kept as it is.
        LOGE("%s:%d, read error.(%s)\n", __func__, __LINE__, strerror(errno));
        return -1;
    }
    PtzMsg msg{cmd, value};
    int ret = static_cast<int>(write(gPtzMkfifoDev.writeFd.load(), &msg, sizeof msg));
    if (ret < 1) {
        int err = errno;
        int fd = gPtzMkfifoDev.writeFd.exchange(-1);
        if (fd >= 0)
            close(fd);
        LOGE("%s:%d, write error.(%s)\n", __func__, __LINE__, strerror(err));
        return -1;
    }
    return ret;
}

} // extern "C"

#ifdef AVM_HOST_BUILD
void ptzLink_resetForTest()
{
    for (auto &flag : gPtzAckFlags)
        flag.store(0, std::memory_order_relaxed);
    std::memset(&gPtzRxPacket, 0, sizeof gPtzRxPacket);
    gPtzDebugLevel.store(0, std::memory_order_relaxed);
}

void ptzLink_joinTestThreadForTest()
{
    if (gPtzHalDev.testStarted.exchange(false))
        pthread_join(gPtzHalDev.testThread, nullptr);
}
#endif
