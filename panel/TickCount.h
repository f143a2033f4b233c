// The millisecond tick counter the GPIO manager times its heartbeat, user
// timers and diagnostics with: the system's multimedia tick (1 ms steps), a
// 32-bit count that wraps every 49.7 days.
#pragma once

#include <windows.h>

DWORD GpioTickCount();

// Moves the counter by a fixed amount from now on. A bench or test run uses
// it to put the counter just before its wrap, which a real device reaches
// only after seven weeks of uptime.
void GpioTickCountShift(DWORD ms);
