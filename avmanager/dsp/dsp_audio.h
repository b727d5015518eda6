/*
 * Volume, mute, balance, treble, bass, power-down and hot-plug: the
 * service's audio requests as DSP text commands, and their queries.
 */
#ifndef AVM_DSP_AUDIO_H
#define AVM_DSP_AUDIO_H

#ifdef __cplusplus
extern "C" {
#endif

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

#endif
