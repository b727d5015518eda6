// Every DSP reply handler over arbitrary text: the receive thread hands
// them whatever the port delivered (at most 511 bytes, terminated). The
// handlers must never read or write outside a buffer, whatever the bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "dsp/dsp_replies.h"

namespace {

const char *const kPrefixes[] = {"VS=", "MV=", "MT=", "PER_STAT=", "BAL_LEFT=", "BAL_RIGHT=",
                                 "USER_EQ", "USER_EQ[", "AOM=", "VER_FULL=", "MIC_DOA_REP=",
                                 "MIC_DOA=", "LS=", ""};

void runAll(const char *text)
{
    dsp_spdif_dbVol_update(text);
    dsp_main_dbVol_update(text);
    dsp_mainMute_status_update(text);
    dsp_doa_status_update(text);
    dsp_hotPlug_status_update(text);
    dsp_balance_status_update(3, text);
    dsp_led_status_update(text);
    dsp_parse_EQInfo(text);
    dsp_parse_doa(text);
    dsp_parse_audio_out_mode(text);
    dsp_fullVersion_update(text);
    char out[25];
    memset(out, 'x', sizeof out);
    splitDataFormat(text, out, sizeof out, ",");
    if (out[sizeof out - 1] != '\0')
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The receive thread's chunk: at most 511 bytes, always terminated.
    std::string chunk(reinterpret_cast<const char *>(data), size < 511 ? size : 511);
    const size_t choice = size > 0 ? data[0] % (sizeof kPrefixes / sizeof kPrefixes[0]) : 0;
    std::string text = std::string(kPrefixes[choice]) + chunk.c_str();
    if (text.size() > 511)
        text.resize(511);
    runAll(text.c_str());
    // The same bytes with the hot-plug prefix and commas, and as an
    // equaliser line, reach the token copy and the scanner in depth.
    std::string commas = "PER_STAT=" + std::string(chunk.c_str());
    for (size_t i = 9; i < commas.size(); i += 3)
        commas[i] = ',';
    dsp_hotPlug_status_update(commas.c_str());
    for (unsigned band = 0; band < kUserEqBands; ++band)
        (void)userEqInfo[band].gain.load();
    return 0;
}
