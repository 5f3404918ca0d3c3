// How the model is spelled in C++: kit parameter types, COM parameter types,
// definition codes and GUID literals. The header and source writers share
// these so that a declaration and its definition cannot drift apart.
#pragma once

#include "model.h"

#include <cstdio>
#include <string>

namespace vexalgen {

inline const char *typeCode(Kind kind)
{
    static const char *const codes[] = {"VXL_TYPE_INT", "VXL_TYPE_FLOAT", "VXL_TYPE_DOUBLE", "VXL_TYPE_STRING",
                                        "VXL_TYPE_INTERFACE"};
    return codes[static_cast<int>(kind)];
}

inline const char *dirCode(Dir dir)
{
    static const char *const codes[] = {"VXL_DIR_IN", "VXL_DIR_OUT", "VXL_DIR_INOUT"};
    return codes[static_cast<int>(dir)];
}

// The word the runtime's array functions use for a kind: vxl_com_create<word>safearray.
inline const char *kindWord(Kind kind)
{
    static const char *const words[] = {"int", "float", "double", "string", "interface"};
    return words[static_cast<int>(kind)];
}

inline const char *kitScalar(Kind kind)
{
    static const char *const types[] = {"int32_t", "float", "double", "char *", "vxl_if"};
    return types[static_cast<int>(kind)];
}

// The kit type of one parameter as the component and its callers see it.
inline std::string kitType(const KitParam &p)
{
    std::string scalar = kitScalar(p.kind);
    if (p.array) {
        if (p.dir == Dir::In)
            return p.kind == Kind::String ? "const char *const *" : "const " + scalar + " *";
        return scalar + (p.kind == Kind::String ? "**" : " **");
    }
    if (p.dir == Dir::In)
        return p.kind == Kind::String ? "const char *" : scalar;
    return scalar + (p.kind == Kind::String ? "*" : " *");
}

inline std::string declare(const std::string &type, const std::string &name)
{
    return type + (type.back() == '*' ? "" : " ") + name;
}

// "int32_t a, int32_t b, int32_t *sum", or the types alone.
inline std::string kitParams(const KitMethod &m, bool names)
{
    std::string out;
    for (const KitParam &p : m.params) {
        if (!out.empty())
            out += ", ";
        out += names ? declare(kitType(p), p.name) : kitType(p);
    }
    return out;
}

inline std::string kitArgs(const KitMethod &m)
{
    std::string out;
    for (const KitParam &p : m.params)
        out += (out.empty() ? "" : ", ") + p.name;
    return out;
}

// The COM type of one IDL parameter, as widl's header spells it.
inline std::string comType(const KitParam &p, const ComParam &c)
{
    static const char *const scalars[] = {"LONG", "FLOAT", "DOUBLE", "BSTR", ""};
    std::string base;
    if (p.array)
        base = "SAFEARRAY *";
    else if (p.kind == Kind::Interface)
        base = "::" + c.ifidl + " *";
    else
        base = c.plainint ? "INT" : scalars[static_cast<int>(p.kind)];
    if (p.dir != Dir::In)
        base += base.back() == '*' ? "*" : " *";
    return base;
}

// A GUID printed by a format that takes its eleven fields in order.
inline std::string guidFormatted(const char *format, const GUID &g)
{
    char buffer[120];
    snprintf(buffer, sizeof buffer, format, static_cast<unsigned long>(g.Data1), g.Data2, g.Data3, g.Data4[0],
             g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return buffer;
}

// As the registry writes it, without braces.
inline std::string guidText(const GUID &g)
{
    return guidFormatted("%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", g);
}

// As a C++ initializer.
inline std::string guidLiteral(const GUID &g)
{
    return guidFormatted("{0x%08lx, 0x%04x, 0x%04x, {0x%02x, 0x%02x, 0x%02x, 0x%02x, 0x%02x, 0x%02x, 0x%02x, 0x%02x}}", g);
}

// head + items + tail on one line when it fits in 110 columns, else one item
// per line, indented four more than indent.
inline std::string fit(const std::string &indent, const std::string &head, const std::string &items,
                       const std::string &tail)
{
    std::string line = indent + head + items + tail;
    if (line.size() <= 110 || items.find(", ") == std::string::npos)
        return line;
    std::string out = indent + head + "\n" + indent + "    ";
    for (size_t at = 0, next; at < items.size(); at = next + 2) {
        next = items.find(", ", at);
        if (next == std::string::npos)
            next = items.size();
        out += items.substr(at, next - at);
        if (next < items.size())
            out += ",\n" + indent + "    ";
    }
    return out + tail;
}

inline std::string quoted(const std::string &text)
{
    return "\"" + text + "\"";
}

} // namespace vexalgen
