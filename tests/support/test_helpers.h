/*
 * Small helpers the unit and board tests share and that need no board:
 * property reads, elapsed time, a recorder for status callbacks and a
 * harmless descriptor 0.
 */
#pragma once

#include <fcntl.h>

#include <chrono>
#include <string>
#include <vector>

namespace avmtest {

// Points descriptor 0 at /dev/null opened with `flags`. Requests posted
// while the DSP pipe does not exist go to descriptor 0: O_WRONLY makes
// them vanish, O_RDONLY makes them fail. True on success.
bool sinkDescriptorZero(int flags = O_WRONLY);

// A property's value, "" when unset.
std::string prop(const char *key);

// Milliseconds from `start` to now on the steady clock.
long long msSince(std::chrono::steady_clock::time_point start);

// A status callback for the module to call: records each status, in
// order, from whatever thread calls it.
int recordStatus(int status);
std::vector<int> recordedStatuses();
void clearRecordedStatuses();

} // namespace avmtest
