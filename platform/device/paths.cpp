/*
 * Device form of the path helper: the module's fixed paths are used as
 * they stand.
 */
#include <avm_paths.h>

#include <cstdio>

extern "C" const char *avm_path(const char *path, char *out, size_t size)
{
    if (out && size)
        snprintf(out, size, "%s", path ? path : "");
    return out;
}
