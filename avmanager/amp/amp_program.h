/*
 * Amplifier programming and sound-format switching (floor, wall, meeting)
 * for the ACM8625 and AD82120 fittings.
 */
#ifndef AVM_AMP_PROGRAM_H
#define AVM_AMP_PROGRAM_H

#include <stdint.h>

#include "amp/amp_tuning.h"

/* Amplifier addresses, 8-bit write-address form. */
#define AMP_ACM8625_STEREO_ADDR 0x58 /* ACM8625 fitting, main (RL) */
#define AMP_ACM8625_MONO_ADDR 0x5A   /* ACM8625 fitting, subwoofer */
#define AMP_AD82120_RL_ADDR 0x60     /* AD82120 fitting, main (RL) */
#define AMP_AD82120_SUB_ADDR 0x62    /* AD82120 fitting, subwoofer */

/* Sound formats. */
#define AMP_FORMAT_FLOOR 0
#define AMP_FORMAT_WALL 1
#define AMP_FORMAT_MEETING 2

#ifdef __cplusplus
#include <atomic>
extern "C" {
/* 1 when the ACM8625 fitting answered the presence check, else 0 (the
 * AD82120 fitting is assumed). Written by the presence check, read by the
 * format switch. */
extern std::atomic<int> mDeviceExistStatus;
#endif

int acm8625m_get_dev_status(void);
int acm8625m_get_mute(void);
int acm8625mono_get_mute(void);
int acm8625m_write_data(uint8_t addr, uint8_t reg, uint8_t value);
void acm8625m_set_rl_eq_table(const uint32_t (*tabL)[AMP_EQ_TAB_COLS], const uint32_t (*tabR)[AMP_EQ_TAB_COLS]);
void acm8625m_set_sub_eq_table(const uint32_t (*tabL)[AMP_EQ_TAB_COLS], const uint32_t (*tabR)[AMP_EQ_TAB_COLS]);

void Amp_Reg_Init_RL_PID(void);
void Amp_Reg_Init_Sub_PID(void);
void Amp_Reg_Init_RL_FLOOR(void);
void Amp_Reg_Init_Sub_FLOOR(void);
void Amp_Reg_Init_RL_WALL(void);
void Amp_Reg_Init_Sub_WALL(void);
void Amp_Reg_Init_RL_MEETING(void);
void Amp_Set_Eq_Drc_RL_PID(void);
void Amp_Set_Eq_Drc_Sub_PID(void);
void Amp_Set_Eq_Drc_RL_FLOOR(void);
void Amp_Set_Eq_Drc_Sub_FLOOR(void);
void Amp_Set_Eq_Drc_RL_WALL(void);
void Amp_Set_Eq_Drc_Sub_WALL(void);
void Amp_Set_Eq_Drc_RL_MEETING(void);

void HV_SetPIDAMP_Parameter(void);
void HV_SetSoundEQ(int format);

#ifdef __cplusplus
}
#endif

#endif
