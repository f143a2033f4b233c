// Faults a serial simulator puts on its own line, shared by the
// microcontroller and the watch simulators: bursts of noise, bytes dropped
// from or doubled in what it sends (on the next packet or block, or at a
// rate), and the far end closing its port for a while. The simulator decides
// what a "packet" is (a microcontroller packet, a watch data block) and hands
// each one to Damage on its way out.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace sim {

struct LineFaultCommand
{
    enum Verb
    {
        kNoise,   // number: random bytes sent at once
        kDrop,    // one byte left out of the next packet, or of packets at a rate
        kDup,     // one byte sent twice, likewise
        kHangup,  // number: ms the far end keeps its port closed
        kSeed,    // number: the fault generator's seed
    };
    Verb verb = kNoise;
    bool next = false;     // kDrop/kDup: the next packet only
    uint32_t number = 0;   // noise bytes, hang-up ms, seed, rate in percent (0: off)
    int at = -1;           // kDrop/kDup next: the byte's index, -1 for a random one
};

class LineFaults
{
public:
    // Whether words (a command line's words) are a fault command: kNo for
    // another verb, kBad (with the reason) for a fault verb used wrongly.
    enum class Parsed
    {
        kNo,
        kYes,
        kBad,
    };
    static Parsed Parse(const std::vector<std::string>& words, LineFaultCommand* command, std::string* error);
    static const char* Help();

    // Arms drop/dup (next or rate) or sets the seed; noise and hang-up are
    // the simulator's to carry out (Noise gives the bytes).
    void Arm(const LineFaultCommand& command);

    // n bytes of noise from the fault generator.
    std::string Noise(uint32_t n);

    // The packet as it goes out: damaged by an armed or a drawn fault, or
    // unchanged. *note says what was done ("dropped byte 3 (0x05)"), empty
    // when nothing was.
    std::string Damage(const std::string& packet, std::string* note);

    // What is armed, for the simulator's state line.
    std::string Describe() const;

private:
    bool m_dropNext = false, m_dupNext = false;
    int m_dropAt = -1, m_dupAt = -1;
    uint32_t m_dropRate = 0, m_dupRate = 0;  // percent of packets
    std::mt19937 m_random{1};
};

}  // namespace sim
