// The shell's command line:
//   brennock-shell.exe [--timeout S] [--log FILE] [--quiet-debug]
//                      [--engine jscript|vbscript] SCRIPT [ARGS...]
//   brennock-shell.exe --help
#pragma once

#include <string>
#include <vector>

class ShellOptions
{
public:
    // Reads argv (without the program name). False on a usage error, with
    // its one-line reason in Error().
    bool Parse(const std::vector<std::wstring>& argv);

    static const wchar_t* Usage();

    bool help = false;
    unsigned timeoutSeconds = 0;    // 0: no limit
    std::wstring logFile;           // empty: debug lines on standard error
    bool quietDebug = false;
    std::wstring engine;            // "JScript" or "VBScript"; empty: by extension
    std::wstring script;
    std::vector<std::wstring> arguments;

    // The engine's ProgID for this script, or empty if the extension says nothing.
    std::wstring EngineProgId() const;
    const std::wstring& Error() const { return m_error; }

private:
    std::wstring m_error;
};
