/*
 * The reply wait every DSP query uses: clear the query's reply flag, post
 * the query through the DSP link, then look at the flag a bounded number of
 * times until the receive thread raises it. Runs on the caller's thread
 * (service threads); holds no lock while it sleeps.
 */
#ifndef AVM_DSP_REPLY_WAIT_H
#define AVM_DSP_REPLY_WAIT_H

#ifdef __cplusplus
#include <atomic>
#include <cstdint>

// How a query waits for its reply.
struct DspReplyWaitTiming {
    int looks;       // how many times the flag is looked at
    int stepMs;      // sleep between looks
    bool lookFirst;  // look before the first sleep (else sleep first)
};

// Level, mute, hot-plug, DOA-report and equaliser queries: the first look
// comes after the first 100 ms sleep, the last after 900 ms.
constexpr DspReplyWaitTiming kDspQueryWait{9, 100, false};
// The audio-out route query: looks at once, then every 20 ms, 300 ms at most.
constexpr DspReplyWaitTiming kDspRouteWait{16, 20, true};

// Clears flag, posts text with the command code (the post result is not
// looked at) and waits as timing says. True when the flag was raised.
bool dspReplyWait(std::atomic<uint8_t> &flag, int32_t code, const char *text,
                  const DspReplyWaitTiming &timing = kDspQueryWait);

// Formats a command text (bounded to the 511 characters a request holds)
// and posts it with dsp_post; returns dsp_post's result.
int dspPostf(int32_t code, const char *format, ...) __attribute__((format(printf, 2, 3)));
#endif

#endif
