/*
 * Configuration upgrade: compares the DSP's copy of its configuration
 * bundle with the reference and sends the reference when they differ.
 */
#ifndef AVM_CONFIG_UPGRADE_H
#define AVM_CONFIG_UPGRADE_H

#ifdef __cplusplus
extern "C" {
#endif

#define ALL_CONFIGS_REFERENCE_PATH "/system/etc/dsp_config/AllConfigs.bin"
#define ALL_CONFIGS_DSP_PATH "/data/misc/AllConfigs.bin"
#define ALL_CONFIGS_CHUNK_SIZE 240 /* bytes per FWDAT: 480 hex characters */

/* 1 when a transfer completed and the DSP accepted its end, else 0. */
int upgradeAllConfigs(void);
/* 1 if the DSP answered FINF and its copy differs, else 0. */
int isNeedToUpgradeAllConfigs(void);
/* Reserved: does nothing, returns 0. */
int readAllConfigs(void);
/* Writes request (cut to 511 characters) to the DSP port and waits for the
 * answer of entry `index` of gFileOpsInfoList: up to 3 writes, each followed
 * by up to 16 polls 50 ms apart. 1 if answered and accepted, else 0. */
int retrySendMsg(const char *request, int index);

#ifdef __cplusplus
}
#endif

#endif
