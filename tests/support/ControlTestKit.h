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
    ComApartment() { m_hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED); }
    ~ComApartment()
    {
        if (SUCCEEDED(m_hr))
            CoUninitialize();
    }
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
    RecordingSink() = default;
    ~RecordingSink();

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP GetTypeInfoCount(UINT* pctinfo) override;
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override;
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override;
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
CBrennock* AsControl(IBrennock* p);

ComPtr<IBrennock> CreateRegisteredControl();

DWORD AdviseSink(IUnknown* control, IUnknown* sink);
void UnadviseSink(IUnknown* control, DWORD cookie);

std::wstring BuiltDllPath();
// The Unix path in an environment variable, in Windows form (empty if unset).
std::wstring WindowsPathFromEnv(const wchar_t* variable);

std::wstring DiskPath(const wchar_t* relative);

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
    HRESULT Call(const wchar_t* name, std::vector<VARIANT> args = {}, VARIANT* result = nullptr);
    HRESULT Get(const wchar_t* name, VARIANT* result);
    HRESULT Put(const wchar_t* name, VARIANT value);

    static VARIANT I2(short v);
    static VARIANT I4(long v);
    static VARIANT R8(double v);
    static VARIANT Str(const wchar_t* s);

private:
    HRESULT Invoke(const wchar_t* name, WORD flags, std::vector<VARIANT>& args, VARIANT* result);
    ComPtr<IDispatch> m_object;
};
