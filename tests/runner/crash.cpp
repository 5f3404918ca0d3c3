// A GoogleTest program that reports a failure and then crashes, the way a
// test that corrupts memory ends: the runner must count it as failed even
// when Wine hands back exit status 0.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

TEST(Runner, FailsThenCrashes)
{
    ADD_FAILURE() << "deliberate";
#ifdef EXIT_ZERO
    // As if the crash had been swallowed with status 0: only the summary
    // that never came can tell.
    fflush(stdout);
    _Exit(0);
#else
    volatile int *nowhere = nullptr;
    *nowhere = 1;
#endif
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
