/*
 * Device detection: the detection thread (microphone status, versions and
 * self-tests) and the DSP's microphone test replies.
 */
#ifndef AVM_DETECT_H
#define AVM_DETECT_H

#ifdef __cplusplus
extern "C" {
#endif

int detect_version_init(void);
int dsp_mic_status_update(const char *value);
int dsp_mic_aux_test_update(const char *value);

#ifdef __cplusplus
}
#endif

#endif
