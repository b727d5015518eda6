// The amplifiers under the real kernel: i2c-dev on bus 1, whose adapter
// is i2c-stub answering at the four amplifier addresses (the ACM8625 pair
// paged through register 0). What crossed the bus is the kernel's own
// SMBus trace; what the amplifiers hold is read back from the stub.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "amp/amp_program.h"
#include "amp/amp_tuning.h"
#include "log_capture.h"
#include "process_env.h"
#include "sim/kernel/kernel_i2c.h"
#include "tests/board/amp_fixture.h"

using sim::AmpModel;
using sim::kernel::KernelI2cBus;

namespace {

class KernelAmpTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(bus.error(), "");
        amptest::generateTuningFiles(root.path());
    }

    avmtest::FreshRoot root;
    avmtest::LogCapture log;
    KernelI2cBus bus;
};

} // namespace

TEST_F(KernelAmpTest, StartupProgrammingCrossesTheBusInOrderAndTheRegistersHoldTheTables)
{
    parse_PidAmp_RL_Info();
    parse_PidAmp_SUB_Info();
    ASSERT_NE(m_reg_tab_RL_pid[5], 0u) << "the made-up files were loaded";
    HV_SetPIDAMP_Parameter();
    for (uint8_t addr : {uint8_t{AmpModel::kAdMain}, uint8_t{AmpModel::kAdSub}}) {
        const uint32_t *regs = addr == AmpModel::kAdMain ? m_reg_tab_RL_pid : m_reg_tab_SUB_pid;
        const auto &ram2 = addr == AmpModel::kAdMain ? m_ram2_tab_RL_pid : m_ram2_tab_SUB_pid;
        const auto writes = bus.writesTo(addr);
        // Mute held with 0x40, 0x1A stepped, 120 registers, both
        // coefficient banks (5 writes a row), mute released.
        ASSERT_EQ(writes.size(), 1u + 2u + 120u + 2u * 120u * 5u + 1u);
        EXPECT_EQ(writes.front().reg, 2);
        EXPECT_EQ(writes.front().value, 0x40);
        EXPECT_EQ(writes[1].reg, 0x1A);
        EXPECT_EQ(writes[1].value, 0x50);
        EXPECT_EQ(writes[2].reg, 0x1A);
        EXPECT_EQ(writes[2].value, 0x70);
        for (int r = 0; r < 120; ++r) {
            EXPECT_EQ(writes[3 + static_cast<size_t>(r)].reg, r);
            EXPECT_EQ(writes[3 + static_cast<size_t>(r)].value, amptest::low8(regs[r])) << "reg " << r;
        }
        EXPECT_EQ(writes.back().reg, 2);
        EXPECT_EQ(writes.back().value, 0x00);
        // The last coefficient row is what the staging registers hold.
        EXPECT_EQ(bus.reg(addr, 0x1D), amptest::low8(ram2[119][0]));
        EXPECT_EQ(bus.reg(addr, 0x32), 0x41);
        EXPECT_EQ(bus.reg(addr, 2), 0x00);
        EXPECT_EQ(bus.reg(addr, 5), amptest::low8(regs[5]));
    }
}

TEST_F(KernelAmpTest, TheAcm8625FittingAnswersAndAFloorSwitchLeavesItsEqualiserPages)
{
    // All four addresses answer on this bus: the ACM8625 fitting is found.
    ASSERT_EQ(acm8625m_get_dev_status(), 1);
    parseAmp_RL_Floor_Info();
    parseAmp_SUB_Floor_Info();
    parseAmp_RL_Wall_Info();
    parseAmp_SUB_Wall_Info();
    parseAmp_RL_Meeting_Info();
    HV_SetSoundEQ(0);
    for (uint8_t addr : {uint8_t{AmpModel::kAcmStereo}, uint8_t{AmpModel::kAcmMono}}) {
        const bool main = addr == AmpModel::kAcmStereo;
        amptest::PageImage image;
        for (auto &page : image)
            page.fill(-1);
        amptest::replayEq(image, main ? tab_L_RL_floor : tab_L_SUB_floor, main ? tab_R_RL_floor : tab_R_SUB_floor);
        int checked = 0;
        for (int page = 6; page <= 9; ++page)
            for (int reg = 1; reg < 256; ++reg)
                if (image[static_cast<size_t>(page)][static_cast<size_t>(reg)] >= 0) {
                    EXPECT_EQ(bus.reg(addr, static_cast<uint8_t>(reg), page),
                              image[static_cast<size_t>(page)][static_cast<size_t>(reg)])
                        << "device " << int(addr) << " page " << page << " reg " << reg;
                    ++checked;
                }
        EXPECT_GT(checked, 0);
        EXPECT_EQ(bus.reg(addr, 0), 0) << "programming ends back on page 0";
        EXPECT_EQ(bus.reg(addr, 4, 0) & 0x0C, 0) << "released after the switch";
        // On the wire: muted (page 0, register 4, bits 0x0C) before the
        // first equaliser row, released after the last.
        const auto writes = bus.writesTo(addr);
        const auto mute = std::find_if(writes.begin(), writes.end(), [](const AmpModel::Access &a) {
            return a.page == 0 && a.reg == 4 && (a.value & 0x0C) == 0x0C;
        });
        const auto firstRow = std::find_if(writes.begin(), writes.end(),
                                           [](const AmpModel::Access &a) { return a.page == 6 && a.reg != 0; });
        ASSERT_NE(mute, writes.end());
        ASSERT_NE(firstRow, writes.end());
        EXPECT_LT(mute - writes.begin(), firstRow - writes.begin());
        EXPECT_EQ(writes.back().page, 0);
        EXPECT_EQ(writes.back().reg, 4);
        EXPECT_EQ(writes.back().value & 0x0C, 0);
    }
    EXPECT_TRUE(log.contains("DSP", "[HV_SetSoundEQ] ACM8625 format(0), mute main(0) sub(0)\n"));
}
