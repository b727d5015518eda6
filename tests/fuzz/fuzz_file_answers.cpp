// Arbitrary DSP answers through the file-answer handler, with a transfer in
// flight (descriptor filled), so every parser path runs: the handler must
// never read or write outside its bounded copy, whatever the bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <android/log.h>

#include "dsp/file_transfer.h"
#include "fuzz_starters.h"

namespace {

void quietLogger(const struct __android_logger_data *, const char *) {}

const char *const kWords[] = {"FWSTR=", "FWDAT=", "FWEND=", "FRDAT=", "FINF=", "FCOPY=", "FDEL=", "FMOV=", ""};

// A starter: the selector of the word at `index`, then the answer after it.
std::string starter(char index, const std::string &rest)
{
    return std::string(1, index) + rest;
}

} // namespace

// The DSP's answers as the board's DSP model words them (the transfer in
// flight is the one the harness sets up: 2900 bytes, chunk at 240).
std::vector<std::string> avmfuzz::starters()
{
    return {starter(0, "/data/misc/AllConfigs.bin,OK"),
            starter(0, "/data/misc/AllConfigs.bin,ERR_MD5"),
            starter(1, "240,240,OK"),
            starter(1, "0,240,ERR_REJECT"),
            starter(2, "/data/misc/AllConfigs.bin,OK"),
            starter(4, "/data/misc/AllConfigs.bin,2900,0123456789abcdef0123456789abcdef"),
            starter(4, "/data/misc/AllConfigs.bin,1234"),
            starter(4, "NULL"),
            starter(8, "FRDAT=0,16,00112233445566778899AABBCCDDEEFF")};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool ready = false;
    if (!ready) {
        __android_log_set_logger(quietLogger);
        ready = true;
    }
    file_xfer_descriptor_fill("/system/etc/dsp_config/AllConfigs.bin", "/data/misc/AllConfigs.bin", 2900,
                              "0123456789abcdef0123456789abcdef");
    file_xfer_descriptor_set_chunk(240, 240);

    DspRequest message;
    memset(&message, 0, sizeof(message));
    size_t used = 0;
    // The first byte picks a command word so the parsers see most inputs;
    // the rest of the input follows it, filling the text to the last byte
    // when long enough (no terminator then).
    if (size > 0) {
        const char *word = kWords[data[0] % (sizeof(kWords) / sizeof(kWords[0]))];
        used = strlen(word);
        memcpy(message.text, word, used);
        ++data;
        --size;
    }
    size_t n = size < sizeof(message.text) - used ? size : sizeof(message.text) - used;
    if (n > 0)
        memcpy(message.text + used, data, n);
    message.length = static_cast<uint32_t>(used + n);
    dsp_rx_file_operations_handle(message);

    // And the hex decoder over the same bytes.
    uint8_t bytes[300];
    hex2data(message.text, static_cast<uint32_t>(used + n), bytes, sizeof(bytes));
    return 0;
}
