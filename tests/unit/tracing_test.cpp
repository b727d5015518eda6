// Tracing without the board: the module's ATRACE_* calls go through the
// platform's cutils/trace.h entry points to a sink registered here (on the
// device, to the kernel's trace buffer), under the HAL tag, with names
// made by the naming rule; without a sink the tag is off and nothing is
// traced. Also built for 32-bit ARM and run under qemu-user there, so the
// calls are proven on the device's ABI as well.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <avm_trace_sink.h>

#include "camera/ptz_frame.h"
#include "camera/ptz_link.h"
#include "common/avm_trace.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_reply_wait.h"
#include "fig/dsp_fig.h"
#include "dsp_pipe_port.h"
#include "log_capture.h"
#include "module_state.h"

namespace {

using namespace std::chrono_literals;

enum class Kind { Begin, End, AsyncBegin, AsyncEnd, Counter };

struct Call {
    Kind kind;
    std::string name;
    int64_t value;
};

// A sink that keeps every call it gets, from any thread.
class Recorder {
public:
    Recorder()
    {
        const AvmTraceSink sink{this,
                                [](void *c, const char *name) { self(c)->add(Kind::Begin, name, 0); },
                                [](void *c) { self(c)->add(Kind::End, "", 0); },
                                [](void *c, const char *name, int32_t cookie) {
                                    self(c)->add(Kind::AsyncBegin, name, cookie);
                                },
                                [](void *c, const char *name, int32_t cookie) {
                                    self(c)->add(Kind::AsyncEnd, name, cookie);
                                },
                                [](void *c, const char *name, int64_t value) {
                                    self(c)->add(Kind::Counter, name, value);
                                }};
        handle_ = avm_trace_add_sink(&sink);
    }
    ~Recorder() { stop(); }
    void stop()
    {
        if (handle_ > 0)
            avm_trace_remove_sink(handle_);
        handle_ = 0;
    }
    int handle() const { return handle_; }
    std::vector<Call> calls() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    // Names of the spans begun, in order.
    std::vector<std::string> begun() const
    {
        std::vector<std::string> out;
        for (const auto &c : calls())
            if (c.kind == Kind::Begin)
                out.push_back(c.name);
        return out;
    }

private:
    static Recorder *self(void *c) { return static_cast<Recorder *>(c); }
    void add(Kind kind, const char *name, int64_t value)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back({kind, name, value});
    }
    int handle_ = 0;
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
};

// Every begin has its end, in nesting order: the begins and ends as a
// bracket sequence.
std::string brackets(const std::vector<Call> &calls)
{
    std::string out;
    for (const auto &c : calls)
        if (c.kind == Kind::Begin)
            out += '(';
        else if (c.kind == Kind::End)
            out += ')';
    return out;
}

// A name as the naming rule allows it into the tracer: printable ASCII,
// no "|", escapes only as \xNN.
bool cleanName(const std::string &name)
{
    for (size_t i = 0; i < name.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(name[i]);
        if (c < 0x20 || c >= 0x7f || c == '|')
            return false;
        const auto hex = [&](size_t at) { return isxdigit(static_cast<unsigned char>(name[at])) != 0; };
        if (c == '\\' && (i + 3 >= name.size() || name[i + 1] != 'x' || !hex(i + 2) || !hex(i + 3)))
            return false;
    }
    return true;
}

class Tracing : public avmtest::FreshModule {
protected:
    void usePipeAsPort() { ASSERT_TRUE(port.attach()); }
    std::string portBytes() { return port.bytes(); }

    avmtest::FreshRoot root;
    avmtest::LogCapture log;
    avmtest::DspPipePort port;
};

TEST_F(Tracing, WithoutASinkTheHalTagIsOffAndNoCallReachesASink)
{
    EXPECT_EQ(atrace_get_enabled_tags(), 0u);
    EXPECT_FALSE(ATRACE_ENABLED());
    Recorder recorder;
    ASSERT_GT(recorder.handle(), 0);
    EXPECT_NE(atrace_get_enabled_tags() & ATRACE_TAG_HAL, 0u) << "a sink turns the \"hal\" category on";
    EXPECT_TRUE(ATRACE_ENABLED()) << "the module traces under the HAL tag";
    recorder.stop();
    EXPECT_EQ(atrace_get_enabled_tags(), 0u);

    ASSERT_EQ(dsp_mkfifo_init(), 0);
    ASSERT_EQ(dsp_post(DSP_CMD_MAIN_VOLUME, "MV=-10.00"), 524);
    { AvmTraceSpan span(kTraceDspRestore); }
    EXPECT_TRUE(recorder.calls().empty());
    DspRequest request;
    ASSERT_EQ(dsp_mkfifo_read(&request), 524);
    EXPECT_EQ(request.length, 0u) << "an untraced post leaves the length word as it was";
}

TEST_F(Tracing, APostedCommandIsAnAsyncSpanUntilTheTransmitSideWritesIt)
{
    Recorder recorder;
    usePipeAsPort();
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    ASSERT_EQ(dsp_post(DSP_CMD_MAIN_VOLUME, "MV=-10.00"), 524);
    ASSERT_EQ(dsp_post(DSP_CMD_MAIN_MUTE, "MT=1"), 524);
    DspRequest first, second;
    ASSERT_EQ(dsp_mkfifo_read(&first), 524);
    ASSERT_EQ(dsp_mkfifo_read(&second), 524);
    // The post's number travels in the length word.
    ASSERT_NE(first.length, 0u);
    ASSERT_NE(second.length, first.length);
    {
        const auto calls = recorder.calls();
        ASSERT_EQ(calls.size(), 4u);
        EXPECT_EQ(calls[0].kind, Kind::AsyncBegin);
        EXPECT_EQ(calls[0].name, "dsp command");
        EXPECT_EQ(calls[0].value, static_cast<int64_t>(first.length));
        EXPECT_EQ(calls[1].kind, Kind::Counter);
        EXPECT_EQ(calls[1].name, "dsp queued commands");
        EXPECT_EQ(calls[1].value, 1);
        EXPECT_EQ(calls[2].value, static_cast<int64_t>(second.length));
        EXPECT_EQ(calls[3].name, "dsp queued commands");
        EXPECT_EQ(calls[3].value, 2);
    }
    // The transmit side: each command written ends its own span.
    EXPECT_EQ(dsp_tx_protocol_handle(second), 5);
    EXPECT_EQ(dsp_tx_protocol_handle(first), 10);
    EXPECT_EQ(portBytes(), std::string("MT=1\0MV=-10.00\0", 15));
    const auto calls = recorder.calls();
    ASSERT_EQ(calls.size(), 6u);
    EXPECT_EQ(calls[4].kind, Kind::AsyncEnd);
    EXPECT_EQ(calls[4].name, "dsp command");
    EXPECT_EQ(calls[4].value, static_cast<int64_t>(second.length));
    EXPECT_EQ(calls[5].kind, Kind::AsyncEnd);
    EXPECT_EQ(calls[5].value, static_cast<int64_t>(first.length));

    // A code the transmit side drops ends its span too, marked so.
    DspRequest unknown = first;
    unknown.cmd = 99;
    EXPECT_EQ(dsp_tx_protocol_handle(unknown), -1);
    EXPECT_EQ(recorder.begun().back(), "dsp dropped");
    EXPECT_EQ(recorder.calls().back().kind, Kind::AsyncEnd);
    EXPECT_EQ(recorder.calls().back().value, static_cast<int64_t>(first.length));
}

TEST_F(Tracing, AQueryWaitIsOneSpanMarkedAnsweredOrTimedOut)
{
    Recorder recorder;
    ASSERT_EQ(dsp_mkfifo_init(), 0);
    std::atomic<uint8_t> flag{0};
    const DspReplyWaitTiming quick{3, 5, true};
    EXPECT_FALSE(dspReplyWait(flag, DSP_CMD_FREE_TEXT, "AOM=?", quick));
    EXPECT_EQ(recorder.begun(), (std::vector<std::string>{"dsp reply wait query=AOM=?", "dsp timed out"}));
    EXPECT_EQ(brackets(recorder.calls()), "(())");
    DspRequest request;
    ASSERT_EQ(dsp_mkfifo_read(&request), 524);

    // Answered: the flag goes up once the query is in the pipe (after the
    // wait cleared it).
    std::thread dsp([&flag] {
        DspRequest posted;
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        while (dsp_mkfifo_read(&posted) < 1 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        flag.store(1, std::memory_order_release);
    });
    const DspReplyWaitTiming patient{2000, 10, true};
    EXPECT_TRUE(dspReplyWait(flag, DSP_CMD_FREE_TEXT, "MT=?", patient));
    dsp.join();
    const auto begun = recorder.begun();
    ASSERT_EQ(begun.size(), 4u);
    EXPECT_EQ(begun[2], "dsp reply wait query=MT=?");
    EXPECT_EQ(begun[3], "dsp answered");
    EXPECT_EQ(brackets(recorder.calls()), "(())(())");
}

TEST_F(Tracing, NamesNeverCarryPeripheralBytesAsTheyAre)
{
    char name[AVM_TRACE_NAME_MAX];
    avmTraceNamef(name, sizeof name, kTraceDspReplyWait, "query=%s", "A\x01|\n\\\xff");
    EXPECT_STREQ(name, "dsp reply wait query=A\\x01\\x7c\\x0a\\x5c\\xff");
    // A long name is cut, never in the middle of an escape.
    std::string hostile(300, '\x7f');
    const size_t n = avmTraceNamef(name, sizeof name, kTraceDspReceive, "handler=%s", hostile.c_str());
    EXPECT_LT(n, sizeof name);
    EXPECT_EQ(strlen(name), n);
    EXPECT_TRUE(cleanName(name)) << name;

    Recorder recorder;
    // A DSP reply of any bytes: its span names the handler, not the bytes.
    DspRequest chunk;
    memset(&chunk, 0, sizeof chunk);
    const char reply[] = "\x1b[31m|B|1|evil\n";
    memcpy(chunk.text, reply, sizeof reply - 1);
    chunk.length = sizeof reply - 1;
    dsp_rx_dispatch(&chunk);
    // A Fig DSP command frame whose identifier is "|": acknowledged, and
    // the acknowledgement's span gives the identifier as a number.
    DspFigPacket packet{};
    packet.type = DSP_FIG_TYPE_COMMAND;
    packet.length = 1;
    packet.data[0] = '|';
    process_packet(&packet);
    // A PTZ frame of the camera with a command pair no row has, "|" and a
    // line break.
    PtzPacket frame{};
    initPktHead(&frame.head0);
    frame.main = '|';
    frame.sub = '\n';
    frame.checksum = KSProtocalCalcCheckSum(&frame.head0, PTZ_PKT_SIZE - 1);
    ptz_rx_protocol_handle(&frame.head0, PTZ_PKT_SIZE);

    const auto begun = recorder.begun();
    EXPECT_NE(std::find(begun.begin(), begun.end(), "dsp receive handler=none"), begun.end());
    EXPECT_NE(std::find(begun.begin(), begun.end(), "fig receive type=32"), begun.end());
    EXPECT_NE(std::find(begun.begin(), begun.end(), "fig ack id=124"), begun.end());
    EXPECT_NE(std::find(begun.begin(), begun.end(), "ptz receive cmd=-1"), begun.end());
    for (const auto &c : recorder.calls())
        EXPECT_TRUE(cleanName(c.name)) << c.name;
}

TEST_F(Tracing, RemovingASinkWaitsForItsCallsInFlight)
{
    std::atomic<bool> inside{false}, release{false}, returned{false};
    struct Gate {
        std::atomic<bool> *inside;
        std::atomic<bool> *release;
    } gate{&inside, &release};
    const AvmTraceSink sink{&gate,
                            [](void *c, const char *) {
                                auto *g = static_cast<Gate *>(c);
                                g->inside->store(true);
                                while (!g->release->load())
                                    std::this_thread::sleep_for(1ms);
                            },
                            nullptr, nullptr, nullptr, nullptr};
    const int handle = avm_trace_add_sink(&sink);
    ASSERT_GT(handle, 0);
    std::thread tracer([] {
        ATRACE_BEGIN(kTraceDspRestore);
        ATRACE_END();
    });
    while (!inside.load())
        std::this_thread::sleep_for(1ms);
    std::thread remover([&] {
        avm_trace_remove_sink(handle);
        returned.store(true);
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(returned.load()) << "removed while its call still ran";
    release.store(true);
    remover.join();
    tracer.join();
    EXPECT_TRUE(returned.load());
    EXPECT_EQ(atrace_get_enabled_tags(), 0u);
}

TEST_F(Tracing, TheSinkTableRefusesNullAndOverflow)
{
    EXPECT_EQ(avm_trace_add_sink(nullptr), -1);
    const AvmTraceSink sink{nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    std::vector<int> handles;
    for (int i = 0; i < AVM_TRACE_MAX_SINKS; ++i)
        handles.push_back(avm_trace_add_sink(&sink));
    for (int h : handles)
        EXPECT_GT(h, 0);
    EXPECT_EQ(avm_trace_add_sink(&sink), -1);
    // A sink without functions is called safely.
    ATRACE_BEGIN(kTraceDspRestore);
    ATRACE_END();
    ATRACE_INT(kTraceDspQueued, 1);
    for (int h : handles)
        avm_trace_remove_sink(h);
    avm_trace_remove_sink(0);
    avm_trace_remove_sink(AVM_TRACE_MAX_SINKS + 1);
    EXPECT_EQ(atrace_get_enabled_tags(), 0u);
}

} // namespace
