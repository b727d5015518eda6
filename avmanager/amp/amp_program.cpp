/*
 * amp_program: fitting detection, start-up programming and the sound-format
 * switch of the speaker amplifiers.
 *
 * Two fittings exist: ACM8625 (stereo 0x58, mono 0x5A; paged registers,
 * mute bits 0x0C of register 4 on page 0; re-tuned through its equaliser
 * tables) and AD82120 (0x60 main, 0x62 subwoofer; register 2 is the mute
 * register; re-tuned through register tables and coefficient RAM).
 *
 * Threads: the start-up thread (HV_SetPIDAMP_Parameter), the binder thread
 * that sets the speaker placement (presence check, floor/wall switch) and
 * the Fig DSP receive thread (meeting switch and back). Switches are
 * serialised by gAmpSwitchMutex; table reads by the tuning tables' lock,
 * always taken after gAmpSwitchMutex.
 *
 * State:
 *   mDeviceExistStatus  1 ACM8625 fitting present, else 0; written by the
 *                       presence check (binder thread), read by switches
 *   gAmpSoundFormat     current format, starts at 3 (matches none); under
 *                       gAmpSwitchMutex
 *   gAmpMeetingActive   meeting format programmed and not yet left; under
 *                       gAmpSwitchMutex
 */
#include "common/avm_trace.h"
#include "amp/amp_program.h"

#include <cstdio>

#include <pthread.h>

#include <android/log.h>

#include "amp/amp_i2c.h"

namespace {

constexpr const char *TAG = "DSP";

constexpr uint8_t kPageRegister = 0;      // ACM8625: page select
constexpr uint8_t kAcmMuteRegister = 4;   // ACM8625: mute bits, page 0
constexpr uint8_t kAcmMuteBits = 0x0C;
constexpr uint8_t kAcmKeepBits = 0xF3;
constexpr uint8_t kAdMuteRegister = 2;    // AD82120: mute register
constexpr uint8_t kAdMute = 0x7F;
constexpr uint8_t kAdRelease = 0x00;
constexpr uint8_t kAdStartupMute = 0x40;  // held while the start-up tables go in
constexpr uint8_t kAdClockRegister = 0x1A;
constexpr uint8_t kAdCoefAddress = 0x1D;  // coefficient RAM address
constexpr uint8_t kAdCoefData = 0x1E;     // first coefficient byte register
constexpr uint8_t kAdCoefControl = 0x32;  // coefficient RAM write strobe
constexpr uint8_t kAdWriteBank1 = 0x01;
constexpr uint8_t kAdWriteBank2 = 0x41;
constexpr int kStartupRegisterCount = 120;
constexpr int kFormatSkipFirst = 113;     // registers 113..124 keep their
constexpr int kFormatSkipLast = 124;      // power-on values in every format
constexpr int kPresenceReads = 5;
constexpr int kPresenceMinOk = 3;
constexpr int kInitialFormat = 3;
constexpr unsigned kSettleMs = 100;

pthread_mutex_t gAmpSwitchMutex = PTHREAD_MUTEX_INITIALIZER;
int gAmpSoundFormat = kInitialFormat;
bool gAmpMeetingActive = false;

using RamTable = uint32_t[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
using EqRows = const uint32_t (*)[AMP_EQ_TAB_COLS];

uint8_t low8(uint32_t value)
{
    return static_cast<uint8_t>(value & 0xFF);
}

// Traces how many I2C transactions the scope made, when it ends.
struct TransactionCount {
    TransactionCount() : first(amp_i2c_transactions_on_this_thread()) {}
    ~TransactionCount()
    {
        ATRACE_INT64(kTraceAmpTransactions, static_cast<int64_t>(amp_i2c_transactions_on_this_thread() - first));
    }
    TransactionCount(const TransactionCount &) = delete;
    TransactionCount &operator=(const TransactionCount &) = delete;

    const uint32_t first;
};

// What the trace calls a format.
const char *formatName(int format, char *buf, size_t size)
{
    switch (format) {
    case AMP_FORMAT_FLOOR:
        return "floor";
    case AMP_FORMAT_WALL:
        return "wall";
    case AMP_FORMAT_MEETING:
        return "meeting";
    default:
        snprintf(buf, size, "%d", format);
        return buf;
    }
}

struct TablesGuard {
    TablesGuard() { ampTablesLock(); }
    ~TablesGuard() { ampTablesUnlock(); }
    TablesGuard(const TablesGuard &) = delete;
    TablesGuard &operator=(const TablesGuard &) = delete;
};

int acmGetMute(uint8_t addr)
{
    HV2_I2CWrite(addr, kPageRegister, 0);
    uint8_t value = HV2_I2CRead(addr, kAcmMuteRegister);
    return (value & kAcmMuteBits) != 0 ? 1 : 0;
}

// Page for an equaliser row: left rows 0..19 on page 6, the rest on 7;
// right rows 0..7 on page 7, 8..70 on page 8, 71..74 on page 9.
uint8_t leftPage(int row)
{
    return row < 20 ? 6 : 7;
}

uint8_t rightPage(int row)
{
    if (row < 8)
        return 7;
    return row < 71 ? 8 : 9;
}

void acmWriteEqRow(uint8_t addr, uint8_t page, const uint32_t *row)
{
    HV2_I2CWrite(addr, kPageRegister, 0);
    HV2_I2CWrite(addr, kPageRegister, page);
    HV2_I2CWrite(addr, kPageRegister, page);
    uint8_t first = low8(row[0]);
    for (int k = 0; k < 4; ++k)
        HV2_I2CWrite(addr, static_cast<uint8_t>(first + k), low8(row[1 + k]));
}

void acmSetEqTable(uint8_t addr, EqRows tabL, EqRows tabR)
{
    TablesGuard guard;
    for (int r = 0; r < AMP_EQ_TAB_ROWS; ++r)
        acmWriteEqRow(addr, leftPage(r), tabL[r]);
    for (int r = 0; r < AMP_EQ_TAB_ROWS; ++r)
        acmWriteEqRow(addr, rightPage(r), tabR[r]);
    HV2_I2CWrite(addr, kPageRegister, 0);
    HV2_I2CWrite(addr, kPageRegister, 0);
}

// Start-up coefficient method: column 0 is the RAM address, columns 1..3
// the three coefficient bytes.
void adSetStartupRam(uint8_t addr, const RamTable &ram1, const RamTable &ram2)
{
    TablesGuard guard;
    for (int r = 0; r < AMP_RAM_TAB_ROWS; ++r) {
        HV2_I2CWrite(addr, kAdCoefAddress, low8(ram1[r][0]));
        for (int k = 0; k < 3; ++k)
            HV2_I2CWrite(addr, static_cast<uint8_t>(kAdCoefData + k), low8(ram1[r][1 + k]));
        HV2_I2CWrite(addr, kAdCoefControl, kAdWriteBank1);
    }
    for (int r = 0; r < AMP_RAM_TAB_ROWS; ++r) {
        HV2_I2CWrite(addr, kAdCoefAddress, low8(ram2[r][0]));
        for (int k = 0; k < 3; ++k)
            HV2_I2CWrite(addr, static_cast<uint8_t>(kAdCoefData + k), low8(ram2[r][1 + k]));
        HV2_I2CWrite(addr, kAdCoefControl, kAdWriteBank2);
    }
}

// Per-format coefficient method: the row number is the RAM address and
// the four columns are the coefficient bytes. Only bank 1 is written; the
// RAM2 tables of the formats are held but never programmed.
void adSetFormatRam(uint8_t addr, const RamTable &ram1)
{
    TablesGuard guard;
    for (int r = 0; r < AMP_RAM_TAB_ROWS; ++r) {
        HV2_I2CWrite(addr, kAdCoefAddress, static_cast<uint8_t>(r));
        for (int k = 0; k < 4; ++k)
            HV2_I2CWrite(addr, static_cast<uint8_t>(kAdCoefData + k), low8(ram1[r][k]));
        HV2_I2CWrite(addr, kAdCoefControl, kAdWriteBank1);
    }
}

void adRegInitStartup(uint8_t addr, const uint32_t *regTab)
{
    TablesGuard guard;
    HV2_I2CWrite(addr, kAdClockRegister, 0x50);
    HV2_MSDelay(25);
    HV2_I2CWrite(addr, kAdClockRegister, 0x70);
    HV2_MSDelay(25);
    // Only the first 120 of the 134 values held are written at start-up.
    for (int i = 0; i < kStartupRegisterCount; ++i)
        HV2_I2CWrite(addr, static_cast<uint8_t>(i), low8(regTab[i]));
}

// Per-format register programming. The mute register and registers
// 113..124 are never written from a format table, so the mute state set
// by the switch survives the re-programming.
void adRegInitFormat(uint8_t addr, const uint32_t *regTab)
{
    TablesGuard guard;
    for (int i = 0; i < AMP_REG_TAB_SIZE; ++i) {
        if (i == kAdMuteRegister || (i >= kFormatSkipFirst && i <= kFormatSkipLast))
            continue;
        HV2_I2CWrite(addr, static_cast<uint8_t>(i), low8(regTab[i]));
    }
}

void adWriteMute(uint8_t addr, uint8_t value)
{
    HV2_I2CWrite(addr, kAdMuteRegister, value);
}

void releaseSub(bool acm)
{
    if (acm)
        acm8625m_write_data(AMP_ACM8625_MONO_ADDR, kAcmMuteRegister, 0);
    else
        adWriteMute(AMP_AD82120_SUB_ADDR, kAdRelease);
}

void releaseMain(bool acm)
{
    if (acm)
        acm8625m_write_data(AMP_ACM8625_STEREO_ADDR, kAcmMuteRegister, 0);
    else
        adWriteMute(AMP_AD82120_RL_ADDR, kAdRelease);
}

} // namespace

extern "C" {

std::atomic<int> mDeviceExistStatus{0};

int acm8625m_get_dev_status(void)
{
    AvmTraceSpan span(kTraceAmpPresenceCheck);
    int ok = 0;
    for (int i = 0; i < kPresenceReads; ++i) {
        uint8_t value = 0;
        if (read_i2c_byte(AMP_I2C_BUS, AMP_ACM8625_STEREO_ADDR, kPageRegister, &value) == 0)
            ++ok;
    }
    int present = ok >= kPresenceMinOk ? 1 : 0;
    mDeviceExistStatus.store(present, std::memory_order_relaxed);
    __android_log_print(ANDROID_LOG_ERROR, TAG, "acm8625m_get_dev_status: %d of %d reads ok, %s fitting\n", ok,
                        kPresenceReads, present ? "ACM8625" : "AD82120");
    return present;
}

int acm8625m_get_mute(void)
{
    return acmGetMute(AMP_ACM8625_STEREO_ADDR);
}

int acm8625mono_get_mute(void)
{
    return acmGetMute(AMP_ACM8625_MONO_ADDR);
}

// Only the mute bits change; the page is selected twice before the access.
int acm8625m_write_data(uint8_t addr, uint8_t reg, uint8_t value)
{
    HV2_I2CWrite(addr, kPageRegister, 0);
    HV2_I2CWrite(addr, kPageRegister, 0);
    uint8_t old = HV2_I2CRead(addr, reg);
    HV2_I2CWrite(addr, reg, static_cast<uint8_t>((old & kAcmKeepBits) + (value & kAcmMuteBits)));
    return 1;
}

void acm8625m_set_rl_eq_table(const uint32_t (*tabL)[AMP_EQ_TAB_COLS], const uint32_t (*tabR)[AMP_EQ_TAB_COLS])
{
    acmSetEqTable(AMP_ACM8625_STEREO_ADDR, tabL, tabR);
}

void acm8625m_set_sub_eq_table(const uint32_t (*tabL)[AMP_EQ_TAB_COLS], const uint32_t (*tabR)[AMP_EQ_TAB_COLS])
{
    acmSetEqTable(AMP_ACM8625_MONO_ADDR, tabL, tabR);
}

void Amp_Set_Eq_Drc_RL_PID(void)
{
    adSetStartupRam(AMP_AD82120_RL_ADDR, m_ram1_tab_RL_pid, m_ram2_tab_RL_pid);
}

void Amp_Set_Eq_Drc_Sub_PID(void)
{
    adSetStartupRam(AMP_AD82120_SUB_ADDR, m_ram1_tab_SUB_pid, m_ram2_tab_SUB_pid);
}

void Amp_Set_Eq_Drc_RL_FLOOR(void)
{
    adSetFormatRam(AMP_AD82120_RL_ADDR, m_ram1_tab_RL_floor);
}

void Amp_Set_Eq_Drc_Sub_FLOOR(void)
{
    adSetFormatRam(AMP_AD82120_SUB_ADDR, m_ram1_tab_SUB_floor);
}

void Amp_Set_Eq_Drc_RL_WALL(void)
{
    adSetFormatRam(AMP_AD82120_RL_ADDR, m_ram1_tab_RL_wall);
}

void Amp_Set_Eq_Drc_Sub_WALL(void)
{
    adSetFormatRam(AMP_AD82120_SUB_ADDR, m_ram1_tab_SUB_wall);
}

void Amp_Set_Eq_Drc_RL_MEETING(void)
{
    adSetFormatRam(AMP_AD82120_RL_ADDR, m_ram1_tab_RL_meeting);
}

void Amp_Reg_Init_RL_PID(void)
{
    adRegInitStartup(AMP_AD82120_RL_ADDR, m_reg_tab_RL_pid);
    Amp_Set_Eq_Drc_RL_PID();
}

void Amp_Reg_Init_Sub_PID(void)
{
    adRegInitStartup(AMP_AD82120_SUB_ADDR, m_reg_tab_SUB_pid);
    Amp_Set_Eq_Drc_Sub_PID();
}

void Amp_Reg_Init_RL_FLOOR(void)
{
    adRegInitFormat(AMP_AD82120_RL_ADDR, m_reg_tab_RL_floor);
    HV2_MSDelay(1);
    Amp_Set_Eq_Drc_RL_FLOOR();
}

void Amp_Reg_Init_Sub_FLOOR(void)
{
    adRegInitFormat(AMP_AD82120_SUB_ADDR, m_reg_tab_SUB_floor);
    HV2_MSDelay(1);
    Amp_Set_Eq_Drc_Sub_FLOOR();
}

void Amp_Reg_Init_RL_WALL(void)
{
    adRegInitFormat(AMP_AD82120_RL_ADDR, m_reg_tab_RL_wall);
    HV2_MSDelay(1);
    Amp_Set_Eq_Drc_RL_WALL();
}

void Amp_Reg_Init_Sub_WALL(void)
{
    adRegInitFormat(AMP_AD82120_SUB_ADDR, m_reg_tab_SUB_wall);
    // The wall subwoofer goes straight on to its coefficients, without the
    // 1 ms pause the other formats take.
    Amp_Set_Eq_Drc_Sub_WALL();
}

void Amp_Reg_Init_RL_MEETING(void)
{
    adRegInitFormat(AMP_AD82120_RL_ADDR, m_reg_tab_RL_meeting);
    HV2_MSDelay(1);
    Amp_Set_Eq_Drc_RL_MEETING();
}

// Programs the AD82120-style start-up tables whatever the fitting.
void HV_SetPIDAMP_Parameter(void)
{
    AvmTraceSpan span(kTraceAmpProgramming);
    pthread_mutex_lock(&gAmpSwitchMutex);
    TransactionCount transactions;
    adWriteMute(AMP_AD82120_RL_ADDR, kAdStartupMute);
    adWriteMute(AMP_AD82120_SUB_ADDR, kAdStartupMute);
    Amp_Reg_Init_RL_PID();
    Amp_Reg_Init_Sub_PID();
    adWriteMute(AMP_AD82120_RL_ADDR, kAdRelease);
    adWriteMute(AMP_AD82120_SUB_ADDR, kAdRelease);
    pthread_mutex_unlock(&gAmpSwitchMutex);
}

void HV_SetSoundEQ(int format)
{
    char number[16];
    AvmTraceSpan span(kTraceAmpFormatSwitch, "format=%s", formatName(format, number, sizeof number));
    pthread_mutex_lock(&gAmpSwitchMutex);
    if (format == gAmpSoundFormat) {
        avmTraceMark(kTraceAmpSameFormat);
        __android_log_print(ANDROID_LOG_ERROR, TAG, "[HV_SetSoundEQ] same format(%d), return !\n", format);
        pthread_mutex_unlock(&gAmpSwitchMutex);
        return;
    }
    TransactionCount transactions;

    const bool acm = mDeviceExistStatus.load(std::memory_order_relaxed) == 1;
    int mainMuted;
    int subMuted;
    if (acm) {
        mainMuted = acm8625m_get_mute();
        subMuted = acm8625mono_get_mute();
        __android_log_print(ANDROID_LOG_ERROR, TAG, "[HV_SetSoundEQ] ACM8625 format(%d), mute main(%d) sub(%d)\n",
                            format, mainMuted, subMuted);
        acm8625m_write_data(AMP_ACM8625_STEREO_ADDR, kAcmMuteRegister, kAcmMuteBits);
        acm8625m_write_data(AMP_ACM8625_MONO_ADDR, kAcmMuteRegister, kAcmMuteBits);
    } else {
        mainMuted = HV2_I2CRead(AMP_AD82120_RL_ADDR, kAdMuteRegister);
        subMuted = HV2_I2CRead(AMP_AD82120_SUB_ADDR, kAdMuteRegister);
        __android_log_print(ANDROID_LOG_ERROR, TAG, "[HV_SetSoundEQ] AD82120 format(%d), mute main(%d) sub(%d)\n",
                            format, mainMuted, subMuted);
        adWriteMute(AMP_AD82120_RL_ADDR, kAdMute);
        adWriteMute(AMP_AD82120_SUB_ADDR, kAdMute);
    }

    {
        TablesGuard guard;
        switch (format) {
        case AMP_FORMAT_MEETING:
            // The ACM8625 fitting has no meeting tables: the AD82120 main
            // programming runs on either fitting.
            Amp_Reg_Init_RL_MEETING();
            gAmpMeetingActive = true;
            break;
        case AMP_FORMAT_WALL:
            if (acm) {
                acm8625m_set_rl_eq_table(tab_L_RL_wall, tab_R_RL_wall);
                acm8625m_set_sub_eq_table(tab_L_SUB_wall, tab_R_SUB_wall);
            } else {
                Amp_Reg_Init_RL_WALL();
                Amp_Reg_Init_Sub_WALL();
            }
            break;
        case AMP_FORMAT_FLOOR:
            if (acm) {
                acm8625m_set_rl_eq_table(tab_L_RL_floor, tab_R_RL_floor);
                acm8625m_set_sub_eq_table(tab_L_SUB_floor, tab_R_SUB_floor);
            } else {
                Amp_Reg_Init_RL_FLOOR();
                Amp_Reg_Init_Sub_FLOOR();
            }
            break;
        default:
            // Unknown formats program nothing but are still recorded below.
            break;
        }
    }

    gAmpSoundFormat = format;
    HV2_MSDelay(kSettleMs);

    // An amplifier muted before the switch stays muted; the subwoofer stays
    // muted through the meeting format and is always released on leaving
    // it, even if it was muted before the meeting began.
    if (gAmpMeetingActive && format != AMP_FORMAT_MEETING) {
        releaseSub(acm);
        gAmpMeetingActive = false;
    }
    if (format != AMP_FORMAT_MEETING && subMuted == 0)
        releaseSub(acm);
    if (mainMuted == 0)
        releaseMain(acm);
    pthread_mutex_unlock(&gAmpSwitchMutex);
}

} // extern "C"
