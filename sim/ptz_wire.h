/*
 * The PTZ camera's 64-byte frame as the camera builds it: head AA BB CC,
 * main and sub code, payload length, a reserved byte, 56 payload bytes and
 * the byte sum of the first 63 bytes. Shared by the camera model and by
 * the tests that feed frames to the module without a board, so it needs
 * nothing but the standard library.
 */
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace sim {

inline constexpr size_t kPtzFrameSize = 64;
inline constexpr size_t kPtzDataSize = 56;
inline constexpr uint8_t kPtzHead[3] = {0xAA, 0xBB, 0xCC};
using PtzRawFrame = std::array<uint8_t, kPtzFrameSize>;

// Byte sum of `count` bytes, modulo 256.
inline uint8_t ptzChecksum(const uint8_t *bytes, size_t count)
{
    uint8_t sum = 0;
    for (size_t i = 0; i < count; ++i)
        sum = static_cast<uint8_t>(sum + bytes[i]);
    return sum;
}

// A whole frame with head and checksum; the payload is cut to 56 bytes.
inline PtzRawFrame makePtzFrame(uint8_t main, uint8_t sub, const std::vector<uint8_t> &payload)
{
    PtzRawFrame f{};
    f[0] = kPtzHead[0];
    f[1] = kPtzHead[1];
    f[2] = kPtzHead[2];
    f[3] = main;
    f[4] = sub;
    const size_t len = std::min(payload.size(), kPtzDataSize);
    f[5] = static_cast<uint8_t>(len);
    std::copy(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(len), f.begin() + 7);
    f[63] = ptzChecksum(f.data(), kPtzFrameSize - 1);
    return f;
}

} // namespace sim
