// Register access on I2C bus 1 against the amplifier model: what reaches
// the bus (requests, addresses, bytes), failure messages and the counter.
#include <gtest/gtest.h>

#include <linux/i2c-dev.h>

#include <chrono>
#include <vector>

#include "amp/amp_i2c.h"
#include "log_capture.h"
#include "sim/amp_model.h"
#include "sim/board.h"

using namespace std::chrono_literals;
using sim::AmpFitting;
using sim::AmpModel;

namespace {

size_t countRequests(const std::vector<AmpModel::Transfer> &transfers, unsigned long request)
{
    size_t n = 0;
    for (const auto &t : transfers)
        if (t.request == request)
            ++n;
    return n;
}

} // namespace

TEST(AmpI2c, ByteWriteSelectsShiftedAddressAndWritesRegister)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    ASSERT_EQ(write_i2c_byte(1, 0x60, 0x05, 0xAB), 0);
    EXPECT_EQ(amp.reg(0x60, 0x05), 0xAB);
    const auto transfers = amp.transfers();
    ASSERT_EQ(transfers.size(), 3u);
    EXPECT_EQ(transfers[0].request, static_cast<unsigned long>(I2C_TENBIT));
    EXPECT_EQ(transfers[1].request, static_cast<unsigned long>(I2C_SLAVE_FORCE));
    EXPECT_EQ(transfers[1].kernelAddr, 0x30);
    EXPECT_EQ(transfers[2].request, static_cast<unsigned long>(I2C_SMBUS));
    EXPECT_TRUE(transfers[2].ok);
}

TEST(AmpI2c, ByteReadReturnsRegisterContent)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Acm8625);
    amp.setReg(0x5A, 0x04, 0x0C);
    uint8_t value = 0;
    ASSERT_EQ(read_i2c_byte(1, 0x5A, 0x04, &value), 0);
    EXPECT_EQ(value, 0x0C);
    EXPECT_EQ(HV2_I2CRead(0x5A, 0x04), 0x0C);
}

TEST(AmpI2c, BlockLengthOf31IsAcceptedAnd32IsRefusedBeforeOpening)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    avmtest::LogCapture log;
    std::vector<uint8_t> data(32);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(0xA0 + i);
    ASSERT_EQ(write_i2c_byte_block(1, 0x60, 0x40, 31, data.data()), 0);
    for (int i = 0; i < 31; ++i)
        EXPECT_EQ(amp.reg(0x60, static_cast<uint8_t>(0x40 + i)), 0xA0 + i);
    amp.clearLog();
    EXPECT_EQ(write_i2c_byte_block(1, 0x60, 0x40, 32, data.data()), -1);
    EXPECT_TRUE(log.contains("DSP", "standard_i2c_write ioctl Invalid parameter(32)\n"));
    EXPECT_EQ(read_i2c_byte_block(1, 0x60, 0x40, 32, data.data()), -1);
    EXPECT_TRUE(log.contains("DSP", "standard_i2c_read Invalid parameter(32 >= 32)\n"));
    EXPECT_EQ(aml_write_i2c_byte_block(1, 0x30, 0x40, 32, data.data()), -1);
    EXPECT_EQ(aml_read_i2c_byte_block(1, 0x60, 0x40, 32, data.data()), -1);
    EXPECT_EQ(log.count("DSP", "standard_i2c_write ioctl Invalid parameter(32)\n"), 3u);
    EXPECT_TRUE(amp.transfers().empty()) << "nothing may reach the bus";
}

TEST(AmpI2c, ZeroLengthBlockWriteSendsOnlyTheLengthByte)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    ASSERT_EQ(write_i2c_byte_block(1, 0x62, 0x10, 0, nullptr), 0);
    EXPECT_EQ(countRequests(amp.transfers(), I2C_SMBUS), 1u);
    EXPECT_TRUE(amp.accesses().empty());
}

TEST(AmpI2c, BlockReadCopiesTheRequestedBytes)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    for (int i = 0; i < 4; ++i)
        amp.setReg(0x60, static_cast<uint8_t>(0x20 + i), static_cast<uint8_t>(0x11 * (i + 1)));
    uint8_t out[4] = {};
    ASSERT_EQ(read_i2c_byte_block(1, 0x60, 0x20, 4, out), 0);
    EXPECT_EQ(out[0], 0x11);
    EXPECT_EQ(out[3], 0x44);
}

TEST(AmpI2c, MaskWriteWithFullMaskWritesTheValueUnchanged)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    amp.setReg(0x60, 0x07, 0x5A);
    HV2_I2CMaskWrite(0x60, 0x07, 0xFF, 0xC3);
    EXPECT_EQ(amp.reg(0x60, 0x07), 0xC3);
}

TEST(AmpI2c, MaskWriteWithZeroMaskRewritesTheOldByte)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    amp.setReg(0x60, 0x07, 0x5A);
    HV2_I2CMaskWrite(0x60, 0x07, 0x00, 0xC3);
    EXPECT_EQ(amp.reg(0x60, 0x07), 0x5A);
    const auto writes = amp.writesTo(0x60);
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].value, 0x5A);
}

TEST(AmpI2c, MaskWriteMergesMaskedBits)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    amp.setReg(0x60, 0x07, 0xF0);
    HV2_I2CMaskWrite(0x60, 0x07, 0x0F, 0x35);
    EXPECT_EQ(amp.reg(0x60, 0x07), 0xF5);
}

TEST(AmpI2c, MaskWriteAfterAFailedReadStillWritesWithZeroAsOld)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    amp.setReg(0x60, 0x07, 0xF0);
    amp.failEvery(2);
    HV2_I2CRead(0x60, 0x00); // transfer 1 goes through; the mask write's read is transfer 2
    avmtest::LogCapture log;
    HV2_I2CMaskWrite(0x60, 0x07, 0x0F, 0x35);
    EXPECT_TRUE(log.contains("DSP", "Sound i2c_read failed: 96,7,0\n"));
    EXPECT_EQ(amp.reg(0x60, 0x07), 0x05);
}

TEST(AmpI2c, WaitReturnsZeroAfterAbout300msWhenTheConditionIsNeverMet)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    amp.setReg(0x60, 0x09, 0x00);
    avmtest::LogCapture log;
    const auto start = sim::Clock::now();
    EXPECT_EQ(HV2_I2CWait(0x60, 0x09, 0x01, 0x01), 0);
    const auto elapsed = sim::Clock::now() - start;
    EXPECT_GE(elapsed, 300ms);
    EXPECT_TRUE(log.contains("DSP", "[HV2_I2CWait][Sound] in slave = 0x60, offset = 0x09\n"));
    EXPECT_TRUE(log.contains("DSP", "[HV2_I2CWait][Sound] out value = 0x00, i = 300\n"));
    size_t reads = 0;
    for (const auto &a : amp.accesses())
        reads += a.write ? 0 : 1;
    EXPECT_EQ(reads, 300u);
}

TEST(AmpI2c, WaitReturnsAtOnceWhenTheConditionHolds)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    amp.setReg(0x60, 0x09, 0x83);
    avmtest::LogCapture log;
    EXPECT_EQ(HV2_I2CWait(0x60, 0x09, 0x03, 0x03), 0);
    EXPECT_TRUE(log.contains("DSP", "[HV2_I2CWait][Sound] out value = 0x03, i = 0\n"));
}

TEST(AmpI2c, AmlWriteAddressesTheUnshiftedValue)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    avmtest::LogCapture log;
    const uint8_t data[2] = {0x11, 0x22};
    // 0x60 goes to the kernel as it is: no device answers there.
    EXPECT_LT(aml_write_i2c_byte_block(1, 0x60, 0x10, 2, data), 0);
    EXPECT_TRUE(log.contains("DSP", "ERROR: Unable to write data: 0x11 to 0x10\n"));
    auto transfers = amp.transfers();
    ASSERT_FALSE(transfers.empty());
    EXPECT_EQ(transfers.back().request, static_cast<unsigned long>(I2C_RDWR));
    EXPECT_EQ(transfers.back().kernelAddr, 0x60);
    EXPECT_EQ(countRequests(transfers, I2C_TIMEOUT), 1u);
    EXPECT_EQ(countRequests(transfers, I2C_RETRIES), 1u);
    EXPECT_EQ(countRequests(transfers, I2C_SLAVE_FORCE), 0u);
    // Given the 7-bit form, the same call reaches the amplifier at 0x60.
    EXPECT_EQ(aml_write_i2c_byte_block(1, 0x30, 0x10, 2, data), 1);
    EXPECT_EQ(amp.reg(0x60, 0x10), 0x11);
    EXPECT_EQ(amp.reg(0x60, 0x11), 0x22);
}

TEST(AmpI2c, AmlReadUsesTheShiftedAddressWithTwoMessages)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    amp.setReg(0x62, 0x30, 0x9A);
    amp.setReg(0x62, 0x31, 0x9B);
    uint8_t out[2] = {};
    EXPECT_EQ(aml_read_i2c_byte_block(1, 0x62, 0x30, 2, out), 2);
    EXPECT_EQ(out[0], 0x9A);
    EXPECT_EQ(out[1], 0x9B);
    EXPECT_EQ(amp.transfers().back().kernelAddr, 0x31);
}

TEST(AmpI2c, AmlReadFailureLogsFirstBufferByteAndRegister)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Acm8625);
    avmtest::LogCapture log;
    uint8_t out[2] = {0x7E, 0};
    EXPECT_LT(aml_read_i2c_byte_block(1, 0x60, 0x30, 2, out), 0);
    EXPECT_TRUE(log.contains("DSP", "ERROR: read data 0x7e from address 0x30\n"));
}

TEST(AmpI2c, AbsentDeviceFailsTheTransferAndTheWrapperCountsIt)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Acm8625);
    avmtest::LogCapture log;
    EXPECT_EQ(write_i2c_byte(1, 0x60, 0x05, 0xAB), -1);
    EXPECT_TRUE(log.contains("DSP", "standard_i2c_write ioctl(I2C_SMBUS) Failed(-1)\n"));
    const uint32_t before = gAmpI2cWriteFailCount.load();
    EXPECT_EQ(HV2_I2CWrite(0x60, 0x05, 0xAB), 0xFF);
    EXPECT_EQ(gAmpI2cWriteFailCount.load(), before + 1);
    EXPECT_TRUE(log.contains("DSP", "Sound i2c_write failed: 96,5,171 [" + std::to_string((before + 1) & 0xFF) + "]\n"));
    uint8_t value = 0x33;
    EXPECT_EQ(read_i2c_byte(1, 0x60, 0x05, &value), -1);
    EXPECT_EQ(value, 0x33);
    EXPECT_TRUE(log.contains("DSP", "standard_i2c_read ioctl(I2C_SMBUS) Failed(-1)\n"));
    EXPECT_EQ(HV2_I2CRead(0x60, 0x05), 0);
    EXPECT_TRUE(log.contains("DSP", "Sound i2c_read failed: 96,5,0\n"));
}

TEST(AmpI2c, FailureCounterIsPrintedModulo256)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::None);
    avmtest::LogCapture log;
    gAmpI2cWriteFailCount.store(255);
    HV2_I2CWrite(0x58, 0x04, 0x0C);
    EXPECT_EQ(gAmpI2cWriteFailCount.load(), 256u);
    EXPECT_TRUE(log.contains("DSP", "Sound i2c_write failed: 88,4,12 [0]\n"));
}

TEST(AmpI2c, MissingBusNodeFailsToOpenWithTheDirectionsWording)
{
    sim::Board board; // no amplifier model: /dev/i2c-1 stays masked
    avmtest::LogCapture log;
    EXPECT_LT(Standard_i2c_open(1), 0);
    EXPECT_EQ(write_i2c_byte(1, 0x60, 0, 0), -1);
    EXPECT_TRUE(log.contains("DSP", "standard_i2c_write Standard_i2c_open Failed\n"));
    uint8_t value = 0;
    EXPECT_EQ(read_i2c_byte(1, 0x60, 0, &value), -1);
    EXPECT_TRUE(log.contains("DSP", "standard_i2c_read Standard_i2c_open Failed\n"));
    EXPECT_EQ(aml_write_i2c_byte_block(1, 0x30, 0, 1, &value), -1);
    EXPECT_EQ(log.count("DSP", "standard_i2c_write Standard_i2c_open Failed\n"), 2u);
}

TEST(AmpI2c, BusFaultEveryNthTransferFailsOnlyThatTransfer)
{
    sim::Board board;
    AmpModel amp(board, AmpFitting::Ad82120);
    amp.failEvery(3);
    int failures = 0;
    for (int i = 0; i < 9; ++i)
        failures += write_i2c_byte(1, 0x60, static_cast<uint8_t>(i), 0x42) != 0 ? 1 : 0;
    EXPECT_EQ(failures, 3);
}

TEST(AmpI2c, DelaysSleepAtLeastTheRequestedTime)
{
    const auto start = sim::Clock::now();
    HV2_MSDelay(20);
    HV2_Delay(5000);
    EXPECT_GE(sim::Clock::now() - start, 25ms);
}
