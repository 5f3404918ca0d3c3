// The class "Package.Doubler": everything else of doubler.dll is generated.
#include "doubler_vexal.h"

#include <new>

namespace {
struct Doubler final : Package::Doubler {
    int32_t Twice(int32_t value, int32_t *result) override
    {
        *result = 2 * value;
        return VXL_OK;
    }
};
} // namespace

Package::Doubler *Package::Doubler::create()
{
    return new (std::nothrow) ::Doubler;
}
