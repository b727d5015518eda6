/*
 * DSP reply handlers.
 *
 * Owns the reply caches: the last level, mute, DOA-report, hot-plug and
 * user-equaliser values the DSP reported, each with a flag that says a
 * reply arrived. Every handler here runs on the DSP receive thread, which
 * is the only writer of the caches; the queries of the audio and pickup
 * units run on service threads, clear a flag, post a query and poll it.
 * The handlers also publish the DSP version and audio-out route as
 * properties and forward sound-direction reports to the camera.
 *
 * State record: the globals declared in dsp_replies.h (all rx-thread
 * writes, service-thread reads). They start at zero and live for the life
 * of the process; nothing here clears a flag.
 *
 * Bytes from the DSP are untrusted: every handler accepts any terminated
 * text, including one shorter than its own prefix, and never writes
 * outside its buffers.
 */
#include "common/avm_trace.h"
#include "dsp/dsp_replies.h"

#include <android/log.h>
#include <cutils/properties.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "camera/camera_pipe.h"
#include "dsp/dsp_properties.h"
#include "common/feature_switches.h"

#define LOG_TAG "DSP"
#define DETECT_TAG "DETECT_HAL"

std::atomic<float> spdifDbReply{0.0f};
std::atomic<uint8_t> spdifDbReplied{0};
std::atomic<float> mainDbReply{0.0f};
std::atomic<uint8_t> mainDbReplied{0};
std::atomic<uint8_t> mainMuteReply{0};
std::atomic<uint8_t> mainMuteReplied{0};
std::atomic<uint8_t> doaReportReply{0};
std::atomic<uint8_t> doaReportReplied{0};
std::atomic<int32_t> hotPlugState{0};
std::atomic<uint8_t> hotPlugReplied{0};
std::atomic<uint8_t> audioOutModeReplied{0};
UserEqInfo userEqInfo[kUserEqBands];
std::atomic<uint8_t> userEqInfoReplied[kUserEqBands];

namespace {

constexpr float kMinDb = -65.0f; // silent
constexpr float kMaxDb = 0.0f;   // full scale
constexpr size_t kHotPlugWorkSize = 25;   // the hot-plug token work buffer
constexpr size_t kVersionCopySize = 512;  // bound of the version text copy

// The text after a prefix of n characters; a text shorter than the prefix
// has an empty remainder rather than a pointer past its end.
const char *afterPrefix(const char *text, size_t n)
{
    return text + strnlen(text, n);
}

// Tokenises like strtok (runs of delimiters separate tokens, empty tokens
// are skipped) without modifying the text, and copies token k to out + k:
// each token starts one character further than the previous one, so later
// tokens overwrite all but the first character of earlier ones. A copy is
// cut so that it ends before the last byte of out, which stays a
// terminator; a token that would start there is dropped. Returns the
// number of tokens.
int copyTokensStaggered(std::string_view text, std::string_view delimiters, char *out,
                        size_t outSize)
{
    int count = 0;
    size_t pos = 0;
    for (;;) {
        pos = text.find_first_not_of(delimiters, pos);
        if (pos == std::string_view::npos)
            break;
        size_t end = text.find_first_of(delimiters, pos);
        if (end == std::string_view::npos)
            end = text.size();
        std::string_view token = text.substr(pos, end - pos);
        size_t at = static_cast<size_t>(count);
        if (outSize > 0 && at < outSize - 1) {
            size_t n = token.size() < outSize - 1 - at ? token.size() : outSize - 1 - at;
            memcpy(out + at, token.data(), n);
            out[at + n] = '\0';
        }
        ++count;
        pos = end;
    }
    return count;
}

// Shared by "VS=" and "MV=": a level outside -65..0 dB, or no number at
// all, leaves the cache and its flag as they were.
int storeDbReply(const char *text, std::atomic<float> &value, std::atomic<uint8_t> &flag)
{
    if (text == nullptr)
        return 0;
    // strtof rather than a double conversion: a huge value saturates to
    // infinity instead of overflowing the float.
    float db = strtof(afterPrefix(text, 3), nullptr);
    if (db >= kMinDb && db <= kMaxDb) {
        value.store(db, std::memory_order_relaxed);
        flag.store(1, std::memory_order_release);
    }
    return 1;
}

// A parser in the manner of sscanf: walks the text, each step either
// consumes its field or stops the scan; fields not reached keep their
// value.
struct Scanner {
    const char *p;
    bool literal(const char *lit)
    {
        size_t n = strlen(lit);
        if (strncmp(p, lit, n) != 0)
            return false;
        p += n;
        return true;
    }
    bool integer(int &out)
    {
        char *end = nullptr;
        long v = strtol(p, &end, 10);
        if (end == p)
            return false;
        out = v > INT_MAX ? INT_MAX : v < INT_MIN ? INT_MIN : static_cast<int>(v);
        p = end;
        return true;
    }
    bool real(float &out)
    {
        char *end = nullptr;
        float v = strtof(p, &end);
        if (end == p)
            return false;
        out = v;
        p = end;
        return true;
    }
};

} // namespace

int dspParseInt(const char *text)
{
    if (text == nullptr)
        return 0;
    int saved = errno;
    long v = strtol(text, nullptr, 10);
    errno = saved;
    if (v > INT_MAX)
        return INT_MAX;
    if (v < INT_MIN)
        return INT_MIN;
    return static_cast<int>(v);
}

extern "C" {

int dsp_spdif_dbVol_update(const char *text)
{
    return storeDbReply(text, spdifDbReply, spdifDbReplied);
}

int dsp_main_dbVol_update(const char *text)
{
    return storeDbReply(text, mainDbReply, mainDbReplied);
}

int dsp_mainMute_status_update(const char *text)
{
    if (text == nullptr)
        return 0;
    if (strncmp(text, "MT=0", 4) == 0) {
        mainMuteReply.store(0, std::memory_order_relaxed);
        mainMuteReplied.store(1, std::memory_order_release);
    } else if (strncmp(text, "MT=1", 4) == 0) {
        mainMuteReply.store(1, std::memory_order_relaxed);
        mainMuteReplied.store(1, std::memory_order_release);
    }
    return 1;
}

int dsp_doa_status_update(const char *text)
{
    if (text == nullptr)
        return 0;
    if (strncmp(text, "MIC_DOA_REP=1", 13) == 0) {
        doaReportReply.store(1, std::memory_order_relaxed);
        doaReportReplied.store(1, std::memory_order_release);
    } else if (strncmp(text, "MIC_DOA_REP=0", 13) == 0) {
        doaReportReply.store(0, std::memory_order_relaxed);
        doaReportReplied.store(1, std::memory_order_release);
    }
    return 1;
}

int dsp_hotPlug_status_update(const char *text)
{
    if (text == nullptr)
        return 0;
    char work[kHotPlugWorkSize] = {};
    // The tokens are laid over each other one character apart: "1, 1"
    // reads as id 1 state 1, "1,1" as id 11. The DSP's reply is shaped
    // for exactly this, so the overlap is deliberate.
    int count = copyTokensStaggered(afterPrefix(text, 9), ",", work, sizeof work);
    if (count == 0)
        return 0;
    int id = dspParseInt(work);
    int state = dspParseInt(work + 1);
    if (id == 1)
        hotPlugState.store(state, std::memory_order_relaxed);
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG,
                        "dsp_hotPlug_status_update per_id %d hotplug_stat %d", id, state);
    // Raised for every peripheral, although only peripheral 1 is stored.
    hotPlugReplied.store(1, std::memory_order_release);
    return 1;
}

int dsp_balance_status_update(int channel, const char *text)
{
    // The balance the DSP reports is not kept; the stored property is the
    // answer to a balance query.
    return text != nullptr ? 1 : 0;
}

int dsp_led_status_update(const char *text)
{
    return text != nullptr ? 1 : 0;
}

void dsp_parse_EQInfo(const char *text)
{
    if (text == nullptr)
        return;
    int index = 0, type = 0, freq = 0;
    float gain = 0.0f, q = 0.0f;
    Scanner s{text};
    // Fields the scan does not reach stay 0, so a "USER_EQ" text that is
    // not a band line reports band 0 as all zero; that is how the DSP's
    // answers have always been read.
    (void)(s.literal("USER_EQ[") && s.integer(index) && s.literal("]=") && s.integer(type) &&
           s.literal(",") && s.integer(freq) && s.literal(",") && s.real(gain) &&
           s.literal(",") && s.real(q));
    // Only the upper bound is part of the check; a negative index names no
    // band of the array, so it is ignored rather than stored before it.
    if (index >= static_cast<int>(kUserEqBands) || index < 0)
        return;
    UserEqInfo &band = userEqInfo[index];
    band.index.store(index, std::memory_order_relaxed);
    band.type.store(type, std::memory_order_relaxed);
    band.freq.store(freq, std::memory_order_relaxed);
    band.gain.store(gain, std::memory_order_relaxed);
    band.q.store(q, std::memory_order_relaxed);
    userEqInfoReplied[index].store(1, std::memory_order_release);
}

int dsp_parse_doa(const char *value)
{
    if (value == nullptr)
        return 0;
    const int angle = dspParseInt(value);
    ATRACE_INT(kTraceDspDoaAngle, angle);
    if (!enableSendDoaToCamera() || !enableCameraCommunication())
        return 0;
    return sendDoaToCameraPipe(static_cast<uint32_t>(angle));
}

int dsp_parse_audio_out_mode(const char *value)
{
    if (value == nullptr)
        return 0;
    // The route is stored as the DSP sent it; a failed write goes unnoticed.
    property_set(kDspAudioOutModeProperty, value);
    audioOutModeReplied.store(1, std::memory_order_release);
    return 1;
}

void dsp_fullVersion_update(const char *text)
{
    if (text == nullptr)
        return;
    char version[kVersionCopySize] = {};
    strncpy(version, afterPrefix(text, 9), sizeof version - 1);
    // A version longer than a property value makes this write fail; the
    // version property then keeps its old value, silently.
    property_set(kDspVersionProperty, version);
    property_set(kDspUpdateProperty, "0");
    __android_log_print(ANDROID_LOG_ERROR, DETECT_TAG, "dsp_fullVersion_update %s", version);
}

int splitDataFormat(const char *text, char *out, size_t outSize, const char *delimiters)
{
    if (text == nullptr || out == nullptr || delimiters == nullptr)
        return -1;
    if (outSize > 0)
        out[outSize - 1] = '\0';
    return copyTokensStaggered(afterPrefix(text, 9), delimiters, out, outSize);
}

} // extern "C"

#ifdef AVM_HOST_BUILD
void dspReplies_resetForTest()
{
    spdifDbReply = 0.0f;
    spdifDbReplied = 0;
    mainDbReply = 0.0f;
    mainDbReplied = 0;
    mainMuteReply = 0;
    mainMuteReplied = 0;
    doaReportReply = 0;
    doaReportReplied = 0;
    hotPlugState = 0;
    hotPlugReplied = 0;
    audioOutModeReplied = 0;
    for (unsigned band = 0; band < kUserEqBands; ++band) {
        userEqInfo[band].index = 0;
        userEqInfo[band].type = 0;
        userEqInfo[band].freq = 0;
        userEqInfo[band].gain = 0.0f;
        userEqInfo[band].q = 0.0f;
        userEqInfoReplied[band] = 0;
    }
}
#endif
