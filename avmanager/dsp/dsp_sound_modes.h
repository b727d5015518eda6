/*
 * Sound modes (four presets and the user mode from the stereo-enhancer
 * ini), direct user-equaliser bands, and speaker placement.
 */
#ifndef AVM_DSP_SOUND_MODES_H
#define AVM_DSP_SOUND_MODES_H

#define DSP_SOUND_MODE_USER 4 /* bands from the stereo-enhancer ini */
#define DSP_STEREO_ENHANCER_INI "/mnt/vendor/param/audio/quor_stereo_enhancer.ini"

#ifdef __cplusplus
#include <atomic>
extern "C" {
/* Current sound mode 0..4; follows every accepted switch and every
 * dspHal_get_soundMode. Binder threads and the restore thread. */
extern std::atomic<int> g_soundMode;
/* 1 until the first speaker-placement request of a floor/wall product has
 * loaded the amplifier tuning files, then 0 for the life of the process. */
extern std::atomic<int> FirstTime;
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

#if defined(__cplusplus) && defined(AVM_HOST_BUILD)
// Puts the current sound mode and the first-time flag back as at process start. Only tests call it (a test program runs many tests in one process).
void dspSoundModes_resetForTest();
#endif

#endif
