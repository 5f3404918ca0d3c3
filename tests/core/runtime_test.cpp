// Runtime services: the trace log (per process, so in child processes), kit
// memory, vxl_init, and the first use of the kit locks by racing threads,
// each registering a class of its own.
#include "harness.h"
#include "vexal.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cstring>

// Every message here is vxl_unregister's one line.
VXL_CHILD(log_set_late)
{
    vxl_unregister(nullptr, nullptr); // the first message: the variable is unset
    _putenv(("VXLLOGNAME=" + vxltest::scratchPath("runtime_late.log")).c_str());
    vxl_unregister(nullptr, nullptr);
    return vxltest::fileExists(vxltest::programDir() + "\\scratch\\runtime_late.log");
}

VXL_CHILD(many_threads)
{
    static const vxl_interfacedef iface = {"IRace", 0, nullptr};
    static const vxl_componentinterface entry = {&iface, nullptr};
    static const vxl_componentinterface *const entries[] = {&entry};
    static const vxl_interfacedef *const ifaces[] = {&iface, nullptr};
    static char names[16][16];
    static vxl_componentdef defs[16];
    static const vxl_componentdef *lists[16][2];
    std::atomic<int> failures{0};
    vxltest::runTogether(16, [&](int t) {
        snprintf(names[t], sizeof names[t], "Race%d", t);
        defs[t] = {names[t], 1, entries, nullptr, nullptr, nullptr};
        lists[t][0] = &defs[t];
        for (int i = 0; i < 100; ++i)
            failures += (vxl_register("race", lists[t], ifaces) != VXL_OK) + (vxl_unregister(lists[t], ifaces) != VXL_OK);
    });
    return failures.load();
}

TEST(Runtime, TraceLogOpensOnceAndKitLocksComeIntoBeingUnderARace)
{
    EXPECT_EQ(0, vxltest::runChild("log_set_late", nullptr)) << "unset at the first message: off for the process";
    std::string path = vxltest::scratchPath("runtime_threads.log");
    FILE *f = fopen(path.c_str(), "wb");
    fputs("stale content from an earlier process that is longer\n", f);
    fclose(f);
    EXPECT_EQ(0, vxltest::runChild("many_threads", path.c_str()));
    std::string expected;
    for (int i = 0; i < 16 * 100; ++i)
        expected += "vxl_unregister:\n";
    EXPECT_EQ(expected, vxltest::readLog(path)) << "truncated, and no message split by another";
    std::string bad = vxltest::programDir() + "\\no such folder\\x.log";
    for (const char *name : {"", bad.c_str()}) // dropped messages fail nothing
        EXPECT_EQ(0, vxltest::runChild("many_threads", name));
}

TEST(Runtime, KitMemorySizeRulesStrdupAndInit)
{
    for (int32_t size : {0, -1, INT32_MIN})
        EXPECT_EQ(nullptr, vxl_malloc(size)) << size;
    EXPECT_EQ(nullptr, vxl_realloc(nullptr, 0));
    char *p = static_cast<char *>(vxl_realloc(nullptr, 16)); // as vxl_malloc(16)
    ASSERT_NE(nullptr, p);
    memcpy(p, "0123456789abcdef", 16);
    p = static_cast<char *>(vxl_realloc(p, 4096));
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(0, memcmp(p, "0123456789abcdef", 16));
    EXPECT_EQ(nullptr, vxl_realloc(p, -1)); // refused: p is still ours
    EXPECT_EQ(nullptr, vxl_realloc(p, 0));  // frees p
    vxl_free(nullptr);
    EXPECT_EQ(nullptr, vxl_strdup(nullptr));
    for (const char *text : {"", "kit memory \xe9"}) {
        char *copy = vxl_strdup(text);
        EXPECT_NE(text, copy);
        EXPECT_STREQ(text, copy);
        vxl_free(copy);
    }
    EXPECT_EQ(0, vxl_init());
    EXPECT_EQ(0, vxl_init()) << "COM already started on this thread: still 0";
    CoUninitialize();
    CoUninitialize();
}
