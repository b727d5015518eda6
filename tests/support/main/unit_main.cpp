// main of every unit test program: the process's board root, property
// store, log capture and descriptor 0 are set up before anything else (no
// thread exists yet), then the tests run in one process, in any order.
#include <gtest/gtest.h>

#include "test_helpers.h"
#include "process_env.h"

int main(int argc, char **argv)
{
    avmtest::initProcessRoot();
    // Requests posted while the DSP pipe does not exist go to descriptor 0:
    // it is a writable sink from the start.
    avmtest::sinkDescriptorZero();
    testing::InitGoogleTest(&argc, argv);
    const int rc = RUN_ALL_TESTS();
    avmtest::removeProcessRoot();
    return rc;
}
