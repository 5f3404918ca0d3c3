// vxl_com_register / vxl_com_unregister through vexal.dll: results, identity
// of the three pointers, repeated registrations, the exact trace lines, and
// registrations from several threads at once.
#include "harness.h"
#include "vexal.h"

#include <gtest/gtest.h>

#include <atomic>

namespace {

const GUID kClsid = {0x7a3f0001, 0x1111, 0x4222, {0x83, 0x33, 0x44, 0x44, 0x55, 0x55, 0x66, 0x01}};
const GUID kIid = {0x7a3f0002, 0x1111, 0x4222, {0x83, 0x33, 0x44, 0x44, 0x55, 0x55, 0x66, 0x02}};
const vxl_comlibinfo kLib = {"regtest.dll", {}}, kOtherLib = {"regtest.dll", {}}; // same contents
const vxl_comcomponentinfo kComp = {"RegTestComponent", kClsid};
const vxl_comcomponentinfo *const kComps[] = {&kComp, nullptr}, *const kOtherComps[] = {&kComp, nullptr};
const vxl_comifinfo kIf = {"IRegTest", kIid, {}, {}, {}, {}, nullptr, nullptr, nullptr, nullptr};
const vxl_comifinfo *const kIfs[] = {&kIf, nullptr}, *const kOtherIfs[] = {&kIf, nullptr};
const vxl_comifinfo *const kNoIfs[] = {nullptr};
const vxl_comcomponentinfo *const kNoComps[] = {nullptr};
const char kReg[] = "vxl_com_register\n";
const char kDone1[] = "vxl_com_unregister\nvxl_com_unregister: done1\n";
const char kDone2[] = "vxl_com_unregister\nvxl_com_unregister: done2\n";

} // namespace

VXL_CHILD(first_registration)
{
    return (vxl_com_register(&kLib, kComps, kIfs) != 0) + (vxl_com_unregister(&kLib, kComps, kIfs) != 0) +
           (vxl_com_unregister(&kLib, kComps, kIfs) != 1);
}

TEST(ComRegistration, EachCallsResultAndTrace)
{
    // The first COM lock of a process adds its line after the call's own.
    std::string log = vxltest::scratchPath("comregistration_first.log");
    ASSERT_EQ(0, vxltest::runChild("first_registration", log.c_str()));
    EXPECT_EQ(std::string(kReg) + "new lock init in com\n" + kDone1 + kDone2, vxltest::readLog(log));
    vxl_com_unregister(nullptr, nullptr, nullptr); // the lock set exists from here on

    static const vxl_comlibinfo never = {"never.dll", {}};
    const struct {
        bool reg; // vxl_com_register, else vxl_com_unregister
        const vxl_comlibinfo *lib;
        const vxl_comcomponentinfo *const *comps;
        const vxl_comifinfo *const *ifs;
        int32_t status;
    } steps[] = {
        // Registered twice, it takes two unregistrations.
        {true, &kLib, kComps, kIfs, 0}, {true, &kLib, kComps, kIfs, 0}, {false, &kLib, kComps, kIfs, 0},
        {false, &kLib, kComps, kIfs, 0}, {false, &kLib, kComps, kIfs, 1},
        // All three pointers must be the registered ones, not equal copies.
        {true, &kLib, kComps, kIfs, 0}, {false, &kOtherLib, kComps, kIfs, 1}, {false, &kLib, kOtherComps, kIfs, 1},
        {false, &kLib, kComps, kOtherIfs, 1}, {false, &kLib, kComps, kIfs, 0}, {false, &never, kComps, kIfs, 1},
        // Empty and null arrays are registrations too.
        {true, &kLib, kNoComps, kNoIfs, 0}, {true, nullptr, nullptr, nullptr, 0}, {false, nullptr, nullptr, nullptr, 0},
        {false, nullptr, nullptr, nullptr, 1}, {false, &kLib, kNoComps, kNoIfs, 0},
    };
    for (size_t i = 0; i < sizeof steps / sizeof steps[0]; ++i) {
        const auto &s = steps[i];
        vxltest::LogTail tail;
        EXPECT_EQ(s.status, s.reg ? vxl_com_register(s.lib, s.comps, s.ifs) : vxl_com_unregister(s.lib, s.comps, s.ifs))
            << i;
        EXPECT_EQ(s.reg ? kReg : s.status ? kDone2 : kDone1, tail.text()) << i;
    }
}

TEST(ComRegistration, ConcurrentRegistrationsAllComeBack)
{
    static vxl_comlibinfo libs[8];
    std::atomic<int> failures{0};
    vxltest::runTogether(8, [&](int t) {
        for (int i = 0; i < 200; ++i)
            failures += (vxl_com_register(&libs[t], kComps, kIfs) != 0) + (vxl_com_unregister(&libs[t], kComps, kIfs) != 0);
    });
    EXPECT_EQ(0, failures.load());
    for (vxl_comlibinfo &lib : libs)
        EXPECT_EQ(1, vxl_com_unregister(&lib, kComps, kIfs));
}
