// Placeholder until this unit is built: every function does nothing.
#include "dsp/dsp_pickup.h"

extern "C" {
int dspHal_set_doa_status(int on)
{
    return 0;
}

int dspHal_get_doa_status(void)
{
    return 0;
}

int dspHal_set_mic_bar_angle(int startAngle, int endAngle, int isStatic)
{
    return 0;
}

int dspHal_set_zoom_enable(int on)
{
    return 0;
}

int dspHal_set_audioMode(const char *name)
{
    return 0;
}

int dspHal_get_audioMode(void)
{
    return 0;
}

}
