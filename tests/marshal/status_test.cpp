// Kit status <-> HRESULT: the worked table, the known codes, and the ranges
// of component-defined statuses that must survive a round trip.
#include "harness.h"
#include "vexal.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>

namespace {

int32_t st(uint32_t bits) { return static_cast<int32_t>(bits); }
HRESULT hr(uint32_t bits) { return static_cast<HRESULT>(bits); }

} // namespace

TEST(StatusMapping, WorkedTableAndKnownCodesBothWays)
{
    struct Row {
        bool fromStatus; // err2hret(status) == hresult is checked too
        int32_t status;
        uint32_t hresult;
        int32_t back; // hret2err(hresult)
    };
    const Row rows[] = {
        {true, -172, 0x80040154, VXL_ECLASSNOTREG}, // the known code comes before FACILITY_ITF
        {true, -512, 0x80040000, -512},
        {true, -513, 0xFFFFFFFF, VXL_EFAIL},
        {true, st(0x80000000), 0x80040200, st(0x80000000)},
        {true, 4, 0x80004005, VXL_EFAIL},
        {true, 6, 0x80004005, VXL_EFAIL},
        {true, INT32_MAX, 0x80004005, VXL_EFAIL},
        {true, -1, 0x800401FF, -1},
        {true, INT32_MIN + 0xFDFF, 0x8004FFFF, INT32_MIN + 0xFDFF},
        {true, VXL_OK, 0, VXL_OK},
        {true, VXL_EFAIL, 0x80004005, VXL_EFAIL},
        {true, VXL_ENOINTERFACE, 0x80004002, VXL_ENOINTERFACE},
        {true, VXL_ENOMEM, 0x8007000E, VXL_ENOMEM},
        {true, VXL_ECLASSNOTREG, 0x80040154, VXL_ECLASSNOTREG},
        {false, 0, 0x00000001, VXL_EFAIL},      // S_FALSE: a success code, still not VXL_OK
        {false, 0, 0x80070005, VXL_EFAIL},      // E_ACCESSDENIED
        {false, 0, 0x80004001, VXL_EFAIL},      // E_NOTIMPL
        {false, 0, 0x80070057, VXL_EFAIL},      // E_INVALIDARG
        {false, 0, 0x00040200, st(0x80000000)}, // FACILITY_ITF success codes map too
        {false, 0, 0x00040000, -512},
        {false, 0, 0x000401FF, -1},
        {false, 0, 0x80040155, -171},
        {false, 0, 0xA0040000, -512},      // bit 29 lies outside the 13-bit facility field
        {false, 0, 0x90040000, VXL_EFAIL}, // bit 28 lies inside it: facility 0x1004
        {false, 0, 0x80050200, VXL_EFAIL}, // facility 5
    };
    vxltest::LogTail tail;
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message() << row.status << " " << std::hex << row.hresult);
        if (row.fromStatus) {
            EXPECT_EQ(hr(row.hresult), vxl_com_err2hret(row.status));
        }
        EXPECT_EQ(row.back, vxl_com_hret2err(hr(row.hresult)));
    }
    EXPECT_EQ("", tail.text()) << "the mapping traces nothing";
}

TEST(StatusMapping, ComponentStatusesSurviveTheRoundTrip)
{
    int failures = 0;
    for (int32_t e = -1; e >= -512; --e) {
        if (e == -172)
            continue;
        HRESULT h = vxl_com_err2hret(e);
        if ((static_cast<uint32_t>(h) & 0xFFFF0000u) != 0x80040000u || vxl_com_hret2err(h) != e) {
            ADD_FAILURE() << "status " << e;
            if (++failures > 5)
                return;
        }
    }
    for (uint32_t k = 0; k < 0xFE00; ++k) {
        int32_t e = st(0x80000000u + k);
        HRESULT h = vxl_com_err2hret(e);
        if (h != hr(0x80040200u + k) || vxl_com_hret2err(h) != e) {
            ADD_FAILURE() << "status 0x80000000 + " << k;
            if (++failures > 5)
                return;
        }
    }
}
