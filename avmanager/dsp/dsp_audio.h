/*
 * Volume, mute, balance, treble, bass, power-down and hot-plug: the
 * service's audio requests as DSP text commands, and their queries. Owns
 * the volume scale (index 0..100 on the service side, dB on the DSP side).
 */
#ifndef AVM_DSP_AUDIO_H
#define AVM_DSP_AUDIO_H

#ifdef __cplusplus
extern "C" {
#endif

#define AVM_VOLUME_STEPS 101

/* Volume index 0..100 to dB, -65 (silent) .. 0. The three tables hold the
 * same values; indices 0 and 1 are both silent. */
extern const float volume_to_spdif_db[AVM_VOLUME_STEPS];
extern const float volume_to_main_db[AVM_VOLUME_STEPS];
extern const float volume_to_uac_db[AVM_VOLUME_STEPS];

float convertVolToDb(int channel, unsigned vol);
unsigned convertDbToVol(int channel, float db);

int set_spdif_volume(float db);
int get_spdif_volume(void);
int set_spdif_mute(int mute);
int get_spdif_mute(void);
int set_main_volume(float db);
int get_main_volume(void);
int set_main_mute(int mute);
int get_main_mute(void);

int dspHal_set_volume(int channel, unsigned vol);
int dspHal_get_volume(int channel);
int dspHal_set_mute(int channel, int mute);
int dspHal_get_mute(int channel);
int dspHal_set_balance(unsigned balance);
int dspHal_get_balance(void);
int dspHal_set_treble(unsigned value);
int dspHal_get_treble(void);
int dspHal_set_bass(unsigned value);
int dspHal_get_bass(void);
int dspHal_set_powerDown(void);
int dspHal_get_hotPlug(int peripheral_id);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <atomic>
#include <cstdint>

// Last volume index accepted by dspHal_set_volume; the fallback answer of
// the volume queries. Written by service threads and the restore thread.
extern std::atomic<int> g_volume;
// Last mute request given to dspHal_set_mute (any channel, low 8 bits);
// the fallback answer of the mute queries. The restore sets it to 0.
extern std::atomic<uint8_t> g_mute;
#endif

#if defined(__cplusplus) && defined(AVM_HOST_BUILD)
// Puts the current volume and mute back as at process start. Only tests call it (a test program runs many tests in one process).
void dspAudio_resetForTest();
#endif

#endif
