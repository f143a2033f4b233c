// The registry-script engine, in a scratch tree under HKCU so that a fault
// in it cannot reach the rest of the registry.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "control/Registrar.h"

namespace {

const wchar_t kScratch[] = L"Software\\BrennockRegistrarTest";
const std::vector<std::pair<std::wstring, std::wstring>> kModule = {{L"MODULE", L"C:\\O'Brien's\\Brennock.dll"}};

// A key tree as text, a line per key ("Key\Sub") and per string value
// ("Key\Sub:Name=text", ":=" for the default value), values first, in order.
std::wstring Dump(HKEY key, const std::wstring& path = L"")
{
    std::vector<std::wstring> lines;
    wchar_t name[256], data[512];
    DWORD nameLen = 256, size = sizeof(data);
    for (DWORD i = 0; RegEnumValueW(key, i, name, &nameLen, nullptr, nullptr, reinterpret_cast<BYTE*>(data), &size) ==
                      ERROR_SUCCESS;
         ++i, nameLen = 256, size = sizeof(data))
        lines.push_back(path + L":" + name + L"=" + data + L"\n");
    std::sort(lines.begin(), lines.end());
    std::wstring out;
    for (const auto& l : lines)
        out += l;
    for (DWORD i = 0; nameLen = 256, RegEnumKeyExW(key, i, name, &nameLen, nullptr, nullptr, nullptr, nullptr) ==
                                      ERROR_SUCCESS;
         ++i) {
        const std::wstring sub = path.empty() ? name : path + L"\\" + name;
        HKEY child;
        RegOpenKeyExW(key, name, 0, KEY_READ, &child);
        out += sub + L"\n" + Dump(child, sub);
        RegCloseKey(child);
    }
    return out;
}

// Each case: a tree made first (by registering "before"), then the script
// registered or unregistered, twice, each time leaving the same tree.
TEST(RegistrarTest, ScriptsLeaveTheTreeTheyDescribe)
{
    const struct
    {
        const char* what;
        const wchar_t *before, *script;
        bool doRegister;
        HRESULT hr;
        const wchar_t* tree;
    } cases[] = {
        {"keys, default and named values, quoted names, the module's path", L"",
         L"HKCR { Top = s 'top' { 'With Space' = s '%MODULE%, 101' { '1' = s 'x' } val Named = s '%module%' } }",
         true, S_OK,
         L"Top\nTop:=top\nTop:Named=C:\\O'Brien's\\Brennock.dll\nTop\\With Space\n"
         L"Top\\With Space:=C:\\O'Brien's\\Brennock.dll, 101\nTop\\With Space\\1\nTop\\With Space\\1:=x\n"},
        {"over stale entries: ForceRemove wipes them, the rest keeps them",
         L"HKCR { Fresh = s 'old' { Stale { Deeper } val Old = s 'x' } Kept = s 'old' { Stale val Old = s 'x' } }",
         L"HKCR { ForceRemove Fresh = s 'f' { Sub } Kept = s 'k' { Sub } }", true, S_OK,
         L"Fresh\nFresh:=f\nFresh\\Sub\nKept\nKept:=k\nKept:Old=x\nKept\\Stale\nKept\\Sub\n"},
        {"unregister with nothing there makes nothing", L"", L"HKCR { NoRemove Shared { Mine } Owned }", false, S_OK, L""},
        {"unregister keeps NoRemove keys and what others wrote beside them",
         L"HKCR { Shared = s 'shared' { Mine = s 'm' { Deep } val Setting = s 'x' Foreign } Owned { Sub Foreign } }",
         L"HKCR { NoRemove Shared = s 'shared' { ForceRemove Mine = s 'm' { Deep } val Setting = s 'x' } Owned { Sub } }",
         false, S_OK, L"Shared\nShared:=shared\nShared\\Foreign\n"},
        // Parsed whole before anything is written: the broken script leaves
        // the tree as it was, registering or not.
        {"a broken script touches nothing", L"HKCR { Old }", L"HKCR { Old New = s 'x' ", true, DISP_E_EXCEPTION, L"Old\n"},
        {"a broken script touches nothing (unregister)", L"HKCR { Old }", L"HKCR { Old } }", false, DISP_E_EXCEPTION, L"Old\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        HKEY root;
        RegDeleteTreeW(HKEY_CURRENT_USER, kScratch);
        ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, kScratch, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &root, nullptr),
                  ERROR_SUCCESS);
        if (*c.before)
            ASSERT_EQ(RunRegistryScript(c.before, true, {}, root), S_OK);
        for (int pass = 0; pass < 2; ++pass) {
            EXPECT_EQ(RunRegistryScript(c.script, c.doRegister, kModule, root), c.hr);
            EXPECT_EQ(Dump(root), c.tree);
        }
        RegCloseKey(root);
    }
    RegDeleteTreeW(HKEY_CURRENT_USER, kScratch);
}

}  // namespace
