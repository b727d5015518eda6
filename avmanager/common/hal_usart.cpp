/*
 * hal_usart: the only code that touches a serial port. Opens a terminal
 * device in raw mode (termios) and offers thin read and write calls on its
 * descriptor.
 *
 * Threads: any caller. The audio DSP link, the camera link and the Fig DSP
 * link each own their descriptor, write from their sender threads and read
 * from one reader thread per link. The unit keeps no state at all, so there
 * is nothing to lock here; the DSP link serialises its own writes.
 *
 * Log tag "UART".
 */
#include "common/hal_usart.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <android/log.h>

#define LOG_TAG "UART"
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

// Every operation on a descriptor checks it first: a negative descriptor is
// reported with the caller's name and line and the call fails without
// touching the device.
#define USART_CHECK_FD(fd)                                                                         \
    do {                                                                                           \
        if ((fd) < 0) {                                                                            \
            LOGE("fd is error! func[%s] line[%d] \n\r", __func__, __LINE__);                       \
            return -1;                                                                             \
        }                                                                                          \
    } while (0)

namespace {

// Read timing of every port: a read returns once this many bytes are in...
constexpr cc_t kReadMinBytes = 128;
// ...or this many tenths of a second after the last byte once one arrived.
constexpr cc_t kReadInterByteTenths = 1;

struct BaudEntry {
    unsigned baud;
    speed_t speed;
};

// The only rates the ports are ever opened at; anything else keeps the
// speed the device already has.
constexpr BaudEntry kBaudTable[] = {
    {300, B300},     {1200, B1200},   {2400, B2400},     {4800, B4800},
    {9600, B9600},   {19200, B19200}, {115200, B115200},
};

void applyBaud(struct termios &options, unsigned baud)
{
    for (const BaudEntry &entry : kBaudTable) {
        if (entry.baud == baud) {
            cfsetispeed(&options, entry.speed);
            cfsetospeed(&options, entry.speed);
            return;
        }
    }
    // Unknown rates are left as read from the device, without a message.
}

void applyStopBits(struct termios &options, unsigned stopBits)
{
    options.c_cflag &= ~CSIZE;
    switch (stopBits) {
    case 1:
        options.c_cflag &= ~CSTOPB;
        options.c_cflag &= ~CSIZE;
        break;
    case 2:
        options.c_cflag |= CSTOPB;
        break;
    default:
        LOGE("Unsupported stop bits\n");
        break;
    }
}

void applyParity(struct termios &options, char parity)
{
    switch (parity) {
    case 'n':
    case 'N':
        options.c_iflag &= ~INPCK;
        options.c_cflag &= ~PARENB;
        break;
    case 'e':
    case 'E':
        options.c_iflag |= INPCK;
        options.c_cflag |= PARENB;
        options.c_cflag &= ~PARODD;
        break;
    case 'o':
    case 'O':
        options.c_iflag |= INPCK;
        options.c_cflag |= PARENB | PARODD;
        break;
    case 's':
    case 'S':
        // Space parity is treated as no parity with one stop bit, even when
        // two stop bits were asked for.
        options.c_cflag &= ~PARENB;
        options.c_cflag &= ~CSTOPB;
        break;
    default:
        LOGE("Unsupported parity\n");
        break;
    }
}

void applyDataBits(struct termios &options, int dataBits)
{
    options.c_cflag &= ~CSIZE;
    switch (dataBits) {
    case 8:
        options.c_cflag |= CS8;
        break;
    case 7:
        options.c_cflag |= CS7;
        break;
    default:
        // Deliberately left cleared: the line then runs with 5-bit characters.
        LOGE("Unsupported data size\n");
        break;
    }
}

void applyFlowControl(struct termios &options, unsigned flowControl)
{
    switch (flowControl) {
    case 0:
        options.c_cflag &= ~CRTSCTS;
        options.c_iflag &= ~(IXON | IXOFF | IXANY);
        break;
    case 1:
        // The hardware-handshake bit lands in the input flags, not the
        // control flags, so this setting does not enable RTS/CTS; kept so.
        options.c_iflag |= CRTSCTS;
        break;
    case 2:
        options.c_iflag |= IXON | IXOFF | IXANY;
        break;
    default:
        break;
    }
}

void applyRawMode(struct termios &options)
{
    // IXON is cleared here too, so software flow control keeps only
    // IXOFF and IXANY.
    options.c_iflag &= ~(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
    options.c_oflag &= ~OPOST;
    options.c_cflag |= CLOCAL | CREAD;
    options.c_lflag &= ~(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    options.c_cc[VTIME] = kReadInterByteTenths;
    options.c_cc[VMIN] = kReadMinBytes;
}

} // namespace

extern "C" {

int openUsartDevice(int *fd, const char *path, unsigned baud, int dataBits, unsigned stopBits,
                    char parity, unsigned flowControl)
{
    struct termios options;
    memset(&options, 0, sizeof(options));

    int dev = open(path, O_RDWR | O_NOCTTY);
    *fd = dev;
    // The attributes are read before the open result is looked at; on a
    // failed open this call simply fails.
    tcgetattr(dev, &options);
    if (dev < 0) {
        LOGI("OpenDev %s failed\n", path);
        return -1;
    }
    LOGI("OpenDev %s success\n", path);
    tcflush(dev, TCIOFLUSH);

    applyBaud(options, baud);
    applyStopBits(options, stopBits);
    applyParity(options, parity);
    applyDataBits(options, dataBits);
    applyFlowControl(options, flowControl);
    applyRawMode(options);

    tcflush(dev, TCIOFLUSH);
    if (tcsetattr(dev, TCSANOW, &options) != 0)
        LOGE("com set error!\n");
    else
        LOGI("Set Parity success\n");
    // The port is usable with whatever settings it has, so this succeeds
    // even when the attributes could not be applied.
    return 0;
}

ssize_t writeUsartDevice(int fd, const void *buf, size_t count)
{
    USART_CHECK_FD(fd);
    // One write of exactly the count: a partial write is the caller's to see.
    ssize_t ret = write(fd, buf, count);
    int err = errno;
    LOGI("lenth:%d\n", static_cast<int>(count));
    if (ret < 0)
        LOGE("FILE:%s, FUNC:%s, LINE:%d, ERRNO:%s, wirte usart failed\r\n", __FILE__, __func__,
             __LINE__, strerror(err));
    return ret;
}

ssize_t readUsartDevice(int fd, void *buf, size_t count)
{
    USART_CHECK_FD(fd);
    ssize_t ret = read(fd, buf, count);
    if (ret < 1)
        LOGE("FILE:%s, FUNC:%s, LINE:%d, ERRNO:%s, read usart failed\r\n", __FILE__, __func__,
             __LINE__, strerror(errno));
    return ret;
}

ssize_t readDspUsartDeviceChar(int fd, char *buf)
{
    USART_CHECK_FD(fd);
    return read(fd, buf, 1);
}

// Gathers bytes until a chunk ends in a zero byte. No link of the module
// calls it; it is kept as the port's text-reply reader.
ssize_t readDspUsartDevice(int fd, char *buf, size_t count)
{
    USART_CHECK_FD(fd);
    size_t total = 0;
    while (count - total >= 1) {
        // Each read is bounded by the space left in the buffer, so a burst
        // longer than the caller's buffer cannot run past its end.
        ssize_t ret = read(fd, buf + total, count - total);
        if (ret < 1) {
            LOGE("FILE:%s, FUNC:%s, LINE:%d, ERRNO:%s, read usart failed\r\n", __FILE__, __func__,
                 __LINE__, strerror(errno));
            break;
        }
        total += static_cast<size_t>(ret);
        if (buf[total - 1] == '\0')
            return static_cast<ssize_t>(total);
    }
    // Out of space or out of data: the caller is told the requested count,
    // not what arrived; kept so.
    return static_cast<ssize_t>(count);
}

} // extern "C"
