/*
 * The kernel board's HDMI-out converter: FunctionFS transport of the
 * converter's logic.
 */
#include "kernel_hdmi_out.h"

#include "sim/hdmi_out_model.h"

namespace sim::kernel {

KernelHdmiOut::KernelHdmiOut(Options options)
    : HdmiOutConverter(options), gadget_("hdmiout", HdmiOutModel::description(options))
{
    if (!gadget_.ok()) {
        error_ = gadget_.error();
        return;
    }
    const UsbInterface interface = HdmiOutModel::description(options).interfaces[0];
    function_ = std::make_unique<FfsFunction>(gadget_, "ffs.hdmiout", interface);
    if (!function_->ok()) {
        error_ = function_->error();
        return;
    }
    const size_t inIndex = interface.endpoints[0].address & 0x80 ? 0 : 1;
    bulk_ = std::make_unique<FfsBulk>(*function_, inIndex, 1 - inIndex, kTransferSize,
                                      [this](const FfsBulk::Transfer &t) {
                                          onTransfer(t.in ? kInEndpoint : kOutEndpoint, t.bytes, t.when);
                                      });
    setTransport([this](std::vector<uint8_t> bytes) { bulk_->queueIn(std::move(bytes)); }, nullptr);
    function_->setSetupHandler([this](uint8_t type, uint8_t request, uint16_t, uint16_t, uint16_t,
                                      std::vector<uint8_t> &) {
        ++controls_;
        onControl(type, request);
        return true;
    });
    if (!gadget_.plug(kConverterController))
        error_ = gadget_.error();
}

KernelHdmiOut::~KernelHdmiOut()
{
    if (gadget_.plugged())
        gadget_.unplug();
    bulk_.reset();
    function_.reset();
}

} // namespace sim::kernel
