#include "control/MessageWindow.h"

#include "diag/DebugOut.h"

bool MessageWindowRegister(HINSTANCE instance, const wchar_t* className, WNDPROC proc)
{
    WNDCLASSW existing;
    if (GetClassInfoW(instance, className, &existing))
        return true;

    WNDCLASSW wc = {};
    wc.style = 0;
    wc.lpfnWndProc = proc;
    wc.cbClsExtra = 0;
    wc.cbWndExtra = 0;
    wc.hInstance = instance;
    wc.hIcon = nullptr;
    wc.hCursor = LoadCursorW(nullptr, reinterpret_cast<LPCWSTR>(IDC_ARROW));
    wc.hbrBackground = GetSysColorBrush(COLOR_WINDOW);
    wc.lpszMenuName = nullptr;
    wc.lpszClassName = className;
    return RegisterClassW(&wc) != 0;
}

HWND MessageWindowCreate(HINSTANCE instance, const wchar_t* className, const wchar_t* title,
                         void* owner)
{
    HWND hwnd = CreateWindowExW(0, className, title, WS_POPUP, 50, 50, 50, 50, nullptr, nullptr,
                                instance, nullptr);
    if (hwnd != nullptr)
        SetWindowLongPtrW(hwnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(owner));
    return hwnd;
}

LRESULT MessageWindowDefault(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam,
                             const wchar_t* label)
{
    switch (msg) {
    case WM_CREATE:
    case WM_DESTROY:
    case WM_COMMAND:
        return 0;
    case WM_PAINT: {
        PAINTSTRUCT ps;
        HDC hdc = BeginPaint(hwnd, &ps);
        RECT rc;
        GetClientRect(hwnd, &rc);
        DrawTextW(hdc, label, -1, &rc, DT_SINGLELINE | DT_CENTER | DT_VCENTER);
        EndPaint(hwnd, &ps);
        return 0;
    }
    default:
        return DefWindowProcW(hwnd, msg, wParam, lParam);
    }
}

bool MessageWindowDestroy(HWND& hwnd, HINSTANCE instance, const wchar_t* className,
                          const wchar_t* destroyFailedText)
{
    bool ok = true;
    if (hwnd != nullptr) {
        SetWindowLongPtrW(hwnd, GWLP_USERDATA, 0);
        if (!DestroyWindow(hwnd)) {
            DebugOut(destroyFailedText);
            ok = false;
        }
        hwnd = nullptr;
    }
    UnregisterClassW(className, instance);
    return ok;
}
