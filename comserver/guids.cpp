// The three text forms of a GUID: the registry's (upper case, in braces, as
// COM writes it), the trace log's (lower case, bare) and the one read back
// from the registry (either case).
#include "comserver/server.h"

#include <objbase.h>

#include <cstdio>
#include <cstdlib>

void vxl_com_guidtext(REFGUID guid, char (&text)[VXL_GUIDTEXT_SIZE])
{
    text[0] = '\0';
    LPOLESTR wide = nullptr;
    if (FAILED(StringFromCLSID(guid, &wide)))
        return;
    size_t n = wcstombs(text, wide, VXL_GUIDTEXT_SIZE);
    if (n == static_cast<size_t>(-1) || n >= VXL_GUIDTEXT_SIZE)
        text[0] = '\0';
    CoTaskMemFree(wide);
}

void vxl_com_logguid(REFGUID guid, const char *suffix)
{
    const unsigned char *b = guid.Data4;
    vxl_log("%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x%s", static_cast<unsigned>(guid.Data1), guid.Data2,
            guid.Data3, b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], suffix);
}

void vxl_com_parseguid(const char *text, GUID *guid)
{
    unsigned f[11] = {};
    sscanf(text, "{%8x-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x}", &f[0], &f[1], &f[2], &f[3], &f[4], &f[5], &f[6],
           &f[7], &f[8], &f[9], &f[10]);
    guid->Data1 = f[0];
    guid->Data2 = static_cast<unsigned short>(f[1]);
    guid->Data3 = static_cast<unsigned short>(f[2]);
    for (int i = 0; i < 8; ++i)
        guid->Data4[i] = static_cast<unsigned char>(f[3 + i]);
}
