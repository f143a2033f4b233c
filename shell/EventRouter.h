// Receives the control's events on its connection point and calls the
// script's handler for each: event X goes to the script's function
// Brennock_X with the event's arguments in their declared order. An event
// the script has no handler for is dropped. Events that ask for a result
// (SessionEnded and the like) get the handler's return value as a long.
//
// The event interface and its names are read from the control's type
// information (its class's default source interface), not compiled in.
#pragma once

#include <windows.h>
#include <oaidl.h>
#include <ocidl.h>
#include <wrl/client.h>

#include <map>
#include <string>

class ScriptHost;
class ShellRun;

class EventRouter final : public IDispatch
{
public:
    EventRouter(ShellRun& run, ScriptHost& script);
    ~EventRouter() = default;
    EventRouter(const EventRouter&) = delete;
    EventRouter& operator=(const EventRouter&) = delete;

    // Learns the control's events from its class information.
    HRESULT ReadEvents(IUnknown* control);
    // Connects to the control's event connection point (after ReadEvents).
    HRESULT Advise(IUnknown* control);
    // Disconnects; no event reaches the script afterwards.
    void Unadvise();

    // The event's name for a dispatch id, empty if unknown.
    std::wstring EventName(DISPID id) const;
    size_t EventCount() const { return m_names.size(); }

    // IUnknown
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    // IDispatch
    STDMETHODIMP GetTypeInfoCount(UINT* count) override;
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo** info) override;
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override;
    STDMETHODIMP Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                        EXCEPINFO*, UINT*) override;

private:
    ShellRun& m_run;
    ScriptHost& m_script;
    IID m_eventsIid = IID_NULL;
    std::map<DISPID, std::wstring> m_names;
    Microsoft::WRL::ComPtr<IConnectionPoint> m_point;
    DWORD m_cookie = 0;
    LONG m_refs = 1;
};
