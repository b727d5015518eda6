/*
 * Feature switches. Threads: any service thread, the DSP receive thread
 * (DOA forwarding). State: one cache per cached switch, -1 until the first
 * call reads the property; concurrent first calls may both read and log,
 * with the same outcome, so a relaxed atomic is all the cache needs.
 */
#include "common/feature_switches.h"

#include <atomic>

#include <android/log.h>
#include <cutils/properties.h>

namespace {

constexpr int kUnknown = -1;

struct CachedSwitch {
    const char *name;     // switch name, as logged
    const char *property; // property key
    std::atomic<int> value{kUnknown}; // 1 on, 0 off, -1 not read yet
};

CachedSwitch gCameraSwitch{"enableCameraCommunication", "persist.vendor.cam.communication"};
CachedSwitch gDspSwitch{"enableDspCommunication", "persist.vendor.dsp.communication"};
CachedSwitch gDoaSwitch{"enableSendDoaToCamera", "persist.sys.dsp.sendDoaToCamera"};

// A switch is on when the first character of its value is '1'
// ("10" and "1abc" are on, "true" and "2" are off).
int readSwitchProperty(const char *property)
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(property, value, "0");
    return value[0] == '1' ? 1 : 0;
}

int cachedSwitch(CachedSwitch &sw)
{
    int value = sw.value.load(std::memory_order_relaxed);
    if (value != kUnknown)
        return value;
    value = readSwitchProperty(sw.property);
    sw.value.store(value, std::memory_order_relaxed);
    __android_log_print(ANDROID_LOG_INFO, "AVMANAGER", "%s:%s\n", sw.name, value ? "true" : "false");
    return value;
}

} // namespace

extern "C" {

// Cached: a change of the property takes effect after the service restarts.
int enableCameraCommunication(void)
{
    return cachedSwitch(gCameraSwitch);
}

int enableDspCommunication(void)
{
    return cachedSwitch(gDspSwitch);
}

int enableSendDoaToCamera(void)
{
    return cachedSwitch(gDoaSwitch);
}

// Deliberately not cached: read and logged on every call.
int enableAudioWallFloorProp(void)
{
    int value = readSwitchProperty("persist.vendor.floor_wall");
    __android_log_print(ANDROID_LOG_INFO, "DSP", "%s\n", value ? "true" : "false");
    return value;
}

#ifdef AVM_HOST_BUILD
void featureSwitches_resetForTest(void)
{
    for (CachedSwitch *sw : {&gCameraSwitch, &gDspSwitch, &gDoaSwitch})
        sw->value.store(kUnknown, std::memory_order_relaxed);
}
#endif

}
