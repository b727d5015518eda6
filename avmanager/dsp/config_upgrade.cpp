// Placeholder until this unit is built: every function does nothing.
#include "dsp/config_upgrade.h"

extern "C" {
int upgradeAllConfigs(void)
{
    return 0;
}

int isNeedToUpgradeAllConfigs(void)
{
    return 0;
}

int readAllConfigs(void)
{
    return 0;
}

}
