// Self-registration of BrennockControl.dll through regsvr32, read back from
// the registry. Leaves the control registered, as the test runner expects.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/ControlTestKit.h"

namespace {

DWORD RunRegsvr32(const std::wstring& args)
{
    std::wstring cmd = L"regsvr32.exe /s " + args;
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi = {};
    if (!CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi))
        return GetLastError() | 0x80000000u;
    WaitForSingleObject(pi.hProcess, INFINITE);
    DWORD code = 1;
    GetExitCodeProcess(pi.hProcess, &code);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return code;
}

bool KeyExists(HKEY root, const std::wstring& path)
{
    HKEY key;
    if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return false;
    RegCloseKey(key);
    return true;
}

// A string value, or "<missing>".
std::wstring Value(HKEY root, const std::wstring& path, const wchar_t* name = nullptr)
{
    wchar_t buffer[1024];
    DWORD size = sizeof(buffer);
    DWORD type = 0;
    if (RegGetValueW(root, path.c_str(), name, RRF_RT_ANY, &type, buffer, &size) != ERROR_SUCCESS)
        return L"<missing>";
    if (type != REG_SZ)
        return L"<not a string>";
    return buffer;
}

size_t SubkeyCount(HKEY root, const std::wstring& path)
{
    HKEY key;
    if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return 0;
    DWORD count = 0;
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &count, nullptr, nullptr, nullptr, nullptr,
                     nullptr, nullptr, nullptr);
    RegCloseKey(key);
    return count;
}

const std::wstring kClassKey = std::wstring(L"CLSID\\") + BRENNOCK_CLSID_TEXT;

void ExpectRegistered(const std::wstring& dll)
{
    HKEY cr = HKEY_CLASSES_ROOT;
    EXPECT_EQ(Value(cr, L"BrennockControl.Brennock.1"), L"Brennock Class");
    EXPECT_EQ(Value(cr, L"BrennockControl.Brennock.1\\CLSID"), BRENNOCK_CLSID_TEXT);
    EXPECT_EQ(Value(cr, L"BrennockControl.Brennock"), L"Brennock Class");
    EXPECT_EQ(Value(cr, L"BrennockControl.Brennock\\CLSID"), BRENNOCK_CLSID_TEXT);
    EXPECT_EQ(Value(cr, L"BrennockControl.Brennock\\CurVer"), L"BrennockControl.Brennock.1");

    EXPECT_EQ(Value(cr, kClassKey), L"Brennock Class");
    EXPECT_EQ(Value(cr, kClassKey + L"\\ProgID"), L"BrennockControl.Brennock.1");
    EXPECT_EQ(Value(cr, kClassKey + L"\\VersionIndependentProgID"), L"BrennockControl.Brennock");
    EXPECT_TRUE(KeyExists(cr, kClassKey + L"\\Programmable"));
    EXPECT_TRUE(KeyExists(cr, kClassKey + L"\\Control"));
    EXPECT_TRUE(KeyExists(cr, kClassKey + L"\\Insertable"));
    EXPECT_EQ(_wcsicmp(Value(cr, kClassKey + L"\\InprocServer32").c_str(), dll.c_str()), 0)
        << testing::PrintToString(Value(cr, kClassKey + L"\\InprocServer32"));
    EXPECT_EQ(Value(cr, kClassKey + L"\\InprocServer32", L"ThreadingModel"), L"Free");
    EXPECT_EQ(_wcsicmp(Value(cr, kClassKey + L"\\ToolboxBitmap32").c_str(),
                       (dll + L", 101").c_str()),
              0);
    EXPECT_EQ(Value(cr, kClassKey + L"\\MiscStatus"), L"0");
    EXPECT_EQ(Value(cr, kClassKey + L"\\MiscStatus\\1"), L"131473");
    EXPECT_EQ(Value(cr, kClassKey + L"\\TypeLib"), BRENNOCK_LIBID_TEXT);
    EXPECT_EQ(Value(cr, kClassKey + L"\\Version"), L"1.0");
    EXPECT_EQ(SubkeyCount(cr, kClassKey), 10u);

    // The type library, registered from the module itself.
    std::wstring tlb = std::wstring(L"TypeLib\\") + BRENNOCK_LIBID_TEXT + L"\\1.0";
    EXPECT_EQ(Value(cr, tlb), L"BrennockControl 1.0 Type Library");
    // Its interfaces are marshalled by the automation marshaller.
    std::wstring iface = L"Interface\\{6F1D2A42-8C3B-4E52-9A7D-3B0E5C1F7A21}";
    EXPECT_EQ(Value(cr, iface), L"IBrennock");
}

TEST(RegistrationTest, RegisterTwiceUnregisterAndRegisterAgain)
{
    ComApartment com;
    std::wstring dll = BuiltDllPath();
    ASSERT_FALSE(dll.empty()) << "BRENNOCK_DLL not set by the runner";
    std::wstring quoted = L"\"" + dll + L"\"";

    ASSERT_EQ(RunRegsvr32(quoted), 0u);
    {
        SCOPED_TRACE("first registration");
        ExpectRegistered(dll);
    }

    // A stray key under the class is wiped by the next registration: one set.
    HKEY stray;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, (kClassKey + L"\\Stray").c_str(), 0, nullptr, 0,
                              KEY_WRITE, nullptr, &stray, nullptr),
              ERROR_SUCCESS);
    RegCloseKey(stray);
    ASSERT_EQ(RunRegsvr32(quoted), 0u);
    {
        SCOPED_TRACE("second registration");
        ExpectRegistered(dll);
        EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, kClassKey + L"\\Stray"));
    }

    ASSERT_EQ(RunRegsvr32(L"/u " + quoted), 0u);
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, kClassKey));
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, L"BrennockControl.Brennock.1"));
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, L"BrennockControl.Brennock"));
    EXPECT_TRUE(KeyExists(HKEY_CLASSES_ROOT, L"CLSID"));
    EXPECT_TRUE(KeyExists(HKEY_CLASSES_ROOT, std::wstring(L"TypeLib\\") + BRENNOCK_LIBID_TEXT));

    // Creation now fails; registering again brings it back.
    ComPtr<IBrennock> none;
    EXPECT_EQ(CoCreateInstance(CLSID_Brennock, nullptr, CLSCTX_INPROC_SERVER, IID_IBrennock,
                               reinterpret_cast<void**>(none.GetAddressOf())),
              REGDB_E_CLASSNOTREG);

    ASSERT_EQ(RunRegsvr32(quoted), 0u);
    ExpectRegistered(dll);
    EXPECT_TRUE(CreateRegisteredControl());
}

}  // namespace
