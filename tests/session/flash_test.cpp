// Rewriting the configuration block in flash, against a model of the two
// side-by-side chips that checks every command and can fail any step.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "session/FlashAccess.h"
#include "session/FlashProgrammer.h"
#include "session/NVRAMBoard.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/FlashChipModel.h"
#include "tests/support/TestClock.h"

namespace {

using Lines = std::vector<std::wstring>;
using Op = FlashChipModel::Op;
const std::string kBlob("0123456789abcdef", 16);
const wchar_t kHalted[] = L"Unrecoverable failure encountered while erasing flash.  System halted!\r\n";

// A provisioned block: the boot loader's words, the key region and an image.
std::string ProvisionedBlock()
{
    std::string block = ConfigBlock(NVRAMImage(31337, TimeCount(L"Mon 02 Feb 2004 09:30:00"), 4, kBlob));
    block.replace(0, 8, "EBOOTCFG");
    block.replace(kKeyTagOffset, 4, "ZOLW");
    return block;
}

// Block images compared by their first difference.
testing::AssertionResult SameBlock(const std::string& actual, const std::string& expected)
{
    if (actual == expected)
        return testing::AssertionSuccess();
    size_t at = 0;
    while (at < actual.size() && at < expected.size() && actual[at] == expected[at])
        ++at;
    return testing::AssertionFailure() << "sizes " << actual.size() << "/" << expected.size()
                                       << ", first difference at byte " << at;
}

class FlashTest : public ::testing::Test
{
protected:
    FlashTest() : model(0x0089, 0x0018, 0x20000), flash(&model) {}

    void SetUp() override
    {
        ProvisionDisk();
        previous = FlashStoreInstall(&flash);
        model.Load(ProvisionedBlock());
        ASSERT_TRUE(nv.Open());
        nv.WriteNextPictureIndex(5);
        capture.Clear();
    }
    void TearDown() override
    {
        nv.Close();
        FlashStoreInstall(previous);
        EXPECT_TRUE(model.faults.empty()) << testing::PrintToString(model.faults);
    }
    std::string Committed()
    {
        std::string block = ProvisionedBlock();
        block.replace(kNVRAMAreaOffset, kNVRAMImageBytes, reinterpret_cast<const char*>(nv.Image()),
                      kNVRAMImageBytes);
        return block;
    }

    TestClock clock;
    FlashChipModel model;
    CFlashProgrammer flash;
    IConfigBlockStore* previous = nullptr;
    CNVRAMBoard nv;
    DebugCapture capture;
};

TEST_F(FlashTest, EachPartIsErasedInItsOwnStepsAndReprogrammed)
{
    struct Part
    {
        WORD manufacturer, device;
        DWORD unitBytes;
        int geometryClass, erases;
    };
    const Part parts[] = {{0x0089, 0x0018, 0x20000, 1, 1}, {0x0089, 0x881A, 0x10000, 2, 2},
                          {0x0089, 0x88C5, 0x8000, 3, 4},  {0x0089, 0x88C3, 0x4000, 4, 8},
                          {0x00B0, 0x1234, 0x4000, 0, 8}};  // unknown: the finest walk still works
    for (const Part& p : parts) {
        SCOPED_TRACE(p.device);
        FlashChipModel chips(p.manufacturer, p.device, p.unitBytes);
        chips.Load(ProvisionedBlock());
        chips.array[0x7000] = 0x12345678;  // a stale word elsewhere in the erase block
        CFlashProgrammer programmer(&chips);
        FlashStoreInstall(&programmer);
        nv.WriteNextPictureIndex(static_cast<short>(p.erases));
        ASSERT_TRUE(nv.Commit());
        EXPECT_EQ(programmer.GeometryClass(), p.geometryClass);
        EXPECT_EQ(chips.erases, p.erases);
        EXPECT_EQ(chips.lockClears, p.erases);
        EXPECT_EQ(chips.programs, static_cast<int>(kConfigBlockWords));
        EXPECT_TRUE(chips.InReadArray());
        EXPECT_TRUE(SameBlock(chips.Block(), Committed()));
        EXPECT_EQ(chips.array[0x7000], 0xFFFFFFFFu);
        EXPECT_TRUE(chips.faults.empty()) << testing::PrintToString(chips.faults);
    }
    FlashStoreInstall(&flash);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(FlashTest, AFailedEraseHaltsAndFlashIsNotTouchedAgain)
{
    struct Case
    {
        Op op;
        int half;
        WORD bits;
        Lines lines;
    };
    const Case cases[] = {
        {Op::ClearLocks, 0, 0x08, {L"\r\nVoltage Range Error ... Lower flash.\r\n"}},
        {Op::ClearLocks, 1, 0x30, {L"\r\nCommand Sequence Error ... Upper flash.\r\n"}},
        {Op::ClearLocks, 0, 0x20, {L"\r\nClear Lock Bits Error ... Lower flash.\r\n"}},
        {Op::Erase, 1, 0x08, {L"\r\nVoltage Range Error ... Upper flash.\r\n"}},
        {Op::Erase, 0, 0x30, {L"\r\nCommand Sequence Error ... Lower flash.\r\n"}},
        {Op::Erase, 0, 0x22, {L"\n\rBlock erase failure.  Lock bit lower flash set!\r\n"}},
        {Op::Erase, 1, 0x22, {L"\n\rBlock erase failure.  Lock bit upper flash set!\r\n"}},
        {Op::Erase, 1, 0x20, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.lines));
        FlashChipModel chips(0x0089, 0x0018, 0x20000);
        chips.Load(ProvisionedBlock());
        chips.Inject(c.op, c.half, c.bits);
        CFlashProgrammer programmer(&chips);
        FlashStoreInstall(&programmer);
        nv.WriteNextPictureIndex(1);
        capture.Clear();
        EXPECT_FALSE(nv.Commit());
        Lines expected = c.lines;
        expected.push_back(kHalted);
        expected.push_back(L"PutNVRAM failed.\r\n");
        EXPECT_EQ(capture.Lines(), expected);
        EXPECT_TRUE(programmer.Halted());

        // Halted: neither a later commit nor a later open reaches the chips.
        const long long accesses = chips.accesses;
        capture.Clear();
        nv.WriteNextPictureIndex(2);
        EXPECT_FALSE(nv.Commit());
        CNVRAMBoard again;
        EXPECT_FALSE(again.Open());
        EXPECT_EQ(capture.Lines(), (Lines{L"PutNVRAM failed.\r\n", L"GetNVRAM failed.\r\n"}));
        EXPECT_EQ(chips.accesses, accesses);
        EXPECT_TRUE(chips.faults.empty()) << testing::PrintToString(chips.faults);
    }
    FlashStoreInstall(&flash);
}

TEST_F(FlashTest, AWordThatStaysProgrammedFailsTheEraseCheck)
{
    model.Stick(0x5000, 0xFFFF7FFF);
    EXPECT_FALSE(nv.Commit());
    EXPECT_EQ(capture.Lines(),
              (Lines{L"Erase verification failure at Virtual Addr 0xA0054000 Physical Addr 0x54000 Data 0xFFFF7FFF]\r\n",
                     kHalted, L"PutNVRAM failed.\r\n"}));
    EXPECT_TRUE(flash.Halted());
}

TEST_F(FlashTest, AFailedProgramIsReportedOnceAndLeavesTheChipsReadable)
{
    struct Case
    {
        int half;
        WORD bits;
        const wchar_t* line;
    };
    const Case cases[] = {{0, 0x18, L"Voltage Range Error ... \r\n"},
                          {1, 0x12, L"Device Protect Error ... \r\n"},
                          {1, 0x10, L"Programming Error ... \r\n"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(c.line)));
        model.Load(ProvisionedBlock());
        model.Inject(Op::Program, c.half, c.bits);
        const int erasesBefore = model.erases;
        nv.WriteNextPictureIndex(9);
        capture.Clear();
        EXPECT_FALSE(nv.Commit());
        EXPECT_EQ(capture.Lines(), (Lines{c.line, L"PutNVRAM failed.\r\n"}));
        EXPECT_EQ(model.erases, erasesBefore + 1);  // not retried
        EXPECT_TRUE(model.InReadArray());
        EXPECT_FALSE(flash.Halted());
    }
    // The program stopped at its first word (where only the good chip wrote
    // its half): the rest of the block stays erased, the boot loader's words
    // with it. The next change goes through into what is left.
    const std::string left = model.Block();
    EXPECT_TRUE(SameBlock(left.substr(4), std::string(kConfigBlockBytes - 4, '\xFF')));
    nv.WriteNextPictureIndex(10);
    capture.Clear();
    EXPECT_TRUE(nv.Commit());
    std::string expected = left;
    expected.replace(kNVRAMAreaOffset, kNVRAMImageBytes, reinterpret_cast<const char*>(nv.Image()), kNVRAMImageBytes);
    EXPECT_TRUE(SameBlock(model.Block(), expected));
    EXPECT_EQ(capture.Lines(), (Lines{L"Bad eboot config magic number\r\n"}));
}

}  // namespace
