// The shell thread's message loop: the control's hidden windows, timers and
// posted messages (and with them every event) are served only while it runs.
#pragma once

#include <windows.h>

class ShellRun;

// Dispatches this thread's messages for ms milliseconds (INFINITE: for
// good), returning early once the run is ending. Passing the time limit
// ends the run (ShellRun::HitTimeLimit).
void PumpFor(ShellRun& run, DWORD ms);
