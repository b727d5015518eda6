/*
 * USB audio volume and mute: mixer controls of ALSA card 2 through
 * "/dev/snd/controlC2".
 */
#ifndef AVM_UAC_MIXER_H
#define AVM_UAC_MIXER_H

#ifdef __cplusplus
extern "C" {
#endif

int isUacDeviceExist(void);
int set_uac_volume(int value);
int get_uac_volume(void);
int set_uac_mute(int mute);
int get_uac_mute(void);
int convertVolToUacVol(unsigned vol);
unsigned convertUacVolToVol(int raw);

#ifdef __cplusplus
}
#endif

#endif
