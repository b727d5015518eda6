/*
 * The module's timing contract and the physics of its links, named once
 * for the benchmarks: every bound the figures are compared with is
 * computed from these, never typed in as a result.
 */
#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>

namespace contract {

using Seconds = std::chrono::duration<double>;

constexpr Seconds ms(double v) { return Seconds(v / 1000.0); }
constexpr Seconds us(double v) { return Seconds(v / 1e6); }

// Serial lines: 115200 baud, 8N1, so ten bit times a byte.
constexpr unsigned kBaud = 115200;
constexpr double kBitsPerByte = 10.0;
constexpr double bytesPerSecond(unsigned baud) { return baud / kBitsPerByte; }
inline Seconds wire(std::size_t bytes, unsigned baud = kBaud) { return Seconds(bytes / bytesPerSecond(baud)); }
// A read returns 0.1 s after the last byte unless 128 bytes are in
// (VTIME 1, VMIN 128); a PTZ read of 64 bytes returns when they are in.
constexpr Seconds kInterByteTime = ms(100);

// DSP link.
constexpr Seconds kDspIdlePoll = ms(3);       // transmit thread idles in these steps
constexpr Seconds kDspWritePacing = ms(8);    // pause after every command written
constexpr Seconds kDspReplyPoll = ms(100);    // a query looks at its reply flag this often
constexpr int kDspReplyPolls = 9;             // ... at most this many times
constexpr Seconds kRestorePause = ms(1);      // between the two passes of a restore

// DSP file transfer.
constexpr std::size_t kFileChunk = 240;       // bytes of the file per FWDAT
constexpr Seconds kFilePoll = ms(50);         // a request looks at its answer flags this often
constexpr int kFilePolls = 16;                // ... per send
constexpr int kFileSends = 3;

// PTZ link.
constexpr std::size_t kPtzFrame = 64;
constexpr Seconds kPtzWritePacing = ms(10);   // pause after every frame written
constexpr Seconds kPtzAckPoll = ms(50);       // a request looks at its reply flag this often
constexpr int kPtzAckPolls = 10;              // ... per send, the first look right after the pause

// Amplifiers: one I2C transaction (a byte-data transfer at 400 kHz) takes
// about 100 us on the bus; a format switch waits 100 ms before it
// releases the mute, and the AD82120 register programming waits 1 ms
// before its coefficient RAM (not the subwoofer's in the wall format).
constexpr Seconds kI2cTransaction = us(100);
constexpr Seconds kAmpSettle = ms(100);
constexpr Seconds kAmpRamWait = ms(1);

// HDMI-out: every bulk transfer is 512 bytes; a data packet carries at
// most 512000 payload bytes.
constexpr std::size_t kUsbTransfer = 512;
constexpr std::size_t kHdmiMaxPacket = 512000;

// The first point of a polling grid (first look at `first`, then every
// `step`) at or after `ready`.
inline Seconds gridPoint(Seconds ready, Seconds first, Seconds step)
{
    if (ready <= first)
        return first;
    return first + step * std::ceil((ready - first) / step);
}

// One file request on the DSP link: written at once, the 8 ms pacing,
// then a look every 50 ms; its answer is in the module's hands when both
// have crossed the line and the read time has passed.
inline Seconds fileExchange(std::size_t requestBytes, std::size_t answerBytes, unsigned baud = kBaud)
{
    const Seconds ready = wire(requestBytes, baud) + wire(answerBytes, baud) + kInterByteTime;
    return gridPoint(ready, kDspWritePacing + kFilePoll, kFilePoll);
}

} // namespace contract
