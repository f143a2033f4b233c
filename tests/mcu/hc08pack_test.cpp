// Packet framing and the recording list: the byte layouts other programs
// (the microcontroller, the study's decoders) depend on.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "mcu/HC08Pack.h"
#include "mcu/HC08PackList.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"

namespace {

using Bytes = std::vector<BYTE>;
using Lines = std::vector<std::wstring>;

// What one of the builders makes.
template <class F>
Bytes Build(F f)
{
    int size = 0;
    std::unique_ptr<BYTE[]> p(f(&size));
    return Bytes(p.get(), p.get() + size);
}

TEST(HC08PackTest, LengthByteBoundsMisuseAndReporting)
{
    DebugCapture capture;
    BYTE p[16] = {0x10, 4};
    auto size = [&p](BYTE len, bool report) { p[1] = len; return CHC08Pack::CalcSizePacket(p, report); };
    EXPECT_EQ(size(4, true), 6);
    EXPECT_EQ(CHC08Pack::GetPayloadSize(p), 0);
    EXPECT_EQ(size(14, true), 16);
    EXPECT_EQ(size(3, false), -1);
    EXPECT_EQ(size(15, false), -1);
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(size(15, true), -1);
    p[1] = 3;
    EXPECT_EQ(CHC08Pack::GetPayloadSize(p), -1);
    EXPECT_EQ(capture.Lines(), (Lines{L"Bad lenFollowing: 15\r\n", L"Bad lenFollowing: 3\r\n"}));

    capture.Clear();
    size_t before = AssertLines();
    EXPECT_EQ(CHC08Pack::CalcSizePacket(nullptr, true), -1);
    EXPECT_EQ(capture.Lines(), Lines{L"CHC08Pack::CalcSizePacket: null pPack\n"});
    EXPECT_EQ(AssertLines(), before + 1);

    // Field accessors refuse the wrong packet kind: asserts, nothing written.
    capture.Clear();
    Bytes go = Build([](int* n) { return CHC08Pack::BuildTimerGo(n, 0x3456); });
    const Bytes unchanged = go;
    EXPECT_EQ(CHC08Pack::GetDeltaTicks(go.data()) + CHC08Pack::GetPegsInLeft(go.data()) +
                  CHC08Pack::GetTickHz(go.data()), 0u);
    CHC08Pack::SetDeltaTicks(go.data(), 5);
    CHC08Pack::SetPegsInRight(go.data(), 5);
    CHC08Pack::SetTickHz(go.data(), 5);
    EXPECT_EQ(go, unchanged);
    EXPECT_EQ(AssertLines(), before + 7);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(HC08PackTest, BuildersLayOutEveryPacketExactly)
{
#define BUILT(call) Build([](int* n) { return CHC08Pack::call; })
    struct Case
    {
        Bytes built, bytes;
    } cases[] = {
        {BUILT(BuildTimerGo(n, 0x3456)), {0x10, 0x05, 0x00, 0x34, 0x56, 0x20, 0x41}},
        // Ticks keep their low 24 bits, deltas their low 16.
        {BUILT(BuildTimerRollover(n, 0x01ABCDEF)), {0x10, 0x05, 0xAB, 0xCD, 0xEF, 0x21, 0x63}},
        {BUILT(BuildDigitoLeftDownward(n, 0x000102, 0x12345)), {0x10, 0x07, 0x00, 0x01, 0x02, 0x30, 0x23, 0x45, 0x4E}},
        {BUILT(BuildDigitoLeftUpward(n, 7, 1)), {0x10, 7, 0, 0, 7, 0x31, 0, 1, 0xB0}},
        {BUILT(BuildDigitoRightDownward(n, 7, 1)), {0x10, 7, 0, 0, 7, 0x34, 0, 1, 0xAD}},
        {BUILT(BuildDigitoRightUpward(n, 7, 1)), {0x10, 7, 0, 0, 7, 0x35, 0, 1, 0xAC}},
        {BUILT(BuildCapsitLeftDown(n, 7)), {0x10, 5, 0, 0, 7, 0x3B, 0xA9}},
        {BUILT(BuildCapsitLeftUp(n, 7)), {0x10, 5, 0, 0, 7, 0x3C, 0xA8}},
        {BUILT(BuildCapsitRightDown(n, 7)), {0x10, 5, 0, 0, 7, 0x38, 0xAC}},
        {BUILT(BuildCapsitRightUp(n, 7)), {0x10, 5, 0, 0, 7, 0x39, 0xAB}},
        // Pegs maps travel inverted: right first.
        {BUILT(BuildPegsMap(n, 0, 0x0F, 0xF0)), {0x10, 0x07, 0, 0, 0, 0x40, 0x0F, 0xF0, 0xAA}},
        {BUILT(BuildHC08Reset(n, 0, 2, 7, 1, 1000, 0x55)), {0x11, 0x0D, 0, 0, 0, 0, 2, 7, 1, 0, 0, 3, 0xE8, 0x55, 0x98}},
    };
#undef BUILT
    for (const Case& c : cases)
        EXPECT_EQ(c.built, c.bytes);
}

// Seven-byte packets numbered through their ticks.
void Append(CHC08PackList& list, DWORD n)
{
    BYTE* slot = list.OpenPacket();
    ASSERT_NE(slot, nullptr);
    Bytes p = Build([n](int* size) { return CHC08Pack::BuildCapsitLeftDown(size, n); });
    memcpy(slot, p.data(), p.size());
    ASSERT_TRUE(list.ClosePacket());
}

std::vector<DWORD> TicksIn(CHC08PackList& list)
{
    std::vector<DWORD> ticks;
    for (const BYTE* q = list.GetFirstPacket(); q != nullptr; q = list.GetNextPacket())
        ticks.push_back(CHC08Pack::GetTicks(q));
    return ticks;
}

TEST(HC08PackListTest, BlocksSealIterationKeepsArrivalOrderAndTheListStopsGrowingAtItsLimit)
{
    DebugCapture capture;
    CHC08PackList list;
    EXPECT_EQ(list.GetFirstPacket(), nullptr);
    std::vector<DWORD> expected;
    for (DWORD i = 0; i < 582; ++i) {
        // 581 x 7 = 4067 bytes of data leave 9: the block is sealed and the
        // 582nd packet starts a second one.
        Append(list, i);
        ASSERT_EQ(list.BlockCount(), i < 581 ? 1 : 2) << i;
        expected.push_back(i);
    }
    EXPECT_EQ(list.Count(), 582);
    EXPECT_EQ(TicksIn(list), expected);
    EXPECT_EQ(TicksIn(list), expected) << "GetFirstPacket restarts";

    // Then the largest packets, to fill the most blocks the limit allows.
    for (int i = 582; i < CHC08PackList::kMaxPackets; ++i) {
        BYTE* slot = list.OpenPacket();
        ASSERT_NE(slot, nullptr) << i;
        memset(slot, 0, 16);
        slot[0] = 0x10;
        slot[1] = 14;
        ASSERT_TRUE(list.ClosePacket());
    }
    int blocks = list.BlockCount();
    EXPECT_EQ(list.OpenPacket(), nullptr);
    EXPECT_EQ(list.Count(), CHC08PackList::kMaxPackets);
    EXPECT_EQ(list.BlockCount(), blocks);
    EXPECT_EQ(TicksIn(list).size(), static_cast<size_t>(CHC08PackList::kMaxPackets));
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(HC08PackListTest, ABadLengthOrMisuseIsReportedAndTheSlotReused)
{
    DebugCapture capture;
    CHC08PackList list;
    size_t asserts = AssertLines();
    EXPECT_FALSE(list.ClosePacket());
    Append(list, 1);
    BYTE* slot = list.OpenPacket();
    EXPECT_EQ(list.OpenPacket(), nullptr);
    EXPECT_EQ(list.GetFirstPacket(), nullptr);
    slot[0] = 0x10;
    slot[1] = 0x20;  // 34 bytes: impossible
    EXPECT_FALSE(list.ClosePacket());
    EXPECT_EQ(capture.Lines(), (Lines{L"CHC08PackList: ClosePacket called without OpenPacket.\r\n",
                                      L"CHC08PackList: OpenPacket called twice without ClosePacket.\r\n",
                                      L"CHC08PackList: Attempt to get packet while open.\r\n",
                                      L"Bad lenFollowing: 32\r\n"}));
    EXPECT_EQ(AssertLines(), asserts + 3);
    EXPECT_EQ(list.OpenPacket(), slot);
    list.ClosePacket();  // the zeroed slot: also refused
    Append(list, 2);
    EXPECT_EQ(TicksIn(list), (std::vector<DWORD>{1, 2}));
    EXPECT_EQ(list.Count(), 2);
}

}  // namespace
