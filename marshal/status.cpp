// Kit status <-> HRESULT. Component-defined (negative) statuses travel as
// FACILITY_ITF codes: -1 .. -512 and 0x80000000 + k (k < 0xFE00) come back
// unchanged, except -172, whose code is REGDB_E_CLASSNOTREG.
#include "core/kit.h"

#include <windows.h>

namespace {

// The kit's own errors and the HRESULTs they stand for, one list for both
// directions (tested before the facility rule one way, after the sign rule
// the other way).
#define VXL_KNOWN_STATUSES(X)                                                                       \
    X(VXL_ENOINTERFACE, E_NOINTERFACE)                                                             \
    X(VXL_EFAIL, E_FAIL)                                                                           \
    X(VXL_ECLASSNOTREG, REGDB_E_CLASSNOTREG)                                                       \
    X(VXL_ENOMEM, E_OUTOFMEMORY)

struct KnownStatus {
    int32_t status;
    HRESULT hresult;
};

#define VXL_KNOWN_ROW(status, hresult) {status, static_cast<HRESULT>(hresult)},
constexpr KnownStatus kKnown[] = {VXL_KNOWN_STATUSES(VXL_KNOWN_ROW)};
#undef VXL_KNOWN_ROW
static_assert(sizeof kKnown / sizeof kKnown[0] == 4, "four kit errors have an HRESULT of their own");

constexpr uint32_t kFacilityItf = 4;
constexpr uint32_t kItfBase = 0x200; // first code of the interface-defined range
constexpr uint32_t kItfError = 0x80040000;

} // namespace

int32_t vxl_com_hret2err(HRESULT hr)
{
    if (hr == S_OK)
        return VXL_OK;
    for (const KnownStatus &known : kKnown)
        if (known.hresult == hr)
            return known.status;
    uint32_t code = static_cast<uint32_t>(hr);
    if (((code >> 16) & 0x1FFF) == kFacilityItf) // success codes of the facility too
        return static_cast<int32_t>(((code & 0xFFFF) - kItfBase) | 0x80000000u);
    return VXL_EFAIL; // S_FALSE and every other code
}

HRESULT vxl_com_err2hret(int32_t status)
{
    if (status == VXL_OK)
        return S_OK;
    if (status < 0) {
        uint32_t code = ((static_cast<uint32_t>(status) & 0x7FFFFFFF) + kItfBase) | kItfError;
        return static_cast<HRESULT>(code);
    }
    for (const KnownStatus &known : kKnown)
        if (known.status == status)
            return known.hresult;
    return E_FAIL; // 4 and every other positive status
}
