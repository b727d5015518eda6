/*
 * dsp_sound_modes: the DSP's eight-band equaliser as the service sees it —
 * four preset sound modes, the user mode read from the stereo-enhancer
 * ini, direct single-band settings, and the speaker placement (floor or
 * wall), which on a floor/wall product also re-tunes the amplifiers.
 *
 * Threads: the service's binder threads and the start-up / restore
 * threads. No lock: a mode switch posts eight separate requests, so other
 * commands may interleave with them on the DSP link.
 *
 * State:
 *   g_soundMode  current mode 0..4 (relaxed atomic, any caller)
 *   FirstTime    1 until the amplifier tuning files are loaded, then 0
 *                (atomic exchange, so only one caller loads them)
 */
#include "dsp/dsp_sound_modes.h"

#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <android/log.h>
#include <avm_paths.h>
#include <cutils/properties.h>
#include <iniparser.h>

#include "amp/amp_program.h"
#include "amp/amp_tuning.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_properties.h"
#include "dsp/dsp_replies.h"
#include "common/feature_switches.h"

namespace {

constexpr const char *TAG = "DSP";
constexpr const char *kIniLoadError = "%s, INI load file (%s) error!\n";
constexpr const char *kIniResult = "%s, result(%s) \n";
constexpr int kBands = 8;
constexpr int kPresetModes = 4;
constexpr int kTextSize = 64;

// Preset lines, sent exactly as written (their uneven precision included).
// Mode 1 keeps type 0 on band 3 although that line carries 3 dB.
constexpr std::array<std::array<const char *, kBands>, kPresetModes> kPresets{{
    {"USER_EQ[0]=4,120,0.0000,0.7070", "USER_EQ[1]=0,500,0.0000,1.0", "USER_EQ[2]=0,1000,0.0000,1.0",
     "USER_EQ[3]=0,2000,0.0000,1.0", "USER_EQ[4]=0,4000,0.0000,1.0", "USER_EQ[5]=0,8000,0.0000,1.0",
     "USER_EQ[6]=0,0,0.0000,0.0", "USER_EQ[7]=0,0,0.0000,0.0"},
    {"USER_EQ[0]=4,120,0.0000,1.2", "USER_EQ[1]=1,250,6.0000,1.0", "USER_EQ[2]=1,500,-2.0000,2.0",
     "USER_EQ[3]=0,2000,3.0000,1.0", "USER_EQ[4]=1,4000,4.0000,1.0", "USER_EQ[5]=1,8000,6.0000,1.0",
     "USER_EQ[6]=0,200,0.0000,1.0", "USER_EQ[7]=0,2000,0.0000,1.0"},
    {"USER_EQ[0]=4,400,0.0000,0.7070", "USER_EQ[1]=1,500,1.0000,2.0", "USER_EQ[2]=1,1000,3.0000,1.0",
     "USER_EQ[3]=1,2000,2.0000,1.0", "USER_EQ[4]=1,4000,3.0000,1.0", "USER_EQ[5]=2,10000,0.0000,0.7",
     "USER_EQ[6]=0,0,0.0000,0.0", "USER_EQ[7]=0,0,0.0000,0.0"},
    {"USER_EQ[0]=4,200,0.0000,0.7070", "USER_EQ[1]=1,500,3.0000,2.0", "USER_EQ[2]=1,1000,4.0000,1.0",
     "USER_EQ[3]=1,2000,3.0000,1.0", "USER_EQ[4]=1,4000,2.0000,1.0", "USER_EQ[5]=2,8000,0.0000,0.7",
     "USER_EQ[6]=0,200,0.0000,1.0", "USER_EQ[7]=0,2000,0.0000,1.0"},
}};

// User-mode keys: band b uses the keys with digit b+1.
constexpr std::array<const char *, kBands> kFreqKeys{
    "user_mode:EQ11_FC", "user_mode:EQ12_FC", "user_mode:EQ13_FC", "user_mode:EQ14_FC",
    "user_mode:EQ15_FC", "user_mode:EQ16_FC", "user_mode:EQ17_FC", "user_mode:EQ18_FC"};
constexpr std::array<const char *, kBands> kGainKeys{
    "user_mode:EQ11_G", "user_mode:EQ12_G", "user_mode:EQ13_G", "user_mode:EQ14_G",
    "user_mode:EQ15_G", "user_mode:EQ16_G", "user_mode:EQ17_G", "user_mode:EQ18_G"};

// Direct band limits, all inclusive.
constexpr int kMaxBand = 7;
constexpr int kMaxType = 7;
constexpr int kMinFreq = 20;
constexpr int kMaxFreq = 20000;
constexpr int kMinGain = -60;
constexpr int kMaxGain = 60;
constexpr int kMinQ = 1;
constexpr int kMaxQ = 10;

dictionary *loadStereoEnhancer()
{
    char resolved[PATH_MAX];
    return iniparser_load(avm_path(DSP_STEREO_ENHANCER_INI, resolved, sizeof resolved));
}

const char *printable(const char *text)
{
    return text != nullptr ? text : "(null)";
}

// Decimal value of an ini text; no text (missing file or key) counts as 0.
int decimalValue(const char *text)
{
    return text != nullptr ? dspParseInt(text) : 0;
}

// Reads one user-band frequency: one load of the ini per call.
int getEqFreqFromIni(int band)
{
    dictionary *dict = loadStereoEnhancer();
    const char *value = nullptr;
    if (dict == nullptr)
        __android_log_print(ANDROID_LOG_INFO, TAG, kIniLoadError, "getEqFreqFromIni", DSP_STEREO_ENHANCER_INI);
    else
        value = iniparser_getstring(dict, kFreqKeys[static_cast<size_t>(band)], nullptr);
    // Keep the number before the dictionary (and its text) is released.
    int freq = decimalValue(value);
    char text[kTextSize];
    snprintf(text, sizeof text, "%s", printable(value));
    iniparser_freedict(dict);
    __android_log_print(ANDROID_LOG_INFO, TAG, kIniResult, "getEqFreqFromIni", text);
    return freq;
}

// Updates the band's gain in a loaded copy of the ini only: the dictionary
// is released without being saved, so the file keeps its old value and a
// later switch to the user mode restores the file's gains.
void setEqGainToIni(int index, int gain)
{
    dictionary *dict = loadStereoEnhancer();
    __android_log_print(ANDROID_LOG_INFO, TAG, "%s, index(%d), gain(%d)\n", "setEqGainToIni", index, gain);
    if (dict == nullptr) {
        __android_log_print(ANDROID_LOG_INFO, TAG, kIniLoadError, "setEqGainToIni", DSP_STEREO_ENHANCER_INI);
        return;
    }
    char value[kTextSize];
    snprintf(value, sizeof value, "%d", gain * 100);
    int ret = iniparser_set(dict, kGainKeys[static_cast<size_t>(index)], value);
    // Only the last band reports how the update went.
    if (index == kMaxBand)
        __android_log_print(ANDROID_LOG_INFO, TAG, "%s, set result(%d)\n", "setEqGainToIni", ret);
    iniparser_freedict(dict);
}

} // namespace

extern "C" {

std::atomic<int> g_soundMode{0};
std::atomic<int> FirstTime{1};

int dspHal_set_soundMode(int mode)
{
    // Negative modes fail the same unsigned range check.
    if (static_cast<unsigned>(mode) > DSP_SOUND_MODE_USER)
        return 0;

    int ret = -1;
    if (mode < kPresetModes) {
        for (const char *line : kPresets[static_cast<size_t>(mode)])
            ret = dsp_post(DSP_CMD_EQ, line);
    } else {
        // The ini is loaded once per key: sixteen loads for one switch.
        for (int band = 0; band < kBands; ++band) {
            int freq = getEqFreqFromIni(band);
            int gain = getEqGainFromIni(band);
            char line[kTextSize];
            snprintf(line, sizeof line, "USER_EQ[%d]=1,%d,%d,1", band, freq, gain);
            ret = dsp_post(DSP_CMD_EQ, line);
        }
    }

    g_soundMode.store(mode, std::memory_order_relaxed);
    char text[PROPERTY_VALUE_MAX];
    snprintf(text, sizeof text, "%d", mode);
    property_set(kDspSoundModeProperty, text);
    // The setter logs with the getter's wording.
    __android_log_print(ANDROID_LOG_INFO, TAG, "dspHal_get_soundMode mode %s", text);
    // Only the last line's result counts.
    return ret > 0 ? 1 : 0;
}

int dspHal_get_soundMode(void)
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kDspSoundModeProperty, value, "");
    int mode = dspParseInt(value);
    g_soundMode.store(mode, std::memory_order_relaxed);
    __android_log_print(ANDROID_LOG_INFO, TAG, "dspHal_get_soundMode g_soundMode %d", mode);
    return mode;
}

int dspHal_set_user_eq_param(int index, int type, int freq, int gain, int q)
{
    if (index < 0 || index > kMaxBand || type < 0 || type > kMaxType || freq < kMinFreq || freq > kMaxFreq ||
        gain < kMinGain || gain > kMaxGain || q < kMinQ || q > kMaxQ)
        return 0;

    char line[kTextSize];
    snprintf(line, sizeof line, "USER_EQ[%d]=%d,%d,%d,%d", index, type, freq, gain, q);
    int ret = dsp_post(DSP_CMD_EQ, line);
    __android_log_print(ANDROID_LOG_INFO, TAG, "dspHal_set_user_eq index[%d], type[%d], freq[%d], gain[%d], q[%d]",
                        index, type, freq, gain, q);
    setEqGainToIni(index, gain);
    return ret > 0 ? 1 : 0;
}

int dspHal_get_user_eq_gain(int index)
{
    return getEqGainFromIni(index);
}

int getEqGainFromIni(int index)
{
    dictionary *dict = loadStereoEnhancer();
    const char *value = nullptr;
    if (dict == nullptr)
        __android_log_print(ANDROID_LOG_INFO, TAG, kIniLoadError, "getEqGainFromIni", DSP_STEREO_ENHANCER_INI);
    else if (index >= 0 && index < kBands)
        value = iniparser_getstring(dict, kGainKeys[static_cast<size_t>(index)], nullptr);
    // Hundredths of a dB to whole dB, truncated toward zero (-250 gives -2).
    int gain = decimalValue(value) / 100;
    char text[kTextSize];
    snprintf(text, sizeof text, "%s", printable(value));
    iniparser_freedict(dict);
    __android_log_print(ANDROID_LOG_INFO, TAG, kIniResult, "getEqGainFromIni", text);
    return gain;
}

int dspHal_set_spk_eq_mode(int mode)
{
    if (enableAudioWallFloorProp()) {
        int expected = 1;
        if (FirstTime.compare_exchange_strong(expected, 0, std::memory_order_relaxed)) {
            // Once per process: later changes to the files are not re-read.
            __android_log_print(ANDROID_LOG_ERROR, TAG, "dspHal_set_spk_eq_mode: loading amplifier tuning files\n");
            acm8625m_get_dev_status();
            parseAmp_RL_Floor_Info();
            parseAmp_SUB_Floor_Info();
            parseAmp_RL_Wall_Info();
            parseAmp_SUB_Wall_Info();
            parseAmp_RL_Meeting_Info();
        }
    } else {
        __android_log_print(ANDROID_LOG_ERROR, TAG, "dspHal_set_spk_eq_mode: floor/wall amplifier tuning not supported\n");
    }

    const char *text;
    if (mode == AMP_FORMAT_WALL)
        text = kDspSpkEqWall;
    else if (mode == AMP_FORMAT_FLOOR)
        text = kDspSpkEqFloor;
    else
        return 0;

    // Without floor/wall support the amplifiers are left alone, but the DSP
    // is still told the placement.
    if (enableAudioWallFloorProp())
        HV_SetSoundEQ(mode);

    char line[kTextSize];
    snprintf(line, sizeof line, "SPK_EQ_MODE=%s", text);
    int ret = dsp_post(DSP_CMD_FREE_TEXT, line);
    if (ret >= 1)
        property_set(kDspSpkEqModeProperty, text);
    __android_log_print(ANDROID_LOG_INFO, TAG, "dspHal_set_spkEqMode mode %s", text);
    return ret > 0 ? 1 : 0;
}

int dspHal_get_spk_eq_mode(void)
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kDspSpkEqModeProperty, value, kDspSpkEqFloor);
    if (strcmp(value, kDspSpkEqFloor) == 0)
        return 0;
    if (strcmp(value, kDspSpkEqWall) == 0)
        return 1;
    return 0;
}

} // extern "C"

#ifdef AVM_HOST_BUILD
void dspSoundModes_resetForTest()
{
    g_soundMode.store(0);
    FirstTime.store(1);
}
#endif
