// The script's "Shell" object: output, waiting with the message loop
// running, ending the run, the command-line arguments, the clock, and the
// bench simulators' command files.
//
//   Shell.Echo(a, b, ...)      one line on standard output, the texts joined by blanks
//   Shell.Sleep(ms)            waits, serving messages (events arrive meanwhile)
//   Shell.Quit([code])         ends the script and the shell with code (default 0)
//   Shell.Arguments(i)         the i-th argument after the script's name (from 0)
//   Shell.ArgumentCount        how many there are
//   Shell.Time                 milliseconds since the shell started (a double)
//   Shell.Now                  local date and time, "Tue 03 Feb 2004 09:05:00"
//   Shell.Bench(sim, command)  appends command to \<sim>.cmd on the device disk
//   Shell.Resources            what the process holds: "handles=N private=BYTES gdi=N user=N"
#pragma once

#include <windows.h>
#include <oaidl.h>

#include <string>
#include <vector>

class ShellRun;

class ShellObject final : public IDispatch
{
public:
    // vbscriptText: booleans are echoed as VBScript writes them (True/False).
    ShellObject(ShellRun& run, std::vector<std::wstring> arguments, bool vbscriptText);
    ~ShellObject() = default;
    ShellObject(const ShellObject&) = delete;
    ShellObject& operator=(const ShellObject&) = delete;

    // IUnknown
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    // IDispatch
    STDMETHODIMP GetTypeInfoCount(UINT* count) override;
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo** info) override;
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override;
    STDMETHODIMP Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                        EXCEPINFO* exception, UINT* badArg) override;

private:
    // Each member's work; a failure fills error and returns its code.
    HRESULT Echo(const DISPPARAMS& params, std::wstring& error);
    HRESULT Sleep(const DISPPARAMS& params, std::wstring& error);
    HRESULT Quit(const DISPPARAMS& params, std::wstring& error);
    HRESULT Argument(const DISPPARAMS& params, VARIANT* result, std::wstring& error);
    HRESULT Bench(const DISPPARAMS& params, std::wstring& error);

    // The text of a script value, as the script would write it.
    std::wstring Text(const VARIANT& value) const;

    ShellRun& m_run;
    std::vector<std::wstring> m_arguments;
    bool m_vbscriptText;
    LONG m_refs = 1;
};
