/*
 * Host tracing entry points: the functions behind cutils/trace.h that
 * libcutils provides on the device, for the module's ATRACE_* calls on
 * the host. Instead of the kernel's trace buffer, each call goes to the
 * sinks registered through avm_trace_sink.h (the board's timeline).
 *
 * The "hal" tag is on exactly while a sink is registered: the header's
 * inline check calls atrace_get_enabled_tags(), one relaxed load, and
 * skips the call when the tag is off, so a module without a sink pays
 * that and a branch per trace call.
 *
 * Threads: any thread traces; any thread adds or removes sinks. The sink
 * table is read under gSinkLock shared for the length of one dispatch and
 * written under it exclusively, so removal waits for calls in flight. The
 * lock prefers writers: a stream of traced calls cannot hold a removal off.
 *
 * State: gSinks (under gSinkLock), gEnabledTags (relaxed atomic, written
 * under gSinkLock).
 */
#include <cutils/trace.h>

#include <avm_trace_sink.h>

#include <atomic>
#include <pthread.h>

namespace {

// The tags a system trace with the "hal" category turns on; ATRACE_TAG_ALWAYS
// is on whenever tracing is.
constexpr uint64_t kTagsWhileRecording = ATRACE_TAG_HAL | ATRACE_TAG_ALWAYS;

struct SinkSlot {
    bool used = false; // under gSinkLock
    AvmTraceSink sink{};
};

pthread_rwlock_t gSinkLock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
SinkSlot gSinks[AVM_TRACE_MAX_SINKS];
std::atomic<uint64_t> gEnabledTags{0};

// Hands one call to every registered sink, on the calling thread.
template <typename Call> void dispatch(Call call)
{
    pthread_rwlock_rdlock(&gSinkLock);
    for (const SinkSlot &slot : gSinks)
        if (slot.used)
            call(slot.sink);
    pthread_rwlock_unlock(&gSinkLock);
}

// Whether any slot is in use; under gSinkLock.
bool anySink()
{
    for (const SinkSlot &slot : gSinks)
        if (slot.used)
            return true;
    return false;
}

const char *nameOrEmpty(const char *name)
{
    return name ? name : "";
}

} // namespace

extern "C" {

uint64_t atrace_get_enabled_tags()
{
    return gEnabledTags.load(std::memory_order_relaxed);
}

// Setup, property updates and the debuggable and enabled switches belong
// to the device's tracer; on the host the sinks decide, so these do
// nothing.
void atrace_init() {}
void atrace_setup() {}
void atrace_update_tags() {}
void atrace_set_debuggable(bool) {}
void atrace_set_tracing_enabled(bool) {}

void atrace_begin_body(const char *name)
{
    dispatch([name](const AvmTraceSink &s) {
        if (s.begin)
            s.begin(s.context, nameOrEmpty(name));
    });
}

void atrace_end_body()
{
    dispatch([](const AvmTraceSink &s) {
        if (s.end)
            s.end(s.context);
    });
}

void atrace_async_begin_body(const char *name, int32_t cookie)
{
    dispatch([name, cookie](const AvmTraceSink &s) {
        if (s.asyncBegin)
            s.asyncBegin(s.context, nameOrEmpty(name), cookie);
    });
}

void atrace_async_end_body(const char *name, int32_t cookie)
{
    dispatch([name, cookie](const AvmTraceSink &s) {
        if (s.asyncEnd)
            s.asyncEnd(s.context, nameOrEmpty(name), cookie);
    });
}

void atrace_int_body(const char *name, int32_t value)
{
    dispatch([name, value](const AvmTraceSink &s) {
        if (s.counter)
            s.counter(s.context, nameOrEmpty(name), value);
    });
}

void atrace_int64_body(const char *name, int64_t value)
{
    dispatch([name, value](const AvmTraceSink &s) {
        if (s.counter)
            s.counter(s.context, nameOrEmpty(name), value);
    });
}

int avm_trace_add_sink(const AvmTraceSink *sink)
{
    if (!sink)
        return -1;
    int handle = -1;
    pthread_rwlock_wrlock(&gSinkLock);
    for (int i = 0; i < AVM_TRACE_MAX_SINKS; ++i) {
        if (!gSinks[i].used) {
            gSinks[i].used = true;
            gSinks[i].sink = *sink;
            handle = i + 1;
            break;
        }
    }
    if (handle > 0)
        gEnabledTags.store(kTagsWhileRecording, std::memory_order_relaxed);
    pthread_rwlock_unlock(&gSinkLock);
    return handle;
}

void avm_trace_remove_sink(int handle)
{
    if (handle < 1 || handle > AVM_TRACE_MAX_SINKS)
        return;
    // Taking the lock exclusively waits out every dispatch in flight.
    pthread_rwlock_wrlock(&gSinkLock);
    gSinks[handle - 1] = SinkSlot{};
    if (!anySink())
        gEnabledTags.store(0, std::memory_order_relaxed);
    pthread_rwlock_unlock(&gSinkLock);
}

} // extern "C"
