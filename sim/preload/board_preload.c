/*
 * Preloaded ahead of umockdev's library on the virtual board (by
 * tests/board-wrapper). Three jobs:
 *
 * 1. Hide what the board does not model. umockdev redirects a /dev path
 *    into the testbed only when it exists there; anything else goes to the
 *    host's own /dev, so a test could open a workstation's serial ports,
 *    I2C adapters, sound cards, HID devices or USB devices. Here a /dev
 *    path does not exist (ENOENT, for open, access, stat and fopen alike,
 *    as for a device that is not there) when its testbed entry is a mask
 *    (a socket, see Board::mask), or when the entry is missing and the
 *    path lies where the board owns every node: serial ports, I2C, sound,
 *    hidraw and usbfs.
 *
 * 2. umockdev 0.17 records every open of a /dev path in a table of 50
 *    descriptors, a failed open included (as descriptor -1), and only a
 *    close() of that descriptor frees the entry; nobody closes -1, so
 *    after about 50 failed opens in one process umockdev aborts. After
 *    each failed open of a /dev path that reached umockdev, this shim
 *    closes -1 once, which frees exactly the entry that open added (or
 *    nothing when it added none).
 *
 * 3. umockdev serves one call per descriptor at a time: while a call on a
 *    descriptor waits for its answer, the next call on the same
 *    descriptor waits too. The kernel holds a bulk IN transfer until data
 *    comes or its time-out passes, and a hidraw read until a report comes,
 *    while other threads' calls on the same descriptor go on; the module
 *    relies on that (the HDMI-out reader waits on IN while data goes OUT,
 *    the camera's receive thread waits in read() while requests are
 *    written). So a bulk IN on a usbfs descriptor and a read() of a hidraw
 *    descriptor go through a second descriptor of the same node, opened
 *    on first need and closed with the program's own (or, when a call is
 *    still under way on it, as soon as that call ends: as on the kernel,
 *    a read under way outlives a close of the node by another thread).
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/usbdevice_fs.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

/* Looked up by the board to make sure the shim is in place. */
const int avm_board_preload_active = 1;

/* /dev paths where every node is the board's: missing means absent. */
static const char *const kBoardOwned[] = {
    "/dev/ttyS", "/dev/i2c-", "/dev/snd/", "/dev/hidraw", "/dev/bus/usb/",
};

static int board_owned(const char *path)
{
    for (size_t i = 0; i < sizeof kBoardOwned / sizeof kBoardOwned[0]; ++i)
        if (strncmp(path, kBoardOwned[i], strlen(kBoardOwned[i])) == 0)
            return 1;
    return 0;
}

/* Whether a /dev path is hidden from the program (errno untouched). */
static int hidden(const char *path)
{
    if (path == NULL || strncmp(path, "/dev/", 5) != 0)
        return 0;
    const char *testbed = getenv("UMOCKDEV_DIR");
    if (testbed == NULL || *testbed == '\0')
        return 0;
    char entry[PATH_MAX];
    const int n = snprintf(entry, sizeof entry, "%s%s", testbed, path);
    if (n < 0 || (size_t)n >= sizeof entry)
        return 0;
    const int saved = errno;
    /* The 64-bit record: on 32-bit ARM the plain one fails with EOVERFLOW
     * on a build machine's 64-bit inode numbers. */
    struct stat64 st;
    const int rc = fstatat64(AT_FDCWD, entry, &st, 0);
    errno = saved;
    if (rc != 0)
        return board_owned(path);
    return S_ISSOCK(st.st_mode);
}

static void *next_symbol(void **slot, const char *name)
{
    void *fn = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
    if (fn == NULL) {
        fn = dlsym(RTLD_NEXT, name);
        __atomic_store_n(slot, fn, __ATOMIC_RELEASE);
    }
    return fn;
}

static void release_failed_open(const char *path, int ret)
{
    if (ret >= 0 || path == NULL || strncmp(path, "/dev/", 5) != 0)
        return;
    const int saved = errno;
    close(-1);
    errno = saved;
}

/* ---- second descriptors for waiting calls (job 3) */

#define USBFS_PREFIX "/dev/bus/usb/"
#define HIDRAW_PREFIX "/dev/hidraw"
#define MAX_CHANNELS 1024

typedef int (*open_fn)(const char *, int, ...);
typedef int (*close_fn)(int);
typedef int (*ioctl_fn)(int, unsigned long, ...);
typedef ssize_t (*read_fn)(int, void *, size_t);

enum node_kind { NODE_USBFS, NODE_HIDRAW };

struct in_channel {
    char path[PATH_MAX];  /* the usbfs or hidraw node the program opened */
    enum node_kind kind;
    int second;           /* descriptor for its waiting calls, -1 until needed */
    int busy;             /* calls under way on `second` */
    int orphaned;         /* the program closed its descriptor */
};

static struct in_channel *channels[MAX_CHANNELS]; /* by the program's descriptor */
static pthread_mutex_t channels_lock = PTHREAD_MUTEX_INITIALIZER;
/* Second descriptors being opened: from open() until `second` is set, the
 * new descriptor is in /proc/self/fd but not yet known to be ours. */
static int seconds_opening;
static pthread_cond_t seconds_opened = PTHREAD_COND_INITIALIZER;
static void *next_open_fn, *next_close_fn, *next_ioctl_fn, *next_read_fn;

static int has_prefix(const char *path, const char *prefix)
{
    return strncmp(path, prefix, strlen(prefix)) == 0;
}

static void track_node(const char *path, int fd)
{
    if (fd < 0 || fd >= MAX_CHANNELS || path == NULL)
        return;
    enum node_kind kind;
    if (has_prefix(path, USBFS_PREFIX))
        kind = NODE_USBFS;
    else if (has_prefix(path, HIDRAW_PREFIX))
        kind = NODE_HIDRAW;
    else
        return;
    struct in_channel *ch = calloc(1, sizeof *ch);
    if (ch == NULL)
        return;
    snprintf(ch->path, sizeof ch->path, "%s", path);
    ch->kind = kind;
    ch->second = -1;
    pthread_mutex_lock(&channels_lock);
    struct in_channel *old = channels[fd];
    channels[fd] = ch;
    pthread_mutex_unlock(&channels_lock);
    free(old); /* a descriptor closed behind our back: its second is lost */
}

/* Under channels_lock: frees a channel nobody uses any more. */
static void drop_channel(struct in_channel *ch)
{
    const close_fn fn = (close_fn)next_symbol(&next_close_fn, "close");
    if (ch->second >= 0 && fn != NULL)
        fn(ch->second);
    free(ch);
}

int close(int fd)
{
    const close_fn fn = (close_fn)next_symbol(&next_close_fn, "close");
    if (fd >= 0 && fd < MAX_CHANNELS) {
        pthread_mutex_lock(&channels_lock);
        struct in_channel *ch = channels[fd];
        channels[fd] = NULL;
        if (ch != NULL) {
            if (ch->busy > 0)
                ch->orphaned = 1;
            else
                drop_channel(ch);
        }
        pthread_mutex_unlock(&channels_lock);
    }
    if (fn == NULL) {
        errno = ENOSYS;
        return -1;
    }
    return fn(fd);
}

/* The second descriptor of a tracked descriptor of that kind, marked
 * busy; NULL when the descriptor is not one (or no second one can be had). */
static struct in_channel *take_second(int fd, enum node_kind kind)
{
    if (fd < 0 || fd >= MAX_CHANNELS)
        return NULL;
    pthread_mutex_lock(&channels_lock);
    struct in_channel *ch = channels[fd];
    if (ch != NULL && ch->kind != kind)
        ch = NULL;
    if (ch != NULL && ch->second < 0) {
        /* Opened outside the lock: umockdev's open may take locks of its own. */
        char path[PATH_MAX];
        snprintf(path, sizeof path, "%s", ch->path);
        ++seconds_opening;
        pthread_mutex_unlock(&channels_lock);
        const open_fn op = (open_fn)next_symbol(&next_open_fn, "open");
        const int second = op != NULL ? op(path, O_RDWR | O_CLOEXEC) : -1;
        pthread_mutex_lock(&channels_lock);
        ch = channels[fd];
        if (ch != NULL && ch->second < 0 && strcmp(ch->path, path) == 0) {
            ch->second = second;
        } else if (second >= 0) {
            const close_fn cl = (close_fn)next_symbol(&next_close_fn, "close");
            if (cl != NULL)
                cl(second);
        }
        if (--seconds_opening == 0)
            pthread_cond_broadcast(&seconds_opened);
    }
    if (ch != NULL && ch->second >= 0)
        ++ch->busy;
    else
        ch = NULL;
    pthread_mutex_unlock(&channels_lock);
    return ch;
}

/* Whether `fd` is one of the second descriptors above: the program did
 * not open it (tests that count a program's descriptors leave it out).
 * Waits out opens under way, so a descriptor listed while its open was
 * still being recorded counts as ours. */
int avm_board_preload_owns(int fd)
{
    int owned = 0;
    pthread_mutex_lock(&channels_lock);
    while (seconds_opening > 0)
        pthread_cond_wait(&seconds_opened, &channels_lock);
    for (size_t i = 0; i < MAX_CHANNELS && !owned; ++i)
        owned = channels[i] != NULL && channels[i]->second == fd;
    pthread_mutex_unlock(&channels_lock);
    return fd >= 0 && owned;
}

static void give_back(struct in_channel *ch)
{
    pthread_mutex_lock(&channels_lock);
    if (--ch->busy == 0 && ch->orphaned)
        drop_channel(ch);
    pthread_mutex_unlock(&channels_lock);
}

int ioctl(int fd, unsigned long request, ...)
{
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    const ioctl_fn fn = (ioctl_fn)next_symbol(&next_ioctl_fn, "ioctl");
    if (fn == NULL) {
        errno = ENOSYS;
        return -1;
    }
    if (request == (unsigned long)USBDEVFS_BULK && arg != NULL &&
        (((const struct usbdevfs_bulktransfer *)arg)->ep & 0x80) != 0) {
        struct in_channel *ch = take_second(fd, NODE_USBFS);
        if (ch != NULL) {
            const int ret = fn(ch->second, request, arg);
            const int saved = errno;
            give_back(ch);
            errno = saved;
            return ret;
        }
    }
    return fn(fd, request, arg);
}

ssize_t read(int fd, void *buf, size_t count)
{
    const read_fn fn = (read_fn)next_symbol(&next_read_fn, "read");
    if (fn == NULL) {
        errno = ENOSYS;
        return -1;
    }
    struct in_channel *ch = take_second(fd, NODE_HIDRAW);
    if (ch == NULL)
        return fn(fd, buf, count);
    const ssize_t ret = fn(ch->second, buf, count);
    const int saved = errno;
    give_back(ch);
    errno = saved;
    return ret;
}

static mode_t mode_arg(int flags, va_list ap)
{
    return (flags & (O_CREAT | O_TMPFILE)) ? va_arg(ap, mode_t) : 0;
}

typedef int (*open2_fn)(const char *, int);
typedef int (*access_fn)(const char *, int);
typedef int (*stat_fn)(const char *, struct stat *);
typedef int (*stat64_fn)(const char *, struct stat64 *);
typedef FILE *(*fopen_fn)(const char *, const char *);

/* The next definition of `name` (umockdev's), as `type` in `fn`. */
#define NEXT(type, name)                                                 \
    static void *next_##name;                                            \
    const type fn = (type)next_symbol(&next_##name, #name);              \
    if (fn == NULL) {                                                    \
        errno = ENOSYS;                                                  \
        return FAIL;                                                     \
    }

#define FAIL -1
#define WRAP_OPEN(name)                                                  \
    int name(const char *path, int flags, ...)                           \
    {                                                                    \
        va_list ap;                                                      \
        va_start(ap, flags);                                             \
        const mode_t mode = mode_arg(flags, ap);                         \
        va_end(ap);                                                      \
        if (hidden(path)) {                                              \
            errno = ENOENT;                                              \
            return -1;                                                   \
        }                                                                \
        NEXT(open_fn, name)                      \
        const int ret = fn(path, flags, mode);                           \
        release_failed_open(path, ret);                                  \
        track_node(path, ret);                                          \
        return ret;                                                      \
    }

#define WRAP_OPEN2(name)                                                 \
    int name(const char *path, int flags)                                \
    {                                                                    \
        if (hidden(path)) {                                              \
            errno = ENOENT;                                              \
            return -1;                                                   \
        }                                                                \
        NEXT(open2_fn, name)                           \
        const int ret = fn(path, flags);                                 \
        release_failed_open(path, ret);                                  \
        track_node(path, ret);                                          \
        return ret;                                                      \
    }

#define WRAP_PATH_CALL(name, argtype, fntype)                                    \
    int name(const char *path, argtype arg)                              \
    {                                                                    \
        if (hidden(path)) {                                              \
            errno = ENOENT;                                              \
            return -1;                                                   \
        }                                                                \
        NEXT(fntype, name)                       \
        return fn(path, arg);                                            \
    }

WRAP_OPEN(open)
WRAP_OPEN(open64)
WRAP_OPEN2(__open_2)
WRAP_OPEN2(__open64_2)
WRAP_PATH_CALL(access, int, access_fn)
WRAP_PATH_CALL(stat, struct stat *, stat_fn)
WRAP_PATH_CALL(lstat, struct stat *, stat_fn)
WRAP_PATH_CALL(stat64, struct stat64 *, stat64_fn)
WRAP_PATH_CALL(lstat64, struct stat64 *, stat64_fn)

#undef FAIL
#define FAIL NULL
#define WRAP_FOPEN(name)                                                 \
    FILE *name(const char *path, const char *mode)                       \
    {                                                                    \
        if (hidden(path)) {                                              \
            errno = ENOENT;                                              \
            return NULL;                                                 \
        }                                                                \
        NEXT(fopen_fn, name)               \
        return fn(path, mode);                                           \
    }

WRAP_FOPEN(fopen)
WRAP_FOPEN(fopen64)
