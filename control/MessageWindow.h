// The hidden message window that every manager with host-thread work owns.
//
// A manager registers its own window class, creates one never-shown pop-up
// window of it and stores itself in the window's user data. Worker threads
// only ever post to the window; the window procedure runs on the host thread
// (the thread that called Open), in posting order. A record passed in lParam
// is allocated by the poster and freed by the window procedure after use.
// Teardown clears the user data first, so messages still queued fall through
// to the default procedure and never touch a freed manager.
#pragma once

#include <windows.h>

// First private message of every manager window (the first user message plus one).
constexpr UINT WM_BRENNOCK_FIRST = WM_USER + 1;

// Registers the class for the module instance unless it already is.
bool MessageWindowRegister(HINSTANCE instance, const wchar_t* className, WNDPROC proc);

// Creates the hidden pop-up (50,50, 50x50, no parent) and stores owner in its
// user data. Returns null on failure.
HWND MessageWindowCreate(HINSTANCE instance, const wchar_t* className, const wchar_t* title,
                         void* owner);

// Handling every manager shares: creation, destruction and command messages
// answer 0, painting draws label centred on one line, anything else goes to
// the default procedure.
LRESULT MessageWindowDefault(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam,
                             const wchar_t* label);

// Clears the user data, destroys the window (writing destroyFailedText on
// failure) and unregisters the class. hwnd is set to null. Returns false if
// the window could not be destroyed.
bool MessageWindowDestroy(HWND& hwnd, HINSTANCE instance, const wchar_t* className,
                          const wchar_t* destroyFailedText);

// The static window procedure of a manager class T: forwards to
// T::WindowProc(hwnd, msg, wParam, lParam) while the user data points at the
// manager, and to the default procedure otherwise.
template <class T>
LRESULT CALLBACK MessageWindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    T* self = reinterpret_cast<T*>(GetWindowLongPtrW(hwnd, GWLP_USERDATA));
    if (self == nullptr)
        return DefWindowProcW(hwnd, msg, wParam, lParam);
    return self->WindowProc(hwnd, msg, wParam, lParam);
}
