/*
 * Small helpers shared by the performance programs: printf-style text for
 * their tables, and the process's own resident memory and descriptor
 * count, which both the figures and the soak watch for growth.
 */
#pragma once

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <string>

#include <dirent.h>
#include <unistd.h>

namespace bench {

inline std::string fmt(const char *format, ...) __attribute__((format(printf, 1, 2)));
inline std::string fmt(const char *format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

// Resident memory of this process, from /proc/self/statm.
inline long residentKiB()
{
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Open descriptors of this process, from /proc/self/fd.
inline int openDescriptors()
{
    int n = 0;
    if (DIR *dir = opendir("/proc/self/fd")) {
        while (dirent *entry = readdir(dir))
            n += entry->d_name[0] != '.';
        closedir(dir);
    }
    return n - 1; // the listing's own descriptor
}

} // namespace bench
