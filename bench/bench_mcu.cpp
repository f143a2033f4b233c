// The microcontroller link against the microcontroller simulator on a real
// pseudo-terminal, with the control opened as a script opens it and an
// IDispatch sink advised on its events.
//
//   bench_mcu throughput N   the simulator sends N Capsit packets back to back
//                            (at the rate simrun gave it); packets per second
//                            that reached the sink, and how many never did
//   bench_mcu latency N      N rounds: the simulator sends a packet, the sink's
//                            handler sets MaskWithNoise at once, the simulator
//                            times the noise command's arrival
//   bench_mcu open N         N times: create the control, time Open against a
//                            microcontroller that answers the reset at once
//
//   scripts/bench            (runs every configuration)
#include <windows.h>
#include <mmsystem.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/ControlTestKit.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/McuSim.h"
#include "tests/support/MessagePump.h"

namespace {

constexpr DISPID kCapsitLeftDown = 9;

// Counts the events it is handed; the latency run answers each Capsit
// packet with the noise command.
class CountingSink final : public IDispatch
{
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
    {
        if (riid == IID_IUnknown || riid == IID_IDispatch || riid == DIID__IBrennockEvents) {
            *ppv = static_cast<IDispatch*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP GetTypeInfoCount(UINT* n) override
    {
        *n = 0;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        if (id == kCapsitLeftDown) {
            ++capsits;
            if (answer != nullptr)
                answer->put_MaskWithNoise(static_cast<short>(capsits & 1));
        }
        return S_OK;
    }

    unsigned long capsits = 0;
    IBrennock* answer = nullptr;
};

struct OpenControl
{
    ComPtr<IBrennock> control;
    DWORD cookie = 0;
};

bool OpenWithSink(OpenControl* out, CountingSink* sink)
{
    out->control = CreateRegisteredControl();
    if (!out->control)
        return false;
    out->cookie = AdviseSink(out->control.Get(), sink);
    short ok = 0;
    out->control->Open(&ok);
    return ok == 1;
}

void CloseControl(OpenControl* c)
{
    if (!c->control)
        return;
    c->control->Close();
    if (c->cookie != 0)
        UnadviseSink(c->control.Get(), c->cookie);
    c->control.Reset();
}

std::string RateName()
{
    // The simulator logs its rate in its first line.
    std::string log = ReadFileBytes(L"\\mcu.log");
    return log.find("rate full") != std::string::npos ? "full speed" : "line rate (115200 baud)";
}

int Throughput(unsigned long n)
{
    CountingSink sink;
    OpenControl c;
    if (!OpenWithSink(&c, &sink)) {
        std::printf("bench_mcu: Open failed\n");
        return 1;
    }
    McuSim mcu;
    PumpUntil([] { return false; }, 200);  // the reset note and the first heartbeat
    sink.capsits = 0;

    char command[64];
    std::snprintf(command, sizeof command, "burst %lu capsit", n);
    mcu.Send(command);
    DWORD first = 0, last = 0;
    unsigned long seen = 0;
    // Runs until every packet arrived, or nothing more came for 3 s.
    DWORD quietSince = timeGetTime();
    PumpUntil(
        [&] {
            if (sink.capsits != seen) {
                if (seen == 0)
                    first = timeGetTime();
                seen = sink.capsits;
                last = timeGetTime();
                quietSince = last;
            }
            return seen >= n || timeGetTime() - quietSince > 3000;
        },
        0xFFFFFFFF);
    std::string text;
    McuBurst burst;
    if (!mcu.Wait("burst ", &text, 10000) || !McuSim::ParseBurst(text, &burst)) {
        std::printf("bench_mcu: no burst result from the simulator\n");
        CloseControl(&c);
        return 1;
    }
    double seconds = (last - first) / 1000.0;
    std::printf("throughput at %s: sent %u packets in %.2f s (%.0f/s); the sink received %lu in %.2f s "
                "(%.0f/s); lost %ld\n",
                RateName().c_str(), burst.sent, burst.ms / 1000.0, burst.sent / (burst.ms / 1000.0), seen,
                seconds, seconds > 0 ? seen / seconds : 0.0, static_cast<long>(burst.sent) - static_cast<long>(seen));
    CloseControl(&c);
    return 0;
}

int Latency(unsigned n)
{
    CountingSink sink;
    OpenControl c;
    if (!OpenWithSink(&c, &sink)) {
        std::printf("bench_mcu: Open failed\n");
        return 1;
    }
    sink.answer = c.control.Get();
    McuSim mcu;
    PumpUntil([] { return false; }, 200);
    char command[64];
    std::snprintf(command, sizeof command, "latency %u capsit", n);
    mcu.Send(command);
    std::string text;
    PumpUntil([&] { return sink.capsits >= n; }, 120000);
    if (!mcu.Wait("latency ", &text, 30000)) {
        std::printf("bench_mcu: no latency result from the simulator\n");
        CloseControl(&c);
        return 1;
    }
    McuLatency l;
    McuSim::ParseLatency(text, &l);
    std::printf("round trip (packet out, event, MaskWithNoise, command back) over %u rounds at %s: "
                "median %.0f us, p99 %.0f us, worst %.0f us, unanswered %u\n",
                l.n, RateName().c_str(), l.medianUs, l.p99Us, l.worstUs, l.missed);
    CloseControl(&c);
    return 0;
}

int OpenTime(unsigned n)
{
    std::vector<double> ms;
    for (unsigned i = 0; i < n; ++i) {
        CountingSink sink;
        OpenControl c;
        c.control = CreateRegisteredControl();
        LARGE_INTEGER f, a, b;
        QueryPerformanceFrequency(&f);
        QueryPerformanceCounter(&a);
        short ok = 0;
        c.control->Open(&ok);
        QueryPerformanceCounter(&b);
        if (ok != 1) {
            std::printf("bench_mcu: Open failed\n");
            return 1;
        }
        ms.push_back((b.QuadPart - a.QuadPart) * 1000.0 / f.QuadPart);
        CloseControl(&c);
        PumpUntil([] { return false; }, 20);
    }
    std::sort(ms.begin(), ms.end());
    std::printf("Open against a microcontroller that answers at once, %u runs: median %.1f ms, best %.1f ms, "
                "worst %.1f ms\n",
                n, ms[ms.size() / 2], ms.front(), ms.back());
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    ComApartment com;
    if (!McuSim::Running()) {
        std::printf("bench_mcu: no microcontroller simulator on this disk (run it through scripts/simrun)\n");
        return 1;
    }
    ProvisionDisk();
    std::string mode = argc > 1 ? argv[1] : "open";
    unsigned long n = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 0;
    if (mode == "throughput")
        return Throughput(n != 0 ? n : 20000);
    if (mode == "latency")
        return Latency(n != 0 ? static_cast<unsigned>(n) : 1000);
    if (mode == "open")
        return OpenTime(n != 0 ? static_cast<unsigned>(n) : 20);
    std::printf("usage: bench_mcu throughput N | latency N | open N\n");
    return 2;
}
