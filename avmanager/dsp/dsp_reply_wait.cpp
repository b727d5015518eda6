/*
 * The shared reply wait of the DSP queries. No state of its own: the flag
 * belongs to the reply caches (written by the DSP receive thread), the
 * caller runs on a service thread. Two queries of the same kind running
 * at once share one flag, so the first reply satisfies both.
 */
#include "common/avm_trace.h"
#include "dsp/dsp_reply_wait.h"

#include <cstdarg>
#include <cstdio>
#include <unistd.h>

#include "dsp/dsp_link.h"

bool dspReplyWait(std::atomic<uint8_t> &flag, int32_t code, const char *text,
                  const DspReplyWaitTiming &timing)
{
    AvmTraceSpan span(kTraceDspReplyWait, "query=%s", text ? text : "");
    flag.store(0, std::memory_order_relaxed);
    dsp_post(code, text);
    for (int look = 0; look < timing.looks; ++look) {
        if (!timing.lookFirst || look > 0)
            usleep(static_cast<useconds_t>(timing.stepMs) * 1000);
        if (flag.load(std::memory_order_acquire)) {
            avmTraceMark(kTraceDspAnswered);
            return true;
        }
    }
    avmTraceMark(kTraceDspTimedOut);
    return false;
}

int dspPostf(int32_t code, const char *format, ...)
{
    char text[DSP_REQUEST_TEXT_SIZE];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return dsp_post(code, text);
}
