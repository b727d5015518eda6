/*
 * DSP command link: the transport to the audio DSP on "/dev/ttyS2".
 *
 * Requests are DspRequest records posted into the named pipe
 * "/tmp/.DSP_fifo" (resolved with avm_path); the transmit thread is its only
 * reader and turns each record into command text (the text plus one zero
 * byte) written to the port under dspUartWriteLock, then pauses 8 ms. The
 * receive thread is the only reader of the port: every chunk one read
 * returns is one reply, handed to the first reply handler whose prefix
 * starts it and then, always, to the file-transfer handler. A "VER_FULL="
 * announcement starts a detached parameter-restore thread unless one is
 * already running.
 *
 * Threads: service threads post (dsp_post, send_cmd_to_dsp,
 * dsp_mkfifo_write) and run dsp_process_init/deinit; the transmit thread;
 * the receive thread; the short-lived restore thread; the file-transfer
 * code writes the port directly through dspHalWriteUsart.
 *
 * Tracing: while it is on, each post is numbered and the number travels
 * in the record's length word (unused when sending) to the transmit
 * thread, which ends the post's "dsp command" span once the command is
 * on the port; the pipe's depth is a counter.
 *
 * State: gDspHalDev (port, thread handles, running flag), gDspFifoDev (the
 * pipe's ends), dspLock, initParameterLock, dspUartWriteLock,
 * gFifoWriteEndLock, gCommandCookies. No lock is held while another is taken:
 * dspUartWriteLock covers one port write, gFifoWriteEndLock one pipe write
 * (shared) or the close of a failed write end (exclusive).
 *
 * Log tag "DSP".
 */
#include "common/avm_trace.h"
#include "dsp/dsp_link.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <android/log.h>
#include <avm_paths.h>

#include "camera/detect.h"
#include "common/hal_usart.h"
#include "dsp/dsp_replies.h"
#include "dsp/dsp_restore.h"
#include "dsp/file_transfer.h"

#define LOG_TAG "DSP"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

static_assert(sizeof(DspRequest) == 524, "DspRequest is the pipe's and the wire's record");
static_assert(offsetof(DspRequest, cmd) == 0);
static_assert(offsetof(DspRequest, param) == 4);
static_assert(offsetof(DspRequest, length) == 8);
static_assert(offsetof(DspRequest, text) == 12);
// Each record is written into the pipe in one call, so concurrent posts
// stay whole as long as a record fits the pipe's atomic-write limit.
static_assert(sizeof(DspRequest) <= PIPE_BUF);

extern "C" {

// The port starts closed; the pipe's ends start at 0 on purpose (see
// DspFifoDev).
DspHalDev gDspHalDev = {{-1}, {}, {}, {}, 0, {0}};
DspFifoDev gDspFifoDev = {{0}, {0}};
pthread_mutex_t dspLock = PTHREAD_MUTEX_INITIALIZER;
std::atomic_flag initParameterLock = ATOMIC_FLAG_INIT;

} // extern "C"

namespace {

// Serialises writes to the port between the transmit thread and the
// file-transfer code. Lives for the whole process: threads started by the
// link (the parameter restore) may outlive it.
pthread_mutex_t dspUartWriteLock = PTHREAD_MUTEX_INITIALIZER;
// The last post number handed out while tracing (any posting thread).
std::atomic<uint32_t> gCommandCookies{0};
// Whether dspLock is currently initialised (service thread).
std::atomic<bool> gDspLockLive{true};
// Shared by posters while they write the pipe's write end, exclusive while
// a failed end is closed. Never held across anything that blocks.
pthread_rwlock_t gFifoWriteEndLock = PTHREAD_RWLOCK_INITIALIZER;

constexpr unsigned kDspBaud = 115200;
constexpr int kDspDataBits = 8;
constexpr unsigned kDspStopBits = 1;
constexpr char kDspParity = 'N';
constexpr unsigned kDspFlowControl = 0;

// The DSP needs this pause after each command it is sent.
constexpr useconds_t kWritePacingUs = 8000;
// The transmit thread waits on the empty pipe at most this long a step.
constexpr useconds_t kIdlePollUs = 3000;
constexpr int kIdlePollMs = 3;
// A silent port is reported this often.
constexpr time_t kSelectTimeoutSec = 5;
constexpr useconds_t kSelectBackoffUs = 5000;
// Pause between and after the two restore passes.
constexpr useconds_t kRestorePauseUs = 1000;
// At most this many text characters, plus the terminator.
constexpr size_t kMaxTextChars = DSP_REQUEST_TEXT_SIZE - 1;
constexpr mode_t kFifoMode = 0777;

const char *fifoPath(char *buf, size_t size)
{
    return avm_path(DSP_FIFO_PATH, buf, size);
}

// The next post number: positive, never 0 (a length word of 0 carries none).
int32_t nextCommandCookie()
{
    for (;;) {
        const uint32_t n = gCommandCookies.fetch_add(1, std::memory_order_relaxed) + 1;
        const int32_t cookie = static_cast<int32_t>(n & 0x7FFFFFFFu);
        if (cookie != 0)
            return cookie;
    }
}

// The requests waiting in the pipe, as a counter (either end tells).
void traceQueuedCommands(int32_t fd)
{
    int bytes = 0;
    if (ioctl(fd, FIONREAD, &bytes) == 0)
        ATRACE_INT(kTraceDspQueued, bytes / static_cast<int>(sizeof(DspRequest)));
}

// A posted command left the queue: written to the port, failed there, or
// dropped. Requests the link writes directly carry no number.
void endCommandSpan(const DspRequest &request)
{
    if (request.length != 0)
        ATRACE_ASYNC_END(kTraceDspCommand, static_cast<int32_t>(request.length));
}

// What the trace calls a command code; nullptr for a code the transmit
// thread drops.
const char *commandKind(int32_t cmd)
{
    switch (cmd) {
    case DSP_CMD_KEY:
        return "key";
    case DSP_CMD_SPDIF_VOLUME:
        return "spdif_volume";
    case DSP_CMD_POWER_DOWN:
        return "power_down";
    case DSP_CMD_VERSION:
        return "version";
    case DSP_CMD_MIC_TEST:
        return "mic_test";
    case DSP_CMD_TEST_TONE:
        return "test_tone";
    case DSP_CMD_MIC_TEST_RESULT:
        return "mic_test_result";
    case DSP_CMD_EQ_MODEL:
        return "eq_model";
    case DSP_CMD_MAIN_VOLUME:
        return "main_volume";
    case DSP_CMD_MAIN_MUTE:
        return "main_mute";
    case DSP_CMD_HOTPLUG:
        return "hotplug";
    case DSP_CMD_BALANCE:
        return "balance";
    case DSP_CMD_EQ:
        return "eq";
    case DSP_CMD_FREE_TEXT:
        return "text";
    default:
        return nullptr;
    }
}

// Copies text into a request's text field: at most 511 characters and a
// terminator. A missing text is sent as an empty command.
void copyText(DspRequest &request, const char *text)
{
    snprintf(request.text, sizeof(request.text), "%s", text ? text : "");
}

// Reply handlers take the text as the table says: whole, or the part after
// the prefix. Each row is tried in this order; the first match wins.
struct RxRow {
    std::string_view prefix;
    const char *handlerName;
    void (*handle)(const char *text);
};

constexpr std::string_view kMicTest = "MIC_TEST=";
constexpr std::string_view kMicDoa = "MIC_DOA=";
constexpr std::string_view kAom = "AOM=";
constexpr std::string_view kAuxTest = "AUX_TEST";

void startParameterRestore();

constexpr RxRow kRxTable[] = {
    {kMicTest, "dsp_mic_status_update",
     [](const char *t) { dsp_mic_status_update(t + kMicTest.size()); }},
    {"VER_FULL=", "dsp_fullVersion_update",
     [](const char *t) {
         dsp_fullVersion_update(t);
         startParameterRestore();
     }},
    {"LS=", "dsp_led_status_update", [](const char *t) { dsp_led_status_update(t); }},
    {"VS=", "dsp_spdif_dbVol_update", [](const char *t) { dsp_spdif_dbVol_update(t); }},
    {"MV=", "dsp_main_dbVol_update", [](const char *t) { dsp_main_dbVol_update(t); }},
    {"MT=", "dsp_mainMute_status_update", [](const char *t) { dsp_mainMute_status_update(t); }},
    {"PER_STAT=", "dsp_hotPlug_status_update", [](const char *t) { dsp_hotPlug_status_update(t); }},
    {"BAL_LEFT=", "dsp_balance_status_update", [](const char *t) { dsp_balance_status_update(3, t); }},
    {"BAL_RIGHT=", "dsp_balance_status_update", [](const char *t) { dsp_balance_status_update(4, t); }},
    {"USER_EQ", "dsp_parse_EQInfo", [](const char *t) { dsp_parse_EQInfo(t); }},
    {"MIC_PWR_ON=", "updateVersoinInfo", [](const char *) { updateVersoinInfo(); }},
    {kMicDoa, "dsp_parse_doa", [](const char *t) { dsp_parse_doa(t + kMicDoa.size()); }},
    {kAom, "dsp_parse_audio_out_mode", [](const char *t) { dsp_parse_audio_out_mode(t + kAom.size()); }},
    {kAuxTest, "dsp_mic_aux_test_update", [](const char *t) { dsp_mic_aux_test_update(t + kAuxTest.size()); }},
    // Never shadowed by "MIC_DOA=": the ninth character differs.
    {"MIC_DOA_REP=", "dsp_doa_status_update", [](const char *t) { dsp_doa_status_update(t); }},
};
constexpr int kRxRowCount = static_cast<int>(sizeof(kRxTable) / sizeof(kRxTable[0]));
static_assert(kRxRowCount == 15);

// The restore thread is started with default attributes and its handle is
// not kept; it is detached so its resources go back when it ends.
void startParameterRestore()
{
    // A restore already running keeps the flag set: nothing more to do.
    if (initParameterLock.test_and_set(std::memory_order_acquire))
        return;
    pthread_t thread;
    if (pthread_create(&thread, nullptr, init_parameter_thread, nullptr) != 0) {
        initParameterLock.clear(std::memory_order_release);
        return;
    }
    pthread_detach(thread);
}

#if defined(AVM_HOST_BUILD)
// The port is set to return a read once 128 bytes are in or 0.1 s after the
// last byte. Newer host kernels hand a raw terminal read over in pieces of
// at most 64 bytes and end the read after the first piece, so a longer
// reply would come out as two. When a read ends exactly on a piece
// boundary, keep reading while bytes follow within the inter-byte time, up
// to the 128 bytes the port promises, so one read is still one reply.
constexpr ssize_t kHostTtyPiece = 64;
constexpr ssize_t kPortReadMinBytes = 128;
constexpr int kInterByteMs = 100;

ssize_t gatherHostTtyPieces(int fd, char *buffer, ssize_t got, size_t size)
{
    while (got > 0 && got % kHostTtyPiece == 0 && got < kPortReadMinBytes &&
           static_cast<size_t>(got) < size) {
        struct pollfd more = {fd, POLLIN, 0};
        if (poll(&more, 1, kInterByteMs) <= 0)
            break;
        ssize_t n = read(fd, buffer + got, size - static_cast<size_t>(got));
        if (n <= 0)
            break;
        got += n;
    }
    return got;
}
#endif

// The transmit thread's idle step: up to 3 ms, but over as soon as a
// request is in the pipe, so a setter on an idle link does not wait out
// the rest of the step. A pipe with no writer left reports hang-up at
// once; the full step is slept then, as it is when the pipe is not open.
void waitForRequest()
{
    const int32_t fd = gDspFifoDev.readFd.load(std::memory_order_acquire);
    if (fd >= 0) {
        struct pollfd pipe = {fd, POLLIN, 0};
        const int ready = poll(&pipe, 1, kIdlePollMs);
        if (ready == 0 || (ready > 0 && (pipe.revents & POLLIN)))
            return;
    }
    usleep(kIdlePollUs);
}

// Joins a thread the link started; a handle that was never set is skipped.
void joinIfStarted(pthread_t &thread)
{
    if (thread == pthread_t{})
        return;
    pthread_join(thread, nullptr);
    thread = pthread_t{};
}

// Opens one end of the pipe if it is not open yet. Concurrent openers of
// the same end keep the first descriptor that was stored.
int openFifoEnd(std::atomic<int32_t> &end, int flags, const char *func, int line)
{
    if (end.load(std::memory_order_acquire) != -1)
        return 0;
    char path[PATH_MAX];
    int fd = open(fifoPath(path, sizeof(path)), flags);
    if (fd < 0) {
        int err = errno;
        LOGE("%s:%d, open error.(%s)\n", func, line, strerror(err));
        errno = err; // the caller reports the same cause
        return -1;
    }
    int32_t expected = -1;
    if (!end.compare_exchange_strong(expected, fd, std::memory_order_acq_rel)) {
        close(fd);
        fd = expected;
    }
    LOGI("%s:%d, open ok fd=%d.\n", func, line, fd);
    return 0;
}

} // namespace

extern "C" {

int dsp_mkfifo_init(void)
{
    gDspFifoDev.writeFd.store(-1, std::memory_order_release);
    gDspFifoDev.readFd.store(-1, std::memory_order_release);
    char path[PATH_MAX];
    fifoPath(path, sizeof(path));
    if (access(path, F_OK) == 0)
        unlink(path);
    if (mkfifo(path, kFifoMode) != 0) {
        LOGE("createnamed pipe failed.\n");
        return -1;
    }
    // Reader first: a non-blocking writer cannot open a pipe without one.
    // Failures are left to the lazy re-open of each end.
    dsp_mkfifo_read_fd_open();
    dsp_mkfifo_write_fd_open();
    return 0;
}

int dsp_mkfifo_read_fd_open(void)
{
    return openFifoEnd(gDspFifoDev.readFd, O_RDONLY | O_NONBLOCK, __func__, __LINE__);
}

int dsp_mkfifo_write_fd_open(void)
{
    return openFifoEnd(gDspFifoDev.writeFd, O_WRONLY | O_NONBLOCK, __func__, __LINE__);
}

int dsp_mkfifo_write(DspRequest request)
{
    if (dsp_mkfifo_write_fd_open() < 0) {
        // Says "read" in the write path; kept as the DSP log has always read.
        LOGE("%s:%d, read error.(%s)\n", __func__, __LINE__, strerror(errno));
        return -1;
    }
    // Numbered before the write: the transmit thread may take the record
    // at once.
    const int32_t cookie = ATRACE_ENABLED() ? nextCommandCookie() : 0;
    if (cookie != 0) {
        request.length = static_cast<uint32_t>(cookie);
        ATRACE_ASYNC_BEGIN(kTraceDspCommand, cookie);
    }
    // Posters write side by side under the shared hold; dropping the end
    // takes the exclusive one, so no poster can be left holding a number
    // that was closed and handed to another file.
    pthread_rwlock_rdlock(&gFifoWriteEndLock);
    int32_t fd = gDspFifoDev.writeFd.load(std::memory_order_acquire);
    ssize_t ret = write(fd, &request, sizeof(request));
    int err = errno;
    if (cookie != 0 && ret >= 1)
        traceQueuedCommands(fd);
    pthread_rwlock_unlock(&gFifoWriteEndLock);
    if (ret < 1) {
        if (cookie != 0)
            endCommandSpan(request);
        // Drop the end so the next request opens it afresh.
        pthread_rwlock_wrlock(&gFifoWriteEndLock);
        int32_t expected = fd;
        if (gDspFifoDev.writeFd.compare_exchange_strong(expected, -1, std::memory_order_acq_rel))
            close(fd);
        pthread_rwlock_unlock(&gFifoWriteEndLock);
        LOGE("%s:%d, write error.(%s)\n", __func__, __LINE__, strerror(err));
        return -1;
    }
    return static_cast<int>(ret);
}

int dsp_mkfifo_read(DspRequest *buffer)
{
    if (!buffer)
        return -1;
    if (dsp_mkfifo_read_fd_open() < 0) {
        LOGE("%s:%d, read error.(%s)\n", __func__, __LINE__, strerror(errno));
        return -1;
    }
    int32_t fd = gDspFifoDev.readFd.load(std::memory_order_acquire);
    // A short read is passed on as it is; an empty pipe gives -1.
    ssize_t ret = read(fd, buffer, sizeof(*buffer));
    if (ret < 1)
        return -1;
    return static_cast<int>(ret);
}

int dsp_post(int32_t cmd, const char *text)
{
    DspRequest request;
    memset(&request, 0, sizeof(request));
    request.cmd = cmd;
    copyText(request, text);
    return dsp_mkfifo_write(request);
}

int send_cmd_to_dsp(const char *text)
{
    return dsp_post(DSP_CMD_FREE_TEXT, text);
}

int dspHalWriteUsart(DspRequest request)
{
    // The text field is always sent terminated, whatever the record held.
    request.text[kMaxTextChars] = '\0';
    size_t length = strlen(request.text) + 1; // the zero byte goes on the wire
    // The lock lives for the whole process; a write while the link is down
    // finds the port closed and fails on its own.
    bool locked = pthread_mutex_lock(&dspUartWriteLock) == 0;
    ssize_t ret = writeUsartDevice(gDspHalDev.fd.load(std::memory_order_acquire), request.text, length);
    if (locked)
        pthread_mutex_unlock(&dspUartWriteLock);
    endCommandSpan(request);
    if (ret >= 1) {
        LOGI("%s,%d : %s\r\n", __func__, __LINE__, request.text);
        // Paces every sender: the DSP needs the pause between commands.
        usleep(kWritePacingUs);
    } else {
        LOGE("%s,%d error: retlen= %d\r\n", __func__, __LINE__, static_cast<int>(ret));
    }
    return static_cast<int>(ret);
}

int dspHalReadUsart(char *buffer)
{
    if (!buffer)
        return -1;
    int fd = gDspHalDev.fd.load(std::memory_order_acquire);
    int ret;
    if (fd < 0 || fd >= FD_SETSIZE) {
        // A descriptor select cannot watch counts as a failed wait.
        ret = -1;
    } else {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        struct timeval timeout = {kSelectTimeoutSec, 0};
        ret = select(fd + 1, &readable, nullptr, nullptr, &timeout);
    }
    if (ret <= 0) {
        LOGI("dspHal select timeout.");
        usleep(kSelectBackoffUs);
        return ret;
    }
    ssize_t got = readUsartDevice(fd, buffer, DSP_REQUEST_TEXT_SIZE);
#if defined(AVM_HOST_BUILD)
    got = gatherHostTtyPieces(fd, buffer, got, DSP_REQUEST_TEXT_SIZE);
#endif
    return static_cast<int>(got);
}

int dspHal_uart_init(void)
{
    int fd = -1;
    int ret = openUsartDevice(&fd, DSP_UART_PATH, kDspBaud, kDspDataBits, kDspStopBits, kDspParity,
                              kDspFlowControl);
    gDspHalDev.fd.store(fd, std::memory_order_release);
    // The port lock is set up whether or not the port opened; it lives for
    // the whole process (see dspHal_uart_deinit), so there is nothing to do.
    if (ret < 0) {
        LOGE("openUsartDevice failed!");
        return -1;
    }
    return 0;
}

int dspHal_uart_deinit(void)
{
    int fd = gDspHalDev.fd.exchange(-1, std::memory_order_acq_rel);
    if (fd >= 0)
        close(fd);
    // The port lock is not really destroyed: a restore or transfer thread
    // that outlives the link may still take it, and a destroyed mutex may
    // not be locked. The result is what destroying it would give: 0 when
    // it is free, EBUSY while another thread holds it.
    const int busy = pthread_mutex_trylock(&dspUartWriteLock);
    if (busy == 0)
        pthread_mutex_unlock(&dspUartWriteLock);
    return busy == 0 ? 0 : EBUSY;
}

int dsp_tx_protocol_handle(DspRequest request)
{
    const unsigned paramByte = request.param & 0xFFu;
    switch (request.cmd) {
    case DSP_CMD_KEY:
        snprintf(request.text, sizeof(request.text), "KS=%d", static_cast<int>(paramByte));
        LOGI("KEY：%d-%u[%s] !!!!!!!!\n", request.cmd, paramByte, request.text);
        break;
    case DSP_CMD_POWER_DOWN:
        snprintf(request.text, sizeof(request.text), "PD=1");
        break;
    case DSP_CMD_VERSION:
        snprintf(request.text, sizeof(request.text), "VER_FULL=?");
        break;
    case DSP_CMD_MIC_TEST:
        snprintf(request.text, sizeof(request.text), "MIC_TEST=?");
        break;
    case DSP_CMD_TEST_TONE:
        snprintf(request.text, sizeof(request.text), "SND_PLAY=%d,%d,%d,%d", 0, 1000, -12, 1000);
        break;
    case DSP_CMD_MIC_TEST_RESULT:
        snprintf(request.text, sizeof(request.text), "MIC_TEST_RET=?");
        break;
    case DSP_CMD_EQ_MODEL:
        snprintf(request.text, sizeof(request.text), "EQ_MODEL=%d", static_cast<int>(paramByte));
        break;
    // These codes only label the request: the caller's text goes out as is.
    case DSP_CMD_SPDIF_VOLUME:
    case DSP_CMD_MAIN_VOLUME:
    case DSP_CMD_MAIN_MUTE:
    case DSP_CMD_HOTPLUG:
    case DSP_CMD_BALANCE:
    case DSP_CMD_EQ:
    case DSP_CMD_FREE_TEXT:
        break;
    default:
        // Unknown codes are dropped without a word.
        avmTraceMark(kTraceDspDropped);
        endCommandSpan(request);
        return -1;
    }
    return dspHalWriteUsart(request);
}

void *dspHal_tx_thread(void *)
{
    while (gDspHalDev.running.load(std::memory_order_acquire)) {
        DspRequest request;
        memset(&request, 0, sizeof(request));
        if (dsp_mkfifo_read(&request) >= 1) {
            char unknown[24];
            const char *kind = commandKind(request.cmd);
            if (kind == nullptr) {
                snprintf(unknown, sizeof unknown, "code_%d", static_cast<int>(request.cmd));
                kind = unknown;
            }
            AvmTraceSpan span(kTraceDspWrite, "kind=%s", kind);
            if (span.active)
                traceQueuedCommands(gDspFifoDev.readFd.load(std::memory_order_acquire));
            dsp_tx_protocol_handle(request);
        } else {
            waitForRequest();
        }
    }
    pthread_exit(nullptr);
}

int dsp_rx_match(const char *text)
{
    if (!text)
        return 0;
    std::string_view reply(text);
    for (int row = 0; row < kRxRowCount; ++row)
        if (reply.starts_with(kRxTable[row].prefix))
            return row + 1;
    return 0;
}

int dsp_rx_row_count(void)
{
    return kRxRowCount;
}

const char *dsp_rx_handler_name(int row)
{
    return row >= 1 && row <= kRxRowCount ? kRxTable[row - 1].handlerName : nullptr;
}

const char *dsp_rx_prefix(int row)
{
    // Every prefix is a string literal, so its data is terminated.
    return row >= 1 && row <= kRxRowCount ? kRxTable[row - 1].prefix.data() : nullptr;
}

int dsp_rx_dispatch(const DspRequest *chunk)
{
    if (!chunk)
        return 0;
    // The reply handlers read a terminated text: a copy one byte longer
    // than the field holds every received byte, a full 512-byte chunk
    // included, and a terminator after them.
    DspRequest record = *chunk;
    if (record.length > DSP_REQUEST_TEXT_SIZE)
        record.length = DSP_REQUEST_TEXT_SIZE;
    char text[DSP_REQUEST_TEXT_SIZE + 1];
    memcpy(text, record.text, record.length);
    text[record.length] = '\0';
    // The file transfer gets the record with the received bytes only.
    memset(record.text + record.length, 0, sizeof(record.text) - record.length);

    // One read is one reply: a chunk holding several replies is not split,
    // and only its start is looked at.
    int row = dsp_rx_match(text);
    AvmTraceSpan span(kTraceDspReceive, "handler=%s", row > 0 ? kRxTable[row - 1].handlerName : "none");
    if (row > 0)
        kRxTable[row - 1].handle(text);
    // Every chunk is offered to the file transfer too, matched or not.
    dsp_rx_file_operations_handle(record);
    return row;
}

void *dspHal_rx_thread(void *)
{
    // Checks running only between reads, so stopping can take up to one
    // select time-out.
    while (gDspHalDev.running.load(std::memory_order_acquire)) {
        DspRequest request;
        memset(&request, 0, sizeof(request));
        int count = dspHalReadUsart(request.text);
        if (count < 1)
            continue;
        LOGE("%.*s", count, request.text);
        request.length = static_cast<uint32_t>(count);
        dsp_rx_dispatch(&request);
    }
    pthread_exit(nullptr);
}

// Restores the stored settings twice, then lets the next announcement
// start another restore.
void *init_parameter_thread(void *)
{
    LOGD("%s enter \n", __func__);
    dspHalInitParameter();
    usleep(kRestorePauseUs);
    dspHalInitParameter();
    usleep(kRestorePauseUs);
    initParameterLock.clear(std::memory_order_release);
    return nullptr;
}

int dsp_process_init(void)
{
    gDspHalDev.running.store(1, std::memory_order_release);
    if (dsp_mkfifo_init() < 0) {
        LOGE("mkfifo_dsp_init error!");
        return -1;
    }
    if (dspHal_uart_init() == -1) {
        LOGE("dspHal_uart_init error!");
        return -1;
    }
    if (!gDspLockLive.exchange(true))
        pthread_mutex_init(&dspLock, nullptr);
    // A fresh restore lock starts free.
    initParameterLock.clear(std::memory_order_release);
    if (pthread_create(&gDspHalDev.txThread, nullptr, dspHal_tx_thread, nullptr) != 0) {
        gDspHalDev.txThread = pthread_t{};
        LOGE("acreate dspHal_tx_thread create thread failed!");
        return -1;
    }
    if (pthread_create(&gDspHalDev.rxThread, nullptr, dspHal_rx_thread, nullptr) != 0) {
        gDspHalDev.rxThread = pthread_t{};
        LOGE("acreate dspHal_rx_thread create thread failed!");
        return -1;
    }
    LOGI("dsp_process_init finish!");
    return 0;
}

int dsp_process_deinit(void)
{
    gDspHalDev.running.store(0, std::memory_order_release);
    // The locks go before the threads are joined, deliberately: neither is
    // held by the link's threads. The restore flag needs no teardown.
    if (gDspLockLive.exchange(false))
        pthread_mutex_destroy(&dspLock);
    joinIfStarted(gDspHalDev.txThread);
    joinIfStarted(gDspHalDev.rxThread);
    // Third handle of the record: nothing in the module starts it, so it is
    // still zero here and the join is skipped.
    joinIfStarted(gDspHalDev.auxThread);
    // The pipe and its descriptors stay as they are.
    return dspHal_uart_deinit();
}

} // extern "C"

#ifdef AVM_HOST_BUILD
void dspLink_resetForTest()
{
    for (std::atomic<int32_t> *end : {&gDspFifoDev.writeFd, &gDspFifoDev.readFd}) {
        const int32_t fd = end->exchange(0);
        if (fd > STDERR_FILENO && fd != gDspFifoDev.writeFd.load() && fd != gDspFifoDev.readFd.load())
            close(fd);
    }
}
#endif
