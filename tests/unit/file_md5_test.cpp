// MD5 of local files as the transfer computes it, checked against the
// RFC 1321 test suite digests and against an independent MD5 written here
// (and the system's md5sum) for files around the 1024-byte read block.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "dsp/file_transfer.h"
#include "log_capture.h"
#include "md5sum.h"

namespace {

// A straightforward MD5 from the algorithm's description, independent of
// the library the module uses.
std::string referenceMd5(const std::string &message)
{
    static const uint32_t K[64] = {
        0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613,
        0xfd469501, 0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193,
        0xa679438e, 0x49b40821, 0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d,
        0x02441453, 0xd8a1e681, 0xe7d3fbc8, 0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed,
        0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a, 0xfffa3942, 0x8771f681, 0x6d9d6122,
        0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70, 0x289b7ec6, 0xeaa127fa,
        0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665, 0xf4292244,
        0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
        0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb,
        0xeb86d391};
    static const int S[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                              5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                              4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                              6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};
    std::vector<uint8_t> data(message.begin(), message.end());
    uint64_t bits = static_cast<uint64_t>(message.size()) * 8;
    data.push_back(0x80);
    while (data.size() % 64 != 56)
        data.push_back(0);
    for (int i = 0; i < 8; ++i)
        data.push_back(static_cast<uint8_t>(bits >> (8 * i)));

    uint32_t a0 = 0x67452301, b0 = 0xefcdab89, c0 = 0x98badcfe, d0 = 0x10325476;
    for (size_t off = 0; off < data.size(); off += 64) {
        uint32_t M[16];
        for (int i = 0; i < 16; ++i)
            M[i] = uint32_t(data[off + 4 * i]) | uint32_t(data[off + 4 * i + 1]) << 8 |
                   uint32_t(data[off + 4 * i + 2]) << 16 | uint32_t(data[off + 4 * i + 3]) << 24;
        uint32_t A = a0, B = b0, C = c0, D = d0;
        for (int i = 0; i < 64; ++i) {
            uint32_t F;
            int g;
            if (i < 16) {
                F = (B & C) | (~B & D);
                g = i;
            } else if (i < 32) {
                F = (D & B) | (~D & C);
                g = (5 * i + 1) % 16;
            } else if (i < 48) {
                F = B ^ C ^ D;
                g = (3 * i + 5) % 16;
            } else {
                F = C ^ (B | ~D);
                g = (7 * i) % 16;
            }
            F = F + A + K[i] + M[g];
            A = D;
            D = C;
            C = B;
            B = B + ((F << S[i]) | (F >> (32 - S[i])));
        }
        a0 += A;
        b0 += B;
        c0 += C;
        d0 += D;
    }
    char out[33];
    uint32_t words[4] = {a0, b0, c0, d0};
    for (int w = 0; w < 4; ++w)
        for (int i = 0; i < 4; ++i)
            snprintf(out + 8 * w + 2 * i, 3, "%02x", (words[w] >> (8 * i)) & 0xFF);
    return std::string(out, 32);
}

// Bytes that are not all alike, so a block mix-up would show.
std::string patterned(size_t size)
{
    std::string s(size, '\0');
    uint32_t x = 12345;
    for (auto &c : s) {
        x = x * 1103515245u + 12345u;
        c = static_cast<char>(x >> 16);
    }
    return s;
}

struct RfcCase {
    const char *message;
    const char *digest;
};

// The test suite of RFC 1321, appendix A.5.
const RfcCase kRfcSuite[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

} // namespace

TEST(FileMd5, ReferenceImplementationMatchesRfcSuite)
{
    for (const auto &c : kRfcSuite)
        EXPECT_EQ(referenceMd5(c.message), c.digest) << c.message;
}

TEST(FileMd5, RfcSuiteStringsAsFilesMatchKnownDigests)
{
    avmtest::TempDir dir;
    int i = 0;
    for (const auto &c : kRfcSuite) {
        std::string path = avmtest::writeBytes(dir.path(), "rfc" + std::to_string(i++), c.message);
        FileXferInfo info;
        ASSERT_EQ(file_xfer_info(path.c_str(), &info), 0);
        EXPECT_EQ(info.len, strlen(c.message));
        EXPECT_STREQ(info.md5, c.digest) << c.message;
    }
}

class FileMd5BySize : public ::testing::TestWithParam<size_t> {};

TEST_P(FileMd5BySize, MatchesIndependentDigestAndMd5sum)
{
    avmtest::TempDir dir;
    const size_t size = GetParam();
    const std::string content = patterned(size);
    std::string path = avmtest::writeBytes(dir.path(), "file.bin", content);
    FileXferInfo info;
    ASSERT_EQ(file_xfer_info(path.c_str(), &info), 0);
    EXPECT_EQ(info.len, size);
    EXPECT_EQ(strlen(info.md5), 32u);
    EXPECT_EQ(std::string(info.md5), referenceMd5(content));
    EXPECT_EQ(std::string(info.md5), avmtest::md5sumOfFile(path));
}

INSTANTIATE_TEST_SUITE_P(AroundTheReadBlock, FileMd5BySize,
                         ::testing::Values(0, 1, 1023, 1024, 1025, 2048, 4097),
                         [](const ::testing::TestParamInfo<size_t> &p) {
                             return "Size" + std::to_string(p.param);
                         });
