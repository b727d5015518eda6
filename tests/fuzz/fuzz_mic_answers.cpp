// Arbitrary DSP answers to the microphone tests: the status conversion
// into an out buffer of exactly its documented size, and both update
// handlers, which write the result properties. Nothing is read or
// written outside a buffer, and a converted status is a terminated string
// of digits.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "camera/detect.h"
#include "fuzz_starters.h"

// The DSP's answers after "MIC_TEST=" and "AUX_TEST", as its microphone
// feature sends them: testing, count and bits, pass and fail.
std::vector<std::string> avmfuzz::starters()
{
    return {"TESTING", "4,15", "4,5", "8,255", "0,0", "[0]=PASS", "[3]=FAIL", "[1]=TESTING", "[9]=PASS"};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The receive thread hands over at most 512 bytes, terminated.
    std::string text(reinterpret_cast<const char *>(data), size < 512 ? size : 512);
    text = text.c_str();
    // Exactly the documented size on the heap, so an overrun is caught.
    std::unique_ptr<char[]> out(new char[MIC_STATUS_OUT_SIZE]);
    memset(out.get(), 'x', MIC_STATUS_OUT_SIZE);
    out[MIC_STATUS_OUT_SIZE - 1] = '\0';
    parseMicStatus(text.c_str(), out.get());
    const size_t n = strnlen(out.get(), MIC_STATUS_OUT_SIZE);
    if (n >= MIC_STATUS_OUT_SIZE)
        abort();
    if (out[0] != 'x')
        for (size_t i = 0; i < n; ++i)
            if (out[i] != '0' && out[i] != '1')
                abort();
    // Numbers that look like answers reach the conversion in depth.
    if (size > 2) {
        const std::string shaped = std::to_string(data[0] * 2) + "," + std::to_string(data[1] * 16777619u) +
                                   (text.size() > 2 ? text.substr(2) : std::string());
        parseMicStatus(shaped.c_str(), out.get());
        if (strnlen(out.get(), MIC_STATUS_OUT_SIZE) >= MIC_STATUS_OUT_SIZE)
            abort();
    }
    dsp_mic_status_update(text.c_str());
    dsp_mic_aux_test_update(text.c_str());
    if (size > 0) {
        // An answer with a valid index in its brackets.
        std::string aux = "[" + std::to_string(data[0] % 4) + "]" + text;
        dsp_mic_aux_test_update(aux.c_str());
    }
    return 0;
}
