// vexalgen: generates the C++ between a component library's IDL and its
// own methods, from the type library widl compiles the IDL into.
//
//   vexalgen [--module <file name>] <input.tlb> <output folder>
//
// writes <stem>_vexal.h, <stem>_vexal.cpp and <stem>_vexal.def. Files are
// written under temporary names and renamed only when all three are
// complete; a file whose content would not change is left untouched, so a
// build does not recompile what did not change.
#include "writer.h"

#include <windows.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

int usage()
{
    fprintf(stderr, "usage: vexalgen [--module <file name>] <input.tlb> <output folder>\n");
    return 2;
}

bool sameContent(const std::string &path, const std::string &text)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::ostringstream content;
    content << in.rdbuf();
    return content.str() == text;
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
    std::string path, temporary, text;
};

bool writeAll(std::vector<Pending> &files, std::string &error)
{
    bool ok = true;
    for (Pending &f : files) {
        if (sameContent(f.path, f.text))
            continue;
        f.temporary = f.path + ".tmp" + std::to_string(GetCurrentProcessId());
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
        if (f.temporary.empty())
            continue;
        if (ok && !MoveFileExA(f.temporary.c_str(), f.path.c_str(), MOVEFILE_REPLACE_EXISTING)) {
            error = "cannot replace " + f.path;
            ok = false;
        }
        DeleteFileA(f.temporary.c_str());
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

    std::string base = folder + "/" + out.stem + "_vexal";
    std::vector<Pending> files = {{base + ".h", "", out.header}, {base + ".cpp", "", out.source},
                                  {base + ".def", "", out.definition}};
    if (!writeAll(files, error)) {
        fprintf(stderr, "vexalgen: %s\n", error.c_str());
        return 1;
    }
    return 0;
}
