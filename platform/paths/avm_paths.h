/*
 * The module's fixed paths outside /dev and /sys (the DSP pipe in /tmp, ini
 * files under /mnt/vendor, the configuration bundle under /system/etc, ...)
 * go through avm_path(). On the device it is the identity. On the host it
 * resolves an absolute path under $AVMANAGER_ROOT, the virtual board's root,
 * when that variable is set.
 */
#ifndef AVM_PLATFORM_PATHS_H
#define AVM_PLATFORM_PATHS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Writes the resolved form of path into out (size bytes, always
 * terminated) and returns out. A result that does not fit is cut. */
const char *avm_path(const char *path, char *out, size_t size);

#ifdef __cplusplus
}
#endif

#endif
