// Placeholder until this unit is built: every function does nothing.
#include "dsp/dsp_replies.h"

extern "C" {
int dsp_spdif_dbVol_update(const char *text)
{
    return 0;
}

int dsp_main_dbVol_update(const char *text)
{
    return 0;
}

int dsp_mainMute_status_update(const char *text)
{
    return 0;
}

int dsp_doa_status_update(const char *text)
{
    return 0;
}

int dsp_hotPlug_status_update(const char *text)
{
    return 0;
}

int dsp_balance_status_update(int channel, const char *text)
{
    return 0;
}

int dsp_led_status_update(const char *text)
{
    return 0;
}

void dsp_parse_EQInfo(const char *text)
{
}

int dsp_parse_doa(const char *value)
{
    return 0;
}

int dsp_parse_audio_out_mode(const char *value)
{
    return 0;
}

void dsp_fullVersion_update(const char *text)
{
}

}
