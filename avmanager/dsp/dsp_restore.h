/*
 * DSP parameter restore: re-sends the stored settings whenever the DSP
 * announces itself, after the configuration upgrade check.
 */
#ifndef AVM_DSP_RESTORE_H
#define AVM_DSP_RESTORE_H

#ifdef __cplusplus
extern "C" {
#endif

int dspHalInitParameter(void);
int initDspSoundMode(void);
int initDspMute(void);
int initDspVolume(void);
int initDspBalance(void);
int initDspTreble(void);
int initDspBass(void);
int initDspSpkEqMode(void);
int updateVersoinInfo(void);

#ifdef __cplusplus
}
#endif

#endif
