/*
 * Amplifier tuning files: pid_amp.ini and the per-format ini files, parsed
 * into the process-wide register, coefficient and equaliser tables.
 */
#ifndef AVM_AMP_TUNING_H
#define AVM_AMP_TUNING_H

#ifdef __cplusplus
extern "C" {
#endif

void parse_PidAmp_RL_Info(void);
void parse_PidAmp_SUB_Info(void);
void parseAmp_RL_Floor_Info(void);
void parseAmp_SUB_Floor_Info(void);
void parseAmp_RL_Wall_Info(void);
void parseAmp_SUB_Wall_Info(void);
void parseAmp_RL_Meeting_Info(void);

#ifdef __cplusplus
}
#endif

#endif
