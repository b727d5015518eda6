/*
 * The USB HDMI-out converter on the virtual board: its logic
 * (HdmiOutConverter) behind a usbfs node. Removal, transfer failures and
 * the raw records are reached through usb().
 *
 * Threads: decoding runs on umockdev's worker thread (the USB device's
 * bulk observer); tests and the console read from their own threads.
 */
#pragma once

#include <memory>
#include <string>

#include "board.h"
#include "hdmi_out_converter.h"
#include "usb_device_model.h"

namespace sim {

class HdmiOutModel : public HdmiOutConverter {
public:
    explicit HdmiOutModel(Board &board, Options options);
    explicit HdmiOutModel(Board &board) : HdmiOutModel(board, Options{}) {}
    ~HdmiOutModel() override;

    UsbDevice &usb() { return *usb_; }
    const std::string &devnode() const { return usb_->devnode(); }

    // Unplugs and plugs the converter back in.
    void unplug() { usb_->unplug(); }
    void replug() { usb_->replug(); }

    // What the converter says about itself: ids, strings, its interface.
    static UsbDeviceDescription description(const Options &options);

private:
    std::unique_ptr<UsbDevice> usb_; // last: its handler may run at once
};

} // namespace sim
