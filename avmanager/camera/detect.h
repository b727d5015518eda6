/*
 * Device detection: the detection thread (camera version, DSP version,
 * microphone self-tests and the one-time microphone power cycle) and the
 * DSP's microphone test replies.
 */
#ifndef AVM_DETECT_H
#define AVM_DETECT_H

#ifdef __cplusplus
extern "C" {
#endif

#define MIC_STATUS_OUT_SIZE 512
#define MIC_AUX_TEST_MAX 4
#define MIC_POWER_PATH "/sys/class/hwmisc_cls/hwmisc_dev/mic_power"

int detect_version_init(void);
void *hal_detect_version_thread(void *arg);
int detectMicVersion(void);
int detectMicStatus(void);
int testMicAuxAll(void);
int dsp_mic_status_update(const char *value);
int dsp_mic_aux_test_update(const char *value);
/* `out` holds at least MIC_STATUS_OUT_SIZE bytes. */
void parseMicStatus(const char *text, char *out);
int need_monitor_mic_test(void);
int get_mic_test_reset(void);
void reset_mic(void);
void detect_again(void);
void reset_mic_when_first_detect(void);

#ifdef AVM_HOST_BUILD
/* Only tests call this: stops the detection thread and forgets every flag
 * and the last DSP version, as at process start. */
void detect_resetForTest(void);
/* Only tests call this: puts the monitoring of the first microphone test
 * where a run of passes would have left it (record test seen, first result
 * decided, repeated test pending), without cycling the microphone power. */
void detect_setMonitorStateForTest(int recordTest, int firstCheckDone, int retestPending);
#endif

#ifdef __cplusplus
}
#endif

#endif
