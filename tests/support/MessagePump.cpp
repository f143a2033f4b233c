#include "tests/support/MessagePump.h"

#include <cwchar>
#include <utility>

bool PumpUntil(const std::function<bool()>& done, DWORD timeoutMs,
               const std::function<void(const MSG&)>& onMessage)
{
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    for (;;) {
        if (done())
            return true;
        if (GetTickCount64() >= deadline)
            return false;
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 10, QS_ALLINPUT);
        MSG msg;
        while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
            if (onMessage)
                onMessage(msg);
            DispatchMessageW(&msg);
            if (done())
                return true;
        }
    }
}

HWND FindThreadWindow(const wchar_t* className)
{
    std::pair<const wchar_t*, HWND> ctx{className, nullptr};
    EnumThreadWindows(GetCurrentThreadId(), [](HWND hwnd, LPARAM param) -> BOOL {
        auto* ctx = reinterpret_cast<std::pair<const wchar_t*, HWND>*>(param);
        wchar_t name[128];
        if (GetClassNameW(hwnd, name, 128) && wcscmp(name, ctx->first) == 0)
            ctx->second = hwnd;
        return ctx->second == nullptr;
    }, reinterpret_cast<LPARAM>(&ctx));
    return ctx.second;
}
