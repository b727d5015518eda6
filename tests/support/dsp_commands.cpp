#include "dsp_commands.h"

#include <cstring>

namespace avmtest {

std::vector<std::string> withPrefix(const std::vector<std::string> &commands, const std::string &prefix)
{
    std::vector<std::string> out;
    for (const auto &c : commands)
        if (c.rfind(prefix, 0) == 0)
            out.push_back(c);
    return out;
}

long indexOf(const std::vector<std::string> &commands, const std::string &prefix, size_t from)
{
    for (size_t i = from; i < commands.size(); ++i)
        if (commands[i].rfind(prefix, 0) == 0)
            return static_cast<long>(i);
    return -1;
}

std::vector<std::string> without(const std::vector<std::string> &commands, const std::string &marker)
{
    std::vector<std::string> out;
    for (const auto &c : commands)
        if (c != marker)
            out.push_back(c);
    return out;
}

std::vector<std::string> withoutVersionQueries(const std::vector<std::string> &commands)
{
    return without(commands, "VER_FULL=?");
}

DspRequest receivedChunk(const std::string &bytes)
{
    DspRequest r;
    memset(&r, 0, sizeof(r));
    const size_t n = bytes.size() < sizeof(r.text) ? bytes.size() : sizeof(r.text);
    memcpy(r.text, bytes.data(), n);
    r.length = static_cast<uint32_t>(n);
    return r;
}

std::ostream &operator<<(std::ostream &os, const PostedRequest &request)
{
    return os << "{" << request.cmd << ", \"" << request.text << "\"}";
}

std::vector<PostedRequest> drainPostedRequests()
{
    std::vector<PostedRequest> out;
    DspRequest request;
    while (dsp_mkfifo_read(&request) > 0) {
        request.text[DSP_REQUEST_TEXT_SIZE - 1] = '\0';
        out.push_back({request.cmd, request.text});
    }
    return out;
}

} // namespace avmtest
