/*
 * Tracing of the module: spans, async spans and counters on the platform's
 * tracer (cutils/trace.h, tag HAL). A system trace records them when its
 * "hal" category is on (Perfetto's atrace categories, `atrace hal`); with
 * the category off a trace call costs the tracer's inline check. On the
 * host the same calls reach the virtual board's timeline.
 *
 * Names. Every name the module traces is one of the constants below,
 * "<area> <what>"; a span that carries values has them after it as
 * " key=value" words (AvmTraceSpan's format, avmTraceNamef), formatted from
 * the module's own numbers and constant words. A name never holds bytes a
 * peripheral sent as they are: values read from the wire are formatted as
 * numbers, and anything in a name that is not printable ASCII, or is "|"
 * (the field separator of the kernel's trace records) or "\", is written as
 * \xNN.
 *
 * Spans nest per thread. Async spans start on one thread and end on
 * another; the cookie tells apart the ones in flight at once. Outcome
 * marks ("dsp answered", "dsp timed out", ...) are empty spans inside the
 * span whose outcome they give.
 *
 * Threads: any. No state beyond what the platform's tracer keeps.
 */
#ifndef AVM_TRACE_H
#define AVM_TRACE_H

#ifdef ATRACE_TAG
#error "common/avm_trace.h sets the trace tag: include it before anything else that includes cutils/trace.h"
#endif
#define ATRACE_TAG ATRACE_TAG_HAL
#include <cutils/trace.h>

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

static_assert(ATRACE_TAG == ATRACE_TAG_HAL, "the module traces under the HAL tag");

/* Longest name traced, terminator included; longer ones are cut. */
#define AVM_TRACE_NAME_MAX 128

/* ---- start-up and release (the service thread) ---- */
inline constexpr char kTraceInit[] = "init";
inline constexpr char kTraceInitCameraPipe[] = "init camera pipe";
inline constexpr char kTraceInitSpeakerPlacement[] = "init speaker placement";
inline constexpr char kTraceInitDspLink[] = "init dsp link";
inline constexpr char kTraceInitPtzLink[] = "init ptz link";
inline constexpr char kTraceInitDetection[] = "init detection thread";
inline constexpr char kTraceRelease[] = "release";
inline constexpr char kTraceReleaseDspLink[] = "release dsp link";
inline constexpr char kTraceReleaseCameraPipe[] = "release camera pipe";

/* ---- DSP link, queries, file transfer, restore ---- */
/* Async, cookie = the post's number: from the post into the request pipe
 * until the transmit thread wrote it to the port. */
inline constexpr char kTraceDspCommand[] = "dsp command";
/* Counter: requests waiting in the pipe. */
inline constexpr char kTraceDspQueued[] = "dsp queued commands";
/* Transmit thread: one request taken from the pipe, written and paced
 * (kind=<command kind>, or code=<n> for a code that is dropped). */
inline constexpr char kTraceDspWrite[] = "dsp write";
inline constexpr char kTraceDspDropped[] = "dsp dropped";
/* A query's wait for its reply (query=<text>). */
inline constexpr char kTraceDspReplyWait[] = "dsp reply wait";
inline constexpr char kTraceDspAnswered[] = "dsp answered";
inline constexpr char kTraceDspTimedOut[] = "dsp timed out";
inline constexpr char kTraceDspNotAccepted[] = "dsp not accepted";
/* Receive thread: one reply read from the port (handler=<name>|none). */
inline constexpr char kTraceDspReceive[] = "dsp receive";
/* A file request with its resends (word=<command word>, and for a chunk
 * offset= and length=), each write of it (attempt=<n>), and its answer on
 * the receive thread. A chunk's writes are "dsp chunk" spans. */
inline constexpr char kTraceDspFileRequest[] = "dsp file request";
inline constexpr char kTraceDspFileSend[] = "dsp file send";
inline constexpr char kTraceDspChunk[] = "dsp chunk";
inline constexpr char kTraceDspFileAnswer[] = "dsp file answer";
/* One file sent, FWSTR to FWEND (size=<bytes>). */
inline constexpr char kTraceDspFileTransfer[] = "dsp file transfer";
inline constexpr char kTraceDspConfigUpgrade[] = "dsp config upgrade";
/* One pass of the parameter restore (the upgrade check first). */
inline constexpr char kTraceDspRestore[] = "dsp restore";
/* Counter: the last sound direction the DSP reported. */
inline constexpr char kTraceDspDoaAngle[] = "dsp doa angle";

/* ---- PTZ camera ---- */
/* One command sent (cmd=<id>) until its answer or the last try; each
 * frame written (attempt=<n>). */
inline constexpr char kTracePtzRequest[] = "ptz request";
inline constexpr char kTracePtzFrame[] = "ptz frame";
inline constexpr char kTracePtzAnswered[] = "ptz answered";
inline constexpr char kTracePtzTimedOut[] = "ptz timed out";
/* Receive thread: one checked frame handled (cmd=<id>, -1 for none). */
inline constexpr char kTracePtzReceive[] = "ptz receive";
/* Sender thread: one camera pipe message sent (type=<n>). */
inline constexpr char kTracePtzPipeMessage[] = "ptz pipe message";

/* ---- camera over USB: HID version and logs, USB tool ---- */
inline constexpr char kTraceHidVersionRequest[] = "hid version request";
inline constexpr char kTraceHidVersionAnswer[] = "hid version answer";
/* All logs, each log (name=<log>), each file of it (part=<n>). */
inline constexpr char kTraceHidLogs[] = "hid logs";
inline constexpr char kTraceHidLog[] = "hid log";
inline constexpr char kTraceHidFile[] = "hid file";
inline constexpr char kTraceHidFileRefused[] = "hid file refused";
/* Counter: bytes of the file being downloaded. */
inline constexpr char kTraceHidFileBytes[] = "hid file bytes";
inline constexpr char kTraceCamUsbVersion[] = "cam usb version";

/* ---- amplifiers ---- */
inline constexpr char kTraceAmpPresenceCheck[] = "amp presence check";
inline constexpr char kTraceAmpProgramming[] = "amp programming";
/* format=floor|wall|meeting (or the number of an unknown format). */
inline constexpr char kTraceAmpFormatSwitch[] = "amp format switch";
inline constexpr char kTraceAmpSameFormat[] = "amp same format";
/* Counter, set at the end of a programming or a switch: how many I2C
 * transactions it made. */
inline constexpr char kTraceAmpTransactions[] = "amp i2c transactions";

/* ---- Fig DSP ---- */
/* A command frame written (frame=doa_on|doa_off|version|usb_switch). */
inline constexpr char kTraceFigSend[] = "fig send";
/* The acknowledgement of a received command (id=<n>). */
inline constexpr char kTraceFigAck[] = "fig ack";
/* Receive thread: one whole frame acted on (type=<n>). */
inline constexpr char kTraceFigReceive[] = "fig receive";
inline constexpr char kTraceFigMicOn[] = "fig mic on";
inline constexpr char kTraceFigMicOff[] = "fig mic off";
/* Counters: the last DOA angle reported, and whether reports are on. */
inline constexpr char kTraceFigDoaAngle[] = "fig doa angle";
inline constexpr char kTraceFigDoaReporting[] = "fig doa reporting";

/* ---- USB HDMI-out ---- */
inline constexpr char kTraceHdmiInit[] = "hdmi init";
inline constexpr char kTraceHdmiDeinit[] = "hdmi deinit";
inline constexpr char kTraceHdmiConnect[] = "hdmi connect";
inline constexpr char kTraceHdmiDisconnect[] = "hdmi disconnect";
/* Async, cookie = the connect's number: from the connect request until
 * the reader saw the converter's acknowledgement. */
inline constexpr char kTraceHdmiAckWait[] = "hdmi ack wait";
inline constexpr char kTraceHdmiAckEcho[] = "hdmi ack echo";
/* A data packet (type= length= transfers=) and a heartbeat. */
inline constexpr char kTraceHdmiPacket[] = "hdmi packet";
inline constexpr char kTraceHdmiHeartbeat[] = "hdmi heartbeat";

/* Writes `name`, then a space and the printf-formatted `argsFormat` when it
 * is not NULL, into out (size bytes, always terminated), escaping as the
 * naming rule says. Returns the length written. */
size_t avmTraceNamef(char *out, size_t size, const char *name, const char *argsFormat, ...)
    __attribute__((format(printf, 4, 5)));
size_t avmTraceNamev(char *out, size_t size, const char *name, const char *argsFormat, va_list args)
    __attribute__((format(printf, 4, 0)));

/* An empty span: the outcome of the span it is in. */
void avmTraceMark(const char *name);

/* A span on this thread from construction to the end of the scope. It is
 * begun only if tracing is on at construction (and then always ended),
 * and its name is formatted only then. */
struct AvmTraceSpan {
    explicit AvmTraceSpan(const char *name);
    AvmTraceSpan(const char *name, const char *argsFormat, ...) __attribute__((format(printf, 3, 4)));
    ~AvmTraceSpan();
    AvmTraceSpan(const AvmTraceSpan &) = delete;
    AvmTraceSpan &operator=(const AvmTraceSpan &) = delete;

    bool active; /* a begin was traced, so the end is owed */
};

// Inline: with tracing off a span costs the tracer's check and a branch.
inline AvmTraceSpan::AvmTraceSpan(const char *name) : active(ATRACE_ENABLED() != 0)
{
    if (active)
        ATRACE_BEGIN(name);
}

inline AvmTraceSpan::~AvmTraceSpan()
{
    if (active)
        ATRACE_END();
}

#endif
