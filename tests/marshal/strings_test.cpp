// Strings across the kit/COM boundary, and kit statuses as HRESULTs.
#include "datamarshal.h"

#include <string>

using namespace dm;

TEST(Strings, RoundTripsThroughTheAnsiCodePage)
{
    ASSERT_EQ(1252u, GetACP()) << "the expected characters below are those of code page 1252";
    std::string printable;
    for (int c = 0x20; c <= 0xFF; ++c)
        printable += static_cast<char>(c);
    const struct {
        std::string narrow;
        const wchar_t *wide; // null: only the length is known
    } cases[] = {{"", L""}, {"a", L"a"}, {"caf\xe9 \x80 5", L"caf\u00e9 \u20ac 5"}, {"\x9f\xff\xa0", L"\u0178\u00ff\u00a0"},
                 {printable, nullptr}};
    vxltest::LogTail tail;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.narrow);
        BSTR b = vxl_com_str2bstr(c.narrow.c_str());
        ASSERT_NE(nullptr, b); // "" is an empty BSTR, not null
        EXPECT_TRUE(SysStringLen(b) == c.narrow.size() && !b[c.narrow.size()] && (!c.wide || !wcscmp(c.wide, b)));
        char *back = vxl_com_bstr2str(b), *task = vxl_com_strdup(c.narrow.c_str());
        EXPECT_EQ(c.narrow, back);
        EXPECT_TRUE(c.narrow == task && taskSize(task) == c.narrow.size() + 1);
        vxl_free(back), vxl_com_freebstr(b), vxl_com_free(task);
    }
    BSTR nul = SysAllocStringLen(L"ab\0cd", 5); // an embedded NUL ends the narrow string
    char *s = vxl_com_bstr2str(nul);
    EXPECT_STREQ("ab", s);
    vxl_free(s), SysFreeString(nul);
    EXPECT_TRUE(!vxl_com_str2bstr(nullptr) && !vxl_com_bstr2str(nullptr) && !vxl_com_strdup(nullptr));
    vxl_com_freebstr(nullptr), vxl_com_free(nullptr);
    EXPECT_EQ(0, vxl_com_release(nullptr));
    EXPECT_EQ("", tail.text()); // none of them traces
}

TEST(Status, KnownCodesAndTheWorkedTableBothWays)
{
    const struct {
        bool fromStatus; // err2hret(status) == hresult is checked too
        int32_t status;
        uint32_t hresult;
        int32_t back; // hret2err(hresult)
    } rows[] = {
        {true, VXL_OK, 0, VXL_OK},
        {true, VXL_EFAIL, 0x80004005, VXL_EFAIL},
        {true, VXL_ENOINTERFACE, 0x80004002, VXL_ENOINTERFACE},
        {true, VXL_ENOMEM, 0x8007000E, VXL_ENOMEM},
        {true, VXL_ECLASSNOTREG, 0x80040154, VXL_ECLASSNOTREG},
        {true, -172, 0x80040154, VXL_ECLASSNOTREG}, // the known code comes before FACILITY_ITF
        {true, -513, 0xFFFFFFFF, VXL_EFAIL},
        {true, 4, 0x80004005, VXL_EFAIL},
        {true, INT32_MAX, 0x80004005, VXL_EFAIL},
        {false, 0, 0x00000001, VXL_EFAIL},            // S_FALSE: a success code, still not VXL_OK
        {false, 0, 0x80070057, VXL_EFAIL},            // E_INVALIDARG, as every other code
        {false, 0, 0x00040200, INT32_MIN},            // FACILITY_ITF success codes map too
        {false, 0, 0xA0040000, -512},                 // bit 29 lies outside the 13-bit facility field
        {false, 0, 0x90040000, VXL_EFAIL},            // bit 28 lies inside it: facility 0x1004
        {false, 0, 0x80050200, VXL_EFAIL},            // facility 5
    };
    vxltest::LogTail tail;
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.status << " " << std::hex << row.hresult);
        EXPECT_TRUE(!row.fromStatus || vxl_com_err2hret(row.status) == static_cast<HRESULT>(row.hresult));
        EXPECT_EQ(row.back, vxl_com_hret2err(static_cast<HRESULT>(row.hresult)));
    }
    EXPECT_EQ("", tail.text()); // the mapping traces nothing
}

// -512 .. -1 and 0x80000000 + 0 .. 0xFDFF become 0x80040200 + k and come
// back unchanged (but for -172, whose code is REGDB_E_CLASSNOTREG).
TEST(Status, ComponentStatusesSurviveTheRoundTrip)
{
    int failures = 0;
    for (int32_t k = -512; k < 0xFE00 && failures < 5; ++k) {
        int32_t status = k < 0 ? k : INT32_MIN + k;
        HRESULT h = vxl_com_err2hret(status);
        if (h != static_cast<HRESULT>(0x80040200u + k) || (k != -172 && vxl_com_hret2err(h) != status)) {
            ADD_FAILURE() << "status " << status;
            ++failures;
        }
    }
}
