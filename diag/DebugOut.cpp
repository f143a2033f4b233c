#include "diag/DebugOut.h"

#include <cstdarg>
#include <cwchar>

void DebugOut(const wchar_t* text)
{
    if (text != nullptr)
        OutputDebugStringW(text);
}

void DebugOutF(const wchar_t* format, ...)
{
    wchar_t buffer[512];
    va_list args;
    va_start(args, format);
    int n = vswprintf(buffer, sizeof(buffer) / sizeof(buffer[0]), format, args);
    va_end(args);
    if (n < 0)
        buffer[sizeof(buffer) / sizeof(buffer[0]) - 1] = L'\0';
    DebugOut(buffer);
}
