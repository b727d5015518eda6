/*
 * Host form of the path helper: absolute paths outside /dev and /sys are
 * resolved under $AVMANAGER_ROOT (the virtual board's root) when it is set.
 * /dev and /sys are left alone: umockdev redirects those itself.
 */
#include <avm_paths.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool under(const char *path, const char *dir)
{
    size_t n = strlen(dir);
    return strncmp(path, dir, n) == 0 && (path[n] == '/' || path[n] == '\0');
}

} // namespace

extern "C" const char *avm_path(const char *path, char *out, size_t size)
{
    if (!out || size == 0)
        return out;
    const char *root = getenv("AVMANAGER_ROOT");
    if (!path)
        path = "";
    if (root && *root && path[0] == '/' && !under(path, "/dev") && !under(path, "/sys"))
        snprintf(out, size, "%s%s", root, path);
    else
        snprintf(out, size, "%s", path);
    return out;
}
