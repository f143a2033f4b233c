#include "control/ConnectionPoint.h"

#include <olectl.h>

#include <new>
#include <utility>

namespace {

// Snapshot enumerator over CONNECTDATA; holds a reference to each sink.
class CEnumConnections final : public IEnumConnections
{
public:
    explicit CEnumConnections(std::vector<CONNECTDATA> items, size_t pos = 0)
        : m_items(std::move(items)), m_pos(pos)
    {
        for (auto& c : m_items)
            c.pUnk->AddRef();
    }
    ~CEnumConnections()
    {
        for (auto& c : m_items)
            c.pUnk->Release();
    }

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
    {
        if (ppv == nullptr)
            return E_POINTER;
        if (riid == IID_IUnknown || riid == IID_IEnumConnections) {
            *ppv = static_cast<IEnumConnections*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return InterlockedIncrement(&m_refs); }
    STDMETHODIMP_(ULONG) Release() override
    {
        LONG n = InterlockedDecrement(&m_refs);
        if (n == 0)
            delete this;
        return n;
    }
    STDMETHODIMP Next(ULONG count, CONNECTDATA* out, ULONG* fetched) override
    {
        if (out == nullptr || (count > 1 && fetched == nullptr))
            return E_POINTER;
        ULONG got = 0;
        while (got < count && m_pos < m_items.size()) {
            out[got] = m_items[m_pos++];
            out[got].pUnk->AddRef();
            ++got;
        }
        if (fetched)
            *fetched = got;
        return got == count ? S_OK : S_FALSE;
    }
    STDMETHODIMP Skip(ULONG count) override
    {
        size_t left = m_items.size() - m_pos;
        if (count > left) {
            m_pos = m_items.size();
            return S_FALSE;
        }
        m_pos += count;
        return S_OK;
    }
    STDMETHODIMP Reset() override
    {
        m_pos = 0;
        return S_OK;
    }
    STDMETHODIMP Clone(IEnumConnections** ppEnum) override
    {
        if (ppEnum == nullptr)
            return E_POINTER;
        *ppEnum = new (std::nothrow) CEnumConnections(m_items, m_pos);
        return *ppEnum ? S_OK : E_OUTOFMEMORY;
    }

private:
    LONG m_refs = 1;
    std::vector<CONNECTDATA> m_items;
    size_t m_pos;
};

class CEnumConnectionPoints final : public IEnumConnectionPoints
{
public:
    CEnumConnectionPoints(IConnectionPoint* point, size_t pos) : m_point(point), m_pos(pos)
    {
        m_point->AddRef();
    }
    ~CEnumConnectionPoints() { m_point->Release(); }

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
    {
        if (ppv == nullptr)
            return E_POINTER;
        if (riid == IID_IUnknown || riid == IID_IEnumConnectionPoints) {
            *ppv = static_cast<IEnumConnectionPoints*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return InterlockedIncrement(&m_refs); }
    STDMETHODIMP_(ULONG) Release() override
    {
        LONG n = InterlockedDecrement(&m_refs);
        if (n == 0)
            delete this;
        return n;
    }
    STDMETHODIMP Next(ULONG count, IConnectionPoint** out, ULONG* fetched) override
    {
        if (out == nullptr || (count > 1 && fetched == nullptr))
            return E_POINTER;
        ULONG got = 0;
        if (count > 0 && m_pos == 0) {
            out[0] = m_point;
            m_point->AddRef();
            m_pos = 1;
            got = 1;
        }
        if (fetched)
            *fetched = got;
        return got == count ? S_OK : S_FALSE;
    }
    STDMETHODIMP Skip(ULONG count) override
    {
        if (count == 0)
            return S_OK;
        bool ok = (m_pos == 0 && count == 1);
        m_pos = 1;
        return ok ? S_OK : S_FALSE;
    }
    STDMETHODIMP Reset() override
    {
        m_pos = 0;
        return S_OK;
    }
    STDMETHODIMP Clone(IEnumConnectionPoints** ppEnum) override
    {
        if (ppEnum == nullptr)
            return E_POINTER;
        *ppEnum = new (std::nothrow) CEnumConnectionPoints(m_point, m_pos);
        return *ppEnum ? S_OK : E_OUTOFMEMORY;
    }

private:
    LONG m_refs = 1;
    IConnectionPoint* m_point;
    size_t m_pos;
};

}  // namespace

HRESULT CreateConnectionPointEnum(IConnectionPoint* point, IEnumConnectionPoints** ppEnum)
{
    if (ppEnum == nullptr)
        return E_POINTER;
    *ppEnum = new (std::nothrow) CEnumConnectionPoints(point, 0);
    return *ppEnum ? S_OK : E_OUTOFMEMORY;
}

CEventConnectionPoint::CEventConnectionPoint(IConnectionPointContainer* owner, REFIID iid,
                                             CRITICAL_SECTION* lock)
    : m_pOwner(owner), m_iid(iid), m_pLock(lock)
{
}

CEventConnectionPoint::~CEventConnectionPoint()
{
    UnadviseAll();
}

STDMETHODIMP CEventConnectionPoint::QueryInterface(REFIID riid, void** ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IConnectionPoint) {
        *ppv = static_cast<IConnectionPoint*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) CEventConnectionPoint::AddRef()
{
    return m_pOwner->AddRef();
}

STDMETHODIMP_(ULONG) CEventConnectionPoint::Release()
{
    return m_pOwner->Release();
}

STDMETHODIMP CEventConnectionPoint::GetConnectionInterface(IID* piid)
{
    if (piid == nullptr)
        return E_POINTER;
    *piid = m_iid;
    return S_OK;
}

STDMETHODIMP CEventConnectionPoint::GetConnectionPointContainer(IConnectionPointContainer** ppCPC)
{
    if (ppCPC == nullptr)
        return E_POINTER;
    *ppCPC = m_pOwner;
    m_pOwner->AddRef();
    return S_OK;
}

STDMETHODIMP CEventConnectionPoint::Advise(IUnknown* sink, DWORD* cookie)
{
    if (cookie != nullptr)
        *cookie = 0;
    if (sink == nullptr || cookie == nullptr)
        return E_POINTER;

    IDispatch* disp = nullptr;
    if (FAILED(sink->QueryInterface(m_iid, reinterpret_cast<void**>(&disp))) || disp == nullptr)
        return CONNECT_E_CANNOTCONNECT;

    EnterCriticalSection(m_pLock);
    size_t slot = 0;
    while (slot < m_sinks.size() && m_sinks[slot] != nullptr)
        ++slot;
    bool stored = true;
    if (slot == m_sinks.size()) {
        try {
            m_sinks.push_back(disp);
        } catch (...) {
            stored = false;
        }
    } else {
        m_sinks[slot] = disp;
    }
    LeaveCriticalSection(m_pLock);

    if (!stored) {
        disp->Release();
        return E_OUTOFMEMORY;
    }
    *cookie = static_cast<DWORD>(slot + 1);
    return S_OK;
}

STDMETHODIMP CEventConnectionPoint::Unadvise(DWORD cookie)
{
    IDispatch* removed = nullptr;
    EnterCriticalSection(m_pLock);
    if (cookie != 0 && cookie <= m_sinks.size()) {
        removed = m_sinks[cookie - 1];
        m_sinks[cookie - 1] = nullptr;
    }
    LeaveCriticalSection(m_pLock);
    if (removed == nullptr)
        return CONNECT_E_NOCONNECTION;
    removed->Release();
    return S_OK;
}

STDMETHODIMP CEventConnectionPoint::EnumConnections(IEnumConnections** ppEnum)
{
    if (ppEnum == nullptr)
        return E_POINTER;
    *ppEnum = nullptr;
    std::vector<CONNECTDATA> items;
    EnterCriticalSection(m_pLock);
    bool ok = true;
    try {
        for (size_t i = 0; i < m_sinks.size(); ++i)
            if (m_sinks[i] != nullptr)
                items.push_back(CONNECTDATA{m_sinks[i], static_cast<DWORD>(i + 1)});
    } catch (...) {
        ok = false;
    }
    // The enumerator takes its own references while the lock still holds them.
    CEnumConnections* e = ok ? new (std::nothrow) CEnumConnections(std::move(items)) : nullptr;
    LeaveCriticalSection(m_pLock);
    if (e == nullptr)
        return E_OUTOFMEMORY;
    *ppEnum = e;
    return S_OK;
}

int CEventConnectionPoint::SlotCount()
{
    EnterCriticalSection(m_pLock);
    int n = static_cast<int>(m_sinks.size());
    LeaveCriticalSection(m_pLock);
    return n;
}

IDispatch* CEventConnectionPoint::SinkAt(int index)
{
    EnterCriticalSection(m_pLock);
    IDispatch* sink = nullptr;
    if (index >= 0 && static_cast<size_t>(index) < m_sinks.size()) {
        sink = m_sinks[index];
        if (sink)
            sink->AddRef();
    }
    LeaveCriticalSection(m_pLock);
    return sink;
}

void CEventConnectionPoint::UnadviseAll()
{
    std::vector<IDispatch*> old;
    EnterCriticalSection(m_pLock);
    old.swap(m_sinks);
    LeaveCriticalSection(m_pLock);
    for (IDispatch* s : old)
        if (s)
            s->Release();
}
