// The GPIO block file as the simulators see it (native): the edge journal the
// control writes, as the simulators' reader takes it, and the input side.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <unistd.h>

#include "sim/GpioBlock.h"

namespace {

class GpioBlockTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        char templ[] = "/tmp/brennock-gpioblock.XXXXXX";
        ASSERT_NE(mkdtemp(templ), nullptr);
        dir = templ;
        path = dir + "/gpioblock.bin";
        std::string error;
        ASSERT_TRUE(block.Open(path, &error)) << error;
    }
    void TearDown() override
    {
        block.Close();
        unlink(path.c_str());
        rmdir(dir.c_str());
    }

    // What the control's block does on a register write.
    void Drive(unsigned line, uint32_t kind) { gpio::JournalAppend(block.Base(), line, kind); }

    // Every edge the reader has now as "<line> <kind>", and what it lost.
    static std::vector<std::string> Read(sim::GpioEdgeReader& reader, uint32_t* lost)
    {
        std::vector<std::string> seen;
        for (sim::GpioEdgeReader::Edge e; reader.Next(&e, lost);)
            seen.push_back(std::to_string(e.line) + " " + sim::EdgeKindName(e.kind));
        return seen;
    }

    std::string dir, path;
    sim::GpioBlockFile block;
};

TEST_F(GpioBlockTest, AReaderSeesEveryEdgeFromItsStartOnInOrderOrHowManyItLost)
{
    Drive(13, gpio::kEdgeHigh);  // before the reader: not reported
    sim::GpioEdgeReader reader(block);
    for (uint32_t kind : {gpio::kEdgeOutput, gpio::kEdgeHigh, gpio::kEdgeLow, gpio::kEdgeInput})
        Drive(13, kind);
    Drive(127, gpio::kEdgeHigh);
    uint32_t lost = 0;
    EXPECT_EQ(Read(reader, &lost), (std::vector<std::string>{"13 output", "13 high", "13 low", "13 input", "127 high"}));
    EXPECT_EQ(lost, 0u);

    // 44 more than the ring holds: the oldest 44 are lost, the rest come in order.
    for (unsigned i = 0; i < gpio::kJournalSlots + 44; ++i)
        Drive(i % 128, gpio::kEdgeLow);
    std::vector<std::string> seen = Read(reader, &lost);
    EXPECT_EQ(lost, 44u);
    ASSERT_EQ(seen.size(), gpio::kJournalSlots);
    EXPECT_EQ(seen.front(), "44 low");
    EXPECT_EQ(seen.back(), std::to_string((gpio::kJournalSlots + 43) % 128) + " low");
}

TEST_F(GpioBlockTest, InputsOfOneBankCanBeDrivenFromSeveralSimulatorsAtOnce)
{
    // Lines 33 and 40 share bank 1; neither driver may undo the other's bit.
    sim::GpioBlockFile other;
    std::string error;
    ASSERT_TRUE(other.Open(path, &error)) << error;
    std::thread a([&] {
        for (int i = 0; i < 200000; ++i)
            block.SetLevel(33, i & 1);
    });
    for (int i = 0; i < 200000; ++i)
        other.SetLevel(40, !(i & 1));
    a.join();
    EXPECT_TRUE(block.Level(33));
    EXPECT_FALSE(block.Level(40));
    other.SetLevel(40, true);
    EXPECT_TRUE(block.Level(40)) << "both mappings are the same file";
}

}  // namespace
