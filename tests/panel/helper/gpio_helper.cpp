// Another process on the device, for the GPIO tests:
//   gpio_helper reboot-listen READY_EVENT
//       Makes a top-level window, signals the named event and waits for the
//       "Brennock Sys Reboot" broadcast. Exits 0 when it came with wParam and
//       lParam 0, 3 when with other values, 2 when nothing came in a minute.
//   gpio_helper flash-change HWND VALUE
//       Posts "Brennock Flash Change" with wParam VALUE to the window HWND
//       (hexadecimal), as the data store's watcher does. Exits 0 when posted.
#include <windows.h>

#include <cwchar>

namespace {

UINT g_reboot = 0;
int g_result = -1;

LRESULT CALLBACK ListenerProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (g_reboot != 0 && msg == g_reboot) {
        g_result = (wParam == 0 && lParam == 0) ? 0 : 3;
        return 0;
    }
    return DefWindowProcW(hwnd, msg, wParam, lParam);
}

int RebootListen(const wchar_t* readyName)
{
    g_reboot = RegisterWindowMessageW(L"Brennock Sys Reboot");
    WNDCLASSW wc = {};
    wc.lpfnWndProc = ListenerProc;
    wc.hInstance = GetModuleHandleW(nullptr);
    wc.lpszClassName = L"RebootListener";
    HWND hwnd = RegisterClassW(&wc) ? CreateWindowExW(0, wc.lpszClassName, L"", WS_POPUP, 0, 0, 10, 10, nullptr,
                                                      nullptr, wc.hInstance, nullptr)
                                    : nullptr;
    HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, readyName);
    if (g_reboot == 0 || hwnd == nullptr || ready == nullptr || !SetEvent(ready))
        return 4;
    const ULONGLONG deadline = GetTickCount64() + 60000;
    while (g_result < 0 && GetTickCount64() < deadline) {
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 50, QS_ALLINPUT);
        MSG msg;
        while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageW(&msg);
    }
    return g_result < 0 ? 2 : g_result;
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc == 3 && wcscmp(argv[1], L"reboot-listen") == 0)
        return RebootListen(argv[2]);
    if (argc == 4 && wcscmp(argv[1], L"flash-change") == 0) {
        HWND hwnd = reinterpret_cast<HWND>(static_cast<UINT_PTR>(wcstoull(argv[2], nullptr, 16)));
        UINT msg = RegisterWindowMessageW(L"Brennock Flash Change");
        return (msg != 0 && PostMessageW(hwnd, msg, static_cast<WPARAM>(wcstol(argv[3], nullptr, 10)), 0)) ? 0 : 1;
    }
    return 1;
}
