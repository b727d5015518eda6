/*
 * Configuration upgrade of the audio DSP. The system image carries the
 * reference bundle "/system/etc/dsp_config/AllConfigs.bin"; the DSP keeps
 * its working copy as "/data/misc/AllConfigs.bin". Before every parameter
 * restore the DSP is asked for the length and MD5 of its copy (FINF); when
 * they differ the reference goes over in 240-byte chunks (FWSTR, FWDAT...,
 * FWEND).
 *
 * Threads: runs on the parameter-restore thread. Requests are written
 * straight to the DSP port with dspHalWriteUsart; answers arrive on the DSP
 * receive thread, which sets the flags of gFileOpsInfoList that
 * retrySendMsg polls.
 *
 * State: none of its own; the file in flight is gPrepareToSendFileInfo
 * (file_transfer), which keeps the last transfer's values until the next
 * check zeroes it.
 */
#include "common/avm_trace.h"
#include "dsp/config_upgrade.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <android/log.h>
#include <avm_paths.h>

#include "dsp/dsp_link.h"
#include "dsp/file_transfer.h"

#define TAG "DSP"
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, TAG, __VA_ARGS__)

namespace {

constexpr int kSendAttempts = 3;          // writes of one request
constexpr int kPollsPerAttempt = 16;      // flag checks after each write
constexpr useconds_t kPollIntervalUs = 50 * 1000;

// Where the reference bundle lies on this system.
const char *referencePath(char *buf, size_t size)
{
    return avm_path(ALL_CONFIGS_REFERENCE_PATH, buf, size);
}

// FWSTR: announces path, length and MD5 of the file to come.
int start_send_file_to_dsp(const PrepareToSendFileInfo &info)
{
    char request[DSP_REQUEST_TEXT_SIZE];
    snprintf(request, sizeof(request), "FWSTR=%s,%d,%s", info.dspPath,
             static_cast<int>(info.fileLen), info.md5);
    if (!retrySendMsg(request, FILE_OPS_WSTR)) {
        LOGE("FWSTR failed\n");
        return 0;
    }
    return 1;
}

// FWDAT for every chunk, in order; stops at the first chunk not accepted.
int send_file_to_dsp(const char *path, uint32_t fileLen)
{
    uint32_t offset = 0;
    uint32_t remaining = fileLen;
    while (remaining > 0) {
        uint32_t chunk = remaining < ALL_CONFIGS_CHUNK_SIZE ? remaining : ALL_CONFIGS_CHUNK_SIZE;
        char hex[2 * ALL_CONFIGS_CHUNK_SIZE + 1];
        int chars = read_local_file_transfer_to_hex_ascii(path, offset, chunk, hex,
                                                          2 * ALL_CONFIGS_CHUNK_SIZE);
        if (chars < 0) {
            LOGE("read_local_file_transfer_to_hex_ascii failed\n");
            return 0;
        }
        hex[chars] = '\0';
        // The checksum is over the hex text, not over the raw bytes.
        unsigned sum = 0;
        for (int i = 0; i < chars; ++i)
            sum += static_cast<unsigned char>(hex[i]);
        unsigned char checksum = static_cast<unsigned char>(sum & 0xFF);

        file_xfer_descriptor_set_chunk(offset, chunk);
        char request[DSP_REQUEST_TEXT_SIZE];
        snprintf(request, sizeof(request), "FWDAT=%d,%d,%hhu,%s", static_cast<int>(offset),
                 static_cast<int>(chunk), checksum, hex);
        if (!retrySendMsg(request, FILE_OPS_WDAT)) {
            LOGE("FWDAT failed\n");
            return 0;
        }
        remaining -= chunk;
        offset += chunk;
    }
    return 1;
}

// FWEND: the DSP checks length and MD5 and keeps the new copy.
int finish_send_file_to_dsp(const PrepareToSendFileInfo &info)
{
    char request[DSP_REQUEST_TEXT_SIZE];
    snprintf(request, sizeof(request), "FWEND=%s", info.dspPath);
    if (!retrySendMsg(request, FILE_OPS_WEND)) {
        LOGE("FWEND failed\n");
        return 0;
    }
    return 1;
}

} // namespace

extern "C" {

// The file is reopened for every chunk.
int read_local_file_transfer_to_hex_ascii(const char *path, uint32_t offset, uint32_t chunk,
                                          char *hex, uint32_t hexSize)
{
    // The upgrade never asks for more than one chunk; a longer read would
    // not fit the buffer below, so it fails as a short read would.
    if (chunk > ALL_CONFIGS_CHUNK_SIZE) {
        LOGE("read failed:%d\n", -1);
        return -1;
    }
    int fd = open(path, O_RDONLY);
    if (fd < 1) {
        // Descriptor 0 counts as a failed open too.
        LOGE("open failed:%d\n", fd);
        if (fd == 0)
            close(fd);
        return -1;
    }
    uint8_t bytes[ALL_CONFIGS_CHUNK_SIZE];
    ssize_t got = -1;
    if (lseek(fd, offset, SEEK_SET) >= 0)
        got = read(fd, bytes, chunk);
    close(fd);
    if (got != static_cast<ssize_t>(chunk)) {
        LOGE("read failed:%d\n", static_cast<int>(got));
        return -1;
    }
    return data2hex(bytes, chunk, hex, hexSize);
}

int retrySendMsg(const char *request, int index)
{
    FileOpsInfo &entry = gFileOpsInfoList[index];
    DspRequest msg;
    memset(&msg, 0, sizeof(msg));
    snprintf(msg.text, sizeof(msg.text), "%s", request);

    const int wordLength = static_cast<int>(strlen(entry.cmd)) - 1; // without its "="
    AvmTraceSpan span(kTraceDspFileRequest, "word=%.*s", wordLength, entry.cmd);
    // A chunk's writes are named by the chunk the sender recorded.
    const bool chunk = index == FILE_OPS_WDAT;
    const PrepareToSendFileInfo inFlight =
        span.active && chunk ? file_xfer_descriptor_get() : PrepareToSendFileInfo{};
    entry.replied.store(0, std::memory_order_relaxed);
    entry.accepted.store(0, std::memory_order_relaxed);
    for (int attempt = 0; attempt < kSendAttempts; ++attempt) {
        AvmTraceSpan write = chunk ? AvmTraceSpan(kTraceDspChunk, "offset=%u length=%u attempt=%d",
                                                  static_cast<unsigned>(inFlight.offset),
                                                  static_cast<unsigned>(inFlight.chunkLen), attempt + 1)
                                   : AvmTraceSpan(kTraceDspFileSend, "word=%.*s attempt=%d", wordLength,
                                                  entry.cmd, attempt + 1);
        if (dspHalWriteUsart(msg) < 1) {
            LOGE("write uart failed\n");
            return 0;
        }
        for (int poll = 0; poll < kPollsPerAttempt; ++poll) {
            usleep(kPollIntervalUs);
            if (entry.replied.load(std::memory_order_acquire)) {
                if (entry.accepted.load(std::memory_order_relaxed)) {
                    avmTraceMark(kTraceDspAnswered);
                    return 1;
                }
                avmTraceMark(kTraceDspNotAccepted);
                LOGE("dsp not respond corrent\n");
                return 0;
            }
        }
        avmTraceMark(kTraceDspTimedOut);
        // The flags are deliberately not cleared between attempts.
        LOGE("dsp not respond\n");
    }
    if (entry.replied.load(std::memory_order_acquire) &&
        entry.accepted.load(std::memory_order_relaxed)) {
        avmTraceMark(kTraceDspAnswered); // late, after the last write's wait
        return 1;
    }
    LOGE("dsp not respond corrent\n");
    return 0;
}

int isNeedToUpgradeAllConfigs(void)
{
    file_xfer_descriptor_reset();
    char path[PATH_MAX];
    referencePath(path, sizeof(path));
    FileXferInfo info;
    if (file_xfer_info(path, &info) < 0) {
        LOGE("get local file %s info failed\n", path);
        return 0;
    }
    file_xfer_descriptor_fill(path, ALL_CONFIGS_DSP_PATH, info.len, info.md5);

    char request[DSP_REQUEST_TEXT_SIZE];
    snprintf(request, sizeof(request), "FINF=%s", ALL_CONFIGS_DSP_PATH);
    if (!retrySendMsg(request, FILE_OPS_INF)) {
        // Also what an identical copy gives: the FINF handler accepts only
        // differences.
        LOGE("FINF failed\n");
        return 0;
    }
    return 1;
}

int upgradeAllConfigs(void)
{
    AvmTraceSpan span(kTraceDspConfigUpgrade);
    if (!isNeedToUpgradeAllConfigs()) {
        LOGE("NOT Need To Upgrade AllConfigs\n");
        return 0;
    }
    PrepareToSendFileInfo info = file_xfer_descriptor_get();
    AvmTraceSpan file(kTraceDspFileTransfer, "size=%u", static_cast<unsigned>(info.fileLen));
    if (!start_send_file_to_dsp(info)) {
        LOGE("start_send_file_to_dsp failed\n");
        return 0;
    }
    // The reference is opened by its full name here, not by the descriptor's
    // copy, which is cut to 128 characters.
    char path[PATH_MAX];
    referencePath(path, sizeof(path));
    if (!send_file_to_dsp(path, info.fileLen)) {
        LOGE("send_file_to_dsp failed\n");
        return 0;
    }
    if (!finish_send_file_to_dsp(info)) {
        LOGE("finish_send_file_to_dsp failed\n");
        return 0;
    }
    return 1;
}

int readAllConfigs(void)
{
    return 0;
}

} // extern "C"
