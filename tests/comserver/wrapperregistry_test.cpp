// White box: the wrapper registry in the real (Wine prefix's) registry.
// Every test works on subkeys of its own and removes them before and after.
#include "comserver/comserver.h"
#include "comserver_support.h"
#include "harness.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

namespace {

using vxltest::sz;

const std::string kBase = "SOFTWARE\\Quelt\\vexa\\interfaces\\";
const std::string kPathA = "C:\\vxltest\\wrappers\\First.dll", kPathB = "C:\\vxltest\\wrappers\\Second.dll";

std::string keyOf(const std::string &ifname, const std::string &wtype)
{
    return kBase + ifname + "-" + wtype;
}

std::string dump(const std::string &path)
{
    return vxltest::dumpKey(HKEY_LOCAL_MACHINE, path);
}

void setValue(const std::string &path, const char *name, const std::string &data)
{
    ASSERT_EQ(ERROR_SUCCESS, RegSetKeyValueA(HKEY_LOCAL_MACHINE, path.c_str(), name, REG_SZ, data.c_str(),
                                             static_cast<DWORD>(data.size() + 1)));
}

std::string line(const char *op, const std::string &path, const std::string &ifname, const std::string &wtype)
{
    return std::string("vxl_com_wrapper_") + op + "(" + path + ", " + ifname + ", " + wtype + ") enter\n";
}

std::string tryLine(const std::string &ifname, const std::string &wtype)
{
    return "vxl_com_wrapper_tryload(" + ifname + ", " + wtype + ") -> " + keyOf(ifname, wtype) + "\n";
}

class WrapperRegistry : public testing::Test {
protected:
    void SetUp() override { clean(); }
    void TearDown() override { clean(); }
    static void clean()
    {
        for (const char *k : {"IVxlWregTwoPaths-com", "IVxlWregGap-comS", "IVxlWregKeep-com", "IVxlWregCase-comS",
                              "IVxlWregLoad-comS", "IVxlWregNoneLoads-com", "IVxlWregNoBase-com"})
            RegDeleteKeyA(HKEY_LOCAL_MACHINE, (kBase + k).c_str());
    }
};

} // namespace

TEST_F(WrapperRegistry, RegistrationWritesWrapper0AndClearsUpToTheFirstGap)
{
    vxltest::LogTail tail;
    EXPECT_EQ(0, vxl_com_wrapper_register(kPathA.c_str(), "IVxlWregTwoPaths", "com"));
    EXPECT_EQ(0, vxl_com_wrapper_register(kPathB.c_str(), "IVxlWregTwoPaths", "com"));
    const std::string two = keyOf("IVxlWregTwoPaths", "com");
    EXPECT_EQ("[" + two + "]\nwrapper-0=" + sz(kPathB), dump(two));
    EXPECT_EQ(line("register", kPathA, "IVxlWregTwoPaths", "com") + line("register", kPathB, "IVxlWregTwoPaths", "com"),
              tail.text());
    const std::string gap = keyOf("IVxlWregGap", "comS");
    for (const char *name : {"wrapper-0", "wrapper-1", "wrapper-3", "wrapper-01", "custom"})
        setValue(gap, name, name);
    EXPECT_EQ(0, vxl_com_wrapper_register(kPathA.c_str(), "IVxlWregGap", "comS"));
    EXPECT_EQ("[" + gap + "]\ncustom=" + sz("custom") + "wrapper-0=" + sz(kPathA) + "wrapper-01=" + sz("wrapper-01") +
                  "wrapper-3=" + sz("wrapper-3"),
              dump(gap)); // the registry's own (sorted) order

    // Key paths up to 255 characters; missing arguments are refused.
    const std::string longest(219, 'L'), tooLong(220, 'L'); // 31 + 219 + "-comP" = 255
    vxltest::LogTail limits;
    EXPECT_EQ(0, vxl_com_wrapper_register(kPathA.c_str(), longest.c_str(), "comP"));
    EXPECT_EQ(0, vxl_com_wrapper_unregister(kPathA.c_str(), longest.c_str(), "comP"));
    EXPECT_EQ("", dump(keyOf(longest, "comP"))) << "its last path gone, the subkey goes";
    EXPECT_EQ(1, vxl_com_wrapper_register(kPathA.c_str(), tooLong.c_str(), "comP"));
    EXPECT_EQ(1, vxl_com_wrapper_register(nullptr, "IVxlWregKeep", "com"));
    EXPECT_EQ(1, vxl_com_wrapper_tryload("IVxlWregKeep", nullptr));
    EXPECT_EQ("", dump(keyOf("IVxlWregKeep", "com")));
    EXPECT_EQ(line("register", kPathA, longest, "comP") + line("unregister", kPathA, longest, "comP") +
                  line("register", kPathA, tooLong, "comP") + "wrapper register failed 0xce\n" +
                  line("register", "(null)", "IVxlWregKeep", "com") + "wrapper register failed 0x57\n" +
                  "vxl_com_wrapper_tryload(IVxlWregKeep, (null)) -> " + kBase + "IVxlWregKeep-(null)\n" +
                  "vxl_com_wrapper_tryload() openkey failed 57\n",
              limits.text());
}

TEST_F(WrapperRegistry, UnregisterRemovesTheFirstValueWithExactlyThePath)
{
    const std::string key = keyOf("IVxlWregKeep", "com");
    setValue(key, "wrapper-0", kPathA);
    setValue(key, "wrapper-1", kPathB);
    setValue(key, "wrapper-2", kPathA);
    ASSERT_EQ(0, vxl_com_wrapper_register("C:\\Dir\\Wrapper.dll", "IVxlWregCase", "comS"));
    vxltest::LogTail tail;
    EXPECT_EQ(0, vxl_com_wrapper_unregister(kPathA.c_str(), "IVxlWregKeep", "com"));
    EXPECT_EQ("[" + key + "]\nwrapper-1=" + sz(kPathB) + "wrapper-2=" + sz(kPathA), dump(key));
    EXPECT_EQ(1, vxl_com_wrapper_unregister("c:\\dir\\wrapper.dll", "IVxlWregCase", "comS"));
    EXPECT_EQ(1, vxl_com_wrapper_unregister(kPathA.c_str(), "IVxlWregNoSub", "com"));
    EXPECT_EQ(1, vxl_com_wrapper_unregister(nullptr, "IVxlWregKeep", "com"));
    EXPECT_EQ(1, vxl_com_wrapper_unregister(kPathA.c_str(), "IVxlWregKeep", nullptr));
    EXPECT_EQ(0, vxl_com_wrapper_unregister(kPathB.c_str(), "IVxlWregKeep", "com"));
    EXPECT_EQ(0, vxl_com_wrapper_unregister(kPathA.c_str(), "IVxlWregKeep", "com"));
    EXPECT_EQ("", dump(key));
    EXPECT_NE("", dump(kBase)) << "only the subkey goes";
    EXPECT_EQ(line("unregister", kPathA, "IVxlWregKeep", "com") +
                  line("unregister", "c:\\dir\\wrapper.dll", "IVxlWregCase", "comS") + "wrapper unregister failed(3)\n" +
                  line("unregister", kPathA, "IVxlWregNoSub", "com") + "wrapper unregister failed(2) 0x2\n" +
                  line("unregister", "(null)", "IVxlWregKeep", "com") + "wrapper unregister failed(3)\n" +
                  line("unregister", kPathA, "IVxlWregKeep", "(null)") + "wrapper unregister failed(2) 0x57\n" +
                  line("unregister", kPathB, "IVxlWregKeep", "com") + line("unregister", kPathA, "IVxlWregKeep", "com"),
              tail.text());
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, keyOf("IVxlWregCase", "comS").c_str());
    // Without the base key (a fresh machine) removal fails at its first step.
    if (RegDeleteKeyA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Quelt\\vexa\\interfaces") != ERROR_SUCCESS)
        GTEST_SKIP() << "other subkeys live under the base key";
    vxltest::LogTail nobase;
    EXPECT_EQ(1, vxl_com_wrapper_unregister(kPathA.c_str(), "IVxlWregNoBase", "com"));
    EXPECT_EQ(line("unregister", kPathA, "IVxlWregNoBase", "com") + "wrapper unregister failed(1) 0x2\n", nobase.text());
}

TEST_F(WrapperRegistry, TryloadPassesOverALibraryThatDoesNotLoad)
{
    const std::string dll = vxltest::programDir() + "\\comtest_wrapperlib.dll";
    const std::string missing = vxltest::programDir() + "\\no_such_wrapperlib.dll";
    ASSERT_EQ(nullptr, GetModuleHandleA("comtest_wrapperlib.dll"));
    setValue(keyOf("IVxlWregLoad", "comS"), "wrapper-0", missing);
    setValue(keyOf("IVxlWregLoad", "comS"), "wrapper-1", dll);
    setValue(keyOf("IVxlWregNoneLoads", "com"), "any name", missing);
    vxltest::LogTail tail;
    EXPECT_EQ(0, vxl_com_wrapper_tryload("IVxlWregLoad", "comS"));
    EXPECT_NE(nullptr, GetModuleHandleA("comtest_wrapperlib.dll"));
    EXPECT_EQ(1, vxl_com_wrapper_tryload("IVxlWregNoneLoads", "com"));
    EXPECT_EQ(1, vxl_com_wrapper_tryload("IVxlWregNoSub", "comP"));
    EXPECT_EQ(tryLine("IVxlWregLoad", "comS") + "vxl_com_wrapper_tryload() loading " + missing + "\n" +
                  "vxl_com_wrapper_tryload() loading " + dll + "\nvxl_com_wrapper_tryload() ok\n" +
                  tryLine("IVxlWregNoneLoads", "com") + "vxl_com_wrapper_tryload() loading " + missing +
                  "\nvxl_com_wrapper_tryload() failed\n" + tryLine("IVxlWregNoSub", "comP") +
                  "vxl_com_wrapper_tryload() openkey failed 2\n",
              tail.text());
}
