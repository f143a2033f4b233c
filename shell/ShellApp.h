// One run of the device shell: the apartment and message loop, the control
// and its events, the script engine, the time limit, and the tidy end.
//
// The thread that runs the script is in the multithreaded apartment and
// pumps messages: the control is registered Free-threaded, so this thread
// gets it directly (no proxy), its Open creates the hidden windows and
// timers here, and every event is fired here, from this thread's loop, to
// the script. An apartment-threaded host would get the control through a
// proxy, with its windows on COM's own threads that nobody pumps.
#pragma once

#include "shell/ShellOptions.h"

class ShellApp
{
public:
    explicit ShellApp(const ShellOptions& options) : m_options(options) {}
    // Runs the script; returns the exit code.
    int Run();

private:
    const ShellOptions& m_options;
};

// Reads a script file (UTF-16 or UTF-8 with a byte-order mark, else UTF-8,
// else the ANSI code page). False with a reason if it cannot be read.
bool ReadScriptFile(const std::wstring& path, std::wstring& text, std::wstring& reason);
