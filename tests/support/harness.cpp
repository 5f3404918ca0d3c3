#include "harness.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>
#include <vector>

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

std::string programDir()
{
    char path[MAX_PATH];
    std::string exe(path, GetModuleFileNameA(nullptr, path, sizeof path));
    return exe.substr(0, exe.find_last_of("\\/"));
}

static std::string readWhole(const std::string &path, const char *mode)
{
    FILE *f = fopen(path.c_str(), mode);
    if (!f)
        return "";
    std::string text;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;)
        text.append(buf, n);
    fclose(f);
    return text;
}

std::string readLog(const std::string &path)
{
    return readWhole(path, "r");
}

std::string readFile(const std::string &path)
{
    return readWhole(path, "rb");
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

void writeExpected(const std::string &text)
{
    const char *log = getenv("VXLLOGNAME");
    if (FILE *f = fopen((std::string(log ? log : "") + ".expected").c_str(), "w")) {
        fputs(text.c_str(), f);
        fclose(f);
    }
}

std::string childLogAgainstExpected(const char *name, int *exitcode)
{
    std::string log = scratchPath(std::string(name) + ".log");
    scratchPath(std::string(name) + ".log.expected");
    *exitcode = runChild(name, log.c_str());
    std::string expected = readLog(log + ".expected");
    std::string got = readLog(log);
    return expected == got && fileExists(log + ".expected") ? "" : "expected:\n" + expected + "got:\n" + got;
}

bool startProcess(std::string commandline, bool inheritHandles, STARTUPINFOA *si, PROCESS_INFORMATION *pi)
{
    // Starting a process can fail for reasons of the host (a busy machine,
    // Wine's loader short of memory), which is not what any test examines:
    // a start is tried a few times, and a final failure names the error.
    DWORD error = 0;
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (attempt)
            Sleep(200 * attempt);
        if (CreateProcessA(nullptr, &commandline[0], nullptr, nullptr, inheritHandles, 0, nullptr, nullptr, si, pi))
            return true;
        error = GetLastError();
    }
    fprintf(stderr, "%s: CreateProcessA failed with error %lu\n", commandline.c_str(), error);
    return false;
}

int runChild(const char *name, const char *logname, unsigned long timeout)
{
    char saved[1024];
    DWORD had = GetEnvironmentVariableA("VXLLOGNAME", saved, sizeof saved);
    SetEnvironmentVariableA("VXLLOGNAME", logname);

    char path[MAX_PATH];
    std::string cmd = "\"" + std::string(path, GetModuleFileNameA(nullptr, path, sizeof path)) +
                      "\" --vxl-child=" + name;
    STARTUPINFOA si = {};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi = {};
    bool ok = startProcess(cmd, false, &si, &pi);
    SetEnvironmentVariableA("VXLLOGNAME", had ? saved : nullptr);
    if (!ok)
        return -1;
    DWORD code = kChildTimedOut;
    if (WaitForSingleObject(pi.hProcess, timeout) == WAIT_OBJECT_0) {
        GetExitCodeProcess(pi.hProcess, &code);
    } else {
        fprintf(stderr, "child %s: still running after %lu ms, stopped\n", name, timeout);
        TerminateProcess(pi.hProcess, kChildTimedOut);
        WaitForSingleObject(pi.hProcess, INFINITE);
    }
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return static_cast<int>(code);
}

void runTogether(int count, const std::function<void(int)> &body)
{
    HANDLE start = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < count; ++t)
        threads.emplace_back([&, t] {
            WaitForSingleObject(start, INFINITE);
            body(t);
        });
    SetEvent(start);
    for (std::thread &t : threads)
        t.join();
    CloseHandle(start);
}

} // namespace vxltest
