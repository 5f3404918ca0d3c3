// What vexalgen knows about a type library once it has read it: the kit
// interfaces with their methods and parameters as the kit sees them, the COM
// forms each one is offered in, and the coclasses. Everything the writers
// print comes from here, in type-library order, so the output is stable.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace vexalgen {

enum class Kind { Int, Float, Double, String, Interface };
enum class Dir { In, Out, InOut };

struct KitParam {
    std::string name;
    Kind kind = Kind::Int;
    Dir dir = Dir::In;
    bool array = false;  // a kit array; its length parameter comes next
    bool length = false; // the length parameter of the array just before it
    std::string ifname;  // kit interface name of interface parameters and arrays
};

struct KitMethod {
    std::string name;
    std::vector<KitParam> params;
};

// One IDL parameter of one form. Length parameters have none: the safe
// array carries its own length.
struct ComParam {
    int kit = 0;         // index of its kit parameter
    std::string ifidl;   // the IDL interface type of interface parameters
    std::string ifwtype; // the form that IDL interface is, which a vtable call wraps with
    bool plainint = false; // IDL int (INT) rather than long (LONG)
};

struct FormMethod {
    MEMBERID memid = 0;
    std::vector<ComParam> params;
};

struct Form {
    std::string wtype; // "com", "comS" or "comP"
    std::string idl;   // the IDL interface name, as widl's header declares it
    GUID iid = {};
    bool dual = false;
    bool events = false; // an outgoing interface: IDispatch only, called by name
    std::vector<FormMethod> methods;
};

struct KitInterface {
    std::string name;
    std::vector<KitMethod> methods;
    std::vector<Form> forms;
    bool events = false;
    std::string firedBy; // outgoing: the kit interface it is the connection-point interface of
    GUID iidCP = {};     // the outgoing interface of the coclass this is the default of
    bool hasCP = false;
};

struct Coclass {
    std::string idl;  // the coclass name, which names the author's C++ class
    std::string name; // "<library>.<coclass>": kit class name and ProgID
    GUID clsid = {};
    std::vector<int> interfaces; // kit interfaces, the default one first
};

struct Library {
    std::string name;
    GUID libid = {};
    std::vector<KitInterface> interfaces;
    std::vector<Coclass> coclasses;

    const Form *findForm(const KitInterface &itf, const char *wtype) const
    {
        for (const Form &form : itf.forms)
            if (form.wtype == wtype)
                return &form;
        return nullptr;
    }
};

// Reads the type library at path; on failure returns false with a message
// that names the interface, method and parameter at fault.
bool readTypeLibrary(const std::string &path, Library &library, std::string &error);

} // namespace vexalgen
