// The control's debug output and assert file in the fuzz build: every debug
// line is formatted (a format that does not fit its arguments shows up under
// the sanitizers) and dropped; asserts are only counted.
#include <cstdarg>
#include <cwchar>

#include "diag/Assert.h"
#include "diag/DebugOut.h"

namespace {
volatile unsigned g_asserts = 0;
volatile size_t g_debugChars = 0;
}  // namespace

void DebugOut(const wchar_t* text)
{
    g_debugChars = g_debugChars + wcslen(text);
}

void DebugOutF(const wchar_t* format, ...)
{
    wchar_t line[512];
    va_list args;
    va_start(args, format);
    vswprintf(line, sizeof(line) / sizeof(line[0]), format, args);
    va_end(args);
    line[511] = L'\0';
    DebugOut(line);
}

void AssertWrite(const wchar_t*, short, const wchar_t*)
{
    g_asserts = g_asserts + 1;
}
