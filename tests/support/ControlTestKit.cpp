#include "tests/support/ControlTestKit.h"

#include <algorithm>

#include <cstdlib>

#include "control/Module.h"

RecordingSink::~RecordingSink()
{
    for (auto& e : events)
        for (auto& v : e.args)
            VariantClear(&v);
}

STDMETHODIMP RecordingSink::QueryInterface(REFIID riid, void** ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IDispatch ||
        (answerEventsIid && riid == DIID__IBrennockEvents)) {
        *ppv = static_cast<IDispatch*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) RecordingSink::AddRef()
{
    return InterlockedIncrement(&refs);
}

STDMETHODIMP_(ULONG) RecordingSink::Release()
{
    // Sinks live on the test's stack; the count only tells who still holds one.
    return InterlockedDecrement(&refs);
}

STDMETHODIMP RecordingSink::GetTypeInfoCount(UINT* pctinfo)
{
    *pctinfo = 0;
    return S_OK;
}

STDMETHODIMP RecordingSink::GetTypeInfo(UINT, LCID, ITypeInfo**)
{
    return E_NOTIMPL;
}

STDMETHODIMP RecordingSink::GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*)
{
    return E_NOTIMPL;
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
    CBrennock::CreateInstance(nullptr, IID_IBrennock, reinterpret_cast<void**>(control.GetAddressOf()));
    return control;
}

CBrennock* AsControl(IBrennock* p)
{
    return static_cast<CBrennock*>(p);
}

ComPtr<IBrennock> CreateRegisteredControl()
{
    ComPtr<IBrennock> control;
    CoCreateInstance(CLSID_Brennock, nullptr, CLSCTX_INPROC_SERVER, IID_IBrennock,
                     reinterpret_cast<void**>(control.GetAddressOf()));
    return control;
}

DWORD AdviseSink(IUnknown* control, IUnknown* sink)
{
    ComPtr<IConnectionPointContainer> cpc;
    ComPtr<IConnectionPoint> cp;
    DWORD cookie = 0;
    if (SUCCEEDED(control->QueryInterface(IID_IConnectionPointContainer,
                                          reinterpret_cast<void**>(cpc.GetAddressOf()))) &&
        SUCCEEDED(cpc->FindConnectionPoint(DIID__IBrennockEvents, cp.GetAddressOf())))
        cp->Advise(sink, &cookie);
    return cookie;
}

void UnadviseSink(IUnknown* control, DWORD cookie)
{
    ComPtr<IConnectionPointContainer> cpc;
    ComPtr<IConnectionPoint> cp;
    if (SUCCEEDED(control->QueryInterface(IID_IConnectionPointContainer,
                                          reinterpret_cast<void**>(cpc.GetAddressOf()))) &&
        SUCCEEDED(cpc->FindConnectionPoint(DIID__IBrennockEvents, cp.GetAddressOf())))
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

std::wstring BuiltDllPath()
{
    return WindowsPathFromEnv(L"BRENNOCK_DLL");
}

std::wstring DiskPath(const wchar_t* relative)
{
    return std::wstring(relative);
}

std::string ReadFileBytes(const std::wstring& path)
{
    std::string bytes;
    HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return bytes;
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(h, buffer, sizeof(buffer), &got, nullptr) && got > 0)
        bytes.append(buffer, got);
    CloseHandle(h);
    return bytes;
}

size_t AssertLines()
{
    const std::string text = ReadFileBytes(L"\\Hard Disk\\asserts.txt");
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

HRESULT ScriptObject::Invoke(const wchar_t* name, WORD flags, std::vector<VARIANT>& args, VARIANT* result)
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
        SysFreeString(excep.bstrSource);
        SysFreeString(excep.bstrDescription);
        SysFreeString(excep.bstrHelpFile);
        if (hr == DISP_E_EXCEPTION && excep.scode != 0)
            hr = excep.scode;
    }
    for (auto& v : args)
        VariantClear(&v);
    return hr;
}

HRESULT ScriptObject::Call(const wchar_t* name, std::vector<VARIANT> args, VARIANT* result)
{
    return Invoke(name, DISPATCH_METHOD, args, result);
}

HRESULT ScriptObject::Get(const wchar_t* name, VARIANT* result)
{
    std::vector<VARIANT> none;
    return Invoke(name, DISPATCH_PROPERTYGET, none, result);
}

HRESULT ScriptObject::Put(const wchar_t* name, VARIANT value)
{
    std::vector<VARIANT> args{value};
    return Invoke(name, DISPATCH_PROPERTYPUT, args, nullptr);
}

VARIANT ScriptObject::I2(short v)
{
    VARIANT r;
    VariantInit(&r);
    r.vt = VT_I2;
    r.iVal = v;
    return r;
}

VARIANT ScriptObject::I4(long v)
{
    VARIANT r;
    VariantInit(&r);
    r.vt = VT_I4;
    r.lVal = v;
    return r;
}

VARIANT ScriptObject::R8(double v)
{
    VARIANT r;
    VariantInit(&r);
    r.vt = VT_R8;
    r.dblVal = v;
    return r;
}

VARIANT ScriptObject::Str(const wchar_t* s)
{
    VARIANT r;
    VariantInit(&r);
    r.vt = VT_BSTR;
    r.bstrVal = SysAllocString(s);
    return r;
}
