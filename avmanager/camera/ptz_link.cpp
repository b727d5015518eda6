// Placeholder until this unit is built: every function does nothing.
#include "camera/ptz_link.h"

extern "C" {
int camera_ptzHal_init(void)
{
    return 0;
}

int camera_ptzHal_deinit(void)
{
    return 0;
}

void joinPtzThreadPool(void)
{
}

}
