#include "shell/ShellRun.h"

ShellRun::ShellRun()
{
    QueryPerformanceFrequency(&m_frequency);
    QueryPerformanceCounter(&m_start);
}

double ShellRun::ElapsedSeconds() const
{
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart - m_start.QuadPart) / static_cast<double>(m_frequency.QuadPart);
}

void ShellRun::SetTimeLimit(unsigned seconds)
{
    m_limitSeconds = seconds;
    // The limit counts from the shell's start, opening the control included.
    const ULONGLONG sinceStart = static_cast<ULONGLONG>(ElapsedMs());
    m_deadlineTick = seconds ? GetTickCount64() - sinceStart + seconds * 1000ULL : 0;
}

DWORD ShellRun::MsLeft() const
{
    if (m_limitSeconds == 0)
        return INFINITE;
    const ULONGLONG now = GetTickCount64();
    return now >= m_deadlineTick ? 0 : static_cast<DWORD>(m_deadlineTick - now);
}

void ShellRun::RequestQuit(int code)
{
    if (m_ending)
        return;
    m_ending = true;
    m_quitCode = code;
}

void ShellRun::FailFatally()
{
    if (m_ending)
        return;
    m_ending = true;
    m_fatal = true;
}

void ShellRun::HitTimeLimit()
{
    if (m_ending)
        return;
    m_ending = true;
    m_timedOut = true;
}

int ShellRun::ExitCode() const
{
    if (m_fatal)
        return kExitScriptError;
    if (m_timedOut)
        return kExitTimeLimit;
    if (m_quitCode == 0 && m_handlerErrors > 0)
        return kExitScriptError;
    return m_quitCode;
}
