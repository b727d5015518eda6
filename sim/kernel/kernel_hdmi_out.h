/*
 * The HDMI-out converter on the kernel board: a gadget with the
 * converter's ids, strings and interface (one FunctionFS function, bulk IN
 * and OUT), plugged into its own controller. Its transfers and the
 * connect request are handed to the converter's logic (HdmiOutConverter,
 * shared with the virtual board), which decodes the packet stream and
 * queues acknowledgements; the gadget hands them to the host.
 *
 * Threads: the function's control thread and the two bulk threads run
 * the logic; tests read its records and unplug/replug from theirs.
 */
#pragma once

#include <memory>
#include <string>

#include "ffs_bulk.h"
#include "sim/hdmi_out_converter.h"
#include "usb_gadget.h"

namespace sim::kernel {

class KernelHdmiOut : public HdmiOutConverter {
public:
    explicit KernelHdmiOut(Options options = Options{});
    ~KernelHdmiOut() override;

    // Empty when the converter is up; otherwise what went wrong.
    const std::string &error() const { return error_; }
    std::string hostNode() const { return gadget_.hostNode(); }
    FfsBulk &bulk() { return *bulk_; }
    // Control requests to the interface the host made.
    size_t controlRequests() const { return controls_.load(); }

    // Removal mid-stream: the gadget unbound from its controller, and
    // bound again.
    bool unplug() { return gadget_.unplug(); }
    bool replug() { return gadget_.plug(kConverterController); }

private:
    UsbGadget gadget_;
    std::unique_ptr<FfsFunction> function_;
    std::unique_ptr<FfsBulk> bulk_;
    std::atomic<size_t> controls_{0};
    std::string error_;
};

} // namespace sim::kernel
