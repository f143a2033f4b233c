// Another process on the device, for the GPIO tests:
//
//   gpio_helper reboot-listen READY_EVENT
//       Makes a top-level window, signals the named event, and waits for the
//       "Brennock Sys Reboot" broadcast. Exit code 0 when it arrived with
//       wParam 0 and lParam 0, 3 when it arrived with other values, 2 when
//       nothing came within a minute.
//   gpio_helper flash-change HWND VALUE
//       Posts "Brennock Flash Change" with wParam VALUE to the window HWND
//       (hexadecimal), as the component that watches the removable data
//       store does. Exit code 0 when posted.
#include <windows.h>

#include <cstdlib>
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
    if (g_reboot == 0 || !RegisterClassW(&wc))
        return 4;
    HWND hwnd = CreateWindowExW(0, L"RebootListener", L"Reboot Listener", WS_POPUP, 0, 0, 10, 10,
                                nullptr, nullptr, wc.hInstance, nullptr);
    if (hwnd == nullptr)
        return 4;
    HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, readyName);
    if (ready == nullptr)
        return 4;
    SetEvent(ready);
    CloseHandle(ready);

    const ULONGLONG deadline = GetTickCount64() + 60000;
    while (g_result < 0 && GetTickCount64() < deadline) {
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 50, QS_ALLINPUT);
        MSG msg;
        while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageW(&msg);
    }
    DestroyWindow(hwnd);
    return g_result < 0 ? 2 : g_result;
}

int FlashChange(const wchar_t* hwndText, const wchar_t* valueText)
{
    HWND hwnd = reinterpret_cast<HWND>(static_cast<UINT_PTR>(wcstoull(hwndText, nullptr, 16)));
    WPARAM value = static_cast<WPARAM>(wcstol(valueText, nullptr, 10));
    UINT msg = RegisterWindowMessageW(L"Brennock Flash Change");
    return (msg != 0 && PostMessageW(hwnd, msg, value, 0)) ? 0 : 1;
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc == 3 && wcscmp(argv[1], L"reboot-listen") == 0)
        return RebootListen(argv[2]);
    if (argc == 4 && wcscmp(argv[1], L"flash-change") == 0)
        return FlashChange(argv[2], argv[3]);
    return 1;
}
