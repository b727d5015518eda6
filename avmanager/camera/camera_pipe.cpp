// Placeholder until this unit is built: every function does nothing.
#include "camera/camera_pipe.h"

extern "C" {
int initCameraPipe(void)
{
    return 0;
}

int unInitCameraPipe(void)
{
    return 0;
}

int sendDoaToCameraPipe(uint32_t value)
{
    return 0;
}

int sendUsbChannelInfoToCameraPipe(uint32_t value)
{
    return 0;
}

int sendAutoTestToCameraPipe(uint32_t value)
{
    return 0;
}

}
