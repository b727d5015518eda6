/*
 * USB camera discovery and versions.
 *
 * The kernel lists every USB device under "/sys/bus/usb/devices" as a
 * symbolic link to its device directory; each has a "uevent" file whose
 * "PRODUCT=" line carries the vendor and product id in hexadecimal. The
 * first device that matches a row of gSupportCamList, in listing order,
 * becomes the current camera. Its firmware version comes either from the
 * camera's HID channel (a version request now, the answer later on the HID
 * receive thread) or, for the two cameras read through their USB
 * descriptor, from the USB tool.
 *
 * Threads: the detection thread (detectCamVersion every pass), service
 * threads (the camera log download asks isCamSupportCatchLogs), the HID
 * receive thread (detectHal_camera_version_update).
 *
 * State:
 *   gCurCamera          the row last matched; under gCurCameraLock
 *   needUpdateVersion   1 until a version was stored; relaxed atomic,
 *                       cleared by the HID receive thread, read by the
 *                       detection thread
 *
 * Log tag "DETECT_HAL".
 */
#include "common/avm_trace.h"
#include "camera/cam_detect.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <atomic>
#include <mutex>

#include <android/log.h>
#include <cutils/properties.h>
#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "camera/cam_hid.h"
#include "camera/usb_tool.h"
#include "dsp/dsp_replies.h"

#define LOG_TAG "DETECT_HAL"
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

extern "C" {

const SupportCamInfo gSupportCamList[SUPPORT_CAM_COUNT] = {
    {0x2E7D, 0x0502, "cam 3559"},
    {0x2E7D, 0x0508, "cam 95828"},
    {0x2E7D, 0x0F4F, "cam x3m"},
    {0x2E7D, 0x051A, "cam x3m dual"},
    {0x2E7D, 0x051B, "cam x3m single"},
    {0x1BCF, 0x2680, "cam 2688"},
    {0x254A, 0x0C02, "cam smart 3559"},
    {0x0BDA, 0x5876, "cam spca 2680"},
};

} // extern "C"

namespace {

constexpr const char kUsbDevicesDir[] = "/sys/bus/usb/devices";
constexpr const char kProductKey[] = "PRODUCT=";

// The HID version request: head AA BB CC, then 20 06; no checksum.
constexpr uint8_t kVersionRequestHead[] = {0xAA, 0xBB, 0xCC, 0x20, 0x06};
constexpr int kVersionRequestSize = 64;

// Directory entries the scan looks at: the kernel lists USB devices as
// symbolic links (DT_LNK has both bits), plain directories are skipped.
constexpr unsigned kEntryTypeBits = (1u << 1) | (1u << 3);

std::mutex gCurCameraLock;      // guards gCurCamera
SupportCamInfo gCurCamera = {}; // the row last matched; all zero until then
std::atomic<uint8_t> needUpdateVersion{1};

pid_t threadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// One hexadecimal field the way "%x" reads it: optional blanks, sign and
// "0x", then digits. Out-of-range values keep their low 32 bits instead of
// overflowing. Returns false when no digit was there.
bool scanHex(const char *&p, uint32_t &out)
{
    char *end = nullptr;
    int saved = errno;
    unsigned long long v = strtoull(p, &end, 16);
    errno = saved;
    if (end == p)
        return false;
    out = static_cast<uint32_t>(v);
    p = end;
    return true;
}

// "PRODUCT=%x/%x/": true when both ids were read (the trailing text is not
// checked, as a scan of that format would not check it either).
bool parseProductLine(const char *line, uint32_t &vid, uint32_t &pid)
{
    if (strncmp(line, kProductKey, sizeof kProductKey - 1) != 0)
        return false;
    const char *p = line + sizeof kProductKey - 1;
    uint32_t v = 0, d = 0;
    if (!scanHex(p, v) || *p != '/')
        return false;
    ++p;
    if (!scanHex(p, d))
        return false;
    vid = v;
    pid = d;
    return true;
}

const SupportCamInfo *supportedRow(uint32_t vid, uint32_t pid)
{
    for (const SupportCamInfo &row : gSupportCamList)
        if (row.vid == vid && row.pid == pid)
            return &row;
    return nullptr;
}

bool readsVersionThroughUsb(const SupportCamInfo &cam)
{
    const SupportCamInfo &a = gSupportCamList[CAM_ROW_2688];
    const SupportCamInfo &b = gSupportCamList[CAM_ROW_SPCA_2680];
    return (cam.vid == a.vid && cam.pid == a.pid) || (cam.vid == b.vid && cam.pid == b.pid);
}

// Stores a version and marks it obtained.
void storeVersion(const char *text)
{
    needUpdateVersion.store(0, std::memory_order_relaxed);
    // A text longer than a property value makes the write fail; the
    // property keeps what it held.
    property_set(CAM_VERSION_PROPERTY, text);
}

int sendVersionRequest(const SupportCamInfo &cam)
{
    uint8_t frame[kVersionRequestSize] = {};
    memcpy(frame, kVersionRequestHead, sizeof kVersionRequestHead);
    int ret;
    if (hal_hidraw_isConnect()) {
        LOGI("hal_hidraw dev have opedend! direct to send.");
        ret = hal_hidraw_sendData(frame, kVersionRequestSize);
        if (ret < 0)
            LOGE("direct hal_hidraw_sendData FAILED!!");
        return ret;
    }
    ret = hal_hidraw_init(cam.vid, cam.pid);
    if (ret < 0) {
        LOGE("hal_hidraw_init FAILED!!");
        return ret;
    }
    ret = hal_hidraw_sendData(frame, kVersionRequestSize);
    if (ret < 0)
        LOGE("hal_hidraw_sendData FAILED!!");
    return ret;
}

} // namespace

extern "C" {

bool get_camera_pidVid(void)
{
    DIR *dir = opendir(kUsbDevicesDir);
    if (dir == nullptr)
        return false;
    bool found = false;
    while (!found) {
        struct dirent *entry = readdir(dir);
        if (entry == nullptr)
            break;
        if ((entry->d_type & kEntryTypeBits) == 0)
            continue;
        char path[PATH_MAX];
        snprintf(path, sizeof path, "%s/%s/uevent", kUsbDevicesDir, entry->d_name);
        // The first supported camera listed wins.
        found = cam_detect_scan_uevent(path);
    }
    closedir(dir);
    return found;
}

bool cam_detect_scan_uevent(const char *path)
{
    FILE *file = path != nullptr ? fopen(path, "r") : nullptr;
    if (file == nullptr) {
        LOGE("%d %d open %s failed!\n", static_cast<int>(getppid()), static_cast<int>(threadId()),
             path != nullptr ? path : "");
        return false;
    }
    char *line = nullptr;
    size_t lineSize = 0;
    bool found = false;
    while (!found && getline(&line, &lineSize, file) >= 0) {
        uint32_t vid = 0, pid = 0;
        if (!parseProductLine(line, vid, pid))
            continue;
        const SupportCamInfo *row = supportedRow(vid, pid);
        if (row == nullptr)
            continue;
        LOGI("%d %d %04x:%04x\n", static_cast<int>(getppid()), static_cast<int>(threadId()), vid, pid);
        std::lock_guard<std::mutex> lock(gCurCameraLock);
        gCurCamera = *row;
        found = true;
    }
    fclose(file);
    free(line);
    return found;
}

bool isCamSupportCatchLogs(uint32_t vid, uint32_t pid)
{
    if (!get_camera_pidVid())
        return false;
    const SupportCamInfo &row = gSupportCamList[CAM_ROW_X3M_DUAL];
    return vid == row.vid && pid == row.pid;
}

void propAutoIncrement(const char *key)
{
    if (key == nullptr)
        return;
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(key, value, "0");
    int count = dspParseInt(value);
    // A negative count is written back as it is, deliberately. A full
    // counter stays at its maximum.
    if (count >= 0 && count < INT_MAX)
        ++count;
    char text[16];
    snprintf(text, sizeof text, "%d", count);
    property_set(key, text);
}

int detectCamVersion(void)
{
    if (needUpdateVersion.load(std::memory_order_relaxed) == 0 || !get_camera_pidVid())
        return 0;
    const SupportCamInfo cam = cam_detect_current();
    LOGI("founded camera vid %x pid %x name: %s!", cam.vid, cam.pid, cam.name);
    if (readsVersionThroughUsb(cam)) {
        // The USB tool answers 0 when it ran, so nothing is stored here and
        // these cameras keep asking on every pass; deliberate.
        AvmTraceSpan span(kTraceCamUsbVersion);
        int ret = usbtool_getCamVersion(cam.vid, cam.pid);
        if (ret >= 1) {
            char text[16];
            snprintf(text, sizeof text, "%d", ret);
            storeVersion(text);
        }
        return 0;
    }
    AvmTraceSpan span(kTraceHidVersionRequest);
    return sendVersionRequest(cam);
}

void detectHal_camera_version_update(const char *text)
{
    if (text == nullptr)
        return;
    storeVersion(text);
}

SupportCamInfo cam_detect_current(void)
{
    std::lock_guard<std::mutex> lock(gCurCameraLock);
    return gCurCamera;
}

bool cam_detect_need_update_version(void)
{
    return needUpdateVersion.load(std::memory_order_relaxed) != 0;
}

#ifdef AVM_HOST_BUILD
void cam_detect_resetForTest(void)
{
    {
        std::lock_guard<std::mutex> lock(gCurCameraLock);
        gCurCamera = SupportCamInfo{};
    }
    needUpdateVersion.store(1, std::memory_order_relaxed);
}
#endif

} // extern "C"
