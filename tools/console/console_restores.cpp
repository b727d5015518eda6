/*
 * The module's parameter restores, followed through its own trace. A DSP
 * that announces itself makes the module start a restore thread, which runs
 * two passes ("dsp restore" spans, the configuration check and upgrade
 * first) and only then takes the next announcement: one that comes while it
 * runs is ignored, as on the device. A script that restarts the DSP must
 * therefore wait for the whole thread, not for the upgrade's FWEND: a
 * second pass follows it (and when the first pass's upgrade failed, the
 * second pass is the one that upgrades).
 *
 * Threads: the sink runs on the module's threads (per-thread nesting kept
 * thread-local); the count is read from the console's main thread.
 */
#include <atomic>
#include <cstdint>
#include <cstring>

#include <avm_trace_sink.h>

#include "common/avm_trace.h"
#include "console.h"

namespace console {

namespace {

// init_parameter_thread restores the stored settings twice.
constexpr int kPassesPerRestore = 2;

std::atomic<uint64_t> gRestoresEnded{0};

// Spans nest per thread: the depth of the open spans, and the depth at
// which the open restore pass began (-1: none open).
thread_local int tDepth = 0;
thread_local int tPassDepth = -1;
thread_local int tPassesEnded = 0;

void spanBegin(void *, const char *name)
{
    if (std::strcmp(name, kTraceDspRestore) == 0)
        tPassDepth = tDepth;
    ++tDepth;
}

void spanEnd(void *)
{
    // An end without its begin (a sink added mid-span) is not counted.
    if (tDepth > 0)
        --tDepth;
    if (tDepth != tPassDepth)
        return;
    tPassDepth = -1;
    if (++tPassesEnded == kPassesPerRestore) {
        tPassesEnded = 0;
        gRestoresEnded.fetch_add(1, std::memory_order_release);
    }
}

std::atomic<bool> gWatching{false};

} // namespace

bool watchRestores()
{
    const AvmTraceSink sink{nullptr, spanBegin, spanEnd, nullptr, nullptr, nullptr};
    const bool added = avm_trace_add_sink(&sink) > 0;
    gWatching.store(added, std::memory_order_release);
    return added;
}

bool restoresWatched()
{
    return gWatching.load(std::memory_order_acquire);
}

uint64_t restoresEnded()
{
    return gRestoresEnded.load(std::memory_order_acquire);
}

} // namespace console
