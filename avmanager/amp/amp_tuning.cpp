// Placeholder until this unit is built: every function does nothing.
#include "amp/amp_tuning.h"

extern "C" {
void parse_PidAmp_RL_Info(void)
{
}

void parse_PidAmp_SUB_Info(void)
{
}

void parseAmp_RL_Floor_Info(void)
{
}

void parseAmp_SUB_Floor_Info(void)
{
}

void parseAmp_RL_Wall_Info(void)
{
}

void parseAmp_SUB_Wall_Info(void)
{
}

void parseAmp_RL_Meeting_Info(void)
{
}

}
