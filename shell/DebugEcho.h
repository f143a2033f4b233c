// Shows the debug output of everything in the process (the control and its
// threads) with the time since the shell started: "[   12.345] text".
//
// OutputDebugString reports its text by raising an exception that a debugger
// would swallow; a vectored handler takes that place, so no WINEDEBUG
// channel is needed.
#pragma once

class OutputChannel;
class ShellRun;

class DebugEcho
{
public:
    // Lines go to target; a null target drops them (they are still swallowed).
    DebugEcho(const ShellRun& run, OutputChannel* target);
    ~DebugEcho();
    DebugEcho(const DebugEcho&) = delete;
    DebugEcho& operator=(const DebugEcho&) = delete;

private:
    void* m_handler = nullptr;
};
