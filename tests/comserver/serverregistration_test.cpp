// Server registration: the registry rows of one class, the "CP" classes and
// wrapper-library entries of proxy interfaces, what is left out (GUID_NULL
// components, half-set connection points, null proxies), local servers by
// ".exe" in the module path, and removal of whole subtrees. The type
// library registered is the sample server's.
#include "comserver_support.h"
#include "harness.h"
#include "vexal.h"
#include "vxsample.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

namespace {

using vxltest::dumpKey;
using vxltest::sz;

constexpr GUID guid(unsigned char n)
{
    return {0x0a1b2c3d, 1, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, n}};
}
const CLSID CLSID_One = guid(1), CLSID_CP = guid(2);
const char kOne[] = "{0A1B2C3D-0001-4000-8000-000000000001}";
const char kCP[] = "{0A1B2C3D-0001-4000-8000-000000000002}";

const vxl_comcomponentinfo one = {"VxTest.One", CLSID_One};
const vxl_comcomponentinfo notCom = {"VxTest.NotCom", GUID_NULL};
const vxl_comcomponentinfo unregistered = {"VxTest.Unregistered", guid(3)};
const vxl_comcomponentinfo *const registeredComponents[] = {&one, &notCom, nullptr};
const vxl_comcomponentinfo *const named[] = {&one, &notCom, &unregistered, nullptr};
// Connection point and two wrapper types; connection-point IID only, no wrapper types.
const vxl_comifinfo withCP = {"IVxTestCP", guid(4), GUID_NULL, guid(5), guid(6), CLSID_CP,
                              nullptr, nullptr, nullptr, nullptr};
const vxl_comifinfo halfCP = {"IVxTestHalf", GUID_NULL, GUID_NULL, GUID_NULL, guid(7), GUID_NULL,
                              nullptr, nullptr, nullptr, nullptr};
const vxl_comifinfo *const interfaces[] = {&withCP, &halfCP, nullptr};
const char *const proxies[] = {"IVxTestCP", "IVxTestHalf", nullptr};
const vxl_comlibinfo registration = {"unused", GUID_NULL};

const std::string kWrappers = "SOFTWARE\\Quelt\\vexa\\interfaces\\";
const std::string kTypeLib = "TypeLib\\{D8E19C00-CE81-4945-8E16-F01BB64568A3}";

std::string modulePath(HMODULE module)
{
    char path[MAX_PATH];
    return std::string(path, GetModuleFileNameA(module, path, sizeof path));
}

// Everything a registration of the test records may write.
std::string snapshot()
{
    std::string all;
    for (const char *key : {"CLSID\\", "AppID\\"})
        for (const char *id : {kOne, kCP})
            all += dumpKey(HKEY_CLASSES_ROOT, std::string(key) + id);
    for (const char *key : {"VxTest.One", "VxTest.NotCom", "VxTest.Unregistered", "CPIVxTestCP", "CPIVxTestHalf"})
        all += dumpKey(HKEY_CLASSES_ROOT, key);
    for (const char *key : {"IVxTestCP-com", "IVxTestCP-comS", "IVxTestCP-comP", "IVxTestHalf-com"})
        all += dumpKey(HKEY_LOCAL_MACHINE, kWrappers + key);
    return all + dumpKey(HKEY_CLASSES_ROOT, kTypeLib);
}

class ServerRegistration : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        vxl_init();
        sample = LoadLibraryA("vxsample.dll");
        ASSERT_NE(nullptr, sample);
        vxl_com_register(&registration, registeredComponents, interfaces);
    }
    void TearDown() override { EXPECT_EQ("", snapshot()); }

    // The sample's type library, classes of the module with that name.
    static vxl_comlibinfo library(const char *modulename) { return {modulename, LIBID_VexalSample}; }
    static HMODULE sample;
};
HMODULE ServerRegistration::sample = nullptr;

TEST_F(ServerRegistration, WritesEachRowOnceAndRemovesWholeSubtrees)
{
    vxl_comlibinfo lib = library("vxsample.dll");
    std::string path = modulePath(sample);
    ASSERT_EQ(0, vxl_com_registerserver(sample, &lib, named, proxies));
    std::string once = snapshot();
    std::string clsid = std::string("CLSID\\") + kOne;
    EXPECT_EQ("[" + clsid + "]\n=" + sz("VxTest.One") + "AppID=" + sz(kOne) +     //
                  "[" + clsid + "\\InprocServer32]\n=" + sz(path) +                   //
                  "[" + clsid + "\\ProgID]\n=" + sz("VxTest.One") +                   //
                  "[" + clsid + "\\VersionIndependentProgID]\n=" + sz("VxTest.One"), //
              dumpKey(HKEY_CLASSES_ROOT, clsid));
    EXPECT_EQ("[VxTest.One]\n=" + sz("VxTest.One") + "[VxTest.One\\CLSID]\n=" + sz(kOne) +
                  "[VxTest.One\\CurVer]\n=" + sz("VxTest.One"),
              dumpKey(HKEY_CLASSES_ROOT, "VxTest.One"));
    EXPECT_EQ(std::string("[AppID\\") + kOne + "]\n=" + sz("VxTest.One") + "DllSurrogate=" + sz(""),
              dumpKey(HKEY_CLASSES_ROOT, std::string("AppID\\") + kOne));
    // The "CP" class of the interface with both connection-point GUIDs only,
    // wrapper entries for the wrapper types with an IID only.
    EXPECT_NE("", dumpKey(HKEY_CLASSES_ROOT, "CPIVxTestCP\\CLSID"));
    EXPECT_EQ("", dumpKey(HKEY_CLASSES_ROOT, "CPIVxTestHalf"));
    EXPECT_EQ("[" + kWrappers + "IVxTestCP-comP]\nwrapper-0=" + sz(path),
              dumpKey(HKEY_LOCAL_MACHINE, kWrappers + "IVxTestCP-comP"));
    EXPECT_EQ("", dumpKey(HKEY_LOCAL_MACHINE, kWrappers + "IVxTestCP-comS"));
    EXPECT_EQ("", dumpKey(HKEY_CLASSES_ROOT, "VxTest.NotCom"));
    EXPECT_NE("", dumpKey(HKEY_CLASSES_ROOT, kTypeLib));

    ASSERT_EQ(0, vxl_com_registerserver(sample, &lib, named, proxies));
    EXPECT_EQ(once, snapshot());

    HKEY added = nullptr;
    RegCreateKeyA(HKEY_CLASSES_ROOT, "VxTest.One\\AddedByAnotherTool\\Deeper", &added);
    RegCloseKey(added);
    EXPECT_EQ(S_OK, vxl_com_unregisterserver(sample, &lib, named, proxies));
}

TEST_F(ServerRegistration, ExeAnywhereInThePathMakesALocalServer)
{
    struct Case {
        const char *folder; // null: the module name is null, which names the program
        bool local;
    } cases[] = {{"dir.exe.d", true}, {"UPPER.EXE", false}, {nullptr, true}};
    int n = 0;
    for (const Case &c : cases) {
        std::string path = modulePath(nullptr);
        if (c.folder) {
            std::string folder = vxltest::programDir() + "\\scratch\\" + c.folder;
            CreateDirectoryA(folder.c_str(), nullptr);
            path = folder + "\\module" + std::to_string(n++) + ".dll";
            CopyFileA((vxltest::programDir() + "\\comtest_wrapperlib.dll").c_str(), path.c_str(), FALSE);
            ASSERT_NE(nullptr, LoadLibraryA(path.c_str()));
        }
        vxl_comlibinfo lib = library(c.folder ? path.c_str() : nullptr);
        ASSERT_EQ(0, vxl_com_registerserver(sample, &lib, registeredComponents, nullptr));
        std::string clsid = std::string("CLSID\\") + kOne;
        EXPECT_EQ("[" + clsid + (c.local ? "\\LocalServer32" : "\\InprocServer32") + "]\n=" + sz(path),
                  dumpKey(HKEY_CLASSES_ROOT, clsid + (c.local ? "\\LocalServer32" : "\\InprocServer32")));
        std::string appid = dumpKey(HKEY_CLASSES_ROOT, std::string("AppID\\") + kOne);
        EXPECT_EQ(!c.local, appid.find("DllSurrogate") != std::string::npos) << appid;
        // Null proxies: no "CP" class and no wrapper entries.
        EXPECT_EQ("", dumpKey(HKEY_CLASSES_ROOT, "CPIVxTestCP"));
        EXPECT_EQ("", dumpKey(HKEY_LOCAL_MACHINE, kWrappers + "IVxTestCP-com"));
        EXPECT_EQ(S_OK, vxl_com_unregisterserver(sample, &lib, registeredComponents, nullptr));
    }
}

TEST_F(ServerRegistration, ModuleWithoutTypeLibraryWritesNothing)
{
    vxl_comlibinfo lib = library("vxsample.dll");
    vxltest::LogTail tail;
    EXPECT_EQ(1, vxl_com_registerserver(GetModuleHandleA(nullptr), &lib, named, proxies));
    EXPECT_EQ("vxl_com_registerserver\ncannot load typelibrary\n", tail.text());
    EXPECT_EQ("", snapshot());
    // Removal with nothing registered reports the type library's failure.
    HRESULT hr = vxl_com_unregisterserver(sample, &lib, named, proxies);
    EXPECT_TRUE(FAILED(hr)) << std::hex << hr;
    EXPECT_NE(std::string::npos, tail.text().find("cannot unregister typelibrary\n"));
}

} // namespace
