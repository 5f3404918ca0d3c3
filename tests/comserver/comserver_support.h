// Helpers of the COM server tests: registry subtrees as text and programs
// run with their output captured.
#pragma once

#include <windows.h>

#include <string>

namespace vxltest {

// root\path and everything under it, one line per key and per value
// ("name=type:data", a NUL
// in the data shown as "\\0"), subkeys in the registry's order; "" when absent.
std::string dumpKey(HKEY root, const std::string &path);

// A REG_SZ value's data as dumpKey shows it.
inline std::string sz(const std::string &text)
{
    return "1:" + text + "\\0\n";
}

// Runs a command line, waits for it and returns its exit code (-1 when it
// cannot start); its standard output and error end up in *output.
int runProgram(const std::string &commandline, std::string *output = nullptr);

} // namespace vxltest
