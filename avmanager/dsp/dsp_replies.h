/*
 * DSP reply handlers: run on the DSP receive thread, turn replies into the
 * reply caches, properties, or DOA messages for the camera.
 */
#ifndef AVM_DSP_REPLIES_H
#define AVM_DSP_REPLIES_H

#ifdef __cplusplus
extern "C" {
#endif

int dsp_spdif_dbVol_update(const char *text);
int dsp_main_dbVol_update(const char *text);
int dsp_mainMute_status_update(const char *text);
int dsp_doa_status_update(const char *text);
int dsp_hotPlug_status_update(const char *text);
int dsp_balance_status_update(int channel, const char *text);
int dsp_led_status_update(const char *text);
void dsp_parse_EQInfo(const char *text);
int dsp_parse_doa(const char *value);
int dsp_parse_audio_out_mode(const char *value);
void dsp_fullVersion_update(const char *text);

#ifdef __cplusplus
}
#endif

#endif
