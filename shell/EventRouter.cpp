#include "shell/EventRouter.h"

#include "shell/ScriptHost.h"
#include "shell/ShellRun.h"

#include <ocidl.h>

#include <vector>

using Microsoft::WRL::ComPtr;

EventRouter::EventRouter(ShellRun& run, ScriptHost& script) : m_run(run), m_script(script)
{
}

HRESULT EventRouter::ReadEvents(IUnknown* control)
{
    ComPtr<IProvideClassInfo> provider;
    HRESULT hr = control->QueryInterface(IID_PPV_ARGS(provider.GetAddressOf()));
    ComPtr<ITypeInfo> coclass;
    if (SUCCEEDED(hr))
        hr = provider->GetClassInfo(coclass.GetAddressOf());
    TYPEATTR* attr = nullptr;
    if (SUCCEEDED(hr))
        hr = coclass->GetTypeAttr(&attr);
    if (FAILED(hr))
        return hr;
    const UINT implCount = attr->cImplTypes;
    coclass->ReleaseTypeAttr(attr);

    // The class's default source interface.
    ComPtr<ITypeInfo> events;
    for (UINT i = 0; i < implCount && !events; ++i) {
        INT implFlags = 0;
        HREFTYPE ref = 0;
        if (FAILED(coclass->GetImplTypeFlags(i, &implFlags)))
            continue;
        const INT wanted = IMPLTYPEFLAG_FDEFAULT | IMPLTYPEFLAG_FSOURCE;
        if ((implFlags & wanted) == wanted && SUCCEEDED(coclass->GetRefTypeOfImplType(i, &ref)))
            coclass->GetRefTypeInfo(ref, events.GetAddressOf());
    }
    if (!events)
        return TYPE_E_ELEMENTNOTFOUND;  // no event interface
    hr = events->GetTypeAttr(&attr);
    if (FAILED(hr))
        return hr;
    m_eventsIid = attr->guid;
    const UINT funcCount = attr->cFuncs;
    events->ReleaseTypeAttr(attr);

    m_names.clear();
    for (UINT i = 0; i < funcCount; ++i) {
        FUNCDESC* func = nullptr;
        if (FAILED(events->GetFuncDesc(i, &func)))
            continue;
        const MEMBERID id = func->memid;
        events->ReleaseFuncDesc(func);
        BSTR name = nullptr;
        UINT found = 0;
        if (SUCCEEDED(events->GetNames(id, &name, 1, &found)) && found == 1 && name != nullptr)
            m_names[id] = name;
        SysFreeString(name);
    }
    return S_OK;
}

HRESULT EventRouter::Advise(IUnknown* control)
{
    ComPtr<IConnectionPointContainer> container;
    HRESULT hr = control->QueryInterface(IID_PPV_ARGS(container.GetAddressOf()));
    if (SUCCEEDED(hr))
        hr = container->FindConnectionPoint(m_eventsIid, m_point.GetAddressOf());
    if (SUCCEEDED(hr))
        hr = m_point->Advise(static_cast<IDispatch*>(this), &m_cookie);
    if (FAILED(hr))
        m_point.Reset();
    return hr;
}

void EventRouter::Unadvise()
{
    if (m_point) {
        m_point->Unadvise(m_cookie);
        m_point.Reset();
        m_cookie = 0;
    }
}

std::wstring EventRouter::EventName(DISPID id) const
{
    const auto it = m_names.find(id);
    return it == m_names.end() ? std::wstring() : it->second;
}

// IUnknown

STDMETHODIMP EventRouter::QueryInterface(REFIID riid, void** ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IDispatch || (riid == m_eventsIid && riid != IID_NULL)) {
        *ppv = static_cast<IDispatch*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) EventRouter::AddRef()
{
    return static_cast<ULONG>(InterlockedIncrement(&m_refs));
}

STDMETHODIMP_(ULONG) EventRouter::Release()
{
    const LONG left = InterlockedDecrement(&m_refs);
    if (left == 0)
        delete this;
    return static_cast<ULONG>(left);
}

// IDispatch

STDMETHODIMP EventRouter::GetTypeInfoCount(UINT* count)
{
    if (count == nullptr)
        return E_POINTER;
    *count = 0;
    return S_OK;
}

STDMETHODIMP EventRouter::GetTypeInfo(UINT, LCID, ITypeInfo** info)
{
    if (info != nullptr)
        *info = nullptr;
    return DISP_E_BADINDEX;
}

STDMETHODIMP EventRouter::GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*)
{
    return E_NOTIMPL;
}

STDMETHODIMP EventRouter::Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT* result,
                                 EXCEPINFO*, UINT*)
{
    if (result != nullptr)
        VariantInit(result);
    const std::wstring name = EventName(id);
    if (name.empty())
        return DISP_E_MEMBERNOTFOUND;
    if (m_run.Ending())
        return S_OK;  // the script is done with events

    // The handler gets copies: the script may keep or change its arguments.
    const UINT count = params != nullptr ? params->cArgs : 0;
    std::vector<VARIANT> args(count);
    for (UINT i = 0; i < count; ++i) {
        VariantInit(&args[i]);
        VariantCopyInd(&args[i], &params->rgvarg[i]);
    }
    DISPPARAMS call{count ? args.data() : nullptr, nullptr, count, 0};
    VARIANT answer;
    VariantInit(&answer);
    const std::wstring handler = L"Brennock_" + name;
    m_script.CallFunction(handler.c_str(), &call, &answer);
    for (VARIANT& v : args)
        VariantClear(&v);

    if (result != nullptr) {
        // The handler's value as a long; nothing (or nothing convertible) is 0.
        result->vt = VT_I4;
        result->lVal = 0;
        VARIANT asLong;
        VariantInit(&asLong);
        if (answer.vt != VT_EMPTY && SUCCEEDED(VariantChangeType(&asLong, &answer, 0, VT_I4)))
            result->lVal = asLong.lVal;
        VariantClear(&asLong);
    }
    VariantClear(&answer);
    return S_OK;
}
