// The connection point for the control's outgoing event interface, and the
// container that hands it out. Sinks sit in a growable array of slots: a new
// sink takes the first free slot and its cookie is the slot index plus one;
// an unadvised sink leaves an empty slot behind.
#pragma once

#include <windows.h>
#include <ocidl.h>

#include <vector>

class CEventConnectionPoint final : public IConnectionPoint
{
public:
    // owner: the container's controlling unknown (AddRef/Release go to it).
    // lock: the owner's object lock, held only while the slot array is touched.
    CEventConnectionPoint(IConnectionPointContainer* owner, REFIID iid, CRITICAL_SECTION* lock);
    ~CEventConnectionPoint();

    // IUnknown: identity of its own for IConnectionPoint, lifetime of the owner.
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;

    // IConnectionPoint
    STDMETHODIMP GetConnectionInterface(IID* piid) override;
    STDMETHODIMP GetConnectionPointContainer(IConnectionPointContainer** ppCPC) override;
    STDMETHODIMP Advise(IUnknown* sink, DWORD* cookie) override;
    STDMETHODIMP Unadvise(DWORD cookie) override;
    STDMETHODIMP EnumConnections(IEnumConnections** ppEnum) override;

    // For the firing code: the number of slots (read once per event), and the
    // sink in a slot, AddRef'd, or null for an empty or vanished slot.
    int SlotCount();
    IDispatch* SinkAt(int index);

    // Drops every sink (the owner is going away).
    void UnadviseAll();

private:
    IConnectionPointContainer* m_pOwner;
    IID m_iid;
    CRITICAL_SECTION* m_pLock;
    std::vector<IDispatch*> m_sinks;
};

// Enumerator over the one connection point of a container.
HRESULT CreateConnectionPointEnum(IConnectionPoint* point, IEnumConnectionPoints** ppEnum);
