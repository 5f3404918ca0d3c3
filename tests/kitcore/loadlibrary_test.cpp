// vxl_loaddynamiclibrary: entry points that succeed or refuse, a library
// without one, a missing file, and the system's error text in the trace.
#include "kitcore_support.h"

TEST(LibraryLoading, EveryLoadRunsTheEntryPointOrLogsTheLoadersCodeAndText)
{
    kt::ensureComponents();
    const struct {
        const char *name;
        int32_t status;
        DWORD code; // of the second trace line; 0 for none
    } cases[] = {
        {"tc_components.dll", 0, 0},
        {"tc_initfail.dll", -4, 0}, // the entry point's own failure passes through
        {"tc_noentry.dll", 1, ERROR_PROC_NOT_FOUND},
        {"tc_no_such_library.dll", 1, ERROR_MOD_NOT_FOUND},
        {nullptr, 1, ERROR_INVALID_PARAMETER},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name ? c.name : "(null)");
        std::string lines = kt::fmt("vxl_loaddynamiclibrary(%s)\n", c.name ? c.name : "(null)");
        if (c.code) {
            std::string text = kt::systemText(c.code);
            ASSERT_NE("", text);
            for (char bad : {'.', '\r', '\n'})
                EXPECT_NE(bad, text.back());
            lines += kt::fmt("  %d %s\n", static_cast<int>(c.code), text.c_str());
        }
        int32_t initcalls = tc_getcontrol()->initcalls;
        vxltest::LogTail tail;
        EXPECT_EQ(c.status, vxl_loaddynamiclibrary(c.name));
        EXPECT_EQ(c.status, vxl_loaddynamiclibrary(c.name)) << "the same on a second load";
        EXPECT_EQ(lines + lines, tail.text());
        EXPECT_EQ(initcalls + (c.status ? 0 : 2), tc_getcontrol()->initcalls);
    }
    EXPECT_NE(nullptr, GetModuleHandleA("tc_noentry.dll")) << "a library without entry point stays loaded";
}
