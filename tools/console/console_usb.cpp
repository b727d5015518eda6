/*
 * The HDMI-out converter on the console's board, and its commands: drive
 * the module's HDMI-out operations against it (init with the converter's
 * ids, connect, a test pattern stream, disconnect, deinit), look at what
 * the converter decoded, queue acknowledgements, unplug and plug it back,
 * make its transfers fail.
 */
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <hardware/hardware.h>

#include "console.h"
#include "sim/hdmi_out_model.h"

namespace console {

namespace {

constexpr size_t kTransfer = sim::HdmiOutModel::kTransferSize;
constexpr size_t kMaxPacket = sim::HdmiOutModel::kMaxThisLen;
constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

// The loaded module (the console loaded it before any command runs).
const avmanager_module_t *module()
{
    const hw_module_t *found = nullptr;
    if (hw_get_module(AVMANAGER_HARDWARE_MODULE_ID, &found) != 0)
        return nullptr;
    return reinterpret_cast<const avmanager_module_t *>(found);
}

// Byte `offset` of the test pattern of a stream of type `type`.
uint8_t patternByte(size_t offset, int type)
{
    return static_cast<uint8_t>((offset * 7 + offset / 251 + static_cast<size_t>(type)) & 0xff);
}

// Sends `size` bytes of the test pattern as data packets of at most
// 512000 bytes, each handed over in a buffer readable up to the next
// multiple of 512, and says whether the converter got them byte-exact.
void sendPattern(const avmanager_module_t *hal, sim::HdmiOutModel &hdmi, size_t size, int type)
{
    const size_t before = hdmi.count(sim::HdmiOutModel::Kind::Data);
    size_t packets = 0;
    for (size_t offset = 0; offset < size || (size == 0 && packets == 0);) {
        const size_t len = std::min(kMaxPacket, size - offset);
        std::vector<uint8_t> buffer((len + kTransfer - 1) / kTransfer * kTransfer + (len == 0 ? kTransfer : 0), 0);
        for (size_t i = 0; i < len; ++i)
            buffer[i] = patternByte(offset + i, type);
        const int result = hal->usb_hdmiOut_packet_process(hal, type, static_cast<int>(size), static_cast<int>(len),
                                                           0, 0, 0, kWidth, kHeight, buffer.data());
        consolePrint("  packet " + std::to_string(packets) + ": " + std::to_string(len) + " bytes = " +
                     std::to_string(result));
        ++packets;
        if (result != 0)
            return;
        offset += len;
        if (len == 0)
            break;
    }
    // The packets just sent, as the converter decoded them.
    const auto data = hdmi.packets(sim::HdmiOutModel::Kind::Data);
    bool exact = data.size() == before + packets;
    size_t offset = 0;
    for (size_t i = before; exact && i < data.size(); ++i) {
        exact = data[i].complete && data[i].type == static_cast<uint32_t>(type & 0xffff);
        for (size_t j = 0; exact && j < data[i].payload.size(); ++j)
            exact = data[i].payload[j] == patternByte(offset + j, type);
        offset += data[i].payload.size();
    }
    consolePrint(std::string("converter received ") + std::to_string(offset) + " of " + std::to_string(size) +
                 " bytes in " + std::to_string(data.size() - std::min(data.size(), before)) + " packet(s): " +
                 (exact && offset == size ? "byte-exact" : "NOT as sent"));
}

bool parseTransfer(const std::string &name, sim::UsbDevice::Transfer *kind)
{
    if (name == "out")
        *kind = sim::UsbDevice::Transfer::BulkOut;
    else if (name == "in")
        *kind = sim::UsbDevice::Transfer::BulkIn;
    else if (name == "control")
        *kind = sim::UsbDevice::Transfer::Control;
    else if (name == "claim")
        *kind = sim::UsbDevice::Transfer::Claim;
    else
        return false;
    return true;
}

bool hdmiCommands(sim::HdmiOutModel &hdmi, const Args &args)
{
    if (args.empty())
        return false;
    const std::string &sub = args[0];
    const avmanager_module_t *hal = module();
    if (!hal && (sub == "init" || sub == "connect" || sub == "send" || sub == "disconnect" || sub == "deinit")) {
        consolePrint("the module is not loaded");
        return true;
    }
    long value = 0;
    if (sub == "init" && args.size() == 1) {
        consolePrint("= " + std::to_string(hal->usb_hdmiOut_init(hal, sim::HdmiOutModel::kVendorId,
                                                                 sim::HdmiOutModel::kProductId)));
        return true;
    }
    if (sub == "connect" && args.size() == 1) {
        consolePrint("= " + std::to_string(hal->connect_usb_hdmiOut()));
        return true;
    }
    if (sub == "send" && (args.size() == 2 || args.size() == 3) && parseInt(args[1], &value) && value >= 0) {
        long type = 1;
        if (args.size() == 3 && !parseInt(args[2], &type))
            return false;
        sendPattern(hal, hdmi, static_cast<size_t>(value), static_cast<int>(type));
        return true;
    }
    if (sub == "disconnect" && args.size() == 1) {
        consolePrint("= " + std::to_string(hal->disconnect_usb_hdmiOut()));
        return true;
    }
    if (sub == "deinit" && args.size() == 1) {
        consolePrint("= " + std::to_string(hal->usb_hdmiOut_deinit()));
        return true;
    }
    if (sub == "capture" && args.size() == 1) {
        for (const auto &line : hdmi.describe())
            consolePrint("  " + line);
        return true;
    }
    if (sub == "clear" && args.size() == 1) {
        hdmi.clear();
        hdmi.usb().clearTransfers();
        return true;
    }
    if (sub == "ack" && args.size() == 1) {
        hdmi.queueAck();
        return true;
    }
    if (sub == "in" && args.size() >= 2) {
        std::vector<uint8_t> bytes;
        for (size_t i = 1; i < args.size(); ++i) {
            if (!parseInt(args[i], &value) || value < 0 || value > 255)
                return false;
            bytes.push_back(static_cast<uint8_t>(value));
        }
        bytes.resize(kTransfer, 0);
        hdmi.queueIn(bytes);
        return true;
    }
    if (sub == "autoack" && args.size() == 2 && (args[1] == "on" || args[1] == "off")) {
        hdmi.setAckOnConnect(args[1] == "on");
        return true;
    }
    if (sub == "unplug" && args.size() == 1) {
        hdmi.unplug();
        return true;
    }
    if (sub == "replug" && args.size() == 1) {
        hdmi.replug();
        return true;
    }
    sim::UsbDevice::Transfer kind;
    if (sub == "fail" && args.size() == 3 && parseTransfer(args[1], &kind)) {
        if (args[2] == "off") {
            hdmi.usb().clearFailure(kind);
            return true;
        }
        if (!parseInt(args[2], &value) || value <= 0)
            return false;
        hdmi.usb().failTransfers(kind, static_cast<int>(value));
        return true;
    }
    if (sub == "state" && args.size() == 1) {
        consolePrint(hdmi.devnode() + (hdmi.usb().plugged() ? " plugged in" : " unplugged") + ", interface 0 " +
                     (hdmi.usb().claimed(0) ? "claimed" : "not claimed") + ", " +
                     std::to_string(hdmi.usb().queuedIn(sim::HdmiOutModel::kInEndpoint)) + " IN answer(s) queued, " +
                     std::to_string(hdmi.unechoedAcks()) + " acknowledgement(s) not echoed");
        return true;
    }
    return false;
}

} // namespace

void addUsbModels(sim::Board &board, ModelSet &models)
{
    models.add("hdmi", std::make_unique<sim::HdmiOutModel>(board), ModelSet::Commands<sim::HdmiOutModel>(hdmiCommands),
               "hdmi init | connect | send <bytes> [type] | disconnect | deinit | capture | clear | ack | "
               "in <bytes> | autoack on|off | unplug | replug | fail out|in|control|claim <errno>|off | state");
}

} // namespace console
