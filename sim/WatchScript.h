// The watch simulator's scenario language: one command a line, from a script
// file, lines appended to the command file (watch.cmd on the device disk)
// and standard input. Parsing only; the simulator (sim/watch.cpp) runs them.
// The commands are listed in README.md, "Watch simulator".
#pragma once

#include <cstdint>
#include <string>

#include "sim/LineFaults.h"
#include "sim/WatchProtocol.h"

namespace sim::watch {

struct Command
{
    enum Kind
    {
        kNothing,  // blank line or comment
        kSeat,     // the watch goes into the cradle
        kRemove,   // and out of it
        kSilent,   // flag: no answer at all while on
        kGarble,   // garble: how the next ***C reply is spoiled
        kEcho,     // number: the character of the next command echoed wrong; echo: the byte sent instead
        kStall,    // number: bytes of the next block before a pause of number2 ms
        kStop,     // number: bytes of the next block before it stops for good
        kVanish,   // number: bytes of the next block before the watch leaves the cradle
        kFault,    // a line fault (sim/LineFaults.h); drop and dup act on data blocks
        kLie,      // number: the log address reported from now on; the memory stays
        kLogAddr,  // number: the recording's length and the log address reported
        kRate,     // flag: paced (true) or fast
        kStats,    // flag: reset the counters after reporting them
        kWait,     // number: ms
        kMark,     // text
        kState,
        kHelp,
        kQuit,
    };
    Kind kind = kNothing;
    bool flag = false;
    uint32_t number = 0;
    uint32_t number2 = 0;
    int echo = -1;  // kEcho: the byte echoed instead, -1 for the default (the right one + 1)
    Garble garble = Garble::kNone;
    std::string text;
    sim::LineFaultCommand fault;
};

// Parses one line. False (with the reason) for a line that is not a command.
bool ParseCommand(const std::string& line, Command* command, std::string* error);

const char* CommandHelp();

}  // namespace sim::watch
