#include "shell/ShellOptions.h"

#include <cwchar>
#include <cwctype>

namespace {

bool SameText(const std::wstring& a, const wchar_t* b)
{
    return _wcsicmp(a.c_str(), b) == 0;
}

bool EndsWith(const std::wstring& text, const wchar_t* suffix)
{
    const size_t n = wcslen(suffix);
    return text.size() >= n && _wcsicmp(text.c_str() + text.size() - n, suffix) == 0;
}

}  // namespace

const wchar_t* ShellOptions::Usage()
{
    return L"usage: brennock-shell.exe [options] SCRIPT.js|SCRIPT.vbs [ARGS...]\n"
           L"Runs a device UI script with the Brennock control as the object Brennock, its events\n"
           L"delivered to the script's Brennock_<Event> functions, and the object Shell.\n"
           L"  --timeout S        end the run (exit code 3) if the script has not called Shell.Quit\n"
           L"                     within S seconds of the shell's start (default: no limit)\n"
           L"  --log FILE         the control's debug lines go to FILE instead of standard error\n"
           L"  --quiet-debug      drop the control's debug lines\n"
           L"  --engine E         jscript or vbscript, whatever the script's extension\n"
           L"  --help             this text\n"
           L"Exit codes: the script's Shell.Quit code; 1 script error; 2 usage or script file;\n"
           L"3 time limit; 4 the control cannot be created.";
}

bool ShellOptions::Parse(const std::vector<std::wstring>& argv)
{
    size_t i = 0;
    auto value = [&](const std::wstring& option, std::wstring& out) {
        if (i + 1 >= argv.size()) {
            m_error = option + L" needs a value";
            return false;
        }
        out = argv[++i];
        return true;
    };
    for (; i < argv.size(); ++i) {
        const std::wstring& a = argv[i];
        std::wstring v;
        if (a == L"--") {
            ++i;
            break;
        } else if (a == L"--help" || a == L"-h" || a == L"/?") {
            help = true;
            return true;
        } else if (a == L"--timeout") {
            if (!value(a, v))
                return false;
            wchar_t* end = nullptr;
            const unsigned long s = wcstoul(v.c_str(), &end, 10);
            if (v.empty() || !iswdigit(v[0]) || *end != L'\0' || s > 86400 * 366UL) {
                m_error = L"--timeout needs a whole number of seconds, not \"" + v + L"\"";
                return false;
            }
            timeoutSeconds = static_cast<unsigned>(s);
        } else if (a == L"--log") {
            if (!value(a, logFile))
                return false;
        } else if (a == L"--quiet-debug") {
            quietDebug = true;
        } else if (a == L"--engine") {
            if (!value(a, v))
                return false;
            if (SameText(v, L"jscript") || SameText(v, L"javascript"))
                engine = L"JScript";
            else if (SameText(v, L"vbscript") || SameText(v, L"vbs"))
                engine = L"VBScript";
            else {
                m_error = L"--engine is jscript or vbscript, not \"" + v + L"\"";
                return false;
            }
        } else if (a.size() > 1 && a[0] == L'-' && a.rfind(L"--", 0) == 0) {
            m_error = L"unknown option " + a;
            return false;
        } else {
            break;
        }
    }
    if (i >= argv.size()) {
        m_error = L"no script named";
        return false;
    }
    script = argv[i++];
    arguments.assign(argv.begin() + static_cast<std::ptrdiff_t>(i), argv.end());
    if (EngineProgId().empty()) {
        m_error = L"cannot tell the script language of " + script + L" (use .js or .vbs, or --engine)";
        return false;
    }
    return true;
}

std::wstring ShellOptions::EngineProgId() const
{
    if (!engine.empty())
        return engine;
    if (EndsWith(script, L".js"))
        return L"JScript";
    if (EndsWith(script, L".vbs"))
        return L"VBScript";
    return {};
}
