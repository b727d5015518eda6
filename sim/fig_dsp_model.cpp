/*
 * Fig DSP model: owns the "fig" serial line on /dev/ttyS2, reassembles the
 * module's frames across chunks, records them and answers the commands.
 *
 * Threads: the module's bytes arrive on the line's reader thread, which
 * also sends the answers; tests raise notifications and read the log from
 * their own thread. Impl::mutex guards the log, the partial frame, the
 * version text and the random noise; switches are atomics.
 */
#include "fig_dsp_model.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>

namespace sim {

namespace {

constexpr size_t kHeadSize = 3;          // start, type, length
constexpr size_t kFrameOverhead = 5;     // head, CRC, terminator
constexpr uint8_t kReplyDone = 1;        // second byte of a DOA answer
constexpr size_t kMaxNoiseBytes = 4;
constexpr const char *kDefaultVersion = "DUNE-SIM-1.4.2";

bool knownType(uint8_t type)
{
    return type == 0x20 || type == 0x25 || type == 0x2E || type == 0xA0 || type == 0xAE;
}

} // namespace

struct FigDspModel::Impl {
    SerialLine line;                           // the Fig DSP's end of /dev/ttyS2
    std::mutex emitMutex;                      // one frame at a time on the line, split or not
    mutable std::mutex mutex;                  // guards the fields below
    mutable std::condition_variable changed;   // signalled for every byte batch
    Bytes received;                            // every byte the module sent
    std::vector<Frame> frames;                 // every whole frame
    Bytes pending;                             // a frame not complete yet ("#" first)
    bool zeroMayFollow = false;                // the last byte ended a frame
    size_t stray = 0;                          // bytes outside frames
    size_t usbSwitches = 0;                    // USB switch requests
    std::string version = kDefaultVersion;     // answered to VERSION
    std::mt19937 random{20260417u};            // noise bytes
    std::atomic<bool> answering{true};
    std::atomic<bool> doaReporting{false};
    std::atomic<bool> corruptCrc{false};
    std::atomic<bool> split{false};
    std::atomic<int> splitGapMs{20};
    std::atomic<bool> noise{false};
    std::atomic<bool> silent{false};

    explicit Impl(Board &board) : line(board, kNode, kLink) {}

    // Takes one byte of the module's stream; a completed frame is returned
    // through `done` (and recorded, with the bytes, once answered). Called
    // under mutex.
    void take(uint8_t byte, std::vector<Frame> &done)
    {
        if (pending.empty()) {
            if (zeroMayFollow && byte == 0) {
                // The frame is still in `done` when the zero came in its chunk.
                (done.empty() ? frames.back() : done.back()).zeroAfter = true;
                zeroMayFollow = false;
                return;
            }
            zeroMayFollow = false;
            if (byte == kStart)
                pending.push_back(byte);
            else
                ++stray;
            return;
        }
        pending.push_back(byte);
        if (pending.size() == 2 && !knownType(byte)) {
            // Not a frame after all: the start byte and this one are stray.
            pending.clear();
            stray += 1;
            if (byte == kStart)
                pending.push_back(byte);
            else
                ++stray;
            return;
        }
        if (pending.size() < kHeadSize || pending.size() < pending[2] + kFrameOverhead)
            return;
        Frame frame;
        frame.bytes = pending;
        frame.type = pending[1];
        frame.payload.assign(pending.begin() + kHeadSize, pending.end() - 2);
        frame.crcOk = crc8(frame.payload.data(), frame.payload.size()) == pending[pending.size() - 2];
        frame.endOk = pending.back() == kEnd;
        frame.when = Clock::now();
        done.push_back(frame);
        pending.clear();
        zeroMayFollow = true;
    }

    // Sends a frame with the fault modes applied.
    void emit(Bytes frame)
    {
        if (silent.load())
            return;
        if (corruptCrc.load() && frame.size() >= kFrameOverhead)
            frame[frame.size() - 2] ^= 0x5A;
        Bytes out;
        if (noise.load()) {
            std::lock_guard<std::mutex> lock(mutex);
            std::uniform_int_distribution<int> count(1, static_cast<int>(kMaxNoiseBytes));
            std::uniform_int_distribution<int> value(0, 255);
            for (int i = count(random); i > 0; --i) {
                uint8_t b = static_cast<uint8_t>(value(random));
                if (b == kStart)
                    b = 0x55;
                out.push_back(b);
            }
        }
        out.insert(out.end(), frame.begin(), frame.end());
        // Answers (reader thread) and notifications (test thread) never
        // interleave, even when a frame goes out in two writes.
        std::lock_guard<std::mutex> lock(emitMutex);
        if (split.load() && frame.size() >= 2) {
            const size_t cut = out.size() - frame.size() + frame.size() / 2;
            line.write(out.data(), cut);
            std::this_thread::sleep_for(std::chrono::milliseconds(splitGapMs.load()));
            line.write(out.data() + cut, out.size() - cut);
        } else {
            line.write(out.data(), out.size());
        }
    }

    void answer(const Frame &frame)
    {
        if (frame.type != kTypeCommand || !frame.crcOk || !frame.endOk)
            return;
        const std::string text = frame.text();
        if (text == kDoaOn) {
            doaReporting.store(true);
            if (answering.load())
                emit(makeFrame(kTypeReply, Bytes{'8', kReplyDone}));
        } else if (text == kDoaOff) {
            doaReporting.store(false);
            if (answering.load())
                emit(makeFrame(kTypeReply, Bytes{'7', kReplyDone}));
        } else if (text == kVersion) {
            std::string reply;
            {
                std::lock_guard<std::mutex> lock(mutex);
                reply = "3" + version;
            }
            if (answering.load())
                emit(makeFrame(kTypeReply, reply));
        } else if (text == kUsbSwitch) {
            std::lock_guard<std::mutex> lock(mutex);
            ++usbSwitches;
        }
    }
};

uint8_t FigDspModel::crc8(const uint8_t *data, size_t size) { return figCrc8(data, size); }

FigDspModel::Bytes FigDspModel::makeFrame(uint8_t type, const Bytes &payload) { return figFrame(type, payload); }

FigDspModel::Bytes FigDspModel::makeFrame(uint8_t type, const std::string &payload)
{
    return figFrame(type, payload);
}

FigDspModel::Bytes FigDspModel::doaPayload(float angle, uint64_t stamp, const std::array<float, 5> &others,
                                           uint8_t id)
{
    return figDoaPayload(angle, stamp, others, id);
}

FigDspModel::FigDspModel(Board &board) : impl_(std::make_unique<Impl>(board))
{
    impl_->line.start([this](const uint8_t *data, size_t size) {
        std::vector<Frame> done;
        {
            std::lock_guard<std::mutex> lock(impl_->mutex);
            for (size_t i = 0; i < size; ++i)
                impl_->take(data[i], done);
        }
        for (const Frame &frame : done)
            impl_->answer(frame);
        {
            // The bytes and the frames they completed are recorded together,
            // once answered: whoever sees a byte count or a frame in the
            // record also sees every frame those bytes made and what each
            // did to the model's state.
            std::lock_guard<std::mutex> lock(impl_->mutex);
            impl_->received.insert(impl_->received.end(), data, data + size);
            impl_->frames.insert(impl_->frames.end(), done.begin(), done.end());
        }
        impl_->changed.notify_all();
    });
}

FigDspModel::~FigDspModel() { impl_->line.stop(); }

FigDspModel::Bytes FigDspModel::received() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->received;
}

std::vector<FigDspModel::Frame> FigDspModel::frames() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->frames;
}

size_t FigDspModel::countCommand(const std::string &payload) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return static_cast<size_t>(std::count_if(impl_->frames.begin(), impl_->frames.end(), [&](const Frame &f) {
        return f.type == kTypeCommand && f.text() == payload;
    }));
}

size_t FigDspModel::countAcks(uint8_t id) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return static_cast<size_t>(std::count_if(impl_->frames.begin(), impl_->frames.end(),
                                             [&](const Frame &f) { return f.isAck() && f.payload[0] == id; }));
}

size_t FigDspModel::countAcks() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return static_cast<size_t>(
        std::count_if(impl_->frames.begin(), impl_->frames.end(), [](const Frame &f) { return f.isAck(); }));
}

size_t FigDspModel::strayBytes() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->stray;
}

void FigDspModel::clearLog()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->received.clear();
    impl_->frames.clear();
    impl_->pending.clear();
    impl_->zeroMayFollow = false;
    impl_->stray = 0;
}

bool FigDspModel::waitForCommand(const std::string &payload, size_t n, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return countCommand(payload) >= n; }, timeout);
}

bool FigDspModel::waitForAcks(uint8_t id, size_t n, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return countAcks(id) >= n; }, timeout);
}

bool FigDspModel::waitForFrames(size_t n, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return impl_->frames.size() >= n; });
}

bool FigDspModel::waitForBytes(size_t n, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout, [&] { return impl_->received.size() >= n; });
}

void FigDspModel::micOn(uint8_t id)
{
    Bytes payload{id};
    const std::string text = "MIC_ON990";
    payload.insert(payload.end(), text.begin(), text.end());
    impl_->emit(makeFrame(kTypeCommand, payload));
}

void FigDspModel::micOff(uint8_t id)
{
    Bytes payload{id};
    const std::string text = "MIC_OFF99";
    payload.insert(payload.end(), text.begin(), text.end());
    impl_->emit(makeFrame(kTypeCommand, payload));
}

void FigDspModel::sendDoaReport(float angle, uint64_t stamp, const std::array<float, 5> &others)
{
    impl_->emit(makeFrame(kTypeDoa, doaPayload(angle, stamp, others)));
}

void FigDspModel::sendFrame(uint8_t type, const Bytes &payload) { impl_->emit(makeFrame(type, payload)); }

void FigDspModel::sendFrame(uint8_t type, const std::string &payload) { impl_->emit(makeFrame(type, payload)); }

void FigDspModel::sendRaw(const Bytes &bytes) { impl_->line.write(bytes.data(), bytes.size()); }

void FigDspModel::setVersion(const std::string &version)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->version = version;
}

std::string FigDspModel::version() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->version;
}

void FigDspModel::setAnswering(bool on) { impl_->answering.store(on); }

bool FigDspModel::doaReporting() const { return impl_->doaReporting.load(); }

size_t FigDspModel::usbSwitchRequests() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->usbSwitches;
}

void FigDspModel::setCorruptCrc(bool on) { impl_->corruptCrc.store(on); }

void FigDspModel::setSplitFrames(bool on, std::chrono::milliseconds gap)
{
    impl_->splitGapMs.store(static_cast<int>(gap.count()));
    impl_->split.store(on);
}

void FigDspModel::setNoise(bool on) { impl_->noise.store(on); }

void FigDspModel::setSilent(bool on) { impl_->silent.store(on); }

void FigDspModel::setLineRate(unsigned baud) { impl_->line.setLineRate(baud); }

SerialLine &FigDspModel::line() { return impl_->line; }

} // namespace sim
