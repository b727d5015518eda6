/*
 * File store feature of the audio DSP model; see dsp_file_store.h.
 */
#include "dsp_file_store.h"

#include <md5.h>

#include <cstdio>
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

struct DspFileStore::Impl {
    // A transfer announced by FWSTR and not yet ended.
    struct Pending {
        bool active = false;  // FWSTR accepted, FWEND not yet seen
        std::string path;     // the file being written
        uint64_t length = 0;  // announced length
        std::string md5;      // announced MD5
        std::string data;     // bytes accepted so far
        uint32_t lastOffset = 0; // offset of the last chunk answered
    };

    std::mutex mutex;                          // guards everything below
    bool detached = false;                     // the store object is gone
    std::map<std::string, std::string> files;  // the DSP's files
    Pending pending;
    std::optional<uint32_t> rejectAt;          // one chunk to refuse
    std::optional<uint32_t> missAt;            // one chunk to miss
    bool repeatOffset = false;                 // answer with the previous offset
    bool silent = false;                       // no answers to file commands
    std::vector<std::string> log;              // file commands seen
    size_t chunksAccepted = 0;
    size_t transfersCompleted = 0;
    std::vector<std::function<void()>> rebootHooks;

    bool handle(DspModel &dsp, const std::string &command);
    std::string onInfo(const std::string &path);
    std::string onStart(const std::string &args);
    std::string onData(const std::string &args);
    std::string onEnd(const std::string &path);
};

DspFileStore::DspFileStore(DspModel &dsp, std::string version)
    : dsp_(dsp), version_(std::move(version)), impl_(std::make_shared<Impl>())
{
    std::shared_ptr<Impl> impl = impl_;
    dsp_.addResponder([impl](DspModel &model, const std::string &command) {
        return impl->handle(model, command);
    });
}

DspFileStore::~DspFileStore()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->detached = true;
}

void DspFileStore::setFile(const std::string &path, const std::string &content)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->files[path] = content;
}

void DspFileStore::removeFile(const std::string &path)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->files.erase(path);
}

std::optional<std::string> DspFileStore::file(const std::string &path) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    auto it = impl_->files.find(path);
    if (it == impl_->files.end())
        return std::nullopt;
    return it->second;
}

void DspFileStore::rejectChunkAt(std::optional<uint32_t> offset)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->rejectAt = offset;
}

void DspFileStore::missChunkOnceAt(std::optional<uint32_t> offset)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->missAt = offset;
}

void DspFileStore::setRepeatOffset(bool repeat)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->repeatOffset = repeat;
}

void DspFileStore::setSilent(bool silent)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->silent = silent;
}

std::vector<std::string> DspFileStore::fileCommands() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->log;
}

size_t DspFileStore::chunksAccepted() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->chunksAccepted;
}

size_t DspFileStore::transfersCompleted() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->transfersCompleted;
}

void DspFileStore::addRebootHook(std::function<void()> hook)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->rebootHooks.push_back(std::move(hook));
}

void DspFileStore::reboot()
{
    std::vector<std::function<void()>> hooks;
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->pending = Impl::Pending{};
        hooks = impl_->rebootHooks;
    }
    for (auto &hook : hooks)
        hook();
    dsp_.send("VER_FULL=" + version_);
}

bool DspFileStore::Impl::handle(DspModel &dsp, const std::string &command)
{
    std::string reply;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (detached)
            return false;
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
        log.push_back(command);
        // A missed chunk has no answer either.
        if (silent || reply.empty())
            return true;
    }
    dsp.send(reply);
    return true;
}

std::string DspFileStore::Impl::onInfo(const std::string &path)
{
    auto it = files.find(path);
    if (it == files.end())
        return "FINF=NULL";
    return "FINF=" + path + "," + std::to_string(it->second.size()) + "," + dspMd5Hex(it->second);
}

std::string DspFileStore::Impl::onStart(const std::string &args)
{
    std::vector<std::string> f = splitFields(args);
    uint32_t length = 0;
    pending = Pending{};
    if (f.size() != 3 || f[0].empty() || !parseU32(f[1], &length) || f[2].size() != 32)
        return "FWSTR=" + (f.empty() ? std::string() : f[0]) + ",ERR_ARGS";
    pending.active = true;
    pending.path = f[0];
    pending.length = length;
    pending.md5 = f[2];
    return "FWSTR=" + f[0] + ",OK";
}

std::string DspFileStore::Impl::onData(const std::string &args)
{
    std::vector<std::string> f = splitFields(args);
    uint32_t offset = 0, length = 0, sum = 0;
    if (f.size() != 4 || !parseU32(f[0], &offset) || !parseU32(f[1], &length) ||
        !parseU32(f[2], &sum))
        return "FWDAT=" + (f.empty() ? std::string() : f[0]) + "," +
               (f.size() > 1 ? f[1] : std::string()) + ",ERR_ARGS";
    const std::string head = "FWDAT=" + f[0] + "," + f[1] + ",";
    if (missAt && *missAt == offset) {
        missAt.reset();
        return "";
    }
    if (repeatOffset) {
        std::string answer = "FWDAT=" + std::to_string(pending.lastOffset) + "," + f[1] + ",OK";
        pending.lastOffset = offset;
        return answer;
    }
    if (rejectAt && *rejectAt == offset) {
        rejectAt.reset();
        return head + "ERR_REJECT";
    }
    if (!pending.active)
        return head + "ERR_STATE";
    if (offset != pending.data.size())
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
    if (pending.data.size() + bytes.size() > pending.length)
        return head + "ERR_LEN";
    pending.data += bytes;
    pending.lastOffset = offset;
    ++chunksAccepted;
    return head + "OK";
}

std::string DspFileStore::Impl::onEnd(const std::string &path)
{
    if (!pending.active || path != pending.path)
        return "FWEND=" + path + ",ERR_STATE";
    Pending done = std::move(pending);
    pending = Pending{};
    if (done.data.size() != done.length)
        return "FWEND=" + path + ",ERR_LEN";
    if (dspMd5Hex(done.data) != done.md5)
        return "FWEND=" + path + ",ERR_MD5";
    files[path] = std::move(done.data);
    ++transfersCompleted;
    return "FWEND=" + path + ",OK";
}

} // namespace sim
