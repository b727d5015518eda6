/*
 * The camera HID channel and log download are not built yet: no log is
 * fetched and the operation reports that nothing was done.
 */
#include "camera/cam_hid.h"

#include <android/log.h>

#define LOG_TAG "CamHidTransferFile"

extern "C" int getCamLogs(const char *directory)
{
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: camera log download not built\n", __func__);
    return 0;
}
