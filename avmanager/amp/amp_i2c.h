/*
 * Register access to the speaker amplifiers on the Linux i2c-dev bus.
 * Every transfer opens "/dev/i2c-<bus>", selects the slave, performs one
 * SMBus or plain I2C transfer and closes the node again: no descriptor is
 * kept between calls. Addresses are given in 8-bit (write-address) form as
 * the amplifier data sheets print them; the kernel is given the 7-bit form.
 */
#ifndef AVM_AMP_I2C_H
#define AVM_AMP_I2C_H

#ifdef __cplusplus
#include <atomic>
#include <cstdint>
#else
#include <stdint.h>
#endif

/* The bus every amplifier sits on. */
#define AMP_I2C_BUS 1
/* Block transfers carry fewer than this many data bytes. */
#define AMP_I2C_BLOCK_MAX 32

#ifdef __cplusplus
extern "C" {
/* Failed register writes of the wrapper layer since start; printed modulo
 * 256 in the failure message, never reset, never used for a decision. */
extern std::atomic<uint32_t> gAmpI2cWriteFailCount;
#endif

int Standard_i2c_open(unsigned int bus);
int write_i2c_byte(unsigned int bus, uint8_t addr, uint8_t reg, uint8_t value);
int read_i2c_byte(unsigned int bus, uint8_t addr, uint8_t reg, uint8_t *value);
int write_i2c_byte_block(unsigned int bus, uint8_t addr, uint8_t reg, int length, const uint8_t *data);
int read_i2c_byte_block(unsigned int bus, uint8_t addr, uint8_t reg, int length, uint8_t *out);
int aml_write_i2c_byte_block(unsigned int bus, uint8_t addr, uint8_t reg, int length, const uint8_t *data);
int aml_read_i2c_byte_block(unsigned int bus, uint8_t addr, uint8_t reg, int length, uint8_t *out);

/* Transfers (one I2C_SMBUS or I2C_RDWR request each) the calling thread
 * has made since it started; a programming or a format switch reports its
 * own count to the tracer as the difference. */
uint32_t amp_i2c_transactions_on_this_thread(void);

int HV2_I2CWrite(uint8_t addr, uint8_t reg, uint8_t value);
uint8_t HV2_I2CRead(uint8_t addr, uint8_t reg);
int HV2_I2CMaskWrite(uint8_t addr, uint8_t reg, uint8_t mask, uint8_t value);
int HV2_I2CWait(uint8_t addr, uint8_t reg, uint8_t mask, uint8_t expected);
void HV2_MSDelay(unsigned int ms);
void HV2_Delay(unsigned int us);

#ifdef __cplusplus
}
#endif

#endif
