/*
 * Helpers over the DSP's command list and over received chunks, shared by
 * the unit and board tests of the DSP link, the restore and the transfer.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "avmanager/dsp/dsp_link.h"

namespace avmtest {

// The commands that start with `prefix`, in order.
std::vector<std::string> withPrefix(const std::vector<std::string> &commands, const std::string &prefix);

// Index of the first command at or after `from` that starts with
// `prefix`, or -1.
long indexOf(const std::vector<std::string> &commands, const std::string &prefix, size_t from = 0);

// The commands other than `marker`, in order.
std::vector<std::string> without(const std::vector<std::string> &commands, const std::string &marker);

// The commands without the detection thread's version queries
// ("VER_FULL=?"): a started module posts one on its first detection pass
// and one every 300 ms after it while the DSP has not answered.
std::vector<std::string> withoutVersionQueries(const std::vector<std::string> &commands);

// A received chunk as the receive thread hands it over: zeroed record,
// the bytes in the text (not terminated when they fill it), their count
// in length.
DspRequest receivedChunk(const std::string &bytes);

// One request the module posted into the DSP pipe.
struct PostedRequest {
    int32_t cmd;
    std::string text;
    bool operator==(const PostedRequest &) const = default;
};
std::ostream &operator<<(std::ostream &os, const PostedRequest &request);

// Every request waiting in the DSP pipe (made by dsp_mkfifo_init, whose
// read end does not block), in order; the pipe is empty afterwards.
std::vector<PostedRequest> drainPostedRequests();

} // namespace avmtest
