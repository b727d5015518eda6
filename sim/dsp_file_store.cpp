/*
 * File store feature of the audio DSP model; see dsp_file_store.h.
 */
#include "dsp_file_store.h"

#include <md5.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sim {

namespace {

bool startsWith(const std::string &s, const char *prefix)
{
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

std::vector<std::string> splitFields(const std::string &s)
{
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        size_t comma = s.find(',', start);
        out.push_back(s.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (comma == std::string::npos)
            return out;
        start = comma + 1;
    }
}

// Strict decimal: digits only, fits 32 bits.
bool parseU32(const std::string &s, uint32_t *out)
{
    if (s.empty() || s.size() > 10)
        return false;
    uint64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    if (v > 0xFFFFFFFFull)
        return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

} // namespace

std::string makeConfigBundle(size_t size)
{
    // A header naming the format, then records of made-up tuning values;
    // an xorshift generator with a fixed start keeps it identical on every
    // machine.
    std::string out = "AVMCFG01 virtual-board tuning bundle\n";
    uint32_t x = 0x2545F491u;
    unsigned record = 0;
    while (out.size() < size) {
        char line[64];
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        std::snprintf(line, sizeof(line), "R%04u:", record++);
        out += line;
        for (int i = 0; i < 12; ++i) {
            x ^= x << 13;
            x ^= x >> 17;
            x ^= x << 5;
            out += static_cast<char>(x & 0xFF);
        }
    }
    out.resize(size);
    return out;
}

std::string installConfigBundle(Board &board, size_t size)
{
    std::string bundle = makeConfigBundle(size);
    board.writeFile(kConfigBundlePath, bundle);
    return bundle;
}

std::string dspMd5Hex(const std::string &bytes)
{
    MD5_CTX ctx;
    MD5Init(&ctx);
    MD5Update(&ctx, reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    uint8_t digest[16];
    MD5Final(digest, &ctx);
    char hex[33];
    for (int i = 0; i < 16; ++i)
        std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    return std::string(hex, 32);
}

DspFileStore::DspFileStore(DspModel &dsp, std::string version)
    : dsp_(dsp), version_(std::move(version))
{
    dsp_.addResponder([this](DspModel &model, const std::string &command) {
        return handle(model, command);
    });
}

void DspFileStore::setFile(const std::string &path, const std::string &content)
{
    std::lock_guard<std::mutex> lock(mutex_);
    files_[path] = content;
}

void DspFileStore::removeFile(const std::string &path)
{
    std::lock_guard<std::mutex> lock(mutex_);
    files_.erase(path);
}

std::optional<std::string> DspFileStore::file(const std::string &path) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = files_.find(path);
    if (it == files_.end())
        return std::nullopt;
    return it->second;
}

void DspFileStore::rejectChunkAt(std::optional<uint32_t> offset)
{
    std::lock_guard<std::mutex> lock(mutex_);
    rejectAt_ = offset;
}

void DspFileStore::setRepeatOffset(bool repeat)
{
    std::lock_guard<std::mutex> lock(mutex_);
    repeatOffset_ = repeat;
}

void DspFileStore::setSilent(bool silent)
{
    std::lock_guard<std::mutex> lock(mutex_);
    silent_ = silent;
}

std::vector<std::string> DspFileStore::fileCommands() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return log_;
}

size_t DspFileStore::chunksAccepted() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return chunksAccepted_;
}

size_t DspFileStore::transfersCompleted() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return transfersCompleted_;
}

void DspFileStore::addRebootHook(std::function<void()> hook)
{
    std::lock_guard<std::mutex> lock(mutex_);
    rebootHooks_.push_back(std::move(hook));
}

void DspFileStore::reboot()
{
    std::vector<std::function<void()>> hooks;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pending_ = Pending{};
        hooks = rebootHooks_;
    }
    for (auto &hook : hooks)
        hook();
    dsp_.send("VER_FULL=" + version_);
}

bool DspFileStore::handle(DspModel &dsp, const std::string &command)
{
    std::string reply;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (startsWith(command, "FINF="))
            reply = onInfo(command.substr(5));
        else if (startsWith(command, "FWSTR="))
            reply = onStart(command.substr(6));
        else if (startsWith(command, "FWDAT="))
            reply = onData(command.substr(6));
        else if (startsWith(command, "FWEND="))
            reply = onEnd(command.substr(6));
        else
            return false;
        log_.push_back(command);
        if (silent_)
            return true;
    }
    dsp.send(reply);
    return true;
}

std::string DspFileStore::onInfo(const std::string &path)
{
    auto it = files_.find(path);
    if (it == files_.end())
        return "FINF=NULL";
    return "FINF=" + path + "," + std::to_string(it->second.size()) + "," + dspMd5Hex(it->second);
}

std::string DspFileStore::onStart(const std::string &args)
{
    std::vector<std::string> f = splitFields(args);
    uint32_t length = 0;
    if (f.size() != 3 || f[0].empty() || !parseU32(f[1], &length) || f[2].size() != 32) {
        pending_ = Pending{};
        return "FWSTR=" + (f.empty() ? std::string() : f[0]) + ",ERR_ARGS";
    }
    pending_ = Pending{};
    pending_.active = true;
    pending_.path = f[0];
    pending_.length = length;
    pending_.md5 = f[2];
    return "FWSTR=" + f[0] + ",OK";
}

std::string DspFileStore::onData(const std::string &args)
{
    std::vector<std::string> f = splitFields(args);
    uint32_t offset = 0, length = 0, sum = 0;
    if (f.size() != 4 || !parseU32(f[0], &offset) || !parseU32(f[1], &length) ||
        !parseU32(f[2], &sum))
        return "FWDAT=" + (f.empty() ? std::string() : f[0]) + "," +
               (f.size() > 1 ? f[1] : std::string()) + ",ERR_ARGS";
    const std::string head = "FWDAT=" + f[0] + "," + f[1] + ",";
    if (repeatOffset_) {
        std::string answer = "FWDAT=" + std::to_string(pending_.lastOffset) + "," + f[1] + ",OK";
        pending_.lastOffset = offset;
        return answer;
    }
    if (rejectAt_ && *rejectAt_ == offset) {
        rejectAt_.reset();
        return head + "ERR_REJECT";
    }
    if (!pending_.active)
        return head + "ERR_STATE";
    if (offset != pending_.data.size())
        return head + "ERR_OFFSET";
    const std::string &hex = f[3];
    if (hex.size() != 2ull * length)
        return head + "ERR_LEN";
    unsigned total = 0;
    for (char c : hex)
        total += static_cast<unsigned char>(c);
    if ((total & 0xFF) != sum)
        return head + "ERR_SUM";
    std::string bytes;
    bytes.reserve(length);
    for (size_t i = 0; i < hex.size(); i += 2) {
        int hi = hexValue(hex[i]);
        int lo = hexValue(hex[i + 1]);
        if (hi < 0 || lo < 0)
            return head + "ERR_HEX";
        bytes += static_cast<char>(hi * 16 + lo);
    }
    if (pending_.data.size() + bytes.size() > pending_.length)
        return head + "ERR_LEN";
    pending_.data += bytes;
    pending_.lastOffset = offset;
    ++chunksAccepted_;
    return head + "OK";
}

std::string DspFileStore::onEnd(const std::string &path)
{
    if (!pending_.active || path != pending_.path)
        return "FWEND=" + path + ",ERR_STATE";
    Pending done = std::move(pending_);
    pending_ = Pending{};
    if (done.data.size() != done.length)
        return "FWEND=" + path + ",ERR_LEN";
    if (dspMd5Hex(done.data) != done.md5)
        return "FWEND=" + path + ",ERR_MD5";
    files_[path] = std::move(done.data);
    ++transfersCompleted_;
    return "FWEND=" + path + ",OK";
}

} // namespace sim
