/*
 * Where the module's tracing goes on the host. On the device the tracing
 * entry points of cutils/trace.h (libcutils) write to the kernel's trace
 * buffer when a system trace records the "hal" category. On the host the
 * platform layer implements the same entry points and hands every begin,
 * end, async begin/end and counter to the sinks registered here (the
 * virtual board's timeline registers one); with no sink the "hal" tag is
 * off, and a trace call costs the inline check: one call that does one
 * relaxed load, and a branch.
 *
 * Host builds only: the device has no sinks.
 */
#ifndef AVM_TRACE_SINK_H
#define AVM_TRACE_SINK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A receiver of trace calls. Each function runs on the thread that traced,
 * while that thread is inside the module (possibly holding its locks), so
 * it must return promptly, never wait on I/O, and never trace or add or
 * remove a sink itself. `name` is only valid during the call. Any function
 * may be NULL. */
typedef struct AvmTraceSink {
    void *context;
    void (*begin)(void *context, const char *name);
    void (*end)(void *context);
    void (*asyncBegin)(void *context, const char *name, int32_t cookie);
    void (*asyncEnd)(void *context, const char *name, int32_t cookie);
    void (*counter)(void *context, const char *name, int64_t value);
} AvmTraceSink;

/* At most this many sinks at once. */
#define AVM_TRACE_MAX_SINKS 4

/* Registers a copy of *sink; from now on the "hal" tag is on and every
 * trace call reaches it. Returns a handle above 0, or -1 when sink is NULL
 * or AVM_TRACE_MAX_SINKS are registered already. */
int avm_trace_add_sink(const AvmTraceSink *sink);

/* Unregisters a sink. Returns once no call into it runs any more, so its
 * context may be freed afterwards. The "hal" tag goes off with the last
 * sink. An unknown handle is ignored. */
void avm_trace_remove_sink(int handle);

#ifdef __cplusplus
}
#endif

#endif
