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

std::wstring bstrText(BSTR b) { return std::wstring(b, SysStringLen(b)); }

// A COM object that only counts its references and Release calls.
class CountingUnknown : public IUnknown {
public:
    ULONG refs = 1;
    int releases = 0;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void **out) override
    {
        *out = nullptr;
        return E_NOINTERFACE;
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

TEST(Strings, RoundTripsThroughTheAnsiCodePage)
{
    ASSERT_EQ(1252u, GetACP()) << "the expected characters below are those of code page 1252";
    std::string printable;
    for (int c = 0x20; c <= 0xFF; ++c)
        printable += static_cast<char>(c);
    struct Case {
        std::string narrow;
        const wchar_t *wide; // null: only the length is known
    };
    const Case cases[] = {
        {"", L""}, // an empty BSTR, not null
        {"a", L"a"},
        {"Hello, COM world!", L"Hello, COM world!"},
        {"\xe9\xfc\x80", L"\u00e9\u00fc\u20ac"},
        {"caf\xe9 \x80 5", L"caf\u00e9 \u20ac 5"},
        {"\x9f\xff\xa0", L"\u0178\u00ff\u00a0"},
        {printable, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.narrow);
        BSTR b = vxl_com_str2bstr(c.narrow.c_str());
        ASSERT_NE(nullptr, b);
        if (c.wide) {
            EXPECT_EQ(c.wide, bstrText(b));
        }
        EXPECT_EQ(c.narrow.size(), SysStringLen(b));
        EXPECT_EQ(L'\0', b[SysStringLen(b)]);
        char *back = vxl_com_bstr2str(b);
        ASSERT_NE(nullptr, back);
        EXPECT_EQ(c.narrow, back);
        vxl_free(back);
        vxl_com_freebstr(b);
    }
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
