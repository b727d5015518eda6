/*
 * DSP file transfer: the file command words, the handlers of the DSP's
 * answers, hexadecimal encoding of file data, MD5 of local files and the
 * small local file operations used by transfers.
 *
 * Threads: the DSP receive thread runs dsp_rx_file_operations_handle and
 * the parse_* handlers; the thread running a transfer (the parameter
 * restore thread) clears and polls the flags and fills the descriptor. The
 * file_xfer_* operations run on whichever thread calls them and share no
 * state.
 *
 * State:
 *   gFileOpsInfoList        the eight command words; flags are atomics
 *                           (receive thread sets, sending thread clears)
 *   gPrepareToSendFileInfo  the file in flight, under gFileInfoLock
 *                           (sending thread writes, receive thread reads)
 */
#include "common/avm_trace.h"
#include "dsp/file_transfer.h"

#include <errno.h>
#include <fcntl.h>
#include <md5.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <android/log.h>

#define TAG "DSP"
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, TAG, __VA_ARGS__)

namespace {

constexpr size_t kMd5BlockSize = 1024; // bytes fed to MD5 per read
constexpr size_t kCopyBlockSize = 512; // bytes per step of file_xfer_copy

// Guards gPrepareToSendFileInfo between the sending and receive threads.
pthread_mutex_t gFileInfoLock = PTHREAD_MUTEX_INITIALIZER;

// Bounded copy that always terminates (dst holds size bytes).
void copyBounded(char *dst, size_t size, const char *src)
{
    if (size == 0)
        return;
    size_t n = src ? strnlen(src, size - 1) : 0;
    memcpy(dst, src, n);
    dst[n] = '\0';
}

// Answer fields: the command word ends at "=", the fields after it are
// separated by ",". Splits msg in place like strtok does (empty fields are
// skipped). Returns how many of the `max` fields were found.
int splitAnswer(char *msg, char **fields, int max)
{
    char *save = nullptr;
    if (!strtok_r(msg, "=", &save))
        return 0;
    int n = 0;
    while (n < max) {
        char *field = strtok_r(nullptr, ",", &save);
        if (!field)
            break;
        fields[n++] = field;
    }
    for (int i = n; i < max; ++i)
        fields[i] = nullptr;
    return n;
}

// Decimal number from an answer field; huge values saturate instead of
// overflowing, junk after the digits is ignored (atoi-like but defined).
long long answerNumber(const char *field)
{
    return strtoll(field, nullptr, 10);
}

void setAccepted(int index)
{
    gFileOpsInfoList[index].accepted.store(1, std::memory_order_release);
}

unsigned hexDigitValue(char c)
{
    // Arithmetic conversion without validation: junk characters give junk
    // nibbles, never a fault.
    unsigned u = static_cast<unsigned char>(c);
    if (u >= 'a')
        return u - 'a' + 10;
    if (u >= 'A')
        return u - 'A' + 10;
    return u - '0';
}

// Opens the handle's file read-only unless it is already open.
bool ensureOpenForRead(FileXferHandle *handle)
{
    if (handle->fd < 0)
        handle->fd = open(handle->path, O_RDONLY);
    return handle->fd >= 0;
}

} // namespace

extern "C" {

FileOpsInfo gFileOpsInfoList[FILE_OPS_COUNT] = {
    {"FWSTR=", parse_wstr, {0}, {0}},
    {"FWDAT=", parse_wdat, {0}, {0}},
    {"FWEND=", parse_wend, {0}, {0}},
    {"FRDAT=", parse_rdat, {0}, {0}},
    {"FINF=", parse_inf, {0}, {0}},
    {"FCOPY=", parse_copy, {0}, {0}},
    {"FDEL=", parse_del, {0}, {0}},
    {"FMOV=", parse_mov, {0}, {0}},
};

PrepareToSendFileInfo gPrepareToSendFileInfo;

void file_xfer_descriptor_reset(void)
{
    pthread_mutex_lock(&gFileInfoLock);
    memset(&gPrepareToSendFileInfo, 0, sizeof(gPrepareToSendFileInfo));
    pthread_mutex_unlock(&gFileInfoLock);
}

void file_xfer_descriptor_fill(const char *localPath, const char *dspPath, uint32_t fileLen,
                               const char *md5)
{
    pthread_mutex_lock(&gFileInfoLock);
    copyBounded(gPrepareToSendFileInfo.localPath, sizeof(gPrepareToSendFileInfo.localPath),
                localPath);
    copyBounded(gPrepareToSendFileInfo.dspPath, sizeof(gPrepareToSendFileInfo.dspPath), dspPath);
    gPrepareToSendFileInfo.fileLen = fileLen;
    copyBounded(gPrepareToSendFileInfo.md5, sizeof(gPrepareToSendFileInfo.md5), md5);
    pthread_mutex_unlock(&gFileInfoLock);
}

void file_xfer_descriptor_set_chunk(uint32_t offset, uint32_t chunkLen)
{
    pthread_mutex_lock(&gFileInfoLock);
    gPrepareToSendFileInfo.offset = offset;
    gPrepareToSendFileInfo.chunkLen = chunkLen;
    pthread_mutex_unlock(&gFileInfoLock);
}

PrepareToSendFileInfo file_xfer_descriptor_get(void)
{
    pthread_mutex_lock(&gFileInfoLock);
    PrepareToSendFileInfo copy = gPrepareToSendFileInfo;
    pthread_mutex_unlock(&gFileInfoLock);
    return copy;
}

/*
 * Recognises a file answer by its command word (table order, first match
 * wins), lets the entry's handler split a bounded copy of it, then marks
 * the entry replied. Anything else is not a file answer and is ignored.
 */
void dsp_rx_file_operations_handle(DspRequest message)
{
    for (int i = 0; i < FILE_OPS_COUNT; ++i) {
        FileOpsInfo &entry = gFileOpsInfoList[i];
        const size_t wordLength = strlen(entry.cmd);
        if (strncmp(message.text, entry.cmd, wordLength) != 0)
            continue;
        // The word without its "=".
        AvmTraceSpan span(kTraceDspFileAnswer, "word=%.*s", static_cast<int>(wordLength - 1), entry.cmd);
        if (entry.handler) {
            // The received text need not be terminated: work on a copy of
            // at most 512 bytes that always is.
            char copy[FILE_XFER_ANSWER_MAX + 1];
            size_t len = strnlen(message.text, FILE_XFER_ANSWER_MAX);
            memcpy(copy, message.text, len);
            copy[len] = '\0';
            entry.handler(copy, static_cast<int>(len));
        }
        entry.replied.store(1, std::memory_order_release);
        return;
    }
}

/* "FWSTR=<path>,<status>": accepted when the status is exactly "OK". */
int parse_wstr(char *msg, int len)
{
    char *fields[2];
    if (splitAnswer(msg, fields, 2) < 2) {
        LOGE("FWSTR parse error\n");
        return -1;
    }
    if (strcmp(fields[1], "OK") == 0)
        setAccepted(FILE_OPS_WSTR);
    else
        LOGE("FWSTR error:%s\n", fields[1]);
    return 0;
}

/* "FWDAT=<offset>,<length>,<status>": accepted when the status begins with
 * "OK" and offset and length are those of the chunk last sent. */
int parse_wdat(char *msg, int len)
{
    char *fields[3];
    if (splitAnswer(msg, fields, 3) < 3) {
        // The FWDAT handler reports a short answer with the FWSTR wording.
        LOGE("FWSTR parse error\n");
        return -1;
    }
    long long offset = answerNumber(fields[0]);
    long long length = answerNumber(fields[1]);
    PrepareToSendFileInfo info = file_xfer_descriptor_get();
    if (strncmp(fields[2], "OK", 2) != 0) {
        // Numbers are logged as the 32-bit values they wrap to.
        LOGE("FWDAT %d,%d,%d,%d\n", static_cast<int>(info.offset), static_cast<int>(offset),
             static_cast<int>(info.chunkLen), static_cast<int>(length));
        return 0;
    }
    if (offset == static_cast<long long>(info.offset) &&
        length == static_cast<long long>(info.chunkLen))
        setAccepted(FILE_OPS_WDAT);
    return 0;
}

/* "FWEND=<path>,<status>": accepted when the status begins with "OK". */
int parse_wend(char *msg, int len)
{
    char *fields[2];
    if (splitAnswer(msg, fields, 2) < 2) {
        LOGE("FWEND parse error\n");
        return -1;
    }
    if (strncmp(fields[1], "OK", 2) != 0)
        LOGE("FWEND error:%s\n", fields[1]);
    else
        setAccepted(FILE_OPS_WEND);
    LOGE("file name:%s, status:%s\n", fields[0], fields[1]);
    return 0;
}

/*
 * "FINF=<path>,<length>,<md5>" or "FINF=NULL": accepted when the DSP's
 * copy differs from the file in the descriptor (or the DSP has none).
 */
int parse_inf(char *msg, int len)
{
    char *fields[3];
    int n = splitAnswer(msg, fields, 3);
    PrepareToSendFileInfo info = file_xfer_descriptor_get();
    const char *path = fields[0];

    if (n == 3 && strcmp(path, info.dspPath) == 0) {
        bool lenDiffers = answerNumber(fields[1]) != static_cast<long long>(info.fileLen);
        // The MD5 is compared over the length of the local MD5 text only.
        bool md5Differs = strncmp(fields[2], info.md5, strlen(info.md5)) != 0;
        if (lenDiffers || md5Differs) {
            LOGE("parse_inf catch fileName and fileLen and fileMd5\n");
            setAccepted(FILE_OPS_INF);
            return 0;
        }
    } else if (n == 1 && strncmp(path, "NULL", 4) == 0) {
        LOGE("parse_inf catch fileName\n");
        setAccepted(FILE_OPS_INF);
        return 0;
    } else if (n == 2 && strcmp(path, info.dspPath) == 0 &&
               answerNumber(fields[1]) != static_cast<long long>(info.fileLen)) {
        LOGE("parse_inf catch fileName and fileLen\n");
        setAccepted(FILE_OPS_INF);
        return 0;
    }
    LOGE("local file and dsp file not different!\n");
    return 0;
}

/* Answers to commands this side never sends: only marked as replied. */
int parse_rdat(char *msg, int len)
{
    return 0;
}

int parse_copy(char *msg, int len)
{
    return 0;
}

int parse_del(char *msg, int len)
{
    return 0;
}

int parse_mov(char *msg, int len)
{
    return 0;
}

int data2hex(const uint8_t *data, uint32_t len, char *hex, uint32_t hexSize)
{
    static constexpr char kDigits[] = "0123456789ABCDEF";
    uint32_t n = len < hexSize / 2 ? len : hexSize / 2;
    for (uint32_t i = 0; i < n; ++i) {
        hex[2 * i] = kDigits[data[i] >> 4];
        hex[2 * i + 1] = kDigits[data[i] & 0x0F];
    }
    return static_cast<int>(2 * n);
}

int hex2data(const char *hex, uint32_t hexLen, uint8_t *data, uint32_t dataSize)
{
    uint32_t n = hexLen / 2 < dataSize ? hexLen / 2 : dataSize;
    for (uint32_t i = 0; i < n; ++i)
        data[i] = static_cast<uint8_t>((hexDigitValue(hex[2 * i]) << 4) +
                                       hexDigitValue(hex[2 * i + 1]));
    return static_cast<int>(n);
}

FileXferHandle *file_xfer_create(const char *path)
{
    if (!path || strnlen(path, FILE_XFER_HANDLE_PATH_MAX + 1) > FILE_XFER_HANDLE_PATH_MAX)
        return nullptr;
    FileXferHandle *handle = static_cast<FileXferHandle *>(malloc(sizeof(FileXferHandle)));
    if (!handle)
        return nullptr;
    handle->path = strdup(path);
    if (!handle->path) {
        free(handle);
        return nullptr;
    }
    handle->fd = -1;
    return handle;
}

void file_xfer_free(FileXferHandle *handle)
{
    if (!handle)
        return;
    if (handle->fd >= 0)
        close(handle->fd);
    free(handle->path);
    free(handle);
}

/* The first write creates and truncates the file; the descriptor then
 * stays open so later chunks land in the same file. */
int file_xfer_write(FileXferHandle *handle, uint32_t offset, const void *data, uint32_t count)
{
    if (handle->fd < 0) {
        handle->fd = open(handle->path, O_RDWR | O_CREAT | O_TRUNC, 0666);
        if (handle->fd < 0)
            return handle->fd;
    }
    if (lseek(handle->fd, offset, SEEK_SET) < 0)
        return -1;
    return static_cast<int>(write(handle->fd, data, count));
}

int file_xfer_write_hex(FileXferHandle *handle, uint32_t offset, const char *hex, uint32_t len)
{
    uint8_t *bytes = static_cast<uint8_t *>(malloc(len / 2 + 1));
    if (!bytes)
        return 0;
    int n = hex2data(hex, len, bytes, len / 2);
    int written = file_xfer_write(handle, offset, bytes, static_cast<uint32_t>(n));
    free(bytes);
    return written < 0 ? written : 2 * written;
}

/* Every read is self-contained: open if needed, read, close again. */
int file_xfer_read(FileXferHandle *handle, uint32_t offset, void *buffer, uint32_t count)
{
    if (!ensureOpenForRead(handle))
        return handle->fd;
    int got = -1;
    if (lseek(handle->fd, offset, SEEK_SET) >= 0)
        got = static_cast<int>(read(handle->fd, buffer, count));
    // A descriptor left open by a write is closed here too; the next write
    // opens (and truncates) the file afresh.
    close(handle->fd);
    handle->fd = -1;
    return got;
}

int file_xfer_read_hex(FileXferHandle *handle, uint32_t offset, char *hex, uint32_t len)
{
    uint8_t *bytes = static_cast<uint8_t *>(malloc(len / 2 + 1));
    if (!bytes)
        return 0;
    int got = file_xfer_read(handle, offset, bytes, len / 2);
    int chars = got < 0 ? got : data2hex(bytes, static_cast<uint32_t>(got), hex, len);
    free(bytes);
    return chars;
}

/*
 * Length (from the file's status) and MD5 of a regular file. A file that
 * cannot be opened gives the negative open result. A failed status or a
 * file that is not regular gives the non-negative descriptor number.
 */
int file_xfer_info(const char *path, FileXferInfo *info)
{
    memset(info, 0, sizeof(*info));
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        LOGE("open failed:%s\n", strerror(errno));
        return fd;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        LOGE("fstat failed:%s\n", strerror(errno));
        close(fd);
        // Returns the (non-negative) descriptor, so callers that only test
        // for a negative result take this as success.
        return fd;
    }
    info->len = static_cast<uint32_t>(st.st_size);
    close(fd);

    fd = open(path, O_RDONLY);
    if (fd < 0) {
        LOGE("open:%s\n", strerror(errno));
        return 0;
    }
    MD5_CTX ctx;
    MD5Init(&ctx);
    uint8_t block[kMd5BlockSize];
    for (;;) {
        ssize_t got = read(fd, block, sizeof(block));
        if (got < 0) {
            LOGE("read:%s\n", strerror(errno));
            close(fd);
            return 0;
        }
        MD5Update(&ctx, block, static_cast<size_t>(got));
        if (static_cast<size_t>(got) < sizeof(block))
            break;
    }
    close(fd);
    uint8_t digest[16];
    MD5Final(digest, &ctx);
    for (int i = 0; i < 16; ++i)
        snprintf(info->md5 + 2 * i, 3, "%02x", digest[i]);
    return 0;
}

int file_xfer_copy(const char *from, const char *to)
{
    int in = open(from, O_RDONLY);
    if (in < 0)
        return in;
    int out = open(to, O_RDWR | O_CREAT, 0666);
    if (out < 0) {
        close(in);
        return out;
    }
    char block[kCopyBlockSize];
    for (;;) {
        ssize_t got = read(in, block, sizeof(block));
        if (got <= 0)
            break;
        if (write(out, block, static_cast<size_t>(got)) != got)
            break;
    }
    close(in);
    close(out);
    return 0;
}

/* The source is removed whatever the copy gave. */
int file_xfer_move(const char *from, const char *to)
{
    file_xfer_copy(from, to);
    unlink(from);
    return 0;
}

int file_xfer_del(const char *path)
{
    unlink(path);
    return 0;
}

int file_xfer_verify(const char *file, const FileXferInfo *expected)
{
    FileXferInfo info;
    if (file_xfer_info(file, &info) < 0)
        return -1;
    if (info.len != expected->len || strcmp(info.md5, expected->md5) != 0)
        return -1;
    return 0;
}

} // extern "C"

#ifdef AVM_HOST_BUILD
extern "C" void fileTransfer_resetForTest(void)
{
    for (auto &entry : gFileOpsInfoList) {
        entry.replied.store(0, std::memory_order_relaxed);
        entry.accepted.store(0, std::memory_order_relaxed);
    }
    file_xfer_descriptor_reset();
}
#endif
