// Loading component libraries by file name and running their "vxl_dll_init"
// entry point. Libraries are never unloaded: their definitions, functions
// and stubs may be in use for the rest of the process.
#include "kit.h"

#include <windows.h>

#include <cerrno>
#include <cstring>

int32_t vxl_errortext(char *buffer, int32_t size)
{
    if (!buffer || size <= 0)
        return 0;
    buffer[0] = '\0';
    DWORD code = GetLastError();
    if (code != 0) {
        DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0,
                                      buffer, static_cast<DWORD>(size), nullptr);
        if (length == 0) {
            buffer[0] = '\0';
            return 0;
        }
        // System messages end in ".\r\n"; a log line wants the bare text.
        if (length > 3) {
            if (buffer[length - 1] == '\n')
                --length;
            if (buffer[length - 1] == '\r')
                --length;
            if (buffer[length - 1] == '.')
                --length;
            buffer[length] = '\0';
        }
        return static_cast<int32_t>(length);
    }
    if (errno != 0) {
        const char *text = strerror(errno);
        size_t length = text ? strlen(text) : 0;
        if (length > static_cast<size_t>(size - 1))
            length = static_cast<size_t>(size - 1);
        if (length)
            memcpy(buffer, text, length);
        buffer[length] = '\0';
        return static_cast<int32_t>(length);
    }
    return 0;
}

int32_t vxl_loaddynamiclibrary(const char *filename)
{
    vxl_log("vxl_loaddynamiclibrary(%s)\n", filename);
    FARPROC entry = nullptr;
    if (filename) {
        HMODULE library = LoadLibraryA(filename);
        if (library)
            entry = GetProcAddress(library, "vxl_dll_init");
    } else {
        SetLastError(ERROR_INVALID_PARAMETER);
    }
    if (entry)
        return reinterpret_cast<int32_t (*)()>(reinterpret_cast<void *>(entry))();
    DWORD code = GetLastError();
    char text[1024];
    vxl_errortext(text, sizeof text);
    vxl_log("  %d %s\n", static_cast<int>(code), text);
    return 1;
}
