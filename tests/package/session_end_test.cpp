// A session's normal end through the registered control: the package in
// "Device Data", the copy without a compression library, and the ends that
// fail. What is packed is opened after the run by the study's tools
// (tests/scripts/package_test.sh).
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "session/FlashAccess.h"
#include "tests/support/PackageDisk.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/McuSim.h"
#include "tests/support/MessagePump.h"

namespace {

using Names = std::vector<std::wstring>;
using S = ScriptObject;

constexpr DISPID kActivityEnded = 14;
constexpr DISPID kSessionEnded = 25;
const char kManifest[] = "study: bench\r\nfiles: motr, wav\r\n";

void EmptyFolder(const std::wstring& folder)
{
    for (const std::wstring& name : FilesIn(folder))
        DeleteFileW((folder + L"\\" + name).c_str());
}

class SessionEndTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_HRESULT_SUCCEEDED(com.Result());
        ProvisionDisk();
        ASSERT_TRUE(WriteDiskFile(kFlashBlockFile, StudyBlock()));
        ASSERT_TRUE(WriteDiskFile(L"\\Hard Disk\\Manifest.txt", kManifest));
        ASSERT_TRUE(InstallCompressLibrary(true));
        EmptyFolder(L"\\Hard Disk\\Device Data");
        EmptyFolder(L"\\Device Temp");
        RemoveDirectoryW(L"\\compress.zip");
        DeleteFileW(L"\\compress.zip");
        control = CreateRegisteredControl();
        ASSERT_TRUE(control);
        cookie = AdviseSink(control.Get(), &sink);
    }
    void TearDown() override
    {
        if (control) {
            UnadviseSink(control.Get(), cookie);
            control->Close();
        }
    }
    void OpenAndStart()
    {
        short ok = 0;
        ASSERT_EQ(control->Open(&ok), S_OK);
        ASSERT_EQ(ok, 1);
        ASSERT_EQ(control->SessionStart(), S_OK);
    }
    // Ends the session normally and waits for its SessionEnded cause; a
    // failed packaging also fails the call.
    short EndSession(HRESULT expected = S_OK)
    {
        EXPECT_EQ(script().Call(L"SessionEndNormal"), expected);
        EXPECT_TRUE(PumpUntil([&] { return Count(kSessionEnded) > 0; }, 120000));
        for (const ReceivedEvent& e : sink.events)
            if (e.id == kSessionEnded && e.args.size() == 1 && e.args[0].vt == VT_I2)
                return e.args[0].iVal;
        return -1;
    }
    size_t Count(DISPID id) const
    {
        size_t n = 0;
        for (const ReceivedEvent& e : sink.events)
            n += e.id == id;
        return n;
    }
    ScriptObject script() { return ScriptObject(control.Get()); }

    ComApartment com;
    RecordingSink sink;
    ComPtr<IBrennock> control;
    DWORD cookie = 0;
};

TEST_F(SessionEndTest, ATappingSessionEndsInOneSignedPackage)
{
    ASSERT_TRUE(McuSim::Running());
    OpenAndStart();
    ASSERT_EQ(script().Call(L"ActivityConfig", {S::I2(1), S::Str(L"Tap"), S::I2(0), S::I2(0)}), S_OK);
    ASSERT_EQ(control->ActivityStart(0), S_OK);
    McuSim mcu;
    for (const char* tap : {"digito left down 120", "digito left up 40", "digito right down 7", "capsit left up"})
        ASSERT_TRUE(mcu.Send(tap));
    ASSERT_TRUE(mcu.Sync());
    ASSERT_TRUE(PumpUntil([&] { return sink.events.size() >= 4; }));
    ASSERT_EQ(control->ActivityEndNormal(), S_OK);
    ASSERT_TRUE(PumpUntil([&] { return Count(kActivityEnded) == 1; }));
    const Names recorded = FilesIn(L"\\Device Temp");
    ASSERT_EQ(recorded.size(), 1u);
    KeepForChecks(L"\\Device Temp\\" + recorded[0], L"session.motr");
    KeepForChecks(L"\\Hard Disk\\Manifest.txt", L"session-Manifest.txt");

    SYSTEMTIME before;
    GetLocalTime(&before);
    EXPECT_EQ(EndSession(), 0);
    EXPECT_EQ(FilesIn(L"\\Device Temp"), Names{});
    EXPECT_EQ(GetFileAttributesW(L"\\compress.zip"), INVALID_FILE_ATTRIBUTES);
    const Names packed = FilesIn(L"\\Hard Disk\\Device Data");
    ASSERT_EQ(packed.size(), 1u);
    // Device ID and the minute of the end: yyyymmddhhmm.
    std::wsmatch stamp;
    ASSERT_TRUE(std::regex_match(packed[0], stamp, std::wregex(L"0000065535_(\\d{12})\\.ezip")));
    wchar_t earliest[16];
    swprintf(earliest, 16, L"%04d%02d%02d%02d%02d", before.wYear, before.wMonth, before.wDay, before.wHour,
             before.wMinute);
    EXPECT_GE(stamp[1].str(), std::wstring(earliest));
    KeepForChecks(L"\\Hard Disk\\Device Data\\" + packed[0], L"session.ezip");
}

TEST_F(SessionEndTest, WithoutTheLibraryTheFilesAreCopiedAsTheyAre)
{
    ASSERT_TRUE(InstallCompressLibrary(false));
    OpenAndStart();
    const std::string sound(100000, '\x7f');
    ASSERT_TRUE(WriteDiskFile(L"\\Device Temp\\voice.wav", sound));
    const size_t asserts = AssertLines();
    EXPECT_EQ(EndSession(), 0);

    Names copied = FilesIn(L"\\Hard Disk\\Device Data");
    std::sort(copied.begin(), copied.end());
    EXPECT_EQ(copied, (Names{L"Manifest.txt", L"voice.wav"}));
    EXPECT_EQ(ReadFileBytes(L"\\Hard Disk\\Device Data\\voice.wav"), sound);
    EXPECT_EQ(ReadFileBytes(L"\\Hard Disk\\Device Data\\Manifest.txt"), kManifest);
    EXPECT_EQ(FilesIn(L"\\Device Temp"), Names{});
    ASSERT_EQ(AssertLines(), asserts + 1);
    const std::string log = ReadFileBytes(L"\\Hard Disk\\asserts.txt");
    EXPECT_NE(log.find("TestManagerPackaging.cpp line "), std::string::npos);
    EXPECT_NE(log.find(" WARNING: compression dll not found...copying uncompressed, non-encrypted user files to USB "
                       "Flash.\r\n"),
              std::string::npos);
}

TEST_F(SessionEndTest, AnEmptySessionWithoutLibraryOrManifestSucceeds)
{
    ASSERT_TRUE(InstallCompressLibrary(false));
    DeleteFileW(L"\\Hard Disk\\Manifest.txt");
    OpenAndStart();
    EXPECT_EQ(EndSession(), 0);
    EXPECT_EQ(FilesIn(L"\\Hard Disk\\Device Data"), Names{});
}

TEST_F(SessionEndTest, AFailingLibraryEndsWith102AndCopiesNothing)
{
    // The archive's place is taken by a folder: the library cannot write it.
    ASSERT_TRUE(CreateDirectoryW(L"\\compress.zip", nullptr));
    OpenAndStart();
    ASSERT_TRUE(WriteDiskFile(L"\\Device Temp\\voice.wav", "RIFF"));
    DebugCapture debug;
    EXPECT_EQ(EndSession(E_FAIL), 102);
    EXPECT_EQ(FilesIn(L"\\Hard Disk\\Device Data"), Names{});
    EXPECT_EQ(FilesIn(L"\\Device Temp"), Names{});
    EXPECT_EQ(debug.Count(L"CompressTempFiles: sZip failed.\r\n"), 1u);
    EXPECT_EQ(debug.Count(L"Compression failed.\r\n"), 1u);
    RemoveDirectoryW(L"\\compress.zip");
}

TEST_F(SessionEndTest, AFailedEncryptionStillEndsWith0)
{
    std::string unprovisioned = StudyBlock();
    unprovisioned.replace(kKeyTagOffset, 4, "\xFF\xFF\xFF\xFF", 4);
    ASSERT_TRUE(WriteDiskFile(kFlashBlockFile, unprovisioned));
    OpenAndStart();
    const size_t asserts = AssertLines();
    DebugCapture debug;
    EXPECT_EQ(EndSession(), 0);
    EXPECT_EQ(debug.Count(L"EncryptFile: File encryption and signing failed.\r\n"), 1u);
    EXPECT_EQ(debug.Count(L"Encryption failed.\r\n"), 0u);
    EXPECT_EQ(AssertLines(), asserts + 1);
    EXPECT_EQ(FilesIn(L"\\Hard Disk\\Device Data"), Names{});
    EXPECT_EQ(GetFileAttributesW(L"\\compress.zip"), INVALID_FILE_ATTRIBUTES);
}

TEST_F(SessionEndTest, AFileThatCannotBeDeletedIsReportedAndTheRestGo)
{
    OpenAndStart();
    ASSERT_TRUE(WriteDiskFile(L"\\Device Temp\\a.wav", "RIFF"));
    ASSERT_TRUE(WriteDiskFile(L"\\Device Temp\\b.wav", "RIFF"));
    HANDLE held = CreateFileW(L"\\Device Temp\\a.wav", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    DebugCapture debug;
    EXPECT_EQ(control->SessionCancel(), S_OK);
    EXPECT_EQ(debug.Count(L"Warning: DeleteFile failed.\r\n"), 1u);
    EXPECT_EQ(FilesIn(L"\\Device Temp"), Names{L"a.wav"});
    CloseHandle(held);
}

// Run by the packaging script on a device disk that is a small file system of
// its own (BRENNOCK_FULL_DISK=1): the session's files fit, their archive not.
TEST_F(SessionEndTest, AFullDiskDuringCompressionEndsWith102)
{
    if (_wgetenv(L"BRENNOCK_FULL_DISK") == nullptr)
        GTEST_SKIP() << "needs a small device disk (tests/scripts/package_test.sh)";
    OpenAndStart();
    std::string noise(3 << 20, '\0');
    unsigned x = 12345;
    for (char& c : noise)
        c = static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
    ASSERT_TRUE(WriteDiskFile(L"\\Device Temp\\voice.wav", noise));
    DebugCapture debug;
    EXPECT_EQ(EndSession(E_FAIL), 102);
    EXPECT_EQ(debug.Count(L"CompressTempFiles: sZip failed.\r\n"), 1u);
    EXPECT_EQ(FilesIn(L"\\Hard Disk\\Device Data"), Names{});
    EXPECT_EQ(GetFileAttributesW(L"\\compress.zip"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetFileAttributesW(L"\\compress.zip.tmp"), INVALID_FILE_ATTRIBUTES);
}

}  // namespace
