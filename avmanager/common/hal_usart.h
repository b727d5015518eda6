/*
 * hal_usart: the only code that touches a serial port. Opens a terminal
 * device in raw mode and offers thin read/write calls on its descriptor.
 * Keeps no state; the caller owns the descriptor. Log tag "UART".
 */
#ifndef AVM_HAL_USART_H
#define AVM_HAL_USART_H

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

int openUsartDevice(int *fd, const char *path, unsigned baud, int dataBits, unsigned stopBits,
                    char parity, unsigned flowControl);
ssize_t writeUsartDevice(int fd, const void *buf, size_t count);
ssize_t readUsartDevice(int fd, void *buf, size_t count);
ssize_t readDspUsartDeviceChar(int fd, char *buf);
ssize_t readDspUsartDevice(int fd, char *buf, size_t count);

#ifdef __cplusplus
}
#endif

#endif
