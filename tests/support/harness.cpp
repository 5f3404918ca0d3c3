#include "harness.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

namespace vxltest {

std::map<std::string, ChildFn> &childRegistry()
{
    static std::map<std::string, ChildFn> registry;
    return registry;
}

ChildRegistrar::ChildRegistrar(const char *name, ChildFn fn)
{
    childRegistry()[name] = fn;
}

std::string programPath()
{
    char path[MAX_PATH];
    DWORD n = GetModuleFileNameA(nullptr, path, sizeof path);
    return std::string(path, n);
}

std::string programDir()
{
    std::string path = programPath();
    return path.substr(0, path.find_last_of("\\/"));
}

static std::string readWhole(const std::string &path, const char *mode)
{
    FILE *f = fopen(path.c_str(), mode);
    if (!f)
        return "";
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        text.append(buf, n);
    fclose(f);
    return text;
}

std::string readFile(const std::string &path)
{
    return readWhole(path, "rb");
}

std::string readLog(const std::string &path)
{
    return readWhole(path, "r");
}

bool fileExists(const std::string &path)
{
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string scratchPath(const std::string &name)
{
    std::string dir = programDir() + "\\scratch";
    CreateDirectoryA(dir.c_str(), nullptr);
    std::string path = dir + "\\" + name;
    DeleteFileA(path.c_str());
    return path;
}

LogTail::LogTail() : start_(readLog(logPath()).size()) {}

std::string LogTail::text() const
{
    std::string all = readLog(logPath());
    return all.size() > start_ ? all.substr(start_) : std::string();
}

std::string expectedPath()
{
    const char *log = getenv("VXLLOGNAME");
    return std::string(log ? log : "") + ".expected";
}

void writeExpected(const std::string &text)
{
    FILE *f = fopen(expectedPath().c_str(), "w");
    if (!f)
        return;
    fputs(text.c_str(), f);
    fclose(f);
}

int runChild(const char *name, const char *logname)
{
    char saved[1024];
    DWORD had = GetEnvironmentVariableA("VXLLOGNAME", saved, sizeof saved);
    SetEnvironmentVariableA("VXLLOGNAME", logname);

    std::string cmd = "\"" + programPath() + "\" --vxl-child=" + name;
    STARTUPINFOA si = {};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi = {};
    BOOL ok = CreateProcessA(nullptr, &cmd[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi);
    SetEnvironmentVariableA("VXLLOGNAME", had ? saved : nullptr);
    if (!ok)
        return -1;
    WaitForSingleObject(pi.hProcess, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(pi.hProcess, &code);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return static_cast<int>(code);
}

} // namespace vxltest
