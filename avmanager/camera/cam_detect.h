/*
 * USB camera discovery and versions: which supported camera is attached
 * (from the kernel's USB device list in sysfs), the current camera, and
 * the camera firmware version published as "persist.vendor.cam.version".
 */
#ifndef AVM_CAM_DETECT_H
#define AVM_CAM_DETECT_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CAM_NAME_SIZE 72
#define SUPPORT_CAM_COUNT 8
#define CAM_VERSION_PROPERTY "persist.vendor.cam.version"

/* One supported camera: a row of gSupportCamList, and the layout of
 * gCurCamera. */
typedef struct SupportCamInfo {
    uint32_t vid;               /* USB idVendor */
    uint32_t pid;               /* USB idProduct */
    char name[CAM_NAME_SIZE];   /* zero-filled */
} SupportCamInfo;

/* Rows of gSupportCamList the code names. */
enum SupportCamRow {
    CAM_ROW_X3M_DUAL = 3,    /* the only camera that hands out its logs */
    CAM_ROW_2688 = 5,        /* version read through the USB descriptor */
    CAM_ROW_SPCA_2680 = 7,   /* version read through the USB descriptor */
};

/* The supported cameras, in match order. Constant. */
extern const SupportCamInfo gSupportCamList[SUPPORT_CAM_COUNT];

bool get_camera_pidVid(void);
bool isCamSupportCatchLogs(uint32_t vid, uint32_t pid);
void propAutoIncrement(const char *key);
int detectCamVersion(void);
void detectHal_camera_version_update(const char *text);

/* Reads one USB device's uevent file (the scan of get_camera_pidVid does
 * this for every listed device): true when a "PRODUCT=" line names a
 * supported camera, which then becomes the current one. Any bytes are
 * accepted. */
bool cam_detect_scan_uevent(const char *path);
/* A consistent copy of the current camera (all zero until one was found). */
SupportCamInfo cam_detect_current(void);
/* Whether the camera version is still to be obtained. */
bool cam_detect_need_update_version(void);

#ifdef AVM_HOST_BUILD
/* Only tests call this: forgets the current camera and asks for the
 * version again, as at process start. */
void cam_detect_resetForTest(void);
#endif

#ifdef __cplusplus
}
#endif

#endif
