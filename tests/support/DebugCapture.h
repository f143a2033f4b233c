// Captures the control's debug lines in-process, from every thread, while
// an instance is alive. Each debug-output call is one entry, text exact.
#pragma once

#include <string>
#include <vector>

class DebugCapture
{
public:
    DebugCapture();
    ~DebugCapture();
    DebugCapture(const DebugCapture&) = delete;
    DebugCapture& operator=(const DebugCapture&) = delete;

    std::vector<std::wstring> Lines() const;
    std::wstring Text() const;
    bool Contains(const std::wstring& line) const { return Count(line) > 0; }
    size_t Count(const std::wstring& line) const;
    void Clear();
};
