// The DSP receive dispatch over arbitrary chunks: whatever one read of the
// port returns (up to 512 bytes, any length field) goes through the prefix
// table to a reply handler and always on to the file-transfer handler.
// Nothing may read or write outside a buffer, whatever the bytes.
//
// The first input byte steers half of the inputs onto one of the table's
// prefixes so every handler sees hostile text, not only the fall-through.
// The version row is not steered to: it starts the parameter-restore
// thread, which the link's own tests cover.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/stat.h>

#include "dsp/dsp_link.h"
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
