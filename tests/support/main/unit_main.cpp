// main of every unit test program: the process's board root, property
// store and log capture are set up before anything else (no thread exists
// yet), then the tests run in one process, in any order.
#include <gtest/gtest.h>

#include "process_env.h"

int main(int argc, char **argv)
{
    avmtest::initProcessRoot();
    testing::InitGoogleTest(&argc, argv);
    const int rc = RUN_ALL_TESTS();
    avmtest::removeProcessRoot();
    return rc;
}
