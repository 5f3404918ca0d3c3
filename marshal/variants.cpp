// Kit values into and out of VARIANTs: one scalar reader, one writer and one
// array reader template, instantiated for every element kind; the writer
// also serves the whole-array writers, whose value is a SAFEARRAY of VARIANTs.
//
// Every function first steps once through VT_BYREF|VT_VARIANT. A write goes
// where a reference points when the tag has VT_BYREF, else into the value
// slot, and releases the value that was there when the tag says it is of the
// kind being written.
#include "marshal/marshal.h"

namespace {

// What a writer stores: scalars as their COM element (the BSTR, the wrapper)
// under the kind's written tag; arrays as a SAFEARRAY of VARIANTs.
template <class Kind> struct ScalarValue {
    using Stored = typename Kind::Com;
    static constexpr VARTYPE tag = Kind::putTag;
    static bool holds(VARTYPE base) { return Kind::holds(base); }
    static void release(Stored previous) { Kind::discard(previous); }
};

struct ArrayValue {
    using Stored = SAFEARRAY *;
    static constexpr VARTYPE tag = VT_ARRAY | VT_VARIANT;
    static bool holds(VARTYPE base) { return (base & VT_ARRAY) != 0; }
    static void release(Stored previous) { SafeArrayDestroy(previous); }
};

// make() builds the new value only once the VARIANT is known to take it, so
// a refused write creates nothing. A reference is written through only when
// it points at storage of the kind (and not at nothing).
template <class Value, class Make> int32_t putValue(VARIANT *variant, Make make)
{
    VARIANT *v = vxl_referencestep(variant);
    if (!v)
        return VXL_EFAIL;
    VARTYPE previousTag = V_VT(v);
    bool byref = (previousTag & VT_BYREF) != 0;
    void *slot = byref ? V_BYREF(v) : static_cast<void *>(&V_I8(v));
    if (byref && (!slot || !Value::holds(previousTag & ~VT_BYREF)))
        return VXL_EFAIL;
    typename Value::Stored previous, fresh = make();
    memcpy(&previous, slot, sizeof previous);
    V_VT(v) = Value::tag | (byref ? VT_BYREF : 0);
    if (byref || Value::holds(previousTag))
        Value::release(previous);
    memcpy(slot, &fresh, sizeof fresh);
    return VXL_OK;
}

template <class Kind> typename Kind::Out readScalar(const VARIANT *variant, const vxl_ifctx &ctx)
{
    typename Kind::Out value{};
    if (const VARIANT *v = vxl_referencestep(variant))
        vxl_readelement<Kind>(*v, &value, ctx);
    return value;
}

} // namespace

#define VXL_VARIANT_FAMILY(name, Kind, ctx)                                                        \
    Kind::Out vxl_com_read##name##fromvariant(const VARIANT *v VXL_CTX_PARAMS_##ctx)              \
    {                                                                                              \
        return readScalar<Kind>(v, VXL_CTX_##ctx);                                                 \
    }                                                                                              \
    int32_t vxl_com_put##name##tovariant(VARIANT *v, Kind::In value VXL_CTX_PARAMS_##ctx)         \
    {                                                                                              \
        return putValue<ScalarValue<Kind>>(v, [&] { return Kind::toCom(value, VXL_CTX_##ctx); }); \
    }                                                                                              \
    int32_t vxl_com_copy##name##arraytovariantsafearrayvariant(VARIANT *v, const Kind::In *src,   \
                                                               int32_t count VXL_CTX_PARAMS_##ctx) \
    {                                                                                              \
        return putValue<ArrayValue>(                                                               \
            v, [&] { return vxl_com_createvariant##name##safearray(src, count VXL_CTX_ARGS_##ctx); }); \
    }                                                                                              \
    Kind::Out *vxl_com_copy##name##arrayfromvariantsafearrayvariant(const VARIANT *v,                    \
                                                                    int32_t count VXL_CTX_PARAMS_##ctx) \
    {                                                                                              \
        return vxl_com_create##name##arrayfromsafearray(vxl_arrayinvariant(v), count VXL_CTX_ARGS_##ctx); \
    }
VXL_ELEMENT_KINDS(VXL_VARIANT_FAMILY)
#undef VXL_VARIANT_FAMILY
