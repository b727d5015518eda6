/*
 * Configuration upgrade: compares the DSP's copy of its configuration
 * bundle with the reference and sends the reference when they differ.
 */
#ifndef AVM_CONFIG_UPGRADE_H
#define AVM_CONFIG_UPGRADE_H

#ifdef __cplusplus
extern "C" {
#endif

int upgradeAllConfigs(void);
int isNeedToUpgradeAllConfigs(void);
int readAllConfigs(void);

#ifdef __cplusplus
}
#endif

#endif
