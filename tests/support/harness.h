// Test harness shared by every test program: the trace log of this process,
// child processes for per-process behaviour, and small file helpers.
#pragma once

#include <functional>
#include <string>

struct _STARTUPINFOA;
struct _PROCESS_INFORMATION;

namespace vxltest {

// Path of the trace log this test process writes (set up before any test).
const std::string &logPath();
// A trace log as its messages were written: the log is a text-mode stream,
// which the C runtime stores with CR LF line ends. "" when unreadable.
std::string readLog(const std::string &path);
// A file's bytes as they are (line ends included). "" when unreadable.
std::string readFile(const std::string &path);
bool fileExists(const std::string &path);
// A fresh path in the test scratch folder; the file is removed if present.
std::string scratchPath(const std::string &name);
// Folder holding this test program (and the DLLs built with it).
std::string programDir();

// The bytes the trace log gains from construction on.
class LogTail {
public:
    LogTail();
    std::string text() const;

private:
    size_t start_;
};

// Runs this program again as a child that executes the child function of
// that name (see VXL_CHILD) and returns its exit code: -1 when it could not
// be started, kChildTimedOut when it was stopped after timeout milliseconds.
// logname is what the child sees in VXLLOGNAME; null leaves it unset.
constexpr int kChildTimedOut = 0x7ead;
// CreateProcessA(commandline), tried again a few times when the host
// refuses to start it; false, with the error on stderr, after the last try.
bool startProcess(std::string commandline, bool inheritHandles, _STARTUPINFOA *si, _PROCESS_INFORMATION *pi);
int runChild(const char *name, const char *logname, unsigned long timeout = 0xFFFFFFFF);
// A child that knows its expected log only at run time (addresses) writes
// it next to its log; this runs the child and compares the two.
void writeExpected(const std::string &text);
std::string childLogAgainstExpected(const char *name, int *exitcode);

// Runs body(0) .. body(count - 1) on count threads that all wait for one
// starting signal, given once every thread exists: the threads meet at
// once, without spinning, every time.
void runTogether(int count, const std::function<void(int)> &body);

using ChildFn = int (*)();
struct ChildRegistrar {
    ChildRegistrar(const char *name, ChildFn fn);
};

} // namespace vxltest

// Defines a function that runs as a child process: its result is the exit code.
#define VXL_CHILD(name)                                                                            \
    static int vxlchild_##name();                                                                  \
    static vxltest::ChildRegistrar vxlchildreg_##name(#name, vxlchild_##name);                     \
    static int vxlchild_##name()
