#include "tests/support/ControlTestKit.h"

#include <algorithm>

#include <cstdlib>

#include "control/Module.h"

STDMETHODIMP RecordingSink::QueryInterface(REFIID riid, void** ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    const bool ours = riid == IID_IUnknown || riid == IID_IDispatch || (answerEventsIid && riid == DIID__IBrennockEvents);
    *ppv = ours ? static_cast<IDispatch*>(this) : nullptr;
    return ours ? (AddRef(), S_OK) : E_NOINTERFACE;
}

STDMETHODIMP RecordingSink::Invoke(DISPID id, REFIID, LCID lcid, WORD flags, DISPPARAMS* params,
                                   VARIANT* result, EXCEPINFO*, UINT*)
{
    ReceivedEvent e;
    e.id = id;
    e.resultRequested = (result != nullptr);
    for (UINT i = 0; params != nullptr && i < params->cArgs; ++i) {
        VARIANT copy;
        VariantInit(&copy);
        VariantCopy(&copy, &params->rgvarg[i]);
        e.args.push_back(copy);
    }
    events.push_back(std::move(e));
    lastLcid = lcid;
    lastFlags = flags;
    if (result != nullptr) {
        result->vt = VT_I4;
        result->lVal = resultValue;
    }
    if (onEvent)
        onEvent(id);
    return S_OK;
}

ComPtr<IBrennock> CreateLocalControl()
{
    BrennockModule::Init(GetModuleHandleW(nullptr));
    ComPtr<IBrennock> control;
    CBrennock::CreateInstance(nullptr, IID_PPV_ARGS(control.GetAddressOf()));
    return control;
}

ComPtr<IBrennock> CreateRegisteredControl()
{
    ComPtr<IBrennock> control;
    CoCreateInstance(CLSID_Brennock, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(control.GetAddressOf()));
    return control;
}

namespace {
ComPtr<IConnectionPoint> EventsPoint(IUnknown* control)
{
    ComPtr<IConnectionPointContainer> cpc;
    ComPtr<IConnectionPoint> cp;
    if (SUCCEEDED(control->QueryInterface(IID_PPV_ARGS(cpc.GetAddressOf()))))
        cpc->FindConnectionPoint(DIID__IBrennockEvents, cp.GetAddressOf());
    return cp;
}
}  // namespace

DWORD AdviseSink(IUnknown* control, IUnknown* sink)
{
    DWORD cookie = 0;
    ComPtr<IConnectionPoint> cp = EventsPoint(control);
    return cp && SUCCEEDED(cp->Advise(sink, &cookie)) ? cookie : 0;
}

void UnadviseSink(IUnknown* control, DWORD cookie)
{
    if (ComPtr<IConnectionPoint> cp = EventsPoint(control))
        cp->Unadvise(cookie);
}

std::wstring WindowsPathFromEnv(const wchar_t* variable)
{
    // The runner passes Unix paths; drive Z: is the Unix root.
    const wchar_t* unixPath = _wgetenv(variable);
    if (unixPath == nullptr)
        return L"";
    std::wstring path = L"Z:";
    for (const wchar_t* p = unixPath; *p; ++p)
        path += (*p == L'/') ? L'\\' : *p;
    return path;
}

std::string ReadFileBytes(const std::wstring& path)
{
    std::string bytes;
    HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    char buffer[4096];
    for (DWORD got = 0; h != INVALID_HANDLE_VALUE && ReadFile(h, buffer, sizeof(buffer), &got, nullptr) && got > 0;)
        bytes.append(buffer, got);
    if (h != INVALID_HANDLE_VALUE)
        CloseHandle(h);
    return bytes;
}

size_t AssertLines()
{
    const std::string text = ReadFileBytes(L"\\Hard Disk\\asserts.txt");
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

HRESULT ScriptObject::Invoke(const wchar_t* name, WORD flags, std::vector<VARIANT> args, VARIANT* result)
{
    DISPID id = DISPID_UNKNOWN;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    HRESULT hr = m_object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
    if (SUCCEEDED(hr)) {
        std::vector<VARIANT> reversed(args.rbegin(), args.rend());
        DISPID putId = DISPID_PROPERTYPUT;
        DISPPARAMS params = {reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
        if (flags == DISPATCH_PROPERTYPUT) {
            params.rgdispidNamedArgs = &putId;
            params.cNamedArgs = 1;
        }
        EXCEPINFO excep = {};
        hr = m_object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result, &excep, nullptr);
        SysFreeString(excep.bstrSource), SysFreeString(excep.bstrDescription), SysFreeString(excep.bstrHelpFile);
        if (hr == DISP_E_EXCEPTION && excep.scode != 0)
            hr = excep.scode;
    }
    for (auto& v : args)
        VariantClear(&v);
    return hr;
}
