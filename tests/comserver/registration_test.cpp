// vxl_com_register / vxl_com_unregister through vexal.dll: results, identity
// of the three pointers, repeated registrations and the exact trace lines.
#include "harness.h"
#include "vexal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using vxltest::LogTail;

namespace {

const GUID kClsid = {0x7a3f0001, 0x1111, 0x4222, {0x83, 0x33, 0x44, 0x44, 0x55, 0x55, 0x66, 0x01}};
const GUID kIid = {0x7a3f0002, 0x1111, 0x4222, {0x83, 0x33, 0x44, 0x44, 0x55, 0x55, 0x66, 0x02}};

const vxl_comlibinfo kLib = {"regtest.dll", {}};
const vxl_comlibinfo kOtherLib = {"regtest.dll", {}}; // same contents, another record
const vxl_comcomponentinfo kComp = {"RegTestComponent", kClsid};
const vxl_comcomponentinfo *const kComps[] = {&kComp, nullptr};
const vxl_comcomponentinfo *const kOtherComps[] = {&kComp, nullptr};
const vxl_comifinfo kIf = {"IRegTest", kIid, {}, {}, {}, {}, nullptr, nullptr, nullptr, nullptr};
const vxl_comifinfo *const kIfs[] = {&kIf, nullptr};
const vxl_comifinfo *const kOtherIfs[] = {&kIf, nullptr};
const vxl_comifinfo *const kNoIfs[] = {nullptr};
const vxl_comcomponentinfo *const kNoComps[] = {nullptr};

const char kReg[] = "vxl_com_register\n";
const char kDone1[] = "vxl_com_unregister\nvxl_com_unregister: done1\n";
const char kDone2[] = "vxl_com_unregister\nvxl_com_unregister: done2\n";

// The first COM lock of a process adds its own line; take it out of the way.
void createComLocks()
{
    static bool done = false;
    if (!done) {
        vxl_com_register(&kLib, kNoComps, kNoIfs);
        vxl_com_unregister(&kLib, kNoComps, kNoIfs);
        done = true;
    }
}

class ComRegistration : public testing::Test {
protected:
    void SetUp() override { createComLocks(); }
};

} // namespace

VXL_CHILD(first_registration)
{
    int bad = 0;
    bad += vxl_com_register(&kLib, kComps, kIfs) != 0;
    bad += vxl_com_unregister(&kLib, kComps, kIfs) != 0;
    bad += vxl_com_unregister(&kLib, kComps, kIfs) != 1;
    return bad;
}

TEST(ComRegistrationFirstUse, CreatesTheComLocksAfterItsOwnLine)
{
    std::string log = vxltest::scratchPath("comregistration_first.log");
    ASSERT_EQ(0, vxltest::runChild("first_registration", log.c_str()));
    EXPECT_EQ(std::string(kReg) + "new lock init in com\n" + kDone1 + kDone2, vxltest::readLog(log));
}

TEST_F(ComRegistration, EachCallsResultAndTrace)
{
    static const vxl_comlibinfo never = {"never.dll", {}};
    struct Step {
        bool reg; // vxl_com_register, else vxl_com_unregister
        const vxl_comlibinfo *lib;
        const vxl_comcomponentinfo *const *comps;
        const vxl_comifinfo *const *ifs;
        int32_t status;
    };
    const Step steps[] = {
        // Registered twice, it takes two unregistrations.
        {true, &kLib, kComps, kIfs, 0},
        {true, &kLib, kComps, kIfs, 0},
        {false, &kLib, kComps, kIfs, 0},
        {false, &kLib, kComps, kIfs, 0},
        {false, &kLib, kComps, kIfs, 1},
        // All three pointers must be the registered ones, not equal copies.
        {true, &kLib, kComps, kIfs, 0},
        {false, &kOtherLib, kComps, kIfs, 1},
        {false, &kLib, kOtherComps, kIfs, 1},
        {false, &kLib, kComps, kOtherIfs, 1},
        {false, &kOtherLib, kOtherComps, kOtherIfs, 1},
        {false, &kLib, kComps, kIfs, 0},
        {false, &never, kComps, kIfs, 1},
        // Empty and null arrays are registrations too.
        {true, &kLib, kNoComps, kNoIfs, 0},
        {true, nullptr, nullptr, nullptr, 0},
        {false, nullptr, nullptr, nullptr, 0},
        {false, nullptr, nullptr, nullptr, 1},
        {false, &kLib, kNoComps, kNoIfs, 0},
    };
    for (size_t i = 0; i < sizeof steps / sizeof steps[0]; ++i) {
        const Step &s = steps[i];
        SCOPED_TRACE(i);
        LogTail tail;
        int32_t status = s.reg ? vxl_com_register(s.lib, s.comps, s.ifs) : vxl_com_unregister(s.lib, s.comps, s.ifs);
        EXPECT_EQ(s.status, status);
        EXPECT_EQ(s.reg ? kReg : s.status ? kDone2 : kDone1, tail.text());
    }
}

TEST_F(ComRegistration, ConcurrentRegistrationsAllComeBack)
{
    constexpr int kThreads = 8, kRounds = 200;
    static vxl_comlibinfo libs[kThreads];
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                if (vxl_com_register(&libs[t], kComps, kIfs) != 0)
                    failures.fetch_add(1);
                if (vxl_com_unregister(&libs[t], kComps, kIfs) != 0)
                    failures.fetch_add(1);
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(0, failures.load());
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(1, vxl_com_unregister(&libs[t], kComps, kIfs));
}
