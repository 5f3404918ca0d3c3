// The smallest COM wrapper a hand-written wrapper maker needs: it holds a
// kit reference on the interface it shows, answers QueryInterface through
// the runtime and tells the runtime when its count reaches 0. Tests and
// benchmarks derive their own wrappers from it; component libraries get
// theirs from vexalgen.
#pragma once

#include "vexal.h"

#include <windows.h>

template <class Itf> class Wrapper : public Itf {
public:
    explicit Wrapper(vxl_if pif) : pif_(pif) { pif_->slots->incref(pif_); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        return vxl_com_wrapperqueryinterface(iid, out, this, pif_);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs_); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        LONG left = InterlockedDecrement(&refs_);
        if (left == 0) {
            vxl_com_releasewrapper(this, pif_);
            pif_->slots->decref(pif_);
            delete this;
        }
        return left;
    }

protected:
    virtual ~Wrapper() = default;

    vxl_if pif_; // the kit interface shown

private:
    LONG refs_ = 1;
};
