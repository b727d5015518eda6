/*
 * Host property store: one regular file per key in the directory named by
 * AVMANAGER_PROPERTY_DIR, whose whole content is the value (no trailing
 * newline). A missing file is an unset property. Writers replace the file
 * atomically (temporary file, then rename), so readers in any process see
 * either the old or the new value. Values of PROPERTY_VALUE_MAX characters
 * or more are refused, as on the device.
 *
 * Fault injection for tests and the console (keys never begin with ".", so
 * these names never clash with one): while the store directory holds a file
 * named ".readonly", every write fails with EROFS; while it holds ".full",
 * every write fails with ENOSPC. Either way the stored value is left as it
 * was and reads go on working, as when the device's property service
 * refuses a write.
 */
#include <cutils/properties.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *kDefaultDir = "/tmp/avmanager-properties";
constexpr const char *kReadOnlyMarker = ".readonly"; // writes fail with EROFS
constexpr const char *kFullMarker = ".full";         // writes fail with ENOSPC

const char *storeDir()
{
    const char *dir = getenv("AVMANAGER_PROPERTY_DIR");
    return dir && *dir ? dir : kDefaultDir;
}

// Keys become file names: refuse anything that could leave the directory.
bool validKey(const char *key)
{
    if (!key || !*key || strlen(key) >= 256 || key[0] == '.')
        return false;
    return strchr(key, '/') == nullptr;
}

bool keyPath(const char *key, char *out, size_t size)
{
    int n = snprintf(out, size, "%s/%s", storeDir(), key);
    return n > 0 && static_cast<size_t>(n) < size;
}

// Whether the store holds the fault marker `name`.
bool hasMarker(const char *name)
{
    char path[4096];
    int n = snprintf(path, sizeof(path), "%s/%s", storeDir(), name);
    return n > 0 && static_cast<size_t>(n) < sizeof(path) && access(path, F_OK) == 0;
}

void copyValue(char *value, const char *src)
{
    size_t n = strnlen(src, PROPERTY_VALUE_MAX - 1);
    memcpy(value, src, n);
    value[n] = '\0';
}

} // namespace

extern "C" int property_get(const char *key, char *value, const char *default_value)
{
    if (!value)
        return 0;
    value[0] = '\0';
    char path[4096];
    if (validKey(key) && keyPath(key, path, sizeof(path))) {
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            ssize_t n = read(fd, value, PROPERTY_VALUE_MAX - 1);
            close(fd);
            if (n > 0) {
                value[n] = '\0';
                return static_cast<int>(strlen(value));
            }
        }
    }
    if (default_value)
        copyValue(value, default_value);
    return static_cast<int>(strlen(value));
}

extern "C" int property_set(const char *key, const char *value)
{
    if (!validKey(key))
        return -EINVAL;
    if (!value)
        value = "";
    size_t len = strlen(value);
    if (len >= PROPERTY_VALUE_MAX)
        return -EINVAL;
    mkdir(storeDir(), 0777);
    if (hasMarker(kReadOnlyMarker))
        return -EROFS;
    if (hasMarker(kFullMarker))
        return -ENOSPC;
    char path[4096];
    char tmp[4096];
    if (!keyPath(key, path, sizeof(path)))
        return -ENAMETOOLONG;
    int n = snprintf(tmp, sizeof(tmp), "%s/.%s.%d.tmp", storeDir(), key, static_cast<int>(gettid()));
    if (n < 0 || static_cast<size_t>(n) >= sizeof(tmp))
        return -ENAMETOOLONG;
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        return -errno;
    bool ok = write(fd, value, len) == static_cast<ssize_t>(len);
    ok = (close(fd) == 0) && ok;
    if (!ok || rename(tmp, path) != 0) {
        int err = errno;
        unlink(tmp);
        return -(err ? err : EIO);
    }
    return 0;
}
