/*
 * The module's process-wide state, put back between tests: a unit-test
 * program runs all its tests in one process, in any order, so each test
 * starts from the state a freshly loaded module has. Every unit that keeps
 * state offers one test-only reset; this calls them all.
 */
#pragma once

#include <gtest/gtest.h>

namespace avmtest {

// Resets every unit's state as at process start (the links must be down),
// and makes descriptor 0 a writable sink again: requests posted while the
// DSP pipe does not exist go to descriptor 0, and a failed post closes it.
void resetModuleState();

// A fixture whose tests start from a freshly loaded module.
class FreshModule : public ::testing::Test {
protected:
    void SetUp() override { resetModuleState(); }
};

} // namespace avmtest
