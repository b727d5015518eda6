/*
 * Camera log download over the camera's HID channel: the camera's log
 * files under "/var/volatile/log" are fetched one by one into
 * <directory>/CamLogs. Also the small append-to-file utilities kept with
 * it.
 */
#ifndef AVM_CAM_LOGS_H
#define AVM_CAM_LOGS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CAM_FILE_NAME_SIZE 512
#define CAM_LOG_REMOTE_DIR "/var/volatile/log"
#define CAM_LOG_SUBDIR "CamLogs"
#define CAM_LOG_MAX_FILES 50

/* Stages of one file's download. */
enum CamFileStage {
    CAM_FILE_IDLE = 0,      /* nothing in flight */
    CAM_FILE_REQUESTED = 1, /* request sent, waiting for the answer */
    CAM_FILE_ACKED = 2,     /* the camera announced the size */
    CAM_FILE_RECEIVING = 3, /* data reports arriving */
    CAM_FILE_REFUSED = 4,   /* the camera has no such file */
};

int handleRecvCamHidMsg(const uint8_t *report, int length);
void debug_hid_msg(const uint8_t *report, int length, const char *label);
/* Non-zero makes every report and chunk of a log download be logged. */
void setCamHidTransferFileDebug(int flag);
int getCamLog(const char *name, const char *dir);
int getCamLogs(const char *dir);

int save2file_add_line_by_str(const char *path, const char *text);
int save2file_add_line_by_buffer(const char *path, const void *buffer, int length);
int save2file_printf(const char *path, const char *format, ...) __attribute__((format(printf, 2, 3)));
int save2file_add_line_by_buffer_with_tick(const char *path, const void *buffer, int length);
int save2file_read_file_by_buffer(const char *path, void *buffer, int length);

/* A snapshot of the download context, for tools and tests. */
typedef struct CamFileStatus {
    uint32_t totalSize; /* size the camera announced */
    uint32_t received;  /* bytes written so far */
    uint32_t stage;     /* CamFileStage */
    uint8_t done;       /* the file is complete (or given up) */
    uint8_t debug;      /* debug logging on */
} CamFileStatus;
CamFileStatus cam_logs_status(void);

#ifdef AVM_HOST_BUILD
/* Only tests call this: puts the download context back to `stage` (0 for
 * idle) with nothing received, closing a save file left open and opening
 * one at `savePath` when it is not NULL, as a download would have left
 * it. Debug logging is switched off. */
void cam_logs_resetForTest(uint32_t stage, const char *savePath);
/* Only tests that count files rather than time them call this: the wait
 * after each file request, in 10 ms polls (800, 8 s, unless told; 0 or
 * less restores that). */
void cam_logs_setAnswerPollsForTest(int polls);
#endif

#ifdef __cplusplus
}
#endif

#endif
