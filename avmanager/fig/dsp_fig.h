/*
 * Secondary microphone DSP (Fig DSP) link.
 */
#ifndef AVM_DSP_FIG_H
#define AVM_DSP_FIG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*DspFigStatusCallback)(int status);

int dspFigHal_set_status_callback(DspFigStatusCallback callback);

#ifdef __cplusplus
}
#endif

#endif
