/*
 * The amplifiers on the kernel board: i2c-stub on bus 1 (loaded by
 * scripts/kernel-vm) answers at the four amplifier addresses and keeps
 * their registers, the ACM8625 pair with a page register (register 0
 * selects the page of registers 1..255, as the stub's bank parameters
 * model it). What crossed the bus is the kernel's own record: the SMBus
 * trace events of adapter 1, read back as register accesses in the
 * virtual board's form (AmpModel::Access), the ACM8625's page included.
 *
 * What i2c-stub cannot be, and so stays on the virtual board: a plain I2C
 * adapter (it speaks SMBus only, so I2C_RDWR transfers fail there), the
 * AD82120's coefficient RAM behind its store register (the stub keeps
 * registers, not what a store does with them), and a bus that refuses
 * transfers on demand.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/amp_model.h"

namespace sim::kernel {

class KernelI2cBus {
public:
    // Starts a fresh record of bus 1's transfers.
    KernelI2cBus();
    ~KernelI2cBus();
    KernelI2cBus(const KernelI2cBus &) = delete;
    KernelI2cBus &operator=(const KernelI2cBus &) = delete;

    const std::string &error() const { return error_; }

    // Register writes (and reads, with `reads`) recorded since the start,
    // in order. ACM8625 accesses carry the page selected at the time.
    std::vector<AmpModel::Access> accesses(bool reads = false) const;
    std::vector<AmpModel::Access> writesTo(uint8_t addr) const;

    // A register as the stub holds it (8-bit address form), read outside
    // the record; for the ACM8625 on `page`, which is selected again
    // afterwards as it was.
    int reg(uint8_t addr, uint8_t reg, int page = -1);

private:
    std::string error_;
};

} // namespace sim::kernel
