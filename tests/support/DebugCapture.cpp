#include "tests/support/DebugCapture.h"

#include <windows.h>
#include <algorithm>
#include <mutex>

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
    if (rec->ExceptionCode == kPrintW && rec->NumberParameters >= 2) {
        const wchar_t* text = reinterpret_cast<const wchar_t*>(rec->ExceptionInformation[1]);
        size_t len = static_cast<size_t>(rec->ExceptionInformation[0]);
        std::wstring line = text ? std::wstring(text, len ? len - 1 : 0) : std::wstring();
        {
            std::lock_guard<std::mutex> hold(g_lock);
            g_lines.push_back(line);
        }
        t_lastWasWide = true;
        return EXCEPTION_CONTINUE_EXECUTION;
    }
    if (rec->ExceptionCode == kPrintA && rec->NumberParameters >= 2) {
        // A wide line may be re-raised in its narrow form right after; keep one.
        if (t_lastWasWide) {
            t_lastWasWide = false;
            return EXCEPTION_CONTINUE_EXECUTION;
        }
        const char* text = reinterpret_cast<const char*>(rec->ExceptionInformation[1]);
        size_t len = static_cast<size_t>(rec->ExceptionInformation[0]);
        std::string narrow = text ? std::string(text, len ? len - 1 : 0) : std::string();
        std::wstring line;
        if (!narrow.empty()) {
            int n = MultiByteToWideChar(CP_ACP, 0, narrow.data(), (int)narrow.size(), nullptr, 0);
            line.resize(n);
            MultiByteToWideChar(CP_ACP, 0, narrow.data(), (int)narrow.size(), line.data(), n);
        }
        std::lock_guard<std::mutex> hold(g_lock);
        g_lines.push_back(line);
        return EXCEPTION_CONTINUE_EXECUTION;
    }
    return EXCEPTION_CONTINUE_SEARCH;
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

bool DebugCapture::Contains(const std::wstring& line) const
{
    return Count(line) > 0;
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
