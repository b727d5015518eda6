/*
 * Amplifier programming and sound-format switching (floor, wall, meeting)
 * for the ACM8625 and AD82120 fittings.
 */
#ifndef AVM_AMP_PROGRAM_H
#define AVM_AMP_PROGRAM_H

#ifdef __cplusplus
extern "C" {
#endif

int acm8625m_get_dev_status(void);
void HV_SetPIDAMP_Parameter(void);
void HV_SetSoundEQ(int format);

#ifdef __cplusplus
}
#endif

#endif
