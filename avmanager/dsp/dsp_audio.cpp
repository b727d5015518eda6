// Placeholder until this unit is built: every function does nothing.
#include "dsp/dsp_audio.h"

extern "C" {
int dspHal_set_volume(int channel, unsigned vol)
{
    return 0;
}

int dspHal_get_volume(int channel)
{
    return 0;
}

int dspHal_set_mute(int channel, int mute)
{
    return 0;
}

int dspHal_get_mute(int channel)
{
    return 0;
}

int dspHal_set_balance(unsigned balance)
{
    return 0;
}

int dspHal_get_balance(void)
{
    return 0;
}

int dspHal_set_treble(unsigned value)
{
    return 0;
}

int dspHal_get_treble(void)
{
    return 0;
}

int dspHal_set_bass(unsigned value)
{
    return 0;
}

int dspHal_get_bass(void)
{
    return 0;
}

int dspHal_set_powerDown(void)
{
    return 0;
}

int dspHal_get_hotPlug(int peripheral_id)
{
    return 0;
}

}
