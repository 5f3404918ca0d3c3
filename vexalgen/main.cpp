// vexalgen: generates the C++ between a component library's IDL and its
// own methods, from the type library widl compiles the IDL into.
//
//   vexalgen [--module <file name>] <input.tlb> <output folder>
//
// writes <stem>_vexal.h, <stem>_vexal.cpp and <stem>_vexal.def: all three,
// or, after any error, none (the files there before stay as they were).
#include "writer.h"

#include <windows.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

int usage()
{
    fprintf(stderr, "usage: vexalgen [--module <file name>] <input.tlb> <output folder>\n");
    return 2;
}

// A damaged type library can take oleaut32's reader down; nothing has been
// written at that point, so the run ends with the same clear error as any
// other bad input.
const char *g_input = "";
LONG WINAPI damagedInput(EXCEPTION_POINTERS *)
{
    fprintf(stderr, "vexalgen: %s: cannot read the type library: it is damaged\n", g_input);
    fflush(stderr);
    ExitProcess(1);
}

struct Pending {
    std::string path, temporary, backup, text;
    bool placed = false;
};

// All files or none: each is written under a temporary name, then the old
// files are moved aside and the new ones put in their place; a failure on
// the way puts every old file back.
bool writeAll(std::vector<Pending> &files, std::string &error)
{
    std::string suffix = std::to_string(GetCurrentProcessId());
    bool ok = true;
    for (Pending &f : files) {
        f.temporary = f.path + ".tmp" + suffix;
        f.backup = f.path + ".old" + suffix;
        std::ofstream out(f.temporary, std::ios::binary | std::ios::trunc);
        out << f.text;
        out.close();
        if (!out) {
            error = "cannot write " + f.temporary;
            ok = false;
            break;
        }
    }
    for (Pending &f : files) {
        if (!ok)
            break;
        DWORD attributes = GetFileAttributesA(f.path.c_str());
        bool moved = attributes == INVALID_FILE_ATTRIBUTES
                         ? GetLastError() == ERROR_FILE_NOT_FOUND
                         : !(attributes & FILE_ATTRIBUTE_DIRECTORY) &&
                               MoveFileExA(f.path.c_str(), f.backup.c_str(), MOVEFILE_REPLACE_EXISTING);
        if (!moved || !MoveFileExA(f.temporary.c_str(), f.path.c_str(), 0)) {
            MoveFileExA(f.backup.c_str(), f.path.c_str(), 0);
            error = "cannot replace " + f.path;
            ok = false;
            break;
        }
        f.placed = true;
    }
    for (Pending &f : files) {
        if (!ok && f.placed) {
            DeleteFileA(f.path.c_str());
            MoveFileExA(f.backup.c_str(), f.path.c_str(), 0);
        }
        DeleteFileA(f.temporary.c_str());
        DeleteFileA(f.backup.c_str());
    }
    return ok;
}

} // namespace

int main(int argc, char **argv)
{
    std::string module, input, folder;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--module" && i + 1 < argc)
            module = argv[++i];
        else if (arg.size() > 1 && arg[0] == '-')
            return usage();
        else if (input.empty())
            input = arg;
        else if (folder.empty())
            folder = arg;
        else
            return usage();
    }
    if (input.empty() || folder.empty())
        return usage();

    vexalgen::Output out;
    size_t slash = input.find_last_of("/\\");
    out.stem = input.substr(slash == std::string::npos ? 0 : slash + 1);
    size_t dot = out.stem.find_last_of('.');
    if (dot != std::string::npos)
        out.stem.resize(dot);
    out.module = module.empty() ? out.stem + ".dll" : module;

    g_input = input.c_str();
    SetUnhandledExceptionFilter(damagedInput);
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    vexalgen::Library library;
    std::string error;
    bool read = vexalgen::readTypeLibrary(input, library, error);
    CoUninitialize();
    if (!read) {
        fprintf(stderr, "vexalgen: %s: %s\n", input.c_str(), error.c_str());
        return 1;
    }
    vexalgen::writeHeader(library, out);
    vexalgen::writeSource(library, out);
    vexalgen::writeDefinition(library, out);

    for (char &c : folder)
        c = c == '/' ? '\\' : c;
    std::string base = folder + (folder.back() == '\\' ? "" : "\\") + out.stem + "_vexal";
    std::vector<Pending> files(3);
    files[0].path = base + ".h";
    files[0].text = out.header;
    files[1].path = base + ".cpp";
    files[1].text = out.source;
    files[2].path = base + ".def";
    files[2].text = out.definition;
    if (!writeAll(files, error)) {
        fprintf(stderr, "vexalgen: %s\n", error.c_str());
        return 1;
    }
    return 0;
}
