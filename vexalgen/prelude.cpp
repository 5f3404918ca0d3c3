// The fixed part of every generated source: owners that give back what a
// call converted, the per-kind conversions of arrays, the COM wrapper bases
// and the proxy-class callbacks. It is printed once at the top of each
// generated file, in an anonymous namespace, so a component library needs
// nothing beyond vexal.h to build it.
#include "writer.h"

namespace vexalgen {

const char *const kPrelude = R"PRELUDE(namespace {
namespace vxg {

// ---- owners: each gives back what it holds at the end of the call ---------------------

struct KitString {
    char *p = nullptr;
    KitString() = default;
    explicit KitString(BSTR from) : p(vxl_com_bstr2str(from)) {}
    KitString(const KitString &) = delete;
    ~KitString() { vxl_free(p); }
    BSTR tocom() const { return vxl_com_str2bstr(p); }
};

struct KitIf {
    vxl_if p = nullptr;
    KitIf() = default;
    KitIf(IUnknown *from, const char *ifname, const char *wtype) : p(vxl_unwrapptr(from, ifname, wtype)) {}
    KitIf(const KitIf &) = delete;
    ~KitIf()
    {
        if (p)
            vxl_decref(p);
    }
    template <class Itf> Itf *tocom(const char *ifname, const char *wtype) const
    {
        return static_cast<Itf *>(vxl_wrapptr(p, ifname, wtype));
    }
    vxl_if take()
    {
        vxl_if out = p;
        p = nullptr;
        return out;
    }
};

struct Bstr {
    BSTR p = nullptr;
    Bstr() = default;
    explicit Bstr(const char *from) : p(vxl_com_str2bstr(from)) {}
    Bstr(const Bstr &) = delete;
    ~Bstr() { SysFreeString(p); }
    char *tokit() const { return vxl_com_bstr2str(p); }
};

struct ComIf {
    IUnknown *p = nullptr;
    ComIf() = default;
    ComIf(vxl_if from, const char *ifname, const char *wtype) : p(vxl_wrapptr(from, ifname, wtype)) {}
    ComIf(const ComIf &) = delete;
    ~ComIf()
    {
        if (p)
            p->Release();
    }
    template <class Itf> Itf *as() const { return static_cast<Itf *>(p); }
    template <class Itf> Itf **out() { return reinterpret_cast<Itf **>(&p); }
    vxl_if tokit(const char *ifname, const char *wtype) const { return vxl_unwrapptr(p, ifname, wtype); }
};

struct SafeArray {
    SAFEARRAY *p = nullptr;
    SafeArray() = default;
    explicit SafeArray(SAFEARRAY *from) : p(from) {}
    SafeArray(const SafeArray &) = delete;
    ~SafeArray()
    {
        if (p)
            SafeArrayDestroy(p);
    }
};

// ---- arrays: one template over the five kinds ------------------------------------------

template <int Type> struct Kind;

// The safe array a VARIANT holds, by value or by reference.
inline SAFEARRAY *arrayof(VARIANT *v)
{
    if (V_VT(v) == (VT_BYREF | VT_VARIANT))
        v = V_VARIANTREF(v);
    if (!(V_VT(v) & VT_ARRAY))
        return nullptr;
    return V_VT(v) & VT_BYREF ? *V_ARRAYREF(v) : V_ARRAY(v);
}

// Calls change(element) for each element of a safe array of VARIANTs (one
// dimension); other safe arrays are left alone. Stops at the first failure.
template <class Change> HRESULT eachelement(SAFEARRAY *sa, Change change)
{
    VARTYPE type = VT_EMPTY;
    VARIANT *elements = nullptr;
    if (!sa || FAILED(SafeArrayGetVartype(sa, &type)) || type != VT_VARIANT)
        return S_OK;
    if (FAILED(SafeArrayAccessData(sa, reinterpret_cast<void **>(&elements))))
        return E_UNEXPECTED;
    HRESULT hr = S_OK;
    for (int32_t i = 0, n = vxl_com_safearraylen(sa); i < n && SUCCEEDED(hr); ++i)
        hr = change(elements[i]);
    SafeArrayUnaccessData(sa);
    return hr;
}

// Scripts fill arrays with what they have (shorts, doubles for floats): each
// element is coerced to the kind's tag before the runtime reads the array.
// An empty interface element stays empty (a null interface).
inline HRESULT coerceelements(SAFEARRAY *sa, VARTYPE vt)
{
    return eachelement(sa, [vt](VARIANT &e) {
        bool empty = V_VT(&e) == VT_EMPTY || V_VT(&e) == VT_NULL;
        return V_VT(&e) == vt || (vt == VT_DISPATCH && empty) ? S_OK : VariantChangeType(&e, &e, 0, vt);
    });
}

// The runtime writes interfaces into VARIANTs as VT_UNKNOWN; scripts, and
// the readers on the other side, take VT_DISPATCH. Arrays inside the array
// (a combined value holds its arrays as elements) too.
inline SAFEARRAY *dispatchify(SAFEARRAY *sa)
{
    eachelement(sa, [](VARIANT &e) {
        if (V_VT(&e) == VT_UNKNOWN)
            VariantChangeType(&e, &e, 0, VT_DISPATCH);
        else if (V_VT(&e) == (VT_ARRAY | VT_VARIANT))
            dispatchify(V_ARRAY(&e));
        return S_OK;
    });
    return sa;
}

// The runtime's functions for one element kind: typed safe arrays, and
// VARIANTs holding safe arrays of VARIANTs.
#define VXG_KIND(code, element, tag, word, freearray)                                                   \
    template <> struct Kind<code> {                                                                     \
        using T = element;                                                                               \
        static constexpr VARTYPE vt = tag;                                                               \
        static SAFEARRAY *typed(const T *a, int32_t n, const char *, const char *)                      \
        {                                                                                                \
            return vxl_com_create##word##safearray(a, n);                                                \
        }                                                                                                \
        static T *fromsafearray(SAFEARRAY *sa, int32_t n, const char *, const char *)                   \
        {                                                                                                \
            return vxl_com_create##word##arrayfromsafearray(sa, n);                                      \
        }                                                                                                \
        static void tovariant(VARIANT *v, const T *a, int32_t n, const char *, const char *)            \
        {                                                                                                \
            vxl_com_copy##word##arraytovariantsafearrayvariant(v, a, n);                                 \
        }                                                                                                \
        static void release(T *a, int32_t n) { freearray; }                                             \
    };
VXG_KIND(VXL_TYPE_INT, int32_t, VT_I4, int, vxl_free(a))
VXG_KIND(VXL_TYPE_FLOAT, float, VT_R4, float, vxl_free(a))
VXG_KIND(VXL_TYPE_DOUBLE, double, VT_R8, double, vxl_free(a))
VXG_KIND(VXL_TYPE_STRING, char *, VT_BSTR, string, if (a) vxl_freestringarray(a, n))
#undef VXG_KIND

// Interfaces cross with their kit name and form.
template <> struct Kind<VXL_TYPE_INTERFACE> {
    using T = vxl_if;
    static constexpr VARTYPE vt = VT_DISPATCH;
    static SAFEARRAY *typed(const T *a, int32_t n, const char *ifname, const char *wtype)
    {
        return vxl_com_createinterfacesafearray(a, n, ifname, wtype);
    }
    static T *fromsafearray(SAFEARRAY *sa, int32_t n, const char *ifname, const char *wtype)
    {
        return vxl_com_createinterfacearrayfromsafearray(sa, n, ifname, wtype);
    }
    static void tovariant(VARIANT *v, const T *a, int32_t n, const char *ifname, const char *wtype)
    {
        vxl_com_copyinterfacearraytovariantsafearrayvariant(v, a, n, ifname, wtype);
        dispatchify(arrayof(v));
    }
    static void release(T *a, int32_t n)
    {
        if (a)
            vxl_freeinterfacearray(a, n);
    }
};

// A kit array and its length, owned for the length of a call.
template <int Type> struct KitArray {
    using T = typename Kind<Type>::T;
    T *p = nullptr;
    int32_t n = 0;
    const char *ifname;
    const char *wtype;
    KitArray(const char *ifname_ = nullptr, const char *wtype_ = nullptr) : ifname(ifname_), wtype(wtype_) {}
    KitArray(SAFEARRAY *from, const char *ifname_, const char *wtype_) : ifname(ifname_), wtype(wtype_)
    {
        n = from ? vxl_com_safearraylen(from) : 0;
        p = Kind<Type>::fromsafearray(from, n, ifname, wtype);
    }
    KitArray(const KitArray &) = delete;
    ~KitArray() { Kind<Type>::release(p, n); }
    SAFEARRAY *typed() const { return Kind<Type>::typed(p, n, ifname, wtype); }
    T *take()
    {
        T *out = p;
        p = nullptr;
        n = 0;
        return out;
    }
};

// A COM array that came back replaces the caller's kit array.
template <int Type>
void tokit(SAFEARRAY *from, typename Kind<Type>::T **array, int32_t *count, const char *ifname, const char *wtype)
{
    Kind<Type>::release(*array, *count);
    coerceelements(from, Kind<Type>::vt); // the proxy's own copy
    *count = from ? vxl_com_safearraylen(from) : 0;
    *array = Kind<Type>::fromsafearray(from, *count, ifname, wtype);
}

inline void replace(BSTR *slot, BSTR value)
{
    SysFreeString(*slot);
    *slot = value;
}
template <class Itf> void replace(Itf **slot, Itf *value)
{
    if (*slot)
        (*slot)->Release();
    *slot = value;
}
inline void replace(SAFEARRAY **slot, SAFEARRAY *value)
{
    if (*slot)
        SafeArrayDestroy(*slot);
    *slot = value;
}
inline void replace(char **slot, char *value)
{
    vxl_free(*slot);
    *slot = value;
}
inline void replace(vxl_if *slot, vxl_if value)
{
    if (*slot)
        vxl_decref(*slot);
    *slot = value;
}

// ---- IDispatch arguments -----------------------------------------------------------------

// Argument i in declaration order: DISPPARAMS holds them last first.
inline VARIANT *arg(DISPPARAMS *params, UINT i)
{
    return &params->rgvarg[params->cArgs - 1 - i];
}

inline HRESULT check(WORD flags, DISPPARAMS *params, UINT count)
{
    if (!(flags & DISPATCH_METHOD) && !((flags & DISPATCH_PROPERTYGET) && count == 0))
        return DISP_E_MEMBERNOTFOUND;
    if (params->cNamedArgs)
        return DISP_E_NONAMEDARGS;
    return params->cArgs == count ? S_OK : DISP_E_BADPARAMCOUNT;
}

// Scripts pass what they have (a short, a double for a float): coerce the
// value first, then read it the runtime's way.
inline HRESULT coerce(VARIANT *from, VARTYPE vt, VARIANT *to)
{
    VariantInit(to);
    return VariantChangeType(to, from, 0, vt);
}
inline HRESULT read(VARIANT *from, int32_t *value)
{
    VARIANT v;
    HRESULT hr = coerce(from, VT_I4, &v);
    *value = SUCCEEDED(hr) ? vxl_com_readintfromvariant(&v) : 0;
    return hr;
}
inline HRESULT read(VARIANT *from, float *value)
{
    VARIANT v;
    HRESULT hr = coerce(from, VT_R4, &v);
    *value = SUCCEEDED(hr) ? vxl_com_readfloatfromvariant(&v) : 0.0f;
    return hr;
}
inline HRESULT read(VARIANT *from, double *value)
{
    VARIANT v;
    HRESULT hr = coerce(from, VT_R8, &v);
    *value = SUCCEEDED(hr) ? vxl_com_readdoublefromvariant(&v) : 0.0;
    return hr;
}
inline HRESULT read(VARIANT *from, KitString &value)
{
    VARIANT v;
    HRESULT hr = coerce(from, VT_BSTR, &v);
    if (SUCCEEDED(hr))
        value.p = vxl_com_readstringfromvariant(&v);
    VariantClear(&v);
    return hr;
}
inline HRESULT read(VARIANT *from, KitIf &value, const char *ifname)
{
    VARIANT *base = V_VT(from) == (VT_BYREF | VT_VARIANT) ? V_VARIANTREF(from) : from;
    VARTYPE vt = V_VT(base) & ~VT_BYREF;
    if (vt == VT_EMPTY || vt == VT_NULL)
        return S_OK;
    VARIANT v;
    HRESULT hr = coerce(from, VT_DISPATCH, &v);
    if (SUCCEEDED(hr))
        value.p = vxl_com_readinterfacefromvariant(&v, ifname, "comS");
    VariantClear(&v);
    return hr;
}
template <int Type> HRESULT read(VARIANT *from, KitArray<Type> &value)
{
    VARIANT *base = V_VT(from) == (VT_BYREF | VT_VARIANT) ? V_VARIANTREF(from) : from;
    if (!(V_VT(base) & VT_ARRAY))
        return DISP_E_TYPEMISMATCH;
    SAFEARRAY *sa = arrayof(from);
    SafeArray copy; // coerced here, so the caller's array stays as it was
    if (sa && FAILED(SafeArrayCopy(sa, &copy.p)))
        return E_OUTOFMEMORY;
    if (FAILED(coerceelements(copy.p, Kind<Type>::vt)))
        return DISP_E_TYPEMISMATCH;
    value.n = copy.p ? vxl_com_safearraylen(copy.p) : 0;
    value.p = Kind<Type>::fromsafearray(copy.p, value.n, value.ifname, "comS");
    return S_OK;
}

// An in/out argument is written back only when the caller passed a
// reference: a value argument is the caller's to clear, not to replace.
inline VARIANT *byref(VARIANT *from, VARTYPE vt)
{
    if (V_VT(from) == (VT_BYREF | VT_VARIANT)) {
        VARIANT *to = V_VARIANTREF(from);
        return (V_VT(to) & VT_BYREF) ? (V_VT(to) == (VT_BYREF | vt) ? to : nullptr) : to;
    }
    return V_VT(from) == (VT_BYREF | vt) ? from : nullptr;
}
inline void put(VARIANT *to, int32_t value) { vxl_com_putinttovariant(to, value); }
inline void put(VARIANT *to, float value) { vxl_com_putfloattovariant(to, value); }
inline void put(VARIANT *to, double value) { vxl_com_putdoubletovariant(to, value); }
inline void put(VARIANT *to, const KitString &value) { vxl_com_putstringtovariant(to, value.p); }
inline void put(VARIANT *to, const KitIf &value, const char *ifname) { vxl_com_putinterfacetovariant(to, value.p, ifname, "comS"); }
template <int Type> void put(VARIANT *to, const KitArray<Type> &value)
{
    Kind<Type>::tovariant(to, value.p, value.n, value.ifname, "comS");
}
template <class T> void writeback(VARIANT *from, VARTYPE vt, const T &value)
{
    if (VARIANT *to = byref(from, vt))
        put(to, value);
}
inline void writeback(VARIANT *from, VARTYPE vt, const KitIf &value, const char *ifname)
{
    if (VARIANT *to = byref(from, vt))
        put(to, value, ifname);
}
template <class T> void result(VARIANT *to, const T &value)
{
    if (to)
        put(to, value);
}
inline void result(VARIANT *to, const KitIf &value, const char *ifname)
{
    if (to)
        put(to, value, ifname);
}
inline void combined(VARIANT *to, SAFEARRAY *values)
{
    if (!to) {
        if (values)
            SafeArrayDestroy(values);
        return;
    }
    dispatchify(values);
    V_VT(to) = VT_ARRAY | VT_VARIANT;
    V_ARRAY(to) = values;
}

// ---- COM wrappers ------------------------------------------------------------------------

// COM wrappers of this module still alive, for DllCanUnloadNow.
volatile LONG livewrappers = 0;

// A COM wrapper holds a kit reference on the interface it shows and answers
// QueryInterface through the runtime, so that all wrappers of one kit object
// share one COM identity; at 0 it tells the runtime before it goes.
template <class Itf> class Wrapper : public Itf {
public:
    explicit Wrapper(vxl_if pif) : pif_(pif)
    {
        pif_->slots->incref(pif_);
        InterlockedIncrement(&livewrappers);
    }
    Wrapper(const Wrapper &) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **out) override
    {
        if (!out)
            return E_POINTER;
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
    virtual ~Wrapper() { InterlockedDecrement(&livewrappers); }
    vxl_if pif_;

private:
    LONG refs_ = 1;
};

// Type information of one interface, from the type library embedded in
// this module; loaded on first use and kept for the life of the process.
inline ITypeInfo *loadtypeinfo(REFIID iid)
{
    HMODULE self = nullptr;
    wchar_t path[MAX_PATH];
    ITypeLib *typelib = nullptr;
    ITypeInfo *info = nullptr;
    if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<LPCWSTR>(&loadtypeinfo), &self) &&
        GetModuleFileNameW(self, path, MAX_PATH) && SUCCEEDED(LoadTypeLibEx(path, REGKIND_NONE, &typelib))) {
        typelib->GetTypeInfoOfGuid(iid, &info);
        typelib->Release();
    }
    return info;
}

// IDispatch over the type information: names and type information come
// from the type library, calls from the generated invoke of Self.
template <class Itf, class Self> class Dispatcher : public Wrapper<Itf> {
public:
    using Wrapper<Itf>::Wrapper;

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT *count) override
    {
        if (!count)
            return E_POINTER;
        *count = 1;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID, ITypeInfo **out) override
    {
        if (!out)
            return E_POINTER;
        *out = nullptr;
        if (index != 0)
            return DISP_E_BADINDEX;
        if (!(*out = typeinfo()))
            return E_UNEXPECTED;
        (*out)->AddRef();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR *names, UINT count, LCID, DISPID *ids) override
    {
        ITypeInfo *info = typeinfo();
        return info ? DispGetIDsOfNames(info, names, count, ids) : E_UNEXPECTED;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS *params, VARIANT *result,
                                     EXCEPINFO *, UINT *argerr) override
    {
        if (!params || (params->cArgs && !params->rgvarg))
            return E_INVALIDARG;
        if (result)
            VariantInit(result);
        UINT bad = 0;
        HRESULT hr = static_cast<Self *>(this)->invoke(id, flags, params, result, &bad);
        if ((hr == DISP_E_TYPEMISMATCH || hr == DISP_E_OVERFLOW) && argerr)
            *argerr = params->cArgs - 1 - bad;
        return hr;
    }

private:
    static ITypeInfo *typeinfo()
    {
        static ITypeInfo *const info = loadtypeinfo(Self::typeiid());
        return info;
    }
};

template <class W> int32_t makewrapper(vxl_if pif, IUnknown **result)
{
    *result = new (std::nothrow) W(pif);
    return *result ? VXL_OK : VXL_ENOMEM;
}

// The arguments of an event, last first as DISPPARAMS holds them.
template <int N> struct EventArgs {
    VARIANT v[N > 0 ? N : 1];
    EventArgs()
    {
        for (VARIANT &arg : v)
            VariantInit(&arg);
    }
    EventArgs(const EventArgs &) = delete;
    ~EventArgs()
    {
        for (VARIANT &arg : v)
            VariantClear(&arg);
    }
};

// An event goes to its sink the way connection points deliver it: by the
// sink's own number for the event's name when the sink knows the name, else
// by the outgoing interface's number (script class instances answer only
// the latter).
inline HRESULT fire(const char *ifname, DISPID id, VARIANT *args, UINT count, void *sink)
{
    DISPPARAMS params = {count ? args : nullptr, nullptr, count, 0};
    IDispatch *sinks[] = {static_cast<IDispatch *>(sink)};
    return vxl_com_cpinvoke(ifname, id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, nullptr, nullptr,
                            nullptr, 1, sinks);
}

// What a method that threw gives the kit: no exception crosses into the runtime.
inline int32_t caught()
{
    try {
        throw;
    } catch (const std::bad_alloc &) {
        return VXL_ENOMEM;
    } catch (...) {
        return VXL_EFAIL;
    }
}

// ---- kit proxies ---------------------------------------------------------------------------

// Proxies are made only by the runtime, around a COM interface; a client that
// asks for one by class name is refused. The destroy callback runs for the
// refused object too, which has no COM interface behind it.
inline int32_t refuseproxy(void **, vxl_if)
{
    return VXL_EFAIL;
}
inline int32_t destroyproxy(void *pcomif, vxl_if pif)
{
    return pcomif ? vxl_com_wrapperdestructor(pcomif, pif) : VXL_OK;
}

} // namespace vxg
} // namespace
)PRELUDE";

} // namespace vexalgen
