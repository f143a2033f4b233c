#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "session/FlashAccess.h"
#include "session/FlashProgrammer.h"
#include "session/NVRAMBoard.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/FlashChipModel.h"
#include "tests/support/TestClock.h"

namespace {

using Lines = std::vector<std::wstring>;
const std::string kBlob("\x00\x0a\xff\x10" "ABCDEFGHIJKL", 16);

std::wstring Read(CNVRAMBoard& nv, const wchar_t* key)
{
    std::unique_ptr<wchar_t[]> value(nv.NVParameterRead(key, L"<default>"));
    return value ? value.get() : L"<null>";
}

class NVRAMTest : public ::testing::Test
{
protected:
    void SetUp() override { ProvisionDisk(); clock.SetLocal(L"Tue 03 Feb 2004 10:15:00"); }
    std::string FlashFile() { return ReadFileBytes(kFlashBlockFile); }

    TestClock clock;
    DebugCapture capture;
    CNVRAMBoard nv;
};

TEST_F(NVRAMTest, BadFlashImagesFallBackWithoutWritingFlash)
{
    const std::string sim = NVRAMImage(777, 0, 0, kBlob, 9, "JUNK");  // taken as it is
    const std::wstring corrupted = L"ERROR: Corrupted/uninitialized on-board NVRAM\r\n";
    struct Case { const char* what; std::string flash, simFile; Lines lines; DWORD deviceId; };
    const Case cases[] = {
        {"a good image", ConfigBlock(NVRAMImage(4242, 0, 7, kBlob)), "", {}, 4242},
        {"erased flash, no simulation file", "", "",
         {L"Bad eboot config magic number\r\n", corrupted, L"LoadSimNVRAM: file doesn't exist - using defaults.\r\n"},
         65535},
        {"version 1, short simulation file", ConfigBlock(NVRAMImage(4242, 0, 0, kBlob, 1)), sim.substr(0, 34),
         {L"ERROR: Unknown on-board NVRAM format version number\r\n", L"LoadSimNVRAM: short read - using defaults.\r\n"},
         65535},
        {"version 3, simulation file", ConfigBlock(NVRAMImage(4242, 0, 0, kBlob, 3)), sim,
         {L"on-board NVRAM version ahead of our code.  Erasing.\r\n"}, 777},
        {"no magic, simulation file", ConfigBlock(NVRAMImage(4242, 0, 0, kBlob, 2, "QVMX")), sim, {corrupted}, 777},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ProvisionDisk();
        if (!c.flash.empty())
            WriteDiskFile(kFlashBlockFile, c.flash);
        if (!c.simFile.empty())
            WriteDiskFile(kSimNVRAMFile, c.simFile);
        capture.Clear();
        ASSERT_TRUE(nv.Open());
        EXPECT_EQ(capture.Lines(), c.lines);
        EXPECT_EQ(nv.ReadDeviceID(), c.deviceId);
        EXPECT_TRUE(nv.Commit());
        nv.Close();
        EXPECT_EQ(FlashFile(), c.flash);  // untouched: nothing changed
    }
}

TEST_F(NVRAMTest, DefaultsTheScriptsKeysAndAGarbledPreviousSession)
{
    ASSERT_TRUE(nv.Open());
    capture.Clear();
    EXPECT_EQ(Read(nv, L"PrevSessionDateTime"), L"Mon 03 Feb 2003 10:15:00");  // a year before now
    EXPECT_EQ(Read(nv, L"NextPictureIndex"), L"0");
    EXPECT_EQ(Read(nv, L"AnonymousName"), L"4272656e6e6f636b2064656661756c74");  // "Brennock default"
    EXPECT_EQ(Read(nv, L"Unknown"), L"<default>");
    EXPECT_TRUE(capture.Lines().empty());

    // Each byte of the blob without leading zeros.
    ASSERT_TRUE(nv.SetKeyBlob(reinterpret_cast<const BYTE*>(kBlob.data()), 16));
    EXPECT_EQ(Read(nv, L"anonymousname"), L"0aff104142434445464748494a4b4c");
    // Only the picture index can be written; negative values pass with a warning.
    EXPECT_TRUE(nv.NVParameterWrite(L"nextpictureindex", L"-3"));
    EXPECT_EQ(Read(nv, L"NextPictureIndex"), L"-3");
    EXPECT_EQ(nv.ReadNextPictureIndex(), -3);
    for (const wchar_t* key : {L"NextPictureIndex", L"DeviceID", L"PrevSessionDateTime", L"AnonymousName", L"Colour"})
        EXPECT_FALSE(nv.NVParameterWrite(key, L"abc")) << key;
    nv.Close();
    EXPECT_FALSE(nv.NVParameterWrite(L"NextPictureIndex", L"1"));
    EXPECT_EQ(capture.Lines(), (Lines{L"Warning: NVparameterRead: NextPictureIndex < 0\r\n",
                                      L"Warning: NVparameterRead: NextPictureIndex < 0\r\n",
                                      L"ERROR: NVParameterWrite: bad NextPictureIndex.\r\n",
                                      L"ERROR: NVParameterWrite: attempt to write DeviceID.\r\n",
                                      L"ERROR: NVParameterWrite: attempt to write PrevSessionDateTime.\r\n",
                                      L"ERROR: NVParameterWrite: attempt to write AnonymousName.\r\n",
                                      L"ERROR: NVParameterWrite: Unknown Key name.\r\n",
                                      L"NVParameterWrite: not open\r\n"}));

    // A garbled previous session reads as the default.
    WriteDiskFile(kFlashBlockFile, ConfigBlock(NVRAMImage(1, 0xFFFFFFFFFFFFFFFFULL, 0, kBlob)));
    ASSERT_TRUE(nv.Open());
    capture.Clear();
    EXPECT_EQ(Read(nv, L"PrevSessionDateTime"), L"<default>");
    SYSTEMTIME st = ParseTime(L"Sun 01 Feb 2004 00:00:00");
    EXPECT_FALSE(nv.NVReadPrevSessionDateTime(&st));
    EXPECT_EQ(TimeText(st), L"Sun 01 Feb 2004 00:00:00");
    EXPECT_EQ(capture.Lines(), (Lines{L"ERROR: NVParameterRead: NVRAM corrupted: garbled PrevSessionDateTime.\r\n",
                                      L"NVReadPrevSessionDateTime: FileTimeToSystemTime failed.\r\n"}));
}

TEST_F(NVRAMTest, CommitWritesTheImageIntoTheBlockOnceAndKeepsTheRest)
{
    // A provisioned block: key region and other boot loader words must survive.
    std::string block = ConfigBlock(NVRAMImage(0x01020304, TimeCount(L"Mon 02 Feb 2004 09:30:00"), 5, kBlob));
    block.replace(kKeyTagOffset, 4, "ZOLW");
    block.replace(100, 8, "bootcfg!");
    WriteDiskFile(kFlashBlockFile, block);
    ASSERT_TRUE(nv.Open());
    const SYSTEMTIME when = ParseTime(L"Tue 03 Feb 2004 10:15:00");
    ASSERT_TRUE(nv.NVWritePrevSessionDateTime(&when));
    nv.WriteNextPictureIndex(-2);
    ASSERT_TRUE(nv.Commit());
    EXPECT_FALSE(nv.IsDirty());
    const std::string image = NVRAMImage(0x01020304, TimeCount(L"Tue 03 Feb 2004 10:15:00"), -2, kBlob);
    EXPECT_EQ(FlashFile(), block.replace(kNVRAMAreaOffset, image.size(), image));
    // Byte for byte: magic, version, big-endian ID.
    EXPECT_EQ(FlashFile().substr(kNVRAMAreaOffset, 9), std::string("QVMR\x02\x01\x02\x03\x04", 9));

    // Nothing changed since: the block file is not rewritten.
    WriteDiskFile(kFlashBlockFile, "sentinel");
    EXPECT_TRUE(nv.Commit());
    EXPECT_EQ(FlashFile(), "sentinel");
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(NVRAMTest, AForeignImageIsNeverCommittedAndFailuresAreNotRetried)
{
    WriteDiskFile(kSimNVRAMFile, NVRAMImage(9, 0, 0, kBlob, 2, "XXXX"));
    ASSERT_TRUE(nv.Open());
    nv.WriteNextPictureIndex(1);
    capture.Clear();
    EXPECT_FALSE(nv.Commit());
    EXPECT_TRUE(nv.Commit());  // the failed image is not tried again
    EXPECT_FALSE(DiskFileExists(kFlashBlockFile));

    // A flash write that fails is reported once: here the block can be read
    // but not rewritten while someone else holds it.
    nv.Close();
    const std::string block = ConfigBlock(NVRAMImage(5, 0, 0, kBlob));
    WriteDiskFile(kFlashBlockFile, block);
    ASSERT_TRUE(nv.Open());
    nv.WriteNextPictureIndex(1);
    HANDLE holder = CreateFileW(kFlashBlockFile, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(holder, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(nv.Commit());
    EXPECT_TRUE(nv.Commit());
    CloseHandle(holder);
    EXPECT_EQ(FlashFile(), block);

    // Only a flash block that cannot be read fails Open.
    nv.Close();
    DeleteDiskFile(kFlashBlockFile);
    CreateDirectoryW(kFlashBlockFile, nullptr);
    EXPECT_FALSE(nv.Open());
    RemoveDirectoryW(kFlashBlockFile);
    EXPECT_EQ(capture.Lines(), (Lines{L"ERROR: Corrupted/uninitialized copy of NVRAM\r\n", L"PutNVRAM failed.\r\n",
                                      L"GetNVRAM failed.\r\n"}));
}

using Op = FlashChipModel::Op;
const wchar_t kHalted[] = L"Unrecoverable failure encountered while erasing flash.  System halted!\r\n";

// A provisioned block: the boot loader's words, the key region and an image.
std::string ProvisionedBlock()
{
    std::string block = ConfigBlock(NVRAMImage(31337, 0, 4, "0123456789abcdef"));
    block.replace(0, 8, "EBOOTCFG");
    block.replace(kKeyTagOffset, 4, "ZOLW");
    return block;
}

// Block images compared by their first difference.
testing::AssertionResult SameBlock(const std::string& a, const std::string& b)
{
    return (a == b ? testing::AssertionSuccess() : testing::AssertionFailure())
           << "sizes " << a.size() << "/" << b.size() << ", differ at "
           << (std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
}

class FlashTest : public NVRAMTest
{
protected:
    void SetUp() override { NVRAMTest::SetUp(); Use(); ASSERT_TRUE(nv.Open()); }
    void TearDown() override
    {
        nv.Close();
        FlashStoreInstall(nullptr);
        EXPECT_TRUE(chips->faults.empty()) << testing::PrintToString(chips->faults);
    }
    // A fresh pair of chips (and programmer) behind the NVRAM object, once
    // the last pair has seen no breach of their protocol.
    void Use(WORD manufacturer = 0x0089, WORD device = 0x0018, DWORD unitBytes = 0x20000)
    {
        if (chips)
            EXPECT_TRUE(chips->faults.empty()) << testing::PrintToString(chips->faults);
        chips = std::make_unique<FlashChipModel>(manufacturer, device, unitBytes);
        flash = std::make_unique<CFlashProgrammer>(chips.get());
        chips->Load(ProvisionedBlock());
        FlashStoreInstall(flash.get());
        capture.Clear();
    }
    // The block as it must read after a commit of the current image onto base.
    std::string Committed(std::string base)
    {
        return base.replace(kNVRAMAreaOffset, kNVRAMImageBytes, reinterpret_cast<const char*>(nv.Image()),
                            kNVRAMImageBytes);
    }

    std::unique_ptr<FlashChipModel> chips;
    std::unique_ptr<CFlashProgrammer> flash;
};

TEST_F(FlashTest, EachPartIsErasedInItsOwnStepsAndReprogrammed)
{
    struct Part { WORD manufacturer, device; DWORD unitBytes; int geometryClass, erases; };
    const Part parts[] = {{0x0089, 0x0018, 0x20000, 1, 1}, {0x0089, 0x881A, 0x10000, 2, 2},
                          {0x0089, 0x88C5, 0x8000, 3, 4},  {0x0089, 0x88C3, 0x4000, 4, 8},
                          {0x00B0, 0x1234, 0x4000, 0, 8}};  // unknown: the finest walk still works
    for (const Part& p : parts) {
        SCOPED_TRACE(p.device);
        Use(p.manufacturer, p.device, p.unitBytes);
        chips->array[0x7000] = 0x12345678;  // a stale word elsewhere in the erase block
        nv.WriteNextPictureIndex(static_cast<short>(p.erases));
        ASSERT_TRUE(nv.Commit());
        EXPECT_EQ(flash->GeometryClass(), p.geometryClass);
        EXPECT_EQ((std::vector<int>{chips->erases, chips->lockClears, chips->programs}),
                  (std::vector<int>{p.erases, p.erases, static_cast<int>(kConfigBlockWords)}));
        EXPECT_TRUE(chips->InReadArray());
        EXPECT_TRUE(SameBlock(chips->Block(), Committed(ProvisionedBlock())));
        EXPECT_EQ(chips->array[0x7000], 0xFFFFFFFFu);
        EXPECT_TRUE(capture.Lines().empty());
    }
}

TEST_F(FlashTest, AFailedEraseHaltsAndAFailedProgramIsReportedOnce)
{
    struct Case { Op op; int half; WORD bits; Lines lines; };
    const Case cases[] = {
        {Op::ClearLocks, 0, 0x08, {L"\r\nVoltage Range Error ... Lower flash.\r\n"}},
        {Op::ClearLocks, 1, 0x30, {L"\r\nCommand Sequence Error ... Upper flash.\r\n"}},
        {Op::ClearLocks, 0, 0x20, {L"\r\nClear Lock Bits Error ... Lower flash.\r\n"}},
        {Op::Erase, 1, 0x08, {L"\r\nVoltage Range Error ... Upper flash.\r\n"}},
        {Op::Erase, 0, 0x30, {L"\r\nCommand Sequence Error ... Lower flash.\r\n"}},
        {Op::Erase, 0, 0x22, {L"\n\rBlock erase failure.  Lock bit lower flash set!\r\n"}},
        {Op::Erase, 1, 0x22, {L"\n\rBlock erase failure.  Lock bit upper flash set!\r\n"}},
        {Op::Erase, 1, 0x20, {}},
        // A word that stays programmed through the erase.
        {Op::Erase, 0, 0,
         {L"Erase verification failure at Virtual Addr 0xA0054000 Physical Addr 0x54000 Data 0xFFFF7FFF]\r\n"}},
        // A failed program does not halt, is not retried and leaves the chips readable.
        {Op::Program, 0, 0x18, {L"Voltage Range Error ... \r\n"}},
        {Op::Program, 1, 0x12, {L"Device Protect Error ... \r\n"}},
        {Op::Program, 1, 0x10, {L"Programming Error ... \r\n"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.lines));
        Use();
        if (c.bits)
            chips->Inject(c.op, c.half, c.bits);
        else
            chips->Stick(0x5000, 0xFFFF7FFF);
        nv.WriteNextPictureIndex(1);
        EXPECT_FALSE(nv.Commit());
        const bool halts = c.op != Op::Program;
        Lines expected = c.lines;
        if (halts)
            expected.push_back(kHalted);
        expected.push_back(L"PutNVRAM failed.\r\n");
        EXPECT_EQ(capture.Lines(), expected);
        EXPECT_EQ(flash->Halted(), halts);
        if (!halts) {
            EXPECT_TRUE(chips->erases == 1 && chips->InReadArray()) << chips->erases;
            continue;
        }

        // Halted: neither a later commit nor a later open reaches the chips.
        const long long accesses = chips->accesses;
        capture.Clear();
        nv.WriteNextPictureIndex(2);
        EXPECT_FALSE(nv.Commit());
        CNVRAMBoard again;
        EXPECT_FALSE(again.Open());
        EXPECT_EQ(capture.Lines(), (Lines{L"PutNVRAM failed.\r\n", L"GetNVRAM failed.\r\n"}));
        EXPECT_EQ(chips->accesses, accesses);
    }
    // The program stopped at its first word (where only the good chip wrote
    // its half): the rest of the block stays erased, the boot loader's words
    // with it. The next change goes through into what is left.
    const std::string left = chips->Block();
    EXPECT_TRUE(SameBlock(left.substr(4), std::string(kConfigBlockBytes - 4, '\xFF')));
    nv.WriteNextPictureIndex(10);
    capture.Clear();
    EXPECT_TRUE(nv.Commit());
    EXPECT_TRUE(SameBlock(chips->Block(), Committed(left)));
    EXPECT_EQ(capture.Lines(), (Lines{L"Bad eboot config magic number\r\n"}));
}

}  // namespace
