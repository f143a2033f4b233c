// The watch simulator (brennock-watch) next to a Windows test or benchmark
// run by scripts/simrun. Its memory is rebuilt here from sim/WatchMemory.h,
// so a test can check every byte the control downloads.
#pragma once

#include <cstdint>

#include "tests/support/SimChannel.h"

using WatchEntry = SimEntry;

// "stats commands=3 blocks=1 host_bytes=19 watch_bytes=4179 wire_ms=10233.333 elapsed_ms=10595.142"
struct WatchStats
{
    unsigned commands = 0, blocks = 0;
    unsigned long long hostBytes = 0, watchBytes = 0;
    double wireMs = 0, elapsedMs = 0;
};

class WatchSim : public SimLog
{
public:
    WatchSim() : SimLog(L"\\watch.log", L"\\watch.cmd") {}
    static bool Running() { return WatchSim().SimChannel::Running(); }
    static bool ParseStats(const std::string& text, WatchStats* out);
    // The first count blocks from address 0 of a watch whose log address is
    // logAddress (bit 23 set: nothing recorded).
    static std::string Memory(uint32_t logAddress, uint32_t blocks);
};
