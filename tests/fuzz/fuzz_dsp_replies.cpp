// Every DSP reply handler over arbitrary text: the receive thread hands
// them whatever the port delivered (at most 511 bytes, terminated). The
// handlers must never read or write outside a buffer, whatever the bytes.
//
// Input: one byte that picks a reply prefix, then the text after it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "dsp/dsp_replies.h"
#include "fuzz_starters.h"

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

constexpr size_t kPrefixCount = sizeof kPrefixes / sizeof kPrefixes[0];

// A starter: the selector of `prefix`, then the text after it.
std::string starter(const char *prefix, const std::string &rest)
{
    for (size_t i = 0; i < kPrefixCount; ++i)
        if (strcmp(kPrefixes[i], prefix) == 0)
            return std::string(1, static_cast<char>(i)) + rest;
    abort();
}

} // namespace

// The DSP's replies as the board's DSP model words them, and a few the
// parsers must refuse.
std::vector<std::string> avmfuzz::starters()
{
    return {starter("MV=", "-11.10"),         starter("VS=", "-65.00"),
            starter("MT=", "1"),              starter("PER_STAT=", "1, 1"),
            starter("BAL_LEFT=", "0.50"),     starter("USER_EQ[", "3]=1,1000,2.5000,0.7000"),
            starter("AOM=", "SPEAKER"),       starter("VER_FULL=", "AVM-DSP 2.4.1 build 0917"),
            starter("MIC_DOA_REP=", "1"),     starter("MIC_DOA=", "90"),
            starter("", "PER_STAT=1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26")};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const size_t choice = size > 0 ? data[0] % kPrefixCount : kPrefixCount - 1;
    if (size > 0) {
        ++data;
        --size;
    }
    // The receive thread's chunk: at most 511 bytes, always terminated.
    std::string chunk(reinterpret_cast<const char *>(data), size < 511 ? size : 511);
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
