// The interfaces of the wrapping tests, as the kit and as COM see them.
//
// Kit: ICounter { add(in int delta); get(out int value) } and
//      INamed { label(out string text) }.
// COM: ICounter has three forms, one per wrapper type: IVxCounter ("com"),
//      IVxCounterS, a dual dispatch interface ("comS"), and IVxCounterP
//      ("comP"); INamed has IVxNamed ("com").
#pragma once

#include "vexal.h"

#include <objbase.h>
#include <oleauto.h>

// {6f1c0a10-5b1e-4c3a-9d1e-0a1b2c3d4e01} and following.
static const IID IID_IVxCounter = {0x6f1c0a10, 0x5b1e, 0x4c3a, {0x9d, 0x1e, 0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x01}};
static const IID IID_IVxCounterS = {0x6f1c0a10, 0x5b1e, 0x4c3a, {0x9d, 0x1e, 0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x02}};
static const IID IID_IVxCounterP = {0x6f1c0a10, 0x5b1e, 0x4c3a, {0x9d, 0x1e, 0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x03}};
static const IID IID_IVxNamed = {0x6f1c0a10, 0x5b1e, 0x4c3a, {0x9d, 0x1e, 0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x04}};

struct IVxCounter : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Add(LONG delta) = 0;
    virtual HRESULT STDMETHODCALLTYPE Get(LONG *value) = 0;
};
struct IVxCounterP : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Add(LONG delta) = 0;
    virtual HRESULT STDMETHODCALLTYPE Get(LONG *value) = 0;
};
struct IVxCounterS : public IDispatch {
    virtual HRESULT STDMETHODCALLTYPE Add(LONG delta) = 0;
    virtual HRESULT STDMETHODCALLTYPE Get(LONG *value) = 0;
};
struct IVxNamed : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Label(BSTR *text) = 0;
};

// Kit method functions as callers see them through slots 4 and 5.
typedef int32_t (*counter_add_slot)(vxl_if self, int32_t delta);
typedef int32_t (*counter_get_slot)(vxl_if self, int32_t *value);
typedef int32_t (*named_label_slot)(vxl_if self, const char **text);

static const vxl_paramdef counterDelta = {"delta", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr};
static const vxl_paramdef counterValue = {"value", VXL_TYPE_INT, VXL_DIR_OUT, 0, nullptr};
static const vxl_paramdef *const counterAddParams[] = {&counterDelta};
static const vxl_paramdef *const counterGetParams[] = {&counterValue};
static const vxl_methoddef counterAdd = {"add", 1, counterAddParams};
static const vxl_methoddef counterGet = {"get", 1, counterGetParams};
static const vxl_methoddef *const counterMethods[] = {&counterAdd, &counterGet};
static const vxl_interfacedef ICounterDef = {"ICounter", 2, counterMethods};

static const vxl_paramdef namedText = {"text", VXL_TYPE_STRING, VXL_DIR_OUT, 0, nullptr};
static const vxl_paramdef *const namedLabelParams[] = {&namedText};
static const vxl_methoddef namedLabel = {"label", 1, namedLabelParams};
static const vxl_methoddef *const namedMethods[] = {&namedLabel};
static const vxl_interfacedef INamedDef = {"INamed", 1, namedMethods};
