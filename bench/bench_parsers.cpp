// Speed of the module's pure functions: volume conversions, the PTZ
// checksum and framing, the Fig DSP's CRC-8 framing, DSP reply dispatch,
// hex encoding and decoding of upgrade chunks, MD5 of files. The work done
// per chunk on the receive threads and per chunk of a configuration
// upgrade. Figures only; nothing here passes or fails.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include "avmanager_hal.h"
#include "camera/ptz_frame.h"
#include "camera/ptz_link.h"
#include "dsp/dsp_audio.h"
#include "dsp/dsp_link.h"
#include "dsp/file_transfer.h"
#include "fig/dsp_fig.h"
#include "sim/fig_wire.h"

namespace {

void BM_ConvertDbToVol(benchmark::State &state)
{
    float db = -65.0f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(convertDbToVol(AUDIO_CHANNEL_MAIN, db));
        db = db >= 0.0f ? -65.0f : db + 0.37f;
    }
}
BENCHMARK(BM_ConvertDbToVol);

void BM_ConvertVolToDb(benchmark::State &state)
{
    unsigned vol = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(convertVolToDb(AUDIO_CHANNEL_MAIN, vol));
        vol = vol >= 100 ? 0 : vol + 1;
    }
}
BENCHMARK(BM_ConvertVolToDb);

// One whole Fig DSP frame (a 49-byte DOA report) through the frame parser,
// its CRC-8 check included.
void BM_FigFrameCrc8(benchmark::State &state)
{
    const sim::FigBytes frame = sim::figFrame(sim::kFigTypeDoa, sim::FigBytes(sim::kFigDoaPayloadSize, 0x5A));
    DspFigRxBuffer rx{};
    for (auto _ : state) {
        std::memset(&rx, 0, sizeof rx);
        std::memcpy(rx.raw, frame.data(), frame.size());
        rx.count = static_cast<uint16_t>(frame.size());
        benchmark::DoNotOptimize(uart_packet_process(&rx));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(frame.size()));
}
BENCHMARK(BM_FigFrameCrc8);

void BM_PtzChecksum(benchmark::State &state)
{
    std::vector<uint8_t> frame(64, 0x5A);
    for (auto _ : state)
        benchmark::DoNotOptimize(KSProtocalCalcCheckSum(frame.data(), 63));
}
BENCHMARK(BM_PtzChecksum);

// Framing of a 64-byte read holding no frame head: the common idle case.
void BM_PtzFramingNoise(benchmark::State &state)
{
    std::vector<uint8_t> chunk(64, 0x11);
    for (auto _ : state)
        ptz_rx_protocol_handle(chunk.data(), static_cast<int>(chunk.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 64);
}
BENCHMARK(BM_PtzFramingNoise);

// Dispatch of a reply chunk that matches no status prefix (it still goes
// through the file-answer check).
void BM_DspDispatchUnknownReply(benchmark::State &state)
{
    DspRequest chunk{};
    std::snprintf(chunk.text, sizeof chunk.text, "XYZ=%s", std::string(100, 'q').c_str());
    chunk.length = static_cast<uint32_t>(std::strlen(chunk.text));
    for (auto _ : state)
        benchmark::DoNotOptimize(dsp_rx_dispatch(&chunk));
}
BENCHMARK(BM_DspDispatchUnknownReply);

// Hex encoding of one upgrade chunk (240 bytes -> 480 characters).
void BM_Data2HexChunk(benchmark::State &state)
{
    std::vector<uint8_t> data(240);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 7);
    char hex[481];
    for (auto _ : state)
        benchmark::DoNotOptimize(data2hex(data.data(), 240, hex, sizeof hex - 1));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 240);
}
BENCHMARK(BM_Data2HexChunk);

// Hex decoding of one chunk as the DSP side of a transfer reads it back.
void BM_Hex2DataChunk(benchmark::State &state)
{
    std::vector<uint8_t> data(240);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 7);
    char hex[481];
    data2hex(data.data(), 240, hex, sizeof hex - 1);
    std::vector<uint8_t> back(240);
    for (auto _ : state)
        benchmark::DoNotOptimize(hex2data(hex, 480, back.data(), back.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 240);
}
BENCHMARK(BM_Hex2DataChunk);

// Length and MD5 of a file of the given size, as the upgrade check does.
void BM_FileMd5(benchmark::State &state)
{
    const size_t size = static_cast<size_t>(state.range(0));
    char path[] = "/tmp/avm-bench-md5-XXXXXX";
    int fd = mkstemp(path);
    std::vector<char> data(size, 'a');
    if (fd < 0 || write(fd, data.data(), size) != static_cast<ssize_t>(size)) {
        state.SkipWithError("cannot write the sample file");
        return;
    }
    close(fd);
    FileXferInfo info{};
    for (auto _ : state)
        benchmark::DoNotOptimize(file_xfer_info(path, &info));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
    unlink(path);
}
BENCHMARK(BM_FileMd5)->Arg(2900)->Arg(1 << 20);

} // namespace

BENCHMARK_MAIN();
