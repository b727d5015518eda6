// Arbitrary bytes from the Fig DSP's serial line through the receive steps
// (a byte at a time, the line going quiet now and then), arbitrary receive
// records through the parser, and whole frames with a valid CRC of every
// type through the handlers: whatever arrives, the link never crashes. The
// port is closed here, so the module's answers fail quietly; the private
// property store has no "service.bootvideo.exit", so a microphone report
// never reaches the amplifiers.
//
// Each input starts from the link as at start-up. The debug log, whose
// lines read more of each frame (a DOA report's time stamp), is on for
// inputs whose first byte has its top bit set.
//
// Input: one byte that picks how often the line goes quiet (low six bits)
// and the debug log (top bit), then the line's bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <cutils/properties.h>
#include <vector>

#include "fig/dsp_fig.h"
#include "fuzz_starters.h"
#include "sim/fig_wire.h"

namespace {

constexpr uint8_t kTypes[] = {DSP_FIG_TYPE_COMMAND, DSP_FIG_TYPE_DOA, DSP_FIG_TYPE_REPLY, DSP_FIG_TYPE_A0,
                              DSP_FIG_TYPE_AE};

// Payload starts that reach each handler's branches.
const std::vector<std::string> kHeads = {
    "1MIC_ON990", "2MIC_OFF99", "8\x01", "7\x01", "3", "",
};

std::string asStarter(uint8_t quiet, const std::vector<sim::FigBytes> &frames)
{
    std::string out(1, static_cast<char>(quiet));
    for (const auto &f : frames)
        out.append(f.begin(), f.end());
    return out;
}

} // namespace

// What the Fig DSP sends, as the board's Fig model builds it: microphone
// notifications, answers, a DOA report (with the debug log off and on), a frame with a broken CRC before a
// good one, and noise around a frame.
std::vector<std::string> avmfuzz::starters()
{
    using sim::figFrame;
    const uint8_t calm = 63; // the line goes quiet every 64 bytes
    sim::FigBytes badCrc = figFrame(DSP_FIG_TYPE_COMMAND, "1MIC_ON990");
    badCrc[badCrc.size() - 2] ^= 0x5A;
    return {asStarter(calm, {figFrame(DSP_FIG_TYPE_COMMAND, "1MIC_ON990")}),
            asStarter(calm, {figFrame(DSP_FIG_TYPE_COMMAND, "2MIC_OFF99")}),
            asStarter(calm, {figFrame(DSP_FIG_TYPE_REPLY, sim::FigBytes{'8', 1}),
                          figFrame(DSP_FIG_TYPE_REPLY, sim::FigBytes{'7', 1})}),
            asStarter(calm, {figFrame(DSP_FIG_TYPE_REPLY, "3FIG-1.2.7")}),
            asStarter(calm, {figFrame(DSP_FIG_TYPE_DOA, sim::figDoaPayload(42.5f, 123456789, {1, 2, 3, 4, 5}))}),
            asStarter(calm | 0x80, {figFrame(DSP_FIG_TYPE_DOA, sim::figDoaPayload(-17.0f, 987654321, {5, 4, 3, 2, 1}))}),
            asStarter(calm, {badCrc, figFrame(DSP_FIG_TYPE_COMMAND, "1MIC_ON990")}),
            asStarter(2, {sim::FigBytes{0x00, 0x7F, 0x0A}, figFrame(DSP_FIG_TYPE_COMMAND, "2MIC_OFF99"),
                       sim::FigBytes{0x41, 0x42}})};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool debugLogStored = property_set("persist.sys.dsp_fig_enlog", "1") == 0;
    if (!debugLogStored)
        abort();
    dspFig_resetForTest();
    if (size > 0 && (data[0] & 0x80) != 0)
        setDspFigDebugLog();

    DspFigRxBuffer rx;
    memset(&rx, 0, sizeof rx);
    if (size == 0) {
        dspFigHal_rx_work_off(&rx);
        return 0;
    }

    // The stream as the receive thread sees it; the first byte picks how
    // often the line goes quiet.
    const size_t quietEvery = 1 + data[0] % 64;
    for (size_t i = 1; i < size; ++i) {
        dspFigHal_rx_feed_byte(&rx, data[i]);
        if (i % quietEvery == 0)
            dspFigHal_rx_work_off(&rx);
    }
    dspFigHal_rx_work_off(&rx);

    // The input as a receive record: any count, position and state.
    DspFigRxBuffer record;
    memset(&record, 0, sizeof record);
    memcpy(&record, data, size < sizeof record ? size : sizeof record);
    while (uart_packet_process(&record) == 1)
        process_packet(&record.packet);
    dspFigHal_rx_work_off(&record);

    // A whole frame with a valid CRC, of a known type, whose payload begins
    // with one of the texts the handlers look for.
    if (size >= 2) {
        const uint8_t type = kTypes[data[1] % sizeof kTypes];
        const std::string &head = kHeads[(data[1] >> 3) % kHeads.size()];
        sim::FigBytes payload(head.begin(), head.end());
        for (size_t i = 2; i < size && payload.size() < DSP_FIG_MAX_PAYLOAD; ++i)
            payload.push_back(data[i]);
        memset(&rx, 0, sizeof rx);
        for (uint8_t b : sim::figFrame(type, payload))
            dspFigHal_rx_feed_byte(&rx, b);
    }
    return 0;
}
