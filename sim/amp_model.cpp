/*
 * Amplifier model on /dev/i2c-1. The handler runs on umockdev's worker
 * thread; tests and the console read the state from their own threads, so
 * everything is guarded by one mutex.
 */
#include "amp_model.h"

#include <algorithm>

#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <thread>

namespace sim {

namespace {

constexpr uint8_t kPageRegister = 0;
constexpr uint8_t kAcmMuteRegister = 4;
constexpr uint8_t kAcmMuteBits = 0x0C;
constexpr uint8_t kAdMuteRegister = 2;
constexpr uint8_t kAdCoefAddress = 0x1D;
constexpr uint8_t kAdCoefData = 0x1E;
constexpr uint8_t kAdCoefControl = 0x32;
constexpr uint8_t kAdStoreBank1 = 0x01;
constexpr uint8_t kAdStoreBank2 = 0x41;
constexpr unsigned kMaxRdwrMessages = I2C_RDWR_IOCTL_MAX_MSGS;

std::string hex2(unsigned v)
{
    char buf[8];
    snprintf(buf, sizeof buf, "%02x", v & 0xFFu);
    return buf;
}

} // namespace

struct AmpModel::Device {
    uint8_t addr;  // 8-bit form
    bool acm;      // ACM8625 (paged) or AD82120
    uint8_t page = 0;
    std::vector<uint8_t> regs = std::vector<uint8_t>(256 * 256, 0);
    std::array<std::array<uint8_t, 4>, 256> bank1{};
    std::array<std::array<uint8_t, 4>, 256> bank2{};
    size_t bank1Writes = 0;
    size_t bank2Writes = 0;
    uint8_t pointer = 0; // register pointer for plain I2C messages

    uint8_t &at(uint8_t page_, uint8_t reg) { return regs[static_cast<size_t>(page_) * 256 + reg]; }
    uint8_t at(uint8_t page_, uint8_t reg) const { return regs[static_cast<size_t>(page_) * 256 + reg]; }
};

AmpModel::AmpModel(Board &board, AmpFitting fitting) : board_(board), fitting_(fitting)
{
    for (uint8_t addr : {kAcmStereo, kAcmMono})
        devices_.push_back(std::make_unique<Device>(Device{addr, true}));
    for (uint8_t addr : {kAdMain, kAdSub})
        devices_.push_back(std::make_unique<Device>(Device{addr, false}));
    node_ = std::make_unique<IoctlNode>(board, "/dev/i2c-1",
                                        [this](IoctlCall &call, int *err) { return handle(call, err); });
}

AmpModel::~AmpModel()
{
    node_.reset();
}

AmpFitting AmpModel::fitting() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return fitting_;
}

void AmpModel::setFitting(AmpFitting fitting)
{
    std::lock_guard<std::mutex> lock(mutex_);
    fitting_ = fitting;
}

const AmpModel::Device *AmpModel::deviceFor8(uint8_t addr) const
{
    for (const auto &dev : devices_)
        if (dev->addr == addr)
            return dev.get();
    return nullptr;
}

AmpModel::Device *AmpModel::deviceFor8(uint8_t addr)
{
    for (auto &dev : devices_)
        if (dev->addr == addr)
            return dev.get();
    return nullptr;
}

// The device answering a kernel (7-bit) address on the current fitting.
AmpModel::Device *AmpModel::deviceFor(uint16_t kernelAddr)
{
    if (kernelAddr > 0x7F)
        return nullptr;
    Device *dev = deviceFor8(static_cast<uint8_t>(kernelAddr << 1));
    if (dev == nullptr)
        return nullptr;
    if ((fitting_ == AmpFitting::Acm8625 && dev->acm) || (fitting_ == AmpFitting::Ad82120 && !dev->acm))
        return dev;
    return nullptr;
}

bool AmpModel::transferFails()
{
    ++transferCount_;
    if (std::find(failNumbers_.begin(), failNumbers_.end(), transferCount_) != failNumbers_.end())
        return true;
    return failEvery_ != 0 && transferCount_ % failEvery_ == 0;
}

void AmpModel::writeReg(Device &dev, uint8_t reg, uint8_t value)
{
    const uint8_t page = dev.acm ? dev.page : 0;
    accesses_.push_back({dev.addr, true, page, reg, value, true});
    if (dev.acm && reg == kPageRegister) {
        dev.page = value;
        dev.at(value, kPageRegister) = value;
        return;
    }
    dev.at(page, reg) = value;
    if (!dev.acm && reg == kAdCoefControl && (value == kAdStoreBank1 || value == kAdStoreBank2)) {
        auto &bank = value == kAdStoreBank1 ? dev.bank1 : dev.bank2;
        auto &slot = bank[dev.at(0, kAdCoefAddress)];
        for (size_t k = 0; k < slot.size(); ++k)
            slot[k] = dev.at(0, static_cast<uint8_t>(kAdCoefData + k));
        ++(value == kAdStoreBank1 ? dev.bank1Writes : dev.bank2Writes);
    }
}

uint8_t AmpModel::readReg(Device &dev, uint8_t reg)
{
    const uint8_t page = dev.acm ? dev.page : 0;
    uint8_t value = dev.acm && reg == kPageRegister ? dev.page : dev.at(page, reg);
    accesses_.push_back({dev.addr, false, page, reg, value, true});
    return value;
}

void AmpModel::trace(const std::string &note, bool toDevice, Clock::time_point start)
{
    TraceEvent event;
    event.when = Clock::now();
    event.start = start;
    event.link = "i2c-1";
    event.toDevice = toDevice;
    event.note = note;
    event.bytes.assign(note.begin(), note.end());
    board_.trace().add(std::move(event));
}

int AmpModel::handle(IoctlCall &call, int *err)
{
    if (call.kind() != IoctlCall::Kind::Ioctl) {
        *err = EINVAL;
        return -1;
    }
    const unsigned long request = call.request();
    const auto arrived = Clock::now();
    std::string note;
    int result = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        switch (request) {
        case I2C_TENBIT:
        case I2C_TIMEOUT:
        case I2C_RETRIES:
            transfers_.push_back({request, 0, true});
            return 0;
        case I2C_SLAVE:
        case I2C_SLAVE_FORCE: {
            const unsigned long addr = call.argValue();
            if (addr > 0x7F) {
                transfers_.push_back({request, static_cast<uint16_t>(addr & 0xFFFF), false});
                *err = EINVAL;
                return -1;
            }
            slave_ = static_cast<uint16_t>(addr);
            transfers_.push_back({request, slave_, true});
            return 0;
        }
        case I2C_SMBUS: {
            ++transactions_;
            auto *args = static_cast<i2c_smbus_ioctl_data *>(call.resolveArg(sizeof(i2c_smbus_ioctl_data)));
            if (args == nullptr) {
                *err = EFAULT;
                return -1;
            }
            auto *data = static_cast<i2c_smbus_data *>(
                call.resolvePointer(args, offsetof(i2c_smbus_ioctl_data, data), sizeof(i2c_smbus_data)));
            if (data == nullptr) {
                *err = EFAULT;
                return -1;
            }
            const bool isRead = args->read_write == I2C_SMBUS_READ;
            const uint8_t reg = args->command;
            Device *dev = deviceFor(slave_);
            const bool busFault = transferFails();
            if (dev == nullptr || busFault) {
                *err = busFault ? EREMOTEIO : ENXIO;
                transfers_.push_back({request, slave_, false});
                accesses_.push_back({static_cast<uint8_t>(slave_ << 1), !isRead, 0, reg, 0, false});
                note = std::string(busFault ? "bus fault " : "NAK ") + hex2(slave_ << 1) + " [" + hex2(reg) + "]";
                result = -1;
                break;
            }
            if (args->size == I2C_SMBUS_BYTE_DATA) {
                if (isRead)
                    data->byte = readReg(*dev, reg);
                else
                    writeReg(*dev, reg, data->byte);
                note = std::string(isRead ? "R " : "W ") + hex2(dev->addr) + " p" + std::to_string(dev->page) +
                       " [" + hex2(reg) + "]=" + hex2(data->byte);
            } else if (args->size == I2C_SMBUS_I2C_BLOCK_DATA) {
                const unsigned len = data->block[0];
                if (len > I2C_SMBUS_BLOCK_MAX) {
                    *err = EINVAL;
                    transfers_.push_back({request, slave_, false});
                    return -1;
                }
                for (unsigned k = 0; k < len; ++k) {
                    const auto r = static_cast<uint8_t>(reg + k);
                    if (isRead)
                        data->block[1 + k] = readReg(*dev, r);
                    else
                        writeReg(*dev, r, data->block[1 + k]);
                }
                note = std::string(isRead ? "R " : "W ") + hex2(dev->addr) + " [" + hex2(reg) + "] block " +
                       std::to_string(len);
            } else {
                *err = EOPNOTSUPP;
                transfers_.push_back({request, slave_, false});
                return -1;
            }
            transfers_.push_back({request, slave_, true});
            break;
        }
        case I2C_RDWR: {
            ++transactions_;
            auto *rdwr = static_cast<i2c_rdwr_ioctl_data *>(call.resolveArg(sizeof(i2c_rdwr_ioctl_data)));
            if (rdwr == nullptr || rdwr->nmsgs == 0 || rdwr->nmsgs > kMaxRdwrMessages) {
                *err = rdwr == nullptr ? EFAULT : EINVAL;
                return -1;
            }
            const unsigned count = rdwr->nmsgs;
            auto *msgs = static_cast<i2c_msg *>(
                call.resolvePointer(rdwr, offsetof(i2c_rdwr_ioctl_data, msgs), count * sizeof(i2c_msg)));
            if (msgs == nullptr) {
                *err = EFAULT;
                return -1;
            }
            const bool busFault = transferFails();
            for (unsigned m = 0; m < count && result == 0; ++m) {
                const uint16_t addr = msgs[m].addr;
                Device *dev = deviceFor(addr);
                if (dev == nullptr || busFault) {
                    *err = busFault ? EREMOTEIO : ENXIO;
                    transfers_.push_back({request, addr, false});
                    note = std::string(busFault ? "bus fault " : "NAK ") + "rdwr addr " + hex2(addr);
                    result = -1;
                    break;
                }
                const unsigned len = msgs[m].len;
                uint8_t *buf = len == 0 ? nullptr
                                        : static_cast<uint8_t *>(call.resolvePointer(
                                              msgs, m * sizeof(i2c_msg) + offsetof(i2c_msg, buf), len));
                if (len != 0 && buf == nullptr) {
                    *err = EFAULT;
                    result = -1;
                    break;
                }
                if (msgs[m].flags & I2C_M_RD) {
                    for (unsigned k = 0; k < len; ++k)
                        buf[k] = readReg(*dev, static_cast<uint8_t>(dev->pointer + k));
                } else if (len > 0) {
                    dev->pointer = buf[0];
                    for (unsigned k = 1; k < len; ++k)
                        writeReg(*dev, static_cast<uint8_t>(dev->pointer + k - 1), buf[k]);
                }
                transfers_.push_back({request, addr, true});
                note += std::string(msgs[m].flags & I2C_M_RD ? "R " : "W ") + hex2(dev->addr) + " len " +
                        std::to_string(len) + "; ";
            }
            if (result == 0)
                result = static_cast<int>(count);
            break;
        }
        default:
            *err = ENOTTY;
            return -1;
        }
    }
    // Only transactions get here; the bus is busy with this one for the
    // charged time. A sleep this short overshoots by far more than it
    // lasts on a busy machine, so the time is waited out on the spot.
    const int64_t charge = chargeUs_.load(std::memory_order_relaxed);
    if (charge > 0) {
        const auto due = arrived + std::chrono::microseconds(charge);
        while (Clock::now() < due) {
        }
    }
    trace(note, true, arrived);
    return result;
}

void AmpModel::setTransactionTime(std::chrono::microseconds time)
{
    chargeUs_.store(time.count(), std::memory_order_relaxed);
}

size_t AmpModel::transactionCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return transactions_;
}

uint8_t AmpModel::reg(uint8_t addr, uint8_t r, uint8_t page) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    const Device *dev = deviceFor8(addr);
    if (dev == nullptr)
        return 0;
    if (dev->acm && r == kPageRegister)
        return dev->page;
    return dev->at(dev->acm ? page : 0, r);
}

void AmpModel::setReg(uint8_t addr, uint8_t r, uint8_t value, uint8_t page)
{
    std::lock_guard<std::mutex> lock(mutex_);
    Device *dev = deviceFor8(addr);
    if (dev == nullptr)
        return;
    if (dev->acm && r == kPageRegister)
        dev->page = value;
    else
        dev->at(dev->acm ? page : 0, r) = value;
}

uint8_t AmpModel::currentPage(uint8_t addr) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    const Device *dev = deviceFor8(addr);
    return dev != nullptr ? dev->page : 0;
}

std::array<uint8_t, 4> AmpModel::coef(uint8_t addr, int bank, uint8_t address) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    const Device *dev = deviceFor8(addr);
    if (dev == nullptr)
        return {};
    return bank == 2 ? dev->bank2[address] : dev->bank1[address];
}

size_t AmpModel::coefWrites(uint8_t addr, int bank) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    const Device *dev = deviceFor8(addr);
    if (dev == nullptr)
        return 0;
    return bank == 2 ? dev->bank2Writes : dev->bank1Writes;
}

bool AmpModel::muted(uint8_t addr) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    const Device *dev = deviceFor8(addr);
    if (dev == nullptr)
        return false;
    if (dev->acm)
        return (dev->at(0, kAcmMuteRegister) & kAcmMuteBits) != 0;
    return dev->at(0, kAdMuteRegister) != 0;
}

std::vector<AmpModel::Access> AmpModel::accesses() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return accesses_;
}

std::vector<AmpModel::Transfer> AmpModel::transfers() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return transfers_;
}

std::vector<AmpModel::Access> AmpModel::writesTo(uint8_t addr) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Access> out;
    for (const auto &a : accesses_)
        if (a.addr == addr && a.write && a.acked)
            out.push_back(a);
    return out;
}

void AmpModel::clearLog()
{
    std::lock_guard<std::mutex> lock(mutex_);
    accesses_.clear();
    transfers_.clear();
    transactions_ = 0;
}

void AmpModel::failEvery(unsigned n)
{
    std::lock_guard<std::mutex> lock(mutex_);
    failEvery_ = n;
    failNumbers_.clear();
    transferCount_ = 0;
}

void AmpModel::failTransfers(std::vector<unsigned> numbers)
{
    std::lock_guard<std::mutex> lock(mutex_);
    failEvery_ = 0;
    failNumbers_ = std::move(numbers);
    transferCount_ = 0;
}

std::string AmpModel::describe(uint8_t addr) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    const Device *dev = deviceFor8(addr);
    if (dev == nullptr)
        return hex2(addr) + " unknown";
    std::string out = "0x" + hex2(addr) + (dev->acm ? " ACM8625" : " AD82120");
    const bool present = (fitting_ == AmpFitting::Acm8625 && dev->acm) || (fitting_ == AmpFitting::Ad82120 && !dev->acm);
    if (!present)
        return out + " absent";
    if (dev->acm) {
        out += " page=" + std::to_string(dev->page) + " reg4=0x" + hex2(dev->at(0, kAcmMuteRegister)) +
               ((dev->at(0, kAcmMuteRegister) & kAcmMuteBits) ? " muted" : " playing");
    } else {
        out += " reg2=0x" + hex2(dev->at(0, kAdMuteRegister)) + (dev->at(0, kAdMuteRegister) ? " muted" : " playing") +
               " coef bank1 stores=" + std::to_string(dev->bank1Writes) + " bank2 stores=" +
               std::to_string(dev->bank2Writes);
    }
    out += "\n  regs:";
    const uint8_t page = dev->acm ? dev->page : 0;
    for (unsigned r = 0; r < 134; ++r) {
        if (r % 16 == 0)
            out += "\n  " + hex2(r) + ":";
        out += " " + hex2(dev->at(page, static_cast<uint8_t>(r)));
    }
    return out;
}

} // namespace sim
