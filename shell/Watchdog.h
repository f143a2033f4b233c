// Ends the process when the script holds the shell's thread past the time
// limit (a loop that never returns to the message loop): the one line is
// written and the process exits with the time-limit code.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>

class Watchdog
{
public:
    Watchdog(DWORD ms, std::wstring message);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // Whoever claims the message first writes it: true for the caller.
    bool ClaimMessage() { return !m_said.exchange(true); }

private:
    static DWORD WINAPI Main(void* self);

    DWORD m_ms;
    std::wstring m_message;
    std::atomic<bool> m_said{false};
    HANDLE m_stop = nullptr;
    HANDLE m_thread = nullptr;
};
