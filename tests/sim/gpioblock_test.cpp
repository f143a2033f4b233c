// The GPIO block file as the simulators see it (native): the edge journal's
// reader and the input side.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
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

    // What the control's desktop block does on a register write.
    void Drive(unsigned line, uint32_t kind) { gpio::JournalAppend(block.Base(), line, kind); }

    std::string dir, path;
    sim::GpioBlockFile block;
};

TEST_F(GpioBlockTest, AReaderSeesEveryEdgeFromItsStartOnInOrder)
{
    Drive(13, gpio::kEdgeHigh);  // before the reader: not reported
    sim::GpioEdgeReader reader(block);
    Drive(13, gpio::kEdgeOutput);
    Drive(13, gpio::kEdgeHigh);
    Drive(13, gpio::kEdgeLow);
    Drive(13, gpio::kEdgeInput);
    Drive(127, gpio::kEdgeHigh);

    sim::GpioEdgeReader::Edge e;
    uint32_t lost = 0;
    std::vector<std::string> seen;
    while (reader.Next(&e, &lost))
        seen.push_back(std::to_string(e.line) + " " + sim::EdgeKindName(e.kind));
    EXPECT_EQ(seen, (std::vector<std::string>{"13 output", "13 high", "13 low", "13 input", "127 high"}));
    EXPECT_EQ(lost, 0u);
    EXPECT_FALSE(reader.Next(&e, &lost));
}

TEST_F(GpioBlockTest, AReaderThatFellBehindIsToldHowManyEdgesItLost)
{
    sim::GpioEdgeReader reader(block);
    const unsigned total = gpio::kJournalSlots + 44;
    for (unsigned i = 0; i < total; ++i)
        Drive(i % 128, (i & 1) ? gpio::kEdgeHigh : gpio::kEdgeLow);

    sim::GpioEdgeReader::Edge e;
    uint32_t lost = 0;
    ASSERT_TRUE(reader.Next(&e, &lost));
    EXPECT_EQ(lost, 44u);
    // Then the newest 256, in order.
    EXPECT_EQ(e.line, 44u % 128);
    unsigned count = 1;
    unsigned last = 44;
    while (reader.Next(&e, &lost)) {
        ++count;
        ++last;
        EXPECT_EQ(e.line, last % 128);
    }
    EXPECT_EQ(count, gpio::kJournalSlots);
    EXPECT_EQ(lost, 44u);
}

TEST_F(GpioBlockTest, ARecordReservedButNeverWrittenIsSkippedAsLost)
{
    sim::GpioEdgeReader reader(block);
    // A writer took index 0 and died before storing it; the next one finished.
    __atomic_fetch_add(gpio::BlockWord(block.Base(), gpio::kJournalCount), 1u, __ATOMIC_ACQ_REL);
    Drive(21, gpio::kEdgeHigh);

    sim::GpioEdgeReader::Edge e;
    uint32_t lost = 0;
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(reader.Next(&e, &lost, 3)) << "waits for the writer a while";
    ASSERT_TRUE(reader.Next(&e, &lost, 3));
    EXPECT_EQ(lost, 1u);
    EXPECT_EQ(e.line, 21u);
    EXPECT_EQ(e.kind, gpio::kEdgeHigh);
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
    std::thread b([&] {
        for (int i = 0; i < 200000; ++i)
            other.SetLevel(40, !(i & 1));
    });
    a.join();
    b.join();
    EXPECT_TRUE(block.Level(33));
    EXPECT_FALSE(block.Level(40));
    other.SetLevel(40, true);
    EXPECT_TRUE(block.Level(40)) << "both mappings are the same file";
}

}  // namespace
