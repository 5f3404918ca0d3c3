// Class factories: the cache and its use counts, instance creation and its
// failure paths, creation races, vxl_inuse, refused builds, stub memory as
// a fresh process sees it, and loading component libraries.
#include "core_support.h"

#include <vector>

using kt::deadbeef;
using kt::hex;

namespace {

int g_creates, g_destroys;
int32_t g_createstatus;

int32_t create(void **implslot, vxl_if)
{
    ++g_creates;
    *implslot = &g_creates;
    return g_createstatus;
}
int32_t destroy(void *, vxl_if) { ++g_destroys; return 0; }
int32_t one(void *) { return 1; }

// Interfaces without methods need no stub memory, so the exact trace of a
// build does not depend on whether an earlier test took the first chunk.
const vxl_methoddef mOne = {"one", 0, nullptr};
const vxl_methoddef *const oneMethods[] = {&mOne};
const vxl_fn oneFns[] = {reinterpret_cast<vxl_fn>(&one)};
const vxl_interfacedef iPlain = {"IPlain", 0, nullptr}, iOneMethod = {"IOneMethod", 1, oneMethods};
const vxl_interfacedef iBroken = {"IBroken", -1, nullptr};      // not registrable, only referred to
const vxl_interfacedef iHuge = {"IHuge", 0x20000000, oneMethods}; // slots and stubs beyond 32-bit sizes
const vxl_componentinterface plain = {&iPlain, nullptr}, withMethod = {&iOneMethod, oneFns};
const vxl_componentinterface broken = {&iBroken, nullptr}, huge = {&iHuge, oneFns};
const vxl_componentinterface *const plainIfs[] = {&plain}, *const methodIfs[] = {&withMethod, &plain};
const vxl_componentinterface *const brokenIfs[] = {&plain, &broken}, *const hugeIfs[] = {&plain, &huge};

#define PLAIN(name) {name, 1, plainIfs, create, destroy, nullptr}
const vxl_componentdef facCreate = PLAIN("FacCreate"), use1 = PLAIN("Use1"), use2 = PLAIN("Use2"),
                       use3 = PLAIN("Use3");
vxl_componentdef badCount = PLAIN("BadCount"); // its count is spoiled after registration
const vxl_componentdef badMethods = {"BadMethods", 2, brokenIfs, create, destroy, nullptr};
const vxl_componentdef badHuge = {"BadHuge", 2, hugeIfs, create, destroy, nullptr};
const vxl_componentdef race = {"Race", 2, methodIfs, create, destroy, nullptr};
const vxl_componentdef *const localComponents[] = {&facCreate, &use1,    &use2, &use3, &badCount,
                                                   &badMethods, &badHuge, &race, nullptr};
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

vxl_classfactory *factoryOf(const char *name)
{
    vxl_classfactory *f = nullptr;
    EXPECT_EQ(0, vxl_createclassfactory(&f, name));
    vxl_destroyclassfactory(f);
    return f;
}

} // namespace

TEST_F(Factories, ObjectsHoldOneReferenceAndOneUse)
{
    vxl_classfactory *f = nullptr;
    ASSERT_EQ(0, vxl_createclassfactory(&f, "FacCreate"));
    EXPECT_EQ(1, f->usecount);
    vxl_if out = deadbeef;
    vxltest::LogTail tail;
    ASSERT_EQ(0, vxl_getinstancefromcf(f, nullptr, &out)); // a null name gives the primary
    EXPECT_EQ(1, kt::coreOf(out)->refcount);
    EXPECT_EQ(2, f->usecount);
    EXPECT_EQ(&g_creates, kt::coreOf(out)->impl);
    EXPECT_EQ(0, out->slots->decref(out));
    EXPECT_EQ(1, g_destroys);
    EXPECT_EQ(1, f->usecount);
    EXPECT_EQ("encapsulate = " + hex(out) + "\ndecref(" + hex(out) + ") = 1\n", tail.text());

    int impl = 0;
    ASSERT_EQ(0, vxl_encapsulatefromcf(f, "IPlain", &impl, &out));
    EXPECT_EQ(1, g_creates) << "no create callback";
    EXPECT_EQ(&impl, kt::coreOf(out)->impl);
    vxl_decref(out);
    EXPECT_EQ(2, g_destroys);
    EXPECT_EQ(f, factoryOf("FacCreate")) << "one factory per class";
    vxl_destroyclassfactory(f);
    EXPECT_EQ(0, f->usecount);
}

TEST_F(Factories, FailuresDropTheObjectAndKeepTheUses)
{
    vxl_classfactory *f = nullptr;
    ASSERT_EQ(0, vxl_createclassfactory(&f, "FacCreate"));
    const struct {
        int32_t createstatus;
        const char *ifname;
        int32_t status;
    } cases[] = {{-9, nullptr, -9}, {4, "IPlain", 4}, {0, "INope", VXL_ENOINTERFACE}};
    for (const auto &c : cases) {
        for (int viaName = 0; viaName < 2; ++viaName) {
            SCOPED_TRACE(testing::Message() << c.status << " " << viaName);
            g_createstatus = c.createstatus;
            g_creates = g_destroys = 0;
            vxl_if out = deadbeef;
            vxltest::LogTail tail;
            EXPECT_EQ(c.status, viaName ? vxl_createinstance("FacCreate", c.ifname, &out)
                                        : vxl_getinstancefromcf(f, c.ifname, &out));
            EXPECT_EQ(nullptr, out);
            EXPECT_EQ(1, g_creates);
            EXPECT_EQ(1, g_destroys) << "the only reference was dropped";
            EXPECT_EQ(1, f->usecount);
            std::string log = tail.text(), key = "encapsulate = ";
            size_t at = log.find(key) + key.size();
            std::string x = log.substr(at, log.find('\n', at) - at);
            EXPECT_EQ((viaName ? "vxl_createclassfactory\n" : "") + key + x + "\n" +
                          (c.createstatus ? "" : "getinterface(" + x + ", INope)\n") + "decref(" + x + ") = 1\n",
                      log);
        }
    }
    vxl_destroyclassfactory(f);
    const std::string none = "vxl_createclassfactory\ncreateclassfactory NoSuchClass = <none>\n";
    auto *nf = reinterpret_cast<vxl_classfactory *>(0xdeadbeef);
    vxl_if created = deadbeef, encapsulated = deadbeef;
    int impl = 0;
    vxltest::LogTail tail; // unknown classes, and definitions the build cannot serve
    EXPECT_EQ(VXL_ECLASSNOTREG, vxl_createclassfactory(&nf, "NoSuchClass"));
    // vxl_createinstance hands the name on to COM, which knows no such ProgID.
    EXPECT_EQ(VXL_EFAIL, vxl_createinstance("NoSuchClass", "IPlain", &created));
    EXPECT_EQ(VXL_ECLASSNOTREG, vxl_encapsulate("NoSuchClass", nullptr, &impl, &encapsulated));
    EXPECT_EQ(nullptr, nf);
    EXPECT_EQ(nullptr, created);
    EXPECT_EQ(deadbeef, encapsulated) << "vxl_encapsulate leaves it unchanged";
    EXPECT_EQ(none + none +
                  "vxl_com_createinstance(NoSuchClass, IPlain)\n"
                  "vxl_com_createinstance() cannot find object CLSID NoSuchClass\n" + none,
              tail.text());
    for (int32_t count : {0, 7, -1}) {
        badCount.ifcount = count;
        for (const char *name : {"BadCount", "BadMethods", "BadHuge"}) {
            vxltest::LogTail refused;
            EXPECT_EQ(VXL_ECLASSNOTREG, vxl_createclassfactory(&nf, name)) << name << " " << count;
            EXPECT_EQ("vxl_createclassfactory\n", refused.text());
        }
    }
    badCount.ifcount = 1;
    EXPECT_EQ(VXL_EFAIL, vxl_getinstancefromcf(nullptr, nullptr, &created)) << "no factory";
    EXPECT_EQ(VXL_EFAIL, vxl_createinstance("FacCreate", nullptr, nullptr)) << "nowhere to put it";
    EXPECT_EQ(0, f->usecount) << "no use taken or lost";
}

TEST_F(Factories, ThreadsRacingForTheFirstObjectShareOneFactory)
{
    constexpr int kThreads = 4;
    vxl_if objects[kThreads] = {};
    int32_t statuses[kThreads] = {};
    vxltest::LogTail tail;
    vxltest::runTogether(kThreads, [&](int t) { statuses[t] = vxl_createinstance("Race", "IOneMethod", &objects[t]); });
    vxl_classfactory *f = factoryOf("Race");
    EXPECT_EQ(kThreads, f->usecount);
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(0, statuses[t]);
        EXPECT_EQ(f, kt::coreOf(objects[t])->factory);
        EXPECT_EQ(1, VXL_METHOD(objects[t], 0, int32_t(*)(vxl_if))(objects[t]));
        vxl_decref(objects[t]);
    }
    EXPECT_EQ(0, f->usecount);
    std::string log = tail.text(), line = "createclassfactory Race = ";
    EXPECT_NE(std::string::npos, log.find(line));
    EXPECT_EQ(log.find(line), log.rfind(line)) << "built once";
}

TEST_F(Factories, InuseFreesIdleFactoriesUpToTheFirstInUse)
{
    const vxl_componentdef *const never[] = {&use2, &use3, nullptr};
    for (const vxl_componentdef *const *list : {never, static_cast<const vxl_componentdef *const *>(nullptr)}) {
        vxltest::LogTail tail;
        EXPECT_EQ(0, vxl_inuse(list));
        EXPECT_EQ("vxl_inuse: no\n", tail.text());
    }
    vxl_if obj1 = nullptr, obj2 = nullptr;
    ASSERT_EQ(0, vxl_createinstance("Use1", nullptr, &obj1));
    vxl_classfactory *f1 = kt::coreOf(obj1)->factory;
    vxl_decref(obj1); // Use1: built, idle
    ASSERT_EQ(0, vxl_createinstance("Use2", nullptr, &obj2));
    vxl_classfactory *f2 = kt::coreOf(obj2)->factory; // Use2: one live object
    vxl_classfactory *f3 = factoryOf("Use3");          // Use3: built, idle
    const vxl_componentdef *const list[] = {&use1, &use2, &use3, nullptr};
    const vxl_componentdef *const second[] = {&use2, nullptr};
    vxltest::LogTail tail;
    EXPECT_EQ(1, vxl_inuse(list));
    EXPECT_EQ(f3, factoryOf("Use3")) << "the third was left alone";
    vxl_classfactory *rebuilt = factoryOf("Use1");
    vxl_decref(obj2);
    vxl_classfactory *held = nullptr;
    ASSERT_EQ(0, vxl_createclassfactory(&held, "Use2"));
    EXPECT_EQ(1, vxl_inuse(second)) << "a held handle is a use";
    vxl_destroyclassfactory(held);
    EXPECT_EQ(0, vxl_inuse(second));
    EXPECT_EQ(0, vxl_inuse(second));
    EXPECT_EQ("vxl_inuse: freeclassfactory(" + hex(f1) + ")\nyes\nvxl_createclassfactory\nvxl_createclassfactory\n"
              "createclassfactory Use1 = " + hex(rebuilt) + ">\ndecref(" + hex(obj2) + ") = 1\n"
              "vxl_createclassfactory\nvxl_inuse: yes\n"
              "vxl_inuse: freeclassfactory(" + hex(f2) + ")\nno\nvxl_inuse: no\n",
              tail.text());
}

// ---- stub memory as a fresh process sees it --------------------------------------------

namespace {

int32_t answer(void *, int32_t x) { return x + 1; }

// A class of one interface of count methods, every one answered by answer.
struct WideClass {
    std::vector<const vxl_methoddef *> methods;
    std::vector<vxl_fn> functions;
    vxl_interfacedef def;
    vxl_componentinterface entry;
    const vxl_componentinterface *entries[1] = {&entry};
    vxl_componentdef component;
    WideClass(const char *name, int32_t count)
        : methods(count, &mOne), functions(count, reinterpret_cast<vxl_fn>(&answer)),
          def{name, count, methods.data()}, entry{&def, functions.data()}, component{name, 1, entries, nullptr, nullptr, nullptr}
    {
    }
};

} // namespace

VXL_CHILD(growing_chunks)
{
    static WideClass classes[] = {{"INoMethods", 0}, {"ISmall1", 2}, {"IBig1", 20000}, {"IBig2", 70000}, {"ISmall2", 3}};
    // The first stubs take the first chunk; 320000 bytes take the next
    // doubling; 1120000 bytes need two; three stubs fit behind them.
    const int32_t chunks[] = {0, 262144, 524288, 2097152, 0};
    const vxl_componentdef *components[6] = {};
    const vxl_interfacedef *interfaces[6] = {};
    for (int c = 0; c < 5; ++c) {
        components[c] = &classes[c].component;
        interfaces[c] = &classes[c].def;
    }
    if (vxl_register("stubmemory", components, interfaces) != 0)
        return 10;
    vxl_classfactory *f[5] = {};
    std::string expected;
    for (int c = 0; c < 5; ++c) {
        if (vxl_createclassfactory(&f[c], classes[c].def.name) != 0)
            return 11;
        expected += "vxl_createclassfactory\n";
        if (chunks[c])
            expected += kt::fmt("allocated %d bytes for trampoline = %x\n", chunks[c], VXL_PTR(f[c]->stubblocks[0]));
        expected += kt::fmt("createclassfactory %s = %x>\n", classes[c].def.name, VXL_PTR(f[c]));
    }
    if (f[0]->stubblocks[0] || static_cast<uint8_t *>(f[4]->stubblocks[0]) != static_cast<uint8_t *>(f[3]->stubblocks[0]) + 16 * 70000)
        return 12; // no methods, no stubs; the next block follows the last
    vxl_if obj = nullptr;
    if (vxl_getinstancefromcf(f[3], nullptr, &obj) != 0 || VXL_METHOD(obj, 69999, int32_t(*)(vxl_if, int32_t))(obj, 6) != 7)
        return 13; // the last stub of the largest block still forwards
    vxltest::writeExpected(expected + "encapsulate = " + hex(obj) + "\n");
    return 0;
}

TEST(StubMemory, TheFirstChunkIs262144BytesAndChunksDoubleUntilARequestFits)
{
    int exitcode = -1;
    EXPECT_EQ("", vxltest::childLogAgainstExpected("growing_chunks", &exitcode));
    EXPECT_EQ(0, exitcode);
}

// ---- loading component libraries --------------------------------------------------------

TEST(LibraryLoading, EveryLoadRunsTheEntryPointOrLogsTheLoadersCodeAndText)
{
    const struct {
        const char *name;
        int32_t status, runs; // runs of the entry point after two loads; -1: nothing loaded
        const char *line;     // the second trace line; null for none
    } cases[] = {
        {"tc_ok.dll", 0, 2, nullptr},
        {"tc_initfail.dll", -4, 2, nullptr}, // the entry point's own failure passes through
        {"tc_noentry.dll", 1, 0, "  127 Procedure not found\n"}, // and it stays loaded
        {"tc_no_such_library.dll", 1, -1, "  126 Module not found\n"},
        {nullptr, 1, -1, "  87 Invalid parameter\n"},
    };
    for (const auto &c : cases) {
        std::string lines = kt::fmt("vxl_loaddynamiclibrary(%s)\n", c.name ? c.name : "(null)") + (c.line ? c.line : "");
        vxltest::LogTail tail;
        EXPECT_EQ(c.status, vxl_loaddynamiclibrary(c.name));
        EXPECT_EQ(c.status, vxl_loaddynamiclibrary(c.name)) << "the same on a second load";
        EXPECT_EQ(lines + lines, tail.text());
        HMODULE lib = c.runs >= 0 ? GetModuleHandleA(c.name) : nullptr;
        auto *runs = lib ? reinterpret_cast<int32_t *>(GetProcAddress(lib, "tc_runs")) : nullptr;
        EXPECT_EQ(c.runs, runs ? *runs : -1) << (c.name ? c.name : "(null)");
    }
}
