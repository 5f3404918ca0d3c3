// vexalgen's output in use, and vexalgen itself. A kit client calls every
// method of gentest.idl through a real kit proxy into the COM wrapper over
// the kit component (both generated layers, "com" and "comS" forms); a
// script calls every method through IDispatch; inputs the kit cannot carry
// are refused with nothing written; the same input gives the same bytes.
#include "comserver_support.h"
#include "core/object.h"
#include "gentest_vexal.h"
#include "harness.h"
#include "taskmemory.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <windows.h>

#include <fstream>
#include <sstream>

// ---- a blind delegator ------------------------------------------------------------------------
// A COM object of its own identity in front of a target: QueryInterface
// answers itself for every IID the target answers, and every later slot k
// jumps to the target's slot k with the target in place of the delegator.
// vxl_unwrap finds no row for it and so makes a real kit proxy.
struct Delegator {
    const void *const *slots;
    IUnknown *target;
    LONG refs;
};
static_assert(offsetof(Delegator, target) == 8, "the thunks read the target at 8");

// The delegator arrives in rcx, as every COM method's first argument; the
// other arguments stay where the caller put them.
#define DELEGATOR_THUNK(k)                                                                                   \
    asm(".text\n"                                                                                            \
        ".globl delegatorThunk" #k "\n"                                                                      \
        "delegatorThunk" #k ":\n"                                                                            \
        "    movq 8(%rcx), %rcx\n"    /* the target */                                                       \
        "    movq (%rcx), %rax\n"     /* its slot table */                                                   \
        "    jmp *8*" #k "(%rax)\n"); /* its slot k */                                                       \
    extern "C" void delegatorThunk##k();
#define DELEGATOR_SLOT(k) reinterpret_cast<const void *>(delegatorThunk##k),
#define DELEGATOR_THUNKS(X) X(3) X(4) X(5) X(6) X(7) X(8) X(9) X(10) X(11) X(12) X(13) X(14) X(15)
DELEGATOR_THUNKS(DELEGATOR_THUNK)

namespace {

LONG g_liveDelegators = 0;

HRESULT STDMETHODCALLTYPE delegatorQueryInterface(Delegator *self, REFIID iid, void **out)
{
    IUnknown *answer = nullptr;
    *out = nullptr;
    if (FAILED(self->target->QueryInterface(iid, reinterpret_cast<void **>(&answer))) || !answer)
        return E_NOINTERFACE;
    answer->Release();
    InterlockedIncrement(&self->refs);
    return *out = self, S_OK;
}
ULONG STDMETHODCALLTYPE delegatorAddRef(Delegator *self) { return InterlockedIncrement(&self->refs); }
ULONG STDMETHODCALLTYPE delegatorRelease(Delegator *self)
{
    LONG left = InterlockedDecrement(&self->refs);
    if (left == 0) {
        self->target->Release();
        delete self;
        InterlockedDecrement(&g_liveDelegators);
    }
    return left;
}
const void *const delegatorSlots[] = {reinterpret_cast<const void *>(delegatorQueryInterface),
                                      reinterpret_cast<const void *>(delegatorAddRef),
                                      reinterpret_cast<const void *>(delegatorRelease),
                                      DELEGATOR_THUNKS(DELEGATOR_SLOT)};
// IAll's dual form has the most slots: IDispatch's seven and eight methods.
static_assert(sizeof delegatorSlots / sizeof *delegatorSlots >= 7 + 8, "a thunk for every slot");

// A real kit proxy of the given form over the generated COM wrapper of pif.
vxl_if proxyOf(vxl_if pif, const char *ifname, const char *form)
{
    InterlockedIncrement(&g_liveDelegators);
    auto *delegator = new Delegator{delegatorSlots, vxl_wrapptr(pif, ifname, form), 1};
    vxl_if proxy = vxl_unwrapptr(reinterpret_cast<IUnknown *>(delegator), ifname, form);
    delegatorRelease(delegator); // the proxy keeps it
    return proxy;
}

// ---- what the process can see -----------------------------------------------------------------

int32_t kitRefs(vxl_if primary)
{
    return reinterpret_cast<vxl_objectcore *>(reinterpret_cast<void **>(primary) + 1)->refcount;
}

long heapBlocks()
{
    _HEAPINFO info = {};
    long used = 0;
    while (_heapwalk(&info) == _HEAPOK)
        used += info._useflag == _USEDENTRY;
    return used;
}

vxl_if create(const char *component, const char *ifname)
{
    vxl_if pif = nullptr;
    EXPECT_EQ(VXL_OK, vxl_createinstance(component, ifname, &pif)) << component;
    return pif;
}

template <class... T> std::string words(const T &...values)
{
    std::ostringstream out;
    ((out << values << " "), ...);
    return out.str();
}

// An array as its count and elements; interfaces by the names x and y.
template <class T> std::string text(const T *items, int32_t count, vxl_if x = nullptr, vxl_if y = nullptr)
{
    std::ostringstream out;
    out << "(" << count << ")";
    for (int32_t k = 0; k < count; ++k) {
        if constexpr (std::is_same_v<T, vxl_if>)
            out << " " << (items[k] == x ? "x" : items[k] == y ? "y" : "?");
        else
            out << " " << items[k];
    }
    return out.str();
}

// ---- every method through a kit proxy and the COM wrapper under it ------------------------------

void callEverything(const char *form)
{
    using namespace VexalGenTest;
    vxl_if target = create("VexalGenTest.All", "IAll"), x = create("VexalGenTest.All", "IAll"),
           y = create("VexalGenTest.All", "IAll"), recorder = create("VexalGenTest.Recorder", "IAllEvents");
    vxl_if all = proxyOf(target, "IAll", form), listener = proxyOf(recorder, "IAllEvents", "comS");
    ASSERT_TRUE(all && listener && all != target && listener != recorder) << form;

    EXPECT_EQ(VXL_OK, IAll_Put(all, 7, 1.5f, 2.25, "seven", x));
    EXPECT_EQ(2, kitRefs(x)) << "the target's reference, and no other";
    int32_t n = 8;
    float f = 2.5f;
    double d = -0.5;
    char *s = vxl_strdup("eight");
    vxl_if v = y;
    y->slots->incref(y);
    EXPECT_EQ(VXL_OK, IAll_Swap(all, &n, &f, &d, &s, &v));
    EXPECT_EQ("7 1.5 2.25 seven ", words(n, f, d, s ? s : "null"));
    EXPECT_EQ(x, v) << "the kit object itself, not a proxy of its wrapper";
    vxl_free(s), vxl_decref(v);
    n = 0xdeadbeef, f = d = -1, s = nullptr, v = nullptr;
    EXPECT_EQ(VXL_OK, IAll_Get(all, &n, &f, &d, &s, &v));
    EXPECT_EQ("8 2.5 -0.5 eight ", words(n, f, d, s ? s : "null"));
    EXPECT_EQ(y, v);
    vxl_free(s), vxl_decref(v);

    // Arrays of each kind, with counts that differ; in/out ones in kit memory.
    const int32_t ns[] = {1, 2, 3, 9, 8};
    const float fs[] = {0.5f, 4.5f, -1, 0.25f};
    const double ds[] = {1.25, 2.5, 3.75, 5};
    const char *const ss[] = {"a", "bc", "de", "f", "ghi"};
    const vxl_if xs[] = {x, y};
    EXPECT_EQ(VXL_OK, IAll_PutArrays(all, ns, 3, fs, 1, ds, 4, ss, 2, xs, 2));
    int32_t nc = 2, fc = 3, dc = 0, sc = 3, xc = 1;
    int32_t *ons = vxl_com_createintarray(ns + 3, nc);
    float *ofs = vxl_com_createfloatarray(fs + 1, fc);
    double *ods = nullptr;
    char **oss = vxl_com_createstringarray(ss + 2, sc);
    auto *oxs = static_cast<vxl_if *>(vxl_malloc(sizeof(vxl_if)));
    oxs[0] = y, y->slots->incref(y);
    // Two out values beside the arrays: through IDispatch a combined value,
    // packed after the in/out lengths.
    int32_t taken = static_cast<int32_t>(0xdeadbeef), given = taken;
    EXPECT_EQ(VXL_OK, IAll_SwapArrays(all, &ons, &nc, &ofs, &fc, &ods, &dc, &oss, &sc, &oxs, &xc, &taken, &given));
    EXPECT_EQ("(3) 1 2 3(1) 0.5(4) 1.25 2.5 3.75 5(2) a bc(2) x y 9 12",
              text(ons, nc) + text(ofs, fc) + text(ods, dc) + text(oss, sc) + text(oxs, xc, x, y) + " " +
                  std::to_string(taken) + " " + std::to_string(given));
    auto freeArrays = [&] {
        vxl_free(ons), vxl_free(ofs), vxl_free(ods), vxl_freestringarray(oss, sc), vxl_freeinterfacearray(oxs, xc);
    };
    freeArrays();
    nc = fc = dc = sc = xc = static_cast<int32_t>(0xdeadbeef);
    EXPECT_EQ(VXL_OK, IAll_GetArrays(all, &ons, &nc, &ofs, &fc, &ods, &dc, &oss, &sc, &oxs, &xc));
    EXPECT_EQ("(2) 9 8(3) 4.5 -1 0.25(0)(3) de f ghi(1) y",
              text(ons, nc) + text(ofs, fc) + text(ods, dc) + text(oss, sc) + text(oxs, xc, x, y));
    freeArrays();

    // An event reaches the kit recorder through a proxy of its own wrapper;
    // the recorder keeps what it heard where Get finds it.
    EXPECT_EQ(VXL_OK, IAll_Listen(all, listener));
    EXPECT_EQ(VXL_OK, IAll_Fire(all, 5, "five"));
    EXPECT_EQ(-3, IAll_Fire(all, -3, "none")) << "the component's status, back through both layers";
    EXPECT_EQ(VXL_OK, IAll_Listen(all, nullptr));
    EXPECT_EQ(VXL_OK, IAll_Fire(all, 6, "unheard"));
    vxl_if heard = nullptr;
    recorder->slots->getinterface(recorder, "IAll", &heard);
    EXPECT_EQ(VXL_OK, IAll_Get(heard, &n, &f, &d, &s, &v));
    EXPECT_EQ("5 five ", words(n, s ? s : "null"));
    vxl_free(s), vxl_decref(v), vxl_decref(heard);

    vxl_decref(listener), vxl_decref(all);
    for (vxl_if object : {target, recorder})
        EXPECT_EQ(1, kitRefs(object)) << form;
    vxl_decref(target), vxl_decref(recorder); // which drops what they hold of x and y
    for (vxl_if object : {x, y})
        EXPECT_EQ(1, kitRefs(object)) << form;
    vxl_decref(x), vxl_decref(y);
    EXPECT_EQ(0, g_liveDelegators) << form;
}

TEST(GeneratedLayers, KitClientReachesTheComponentThroughProxyAndWrapper)
{
    vxl_init();
    ASSERT_TRUE(LoadLibraryA("gentest.dll"));
    vxltest::TaskMemoryCounter taskMemory; // BSTR cache off from here on
    ASSERT_TRUE(taskMemory.install());
    for (const char *form : {"com", "comS"}) {
        // The first round fills the runtime's caches; the second gives back
        // every block it takes, kit memory and task memory alike.
        for (int round = 0; round < 2; ++round) {
            const testing::TestResult *result = testing::UnitTest::GetInstance()->current_test_info()->result();
            int failures = result->total_part_count();
            long heap = heapBlocks();
            LONG task = taskMemory.live;
            callEverything(form);
            if (round && result->total_part_count() == failures) { // a failure's message takes blocks
                EXPECT_EQ(heap, heapBlocks()) << form;
                EXPECT_EQ(task, taskMemory.live) << form;
            }
        }
    }
    taskMemory.remove();
}

// ---- a script through IDispatch -----------------------------------------------------------------

std::string inBin(const std::string &file) { return vxltest::programDir() + "\\" + file; }

TEST(GeneratedLayers, ScriptCallsEveryMethodThroughIDispatch)
{
    vxl_inuse(nullptr); // our log opens under its name before the children get theirs
    SetEnvironmentVariableA("VXLLOGNAME", (vxltest::logPath() + ".children").c_str());
    ASSERT_EQ(0, vxltest::runProgram("regsvr32 /s \"" + inBin("gentest.dll") + "\""));
    std::string output;
    EXPECT_EQ(0, vxltest::runProgram("cscript.exe //nologo \"" + inBin("gentest.vbs") + "\"", &output));
    EXPECT_EQ("swap 7 1.5 2.25 seven a\r\n"
              "get(5) 8 2.5 -0.5 eight b\r\n"
              "by value 7 1.5 2.25 seven a\r\n"
              "swap(3) 1 2 3(1) 0.5(4) 1.25 2.5 3.75 5(2) a bc(2) a b(2) 9 12\r\n"
              "get(2) 9 8(3) 4.5 -1 0.25(0)(3) de f ghi(1) b\r\n"
              "ping 5 five\r\n"
              "fire 800401FD\r\n",
              output);
    EXPECT_EQ(0, vxltest::runProgram("regsvr32 /s /u \"" + inBin("gentest.dll") + "\""));
    EXPECT_EQ("", vxltest::dumpKey(HKEY_CLASSES_ROOT, "VexalGenTest.All"));
}

// ---- vexalgen itself --------------------------------------------------------------------------

// The files in a folder, removed when asked.
int filesIn(const std::string &folder, bool remove = false)
{
    WIN32_FIND_DATAA found;
    HANDLE search = FindFirstFileA((folder + "\\*").c_str(), &found);
    int files = 0;
    for (BOOL more = search != INVALID_HANDLE_VALUE; more; more = FindNextFileA(search, &found)) {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && ++files && remove)
            DeleteFileA((folder + "\\" + found.cFileName).c_str());
    }
    if (search != INVALID_HANDLE_VALUE)
        FindClose(search);
    return files;
}

std::string emptyFolder(const std::string &name)
{
    std::string folder = vxltest::scratchPath(name);
    CreateDirectoryA(folder.c_str(), nullptr);
    filesIn(folder, true);
    return folder;
}

int vexalgen(const std::string &input, const std::string &folder, std::string *output = nullptr)
{
    return vxltest::runProgram("\"" + inBin(VEXALGEN_EXE) + "\" \"" + input + "\" \"" + folder + "\"", output);
}

TEST(Vexalgen, RefusesWhatTheKitCannotCarryAndWritesNothing)
{
    std::string typelib = vxltest::readFile(inBin("gentest.tlb"));
    ASSERT_LT(1000u, typelib.size());
    std::string truncated = vxltest::scratchPath("truncated.tlb"), noise = vxltest::scratchPath("noise.tlb");
    std::ofstream(truncated, std::ios::binary) << typelib.substr(0, typelib.size() / 2);
    std::ofstream(noise, std::ios::binary) << std::string(typelib.rbegin(), typelib.rend());
    struct Case {
        std::string input;
        const char *named;   // in the message
        const char *blocker; // a folder of an output's name, which cannot be replaced
    } cases[] = {
        {inBin("bad_struct.tlb"), "interface IBad, method Take, parameter badarg", nullptr},
        {inBin("bad_variant.tlb"), "interface IBad, method Take, parameter badarg", nullptr},
        {vxltest::scratchPath("missing.tlb"), "missing.tlb", nullptr},
        {truncated, "truncated.tlb", nullptr},
        {noise, "noise.tlb", nullptr},
        {inBin("gentest.tlb"), "gentest_vexal.def", "gentest_vexal.def"}, // the last one written
    };
    for (const Case &c : cases) {
        std::string folder = emptyFolder(c.blocker ? "blocked" : "refused"), output;
        if (c.blocker)
            CreateDirectoryA((folder + "\\" + c.blocker).c_str(), nullptr);
        EXPECT_EQ(1, vexalgen(c.input, folder, &output)) << c.input;
        EXPECT_NE(std::string::npos, output.find(c.named)) << output;
        EXPECT_EQ(0, filesIn(folder)) << c.input;
    }
}

TEST(Vexalgen, SameInputGivesTheSameBytes)
{
    std::string first = emptyFolder("first"), second = emptyFolder("second");
    ASSERT_EQ(0, vexalgen(inBin("gentest.tlb"), first));
    ASSERT_EQ(0, vexalgen(inBin("gentest.tlb"), second));
    for (const char *file : {"\\gentest_vexal.h", "\\gentest_vexal.cpp", "\\gentest_vexal.def"}) {
        std::string bytes = vxltest::readFile(first + file);
        EXPECT_FALSE(bytes.empty()) << file;
        EXPECT_EQ(bytes, vxltest::readFile(second + file)) << file;
    }
}

} // namespace
