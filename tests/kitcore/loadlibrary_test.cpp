// vxl_loaddynamiclibrary: entry points that succeed or refuse, a library
// without one, a missing file, and the system's error text in the trace.
#include "kitcore_support.h"

#include <gtest/gtest.h>
#include <windows.h>

namespace {

// The system's message for code, as the trace must show it.
std::string systemText(DWORD code)
{
    char raw[1024] = "";
    DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, raw,
                             sizeof raw, nullptr);
    std::string text(raw, n);
    for (char end : {'\n', '\r', '.'})
        if (text.size() > 0 && n > 3 && text.back() == end)
            text.pop_back();
    return text;
}

} // namespace

TEST(LibraryLoading, EntryPointResultIsReturnedAndRunsOnEveryLoad)
{
    kt::ensureComponents();
    int32_t before = tc_getcontrol()->initcalls;
    vxltest::LogTail tail;
    EXPECT_EQ(0, vxl_loaddynamiclibrary("tc_components.dll"));
    EXPECT_EQ(0, vxl_loaddynamiclibrary("tc_components.dll"));
    EXPECT_EQ(before + 2, tc_getcontrol()->initcalls);
    EXPECT_EQ("vxl_loaddynamiclibrary(tc_components.dll)\nvxl_loaddynamiclibrary(tc_components.dll)\n",
              tail.text());
}

TEST(LibraryLoading, ComponentDefinedFailureOfTheEntryPointPassesThrough)
{
    vxltest::LogTail tail;
    EXPECT_EQ(-4, vxl_loaddynamiclibrary("tc_initfail.dll"));
    EXPECT_EQ("vxl_loaddynamiclibrary(tc_initfail.dll)\n", tail.text());
}

TEST(LibraryLoading, LibraryWithoutEntryPointIsOneAndStaysLoaded)
{
    std::string text = systemText(ERROR_PROC_NOT_FOUND);
    ASSERT_NE("", text);
    const std::string lines = "vxl_loaddynamiclibrary(tc_noentry.dll)\n  127 " + text + "\n";
    vxltest::LogTail tail;
    EXPECT_EQ(1, vxl_loaddynamiclibrary("tc_noentry.dll"));
    EXPECT_NE(nullptr, GetModuleHandleA("tc_noentry.dll")) << "not unloaded";
    EXPECT_EQ(1, vxl_loaddynamiclibrary("tc_noentry.dll"));
    EXPECT_EQ(lines + lines, tail.text());
}

TEST(LibraryLoading, MissingFileLogsTheLoadersCodeAndText)
{
    std::string text = systemText(ERROR_MOD_NOT_FOUND);
    ASSERT_NE("", text);
    for (char bad : {'.', '\r', '\n'})
        EXPECT_NE(bad, text.back());
    vxltest::LogTail tail;
    EXPECT_EQ(1, vxl_loaddynamiclibrary("tc_no_such_library.dll"));
    EXPECT_EQ("vxl_loaddynamiclibrary(tc_no_such_library.dll)\n  126 " + text + "\n", tail.text());
}

TEST(LibraryLoading, NullNameLoadsNothing)
{
    vxltest::LogTail tail;
    EXPECT_EQ(1, vxl_loaddynamiclibrary(nullptr));
    EXPECT_EQ("vxl_loaddynamiclibrary((null))\n  87 " + systemText(ERROR_INVALID_PARAMETER) + "\n", tail.text());
}
