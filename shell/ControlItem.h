// The script's "Brennock" object: the control's own dispatch interface,
// passed through, with two additions. A failed call reaches the script as an
// exception that carries its code and a text naming the member and the error
// (the control itself reports failures by HRESULT alone), and the shell
// learns whether the script left the control open.
#pragma once

#include <windows.h>
#include <oaidl.h>
#include <wrl/client.h>

#include <string>

class ControlItem final : public IDispatch
{
public:
    explicit ControlItem(IDispatch* control);
    ~ControlItem() = default;
    ControlItem(const ControlItem&) = delete;
    ControlItem& operator=(const ControlItem&) = delete;

    // The script called Open and has not called Close since.
    bool LeftOpen() const { return m_open; }

    // The text of a failed call: "Brennock.TimerStart: Type mismatch (0x80020005)".
    std::wstring FailureText(DISPID id, HRESULT hr) const;

    // IUnknown
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    // IDispatch
    STDMETHODIMP GetTypeInfoCount(UINT* count) override;
    STDMETHODIMP GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info) override;
    STDMETHODIMP GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID lcid, DISPID* ids) override;
    STDMETHODIMP Invoke(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params, VARIANT* result,
                        EXCEPINFO* exception, UINT* badArg) override;

private:
    Microsoft::WRL::ComPtr<IDispatch> m_control;
    DISPID m_openId = DISPID_UNKNOWN;
    DISPID m_closeId = DISPID_UNKNOWN;
    bool m_open = false;
    LONG m_refs = 1;
};

// A short text for an error code, without its number.
std::wstring ErrorText(HRESULT hr);
