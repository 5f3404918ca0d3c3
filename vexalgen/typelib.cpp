// Reading a type library with oleaut32's own ITypeLib and ITypeInfo, into
// the model of model.h. Two passes: the first names every interface (kit
// name and form) and finds the outgoing ones, so that the second can resolve
// interface parameters to kit names while it reads the methods.
#include "model.h"

#include <oleauto.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>

namespace vexalgen {
namespace {

std::string narrow(const wchar_t *text)
{
    if (!text)
        return {};
    int n = WideCharToMultiByte(CP_ACP, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string out(n > 0 ? n - 1 : 0, '\0');
    if (n > 1)
        WideCharToMultiByte(CP_ACP, 0, text, -1, &out[0], n, nullptr, nullptr);
    return out;
}

struct Releaser {
    void operator()(IUnknown *p) const { p->Release(); }
};
template <class T> using Ref = std::unique_ptr<T, Releaser>;

std::string nameOf(ITypeInfo *info)
{
    BSTR name = nullptr;
    std::string out;
    if (SUCCEEDED(info->GetDocumentation(MEMBERID_NIL, &name, nullptr, nullptr, nullptr)))
        out = narrow(name);
    SysFreeString(name);
    return out;
}

// A description oleaut32 lends (type attributes, a function description),
// given back at the end of the scope.
template <class T, void (STDMETHODCALLTYPE ITypeInfo::*Give)(T *)> class Lent {
public:
    Lent(ITypeInfo *info, T *desc) : info_(info), desc_(desc) {}
    Lent(const Lent &) = delete;
    ~Lent()
    {
        if (desc_)
            (info_->*Give)(desc_);
    }
    const T *operator->() const { return desc_; }
    explicit operator bool() const { return desc_ != nullptr; }

private:
    ITypeInfo *info_;
    T *desc_;
};

struct Attr : Lent<TYPEATTR, &ITypeInfo::ReleaseTypeAttr> {
    explicit Attr(ITypeInfo *info) : Lent(info, get(info)) {}
    static TYPEATTR *get(ITypeInfo *info)
    {
        TYPEATTR *attr = nullptr;
        return SUCCEEDED(info->GetTypeAttr(&attr)) ? attr : nullptr;
    }
};

struct FuncDesc : Lent<FUNCDESC, &ITypeInfo::ReleaseFuncDesc> {
    FuncDesc(ITypeInfo *info, UINT index) : Lent(info, get(info, index)) {}
    static FUNCDESC *get(ITypeInfo *info, UINT index)
    {
        FUNCDESC *desc = nullptr;
        return SUCCEEDED(info->GetFuncDesc(index, &desc)) ? desc : nullptr;
    }
};

// The name and flags of implemented interface k of a coclass.
bool implType(ITypeInfo *info, UINT k, std::string &name, INT &flags)
{
    HREFTYPE href = 0;
    ITypeInfo *ref = nullptr;
    if (FAILED(info->GetImplTypeFlags(k, &flags)) || FAILED(info->GetRefTypeOfImplType(k, &href)) ||
        FAILED(info->GetRefTypeInfo(href, &ref)))
        return false;
    name = nameOf(ref);
    ref->Release();
    return true;
}

const char *const kWtypes[] = {"com", "comS", "comP"};

// "IFoo_comS" is the "comS" form of IFoo; any other name is its own kit name.
bool splitSuffix(const std::string &idl, std::string &kit, std::string &wtype)
{
    for (const char *w : kWtypes) {
        std::string suffix = std::string("_") + w;
        if (idl.size() > suffix.size() && idl.compare(idl.size() - suffix.size(), suffix.size(), suffix) == 0) {
            kit = idl.substr(0, idl.size() - suffix.size());
            wtype = w;
            return true;
        }
    }
    kit = idl;
    return false;
}

struct Named {
    std::string kit;
    std::string wtype;
    bool events = false;
};

class Reader {
public:
    Reader(ITypeLib *lib, Library &library, std::string &error) : lib_(lib), library_(library), error_(error) {}

    bool read();

private:
    bool fail(const std::string &what)
    {
        error_ = where_.empty() ? what : where_ + ": " + what;
        return false;
    }
    // Calls visit(info, attributes) for every type of the library, in order,
    // until it answers false.
    template <class Visit> bool eachType(Visit visit);
    bool nameInterfaces();
    bool nameInterface(ITypeInfo *info, const Attr &attr);
    bool readInterface(ITypeInfo *info, const std::string &idl);
    bool readMethod(ITypeInfo *info, UINT index, bool dispatchOnly, Form &form, KitInterface &itf);
    bool resolve(ITypeInfo *info, const TYPEDESC *desc, Dir dir, KitParam &param, ComParam &com);
    bool resolveBase(ITypeInfo *info, const TYPEDESC *desc, KitParam &param, ComParam &com, bool inArray);
    bool interfaceType(ITypeInfo *ref, KitParam &param, ComParam &com, bool inArray);
    bool readCoclass(ITypeInfo *info);
    KitInterface &kitInterface(const std::string &name);

    ITypeLib *lib_;
    Library &library_;
    std::string &error_;
    std::string where_;
    std::map<std::string, Named> named_; // by IDL interface name
    std::set<std::string> sources_;
};

KitInterface &Reader::kitInterface(const std::string &name)
{
    for (KitInterface &itf : library_.interfaces)
        if (itf.name == name)
            return itf;
    library_.interfaces.push_back(KitInterface{});
    library_.interfaces.back().name = name;
    return library_.interfaces.back();
}

template <class Visit> bool Reader::eachType(Visit visit)
{
    UINT count = lib_->GetTypeInfoCount();
    for (UINT i = 0; i < count; ++i) {
        ITypeInfo *raw = nullptr;
        if (FAILED(lib_->GetTypeInfo(i, &raw)))
            return fail("cannot read type " + std::to_string(i));
        Ref<ITypeInfo> info(raw);
        Attr attr(raw);
        if (!attr)
            return fail("cannot read the attributes of type " + std::to_string(i));
        if (!visit(raw, attr))
            return false;
    }
    return true;
}

bool Reader::nameInterfaces()
{
    // Outgoing interfaces first: they are named by the coclasses that use them.
    bool read = eachType([this](ITypeInfo *info, const Attr &attr) {
        for (UINT k = 0; attr->typekind == TKIND_COCLASS && k < attr->cImplTypes; ++k) {
            std::string name;
            INT flags = 0;
            if (implType(info, k, name, flags) && (flags & IMPLTYPEFLAG_FSOURCE))
                sources_.insert(name);
        }
        return true;
    });
    return read && eachType([this](ITypeInfo *info, const Attr &attr) {
        return attr->typekind != TKIND_INTERFACE && attr->typekind != TKIND_DISPATCH ? true : nameInterface(info, attr);
    });
}

bool Reader::nameInterface(ITypeInfo *info, const Attr &attr)
{
    std::string idl = nameOf(info);
    Named named;
    bool suffixed = splitSuffix(idl, named.kit, named.wtype);
    named.events = sources_.count(idl) != 0;
    bool dual = (attr->wTypeFlags & TYPEFLAG_FDUAL) != 0;
    where_ = "interface " + idl;
    if (named.events)
        named.wtype = "comS";
    else if (attr->typekind == TKIND_DISPATCH && !dual)
        return fail("a dispinterface can only be an outgoing ([source]) interface");
    else if (!suffixed)
        named.wtype = dual ? "comS" : "com";
    else if (named.wtype == "comS" && !dual)
        return fail("the \"comS\" form must be a dual interface");
    named_[idl] = named;
    where_.clear();
    return true;
}

bool Reader::read()
{
    TLIBATTR *libattr = nullptr;
    if (FAILED(lib_->GetLibAttr(&libattr)))
        return fail("cannot read the library attributes");
    library_.libid = libattr->guid;
    lib_->ReleaseTLibAttr(libattr);
    BSTR name = nullptr;
    lib_->GetDocumentation(-1, &name, nullptr, nullptr, nullptr);
    library_.name = narrow(name);
    SysFreeString(name);
    if (library_.name.empty())
        return fail("the library has no name");

    return nameInterfaces() && eachType([this](ITypeInfo *info, const Attr &) {
               std::string idl = nameOf(info);
               return !named_.count(idl) || readInterface(info, idl);
           }) && eachType([this](ITypeInfo *info, const Attr &attr) {
               return attr->typekind != TKIND_COCLASS || readCoclass(info);
           });
}

bool Reader::readInterface(ITypeInfo *info, const std::string &idl)
{
    const Named &named = named_[idl];
    where_ = "interface " + idl;
    Attr attr(info);
    Form form;
    form.wtype = named.wtype;
    form.idl = idl;
    form.iid = attr->guid;
    form.events = named.events;
    form.dual = (attr->wTypeFlags & TYPEFLAG_FDUAL) != 0;

    // A dual interface is read through its vtable half, where the methods
    // return HRESULT and the result is an [out, retval] parameter.
    Ref<ITypeInfo> vtable;
    ITypeInfo *methods = info;
    bool dispatchOnly = attr->typekind == TKIND_DISPATCH && !form.dual;
    if (attr->typekind == TKIND_DISPATCH && form.dual) {
        HREFTYPE href = 0;
        ITypeInfo *half = nullptr;
        if (FAILED(info->GetRefTypeOfImplType(-1, &href)) || FAILED(info->GetRefTypeInfo(href, &half)))
            return fail("cannot read the vtable of the dual interface");
        vtable.reset(half);
        methods = half;
    }
    Attr mattr(methods);
    if (!dispatchOnly) {
        HREFTYPE href = 0;
        ITypeInfo *base = nullptr;
        if (mattr->cImplTypes != 1 || FAILED(methods->GetRefTypeOfImplType(0, &href)) ||
            FAILED(methods->GetRefTypeInfo(href, &base)))
            return fail("cannot read the base interface");
        Ref<ITypeInfo> baseRef(base);
        Attr battr(base);
        if (!IsEqualGUID(battr->guid, IID_IUnknown) && !IsEqualGUID(battr->guid, IID_IDispatch))
            return fail("derives from " + nameOf(base) + ": only IUnknown and IDispatch are supported as bases");
    }

    KitInterface &itf = kitInterface(named.kit);
    if (itf.forms.empty()) {
        itf.events = named.events;
    } else if (itf.events != named.events) {
        return fail("an outgoing interface cannot share its kit name with another interface");
    }
    for (const Form &other : itf.forms)
        if (other.wtype == form.wtype)
            return fail("kit interface " + itf.name + " has two \"" + form.wtype + "\" forms");
    bool first = itf.forms.empty();
    std::vector<KitMethod> kitMethods;
    std::swap(kitMethods, itf.methods);
    for (UINT f = 0; f < mattr->cFuncs; ++f) {
        if (!readMethod(methods, f, dispatchOnly, form, itf))
            return false;
    }
    // The kit methods just read must be those of the earlier forms.
    if (!first) {
        std::swap(kitMethods, itf.methods);
        where_ = "interface " + idl;
        if (kitMethods.size() != itf.methods.size())
            return fail("has " + std::to_string(kitMethods.size()) + " methods, the other forms of " + itf.name +
                        " have " + std::to_string(itf.methods.size()));
        for (size_t m = 0; m < kitMethods.size(); ++m) {
            const KitMethod &a = kitMethods[m], &b = itf.methods[m];
            bool same = a.params.size() == b.params.size();
            for (size_t p = 0; same && p < a.params.size(); ++p)
                same = a.params[p].kind == b.params[p].kind && a.params[p].dir == b.params[p].dir &&
                       a.params[p].array == b.params[p].array && a.params[p].ifname == b.params[p].ifname;
            if (!same || _stricmp(a.name.c_str(), b.name.c_str()) != 0)
                return fail("method " + a.name + ": differs from method " + b.name + " of the other forms of " +
                            itf.name);
        }
    }
    itf.forms.push_back(std::move(form));
    where_.clear();
    return true;
}

bool Reader::readMethod(ITypeInfo *info, UINT index, bool dispatchOnly, Form &form, KitInterface &itf)
{
    FuncDesc desc(info, index);
    if (!desc)
        return fail("cannot read method " + std::to_string(index));
    std::vector<BSTR> names(desc->cParams + 1, nullptr);
    UINT got = 0;
    info->GetNames(desc->memid, names.data(), static_cast<UINT>(names.size()), &got);
    KitMethod method;
    method.name = narrow(names[0]);
    std::vector<std::string> paramNames;
    for (UINT i = 1; i < names.size(); ++i)
        paramNames.push_back(i < got ? narrow(names[i]) : "p" + std::to_string(i - 1));
    for (BSTR name : names)
        SysFreeString(name);

    std::string base = where_;
    where_ += ", method " + method.name;
    if (desc->invkind != INVOKE_FUNC)
        return fail("properties are not supported; declare a method");
    VARTYPE ret = desc->elemdescFunc.tdesc.vt;
    if (ret != VT_HRESULT && !(dispatchOnly && ret == VT_VOID))
        return fail(dispatchOnly ? "must return void or HRESULT" : "must return HRESULT");

    FormMethod fm;
    fm.memid = desc->memid;
    for (SHORT i = 0; i < desc->cParams; ++i) {
        const ELEMDESC &elem = desc->lprgelemdescParam[i];
        USHORT flags = elem.paramdesc.wParamFlags;
        KitParam param;
        param.name = paramNames[i];
        std::string at = where_;
        where_ += ", parameter " + param.name;
        if (flags & (PARAMFLAG_FLCID | PARAMFLAG_FOPT | PARAMFLAG_FHASDEFAULT))
            return fail("lcid, optional and default parameters are not supported");
        bool in = (flags & PARAMFLAG_FIN) != 0 || !(flags & PARAMFLAG_FOUT);
        bool out = (flags & PARAMFLAG_FOUT) != 0;
        param.dir = out ? (in ? Dir::InOut : Dir::Out) : Dir::In;
        if (form.events && param.dir != Dir::In)
            return fail("an outgoing interface takes in parameters only");
        ComParam com;
        if (!resolve(info, &elem.tdesc, param.dir, param, com))
            return false;
        where_ = at;
        com.kit = static_cast<int>(method.params.size());
        fm.params.push_back(com);
        method.params.push_back(param);
        if (param.array) {
            KitParam length;
            length.name = param.name + "_count";
            length.kind = Kind::Int;
            length.dir = param.dir;
            length.length = true;
            method.params.push_back(length);
        }
    }
    where_ = base;
    itf.methods.push_back(std::move(method));
    form.methods.push_back(std::move(fm));
    return true;
}

// One level of pointer for out and in/out parameters, then the base type.
bool Reader::resolve(ITypeInfo *info, const TYPEDESC *desc, Dir dir, KitParam &param, ComParam &com)
{
    if (dir != Dir::In) {
        if (desc->vt != VT_PTR)
            return fail("an out or in/out parameter must be a pointer");
        desc = desc->lptdesc;
    }
    return resolveBase(info, desc, param, com, false);
}

bool Reader::interfaceType(ITypeInfo *ref, KitParam &param, ComParam &com, bool inArray)
{
    std::string idl = nameOf(ref);
    auto named = named_.find(idl);
    if (named == named_.end())
        return fail(idl + " * has no kit interface: use an interface of this library");
    param.kind = Kind::Interface;
    param.ifname = named->second.kit;
    com.ifidl = idl;
    com.ifwtype = named->second.wtype;
    (void)inArray;
    return true;
}

bool Reader::resolveBase(ITypeInfo *info, const TYPEDESC *desc, KitParam &param, ComParam &com, bool inArray)
{
    switch (desc->vt) {
    case VT_I4:
        param.kind = Kind::Int;
        return true;
    case VT_INT:
        param.kind = Kind::Int;
        com.plainint = true;
        return true;
    case VT_R4:
        param.kind = Kind::Float;
        return true;
    case VT_R8:
        param.kind = Kind::Double;
        return true;
    case VT_BSTR:
        param.kind = Kind::String;
        return true;
    case VT_VARIANT:
        return fail("a VARIANT cannot be carried by the kit");
    case VT_UNKNOWN:
    case VT_DISPATCH:
        return fail("IUnknown and IDispatch have no kit interface: use an interface of this library");
    case VT_SAFEARRAY:
        if (inArray)
            return fail("arrays of arrays are not supported");
        if (!resolveBase(info, desc->lptdesc, param, com, true))
            return false;
        param.array = true;
        return true;
    case VT_PTR: {
        const TYPEDESC *to = desc->lptdesc;
        if (to->vt == VT_UNKNOWN || to->vt == VT_DISPATCH)
            return fail("IUnknown and IDispatch have no kit interface: use an interface of this library");
        if (to->vt != VT_USERDEFINED)
            return fail("a pointer the kit cannot carry");
        ITypeInfo *ref = nullptr;
        if (FAILED(info->GetRefTypeInfo(to->hreftype, &ref)))
            return fail("cannot read the pointed-to type");
        Ref<ITypeInfo> keep(ref);
        Attr attr(ref);
        if (attr->typekind == TKIND_INTERFACE || attr->typekind == TKIND_DISPATCH) {
            if (IsEqualGUID(attr->guid, IID_IUnknown) || IsEqualGUID(attr->guid, IID_IDispatch))
                return fail("IUnknown and IDispatch have no kit interface: use an interface of this library");
            return interfaceType(ref, param, com, inArray);
        }
        return fail("a pointer to " + nameOf(ref) + " cannot be carried by the kit");
    }
    case VT_USERDEFINED: {
        ITypeInfo *ref = nullptr;
        if (FAILED(info->GetRefTypeInfo(desc->hreftype, &ref)))
            return fail("cannot read the type");
        Ref<ITypeInfo> keep(ref);
        Attr attr(ref);
        switch (attr->typekind) {
        case TKIND_ALIAS:
            return resolveBase(ref, &attr->tdescAlias, param, com, inArray);
        case TKIND_RECORD:
            return fail("the structure " + nameOf(ref) + " cannot be carried by the kit");
        case TKIND_UNION:
            return fail("the union " + nameOf(ref) + " cannot be carried by the kit");
        case TKIND_ENUM:
            return fail("the enumeration " + nameOf(ref) + " cannot be carried by the kit: use long");
        default:
            return fail(nameOf(ref) + " cannot be carried by the kit");
        }
    }
    default: {
        char buffer[64];
        snprintf(buffer, sizeof buffer, "the type with VARTYPE %d cannot be carried by the kit", desc->vt);
        return fail(buffer);
    }
    }
}

bool Reader::readCoclass(ITypeInfo *info)
{
    Attr attr(info);
    Coclass coclass;
    coclass.idl = nameOf(info);
    coclass.name = library_.name + "." + coclass.idl;
    coclass.clsid = attr->guid;
    where_ = "coclass " + coclass.idl;
    int defaultIndex = -1, sourceIndex = -1;
    bool defaultSource = false;
    for (UINT k = 0; k < attr->cImplTypes; ++k) {
        INT flags = 0;
        std::string idl;
        if (!implType(info, k, idl, flags))
            return fail("cannot read its interfaces");
        auto named = named_.find(idl);
        if (named == named_.end())
            return fail("interface " + idl + " is not in this type library");
        int index = -1;
        for (size_t i = 0; i < library_.interfaces.size(); ++i)
            if (library_.interfaces[i].name == named->second.kit)
                index = static_cast<int>(i);
        if (flags & IMPLTYPEFLAG_FSOURCE) {
            if (sourceIndex < 0 || ((flags & IMPLTYPEFLAG_FDEFAULT) && !defaultSource)) {
                sourceIndex = index;
                defaultSource = (flags & IMPLTYPEFLAG_FDEFAULT) != 0;
            }
            continue;
        }
        bool known = false;
        for (int i : coclass.interfaces)
            known |= i == index;
        if (!known)
            coclass.interfaces.push_back(index);
        if ((flags & IMPLTYPEFLAG_FDEFAULT) && defaultIndex < 0)
            defaultIndex = index;
    }
    if (coclass.interfaces.empty())
        return fail("implements no interface");
    if (coclass.interfaces.size() > 6)
        return fail("a kit component implements at most 6 interfaces");
    if (defaultIndex >= 0) {
        for (size_t i = 0; i < coclass.interfaces.size(); ++i)
            if (coclass.interfaces[i] == defaultIndex)
                std::swap(coclass.interfaces[0], coclass.interfaces[i]);
    }
    if (sourceIndex >= 0) {
        KitInterface &primary = library_.interfaces[coclass.interfaces[0]];
        const Form &events = library_.interfaces[sourceIndex].forms.front();
        if (primary.hasCP && !IsEqualGUID(primary.iidCP, events.iid))
            return fail("kit interface " + primary.name + " already has another outgoing interface");
        primary.hasCP = true;
        primary.iidCP = events.iid;
        if (library_.interfaces[sourceIndex].firedBy.empty())
            library_.interfaces[sourceIndex].firedBy = primary.name;
    }
    library_.coclasses.push_back(std::move(coclass));
    where_.clear();
    return true;
}

// A type library file as widl writes it (MSFT): a header, the offsets of the
// type descriptions, then a directory of 15 segments, each offset and length
// within the file. Checked before oleaut32 reads it, which trusts them:
//
//   0x00  "MSFT", version, ...            21 32-bit words
//   0x20  number of type descriptions     (word 8)
//   0x0c  flags; 0x100: one more word     (word 3)
//   0x54  [help DLL word] offsets[count] segments[15] {offset, length, 2 reserved}
bool checkFile(const std::string &path, std::string &error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot open the type library";
        return false;
    }
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto word = [&bytes](size_t index, int32_t &value) {
        if ((index + 1) * 4 > bytes.size())
            return false;
        memcpy(&value, &bytes[index * 4], 4);
        return true;
    };
    int32_t magic = 0, flags = 0, count = 0;
    if (!word(0, magic) || magic != 0x5446534d || !word(3, flags) || !word(8, count)) {
        error = "not a type library (widl -t writes one)";
        return false;
    }
    size_t directory = 21 + ((flags & 0x100) ? 1 : 0) + static_cast<uint32_t>(count);
    for (size_t segment = 0; segment < 15; ++segment) {
        int32_t offset = 0, length = 0;
        if (count < 0 || !word(directory + segment * 4, offset) || !word(directory + segment * 4 + 1, length) ||
            (offset != -1 && (offset < 0 || length < 0 || static_cast<size_t>(offset) + length > bytes.size()))) {
            error = "cannot read the type library: it is damaged (truncated?)";
            return false;
        }
    }
    return true;
}

} // namespace

bool readTypeLibrary(const std::string &path, Library &library, std::string &error)
{
    std::wstring wide(path.size() + 1, L'\0');
    int n = MultiByteToWideChar(CP_ACP, 0, path.c_str(), -1, &wide[0], static_cast<int>(wide.size()));
    wide.resize(n > 0 ? n - 1 : 0);
    if (!checkFile(path, error))
        return false;
    ITypeLib *lib = nullptr;
    HRESULT hr = LoadTypeLibEx(wide.c_str(), REGKIND_NONE, &lib);
    if (FAILED(hr)) {
        char buffer[96];
        snprintf(buffer, sizeof buffer, "cannot read the type library (HRESULT 0x%08lx)", static_cast<unsigned long>(hr));
        error = buffer;
        return false;
    }
    Ref<ITypeLib> keep(lib);
    return Reader(lib, library, error).read();
}

} // namespace vexalgen
