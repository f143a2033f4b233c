// The NVRAM object over the desktop's flash block file: loading with its
// fallbacks, the script's keys, and committing.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "session/FlashAccess.h"
#include "session/NVRAMBoard.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
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
    void SetUp() override
    {
        ProvisionDisk();
        clock.SetLocal(L"Tue 03 Feb 2004 10:15:00");
    }
    std::string FlashFile() { return ReadFileBytes(kFlashBlockFile); }

    TestClock clock;
    DebugCapture capture;
};

TEST_F(NVRAMTest, BadFlashImagesFallBackWithoutWritingFlash)
{
    const std::string good = NVRAMImage(4242, TimeCount(L"Mon 02 Feb 2004 09:30:00"), 7, kBlob);
    const std::string sim = NVRAMImage(777, 0, 0, kBlob, 9, "JUNK");  // taken as it is
    struct Case
    {
        const char* what;
        std::string flash;   // empty: no block file (erased flash)
        std::string simFile; // empty: none
        Lines lines;
        DWORD deviceId;
    };
    const Case cases[] = {
        {"a good image", ConfigBlock(good), "", {}, 4242},
        {"erased flash, no simulation file", "", "",
         {L"Bad eboot config magic number\r\n", L"ERROR: Corrupted/uninitialized on-board NVRAM\r\n",
          L"LoadSimNVRAM: file doesn't exist - using defaults.\r\n"},
         65535},
        {"version 1, short simulation file", ConfigBlock(NVRAMImage(4242, 0, 0, kBlob, 1)), sim.substr(0, 34),
         {L"ERROR: Unknown on-board NVRAM format version number\r\n",
          L"LoadSimNVRAM: short read - using defaults.\r\n"},
         65535},
        {"version 3, simulation file", ConfigBlock(NVRAMImage(4242, 0, 0, kBlob, 3)), sim,
         {L"on-board NVRAM version ahead of our code.  Erasing.\r\n"}, 777},
        {"no magic, simulation file", ConfigBlock(NVRAMImage(4242, 0, 0, kBlob, 2, "QVMX")), sim,
         {L"ERROR: Corrupted/uninitialized on-board NVRAM\r\n"}, 777},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ProvisionDisk();
        if (!c.flash.empty())
            WriteDiskFile(kFlashBlockFile, c.flash);
        if (!c.simFile.empty())
            WriteDiskFile(kSimNVRAMFile, c.simFile);
        capture.Clear();
        CNVRAMBoard nv;
        ASSERT_TRUE(nv.Open());
        EXPECT_EQ(capture.Lines(), c.lines);
        EXPECT_EQ(nv.ReadDeviceID(), c.deviceId);
        EXPECT_FALSE(nv.IsDirty());
        EXPECT_TRUE(nv.Commit());
        nv.Close();
        EXPECT_EQ(FlashFile(), c.flash);  // untouched: nothing changed
    }
}

TEST_F(NVRAMTest, DefaultsAndTheScriptsKeys)
{
    CNVRAMBoard nv;
    ASSERT_TRUE(nv.Open());
    capture.Clear();
    EXPECT_EQ(Read(nv, L"deviceid"), L"0000065535");
    EXPECT_EQ(Read(nv, L"PrevSessionDateTime"), L"Mon 03 Feb 2003 10:15:00");  // a year before now
    EXPECT_EQ(Read(nv, L"NextPictureIndex"), L"0");
    EXPECT_EQ(Read(nv, L"AnonymousName"), L"4272656e6e6f636b2064656661756c74");  // "Brennock default"
    EXPECT_EQ(Read(nv, L"Unknown"), L"<default>");
    EXPECT_TRUE(capture.Lines().empty());

    // A key blob of 00 0A FF ... shows each byte without leading zeros.
    ASSERT_TRUE(nv.SetKeyBlob(reinterpret_cast<const BYTE*>(kBlob.data()), 16));
    EXPECT_EQ(Read(nv, L"anonymousname"), L"0aff104142434445464748494a4b4c");
    EXPECT_FALSE(nv.SetKeyBlob(reinterpret_cast<const BYTE*>(kBlob.data()), 15));
    DWORD length = 0;
    EXPECT_TRUE(nv.GetKeyBlob(nullptr, &length));
    EXPECT_EQ(length, 16u);
    BYTE blob[16];
    length = 15;
    EXPECT_FALSE(nv.GetKeyBlob(blob, &length));
    EXPECT_EQ(length, 0u);

    // Only the picture index can be written; negative values pass with a warning.
    EXPECT_TRUE(nv.NVParameterWrite(L"nextpictureindex", L"-3"));
    EXPECT_EQ(Read(nv, L"NextPictureIndex"), L"-3");
    EXPECT_FALSE(nv.NVParameterWrite(L"NextPictureIndex", L"abc"));
    EXPECT_FALSE(nv.NVParameterWrite(L"DeviceID", L"1"));
    EXPECT_FALSE(nv.NVParameterWrite(L"PrevSessionDateTime", L"x"));
    EXPECT_FALSE(nv.NVParameterWrite(L"AnonymousName", L"x"));
    EXPECT_FALSE(nv.NVParameterWrite(L"Colour", L"x"));
    EXPECT_EQ(capture.Lines(), (Lines{L"Warning: NVparameterRead: NextPictureIndex < 0\r\n",
                                      L"Warning: NVparameterRead: NextPictureIndex < 0\r\n",
                                      L"ERROR: NVParameterWrite: bad NextPictureIndex.\r\n",
                                      L"ERROR: NVParameterWrite: attempt to write DeviceID.\r\n",
                                      L"ERROR: NVParameterWrite: attempt to write PrevSessionDateTime.\r\n",
                                      L"ERROR: NVParameterWrite: attempt to write AnonymousName.\r\n",
                                      L"ERROR: NVParameterWrite: Unknown Key name.\r\n"}));
    EXPECT_EQ(nv.ReadNextPictureIndex(), -3);

    capture.Clear();
    nv.Close();
    EXPECT_EQ(nv.NVParameterRead(L"DEVICEID", L"x"), nullptr);
    EXPECT_FALSE(nv.NVParameterWrite(L"NextPictureIndex", L"1"));
    EXPECT_EQ(capture.Lines(), (Lines{L"NVParameterRead: not open\r\n", L"NVParameterWrite: not open\r\n"}));
}

TEST_F(NVRAMTest, GarbledPreviousSessionReadsAsTheDefault)
{
    WriteDiskFile(kFlashBlockFile, ConfigBlock(NVRAMImage(1, 0xFFFFFFFFFFFFFFFFULL, 0, kBlob)));
    CNVRAMBoard nv;
    ASSERT_TRUE(nv.Open());
    EXPECT_EQ(Read(nv, L"PrevSessionDateTime"), L"<default>");
    SYSTEMTIME st = ParseTime(L"Sun 01 Feb 2004 00:00:00"), before = st;
    EXPECT_FALSE(nv.NVReadPrevSessionDateTime(&st));
    EXPECT_EQ(TimeText(st), TimeText(before));
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

    CNVRAMBoard nv;
    ASSERT_TRUE(nv.Open());
    const SYSTEMTIME when = ParseTime(L"Tue 03 Feb 2004 10:15:00");
    ASSERT_TRUE(nv.NVWritePrevSessionDateTime(&when));
    nv.WriteNextPictureIndex(-2);
    ASSERT_TRUE(nv.Commit());
    EXPECT_FALSE(nv.IsDirty());

    std::string expected = block;
    const std::string image =
        NVRAMImage(0x01020304, TimeCount(L"Tue 03 Feb 2004 10:15:00"), -2, kBlob);
    expected.replace(kNVRAMAreaOffset, image.size(), image);
    EXPECT_EQ(FlashFile(), expected);
    // Byte for byte: big-endian ID, FILETIME high half first, index, blob.
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
    CNVRAMBoard nv;
    ASSERT_TRUE(nv.Open());
    nv.WriteNextPictureIndex(1);
    capture.Clear();
    EXPECT_FALSE(nv.Commit());
    EXPECT_TRUE(nv.Commit());  // the failed image is not tried again
    EXPECT_EQ(capture.Lines(), (Lines{L"ERROR: Corrupted/uninitialized copy of NVRAM\r\n"}));
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
    capture.Clear();
    EXPECT_FALSE(nv.Commit());
    EXPECT_TRUE(nv.Commit());
    CloseHandle(holder);
    EXPECT_EQ(capture.Lines(), (Lines{L"PutNVRAM failed.\r\n"}));
    EXPECT_EQ(FlashFile(), block);

    // Only a flash block that cannot be read fails Open.
    nv.Close();
    DeleteDiskFile(kFlashBlockFile);
    CreateDirectoryW(kFlashBlockFile, nullptr);
    capture.Clear();
    EXPECT_FALSE(nv.Open());
    EXPECT_EQ(capture.Lines(), (Lines{L"GetNVRAM failed.\r\n"}));
    RemoveDirectoryW(kFlashBlockFile);
}

TEST_F(NVRAMTest, NVRAMAreaBoundsAndKeyBlobs)
{
    BYTE bytes[16] = {};
    EXPECT_FALSE(GetNVRAM(250, 10, bytes));  // past the 256-byte area
    EXPECT_FALSE(GetNVRAM(-1, 1, bytes));
    EXPECT_FALSE(PutNVRAM(0, 0, bytes));
    EXPECT_TRUE(GetNVRAM(255, 1, bytes));
    EXPECT_EQ(bytes[0], 0xFF);  // erased

    std::string block = ConfigBlock("");
    DWORD sizes[3] = {5, 1024, 200};
    EXPECT_FALSE(GetFlashKeyBlobs(nullptr, &sizes[0], nullptr, nullptr, nullptr, nullptr));  // no tag
    block.replace(kKeyTagOffset, 4, "ZOLW");
    block.replace(kAuthorityPublicKeyOffset, 9, std::string("\x05\0\0\0" "AUTHK", 9));
    block.replace(kDevicePrivateKeyOffset, 7, std::string("\x03\0\0\0" "DEV", 7));
    block.replace(kServerPublicKeyOffset, 4, std::string("\xF0\x01\0\0", 4));  // 496: up to the block's end
    WriteDiskFile(kFlashBlockFile, block);

    BYTE authority[8] = {}, device[2] = {}, server[1024] = {};
    EXPECT_FALSE(GetFlashKeyBlobs(authority, nullptr, device, nullptr, server, nullptr));  // nothing asked
    DWORD a = sizeof(authority), d = sizeof(device), s = sizeof(server);
    EXPECT_TRUE(GetFlashKeyBlobs(authority, &a, device, &d, server, &s));
    EXPECT_EQ((std::vector<DWORD>{a, d, s}), (std::vector<DWORD>{5, 3, 496}));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(authority), 5), "AUTHK");
    EXPECT_EQ(device[0], 0);  // too small: not copied
    EXPECT_EQ(server[0], 0xFF);
}

}  // namespace
