// Placeholder until this unit is built: every function does nothing.
#include "dsp/dsp_sound_modes.h"

extern "C" {
int dspHal_set_soundMode(int mode)
{
    return 0;
}

int dspHal_get_soundMode(void)
{
    return 0;
}

int dspHal_set_user_eq_param(int index, int type, int freq, int gain, int q)
{
    return 0;
}

int dspHal_get_user_eq_gain(int index)
{
    return 0;
}

int getEqGainFromIni(int index)
{
    return 0;
}

int dspHal_set_spk_eq_mode(int mode)
{
    return 0;
}

int dspHal_get_spk_eq_mode(void)
{
    return 0;
}

}
