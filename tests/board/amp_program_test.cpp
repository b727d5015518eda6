// Fitting detection, start-up programming and the floor / wall / meeting
// switch on both amplifier fittings, checked on the model's register files,
// coefficient RAM, write log and mute state.
#include "amp_fixture.h"

#include <algorithm>
#include <cstring>
#include <thread>

#include "amp/amp_i2c.h"
#include "avmanager_hal.h"

using sim::AmpFitting;
using sim::AmpModel;

namespace {

struct AmpBoard {
    explicit AmpBoard(AmpFitting fitting) : amp(board, fitting) {}
    sim::Board board;
    AmpModel amp;
};

void parseFormatFiles()
{
    parseAmp_RL_Floor_Info();
    parseAmp_SUB_Floor_Info();
    parseAmp_RL_Wall_Info();
    parseAmp_SUB_Wall_Info();
    parseAmp_RL_Meeting_Info();
}

// Index of the first write of `value` to `reg` of `addr` in the log, from `from`.
long findWrite(const std::vector<AmpModel::Access> &log, uint8_t addr, uint8_t reg, uint8_t value, size_t from = 0)
{
    for (size_t i = from; i < log.size(); ++i)
        if (log[i].write && log[i].acked && log[i].addr == addr && log[i].reg == reg && log[i].value == value &&
            log[i].page == 0)
            return static_cast<long>(i);
    return -1;
}

// Mute-register writes (page 0, register 4 for ACM8625, register 2 for AD82120).
std::vector<AmpModel::Access> muteWrites(const std::vector<AmpModel::Access> &log, uint8_t reg)
{
    std::vector<AmpModel::Access> out;
    for (const auto &a : log)
        if (a.write && a.acked && a.page == 0 && a.reg == reg)
            out.push_back(a);
    return out;
}

} // namespace

TEST(AmpProgram, DetectsTheAcm8625FittingWhenTheStereoAmpAnswers)
{
    AmpBoard b(AmpFitting::Acm8625);
    avmtest::LogCapture log;
    EXPECT_EQ(acm8625m_get_dev_status(), 1);
    EXPECT_EQ(mDeviceExistStatus.load(), 1);
    size_t reads = 0;
    for (const auto &a : b.amp.accesses())
        if (!a.write && a.addr == 0x58 && a.reg == 0)
            ++reads;
    EXPECT_EQ(reads, 5u);
}

TEST(AmpProgram, ThreeSuccessfulPresenceReadsOfFiveAreEnough)
{
    AmpBoard b(AmpFitting::Acm8625);
    b.amp.failEvery(2); // reads 2 and 4 fail
    EXPECT_EQ(acm8625m_get_dev_status(), 1);
}

TEST(AmpProgram, TwoSuccessfulPresenceReadsOfFiveAreNotEnough)
{
    AmpBoard b(AmpFitting::Acm8625);
    b.amp.failTransfers({1, 3, 5}); // reads 2 and 4 succeed
    EXPECT_EQ(acm8625m_get_dev_status(), 0);
    EXPECT_EQ(mDeviceExistStatus.load(), 0);
}

TEST(AmpProgram, OneSuccessfulPresenceReadOfFiveIsNotEnough)
{
    AmpBoard b(AmpFitting::Acm8625);
    b.amp.failTransfers({1, 2, 3, 5}); // read 4 succeeds
    EXPECT_EQ(acm8625m_get_dev_status(), 0);
    EXPECT_EQ(mDeviceExistStatus.load(), 0);
}

TEST(AmpProgram, WithFewerThanThreeSuccessfulPresenceReadsTheAd82120FittingIsUsed)
{
    {
        AmpBoard b(AmpFitting::Acm8625);
        b.amp.failEvery(1);
        EXPECT_EQ(acm8625m_get_dev_status(), 0);
        EXPECT_EQ(mDeviceExistStatus.load(), 0);
    }
    AmpBoard ad(AmpFitting::Ad82120);
    EXPECT_EQ(acm8625m_get_dev_status(), 0);
}

TEST(AmpProgram, AcmMuteQueriesSelectPageZeroAndReadRegister4)
{
    AmpBoard b(AmpFitting::Acm8625);
    b.amp.setReg(0x58, 0, 7); // left on another page
    b.amp.setReg(0x58, 4, 0x08, 0);
    b.amp.setReg(0x5A, 4, 0xF3, 0);
    EXPECT_EQ(acm8625m_get_mute(), 1);
    EXPECT_EQ(acm8625mono_get_mute(), 0);
    EXPECT_EQ(b.amp.currentPage(0x58), 0);
}

TEST(AmpProgram, AcmWriteDataChangesOnlyTheMuteBits)
{
    AmpBoard b(AmpFitting::Acm8625);
    b.amp.setReg(0x58, 4, 0xF1, 0);
    EXPECT_EQ(acm8625m_write_data(0x58, 4, 0xFF), 1);
    EXPECT_EQ(b.amp.reg(0x58, 4, 0), 0xFD);
    EXPECT_EQ(acm8625m_write_data(0x58, 4, 0x00), 1);
    EXPECT_EQ(b.amp.reg(0x58, 4, 0), 0xF1);
    const auto writes = b.amp.writesTo(0x58);
    ASSERT_EQ(writes.size(), 6u);
    EXPECT_EQ(writes[0].reg, 0);
    EXPECT_EQ(writes[1].reg, 0);
    EXPECT_EQ(writes[2].reg, 4);
}

TEST(AmpProgram, StartupProgramsTheFirst120RegistersAndBothCoefficientBanks)
{
    AmpBoard b(AmpFitting::Ad82120);
    amptest::generateTuningFiles(b.board);
    parse_PidAmp_RL_Info();
    parse_PidAmp_SUB_Info();
    HV_SetPIDAMP_Parameter();
    for (uint8_t addr : {uint8_t{0x60}, uint8_t{0x62}}) {
        const uint32_t *regs = addr == 0x60 ? m_reg_tab_RL_pid : m_reg_tab_SUB_pid;
        const auto &ram1 = addr == 0x60 ? m_ram1_tab_RL_pid : m_ram1_tab_SUB_pid;
        const auto &ram2 = addr == 0x60 ? m_ram2_tab_RL_pid : m_ram2_tab_SUB_pid;
        for (int r = 0; r < 120; ++r) {
            if (r == 2 || (r >= 0x1D && r <= 0x20) || r == 0x32)
                continue;
            EXPECT_EQ(b.amp.reg(addr, static_cast<uint8_t>(r)), amptest::low8(regs[r])) << "reg " << r;
        }
        const auto writes = b.amp.writesTo(addr);
        EXPECT_EQ(std::count_if(writes.begin(), writes.end(), [](const AmpModel::Access &a) { return a.reg >= 120; }),
                  0);
        // Mute held with 0x40 around the programming, released with 0x00.
        ASSERT_FALSE(writes.empty());
        EXPECT_EQ(writes.front().reg, 2);
        EXPECT_EQ(writes.front().value, 0x40);
        EXPECT_EQ(writes.back().reg, 2);
        EXPECT_EQ(writes.back().value, 0x00);
        EXPECT_EQ(writes[1].reg, 0x1A);
        EXPECT_EQ(writes[1].value, 0x50);
        EXPECT_EQ(writes[2].reg, 0x1A);
        EXPECT_EQ(writes[2].value, 0x70);
        EXPECT_EQ(b.amp.coefWrites(addr, 1), 120u);
        EXPECT_EQ(b.amp.coefWrites(addr, 2), 120u);
        for (int row = 0; row < 120; ++row) {
            const auto c1 = b.amp.coef(addr, 1, amptest::low8(ram1[row][0]));
            const auto c2 = b.amp.coef(addr, 2, amptest::low8(ram2[row][0]));
            for (int k = 0; k < 3; ++k) {
                EXPECT_EQ(c1[static_cast<size_t>(k)], amptest::low8(ram1[row][k + 1]));
                EXPECT_EQ(c2[static_cast<size_t>(k)], amptest::low8(ram2[row][k + 1]));
            }
        }
        EXPECT_FALSE(b.amp.muted(addr));
    }
    EXPECT_NE(m_reg_tab_RL_pid[5], 0u) << "the made-up files were loaded";
}

TEST(AmpProgram, FloorMeetingFloorOnAd82120LeavesExactlyTheTablesContents)
{
    AmpBoard b(AmpFitting::Ad82120);
    amptest::generateTuningFiles(b.board);
    acm8625m_get_dev_status();
    parseFormatFiles();
    avmtest::LogCapture log;

    HV_SetSoundEQ(0);
    amptest::expectAdFormat(b.amp, 0x60, m_reg_tab_RL_floor, m_ram1_tab_RL_floor);
    amptest::expectAdFormat(b.amp, 0x62, m_reg_tab_SUB_floor, m_ram1_tab_SUB_floor);
    EXPECT_FALSE(b.amp.muted(0x60));
    EXPECT_FALSE(b.amp.muted(0x62));

    b.amp.clearLog();
    HV_SetSoundEQ(2);
    amptest::expectAdFormat(b.amp, 0x60, m_reg_tab_RL_meeting, m_ram1_tab_RL_meeting);
    EXPECT_TRUE(b.amp.writesTo(0x62).size() == 1u) << "only the mute reaches the subwoofer in a meeting";
    EXPECT_FALSE(b.amp.muted(0x60));
    EXPECT_TRUE(b.amp.muted(0x62)) << "the subwoofer stays muted for the whole meeting";
    EXPECT_EQ(b.amp.reg(0x62, 2), 0x7F);
    auto mutes = muteWrites(b.amp.accesses(), 2);
    ASSERT_EQ(mutes.size(), 3u);
    EXPECT_EQ(mutes[0].addr, 0x60);
    EXPECT_EQ(mutes[0].value, 0x7F);
    EXPECT_EQ(mutes[1].addr, 0x62);
    EXPECT_EQ(mutes[1].value, 0x7F);
    EXPECT_EQ(mutes[2].addr, 0x60);
    EXPECT_EQ(mutes[2].value, 0x00);

    b.amp.clearLog();
    HV_SetSoundEQ(0);
    amptest::expectAdFormat(b.amp, 0x60, m_reg_tab_RL_floor, m_ram1_tab_RL_floor);
    amptest::expectAdFormat(b.amp, 0x62, m_reg_tab_SUB_floor, m_ram1_tab_SUB_floor);
    EXPECT_FALSE(b.amp.muted(0x60));
    EXPECT_FALSE(b.amp.muted(0x62));
    mutes = muteWrites(b.amp.accesses(), 2);
    // Mute both, then: meeting left -> SUB released; SUB was muted before
    // this switch so no second release; main released.
    ASSERT_EQ(mutes.size(), 4u);
    EXPECT_EQ(mutes[0].addr, 0x60);
    EXPECT_EQ(mutes[1].addr, 0x62);
    EXPECT_EQ(mutes[2].addr, 0x62);
    EXPECT_EQ(mutes[2].value, 0x00);
    EXPECT_EQ(mutes[3].addr, 0x60);
    EXPECT_EQ(mutes[3].value, 0x00);
    EXPECT_TRUE(log.contains("DSP", "[HV_SetSoundEQ] AD82120 format(2), mute main(0) sub(0)\n"));
    EXPECT_TRUE(log.contains("DSP", "[HV_SetSoundEQ] AD82120 format(0), mute main(0) sub(127)\n"));
}

TEST(AmpProgram, FormatSwitchNeverWritesTheMuteRegisterOrRegisters113To124FromATable)
{
    AmpBoard b(AmpFitting::Ad82120);
    amptest::generateTuningFiles(b.board);
    parseFormatFiles();
    b.amp.clearLog();
    HV_SetSoundEQ(1);
    for (uint8_t addr : {uint8_t{0x60}, uint8_t{0x62}}) {
        size_t muteWritesSeen = 0;
        for (const auto &w : b.amp.writesTo(addr)) {
            EXPECT_FALSE(w.reg >= 113 && w.reg <= 124) << "reg " << int(w.reg);
            if (w.reg == 2)
                ++muteWritesSeen;
        }
        EXPECT_EQ(muteWritesSeen, 2u) << "mute and release only";
        EXPECT_EQ(b.amp.coefWrites(addr, 2), 0u) << "per-format RAM2 is never written";
    }
    amptest::expectAdFormat(b.amp, 0x60, m_reg_tab_RL_wall, m_ram1_tab_RL_wall);
    amptest::expectAdFormat(b.amp, 0x62, m_reg_tab_SUB_wall, m_ram1_tab_SUB_wall);
}

TEST(AmpProgram, FloorMeetingFloorOnAcm8625LeavesExactlyTheEqualiserTables)
{
    AmpBoard b(AmpFitting::Acm8625);
    amptest::generateTuningFiles(b.board);
    ASSERT_EQ(acm8625m_get_dev_status(), 1);
    parseFormatFiles();
    avmtest::LogCapture log;

    HV_SetSoundEQ(0);
    amptest::expectAcmEq(b.amp, 0x58, tab_L_RL_floor, tab_R_RL_floor);
    amptest::expectAcmEq(b.amp, 0x5A, tab_L_SUB_floor, tab_R_SUB_floor);
    EXPECT_FALSE(b.amp.muted(0x58));
    EXPECT_FALSE(b.amp.muted(0x5A));

    b.amp.clearLog();
    HV_SetSoundEQ(2);
    // No meeting tables on this fitting: the AD82120 programming goes out
    // to an address nobody answers, and every write of it fails.
    size_t nakToMain = 0;
    for (const auto &a : b.amp.accesses())
        if (a.addr == 0x60 && !a.acked)
            ++nakToMain;
    EXPECT_GT(nakToMain, 700u);
    EXPECT_TRUE(log.countContaining("DSP", "Sound i2c_write failed: 96,") > 700u);
    EXPECT_FALSE(b.amp.muted(0x58));
    EXPECT_TRUE(b.amp.muted(0x5A));
    amptest::expectAcmEq(b.amp, 0x58, tab_L_RL_floor, tab_R_RL_floor);

    b.amp.clearLog();
    HV_SetSoundEQ(0);
    amptest::expectAcmEq(b.amp, 0x58, tab_L_RL_floor, tab_R_RL_floor);
    amptest::expectAcmEq(b.amp, 0x5A, tab_L_SUB_floor, tab_R_SUB_floor);
    EXPECT_FALSE(b.amp.muted(0x58));
    EXPECT_FALSE(b.amp.muted(0x5A));
    const auto log2 = b.amp.accesses();
    const long muteMain = findWrite(log2, 0x58, 4, 0x0C);
    const long muteSub = findWrite(log2, 0x5A, 4, 0x0C);
    ASSERT_GE(muteMain, 0);
    ASSERT_GT(muteSub, muteMain);
    const long releaseSub = findWrite(log2, 0x5A, 4, 0x00, static_cast<size_t>(muteSub));
    const long releaseMain = findWrite(log2, 0x58, 4, 0x00, static_cast<size_t>(muteSub));
    ASSERT_GT(releaseSub, muteSub);
    ASSERT_GT(releaseMain, releaseSub);
    EXPECT_TRUE(log.contains("DSP", "[HV_SetSoundEQ] ACM8625 format(0), mute main(0) sub(1)\n"));
}

TEST(AmpProgram, AcmEqualiserRowsSelectPageZeroThenTheirPageTwice)
{
    AmpBoard b(AmpFitting::Acm8625);
    amptest::generateTuningFiles(b.board);
    parseFormatFiles();
    b.amp.clearLog();
    acm8625m_set_rl_eq_table(tab_L_RL_wall, tab_R_RL_wall);
    const auto writes = b.amp.writesTo(0x58);
    ASSERT_EQ(writes.size(), 150u * 7u + 2u);
    EXPECT_EQ(writes[0].reg, 0);
    EXPECT_EQ(writes[0].value, 0);
    EXPECT_EQ(writes[1].value, 6);
    EXPECT_EQ(writes[2].value, 6);
    EXPECT_EQ(writes[3].reg, amptest::low8(tab_L_RL_wall[0][0]));
    EXPECT_EQ(writes[3].page, 6);
    EXPECT_EQ(writes[20 * 7 + 1].value, 7) << "left row 20 is on page 7";
    EXPECT_EQ(writes[75 * 7 + 1].value, 7) << "right row 0 is on page 7";
    EXPECT_EQ(writes[83 * 7 + 1].value, 8) << "right row 8 is on page 8";
    EXPECT_EQ(writes[146 * 7 + 1].value, 9) << "right row 71 is on page 9";
    EXPECT_EQ(writes[150 * 7].value, 0);
    EXPECT_EQ(writes[150 * 7 + 1].value, 0);
    amptest::expectAcmEq(b.amp, 0x58, tab_L_RL_wall, tab_R_RL_wall);
}

TEST(AmpProgram, SwitchingToTheCurrentFormatChangesNothing)
{
    AmpBoard b(AmpFitting::Ad82120);
    amptest::generateTuningFiles(b.board);
    parseFormatFiles();
    HV_SetSoundEQ(1);
    b.amp.clearLog();
    avmtest::LogCapture log;
    HV_SetSoundEQ(1);
    EXPECT_TRUE(b.amp.accesses().empty());
    EXPECT_TRUE(log.contains("DSP", "[HV_SetSoundEQ] same format(1), return !\n"));
}

TEST(AmpProgram, TheFirstSwitchRunsEvenForFormatZero)
{
    AmpBoard b(AmpFitting::Ad82120);
    amptest::generateTuningFiles(b.board);
    parseFormatFiles();
    avmtest::LogCapture log;
    HV_SetSoundEQ(0);
    EXPECT_EQ(log.countContaining("DSP", "same format"), 0u);
    EXPECT_GT(b.amp.writesTo(0x60).size(), 600u);
    amptest::expectAdFormat(b.amp, 0x60, m_reg_tab_RL_floor, m_ram1_tab_RL_floor);
}

TEST(AmpProgram, MeetingThenFloorOnAd82120ReleasesTheSubwooferEvenIfItWasMutedBefore)
{
    AmpBoard b(AmpFitting::Ad82120);
    amptest::generateTuningFiles(b.board);
    parseFormatFiles();
    b.amp.setReg(0x62, 2, 0x7F); // muted before the meeting begins
    HV_SetSoundEQ(2);
    EXPECT_EQ(b.amp.reg(0x62, 2), 0x7F);
    HV_SetSoundEQ(0);
    EXPECT_EQ(b.amp.reg(0x62, 2), 0x00);
    EXPECT_EQ(b.amp.reg(0x60, 2), 0x00);
}

TEST(AmpProgram, AMainAmplifierMutedBeforeTheSwitchStaysMuted)
{
    AmpBoard b(AmpFitting::Ad82120);
    amptest::generateTuningFiles(b.board);
    parseFormatFiles();
    b.amp.setReg(0x60, 2, 0x7F);
    HV_SetSoundEQ(1);
    EXPECT_EQ(b.amp.reg(0x60, 2), 0x7F);
    EXPECT_EQ(b.amp.reg(0x62, 2), 0x00);
}

TEST(AmpProgram, ASwitchRequestOf5MutesProgramsNothingRecords5AndReleases)
{
    AmpBoard b(AmpFitting::Ad82120);
    amptest::generateTuningFiles(b.board);
    parseFormatFiles();
    avmtest::LogCapture log;
    HV_SetSoundEQ(5);
    const auto w60 = b.amp.writesTo(0x60);
    const auto w62 = b.amp.writesTo(0x62);
    ASSERT_EQ(w60.size(), 2u);
    ASSERT_EQ(w62.size(), 2u);
    EXPECT_EQ(w60[0].value, 0x7F);
    EXPECT_EQ(w60[1].value, 0x00);
    EXPECT_EQ(w62[0].value, 0x7F);
    EXPECT_EQ(w62[1].value, 0x00);
    b.amp.clearLog();
    HV_SetSoundEQ(5);
    EXPECT_TRUE(log.contains("DSP", "[HV_SetSoundEQ] same format(5), return !\n"));
    EXPECT_TRUE(b.amp.accesses().empty());
}

TEST(AmpProgram, ASwitchRequestOf5OnAcm8625MutesAndReleasesBothAmplifiers)
{
    AmpBoard b(AmpFitting::Acm8625);
    acm8625m_get_dev_status();
    b.amp.clearLog();
    HV_SetSoundEQ(5);
    const auto log = b.amp.accesses();
    EXPECT_GE(findWrite(log, 0x58, 4, 0x0C), 0);
    EXPECT_GE(findWrite(log, 0x5A, 4, 0x0C), 0);
    EXPECT_FALSE(b.amp.muted(0x58));
    EXPECT_FALSE(b.amp.muted(0x5A));
}

TEST(AmpProgram, WithoutAnyTuningFileASwitchProgramsZeros)
{
    AmpBoard b(AmpFitting::Ad82120);
    avmtest::LogCapture log;
    parseFormatFiles();
    EXPECT_TRUE(log.contains("DSP", "parseAmp_RL_Floor_Info, INI load file (amp_RL_FLOOR.ini) error!\n"));
    b.amp.setReg(0x60, 0x05, 0x99);
    HV_SetSoundEQ(0);
    EXPECT_EQ(b.amp.reg(0x60, 0x05), 0x00);
    for (int row = 0; row < AMP_RAM_TAB_ROWS; ++row)
        EXPECT_EQ(b.amp.coef(0x60, 1, static_cast<uint8_t>(row)), (std::array<uint8_t, 4>{}));
}

TEST(AmpProgram, AFailingBusNeverAbortsASwitch)
{
    AmpBoard b(AmpFitting::Ad82120);
    amptest::generateTuningFiles(b.board);
    parseFormatFiles();
    const uint32_t before = gAmpI2cWriteFailCount.load();
    b.amp.failEvery(10);
    HV_SetSoundEQ(1);
    const uint32_t failed = gAmpI2cWriteFailCount.load() - before;
    EXPECT_GT(failed, 100u);
    size_t ok = b.amp.writesTo(0x60).size() + b.amp.writesTo(0x62).size();
    EXPECT_GT(ok, 1000u) << "every step ran to its end";
}

TEST(AmpProgram, AprojectStartupEntryParsesThePidFileAndProgramsIt)
{
    AmpBoard b(AmpFitting::Ad82120);
    amptest::generateTuningFiles(b.board);
    EXPECT_EQ(Aprojectid_ampini_parase_init(), 1);
    EXPECT_EQ(b.amp.coefWrites(0x60, 2), 120u);
    EXPECT_EQ(b.amp.reg(0x60, 5), amptest::low8(m_reg_tab_RL_pid[5]));
}

TEST(AmpProgram, ConcurrentSwitchesDoNotInterleave)
{
    AmpBoard b(AmpFitting::Ad82120);
    amptest::generateTuningFiles(b.board);
    parseFormatFiles();
    std::thread meeting([] { HV_SetSoundEQ(2); });
    std::thread wall([] { HV_SetSoundEQ(1); });
    meeting.join();
    wall.join();
    // Each switch mutes the main amplifier first and releases it last: with
    // the switches serialised, mutes and releases of 0x60 alternate.
    std::vector<uint8_t> mainMute;
    for (const auto &w : b.amp.writesTo(0x60))
        if (w.reg == 2)
            mainMute.push_back(w.value);
    ASSERT_EQ(mainMute.size(), 4u);
    EXPECT_EQ(mainMute, (std::vector<uint8_t>{0x7F, 0x00, 0x7F, 0x00}));
    EXPECT_FALSE(b.amp.muted(0x60));
}
