/*
 * DSP reply handlers: run on the DSP receive thread, turn replies into the
 * reply caches, properties, or DOA messages for the camera.
 */
#ifndef AVM_DSP_REPLIES_H
#define AVM_DSP_REPLIES_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

int dsp_spdif_dbVol_update(const char *text);
int dsp_main_dbVol_update(const char *text);
int dsp_mainMute_status_update(const char *text);
int dsp_doa_status_update(const char *text);
int dsp_hotPlug_status_update(const char *text);
int dsp_balance_status_update(int channel, const char *text);
int dsp_led_status_update(const char *text);
void dsp_parse_EQInfo(const char *text);
int dsp_parse_doa(const char *value);
int dsp_parse_audio_out_mode(const char *value);
void dsp_fullVersion_update(const char *text);

/* Splits text from its tenth character at any of the delimiters and copies
 * token k to out + k (each token starts one character after the previous
 * one, overwriting its tail). Copies stay inside the outSize bytes of out,
 * which stay terminated. Returns the number of tokens, 0 if none, -1 for a
 * null argument. Used by no handler; kept for outside callers. */
int splitDataFormat(const char *text, char *out, size_t outSize, const char *delimiters);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <atomic>
#include <cstdint>

/*
 * Reply caches. The DSP receive thread is the only writer; the service
 * threads that run the queries read them and clear the flags before they
 * post a query. Every value is an atomic (relaxed for the plain values);
 * a flag is raised with release order after its value is stored, and the
 * reply wait reads it with acquire order.
 */
extern std::atomic<float> spdifDbReply;       // last S/PDIF level in dB (-65..0); rx thread
extern std::atomic<uint8_t> spdifDbReplied;   // 1 after a valid "VS=" reply; rx sets, queries clear
extern std::atomic<float> mainDbReply;        // last main level in dB (-65..0); rx thread
extern std::atomic<uint8_t> mainDbReplied;    // 1 after a valid "MV=" reply
extern std::atomic<uint8_t> mainMuteReply;    // 1 muted, 0 not; rx thread
extern std::atomic<uint8_t> mainMuteReplied;  // 1 after "MT=0" or "MT=1"
extern std::atomic<uint8_t> doaReportReply;   // 1 DOA reporting on, 0 off; rx thread
extern std::atomic<uint8_t> doaReportReplied; // 1 after "MIC_DOA_REP=0/1"
extern std::atomic<int32_t> hotPlugState;     // hot-plug state of peripheral 1; rx thread
extern std::atomic<uint8_t> hotPlugReplied;   // 1 after any "PER_STAT=" reply
extern std::atomic<uint8_t> audioOutModeReplied; // 1 after an "AOM=" reply

constexpr unsigned kUserEqBands = 8;

// One user-equaliser band as the DSP reported it. Fields are written by
// the rx thread before the band's flag is raised; a reader that holds the
// record's address may read while a later reply rewrites it, hence atomics.
struct UserEqInfo {
    std::atomic<int> index;  // band index 0..7
    std::atomic<int> type;   // filter type code
    std::atomic<int> freq;   // centre or corner frequency, Hz
    std::atomic<float> gain; // gain, dB
    std::atomic<float> q;    // quality factor
};

extern UserEqInfo userEqInfo[kUserEqBands];                     // per band; rx thread writes
extern std::atomic<uint8_t> userEqInfoReplied[kUserEqBands];    // per band; rx sets, query clears

// Decimal text to int as atoi does (leading blanks, sign, digits; 0 when
// there are none), but clamped to the int range instead of undefined on
// overflow. Shared by every DSP unit that reads numbers from replies or
// properties.
int dspParseInt(const char *text);

#ifdef AVM_HOST_BUILD
// Puts every reply cache and flag back to its value at process start. Only
// tests call it (a test program runs many tests in one process).
void dspReplies_resetForTest();
#endif
#endif

#endif
