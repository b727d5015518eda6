/*
 * Stopping the module's HID channel the way a device has to: a hidraw read
 * waits for a report however long it takes, also after the node was closed
 * under it, so the camera sends one and the receive thread, woken, sees it
 * was stopped and ends. Shared by the virtual board's tests and the kernel
 * board's (the camera is either's HidCameraLogic).
 */
#pragma once

#include <vector>

#include "camera/cam_hid.h"
#include "sim/hid_camera_logic.h"

namespace avmtest {

// hal_hidraw_deinit, one report from each camera given (the channel may
// be on any of them), then joinHidThreadPool; returns what the join
// returned.
inline int stopHidChannel(const std::vector<sim::HidCameraLogic *> &cameras)
{
    hal_hidraw_deinit();
    for (sim::HidCameraLogic *camera : cameras)
        camera->sendReport(sim::HidCameraLogic::Report(sim::HidCameraLogic::kReportSize, 0));
    return joinHidThreadPool();
}

inline int stopHidChannel(sim::HidCameraLogic &camera)
{
    return stopHidChannel(std::vector<sim::HidCameraLogic *>{&camera});
}

} // namespace avmtest
