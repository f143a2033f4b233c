#include "shell/DebugEcho.h"

#include "shell/OutputChannel.h"
#include "shell/ShellRun.h"

#include <windows.h>

#include <cstdio>
#include <string>

namespace {

constexpr DWORD kPrintNarrow = 0x40010006;  // DBG_PRINTEXCEPTION_C
constexpr DWORD kPrintWide = 0x4001000A;    // DBG_PRINTEXCEPTION_WIDE_C

const ShellRun* g_run = nullptr;
OutputChannel* g_target = nullptr;
// Unhandled, the wide report is raised again in its narrow form; one line each.
thread_local bool t_wideJustSeen = false;

void Emit(std::wstring text)
{
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r'))
        text.pop_back();
    if (g_target == nullptr)
        return;
    wchar_t stamp[32];
    swprintf(stamp, 32, L"[%9.3f] ", g_run->ElapsedSeconds());
    g_target->WriteLine(stamp + text);
}

LONG CALLBACK OnException(EXCEPTION_POINTERS* info)
{
    const EXCEPTION_RECORD* rec = info->ExceptionRecord;
    if (rec->NumberParameters < 2)
        return EXCEPTION_CONTINUE_SEARCH;
    const size_t length = static_cast<size_t>(rec->ExceptionInformation[0]);
    if (rec->ExceptionCode == kPrintWide) {
        const auto* text = reinterpret_cast<const wchar_t*>(rec->ExceptionInformation[1]);
        Emit(text ? std::wstring(text, length ? length - 1 : 0) : std::wstring());
        t_wideJustSeen = true;
        return EXCEPTION_CONTINUE_EXECUTION;
    }
    if (rec->ExceptionCode == kPrintNarrow) {
        if (t_wideJustSeen) {
            t_wideJustSeen = false;
            return EXCEPTION_CONTINUE_EXECUTION;
        }
        const auto* text = reinterpret_cast<const char*>(rec->ExceptionInformation[1]);
        std::wstring wide;
        if (text != nullptr && length > 1) {
            const int n = MultiByteToWideChar(CP_ACP, 0, text, static_cast<int>(length - 1), nullptr, 0);
            wide.resize(static_cast<size_t>(n));
            MultiByteToWideChar(CP_ACP, 0, text, static_cast<int>(length - 1), wide.data(), n);
        }
        Emit(wide);
        return EXCEPTION_CONTINUE_EXECUTION;
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace

DebugEcho::DebugEcho(const ShellRun& run, OutputChannel* target)
{
    g_run = &run;
    g_target = target;
    m_handler = AddVectoredExceptionHandler(1, OnException);
}

DebugEcho::~DebugEcho()
{
    if (m_handler != nullptr)
        RemoveVectoredExceptionHandler(m_handler);
    g_target = nullptr;
}
