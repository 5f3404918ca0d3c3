// White box: the wrapper registry in the real (Wine prefix's) registry.
// Every test works on subkeys of its own, removes them before and after, and
// so leaves the registry as it found it.
#include "comserver/comserver.h"
#include "harness.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <map>
#include <string>

using vxltest::LogTail;

namespace {

const std::string kBase = "SOFTWARE\\Quelt\\vexa\\interfaces\\";

std::string keyOf(const std::string &ifname, const std::string &wtype)
{
    return kBase + ifname + "-" + wtype;
}

bool keyExists(const std::string &path)
{
    HKEY key;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return false;
    RegCloseKey(key);
    return true;
}

void removeKey(const std::string &path)
{
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, path.c_str());
}

void setValue(const std::string &path, const char *name, const std::string &data)
{
    HKEY key;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                             nullptr, &key, nullptr));
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE *>(data.c_str()),
                                            static_cast<DWORD>(data.size() + 1)));
    RegCloseKey(key);
}

// Name -> data (with the stored terminator shown as "|0") of every value.
using Values = std::map<std::string, std::string>;
Values valuesOf(const std::string &path)
{
    Values values;
    HKEY key;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return values;
    for (DWORD i = 0;; ++i) {
        char name[256], data[1024];
        DWORD namelen = sizeof name, datalen = sizeof data, type = 0;
        if (RegEnumValueA(key, i, name, &namelen, nullptr, &type, reinterpret_cast<BYTE *>(data), &datalen) !=
            ERROR_SUCCESS)
            break;
        std::string text(data, datalen);
        if (!text.empty() && text.back() == '\0')
            text = text.substr(0, text.size() - 1) + "|0";
        values[name] = (type == REG_SZ ? "" : "?type ") + text;
    }
    RegCloseKey(key);
    return values;
}

std::string regLine(const std::string &path, const std::string &ifname, const std::string &wtype)
{
    return "vxl_com_wrapper_register(" + path + ", " + ifname + ", " + wtype + ") enter\n";
}

std::string unregLine(const std::string &path, const std::string &ifname, const std::string &wtype)
{
    return "vxl_com_wrapper_unregister(" + path + ", " + ifname + ", " + wtype + ") enter\n";
}

std::string tryLine(const std::string &ifname, const std::string &wtype)
{
    return "vxl_com_wrapper_tryload(" + ifname + ", " + wtype + ") -> " + keyOf(ifname, wtype) + "\n";
}

const std::string kPathA = "C:\\vxltest\\wrappers\\First.dll";
const std::string kPathB = "C:\\vxltest\\wrappers\\Second.dll";
const std::string kPathC = "C:\\vxltest\\wrappers\\Third.dll";

// Subkeys this program may leave behind when a test fails half-way.
const char *const kOwnKeys[][2] = {
    {"IVxlWregTwoPaths", "com"}, {"IVxlWregGap", "comS"},    {"IVxlWregKeep", "com"},      {"IVxlWregNotThere", "com"},
    {"IVxlWregCase", "comS"},    {"IVxlWregNoSub", "com"},   {"IVxlWregLoad", "comS"},     {"IVxlWregNoneLoads", "com"},
    {"IVxlWregEmpty", "comP"},   {"IVxlWregNoBase", "com"},
};

void removeOwnKeys()
{
    for (auto &k : kOwnKeys)
        removeKey(keyOf(k[0], k[1]));
}

class WrapperRegistry : public testing::Test {
protected:
    void SetUp() override { removeOwnKeys(); }
    void TearDown() override { removeOwnKeys(); }
};

} // namespace

// ---- register ----------------------------------------------------------------------

TEST_F(WrapperRegistry, RegistrationWritesWrapper0AndClearsUpToTheFirstGap)
{
    const std::string twoPaths = keyOf("IVxlWregTwoPaths", "com");
    LogTail tail;
    EXPECT_EQ(0, vxl_com_wrapper_register(kPathA.c_str(), "IVxlWregTwoPaths", "com"));
    EXPECT_EQ((Values{{"wrapper-0", kPathA + "|0"}}), valuesOf(twoPaths));
    EXPECT_EQ(0, vxl_com_wrapper_register(kPathB.c_str(), "IVxlWregTwoPaths", "com"));
    EXPECT_EQ((Values{{"wrapper-0", kPathB + "|0"}}), valuesOf(twoPaths)) << "the second replaces the first";
    EXPECT_EQ(regLine(kPathA, "IVxlWregTwoPaths", "com") + regLine(kPathB, "IVxlWregTwoPaths", "com"),
              tail.text());

    const std::string gap = keyOf("IVxlWregGap", "comS");
    setValue(gap, "wrapper-0", "old0");
    setValue(gap, "wrapper-1", "old1");
    setValue(gap, "wrapper-3", "old3");
    setValue(gap, "wrapper-01", "other name");
    setValue(gap, "custom", "other name");
    EXPECT_EQ(0, vxl_com_wrapper_register(kPathC.c_str(), "IVxlWregGap", "comS"));
    EXPECT_EQ((Values{{"wrapper-0", kPathC + "|0"},
                      {"wrapper-3", "old3|0"},
                      {"wrapper-01", "other name|0"},
                      {"custom", "other name|0"}}),
              valuesOf(gap));
}

TEST_F(WrapperRegistry, KeyPathUpToTwoHundredFiftyFiveCharacters)
{
    const std::string longest(219, 'L'); // 31 + 219 + "-comP" = 255
    const std::string tooLong(220, 'L');
    LogTail tail;
    EXPECT_EQ(0, vxl_com_wrapper_register(kPathA.c_str(), longest.c_str(), "comP"));
    EXPECT_EQ((Values{{"wrapper-0", kPathA + "|0"}}), valuesOf(keyOf(longest, "comP")));
    EXPECT_EQ(0, vxl_com_wrapper_unregister(kPathA.c_str(), longest.c_str(), "comP"));
    EXPECT_FALSE(keyExists(keyOf(longest, "comP")));
    EXPECT_EQ(1, vxl_com_wrapper_register(kPathA.c_str(), tooLong.c_str(), "comP"));
    EXPECT_FALSE(keyExists(keyOf(tooLong, "comP")));
    EXPECT_EQ(regLine(kPathA, longest, "comP") + unregLine(kPathA, longest, "comP") +
                  regLine(kPathA, tooLong, "comP") + "wrapper register failed 0xce\n",
              tail.text());
}

TEST_F(WrapperRegistry, MissingArgumentsAreRefused)
{
    LogTail tail;
    EXPECT_EQ(1, vxl_com_wrapper_register(nullptr, "IVxlWregKeep", "com"));
    EXPECT_FALSE(keyExists(keyOf("IVxlWregKeep", "com")));
    EXPECT_EQ(1, vxl_com_wrapper_register(kPathA.c_str(), nullptr, "com"));
    EXPECT_EQ(1, vxl_com_wrapper_tryload("IVxlWregKeep", nullptr));
    EXPECT_EQ(regLine("(null)", "IVxlWregKeep", "com") + "wrapper register failed 0x57\n" +
                  regLine(kPathA, "(null)", "com") + "wrapper register failed 0x57\n" +
                  "vxl_com_wrapper_tryload(IVxlWregKeep, (null)) -> " + kBase + "IVxlWregKeep-(null)\n" +
                  "vxl_com_wrapper_tryload() openkey failed 57\n",
              tail.text());

    ASSERT_EQ(0, vxl_com_wrapper_register(kPathA.c_str(), "IVxlWregKeep", "com"));
    LogTail removal;
    EXPECT_EQ(1, vxl_com_wrapper_unregister(nullptr, "IVxlWregKeep", "com"));
    EXPECT_EQ(1, vxl_com_wrapper_unregister(kPathA.c_str(), "IVxlWregKeep", nullptr));
    EXPECT_EQ((Values{{"wrapper-0", kPathA + "|0"}}), valuesOf(keyOf("IVxlWregKeep", "com")));
    EXPECT_EQ(unregLine("(null)", "IVxlWregKeep", "com") + "wrapper unregister failed(3)\n" +
                  unregLine(kPathA, "IVxlWregKeep", "(null)") + "wrapper unregister failed(2) 0x57\n",
              removal.text());
}

// ---- unregister --------------------------------------------------------------------

TEST_F(WrapperRegistry, RemovesTheFirstValueWithThePathAndAtLastTheSubkey)
{
    const std::string key = keyOf("IVxlWregKeep", "com");
    setValue(key, "wrapper-0", kPathA);
    setValue(key, "wrapper-1", kPathB);
    setValue(key, "wrapper-2", kPathA);
    LogTail tail;
    EXPECT_EQ(0, vxl_com_wrapper_unregister(kPathA.c_str(), "IVxlWregKeep", "com"));
    EXPECT_EQ((Values{{"wrapper-1", kPathB + "|0"}, {"wrapper-2", kPathA + "|0"}}), valuesOf(key));
    EXPECT_EQ(0, vxl_com_wrapper_unregister(kPathB.c_str(), "IVxlWregKeep", "com"));
    EXPECT_EQ(0, vxl_com_wrapper_unregister(kPathA.c_str(), "IVxlWregKeep", "com"));
    EXPECT_FALSE(keyExists(key));
    EXPECT_TRUE(keyExists(kBase)) << "only the subkey goes";
    EXPECT_EQ(unregLine(kPathA, "IVxlWregKeep", "com") + unregLine(kPathB, "IVxlWregKeep", "com") +
                  unregLine(kPathA, "IVxlWregKeep", "com"),
              tail.text());
}

TEST_F(WrapperRegistry, PathNotRegisteredDifferingInCaseOrWithoutSubkeyIsNotRemoved)
{
    struct Case {
        const char *ifname, *wtype;
        std::string stored, asked; // stored "": no subkey
        const char *failure;
    } cases[] = {
        {"IVxlWregNotThere", "com", kPathA, kPathB, "failed(3)"},
        {"IVxlWregCase", "comS", "C:\\Dir\\Wrapper.dll", "c:\\dir\\wrapper.dll", "failed(3)"},
        {"IVxlWregNoSub", "com", "", kPathA, "failed(2) 0x2"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.ifname);
        if (!c.stored.empty()) {
            ASSERT_EQ(0, vxl_com_wrapper_register(c.stored.c_str(), c.ifname, c.wtype));
        }
        LogTail tail;
        EXPECT_EQ(1, vxl_com_wrapper_unregister(c.asked.c_str(), c.ifname, c.wtype));
        if (!c.stored.empty()) {
            EXPECT_EQ((Values{{"wrapper-0", c.stored + "|0"}}), valuesOf(keyOf(c.ifname, c.wtype)));
        }
        EXPECT_EQ(unregLine(c.asked, c.ifname, c.wtype) + "wrapper unregister " + c.failure + "\n", tail.text());
    }
}

TEST_F(WrapperRegistry, MissingBaseKeyFailsAtStepOne)
{
    // The base key can only go when no other subkey lives under it; an
    // emptied base key is what a fresh machine has.
    LONG rc = RegDeleteKeyA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Quelt\\vexa\\interfaces");
    if (rc != ERROR_SUCCESS && keyExists(kBase))
        GTEST_SKIP() << "other subkeys live under the base key (" << rc << ")";
    ASSERT_FALSE(keyExists(kBase));

    LogTail tail;
    EXPECT_EQ(1, vxl_com_wrapper_unregister(kPathA.c_str(), "IVxlWregNoBase", "com"));
    EXPECT_EQ(unregLine(kPathA, "IVxlWregNoBase", "com") + "wrapper unregister failed(1) 0x2\n", tail.text());
    // Registration makes the whole path again.
    EXPECT_EQ(0, vxl_com_wrapper_register(kPathA.c_str(), "IVxlWregNoBase", "com"));
    EXPECT_EQ((Values{{"wrapper-0", kPathA + "|0"}}), valuesOf(keyOf("IVxlWregNoBase", "com")));
}

// ---- tryload -----------------------------------------------------------------------

TEST_F(WrapperRegistry, TryloadPassesOverALibraryMissingFromDisk)
{
    const std::string dll = vxltest::programDir() + "\\comtest_wrapperlib.dll";
    const std::string missing = vxltest::programDir() + "\\no_such_wrapperlib.dll";
    ASSERT_TRUE(vxltest::fileExists(dll));
    ASSERT_EQ(nullptr, GetModuleHandleA("comtest_wrapperlib.dll"));
    const std::string key = keyOf("IVxlWregLoad", "comS");
    setValue(key, "wrapper-0", missing);
    setValue(key, "wrapper-1", dll);

    LogTail tail;
    EXPECT_EQ(0, vxl_com_wrapper_tryload("IVxlWregLoad", "comS"));
    HMODULE loaded = GetModuleHandleA("comtest_wrapperlib.dll");
    ASSERT_NE(nullptr, loaded);
    EXPECT_NE(nullptr, GetProcAddress(loaded, "comtest_wrapperlib_marker"));
    EXPECT_EQ(tryLine("IVxlWregLoad", "comS") + "vxl_com_wrapper_tryload() loading " + missing + "\n" +
                  "vxl_com_wrapper_tryload() loading " + dll + "\n" + "vxl_com_wrapper_tryload() ok\n",
              tail.text());
    EXPECT_EQ(2u, valuesOf(key).size()); // loading changes nothing in the registry
}

TEST_F(WrapperRegistry, TryloadFailsWithoutSubkeyOrWhenNothingLoads)
{
    const std::string missing1 = "C:\\vxltest\\missing1.dll", missing2 = "C:\\vxltest\\missing2.dll";
    setValue(keyOf("IVxlWregNoneLoads", "com"), "wrapper-0", missing1);
    setValue(keyOf("IVxlWregNoneLoads", "com"), "any name", missing2);
    HKEY key;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExA(HKEY_LOCAL_MACHINE, keyOf("IVxlWregEmpty", "comP").c_str(), 0,
                                             nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr));
    RegCloseKey(key);

    LogTail none;
    EXPECT_EQ(1, vxl_com_wrapper_tryload("IVxlWregNoSub", "comP"));
    EXPECT_EQ(tryLine("IVxlWregNoSub", "comP") + "vxl_com_wrapper_tryload() openkey failed 2\n", none.text());

    LogTail tail;
    EXPECT_EQ(1, vxl_com_wrapper_tryload("IVxlWregNoneLoads", "com"));
    EXPECT_EQ(1, vxl_com_wrapper_tryload("IVxlWregEmpty", "comP"));
    // Values come in the registry's enumeration order, whatever their names.
    std::string text = tail.text();
    std::string loads = "vxl_com_wrapper_tryload() loading " + missing1 + "\n" +
                        "vxl_com_wrapper_tryload() loading " + missing2 + "\n";
    std::string loadsSwapped = "vxl_com_wrapper_tryload() loading " + missing2 + "\n" +
                               "vxl_com_wrapper_tryload() loading " + missing1 + "\n";
    std::string tail2 = "vxl_com_wrapper_tryload() failed\n" + tryLine("IVxlWregEmpty", "comP") +
                        "vxl_com_wrapper_tryload() failed\n";
    std::string head = tryLine("IVxlWregNoneLoads", "com");
    EXPECT_TRUE(text == head + loads + tail2 || text == head + loadsSwapped + tail2) << text;
}
