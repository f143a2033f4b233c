// The simulated watch in its cradle: the one class of brennock-watch, its
// work split between sim/watch.cpp (the cradle, the line and the protocol)
// and sim/WatchCommands.cpp (the commands it takes from the bench).
#pragma once

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unistd.h>

#include "sim/GpioBlock.h"
#include "sim/LineFaults.h"
#include "sim/Pty.h"
#include "sim/SerialOut.h"
#include "sim/SimConsole.h"
#include "sim/WatchMemory.h"
#include "sim/WatchProtocol.h"
#include "sim/WatchScript.h"

namespace watchsim {


using sim::CommandSource;
using sim::NowMs;
namespace w = sim::watch;

inline constexpr unsigned kLinePower = 36;
inline constexpr unsigned kLinePresent = 40;
inline constexpr unsigned kLineCarrier = 41;

// How long the watch holds its presence output after it last saw the carrier.
inline constexpr double kPresenceHoldMs = 1500;

// The line speeds of the protocol.
inline constexpr int kTextBaud = 600;
inline constexpr int kBlockBaud = 4800;

// How long the watch waits for the host's switch to 4800 baud after the echo
// of a "***N" command before it sends the block anyway, and for the switch
// back before it sends the prompt anyway.
inline constexpr double kSwitchUpWaitMs = 2000;
inline constexpr double kSwitchBackWaitMs = 10000;

// The identity command has no fixed length: it ends when the host has been
// quiet this long after the echo of its last character (fast mode), or this
// many character times at the baud rate in force (paced mode).
inline constexpr double kFastGapMs = 300;
inline constexpr double kPacedGapChars = 20;

// The shortest sleep before a host byte's wire time is over.
inline constexpr double kPollMs = 0.5;

// One byte on the wire: start, 8 data bits, stop.
inline double ByteMs(int baud)
{
    return 10.0 * 1000.0 / (baud > 0 ? baud : kTextBaud);
}

// How the watch marks what it queues.
enum ChunkTag
{
    kText,          // echoes, replies, prompts
    kBlockPart,     // the part of a block before a stall
    kBlockEnd,      // the (rest of the) block
    kBlockStopped,  // what a "stop" lets out of the block
};

class Watch
{
public:
    bool Start(int argc, char** argv);
    int Run();

private:
    enum class State
    {
        kIdle,       // between commands (asleep until the first CR)
        kCommand,    // taking a command's characters
        kWaitUp,     // "***N" echoed: waiting for the host's 4800 baud
        kSending,    // the block is going out
        kWaitBack,   // the block is out: waiting for the host's 600 baud
    };

    void Usage();

    // The cradle.
    bool Reachable() const { return m_seated && m_power; }
    void DrainEdges();
    void FollowEdge(const sim::GpioEdgeReader::Edge& e);
    void SeeCarrier();
    void UpdatePresence();
    void LoseWatch(const char* why);

    // The line.
    void CheckLine();
    void ReadHost();
    void ServeInput();
    void HostByte(uint8_t b);
    void TakeCommandByte(uint8_t b);
    void RunCommand();
    void ServeProtocol();
    void QueueBlock(const char* note);
    void Queue(std::string bytes, ChunkTag tag = kText, double pauseAfterMs = 0);
    void ServeOutput();
    void ChunkDone(const sim::SerialOut::Chunk& chunk);
    double OutByteMs() const { return m_paced ? ByteMs(m_baud) : 0.0; }
    double GapMs() const;

    void Execute(CommandSource& source, const std::string& line);
    void Fault(const sim::LineFaultCommand& fault);
    bool HungUp() const { return m_openAgainAt >= 0; }
    void ShowState();
    void ShowStats(bool reset);

    sim::SimConsole m_console{"brennock-watch", 900};
    sim::GpioBlockFile m_block;
    std::unique_ptr<sim::GpioEdgeReader> m_reader;
    sim::PtyMaster m_pty;

    // Options.
    bool m_paced = true;
    double m_gapOptionMs = -1;

    // The cradle.
    bool m_seated = false;
    bool m_power = false;
    bool m_carrierHigh = false;
    double m_carrierSeenMs = -1;  // last time the seated, powered watch saw the carrier high
    unsigned m_pulsesSeen = 0;
    bool m_present = false;       // what the watch drives on line 40
    bool m_lineSet = false;       // line 40 has been set once

    // The watch.
    uint32_t m_recorded = 0;      // bytes of synthetic recording in memory
    w::WatchFacts m_facts;
    std::map<char, std::string> m_settings;  // ***A, ***S, ***Q, ***I as last set
    bool m_awake = false;
    bool m_silent = false;

    // Faults armed for what comes next.
    w::Garble m_garble = w::Garble::kNone;
    uint32_t m_echoArmedAt = 0;   // the next command's character (from 1) echoed wrong; 0: none
    int m_echoArmedByte = -1;
    uint32_t m_echoAt = 0;        // the same, for the command being taken
    int m_echoByte = -1;
    enum class BlockFault { kNone, kStall, kStop, kVanish } m_blockFault = BlockFault::kNone;
    bool m_vanishing = false;     // the block going out is the last before the watch leaves
    sim::LineFaults m_faults;     // noise, drop, dup
    double m_openAgainAt = -1;    // hangup: the port is closed until then
    uint32_t m_faultBytes = 0;
    uint32_t m_stallMs = 0;

    // Protocol.
    State m_state = State::kIdle;
    std::string m_cmd;
    double m_lastActivityMs = 0;  // last byte in or out
    double m_waitSinceMs = 0;
    uint32_t m_blockAddress = 0;
    size_t m_blockSize = 0;       // bytes of the current block queued
    size_t m_blockWritten = 0;
    double m_blockFirstMs = -1;
    int m_baud = kTextBaud;
    std::string m_lineSettings;

    // Input: the host's bytes, each taken when its wire time is over (paced).
    struct Received
    {
        uint8_t byte;
        double dueMs;
    };
    std::deque<Received> m_in;
    double m_inFreeMs = 0;        // when the last byte read is over on the wire

    // Output. Paced, each byte is handed to the terminal when its wire time
    // is over, as the host's receiver would have it.
    sim::SerialOut m_out{sim::SerialOut::HandOver::kAtEnd};

    // Counters for "stats".
    unsigned m_commands = 0, m_blocks = 0;
    unsigned long long m_hostBytes = 0, m_watchBytes = 0;
    double m_wireMs = 0;
    double m_statsSinceMs = 0;
};

}  // namespace watchsim
