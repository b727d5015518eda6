// Tuning value parsing over arbitrary text: the input becomes either a
// whole tuning file or the values of every register, coefficient and
// equaliser row of one, and every table must stay in bounds whatever the
// text holds.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <android/log.h>

#include "amp/amp_tuning.h"
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
// keys of every section in turn.
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
        for (int row = 0; row < section.rows; ++row) {
            snprintf(key, sizeof key, "0x%02x", row);
            out += std::string(key) + " = " + values[next++ % count] + "\n";
        }
    }
    return out;
}

} // namespace

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
