#include "tests/support/DebugCapture.h"

#include <windows.h>
#include <algorithm>
#include <mutex>
#include <utility>

namespace {

// OutputDebugString reports its text by raising one of these; a debugger (or
// this handler) swallows the exception and the writer carries on.
constexpr DWORD kPrintA = 0x40010006;  // DBG_PRINTEXCEPTION_C
constexpr DWORD kPrintW = 0x4001000A;  // DBG_PRINTEXCEPTION_WIDE_C

std::mutex g_lock;
std::vector<std::wstring> g_lines;
PVOID g_handler = nullptr;
int g_users = 0;
thread_local bool t_lastWasWide = false;

LONG CALLBACK OnException(EXCEPTION_POINTERS* info)
{
    const EXCEPTION_RECORD* rec = info->ExceptionRecord;
    const bool wide = rec->ExceptionCode == kPrintW;
    if ((!wide && rec->ExceptionCode != kPrintA) || rec->NumberParameters < 2)
        return EXCEPTION_CONTINUE_SEARCH;
    // A wide line may be re-raised in its narrow form right after; keep one.
    if (!wide && std::exchange(t_lastWasWide, false))
        return EXCEPTION_CONTINUE_EXECUTION;
    t_lastWasWide = wide;
    const int len = static_cast<int>(rec->ExceptionInformation[0]) - 1;
    const auto* text = reinterpret_cast<const void*>(rec->ExceptionInformation[1]);
    std::wstring line;
    if (text != nullptr && len > 0 && wide) {
        line.assign(static_cast<const wchar_t*>(text), len);
    } else if (text != nullptr && len > 0) {
        line.resize(MultiByteToWideChar(CP_ACP, 0, static_cast<const char*>(text), len, nullptr, 0));
        MultiByteToWideChar(CP_ACP, 0, static_cast<const char*>(text), len, line.data(), int(line.size()));
    }
    std::lock_guard<std::mutex> hold(g_lock);
    g_lines.push_back(line);
    return EXCEPTION_CONTINUE_EXECUTION;
}

}  // namespace

DebugCapture::DebugCapture()
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_lines.clear();
    if (g_users++ == 0)
        g_handler = AddVectoredExceptionHandler(1, OnException);
}

DebugCapture::~DebugCapture()
{
    std::lock_guard<std::mutex> hold(g_lock);
    if (--g_users == 0 && g_handler) {
        RemoveVectoredExceptionHandler(g_handler);
        g_handler = nullptr;
    }
}

std::vector<std::wstring> DebugCapture::Lines() const
{
    std::lock_guard<std::mutex> hold(g_lock);
    return g_lines;
}

std::wstring DebugCapture::Text() const
{
    std::lock_guard<std::mutex> hold(g_lock);
    std::wstring all;
    for (const auto& l : g_lines)
        all += l;
    return all;
}

size_t DebugCapture::Count(const std::wstring& line) const
{
    std::lock_guard<std::mutex> hold(g_lock);
    return static_cast<size_t>(std::count(g_lines.begin(), g_lines.end(), line));
}

void DebugCapture::Clear()
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_lines.clear();
}
