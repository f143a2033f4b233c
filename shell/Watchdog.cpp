#include "shell/Watchdog.h"

#include "shell/OutputChannel.h"
#include "shell/ShellRun.h"

Watchdog::Watchdog(DWORD ms, std::wstring message) : m_ms(ms), m_message(std::move(message))
{
    m_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    m_thread = CreateThread(nullptr, 0, &Watchdog::Main, this, 0, nullptr);
}

Watchdog::~Watchdog()
{
    SetEvent(m_stop);
    if (m_thread != nullptr) {
        WaitForSingleObject(m_thread, INFINITE);
        CloseHandle(m_thread);
    }
    CloseHandle(m_stop);
}

DWORD WINAPI Watchdog::Main(void* self)
{
    auto* dog = static_cast<Watchdog*>(self);
    if (WaitForSingleObject(dog->m_stop, dog->m_ms) == WAIT_OBJECT_0)
        return 0;
    if (dog->ClaimMessage())
        StdErr().WriteLine(L"brennock-shell: " + dog->m_message);
    TerminateProcess(GetCurrentProcess(), kExitTimeLimit);
    return 0;
}
