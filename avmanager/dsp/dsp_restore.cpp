/*
 * DSP parameter restore. The DSP keeps no settings across its own restarts;
 * the module keeps them in persistent properties and sends them again each
 * time the DSP announces itself ("VER_FULL="), after the configuration
 * upgrade check.
 *
 * Threads: dspHalInitParameter runs on the short-lived restore thread that
 * the DSP link starts (twice per announcement); initDspSpkEqMode also runs
 * on the start-up thread; updateVersoinInfo runs on the DSP receive thread.
 *
 * State: none of its own. The setters it calls post into the DSP link's
 * pipe and persist what they apply.
 */
#include "common/avm_trace.h"
#include "dsp/dsp_restore.h"

#include <stdlib.h>
#include <string.h>

#include <android/log.h>
#include <cutils/properties.h>

#include "dsp/config_upgrade.h"
#include "dsp/dsp_audio.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_properties.h"
#include "dsp/dsp_replies.h"
#include "dsp/dsp_sound_modes.h"

#define TAG "DSP"
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, TAG, __VA_ARGS__)

namespace {

constexpr int kMainOutputChannel = 2;
constexpr size_t kPropBufSize = 256;

// One stored setting: read the property, skip the step when it is empty,
// otherwise apply atoi of it with the setter. Logs "<step> %d ret %d".
int restoreNumber(const char *key, const char *logFormat, int (*apply)(int value))
{
    char value[kPropBufSize];
    memset(value, 0, sizeof(value));
    property_get(key, value, "");
    int number = 0;
    int ret = -1;
    if (value[0] != '\0') {
        // Not validated: "abc" restores 0.
        number = dspParseInt(value); // atoi without its overflow
        ret = apply(number);
    }
    LOGI(logFormat, number, ret);
    return ret;
}

int applySoundMode(int value)
{
    return dspHal_set_soundMode(value);
}

int applyVolume(int value)
{
    return dspHal_set_volume(kMainOutputChannel, static_cast<unsigned>(value));
}

int applyBalance(int value)
{
    return dspHal_set_balance(static_cast<unsigned>(value));
}

int applyTreble(int value)
{
    return dspHal_set_treble(static_cast<unsigned>(value));
}

int applyBass(int value)
{
    return dspHal_set_bass(static_cast<unsigned>(value));
}

// A step failed when its property was empty (-1) or its setter could not
// post (0).
bool stepFailed(int ret)
{
    return ret <= 0;
}

} // namespace

extern "C" {

int initDspSoundMode(void)
{
    return restoreNumber(kDspSoundModeProperty, "initDspSoundMode %d ret %d", applySoundMode);
}

int initDspMute(void)
{
    LOGI("initDspMute");
    g_mute.store(0, std::memory_order_relaxed);
    dsp_post(DSP_CMD_MAIN_MUTE, "MT=0");
    LOGI("dspHal_set_mute bMute %d", 0);
    // Every restore unmutes the main output; the mute state is not stored.
    return 0;
}

int initDspVolume(void)
{
    return restoreNumber(kDspVolumeProperty, "initDspVolume %d ret %d", applyVolume);
}

int initDspBalance(void)
{
    return restoreNumber(kDspBalanceProperty, "initDspBalance %d ret %d", applyBalance);
}

int initDspTreble(void)
{
    return restoreNumber(kDspTrebleProperty, "initDspTreble %d ret %d", applyTreble);
}

int initDspBass(void)
{
    return restoreNumber(kDspBassProperty, "initDspBass %d ret %d", applyBass);
}

int initDspSpkEqMode(void)
{
    char value[PROPERTY_VALUE_MAX];
    memset(value, 0, sizeof(value));
    property_get(kDspSpkEqModeProperty, value, kDspSpkEqFloor);
    // Only the exact upper-case "WALL" selects the wall mode.
    int mode = strcmp(value, kDspSpkEqWall) == 0 ? 1 : 0;
    return dspHal_set_spk_eq_mode(mode) != 0 ? 1 : -1;
}

/*
 * Restores every stored setting in a fixed order: sound mode, unmute, main
 * volume, balance, treble, bass, speaker equaliser. A failing step never
 * stops the sequence. A DSP that has just been given a new configuration
 * starts from it: after a completed upgrade nothing is restored.
 */
int dspHalInitParameter(void)
{
    AvmTraceSpan span(kTraceDspRestore);
    if (upgradeAllConfigs() != 0) {
        LOGI("upgradeAllConfigs successful, abort init parameter!");
        return 1;
    }
    if (stepFailed(initDspSoundMode()))
        LOGI("initDspSoundMode FAILED!!");
    // initDspMute always returns 0, so this line is logged on every restore.
    if (stepFailed(initDspMute()))
        LOGI("initDspMute FAILED!!");
    if (stepFailed(initDspVolume()))
        LOGI("initDspVolume FAILED!!");
    if (stepFailed(initDspBalance()))
        LOGI("initDspBalance FAILED!!");
    if (stepFailed(initDspTreble()))
        LOGI("initDspTreble FAILED!!");
    if (stepFailed(initDspBass()))
        LOGI("initDspBass FAILED!!");
    int ret = initDspSpkEqMode();
    if (ret < 0)
        LOGI("initDspSpkEqMode FAILED!!");
    return ret;
}

int updateVersoinInfo(void)
{
    return property_set(kDspUpdateProperty, "1");
}

} // extern "C"
