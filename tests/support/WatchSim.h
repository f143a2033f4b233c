// The watch simulator (brennock-watch) next to a Windows test or benchmark
// run by scripts/simrun: commands are appended to "\watch.cmd" on the device
// disk, and what the simulator did is read back from "\watch.log". Its
// memory is rebuilt here from sim/WatchMemory.h, so a test can check every
// byte the control downloads.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/SimChannel.h"

// One line of the simulator's log, e.g. "command: ***D241126",
// "presence high: seated, power on, carrier seen".
using WatchEntry = SimEntry;

// "block a=0x0010 bytes=4096 ms=8533.458 wire_ms=8533.333 baud=4800 rate=paced"
struct WatchBlock
{
    unsigned address = 0;
    unsigned bytes = 0;
    double ms = 0;
    double wireMs = 0;
};

// "stats commands=3 blocks=1 host_bytes=19 watch_bytes=4179 wire_ms=10233.333 elapsed_ms=10595.142"
struct WatchStats
{
    unsigned commands = 0, blocks = 0;
    unsigned long long hostBytes = 0, watchBytes = 0;
    double wireMs = 0, elapsedMs = 0;
};

class WatchSim
{
public:
    // True when a simulator is logging on this device disk.
    static bool Running();

    // Appends one command line (see README.md, "Watch simulator"): "seat",
    // "remove", "logaddr 0x1000", "stall 100 5000", ...
    bool Send(const std::string& command);

    // Writes a mark and waits (without pumping messages) until the simulator
    // has logged it: every command sent before has run, every line edge the
    // control made before has been followed (and the presence line updated).
    // *entries gets what was logged since the previous Sync or Wait.
    bool Sync(std::vector<WatchEntry>* entries = nullptr, DWORD timeoutMs = 30000);

    // Waits until a line beginning with prefix is logged after the previous
    // Sync or Wait, and returns its text.
    bool Wait(const std::string& prefix, std::string* text, DWORD timeoutMs = 30000);

    // The exact commands the watch took since the previous Sync or Wait, in
    // order ("***C", "***N0010", "***D241126", ...; "(refused)" after one it
    // did not take).
    bool Commands(std::vector<std::string>* commands, DWORD timeoutMs = 30000);

    static bool ParseBlock(const std::string& text, WatchBlock* out);
    static bool ParseStats(const std::string& text, WatchStats* out);

    // What the watch holds when its log address is logAddress (bit 23 set:
    // nothing recorded): the block at a block address (units of 256 bytes),
    // and the bytes of the first count blocks from address 0.
    static std::string Block(uint32_t logAddress, uint32_t blockAddress);
    static std::string Memory(uint32_t logAddress, uint32_t blocks);

private:
    SimChannel m_channel{L"\\watch.log", L"\\watch.cmd"};
};
