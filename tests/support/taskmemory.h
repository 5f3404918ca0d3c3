// Live blocks of COM task memory, counted through an IMallocSpy. BSTRs and
// SAFEARRAYs are task memory, so with oleaut32's BSTR cache off (install()
// turns it off for the rest of the process) a count back at its start means
// nothing leaked. The spy can also refuse every n-th allocation, to drive
// failure paths.
#pragma once

#include <windows.h>
#include <objbase.h>

namespace vxltest {

class TaskMemoryCounter : public IMallocSpy {
public:
    LONG live = 0;
    unsigned failEvery = 0; // 0: refuse none

    bool install()
    {
        auto noCache = reinterpret_cast<void(WINAPI *)(void)>(
            GetProcAddress(GetModuleHandleA("oleaut32.dll"), "SetOaNoCache"));
        if (!noCache)
            return false;
        noCache();
        return SUCCEEDED(CoRegisterMallocSpy(this));
    }
    void remove() { CoRevokeMallocSpy(); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void **out) override { return *out = this, S_OK; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    SIZE_T STDMETHODCALLTYPE PreAlloc(SIZE_T size) override
    {
        return failEvery && ++allocations_ % failEvery == 0 ? 0 : size;
    }
    void *STDMETHODCALLTYPE PostAlloc(void *block) override { return live += block != nullptr, block; }
    void *STDMETHODCALLTYPE PreFree(void *block, BOOL spied) override { return live -= block && spied, block; }
    void STDMETHODCALLTYPE PostFree(BOOL) override {}
    SIZE_T STDMETHODCALLTYPE PreRealloc(void *block, SIZE_T size, void **out, BOOL) override
    {
        return *out = block, size;
    }
    void *STDMETHODCALLTYPE PostRealloc(void *block, BOOL) override { return block; }
    void *STDMETHODCALLTYPE PreGetSize(void *block, BOOL) override { return block; }
    SIZE_T STDMETHODCALLTYPE PostGetSize(SIZE_T size, BOOL) override { return size; }
    void *STDMETHODCALLTYPE PreDidAlloc(void *block, BOOL) override { return block; }
    int STDMETHODCALLTYPE PostDidAlloc(void *, BOOL, int actual) override { return actual; }
    void STDMETHODCALLTYPE PreHeapMinimize() override {}
    void STDMETHODCALLTYPE PostHeapMinimize() override {}

private:
    unsigned allocations_ = 0;
};

} // namespace vxltest
