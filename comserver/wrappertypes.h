// The three wrapper types, "com", "comS" and "comP": the three COM forms of
// one kit interface. Each selects, in the interface's COM record, the IID
// under which COM sees that form and the maker of its COM wrappers; this
// table is the one place that pairs them.
#pragma once

#include "core/kit.h"

struct vxl_wrappertype {
    const char *name;
    GUID vxl_comifinfo::*iid;
    vxl_wrapmaker vxl_comifinfo::*maker;
};

// In the order in which an IID is compared with a record's three IIDs.
constexpr vxl_wrappertype kWrapperTypes[] = {
    {"com", &vxl_comifinfo::iid_com, &vxl_comifinfo::wrap_com},
    {"comS", &vxl_comifinfo::iid_comS, &vxl_comifinfo::wrap_comS},
    {"comP", &vxl_comifinfo::iid_comP, &vxl_comifinfo::wrap_comP},
};

// The wrapper type of that name; null for any other name.
inline const vxl_wrappertype *vxl_com_wrappertype(const char *name)
{
    for (const vxl_wrappertype &type : kWrapperTypes)
        if (vxl_sameName(type.name, name))
            return &type;
    return nullptr;
}
