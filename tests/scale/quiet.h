// Tests that must run with tracing off (the way production runs, and the
// only way the runtime takes its trace-free shortcuts; also the only way a
// test making a hundred thousand calls stays quick) are written as
// disabled GoogleTest tests, each run by an enabled twin in a child process
// whose VXLLOGNAME is unset. The child's GoogleTest output joins this
// program's, so its failures show (and fail the program) as usual.
#pragma once

#include "harness.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <string>

namespace quiet {

// Runs the disabled test of that full name ("Suite.DISABLED_Name") in a
// child with tracing off; its exit code (0: passed).
inline int run(const char *test)
{
    SetEnvironmentVariableA("VXL_QUIET_TEST", test);
    return vxltest::runChild("quiet_test", nullptr);
}

} // namespace quiet

// Defines the enabled twin that runs the disabled test in a quiet child.
#define QUIET_TEST(suite, name)                                                                    \
    TEST(suite, name) { EXPECT_EQ(0, quiet::run(#suite ".DISABLED_" #name)); }                    \
    TEST(suite, DISABLED_##name)

// The child: runs exactly the one test it was given.
#define QUIET_TEST_CHILD()                                                                         \
    VXL_CHILD(quiet_test)                                                                          \
    {                                                                                              \
        char test[512] = "";                                                                       \
        GetEnvironmentVariableA("VXL_QUIET_TEST", test, sizeof test);                              \
        std::string filter = std::string("--gtest_filter=") + test;                                \
        char program[] = "quiet";                                                                  \
        char disabled[] = "--gtest_also_run_disabled_tests";                                       \
        char *argv[] = {program, &filter[0], disabled, nullptr};                                   \
        int argc = 3;                                                                              \
        testing::InitGoogleTest(&argc, argv);                                                      \
        return RUN_ALL_TESTS();                                                                    \
    }
