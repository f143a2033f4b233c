// Pieces the control tests share: COM set-up, a recording event sink, and the
// two ways to get a control (through COM from the registered DLL, or a local
// object built into the test program for reaching its internal sinks).
#pragma once

#include <windows.h>
#include <ole2.h>
#include <wrl/client.h>

#include <functional>
#include <string>
#include <vector>

#include "control/Brennock.h"

using Microsoft::WRL::ComPtr;

// COM in the multithreaded apartment for the life of the object, as the
// device shell runs the control.
class ComApartment
{
public:
    ComApartment() : m_hr(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
    ~ComApartment() { SUCCEEDED(m_hr) ? CoUninitialize() : void(); }
    HRESULT Result() const { return m_hr; }

private:
    HRESULT m_hr;
};

struct ReceivedEvent
{
    DISPID id = 0;
    std::vector<VARIANT> args;  // as delivered: args[0] is the last parameter
    bool resultRequested = false;
};

class RecordingSink final : public IDispatch
{
public:
    ~RecordingSink()
    {
        for (auto& e : events)
            for (auto& v : e.args)
                VariantClear(&v);
    }

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override { return InterlockedIncrement(&refs); }
    // Sinks live on the test's stack; the count only tells who still holds one.
    STDMETHODIMP_(ULONG) Release() override { return InterlockedDecrement(&refs); }
    STDMETHODIMP GetTypeInfoCount(UINT* pctinfo) override { return *pctinfo = 0, S_OK; }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params,
                        VARIANT* result, EXCEPINFO*, UINT*) override;

    std::vector<ReceivedEvent> events;
    LCID lastLcid = 0;
    WORD lastFlags = 0;
    bool answerEventsIid = true;       // QI for the event interface succeeds
    LONG resultValue = 0;              // handed back for events that ask
    std::function<void(DISPID)> onEvent;  // runs inside Invoke, after recording
    LONG refs = 1;
};

// The control object built into this test program, not through COM.
ComPtr<IBrennock> CreateLocalControl();
inline CBrennock* AsControl(IBrennock* p) { return static_cast<CBrennock*>(p); }

ComPtr<IBrennock> CreateRegisteredControl();

DWORD AdviseSink(IUnknown* control, IUnknown* sink);
void UnadviseSink(IUnknown* control, DWORD cookie);

// The Unix path in an environment variable, in Windows form (empty if unset).
std::wstring WindowsPathFromEnv(const wchar_t* variable);
inline std::wstring BuiltDllPath() { return WindowsPathFromEnv(L"BRENNOCK_DLL"); }
inline std::wstring DiskPath(const wchar_t* relative) { return relative; }

// Empty when missing.
std::string ReadFileBytes(const std::wstring& path);

size_t AssertLines();

// A control bound late, by name, as a script binds it.
class ScriptObject
{
public:
    explicit ScriptObject(IDispatch* object) : m_object(object) {}

    // A method, arguments in declaration order. A failure the method raised
    // comes back as its own code.
    HRESULT Call(const wchar_t* name, std::vector<VARIANT> args = {}, VARIANT* result = nullptr)
    {
        return Invoke(name, DISPATCH_METHOD, std::move(args), result);
    }
    HRESULT Get(const wchar_t* name, VARIANT* result) { return Invoke(name, DISPATCH_PROPERTYGET, {}, result); }
    HRESULT Put(const wchar_t* name, VARIANT value) { return Invoke(name, DISPATCH_PROPERTYPUT, {value}, nullptr); }

    static VARIANT I2(short v) { VARIANT r{}; return r.vt = VT_I2, r.iVal = v, r; }
    static VARIANT I4(long v) { VARIANT r{}; return r.vt = VT_I4, r.lVal = v, r; }
    static VARIANT R8(double v) { VARIANT r{}; return r.vt = VT_R8, r.dblVal = v, r; }
    static VARIANT Str(const wchar_t* s) { VARIANT r{}; return r.vt = VT_BSTR, r.bstrVal = SysAllocString(s), r; }

private:
    HRESULT Invoke(const wchar_t* name, WORD flags, std::vector<VARIANT> args, VARIANT* result);
    ComPtr<IDispatch> m_object;
};
