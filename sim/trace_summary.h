/*
 * What the console's live trace shows of one link event. A configuration
 * upgrade sends the DSP hundreds of FWDAT chunks of 480 hex characters;
 * shown whole, they flood the screen and push everything else out of
 * sight. The live trace shows a long event as its first and last bytes,
 * its length and, where the bytes say what they are, a short decoding
 * (the chunks of a DSP file transfer). The board's trace and the timeline
 * keep every byte; "trace full" in the console shows events whole.
 */
#pragma once

#include <cstddef>
#include <string>

#include "board.h"

namespace sim {

// The longest rendering the live trace shows whole.
inline constexpr size_t kTraceShownWhole = 120;
// Bytes shown from the start and from the end of a longer event.
inline constexpr size_t kTraceHeadBytes = 40;
inline constexpr size_t kTraceTailBytes = 12;

// The event's text as the live trace shows it: its note (or its bytes,
// rendered) when that is at most kTraceShownWhole characters; otherwise
// "<first bytes>…<last bytes> [<n> bytes<; decoding>]". A read of DSP
// commands is cut command by command: a short command read together with
// a file chunk is shown whole beside the chunk's ends.
std::string traceSummary(const TraceEvent &event);

// What a DSP command chunk carries, when it holds file-transfer chunks:
// "chunk 0,240" or "chunks 0,240 240,240"; "" otherwise.
std::string dspFileChunks(const std::string &text);

} // namespace sim
