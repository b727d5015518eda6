/*
 * The camera's side of its HID channel: requests in, answers queued.
 */
#include "hid_camera_logic.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "board.h"

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

HidCameraLogic::HidCameraLogic(uint16_t vid, uint16_t pid) : vid_(vid), pid_(pid) {}

const std::vector<uint8_t> &HidCameraLogic::reportDescriptor()
{
    static const std::vector<uint8_t> descriptor = {
        0x06, 0x00, 0xff, // usage page: vendor defined
        0x09, 0x01,       // usage 1
        0xa1, 0x01,       // collection: application
        0x15, 0x00,       //   logical minimum 0
        0x26, 0xff, 0x00, //   logical maximum 255
        0x75, 0x08,       //   report size: 8 bits
        0x95, kReportSize, //  report count: 64
        0x09, 0x01,       //   usage 1
        0x81, 0x02,       //   input: data, variable, absolute
        0x95, kReportSize, //  report count: 64
        0x09, 0x01,       //   usage 1
        0x91, 0x02,       //   output: data, variable, absolute
        0xc0,             // end collection
    };
    return descriptor;
}

HidCameraLogic::~HidCameraLogic() = default;

HidCameraLogic::Report HidCameraLogic::whole(Report report) const
{
    if (report.size() < kReportSize)
        report.resize(kReportSize, 0);
    return report;
}

void HidCameraLogic::answer(const uint8_t *data, size_t size, std::vector<Report> &out)
{
    if (std::all_of(data, data + size, [](uint8_t b) { return b == 0; })) {
        ++probes_;
        return;
    }
    if (startsWith(data, size, kVersionRequest, sizeof kVersionRequest)) {
        ++versionRequests_;
        if (silent_)
            return;
        Report report(kReportSize, 0);
        std::memcpy(report.data(), kVersionAnswer, sizeof kVersionAnswer);
        const size_t n = std::min(version_.size(), kReportSize - kVersionTextAt - 1);
        std::memcpy(report.data() + kVersionTextAt, version_.data(), n);
        out.push_back(report);
        return;
    }
    if (!startsWith(data, size, kFileRequest, sizeof kFileRequest))
        return;
    const size_t length = size > kNameLengthAt ? data[kNameLengthAt] : 0;
    const size_t available = size > kNameAt ? size - kNameAt : 0;
    const std::string name(reinterpret_cast<const char *>(data) + std::min(size, kNameAt),
                           std::min(length, available));
    fileRequests_.push_back(name);
    if (silent_)
        return;
    if (wrongKind_) {
        Report wrong(kReportSize, 0);
        std::memcpy(wrong.data(), kFileData, sizeof kFileData);
        out.push_back(wrong);
        return;
    }
    Report ack(kReportSize, 0);
    std::memcpy(ack.data(), kFileAnswer, sizeof kFileAnswer);
    auto file = files_.find(name);
    if (refuseAll_ || file == files_.end()) {
        ack[kRefusedAt] = 1;
        out.push_back(ack);
        return;
    }
    const std::string &content = file->second;
    const uint32_t total = static_cast<uint32_t>(content.size());
    for (size_t i = 0; i < 4; ++i)
        ack[kSizeAt + i] = static_cast<uint8_t>(total >> (8 * (3 - i)));
    out.push_back(ack);
    for (size_t offset = 0; offset < content.size(); offset += chunk_) {
        const size_t n = std::min(chunk_, content.size() - offset);
        Report report(sizeof kFileData + n);
        std::memcpy(report.data(), kFileData, sizeof kFileData);
        std::memcpy(report.data() + sizeof kFileData, content.data() + offset, n);
        out.push_back(shortReports_ ? std::move(report) : whole(std::move(report)));
    }
}

std::string HidCameraLogic::received(const uint8_t *data, size_t size)
{
    std::vector<Report> answers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        written_.emplace_back(data, data + size);
        answer(data, size, answers);
        for (auto &report : answers)
            outbox_.push_back(std::move(report));
    }
    if (!answers.empty())
        notifyQueued();
    if (startsWith(data, size, kVersionRequest, sizeof kVersionRequest))
        return "version request";
    if (startsWith(data, size, kFileRequest, sizeof kFileRequest))
        return "file request " +
               std::string(reinterpret_cast<const char *>(data) + kNameAt,
                           std::min<size_t>(size > kNameAt ? size - kNameAt : 0,
                                            size > kNameLengthAt ? data[kNameLengthAt] : 0));
    return hexBytes(data, size);
}

bool HidCameraLogic::takeReport(Report &report)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (outbox_.empty())
        return false;
    report = std::move(outbox_.front());
    outbox_.pop_front();
    return true;
}

bool HidCameraLogic::hasReport() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return !outbox_.empty();
}

std::string HidCameraLogic::describeSent(const uint8_t *data, size_t size)
{
    if (startsWith(data, size, kVersionAnswer, sizeof kVersionAnswer)) {
        const char *text = reinterpret_cast<const char *>(data) + kVersionTextAt;
        return "version " + std::string(text, strnlen(text, size - kVersionTextAt));
    }
    return hexBytes(data, size);
}

void HidCameraLogic::setQueuedListener(QueuedListener listener)
{
    std::lock_guard<std::mutex> lock(mutex_);
    queued_ = std::move(listener);
}

void HidCameraLogic::notifyQueued()
{
    QueuedListener listener;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        listener = queued_;
    }
    if (listener)
        listener();
}

void HidCameraLogic::clearQueue()
{
    std::lock_guard<std::mutex> lock(mutex_);
    outbox_.clear();
}

bool HidCameraLogic::readError() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return readError_;
}

bool HidCameraLogic::writeError() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return writeError_;
}

void HidCameraLogic::setIds(uint16_t vid, uint16_t pid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    vid_ = vid;
    pid_ = pid;
}

uint16_t HidCameraLogic::vid() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return vid_;
}

uint16_t HidCameraLogic::pid() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return pid_;
}

void HidCameraLogic::setVersion(const std::string &text)
{
    std::lock_guard<std::mutex> lock(mutex_);
    version_ = text;
}

std::string HidCameraLogic::version() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return version_;
}

void HidCameraLogic::setFile(const std::string &path, const std::string &content)
{
    std::lock_guard<std::mutex> lock(mutex_);
    files_[path] = content;
}

void HidCameraLogic::removeFile(const std::string &path)
{
    std::lock_guard<std::mutex> lock(mutex_);
    files_.erase(path);
}

void HidCameraLogic::setChunkSize(size_t bytes)
{
    std::lock_guard<std::mutex> lock(mutex_);
    chunk_ = std::clamp<size_t>(bytes, 1, kMaxChunk);
}

void HidCameraLogic::setShortReports(bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    shortReports_ = on;
}

std::vector<HidCameraLogic::Report> HidCameraLogic::reportsWritten() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return written_;
}

std::vector<std::string> HidCameraLogic::fileRequests() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return fileRequests_;
}

size_t HidCameraLogic::versionRequests() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return versionRequests_;
}

size_t HidCameraLogic::probes() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return probes_;
}

bool HidCameraLogic::waitForFileRequests(size_t n, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return fileRequests().size() >= n; }, timeout);
}

bool HidCameraLogic::waitForVersionRequests(size_t n, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return versionRequests() >= n; }, timeout);
}

void HidCameraLogic::sendReport(const Report &report)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        outbox_.push_back(report);
    }
    notifyQueued();
}

void HidCameraLogic::setRefuseAll(bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    refuseAll_ = on;
}

void HidCameraLogic::setWrongKind(bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    wrongKind_ = on;
}

void HidCameraLogic::setSilent(bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    silent_ = on;
}

void HidCameraLogic::setReadError(bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    readError_ = on;
}

void HidCameraLogic::setWriteError(bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    writeError_ = on;
}

} // namespace sim
