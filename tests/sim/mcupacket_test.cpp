// The microcontroller simulator's packet builder, host-command reader and
// scenario parser (native).
#include <gtest/gtest.h>

#include <numeric>

#include "sim/McuPacket.h"
#include "sim/McuScript.h"

namespace {

using sim::mcu::Bytes;

unsigned Sum(const Bytes& b)
{
    return std::accumulate(b.begin(), b.end(), 0u) & 0xFF;
}

TEST(McuPacket, BuildsTheBytesTheControlReads)
{
    EXPECT_EQ(sim::mcu::TimerGo(0x3456), (Bytes{0x10, 0x05, 0x00, 0x34, 0x56, 0x20, 0x41}));
    EXPECT_EQ(sim::mcu::TimerRollover(0), (Bytes{0x10, 0x05, 0x00, 0x00, 0x00, 0x21, 0xCA}));
    // Ticks keep their low 24 bits.
    EXPECT_EQ(sim::mcu::Capsit(sim::mcu::kEvtCapsitLeftDown, 0x1ABCDEF),
              (Bytes{0x10, 0x05, 0xAB, 0xCD, 0xEF, 0x3B, 0x49}));

    sim::mcu::ResetInfo info;
    info.rev = 2;
    info.build = 7;
    info.source = 1;
    info.tickHz = 0x000F4240;  // 1 MHz
    info.post = 0x55;
    Bytes reset = sim::mcu::Reset(0x000123, info);
    ASSERT_EQ(reset.size(), 15u);
    EXPECT_EQ(Bytes(reset.begin(), reset.end() - 1),
              (Bytes{0x11, 0x0D, 0x00, 0x01, 0x23, 0x00, 2, 7, 1, 0x00, 0x0F, 0x42, 0x40, 0x55}));
    EXPECT_EQ(Sum(reset), 0u);

    // The delta keeps its low 16 bits.
    Bytes tap = sim::mcu::Digito(sim::mcu::kEvtDigitoRightUp, 0x10, 0x12345);
    EXPECT_EQ(Bytes(tap.begin(), tap.end() - 1), (Bytes{0x10, 0x07, 0x00, 0x00, 0x10, 0x35, 0x23, 0x45}));
    EXPECT_EQ(Sum(tap), 0u);

    // Pegs go out inverted: right first.
    Bytes pegs = sim::mcu::PegsMap(0, 0x0F, 0xF0);
    EXPECT_EQ(pegs[6], 0x0F);
    EXPECT_EQ(pegs[7], 0xF0);
    EXPECT_EQ(pegs.size(), 9u);

    EXPECT_EQ(sim::mcu::CmdResponse(0, 1), (Bytes{0x11, 0x06, 0, 0, 0, 0x03, 0x01, 0xE5}));
    EXPECT_EQ(sim::mcu::SystemError(0, sim::mcu::kErrBad5V), (Bytes{0x12, 0x05, 0, 0, 0, 0x81, 0x68}));
    EXPECT_EQ(sim::mcu::NoiseCommand(true), (Bytes{0x5A, 0x02, 0xFF, 0xA5}));
    EXPECT_EQ(sim::mcu::NoiseCommand(false), (Bytes{0x5A, 0x02, 0x00, 0xA4}));
}

struct Parsed
{
    size_t used;
    uint8_t status;
    bool on;
    bool garbage;
};

Parsed ParseHost(const Bytes& in)
{
    Parsed p{};
    p.used = sim::mcu::ParseHostCommand(in.data(), in.size(), &p.status, &p.on, &p.garbage);
    return p;
}

TEST(McuPacket, ReadsTheHostsNoiseCommandAndRejectsWhatIsNotOne)
{
    Parsed on = ParseHost({0x5A, 0x02, 0xFF, 0xA5, 0x5A});
    EXPECT_EQ(on.used, 4u);
    EXPECT_EQ(on.status, sim::mcu::kStatusAccepted);
    EXPECT_TRUE(on.on);
    Parsed off = ParseHost({0x5A, 0x02, 0x00, 0xA4});
    EXPECT_EQ(off.status, sim::mcu::kStatusAccepted);
    EXPECT_FALSE(off.on);

    EXPECT_EQ(ParseHost({0x5A}).used, 0u) << "waits for the length";
    EXPECT_EQ(ParseHost({0x5A, 0x02, 0xFF}).used, 0u) << "waits for the checksum";

    Parsed bad = ParseHost({0x5A, 0x02, 0xFF, 0xA4});
    EXPECT_EQ(bad.used, 4u);
    EXPECT_EQ(bad.status, sim::mcu::kStatusBadChecksum);

    // Well framed, but not a command it knows: another class, or a noise byte
    // that is neither on nor off.
    Bytes other = {0x5B, 0x02, 0xFF};
    other.push_back(sim::mcu::Checksum(other.data(), other.size()));
    EXPECT_EQ(ParseHost(other).status, sim::mcu::kStatusUnknownCommand);
    Bytes half = {0x5A, 0x02, 0x0F};
    half.push_back(sim::mcu::Checksum(half.data(), half.size()));
    EXPECT_EQ(ParseHost(half).status, sim::mcu::kStatusUnknownCommand);

    Parsed junk = ParseHost({0x5A, 0x00, 0x5A, 0x02});
    EXPECT_TRUE(junk.garbage);
    EXPECT_EQ(junk.used, 1u) << "a length no command can have costs one byte";
}

Bytes Played(const std::string& line, uint32_t tick)
{
    sim::mcu::Command c;
    std::string error;
    EXPECT_TRUE(sim::mcu::ParseCommand(line, &c, &error)) << line << ": " << error;
    return c.packet.Make(tick);
}

TEST(McuScript, PacketCommandsBuildAtTheCurrentOrAnExplicitTick)
{
    EXPECT_EQ(Played("digito left down 5", 0x20), sim::mcu::Digito(sim::mcu::kEvtDigitoLeftDown, 0x20, 5));
    EXPECT_EQ(Played("digito right up 300 at 0x10", 0x20), sim::mcu::Digito(sim::mcu::kEvtDigitoRightUp, 0x10, 300));
    EXPECT_EQ(Played("  capsit right down  ", 7), sim::mcu::Capsit(sim::mcu::kEvtCapsitRightDown, 7));
    EXPECT_EQ(Played("capsit left up at 16", 7), sim::mcu::Capsit(sim::mcu::kEvtCapsitLeftUp, 16));
    EXPECT_EQ(Played("pegs 0x0F 0xF0", 1), sim::mcu::PegsMap(1, 0x0F, 0xF0));
    EXPECT_EQ(Played("error vcore", 2), sim::mcu::SystemError(2, sim::mcu::kErrBadVCore));
    EXPECT_EQ(Played("error 00", 2), sim::mcu::SystemError(2, 0x00));
    EXPECT_EQ(Played("note01", 3), sim::mcu::NoteUnnamed01(3));
    EXPECT_EQ(Played("go at 0x3456", 0), sim::mcu::TimerGo(0x3456));
    // An unknown class with a proper length and checksum.
    EXPECT_EQ(Played("packet 13 41 01 02", 0), (Bytes{0x13, 0x07, 0, 0, 0, 0x41, 0x01, 0x02, 0xA2}));
    // Raw bytes go exactly as written, "at" included in nothing.
    EXPECT_EQ(Played("raw 00 00 10 05", 9), (Bytes{0x00, 0x00, 0x10, 0x05}));

    sim::mcu::Command c;
    std::string error;
    ASSERT_TRUE(sim::mcu::ParseCommand("split 3 20 capsit left down", &c, &error)) << error;
    EXPECT_EQ(c.kind, sim::mcu::Command::kSplit);
    EXPECT_EQ(c.splitAt, 3u);
    EXPECT_EQ(c.number, 20u);
    EXPECT_EQ(c.packet.Make(0), sim::mcu::Capsit(sim::mcu::kEvtCapsitLeftDown, 0));

    ASSERT_TRUE(sim::mcu::ParseCommand("mark  after the taps ", &c, &error));
    EXPECT_EQ(c.kind, sim::mcu::Command::kMark);
    EXPECT_EQ(c.text, "after the taps");
    ASSERT_TRUE(sim::mcu::ParseCommand("burst 100", &c, &error));
    EXPECT_EQ(c.kind, sim::mcu::Command::kBurst);
    EXPECT_EQ(c.text, "capsit");
    ASSERT_TRUE(sim::mcu::ParseCommand("ticks 0xFFFFFF", &c, &error));
    EXPECT_EQ(c.number, 0xFFFFFFu);
    ASSERT_TRUE(sim::mcu::ParseCommand("# a comment", &c, &error));
    EXPECT_EQ(c.kind, sim::mcu::Command::kNothing);
}

}  // namespace
