// The registry-script engine against the real registry, in a scratch tree
// under HKCU\Software\BrennockRegistrarTest that each test clears before and
// after itself. Most scripts run with the scratch key standing in for their
// root, so a fault in the engine cannot reach any other part of the registry.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "control/Guids.h"
#include "control/Registrar.h"

namespace {

using Replacements = std::vector<std::pair<std::wstring, std::wstring>>;
const wchar_t kScratch[] = L"Software\\BrennockRegistrarTest";

class RegistrarTest : public testing::Test
{
protected:
    void SetUp() override
    {
        RegDeleteTreeW(HKEY_CURRENT_USER, kScratch);
        ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, kScratch, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                  &m_root, nullptr),
                  ERROR_SUCCESS);
    }
    void TearDown() override
    {
        RegCloseKey(m_root);
        RegDeleteTreeW(HKEY_CURRENT_USER, kScratch);
    }

    HRESULT Run(const wchar_t* script, bool doRegister, const Replacements& r = {})
    {
        return RunRegistryScript(script, doRegister, r, m_root);
    }

    // Reads below the scratch key; "<missing>" when there is no such string.
    std::wstring Str(const std::wstring& path, const wchar_t* name = nullptr)
    {
        wchar_t buffer[512];
        DWORD size = sizeof(buffer);
        if (RegGetValueW(m_root, path.c_str(), name, RRF_RT_REG_SZ, nullptr, buffer, &size) != ERROR_SUCCESS)
            return L"<missing>";
        return buffer;
    }
    std::vector<BYTE> Raw(const std::wstring& path, const wchar_t* name, DWORD* type)
    {
        std::vector<BYTE> data(64);
        DWORD size = static_cast<DWORD>(data.size());
        *type = REG_NONE;
        if (RegGetValueW(m_root, path.c_str(), name, RRF_RT_ANY | RRF_NOEXPAND, type, data.data(), &size) != ERROR_SUCCESS)
            size = 0;
        data.resize(size);
        return data;
    }
    bool Exists(const std::wstring& path) { return Count(path) != kNoKey; }
    // Number of subkeys (or of values) of a key below the scratch key.
    DWORD Count(const std::wstring& path, bool values = false)
    {
        HKEY key;
        DWORD keys = 0, vals = 0;
        if (RegOpenKeyExW(m_root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
            return kNoKey;
        RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &vals, nullptr, nullptr, nullptr, nullptr);
        RegCloseKey(key);
        return values ? vals : keys;
    }
    void Make(const std::wstring& path, DWORD options = 0, const wchar_t* value = nullptr)
    {
        HKEY key;
        ASSERT_EQ(RegCreateKeyExW(m_root, path.c_str(), 0, nullptr, options, KEY_ALL_ACCESS, nullptr, &key, nullptr), ERROR_SUCCESS);
        if (value)
            RegSetValueExW(key, L"Old", 0, REG_SZ, reinterpret_cast<const BYTE*>(value), 4);
        RegCloseKey(key);
    }

    static constexpr DWORD kNoKey = 0xFFFFFFFF;
    HKEY m_root = nullptr;
};

using RegistrarRegisterTest = RegistrarTest;
using RegistrarUnregisterTest = RegistrarTest;
using RegistrarScriptErrorTest = RegistrarTest;
using RegistrarControlScriptTest = RegistrarTest;

TEST_F(RegistrarRegisterTest, WritesKeysDefaultValuesAndNamedValues)
{
    ASSERT_EQ(Run(L"HKCU {\n Plain = s 'top'\n {\n  'With Space' = s 'it''s' { Leaf }\n"
                  L"  val Text = s 'hello world'\n  val Small = d 42\n  val Hex = d '0x1F'\n"
                  L"  val Basic = D &HFFFFFFFF\n  val Blob = b 0A0bFF\n  val 'Spaced Name' = s ''\n }\n}\n",
                  true),
              S_OK);
    EXPECT_EQ(Str(L"Plain"), L"top");
    EXPECT_EQ(Str(L"Plain\\With Space"), L"it's");
    EXPECT_TRUE(Exists(L"Plain\\With Space\\Leaf"));
    EXPECT_EQ(Str(L"Plain\\With Space\\Leaf"), L"<missing>");
    EXPECT_EQ(Str(L"Plain", L"Text"), L"hello world");
    EXPECT_EQ(Str(L"Plain", L"Spaced Name"), L"");
    DWORD type;
    EXPECT_EQ(Raw(L"Plain", L"Blob", &type), (std::vector<BYTE>{0x0A, 0x0B, 0xFF}));
    EXPECT_EQ(type, static_cast<DWORD>(REG_BINARY));
    const std::pair<const wchar_t*, DWORD> dwords[] = {{L"Small", 42}, {L"Hex", 0x1F}, {L"Basic", 0xFFFFFFFF}};
    for (const auto& [name, expected] : dwords) {
        std::vector<BYTE> data = Raw(L"Plain", name, &type);
        ASSERT_EQ(data.size(), 4u) << testing::PrintToString(std::wstring(name));
        EXPECT_EQ(type, static_cast<DWORD>(REG_DWORD));
        EXPECT_EQ(*reinterpret_cast<DWORD*>(data.data()), expected);
    }
}

TEST_F(RegistrarRegisterTest, TwiceIsIdempotentAndForceRemoveWipesStaleEntries)
{
    const wchar_t* script = L"HKCU { ForceRemove Fresh = s 'f' { Sub } Kept = s 'k' { Sub } }";
    ASSERT_EQ(Run(script, true), S_OK);
    Make(L"Fresh\\Stale\\Deeper", 0, L"x");
    Make(L"Kept\\Stale", 0, L"x");
    Make(L"Fresh", 0, L"x");
    Make(L"Kept", 0, L"x");
    ASSERT_EQ(Run(script, true), S_OK);
    EXPECT_EQ(Count(L""), 2u);
    EXPECT_EQ(Count(L"Fresh"), 1u);
    EXPECT_EQ(Count(L"Fresh", true), 1u);  // the default value only
    EXPECT_EQ(Str(L"Fresh"), L"f");
    EXPECT_TRUE(Exists(L"Fresh\\Sub"));
    EXPECT_EQ(Count(L"Kept"), 2u);  // no ForceRemove: foreign entries stay
    EXPECT_EQ(Count(L"Kept", true), 2u);
}

TEST_F(RegistrarRegisterTest, ReplacementsKeepQuotesAndPercentSigns)
{
    Replacements r = {{L"MODULE", L"C:\\Program Files\\O'Brien's\\Brennock.dll"}};
    ASSERT_EQ(Run(L"HKCU { Server = s '%MODULE%' Bitmap = s '%module%, 101' Pct = s '100%% sure' }", true, r), S_OK);
    EXPECT_EQ(Str(L"Server"), L"C:\\Program Files\\O'Brien's\\Brennock.dll");
    EXPECT_EQ(Str(L"Bitmap"), L"C:\\Program Files\\O'Brien's\\Brennock.dll, 101");
    EXPECT_EQ(Str(L"Pct"), L"100% sure");
}

TEST_F(RegistrarRegisterTest, DeleteRemovesTheKeyTreeAndWritesNothing)
{
    Make(L"Old\\Child\\Grandchild");
    ASSERT_EQ(Run(L"HKCU { Delete Old = s 'ignored' { Child } Delete Missing Other = s 'x' }", true), S_OK);
    EXPECT_FALSE(Exists(L"Old"));
    EXPECT_FALSE(Exists(L"Missing"));
    EXPECT_EQ(Str(L"Other"), L"x");
    EXPECT_EQ(Run(L"HKCU { Delete Old }", false), S_OK);  // nothing to do on unregister
}

TEST_F(RegistrarRegisterTest, StopsAtTheFirstFailureAndKeepsWhatWasWritten)
{
    Make(L"Volatile", REG_OPTION_VOLATILE);  // refuses lasting subkeys
    HRESULT hr = Run(L"HKCU { First = s 'a' Volatile { Child } Last = s 'z' }", true);
    EXPECT_EQ(hr, HRESULT_FROM_WIN32(ERROR_CHILD_MUST_BE_VOLATILE));
    EXPECT_EQ(Str(L"First"), L"a");
    EXPECT_FALSE(Exists(L"Volatile\\Child"));
    EXPECT_FALSE(Exists(L"Last"));
}

TEST_F(RegistrarRegisterTest, RootNamesResolveWithoutOverride)
{
    const wchar_t* script =
        L"HKEY_CURRENT_USER { NoRemove Software { NoRemove BrennockRegistrarTest { ByLongName } } }\n"
        L"hkcu { NoRemove Software { NoRemove BrennockRegistrarTest { ByShortName = s 'x' } } }";
    ASSERT_EQ(RunRegistryScript(script, true, {}), S_OK);
    EXPECT_TRUE(Exists(L"ByLongName"));
    EXPECT_EQ(Str(L"ByShortName"), L"x");

    // The same script in the scratch tree first: only if NoRemove holds there
    // may it unregister against the user's real Software key.
    ASSERT_EQ(Run(script, true), S_OK);
    ASSERT_EQ(Run(script, false), S_OK);
    ASSERT_TRUE(Exists(L"Software\\BrennockRegistrarTest"));
    ASSERT_EQ(RegDeleteTreeW(m_root, L"Software"), ERROR_SUCCESS);

    EXPECT_EQ(RunRegistryScript(script, false, {}), S_OK);
    EXPECT_EQ(Count(L""), 0u);
}

TEST_F(RegistrarUnregisterTest, RemovesScriptKeysAndKeepsNoRemoveKeys)
{
    const wchar_t* script =
        L"HKCU { NoRemove Shared = s 'shared' { Mine = s 'm' { Deep } val Setting = s 'x' "
        L"NoRemove val Sticky = s 'y' } Owned { Sub } }";
    ASSERT_EQ(Run(script, false), S_OK);  // nothing there yet: no error, nothing made
    EXPECT_EQ(Count(L""), 0u);
    ASSERT_EQ(Run(script, true), S_OK);
    Make(L"Shared\\Foreign");
    Make(L"Owned\\Foreign\\Deeper", 0, L"x");
    ASSERT_EQ(Run(script, false), S_OK);
    EXPECT_EQ(Str(L"Shared"), L"shared");
    EXPECT_TRUE(Exists(L"Shared\\Foreign"));
    EXPECT_FALSE(Exists(L"Shared\\Mine"));
    EXPECT_EQ(Str(L"Shared", L"Setting"), L"<missing>");
    EXPECT_EQ(Str(L"Shared", L"Sticky"), L"y");
    EXPECT_FALSE(Exists(L"Owned"));  // with the keys nobody's script wrote

    ASSERT_EQ(Run(script, false), S_OK);  // again: everything is already gone
    EXPECT_EQ(Count(L""), 1u);
    EXPECT_EQ(Count(L"Shared"), 1u);
}

TEST_F(RegistrarScriptErrorTest, ABrokenScriptTouchesNothing)
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
        EXPECT_EQ(Count(L""), 0u);
        EXPECT_EQ(Count(L"", true), 0u);
        Make(L"A");
        EXPECT_EQ(Run(script, false, r), DISP_E_EXCEPTION);
        EXPECT_TRUE(Exists(L"A"));
        RegDeleteKeyW(m_root, L"A");
    }
    EXPECT_EQ(RunRegistryScript(nullptr, true, r, m_root), E_POINTER);
}

// The control's own script (resource 102), from the source tree.
std::wstring ControlScript()
{
    wchar_t dir[MAX_PATH];
    DWORD n = GetEnvironmentVariableW(L"BRENNOCK_SOURCE_DIR", dir, MAX_PATH);
    if (n == 0 || n >= MAX_PATH)
        return L"";
    std::wstring path = dir;
    if (path[0] == L'/')  // a Unix path: Wine's Z: drive is the Unix root
        path = L"Z:" + path;
    for (wchar_t& c : path)
        c = c == L'/' ? L'\\' : c;
    path += L"\\control\\BrennockControl.rgs";
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return L"";
    char bytes[8192];
    DWORD got = 0;
    ReadFile(file, bytes, sizeof(bytes), &got, nullptr);
    CloseHandle(file);
    std::wstring text(got, L'\0');
    text.resize(MultiByteToWideChar(CP_ACP, 0, bytes, static_cast<int>(got), text.data(), static_cast<int>(got)));
    return text;
}

TEST_F(RegistrarControlScriptTest, RegistersTheClassAndUnregistersIt)
{
    const std::wstring script = ControlScript();
    ASSERT_FALSE(script.empty()) << "control/BrennockControl.rgs not found through BRENNOCK_SOURCE_DIR";
    const std::wstring module = L"C:\\Device's Software\\BrennockControl.dll";
    const std::wstring cls = std::wstring(L"CLSID\\") + BRENNOCK_CLSID_TEXT;
    Replacements r = {{L"MODULE", module}};
    ASSERT_EQ(Run(script.c_str(), true, r), S_OK);
    Make(cls + L"\\Stale");
    Make(L"CLSID\\{00000000-0000-0000-0000-000000000001}");
    ASSERT_EQ(Run(script.c_str(), true, r), S_OK);  // twice: one set of keys

    EXPECT_EQ(Count(L""), 3u);
    EXPECT_EQ(Str(L"BrennockControl.Brennock.1"), L"Brennock Class");
    EXPECT_EQ(Str(L"BrennockControl.Brennock.1\\CLSID"), BRENNOCK_CLSID_TEXT);
    EXPECT_EQ(Count(L"BrennockControl.Brennock.1"), 1u);
    EXPECT_EQ(Str(L"BrennockControl.Brennock"), L"Brennock Class");
    EXPECT_EQ(Str(L"BrennockControl.Brennock\\CLSID"), BRENNOCK_CLSID_TEXT);
    EXPECT_EQ(Str(L"BrennockControl.Brennock\\CurVer"), L"BrennockControl.Brennock.1");
    EXPECT_EQ(Count(L"BrennockControl.Brennock"), 2u);

    EXPECT_EQ(Str(cls), L"Brennock Class");
    EXPECT_EQ(Count(cls), 10u);
    EXPECT_EQ(Str(cls + L"\\ProgID"), L"BrennockControl.Brennock.1");
    EXPECT_EQ(Str(cls + L"\\VersionIndependentProgID"), L"BrennockControl.Brennock");
    for (const wchar_t* bare : {L"\\Programmable", L"\\Control", L"\\Insertable"}) {
        EXPECT_TRUE(Exists(cls + bare)) << testing::PrintToString(std::wstring(bare));
        EXPECT_EQ(Count(cls + bare, true), 0u);
    }
    EXPECT_EQ(Str(cls + L"\\InprocServer32"), module);
    EXPECT_EQ(Str(cls + L"\\InprocServer32", L"ThreadingModel"), L"Free");
    EXPECT_EQ(Str(cls + L"\\ToolboxBitmap32"), module + L", 101");
    EXPECT_EQ(Str(cls + L"\\MiscStatus"), L"0");
    EXPECT_EQ(Str(cls + L"\\MiscStatus\\1"), L"131473");
    EXPECT_EQ(Str(cls + L"\\TypeLib"), BRENNOCK_LIBID_TEXT);
    EXPECT_EQ(Str(cls + L"\\Version"), L"1.0");

    ASSERT_EQ(Run(script.c_str(), false, r), S_OK);
    EXPECT_EQ(Count(L""), 1u);  // CLSID stays, with the other class in it
    EXPECT_EQ(Count(L"CLSID"), 1u);
    EXPECT_FALSE(Exists(cls));
}

}  // namespace
