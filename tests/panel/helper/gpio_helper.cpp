// Another process on the device, for the GPIO tests:
//   gpio_helper flash-change HWND VALUE
// posts "Brennock Flash Change" with wParam VALUE to the window HWND
// (hexadecimal), as the data store's watcher does. Exits 0 when posted.
#include <windows.h>

#include <cwchar>

int wmain(int argc, wchar_t** argv)
{
    if (argc != 4 || wcscmp(argv[1], L"flash-change") != 0)
        return 1;
    HWND hwnd = reinterpret_cast<HWND>(static_cast<UINT_PTR>(wcstoull(argv[2], nullptr, 16)));
    UINT msg = RegisterWindowMessageW(L"Brennock Flash Change");
    return (msg != 0 && PostMessageW(hwnd, msg, static_cast<WPARAM>(wcstol(argv[3], nullptr, 10)), 0)) ? 0 : 1;
}
