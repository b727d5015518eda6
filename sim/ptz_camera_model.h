/*
 * PTZ camera model on /dev/ttyS1 (link "ptz"): reassembles the module's
 * 64-byte frames across chunks, checks their checksums, records every frame,
 * answers every host request with the matching reply frame (sub code + 1)
 * built from its configurable state, and raises camera-initiated frames on
 * demand (open, close, angle report, DOA status set, product-model and DOA
 * status questions), recording the host's answers.
 *
 * Fault modes: silence (no replies), wrong checksum, length byte 57, frames
 * split across two writes with a gap the module reads as two chunks,
 * replies delayed by a given time, and unplugged (the camera gone from the
 * line: what the module sends is lost, nothing comes back, and a reply
 * already on its way is dropped).
 */
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "board.h"
#include "ptz_wire.h"

namespace sim {

class PtzCameraModel {
public:
    static constexpr size_t kFrameSize = kPtzFrameSize;
    static constexpr size_t kDataSize = kPtzDataSize;
    using RawFrame = PtzRawFrame;

    // One frame received from the module.
    struct Frame {
        RawFrame raw{};
        bool checksumOk = false;
        Clock::time_point when;
        uint8_t main() const { return raw[3]; }
        uint8_t sub() const { return raw[4]; }
        uint8_t length() const { return raw[5]; }
        uint8_t data(size_t i) const { return raw[7 + i]; }
    };

    explicit PtzCameraModel(Board &board);
    ~PtzCameraModel();
    PtzCameraModel(const PtzCameraModel &) = delete;
    PtzCameraModel &operator=(const PtzCameraModel &) = delete;

    // A whole frame with head and checksum; payload cut to 56 bytes.
    static RawFrame makeFrame(uint8_t main, uint8_t sub, const std::vector<uint8_t> &payload);
    static uint8_t checksum(const uint8_t *bytes, size_t count);

    // ---- what the module sent
    std::vector<Frame> frames() const;
    size_t frameCount() const;
    size_t countFrames(uint8_t main, uint8_t sub) const;
    void clearFrames();
    // Waits until at least n frames with these codes were received.
    bool waitForFrames(uint8_t main, uint8_t sub, size_t n, std::chrono::milliseconds timeout) const;
    // The last frame with these codes, if any.
    std::optional<Frame> lastFrame(uint8_t main, uint8_t sub) const;

    // ---- state the replies are built from
    void setCurrentTemperature(uint8_t celsius);
    void setMaxTemperature(uint8_t celsius);
    void setFunclist(const std::vector<uint8_t> &bytes); // reply length = size
    void setIspEnv(uint8_t first, uint32_t second, uint32_t third);
    void setAutotestBytes(const std::vector<uint8_t> &bytes);
    void setSupportBlackScreen(uint8_t flag);
    void setAutoBlackScreen(uint8_t flag);
    void setElectronicPtzStatus(uint8_t status);
    void setElectronicPtzMode(uint8_t mode);
    void setAngleListenModel(uint8_t model);
    // Replaces the payload of the reply to the host request main/sub.
    void setReplyPayload(uint8_t main, uint8_t sub, const std::vector<uint8_t> &payload);

    // ---- state learned from the module's commands (-1: never set)
    int usbChannel() const;
    int autotestMode() const;
    int smartListenReport() const;
    int autoBlackScreen() const;
    int electronicPtzStatus() const;
    int electronicPtzMode() const;
    int factoryResets() const;

    // ---- camera-initiated frames
    void raiseOpen();
    void raiseClose();
    void raiseAngleReport(uint8_t start, uint8_t end);
    void raiseDoaStatusSet(uint8_t status, uint8_t length = 1);
    void askProductModel();
    void askDoaStatus();
    // The host's answers (nullopt / -1 until one came).
    std::optional<std::string> modelAnswer() const;
    int doaStatusAnswer() const;

    // ---- raw output (faults apply to sendFrame, not to sendBytes)
    void sendFrame(const RawFrame &frame);
    void sendBytes(const std::vector<uint8_t> &bytes);

    // ---- faults
    void setSilent(bool silent);             // host requests get no reply
    void setUnplugged(bool unplugged);       // nothing heard or sent until plugged again
    void setBadChecksum(bool bad);           // outgoing checksums off by one
    void setLength57(bool on);               // outgoing length byte 57
    void setSplitFrames(bool split);         // each frame in two writes 400 ms apart
    void setReplyDelay(std::chrono::milliseconds delay);
    // Replies are kept back until released, then sent in order: a reply
    // "too late" for a request however slowly the machine runs it.
    void holdReplies();
    void releaseHeldReplies();
    void setLineRate(unsigned baud);
    // Until every queued reply (delayed, or the second half of a split
    // frame) is on the line.
    bool waitUntilSent(std::chrono::milliseconds timeout) const;

    SerialLine &line();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace sim
