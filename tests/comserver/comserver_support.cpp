#include "comserver_support.h"

#include "harness.h"

namespace vxltest {

static void dumpOpenKey(HKEY key, const std::string &path, std::string *out)
{
    *out += "[" + path + "]\n";
    char name[1024], data[1024];
    for (DWORD i = 0;; ++i) {
        DWORD namelen = sizeof name, datalen = sizeof data, type = 0;
        if (RegEnumValueA(key, i, name, &namelen, nullptr, &type, reinterpret_cast<BYTE *>(data), &datalen))
            break;
        std::string text;
        for (DWORD k = 0; k < datalen; ++k)
            text += data[k] ? std::string(1, data[k]) : std::string("\\0");
        *out += std::string(name, namelen) + "=" + std::to_string(type) + ":" + text + "\n";
    }
    for (DWORD i = 0;; ++i) {
        DWORD namelen = sizeof name;
        if (RegEnumKeyExA(key, i, name, &namelen, nullptr, nullptr, nullptr, nullptr))
            break;
        HKEY sub = nullptr;
        if (RegOpenKeyExA(key, name, 0, KEY_READ, &sub) == ERROR_SUCCESS) {
            dumpOpenKey(sub, path + "\\" + name, out);
            RegCloseKey(sub);
        }
    }
}

std::string dumpKey(HKEY root, const std::string &path)
{
    HKEY key = nullptr;
    if (RegOpenKeyExA(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return "";
    std::string out;
    dumpOpenKey(key, path, &out);
    RegCloseKey(key);
    return out;
}

int runProgram(const std::string &commandline, std::string *output)
{
    // A file of its own for each program: helper processes that Wine starts
    // on the way (rpcss, services) inherit the handle and may keep it open.
    static int runs = 0;
    std::string outpath = scratchPath("program-output-" + std::to_string(++runs) + ".txt");
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    HANDLE file = CreateFileA(outpath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                              CREATE_ALWAYS, 0, nullptr);
    STARTUPINFOA si = {};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    si.hStdOutput = si.hStdError = file;
    PROCESS_INFORMATION pi = {};
    bool started = startProcess(commandline, true, &si, &pi);
    CloseHandle(file);
    if (!started)
        return -1;
    WaitForSingleObject(pi.hProcess, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(pi.hProcess, &code);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    if (output)
        *output = readFile(outpath);
    return static_cast<int>(code);
}

} // namespace vxltest
