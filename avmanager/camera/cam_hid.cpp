/*
 * Camera HID channel and log download. The channel itself is not built
 * yet: no log is fetched and the operation reports that nothing was done.
 * The download's debug switch is kept, since the PTZ test commands set it.
 *
 * State: the debug flag, set by the PTZ test thread and read by the
 * download once it exists (relaxed atomic).
 */
#include "camera/cam_hid.h"

#include <atomic>

#include <android/log.h>

#define LOG_TAG "CamHidTransferFile"

namespace {
std::atomic<int> gCamHidTransferFileDebug{0};
}

extern "C" {

int getCamLogs(const char *directory)
{
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: camera log download not built\n", __func__);
    return 0;
}

void setCamHidTransferFileDebug(int flag)
{
    gCamHidTransferFileDebug.store(flag, std::memory_order_relaxed);
}

}
