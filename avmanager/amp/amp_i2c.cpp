/*
 * amp_i2c: register access to the speaker amplifiers over i2c-dev.
 *
 * Owns: nothing but the write-failure counter. Each call opens the bus node,
 * performs its ioctls and closes the node before returning, so calls share
 * no descriptor and need no lock; callers that must not interleave
 * transfers to one amplifier (the format switch) serialise themselves.
 *
 * Threads: any caller — the binder threads setting the speaker placement,
 * the start-up thread, the Fig DSP receive thread.
 *
 * State:
 *   gAmpI2cWriteFailCount  failed wrapper-level writes; bumped by any thread
 *                          (relaxed atomic: it is only ever printed).
 *   tTransactions          transfers made by the calling thread (thread-local).
 */
#include "amp/amp_i2c.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <android/log.h>

namespace {

constexpr const char *TAG = "DSP";
constexpr const char *kBusNodeFormat = "/dev/i2c-%d";
constexpr size_t kBusPathSize = 32;
constexpr int kWaitRounds = 300;
constexpr unsigned kWaitStepUs = 1000;

#define AMP_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, TAG, __VA_ARGS__)

thread_local uint32_t tTransactions = 0;

// One transfer on the bus: what the tracer's transaction count counts.
int transfer(int fd, unsigned long request, void *args)
{
    ++tTransactions;
    return ioctl(fd, request, args);
}

int openBus(unsigned int bus)
{
    char path[kBusPathSize];
    snprintf(path, sizeof path, kBusNodeFormat, static_cast<int>(bus));
    return open(path, O_RDWR);
}

// The kernel takes the 7-bit address; callers speak the 8-bit write address.
uint8_t kernelAddress(uint8_t addr)
{
    return static_cast<uint8_t>(addr >> 1);
}

// Opens the bus and selects the slave for an SMBus transfer. The forcing
// request is used on purpose (the driver may have bound the address), even
// though the failure message speaks of I2C_SLAVE. Returns the descriptor or
// -1 after logging with the direction's wording.
int openSlave(unsigned int bus, uint8_t addr, bool forWrite)
{
    const char *dir = forWrite ? "standard_i2c_write" : "standard_i2c_read";
    int fd = openBus(bus);
    if (fd < 0) {
        AMP_LOGE("%s Standard_i2c_open Failed\n", dir);
        return -1;
    }
    // The result of the ten-bit request is not looked at.
    (void)ioctl(fd, I2C_TENBIT, 0UL);
    if (ioctl(fd, I2C_SLAVE_FORCE, static_cast<unsigned long>(kernelAddress(addr))) < 0) {
        perror("i2c ioctl:");
        AMP_LOGE("%s ioctl(I2C_SLAVE) Failed\n", dir);
        close(fd);
        return -1;
    }
    return fd;
}

int smbusTransfer(int fd, uint8_t readWrite, uint8_t reg, uint32_t size, i2c_smbus_data *data)
{
    i2c_smbus_ioctl_data args{};
    args.read_write = readWrite;
    args.command = reg;
    args.size = size;
    args.data = data;
    return transfer(fd, I2C_SMBUS, &args);
}

bool blockLengthValid(int length)
{
    return length >= 0 && length < AMP_I2C_BLOCK_MAX;
}

// The aml_ pair asks the kernel for a short timeout and two retries.
void amlPrepare(int fd)
{
    (void)ioctl(fd, I2C_TIMEOUT, 1UL);
    (void)ioctl(fd, I2C_RETRIES, 2UL);
}

void sleepMicroseconds(unsigned long us)
{
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(us / 1000000UL);
    ts.tv_nsec = static_cast<long>((us % 1000000UL) * 1000UL);
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

} // namespace

extern "C" {

std::atomic<uint32_t> gAmpI2cWriteFailCount{0};

uint32_t amp_i2c_transactions_on_this_thread(void)
{
    return tTransactions;
}

int Standard_i2c_open(unsigned int bus)
{
    return openBus(bus);
}

int write_i2c_byte(unsigned int bus, uint8_t addr, uint8_t reg, uint8_t value)
{
    int fd = openSlave(bus, addr, true);
    if (fd < 0)
        return -1;
    i2c_smbus_data data{};
    data.byte = value;
    int ret = smbusTransfer(fd, I2C_SMBUS_WRITE, reg, I2C_SMBUS_BYTE_DATA, &data);
    close(fd);
    if (ret < 0) {
        AMP_LOGE("standard_i2c_write ioctl(I2C_SMBUS) Failed(%d)\n", ret);
        return -1;
    }
    return 0;
}

int read_i2c_byte(unsigned int bus, uint8_t addr, uint8_t reg, uint8_t *value)
{
    int fd = openSlave(bus, addr, false);
    if (fd < 0)
        return -1;
    i2c_smbus_data data{};
    int ret = smbusTransfer(fd, I2C_SMBUS_READ, reg, I2C_SMBUS_BYTE_DATA, &data);
    close(fd);
    if (ret < 0) {
        AMP_LOGE("standard_i2c_read ioctl(I2C_SMBUS) Failed(%d)\n", ret);
        return -1;
    }
    if (value != nullptr)
        *value = data.byte;
    return 0;
}

int write_i2c_byte_block(unsigned int bus, uint8_t addr, uint8_t reg, int length, const uint8_t *data)
{
    if (!blockLengthValid(length)) {
        AMP_LOGE("standard_i2c_write ioctl Invalid parameter(%d)\n", length);
        return -1;
    }
    int fd = openSlave(bus, addr, true);
    if (fd < 0)
        return -1;
    i2c_smbus_data block{};
    block.block[0] = static_cast<uint8_t>(length);
    if (length > 0 && data != nullptr)
        memcpy(&block.block[1], data, static_cast<size_t>(length));
    int ret = smbusTransfer(fd, I2C_SMBUS_WRITE, reg, I2C_SMBUS_I2C_BLOCK_DATA, &block);
    close(fd);
    if (ret < 0) {
        AMP_LOGE("standard_i2c_write ioctl(I2C_SMBUS) Failed(%d)\n", length);
        return -1;
    }
    return 0;
}

int read_i2c_byte_block(unsigned int bus, uint8_t addr, uint8_t reg, int length, uint8_t *out)
{
    if (!blockLengthValid(length)) {
        AMP_LOGE("standard_i2c_read Invalid parameter(%d >= %d)\n", length, AMP_I2C_BLOCK_MAX);
        return -1;
    }
    int fd = openSlave(bus, addr, false);
    if (fd < 0)
        return -1;
    i2c_smbus_data block{};
    block.block[0] = static_cast<uint8_t>(length);
    int ret = smbusTransfer(fd, I2C_SMBUS_READ, reg, I2C_SMBUS_I2C_BLOCK_DATA, &block);
    close(fd);
    if (ret < 0) {
        AMP_LOGE("standard_i2c_read ioctl(I2C_SMBUS) Failed(%d)\n", ret);
        return -1;
    }
    if (block.block[0] != length) {
        AMP_LOGE("standard_i2c_read ioctl read Failed(%d)(%d)\n", block.block[0], length);
        return -1;
    }
    if (length > 0 && out != nullptr)
        memcpy(out, &block.block[1], static_cast<size_t>(length));
    return 0;
}

int aml_write_i2c_byte_block(unsigned int bus, uint8_t addr, uint8_t reg, int length, const uint8_t *data)
{
    if (!blockLengthValid(length)) {
        AMP_LOGE("standard_i2c_write ioctl Invalid parameter(%d)\n", length);
        return -1;
    }
    int fd = openBus(bus);
    if (fd < 0) {
        AMP_LOGE("standard_i2c_write Standard_i2c_open Failed\n");
        return -1;
    }
    amlPrepare(fd);
    std::array<uint8_t, AMP_I2C_BLOCK_MAX> buffer{};
    buffer[0] = reg;
    if (length > 0 && data != nullptr)
        memcpy(&buffer[1], data, static_cast<size_t>(length));
    i2c_msg msg{};
    // This pair passes the address as given, not shifted to 7 bits.
    msg.addr = addr;
    msg.flags = 0;
    msg.len = static_cast<uint16_t>(length + 1);
    msg.buf = buffer.data();
    i2c_rdwr_ioctl_data rdwr{};
    rdwr.msgs = &msg;
    rdwr.nmsgs = 1;
    int ret = transfer(fd, I2C_RDWR, &rdwr);
    close(fd);
    if (ret < 0)
        AMP_LOGE("ERROR: Unable to write data: 0x%x to 0x%x\n", buffer[1], reg);
    return ret;
}

int aml_read_i2c_byte_block(unsigned int bus, uint8_t addr, uint8_t reg, int length, uint8_t *out)
{
    if (!blockLengthValid(length)) {
        // The read side reports a bad length with the write wording.
        AMP_LOGE("standard_i2c_write ioctl Invalid parameter(%d)\n", length);
        return -1;
    }
    int fd = openBus(bus);
    if (fd < 0) {
        AMP_LOGE("standard_i2c_write Standard_i2c_open Failed\n");
        return -1;
    }
    amlPrepare(fd);
    uint8_t regByte = reg;
    std::array<uint8_t, AMP_I2C_BLOCK_MAX> scratch{};
    uint8_t *buffer = out != nullptr ? out : scratch.data();
    std::array<i2c_msg, 2> msgs{};
    msgs[0].addr = kernelAddress(addr);
    msgs[0].flags = 0;
    msgs[0].len = 1;
    msgs[0].buf = &regByte;
    msgs[1].addr = kernelAddress(addr);
    msgs[1].flags = I2C_M_RD;
    msgs[1].len = static_cast<uint16_t>(length);
    msgs[1].buf = buffer;
    i2c_rdwr_ioctl_data rdwr{};
    rdwr.msgs = msgs.data();
    rdwr.nmsgs = static_cast<uint32_t>(msgs.size());
    int ret = transfer(fd, I2C_RDWR, &rdwr);
    close(fd);
    if (ret < 0)
        AMP_LOGE("ERROR: read data 0x%x from address 0x%x\n", length > 0 ? buffer[0] : 0, reg);
    return ret;
}

int HV2_I2CWrite(uint8_t addr, uint8_t reg, uint8_t value)
{
    int ret = write_i2c_byte(AMP_I2C_BUS, addr, reg, value);
    if (ret != 0) {
        uint32_t failures = gAmpI2cWriteFailCount.fetch_add(1, std::memory_order_relaxed) + 1;
        AMP_LOGE("Sound i2c_write failed: %d,%d,%d [%d]\n", addr, reg, value, static_cast<int>(failures & 0xFF));
    }
    return ret & 0xFF;
}

uint8_t HV2_I2CRead(uint8_t addr, uint8_t reg)
{
    uint8_t value = 0;
    if (read_i2c_byte(AMP_I2C_BUS, addr, reg, &value) != 0) {
        value = 0;
        AMP_LOGE("Sound i2c_read failed: %d,%d,%d\n", addr, reg, value);
    }
    return value;
}

int HV2_I2CMaskWrite(uint8_t addr, uint8_t reg, uint8_t mask, uint8_t value)
{
    // A failed read still writes, taking 0 as the old value.
    uint8_t old = HV2_I2CRead(addr, reg);
    uint8_t merged = static_cast<uint8_t>((value & mask) + (old & static_cast<uint8_t>(~mask)));
    return HV2_I2CWrite(addr, reg, merged);
}

int HV2_I2CWait(uint8_t addr, uint8_t reg, uint8_t mask, uint8_t expected)
{
    AMP_LOGE("[HV2_I2CWait][Sound] in slave = 0x%02x, offset = 0x%02x\n", addr, reg);
    uint8_t masked = 0;
    for (int i = 0; i < kWaitRounds; ++i) {
        masked = static_cast<uint8_t>(HV2_I2CRead(addr, reg) & mask);
        if (masked == expected) {
            AMP_LOGE("[HV2_I2CWait][Sound] out value = 0x%02x, i = %d\n", expected, i);
            return 0;
        }
        sleepMicroseconds(kWaitStepUs);
    }
    // A time-out is not an error for the caller: the wait always succeeds.
    AMP_LOGE("[HV2_I2CWait][Sound] out value = 0x%02x, i = %d\n", masked, kWaitRounds);
    return 0;
}

void HV2_MSDelay(unsigned int ms)
{
    sleepMicroseconds(static_cast<unsigned long>(ms) * 1000UL);
}

void HV2_Delay(unsigned int us)
{
    sleepMicroseconds(us);
}

} // extern "C"
