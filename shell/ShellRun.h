// What one run of the shell shares between its parts: the clock it started
// with, the time limit, and how the script asked to end.
#pragma once

#include <windows.h>

// Returned by every Shell member once the script is ending, so that the
// script's own code unwinds; the engine's report of it is not an error.
constexpr HRESULT kShellEnding = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0x0B51);

// The shell's exit codes.
enum ShellExit : int
{
    kExitOk = 0,
    kExitScriptError = 1,
    kExitUsage = 2,
    kExitTimeLimit = 3,
    kExitControl = 4,
};

class ShellRun
{
public:
    ShellRun();

    // Seconds and milliseconds since the shell started.
    double ElapsedSeconds() const;
    double ElapsedMs() const { return ElapsedSeconds() * 1000.0; }

    // The time limit: 0 is none.
    void SetTimeLimit(unsigned seconds);
    unsigned TimeLimitSeconds() const { return m_limitSeconds; }
    // Milliseconds left before the limit (INFINITE without one); 0 once passed.
    DWORD MsLeft() const;
    bool PastLimit() const { return m_limitSeconds != 0 && MsLeft() == 0; }

    // The script asked to end (Shell.Quit), or a fatal error or the limit ended it.
    bool Ending() const { return m_ending; }
    void RequestQuit(int code);
    void FailFatally();           // an uncaught error in global code
    void HitTimeLimit();
    bool TimedOut() const { return m_timedOut; }

    void CountHandlerError() { ++m_handlerErrors; }
    int HandlerErrors() const { return m_handlerErrors; }

    // The exit code by the rules: a fatal error 1, the limit 3, else the
    // script's Quit code, except that Quit(0) after a handler error gives 1.
    int ExitCode() const;

private:
    LARGE_INTEGER m_start{};
    LARGE_INTEGER m_frequency{};
    unsigned m_limitSeconds = 0;
    ULONGLONG m_deadlineTick = 0;
    bool m_ending = false;
    bool m_fatal = false;
    bool m_timedOut = false;
    int m_quitCode = 0;
    int m_handlerErrors = 0;
};
