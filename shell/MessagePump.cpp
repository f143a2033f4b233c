#include "shell/MessagePump.h"

#include "shell/ShellRun.h"

#include <algorithm>

void PumpFor(ShellRun& run, DWORD ms)
{
    const ULONGLONG start = GetTickCount64();
    for (;;) {
        MSG msg;
        while (!run.Ending() && PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&msg);
            DispatchMessageW(&msg);
        }
        if (run.Ending())
            return;
        if (run.PastLimit()) {
            run.HitTimeLimit();
            return;
        }
        DWORD wait = run.MsLeft();
        if (ms != INFINITE) {
            const ULONGLONG spent = GetTickCount64() - start;
            if (spent >= ms)
                return;
            wait = std::min<DWORD>(wait, static_cast<DWORD>(ms - spent));
        }
        MsgWaitForMultipleObjectsEx(0, nullptr, wait, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
    }
}
