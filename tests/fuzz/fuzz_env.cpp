// Process set-up shared by every harness, run by libFuzzer (and by the
// replay driver) before the first input and before any thread: a private
// board root and property store for the handlers to write into, and a
// silent log (the parsers log every malformed input).
#include <android/log.h>

#include <cstdlib>

#include "process_env.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    avmtest::initProcessRoot();
    std::atexit(avmtest::removeProcessRoot);
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    return 0;
}
