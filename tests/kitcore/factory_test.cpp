// Class factories: the cache and its use counts, instance creation and its
// failure paths, creation races, vxl_inuse, refused builds.
#include "kitcore_support.h"

#include <thread>
#include <vector>

using kt::deadbeef;
using kt::hex;

namespace {

int g_creates, g_destroys;
int32_t g_createstatus;

int32_t create(void **implslot, vxl_if)
{
    ++g_creates;
    if (g_createstatus)
        return g_createstatus;
    *implslot = &g_creates;
    return 0;
}

int32_t destroy(void *, vxl_if) { ++g_destroys; return 0; }
int32_t one(void *) { return 1; }

// Interfaces without methods need no stub memory, so the exact trace of a
// build does not depend on whether an earlier test took the first chunk.
const vxl_interfacedef iPlain = {"IPlain", 0, nullptr};
const vxl_methoddef mOne = {"one", 0, nullptr};
const vxl_methoddef *const oneMethods[] = {&mOne};
const vxl_interfacedef iOneMethod = {"IOneMethod", 1, oneMethods};
const vxl_interfacedef iBroken = {"IBroken", -1, nullptr};
// Slot table and stub block sizes that no 32-bit size holds.
const vxl_interfacedef iHuge = {"IHuge", 0x20000000, oneMethods};
const vxl_fn oneFns[] = {reinterpret_cast<vxl_fn>(&one)};

const vxl_componentinterface plain = {&iPlain, nullptr};
const vxl_componentinterface withMethod = {&iOneMethod, oneFns};
const vxl_componentinterface broken = {&iBroken, nullptr};
const vxl_componentinterface huge = {&iHuge, oneFns};
const vxl_componentinterface *const plainIfs[] = {&plain, &plain, &plain, &plain, &plain, &plain, &plain};
const vxl_componentinterface *const methodIfs[] = {&withMethod, &plain};
const vxl_componentinterface *const brokenIfs[] = {&plain, &broken};
const vxl_componentinterface *const hugeIfs[] = {&plain, &huge};

#define PLAIN(name) {name, 1, plainIfs, create, destroy, nullptr}
const vxl_componentdef facCreate = PLAIN("FacCreate");
const vxl_componentdef never1 = PLAIN("Never1");
const vxl_componentdef never2 = PLAIN("Never2");
const vxl_componentdef use1 = PLAIN("Use1");
const vxl_componentdef use2 = PLAIN("Use2");
const vxl_componentdef use3 = PLAIN("Use3");
const vxl_componentdef useHandle = PLAIN("UseHandle");
vxl_componentdef badCount = PLAIN("BadCount"); // its count is spoiled after registration
const vxl_componentdef badMethods = {"BadMethods", 2, brokenIfs, create, destroy, nullptr};
const vxl_componentdef badHuge = {"BadHuge", 2, hugeIfs, create, destroy, nullptr};
#define RACE(name) {name, 2, methodIfs, create, destroy, nullptr}
const vxl_componentdef races[] = {RACE("Race0"), RACE("Race1"), RACE("Race2"), RACE("Race3"),
                                  RACE("Race4"), RACE("Race5"), RACE("Race6"), RACE("Race7")};

const vxl_componentdef *const localComponents[] = {
    &facCreate, &never1, &never2,   &use1,     &use2,     &use3,     &useHandle, &badCount,
    &badMethods, &badHuge, &races[0], &races[1], &races[2], &races[3], &races[4], &races[5], &races[6], &races[7], nullptr};
// IBroken is not listed: registration refuses a negative method count.
const vxl_interfacedef *const localInterfaces[] = {&iPlain, &iOneMethod, nullptr};

class Factories : public ::testing::Test {
protected:
    void SetUp() override
    {
        static int32_t registered = vxl_register("factory_test", localComponents, localInterfaces);
        ASSERT_EQ(0, registered);
        g_creates = g_destroys = 0;
        g_createstatus = 0;
    }
};

// The address in "encapsulate = %x\n" at the start of a trace.
std::string encapsulated(const std::string &log)
{
    const std::string key = "encapsulate = ";
    size_t at = log.find(key);
    if (at == std::string::npos)
        return "?";
    at += key.size();
    return log.substr(at, log.find('\n', at) - at);
}

} // namespace

TEST_F(Factories, UnknownClassIsStatusFiveEverywhere)
{
    const std::string none = "vxl_createclassfactory\ncreateclassfactory NoSuchClass = <none>\n";
    auto *f = reinterpret_cast<vxl_classfactory *>(0xdeadbeef);
    vxl_if created = deadbeef, encapsulated = deadbeef;
    int impl;
    vxltest::LogTail tail;
    EXPECT_EQ(VXL_ECLASSNOTREG, vxl_createclassfactory(&f, "NoSuchClass"));
    EXPECT_EQ(VXL_ECLASSNOTREG, vxl_createinstance("NoSuchClass", "IPlain", &created));
    EXPECT_EQ(VXL_ECLASSNOTREG, vxl_encapsulate("NoSuchClass", nullptr, &impl, &encapsulated));
    EXPECT_EQ(nullptr, f);
    EXPECT_EQ(nullptr, created);
    EXPECT_EQ(deadbeef, encapsulated) << "vxl_encapsulate leaves it unchanged";
    EXPECT_EQ(none + none + none, tail.text());
}

TEST_F(Factories, ObjectsFromAFactoryHoldOneReferenceAndOneUse)
{
    vxl_classfactory *f = nullptr;
    ASSERT_EQ(0, vxl_createclassfactory(&f, "FacCreate"));
    vxl_if out = deadbeef;
    vxltest::LogTail tail;
    ASSERT_EQ(0, vxl_getinstancefromcf(f, nullptr, &out)); // a null name gives the primary
    EXPECT_EQ(1, kt::refcount(out));
    EXPECT_EQ(2, kt::usecount(f));
    EXPECT_EQ(&g_creates, kt::coreOf(out)->impl);
    EXPECT_EQ(0, out->slots->decref(out));
    EXPECT_EQ(1, g_destroys);
    EXPECT_EQ(1, kt::usecount(f));
    EXPECT_EQ("encapsulate = " + hex(out) + "\ndecref(" + hex(out) + ") = 1\n", tail.text());

    int impl = 0;
    out = deadbeef;
    ASSERT_EQ(0, vxl_encapsulatefromcf(f, "IPlain", &impl, &out));
    EXPECT_EQ(1, g_creates) << "no create callback";
    EXPECT_EQ(&impl, kt::coreOf(out)->impl);
    EXPECT_EQ(1, kt::refcount(out));
    vxl_decref(out);
    EXPECT_EQ(2, g_destroys);
    out = deadbeef;
    EXPECT_EQ(VXL_ENOINTERFACE, vxl_encapsulatefromcf(f, "INope", &impl, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(3, g_destroys);
    EXPECT_EQ(1, kt::usecount(f));
    vxl_destroyclassfactory(f);
}

TEST_F(Factories, FailingCreateOrMissingInterfaceDropsTheObject)
{
    vxl_classfactory *f = nullptr;
    ASSERT_EQ(0, vxl_createclassfactory(&f, "FacCreate"));

    struct Case {
        const char *what;
        int32_t createstatus;
        const char *ifname;
        int32_t status;
    };
    const Case cases[] = {
        {"create fails, null name", -9, nullptr, -9},
        {"create fails, named", 4, "IPlain", 4},
        {"not carried", 0, "INope", VXL_ENOINTERFACE},
    };
    for (const Case &c : cases) {
        for (int viaName = 0; viaName < 2; ++viaName) {
            SCOPED_TRACE(std::string(c.what) + (viaName ? " (vxl_createinstance)" : " (vxl_getinstancefromcf)"));
            g_createstatus = c.createstatus;
            g_creates = g_destroys = 0;
            vxl_if out = deadbeef;
            vxltest::LogTail tail;
            int32_t status = viaName ? vxl_createinstance("FacCreate", c.ifname, &out)
                                     : vxl_getinstancefromcf(f, c.ifname, &out);
            EXPECT_EQ(c.status, status);
            EXPECT_EQ(nullptr, out);
            EXPECT_EQ(1, g_creates);
            EXPECT_EQ(1, g_destroys) << "the only reference was dropped";
            EXPECT_EQ(1, kt::usecount(f));
            std::string log = tail.text();
            std::string X = encapsulated(log);
            std::string expected = viaName ? "vxl_createclassfactory\n" : "";
            expected += "encapsulate = " + X + "\n";
            if (!c.createstatus)
                expected += "getinterface(" + X + ", " + c.ifname + ")\n";
            expected += "decref(" + X + ") = 1\n";
            EXPECT_EQ(expected, log);
        }
    }
    vxl_destroyclassfactory(f);
}

TEST_F(Factories, ThreadsRacingForTheFirstObjectShareOneFactory)
{
    constexpr int THREADS = 4;
    vxltest::LogTail tail;
    for (const vxl_componentdef &race : races) {
        SCOPED_TRACE(race.name);
        HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        vxl_if objects[THREADS] = {};
        int32_t statuses[THREADS] = {};
        std::vector<std::thread> threads;
        for (int t = 0; t < THREADS; ++t)
            threads.emplace_back([&, t] {
                WaitForSingleObject(go, INFINITE);
                statuses[t] = vxl_createinstance(race.name, "IOneMethod", &objects[t]);
            });
        Sleep(5);
        SetEvent(go);
        for (auto &t : threads)
            t.join();
        CloseHandle(go);

        vxl_classfactory *f = nullptr;
        ASSERT_EQ(0, vxl_createclassfactory(&f, race.name));
        EXPECT_EQ(THREADS + 1, kt::usecount(f));
        for (int t = 0; t < THREADS; ++t) {
            ASSERT_EQ(0, statuses[t]);
            EXPECT_EQ(f, kt::coreOf(objects[t])->factory);
            EXPECT_EQ(1, VXL_METHOD(objects[t], 0, int32_t(*)(vxl_if))(objects[t]));
            vxl_decref(objects[t]);
        }
        EXPECT_EQ(1, kt::usecount(f));
        vxl_destroyclassfactory(f);
        EXPECT_EQ(0, kt::usecount(f));
    }
    std::string log = tail.text();
    for (const vxl_componentdef &race : races) {
        std::string line = std::string("createclassfactory ") + race.name + " = ";
        size_t first = log.find(line);
        EXPECT_NE(std::string::npos, first) << race.name;
        EXPECT_EQ(std::string::npos, log.find(line, first + 1)) << race.name << " built twice";
    }
}

TEST_F(Factories, InuseWithoutFactoriesSaysNoAndAHeldHandleCountsAsInUse)
{
    const vxl_componentdef *const never[] = {&never1, &never2, nullptr};
    const vxl_componentdef *const empty[] = {nullptr};
    for (const vxl_componentdef *const *list : {never, empty, static_cast<const vxl_componentdef *const *>(nullptr)}) {
        vxltest::LogTail tail;
        EXPECT_EQ(0, vxl_inuse(list));
        EXPECT_EQ("vxl_inuse: no\n", tail.text());
    }

    vxl_classfactory *f = nullptr;
    ASSERT_EQ(0, vxl_createclassfactory(&f, "UseHandle"));
    const vxl_componentdef *const list[] = {&useHandle, nullptr};
    vxltest::LogTail tail;
    EXPECT_EQ(1, vxl_inuse(list));
    vxl_destroyclassfactory(f);
    EXPECT_EQ(0, vxl_inuse(list));
    EXPECT_EQ("vxl_inuse: yes\nvxl_inuse: freeclassfactory(" + hex(f) + ")\nno\n", tail.text());
}

TEST_F(Factories, InuseFreesIdleFactoriesUpToTheFirstInUse)
{
    vxl_if obj1 = nullptr, obj2 = nullptr;
    ASSERT_EQ(0, vxl_createinstance("Use1", nullptr, &obj1));
    vxl_classfactory *f1 = kt::coreOf(obj1)->factory;
    vxl_decref(obj1); // Use1: built, idle
    ASSERT_EQ(0, vxl_createinstance("Use2", nullptr, &obj2));
    vxl_classfactory *f2 = kt::coreOf(obj2)->factory; // Use2: one live object
    vxl_classfactory *f3 = kt::factoryOf("Use3");      // Use3: built, idle
    ASSERT_EQ(0, kt::usecount(f1));
    ASSERT_EQ(1, kt::usecount(f2));
    ASSERT_EQ(0, kt::usecount(f3));

    const vxl_componentdef *const list[] = {&use1, &use2, &use3, nullptr};
    {
        vxltest::LogTail tail;
        EXPECT_EQ(1, vxl_inuse(list));
        EXPECT_EQ("vxl_inuse: freeclassfactory(" + hex(f1) + ")\nyes\n", tail.text());
    }
    {
        vxl_classfactory *again = nullptr;
        vxltest::LogTail tail;
        ASSERT_EQ(0, vxl_createclassfactory(&again, "Use3"));
        EXPECT_EQ(f3, again) << "the third was left alone";
        EXPECT_EQ("vxl_createclassfactory\n", tail.text());
        vxl_destroyclassfactory(again);
    }
    {
        vxl_classfactory *rebuilt = nullptr;
        vxltest::LogTail tail;
        ASSERT_EQ(0, vxl_createclassfactory(&rebuilt, "Use1"));
        EXPECT_EQ("vxl_createclassfactory\ncreateclassfactory Use1 = " + hex(rebuilt) + ">\n", tail.text());
        vxl_destroyclassfactory(rebuilt);
    }
    vxl_decref(obj2);
    {
        vxltest::LogTail tail;
        const vxl_componentdef *const second[] = {&use2, nullptr};
        EXPECT_EQ(0, vxl_inuse(second));
        EXPECT_EQ("vxl_inuse: freeclassfactory(" + hex(f2) + ")\nno\n", tail.text());
        EXPECT_EQ(0, vxl_inuse(second));
    }
}

TEST_F(Factories, DefinitionsTheBuildCannotServeGetNoFactory)
{
    const struct {
        const char *name;
        int32_t count; // BadCount's spoiled interface count
    } cases[] = {{"BadCount", 0}, {"BadCount", 7}, {"BadCount", -1}, {"BadMethods", -1}, {"BadHuge", -1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.name << " " << c.count);
        badCount.ifcount = c.count;
        auto *f = reinterpret_cast<vxl_classfactory *>(0xdeadbeef);
        vxltest::LogTail tail;
        EXPECT_EQ(VXL_ECLASSNOTREG, vxl_createclassfactory(&f, c.name));
        EXPECT_EQ(nullptr, f);
        EXPECT_EQ("vxl_createclassfactory\n", tail.text());
    }
    badCount.ifcount = 1;
    vxl_classfactory *f = nullptr;
    vxltest::LogTail tail;
    ASSERT_EQ(0, vxl_createclassfactory(&f, "BadCount"));
    EXPECT_EQ("vxl_createclassfactory\ncreateclassfactory BadCount = " + hex(f) + ">\n", tail.text());
    vxl_destroyclassfactory(f);
}

TEST_F(Factories, NullOutArgumentsAreRefusedBeforeAnythingIsTaken)
{
    vxl_classfactory *f = nullptr;
    ASSERT_EQ(0, vxl_createclassfactory(&f, "FacCreate"));
    int impl = 0;
    vxl_if out = deadbeef;
    vxltest::LogTail tail;
    EXPECT_EQ(VXL_EFAIL, vxl_createclassfactory(nullptr, "FacCreate"));
    EXPECT_EQ(VXL_EFAIL, vxl_getinstancefromcf(f, nullptr, nullptr));
    EXPECT_EQ(VXL_EFAIL, vxl_getinstancefromcf(nullptr, nullptr, &out));
    EXPECT_EQ(VXL_EFAIL, vxl_encapsulatefromcf(f, nullptr, &impl, nullptr));
    EXPECT_EQ(VXL_EFAIL, vxl_createinstance("FacCreate", nullptr, nullptr));
    EXPECT_EQ(VXL_EFAIL, vxl_encapsulate("FacCreate", nullptr, &impl, nullptr));
    EXPECT_EQ(0, vxl_destroyclassfactory(nullptr));
    EXPECT_EQ(0, vxl_decref(nullptr));
    EXPECT_EQ(deadbeef, out);
    EXPECT_EQ(0, g_creates);
    EXPECT_EQ(1, kt::usecount(f)) << "no use taken or lost";
    EXPECT_EQ("vxl_createclassfactory\nvxl_createclassfactory\n", tail.text());
    vxl_destroyclassfactory(f);
}
