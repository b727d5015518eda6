// Stand-in for libFuzzer's driver in ordinary builds: feeds the harness a
// fixed number of pseudo-random inputs (xorshift, fixed start value) plus
// the empty input, so every harness runs in `make test` without clang.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    long rounds = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 10000;
    uint64_t x = 0x9E3779B97F4A7C15ull;
    auto next = [&x]() { x ^= x << 13; x ^= x >> 7; x ^= x << 17; return x; };
    LLVMFuzzerTestOneInput(nullptr, 0);
    std::vector<uint8_t> buf;
    for (long i = 0; i < rounds; ++i) {
        buf.resize(next() % 1100);
        for (auto &b : buf)
            b = static_cast<uint8_t>(next());
        LLVMFuzzerTestOneInput(buf.data(), buf.size());
    }
    return 0;
}
