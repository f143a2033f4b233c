// The microcontroller simulator (brennock-mcu) next to a Windows test or
// benchmark run by scripts/simrun: commands are appended to "\mcu.cmd" on the
// device disk, and what the simulator did is read back from "\mcu.log".
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "tests/support/SimChannel.h"

// One line of the simulator's log, e.g. "send timer go: 10 05 00 34 56 20 41",
// "host: noise on (5A 02 FF A5)".
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

class McuSim
{
public:
    // True when a simulator is logging on this device disk.
    static bool Running();

    // Appends one command line (see README.md, "Microcontroller simulator").
    bool Send(const std::string& command);

    // Writes a mark and waits (without pumping messages) until the simulator
    // has logged it: every command sent before has run and its bytes are on
    // the line, every line edge the control made before has been answered.
    // *entries gets what was logged since the previous Sync or Wait, the mark
    // left out. False if the simulator never answered.
    bool Sync(std::vector<McuEntry>* entries = nullptr, DWORD timeoutMs = 30000);

    // Waits until a line beginning with prefix is logged after the previous
    // Sync or Wait, and returns its text. For results that take long (a
    // 60-second burst): give a timeout to match.
    bool Wait(const std::string& prefix, std::string* text, DWORD timeoutMs = 30000);

    static bool ParseLatency(const std::string& text, McuLatency* out);
    static bool ParseBurst(const std::string& text, McuBurst* out);

private:
    SimChannel m_channel{L"\\mcu.log", L"\\mcu.cmd"};
};

// The texts of the entries that begin with prefix, in order.
std::vector<std::string> McuTexts(const std::vector<McuEntry>& entries, const std::string& prefix);
