// Running the test thread's message loop, as the device shell does, so that
// hidden windows get their timers and posted messages.
#pragma once

#include <windows.h>

#include <functional>

// Dispatches this thread's messages until done() holds (checked before
// waiting and after every dispatched message) or until timeoutMs has passed
// (a deadline for a broken run, not a timing check). onMessage sees each
// message just before it is dispatched. Returns done().
bool PumpUntil(const std::function<bool()>& done, DWORD timeoutMs = 30000,
               const std::function<void(const MSG&)>& onMessage = {});

HWND FindThreadWindow(const wchar_t* className);
