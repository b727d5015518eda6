/*
 * Sound modes (four presets and the user mode from the stereo-enhancer
 * ini), direct user-equaliser bands, and speaker placement.
 */
#ifndef AVM_DSP_SOUND_MODES_H
#define AVM_DSP_SOUND_MODES_H

#ifdef __cplusplus
extern "C" {
#endif

int dspHal_set_soundMode(int mode);
int dspHal_get_soundMode(void);
int dspHal_set_user_eq_param(int index, int type, int freq, int gain, int q);
int dspHal_get_user_eq_gain(int index);
int getEqGainFromIni(int index);
int dspHal_set_spk_eq_mode(int mode);
int dspHal_get_spk_eq_mode(void);

#ifdef __cplusplus
}
#endif

#endif
