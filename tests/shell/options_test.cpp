// The shell's command line and how it reads script files.
#include "shell/ShellApp.h"
#include "shell/ShellOptions.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

struct CommandLine
{
    std::vector<std::wstring> argv;
    bool ok;
    const wchar_t* engine;       // the engine chosen, when ok
    unsigned timeout;
    size_t scriptArguments;
};

const CommandLine kCommandLines[] = {
    {{L"a.js"}, true, L"JScript", 0, 0},
    {{L"A.VBS", L"x", L"--timeout"}, true, L"VBScript", 0, 2},   // options end at the script
    {{L"--engine", L"vbscript", L"ui.txt"}, true, L"VBScript", 0, 0},
    {{L"--engine", L"JScript", L"ui.vbs"}, true, L"JScript", 0, 0},
    {{L"--timeout", L"30", L"--quiet-debug", L"--log", L"l.txt", L"--", L"--odd.js", L"1"}, true, L"JScript", 30, 1},
    {{L"ui.txt"}, false, nullptr, 0, 0},
    {{L"--timeout", L"-1", L"a.js"}, false, nullptr, 0, 0},
    {{L"--timeout", L"5s", L"a.js"}, false, nullptr, 0, 0},
    {{L"--timeout"}, false, nullptr, 0, 0},
    {{L"--engine", L"perl", L"a.js"}, false, nullptr, 0, 0},
    {{L"--verbose", L"a.js"}, false, nullptr, 0, 0},
    {{}, false, nullptr, 0, 0},
};

TEST(ShellOptions, CommandLines)
{
    for (const CommandLine& c : kCommandLines) {
        std::wstring all;
        for (const auto& a : c.argv)
            all += a + L" ";
        SCOPED_TRACE(std::string(all.begin(), all.end()));
        ShellOptions options;
        ASSERT_EQ(options.Parse(c.argv), c.ok);
        if (!c.ok)
            EXPECT_FALSE(options.Error().empty());
        else
            EXPECT_EQ(std::make_tuple(std::wstring(options.EngineProgId()), options.timeoutSeconds, options.arguments.size()),
                      std::make_tuple(std::wstring(c.engine), c.timeout, c.scriptArguments));
    }
}

// The text in this machine's ANSI code page (not UTF-8 for these letters).
std::string Ansi(const std::wstring& text)
{
    std::string out(text.size() * 2, '\0');
    out.resize(WideCharToMultiByte(CP_ACP, 0, text.data(), int(text.size()), out.data(), int(out.size()), nullptr,
                                   nullptr));
    return out;
}

TEST(ScriptFile, ReadsEveryEncodingToTheSameText)
{
    const std::wstring expected = L"Shell.Echo(\"Gr\u00fc\u00dfe\");\n";
    const std::pair<const char*, std::string> kEncodings[] = {
        {"UTF-8", "Shell.Echo(\"Gr\xC3\xBC\xC3\x9F" "e\");\n"},
        {"UTF-8 with BOM", "\xEF\xBB\xBFShell.Echo(\"Gr\xC3\xBC\xC3\x9F" "e\");\n"},
        {"UTF-16", std::string("\xFF\xFE", 2) +
                       std::string(reinterpret_cast<const char*>(expected.data()), expected.size() * 2)},
        {"ANSI", Ansi(expected)},
    };
    wchar_t dir[MAX_PATH], path[MAX_PATH];
    GetTempPathW(MAX_PATH, dir);
    GetTempFileNameW(dir, L"shl", 0, path);
    for (const auto& [what, bytes] : kEncodings) {
        SCOPED_TRACE(what);
        HANDLE f = CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        ASSERT_NE(f, INVALID_HANDLE_VALUE);
        DWORD written = 0;
        WriteFile(f, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
        CloseHandle(f);
        std::wstring text, reason;
        ASSERT_TRUE(ReadScriptFile(path, text, reason));
        EXPECT_EQ(text, expected);
    }
    DeleteFileW(path);
}

}  // namespace
