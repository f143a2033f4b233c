// Downloading the watch's recording through COM1, next to the bench watch
// simulator.
//
//   bench_watch paced N   the simulator sends every byte at the wire time of
//                         the baud rate in force: the save of N blocks against
//                         the wire minimum (every byte each way at its baud
//                         rate, as the simulator counts them), as a ratio
//   bench_watch fast N    the simulator sends as fast as the terminal takes
//                         them: blocks a second and this process's CPU time
//                         a block
//
//   scripts/bench         (runs both next to the simulators)
#include <windows.h>
#include <mmsystem.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/ControlTestKit.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/MessagePump.h"
#include "tests/support/WatchSim.h"
#include "watch/Watch.h"

namespace {

constexpr DISPID kWatchSaveEnded = 16;
constexpr DISPID kWatchParametersRead = 27;

size_t Count(const RecordingSink& sink, DISPID id)
{
    size_t n = 0;
    for (const ReceivedEvent& e : sink.events)
        n += (e.id == id);
    return n;
}

double CpuMs()
{
    FILETIME created, exited, kernel, user;
    GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user);
    ULARGE_INTEGER k{{kernel.dwLowDateTime, kernel.dwHighDateTime}};
    ULARGE_INTEGER u{{user.dwLowDateTime, user.dwHighDateTime}};
    return static_cast<double>(k.QuadPart + u.QuadPart) / 10000.0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "fast";
    const int blocks = argc > 2 ? std::atoi(argv[2]) : 4;
    if ((mode != "paced" && mode != "fast") || blocks < 1 || blocks > 256) {
        std::fprintf(stderr, "usage: bench_watch paced|fast BLOCKS\n");
        return 2;
    }
    ComApartment com;
    ProvisionDisk();
    ComPtr<IBrennock> control = CreateLocalControl();
    RecordingSink sink;
    DWORD cookie = AdviseSink(control.Get(), &sink);
    short ok = 0;
    control->Open(&ok);
    WatchSim sim;
    if (ok != 1 || !WatchSim::Running()) {
        std::fprintf(stderr, "bench_watch: the control did not open next to the watch simulator\n");
        return 1;
    }

    // A log address that makes the save read exactly this many blocks.
    char command[64];
    std::snprintf(command, sizeof command, "logaddr 0x%x", (blocks - 1) * 0x1000 + 0x100);
    sim.Send(command);
    sim.Send("rate fast");
    sim.Send("seat");
    if (!PumpUntil([&] { return Count(sink, kWatchParametersRead) >= 1; }, 60000)) {
        std::fprintf(stderr, "bench_watch: the watch was not read\n");
        return 1;
    }
    sim.Send(mode == "paced" ? "rate paced" : "rate fast");
    sim.Send("stats reset");
    sim.Sync();

    const double cpu0 = CpuMs();
    const DWORD t0 = timeGetTime();
    BSTR name = SysAllocString(L"Bench");
    HRESULT hr = control->WatchSaveStart(name);
    SysFreeString(name);
    bool ended = SUCCEEDED(hr) &&
                 PumpUntil([&] { return Count(sink, kWatchSaveEnded) >= 1; }, 600000);
    const double elapsedMs = static_cast<double>(timeGetTime() - t0);
    const double cpuMs = CpuMs() - cpu0;
    std::string text;
    WatchStats stats;
    sim.Send("stats");
    if (!ended || !sim.Wait("stats", &text) || !WatchSim::ParseStats(text, &stats)) {
        std::fprintf(stderr, "bench_watch: the save did not end\n");
        return 1;
    }
    if (mode == "paced")
        std::printf("watch save paced: blocks=%d elapsed_ms=%.0f wire_ms=%.0f ratio=%.3f (goal <= 1.03)\n", blocks,
                    elapsedMs, stats.wireMs, elapsedMs / stats.wireMs);
    else
        std::printf("watch save fast: blocks=%d elapsed_ms=%.0f blocks_per_s=%.2f cpu_ms_per_block=%.1f\n", blocks,
                    elapsedMs, blocks * 1000.0 / elapsedMs, cpuMs / blocks);
    control->Close();
    UnadviseSink(control.Get(), cookie);
    return 0;
}
