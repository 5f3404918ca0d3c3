// Safe arrays to and from kit arrays, for every element kind, in both shapes:
// elements held directly (VT_I4, VT_R4, VT_R8, VT_BSTR, VT_UNKNOWN) or one per
// VARIANT (FADF_VARIANT). One creating and one reading template serve every
// exported name.
//
// Conversions that may call into COM (str2bstr, bstr2str, wrapping and
// unwrapping) never run while the array's data is locked: elements are
// converted into, or taken out to, a scratch buffer first.
#include "marshal/marshal.h"

#include <algorithm>
#include <type_traits>

namespace {

// Bytes of data a safe array holds, whatever its bounds and dimensions
// (saturating: a descriptor claiming more than memory can hold is no larger
// than what any count can ask for).
uint64_t dataBytes(const SAFEARRAY *sa)
{
    uint64_t bytes = sa->cbElements;
    for (USHORT dim = 0; dim < sa->cDims; ++dim)
        if (__builtin_mul_overflow(bytes, static_cast<uint64_t>(sa->rgsabound[dim].cElements), &bytes))
            return UINT64_MAX;
    return sa->cDims ? bytes : 0;
}

template <class Kind> void toVariant(VARIANT *v, typename Kind::Com element)
{
    VariantInit(v);
    V_VT(v) = Kind::elementTag;
    memcpy(&V_I8(v), &element, sizeof element);
}

// Locks the array's data for use; false when there was no data to use.
template <class Use> bool withData(SAFEARRAY *sa, Use use)
{
    void *data = nullptr;
    if (FAILED(SafeArrayAccessData(sa, &data)))
        return false;
    if (data)
        use(data);
    SafeArrayUnaccessData(sa);
    return data != nullptr;
}

template <class Kind, bool Variants>
SAFEARRAY *createSafeArray(const typename Kind::In *src, int32_t count, const vxl_ifctx &ctx)
{
    if (count < 0 || (count > 0 && !src))
        return nullptr;
    SAFEARRAYBOUND bound = {static_cast<ULONG>(count), 0};
    SAFEARRAY *sa = SafeArrayCreate(Variants ? VARTYPE{VT_VARIANT} : Kind::elementTag, 1, &bound);
    if (!sa || count == 0)
        return sa;

    using Element = std::conditional_t<Variants, VARIANT, typename Kind::Com>;
    size_t bytes = static_cast<size_t>(count) * sizeof(Element);
    if constexpr (Kind::number && !Variants) { // the source block is the data
        if (withData(sa, [&](void *data) { memcpy(data, src, bytes); }))
            return sa;
    } else {
        vxl_scratch<Element> made(static_cast<size_t>(count));
        if (made) {
            for (int32_t i = 0; i < count; ++i) {
                if constexpr (Variants)
                    toVariant<Kind>(&made[i], Kind::toCom(src[i], ctx));
                else
                    made[i] = Kind::toCom(src[i], ctx);
            }
            if (withData(sa, [&](void *data) { memcpy(data, made.get(), bytes); })) // the array owns them now
                return sa;
            for (int32_t i = 0; i < count; ++i) {
                if constexpr (Variants)
                    VariantClear(&made[i]);
                else
                    Kind::discard(made[i]);
            }
        }
    }
    SafeArrayDestroy(sa);
    return nullptr;
}

// Copies the first n elements of the array's data into scratch and hands
// each to store once the data is unlocked.
template <class Element, class Store> void takeOut(SAFEARRAY *sa, size_t n, Store store)
{
    vxl_scratch<Element> taken(n);
    if (n == 0 || !taken || !withData(sa, [&](void *data) { memcpy(taken.get(), data, n * sizeof(Element)); }))
        return;
    for (size_t i = 0; i < n; ++i)
        store(i, taken[i]);
}

// Reads at most count elements, and never more than the array holds; a
// destination element whose source cannot be read keeps its value.
template <class Kind> void readSafeArray(typename Kind::Out *dst, SAFEARRAY *sa, int32_t count, const vxl_ifctx &ctx)
{
    if (!dst || !sa || count <= 0)
        return;
    if (sa->fFeatures & FADF_VARIANT) {
        if (sa->cbElements != sizeof(VARIANT))
            return;
        size_t n = std::min<uint64_t>(count, dataBytes(sa) / sizeof(VARIANT));
        takeOut<VARIANT>(sa, n, [&](size_t i, const VARIANT &v) { vxl_readelement<Kind>(v, &dst[i], ctx); });
        return;
    }
    using Com = typename Kind::Com;
    size_t n = std::min<uint64_t>(count, dataBytes(sa) / sizeof(Com));
    if constexpr (Kind::number) { // the array's bytes, whatever its VARTYPE
        if (n > 0)
            withData(sa, [&](void *data) { memcpy(dst, data, n * sizeof(Com)); });
    } else {
        // Only an array of BSTRs (of COM pointers) holds elements to read as such.
        if (!(sa->fFeatures & Kind::directFeatures) || sa->cbElements != sizeof(Com))
            return;
        takeOut<Com>(sa, n, [&](size_t i, const Com &element) { dst[i] = Kind::loadDirect(&element, ctx); });
    }
}

// The new kit array starts all 0 and null, so slots the array cannot fill
// are safe to free.
template <class Kind> typename Kind::Out *createFromSafeArray(SAFEARRAY *sa, int32_t count, const vxl_ifctx &ctx)
{
    using Out = typename Kind::Out;
    Out *array = sa ? vxl_kitarray<Out>(count) : nullptr;
    if (array) {
        memset(static_cast<void *>(array), 0, static_cast<size_t>(count) * sizeof(Out));
        readSafeArray<Kind>(array, sa, count, ctx);
    }
    return array;
}

} // namespace

#define VXL_SAFEARRAY_FAMILY(name, Kind, ctx)                                                      \
    SAFEARRAY *vxl_com_create##name##safearray(const Kind::In *src, int32_t count VXL_CTX_PARAMS_##ctx) \
    {                                                                                              \
        return createSafeArray<Kind, false>(src, count, VXL_CTX_##ctx);                            \
    }                                                                                              \
    SAFEARRAY *vxl_com_createvariant##name##safearray(const Kind::In *src,                        \
                                                      int32_t count VXL_CTX_PARAMS_##ctx)          \
    {                                                                                              \
        return createSafeArray<Kind, true>(src, count, VXL_CTX_##ctx);                             \
    }                                                                                              \
    void vxl_com_copy##name##arrayfromsafearray(Kind::Out *dst, SAFEARRAY *sa,                     \
                                                int32_t count VXL_CTX_PARAMS_##ctx)                \
    {                                                                                              \
        readSafeArray<Kind>(dst, sa, count, VXL_CTX_##ctx);                                        \
    }                                                                                              \
    Kind::Out *vxl_com_create##name##arrayfromsafearray(SAFEARRAY *sa, int32_t count VXL_CTX_PARAMS_##ctx) \
    {                                                                                              \
        return createFromSafeArray<Kind>(sa, count, VXL_CTX_##ctx);                                \
    }
VXL_ELEMENT_KINDS(VXL_SAFEARRAY_FAMILY)
#undef VXL_SAFEARRAY_FAMILY

int32_t vxl_com_safearraylen(SAFEARRAY *sa)
{
    LONG lower = 0, upper = 0;
    if (!sa || FAILED(SafeArrayGetLBound(sa, 1, &lower)) || FAILED(SafeArrayGetUBound(sa, 1, &upper)))
        return 0;
    return static_cast<int32_t>(static_cast<uint32_t>(upper) - static_cast<uint32_t>(lower) + 1u);
}

int32_t vxl_com_variantsafearraylen(const VARIANT *variant)
{
    return vxl_com_safearraylen(vxl_arrayinvariant(variant));
}

int32_t vxl_com_freesafearray(SAFEARRAY *sa)
{
    return vxl_com_hret2err(SafeArrayDestroy(sa));
}
