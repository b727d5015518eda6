// Tuning value parsing over arbitrary text: the input becomes either a
// whole tuning file or the values of every register, coefficient and
// equaliser row of one, and every table must stay in bounds whatever the
// text holds.
//
// Input: one byte whose low bit picks the form (1: a whole file, 0:
// newline-separated values), then the text.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <android/log.h>

#include "amp/amp_tuning.h"
#include "fuzz_starters.h"
#include "process_env.h"

namespace {

std::string gFile; // the floor file under the process's private root

void prepare()
{
    if (!gFile.empty())
        return;
    const std::string audio = avmtest::processRoot() + "/mnt/vendor/param/audio";
    std::filesystem::create_directories(audio);
    gFile = audio + "/amp_RL_FLOOR.ini";
}

// Splits the text into values (at newlines) and hands them out to the
// keys of every section in turn: the first rows, a middle one and the last
// of each (the rows between go through the same code; leaving them out
// keeps a run fast enough for millions of inputs, and their absence is
// itself a case the parser must take).
std::string asValues(const uint8_t *data, size_t size)
{
    std::string values[8];
    size_t count = 0;
    std::string current;
    for (size_t i = 0; i < size; ++i) {
        const char c = static_cast<char>(data[i]);
        if (c == '\n' || c == '\0') {
            values[count % 8] = current;
            ++count;
            current.clear();
            if (count == 8)
                break;
        } else {
            current += c;
        }
    }
    if (count < 8)
        values[count++] = current;
    static const struct {
        const char *name;
        int rows;
    } sections[] = {{"REG_TAB_RL", 134}, {"RAM1_TAB_RL", 120}, {"RAM2_TAB_RL", 120},
                    {"ACM8625_TAB_L", 75}, {"ACM8625_TAB_R", 75}};
    std::string out;
    size_t next = 0;
    char key[16];
    for (const auto &section : sections) {
        out += std::string("[") + section.name + "]\n";
        for (int row : {0, 1, 2, section.rows / 2, section.rows - 1}) {
            snprintf(key, sizeof key, "0x%02x", row);
            out += std::string(key) + " = " + values[next++ % count] + "\n";
        }
    }
    return out;
}

} // namespace

// Tuning text in the forms scripts/gen-tuning-files writes: a floor file
// cut to a few rows of each section, rows with the blanks the parser
// tolerates and the one it does not, and bare values.
std::vector<std::string> avmfuzz::starters()
{
    const std::string wholeFile(1, '\x01');
    const std::string values(1, '\x00');
    return {wholeFile + "; made-up tuning for amp_RL_FLOOR.ini\n"
                        "[REG_TAB_RL]\n0x00 = 0x3c\n0x01 = 0x81\n0x02 = 0x7f\n0x85 = 0x10\n\n"
                        "[RAM1_TAB_RL]\n0x00 = 1d, 8c, 03, f2\n0x77 = 00, 7f, ff, ff\n\n"
                        "[RAM2_TAB_RL]\n0x00 = 20, 00, 00, 00\n\n"
                        "[ACM8625_TAB_L]\n0x00 = 0x04, 0x11, 0x22, 0x33,0x44\n0x4a = 0xfc, 0x01, 0x02, 0x03,0x04\n\n"
                        "[ACM8625_TAB_R]\n0x00 = 0x08, 0xa0, 0xb0, 0xc0,0xd0\n",
            wholeFile + "[RAM1_TAB_RL]\n0x0a = 01,02,03,04\n0x0b = 01 , 02, 03, 04\n",
            values + "0x5a\n1d, 8c, 03, f2\n0x04, 0x11, 0x22, 0x33,0x44\n",
            values + "ffffffff\n-1, -2, -3, -4\n0x,0x,0x,0x,0x\n\n\n"};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    prepare();
    std::string content;
    if (size > 0 && (data[0] & 1) != 0)
        content.assign(reinterpret_cast<const char *>(data + 1), size - 1);
    else
        content = asValues(size > 0 ? data + 1 : data, size > 0 ? size - 1 : 0);
    FILE *f = fopen(gFile.c_str(), "w");
    if (f == nullptr)
        abort();
    fwrite(content.data(), 1, content.size(), f);
    fclose(f);
    parseAmp_RL_Floor_Info();
    return 0;
}
