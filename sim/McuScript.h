// The microcontroller simulator's scenario language: one command a line, from
// a script file or appended to the command file. Parsing only; the simulator
// (sim/mcu.cpp) runs them. The commands are listed in README.md,
// "Microcontroller simulator".
#pragma once

#include <cstdint>
#include <string>

#include "sim/LineFaults.h"
#include "sim/McuPacket.h"

namespace sim::mcu {

// A packet to send: built at the current tick (or an explicit one), or raw
// bytes sent exactly as given.
struct PacketSpec
{
    bool raw = false;
    Bytes bytes;            // raw bytes
    uint8_t msgClass = 0;   // built packets
    uint8_t code = 0;
    Bytes data;
    bool atTick = false;    // an explicit "at TICK"
    uint32_t tick = 0;

    Bytes Make(uint32_t currentTick) const;
};

struct Command
{
    enum Kind
    {
        kNothing,   // blank line or comment
        kPacket,    // any packet command (and raw)
        kSplit,     // the packet in two writes
        kWait,
        kMark,
        kTicks,     // set the tick counter
        kRollover,  // wrap the tick counter now
        kReset,     // restart as after a reset pulse
        kBurst,
        kLatency,
        kFault,     // a line fault (sim/LineFaults.h)
        kState,
        kHelp,
        kQuit,
    };
    Kind kind = kNothing;
    PacketSpec packet;
    unsigned splitAt = 0;     // kSplit: bytes in the first write
    unsigned number = 0;      // wait ms, pause ms (kSplit), ticks, burst/latency count
    std::string text;         // mark text, burst/latency kind
    sim::LineFaultCommand fault;
};

// Parses one line. False (with the reason) for a line that is not a command.
bool ParseCommand(const std::string& line, Command* command, std::string* error);

// The packets a burst or a latency run is made of: "capsit" (left down),
// "digito" (left down, delta = index), "pegs", "go", "note01".
bool IsStreamKind(const std::string& kind);
Bytes StreamPacket(const std::string& kind, uint32_t tick, uint32_t index);

const char* CommandHelp();

}  // namespace sim::mcu
