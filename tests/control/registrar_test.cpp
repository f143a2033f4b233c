// The registry-script engine against the real registry, in a scratch tree
// under HKCU\Software\BrennockRegistrarTest that each test clears before and
// after itself. Most scripts run with the scratch key standing in for their
// root, so a fault in the engine cannot reach any other part of the registry.
// The control's own script is registered for real in registration_test.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "control/Registrar.h"

namespace {

using Replacements = std::vector<std::pair<std::wstring, std::wstring>>;
const wchar_t kScratch[] = L"Software\\BrennockRegistrarTest";

// A key tree as text, a line per key and per value in name order:
// "Key\Sub" for a key, "Key\Sub:Name=s text" (":" alone for the default
// value) with s, d (hex) or b (hex bytes) for its type.
std::wstring Dump(HKEY key, const std::wstring& path = L"")
{
    std::wstring out;
    DWORD keys = 0, values = 0;
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &values, nullptr, nullptr, nullptr,
                     nullptr);
    std::vector<std::wstring> lines;
    for (DWORD i = 0; i < values; ++i) {
        wchar_t name[256];
        BYTE data[512];
        DWORD nameLen = 256, size = sizeof(data), type = 0;
        RegEnumValueW(key, i, name, &nameLen, nullptr, &type, data, &size);
        std::wstring line = path + L":" + name + L"=";
        wchar_t hex[16];
        if (type == REG_SZ) {
            line += L"s " + std::wstring(reinterpret_cast<wchar_t*>(data));
        } else if (type == REG_DWORD && size == 4) {
            swprintf(hex, 16, L"d %lX", *reinterpret_cast<DWORD*>(data));
            line += hex;
        } else {
            line += L"b";
            for (DWORD b = 0; b < size; ++b) {
                swprintf(hex, 16, L" %02X", data[b]);
                line += hex;
            }
        }
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    for (const auto& l : lines)
        out += l + L"\n";
    for (DWORD i = 0; i < keys; ++i) {
        wchar_t name[256];
        DWORD nameLen = 256;
        RegEnumKeyExW(key, i, name, &nameLen, nullptr, nullptr, nullptr, nullptr);
        const std::wstring sub = path.empty() ? name : path + L"\\" + name;
        HKEY child;
        RegOpenKeyExW(key, name, 0, KEY_READ, &child);
        out += sub + L"\n" + Dump(child, sub);
        RegCloseKey(child);
    }
    return out;
}

class RegistrarTest : public testing::Test
{
protected:
    void SetUp() override
    {
        RegDeleteTreeW(HKEY_CURRENT_USER, kScratch);
        ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, kScratch, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &root, nullptr),
                  ERROR_SUCCESS);
    }
    void TearDown() override
    {
        RegCloseKey(root);
        RegDeleteTreeW(HKEY_CURRENT_USER, kScratch);
    }
    HRESULT Run(const wchar_t* script, bool doRegister, const Replacements& r = {})
    {
        return RunRegistryScript(script, doRegister, r, root);
    }
    void Clear()
    {
        RegCloseKey(root);
        TearDown();
        SetUp();
    }
    HKEY root = nullptr;
};

// Each case: a tree made first (by registering "before"), then the script
// registered or unregistered, then the whole scratch tree.
TEST_F(RegistrarTest, ScriptsLeaveTheTreeTheyDescribe)
{
    const struct
    {
        const char* what;
        const wchar_t* before;
        const wchar_t* script;
        bool doRegister;
        const wchar_t* tree;
    } cases[] = {
        {"keys, default and named values of each type", L"",
         L"HKCU {\n Plain = s 'top'\n {\n  'With Space' = s 'it''s' { Leaf }\n  val Text = s 'hello world'\n"
         L"  val Small = d 42\n  val Hex = d '0x1F'\n  val Basic = D &HFFFFFFFF\n  val Blob = b 0A0bFF\n"
         L"  val 'Spaced Name' = s ''\n }\n}\n",
         true,
         L"Plain\nPlain:=s top\nPlain:Basic=d FFFFFFFF\nPlain:Blob=b 0A 0B FF\nPlain:Hex=d 1F\nPlain:Small=d 2A\n"
         L"Plain:Spaced Name=s \nPlain:Text=s hello world\nPlain\\With Space\nPlain\\With Space:=s it's\n"
         L"Plain\\With Space\\Leaf\n"},
        {"again over stale entries: ForceRemove wipes them, the rest keeps them",
         L"HKCU { Fresh = s 'old' { Stale { Deeper } val Old = s 'x' } Kept = s 'old' { Stale val Old = s 'x' } }",
         L"HKCU { ForceRemove Fresh = s 'f' { Sub } Kept = s 'k' { Sub } }", true,
         L"Fresh\nFresh:=s f\nFresh\\Sub\nKept\nKept:=s k\nKept:Old=s x\nKept\\Stale\nKept\\Sub\n"},
        {"Delete removes a key tree and writes nothing for it", L"HKCU { Old { Child { Grandchild } } }",
         L"HKCU { Delete Old = s 'ignored' { Child } Delete Missing Other = s 'x' }", true, L"Other\nOther:=s x\n"},
        {"Delete does nothing on unregister", L"HKCU { Old }", L"HKCU { Delete Old }", false, L"Old\n"},
        {"unregister with nothing there makes nothing", L"", L"HKCU { NoRemove Shared { Mine } Owned }", false, L""},
        {"unregister keeps NoRemove keys and values and what others wrote",
         L"HKCU { Shared = s 'shared' { Mine = s 'm' { Deep } val Setting = s 'x' val Sticky = s 'y' Foreign }"
         L" Owned { Sub Foreign { Deeper } } }",
         L"HKCU { NoRemove Shared = s 'shared' { Mine = s 'm' { Deep } val Setting = s 'x' "
         L"NoRemove val Sticky = s 'y' } Owned { Sub } }",
         false, L"Shared\nShared:=s shared\nShared:Sticky=s y\nShared\\Foreign\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Clear();
        if (*c.before)
            ASSERT_EQ(Run(c.before, true), S_OK);
        EXPECT_EQ(Run(c.script, c.doRegister), S_OK);
        EXPECT_EQ(Dump(root), c.tree);
        EXPECT_EQ(Run(c.script, c.doRegister), S_OK);  // twice: the same tree
        EXPECT_EQ(Dump(root), c.tree);
    }
}

TEST_F(RegistrarTest, ReplacementsKeepQuotesAndPercentSigns)
{
    Replacements r = {{L"MODULE", L"C:\\Program Files\\O'Brien's\\Brennock.dll"}};
    ASSERT_EQ(Run(L"HKCU { Server = s '%MODULE%' Bitmap = s '%module%, 101' Pct = s '100%% sure' }", true, r), S_OK);
    EXPECT_EQ(Dump(root), L"Bitmap\nBitmap:=s C:\\Program Files\\O'Brien's\\Brennock.dll, 101\nPct\nPct:=s 100% sure\n"
                          L"Server\nServer:=s C:\\Program Files\\O'Brien's\\Brennock.dll\n");
}

TEST_F(RegistrarTest, StopsAtTheFirstFailureAndKeepsWhatWasWritten)
{
    HKEY key;
    ASSERT_EQ(RegCreateKeyExW(root, L"Volatile", 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &key, nullptr),
              ERROR_SUCCESS);  // refuses lasting subkeys
    RegCloseKey(key);
    EXPECT_EQ(Run(L"HKCU { First = s 'a' Volatile { Child } Last = s 'z' }", true),
              HRESULT_FROM_WIN32(ERROR_CHILD_MUST_BE_VOLATILE));
    EXPECT_EQ(Dump(root), L"First\nFirst:=s a\nVolatile\n");
}

TEST_F(RegistrarTest, RootNamesResolveWithoutOverride)
{
    const wchar_t* script =
        L"HKEY_CURRENT_USER { NoRemove Software { NoRemove BrennockRegistrarTest { ByLongName } } }\n"
        L"hkcu { NoRemove Software { NoRemove BrennockRegistrarTest { ByShortName = s 'x' } } }";
    // In the scratch tree first: only if NoRemove holds there may it
    // unregister against the user's real Software key.
    ASSERT_EQ(Run(script, true), S_OK);
    ASSERT_EQ(Run(script, false), S_OK);
    ASSERT_EQ(Dump(root), L"Software\nSoftware\\BrennockRegistrarTest\n");
    Clear();

    ASSERT_EQ(RunRegistryScript(script, true, {}), S_OK);
    EXPECT_EQ(Dump(root), L"ByLongName\nByShortName\nByShortName:=s x\n");
    EXPECT_EQ(RunRegistryScript(script, false, {}), S_OK);
    EXPECT_EQ(Dump(root), L"");
}

TEST_F(RegistrarTest, ABrokenScriptTouchesNothing)
{
    // Each writes (or removes) A before the fault: the registry must not see it.
    const wchar_t* scripts[] = {
        L"HKCU { A = s 'x' ",            L"HKCU { A = s 'x' } }",         L"HKCU { A } HKXX { B }",
        L"HKCU { A } HKCU B",            L"HKCU { A val V s 'x' }",       L"HKCU { A = q 'x' }",
        L"HKCU { A val N = d 12x }",     L"HKCU { A val N = d 4294967296 }", L"HKCU { A val N = b ABC }",
        L"HKCU { A B = s 'open }",       L"HKCU { A 'x'y }",              L"HKCU { A = s '%NOPE%' }",
        L"HKCU { A = s '%MODULE' }",     L"HKCU { A 'B\\C' }",            L"HKCU { A Delete }",
        L"HKCU { A ForceRemove val V = s 'x' }", L"HKCU { A NoRemove Delete B }", L"HKCU { A = s }",
        L"HKCU { A '' }",                L"HKCU { A } '{'",
    };
    Replacements r = {{L"MODULE", L"m.dll"}};
    for (const wchar_t* script : scripts) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(script)));
        EXPECT_EQ(Run(script, true, r), DISP_E_EXCEPTION);
        EXPECT_EQ(Dump(root), L"");
        ASSERT_EQ(Run(L"HKCU { A }", true), S_OK);
        EXPECT_EQ(Run(script, false, r), DISP_E_EXCEPTION);
        EXPECT_EQ(Dump(root), L"A\n");
        RegDeleteKeyW(root, L"A");
    }
    EXPECT_EQ(RunRegistryScript(nullptr, true, r, root), E_POINTER);
}

}  // namespace
