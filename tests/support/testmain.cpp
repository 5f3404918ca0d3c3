// Entry point of every test program. "--vxl-child=NAME" runs one child
// function instead of the tests; otherwise the process traces to a log of
// its own, named after the program, so tests can read exact log bytes.
#include "harness.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <map>

namespace vxltest {
std::map<std::string, ChildFn> &childRegistry();

static std::string g_logpath;
const std::string &logPath()
{
    return g_logpath;
}
} // namespace vxltest

int main(int argc, char **argv)
{
    static const char childFlag[] = "--vxl-child=";
    for (int i = 1; i < argc; ++i) {
        if (strncmp(argv[i], childFlag, sizeof childFlag - 1) == 0) {
            auto &registry = vxltest::childRegistry();
            auto it = registry.find(argv[i] + sizeof childFlag - 1);
            return it == registry.end() ? 100 : it->second();
        }
    }

    char exe[MAX_PATH];
    GetModuleFileNameA(nullptr, exe, sizeof exe);
    std::string base = exe;
    base = base.substr(base.find_last_of("\\/") + 1);
    base = base.substr(0, base.find_last_of('.'));
    vxltest::g_logpath = vxltest::scratchPath(base + ".log");
    // _putenv updates both the C runtime's copy, which getenv reads, and
    // the process environment, which child processes inherit.
    _putenv(("VXLLOGNAME=" + vxltest::g_logpath).c_str());

    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
