// Process set-up shared by every harness, run by libFuzzer (and by the
// replay driver) before the first input and before any thread: a private
// board root and property store for the handlers to write into, a silent
// log (the parsers log every malformed input), and a silent iniparser
// (it reports every malformed ini line on standard error).
#include <android/log.h>
#include <iniparser.h>

#include <cstdlib>

#include "process_env.h"

namespace {

int quietIniparser(const char *, ...)
{
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    avmtest::initProcessRoot();
    std::atexit(avmtest::removeProcessRoot);
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    iniparser_set_error_callback(quietIniparser);
    return 0;
}
