/*
 * Volume, mute, balance, treble, bass, power-down and hot-plug.
 *
 * Turns the service's audio requests into DSP text commands posted through
 * the DSP link's pipe, and answers the matching queries from the reply
 * caches (dsp_replies) after the shared reply wait. The USB audio output
 * is not behind the DSP: its requests go to the USB mixer (uac_mixer).
 *
 * Threads: service threads (every operation) and the parameter-restore
 * thread (the setters). Nothing here takes a lock; the setters return as
 * soon as their request is in the pipe, the queries block for at most
 * 900 ms.
 *
 * State record:
 *   g_volume  last accepted volume index   (service / restore threads)
 *   g_mute    last mute request, low byte  (service / restore threads)
 * plus the persisted settings "persist.zel.dsp.volumeVal", "...balanceVal",
 * "...trebleVal", "...bassVal", and the volume tables (read-only).
 */
#include "dsp/dsp_audio.h"

#include <android/log.h>
#include <cutils/properties.h>
#include <unistd.h>

#include <cstdio>

#include "avmanager_hal.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_properties.h"
#include "dsp/dsp_replies.h"
#include "dsp/dsp_reply_wait.h"
#include "dsp/uac_mixer.h"

#define LOG_TAG "DSP"

std::atomic<int> g_volume{0};
std::atomic<uint8_t> g_mute{0};

// Index 0..49 follow the ear; 50..100 fall on a straight line of 0.18 dB a
// step. Indices 0 and 1 are both silent: the two lowest steps mean "off".
#define AVM_VOLUME_DB_TABLE                                                                        \
    {                                                                                              \
        -65.0f, -65.0f, -60.0f, -55.0f, -51.0f, -47.0f, -43.0f, -40.0f, -37.0f, -34.0f,            \
        -32.0f, -30.0f, -28.0f, -26.2f, -24.9f, -23.7f, -22.6f, -21.6f, -20.7f, -19.9f,            \
        -19.2f, -18.6f, -18.0f, -17.4f, -16.9f, -16.4f, -15.9f, -15.4f, -15.0f, -14.6f,            \
        -14.2f, -13.8f, -13.4f, -13.1f, -12.8f, -12.5f, -12.2f, -11.9f, -11.6f, -11.35f,           \
        -11.1f, -10.85f, -10.6f, -10.4f, -10.2f, -10.0f, -9.8f, -9.6f, -9.4f, -9.2f,               \
        -9.00f, -8.82f, -8.64f, -8.46f, -8.28f, -8.10f, -7.92f, -7.74f, -7.56f, -7.38f,            \
        -7.20f, -7.02f, -6.84f, -6.66f, -6.48f, -6.30f, -6.12f, -5.94f, -5.76f, -5.58f,            \
        -5.40f, -5.22f, -5.04f, -4.86f, -4.68f, -4.50f, -4.32f, -4.14f, -3.96f, -3.78f,            \
        -3.60f, -3.42f, -3.24f, -3.06f, -2.88f, -2.70f, -2.52f, -2.34f, -2.16f, -1.98f,            \
        -1.80f, -1.62f, -1.44f, -1.26f, -1.08f, -0.90f, -0.72f, -0.54f, -0.36f, -0.18f,            \
        0.0f,                                                                                      \
    }

extern "C" {
const float volume_to_spdif_db[AVM_VOLUME_STEPS] = AVM_VOLUME_DB_TABLE;
const float volume_to_main_db[AVM_VOLUME_STEPS] = AVM_VOLUME_DB_TABLE;
const float volume_to_uac_db[AVM_VOLUME_STEPS] = AVM_VOLUME_DB_TABLE;
}

namespace {

constexpr unsigned kMaxIndex = 100;    // volume, balance, treble, bass
constexpr float kMinDb = -65.0f;
constexpr float kMaxDb = 0.0f;
constexpr unsigned kBalanceCentre = 50;
constexpr unsigned kUserSoundMode = 4; // tone settings persist only in this mode
constexpr int kPresetToneValue = 30;   // tone answer in the preset modes
constexpr useconds_t kBalanceGapUs = 3000;


// An unset property reads as 0.
int readIntProperty(const char *key)
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(key, value, "");
    return dspParseInt(value);
}

// Writes n with "%d" into text (which the caller logs) and stores it.
void writeIntProperty(const char *key, unsigned n, char (&text)[PROPERTY_VALUE_MAX])
{
    snprintf(text, sizeof text, "%d", static_cast<int>(n));
    property_set(key, text);
}

const float *tableFor(int channel)
{
    switch (channel) {
    case AUDIO_CHANNEL_SPDIF:
        return volume_to_spdif_db;
    case AUDIO_CHANNEL_MAIN:
        return volume_to_main_db;
    default:
        return volume_to_uac_db;
    }
}

// The level setters' range test. It asks for a level below -65 and above
// 0 at once, which none is, so every level goes out as given - no clamping,
// by design.
bool levelRefused(float db)
{
    return db < kMinDb && db > kMaxDb;
}

// Treble and bass share one shape: the gain is a whole dB from -10 to +10,
// 50 is flat; the value persists only in the user sound mode.
int setTone(unsigned value, const char *format, const char *property, const char *logFormat)
{
    if (value > kMaxIndex)
        return 0;
    int gain = static_cast<int>(value / 5) - 10;
    int posted = dspPostf(DSP_CMD_EQ, format, static_cast<double>(gain));
    if (readIntProperty(kDspSoundModeProperty) == static_cast<int>(kUserSoundMode)) {
        char text[PROPERTY_VALUE_MAX];
        writeIntProperty(property, value, text);
    }
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, logFormat, static_cast<int>(value));
    return posted > 0 ? 1 : 0;
}

// In the preset modes the tone controls report a fixed 30.
int getTone(const char *property)
{
    if (readIntProperty(kDspSoundModeProperty) < static_cast<int>(kUserSoundMode))
        return kPresetToneValue;
    return readIntProperty(property);
}

} // namespace

extern "C" {

float convertVolToDb(int channel, unsigned vol)
{
    if (vol > kMaxIndex)
        return 0.0f;
    return tableFor(channel)[vol];
}

unsigned convertDbToVol(int channel, float db)
{
    if (channel != AUDIO_CHANNEL_SPDIF && channel != AUDIO_CHANNEL_MAIN)
        return 0;
    const float *table = tableFor(channel);
    // The lower end of each step wins, so a level that equals a table entry
    // maps one step down (0 dB gives 99); set-then-get loses one step.
    for (unsigned i = 0; i <= kMaxIndex; ++i) {
        float upper = i < kMaxIndex ? table[i + 1] : kMinDb;
        if (table[i] <= db && db <= upper)
            return i;
    }
    return 0;
}

int set_spdif_volume(float db)
{
    if (levelRefused(db))
        return 0;
    return dspPostf(DSP_CMD_SPDIF_VOLUME, "VS=%.2f", static_cast<double>(db));
}

int get_spdif_volume(void)
{
    if (dspReplyWait(spdifDbReplied, DSP_CMD_SPDIF_VOLUME, "VS=?"))
        return static_cast<int>(
            convertDbToVol(AUDIO_CHANNEL_SPDIF, spdifDbReply.load(std::memory_order_relaxed)));
    return g_volume.load(std::memory_order_relaxed);
}

int set_spdif_mute(int mute)
{
    if (mute != 0)
        return dsp_post(DSP_CMD_SPDIF_VOLUME, "VS=-65.00");
    // Unmute restores the level the DSP last reported, not g_volume.
    return dspPostf(DSP_CMD_SPDIF_VOLUME, "VS=%.2f",
                    static_cast<double>(spdifDbReply.load(std::memory_order_relaxed)));
}

int get_spdif_mute(void)
{
    if (dspReplyWait(spdifDbReplied, DSP_CMD_SPDIF_VOLUME, "VS=?"))
        return spdifDbReply.load(std::memory_order_relaxed) <= kMinDb ? 1 : 0;
    return g_mute.load(std::memory_order_relaxed) != 0 ? 1 : 0;
}

int set_main_volume(float db)
{
    if (levelRefused(db))
        return 0;
    return dspPostf(DSP_CMD_MAIN_VOLUME, "MV=%.2f", static_cast<double>(db)) > 0 ? 1 : 0;
}

int get_main_volume(void)
{
    if (dspReplyWait(mainDbReplied, DSP_CMD_MAIN_VOLUME, "MV=?"))
        return static_cast<int>(
            convertDbToVol(AUDIO_CHANNEL_MAIN, mainDbReply.load(std::memory_order_relaxed)));
    return g_volume.load(std::memory_order_relaxed);
}

int set_main_mute(int mute)
{
    return dsp_post(DSP_CMD_MAIN_MUTE, mute != 0 ? "MT=1" : "MT=0");
}

int get_main_mute(void)
{
    if (dspReplyWait(mainMuteReplied, DSP_CMD_MAIN_MUTE, "MT=?"))
        return mainMuteReply.load(std::memory_order_relaxed);
    return g_mute.load(std::memory_order_relaxed) != 0 ? 1 : 0;
}

int dspHal_set_volume(int channel, unsigned vol)
{
    if (vol > kMaxIndex)
        return 0;
    g_volume.store(static_cast<int>(vol), std::memory_order_relaxed);
    float db = convertVolToDb(channel, vol);
    int result;
    switch (channel) {
    case AUDIO_CHANNEL_UAC:
        // The USB mixer gets the whole dB number (truncated), not the
        // mixer scale of convertVolToUacVol; the mixer is set up for it.
        result = set_uac_volume(static_cast<int>(db));
        break;
    case AUDIO_CHANNEL_SPDIF:
        result = set_spdif_volume(db);
        break;
    case AUDIO_CHANNEL_MAIN:
        result = set_main_volume(db);
        break;
    default:
        // An unknown channel still counts as the current volume and persists.
        result = -1;
        break;
    }
    char text[PROPERTY_VALUE_MAX];
    writeIntProperty(kDspVolumeProperty, vol, text);
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "dspHal_set_volume value %s", text);
    return result > 0 ? 1 : 0;
}

int dspHal_get_volume(int channel)
{
    // The stored index answers; the DSP is not asked.
    int value = readIntProperty(kDspVolumeProperty);
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "dspHal_get_volume value %d", value);
    return value;
}

int dspHal_set_mute(int channel, int mute)
{
    // Kept first, whatever the channel, as the queries' fallback.
    g_mute.store(static_cast<uint8_t>(mute), std::memory_order_relaxed);
    int result;
    switch (channel) {
    case AUDIO_CHANNEL_MAIN:
        result = set_main_mute(mute);
        break;
    case AUDIO_CHANNEL_SPDIF:
        result = set_spdif_mute(mute);
        break;
    case AUDIO_CHANNEL_UAC:
        result = set_uac_mute(mute);
        break;
    default:
        result = -1;
        break;
    }
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "dspHal_set_mute bMute %d", mute);
    return result > 0 ? 1 : 0;
}

int dspHal_get_mute(int channel)
{
    int result;
    switch (channel) {
    case AUDIO_CHANNEL_MAIN:
        result = get_main_mute();
        break;
    case AUDIO_CHANNEL_SPDIF:
        result = get_spdif_mute();
        break;
    case AUDIO_CHANNEL_UAC:
        // The mixer reports its switch (1 = sound on); only a switch that is
        // off means muted, an error reads as not muted.
        result = get_uac_mute() == 0 ? 1 : 0;
        break;
    default:
        result = 0;
        break;
    }
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "dspHal_get_mute bMute %d", result);
    return result;
}

int dspHal_set_balance(unsigned balance)
{
    if (balance > kMaxIndex)
        return 0;
    float left = 1.0f;
    float right = 1.0f;
    if (balance > kBalanceCentre)
        left = static_cast<float>(kMaxIndex - balance) / 50.0f;
    else
        right = static_cast<float>(balance) / 50.0f;
    // Only the right-channel post decides the result.
    dspPostf(DSP_CMD_BALANCE, "BAL_LEFT=%.2f", static_cast<double>(left));
    usleep(kBalanceGapUs);
    int posted = dspPostf(DSP_CMD_BALANCE, "BAL_RIGHT=%.2f", static_cast<double>(right));
    char text[PROPERTY_VALUE_MAX];
    writeIntProperty(kDspBalanceProperty, balance, text);
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "dspHal_set_balance value %s", text);
    return posted > 0 ? 1 : 0;
}

int dspHal_get_balance(void)
{
    int value = readIntProperty(kDspBalanceProperty);
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "dspHal_get_balance %d", value);
    return value;
}

int dspHal_set_treble(unsigned value)
{
    return setTone(value, "USER_EQ[6]=6,6000,%.4f,0.7070", kDspTrebleProperty,
                   "dspHal_set_treble value %d");
}

int dspHal_get_treble(void)
{
    int value = getTone(kDspTrebleProperty);
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "dspHal_get_treble value %d ", value);
    return value;
}

int dspHal_set_bass(unsigned value)
{
    // Bass is band 7 with the treble's own filter type and 6000 Hz corner;
    // the DSP tuning expects exactly this line.
    return setTone(value, "USER_EQ[7]=6,6000,%.4f,0.7070", kDspBassProperty,
                   "dspHal_set_bass value %d");
}

int dspHal_get_bass(void)
{
    int value = getTone(kDspBassProperty);
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "dspHal_get_bass value %d ", value);
    return value;
}

int dspHal_set_powerDown(void)
{
    // The transmit thread writes "PD=1" for this code; the text stays empty.
    int posted = dsp_post(DSP_CMD_POWER_DOWN, "");
    if (posted <= 0)
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "dspHal_set_powerDown failed!");
    // Logged on both paths: a failed post shows both lines.
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "dspHal_set_powerDown success!");
    return posted > 0 ? 1 : 0;
}

int dspHal_get_hotPlug(int peripheral_id)
{
    char query[DSP_REQUEST_TEXT_SIZE];
    snprintf(query, sizeof query, "PER_STAT=%d?", peripheral_id);
    // Only peripheral 1's state is kept, so an answered query for another
    // peripheral returns peripheral 1's last state.
    if (dspReplyWait(hotPlugReplied, DSP_CMD_HOTPLUG, query))
        return hotPlugState.load(std::memory_order_relaxed);
    return 0;
}

} // extern "C"

#ifdef AVM_HOST_BUILD
void dspAudio_resetForTest()
{
    g_volume.store(0);
    g_mute.store(0);
}
#endif
