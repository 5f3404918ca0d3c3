// The element kinds that kit arrays, safe arrays and VARIANTs carry, as one
// traits table shared by the array, safe-array and variant families, so each
// family is written once and instantiated per kind.
//
//   kind       kit value  COM element  safe array / VARIANT element tag  written tag
//   int        int32_t    int32_t      VT_I4                             VT_I4
//   float      float      float        VT_R4                             VT_R4
//   double     double     double       VT_R8                             VT_R8
//   string     char *     BSTR         VT_BSTR                           VT_BSTR
//   interface  vxl_if     IUnknown *   VT_UNKNOWN                        VT_DISPATCH
//
// Reading a VARIANT accepts, per kind, a short list of base tags, each by
// value or by reference (VT_BYREF), with a loader for the value found there.
#pragma once

#include "core/kit.h"

#include <windows.h>
#include <oleauto.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

// The interface name and wrapper type that interface elements cross with;
// the other kinds ignore it.
struct vxl_ifctx {
    const char *ifname;
    const char *wtype;
};

// One accepted base tag of a VARIANT reader and how its value is loaded from
// the value slot (or from where a reference points).
template <class Out> struct vxl_accept {
    VARTYPE tag;
    Out (*load)(const void *slot, const vxl_ifctx &ctx);
};

template <class Stored, class Out> Out vxl_loadnumber(const void *slot, const vxl_ifctx &)
{
    Stored stored;
    memcpy(&stored, slot, sizeof stored);
    return static_cast<Out>(stored); // VT_I2 sign-extends, VT_R4 widens
}

inline char *vxl_loadstring(const void *slot, const vxl_ifctx &)
{
    BSTR bstr;
    memcpy(&bstr, slot, sizeof bstr);
    return vxl_com_bstr2str(bstr);
}

inline vxl_if vxl_loadinterface(const void *slot, const vxl_ifctx &ctx)
{
    IUnknown *punk;
    memcpy(&punk, slot, sizeof punk);
    return vxl_unwrapptr(punk, ctx.ifname, ctx.wtype);
}

template <class T, VARTYPE Tag> struct vxl_numberkind {
    using In = T;
    using Out = T;
    using Com = T;
    static constexpr bool number = true;
    static constexpr VARTYPE elementTag = Tag;
    static constexpr VARTYPE putTag = Tag;
    static constexpr USHORT directFeatures = 0; // any array: its bytes are read as they are
    static Com toCom(In value, const vxl_ifctx &) { return value; }
    static void discard(Com) {}
    // A by-reference VARIANT is written through only when it points at this kind.
    static bool holds(VARTYPE base) { return base == Tag; }
};

struct vxl_intkind : vxl_numberkind<int32_t, VT_I4> {
    static constexpr vxl_accept<int32_t> accepted[] = {{VT_I4, vxl_loadnumber<int32_t, int32_t>},
                                                       {VT_I2, vxl_loadnumber<int16_t, int32_t>}};
};
struct vxl_floatkind : vxl_numberkind<float, VT_R4> {
    static constexpr vxl_accept<float> accepted[] = {{VT_R4, vxl_loadnumber<float, float>}};
};
struct vxl_doublekind : vxl_numberkind<double, VT_R8> {
    static constexpr vxl_accept<double> accepted[] = {{VT_R8, vxl_loadnumber<double, double>},
                                                      {VT_R4, vxl_loadnumber<float, double>}};
};

struct vxl_stringkind {
    using In = const char *;
    using Out = char *;
    using Com = BSTR;
    static constexpr bool number = false;
    static constexpr VARTYPE elementTag = VT_BSTR;
    static constexpr VARTYPE putTag = VT_BSTR;
    static constexpr USHORT directFeatures = FADF_BSTR;
    static constexpr vxl_accept<char *> accepted[] = {{VT_BSTR, vxl_loadstring}};
    static constexpr auto loadDirect = vxl_loadstring;
    static Com toCom(In value, const vxl_ifctx &) { return vxl_com_str2bstr(value); }
    static void discard(Com bstr) { SysFreeString(bstr); }
    static bool holds(VARTYPE base) { return base == VT_BSTR; }
};

struct vxl_interfacekind {
    using In = vxl_if;
    using Out = vxl_if;
    using Com = IUnknown *;
    static constexpr bool number = false;
    static constexpr VARTYPE elementTag = VT_UNKNOWN;
    static constexpr VARTYPE putTag = VT_DISPATCH;
    static constexpr USHORT directFeatures = FADF_UNKNOWN | FADF_DISPATCH;
    static constexpr vxl_accept<vxl_if> accepted[] = {{VT_DISPATCH, vxl_loadinterface}};
    static constexpr auto loadDirect = vxl_loadinterface;
    static Com toCom(In value, const vxl_ifctx &ctx) { return vxl_wrapptr(value, ctx.ifname, ctx.wtype); }
    static void discard(Com punk) { vxl_com_release(punk); }
    static bool holds(VARTYPE base) { return base == VT_DISPATCH || base == VT_UNKNOWN; }
};

// The kinds with their exported names, and whether their functions take an
// interface name and wrapper type (IF) or not (NO). Each family expands it.
#define VXL_ELEMENT_KINDS(X)                                                                       \
    X(int, vxl_intkind, NO)                                                                        \
    X(float, vxl_floatkind, NO)                                                                    \
    X(double, vxl_doublekind, NO)                                                                  \
    X(string, vxl_stringkind, NO)                                                                  \
    X(interface, vxl_interfacekind, IF)
#define VXL_CTX_PARAMS_NO
#define VXL_CTX_PARAMS_IF , const char *ifname, const char *wtype
#define VXL_CTX_ARGS_NO
#define VXL_CTX_ARGS_IF , ifname, wtype
#define VXL_CTX_NO (vxl_ifctx{nullptr, nullptr})
#define VXL_CTX_IF (vxl_ifctx{ifname, wtype})

#define VXL_COUNT_KIND(name, kind, ctx) +1
constexpr int vxl_elementkindcount = 0 VXL_ELEMENT_KINDS(VXL_COUNT_KIND);
static_assert(vxl_elementkindcount == 5, "int, float, double, string and interface");
static_assert(sizeof(vxl_intkind::Com) == 4 && sizeof(vxl_floatkind::Com) == 4 && sizeof(vxl_doublekind::Com) == 8 &&
                  sizeof(vxl_stringkind::Com) == 8 && sizeof(vxl_interfacekind::Com) == 8,
              "element widths of kit arrays and safe arrays");
static_assert(sizeof(VARIANT) == 24, "VARIANT elements are copied 24 bytes each");

// Loads the value of one VARIANT (no reference step) into *out when its tag
// is one the kind accepts, by value or by reference; otherwise leaves *out.
template <class Kind> bool vxl_readelement(const VARIANT &v, typename Kind::Out *out, const vxl_ifctx &ctx)
{
    VARTYPE base = V_VT(&v) & ~VT_BYREF;
    const void *slot = (V_VT(&v) & VT_BYREF) ? V_BYREF(&v) : static_cast<const void *>(&V_I8(&v));
    for (const auto &accepted : Kind::accepted)
        if (accepted.tag == base) {
            if (!slot) // a reference to nothing holds no value
                return false;
            *out = accepted.load(slot, ctx);
            return true;
        }
    return false;
}

// Every function taking a VARIANT first steps once through VT_BYREF|VT_VARIANT.
template <class V> V *vxl_referencestep(V *v)
{
    if (v && V_VT(v) == (VT_BYREF | VT_VARIANT))
        return V_VARIANTREF(v);
    return v;
}

// The SAFEARRAY a VARIANT holds or references, or null when it holds none
// (no VT_ARRAY in its tag, or a reference to nothing).
inline SAFEARRAY *vxl_arrayinvariant(const VARIANT *variant)
{
    const VARIANT *v = vxl_referencestep(variant);
    if (!v || !(V_VT(v) & VT_ARRAY))
        return nullptr;
    if (V_VT(v) & VT_BYREF)
        return V_ARRAYREF(v) ? *V_ARRAYREF(v) : nullptr;
    return V_ARRAY(v);
}

// Scratch space for count elements of a plain C type: inside the object up
// to a few elements, on the heap above that, so large counts cannot exhaust
// the stack. False when the heap refused.
template <class T, size_t Inline = 8> class vxl_scratch {
public:
    explicit vxl_scratch(size_t count)
        : data_(count <= Inline ? local_ : static_cast<T *>(malloc(count * sizeof(T))))
    {
    }
    ~vxl_scratch()
    {
        if (data_ != local_)
            free(data_);
    }
    vxl_scratch(const vxl_scratch &) = delete;
    vxl_scratch &operator=(const vxl_scratch &) = delete;
    explicit operator bool() const { return data_ != nullptr; }
    T &operator[](size_t i) const { return data_[i]; }
    T *get() const { return data_; }

private:
    T local_[Inline];
    T *data_;
};

// A kit-memory block of count elements; null for a count of 0 or less and
// for a size that vxl_malloc's 32-bit size cannot express.
template <class T> T *vxl_kitarray(int32_t count)
{
    if (count <= 0)
        return nullptr;
    uint64_t bytes = static_cast<uint64_t>(count) * sizeof(T);
    if (bytes > INT32_MAX)
        return nullptr;
    return static_cast<T *>(vxl_malloc(static_cast<int32_t>(bytes)));
}
