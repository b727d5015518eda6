/*
 * The USB HDMI-out converter's own logic, whatever carries its transfers
 * (the virtual board's usbfs node, HdmiOutModel, or a USB gadget under a
 * real kernel): one interface with two bulk endpoints (IN 0x81 and OUT
 * 0x01, listed IN first or OUT first).
 *
 * It checks every OUT transfer whole and decodes the packet stream: a
 * 512-byte header transfer (sixteen big-endian words: type, ThisLen, its
 * complement, TotalLen, ThisLen again, three parameter bytes, width,
 * height; the rest zero) followed by ThisLen payload bytes in 512-byte
 * transfers, the last one padded; heartbeats (type 5) and disconnects
 * (type 3) with every other word zero; and the host's echo of an
 * acknowledgement it read, which may come between any two transfers.
 * Anything else is recorded as an error with the transfer's number.
 *
 * Acknowledgements (00 00 00 02, then zeros, 512 bytes) are queued on
 * demand, and by default in answer to the connect request (control 0xA1,
 * request 0xAA); any other IN data can be queued too, and the transport
 * hands it to the host.
 *
 * Threads: decoding runs on the transport's thread; tests and the console
 * read from their own threads; the records are guarded by a mutex.
 */
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "board.h"

namespace sim {

class HdmiOutConverter {
public:
    static constexpr uint16_t kVendorId = 0x3c3c; // made-up ids of the board's converter
    static constexpr uint16_t kProductId = 0x0a01;
    static constexpr uint8_t kInEndpoint = 0x81;
    static constexpr uint8_t kOutEndpoint = 0x01;
    static constexpr size_t kTransferSize = 512;
    static constexpr size_t kHeaderWords = 16;
    static constexpr uint32_t kMaxThisLen = 512000;
    static constexpr uint32_t kTypeAck = 2;
    static constexpr uint32_t kTypeDisconnect = 3;
    static constexpr uint32_t kTypeHeartbeat = 5;
    static constexpr uint8_t kConnectRequestType = 0xA1;
    static constexpr uint8_t kConnectRequest = 0xAA;

    enum class Order { InFirst, OutFirst };

    struct Options {
        uint16_t vendorId = kVendorId;
        uint16_t productId = kProductId;
        Order order = Order::InFirst;
        bool ackOnConnect = true; // queue an acknowledgement for each connect request
    };

    enum class Kind { Data, Heartbeat, Disconnect, Echo };

    struct Packet {
        Kind kind = Kind::Data;
        Clock::time_point when;     // the header (or echo) transfer
        Clock::time_point lastWhen; // the packet's last transfer
        std::array<uint32_t, kHeaderWords> words{}; // the header as decoded (host order)
        uint32_t type = 0;
        uint32_t thisLen = 0;
        uint32_t totalLen = 0;
        uint32_t param1 = 0, param2 = 0, param3 = 0;
        uint32_t width = 0, height = 0;
        std::vector<uint8_t> payload; // ThisLen bytes
        std::vector<uint8_t> padding; // the last transfer's bytes past ThisLen
        size_t transfers = 0;         // header included
        bool complete = false;        // every payload transfer arrived
    };

    explicit HdmiOutConverter(const Options &options);
    virtual ~HdmiOutConverter();
    HdmiOutConverter(const HdmiOutConverter &) = delete;
    HdmiOutConverter &operator=(const HdmiOutConverter &) = delete;

    // IN data: an acknowledgement, or anything else.
    void queueAck();
    void queueIn(std::vector<uint8_t> bytes);
    void setAckOnConnect(bool on);

    // Decoded packets in arrival order (a data packet still missing
    // transfers is last, not complete).
    std::vector<Packet> packets() const;
    std::vector<Packet> packets(Kind kind) const;
    size_t count(Kind kind) const;
    bool waitForCount(Kind kind, size_t n, std::chrono::milliseconds timeout) const;
    // Everything that did not decode, as "transfer N: ...".
    std::vector<std::string> errors() const;
    // Acknowledgements the host read and has not echoed yet.
    size_t unechoedAcks() const;
    // Connect requests (control 0xA1/0xAA) seen.
    size_t connectRequests() const;
    // OUT transfers decoded so far.
    size_t outTransfers() const;
    void clear();

    // One line per packet and error, for the console.
    std::vector<std::string> describe() const;

protected:
    // ---- the transport's side
    // Queues IN data for the host to read.
    using InQueue = std::function<void(std::vector<uint8_t> bytes)>;
    // A line for the trace.
    using Note = std::function<void(const std::string &note, bool toDevice)>;
    void setTransport(InQueue in, Note note);
    // A bulk transfer that crossed (OUT: what the host sent; IN: what the
    // host read).
    void onTransfer(uint8_t endpoint, const std::vector<uint8_t> &bytes, Clock::time_point when);
    // A control request the host made.
    void onControl(uint8_t requestType, uint8_t request);

private:
    void decodeOut(const std::vector<uint8_t> &bytes, Clock::time_point when);
    void error(const std::string &text);
    void traceNote(const std::string &note, bool toDevice);

    InQueue in_;
    Note note_;
    mutable std::mutex mutex_;                      // guards everything below
    std::vector<Packet> packets_;
    std::vector<std::string> errors_;
    std::deque<std::vector<uint8_t>> unechoed_;     // acks read, as the host will echo them
    size_t outTransfers_ = 0;
    size_t connects_ = 0;
    bool ackOnConnect_ = true;
    size_t open_ = SIZE_MAX;                        // index of the data packet missing transfers
};

// "data", "heartbeat", "disconnect", "echo".
const char *kindName(HdmiOutConverter::Kind kind);

} // namespace sim
