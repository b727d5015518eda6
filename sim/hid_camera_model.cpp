/*
 * The camera's raw HID interface. Calls arrive on umockdev's worker thread
 * and are answered under State::mutex; answers the camera owes are queued
 * as reports that the next reads hand out one by one.
 */
#include "hid_camera_model.h"

#include <linux/hidraw.h>
#include <linux/input.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <thread>

namespace sim {

namespace {

constexpr uint8_t kVersionRequest[] = {0xAA, 0xBB, 0xCC, 0x20, 0x06};
constexpr uint8_t kVersionAnswer[] = {0xAA, 0xBB, 0xCC, 0x20, 0x07};
constexpr uint8_t kFileRequest[] = {0xAA, 0xBB, 0xCC, 0x26, 0x02};
constexpr uint8_t kFileAnswer[] = {0xAA, 0xBB, 0xCC, 0x26, 0x03};
constexpr uint8_t kFileData[] = {0xBB, 0x02};
constexpr size_t kVersionTextAt = 7;
constexpr size_t kNameLengthAt = 5;
constexpr size_t kNameAt = 6;
constexpr size_t kRefusedAt = 7;
constexpr size_t kSizeAt = 8;
constexpr size_t kMaxChunk = 1022; // a 1024-byte read holds the head and this much

bool startsWith(const uint8_t *data, size_t size, const uint8_t *head, size_t headSize)
{
    return size >= headSize && std::memcmp(data, head, headSize) == 0;
}

std::string hexBytes(const uint8_t *data, size_t size, size_t max = 12)
{
    std::string out;
    char byte[4];
    for (size_t i = 0; i < size && i < max; ++i) {
        std::snprintf(byte, sizeof byte, "%02x", data[i]);
        if (i)
            out += ' ';
        out += byte;
    }
    if (size > max)
        out += " ...";
    return out;
}

} // namespace

struct HidCameraModel::State {
    mutable std::mutex mutex;                 // guards everything below
    uint16_t vid = 0;
    uint16_t pid = 0;
    std::string version = "CAM-X3M 1.4.2 (made up)";
    std::map<std::string, std::string> files; // camera-side path -> content
    size_t chunk = 62;
    std::deque<Report> outbox;                // reports the next reads hand out
    std::vector<Report> written;              // every report the module wrote
    std::vector<std::string> fileRequests;
    size_t versionRequests = 0;
    size_t probes = 0;
    size_t rawInfo = 0;
    bool refuseAll = false;
    bool wrongKind = false;
    bool silent = false;
    bool readError = false;
    bool writeError = false;
    bool unplugged = false;
};

HidCameraModel::HidCameraModel(Board &board, std::string node, uint16_t vid, uint16_t pid)
    : board_(board), node_(std::move(node)), state_(std::make_shared<State>())
{
    state_->vid = vid;
    state_->pid = pid;
    ioctl_ = std::make_unique<IoctlNode>(board, node_, [this](IoctlCall &call, int *err) { return handle(call, err); });
}

HidCameraModel::~HidCameraModel()
{
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

void HidCameraModel::answer(State &st, const uint8_t *data, size_t size, std::vector<Report> &out)
{
    if (std::all_of(data, data + size, [](uint8_t b) { return b == 0; })) {
        ++st.probes;
        return;
    }
    if (startsWith(data, size, kVersionRequest, sizeof kVersionRequest)) {
        ++st.versionRequests;
        if (st.silent)
            return;
        Report report(kReportSize, 0);
        std::memcpy(report.data(), kVersionAnswer, sizeof kVersionAnswer);
        const size_t n = std::min(st.version.size(), kReportSize - kVersionTextAt - 1);
        std::memcpy(report.data() + kVersionTextAt, st.version.data(), n);
        out.push_back(report);
        return;
    }
    if (!startsWith(data, size, kFileRequest, sizeof kFileRequest))
        return;
    const size_t length = size > kNameLengthAt ? data[kNameLengthAt] : 0;
    const size_t available = size > kNameAt ? size - kNameAt : 0;
    const std::string name(reinterpret_cast<const char *>(data) + std::min(size, kNameAt),
                           std::min(length, available));
    st.fileRequests.push_back(name);
    if (st.silent)
        return;
    if (st.wrongKind) {
        Report wrong(kReportSize, 0);
        std::memcpy(wrong.data(), kFileData, sizeof kFileData);
        out.push_back(wrong);
        return;
    }
    Report ack(kReportSize, 0);
    std::memcpy(ack.data(), kFileAnswer, sizeof kFileAnswer);
    auto file = st.files.find(name);
    if (st.refuseAll || file == st.files.end()) {
        ack[kRefusedAt] = 1;
        out.push_back(ack);
        return;
    }
    const std::string &content = file->second;
    const uint32_t total = static_cast<uint32_t>(content.size());
    for (size_t i = 0; i < 4; ++i)
        ack[kSizeAt + i] = static_cast<uint8_t>(total >> (8 * (3 - i)));
    out.push_back(ack);
    for (size_t offset = 0; offset < content.size(); offset += st.chunk) {
        const size_t n = std::min(st.chunk, content.size() - offset);
        Report data(sizeof kFileData + n);
        std::memcpy(data.data(), kFileData, sizeof kFileData);
        std::memcpy(data.data() + sizeof kFileData, content.data() + offset, n);
        out.push_back(data);
    }
}

int HidCameraModel::handle(IoctlCall &call, int *err)
{
    State &st = *state_;
    if (call.kind() == IoctlCall::Kind::Ioctl) {
        std::lock_guard<std::mutex> lock(st.mutex);
        if (st.unplugged) {
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
        info->vendor = static_cast<int16_t>(st.vid);
        info->product = static_cast<int16_t>(st.pid);
        ++st.rawInfo;
        return 0;
    }
    if (call.kind() == IoctlCall::Kind::Write) {
        const uint8_t *data = call.buffer();
        const size_t size = call.bufferSize();
        std::vector<Report> answers;
        std::string note;
        {
            std::lock_guard<std::mutex> lock(st.mutex);
            if (st.unplugged || st.writeError) {
                *err = st.unplugged ? ENODEV : EIO;
                return -1;
            }
            st.written.emplace_back(data, data + size);
            answer(st, data, size, answers);
            for (auto &report : answers)
                st.outbox.push_back(std::move(report));
        }
        if (startsWith(data, size, kVersionRequest, sizeof kVersionRequest))
            note = "version request";
        else if (startsWith(data, size, kFileRequest, sizeof kFileRequest))
            note = "file request " + std::string(reinterpret_cast<const char *>(data) + kNameAt,
                                                 std::min<size_t>(size > kNameAt ? size - kNameAt : 0,
                                                                  size > kNameLengthAt ? data[kNameLengthAt] : 0));
        else
            note = hexBytes(data, size);
        trace(true, data, size, note);
        return static_cast<int>(size);
    }
    // A read: one report, or an empty read after a little while.
    Report report;
    {
        std::lock_guard<std::mutex> lock(st.mutex);
        if (st.unplugged || st.readError) {
            *err = st.unplugged ? ENODEV : EIO;
            return -1;
        }
        if (st.outbox.empty()) {
            call.defer(kIdleRead, 0);
            return IoctlNode::kDeferred;
        }
        report = std::move(st.outbox.front());
        st.outbox.pop_front();
    }
    const size_t n = std::min(report.size(), call.bufferSize());
    std::memcpy(call.buffer(), report.data(), n);
    std::string note = hexBytes(report.data(), n);
    if (startsWith(report.data(), n, kVersionAnswer, sizeof kVersionAnswer))
        note = "version " + std::string(reinterpret_cast<const char *>(report.data()) + kVersionTextAt);
    trace(false, report.data(), n, note);
    return static_cast<int>(n);
}

void HidCameraModel::setIds(uint16_t vid, uint16_t pid)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->vid = vid;
    state_->pid = pid;
}

uint16_t HidCameraModel::vid() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->vid;
}

uint16_t HidCameraModel::pid() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->pid;
}

void HidCameraModel::setVersion(const std::string &text)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->version = text;
}

std::string HidCameraModel::version() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->version;
}

void HidCameraModel::setFile(const std::string &path, const std::string &content)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->files[path] = content;
}

void HidCameraModel::removeFile(const std::string &path)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->files.erase(path);
}

void HidCameraModel::setChunkSize(size_t bytes)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->chunk = std::clamp<size_t>(bytes, 1, kMaxChunk);
}

std::vector<HidCameraModel::Report> HidCameraModel::reportsWritten() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->written;
}

std::vector<std::string> HidCameraModel::fileRequests() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->fileRequests;
}

size_t HidCameraModel::versionRequests() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->versionRequests;
}

size_t HidCameraModel::probes() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->probes;
}

size_t HidCameraModel::rawInfoRequests() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->rawInfo;
}

bool HidCameraModel::waitForFileRequests(size_t n, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return fileRequests().size() >= n; }, timeout);
}

bool HidCameraModel::waitForVersionRequests(size_t n, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return versionRequests() >= n; }, timeout);
}

void HidCameraModel::sendReport(const Report &report)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->outbox.push_back(report);
}

void HidCameraModel::setRefuseAll(bool on)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->refuseAll = on;
}

void HidCameraModel::setWrongKind(bool on)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->wrongKind = on;
}

void HidCameraModel::setSilent(bool on)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->silent = on;
}

void HidCameraModel::setReadError(bool on)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->readError = on;
}

void HidCameraModel::setWriteError(bool on)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->writeError = on;
}

void HidCameraModel::unplug()
{
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->unplugged = true;
        state_->outbox.clear();
    }
    board_.removeNode(node_);
}

void HidCameraModel::plug()
{
    board_.addNode(node_);
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->unplugged = false;
}

bool HidCameraModel::plugged() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return !state_->unplugged;
}

} // namespace sim
