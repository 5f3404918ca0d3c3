// Tests that must run with tracing off (as in production: the runtime's
// trace-free shortcuts, and a hundred thousand calls that stay quick) are
// disabled tests, each run by an enabled twin in a child process whose
// VXLLOGNAME is unset; the child's output and failures join this program's.
#pragma once

#include "harness.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <string>

namespace quiet {

// Runs "Suite.DISABLED_Name" in a quiet child; 0 when it passed.
inline int run(const char *test)
{
    SetEnvironmentVariableA("VXL_QUIET_TEST", test);
    return vxltest::runChild("quiet_test", nullptr);
}

} // namespace quiet

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
