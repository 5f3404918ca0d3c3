// BSTRs, narrow strings in kit memory and task-memory strings: round trips
// through the ANSI code page, empty and null inputs, embedded NULs, and
// vxl_com_release on a counting COM object.
#include "harness.h"
#include "vexal.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string>

namespace {

std::wstring bstrText(BSTR b)
{
    return std::wstring(b, SysStringLen(b));
}

// A COM object that only counts: every AddRef and Release is recorded.
class CountingUnknown : public IUnknown {
public:
    ULONG refs = 1;
    int releases = 0;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        if (!out)
            return E_POINTER;
        *out = nullptr;
        if (!IsEqualIID(iid, IID_IUnknown))
            return E_NOINTERFACE;
        *out = this;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        ++releases;
        return --refs;
    }
};

} // namespace

TEST(Strings, NullInputsGiveNullOrDoNothing)
{
    vxltest::LogTail tail;
    EXPECT_EQ(nullptr, vxl_com_str2bstr(nullptr));
    EXPECT_EQ(nullptr, vxl_com_bstr2str(nullptr));
    EXPECT_EQ(nullptr, vxl_com_strdup(nullptr));
    vxl_com_freebstr(nullptr);
    vxl_com_free(nullptr);
    EXPECT_EQ(0, vxl_com_release(nullptr));
    EXPECT_EQ("", tail.text()); // none of the string functions traces
}

TEST(Strings, EmptyStringIsAnEmptyBstrNotNull)
{
    BSTR b = vxl_com_str2bstr("");
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(0u, SysStringLen(b));
    EXPECT_EQ(L'\0', b[0]);
    char *back = vxl_com_bstr2str(b);
    ASSERT_NE(nullptr, back);
    EXPECT_STREQ("", back);
    vxl_free(back);
    vxl_com_freebstr(b);

    BSTR empty = SysAllocStringLen(nullptr, 0);
    char *s = vxl_com_bstr2str(empty);
    ASSERT_NE(nullptr, s);
    EXPECT_EQ('\0', s[0]);
    vxl_free(s);
    SysFreeString(empty);
}

TEST(Strings, RoundTripsThroughTheAnsiCodePage)
{
    ASSERT_EQ(1252u, GetACP()) << "the expected characters below are those of code page 1252";
    struct Case {
        const char *narrow;
        std::wstring wide;
    };
    const Case cases[] = {
        {"a", L"a"},
        {"Hello, COM world!", L"Hello, COM world!"},
        {"\xe9\xfc\x80", L"\u00e9\u00fc\u20ac"},
        {"caf\xe9 \x80 5", L"caf\u00e9 \u20ac 5"},
        {"\x9f\xff\xa0", L"\u0178\u00ff\u00a0"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.narrow);
        BSTR b = vxl_com_str2bstr(c.narrow);
        ASSERT_NE(nullptr, b);
        EXPECT_EQ(c.wide, bstrText(b));
        EXPECT_EQ(L'\0', b[SysStringLen(b)]);
        char *back = vxl_com_bstr2str(b);
        ASSERT_NE(nullptr, back);
        EXPECT_STREQ(c.narrow, back);
        vxl_free(back);
        vxl_com_freebstr(b);
    }
}

TEST(Strings, EveryPrintableByteRoundTrips)
{
    std::string all;
    for (int c = 0x20; c <= 0xFF; ++c)
        all += static_cast<char>(c);
    BSTR b = vxl_com_str2bstr(all.c_str());
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(all.size(), SysStringLen(b));
    char *back = vxl_com_bstr2str(b);
    ASSERT_NE(nullptr, back);
    EXPECT_EQ(all, std::string(back));
    vxl_free(back);
    vxl_com_freebstr(b);
}

TEST(Strings, EmbeddedNulEndsTheNarrowString)
{
    BSTR b = SysAllocStringLen(L"ab\0cd", 5);
    ASSERT_EQ(5u, SysStringLen(b));
    char *s = vxl_com_bstr2str(b);
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(2u, strlen(s));
    EXPECT_STREQ("ab", s);
    vxl_free(s);
    vxl_com_freebstr(b);
}

TEST(Strings, StrdupCopiesIntoTaskMemory)
{
    const char *text = "task memory \xe9";
    char *copy = vxl_com_strdup(text);
    ASSERT_NE(nullptr, copy);
    EXPECT_NE(text, copy);
    EXPECT_STREQ(text, copy);
    IMalloc *malloc = nullptr;
    ASSERT_EQ(S_OK, CoGetMalloc(1, &malloc));
    EXPECT_EQ(1, malloc->DidAlloc(copy)); // the COM task allocator's block
    EXPECT_EQ(strlen(text) + 1, malloc->GetSize(copy));
    malloc->Release();
    vxl_com_free(copy);

    char *empty = vxl_com_strdup("");
    ASSERT_NE(nullptr, empty);
    EXPECT_EQ('\0', empty[0]);
    CoTaskMemFree(empty); // the caller may free it with COM's own function too
}

TEST(Strings, ReleaseCallsReleaseOnceAndAnswersZero)
{
    CountingUnknown object;
    object.AddRef();
    EXPECT_EQ(0, vxl_com_release(&object));
    EXPECT_EQ(1, object.releases);
    EXPECT_EQ(1u, object.refs);
    EXPECT_EQ(0, vxl_com_release(&object)); // 0 whatever the count left
    EXPECT_EQ(2, object.releases);
    EXPECT_EQ(0u, object.refs);
}
