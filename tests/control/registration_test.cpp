// Self-registration through regsvr32; leaves the control registered for the
// tests that follow.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/ControlTestKit.h"

namespace {

DWORD RunRegsvr32(const std::wstring& args)
{
    std::wstring cmd = L"regsvr32.exe /s " + args;
    STARTUPINFOW si = {sizeof(si)};
    PROCESS_INFORMATION pi = {};
    if (!CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi))
        return GetLastError() | 0x80000000u;
    WaitForSingleObject(pi.hProcess, INFINITE);
    DWORD code = 1;
    GetExitCodeProcess(pi.hProcess, &code);
    CloseHandle(pi.hThread), CloseHandle(pi.hProcess);
    return code;
}

// A key's value as text: "" for none, "<no key>" for a key that is not there.
std::wstring Value(const std::wstring& path, const wchar_t* name = nullptr)
{
    wchar_t buffer[1024];
    DWORD size = sizeof(buffer);
    HKEY key;
    if (RegOpenKeyExW(HKEY_CLASSES_ROOT, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return L"<no key>";
    const LSTATUS status = RegGetValueW(key, nullptr, name, RRF_RT_REG_SZ, nullptr, buffer, &size);
    RegCloseKey(key);
    return status == ERROR_SUCCESS ? buffer : L"";
}

const std::wstring kClassKey = std::wstring(L"CLSID\\") + BRENNOCK_CLSID_TEXT;

void ExpectRegistered(const std::wstring& dll)
{
    // Key, then "|name" for a named value, and the value.
    const std::wstring cls = kClassKey + L"\\", clsid = BRENNOCK_CLSID_TEXT;
    const std::pair<std::wstring, std::wstring> values[] = {
        {L"BrennockControl.Brennock.1", L"Brennock Class"},
        {L"BrennockControl.Brennock.1\\CLSID", clsid},
        {L"BrennockControl.Brennock", L"Brennock Class"},
        {L"BrennockControl.Brennock\\CLSID", clsid},
        {L"BrennockControl.Brennock\\CurVer", L"BrennockControl.Brennock.1"},
        {kClassKey, L"Brennock Class"},
        {cls + L"ProgID", L"BrennockControl.Brennock.1"},
        {cls + L"VersionIndependentProgID", L"BrennockControl.Brennock"},
        {cls + L"Programmable", L""},
        {cls + L"InprocServer32", dll},
        {cls + L"InprocServer32|ThreadingModel", L"Free"},
        {cls + L"Control", L""},
        {cls + L"Insertable", L""},
        {cls + L"ToolboxBitmap32", dll + L", 101"},
        {cls + L"MiscStatus", L"0"},
        {cls + L"MiscStatus\\1", L"131473"},
        {cls + L"TypeLib", BRENNOCK_LIBID_TEXT},
        {cls + L"Version", L"1.0"},
        {std::wstring(L"TypeLib\\") + BRENNOCK_LIBID_TEXT + L"\\1.0", L"BrennockControl 1.0 Type Library"},
        {L"Interface\\{6F1D2A42-8C3B-4E52-9A7D-3B0E5C1F7A21}", L"IBrennock"},
    };
    for (const auto& [where, want] : values) {
        const size_t bar = where.find(L'|');
        std::wstring got = Value(where.substr(0, bar), bar == std::wstring::npos ? nullptr : &where[bar + 1]);
        if (_wcsnicmp(got.c_str(), dll.c_str(), dll.size()) == 0)
            got.replace(0, dll.size(), dll);  // the path's case is Wine's
        EXPECT_EQ(got, want) << testing::PrintToString(where);
    }
    HKEY key;
    DWORD subkeys = 0;
    ASSERT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, kClassKey.c_str(), 0, KEY_READ, &key), ERROR_SUCCESS);
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                     nullptr);
    RegCloseKey(key);
    EXPECT_EQ(subkeys, 10u);
}

TEST(RegistrationTest, RegisterTwiceUnregisterAndRegisterAgain)
{
    ComApartment com;
    std::wstring dll = BuiltDllPath();
    ASSERT_FALSE(dll.empty()) << "BRENNOCK_DLL not set by the runner";
    std::wstring quoted = L"\"" + dll + L"\"";
    ASSERT_EQ(RunRegsvr32(quoted), 0u);

    // A stray key under the class is wiped by the next registration.
    HKEY stray;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, (kClassKey + L"\\Stray").c_str(), 0, nullptr, 0, KEY_WRITE, nullptr,
                              &stray, nullptr),
              ERROR_SUCCESS);
    RegCloseKey(stray);
    ASSERT_EQ(RunRegsvr32(quoted), 0u);
    ExpectRegistered(dll);

    // Unregistering takes the class and its ProgIDs, not the shared CLSID
    // key nor the type library; creation then fails until it is back.
    ASSERT_EQ(RunRegsvr32(L"/u " + quoted), 0u);
    for (const wchar_t* gone : {kClassKey.c_str(), L"BrennockControl.Brennock.1", L"BrennockControl.Brennock"})
        EXPECT_EQ(Value(gone), L"<no key>") << testing::PrintToString(std::wstring(gone));
    EXPECT_NE(Value(L"CLSID"), L"<no key>");
    EXPECT_NE(Value(std::wstring(L"TypeLib\\") + BRENNOCK_LIBID_TEXT), L"<no key>");
    ComPtr<IBrennock> none;
    EXPECT_EQ(CoCreateInstance(CLSID_Brennock, nullptr, CLSCTX_INPROC_SERVER, IID_IBrennock,
                               reinterpret_cast<void**>(none.GetAddressOf())),
              REGDB_E_CLASSNOTREG);
    ASSERT_EQ(RunRegsvr32(quoted), 0u);
    ExpectRegistered(dll);
    EXPECT_TRUE(CreateRegisteredControl());
}

}  // namespace
