// main of every kernel test program: runs only inside the VM of
// scripts/kernel-vm (`make test-kernel`), where the module meets the real
// kernel's drivers; anywhere else it says so and fails, except to list
// its tests. Each test runs in a process of its own (ctest), since module
// threads outlive a test; the process's board root, property store, log
// capture and descriptor 0 are set up before anything else.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "process_env.h"
#include "test_helpers.h"

int main(int argc, char **argv)
{
    bool listing = false;
    for (int i = 1; i < argc; ++i)
        listing = listing || std::strncmp(argv[i], "--gtest_list_tests", 18) == 0;
    const char *vm = std::getenv("AVM_KERNEL_BOARD");
    if (!listing && (vm == nullptr || std::strcmp(vm, "1") != 0)) {
        std::fprintf(stderr, "kernel tests run inside the kernel VM: make test-kernel, or "
                             "scripts/kernel-vm -- ctest --preset kernel\n");
        return 1;
    }
    avmtest::initProcessRoot();
    avmtest::sinkDescriptorZero();
    testing::InitGoogleTest(&argc, argv);
    const int rc = RUN_ALL_TESTS();
    avmtest::removeProcessRoot();
    return rc;
}
