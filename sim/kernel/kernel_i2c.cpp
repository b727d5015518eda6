/*
 * Bus 1 of the kernel board: i2c-stub's registers and the kernel's SMBus
 * trace events.
 */
#include "kernel_i2c.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "usb_gadget.h"

namespace sim::kernel {

namespace {

constexpr const char *kTracing = "/sys/kernel/tracing/";
constexpr const char *kBusNode = "/dev/i2c-1";
constexpr const char *kFilter = "adapter_nr == 1";
// Room for a whole amplifier programming (some thousands of transfers).
constexpr const char *kBufferKb = "8192";
constexpr uint8_t kPageRegister = 0;

bool isAcm(uint8_t addr) { return addr == AmpModel::kAcmStereo || addr == AmpModel::kAcmMono; }

bool tracing(const char *file, const std::string &text) { return writeAttribute(std::string(kTracing) + file, text); }

int smbus(int fd, char direction, uint8_t command, i2c_smbus_data *data)
{
    i2c_smbus_ioctl_data args{static_cast<uint8_t>(direction), command, I2C_SMBUS_BYTE_DATA, data};
    return ioctl(fd, I2C_SMBUS, &args);
}

} // namespace

KernelI2cBus::KernelI2cBus()
{
    const bool ok = tracing("tracing_on", "0") && tracing("buffer_size_kb", kBufferKb) &&
                    tracing("events/smbus/smbus_write/filter", kFilter) &&
                    tracing("events/smbus/smbus_reply/filter", kFilter) &&
                    tracing("events/smbus/smbus_write/enable", "1") &&
                    tracing("events/smbus/smbus_reply/enable", "1");
    // Opening the buffer for writing with truncation empties it.
    std::ofstream(std::string(kTracing) + "trace", std::ios::trunc);
    if (!ok || !tracing("tracing_on", "1"))
        error_ = "the kernel's SMBus trace events cannot be turned on (is tracefs mounted?)";
}

KernelI2cBus::~KernelI2cBus()
{
    tracing("tracing_on", "0");
    tracing("events/smbus/smbus_write/enable", "0");
    tracing("events/smbus/smbus_reply/enable", "0");
}

// Lines look like
//   <task>-<pid> [cpu] flags time: smbus_write: i2c-1 a=02c f=0000 c=4 BYTE_DATA l=1 [0c]
// and smbus_reply for what a read answered.
std::vector<AmpModel::Access> KernelI2cBus::accesses(bool reads) const
{
    std::ifstream in(std::string(kTracing) + "trace");
    std::vector<AmpModel::Access> out;
    uint8_t page[2] = {0, 0}; // stereo, mono
    std::string line;
    while (std::getline(in, line)) {
        const bool write = line.find(" smbus_write: ") != std::string::npos;
        const bool reply = line.find(" smbus_reply: ") != std::string::npos;
        if (!write && !(reads && reply))
            continue;
        unsigned bus = 0, addr = 0, flags = 0, command = 0, length = 0, value = 0;
        char protocol[24] = {};
        const size_t at = line.find("i2c-");
        if (at == std::string::npos ||
            std::sscanf(line.c_str() + at, "i2c-%u a=%x f=%x c=%x %23s l=%u [%x", &bus, &addr, &flags, &command,
                        protocol, &length, &value) != 7 ||
            bus != 1 || std::strcmp(protocol, "BYTE_DATA") != 0)
            continue;
        AmpModel::Access access{};
        access.addr = static_cast<uint8_t>(addr << 1);
        access.write = write;
        access.reg = static_cast<uint8_t>(command);
        access.value = static_cast<uint8_t>(value);
        access.acked = true;
        if (isAcm(access.addr)) {
            uint8_t &current = page[access.addr == AmpModel::kAcmMono];
            access.page = current;
            if (write && access.reg == kPageRegister)
                current = access.value;
        }
        out.push_back(access);
    }
    return out;
}

std::vector<AmpModel::Access> KernelI2cBus::writesTo(uint8_t addr) const
{
    std::vector<AmpModel::Access> out;
    for (const auto &access : accesses())
        if (access.addr == addr)
            out.push_back(access);
    return out;
}

int KernelI2cBus::reg(uint8_t addr, uint8_t reg, int page)
{
    tracing("tracing_on", "0");
    int result = -1;
    const int fd = open(kBusNode, O_RDWR | O_CLOEXEC);
    if (fd >= 0 && ioctl(fd, I2C_SLAVE_FORCE, addr >> 1) == 0) {
        i2c_smbus_data data{};
        int oldPage = -1;
        if (page >= 0 && smbus(fd, I2C_SMBUS_READ, kPageRegister, &data) == 0) {
            oldPage = data.byte;
            data.byte = static_cast<uint8_t>(page);
            smbus(fd, I2C_SMBUS_WRITE, kPageRegister, &data);
        }
        if (smbus(fd, I2C_SMBUS_READ, reg, &data) == 0)
            result = data.byte;
        if (oldPage >= 0) {
            data.byte = static_cast<uint8_t>(oldPage);
            smbus(fd, I2C_SMBUS_WRITE, kPageRegister, &data);
        }
    }
    if (fd >= 0)
        close(fd);
    tracing("tracing_on", "1");
    return result;
}

} // namespace sim::kernel
