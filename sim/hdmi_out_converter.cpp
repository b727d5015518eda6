/*
 * HDMI-out converter logic: OUT transfers are decoded into packets as they
 * arrive (on the transport's thread).
 */
#include "hdmi_out_converter.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace sim {

namespace {

uint32_t wordAt(const std::vector<uint8_t> &bytes, size_t index)
{
    const size_t at = index * 4;
    return static_cast<uint32_t>(bytes[at]) << 24 | static_cast<uint32_t>(bytes[at + 1]) << 16 |
           static_cast<uint32_t>(bytes[at + 2]) << 8 | bytes[at + 3];
}

std::string hex32(uint32_t value)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "%08x", value);
    return buf;
}

std::vector<uint8_t> ackBytes()
{
    std::vector<uint8_t> ack(HdmiOutConverter::kTransferSize, 0);
    ack[3] = HdmiOutConverter::kTypeAck;
    return ack;
}

} // namespace

const char *kindName(HdmiOutConverter::Kind kind)
{
    switch (kind) {
    case HdmiOutConverter::Kind::Data: return "data";
    case HdmiOutConverter::Kind::Heartbeat: return "heartbeat";
    case HdmiOutConverter::Kind::Disconnect: return "disconnect";
    case HdmiOutConverter::Kind::Echo: return "echo";
    }
    return "?";
}

HdmiOutConverter::HdmiOutConverter(const Options &options) : ackOnConnect_(options.ackOnConnect) {}

HdmiOutConverter::~HdmiOutConverter() = default;

void HdmiOutConverter::setTransport(InQueue in, Note note)
{
    std::lock_guard<std::mutex> lock(mutex_);
    in_ = std::move(in);
    note_ = std::move(note);
}

void HdmiOutConverter::onControl(uint8_t requestType, uint8_t request)
{
    if (requestType != kConnectRequestType || request != kConnectRequest)
        return;
    bool ack = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++connects_;
        ack = ackOnConnect_;
    }
    if (ack)
        queueAck();
}

void HdmiOutConverter::queueAck()
{
    traceNote("acknowledgement queued", false);
    queueIn(ackBytes());
}

void HdmiOutConverter::queueIn(std::vector<uint8_t> bytes)
{
    InQueue in;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        in = in_;
    }
    if (in)
        in(std::move(bytes));
}

void HdmiOutConverter::setAckOnConnect(bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    ackOnConnect_ = on;
}

std::vector<HdmiOutConverter::Packet> HdmiOutConverter::packets() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return packets_;
}

std::vector<HdmiOutConverter::Packet> HdmiOutConverter::packets(Kind kind) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Packet> out;
    for (const auto &packet : packets_)
        if (packet.kind == kind)
            out.push_back(packet);
    return out;
}

size_t HdmiOutConverter::count(Kind kind) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<size_t>(
        std::count_if(packets_.begin(), packets_.end(), [kind](const Packet &p) { return p.kind == kind; }));
}

bool HdmiOutConverter::waitForCount(Kind kind, size_t n, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return count(kind) >= n; }, timeout);
}

std::vector<std::string> HdmiOutConverter::errors() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
}

size_t HdmiOutConverter::unechoedAcks() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return unechoed_.size();
}

size_t HdmiOutConverter::connectRequests() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return connects_;
}

size_t HdmiOutConverter::outTransfers() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return outTransfers_;
}

void HdmiOutConverter::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    packets_.clear();
    errors_.clear();
    outTransfers_ = 0;
    connects_ = 0;
    open_ = SIZE_MAX;
    // Acknowledgements read but not echoed stay expected.
}

void HdmiOutConverter::traceNote(const std::string &note, bool toDevice)
{
    Note sink;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sink = note_;
    }
    if (sink)
        sink(note, toDevice);
}

void HdmiOutConverter::error(const std::string &text)
{
    errors_.push_back("transfer " + std::to_string(outTransfers_) + ": " + text);
}

void HdmiOutConverter::onTransfer(uint8_t endpoint, const std::vector<uint8_t> &bytes, Clock::time_point when)
{
    if (endpoint & 0x80) {
        // What the host read; an acknowledgement comes back whole (the
        // host reads 512 bytes into a cleared buffer and echoes them all).
        if (bytes.size() >= 4 && bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 0 && bytes[3] == kTypeAck) {
            std::vector<uint8_t> echo = bytes;
            echo.resize(kTransferSize, 0);
            {
                std::lock_guard<std::mutex> lock(mutex_);
                unechoed_.push_back(std::move(echo));
            }
            traceNote("acknowledgement read by the host", false);
        } else {
            traceNote("IN " + std::to_string(bytes.size()) + " bytes read by the host", false);
        }
        return;
    }
    std::string note;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const size_t packetsBefore = packets_.size();
        const size_t errorsBefore = errors_.size();
        const bool wasOpen = open_ != SIZE_MAX;
        decodeOut(bytes, when);
        if (errors_.size() > errorsBefore) {
            note = "error: " + errors_.back();
        } else if (packets_.size() > packetsBefore) {
            const Packet &p = packets_.back();
            note = std::string(kindName(p.kind));
            if (p.kind == Kind::Data)
                note += " header: type " + std::to_string(p.type) + " ThisLen " + std::to_string(p.thisLen) +
                        " TotalLen " + std::to_string(p.totalLen) + " params " + std::to_string(p.param1) + " " +
                        std::to_string(p.param2) + " " + std::to_string(p.param3) + " " +
                        std::to_string(p.width) + "x" + std::to_string(p.height);
        } else if (wasOpen && open_ == SIZE_MAX && !packets_.empty()) {
            const Packet &p = packets_.back();
            note = "data complete: " + std::to_string(p.payload.size()) + " bytes in " +
                   std::to_string(p.transfers) + " transfers";
        }
    }
    if (!note.empty())
        traceNote(note, true);
}

// Under mutex_.
void HdmiOutConverter::decodeOut(const std::vector<uint8_t> &bytes, Clock::time_point when)
{
    ++outTransfers_;
    if (bytes.size() != kTransferSize) {
        error(std::to_string(bytes.size()) + " bytes, not " + std::to_string(kTransferSize));
        return;
    }
    // The echo of an acknowledgement may come between any two transfers.
    if (!unechoed_.empty() && bytes == unechoed_.front()) {
        unechoed_.pop_front();
        Packet echo;
        echo.kind = Kind::Echo;
        echo.when = echo.lastWhen = when;
        echo.words[0] = kTypeAck;
        echo.type = kTypeAck;
        echo.transfers = 1;
        echo.complete = true;
        packets_.push_back(std::move(echo));
        return;
    }
    if (open_ != SIZE_MAX) {
        // The next payload transfer of the open data packet.
        Packet &p = packets_[open_];
        const size_t remaining = p.thisLen - p.payload.size();
        const size_t take = std::min(remaining, kTransferSize);
        p.payload.insert(p.payload.end(), bytes.begin(), bytes.begin() + static_cast<long>(take));
        if (take < kTransferSize)
            p.padding.assign(bytes.begin() + static_cast<long>(take), bytes.end());
        ++p.transfers;
        p.lastWhen = when;
        if (p.payload.size() == p.thisLen) {
            p.complete = true;
            open_ = SIZE_MAX;
        }
        return;
    }
    Packet p;
    p.when = p.lastWhen = when;
    p.transfers = 1;
    for (size_t i = 0; i < kHeaderWords; ++i)
        p.words[i] = wordAt(bytes, i);
    const auto &w = p.words;
    const bool restZero = std::all_of(w.begin() + 1, w.end(), [](uint32_t v) { return v == 0; });
    if (restZero && (w[0] == kTypeHeartbeat || w[0] == kTypeDisconnect)) {
        p.kind = w[0] == kTypeHeartbeat ? Kind::Heartbeat : Kind::Disconnect;
        p.type = w[0];
        p.complete = true;
        packets_.push_back(std::move(p));
        return;
    }
    // A data packet header, checked word by word.
    p.kind = Kind::Data;
    p.type = w[0];
    p.thisLen = w[1];
    p.totalLen = w[8];
    p.param1 = w[10];
    p.param2 = w[11];
    p.param3 = w[12];
    p.width = w[13];
    p.height = w[14];
    std::vector<std::string> problems;
    if (w[0] > 0xffff)
        problems.push_back("word 0 (type) " + hex32(w[0]) + " wider than 16 bits");
    if (w[2] != static_cast<uint32_t>(~w[1]))
        problems.push_back("word 2 " + hex32(w[2]) + " is not the complement of ThisLen " + hex32(w[1]));
    for (size_t i : {3, 4, 5, 6, 7, 15})
        if (w[i] != 0)
            problems.push_back("word " + std::to_string(i) + " " + hex32(w[i]) + " is not 0");
    if (w[9] != w[1])
        problems.push_back("word 9 " + hex32(w[9]) + " differs from ThisLen " + hex32(w[1]));
    for (size_t i : {10, 11, 12})
        if (w[i] > 0xff)
            problems.push_back("word " + std::to_string(i) + " " + hex32(w[i]) + " wider than a byte");
    for (size_t i : {13, 14})
        if (w[i] > 0xffff)
            problems.push_back("word " + std::to_string(i) + " " + hex32(w[i]) + " wider than 16 bits");
    if (w[1] > kMaxThisLen)
        problems.push_back("ThisLen " + std::to_string(w[1]) + " above " + std::to_string(kMaxThisLen));
    if (!problems.empty()) {
        for (const auto &problem : problems)
            error("header " + problem);
        return;
    }
    p.complete = p.thisLen == 0;
    packets_.push_back(std::move(p));
    if (!packets_.back().complete)
        open_ = packets_.size() - 1;
}

std::vector<std::string> HdmiOutConverter::describe() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> lines;
    size_t heartbeats = 0, echoes = 0;
    for (const auto &p : packets_) {
        heartbeats += p.kind == Kind::Heartbeat;
        echoes += p.kind == Kind::Echo;
        if (p.kind != Kind::Data) {
            lines.push_back(kindName(p.kind));
            continue;
        }
        std::string line = "data type " + std::to_string(p.type) + " ThisLen " + std::to_string(p.thisLen) +
                           " TotalLen " + std::to_string(p.totalLen) + " params " + std::to_string(p.param1) +
                           " " + std::to_string(p.param2) + " " + std::to_string(p.param3) + " " +
                           std::to_string(p.width) + "x" + std::to_string(p.height) + ", " +
                           std::to_string(p.transfers) + " transfers";
        if (!p.complete)
            line += ", " + std::to_string(p.thisLen - p.payload.size()) + " bytes missing";
        lines.push_back(line);
    }
    lines.push_back(std::to_string(outTransfers_) + " OUT transfers, " + std::to_string(heartbeats) +
                    " heartbeat(s), " + std::to_string(echoes) + " echo(es), " +
                    std::to_string(connects_) + " connect request(s), " + std::to_string(errors_.size()) +
                    " error(s)");
    for (const auto &e : errors_)
        lines.push_back("error: " + e);
    return lines;
}

} // namespace sim
