/*
 * Pickup direction and audio routing.
 *
 * Steers where the microphone array listens (DOA reporting, the microphone
 * bar's sector, the camera-zoom pickup mode) and where the DSP sends its
 * audio (the audio-out route), and reads back one user-equaliser band.
 * Each operation posts one text command through the DSP link; the queries
 * then wait for the receive thread to fill a reply cache (dsp_replies).
 *
 * Threads: service threads, and the camera link's thread (zoom). No state
 * of its own beyond the persisted route "persist.zel.dsp.audioOutMode";
 * no locks.
 */
#include "dsp/dsp_pickup.h"

#include <android/log.h>
#include <cutils/properties.h>

#include <cstdio>
#include <cstring>

#include "dsp/dsp_link.h"
#include "dsp/dsp_properties.h"
#include "dsp/dsp_replies.h"
#include "dsp/dsp_reply_wait.h"

#define LOG_TAG "DSP"

namespace {

constexpr size_t kRouteNameCopySize = 256;

// Route names by index: the values of the property, the command and the reply.
constexpr const char *kRouteNames[] = {"SPEAKER", "LINEOUT", "EARPHONE", "WIREMIC"};

} // namespace

extern "C" {

int dspHal_set_doa_status(int on)
{
    return dspPostf(DSP_CMD_FREE_TEXT, "MIC_DOA_REP=%d", on);
}

int dspHal_get_doa_status(void)
{
    if (dspReplyWait(doaReportReplied, DSP_CMD_FREE_TEXT, "MIC_DOA_REP=?"))
        return doaReportReply.load(std::memory_order_relaxed);
    return 0;
}

int dspHal_set_mic_bar_angle(int startAngle, int endAngle, int isStatic)
{
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG,
                        "dspHal_set_mic_bar_angle startAngle:%d endAngle:%d isStatic:%d",
                        startAngle, endAngle, isStatic);
    // The angles go out as given; the sector 0..180 is the whole front.
    if (isStatic != 0)
        return dspPostf(DSP_CMD_FREE_TEXT, "MIC_BAR=%d,%d,static", startAngle, endAngle);
    return dspPostf(DSP_CMD_FREE_TEXT, "MIC_BAR=%d,%d", startAngle, endAngle);
}

int dspHal_set_zoom_enable(int on)
{
    const char *text = on != 0 ? "ZOOM_MODE=1" : "ZOOM_MODE=0";
    dsp_post(DSP_CMD_FREE_TEXT, text);
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "dspHal_set_zoom_enable[%s] ok", text);
    // The camera link does not act on the outcome; 0 whatever the post gave.
    return 0;
}

int dspHal_set_audioMode(const char *name)
{
    // A missing name is refused before anything is sent or stored.
    if (name == nullptr)
        return 0;
    int posted = dspPostf(DSP_CMD_FREE_TEXT, "AOM=%s", name);
    int result = 0;
    if (posted >= 1) {
        char stored[kRouteNameCopySize] = {};
        strncpy(stored, name, sizeof stored - 1);
        property_set(kDspAudioOutModeProperty, stored);
        result = 1;
    }
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "dspHal_set_audioOutMode mode %s", name);
    return result;
}

int dspHal_get_audioMode(void)
{
    // The reply handler writes the DSP's answer into the property, so the
    // property answers whether or not the DSP replied in time.
    dspReplyWait(audioOutModeReplied, DSP_CMD_FREE_TEXT, "AOM=?", kDspRouteWait);
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kDspAudioOutModeProperty, value, kRouteNames[AUDIO_OUT_SPEAKER]);
    for (size_t i = 0; i < sizeof kRouteNames / sizeof kRouteNames[0]; ++i) {
        if (strcmp(value, kRouteNames[i]) == 0)
            return static_cast<int>(i);
    }
    // Any other text, a lower-case name included, is the speaker.
    return AUDIO_OUT_SPEAKER;
}

UserEqInfo *get_dsp_EQInfo(unsigned index)
{
    if (index >= kUserEqBands)
        return nullptr;
    char query[DSP_REQUEST_TEXT_SIZE];
    snprintf(query, sizeof query, "USER_EQ[%d]=?", static_cast<int>(index));
    if (dspReplyWait(userEqInfoReplied[index], DSP_CMD_EQ, query))
        return &userEqInfo[index];
    return nullptr;
}

} // extern "C"
