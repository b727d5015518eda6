/*
 * Configuration upgrade: compares the DSP's copy of its configuration
 * bundle with the reference and sends the reference when they differ.
 */
#ifndef AVM_CONFIG_UPGRADE_H
#define AVM_CONFIG_UPGRADE_H

#include <stdint.h>

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
/* One chunk of a transfer: reads `chunk` bytes (at most
 * ALL_CONFIGS_CHUNK_SIZE) at `offset` of the file at `path`, opened afresh
 * for this chunk, and writes them into hex as upper-case hexadecimal (two
 * characters per byte, at most hexSize / 2 bytes, no terminator). Returns
 * the number of characters, or -1 when the file cannot be opened, does
 * not hold `chunk` bytes from `offset`, or `chunk` is longer than
 * ALL_CONFIGS_CHUNK_SIZE (logged). */
int read_local_file_transfer_to_hex_ascii(const char *path, uint32_t offset, uint32_t chunk,
                                          char *hex, uint32_t hexSize);

#ifdef __cplusplus
}
#endif

#endif
