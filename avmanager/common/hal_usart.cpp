// Placeholder until this unit is built: every function does nothing.
#include "common/hal_usart.h"

extern "C" {
int openUsartDevice(int *fd, const char *path, unsigned baud, int dataBits, unsigned stopBits, char parity, unsigned flowControl)
{
    return 0;
}

ssize_t writeUsartDevice(int fd, const void *buf, size_t count)
{
    return 0;
}

ssize_t readUsartDevice(int fd, void *buf, size_t count)
{
    return 0;
}

ssize_t readDspUsartDeviceChar(int fd, char *buf)
{
    return 0;
}

ssize_t readDspUsartDevice(int fd, char *buf, size_t count)
{
    return 0;
}

}
