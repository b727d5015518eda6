#include "test_helpers.h"

#include <unistd.h>

#include <mutex>

#include <cutils/properties.h>

namespace avmtest {

bool sinkDescriptorZero(int flags)
{
    const int fd = open("/dev/null", flags);
    if (fd < 0)
        return false;
    const bool ok = dup2(fd, 0) == 0;
    if (fd != 0)
        close(fd);
    return ok;
}

std::string prop(const char *key)
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(key, value, "");
    return value;
}

long long msSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

namespace {
std::mutex gStatusMutex;
// Guarded by gStatusMutex. Never freed: a module thread that outlives a
// test may still report a status while the program exits.
std::vector<int> &gStatuses = *new std::vector<int>;
} // namespace

int recordStatus(int status)
{
    std::lock_guard<std::mutex> lock(gStatusMutex);
    gStatuses.push_back(status);
    return 0;
}

std::vector<int> recordedStatuses()
{
    std::lock_guard<std::mutex> lock(gStatusMutex);
    return gStatuses;
}

void clearRecordedStatuses()
{
    std::lock_guard<std::mutex> lock(gStatusMutex);
    gStatuses.clear();
}

} // namespace avmtest
