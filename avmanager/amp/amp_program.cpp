// Placeholder until this unit is built: every function does nothing.
#include "amp/amp_program.h"

extern "C" {
int acm8625m_get_dev_status(void)
{
    return 0;
}

void HV_SetPIDAMP_Parameter(void)
{
}

void HV_SetSoundEQ(int format)
{
}

}
