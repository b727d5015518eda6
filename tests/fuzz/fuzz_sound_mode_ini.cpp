// The stereo-enhancer ini ("/mnt/vendor/param/audio/quor_stereo_enhancer.ini"
// under the private root) as the sound modes read it: the user gains
// (getEqGainFromIni, dspHal_get_user_eq_gain), the user sound mode, which
// reads every band's frequency and gain and posts one equaliser line per
// band, and a direct band setting, which updates the gain in a loaded copy
// of the ini only.
//
// The DSP command pipe is made as the link makes it (dsp_mkfifo_init) but
// no transmit thread runs: the harness reads the posted requests back
// itself, so a post never blocks and every line can be checked.
//
// Checks: the user mode posts exactly eight lines "USER_EQ[b]=1,F,G,1", one
// per band in order, and records mode 4; G is the band's gain as
// getEqGainFromIni and dspHal_get_user_eq_gain give it (two bands a run).
// A band outside 0..7 reads 0. A direct band setting posts its line and
// leaves the file and the gain it gives as they were. When the input gives
// the keys plain values (no quotes, comment or continuation characters),
// each F is the frequency value's decimal number and each G its gain
// value's, in hundredths of a dB, truncated toward zero to whole dB.
//
// Input: one byte, then the text. Its low bit picks the form (1: a whole
// file, 0: newline-separated values for the sixteen keys, handed out in
// turn); bits 1-3 all set: no file at all; bit 4: the band outside 0..7
// that is asked for (8 or -1); bits 5-7: the band asked for with
// getEqGainFromIni and of the direct setting.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "dsp/dsp_link.h"
#include "dsp/dsp_sound_modes.h"
#include "dsp_commands.h"
#include "fuzz_starters.h"
#include "process_env.h"

namespace {

constexpr int kBands = 8;
constexpr size_t kKeys = 2 * kBands;
// Longest value in the value form (a longer one is cut): long lines are the
// whole-file form's part, and short ones keep a run fast.
constexpr size_t kValueMax = 64;

std::string gIni; // the ini under the process's private root

[[noreturn]] void fail(const char *what, int band = -1)
{
    fprintf(stderr, "fuzz_sound_mode_ini: %s (band %d)\n", what, band);
    abort();
}

void prepare()
{
    if (!gIni.empty())
        return;
    const std::string root = avmtest::processRoot();
    std::filesystem::create_directories(root + "/mnt/vendor/param/audio");
    mkdir((root + "/tmp").c_str(), 0755);
    gIni = root + DSP_STEREO_ENHANCER_INI;
    // The request pipe with both ends open and no transmit thread.
    if (dsp_mkfifo_init() != 0)
        fail("cannot make the DSP request pipe");
}

// The decimal number of a text as the module reads its numbers: leading
// blanks and a sign, digits up to the first other character, 0 without
// digits, clamped to the int range.
int decimal(const std::string &text)
{
    const long long v = strtoll(text.c_str(), nullptr, 10);
    return v > INT_MAX ? INT_MAX : v < INT_MIN ? INT_MIN : static_cast<int>(v);
}

// A value iniparser hands back as written but for blanks around it: no
// quote, comment or line-continuation character.
bool plain(const std::string &value)
{
    return value.find_first_of("\"';#\\") == std::string::npos;
}

const char *keyName(size_t key)
{
    static const char *const kNames[kKeys] = {"EQ11_FC", "EQ11_G", "EQ12_FC", "EQ12_G", "EQ13_FC", "EQ13_G",
                                               "EQ14_FC", "EQ14_G", "EQ15_FC", "EQ15_G", "EQ16_FC", "EQ16_G",
                                               "EQ17_FC", "EQ17_G", "EQ18_FC", "EQ18_G"};
    return kNames[key];
}

// Splits the text into values at newlines (and zero bytes), each cut to
// kValueMax characters, and gives the keys of the user mode those values
// in turn. `expected` gets each key's
// number when every value is plain; `known` tells whether it did.
std::string asValues(const uint8_t *data, size_t size, int (&expected)[kKeys], bool &known)
{
    std::vector<std::string> values(1);
    for (size_t i = 0; i < size && values.size() <= kKeys; ++i) {
        const char c = static_cast<char>(data[i]);
        if (c == '\n' || c == '\0')
            values.emplace_back();
        else if (values.back().size() < kValueMax)
            values.back() += c;
    }
    if (values.size() > kKeys)
        values.resize(kKeys);
    known = true;
    std::string out = "; stereo enhancer, user mode\n[user_mode]\n";
    for (size_t key = 0; key < kKeys; ++key) {
        const std::string &value = values[key % values.size()];
        out += std::string(keyName(key)) + " = " + value + "\n";
        known = known && plain(value);
        expected[key] = decimal(value);
    }
    return out;
}

bool writeFile(const std::string &content)
{
    FILE *f = fopen(gIni.c_str(), "wb");
    if (f == nullptr)
        return false;
    const bool ok = fwrite(content.data(), 1, content.size(), f) == content.size();
    return fclose(f) == 0 && ok;
}

std::string readFile()
{
    std::string out;
    FILE *f = fopen(gIni.c_str(), "rb");
    if (f == nullptr)
        return out;
    char block[4096];
    size_t n;
    while ((n = fread(block, 1, sizeof block, f)) > 0)
        out.append(block, n);
    fclose(f);
    return out;
}

// Checks the user mode's requests: one line per band, in order, and
// gives back the gain of each line.
void checkUserModeLines(const std::vector<avmtest::PostedRequest> &posted, int (&gains)[kBands],
                        const int (&expected)[kKeys], bool known)
{
    if (posted.size() != kBands)
        fail("the user mode did not post one line per band");
    for (int band = 0; band < kBands; ++band) {
        const avmtest::PostedRequest &request = posted[static_cast<size_t>(band)];
        if (request.cmd != DSP_CMD_EQ)
            fail("a user-mode line went out with another command code", band);
        int index = -1;
        int freq = 0;
        int gain = 0;
        int end = 0;
        if (sscanf(request.text.c_str(), "USER_EQ[%d]=1,%d,%d,1%n", &index, &freq, &gain, &end) != 3 ||
            static_cast<size_t>(end) != request.text.size())
            fail("a user-mode line is not USER_EQ[b]=1,F,G,1", band);
        if (index != band)
            fail("a user-mode line names another band", band);
        gains[band] = gain;
        if (known && freq != expected[2 * band])
            fail("a user-mode frequency is not its value's number", band);
        if (known && gain != expected[2 * band + 1] / 100)
            fail("a user-mode gain is not its value's hundredths", band);
    }
}

} // namespace

// Made-up tuning in the forms the product's files take: a full user mode
// beside other sections, one with gains that are not whole dB, negative
// and missing keys, and value lists.
std::vector<std::string> avmfuzz::starters()
{
    const std::string wholeFile(1, '\x01');
    const std::string values(1, '\x00');
    return {wholeFile + "; made-up stereo enhancer tuning\n"
                        "[stereo_enhancer]\nenable = 1\nwidth = 60\n\n"
                        "[user_mode]\n"
                        "EQ11_FC = 100\nEQ11_G = 300\nEQ12_FC = 250\nEQ12_G = 150\n"
                        "EQ13_FC = 500\nEQ13_G = 0\nEQ14_FC = 1000\nEQ14_G = -100\n"
                        "EQ15_FC = 2000\nEQ15_G = -250\nEQ16_FC = 4000\nEQ16_G = 200\n"
                        "EQ17_FC = 8000\nEQ17_G = 450\nEQ18_FC = 12000\nEQ18_G = 600\n",
            std::string(1, '\x61') + "[user_mode]\nEQ11_FC=80\nEQ11_G=-99\nEQ13_FC = \"1500\"\nEQ13_G = 250 ; boost\n"
                                     "EQ18_G = 6000\n",
            wholeFile + "[USER_MODE]\nEQ12_FC = 300\\\n0\nEQ12_G = 1e3\n[user_mode\nEQ14_G = 1\n",
            values + "100\n300\n250\n150\n500\n0\n1000\n-100\n2000\n-250\n4000\n200\n8000\n450\n12000\n600",
            values + "20000\n-6000",
            std::string(1, '\x0E') + "no file at all"};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    prepare();
    const uint8_t selector = size > 0 ? data[0] : 0;
    const uint8_t *text = size > 0 ? data + 1 : data;
    const size_t textSize = size > 0 ? size - 1 : 0;

    int expected[kKeys] = {};
    bool known = false;
    std::string content;
    const bool noFile = (selector & 0x0E) == 0x0E;
    if (noFile) {
        unlink(gIni.c_str());
        known = true; // every key reads as 0
    } else {
        if ((selector & 1) != 0)
            content.assign(reinterpret_cast<const char *>(text), textSize);
        else
            content = asValues(text, textSize, expected, known);
        if (!writeFile(content))
            fail("cannot write the ini");
    }
    dspSoundModes_resetForTest();
    avmtest::drainPostedRequests();

    // The user mode: sixteen loads of the file, eight lines.
    if (dspHal_set_soundMode(DSP_SOUND_MODE_USER) != 1)
        fail("the user mode's lines were not posted");
    int gains[kBands];
    checkUserModeLines(avmtest::drainPostedRequests(), gains, expected, known);
    char mode[PROPERTY_VALUE_MAX] = {};
    property_get("persist.zel.dsp.soundMode", mode, "");
    if (strcmp(mode, "4") != 0 || g_soundMode.load() != DSP_SOUND_MODE_USER)
        fail("the user mode was not recorded");

    // The gain getters, one load of the file each, give the user mode's
    // gains (two bands a run: every band's gain goes through the same
    // reading); a band outside 0..7 reads 0.
    const int first = selector >> 5;
    const int second = static_cast<int>((static_cast<size_t>(first) + 1 + textSize % 7) % kBands);
    if (getEqGainFromIni(first) != gains[first])
        fail("getEqGainFromIni differs from the user mode's line", first);
    if (dspHal_get_user_eq_gain(second) != gains[second])
        fail("dspHal_get_user_eq_gain differs from the user mode's line", second);
    const int outside = (selector & 0x10) != 0 ? kBands : -1;
    if (getEqGainFromIni(outside) != 0)
        fail("a band outside 0..7 has a gain", outside);

    // A direct band setting: its line goes out, the gain changes in a
    // loaded copy of the file only.
    const int band = selector >> 5;
    const int gain = static_cast<int>(textSize % 121) - 60;
    if (dspHal_set_user_eq_param(band, 1, 1000, gain, 1) != 1)
        fail("a direct band setting was not posted", band);
    const std::vector<avmtest::PostedRequest> direct = avmtest::drainPostedRequests();
    const std::string line = "USER_EQ[" + std::to_string(band) + "]=1,1000," + std::to_string(gain) + ",1";
    if (direct.size() != 1 || direct[0].cmd != DSP_CMD_EQ || direct[0].text != line)
        fail("a direct band setting posted something else", band);
    if (!noFile && readFile() != content)
        fail("a direct band setting changed the file", band);
    if (getEqGainFromIni(band) != gains[band])
        fail("a direct band setting changed the gain the file gives", band);
    return 0;
}
