// The simulators' line faults: the damage each one does is exactly what its
// log line says, so the fault run's counts can rest on the log.
#include <gtest/gtest.h>

#include <string>

#include "sim/LineFaults.h"
#include "sim/SimConsole.h"

namespace {

sim::LineFaultCommand Parsed(const std::string& line)
{
    sim::LineFaultCommand c;
    std::string error;
    EXPECT_EQ(sim::LineFaults::Parse(sim::Words(line), &c, &error), sim::LineFaults::Parsed::kYes) << error;
    return c;
}

TEST(LineFaults, NextFaultsDamageOnePacketAtTheGivenByteAndSaySo)
{
    sim::LineFaults faults;
    const std::string packet("\x10\x05\x00\x34\x56\x20\x41", 7);
    std::string note;
    faults.Arm(Parsed("drop next 3"));
    EXPECT_EQ(faults.Damage(packet, &note), std::string("\x10\x05\x00\x56\x20\x41", 6));
    EXPECT_EQ(note, "dropped byte 3 (0x34)");
    EXPECT_EQ(faults.Damage(packet, &note), packet) << "only the next packet";
    EXPECT_TRUE(note.empty());
    faults.Arm(Parsed("dup next 6"));
    EXPECT_EQ(faults.Damage(packet, &note), packet + "\x41");
    EXPECT_EQ(note, "doubled byte 6 (0x41)");
}

TEST(LineFaults, RatesDamageAboutThatShareAndOffStopsThem)
{
    sim::LineFaults faults;
    faults.Arm(Parsed("drop rate 20"));
    std::string note;
    int damaged = 0;
    for (int i = 0; i < 1000; ++i) {
        std::string out = faults.Damage("0123456789", &note);
        damaged += !note.empty();
        EXPECT_EQ(out.size(), note.empty() ? 10u : 9u);
    }
    EXPECT_GT(damaged, 120);
    EXPECT_LT(damaged, 280);
    faults.Arm(Parsed("drop off"));
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(faults.Damage("0123456789", &note), "0123456789");
    std::string error;
    sim::LineFaultCommand c;
    EXPECT_EQ(sim::LineFaults::Parse(sim::Words("drop rate 101"), &c, &error), sim::LineFaults::Parsed::kBad);
    EXPECT_EQ(sim::LineFaults::Parse(sim::Words("noise 0"), &c, &error), sim::LineFaults::Parsed::kBad);
    EXPECT_EQ(sim::LineFaults::Parse(sim::Words("reset"), &c, &error), sim::LineFaults::Parsed::kNo);
}

TEST(LineFaults, NoiseIsTheSameForTheSameSeed)
{
    sim::LineFaults a, b;
    a.Arm(Parsed("seed 7"));
    b.Arm(Parsed("seed 7"));
    EXPECT_EQ(a.Noise(32), b.Noise(32));
    EXPECT_EQ(a.Noise(5).size(), 5u);
}

}  // namespace
