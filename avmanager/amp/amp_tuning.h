/*
 * Amplifier tuning files: pid_amp.ini and the per-format ini files, parsed
 * into the process-wide register, coefficient and equaliser tables.
 *
 * Tables hold the parsed numbers whole; the programming code writes only
 * their low byte. A table that was never loaded, or a row whose key was
 * missing, keeps its previous content (all start zeroed).
 */
#ifndef AVM_AMP_TUNING_H
#define AVM_AMP_TUNING_H

#include <stdint.h>

#define AMP_REG_TAB_SIZE 134 /* register table entries */
#define AMP_RAM_TAB_ROWS 120 /* coefficient table rows */
#define AMP_RAM_TAB_COLS 4
#define AMP_EQ_TAB_ROWS 75   /* ACM8625 equaliser table rows */
#define AMP_EQ_TAB_COLS 5

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _dictionary_ dictionary;

/* Start-up ("PID") tables, from pid_amp.ini. */
extern uint32_t m_reg_tab_RL_pid[AMP_REG_TAB_SIZE];
extern uint32_t m_reg_tab_SUB_pid[AMP_REG_TAB_SIZE];
extern uint32_t m_ram1_tab_RL_pid[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
extern uint32_t m_ram2_tab_RL_pid[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
extern uint32_t m_ram1_tab_SUB_pid[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
extern uint32_t m_ram2_tab_SUB_pid[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];

/* Floor format. */
extern uint32_t m_reg_tab_RL_floor[AMP_REG_TAB_SIZE];
extern uint32_t m_reg_tab_SUB_floor[AMP_REG_TAB_SIZE];
extern uint32_t m_ram1_tab_RL_floor[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
extern uint32_t m_ram2_tab_RL_floor[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
extern uint32_t m_ram1_tab_SUB_floor[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
extern uint32_t m_ram2_tab_SUB_floor[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
extern uint32_t tab_L_RL_floor[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];
extern uint32_t tab_R_RL_floor[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];
extern uint32_t tab_L_SUB_floor[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];
extern uint32_t tab_R_SUB_floor[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];

/* Wall format. */
extern uint32_t m_reg_tab_RL_wall[AMP_REG_TAB_SIZE];
extern uint32_t m_reg_tab_SUB_wall[AMP_REG_TAB_SIZE];
extern uint32_t m_ram1_tab_RL_wall[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
extern uint32_t m_ram2_tab_RL_wall[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
extern uint32_t m_ram1_tab_SUB_wall[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
extern uint32_t m_ram2_tab_SUB_wall[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
extern uint32_t tab_L_RL_wall[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];
extern uint32_t tab_R_RL_wall[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];
extern uint32_t tab_L_SUB_wall[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];
extern uint32_t tab_R_SUB_wall[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];

/* Meeting format: main amplifier only, no equaliser tables. */
extern uint32_t m_reg_tab_RL_meeting[AMP_REG_TAB_SIZE];
extern uint32_t m_ram1_tab_RL_meeting[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
extern uint32_t m_ram2_tab_RL_meeting[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];

void parse_PidAmp_RL_Info(void);
void parse_PidAmp_SUB_Info(void);
/* Loads a per-format file by bare name: the tuned copy in the parameter
 * partition first, then the factory copy of the product configuration.
 * Returns the dictionary (caller frees it) or NULL. */
dictionary *parseAmp_Ini_Info(const char *file);
void parseAmp_RL_Floor_Info(void);
void parseAmp_SUB_Floor_Info(void);
void parseAmp_RL_Wall_Info(void);
void parseAmp_SUB_Wall_Info(void);
void parseAmp_RL_Meeting_Info(void);

/* The tables are filled by the parse functions and read by the amplifier
 * programming; both hold this (recursive) lock while they touch them. */
void ampTablesLock(void);
void ampTablesUnlock(void);

#ifdef AVM_HOST_BUILD
/* Zeroes every table, as at process start. Only tests call it (a test
 * program runs many tests in one process). */
void ampTuning_resetForTest(void);
#endif

#ifdef __cplusplus
}
#endif

#endif
