/*
 * Pickup direction and audio routing: DOA reporting, microphone-bar sector,
 * camera-zoom pickup, audio-out route, read-back of a user-equaliser band.
 */
#ifndef AVM_DSP_PICKUP_H
#define AVM_DSP_PICKUP_H

#ifdef __cplusplus
extern "C" {
#endif

/* Audio-out routes by index; the setter takes the name, the getter returns
 * the index. */
enum { AUDIO_OUT_SPEAKER = 0, AUDIO_OUT_LINEOUT = 1, AUDIO_OUT_EARPHONE = 2, AUDIO_OUT_WIREMIC = 3 };

int dspHal_set_doa_status(int on);
int dspHal_get_doa_status(void);
int dspHal_set_mic_bar_angle(int startAngle, int endAngle, int isStatic);
int dspHal_set_zoom_enable(int on);
int dspHal_set_audioMode(const char *name);
int dspHal_get_audioMode(void);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
struct UserEqInfo;
// Asks the DSP for one user-equaliser band and waits for the answer: the
// band's record in userEqInfo once it was reported, null for an index of 8
// or more (nothing is sent) or when no reply came within 900 ms.
extern "C" UserEqInfo *get_dsp_EQInfo(unsigned index);
#endif

#endif
