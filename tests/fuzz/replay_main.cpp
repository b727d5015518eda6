// Stand-in for libFuzzer's driver in ordinary builds, in three modes:
//
//   fuzz_x [N]                  the empty input, then N pseudo-random inputs
//                               (xorshift, fixed start value; 10000 by default)
//   fuzz_x PATH...              every file named, and every file in every
//                               directory named (the starting corpus, kept
//                               crash reproducers), each as one input
//   fuzz_x --write-starters DIR    writes the harness's starter inputs into DIR
//                               (one file per starter, named starter-NN)
//
// so every harness runs in `make test` without clang, and what libFuzzer
// once found stays a test.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_starters.h"

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

bool readFile(const std::string &path, std::vector<uint8_t> &out)
{
    FILE *f = fopen(path.c_str(), "rb");
    if (f == nullptr)
        return false;
    out.clear();
    uint8_t block[4096];
    size_t n;
    while ((n = fread(block, 1, sizeof block, f)) > 0)
        out.insert(out.end(), block, block + n);
    const bool ok = ferror(f) == 0;
    fclose(f);
    return ok;
}

// Files of a directory, sorted so a replay runs in the same order everywhere.
std::vector<std::string> filesIn(const std::string &dir)
{
    std::vector<std::string> files;
    DIR *d = opendir(dir.c_str());
    if (d == nullptr)
        return files;
    while (struct dirent *e = readdir(d)) {
        if (e->d_name[0] == '.')
            continue;
        const std::string path = dir + "/" + e->d_name;
        struct stat st;
        if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
            files.push_back(path);
    }
    closedir(d);
    std::sort(files.begin(), files.end());
    return files;
}

int replayPaths(int argc, char **argv)
{
    size_t inputs = 0;
    std::vector<uint8_t> bytes;
    for (int i = 1; i < argc; ++i) {
        struct stat st;
        if (stat(argv[i], &st) != 0) {
            fprintf(stderr, "replay: %s: %s\n", argv[i], strerror(errno));
            return 1;
        }
        std::vector<std::string> files;
        if (S_ISDIR(st.st_mode))
            files = filesIn(argv[i]);
        else
            files.push_back(argv[i]);
        for (const auto &file : files) {
            if (!readFile(file, bytes)) {
                fprintf(stderr, "replay: cannot read %s\n", file.c_str());
                return 1;
            }
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++inputs;
        }
    }
    if (inputs == 0) {
        fprintf(stderr, "replay: no input files\n");
        return 1;
    }
    printf("replayed %zu input(s)\n", inputs);
    return 0;
}

int writeStarters(const char *dir)
{
    mkdir(dir, 0755);
    const std::vector<std::string> starters = avmfuzz::starters();
    for (size_t i = 0; i < starters.size(); ++i) {
        char name[32];
        snprintf(name, sizeof name, "/starter-%02zu", i);
        const std::string path = std::string(dir) + name;
        FILE *f = fopen(path.c_str(), "wb");
        if (f == nullptr || fwrite(starters[i].data(), 1, starters[i].size(), f) != starters[i].size()) {
            fprintf(stderr, "starters: cannot write %s\n", path.c_str());
            if (f != nullptr)
                fclose(f);
            return 1;
        }
        fclose(f);
    }
    printf("wrote %zu starter(s) to %s\n", starters.size(), dir);
    return 0;
}

int replayRandom(long rounds)
{
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

bool isCount(const char *arg)
{
    if (*arg == '\0')
        return false;
    for (const char *p = arg; *p != '\0'; ++p)
        if (*p < '0' || *p > '9')
            return false;
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], "--write-starters") == 0)
        return writeStarters(argv[2]); // no harness state needed
    LLVMFuzzerInitialize(&argc, &argv);
    if (argc > 1 && !isCount(argv[1]))
        return replayPaths(argc, argv);
    return replayRandom(argc > 1 ? std::strtol(argv[1], nullptr, 10) : 10000);
}
