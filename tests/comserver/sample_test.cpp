// The sample servers driven by clients nobody here wrote, Wine's regsvr32
// and cscript, and by kit clients that create COM objects by ProgID:
// in-process, through "CurVer", from the local server, and proxy class
// names that load their wrapper library.
#include "comserver_support.h"
#include "harness.h"
#include "vexal.h"
#include "vxsample_vexal.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <climits>
#include <cstdio>
#include <sstream>
#include <string>

namespace {

using vxltest::dumpKey;
using vxltest::runProgram;

const char kCalculator[] = "{3D77196A-91F6-41D3-A8B7-D63497C879BC}";
const char kCPCalculator[] = "{A1E34E6A-AB43-400A-859B-8C0628816764}";
const char kRemote[] = "{E18B0265-D9B1-4EF1-A5B0-76E36A01FB39}";

std::string inBin(const char *file)
{
    return vxltest::programDir() + "\\" + file;
}

// Every key that registering vxsample.dll may write.
std::string sampleRegistry()
{
    std::string all;
    for (const char *id : {kCalculator, kCPCalculator})
        all += dumpKey(HKEY_CLASSES_ROOT, std::string("CLSID\\") + id) +
               dumpKey(HKEY_CLASSES_ROOT, std::string("AppID\\") + id);
    for (const char *key : {"VexalSample.Calculator", "CPICalculator", "TypeLib\\{D8E19C00-CE81-4945-8E16-F01BB64568A3}",
                            "Interface\\{36C45FD4-6A1C-4EBF-8A7E-1030F51EE5AB}",
                            "Interface\\{7C5E63F9-814A-40BB-8A0E-D98F65EDDDDF}",
                            "Interface\\{057F99EE-538B-4E2A-A86F-DBC0009BF4CE}",
                            "Interface\\{5E1CB195-AB43-400A-859B-8C0628816764}"})
        all += dumpKey(HKEY_CLASSES_ROOT, key);
    for (const char *key : {"ICalculator-com", "ICalculator-comS", "IGreeter-comS", "ICalculatorEvents-comS"})
        all += dumpKey(HKEY_LOCAL_MACHINE, std::string("SOFTWARE\\Quelt\\vexa\\interfaces\\") + key);
    return all;
}

// Programs started from here (regsvr32, cscript, the local server that COM
// starts) trace to a log of their own: a second writer would clobber ours.
void separateChildLogs()
{
    vxl_inuse(nullptr); // opens this process's log under the old name
    SetEnvironmentVariableA("VXLLOGNAME", (vxltest::logPath() + ".children").c_str());
}

int regsvr32(const std::string &options)
{
    return runProgram("regsvr32 /s " + options + "\"" + inBin("vxsample.dll") + "\"");
}

int localServer(const char *option)
{
    return runProgram("\"" + inBin("vxsampleserver.exe") + "\" " + option);
}

// The trace lines of COM instance creation.
std::string creationLines(const std::string &log)
{
    std::istringstream in(log);
    std::string line, out;
    while (std::getline(in, line))
        if (line.rfind("vxl_com_createinstance", 0) == 0 || line.rfind("  -", 0) == 0 || line.rfind("   -", 0) == 0 ||
            line == "could not wrap")
            out += line + "\n";
    return out;
}

// The sample's methods answer through whatever stands for the object.
void expectSum(vxl_if calc)
{
    int32_t sum = 0;
    EXPECT_EQ(VXL_OK, VexalSample::ICalculator_Add(calc, 2, 40, &sum));
    EXPECT_EQ(42, sum);
}

void expectGreeting(vxl_if greeter)
{
    char *text = nullptr;
    EXPECT_EQ(VXL_OK, VexalSample::IGreeter_Greet(greeter, "kit", &text));
    EXPECT_STREQ("Hello, kit!", text);
    vxl_free(text);
}

TEST(SampleServer, RegsvrRegistersOnceAndUnregistersEverything)
{
    separateChildLogs();
    ASSERT_EQ("", sampleRegistry());
    ASSERT_EQ(0, regsvr32(""));
    std::string once = sampleRegistry();
    std::string clsid = std::string("[CLSID\\") + kCalculator;
    EXPECT_NE(std::string::npos, once.find(clsid + "\\InprocServer32]\n=1:" + inBin("vxsample.dll") + "\\0\n"));
    EXPECT_NE(std::string::npos, once.find("[CPICalculator\\CLSID]\n=1:" + std::string(kCPCalculator)));
    EXPECT_NE(std::string::npos, once.find("IGreeter-comS]\nwrapper-0=1:" + inBin("vxsample.dll")));
    EXPECT_EQ(std::string::npos, once.find("ThreadingModel"));
    ASSERT_EQ(0, regsvr32(""));
    EXPECT_EQ(once, sampleRegistry());
    EXPECT_EQ(0, regsvr32("/u "));
    EXPECT_EQ("", sampleRegistry());
}

class RegisteredSample : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        vxl_init();
        separateChildLogs();
        ASSERT_EQ(0, regsvr32(""));
        ASSERT_EQ(0, localServer("/RegServer"));
        setDefault("VexalSample.Latest\\CurVer", "VexalSample.Calculator");
        setDefault("VexalSample.Broken\\CLSID", "{0a1b2c3d-0002-4000-8000-0000000000ff}");
    }
    static void TearDownTestSuite()
    {
        RegDeleteTreeA(HKEY_CLASSES_ROOT, "VexalSample.Latest");
        RegDeleteTreeA(HKEY_CLASSES_ROOT, "VexalSample.Broken");
        EXPECT_EQ(0, localServer("/UnregServer"));
        EXPECT_EQ(0, regsvr32("/u "));
        EXPECT_EQ("", sampleRegistry() + dumpKey(HKEY_CLASSES_ROOT, std::string("CLSID\\") + kRemote));
    }
    static void setDefault(const char *key, const char *value)
    {
        RegSetValueA(HKEY_CLASSES_ROOT, key, REG_SZ, value, static_cast<DWORD>(strlen(value)));
    }
};

TEST_F(RegisteredSample, ScriptsCallTheComponentThroughItsDispatchWrapper)
{
    for (const char *script : {"sample_calc.js", "sample_calc.vbs"}) {
        std::string output;
        EXPECT_EQ(0, runProgram("cscript.exe //nologo \"" + inBin(script) + "\"", &output)) << output;
        EXPECT_EQ("42\r\n3.75\r\npi = 3.25\r\nevent Overflow 2147483647 1\r\noverflow 800401FF\r\n", output)
            << script;
    }
}

// In-process, the "com" wrapper that the class object hands out unwraps back
// into the kit object it stands for.
TEST_F(RegisteredSample, KitClientCreatesInProcessByProgId)
{
    struct Case {
        const char *progid;
        int32_t status;
        const char *lines;
    } cases[] = {
        {"VexalSample.Latest", VXL_OK,
         "vxl_com_createinstance(VexalSample.Latest, ICalculator)\n"
         "   --> real name is VexalSample.Calculator\n"
         "   --> is {3D77196A-91F6-41D3-A8B7-D63497C879BC}\n"
         "  --> got com dll component object\n"
         "  --> wrapped as vxi\n"},
        {"VexalSample.Broken", VXL_EFAIL,
         "vxl_com_createinstance(VexalSample.Broken, ICalculator)\n"
         "   --> is {0a1b2c3d-0002-4000-8000-0000000000ff}\n"
         "vxl_com_createinstance() cannot instantiate com object\n"},
        {"VexalSample.Nowhere", VXL_EFAIL,
         "vxl_com_createinstance(VexalSample.Nowhere, ICalculator)\n"
         "vxl_com_createinstance() cannot find object CLSID VexalSample.Nowhere\n"},
    };
    for (const Case &c : cases) {
        vxltest::LogTail tail;
        vxl_if calc = nullptr;
        EXPECT_EQ(c.status, vxl_createinstance(c.progid, "ICalculator", &calc));
        EXPECT_EQ(c.lines, creationLines(tail.text()));
        if (calc) {
            expectSum(calc);
            vxl_decref(calc);
        }
    }
    // The ProgID that is the kit class name: the server loads, and the kit
    // class it registers serves the request directly.
    vxltest::LogTail tail;
    vxl_if calc = nullptr;
    EXPECT_EQ(VXL_OK, vxl_createinstance("VexalSample.Calculator", "ICalculator", &calc));
    EXPECT_EQ("", creationLines(tail.text()));
    vxl_decref(calc);
}

// In-process, an interface that the object offers only in its dual form
// is unwrapped last, as "comS": the client gets a kit proxy of it.
TEST_F(RegisteredSample, InProcessDualOnlyInterfaceComesAsAProxy)
{
    vxltest::LogTail tail;
    vxl_if greeter = nullptr;
    ASSERT_EQ(VXL_OK, vxl_createinstance("VexalSample.Latest", "IGreeter", &greeter));
    EXPECT_NE(std::string::npos,
              creationLines(tail.text()).find("  --> got com dll component object\n  --> wrapped as vxiS\n"));
    expectGreeting(greeter);
    vxl_decref(greeter);
    // A proxy's row ends with the proxy ("pif"), a wrapper's with its object ("pobj").
    char end[64];
    snprintf(end, sizeof end, ", pif = %x\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(greeter)));
    EXPECT_NE(std::string::npos, tail.text().find(end));
}

TEST_F(RegisteredSample, KitClientGetsProxiesFromTheLocalServer)
{
    vxltest::LogTail tail;
    vxl_if calc = nullptr, greeter = nullptr;
    ASSERT_EQ(VXL_OK, vxl_createinstance("VexalSample.RemoteCalculator", "ICalculator", &calc));
    ASSERT_EQ(VXL_OK, vxl_createinstance("VexalSample.RemoteCalculator", "IGreeter", &greeter));
    std::string head = std::string("   --> real name is VexalSample.RemoteCalculator\n   --> is ") + kRemote +
                       "\n  --> got com exe component object\n";
    // IGreeter has only the dual form, tried last.
    EXPECT_EQ("vxl_com_createinstance(VexalSample.RemoteCalculator, ICalculator)\n" + head + "  --> wrapped as vxi\n" +
                  "vxl_com_createinstance(VexalSample.RemoteCalculator, IGreeter)\n" + head + "  --> wrapped as vxiS\n",
              creationLines(tail.text()));

    // Each call crosses to the server process and back, errors included.
    expectSum(calc);
    int32_t sum = 0;
    EXPECT_EQ(-1, VexalSample::ICalculator_Add(calc, INT_MAX, 1, &sum));
    double scaled = 0;
    EXPECT_EQ(VXL_OK, VexalSample::ICalculator_Scale(calc, 1.5, 2.5, &scaled));
    EXPECT_EQ(3.75, scaled);
    expectGreeting(greeter);
    vxl_decref(greeter);
    vxl_decref(calc);
}

VXL_CHILD(proxy_class_name_loads_wrapper_library)
{
    vxl_init();
    vxl_if pif = reinterpret_cast<vxl_if>(0xdeadbeef);
    // Proxy classes refuse clients of their own; what counts is the load.
    int32_t status = vxl_createinstance("IGreeter_comS_proxy", "IGreeter", &pif);
    return status == VXL_EFAIL && !pif && GetModuleHandleA("vxsample.dll") ? 0 : 1;
}

TEST_F(RegisteredSample, ProxyClassNameLoadsItsWrapperLibrary)
{
    EXPECT_EQ(0, vxltest::runChild("proxy_class_name_loads_wrapper_library", nullptr));
}

TEST(InstanceCreation, ProxyClassNamesSplitAtTheFirstAndLastUnderscore)
{
    struct Case {
        const char *name;
        const char *tryload; // null: not a proxy class name
    } cases[] = {
        {"IFoo_comS_proxy", "vxl_com_wrapper_tryload(IFoo, comS) -> "},
        {"IFoo_my_type_proxy", "vxl_com_wrapper_tryload(IFoo, my_type) -> "},
        {"IFoo_proxy", nullptr},
        {"IFoo_comS_proxy2", nullptr},
    };
    for (const Case &c : cases) {
        vxltest::LogTail tail;
        vxl_if out = reinterpret_cast<vxl_if>(0xdeadbeef);
        EXPECT_EQ(VXL_EFAIL, vxl_createinstance(c.name, "IFoo", &out));
        EXPECT_EQ(nullptr, out);
        std::string log = tail.text();
        EXPECT_EQ(c.tryload != nullptr, log.find("vxl_com_wrapper_tryload(") != std::string::npos) << c.name;
        if (c.tryload) {
            EXPECT_NE(std::string::npos, log.find(c.tryload)) << log;
        }
    }
    vxltest::LogTail tail;
    vxl_if out = nullptr;
    EXPECT_EQ(VXL_EFAIL, vxl_createinstance("IFoo_proxy", nullptr, &out));
    EXPECT_EQ("", creationLines(tail.text())); // a missing argument: no line
}

} // namespace
