#include "shell/ControlItem.h"

#include <cstdio>

ControlItem::ControlItem(IDispatch* control) : m_control(control)
{
    LPOLESTR open[] = {const_cast<LPOLESTR>(L"Open")};
    LPOLESTR close[] = {const_cast<LPOLESTR>(L"Close")};
    m_control->GetIDsOfNames(IID_NULL, open, 1, LOCALE_USER_DEFAULT, &m_openId);
    m_control->GetIDsOfNames(IID_NULL, close, 1, LOCALE_USER_DEFAULT, &m_closeId);
}

std::wstring ErrorText(HRESULT hr)
{
    // The ones a script meets; the system's message table for the rest.
    switch (hr) {
    case E_FAIL: return L"Unspecified error";
    case E_INVALIDARG: return L"Invalid argument";
    case E_OUTOFMEMORY: return L"Out of memory";
    case DISP_E_TYPEMISMATCH: return L"Type mismatch";
    case DISP_E_BADPARAMCOUNT: return L"Wrong number of arguments";
    case DISP_E_PARAMNOTOPTIONAL: return L"Argument not optional";
    case DISP_E_OVERFLOW: return L"Value out of range";
    case DISP_E_MEMBERNOTFOUND: return L"Member not found";
    case DISP_E_UNKNOWNNAME: return L"Unknown name";
    case DISP_E_NONAMEDARGS: return L"Named arguments not supported";
    case DISP_E_BADVARTYPE: return L"Bad variable type";
    case DISP_E_DIVBYZERO: return L"Division by zero";
    case DISP_E_BADINDEX: return L"Subscript out of range";
    default: break;
    }
    wchar_t* text = nullptr;
    std::wstring out;
    if (FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, static_cast<DWORD>(hr), 0, reinterpret_cast<LPWSTR>(&text), 0, nullptr) &&
        text != nullptr) {
        out = text;
        LocalFree(text);
    }
    while (!out.empty() && (out.back() == L'\n' || out.back() == L'\r' || out.back() == L' ' || out.back() == L'.'))
        out.pop_back();
    return out.empty() ? L"Error" : out;
}

std::wstring ControlItem::FailureText(DISPID id, HRESULT hr) const
{
    std::wstring name = L"member " + std::to_wstring(id);
    Microsoft::WRL::ComPtr<ITypeInfo> info;
    if (SUCCEEDED(m_control->GetTypeInfo(0, LOCALE_USER_DEFAULT, info.GetAddressOf()))) {
        BSTR member = nullptr;
        UINT found = 0;
        if (SUCCEEDED(info->GetNames(id, &member, 1, &found)) && found == 1 && member != nullptr)
            name = member;
        SysFreeString(member);
    }
    wchar_t code[16];
    swprintf(code, 16, L"0x%08lX", static_cast<unsigned long>(hr));
    return L"Brennock." + name + L": " + ErrorText(hr) + L" (" + code + L")";
}

// IUnknown

STDMETHODIMP ControlItem::QueryInterface(REFIID riid, void** ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IDispatch) {
        *ppv = static_cast<IDispatch*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) ControlItem::AddRef()
{
    return static_cast<ULONG>(InterlockedIncrement(&m_refs));
}

STDMETHODIMP_(ULONG) ControlItem::Release()
{
    const LONG left = InterlockedDecrement(&m_refs);
    if (left == 0)
        delete this;
    return static_cast<ULONG>(left);
}

// IDispatch: the control's own, with failures turned into exceptions.

STDMETHODIMP ControlItem::GetTypeInfoCount(UINT* count)
{
    return m_control->GetTypeInfoCount(count);
}

STDMETHODIMP ControlItem::GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info)
{
    return m_control->GetTypeInfo(index, lcid, info);
}

STDMETHODIMP ControlItem::GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID lcid, DISPID* ids)
{
    return m_control->GetIDsOfNames(riid, names, count, lcid, ids);
}

STDMETHODIMP ControlItem::Invoke(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params,
                                 VARIANT* result, EXCEPINFO* exception, UINT* badArg)
{
    const HRESULT hr = m_control->Invoke(id, riid, lcid, flags, params, result, exception, badArg);
    if (SUCCEEDED(hr)) {
        if (id == m_openId)
            m_open = true;
        else if (id == m_closeId)
            m_open = false;
        return hr;
    }
    if (exception == nullptr)
        return hr;
    if (hr == DISP_E_EXCEPTION) {
        // The dispatch layer turned the method's failure into an exception
        // with its code alone; give it the text.
        if (exception->pfnDeferredFillIn != nullptr) {
            exception->pfnDeferredFillIn(exception);
            exception->pfnDeferredFillIn = nullptr;
        }
        if (exception->bstrDescription == nullptr || exception->bstrDescription[0] == L'\0') {
            const HRESULT code = exception->scode != 0 ? exception->scode : E_FAIL;
            SysFreeString(exception->bstrDescription);
            exception->bstrDescription = SysAllocString(FailureText(id, code).c_str());
            exception->scode = code;
            if (exception->bstrSource == nullptr)
                exception->bstrSource = SysAllocString(L"Brennock");
        }
        return hr;
    }
    *exception = EXCEPINFO{};
    exception->scode = hr;
    exception->bstrSource = SysAllocString(L"Brennock");
    exception->bstrDescription = SysAllocString(FailureText(id, hr).c_str());
    return DISP_E_EXCEPTION;
}
