/*
 * The USB camera on the kernel board: a gadget with the camera's ids whose
 * first interface is the vendor bulk interface the USB tool talks to
 * (FunctionFS) and whose second is an HID function (f_hid). Under the
 * host side of the same kernel it is an ordinary USB camera: its sysfs
 * entry, its usbfs node and the hidraw node usbhid makes for it are the
 * kernel's own.
 *
 * The HID channel is served by the camera's HID logic (HidCameraLogic,
 * shared with the virtual board): what the host writes to the hidraw node
 * arrives on the gadget's /dev/hidgN and is answered there. The tool
 * interface records what the host sends and hands out queued data.
 *
 * Threads: a server thread for the HID function and the tool's two; tests
 * use the logic's setters and getters and plug()/unplug() from theirs.
 */
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "ffs_bulk.h"
#include "sim/hid_camera_logic.h"
#include "usb_gadget.h"

namespace sim::kernel {

class KernelCamera : public HidCameraLogic {
public:
    static constexpr uint16_t kVid = 0x2E7D; // the dual x3m camera
    static constexpr uint16_t kPid = 0x051A;

    // The camera as the host sees it: ids, strings, and its first
    // interface (vendor class, bulk IN then bulk OUT).
    static UsbDeviceDescription description(uint16_t vid, uint16_t pid);

    // Makes the camera's gadget and plugs it into the camera controller;
    // waits for its hidraw node.
    explicit KernelCamera(uint16_t vid = kVid, uint16_t pid = kPid);
    ~KernelCamera() override;

    // Empty when the camera is up; otherwise what went wrong.
    const std::string &error() const { return error_; }

    // The host's view.
    std::string hidraw() const;        // "/dev/hidrawN", "" while none
    std::string hostEntry() const { return gadget_.hostEntry(); }
    std::string hostNode() const { return gadget_.hostNode(); }
    UsbGadget &gadget() { return gadget_; }

    // The USB tool interface.
    FfsBulk &tool() { return *tool_; }

    // Hot-plug: the gadget unbound from and bound to its controller.
    bool unplug();
    bool plug();

private:
    void serveHid();
    void wake();

    UsbGadget gadget_;
    std::string hidFunction_;           // configfs directory of the HID function
    std::unique_ptr<FfsFunction> toolFunction_;
    std::unique_ptr<FfsBulk> tool_;
    int wakeFd_ = -1;                   // eventfd: a report queued, plugged, or stop
    std::atomic<unsigned> generation_{0}; // bumped at each plug and unplug
    std::atomic<bool> stopping_{false};
    std::thread hidServer_;
    std::string error_;
};

} // namespace sim::kernel
