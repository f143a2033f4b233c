// The watch's side of the serial protocol, as the bench watch
// (sim/watch.cpp) speaks it: how long each command is, whether its
// argument is well formed, the texts it answers with, and the log's form of
// the bytes. The bytes are listed in the simulator's README
// section, "Watch simulator".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace sim::watch {

// The commands, by the letter after "***".
enum class Kind
{
    kReadParams,  // ***C
    kReadBlock,   // ***N + 4 hex digits (block address, units of 256 bytes)
    kIdentity,    // ***B + the anonymous name's bytes in hex: variable length
    kDate,        // ***D + DDMMYY
    kTime,        // ***E + HHMM
    kAnalysis,    // ***A + 6 hex digits (the control sends ***A02031E)
    kGLimit,      // ***S + 2 hex digits (***S1E)
    kParams13,    // ***Q + 26 hex digits
    kThreshold,   // ***I + 2 hex digits (***I02)
    kRestart,     // ***GU
    kLogPointer,  // ***H + 6 hex digits
    kUnknown,     // anything else: variable length
};

// The length of a command whose first four characters are begin (begin must
// hold at least four), or 0 when it has no fixed length (***B and anything
// unknown) and ends when the host has been quiet for the identity gap.
size_t FixedLength(const std::string& begin);

// A whole command: what it is and whether its argument is well formed.
struct Examined
{
    Kind kind = Kind::kUnknown;
    bool good = false;
    std::string argument;  // what follows the four-character command name
};
Examined Examine(const std::string& command);

// What a watch holds besides its memory; the parameter reply shows it.
struct WatchFacts
{
    uint32_t logAddress = 0;  // the next log address it reports (24 bits)
    std::string identity;     // ***B's hex digits; empty until set
    std::string date;         // ***D's DDMMYY; empty until set
    std::string time;         // ***E's HHMM; empty until set
};

enum class Garble
{
    kNone,
    kAddress,  // the third field is not a number
    kShort,    // only two fields: too few carriage returns
};

// The answer to ***C, prompt included:
//   CR "SIMWATCH 01" CR "FW 2.10" CR <log address, 6 upper-case hex digits>
//   CR "ID " <identity or "-"> CR "START " <DDMMYY or "------"> " " <HHMM or "----">
//   CR ">"
std::string ParameterReply(const WatchFacts& facts, Garble garble);

// The answers to a wake-up CR, to a configuration command, to a command it
// does not take, and the prompt after a data block.
inline constexpr const char* kWakeReply = "\r\n>";
inline constexpr const char* kOkReply = "\rOK\r>";
inline constexpr const char* kRefusedReply = "\r?\r>";
inline constexpr const char* kBlockPrompt = ">";

// Bytes for a log line: printable ASCII as it is, \r and \n, \xNN for the rest.
std::string Escaped(const std::string& bytes);

}  // namespace sim::watch
