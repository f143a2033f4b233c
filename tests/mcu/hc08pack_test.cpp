// Packet framing and the recording list: the byte layouts other programs
// (the microcontroller, the study's decoders) depend on.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "mcu/HC08Pack.h"
#include "mcu/HC08PackList.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"

namespace {

using Bytes = std::vector<BYTE>;
using Lines = std::vector<std::wstring>;

struct Built
{
    int size = 0;
    std::unique_ptr<BYTE[]> bytes;
    Bytes Vec() const { return Bytes(bytes.get(), bytes.get() + size); }
};

template <class F>
Built Build(F f)
{
    Built b;
    b.bytes.reset(f(&b.size));
    return b;
}

TEST(HC08PackTest, LengthByteBoundsAndReporting)
{
    DebugCapture capture;
    BYTE p[16] = {0x10, 4};
    EXPECT_EQ(CHC08Pack::CalcSizePacket(p, true), 6);
    EXPECT_EQ(CHC08Pack::GetPayloadSize(p), 0);
    p[1] = 14;
    EXPECT_EQ(CHC08Pack::CalcSizePacket(p, true), 16);
    EXPECT_TRUE(capture.Lines().empty());

    p[1] = 3;
    EXPECT_EQ(CHC08Pack::CalcSizePacket(p, false), -1);
    p[1] = 15;
    EXPECT_EQ(CHC08Pack::CalcSizePacket(p, false), -1);
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(CHC08Pack::CalcSizePacket(p, true), -1);
    p[1] = 3;
    EXPECT_EQ(CHC08Pack::GetPayloadSize(p), -1);
    EXPECT_EQ(capture.Lines(), (Lines{L"Bad lenFollowing: 15\r\n", L"Bad lenFollowing: 3\r\n"}));

    capture.Clear();
    size_t before = AssertLines();
    EXPECT_EQ(CHC08Pack::CalcSizePacket(nullptr, true), -1);
    EXPECT_EQ(capture.Lines(), Lines{L"CHC08Pack::CalcSizePacket: null pPack\n"});
    EXPECT_EQ(AssertLines(), before + 1);
}

TEST(HC08PackTest, BuildersLayOutEveryPacketExactly)
{
    EXPECT_EQ(Build([](int* n) { return CHC08Pack::BuildTimerGo(n, 0x3456); }).Vec(),
              (Bytes{0x10, 0x05, 0x00, 0x34, 0x56, 0x20, 0x41}));
    // Ticks keep their low 24 bits.
    EXPECT_EQ(Build([](int* n) { return CHC08Pack::BuildTimerRollover(n, 0x01ABCDEF); }).Vec(),
              (Bytes{0x10, 0x05, 0xAB, 0xCD, 0xEF, 0x21, 0x63}));
    EXPECT_EQ(Build([](int* n) { return CHC08Pack::BuildDigitoLeftDownward(n, 0x000102, 0x12345); }).Vec(),
              (Bytes{0x10, 0x07, 0x00, 0x01, 0x02, 0x30, 0x23, 0x45, 0x4E}));
    struct { BYTE code; Built b; } plain[] = {
        {0x31, Build([](int* n) { return CHC08Pack::BuildDigitoLeftUpward(n, 7, 1); })},
        {0x34, Build([](int* n) { return CHC08Pack::BuildDigitoRightDownward(n, 7, 1); })},
        {0x35, Build([](int* n) { return CHC08Pack::BuildDigitoRightUpward(n, 7, 1); })},
        {0x3B, Build([](int* n) { return CHC08Pack::BuildCapsitLeftDown(n, 7); })},
        {0x3C, Build([](int* n) { return CHC08Pack::BuildCapsitLeftUp(n, 7); })},
        {0x38, Build([](int* n) { return CHC08Pack::BuildCapsitRightDown(n, 7); })},
        {0x39, Build([](int* n) { return CHC08Pack::BuildCapsitRightUp(n, 7); })},
    };
    for (auto& c : plain) {
        Bytes v = c.b.Vec();
        ASSERT_GE(v.size(), 7u);
        EXPECT_EQ(v[0], 0x10);
        EXPECT_EQ(v[5], c.code);
        EXPECT_EQ(v.size(), IsDigitoCode(c.code) ? 9u : 7u);
        unsigned sum = 0;
        for (BYTE x : v)
            sum += x;
        EXPECT_EQ(sum & 0xFF, 0u) << "code " << int(c.code);
    }

    // Pegs maps travel inverted.
    Built pegs = Build([](int* n) { return CHC08Pack::BuildPegsMap(n, 0, 0x0F, 0xF0); });
    EXPECT_EQ(pegs.Vec(), (Bytes{0x10, 0x07, 0, 0, 0, 0x40, 0x0F, 0xF0, 0xAA}));
    EXPECT_EQ(CHC08Pack::GetPegsInLeft(pegs.bytes.get()), 0x0F);
    EXPECT_EQ(CHC08Pack::GetPegsInRight(pegs.bytes.get()), 0xF0);

    Built reset = Build([](int* n) { return CHC08Pack::BuildHC08Reset(n, 0, 2, 7, 1, 1000, 0x55); });
    EXPECT_EQ(reset.Vec(), (Bytes{0x11, 0x0D, 0, 0, 0, 0x00, 2, 7, 1, 0x00, 0x00, 0x03, 0xE8, 0x55, 0x98}));
    EXPECT_EQ(CHC08Pack::GetTickHz(reset.bytes.get()), 1000u);

    BYTE cmd[4];
    CHC08Pack::BuildNoiseCommand(true, cmd);
    EXPECT_EQ(Bytes(cmd, cmd + 4), (Bytes{0x5A, 0x02, 0xFF, 0xA5}));
    CHC08Pack::BuildNoiseCommand(false, cmd);
    EXPECT_EQ(Bytes(cmd, cmd + 4), (Bytes{0x5A, 0x02, 0x00, 0xA4}));
}

TEST(HC08PackTest, FieldAccessorsRefuseTheWrongPacketKind)
{
    DebugCapture capture;
    Built go = Build([](int* n) { return CHC08Pack::BuildTimerGo(n, 0x3456); });
    Bytes before = go.Vec();
    size_t asserts = AssertLines();
    EXPECT_EQ(CHC08Pack::GetDeltaTicks(go.bytes.get()), 0);
    CHC08Pack::SetDeltaTicks(go.bytes.get(), 5);
    EXPECT_EQ(CHC08Pack::GetPegsInLeft(go.bytes.get()), 0);
    CHC08Pack::SetPegsInRight(go.bytes.get(), 5);
    EXPECT_EQ(CHC08Pack::GetTickHz(go.bytes.get()), 0u);
    CHC08Pack::SetTickHz(go.bytes.get(), 5);
    EXPECT_EQ(go.Vec(), before);  // setters wrote nothing
    EXPECT_EQ(AssertLines(), asserts + 6);
    EXPECT_TRUE(capture.Lines().empty());

    Built tap = Build([](int* n) { return CHC08Pack::BuildDigitoRightUpward(n, 1, 0xABCDE); });
    EXPECT_EQ(CHC08Pack::GetDeltaTicks(tap.bytes.get()), 0xBCDE);
    EXPECT_EQ(CHC08Pack::GetTicks(tap.bytes.get()), 1u);
}

// Seven-byte packets numbered through their ticks.
void Append(CHC08PackList& list, DWORD n)
{
    BYTE* slot = list.OpenPacket();
    ASSERT_NE(slot, nullptr);
    int size = 0;
    std::unique_ptr<BYTE[]> p(CHC08Pack::BuildCapsitLeftDown(&size, n));
    memcpy(slot, p.get(), size);
    ASSERT_TRUE(list.ClosePacket());
}

TEST(HC08PackListTest, BlocksSealAndIterationKeepsArrivalOrder)
{
    DebugCapture capture;
    CHC08PackList list;
    EXPECT_EQ(list.GetFirstPacket(), nullptr);
    EXPECT_TRUE(capture.Lines().empty());

    for (DWORD i = 0; i < 581; ++i)
        Append(list, i);
    EXPECT_EQ(list.BlockCount(), 1);
    // 581 x 7 = 4067 bytes of data: 9 left, so the block is sealed and the
    // next packet starts a second block.
    BYTE* slot = list.OpenPacket();
    EXPECT_EQ(list.BlockCount(), 2);
    int size = 0;
    std::unique_ptr<BYTE[]> p(CHC08Pack::BuildCapsitLeftDown(&size, 581));
    memcpy(slot, p.get(), size);
    ASSERT_TRUE(list.ClosePacket());
    EXPECT_EQ(list.Count(), 582);

    DWORD expected = 0;
    for (const BYTE* q = list.GetFirstPacket(); q != nullptr; q = list.GetNextPacket())
        EXPECT_EQ(CHC08Pack::GetTicks(q), expected++);
    EXPECT_EQ(expected, 582u);
    // GetFirstPacket restarts.
    ASSERT_NE(list.GetFirstPacket(), nullptr);
    EXPECT_EQ(CHC08Pack::GetTicks(list.GetFirstPacket()), 0u);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(HC08PackListTest, BadLengthSlotIsDiscardedAndReused)
{
    DebugCapture capture;
    CHC08PackList list;
    Append(list, 1);
    BYTE* slot = list.OpenPacket();
    slot[0] = 0x10;
    slot[1] = 0x20;  // 34 bytes: impossible
    EXPECT_FALSE(list.ClosePacket());
    EXPECT_EQ(capture.Lines(), Lines{L"Bad lenFollowing: 32\r\n"});
    BYTE* again = list.OpenPacket();
    EXPECT_EQ(again, slot);
    list.ClosePacket();  // the zeroed slot: also refused
    Append(list, 2);
    std::vector<DWORD> got;
    for (const BYTE* q = list.GetFirstPacket(); q != nullptr; q = list.GetNextPacket())
        got.push_back(CHC08Pack::GetTicks(q));
    EXPECT_EQ(got, (std::vector<DWORD>{1, 2}));
    EXPECT_EQ(list.Count(), 2);
}

TEST(HC08PackListTest, MisuseIsReportedAndChangesNothing)
{
    DebugCapture capture;
    CHC08PackList list;
    size_t asserts = AssertLines();
    EXPECT_FALSE(list.ClosePacket());
    ASSERT_NE(list.OpenPacket(), nullptr);
    EXPECT_EQ(list.OpenPacket(), nullptr);
    EXPECT_EQ(list.GetFirstPacket(), nullptr);
    EXPECT_EQ(capture.Lines(),
              (Lines{L"CHC08PackList: ClosePacket called without OpenPacket.\r\n",
                     L"CHC08PackList: OpenPacket called twice without ClosePacket.\r\n",
                     L"CHC08PackList: Attempt to get packet while open.\r\n"}));
    EXPECT_EQ(AssertLines(), asserts + 3);
    EXPECT_EQ(list.Count(), 0);
}

TEST(HC08PackListTest, StopsGrowingAtItsLimit)
{
    DebugCapture capture;
    CHC08PackList list;
    // The largest packets, to fill the most blocks the limit allows.
    for (int i = 0; i < CHC08PackList::kMaxPackets; ++i) {
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
    EXPECT_TRUE(capture.Lines().empty());
    int n = 0;
    for (const BYTE* q = list.GetFirstPacket(); q != nullptr; q = list.GetNextPacket())
        ++n;
    EXPECT_EQ(n, CHC08PackList::kMaxPackets);
}

}  // namespace
