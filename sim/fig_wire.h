/*
 * The Fig DSP's frame as the Fig DSP builds it: "#", type, payload length,
 * payload, CRC-8 of the payload (polynomial 0x07, initial 0, no reflection,
 * no final XOR), 0x0A; and the payload of its DOA report. Shared by the Fig
 * DSP model and by the tests that feed frames to the module without a
 * board, so it needs nothing but the standard library. (Its own code, not
 * the module's: tests compare the two.)
 */
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sim {

inline constexpr uint8_t kFigStart = 0x23;       // "#"
inline constexpr uint8_t kFigEnd = 0x0A;
inline constexpr uint8_t kFigCrcPolynomial = 0x07;
inline constexpr uint8_t kFigTypeCommand = 0x20; // command or notification
inline constexpr uint8_t kFigTypeDoa = 0x25;     // DOA report
inline constexpr uint8_t kFigTypeReply = 0x2E;   // reply or acknowledgement
inline constexpr size_t kFigDoaPayloadSize = 49;

using FigBytes = std::vector<uint8_t>;

// CRC-8 as the Fig DSP computes it, bit by bit, most significant bit first.
inline uint8_t figCrc8(const uint8_t *data, size_t size)
{
    uint8_t crc = 0;
    for (size_t i = 0; i < size; ++i) {
        crc = static_cast<uint8_t>(crc ^ data[i]);
        for (int k = 0; k < 8; ++k) {
            const bool top = (crc & 0x80) != 0;
            crc = static_cast<uint8_t>(crc << 1);
            if (top)
                crc = static_cast<uint8_t>(crc ^ kFigCrcPolynomial);
        }
    }
    return crc;
}

// A whole frame: start, type, length, payload, CRC, terminator.
inline FigBytes figFrame(uint8_t type, const FigBytes &payload)
{
    FigBytes frame;
    frame.push_back(kFigStart);
    frame.push_back(type);
    frame.push_back(static_cast<uint8_t>(payload.size()));
    frame.insert(frame.end(), payload.begin(), payload.end());
    frame.push_back(figCrc8(payload.data(), payload.size()));
    frame.push_back(kFigEnd);
    return frame;
}

inline FigBytes figFrame(uint8_t type, const std::string &payload)
{
    return figFrame(type, FigBytes(payload.begin(), payload.end()));
}

// A DOA report's payload: identifier, 8-byte stamp, angle, two floats, 16
// unused bytes, three floats; every number little-endian.
inline FigBytes figDoaPayload(float angle, uint64_t stamp = 0, const std::array<float, 5> &others = {},
                              uint8_t id = '6')
{
    FigBytes payload(kFigDoaPayloadSize, 0);
    const auto putLe32 = [&payload](size_t at, uint32_t value) {
        for (size_t i = 0; i < 4; ++i)
            payload[at + i] = static_cast<uint8_t>(value >> (8 * i));
    };
    payload[0] = id;
    for (size_t i = 0; i < 8; ++i)
        payload[1 + i] = static_cast<uint8_t>(stamp >> (8 * i));
    putLe32(9, std::bit_cast<uint32_t>(angle));
    constexpr size_t kOtherOffsets[] = {13, 17, 37, 41, 45};
    for (size_t i = 0; i < others.size(); ++i)
        putLe32(kOtherOffsets[i], std::bit_cast<uint32_t>(others[i]));
    return payload;
}

} // namespace sim
