#include "ptz_camera_model.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace sim {

namespace {

constexpr size_t kSplitAt = 10;                              // bytes in the first half of a split frame
constexpr std::chrono::milliseconds kSplitGap{400};          // well past the module's 0.1 s read gap, even when its reader runs late
constexpr uint8_t kBadLength = 57;

// Codes the module sends (host requests and host answers).
enum : uint16_t {
    kOpenAck = 0x2001,
    kCloseAck = 0x2003,
    kSendDoa = 0x2100,
    kSendUsbChannel = 0x2102,
    kModelAnswer = 0x2105,
    kSetAutotest = 0x2106,
    kGetAutotest = 0x2108,
    kGetIspEnv = 0x2110,
    kDoaSetAck = 0x2113,
    kDoaStatusAnswer = 0x2115,
    kGetAngleListenModel = 0x311A,
    kSetSmartListenReport = 0x311C,
    kAngleReportAck = 0x311F,
    kGetElectronicStatus = 0x2092,
    kSetElectronicStatus = 0x2094,
    kSetElectronicMode = 0x2096,
    kResetFactory = 0x20A0,
    kGetElectronicMode = 0x20B0,
    kGetCurrentTemperature = 0x20BA,
    kGetMaxTemperature = 0x20BC,
    kGetSupportBlackScreen = 0x20F4,
    kSetAutoBlackScreen = 0x20F6,
    kGetAutoBlackScreen = 0x20F8,
    kGetFunclist = 0x31FE,
};

uint16_t code(uint8_t main, uint8_t sub)
{
    return static_cast<uint16_t>(main << 8 | sub);
}

void putBigEndian(std::vector<uint8_t> &out, uint32_t v)
{
    out.push_back(static_cast<uint8_t>(v >> 24));
    out.push_back(static_cast<uint8_t>(v >> 16));
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
}

} // namespace

struct PtzCameraModel::Impl {
    SerialLine line;

    mutable std::mutex mutex;          // guards everything below
    std::condition_variable wake;      // output queue changed / stopping
    std::vector<uint8_t> rxBuffer;     // bytes of a frame not yet complete
    std::vector<Frame> frames;         // every frame received
    std::multimap<Clock::time_point, std::vector<uint8_t>> outQueue; // due time -> bytes
    bool stopping = false;

    uint8_t currentTemperature = 45;
    uint8_t maxTemperature = 85;
    std::vector<uint8_t> funclist{0x01, 0x02, 0x03, 0x04};
    uint8_t ispFirst = 1;
    uint32_t ispSecond = 0x00000200;
    uint32_t ispThird = 0x00000003;
    std::vector<uint8_t> autotest{1, 1, 1, 1};
    uint8_t supportBlackScreen = 1;
    int autoBlackScreen = 0;
    int electronicStatus = 0;
    int electronicMode = 0;
    uint8_t angleListenModel = 1;
    std::map<uint16_t, std::vector<uint8_t>> replyOverride;

    int usbChannel = -1;
    int autotestMode = -1;
    int smartListenReport = -1;
    int factoryResets = 0;
    std::optional<std::string> modelAnswer;
    int doaStatusAnswer = -1;

    bool silent = false;
    bool unplugged = false; // the line is dead: nothing heard, nothing sent
    bool badChecksum = false;
    bool length57 = false;
    bool split = false;
    std::chrono::milliseconds replyDelay{0};
    bool writing = false;                       // the writer is putting dequeued bytes on the line
    bool holding = false;                       // replies wait in `held` until released
    std::vector<std::vector<uint8_t>> held;     // held replies, in the order they were made

    std::thread writer; // drains outQueue at the due times

    Impl(Board &board) : line(board, "/dev/ttyS1", "ptz") {}

    // Queues a frame (faults applied) for sending after `delay`. Caller holds mutex.
    void queueFrameLocked(RawFrame frame, std::chrono::milliseconds delay)
    {
        if (unplugged)
            return;
        if (length57)
            frame[5] = kBadLength;
        frame[63] = PtzCameraModel::checksum(frame.data(), kFrameSize - 1);
        if (badChecksum)
            frame[63] = static_cast<uint8_t>(frame[63] + 1);
        if (holding) {
            held.emplace_back(frame.begin(), frame.end());
            return;
        }
        const auto due = Clock::now() + delay;
        if (split) {
            outQueue.emplace(due, std::vector<uint8_t>(frame.begin(), frame.begin() + kSplitAt));
            outQueue.emplace(due + kSplitGap, std::vector<uint8_t>(frame.begin() + kSplitAt, frame.end()));
        } else {
            outQueue.emplace(due, std::vector<uint8_t>(frame.begin(), frame.end()));
        }
        wake.notify_all();
    }

    void replyLocked(uint8_t main, uint8_t sub, std::vector<uint8_t> payload)
    {
        if (silent)
            return;
        auto it = replyOverride.find(code(main, sub));
        if (it != replyOverride.end())
            payload = it->second;
        queueFrameLocked(makeFrame(main, static_cast<uint8_t>(sub + 1), payload), replyDelay);
    }

    void handleFrameLocked(const Frame &f)
    {
        frames.push_back(f);
        if (!f.checksumOk)
            return;
        const uint8_t main = f.main();
        const uint8_t sub = f.sub();
        const uint8_t len = std::min<uint8_t>(f.length(), kDataSize);
        const uint8_t d0 = f.data(0);
        switch (code(main, sub)) {
        case kSendUsbChannel:
            usbChannel = d0;
            replyLocked(main, sub, {});
            break;
        case kSetAutotest:
            autotestMode = d0;
            replyLocked(main, sub, {});
            break;
        case kGetAutotest:
            replyLocked(main, sub, autotest);
            break;
        case kGetIspEnv: {
            std::vector<uint8_t> p{ispFirst};
            putBigEndian(p, ispSecond);
            putBigEndian(p, ispThird);
            replyLocked(main, sub, p);
            break;
        }
        case kGetAngleListenModel:
            replyLocked(main, sub, {angleListenModel});
            break;
        case kSetSmartListenReport:
            smartListenReport = d0;
            replyLocked(main, sub, {});
            break;
        case kSetElectronicStatus:
            electronicStatus = d0;
            replyLocked(main, sub, {});
            break;
        case kGetElectronicStatus:
            replyLocked(main, sub, {static_cast<uint8_t>(std::max(electronicStatus, 0))});
            break;
        case kSetElectronicMode:
            electronicMode = d0;
            replyLocked(main, sub, {});
            break;
        case kGetElectronicMode:
            replyLocked(main, sub, {static_cast<uint8_t>(std::max(electronicMode, 0))});
            break;
        case kResetFactory:
            ++factoryResets;
            replyLocked(main, sub, {});
            break;
        case kGetCurrentTemperature:
            replyLocked(main, sub, {currentTemperature});
            break;
        case kGetMaxTemperature:
            replyLocked(main, sub, {maxTemperature});
            break;
        case kGetFunclist:
            replyLocked(main, sub, funclist);
            break;
        case kGetSupportBlackScreen:
            replyLocked(main, sub, {supportBlackScreen});
            break;
        case kSetAutoBlackScreen:
            autoBlackScreen = d0;
            replyLocked(main, sub, {});
            break;
        case kGetAutoBlackScreen:
            replyLocked(main, sub, {static_cast<uint8_t>(std::max(autoBlackScreen, 0))});
            break;
        case kModelAnswer:
            modelAnswer = std::string(reinterpret_cast<const char *>(&f.raw[7]), len);
            break;
        case kDoaStatusAnswer:
            doaStatusAnswer = d0;
            break;
        default: // DOA, acknowledgements of camera frames, unknown codes: recorded only
            break;
        }
    }

    // Reassembles frames across chunks: hunt for the head, then take 64 bytes.
    void receive(const uint8_t *data, size_t size)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (unplugged)
            return; // the bytes go nowhere (the line is still drained)
        rxBuffer.insert(rxBuffer.end(), data, data + size);
        for (;;) {
            auto start = std::search(rxBuffer.begin(), rxBuffer.end(), std::begin(kPtzHead), std::end(kPtzHead));
            if (start == rxBuffer.end()) {
                // Keep a possible head prefix at the end.
                const size_t keep = std::min<size_t>(rxBuffer.size(), 2);
                rxBuffer.erase(rxBuffer.begin(), rxBuffer.end() - static_cast<long>(keep));
                return;
            }
            rxBuffer.erase(rxBuffer.begin(), start);
            if (rxBuffer.size() < kFrameSize)
                return;
            Frame f;
            std::copy(rxBuffer.begin(), rxBuffer.begin() + kFrameSize, f.raw.begin());
            f.checksumOk = checksum(f.raw.data(), kFrameSize - 1) == f.raw[63];
            f.when = Clock::now();
            rxBuffer.erase(rxBuffer.begin(), rxBuffer.begin() + kFrameSize);
            handleFrameLocked(f);
        }
    }

    void runWriter()
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!stopping) {
            if (outQueue.empty()) {
                wake.wait(lock);
                continue;
            }
            auto first = outQueue.begin();
            // A copy: the queue may drop the frame while the wait unlocks.
            const Clock::time_point due = first->first;
            if (Clock::now() < due) {
                wake.wait_until(lock, due);
                continue;
            }
            std::vector<uint8_t> bytes = std::move(first->second);
            outQueue.erase(first);
            writing = true;
            lock.unlock();
            line.write(bytes.data(), bytes.size());
            lock.lock();
            writing = false;
            wake.notify_all();
        }
    }
};

PtzCameraModel::PtzCameraModel(Board &board) : impl_(std::make_unique<Impl>(board))
{
    impl_->writer = std::thread([impl = impl_.get()] {
        pthread_setname_np(pthread_self(), "avm-ptz-writer");
        impl->runWriter();
    });
    impl_->line.start([impl = impl_.get()](const uint8_t *data, size_t size) { impl->receive(data, size); });
}

PtzCameraModel::~PtzCameraModel()
{
    impl_->line.stop();
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->stopping = true;
    }
    impl_->wake.notify_all();
    if (impl_->writer.joinable())
        impl_->writer.join();
}

uint8_t PtzCameraModel::checksum(const uint8_t *bytes, size_t count) { return ptzChecksum(bytes, count); }

PtzCameraModel::RawFrame PtzCameraModel::makeFrame(uint8_t main, uint8_t sub, const std::vector<uint8_t> &payload)
{
    return makePtzFrame(main, sub, payload);
}

std::vector<PtzCameraModel::Frame> PtzCameraModel::frames() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->frames;
}

size_t PtzCameraModel::frameCount() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->frames.size();
}

size_t PtzCameraModel::countFrames(uint8_t main, uint8_t sub) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return static_cast<size_t>(std::count_if(impl_->frames.begin(), impl_->frames.end(),
                                             [&](const Frame &f) { return f.main() == main && f.sub() == sub; }));
}

void PtzCameraModel::clearFrames()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->frames.clear();
}

bool PtzCameraModel::waitForFrames(uint8_t main, uint8_t sub, size_t n, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return countFrames(main, sub) >= n; }, timeout);
}

std::optional<PtzCameraModel::Frame> PtzCameraModel::lastFrame(uint8_t main, uint8_t sub) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    for (auto it = impl_->frames.rbegin(); it != impl_->frames.rend(); ++it) {
        if (it->main() == main && it->sub() == sub)
            return *it;
    }
    return std::nullopt;
}

void PtzCameraModel::setUnplugged(bool unplugged)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->unplugged = unplugged;
    if (unplugged) {
        // What was on its way out (a delayed reply, the second half of a
        // split frame) never arrives; a half-received frame is gone.
        impl_->outQueue.clear();
        impl_->rxBuffer.clear();
    }
}

bool PtzCameraModel::waitUntilSent(std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(impl_->mutex);
    return impl_->wake.wait_for(lock, timeout, [&] { return impl_->outQueue.empty() && !impl_->writing; });
}

void PtzCameraModel::holdReplies()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->holding = true;
}

void PtzCameraModel::releaseHeldReplies()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->holding = false;
    const auto now = Clock::now();
    for (auto &frame : impl_->held)
        impl_->outQueue.emplace(now, std::move(frame)); // equal keys keep their order
    impl_->held.clear();
    impl_->wake.notify_all();
}

#define PTZ_MODEL_SETTER(name, type, field)                                                                 \
    void PtzCameraModel::name(type value)                                                                  \
    {                                                                                                      \
        std::lock_guard<std::mutex> lock(impl_->mutex);                                                    \
        impl_->field = value;                                                                              \
    }

PTZ_MODEL_SETTER(setCurrentTemperature, uint8_t, currentTemperature)
PTZ_MODEL_SETTER(setMaxTemperature, uint8_t, maxTemperature)
PTZ_MODEL_SETTER(setFunclist, const std::vector<uint8_t> &, funclist)
PTZ_MODEL_SETTER(setAutotestBytes, const std::vector<uint8_t> &, autotest)
PTZ_MODEL_SETTER(setSupportBlackScreen, uint8_t, supportBlackScreen)
PTZ_MODEL_SETTER(setAutoBlackScreen, uint8_t, autoBlackScreen)
PTZ_MODEL_SETTER(setElectronicPtzStatus, uint8_t, electronicStatus)
PTZ_MODEL_SETTER(setElectronicPtzMode, uint8_t, electronicMode)
PTZ_MODEL_SETTER(setAngleListenModel, uint8_t, angleListenModel)
PTZ_MODEL_SETTER(setSilent, bool, silent)
PTZ_MODEL_SETTER(setBadChecksum, bool, badChecksum)
PTZ_MODEL_SETTER(setLength57, bool, length57)
PTZ_MODEL_SETTER(setSplitFrames, bool, split)
PTZ_MODEL_SETTER(setReplyDelay, std::chrono::milliseconds, replyDelay)
#undef PTZ_MODEL_SETTER

void PtzCameraModel::setIspEnv(uint8_t first, uint32_t second, uint32_t third)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->ispFirst = first;
    impl_->ispSecond = second;
    impl_->ispThird = third;
}

void PtzCameraModel::setReplyPayload(uint8_t main, uint8_t sub, const std::vector<uint8_t> &payload)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->replyOverride[code(main, sub)] = payload;
}

#define PTZ_MODEL_GETTER(name, field)                                                                      \
    int PtzCameraModel::name() const                                                                       \
    {                                                                                                      \
        std::lock_guard<std::mutex> lock(impl_->mutex);                                                    \
        return impl_->field;                                                                               \
    }

PTZ_MODEL_GETTER(usbChannel, usbChannel)
PTZ_MODEL_GETTER(autotestMode, autotestMode)
PTZ_MODEL_GETTER(smartListenReport, smartListenReport)
PTZ_MODEL_GETTER(autoBlackScreen, autoBlackScreen)
PTZ_MODEL_GETTER(electronicPtzStatus, electronicStatus)
PTZ_MODEL_GETTER(electronicPtzMode, electronicMode)
PTZ_MODEL_GETTER(factoryResets, factoryResets)
PTZ_MODEL_GETTER(doaStatusAnswer, doaStatusAnswer)
#undef PTZ_MODEL_GETTER

std::optional<std::string> PtzCameraModel::modelAnswer() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->modelAnswer;
}

void PtzCameraModel::sendFrame(const RawFrame &frame)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->queueFrameLocked(frame, std::chrono::milliseconds(0));
}

void PtzCameraModel::sendBytes(const std::vector<uint8_t> &bytes)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->outQueue.emplace(Clock::now(), bytes);
    impl_->wake.notify_all();
}

void PtzCameraModel::raiseOpen()
{
    sendFrame(makeFrame(0x20, 0x00, {}));
}

void PtzCameraModel::raiseClose()
{
    sendFrame(makeFrame(0x20, 0x02, {}));
}

void PtzCameraModel::raiseAngleReport(uint8_t start, uint8_t end)
{
    sendFrame(makeFrame(0x31, 0x1E, {0, start, end}));
}

void PtzCameraModel::raiseDoaStatusSet(uint8_t status, uint8_t length)
{
    RawFrame f = makeFrame(0x21, 0x12, {status});
    f[5] = length;
    sendFrame(f);
}

void PtzCameraModel::askProductModel()
{
    sendFrame(makeFrame(0x21, 0x04, {}));
}

void PtzCameraModel::askDoaStatus()
{
    sendFrame(makeFrame(0x21, 0x14, {}));
}

void PtzCameraModel::setLineRate(unsigned baud)
{
    impl_->line.setLineRate(baud);
}

SerialLine &PtzCameraModel::line()
{
    return impl_->line;
}

} // namespace sim
