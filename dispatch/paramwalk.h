// The one reading of a method definition that dispatch calls, direct
// dispatch calls and combined values share: which parameters are length
// parameters (never passed, never given a variadic slot of their own in a
// call), which travel in, which come back, and how many of each.
#pragma once

#include "dispatch/workarray.h"
#include <oleauto.h>

enum class vxl_paramrole : uint8_t {
    length, // sizes another parameter's array
    in,     // travels to the callee as a value
    inout,  // the caller's variable passed by reference
    out,    // comes back from the callee
};

// The parameters of one method, classified once. The element count of a
// huge definition does not fit in a sensible stack frame, hence the heap
// fallback. valid() is false for a definition no call can be made from
// (null entries, unknown codes) and when the storage could not be had.
class vxl_paramplan {
public:
    explicit vxl_paramplan(const vxl_methoddef *method)
        : count_(method && method->paramcount > 0 ? method->paramcount : 0), roles_(count_)
    {
        valid_ = method && method->name && roles_.ok() && (count_ == 0 || method->params);
        for (int32_t i = 0; valid_ && i < count_; ++i) {
            const vxl_paramdef *p = method->params[i];
            valid_ = p && p->type >= VXL_TYPE_INT && p->type <= VXL_TYPE_INTERFACE &&
                     p->direction >= VXL_DIR_IN && p->direction <= VXL_DIR_INOUT;
            if (!valid_)
                return;
            roles_[i] = p->direction == VXL_DIR_OUT     ? vxl_paramrole::out
                        : p->direction == VXL_DIR_INOUT ? vxl_paramrole::inout
                                                        : vxl_paramrole::in;
            ++(p->direction == VXL_DIR_OUT ? nout_ : nin_);
        }
        // A parameter named by any array field is a length parameter,
        // wherever the naming parameter stands.
        for (int32_t i = 0; valid_ && i < count_; ++i) {
            int32_t array = method->params[i]->array;
            if (array >= 0 || ~array >= count_ || roles_[~array] == vxl_paramrole::length)
                continue;
            if (roles_[~array] == vxl_paramrole::out) {
                --nout_;
                ++outlengths_;
            } else {
                --nin_;
            }
            roles_[~array] = vxl_paramrole::length;
        }
    }

    bool valid() const { return valid_; }
    int32_t count() const { return count_; }
    vxl_paramrole role(int32_t i) { return roles_[i]; }
    // Arguments the callee receives: in and in/out parameters, no lengths.
    int32_t inCount() const { return nin_; }
    // Out values that are not lengths: the elements of a combined value.
    int32_t outValues() const { return nout_; }
    // Out parameters as the callee counts them, out lengths included.
    int32_t outCount() const { return nout_ + outlengths_; }

private:
    int32_t count_;
    vxl_workarray<vxl_paramrole, kStackParams> roles_;
    bool valid_ = false;
    int32_t nin_ = 0;
    int32_t nout_ = 0;
    int32_t outlengths_ = 0;
};

// VARIANT tag of a parameter passed by value (array: VT_ARRAY|VT_VARIANT).
inline VARTYPE vxl_paramtag(const vxl_paramdef *p)
{
    static const VARTYPE byType[] = {VT_I4, VT_R4, VT_R8, VT_BSTR, VT_DISPATCH};
    static_assert(sizeof byType / sizeof byType[0] == VXL_TYPE_INTERFACE + 1, "one tag per kit type");
    return p->array != 0 ? VT_ARRAY | VT_VARIANT : byType[p->type];
}
