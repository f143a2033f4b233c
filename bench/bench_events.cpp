// Event throughput through the control's connection point: how many events
// per second reach one and four IDispatch sinks when a manager raises them
// through its internal sink.
//
//   scripts/bench            (runs every benchmark)
#include <windows.h>
#include <ole2.h>

#include <cstdio>

#include "control/Brennock.h"
#include "control/Module.h"

namespace {

class CountingSink final : public IDispatch
{
public:
    LONG calls = 0;
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
    {
        if (riid == IID_IUnknown || riid == IID_IDispatch || riid == DIID__IBrennockEvents) {
            *ppv = static_cast<IDispatch*>(this);
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP GetTypeInfoCount(UINT* n) override { *n = 0; return S_OK; }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS* p, VARIANT*, EXCEPINFO*, UINT*) override
    {
        calls += (p != nullptr);
        return S_OK;
    }
};

double Seconds(LARGE_INTEGER a, LARGE_INTEGER b, LARGE_INTEGER f)
{
    return static_cast<double>(b.QuadPart - a.QuadPart) / static_cast<double>(f.QuadPart);
}

template <class Raise>
void Measure(const char* what, int sinks, Raise raise)
{
    BrennockModule::Init(GetModuleHandleW(nullptr));
    IBrennock* control = nullptr;
    CBrennock::CreateInstance(nullptr, IID_IBrennock, reinterpret_cast<void**>(&control));
    IConnectionPointContainer* cpc = nullptr;
    IConnectionPoint* cp = nullptr;
    control->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&cpc));
    cpc->FindConnectionPoint(DIID__IBrennockEvents, &cp);
    CountingSink sink[4];
    DWORD cookies[4] = {};
    for (int i = 0; i < sinks; ++i)
        cp->Advise(&sink[i], &cookies[i]);

    CBrennock* object = static_cast<CBrennock*>(control);
    const int warmup = 20000;
    for (int i = 0; i < warmup; ++i)
        raise(object, i);

    // Run for about a second, in batches, and keep the best of three.
    LARGE_INTEGER freq;
    QueryPerformanceFrequency(&freq);
    double best = 0;
    long total = 0;
    for (int round = 0; round < 3; ++round) {
        LARGE_INTEGER t0, t1;
        QueryPerformanceCounter(&t0);
        long n = 0;
        do {
            for (int i = 0; i < 10000; ++i)
                raise(object, i);
            n += 10000;
            QueryPerformanceCounter(&t1);
        } while (Seconds(t0, t1, freq) < 0.33);
        double rate = n / Seconds(t0, t1, freq);
        if (rate > best)
            best = rate;
        total += n;
    }
    long delivered = 0;
    for (int i = 0; i < sinks; ++i)
        delivered += sink[i].calls;
    std::printf("%-34s %d sink%s  %12.0f events/s  %8.0f ns/event  (%ld delivered)\n", what, sinks,
                sinks == 1 ? " " : "s", best, 1e9 / best, delivered);

    for (int i = 0; i < sinks; ++i)
        cp->Unadvise(cookies[i]);
    cp->Release();
    cpc->Release();
    control->Release();
}

}  // namespace

int main()
{
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    std::printf("Event delivery through the connection point (best of 3 runs of ~0.33 s)\n");
    for (int sinks : {1, 4}) {
        Measure("PegsMap (long, short, short)", sinks,
                [](CBrennock* c, int i) { c->GetHC08EventSink()->PegsMap(i, 3, 2); });
        Measure("TimerRollover (no arguments)", sinks,
                [](CBrennock* c, int) { c->GetHC08EventSink()->TimerRollover(); });
        Measure("HC08Reset (5 arguments, double)", sinks,
                [](CBrennock* c, int) { c->GetHC08EventSink()->HC08Reset(1, 2, 3, 1000, 0); });
        Measure("SessionEnded (returns a value)", sinks,
                [](CBrennock* c, int) { c->GetTestManagerEventSink()->SessionEnded(0); });
    }
    CoUninitialize();
    return 0;
}
