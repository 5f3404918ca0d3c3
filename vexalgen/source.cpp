// The generated source: kit definitions, the component glue over the
// author's classes, COM wrappers and kit proxies of every form, COM-side
// records, registration and the DLL entry points.
//
// Every conversion is written per parameter by one of four writers, one per
// direction of travel:
//   COM wrapper, vtable call   COM arguments  -> kit call -> COM results
//   COM wrapper, Invoke        VARIANTs       -> kit call -> VARIANTs
//   kit proxy, vtable form     kit arguments  -> COM call -> kit results
//   kit proxy, dispatch form   kit arguments  -> vxl_com_dispcall -> kit results
// Each emits what comes before the call (pre), the call's arguments (args)
// and what comes after a successful call (post).
#include "spelling.h"
#include "writer.h"

namespace vexalgen {
namespace {

struct Code {
    std::string pre, args, post, nulls;
    void arg(const std::string &text) { args += (args.empty() ? "" : ", ") + text; }
    void null(const std::string &name) { nulls += (nulls.empty() ? "!" : " || !") + name; }
    // The out pointers a caller must supply, tested before anything is converted.
    std::string checks(const char *indent, const char *failure) const
    {
        if (nulls.empty())
            return "";
        return std::string(indent) + "if (" + nulls + ")\n" + indent + "    return " + failure + ";\n";
    }
};

std::string quotedOrNull(const KitParam &p)
{
    return p.kind == Kind::Interface ? quoted(p.ifname) : "nullptr";
}

std::string arrayOwner(const KitParam &p)
{
    return std::string("vxg::KitArray<") + typeCode(p.kind) + ">";
}

// The runtime's safe-array maker for a kit array: typed (vtable forms) or of VARIANTs (dispatch).
std::string makeSafeArray(const KitParam &p, const std::string &array, const std::string &count,
                          const std::string &wtype, bool variants)
{
    std::string call = std::string("vxl_com_create") + (variants ? "variant" : "") + kindWord(p.kind) +
                       "safearray(" + array + ", " + count;
    if (p.kind == Kind::Interface)
        call += ", " + quoted(p.ifname) + ", " + quoted(wtype);
    // Scripts take VT_DISPATCH elements as objects; the runtime writes VT_UNKNOWN.
    return variants && p.kind == Kind::Interface ? "vxg::dispatchify(" + call + "))" : call + ")";
}

const char *comScalar(const ComParam &c, Kind kind)
{
    static const char *const types[] = {"LONG", "FLOAT", "DOUBLE"};
    return c.plainint ? "INT" : types[static_cast<int>(kind)];
}

// A string or interface held by an owner for the length of the call: made
// from the caller's argument (in, in/out) or left empty (out), passed as
// inArg or outArg, and turned back into the caller's variable by back after
// a successful call. indent is the body's; post code sits one level deeper.
struct Owned {
    std::string owner, names, inArg, outArg, back;
};
void ownedParam(const KitParam &p, const std::string &k, const Owned &o, const std::string &indent, Code &code)
{
    const std::string &x = p.name, names = o.names.empty() ? "" : ", " + o.names;
    if (p.dir == Dir::Out)
        code.pre += indent + "*" + x + " = nullptr;\n" + indent + o.owner + " " + k + ";\n";
    else
        code.pre += indent + o.owner + " " + k + "(" + (p.dir == Dir::In ? x : "*" + x) + names + ");\n";
    code.arg(p.dir == Dir::In ? o.inArg : o.outArg);
    std::string back = k + "." + o.back;
    if (p.dir == Dir::Out)
        code.post += indent + "    *" + x + " = " + back + ";\n";
    else if (p.dir == Dir::InOut)
        code.post += indent + "    vxg::replace(" + x + ", " + back + ");\n";
}

// An out or in/out number copied into a local of the other side's type for
// the call, and back into the caller's variable after a successful call.
void copiedNumber(const KitParam &p, const std::string &k, const std::string &type, const std::string &indent, Code &code)
{
    const std::string &x = p.name;
    if (p.dir == Dir::Out)
        code.pre += indent + "*" + x + " = 0;\n";
    code.pre += indent + type + " " + k + " = " + (p.dir == Dir::Out ? "0" : "*" + x) + ";\n";
    code.arg("&" + k);
    code.post += indent + "    *" + x + " = " + k + ";\n";
}

// COM wrapper, vtable call: the COM caller's arguments into kit values.
void wrapperParam(const KitParam &p, const ComParam &c, Code &code)
{
    const std::string &x = p.name, k = "k_" + x, w = quoted(c.ifwtype);
    if (p.dir != Dir::In)
        code.null(x);
    if (p.array) {
        std::string names = quotedOrNull(p) + ", " + (p.kind == Kind::Interface ? w : "nullptr");
        if (p.dir == Dir::In) {
            code.pre += "        " + arrayOwner(p) + " " + k + "(" + x + ", " + names + ");\n";
            code.arg(k + ".p");
            code.arg(k + ".n");
            return;
        }
        if (p.dir == Dir::Out)
            code.pre += "        *" + x + " = nullptr;\n        " + arrayOwner(p) + " " + k + "(" + names + ");\n";
        else
            code.pre += "        " + arrayOwner(p) + " " + k + "(*" + x + ", " + names + ");\n";
        code.arg("&" + k + ".p");
        code.arg("&" + k + ".n");
        code.post += p.dir == Dir::Out ? "            *" + x + " = " + k + ".typed();\n"
                                       : "            vxg::replace(" + x + ", " + k + ".typed());\n";
        return;
    }
    switch (p.kind) {
    case Kind::Int:
    case Kind::Float:
    case Kind::Double:
        if (p.dir == Dir::In) {
            code.arg(x);
            return;
        }
        copiedNumber(p, k, kitScalar(p.kind), "        ", code);
        return;
    case Kind::String:
        ownedParam(p, k, {"vxg::KitString", "", k + ".p", "&" + k + ".p", "tocom()"}, "        ", code);
        return;
    case Kind::Interface: {
        std::string names = quoted(p.ifname) + ", " + w;
        ownedParam(p, k, {"vxg::KitIf", names, k + ".p", "&" + k + ".p", "tocom<::" + c.ifidl + ">(" + names + ")"}, "        ",
                   code);
        return;
    }
    }
}

// The VARTYPE an in/out argument is passed by reference as.
std::string byrefTag(const KitParam &p)
{
    static const char *const tags[] = {"VT_I4", "VT_R4", "VT_R8", "VT_BSTR", "VT_DISPATCH"};
    return p.array ? "VT_ARRAY | VT_VARIANT" : tags[static_cast<int>(p.kind)];
}

// COM wrapper, Invoke: argument pos of DISPPARAMS into a kit value.
void invokeParam(const KitParam &p, int pos, Code &code)
{
    const std::string k = "k_" + p.name;
    std::string owner;
    if (p.array)
        owner = arrayOwner(p) + " " + k + "(" + quotedOrNull(p) + ", \"comS\")";
    else if (p.kind == Kind::String)
        owner = "vxg::KitString " + k;
    else if (p.kind == Kind::Interface)
        owner = "vxg::KitIf " + k;
    else
        owner = std::string(kitScalar(p.kind)) + " " + k + " = 0";
    code.pre += "        " + owner + ";\n";
    bool scalar = !p.array && p.kind != Kind::String && p.kind != Kind::Interface;
    std::string value = scalar ? "&" + k : k;
    std::string ifname = p.kind == Kind::Interface && !p.array ? ", " + quoted(p.ifname) : "";
    if (p.dir != Dir::Out) {
        std::string at = "vxg::arg(params, " + std::to_string(pos) + ")";
        code.pre += "        if (FAILED(hr = vxg::read(" + at + ", " + value + ifname + ")))\n"
                    "            return *bad = " + std::to_string(pos) + ", hr;\n";
        if (p.dir == Dir::InOut)
            code.post += "        vxg::writeback(" + at + ", " + byrefTag(p) + ", " + k + ifname + ");\n";
    }
    if (p.array) {
        code.arg(p.dir == Dir::In ? k + ".p" : "&" + k + ".p");
        code.arg(p.dir == Dir::In ? k + ".n" : "&" + k + ".n");
    } else if (scalar) {
        code.arg(p.dir == Dir::In ? k : "&" + k);
    } else {
        code.arg(p.dir == Dir::In ? k + ".p" : "&" + k + ".p");
    }
}

// Kit proxy: the kit caller's arguments into COM values, for the vtable form
// or for vxl_com_dispcall (dispatch).
void proxyParam(const KitParam &p, const ComParam *c, bool dispatch, Code &code)
{
    const std::string &x = p.name, k = "c_" + x, count = x + "_count";
    std::string wtype = dispatch ? "comS" : c->ifwtype;
    if (p.dir != Dir::In) {
        code.null(x);
        if (p.array)
            code.null(count);
    }
    if (p.array) {
        if (p.dir == Dir::Out) {
            code.pre += "    *" + x + " = nullptr;\n    *" + count + " = 0;\n    vxg::SafeArray " + k + ";\n";
        } else {
            std::string array = p.dir == Dir::In ? x : "*" + x, n = p.dir == Dir::In ? count : "*" + count;
            code.pre += "    vxg::SafeArray " + k + "(" + makeSafeArray(p, array, n, wtype, dispatch) + ");\n";
        }
        code.arg(p.dir == Dir::In && !dispatch ? k + ".p" : "&" + k + ".p");
        if (p.dir != Dir::In)
            code.post += std::string("        vxg::tokit<") + typeCode(p.kind) + ">(" + k + ".p, " + x + ", " + count +
                         ", " + quotedOrNull(p) + ", " + (p.kind == Kind::Interface ? quoted(wtype) : "nullptr") + ");\n";
        return;
    }
    switch (p.kind) {
    case Kind::Int:
    case Kind::Float:
    case Kind::Double:
        if (p.dir == Dir::In) {
            code.arg(x);
            return;
        }
        if (!dispatch) {
            copiedNumber(p, k, comScalar(*c, p.kind), "    ", code);
            return;
        }
        if (p.dir == Dir::Out)
            code.pre += "    *" + x + " = 0;\n";
        code.arg(x); // vxl_com_dispcall writes through the caller's own pointer
        return;
    case Kind::String:
        ownedParam(p, k, {"vxg::Bstr", "", k + ".p", "&" + k + ".p", "tokit()"}, "    ", code);
        return;
    case Kind::Interface: {
        std::string names = quoted(p.ifname) + ", " + quoted(wtype);
        std::string type = dispatch ? "IDispatch" : "::" + c->ifidl;
        ownedParam(p, k, {"vxg::ComIf", names, k + ".as<" + type + ">()", k + ".out<" + type + ">()", "tokit(" + names + ")"}, "    ",
                   code);
        return;
    }
    }
}

std::string rule(const std::string &title)
{
    return "// ---- " + title + " " + std::string(title.size() < 78 ? 78 - title.size() : 4, '-') + "\n\n";
}

std::string methodId(const KitInterface &itf, const KitMethod &m)
{
    return itf.name + "_" + m.name;
}

void writeDefinitions(const KitInterface &itf, std::string &s)
{
    for (const KitMethod &m : itf.methods) {
        std::string id = methodId(itf, m);
        for (size_t i = 0; i < m.params.size(); ++i) {
            const KitParam &p = m.params[i];
            std::string array = p.array ? "~" + std::to_string(i + 1) : "0";
            s += "const vxl_paramdef " + id + "_" + p.name + " = {" + quoted(p.name) + ", " + typeCode(p.kind) + ", " +
                 dirCode(p.dir) + ", " + array + ", " + (p.kind == Kind::Interface ? quoted(p.ifname) : "nullptr") +
                 "};\n";
        }
        if (!m.params.empty()) {
            std::string items;
            for (size_t i = 0; i < m.params.size(); ++i)
                items += (i ? ", &" : "&") + id + "_" + m.params[i].name;
            s += fit("", "const vxl_paramdef *const " + id + "_params[] = {", items, "};") + "\n";
        }
        s += "const vxl_methoddef " + id + "_method = {" + quoted(m.name) + ", " + std::to_string(m.params.size()) +
             ", " + (m.params.empty() ? "nullptr" : id + "_params") + "};\n";
    }
    if (!itf.methods.empty()) {
        std::string items;
        for (size_t j = 0; j < itf.methods.size(); ++j)
            items += (j ? ", &" : "&") + methodId(itf, itf.methods[j]) + "_method";
        s += fit("", "const vxl_methoddef *const " + itf.name + "_methods[] = {", items, "};") + "\n";
    }
    s += "\n";
}

// One kit function per method and a method table, for a component or a proxy class.
void writeFunctionTable(const std::string &prefix, const KitInterface &itf, std::string &s)
{
    if (itf.methods.empty())
        return;
    s += "const vxl_fn " + prefix + "_functions[] = {";
    for (size_t j = 0; j < itf.methods.size(); ++j)
        s += std::string(j ? ",\n    " : "\n    ") + "reinterpret_cast<vxl_fn>(" + prefix + "_" + itf.methods[j].name + ")";
    s += "};\n";
}

void writeComponent(const Library &library, const Coclass &c, std::string &s)
{
    s += rule("component " + c.name);
    for (int index : c.interfaces) {
        const KitInterface &itf = library.interfaces[index];
        std::string prefix = c.idl + "_" + itf.name;
        for (const KitMethod &m : itf.methods) {
            s += fit("", "int32_t " + prefix + "_" + m.name + "(", "void *impl" + (m.params.empty() ? "" : ", " + kitParams(m, true)), ")") +
                 "\n{\n    try {\n" +
                 fit("        ", "return static_cast<" + itf.name + " *>(static_cast<" + c.idl + " *>(impl))->" + m.name + "(",
                     kitArgs(m), ");") +
                 "\n    } catch (...) {\n        return vxg::caught();\n    }\n}\n";
        }
        writeFunctionTable(prefix, itf, s);
        s += "const vxl_componentinterface " + prefix + "_entry = {&" + itf.name + "_def, " +
             (itf.methods.empty() ? "nullptr" : prefix + "_functions") + "};\n\n";
    }
    std::string entries;
    for (size_t i = 0; i < c.interfaces.size(); ++i)
        entries += (i ? ", &" : "&") + c.idl + "_" + library.interfaces[c.interfaces[i]].name + "_entry";
    s += "} // namespace\n\n" +
         fit("", "const vxl_componentinterface *const " + c.idl + "_interfaces[" + std::to_string(c.interfaces.size()) + "] = {",
             entries, "};") +
         "\n\n"
         "int32_t " + c.idl + "_createimpl(void **implslot, vxl_if primary)\n{\n"
         "    " + c.idl + " *impl = nullptr;\n"
         "    try {\n        impl = " + c.idl + "::create();\n    } catch (...) {\n        return vxg::caught();\n    }\n"
         "    if (!impl)\n        return VXL_ENOMEM;\n"
         "    impl->self_ = primary;\n    *implslot = impl;\n    return VXL_OK;\n}\n\n"
         "int32_t " + c.idl + "_destroyimpl(void *impl, vxl_if)\n{\n"
         "    delete static_cast<" + c.idl + " *>(impl);\n    return VXL_OK;\n}\n\n" +
         fit("", "const vxl_componentdef " + c.idl + "_class = {",
             quoted(c.name) + ", " + std::to_string(c.interfaces.size()) + ", " + c.idl + "_interfaces, " + c.idl +
                 "_createimpl, " + c.idl + "_destroyimpl, nullptr",
             "};") +
         "\n\nnamespace {\n\n";
}

std::string comParams(const KitMethod &m, const FormMethod &fm)
{
    std::string out;
    for (const ComParam &c : fm.params)
        out += (out.empty() ? "" : ", ") + declare(comType(m.params[c.kit], c), m.params[c.kit].name);
    return out;
}

void writeInvoke(const KitInterface &itf, const Form &form, std::string &s)
{
    s += "    HRESULT invoke(DISPID id, WORD flags, DISPPARAMS *params, VARIANT *result, UINT *bad)\n    {\n"
         "        switch (id) {\n";
    for (size_t j = 0; j < itf.methods.size(); ++j)
        s += "        case " + std::to_string(form.methods[j].memid) + ":\n            return " + itf.methods[j].name +
             "_invoke(flags, params, result, bad);\n";
    s += "        }\n        return DISP_E_MEMBERNOTFOUND;\n    }\n";
    for (const KitMethod &m : itf.methods) {
        Code code;
        int inputs = 0, outs = 0;
        for (const KitParam &p : m.params) {
            if (p.length)
                continue;
            if (p.dir != Dir::Out)
                invokeParam(p, inputs++, code);
            else
                invokeParam(p, -1, code);
        }
        // One out value is the result; several travel as one combined value,
        // counted as vxl_com_dispcall counts them (an out array with its length is two).
        std::string slots;
        const KitParam *single = nullptr;
        for (size_t i = 0; i < m.params.size(); ++i) {
            const KitParam &p = m.params[i];
            std::string k = "k_" + (p.length ? m.params[i - 1].name : p.name);
            if (p.length) {
                outs += p.dir == Dir::Out;
                if (p.dir != Dir::In)
                    slots += ", " + k + ".n";
                continue;
            }
            if (p.dir != Dir::Out)
                continue;
            ++outs;
            single = &p;
            if (p.array)
                slots += p.kind == Kind::Interface ? ", \"comS\", " + quoted(p.ifname) + ", " + k + ".p" : ", " + k + ".p";
            else if (p.kind == Kind::Interface)
                slots += ", " + k + ".take(), \"comS\", " + quoted(p.ifname);
            else if (p.kind == Kind::String)
                slots += ", " + k + ".p";
            else if (p.kind == Kind::Float)
                slots += ", static_cast<double>(" + k + ")";
            else
                slots += ", " + k;
        }
        s += "    HRESULT " + m.name + "_invoke(WORD flags, DISPPARAMS *params, VARIANT *result, UINT *bad)\n    {\n"
             "        HRESULT hr = vxg::check(flags, params, " + std::to_string(inputs) + ");\n"
             "        if (FAILED(hr))\n            return hr;\n" + code.pre +
             fit("        ", "int32_t status = " + methodId(itf, m) + "(", "pif_" + (code.args.empty() ? "" : ", " + code.args), ");") +
             "\n        if (status != VXL_OK)\n            return vxl_com_err2hret(status);\n" + code.post;
        if (outs == 1)
            s += "        vxg::result(result, k_" + single->name +
                 (single->kind == Kind::Interface ? ", " + quoted(single->ifname) : "") + ");\n";
        else if (outs > 1)
            s += fit("        ", "vxg::combined(result, vxl_com_createcombined(", "&" + methodId(itf, m) + "_method" + slots, "));") +
                 "\n";
        s += "        return S_OK;\n    }\n";
    }
}

std::string wrapperName(const KitInterface &itf, const Form &form)
{
    return itf.name + "_" + form.wtype + "_wrapper";
}

void writeWrapper(const KitInterface &itf, const Form &form, std::string &s)
{
    // A dual outgoing interface keeps its vtable: a COM object handed a sink
    // typed as that interface may call it either way.
    bool vtable = !form.events || form.dual;
    std::string name = wrapperName(itf, form), com = vtable ? "::" + form.idl : "IDispatch";
    s += "// The \"" + form.wtype + "\" form of " + itf.name + ": COM interface " + form.idl +
         (form.events ? ", outgoing, reached through IDispatch" : form.dual ? ", dual" : "") + ".\n";
    if (form.dual || form.events)
        s += "class " + name + " final : public vxg::Dispatcher<" + com + ", " + name + "> {\npublic:\n"
             "    using Dispatcher::Dispatcher;\n"
             "    static REFIID typeiid()\n    {\n        static const IID iid = " + guidLiteral(form.iid) +
             ";\n        return iid;\n    }\n\n";
    else
        s += "class " + name + " final : public vxg::Wrapper<" + com + "> {\npublic:\n    using Wrapper::Wrapper;\n\n";
    if (vtable) {
        for (size_t j = 0; j < itf.methods.size(); ++j) {
            const KitMethod &m = itf.methods[j];
            const FormMethod &fm = form.methods[j];
            Code code;
            for (const ComParam &c : fm.params)
                wrapperParam(m.params[c.kit], c, code);
            s += fit("    ", "HRESULT STDMETHODCALLTYPE " + m.name + "(", comParams(m, fm), ") override") + "\n    {\n" +
                 code.checks("        ", "E_POINTER") + code.pre +
                 fit("        ", "int32_t status = " + methodId(itf, m) + "(", "pif_" + (code.args.empty() ? "" : ", " + code.args),
                     ");") +
                 "\n";
            if (!code.post.empty())
                s += "        if (status == VXL_OK) {\n" + code.post + "        }\n";
            s += "        return vxl_com_err2hret(status);\n    }\n";
        }
    }
    if (form.dual || form.events) {
        if (vtable)
            s += "\n";
        writeInvoke(itf, form, s);
    }
    s += "};\n\n";
}

// An outgoing interface's proxy fires each call at its one sink.
void writeEventProxy(const KitInterface &itf, const Form &form, const std::string &prefix, std::string &s)
{
    for (size_t j = 0; j < itf.methods.size(); ++j) {
        const KitMethod &m = itf.methods[j];
        int count = 0;
        for (const KitParam &p : m.params)
            count += !p.length;
        s += fit("", "int32_t " + prefix + "_" + m.name + "(", "void *impl" + (m.params.empty() ? "" : ", " + kitParams(m, true)), ")") +
             "\n{\n    vxg::EventArgs<" + std::to_string(count) + "> args;\n";
        int slot = count;
        for (const KitParam &p : m.params) {
            if (p.length)
                continue;
            std::string at = "&args.v[" + std::to_string(--slot) + "]";
            if (p.array)
                s += std::string("    vxl_com_copy") + kindWord(p.kind) + "arraytovariantsafearrayvariant(" + at + ", " +
                     p.name + ", " + p.name + "_count" +
                     (p.kind == Kind::Interface ? ", " + quoted(p.ifname) + ", \"comS\"" : "") + ");\n" +
                     (p.kind == Kind::Interface ? "    vxg::dispatchify(vxg::arrayof(" + at + "));\n" : "");
            else
                s += std::string("    vxl_com_put") + kindWord(p.kind) + "tovariant(" + at + ", " + p.name +
                     (p.kind == Kind::Interface ? ", " + quoted(p.ifname) + ", \"comS\"" : "") + ");\n";
        }
        s += "    return vxl_com_hret2err(vxg::fire(" + quoted(itf.firedBy) + ", " + std::to_string(form.methods[j].memid) +
             ", args.v, " + std::to_string(count) + ", impl));\n}\n";
    }
}

void writeProxy(const KitInterface &itf, const Form &form, std::string &s)
{
    bool dispatch = form.wtype == "comS";
    std::string prefix = itf.name + "_" + form.wtype + "_proxy";
    s += "// Kit proxy \"" + prefix + "\": " +
         (form.events ? "fires events at a sink through vxl_com_cpinvoke"
                      : dispatch ? "calls through vxl_com_dispcall" : "calls the vtable of " + form.idl) +
         ".\n";
    if (form.events)
        writeEventProxy(itf, form, prefix, s);
    for (size_t j = 0; j < itf.methods.size() && !form.events; ++j) {
        const KitMethod &m = itf.methods[j];
        Code code;
        const std::vector<ComParam> &coms = form.methods[j].params;
        for (size_t i = 0, c = 0; i < m.params.size(); ++i) {
            if (m.params[i].length)
                continue;
            proxyParam(m.params[i], &coms[c++], dispatch, code);
        }
        s += fit("", "int32_t " + prefix + "_" + m.name + "(", "void *impl" + (m.params.empty() ? "" : ", " + kitParams(m, true)), ")") +
             "\n{\n" + code.checks("    ", "VXL_EFAIL") + code.pre;
        if (dispatch)
            s += fit("    ", "HRESULT hr = vxl_com_dispcall(",
                     "static_cast<IDispatch *>(impl), &" + methodId(itf, m) + "_method" + (code.args.empty() ? "" : ", " + code.args),
                     ");") + "\n";
        else
            s += fit("    ", "HRESULT hr = static_cast<::" + form.idl + " *>(impl)->" + m.name + "(", code.args, ");") + "\n";
        if (!code.post.empty())
            s += "    if (SUCCEEDED(hr)) {\n" + code.post + "    }\n";
        s += "    return vxl_com_hret2err(hr);\n}\n";
    }
    writeFunctionTable(prefix, itf, s);
    s += "const vxl_componentinterface " + prefix + "_entry = {&" + itf.name + "_def, " +
         (itf.methods.empty() ? "nullptr" : prefix + "_functions") + "};\n"
         "const vxl_componentinterface *const " + prefix + "_entries[] = {&" + prefix + "_entry};\n" +
         fit("", "const vxl_componentdef " + prefix + " = {",
             quoted(prefix) + ", 1, " + prefix + "_entries, vxg::refuseproxy, vxg::destroyproxy, vxl_com_wrappergetinterface",
             "};") +
         "\n\n";
}

void writeRecords(const Library &library, const Output &out, std::string &s)
{
    s += rule("COM-side records");
    s += "const vxl_comlibinfo library = {" + quoted(out.module) + ", " + guidLiteral(library.libid) + "};\n\n";
    for (const Coclass &c : library.coclasses)
        s += "// CLSID {" + guidText(c.clsid) + "}\nconst vxl_comcomponentinfo " + c.idl + "_cominfo = {" +
             quoted(c.name) + ", " + guidLiteral(c.clsid) + "};\n";
    s += "const vxl_comcomponentinfo *const comcomponents[] = {";
    for (const Coclass &c : library.coclasses)
        s += "&" + c.idl + "_cominfo, ";
    s += "nullptr};\n\n";
    for (const KitInterface &itf : library.interfaces) {
        s += "const vxl_comifinfo " + itf.name + "_cominfo = {\n    " + quoted(itf.name) + ",\n";
        const char *const wtypes[] = {"com", "comS", "comP"};
        for (const char *w : wtypes) {
            const Form *form = library.findForm(itf, w);
            if (!form)
                s += "    GUID_NULL, // no \"" + std::string(w) + "\" form\n";
            else if (form->events)
                s += "    IID_IDispatch, // \"comS\": sinks of " + form->idl + " are called by name\n";
            else
                s += "    " + guidLiteral(form->iid) + ", // \"" + w + "\": " + form->idl + "\n";
        }
        if (itf.hasCP) {
            GUID cp = itf.iidCP;
            s += "    " + guidLiteral(cp) + ", // outgoing interface\n";
            cp.Data1 = ~cp.Data1;
            s += "    " + guidLiteral(cp) + ", // CLSID of \"CP" + itf.name + "\"\n";
        } else {
            s += "    GUID_NULL,\n    GUID_NULL,\n";
        }
        for (const char *w : wtypes) {
            const Form *form = library.findForm(itf, w);
            s += "    " + (form ? "vxg::makewrapper<" + wrapperName(itf, *form) + ">" : std::string("nullptr")) + ",\n";
        }
        s += "    nullptr,\n};\n";
    }
    s += "const vxl_comifinfo *const cominterfaces[] = {";
    for (const KitInterface &itf : library.interfaces)
        s += "&" + itf.name + "_cominfo, ";
    s += "nullptr};\n// This module is the wrapper library of all of them.\nconst char *const proxynames[] = {";
    for (const KitInterface &itf : library.interfaces)
        s += quoted(itf.name) + ", ";
    s += "nullptr};\n\n// Components and proxy classes, as vxl_register takes them.\nconst vxl_componentdef *const kitcomponents[] = {";
    for (const Coclass &c : library.coclasses)
        s += "\n    &" + c.idl + "_class,";
    for (const KitInterface &itf : library.interfaces)
        for (const Form &form : itf.forms)
            s += "\n    &" + itf.name + "_" + form.wtype + "_proxy,";
    s += "\n    nullptr};\n\n";
}

} // namespace

void writeSource(const Library &library, Output &out)
{
    std::string &s = out.source;
    const std::string &lib = library.name;
    s += "// Generated by vexalgen from " + out.stem + ".tlb (library " + lib +
         "). Do not edit: change the IDL\n// and build again.\n"
         "#include \"" + out.stem + "_vexal.h\"\n\n"
         "#include \"" + out.stem + ".h\" // widl's declarations of the COM interfaces\n\n"
         "#include <olectl.h>\n\n#include <new>\n\n";
    s += kPrelude;
    s += "\nnamespace " + lib + " {\nnamespace {\n\n" + rule("kit definitions");
    for (const KitInterface &itf : library.interfaces)
        writeDefinitions(itf, s);
    s += "} // namespace\n\n";
    std::string all;
    for (const KitInterface &itf : library.interfaces) {
        s += "const vxl_interfacedef " + itf.name + "_def = {" + quoted(itf.name) + ", " +
             std::to_string(itf.methods.size()) + ", " + (itf.methods.empty() ? "nullptr" : itf.name + "_methods") +
             "};\n";
        all += "&" + itf.name + "_def, ";
    }
    s += fit("", "const vxl_interfacedef *const interfaces[" + std::to_string(library.interfaces.size() + 1) + "] = {",
             all + "nullptr", "};") +
         "\n\nnamespace {\n\n";
    for (const Coclass &c : library.coclasses)
        writeComponent(library, c, s);
    s += rule("COM wrappers: COM calls into kit methods");
    for (const KitInterface &itf : library.interfaces)
        for (const Form &form : itf.forms)
            writeWrapper(itf, form, s);
    s += rule("kit proxies: kit calls into COM methods");
    for (const KitInterface &itf : library.interfaces)
        for (const Form &form : itf.forms)
            writeProxy(itf, form, s);
    writeRecords(library, out, s);
    s += "} // namespace\n\n" + rule("registration") +
         "void registerlibrary()\n{\n"
         "    vxl_register(" + quoted(lib) + ", kitcomponents, interfaces);\n"
         "    vxl_com_register(&library, comcomponents, cominterfaces);\n}\n\n"
         "void unregisterlibrary()\n{\n"
         "    vxl_com_unregister(&library, comcomponents, cominterfaces);\n"
         "    vxl_unregister(kitcomponents, interfaces);\n}\n\n"
         "// The class objects go first: each keeps its kit class factory in use.\n"
         "bool libraryinuse()\n{\n"
         "    return vxl_com_inuse(comcomponents, nullptr) != 0 || vxl_inuse(kitcomponents) != 0 ||\n"
         "           vxg::livewrappers != 0;\n}\n\n"
         "HRESULT registerserver(HMODULE module)\n{\n"
         "    return vxl_com_registerserver(module, &library, comcomponents, proxynames) == 0 ? S_OK : SELFREG_E_TYPELIB;\n}\n\n"
         "HRESULT unregisterserver(HMODULE module)\n{\n"
         "    return vxl_com_unregisterserver(module, &library, comcomponents, proxynames);\n}\n\n"
         "} // namespace " + lib + "\n\n";
    s += "#ifndef VEXALGEN_NO_DLL_ENTRY\n" + rule("entry points of the component library") +
         "namespace {\nHMODULE g_module = nullptr;\n}\n\n"
         "// Registering only allocates and takes the runtime's own locks, which is\n"
         "// safe while the loader lock is held.\n"
         "extern \"C\" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved)\n{\n"
         "    if (reason == DLL_PROCESS_ATTACH) {\n"
         "        g_module = instance;\n"
         "        DisableThreadLibraryCalls(instance);\n"
         "        " + lib + "::registerlibrary();\n"
         "    } else if (reason == DLL_PROCESS_DETACH && !reserved) {\n"
         "        // Unloaded by FreeLibrary, not at process exit: the runtime must not\n"
         "        // keep pointers into this module.\n"
         "        " + lib + "::unregisterlibrary();\n"
         "    }\n    return TRUE;\n}\n\n"
         "// For vxl_loaddynamiclibrary: the tables were registered as the library loaded.\n"
         "extern \"C\" int32_t vxl_dll_init(void)\n{\n    return VXL_OK;\n}\n\n"
         "STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void **out)\n{\n"
         "    return vxl_com_getclassobject(&clsid, &iid, out);\n}\n\n"
         "STDAPI DllCanUnloadNow(void)\n{\n    return " + lib + "::libraryinuse() ? S_FALSE : S_OK;\n}\n\n"
         "STDAPI DllRegisterServer(void)\n{\n    return " + lib + "::registerserver(g_module);\n}\n\n"
         "STDAPI DllUnregisterServer(void)\n{\n    return " + lib + "::unregisterserver(g_module);\n}\n"
         "#endif\n";
}

} // namespace vexalgen
