/*
 * Speaker amplifiers on I2C bus 1 (/dev/i2c-1): one model per fitting.
 *
 *   ACM8625: stereo 0x58 and mono 0x5A (8-bit form; the kernel sees 0x2C,
 *            0x2D). Register 0 of every page selects the page; 256 pages of
 *            256 registers. Mute: page 0, register 4, bits 0x0C.
 *   AD82120: main 0x60 and subwoofer 0x62 (kernel 0x30, 0x31). Register 2
 *            is the mute register. Coefficient RAM: 0x1D holds the address,
 *            0x1E..0x21 the pending bytes; writing 0x01 to 0x32 stores them
 *            into bank 1 at that address, 0x41 into bank 2.
 *
 * Only the chosen fitting's devices answer; every other address NAKs (the
 * transfer ioctl fails with ENXIO). The bus can also fail every Nth
 * transfer (EREMOTEIO). Handles I2C_TENBIT, I2C_SLAVE(_FORCE), I2C_SMBUS
 * byte-data and I2C-block-data in both directions, I2C_TIMEOUT,
 * I2C_RETRIES and I2C_RDWR. Every register access is logged and traced on
 * the link "i2c-1".
 */
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "board.h"

namespace sim {

enum class AmpFitting { Acm8625, Ad82120, None };

class AmpModel {
public:
    static constexpr uint8_t kAcmStereo = 0x58; // 8-bit address forms
    static constexpr uint8_t kAcmMono = 0x5A;
    static constexpr uint8_t kAdMain = 0x60;
    static constexpr uint8_t kAdSub = 0x62;

    // One register access as the device saw it (block transfers give one
    // record per byte, at consecutive registers).
    struct Access {
        uint8_t addr;   // 8-bit form (kernel address << 1)
        bool write;
        uint8_t page;   // ACM8625: page selected at the time; AD82120: 0
        uint8_t reg;
        uint8_t value;  // written, or answered
        bool acked;     // false: the device (or the bus) refused it
    };
    // One ioctl as the bus saw it.
    struct Transfer {
        unsigned long request;
        uint16_t kernelAddr; // slave selected or message address
        bool ok;
    };

    AmpModel(Board &board, AmpFitting fitting);
    ~AmpModel();
    AmpModel(const AmpModel &) = delete;
    AmpModel &operator=(const AmpModel &) = delete;

    AmpFitting fitting() const;
    void setFitting(AmpFitting fitting);

    // Register state. For the ACM8625 the page is given explicitly; the
    // AD82120 ignores it.
    uint8_t reg(uint8_t addr, uint8_t reg, uint8_t page = 0) const;
    void setReg(uint8_t addr, uint8_t reg, uint8_t value, uint8_t page = 0);
    uint8_t currentPage(uint8_t addr) const;
    // AD82120 coefficient RAM: bank 1 or 2, 256 addresses of 4 bytes.
    std::array<uint8_t, 4> coef(uint8_t addr, int bank, uint8_t address) const;
    // Number of coefficient stores per bank since start.
    size_t coefWrites(uint8_t addr, int bank) const;
    // Mute as the fitting defines it (ACM8625: page-0 register 4 & 0x0C;
    // AD82120: register 2 non-zero).
    bool muted(uint8_t addr) const;

    std::vector<Access> accesses() const;
    std::vector<Transfer> transfers() const;
    // Writes of one device, in order.
    std::vector<Access> writesTo(uint8_t addr) const;
    void clearLog();

    // 0: never; N: every Nth transfer ioctl fails with EREMOTEIO.
    void failEvery(unsigned n);
    // Only the transfer ioctls numbered here (1 = the next one) fail with
    // EREMOTEIO; replaces failEvery.
    void failTransfers(std::vector<unsigned> numbers);
    // Time charged per bus transaction (an I2C_SMBUS or I2C_RDWR call):
    // the call completes no sooner than this after it reached the bus, as
    // on a real bus (a byte-data transfer at 400 kHz takes about 100 us).
    // Zero (the default) answers at once. Slave selection and bus options
    // are not transactions and cost nothing.
    void setTransactionTime(std::chrono::microseconds time);
    // Bus transactions answered since start (or clearLog()), failed ones
    // included.
    size_t transactionCount() const;
    // A one-line view of a device for the console ("0x60 mute=0x7f ...").
    std::string describe(uint8_t addr) const;

private:
    struct Device;
    int handle(IoctlCall &call, int *err);
    Device *deviceFor(uint16_t kernelAddr);
    const Device *deviceFor8(uint8_t addr) const;
    Device *deviceFor8(uint8_t addr);
    bool transferFails();
    void writeReg(Device &dev, uint8_t reg, uint8_t value);
    uint8_t readReg(Device &dev, uint8_t reg);
    void trace(const std::string &note, bool toDevice, Clock::time_point start);

    Board &board_;
    mutable std::mutex mutex_; // guards everything below (umockdev worker vs. tests)
    AmpFitting fitting_;
    std::vector<std::unique_ptr<Device>> devices_;
    uint16_t slave_ = 0;       // kernel address selected by I2C_SLAVE(_FORCE)
    unsigned failEvery_ = 0;
    std::vector<unsigned> failNumbers_; // see failTransfers
    unsigned long transferCount_ = 0;
    size_t transactions_ = 0;          // I2C_SMBUS and I2C_RDWR calls (see transactionCount)
    std::atomic<int64_t> chargeUs_{0}; // see setTransactionTime; read on the worker thread
    std::vector<Access> accesses_;
    std::vector<Transfer> transfers_;
    std::unique_ptr<IoctlNode> node_; // last: the handler may run once it exists
};

} // namespace sim
