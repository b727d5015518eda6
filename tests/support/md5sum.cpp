#include "md5sum.h"

#include <cstdio>
#include <fstream>

namespace avmtest {

std::string writeBytes(const std::string &dir, const std::string &name, const std::string &bytes)
{
    const std::string path = dir + "/" + name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    return path;
}

std::string md5sumOfFile(const std::string &path)
{
    const std::string cmd = "md5sum '" + path + "'";
    FILE *p = popen(cmd.c_str(), "r");
    if (!p)
        return "";
    char buf[128] = {};
    size_t n = fread(buf, 1, sizeof(buf) - 1, p);
    pclose(p);
    return std::string(buf, n < 32 ? n : 32);
}

std::string md5sumOfBytes(const std::string &bytes, const std::string &dir)
{
    return md5sumOfFile(writeBytes(dir, "md5sum-input.bin", bytes));
}

} // namespace avmtest
