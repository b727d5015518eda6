/*
 * HDMI-out converter on the virtual board: a USB device whose transfers
 * go to the converter's logic (on umockdev's worker thread).
 */
#include "hdmi_out_model.h"

namespace sim {

UsbDeviceDescription HdmiOutModel::description(const Options &options)
{
    UsbDeviceDescription d;
    d.vendorId = options.vendorId;
    d.productId = options.productId;
    d.bcdDevice = 0x0102;
    d.manufacturer = "Board Video";
    d.product = "HDMI-out converter";
    d.serial = "HDMI0001";
    UsbInterface interface;
    interface.number = 0;
    const UsbEndpoint in{HdmiOutModel::kInEndpoint, 0x02, 512, 0};
    const UsbEndpoint out{HdmiOutModel::kOutEndpoint, 0x02, 512, 0};
    interface.endpoints = options.order == HdmiOutModel::Order::InFirst ? std::vector<UsbEndpoint>{in, out}
                                                                      : std::vector<UsbEndpoint>{out, in};
    d.interfaces = {interface};
    return d;
}

HdmiOutModel::HdmiOutModel(Board &board, Options options) : HdmiOutConverter(options)
{
    setTransport(
        [this](std::vector<uint8_t> bytes) { usb_->queueIn(kInEndpoint, std::move(bytes)); },
        [&board](const std::string &note, bool toDevice) {
            TraceEvent event;
            event.when = Clock::now();
            event.link = "hdmi-out";
            event.toDevice = toDevice;
            event.note = note;
            event.bytes.assign(note.begin(), note.end());
            board.trace().add(std::move(event));
        });
    usb_ = std::make_unique<UsbDevice>(board, description(options), "hdmi-out");
    usb_->setTraceBulk(false);
    usb_->setBulkObserver(
        [this](const UsbDevice::BulkTransfer &transfer) { onTransfer(transfer.endpoint, transfer.bytes, transfer.when); });
    usb_->setControlHandler([this](const UsbDevice::ControlTransfer &setup, std::vector<uint8_t> &, int *) {
        onControl(setup.requestType, setup.request);
        return 0;
    });
}

HdmiOutModel::~HdmiOutModel()
{
    usb_.reset();
}

} // namespace sim
