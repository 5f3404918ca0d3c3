// Narrow strings, BSTRs and task-memory strings across the kit/COM boundary.
// None of these keeps state or takes a lock: they run on any thread, inside
// any lock of the caller.
#include "core/kit.h"

#include <windows.h>
#include <oleauto.h>

#include <climits>
#include <cstring>

namespace {

// The code page and flags of both directions; a round trip of any text the
// ANSI code page can hold gives back the same bytes.
constexpr UINT kCodePage = CP_ACP;
constexpr DWORD kToWideFlags = MB_PRECOMPOSED;
constexpr DWORD kToNarrowFlags = WC_COMPOSITECHECK | WC_DISCARDNS;
static_assert(kToWideFlags == 1 && kToNarrowFlags == 0x210, "conversion flags of the string functions");

} // namespace

BSTR vxl_com_str2bstr(const char *string)
{
    if (!string)
        return nullptr;
    // The count includes the terminator (input length -1), so an empty
    // string asks for 1 and becomes a BSTR of length 0.
    int wide = MultiByteToWideChar(kCodePage, kToWideFlags, string, -1, nullptr, 0);
    if (wide <= 0)
        return nullptr;
    BSTR bstr = SysAllocStringLen(nullptr, static_cast<UINT>(wide - 1));
    if (!bstr)
        return nullptr;
    if (MultiByteToWideChar(kCodePage, kToWideFlags, string, -1, bstr, wide) == 0) {
        SysFreeString(bstr);
        return nullptr;
    }
    return bstr;
}

char *vxl_com_bstr2str(BSTR bstr)
{
    if (!bstr)
        return nullptr;
    // The BSTR's own terminator is converted too, so the result is always
    // NUL-terminated; an embedded NUL simply ends the narrow string early.
    UINT length = SysStringLen(bstr);
    if (length >= static_cast<UINT>(INT_MAX))
        return nullptr;
    int count = static_cast<int>(length) + 1;
    int bytes = WideCharToMultiByte(kCodePage, kToNarrowFlags, bstr, count, nullptr, 0, nullptr, nullptr);
    if (bytes <= 0)
        return nullptr;
    char *string = static_cast<char *>(vxl_malloc(bytes));
    if (!string)
        return nullptr;
    if (WideCharToMultiByte(kCodePage, kToNarrowFlags, bstr, count, string, bytes, nullptr, nullptr) == 0) {
        vxl_free(string);
        return nullptr;
    }
    return string;
}

void vxl_com_freebstr(BSTR bstr)
{
    if (bstr)
        SysFreeString(bstr);
}

char *vxl_com_strdup(const char *string)
{
    if (!string)
        return nullptr;
    size_t size = strlen(string) + 1;
    char *copy = static_cast<char *>(CoTaskMemAlloc(size));
    if (copy)
        memcpy(copy, string, size);
    return copy;
}

void vxl_com_free(void *block)
{
    if (block)
        CoTaskMemFree(block);
}

int32_t vxl_com_release(IUnknown *punk)
{
    if (punk)
        punk->Release();
    return 0;
}
