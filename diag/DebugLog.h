// The debug log behind the control's DebugWrite method. It keeps nothing and
// writes nothing: messages handed to it are discarded.
#pragma once

class CDebugLog
{
public:
    CDebugLog() = default;
    virtual ~CDebugLog();

    CDebugLog(const CDebugLog&) = delete;
    CDebugLog& operator=(const CDebugLog&) = delete;

    // Accepts one message and discards it.
    void Write(const wchar_t* message);
};
