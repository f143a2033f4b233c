#include "shell/ScriptHost.h"

#include "shell/ControlItem.h"
#include "shell/OutputChannel.h"
#include "shell/ShellRun.h"

#include <cstdio>

using Microsoft::WRL::ComPtr;

namespace {

std::wstring Text(BSTR text)
{
    return text != nullptr ? std::wstring(text, SysStringLen(text)) : std::wstring();
}

}  // namespace

ScriptHost::ScriptHost(ShellRun& run, std::wstring scriptName) : m_run(run), m_scriptName(std::move(scriptName))
{
}

ScriptHost::~ScriptHost()
{
    Close();
}

void ScriptHost::AddItem(const std::wstring& name, IUnknown* object)
{
    m_items.push_back({name, object});
}

HRESULT ScriptHost::Start(const wchar_t* engineProgId)
{
    CLSID clsid;
    HRESULT hr = CLSIDFromProgID(engineProgId, &clsid);
    if (SUCCEEDED(hr))
        hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(m_engine.GetAddressOf()));
    if (SUCCEEDED(hr))
        hr = m_engine.As(&m_parser);
    if (SUCCEEDED(hr))
        hr = m_engine->SetScriptSite(this);
    if (SUCCEEDED(hr))
        hr = m_parser->InitNew();
    for (const Item& item : m_items) {
        if (FAILED(hr))
            break;
        hr = m_engine->AddNamedItem(item.name.c_str(), SCRIPTITEM_ISVISIBLE);
    }
    // Started: global code runs as it is parsed.
    if (SUCCEEDED(hr))
        hr = m_engine->SetScriptState(SCRIPTSTATE_STARTED);
    return hr;
}

bool ScriptHost::RunGlobalCode(const std::wstring& code)
{
    m_reported = false;
    EXCEPINFO info{};
    const HRESULT hr = m_parser->ParseScriptText(code.c_str(), nullptr, nullptr, nullptr, 0, 0,
                                                 SCRIPTTEXT_ISVISIBLE, nullptr, &info);
    if (SUCCEEDED(hr))
        return true;
    if (!m_reported) {
        // An error the engine kept to itself.
        Report(info.scode ? info.scode : hr, Text(info.bstrDescription), Text(info.bstrSource), 0, 0);
    }
    SysFreeString(info.bstrSource);
    SysFreeString(info.bstrDescription);
    SysFreeString(info.bstrHelpFile);
    if (!m_run.Ending())
        m_run.FailFatally();
    return false;
}

HRESULT ScriptHost::CallFunction(const wchar_t* name, DISPPARAMS* params, VARIANT* result)
{
    if (!m_engine)
        return E_UNEXPECTED;
    ComPtr<IDispatch> global;
    HRESULT hr = m_engine->GetScriptDispatch(nullptr, global.GetAddressOf());
    if (FAILED(hr))
        return hr;
    DISPID id = DISPID_UNKNOWN;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    if (FAILED(global->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id)))
        return S_FALSE;

    ++m_functionDepth;
    const bool outerReported = m_reported;
    m_reported = false;
    EXCEPINFO info{};
    UINT badArg = 0;
    hr = global->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, params, result, &info, &badArg);
    if (FAILED(hr) && !m_reported) {
        if (hr == DISP_E_EXCEPTION && info.pfnDeferredFillIn != nullptr)
            info.pfnDeferredFillIn(&info);
        const HRESULT code = hr == DISP_E_EXCEPTION && info.scode ? info.scode : hr;
        Report(code, Text(info.bstrDescription), Text(info.bstrSource), 0, 0);
    }
    SysFreeString(info.bstrSource);
    SysFreeString(info.bstrDescription);
    SysFreeString(info.bstrHelpFile);
    --m_functionDepth;
    m_reported = outerReported;
    return hr;
}

void ScriptHost::Close()
{
    if (m_engine) {
        m_engine->Close();
        m_parser.Reset();
        m_engine.Reset();
    }
    m_items.clear();
}

void ScriptHost::Report(HRESULT code, const std::wstring& message, const std::wstring& source, long line,
                        long column)
{
    m_reported = true;
    if (code == kShellEnding || m_run.Ending())
        return;  // Shell.Quit or the time limit unwinding the script
    std::wstring text = message;
    if (text.empty()) {
        // Some engines leave the description out: the error's own text, and
        // for a script that did not compile, say so.
        wchar_t number[16];
        swprintf(number, 16, L"0x%08lX", static_cast<unsigned long>(code));
        const bool compile = source.find(L"compilation") != std::wstring::npos;
        text = (compile ? std::wstring(L"Syntax error") : ErrorText(code)) + L" (" + number + L")";
    }
    std::wstring where = m_scriptName;
    if (line > 0)
        where += L":" + std::to_wstring(line) + L":" + std::to_wstring(column);
    StdErr().WriteLine(where + L": " + text);
    if (m_functionDepth > 0)
        m_run.CountHandlerError();
    else
        m_run.FailFatally();
}

// IUnknown: the host lives as long as the shell's run, longer than the engine.

STDMETHODIMP ScriptHost::QueryInterface(REFIID riid, void** ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IActiveScriptSite) {
        *ppv = static_cast<IActiveScriptSite*>(this);
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) ScriptHost::AddRef()
{
    return 2;
}

STDMETHODIMP_(ULONG) ScriptHost::Release()
{
    return 1;
}

// IActiveScriptSite

STDMETHODIMP ScriptHost::GetLCID(LCID* plcid)
{
    return E_NOTIMPL;
}

STDMETHODIMP ScriptHost::GetItemInfo(LPCOLESTR name, DWORD mask, IUnknown** item, ITypeInfo** typeInfo)
{
    if (item != nullptr)
        *item = nullptr;
    if (typeInfo != nullptr)
        *typeInfo = nullptr;
    for (const Item& entry : m_items) {
        if (_wcsicmp(entry.name.c_str(), name) != 0)
            continue;
        if ((mask & SCRIPTINFO_IUNKNOWN) && item != nullptr) {
            *item = entry.object.Get();
            (*item)->AddRef();
        }
        if ((mask & SCRIPTINFO_ITYPEINFO) && typeInfo != nullptr) {
            ComPtr<IDispatch> dispatch;
            if (SUCCEEDED(entry.object.As(&dispatch)))
                dispatch->GetTypeInfo(0, LOCALE_USER_DEFAULT, typeInfo);
            if (*typeInfo == nullptr && !(mask & SCRIPTINFO_IUNKNOWN))
                return TYPE_E_ELEMENTNOTFOUND;
        }
        return S_OK;
    }
    return TYPE_E_ELEMENTNOTFOUND;
}

STDMETHODIMP ScriptHost::GetDocVersionString(BSTR* version)
{
    return E_NOTIMPL;
}

STDMETHODIMP ScriptHost::OnScriptTerminate(const VARIANT*, const EXCEPINFO*)
{
    return S_OK;
}

STDMETHODIMP ScriptHost::OnStateChange(SCRIPTSTATE)
{
    return S_OK;
}

STDMETHODIMP ScriptHost::OnScriptError(IActiveScriptError* error)
{
    EXCEPINFO info{};
    error->GetExceptionInfo(&info);
    if (info.pfnDeferredFillIn != nullptr)
        info.pfnDeferredFillIn(&info);
    DWORD context = 0;
    ULONG line = 0;
    LONG column = 0;
    const bool placed = SUCCEEDED(error->GetSourcePosition(&context, &line, &column));
    Report(info.scode, Text(info.bstrDescription), Text(info.bstrSource), placed ? static_cast<long>(line) + 1 : 0,
           placed ? column + 1 : 0);
    SysFreeString(info.bstrSource);
    SysFreeString(info.bstrDescription);
    SysFreeString(info.bstrHelpFile);
    return S_OK;
}

STDMETHODIMP ScriptHost::OnEnterScript()
{
    return S_OK;
}

STDMETHODIMP ScriptHost::OnLeaveScript()
{
    return S_OK;
}
