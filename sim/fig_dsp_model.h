/*
 * Fig DSP model (the secondary microphone processor) on /dev/ttyS2, link
 * "fig". Frames in both directions: "#", type, payload length, payload,
 * CRC-8 of the payload (polynomial 0x07, initial 0), 0x0A.
 *
 * What it does:
 *  - raises microphone on/off notifications (type 0x20, "<id>MIC_ON990" /
 *    "<id>MIC_OFF99"), DOA reports (type 0x25, 49-byte little-endian
 *    payload) and any frame or raw bytes a test wants;
 *  - answers the module's commands as the device does (type 0x2E):
 *    DOA_ON -> "8",1; DOA_OFF -> "7",1; VERSION -> "3" + version text; the
 *    USB switch request is recorded and not answered;
 *  - checks and records every frame the module sends (CRC, terminator,
 *    whether the zero byte of a 16-byte command followed it) and every byte
 *    outside frames.
 *
 * Fault modes (on what the model sends): wrong CRCs, each frame split in
 * two writes a short gap apart, noise bytes between frames (never "#"),
 * silence.
 *
 * The audio DSP model sits on the same node: a board has either, or both
 * with Board::selectSerialPeer choosing which is on the line (the newest
 * model takes it).
 */
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "board.h"
#include "fig_wire.h"

namespace sim {

class FigDspModel {
public:
    static constexpr const char *kNode = "/dev/ttyS2";
    static constexpr const char *kLink = "fig";
    static constexpr uint8_t kStart = kFigStart;
    static constexpr uint8_t kEnd = kFigEnd;
    static constexpr uint8_t kTypeCommand = kFigTypeCommand;
    static constexpr uint8_t kTypeDoa = kFigTypeDoa;
    static constexpr uint8_t kTypeReply = kFigTypeReply;
    static constexpr size_t kDoaPayloadSize = kFigDoaPayloadSize;

    // The module's four commands, as payloads.
    static constexpr const char *kDoaOff = "7DOA_OFF77";
    static constexpr const char *kDoaOn = "8DOA_ON990";
    static constexpr const char *kVersion = "3VERSION86";
    static constexpr const char *kUsbSwitch = "5USBSWITCH";

    using Bytes = FigBytes;

    // CRC-8 as the Fig DSP computes it.
    static uint8_t crc8(const uint8_t *data, size_t size);
    // A whole frame: start, type, length, payload, CRC, terminator.
    static Bytes makeFrame(uint8_t type, const Bytes &payload);
    static Bytes makeFrame(uint8_t type, const std::string &payload);
    // A DOA report's payload: identifier, stamp, angle, two floats, 16
    // unused bytes, three floats.
    static Bytes doaPayload(float angle, uint64_t stamp = 0, const std::array<float, 5> &others = {},
                            uint8_t id = '6');

    // One frame the module sent.
    struct Frame {
        Bytes bytes;         // "#" .. terminator
        uint8_t type = 0;
        Bytes payload;
        bool crcOk = false;
        bool endOk = false;
        bool zeroAfter = false; // a zero byte came right after it
        Clock::time_point when;
        std::string text() const { return std::string(payload.begin(), payload.end()); }
        // An acknowledgement: type 0x2E with one payload byte.
        bool isAck() const { return type == kTypeReply && payload.size() == 1; }
    };

    explicit FigDspModel(Board &board);
    ~FigDspModel();
    FigDspModel(const FigDspModel &) = delete;
    FigDspModel &operator=(const FigDspModel &) = delete;

    // ---- what the module sent
    Bytes received() const;            // every byte, in order
    std::vector<Frame> frames() const; // every whole frame, in order
    size_t countCommand(const std::string &payload) const;
    // Acknowledgements of this identifier.
    size_t countAcks(uint8_t id) const;
    size_t countAcks() const;
    // Bytes outside frames, other than the zero after a frame.
    size_t strayBytes() const;
    void clearLog();
    bool waitForCommand(const std::string &payload, size_t n, std::chrono::milliseconds timeout) const;
    bool waitForAcks(uint8_t id, size_t n, std::chrono::milliseconds timeout) const;
    bool waitForFrames(size_t n, std::chrono::milliseconds timeout) const;
    bool waitForBytes(size_t n, std::chrono::milliseconds timeout) const;

    // ---- what the model raises
    void micOn(uint8_t id = '1');
    void micOff(uint8_t id = '2');
    void sendDoaReport(float angle, uint64_t stamp = 0, const std::array<float, 5> &others = {});
    void sendFrame(uint8_t type, const Bytes &payload);
    void sendFrame(uint8_t type, const std::string &payload);
    // Bytes as they are (faults do not apply).
    void sendRaw(const Bytes &bytes);

    // ---- behaviour and state
    void setVersion(const std::string &version); // answered to VERSION
    std::string version() const;
    void setAnswering(bool on);                  // answers to the module's commands (default on)
    bool doaReporting() const;                   // DOA_ON came after the last DOA_OFF
    size_t usbSwitchRequests() const;

    // ---- faults
    void setCorruptCrc(bool on);
    // Each frame goes out as two writes `gap` apart, cut in the middle.
    void setSplitFrames(bool on, std::chrono::milliseconds gap = std::chrono::milliseconds(20));
    // A few random bytes (never "#") before every frame.
    void setNoise(bool on);
    void setSilent(bool on);
    void setLineRate(unsigned baud);

    SerialLine &line();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace sim
