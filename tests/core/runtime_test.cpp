// Runtime services: the trace log (per process, so in child processes), kit
// memory and the first use of the kit locks under a race.
#include "harness.h"
#include "vexal.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using vxltest::runChild;
using vxltest::scratchPath;

namespace {

std::string childLog(const char *name)
{
    return scratchPath(std::string("runtime_") + name + ".log");
}

} // namespace

// ---- trace log ------------------------------------------------------------------

VXL_CHILD(log_set_late)
{
    vxl_unregister(nullptr, nullptr); // first message: variable unset
    std::string late = "VXLLOGNAME=" + vxltest::programDir() + "\\scratch\\runtime_late.log";
    _putenv(late.c_str());
    vxl_unregister(nullptr, nullptr);
    return 0;
}

TEST(TraceLog, UnsetAtFirstMessageStaysOffForTheProcess)
{
    std::string late = childLog("late");
    EXPECT_EQ(0, runChild("log_set_late", nullptr));
    EXPECT_FALSE(vxltest::fileExists(late));
}

VXL_CHILD(log_two_messages)
{
    vxl_unregister(nullptr, nullptr);
    vxl_unregister(nullptr, nullptr);
    return 0;
}

TEST(TraceLog, ExistingFileIsTruncatedAndMessagesAreWrittenAsIs)
{
    std::string path = childLog("trunc");
    FILE *f = fopen(path.c_str(), "wb");
    fputs("stale content from an earlier process that is longer\n", f);
    fclose(f);
    EXPECT_EQ(0, runChild("log_two_messages", path.c_str()));
    EXPECT_EQ("vxl_unregister:\nvxl_unregister:\n", vxltest::readLog(path));
}

TEST(TraceLog, EmptyOrUnopenableNameDropsMessagesWithoutFailing)
{
    EXPECT_EQ(0, runChild("log_two_messages", ""));
    std::string bad = vxltest::programDir() + "\\no such folder\\x.log";
    EXPECT_EQ(0, runChild("log_two_messages", bad.c_str()));
    EXPECT_FALSE(vxltest::fileExists(bad));
}

VXL_CHILD(log_many_threads)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i)
                vxl_unregister(nullptr, nullptr);
        });
    for (auto &t : threads)
        t.join();
    return 0;
}

TEST(TraceLog, MessagesOfManyThreadsNeverInterleave)
{
    std::string path = childLog("threads");
    EXPECT_EQ(0, runChild("log_many_threads", path.c_str()));
    std::string expected;
    for (int i = 0; i < 8 * 200; ++i)
        expected += "vxl_unregister:\n";
    EXPECT_EQ(expected, vxltest::readLog(path));
}

// ---- kit memory ---------------------------------------------------------------

TEST(KitMemory, SizeRules)
{
    EXPECT_EQ(nullptr, vxl_malloc(0));
    EXPECT_EQ(nullptr, vxl_malloc(-1));
    EXPECT_EQ(nullptr, vxl_malloc(INT32_MIN));
    EXPECT_EQ(nullptr, vxl_realloc(nullptr, 0));
    EXPECT_EQ(nullptr, vxl_realloc(nullptr, -5));

    char *p = static_cast<char *>(vxl_realloc(nullptr, 16)); // as vxl_malloc(16)
    ASSERT_NE(nullptr, p);
    memcpy(p, "0123456789abcdef", 16);
    p = static_cast<char *>(vxl_realloc(p, 4096));
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(0, memcmp(p, "0123456789abcdef", 16));
    EXPECT_EQ(nullptr, vxl_realloc(p, -1)); // refused: p is still ours
    EXPECT_EQ('0', p[0]);
    EXPECT_EQ(nullptr, vxl_realloc(p, 0)); // frees p
    vxl_free(nullptr);
}

TEST(KitMemory, Strdup)
{
    EXPECT_EQ(nullptr, vxl_strdup(nullptr));
    char *empty = vxl_strdup("");
    ASSERT_NE(nullptr, empty);
    EXPECT_EQ('\0', empty[0]);
    vxl_free(empty);
    const char *text = "kit memory \xe9";
    char *copy = vxl_strdup(text);
    ASSERT_NE(nullptr, copy);
    EXPECT_NE(text, copy);
    EXPECT_STREQ(text, copy);
    vxl_free(copy);
}

TEST(KitMemory, InitAlwaysSucceeds)
{
    EXPECT_EQ(0, vxl_init());
    EXPECT_EQ(0, vxl_init()); // COM already started on this thread: still 0
    CoUninitialize();
    CoUninitialize();
}

// ---- first use of the kit locks --------------------------------------------------
// Many threads make their first kit calls at the same instant; each registers
// its own component. Every registration must land exactly once.

namespace {
const vxl_interfacedef raceIface = {"IRace", 0, nullptr};
const vxl_componentinterface raceCI = {&raceIface, nullptr};
const vxl_componentinterface *const raceCIs[] = {&raceCI};
int32_t noCreate(void **, vxl_if) { return 0; }
int32_t noDestroy(void *, vxl_if) { return 0; }
} // namespace

VXL_CHILD(lock_first_use_race)
{
    constexpr int kThreads = 16;
    static char names[kThreads][16];
    static vxl_componentdef defs[kThreads];
    static const vxl_componentdef *lists[kThreads][2];
    static const vxl_interfacedef *const ifaces[] = {&raceIface, nullptr};
    for (int t = 0; t < kThreads; ++t) {
        snprintf(names[t], sizeof names[t], "Race%d", t);
        defs[t] = vxl_componentdef{names[t], 1, raceCIs, noCreate, noDestroy, nullptr};
        lists[t][0] = &defs[t];
        lists[t][1] = nullptr;
    }
    std::atomic<int> failures{0};
    vxltest::runTogether(kThreads, [&](int t) {
        if (vxl_register("race", lists[t], ifaces) != VXL_OK)
            failures.fetch_add(1);
    });
    for (int t = 0; t < kThreads; ++t) // now taken: a second registration conflicts
        if (vxl_register("again", lists[t], ifaces) != VXL_EFAIL)
            failures.fetch_add(1);
    for (int t = 0; t < kThreads; ++t)
        if (vxl_unregister(lists[t], ifaces) != VXL_OK)
            failures.fetch_add(1);
    return failures.load();
}

TEST(KitLocks, FirstUseRaceCreatesLocksOnce)
{
    for (int run = 0; run < 2; ++run)
        EXPECT_EQ(0, runChild("lock_first_use_race", childLog("race").c_str()));
}
