// Placeholder until this unit is built: every function does nothing.
#include "dsp/uac_mixer.h"

extern "C" {
int isUacDeviceExist(void)
{
    return 0;
}

int set_uac_volume(int value)
{
    return 0;
}

int get_uac_volume(void)
{
    return 0;
}

int set_uac_mute(int mute)
{
    return 0;
}

int get_uac_mute(void)
{
    return 0;
}

int convertVolToUacVol(unsigned vol)
{
    return 0;
}

unsigned convertUacVolToVol(int raw)
{
    return 0;
}

}
