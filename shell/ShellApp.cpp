#include "shell/ShellApp.h"

#include "shell/ControlItem.h"
#include "shell/DebugEcho.h"
#include "shell/EventRouter.h"
#include "shell/MessagePump.h"
#include "shell/OutputChannel.h"
#include "shell/ScriptHost.h"
#include "shell/ShellObject.h"
#include "shell/ShellRun.h"
#include "shell/Watchdog.h"

#include <windows.h>
#include <wrl/client.h>

#include <cstdio>
#include <memory>

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kProgId[] = L"BrennockControl.Brennock";
// Past the time limit, the script gets this long to unwind (it may be in a
// loop that never returns to the message loop) before the process is ended.
constexpr DWORD kUnwindGraceMs = 5000;

std::wstring Hex(HRESULT hr)
{
    wchar_t buf[16];
    swprintf(buf, 16, L"0x%08lX", static_cast<unsigned long>(hr));
    return buf;
}

void Say(const std::wstring& text)
{
    StdErr().WriteLine(L"brennock-shell: " + text);
}

}  // namespace

bool ReadScriptFile(const std::wstring& path, std::wstring& text, std::wstring& reason)
{
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        const DWORD e = GetLastError();
        reason = (e == ERROR_FILE_NOT_FOUND || e == ERROR_PATH_NOT_FOUND) ? L"no such file" : L"cannot open it";
        return false;
    }
    std::string bytes;
    LARGE_INTEGER size{};
    bool ok = GetFileSizeEx(file, &size) && size.QuadPart < (64 << 20);
    if (ok) {
        bytes.resize(static_cast<size_t>(size.QuadPart));
        DWORD got = 0;
        ok = bytes.empty() || (ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &got, nullptr) &&
                               got == bytes.size());
    }
    CloseHandle(file);
    if (!ok) {
        reason = L"cannot read it";
        return false;
    }
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
        static_cast<unsigned char>(bytes[1]) == 0xFE) {
        text.assign(reinterpret_cast<const wchar_t*>(bytes.data() + 2), (bytes.size() - 2) / 2);
        return true;
    }
    size_t skip = 0;
    if (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0)
        skip = 3;
    const char* data = bytes.data() + skip;
    const int n = static_cast<int>(bytes.size() - skip);
    text.clear();
    if (n == 0)
        return true;
    UINT codePage = CP_UTF8;
    int wide = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, data, n, nullptr, 0);
    if (wide == 0) {
        codePage = CP_ACP;
        wide = MultiByteToWideChar(CP_ACP, 0, data, n, nullptr, 0);
    }
    text.resize(static_cast<size_t>(wide));
    MultiByteToWideChar(codePage, 0, data, n, text.data(), wide);
    return true;
}

int ShellApp::Run()
{
    ShellRun run;
    run.SetTimeLimit(m_options.timeoutSeconds);
    const std::wstring& scriptName = m_options.script;

    std::unique_ptr<OutputChannel> log;
    if (!m_options.logFile.empty()) {
        log.reset(OutputChannel::OpenFile(m_options.logFile));
        if (!log) {
            Say(L"cannot open the log file " + m_options.logFile);
            return kExitUsage;
        }
    }
    OutputChannel* debugTarget = m_options.quietDebug ? nullptr : log ? log.get() : &StdErr();
    DebugEcho echo(run, debugTarget);

    std::wstring code, reason;
    if (!ReadScriptFile(scriptName, code, reason)) {
        Say(L"cannot read " + scriptName + L": " + reason);
        return kExitUsage;
    }

    // The multithreaded apartment, with this thread's message queue made now.
    const HRESULT init = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(init)) {
        Say(L"COM did not start (" + Hex(init) + L")");
        return kExitControl;
    }
    MSG peek;
    PeekMessageW(&peek, nullptr, 0, 0, PM_NOREMOVE);

    const std::wstring timeUp = scriptName + L" did not call Shell.Quit within " +
                                std::to_wstring(m_options.timeoutSeconds) + L" s";
    std::unique_ptr<Watchdog> watchdog;
    if (m_options.timeoutSeconds != 0)
        watchdog = std::make_unique<Watchdog>(run.MsLeft() + kUnwindGraceMs, timeUp);

    int exitCode = kExitOk;
    {
        CLSID clsid;
        ComPtr<IDispatch> control;
        HRESULT hr = CLSIDFromProgID(kProgId, &clsid);
        if (FAILED(hr)) {
            Say(std::wstring(L"the control ") + kProgId + L" is not registered (" + Hex(hr) + L")");
            exitCode = kExitControl;
        } else if (FAILED(hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER,
                                                IID_PPV_ARGS(control.GetAddressOf())))) {
            Say(std::wstring(L"cannot create the control ") + kProgId + L": " + ErrorText(hr) + L" (" + Hex(hr) +
                L")");
            exitCode = kExitControl;
        }

        ScriptHost script(run, scriptName);
        ComPtr<ControlItem> item;
        ComPtr<EventRouter> router;
        if (exitCode == kExitOk) {
            item.Attach(new ControlItem(control.Get()));
            router.Attach(new EventRouter(run, script));
            if (FAILED(hr = router->ReadEvents(control.Get())) || FAILED(hr = router->Advise(control.Get()))) {
                Say(L"cannot connect to the control's events (" + Hex(hr) + L")");
                exitCode = kExitControl;
            }
        }
        if (exitCode == kExitOk) {
            ComPtr<ShellObject> shell;
            shell.Attach(new ShellObject(run, m_options.arguments, m_options.EngineProgId() == L"VBScript"));
            script.AddItem(L"Brennock", item.Get());
            script.AddItem(L"Shell", shell.Get());
            if (FAILED(hr = script.Start(m_options.EngineProgId().c_str()))) {
                Say(L"cannot start the " + m_options.EngineProgId() + L" engine (" + Hex(hr) + L")");
                exitCode = kExitUsage;
            }
        }
        if (exitCode == kExitOk) {
            // The global code, then the script lives on in its event handlers.
            if (script.RunGlobalCode(code) && !run.Ending())
                PumpFor(run, INFINITE);
            if (run.TimedOut() && watchdog && watchdog->ClaimMessage())
                Say(timeUp);
            exitCode = run.ExitCode();
        }

        // The end: no more events, the control closed if the script left it open.
        if (router)
            router->Unadvise();
        if (item && item->LeftOpen()) {
            Say(L"the script left the control open; closing it");
            LPOLESTR name[] = {const_cast<LPOLESTR>(L"Close")};
            DISPID closeId = DISPID_UNKNOWN;
            DISPPARAMS none{};
            if (SUCCEEDED(control->GetIDsOfNames(IID_NULL, name, 1, LOCALE_USER_DEFAULT, &closeId)))
                control->Invoke(closeId, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, nullptr, nullptr,
                                nullptr);
        }
        script.Close();
        router.Reset();
        item.Reset();
        control.Reset();
    }
    watchdog.reset();
    CoUninitialize();
    return exitCode;
}
