/*
 * The virtual board with the camera attached as a USB device: its sysfs
 * entry ("1-1", the dual x3m camera, the one that hands out its logs)
 * and its raw HID interface on /dev/hidraw0, plus a capture of what the
 * module logs. Fixtures derive from it next to ::testing::Test; the log
 * capture is made first and the board outlives every model on it.
 */
#pragma once

#include <cstdint>

#include "log_capture.h"
#include "sim/board.h"
#include "sim/hid_camera_model.h"
#include "sim/usb_sysfs.h"

namespace avmtest {

inline constexpr uint16_t kCamVid = 0x2E7D;
inline constexpr uint16_t kCamPid = 0x051A;

struct CameraOnBoard {
    CameraOnBoard() { usb.attach("1-1", kCamVid, kCamPid); }

    LogCapture log;
    sim::Board board;
    sim::UsbSysfs usb{board};
    sim::HidCameraModel camera{board, "/dev/hidraw0", kCamVid, kCamPid};
};

} // namespace avmtest
