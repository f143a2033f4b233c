#include "tests/support/MessagePump.h"

#include <cwchar>

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

namespace {
struct FindContext
{
    const wchar_t* className;
    HWND found;
};

BOOL CALLBACK FindOne(HWND hwnd, LPARAM param)
{
    auto* ctx = reinterpret_cast<FindContext*>(param);
    wchar_t name[128];
    if (GetClassNameW(hwnd, name, 128) && wcscmp(name, ctx->className) == 0) {
        ctx->found = hwnd;
        return FALSE;
    }
    return TRUE;
}
}  // namespace

HWND FindThreadWindow(const wchar_t* className)
{
    FindContext ctx = {className, nullptr};
    EnumThreadWindows(GetCurrentThreadId(), FindOne, reinterpret_cast<LPARAM>(&ctx));
    return ctx.found;
}
