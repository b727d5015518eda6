/*
 * Camera log download over the camera's HID channel.
 *
 * For each file the downloader sends a request report naming the
 * camera-side path; the camera answers with the file's size (or a
 * refusal), then sends data reports that the HID receive thread writes
 * into the save file. The receiving side never declares a file finished,
 * so a received file ends when the downloader's 8 s wait runs out; a
 * refusal ends the series. Files are fetched as name.log, name_1.log,
 * name_2.log, ... up to 50.
 *
 * Threads: the downloader (a service thread in getCamLog) claims the
 * context, sends the request and polls the stage every 10 ms; the HID
 * receive thread runs handleRecvCamHidMsg; the PTZ test thread sets the
 * debug flag.
 *
 * State (gCamFileContext):
 *   totalSize, received, stage, done  atomics: the receive thread moves
 *                  the stage on and counts, the downloader polls and
 *                  resets
 *   requestName, savePath  the downloader's, under gCamFileLock
 *   debug          relaxed atomic, any thread
 *   file           the save file's handle; under gCamFileLock, which the
 *                  receive thread holds while it writes a report and the
 *                  downloader holds while it ends a file, so a handle is
 *                  never freed under a write
 *
 * Log tag "CamHidTransferFile".
 */
#include "common/avm_trace.h"
#include "camera/cam_logs.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <atomic>
#include <mutex>

#include <android/log.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "camera/cam_detect.h"
#include "camera/cam_hid.h"
#include "dsp/file_transfer.h"

#define LOG_TAG "CamHidTransferFile"
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

// Report heads.
constexpr uint8_t CMD_HEAD_ACK_REQ_DOWNLOAD_FILE[] = {0xAA, 0xBB, 0xCC, 0x26, 0x02};
constexpr uint8_t CMD_HEAD_ACK_DOWNLOAD_FILE[] = {0xAA, 0xBB, 0xCC, 0x26, 0x03};
constexpr uint8_t CMD_HEAD_DOWNLOAD_FILE_DATA[] = {0xBB, 0x02};

constexpr int kReportSize = 64;
constexpr size_t kRequestNameLengthAt = 5; // request report: name length
constexpr size_t kRequestNameAt = 6;       // request report: name bytes
constexpr size_t kRequestNameMax = kReportSize - kRequestNameAt - 1; // 57
constexpr size_t kRefusedAt = 7;           // answer report: non-zero = no such file
constexpr size_t kSizeAt = 8;              // answer report: size, big-endian
constexpr size_t kDataAt = 2;              // data report: data bytes

constexpr useconds_t kPollUs = 10 * 1000;  // stage polling step
constexpr int kAnswerPolls = 800;          // 8 s per file
constexpr int kDebugBytes = 15;            // bytes shown by debug_hid_msg
constexpr mode_t kLogDirMode = 0755;
constexpr size_t kSaveLineMax = 1024;      // save2file_printf's buffer
constexpr long kSaveFileLimit = 1000000;   // a line file past this is dropped

const char *const kCamLogNames[] = {"kmsg", "ipcamera", "watchdog"};

struct CamFileContext {
    std::atomic<uint32_t> totalSize{0};  // announced by the camera (receive thread)
    std::atomic<uint32_t> received{0};   // written so far (receive thread)
    std::atomic<uint32_t> stage{CAM_FILE_IDLE}; // both threads
    std::atomic<uint8_t> done{0};        // both threads
    char requestName[CAM_FILE_NAME_SIZE] = {}; // downloader, under gCamFileLock
    char savePath[CAM_FILE_NAME_SIZE] = {};    // downloader, under gCamFileLock
    std::atomic<uint8_t> debug{0};       // any thread
    FileXferHandle *file = nullptr;      // under gCamFileLock
};

CamFileContext gCamFileContext;
std::mutex gCamFileLock;

// Byte i of a report, 0 past its end (a short report reads as zero-filled,
// as the receive buffer is).
uint8_t byteAt(const uint8_t *report, int length, size_t i)
{
    return static_cast<size_t>(length) > i ? report[i] : 0;
}

bool startsWith(const uint8_t *report, int length, const uint8_t *head, size_t headSize)
{
    return length >= static_cast<int>(headSize) && memcmp(report, head, headSize) == 0;
}

// Frees the save file's handle (under gCamFileLock).
void dropFile()
{
    if (gCamFileContext.file != nullptr) {
        file_xfer_free(gCamFileContext.file);
        gCamFileContext.file = nullptr;
    }
}

// Claims the context for one file: waits, 10 ms at a time, until no
// download is in flight.
void claimContext()
{
    uint32_t idle = CAM_FILE_IDLE;
    while (!gCamFileContext.stage.compare_exchange_weak(idle, CAM_FILE_REQUESTED)) {
        idle = CAM_FILE_IDLE;
        usleep(kPollUs);
    }
}

// The per-file wait in polls: kAnswerPolls, except in tests that count
// files rather than time them (cam_logs_setAnswerPollsForTest).
std::atomic<int> gAnswerPolls{kAnswerPolls};

bool waitForRefusal()
{
    const int polls = gAnswerPolls.load(std::memory_order_relaxed);
    for (int i = 0; i < polls; ++i) {
        if (gCamFileContext.stage.load() == CAM_FILE_REFUSED)
            return true;
        usleep(kPollUs);
    }
    return gCamFileContext.stage.load() == CAM_FILE_REFUSED;
}

void buildRequest(uint8_t *report, const char *requestName)
{
    memset(report, 0, kReportSize);
    memcpy(report, CMD_HEAD_ACK_REQ_DOWNLOAD_FILE, sizeof CMD_HEAD_ACK_REQ_DOWNLOAD_FILE);
    size_t length = strnlen(requestName, kRequestNameMax);
    report[kRequestNameLengthAt] = static_cast<uint8_t>(length);
    memcpy(report + kRequestNameAt, requestName, length);
}

void handleAnswer(const uint8_t *report, int length)
{
    if (!startsWith(report, length, CMD_HEAD_ACK_DOWNLOAD_FILE, sizeof CMD_HEAD_ACK_DOWNLOAD_FILE)) {
        LOGE("not match CMD_HEAD_ACK_DOWNLOAD_FILE error !");
        return;
    }
    if (byteAt(report, length, kRefusedAt) != 0) {
        gCamFileContext.totalSize.store(0);
        gCamFileContext.received.store(0);
        gCamFileContext.done.store(0);
        gCamFileContext.stage.store(CAM_FILE_REFUSED);
        return;
    }
    uint32_t size = 0;
    for (size_t i = 0; i < 4; ++i)
        size = (size << 8) | byteAt(report, length, kSizeAt + i);
    gCamFileContext.totalSize.store(size);
    LOGI("ack size = %d ", static_cast<int>(size));
    gCamFileContext.stage.store(CAM_FILE_ACKED);
}

void handleData(const uint8_t *report, int length)
{
    if (!startsWith(report, length, CMD_HEAD_DOWNLOAD_FILE_DATA, sizeof CMD_HEAD_DOWNLOAD_FILE_DATA)) {
        LOGE("not match CMD_HEAD_DOWNLOAD_FILE_DATA error !");
        return;
    }
    const uint32_t dataSize = static_cast<uint32_t>(length) - kDataAt;
    const uint32_t offset = gCamFileContext.received.load();
    if (gCamFileContext.file != nullptr)
        file_xfer_write(gCamFileContext.file, offset, report + kDataAt, dataSize);
    const uint32_t received = offset + dataSize;
    gCamFileContext.received.store(received);
    ATRACE_INT64(kTraceHidFileBytes, received);
    const uint32_t total = gCamFileContext.totalSize.load();
    if (gCamFileContext.debug.load(std::memory_order_relaxed))
        LOGI("recv file size %d dataSize %d total size %d!", static_cast<int>(received),
             static_cast<int>(dataSize), static_cast<int>(total));
    if (received == total)
        gCamFileContext.done.store(1);
    gCamFileContext.stage.store(CAM_FILE_RECEIVING);
}

} // namespace

extern "C" {

int handleRecvCamHidMsg(const uint8_t *report, int length)
{
    if (report == nullptr || length < 0)
        return 0;
    debug_hid_msg(report, length, "recvBuff");
    std::lock_guard<std::mutex> lock(gCamFileLock);
    const uint32_t stage = gCamFileContext.stage.load();
    switch (stage) {
    case CAM_FILE_REQUESTED:
        handleAnswer(report, length);
        break;
    case CAM_FILE_ACKED:
    case CAM_FILE_RECEIVING:
        handleData(report, length);
        break;
    default:
        LOGE("Nothing to do , CamFileContext.stage = %d", static_cast<int>(stage));
        break;
    }
    return 0;
}

void debug_hid_msg(const uint8_t *report, int length, const char *label)
{
    if (!gCamFileContext.debug.load(std::memory_order_relaxed) || report == nullptr)
        return;
    for (int i = 0; i < kDebugBytes; ++i)
        LOGI("%s[%d] = 0x%02x ", label ? label : "", i, byteAt(report, length, static_cast<size_t>(i)));
}

void setCamHidTransferFileDebug(int flag)
{
    gCamFileContext.debug.store(flag != 0 ? 1 : 0, std::memory_order_relaxed);
}

int getCamLog(const char *name, const char *dir)
{
    if (name == nullptr || dir == nullptr || !get_camera_pidVid())
        return 0;
    const SupportCamInfo cam = cam_detect_current();
    if (!isCamSupportCatchLogs(cam.vid, cam.pid))
        return 0;
    if (!hal_hidraw_isConnect()) {
        int ret = hal_hidraw_init(cam.vid, cam.pid);
        if (ret < 0) {
            LOGE("hal_hidraw_init FAILED!!");
            return ret;
        }
    }
    int ret = 0;
    for (int k = 0; k < CAM_LOG_MAX_FILES; ++k) {
        char requestName[CAM_FILE_NAME_SIZE];
        char savePath[CAM_FILE_NAME_SIZE];
        if (k == 0) {
            snprintf(savePath, sizeof savePath, "%s/%s.log", dir, name);
            snprintf(requestName, sizeof requestName, "%s/%s.log", CAM_LOG_REMOTE_DIR, name);
        } else {
            snprintf(savePath, sizeof savePath, "%s/%s_%d.log", dir, name, k);
            snprintf(requestName, sizeof requestName, "%s/%s_%d.log", CAM_LOG_REMOTE_DIR, name, k);
        }
        AvmTraceSpan file(kTraceHidFile, "part=%d", k);
        claimContext();
        LOGI("request file = %s \n", requestName);
        LOGI("save file = %s \n", savePath);
        {
            std::lock_guard<std::mutex> lock(gCamFileLock);
            // Each file is written from its own first byte.
            gCamFileContext.totalSize.store(0);
            gCamFileContext.received.store(0);
            memcpy(gCamFileContext.requestName, requestName, sizeof requestName);
            memcpy(gCamFileContext.savePath, savePath, sizeof savePath);
            dropFile();
            gCamFileContext.file = file_xfer_create(savePath);
        }
        uint8_t request[kReportSize];
        buildRequest(request, requestName);
        debug_hid_msg(request, kReportSize, "sendBuff");
        ret = hal_hidraw_sendData(request, kReportSize);
        if (ret < 0) {
            LOGE("direct hal_hidraw_sendData FAILED!!");
            // The context is handed back so that a later download can run.
            std::lock_guard<std::mutex> lock(gCamFileLock);
            gCamFileContext.stage.store(CAM_FILE_IDLE);
            dropFile();
            return ret;
        }
        const bool refused = waitForRefusal();
        std::lock_guard<std::mutex> lock(gCamFileLock);
        gCamFileContext.stage.store(CAM_FILE_IDLE);
        if (!refused) {
            // The usual end of a file that was received.
            LOGI("time out finish = %s \n", requestName);
            gCamFileContext.done.store(1);
            dropFile();
            continue;
        }
        avmTraceMark(kTraceHidFileRefused);
        if (!gCamFileContext.done.load()) {
            LOGE("cant not request = %s \n", requestName);
            gCamFileContext.done.store(0);
            dropFile();
            return ret;
        }
        LOGI("finish = %s \n", requestName);
        gCamFileContext.done.store(1);
        dropFile();
    }
    return ret;
}

int getCamLogs(const char *dir)
{
    char logDir[CAM_FILE_NAME_SIZE];
    snprintf(logDir, sizeof logDir, "%s/%s", dir ? dir : "", CAM_LOG_SUBDIR);
    LOGI("getCamLogs start = : %s!\n", logDir);
    if (dir == nullptr) {
        LOGE("mkdir %s error", logDir);
        return 0;
    }
    struct stat st;
    if (stat(logDir, &st) != 0 && mkdir(logDir, kLogDirMode) != 0) {
        LOGE("mkdir %s error", logDir);
        return 0;
    }
    AvmTraceSpan span(kTraceHidLogs);
    for (const char *name : kCamLogNames) {
        AvmTraceSpan log(kTraceHidLog, "name=%s", name);
        getCamLog(name, logDir);
    }
    return 1;
}

int save2file_add_line_by_str(const char *path, const char *text)
{
    if (path == nullptr || text == nullptr)
        return -1;
    FILE *file = fopen(path, "a+");
    if (file == nullptr)
        return -1;
    fputs(text, file);
    fflush(file);
    long size = ftell(file);
    fclose(file);
    if (size > kSaveFileLimit) {
        // A line file that has grown too big starts over.
        unlink(path);
        return 0;
    }
    return static_cast<int>(strlen(text));
}

int save2file_add_line_by_buffer(const char *path, const void *buffer, int length)
{
    if (path == nullptr || buffer == nullptr || length < 0)
        return -1;
    FILE *file = fopen(path, "ab+");
    if (file == nullptr)
        return -1;
    size_t written = fwrite(buffer, 1, static_cast<size_t>(length), file);
    fclose(file);
    return static_cast<int>(written);
}

int save2file_printf(const char *path, const char *format, ...)
{
    if (format == nullptr)
        return -1;
    char line[kSaveLineMax];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    return save2file_add_line_by_str(path, line);
}

int save2file_add_line_by_buffer_with_tick(const char *path, const void *buffer, int length)
{
    if (path == nullptr || buffer == nullptr || length < 0)
        return -1;
    struct timeval now;
    gettimeofday(&now, nullptr);
    char tick[48];
    int n = snprintf(tick, sizeof tick, "[%ld.%06ld] ", static_cast<long>(now.tv_sec),
                     static_cast<long>(now.tv_usec));
    if (save2file_add_line_by_buffer(path, tick, n) != n)
        return -1;
    int written = save2file_add_line_by_buffer(path, buffer, length);
    if (written < 0 || save2file_add_line_by_buffer(path, "\n", 1) != 1)
        return -1;
    return written;
}

int save2file_read_file_by_buffer(const char *path, void *buffer, int length)
{
    if (path == nullptr || buffer == nullptr || length < 0)
        return -1;
    FILE *file = fopen(path, "rb");
    if (file == nullptr)
        return -1;
    size_t got = fread(buffer, 1, static_cast<size_t>(length), file);
    fclose(file);
    return static_cast<int>(got);
}

CamFileStatus cam_logs_status(void)
{
    CamFileStatus status;
    status.totalSize = gCamFileContext.totalSize.load();
    status.received = gCamFileContext.received.load();
    status.stage = gCamFileContext.stage.load();
    status.done = gCamFileContext.done.load();
    status.debug = gCamFileContext.debug.load(std::memory_order_relaxed);
    return status;
}

#ifdef AVM_HOST_BUILD
void cam_logs_setAnswerPollsForTest(int polls)
{
    gAnswerPolls.store(polls > 0 ? polls : kAnswerPolls, std::memory_order_relaxed);
}

void cam_logs_resetForTest(uint32_t stage, const char *savePath)
{
    std::lock_guard<std::mutex> lock(gCamFileLock);
    dropFile();
    gCamFileContext.totalSize.store(0);
    gCamFileContext.received.store(0);
    gCamFileContext.done.store(0);
    gCamFileContext.debug.store(0);
    gCamFileContext.requestName[0] = '\0';
    gCamFileContext.savePath[0] = '\0';
    if (savePath != nullptr) {
        snprintf(gCamFileContext.savePath, sizeof gCamFileContext.savePath, "%s", savePath);
        gCamFileContext.file = file_xfer_create(savePath);
    }
    gCamFileContext.stage.store(stage);
}
#endif

} // extern "C"
