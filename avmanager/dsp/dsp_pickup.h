/*
 * Pickup direction and audio routing: DOA reporting, microphone-bar sector,
 * camera-zoom pickup, audio-out route, read-back of a user-equaliser band.
 */
#ifndef AVM_DSP_PICKUP_H
#define AVM_DSP_PICKUP_H

#ifdef __cplusplus
extern "C" {
#endif

int dspHal_set_doa_status(int on);
int dspHal_get_doa_status(void);
int dspHal_set_mic_bar_angle(int startAngle, int endAngle, int isStatic);
int dspHal_set_zoom_enable(int on);
int dspHal_set_audioMode(const char *name);
int dspHal_get_audioMode(void);

#ifdef __cplusplus
}
#endif

#endif
