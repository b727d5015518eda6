// The DSP receive dispatch over arbitrary chunks: whatever one read of the
// port returns (up to 512 bytes, any length field) goes through the prefix
// table to a reply handler and always on to the file-transfer handler.
// Nothing may read or write outside a buffer, whatever the bytes.
//
// The first input byte steers half of the inputs onto one of the table's
// prefixes so every handler sees hostile text, not only the fall-through.
// The version row is not steered to: it starts the parameter-restore
// thread, which the link's own tests cover. An input below 0x80 is the
// chunk itself.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/stat.h>

#include "dsp/dsp_link.h"
#include "fuzz_starters.h"
#include "process_env.h"
#include "test_helpers.h"

namespace {

// Handlers store properties and may post requests: both land in the
// process's private root (fuzz_env.cpp), and descriptor 0 (the request pipe
// before the link is up) is made a harmless sink before the first input.
bool prepareRoot()
{
    mkdir((avmtest::processRoot() + "/tmp").c_str(), 0755);
    return avmtest::sinkDescriptorZero();
}

constexpr int kVersionRow = 2;

} // namespace

// Chunks as the board's DSP model sends them: replies to queries, file
// answers, reports; and two replies run together in one chunk.
std::vector<std::string> avmfuzz::starters()
{
    return {"MV=-11.10",
            "MT=0",
            "PER_STAT=1, 1",
            "USER_EQ[7]=2,8000,-3.5000,1.4100",
            "MIC_DOA_REP=1",
            "MIC_DOA=135",
            "AOM=HDMI",
            "BAL_RIGHT=0.75",
            "FINF=/data/misc/AllConfigs.bin,2900,0123456789abcdef0123456789abcdef",
            "FINF=NULL",
            "FWSTR=/data/misc/AllConfigs.bin,OK",
            "FWDAT=240,240,OK",
            "FWEND=/data/misc/AllConfigs.bin,OK",
            std::string("MV=-20.00\0MT=1", 14)};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = prepareRoot();
    (void)ready;
    DspRequest chunk;
    memset(&chunk, 0, sizeof(chunk));
    size_t used = 0;
    if (size > 0 && (data[0] & 0x80) != 0) {
        int row = 1 + (data[0] & 0x7F) % dsp_rx_row_count();
        if (row != kVersionRow) {
            const char *prefix = dsp_rx_prefix(row);
            used = strlen(prefix);
            memcpy(chunk.text, prefix, used);
        }
        ++data;
        --size;
    }
    size_t room = sizeof(chunk.text) - used;
    size_t take = size < room ? size : room;
    if (take > 0)
        memcpy(chunk.text + used, data, take);
    // The length field is taken as it comes, even when it lies.
    chunk.length = static_cast<uint32_t>(used + take);
    if (size > 2 && data[0] == 0xFF)
        chunk.length = 0xFFFFFFFFu;
    dsp_rx_dispatch(&chunk);
    return 0;
}
