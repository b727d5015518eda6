#include "trace_summary.h"

#include <vector>

namespace sim {

namespace {

constexpr char kFileChunkWord[] = "FWDAT=";
constexpr char kEllipsis[] = "\xe2\x80\xa6"; // U+2026, one column on a terminal

// "FWDAT=<offset>,<length>,<hex>": the "<offset>,<length>" that names the
// chunk, or "" when the command does not have that shape.
std::string chunkName(const std::string &command)
{
    const size_t first = command.find(',', sizeof kFileChunkWord - 1);
    if (first == std::string::npos)
        return "";
    const size_t second = command.find(',', first + 1);
    if (second == std::string::npos)
        return "";
    return command.substr(sizeof kFileChunkWord - 1, second - (sizeof kFileChunkWord - 1));
}

} // namespace

std::string dspFileChunks(const std::string &text)
{
    // The module ends each DSP command with a zero byte; one read of the
    // line may hold several.
    std::vector<std::string> chunks;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\0', at);
        if (end == std::string::npos)
            end = text.size();
        const std::string command = text.substr(at, end - at);
        if (command.rfind(kFileChunkWord, 0) == 0) {
            const std::string name = chunkName(command);
            if (!name.empty())
                chunks.push_back(name);
        }
        at = end + 1;
    }
    if (chunks.empty())
        return "";
    std::string out = chunks.size() == 1 ? "chunk" : "chunks";
    for (const auto &c : chunks)
        out += " " + c;
    return out;
}

namespace {

// Bytes [at, at + n) shown whole, or as their first and last bytes when
// that is shorter. Cuts the bytes, not their rendering, so no escape is
// cut in two.
std::string shortenBytes(const uint8_t *at, size_t n)
{
    if (n <= kTraceHeadBytes + kTraceTailBytes)
        return renderBytes(at, n);
    return renderBytes(at, kTraceHeadBytes) + kEllipsis + renderBytes(at + n - kTraceTailBytes, kTraceTailBytes);
}

// A DSP command read: each zero-terminated command on its own, so a short
// command the DSP read together with a file chunk stays readable.
std::string shortenCommands(const std::vector<uint8_t> &bytes)
{
    std::string out;
    size_t at = 0;
    while (at < bytes.size()) {
        size_t end = at;
        while (end < bytes.size() && bytes[end] != 0)
            ++end;
        if (end < bytes.size())
            ++end; // the command's own zero byte
        const std::string whole = renderBytes(bytes.data() + at, end - at);
        out += whole.size() <= kTraceShownWhole ? whole : shortenBytes(bytes.data() + at, end - at);
        at = end;
    }
    return out;
}

} // namespace

std::string traceSummary(const TraceEvent &event)
{
    const std::string rendered = renderBytes(event.bytes.data(), event.bytes.size());
    const std::string &note = event.note.empty() ? rendered : event.note;
    const bool ofBytes = note == rendered;
    // Few bytes that render long (escapes) are shown whole all the same.
    if (note.size() <= kTraceShownWhole ||
        (ofBytes && event.bytes.size() <= kTraceHeadBytes + kTraceTailBytes))
        return note;
    const bool dspCommands = event.link == "dsp" && event.toDevice;
    std::string shown;
    size_t length = 0;
    if (ofBytes) {
        length = event.bytes.size();
        shown = dspCommands ? shortenCommands(event.bytes) : shortenBytes(event.bytes.data(), length);
    } else {
        // A model's own decoding: cut its text.
        length = note.size();
        shown = note.substr(0, kTraceHeadBytes) + kEllipsis + note.substr(note.size() - kTraceTailBytes);
    }
    std::string out = shown + " [" + std::to_string(length) + (ofBytes ? " bytes" : " characters");
    if (dspCommands) {
        const std::string chunks = dspFileChunks(std::string(event.bytes.begin(), event.bytes.end()));
        if (!chunks.empty())
            out += "; " + chunks;
    }
    return out + "]";
}

} // namespace sim
