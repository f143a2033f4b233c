// Timing of the panel lines and user timers as the bench panel sees them.
//
// BlinkLed(3, 10, 500): the panel's time stamps of LED 3's twenty edges
// against their nominal times (every 250 ms from the first), and of the
// BlinkEnded event (shown by lighting LED 1 from the handler; nominal 5000 ms
// after the first edge). User timers of 0.2 to 5 s: each lights its own LED
// when started and puts it out from its TimerEnded handler; the time between
// the two edges against the interval, with the runs started at five points
// of the 200 ms heartbeat period. Prints the median and the worst error.
//
//   scripts/bench            (runs every benchmark next to the bench panel)
#include <windows.h>
#include <mmsystem.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/BenchPanel.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/MessagePump.h"

namespace {

constexpr int kBlinkRuns = 3;
constexpr int kTimerRuns = 5;

struct Stats
{
    double median;
    double worst;  // largest deviation, with its sign
};

Stats Summarize(std::vector<double> errors)
{
    Stats s = {0, 0};
    if (errors.empty())
        return s;
    double worst = 0;
    for (double e : errors)
        if (std::fabs(e) > std::fabs(worst))
            worst = e;
    std::sort(errors.begin(), errors.end());
    size_t n = errors.size();
    s.median = (n % 2) ? errors[n / 2] : (errors[n / 2 - 1] + errors[n / 2]) / 2;
    s.worst = worst;
    return s;
}

// The time stamps of one line's level changes, in order.
std::vector<double> EdgeTimes(const std::vector<PanelEntry>& entries, int line)
{
    std::vector<double> t;
    for (const PanelEntry& e : entries)
        if (e.what == "line" && e.line == line && (e.state == "high" || e.state == "low"))
            t.push_back(e.ms);
    return t;
}

size_t CountSince(const RecordingSink& sink, size_t from, DISPID id)
{
    size_t n = 0;
    for (size_t i = from; i < sink.events.size(); ++i)
        n += (sink.events[i].id == id);
    return n;
}

}  // namespace

int main()
{
    ComApartment com;
    if (!BenchPanel::Running()) {
        std::printf("bench_panel: no bench panel on this disk (run it through scripts/simrun)\n");
        return 1;
    }
    BenchPanel panel;
    ProvisionDisk();
    ComPtr<IBrennock> control = CreateLocalControl();
    RecordingSink sink;
    DWORD cookie = AdviseSink(control.Get(), &sink);
    short ok = 0;
    control->Open(&ok);
    if (ok != 1) {
        std::printf("bench_panel: Open failed\n");
        return 1;
    }

    // Heartbeat periods as the message loop sees them (this program's clock).
    std::vector<double> beats;
    DWORD lastBeat = 0;
    auto watch = [&](const MSG& m) {
        wchar_t name[64];
        if (m.message == WM_TIMER && m.wParam == 50 && GetClassNameW(m.hwnd, name, 64) &&
            wcscmp(name, L"GpioMessageWin") == 0) {
            DWORD now = timeGetTime();
            if (lastBeat != 0)
                beats.push_back(static_cast<double>(now - lastBeat));
            lastBeat = now;
        }
    };

    // ---- BlinkLed(3, 10, 500)
    std::vector<double> edgeErrors, endErrors;
    sink.onEvent = [&](DISPID id) {
        if (id == 1)  // BlinkEnded: show it on LED 1
            control->SetLedState(1, 1);
    };
    for (int run = 0; run < kBlinkRuns; ++run) {
        control->SetLedState(1, 0);
        panel.Sync(nullptr);
        size_t before = sink.events.size();
        control->BlinkLed(3, 10, 500);
        PumpUntil([&] { return CountSince(sink, before, 1) >= 1; }, 60000, watch);
        std::vector<PanelEntry> seen;
        panel.Sync(&seen);
        std::vector<double> led = EdgeTimes(seen, 53);
        std::vector<double> end = EdgeTimes(seen, 84);
        if (led.size() != 20 || end.size() != 1) {
            std::printf("bench_panel: run %d saw %zu LED 3 edges and %zu end marks\n", run, led.size(), end.size());
            continue;
        }
        for (size_t k = 1; k < led.size(); ++k)
            edgeErrors.push_back(led[k] - led[0] - 250.0 * k);
        endErrors.push_back(end[0] - led[0] - 5000.0);
    }

    // ---- User timers: id, LED, interval
    struct TimerCase
    {
        short id;
        short led;
        double secs;
        std::vector<double> errors;
    };
    std::vector<TimerCase> timers = {
        {1, 2, 0.2, {}}, {2, 4, 0.5, {}}, {3, 5, 1.0, {}}, {4, 6, 2.0, {}}, {5, 1, 5.0, {}},
    };
    sink.onEvent = [&](DISPID id) {
        if (id != 21)
            return;
        const ReceivedEvent& e = sink.events.back();
        for (const TimerCase& t : timers)
            if (t.id == e.args[0].iVal)
                control->SetLedState(t.led, 0);
    };
    const int kLedLine[7] = {-1, 84, 52, 53, 54, 81, 83};
    for (int run = 0; run < kTimerRuns; ++run) {
        for (const TimerCase& t : timers)
            control->SetLedState(t.led, 0);
        panel.Sync(nullptr);
        // Start each run at another point of the heartbeat period: 20, 60,
        // 100, 140, 180 ms after a heartbeat.
        size_t beatsBefore = beats.size();
        PumpUntil([&] { return beats.size() > beatsBefore; }, 60000, watch);
        const DWORD startAt = lastBeat + 20 + 40 * (run % 5);
        PumpUntil([&] { return static_cast<LONG>(timeGetTime() - startAt) >= 0; }, 60000, watch);
        size_t before = sink.events.size();
        for (const TimerCase& t : timers) {
            control->SetLedState(t.led, 1);
            control->TimerStart(t.id, t.secs);
        }
        PumpUntil([&] { return CountSince(sink, before, 21) >= timers.size(); }, 60000, watch);
        std::vector<PanelEntry> seen;
        panel.Sync(&seen);
        for (TimerCase& t : timers) {
            std::vector<double> edges = EdgeTimes(seen, kLedLine[t.led]);
            if (edges.size() != 2) {
                std::printf("bench_panel: timer %d saw %zu edges\n", t.id, edges.size());
                continue;
            }
            t.errors.push_back(edges[1] - edges[0] - t.secs * 1000.0);
        }
    }

    control->Close();
    UnadviseSink(control.Get(), cookie);

    Stats s = Summarize(edgeErrors);
    std::printf("BlinkLed(3, 10, 500), %d runs: LED 3 edges against every 250 ms from the first\n", kBlinkRuns);
    std::printf("  %zu edges: median %+.1f ms, worst %+.1f ms\n", edgeErrors.size(), s.median, s.worst);
    s = Summarize(endErrors);
    std::printf("  BlinkEnded against 5000 ms: median %+.1f ms, worst %+.1f ms\n", s.median, s.worst);

    std::printf("User timers, %d runs: LED lit at TimerStart, dark from TimerEnded, against the interval\n",
                kTimerRuns);
    std::vector<double> all;
    for (const TimerCase& t : timers) {
        s = Summarize(t.errors);
        std::printf("  %4.1f s: %zu timers, median %+.1f ms, worst %+.1f ms\n", t.secs, t.errors.size(), s.median,
                    s.worst);
        all.insert(all.end(), t.errors.begin(), t.errors.end());
    }
    s = Summarize(all);
    std::printf("  all   : %zu timers, median %+.1f ms, worst %+.1f ms\n", all.size(), s.median, s.worst);

    std::vector<double> periodErrors;
    for (double b : beats)
        periodErrors.push_back(b - 200.0);
    s = Summarize(periodErrors);
    std::printf("Heartbeat period against 200 ms (message loop's clock), %zu periods: median %+.1f ms, worst %+.1f ms\n",
                periodErrors.size(), s.median, s.worst);
    return 0;
}
