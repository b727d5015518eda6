/*
 * The camera's raw HID interface on the virtual board: the hidraw node's
 * calls, answered on umockdev's worker thread by the camera's side of the
 * channel.
 */
#include "hid_camera_model.h"

#include <linux/hidraw.h>
#include <linux/input.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace sim {

HidCameraModel::HidCameraModel(Board &board, std::string node, uint16_t vid, uint16_t pid)
    : HidCameraLogic(vid, pid), board_(board), node_(std::move(node))
{
    setQueuedListener([this] { answerWaitingReads(); });
    ioctl_ = std::make_unique<IoctlNode>(board, node_, [this](IoctlCall &call, int *err) { return handle(call, err); });
}

HidCameraModel::~HidCameraModel()
{
    setQueuedListener(nullptr);
    failWaitingReads(EIO);
    ioctl_.reset();
}

void HidCameraModel::trace(bool toDevice, const uint8_t *data, size_t size, const std::string &note)
{
    TraceEvent event;
    event.when = Clock::now();
    event.link = "hid";
    event.toDevice = toDevice;
    event.bytes.assign(data, data + size);
    event.note = note;
    board_.trace().add(std::move(event));
}

int HidCameraModel::handle(IoctlCall &call, int *err)
{
    const bool gone = !plugged();
    if (call.kind() == IoctlCall::Kind::Ioctl) {
        if (gone) {
            *err = ENODEV;
            return -1;
        }
        if (call.request() != static_cast<unsigned long>(HIDIOCGRAWINFO)) {
            *err = ENOTTY;
            return -1;
        }
        auto *info = static_cast<hidraw_devinfo *>(call.resolveArg(sizeof(hidraw_devinfo)));
        if (info == nullptr) {
            *err = EFAULT;
            return -1;
        }
        info->bustype = BUS_USB;
        info->vendor = static_cast<int16_t>(vid());
        info->product = static_cast<int16_t>(pid());
        std::lock_guard<std::mutex> lock(mutex_);
        ++rawInfo_;
        return 0;
    }
    if (call.kind() == IoctlCall::Kind::Write) {
        if (gone || writeError()) {
            *err = gone ? ENODEV : EIO;
            return -1;
        }
        const uint8_t *data = call.buffer();
        const size_t size = call.bufferSize();
        // A first byte of 0 is the report number of a device without
        // numbered reports: the kernel drops it on the way to the camera.
        const size_t skip = size > 0 && data[0] == 0 ? 1 : 0;
        const std::string note = received(data + skip, size - skip);
        trace(true, data + skip, size - skip, note);
        return static_cast<int>(size);
    }
    // A read: one report, or a wait until the camera has one.
    if (gone || readError()) {
        *err = gone ? ENODEV : EIO;
        return -1;
    }
    Report report;
    {
        // Under the lock the listener takes, so a report queued meanwhile
        // either is taken here or finds this read waiting.
        std::lock_guard<std::mutex> lock(mutex_);
        if (!takeReport(report)) {
            waitingReads_.push_back(call.defer());
            return IoctlNode::kDeferred;
        }
        ++readsAnswered_;
    }
    const size_t n = std::min(report.size(), call.bufferSize());
    std::memcpy(call.buffer(), report.data(), n);
    trace(false, report.data(), n, describeSent(report.data(), n));
    return static_cast<int>(n);
}

void HidCameraModel::answerWaitingReads()
{
    Report report;
    std::vector<std::shared_ptr<PendingCall>> readers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (waitingReads_.empty() || !takeReport(report))
            return;
        readers.swap(waitingReads_);
    }
    // Every waiting read gets the report; they are counted and traced
    // before any caller has it, so whoever sees the module act on the
    // report also sees it answered.
    std::vector<std::pair<std::shared_ptr<PendingCall>, size_t>> taken;
    size_t traced = 0;
    for (const auto &read : readers) {
        if (!read->claim())
            continue; // it had just expired
        const size_t n = std::min(report.size(), read->bufferSize());
        if (n > 0)
            std::memcpy(read->buffer(), report.data(), n);
        taken.emplace_back(read, n);
        traced = n;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        readsAnswered_ += taken.size();
    }
    if (!taken.empty())
        trace(false, report.data(), traced, describeSent(report.data(), traced));
    for (const auto &[read, n] : taken)
        read->finish(static_cast<int>(n));
}

void HidCameraModel::failWaitingReads(int err)
{
    std::vector<std::shared_ptr<PendingCall>> readers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        readers.swap(waitingReads_);
    }
    for (const auto &read : readers)
        read->complete(-1, err);
}

size_t HidCameraModel::readsAnswered() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return readsAnswered_;
}

size_t HidCameraModel::readsWaiting() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return waitingReads_.size();
}

size_t HidCameraModel::rawInfoRequests() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return rawInfo_;
}

void HidCameraModel::setReadError(bool on)
{
    HidCameraLogic::setReadError(on);
    if (on)
        failWaitingReads(EIO);
}

void HidCameraModel::unplug()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        unplugged_ = true;
    }
    // Reads waiting for a report end with the device.
    failWaitingReads(ENODEV);
    clearQueue();
    board_.removeNode(node_);
}

void HidCameraModel::plug()
{
    board_.addNode(node_);
    std::lock_guard<std::mutex> lock(mutex_);
    unplugged_ = false;
}

bool HidCameraModel::plugged() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return !unplugged_;
}

} // namespace sim
