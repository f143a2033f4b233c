#include "control/Module.h"

#include "control/Brennock.h"
#include "control/Guids.h"

#include <new>

namespace {

HINSTANCE g_instance = nullptr;
LONG g_lockCount = 0;
CRITICAL_SECTION g_factoryLock;
bool g_initialised = false;

// One class factory per creatable class; ours has one class.
class CClassFactory final : public IClassFactory
{
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
    {
        if (ppv == nullptr)
            return E_POINTER;
        if (riid == IID_IUnknown || riid == IID_IClassFactory) {
            *ppv = static_cast<IClassFactory*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    // The factory lives as long as the module; its references hold the module.
    STDMETHODIMP_(ULONG) AddRef() override
    {
        BrennockModule::Lock();
        return 2;
    }
    STDMETHODIMP_(ULONG) Release() override
    {
        BrennockModule::Unlock();
        return 1;
    }
    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override
    {
        return CBrennock::CreateInstance(outer, riid, ppv);
    }
    STDMETHODIMP LockServer(BOOL lock) override
    {
        if (lock)
            BrennockModule::Lock();
        else
            BrennockModule::Unlock();
        return S_OK;
    }
};

CClassFactory* g_factory = nullptr;

struct ObjectEntry
{
    const CLSID* clsid;
};
const ObjectEntry kObjectTable[] = {{&CLSID_Brennock}};

}  // namespace

namespace BrennockModule {

void Init(HINSTANCE instance)
{
    if (g_initialised)
        return;
    g_instance = instance;
    InitializeCriticalSection(&g_factoryLock);
    g_initialised = true;
}

void Term()
{
    if (!g_initialised)
        return;
    delete g_factory;
    g_factory = nullptr;
    DeleteCriticalSection(&g_factoryLock);
    g_initialised = false;
}

HINSTANCE Instance()
{
    return g_instance;
}

void Lock()
{
    InterlockedIncrement(&g_lockCount);
}

void Unlock()
{
    InterlockedDecrement(&g_lockCount);
}

LONG LockCount()
{
    return InterlockedCompareExchange(&g_lockCount, 0, 0);
}

HRESULT GetClassObject(REFCLSID clsid, REFIID riid, void** ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    *ppv = nullptr;
    bool known = false;
    for (const ObjectEntry& e : kObjectTable)
        known = known || (*e.clsid == clsid);
    if (!known || !g_initialised)
        return CLASS_E_CLASSNOTAVAILABLE;

    EnterCriticalSection(&g_factoryLock);
    if (g_factory == nullptr)
        g_factory = new (std::nothrow) CClassFactory();
    CClassFactory* factory = g_factory;
    LeaveCriticalSection(&g_factoryLock);
    if (factory == nullptr)
        return E_OUTOFMEMORY;
    return factory->QueryInterface(riid, ppv);
}

bool ModulePath(wchar_t* path, DWORD chars)
{
    DWORD n = GetModuleFileNameW(g_instance, path, chars);
    return n != 0 && n < chars;
}

}  // namespace BrennockModule
