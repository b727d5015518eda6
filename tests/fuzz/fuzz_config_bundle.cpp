// The DSP configuration bundle as the configuration upgrade reads it. The
// input becomes "/system/etc/dsp_config/AllConfigs.bin" under the private
// root; then:
//
//  - the upgrade runs: its check takes the bundle's length and MD5
//    (file_xfer_info) into the transfer descriptor, and its FINF query
//    fails at once, since the DSP port is closed, so no transfer starts;
//  - the DSP's FINF answer naming that very length and MD5 (an up-to-date
//    copy) must not ask for an upgrade, and one with another MD5 must;
//  - the bundle is walked chunk by chunk as the transfer sends it: each
//    240-byte chunk read and hex-encoded by
//    read_local_file_transfer_to_hex_ascii, with the FWDAT checksum over
//    the hex text. (The transfer loop itself cannot run here: every chunk
//    waits up to 2.4 s for the DSP's answer.)
//
// Checks: the length and MD5 are the input's (the reference MD5 comes from
// libmd, which the module has already loaded into the process); every
// chunk's text is upper-case hex of twice the chunk's length and decodes
// with hex2data to the chunk's bytes; the checksum over the text is the one
// the bytes give; a chunk that runs past the end of the bundle is refused.
// Once, before the first input: a missing bundle is neither taken into
// the descriptor nor read.
//
// Input: the bundle, whole.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <md5.h>

#include "dsp/config_upgrade.h"
#include "dsp/file_transfer.h"
#include "fuzz_starters.h"
#include "process_env.h"

namespace {

std::string gBundle; // the bundle's path under the process's private root

[[noreturn]] void fail(const char *what, size_t offset = 0)
{
    fprintf(stderr, "fuzz_config_bundle: %s (offset %zu)\n", what, offset);
    abort();
}

void prepare()
{
    if (!gBundle.empty())
        return;
    const std::string dir = avmtest::processRoot() + "/system/etc/dsp_config";
    std::filesystem::create_directories(dir);
    gBundle = avmtest::processRoot() + ALL_CONFIGS_REFERENCE_PATH;
    // Before the first input there is no bundle: no upgrade, nothing taken
    // into the descriptor, no chunk read.
    fileTransfer_resetForTest();
    char hex[2 * ALL_CONFIGS_CHUNK_SIZE];
    if (upgradeAllConfigs() != 0 || file_xfer_descriptor_get().fileLen != 0 ||
        file_xfer_descriptor_get().md5[0] != '\0' ||
        read_local_file_transfer_to_hex_ascii(gBundle.c_str(), 0, 1, hex, sizeof hex) != -1)
        fail("a missing bundle was read");
    // Nor is a chunk longer than the upgrade's, whatever the file holds.
    if (read_local_file_transfer_to_hex_ascii("/dev/zero", 0, ALL_CONFIGS_CHUNK_SIZE + 1, hex, sizeof hex) != -1)
        fail("a chunk longer than the upgrade's was read");
}

std::string md5Hex(const uint8_t *data, size_t size)
{
    MD5_CTX ctx;
    MD5Init(&ctx);
    MD5Update(&ctx, data, size);
    uint8_t digest[16];
    MD5Final(digest, &ctx);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (uint8_t b : digest) {
        hex += kDigits[b >> 4];
        hex += kDigits[b & 0x0F];
    }
    return hex;
}

// The DSP's FINF answer as the receive thread hands it to the file
// handlers; true when the upgrade check would go on to a transfer.
bool finfAsksForUpgrade(const std::string &answer)
{
    gFileOpsInfoList[FILE_OPS_INF].replied.store(0);
    gFileOpsInfoList[FILE_OPS_INF].accepted.store(0);
    DspRequest message;
    memset(&message, 0, sizeof message);
    snprintf(message.text, sizeof message.text, "%s", answer.c_str());
    dsp_rx_file_operations_handle(message);
    if (gFileOpsInfoList[FILE_OPS_INF].replied.load() == 0)
        fail("the FINF answer was not taken");
    return gFileOpsInfoList[FILE_OPS_INF].accepted.load() != 0;
}

// Value of one upper-case hex digit, -1 for anything else.
int upperHexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Walks the bundle chunk by chunk, as the transfer does, and checks each
// chunk's hex text and checksum against the input's bytes.
void walkChunks(const uint8_t *data, size_t size)
{
    constexpr uint32_t kHexSize = 2 * ALL_CONFIGS_CHUNK_SIZE;
    // Exactly the transfer's text room (less its terminator) on the heap,
    // so a write past it is caught.
    std::unique_ptr<char[]> hex(new char[kHexSize]);
    uint8_t decoded[ALL_CONFIGS_CHUNK_SIZE];
    uint32_t offset = 0;
    uint32_t remaining = static_cast<uint32_t>(size);
    while (remaining > 0) {
        const uint32_t chunk = remaining < ALL_CONFIGS_CHUNK_SIZE ? remaining : ALL_CONFIGS_CHUNK_SIZE;
        const int chars = read_local_file_transfer_to_hex_ascii(gBundle.c_str(), offset, chunk, hex.get(), kHexSize);
        if (chars != static_cast<int>(2 * chunk))
            fail("a chunk's hex text does not have twice its length", offset);
        // The FWDAT checksum: the low byte of the sum of the text's characters.
        unsigned textSum = 0;
        for (int i = 0; i < chars; ++i) {
            if (upperHexDigit(hex[static_cast<size_t>(i)]) < 0)
                fail("a chunk's text holds a character that is no upper-case hex digit", offset);
            textSum += static_cast<unsigned char>(hex[static_cast<size_t>(i)]);
        }
        // The same checksum from the bytes: each byte's two digit characters.
        static constexpr char kDigitChars[] = "0123456789ABCDEF";
        unsigned byteSum = 0;
        for (uint32_t i = 0; i < chunk; ++i)
            byteSum += static_cast<unsigned char>(kDigitChars[data[offset + i] >> 4]) +
                       static_cast<unsigned char>(kDigitChars[data[offset + i] & 0x0F]);
        if ((textSum & 0xFF) != (byteSum & 0xFF))
            fail("the checksum over the hex text is not the bytes' one", offset);
        if (hex2data(hex.get(), static_cast<uint32_t>(chars), decoded, sizeof decoded) != static_cast<int>(chunk))
            fail("the hex text does not decode to a whole chunk", offset);
        if (memcmp(decoded, data + offset, chunk) != 0)
            fail("the hex text does not decode to the chunk's bytes", offset);
        remaining -= chunk;
        offset += chunk;
    }
    // Past the end: a chunk starting at the end, and one reaching one byte
    // beyond it, are both refused.
    if (read_local_file_transfer_to_hex_ascii(gBundle.c_str(), offset, 1, hex.get(), kHexSize) != -1)
        fail("a chunk after the end was read", offset);
    if (size > 0) {
        const uint32_t tail = static_cast<uint32_t>(size < ALL_CONFIGS_CHUNK_SIZE ? size : ALL_CONFIGS_CHUNK_SIZE);
        const uint32_t from = static_cast<uint32_t>(size) - tail + 1;
        if (read_local_file_transfer_to_hex_ascii(gBundle.c_str(), from, tail, hex.get(), kHexSize) != -1)
            fail("a chunk reaching past the end was read", from);
    }
}

// Made-up bundle bytes: a header word, a count and records of a little
// text and numbers, as a packed configuration could look.
std::string madeUpBundle(size_t records)
{
    std::string out = "AVMC";
    out += static_cast<char>(1);
    out += static_cast<char>(records & 0xFF);
    out += std::string(2, '\0');
    for (size_t i = 0; i < records; ++i) {
        char name[24];
        snprintf(name, sizeof name, "EQ_PRESET_%02zu", i);
        out += std::string(name, 16);
        for (int k = 0; k < 8; ++k) {
            const uint32_t v = static_cast<uint32_t>(0x3F800000u + i * 977u + static_cast<uint32_t>(k) * 131u);
            out.append(reinterpret_cast<const char *>(&v), sizeof v);
        }
    }
    return out;
}

} // namespace

// Bundles around the chunk size: empty, one byte, exactly one chunk, one
// byte more, several chunks with a short last one; and made-up packed
// configurations.
std::vector<std::string> avmfuzz::starters()
{
    std::string oneChunk(ALL_CONFIGS_CHUNK_SIZE, '\0');
    for (size_t i = 0; i < oneChunk.size(); ++i)
        oneChunk[i] = static_cast<char>(i * 7 + 3);
    return {std::string(),
            std::string(1, '\xA5'),
            oneChunk,
            oneChunk + "\x01",
            madeUpBundle(4),
            madeUpBundle(21),
            std::string(3 * ALL_CONFIGS_CHUNK_SIZE - 17, '\xFF')};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    prepare();
    FILE *f = fopen(gBundle.c_str(), "wb");
    if (f == nullptr)
        fail("cannot write the bundle");
    if (size > 0 && fwrite(data, 1, size, f) != size)
        fail("cannot write the bundle");
    fclose(f);
    const std::string md5 = md5Hex(data, size);

    // The upgrade's own reading: length and MD5 into the descriptor. The
    // closed DSP port makes the FINF query fail, so nothing is sent.
    fileTransfer_resetForTest();
    if (upgradeAllConfigs() != 0)
        fail("an upgrade completed without a DSP");
    const PrepareToSendFileInfo info = file_xfer_descriptor_get();
    if (info.fileLen != size)
        fail("the upgrade took another length than the bundle's");
    if (md5 != info.md5)
        fail("the upgrade took another MD5 than the bundle's");
    if (strcmp(info.dspPath, ALL_CONFIGS_DSP_PATH) != 0)
        fail("the upgrade names another DSP copy");

    // The DSP answers with the bundle's own length and MD5: up to date.
    const std::string same = std::string("FINF=") + ALL_CONFIGS_DSP_PATH + "," + std::to_string(size) + "," + md5;
    if (finfAsksForUpgrade(same))
        fail("an up-to-date DSP copy asks for an upgrade");
    std::string other = md5;
    other[0] = other[0] == '0' ? '1' : '0';
    if (!finfAsksForUpgrade(std::string("FINF=") + ALL_CONFIGS_DSP_PATH + "," + std::to_string(size) + "," + other))
        fail("a DSP copy with another MD5 does not ask for an upgrade");

    // The same length and MD5 from the transfer's file helper.
    FileXferInfo direct;
    if (file_xfer_info(gBundle.c_str(), &direct) != 0 || direct.len != size || md5 != direct.md5)
        fail("file_xfer_info does not give the bundle's length and MD5");

    walkChunks(data, size);
    return 0;
}
