// Placeholder until this unit is built: every function does nothing.
#include "dsp/dsp_restore.h"

extern "C" {
int dspHalInitParameter(void)
{
    return 0;
}

int initDspSoundMode(void)
{
    return 0;
}

int initDspMute(void)
{
    return 0;
}

int initDspVolume(void)
{
    return 0;
}

int initDspBalance(void)
{
    return 0;
}

int initDspTreble(void)
{
    return 0;
}

int initDspBass(void)
{
    return 0;
}

int initDspSpkEqMode(void)
{
    return 0;
}

int updateVersoinInfo(void)
{
    return 0;
}

}
