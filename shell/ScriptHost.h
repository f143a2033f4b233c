// The script engine's site: loads one script into a Windows Script engine
// (JScript or VBScript), gives it its named items, runs its global code,
// calls its functions by name, and reports its errors as FILE:LINE:COLUMN.
#pragma once

#include <windows.h>
#include <activscp.h>
#include <wrl/client.h>

#include <string>
#include <vector>

class ShellRun;

class ScriptHost final : public IActiveScriptSite
{
public:
    // scriptName is how errors name the file.
    ScriptHost(ShellRun& run, std::wstring scriptName);
    ~ScriptHost();
    ScriptHost(const ScriptHost&) = delete;
    ScriptHost& operator=(const ScriptHost&) = delete;

    // Creates the engine ("JScript", "VBScript") and adds the visible named
    // items given so far. Fails with the engine's result.
    HRESULT Start(const wchar_t* engineProgId);
    // A named item the script sees as a global object (before Start).
    void AddItem(const std::wstring& name, IUnknown* object);

    // Runs the script's global code; false when it did not run to its end
    // because of an error (already reported).
    bool RunGlobalCode(const std::wstring& code);

    // Calls the script's global function name with params (in IDispatch
    // order, last argument first). S_FALSE when the script has no such
    // function. An error inside is reported and counted as a handler error.
    HRESULT CallFunction(const wchar_t* name, DISPPARAMS* params, VARIANT* result);

    // Closes the engine; the script runs no more.
    void Close();

    // IUnknown
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    // IActiveScriptSite
    STDMETHODIMP GetLCID(LCID* plcid) override;
    STDMETHODIMP GetItemInfo(LPCOLESTR name, DWORD mask, IUnknown** item, ITypeInfo** typeInfo) override;
    STDMETHODIMP GetDocVersionString(BSTR* version) override;
    STDMETHODIMP OnScriptTerminate(const VARIANT* result, const EXCEPINFO* info) override;
    STDMETHODIMP OnStateChange(SCRIPTSTATE state) override;
    STDMETHODIMP OnScriptError(IActiveScriptError* error) override;
    STDMETHODIMP OnEnterScript() override;
    STDMETHODIMP OnLeaveScript() override;

private:
    struct Item
    {
        std::wstring name;
        Microsoft::WRL::ComPtr<IUnknown> object;
    };

    // Reports one error unless it is the script ending on purpose; counts it.
    void Report(HRESULT code, const std::wstring& message, const std::wstring& source, long line, long column);

    ShellRun& m_run;
    std::wstring m_scriptName;
    std::vector<Item> m_items;
    Microsoft::WRL::ComPtr<IActiveScript> m_engine;
    Microsoft::WRL::ComPtr<IActiveScriptParse> m_parser;
    int m_functionDepth = 0;   // > 0 while a function called by the shell runs
    bool m_reported = false;   // the engine reported the last error itself
};
