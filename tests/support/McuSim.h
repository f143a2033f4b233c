// The microcontroller simulator (brennock-mcu) next to a Windows test or
// benchmark run by scripts/simrun.
#pragma once

#include "tests/support/SimChannel.h"

using McuEntry = SimEntry;

// "latency n=100 median_us=180 p99_us=420 worst_us=900 missed=0 kind=capsit rate=line"
struct McuLatency
{
    unsigned n = 0;
    double medianUs = 0, p99Us = 0, worstUs = 0;
    unsigned missed = 0;
};

// "burst sent=76800 bytes=537600 ms=60001.234 kind=digito rate=line packets_per_s=1280"
struct McuBurst
{
    unsigned sent = 0;
    unsigned long long bytes = 0;
    double ms = 0;
};

class McuSim : public SimLog
{
public:
    McuSim() : SimLog(L"\\mcu.log", L"\\mcu.cmd") {}
    static bool Running() { return McuSim().SimChannel::Running(); }
    static bool ParseLatency(const std::string& text, McuLatency* out);
    static bool ParseBurst(const std::string& text, McuBurst* out);
};
