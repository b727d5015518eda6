/*
 * Trace names and the span helpers of common/avm_trace.h: formatting and
 * escaping of names (only ever run while tracing is on), empty outcome
 * spans, and spans with formatted names.
 *
 * Threads: any; no state.
 */
#include "common/avm_trace.h"

#include <cstdio>

namespace {

// Whether a name byte goes into the tracer as it is: printable ASCII,
// except "|" (it separates the fields of the kernel's trace record) and
// "\" (it starts an escape).
bool keptAsIs(unsigned char c)
{
    return c >= 0x20 && c < 0x7f && c != '|' && c != '\\';
}

} // namespace

size_t avmTraceNamev(char *out, size_t size, const char *name, const char *argsFormat, va_list args)
{
    if (out == nullptr || size == 0)
        return 0;
    char raw[AVM_TRACE_NAME_MAX];
    int n = snprintf(raw, sizeof raw, "%s", name ? name : "");
    if (n < 0)
        n = 0;
    size_t used = static_cast<size_t>(n) < sizeof raw ? static_cast<size_t>(n) : sizeof raw - 1;
    if (argsFormat != nullptr && used + 1 < sizeof raw) {
        raw[used++] = ' ';
        raw[used] = '\0';
        const int m = vsnprintf(raw + used, sizeof raw - used, argsFormat, args);
        if (m > 0)
            used += static_cast<size_t>(m) < sizeof raw - used ? static_cast<size_t>(m) : sizeof raw - used - 1;
    }
    size_t length = 0;
    for (size_t i = 0; i < used; ++i) {
        const unsigned char c = static_cast<unsigned char>(raw[i]);
        if (keptAsIs(c)) {
            if (length + 1 >= size)
                break;
            out[length++] = static_cast<char>(c);
        } else {
            // An escape is written whole or not at all.
            if (length + 4 >= size)
                break;
            snprintf(out + length, 5, "\\x%02x", c);
            length += 4;
        }
    }
    out[length] = '\0';
    return length;
}

size_t avmTraceNamef(char *out, size_t size, const char *name, const char *argsFormat, ...)
{
    va_list args;
    va_start(args, argsFormat);
    const size_t length = avmTraceNamev(out, size, name, argsFormat, args);
    va_end(args);
    return length;
}

void avmTraceMark(const char *name)
{
    if (!ATRACE_ENABLED())
        return;
    ATRACE_BEGIN(name);
    ATRACE_END();
}

AvmTraceSpan::AvmTraceSpan(const char *name, const char *argsFormat, ...) : active(ATRACE_ENABLED() != 0)
{
    if (!active)
        return;
    char text[AVM_TRACE_NAME_MAX];
    va_list args;
    va_start(args, argsFormat);
    avmTraceNamev(text, sizeof text, name, argsFormat, args);
    va_end(args);
    ATRACE_BEGIN(text);
}
