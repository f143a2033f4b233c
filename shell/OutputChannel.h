// One place text leaves the shell (standard output, standard error or a log
// file): whole lines in UTF-8, one writer at a time, from any thread.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

class OutputChannel
{
public:
    // Writes to handle; the channel closes it only when it owns it.
    OutputChannel(HANDLE handle, bool owned);
    ~OutputChannel();
    OutputChannel(const OutputChannel&) = delete;
    OutputChannel& operator=(const OutputChannel&) = delete;

    // Opens (appending to) or creates a file for writing; null on failure.
    static OutputChannel* OpenFile(const std::wstring& path);

    // Writes text and a line end.
    void WriteLine(std::wstring_view text);

private:
    HANDLE m_handle;
    bool m_owned;
    CRITICAL_SECTION m_lock;
};

// The shell's standard output and standard error.
OutputChannel& StdOut();
OutputChannel& StdErr();

std::string ToUtf8(std::wstring_view text);
