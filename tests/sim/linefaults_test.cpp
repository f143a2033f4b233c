// The simulators' line faults: the damage each one does is exactly what its
// log line says, so the fault run's counts can rest on the log.
#include <gtest/gtest.h>

#include <string>

#include "sim/LineFaults.h"
#include "sim/SimConsole.h"

namespace {

sim::LineFaults::Parsed Parse(const std::string& line, sim::LineFaultCommand* c)
{
    std::string error;
    return sim::LineFaults::Parse(sim::Words(line), c, &error);
}

sim::LineFaults Armed(const std::string& line)
{
    sim::LineFaultCommand c;
    EXPECT_EQ(Parse(line, &c), sim::LineFaults::Parsed::kYes) << line;
    sim::LineFaults faults;
    faults.Arm(c);
    return faults;
}

TEST(LineFaults, NextFaultsDamageOnePacketAtTheGivenByteAndSaySo)
{
    const std::string packet("\x10\x05\x00\x34\x56\x20\x41", 7);
    std::string note;
    sim::LineFaults drop = Armed("drop next 3"), dup = Armed("dup next 6");
    EXPECT_EQ(drop.Damage(packet, &note), std::string("\x10\x05\x00\x56\x20\x41", 6));
    EXPECT_EQ(note, "dropped byte 3 (0x34)");
    EXPECT_EQ(drop.Damage(packet, &note), packet) << "only the next packet";
    EXPECT_TRUE(note.empty());
    EXPECT_EQ(dup.Damage(packet, &note), packet + "\x41");
    EXPECT_EQ(note, "doubled byte 6 (0x41)");
}

TEST(LineFaults, RatesDamageAboutThatShareAndOffStopsThemAndNoiseFollowsTheSeed)
{
    sim::LineFaults faults = Armed("drop rate 20");
    std::string note;
    int damaged = 0;
    for (int i = 0; i < 1000; ++i) {
        std::string out = faults.Damage("0123456789", &note);
        damaged += !note.empty();
        EXPECT_EQ(out.size(), note.empty() ? 10u : 9u);
    }
    EXPECT_GT(damaged, 120);
    EXPECT_LT(damaged, 280);
    sim::LineFaultCommand c;
    ASSERT_EQ(Parse("drop off", &c), sim::LineFaults::Parsed::kYes);
    faults.Arm(c);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(faults.Damage("0123456789", &note), "0123456789");
    EXPECT_EQ(Parse("drop rate 101", &c), sim::LineFaults::Parsed::kBad);
    EXPECT_EQ(Parse("noise 0", &c), sim::LineFaults::Parsed::kBad);
    EXPECT_EQ(Parse("reset", &c), sim::LineFaults::Parsed::kNo);

    sim::LineFaults a = Armed("seed 7"), b = Armed("seed 7");
    EXPECT_EQ(a.Noise(32), b.Noise(32));
    EXPECT_EQ(a.Noise(5).size(), 5u);
}

}  // namespace
