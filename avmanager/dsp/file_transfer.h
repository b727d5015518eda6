/*
 * File transfer command set with the DSP (FWSTR/FWDAT/FWEND/FINF...), hex
 * encoding, MD5 of files and small local file operations.
 *
 * Requests go out from the thread running a transfer (the parameter-restore
 * thread); answers come back on the DSP receive thread, which offers every
 * chunk to dsp_rx_file_operations_handle. The two meet through the replied
 * and accepted flags of gFileOpsInfoList and through the transfer
 * descriptor gPrepareToSendFileInfo.
 */
#ifndef AVM_FILE_TRANSFER_H
#define AVM_FILE_TRANSFER_H

#include <stdint.h>

#include "dsp/dsp_link.h"

#ifdef __cplusplus
#include <atomic>
#endif

/* Indexes of gFileOpsInfoList: senders name an entry by its index. */
enum FileOpsIndex {
    FILE_OPS_WSTR = 0, /* "FWSTR=" start of a file */
    FILE_OPS_WDAT = 1, /* "FWDAT=" one chunk */
    FILE_OPS_WEND = 2, /* "FWEND=" end of a file */
    FILE_OPS_RDAT = 3, /* "FRDAT=" */
    FILE_OPS_INF = 4,  /* "FINF=" length and MD5 of the DSP's copy */
    FILE_OPS_COPY = 5, /* "FCOPY=" */
    FILE_OPS_DEL = 6,  /* "FDEL=" */
    FILE_OPS_MOV = 7,  /* "FMOV=" */
    FILE_OPS_COUNT = 8,
};

#define FILE_XFER_PATH_MAX 128   /* paths in the transfer descriptor */
#define FILE_XFER_MD5_LEN 32     /* lower-case hexadecimal digits */
#define FILE_XFER_HANDLE_PATH_MAX 512
#define FILE_XFER_ANSWER_MAX 512 /* bound of the handlers' working copy */

/* Answer handler: splits the answer text in place. Returns 0 when the
 * answer had its fields, -1 when it did not. */
typedef int (*FileOpsHandler)(char *msg, int len);

#ifdef __cplusplus
/* One command word of the file-operation table. */
struct FileOpsInfo {
    const char *cmd;                /* command word, e.g. "FWSTR=" (constant) */
    FileOpsHandler handler;         /* answer handler or null (constant) */
    std::atomic<uint8_t> replied;   /* set by the receive thread on any answer;
                                       cleared by the sending thread */
    std::atomic<uint8_t> accepted;  /* set by the handler (receive thread) on
                                       success; cleared by the sending thread */
};
extern "C" FileOpsInfo gFileOpsInfoList[FILE_OPS_COUNT];
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The file being transferred. Written by the sending thread, read by the
 * answer handlers on the receive thread; every access goes through the
 * file_xfer_descriptor_* functions, which hold the descriptor's lock. */
typedef struct PrepareToSendFileInfo {
    char localPath[FILE_XFER_PATH_MAX + 1]; /* file on this side; sending thread */
    char dspPath[FILE_XFER_PATH_MAX + 1];   /* the DSP's name for it; sending thread */
    uint32_t fileLen;                       /* bytes; sending thread */
    char md5[FILE_XFER_MD5_LEN + 1];        /* lower-case hex; sending thread */
    uint32_t offset;                        /* chunk in flight: offset; sending thread */
    uint32_t chunkLen;                      /* chunk in flight: length; sending thread */
} PrepareToSendFileInfo;

extern PrepareToSendFileInfo gPrepareToSendFileInfo;

/* Zeroes the descriptor. */
void file_xfer_descriptor_reset(void);
/* Fills the file part of the descriptor (paths cut to 128 characters). */
void file_xfer_descriptor_fill(const char *localPath, const char *dspPath, uint32_t fileLen,
                               const char *md5);
/* Records the chunk in flight. */
void file_xfer_descriptor_set_chunk(uint32_t offset, uint32_t chunkLen);
/* A consistent copy of the descriptor. */
PrepareToSendFileInfo file_xfer_descriptor_get(void);

/* Offered every chunk the DSP receive thread reads. */
void dsp_rx_file_operations_handle(DspRequest message);

int parse_wstr(char *msg, int len);
int parse_wdat(char *msg, int len);
int parse_wend(char *msg, int len);
int parse_rdat(char *msg, int len);
int parse_inf(char *msg, int len);
int parse_copy(char *msg, int len);
int parse_del(char *msg, int len);
int parse_mov(char *msg, int len);

/* Two upper-case hex digits per byte for min(len, hexSize / 2) bytes; no
 * terminator. Returns the number of characters. */
int data2hex(const uint8_t *data, uint32_t len, char *hex, uint32_t hexSize);
/* The reverse for min(hexLen / 2, dataSize) bytes, either case, characters
 * not validated. Returns the number of bytes. */
int hex2data(const char *hex, uint32_t hexLen, uint8_t *data, uint32_t dataSize);

/* Length and MD5 of a local file; filled on the caller's thread. */
typedef struct FileXferInfo {
    uint32_t len;                    /* bytes, from the file's status */
    char md5[FILE_XFER_MD5_LEN + 1]; /* lower-case hex, empty if unreadable */
} FileXferInfo;

/* A local file, used by one thread at a time (its creator's). */
typedef struct FileXferHandle {
    char *path; /* owned copy, at most 512 characters */
    int fd;     /* open descriptor, -1 while closed */
} FileXferHandle;

FileXferHandle *file_xfer_create(const char *path);
void file_xfer_free(FileXferHandle *handle);
int file_xfer_write(FileXferHandle *handle, uint32_t offset, const void *data, uint32_t count);
int file_xfer_write_hex(FileXferHandle *handle, uint32_t offset, const char *hex, uint32_t len);
int file_xfer_read(FileXferHandle *handle, uint32_t offset, void *buffer, uint32_t count);
int file_xfer_read_hex(FileXferHandle *handle, uint32_t offset, char *hex, uint32_t len);
int file_xfer_info(const char *path, FileXferInfo *info);
int file_xfer_copy(const char *from, const char *to);
int file_xfer_move(const char *from, const char *to);
int file_xfer_del(const char *path);
int file_xfer_verify(const char *file, const FileXferInfo *expected);

#ifdef AVM_HOST_BUILD
/* Clears every answer flag and the descriptor, as at process start. Only
 * tests call it (a test program runs many tests in one process). */
void fileTransfer_resetForTest(void);
#endif

#ifdef __cplusplus
}
#endif

#endif
