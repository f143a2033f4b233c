// The simulators' line faults: the damage each one does is exactly what its
// log line says, so the fault run's counts can rest on the log.
#include <gtest/gtest.h>

#include <string>

#include "sim/LineFaults.h"
#include "sim/SimConsole.h"

namespace {

sim::LineFaults::Parsed Arm(sim::LineFaults& faults, const std::string& line)
{
    sim::LineFaultCommand c;
    std::string error;
    const sim::LineFaults::Parsed parsed = sim::LineFaults::Parse(sim::Words(line), &c, &error);
    if (parsed == sim::LineFaults::Parsed::kYes)
        faults.Arm(c);
    return parsed;
}

TEST(LineFaults, EveryFaultDamagesAsItsNoteSaysAndNoiseFollowsTheSeed)
{
    const std::string packet("\x10\x05\x00\x34\x56\x20\x41", 7);
    std::string note;
    sim::LineFaults faults, a, b;
    ASSERT_EQ(Arm(faults, "drop next 3"), sim::LineFaults::Parsed::kYes);
    EXPECT_EQ(faults.Damage(packet, &note), std::string("\x10\x05\x00\x56\x20\x41", 6));
    EXPECT_EQ(note, "dropped byte 3 (0x34)");
    EXPECT_EQ(faults.Damage(packet, &note), packet) << "only the next packet";
    EXPECT_TRUE(note.empty());
    ASSERT_EQ(Arm(faults, "dup next 6"), sim::LineFaults::Parsed::kYes);
    EXPECT_EQ(faults.Damage(packet, &note), packet + "\x41");
    EXPECT_EQ(note, "doubled byte 6 (0x41)");

    // Rates damage about that share of the packets; off stops them.
    ASSERT_EQ(Arm(faults, "drop rate 20"), sim::LineFaults::Parsed::kYes);
    int damaged = 0;
    for (int i = 0; i < 1000; ++i) {
        const std::string out = faults.Damage("0123456789", &note);
        EXPECT_EQ(out.size(), note.empty() ? 10u : 9u);
        damaged += !note.empty();
    }
    EXPECT_GT(damaged, 120);
    EXPECT_LT(damaged, 280);
    ASSERT_EQ(Arm(faults, "drop off"), sim::LineFaults::Parsed::kYes);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(faults.Damage("0123456789", &note), "0123456789");
    EXPECT_EQ(Arm(faults, "drop rate 101"), sim::LineFaults::Parsed::kBad);
    EXPECT_EQ(Arm(faults, "noise 0"), sim::LineFaults::Parsed::kBad);
    EXPECT_EQ(Arm(faults, "reset"), sim::LineFaults::Parsed::kNo);

    ASSERT_EQ(Arm(a, "seed 7"), sim::LineFaults::Parsed::kYes);
    ASSERT_EQ(Arm(b, "seed 7"), sim::LineFaults::Parsed::kYes);
    EXPECT_EQ(a.Noise(32), b.Noise(32));
    EXPECT_EQ(a.Noise(5).size(), 5u);
}

}  // namespace
