// Sessions, the files they name and the folders they use, the login file,
// and the manager's window, on a provisioned disk.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "session/FlashAccess.h"
#include "session/NVRAMBoard.h"
#include "session/TestManager.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/TestClock.h"

namespace {

using Lines = std::vector<std::wstring>;
const wchar_t kTempFile[] = L"\\Device Temp\\left-over.bin";

// The test manager's window among this thread's own (other test programs on
// the same desktop have theirs).
HWND ManagerWindow()
{
    HWND found = nullptr;
    EnumThreadWindows(
        GetCurrentThreadId(),
        [](HWND hwnd, LPARAM out) -> BOOL {
            wchar_t name[64] = {}, title[64] = {};
            GetClassNameW(hwnd, name, 64);
            GetWindowTextW(hwnd, title, 64);
            if (wcscmp(name, L"TestManangerMessageWin") != 0 || wcscmp(title, L"Test Manager Messages") != 0)
                return TRUE;
            *reinterpret_cast<HWND*>(out) = hwnd;
            return FALSE;
        },
        reinterpret_cast<LPARAM>(&found));
    return found;
}

std::wstring Take(wchar_t* text)
{
    std::unique_ptr<wchar_t[]> owned(text);
    return owned ? owned.get() : L"<null>";
}

class TestManagerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ProvisionDisk();
        RemoveDirectoryW(L"\\Device Temp");
        DeleteFileW(L"\\Device Temp");
        clock.SetLocal(L"Tue 03 Feb 2004 09:05:00");
    }
    void OpenControl()
    {
        control = CreateLocalControl();
        short ok = 0;
        ASSERT_EQ(control->Open(&ok), S_OK);
        ASSERT_EQ(ok, 1);
        manager = AsControl(control.Get())->GetTestManager();
        cookie = AdviseSink(control.Get(), &sink);
        capture.Clear();
    }
    void TearDown() override
    {
        if (control)
            UnadviseSink(control.Get(), cookie);
    }
    std::vector<short> SessionEndings() const
    {
        std::vector<short> causes;
        for (const ReceivedEvent& e : sink.events)
            if (e.id == 25)
                causes.push_back(e.args[0].iVal);
        return causes;
    }

    ComApartment com;
    TestClock clock;
    DebugCapture capture;
    RecordingSink sink;
    ComPtr<IBrennock> control;
    CTestManager* manager = nullptr;
    DWORD cookie = 0;
};

TEST_F(TestManagerTest, OpenWritesTheLoginFileAndOwnsAWindow)
{
    WriteDiskFile(kSimNVRAMFile, NVRAMImage(0x01020304, 0, 0, std::string("WXYZ") + std::string(12, 'k')));
    OpenControl();
    EXPECT_EQ(ReadFileBytes(L"\\HARD DISK\\SrvrInfo.bin"), std::string("\x04\x03\x02\x01WXYZ", 8));
    HWND window = ManagerWindow();
    ASSERT_NE(window, nullptr);
    // Its timer 1 ticks on this thread (a generous deadline, not a measure).
    MSG msg = {};
    bool ticked = false;
    for (const DWORD start = GetTickCount(); !ticked && GetTickCount() - start < 10000;) {
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 100, QS_TIMER);
        ticked = PeekMessageW(&msg, window, WM_TIMER, WM_TIMER, PM_REMOVE);
    }
    EXPECT_TRUE(ticked);
    EXPECT_EQ(msg.wParam, 1u);
    EXPECT_EQ(control->Close(), S_OK);
    EXPECT_EQ(ManagerWindow(), nullptr);
}

TEST_F(TestManagerTest, FileNamesCarryTheDeviceTheMinuteAndASequence)
{
    OpenControl();
    EXPECT_EQ(Take(manager->MakeTempFilename(L"Pegs", L".wav")), L"\\Device Temp\\0000065535_200402030905_000Pegs.wav");
    EXPECT_EQ(Take(manager->MakeTempFilename(L"Pegs", L".wav")), L"\\Device Temp\\0000065535_200402030905_001Pegs.wav");
    EXPECT_EQ(Take(manager->MakePermFilename(L".ezip")), L"\\Hard Disk\\Device Data\\0000065535_200402030905.ezip");
    EXPECT_TRUE(DiskFileExists(L"\\Device Temp"));
    EXPECT_TRUE(DiskFileExists(L"\\Hard Disk\\Device Data"));
    // The session start's probe takes 002; the session restarts at 000.
    ASSERT_EQ(control->SessionStart(), S_OK);
    clock.SetLocal(L"Tue 03 Feb 2004 10:12:00");
    EXPECT_EQ(Take(manager->MakeTempFilename(L"Quest", L".txt")), L"\\Device Temp\\0000065535_200402031012_000Quest.txt");
    EXPECT_TRUE(capture.Lines().empty());

    EXPECT_EQ(manager->MakeTempFilename(nullptr, L".motr"), nullptr);
    EXPECT_EQ(manager->MakeTempFilename(L"x", nullptr), nullptr);
    EXPECT_EQ(manager->MakePermFilename(nullptr), nullptr);
    EXPECT_EQ(capture.Lines(),
              (Lines{L"ERROR: MakeTempFilename: suffix missing a name because we're not in a test.\r\n",
                     L"MakeTempFilename: no suffix.\r\n", L"MakePermFilename: no suffix.\r\n"}));
}

TEST_F(TestManagerTest, SessionsClearTheTempFolderAndEndWithTheirCause)
{
    OpenControl();
    CreateDirectoryW(L"\\Device Temp", nullptr);
    WriteDiskFile(kTempFile, "old");
    ASSERT_EQ(control->SessionStart(), S_OK);
    EXPECT_FALSE(DiskFileExists(kTempFile));
    EXPECT_EQ(control->SessionStart(), E_FAIL);
    EXPECT_EQ(capture.Lines(), Lines{L"SessionStart: already in a session.\r\n"});

    // A cancel throws the session's files away and commits nothing.
    WriteDiskFile(kTempFile, "data");
    EXPECT_EQ(control->SessionCancel(), S_OK);
    EXPECT_FALSE(DiskFileExists(kTempFile));
    EXPECT_FALSE(DiskFileExists(kFlashBlockFile));
    EXPECT_EQ(SessionEndings(), std::vector<short>{103});
    // Outside a session an end does nothing and raises nothing.
    EXPECT_EQ(control->SessionEndNormal(), S_OK);
    EXPECT_EQ(control->SessionCancel(), S_OK);
    EXPECT_EQ(SessionEndings(), std::vector<short>{103});

    // A normal end commits the session's start to flash.
    clock.SetLocal(L"Tue 03 Feb 2004 09:30:00");
    ASSERT_EQ(control->SessionStart(), S_OK);
    WriteDiskFile(kTempFile, "data");
    WriteDiskFile(L"\\compress.zip", "zip");
    clock.SetLocal(L"Tue 03 Feb 2004 10:00:00");
    EXPECT_EQ(control->SessionEndNormal(), S_OK);
    EXPECT_EQ(SessionEndings(), (std::vector<short>{103, 0}));
    EXPECT_FALSE(DiskFileExists(kTempFile));
    EXPECT_FALSE(DiskFileExists(L"\\compress.zip"));
    const std::string image = ReadFileBytes(kFlashBlockFile).substr(kNVRAMAreaOffset, kNVRAMImageBytes);
    EXPECT_EQ(image, NVRAMImage(65535, TimeCount(L"Tue 03 Feb 2004 09:30:00"), 0, "Brennock default"));
}

TEST_F(TestManagerTest, FailuresToStartAndEnd)
{
    OpenControl();
    WriteDiskFile(L"\\Device Temp", "a file where the folder should be");
    EXPECT_EQ(control->SessionStart(), E_FAIL);
    EXPECT_EQ(capture.Lines(), (Lines{L"Could not create temp data folder.\r\n",
                                      L"SessionStart: couldn't create temp file.\r\n"}));
    DeleteFileW(L"\\Device Temp");

    // A commit that fails does not stop the end.
    ASSERT_EQ(control->SessionStart(), S_OK);
    CreateDirectoryW(kFlashBlockFile, nullptr);
    capture.Clear();
    EXPECT_EQ(control->SessionEndNormal(), S_OK);
    EXPECT_EQ(capture.Lines(), (Lines{L"PutNVRAM failed.\r\n", L"SessionEnd: NVRAM Commit failed.\r\n"}));
    EXPECT_EQ(SessionEndings(), std::vector<short>{0});
    RemoveDirectoryW(kFlashBlockFile);

    capture.Clear();
    CTestManager closed(GetModuleHandleW(nullptr), AsControl(control.Get()));
    EXPECT_FALSE(closed.SessionStart());
    EXPECT_FALSE(closed.SessionEnd(true));
    EXPECT_FALSE(closed.SessionEnd(false));
    EXPECT_EQ(capture.Lines(), (Lines{L"SessionStart: not open.\r\n", L"SessionEndNormal: not open.\r\n",
                                      L"SessionEndNormal: not open.\r\n"}));
}

TEST_F(TestManagerTest, CurrentFolderAndFreeStore)
{
    OpenControl();
    EXPECT_STREQ(manager->CurrentFolder(), L"\\Device Software");
    EXPECT_TRUE(manager->SetCurrentFolder(L"Tests"));
    EXPECT_TRUE(manager->SetCurrentFolder(L"Tests"));
    EXPECT_STREQ(manager->CurrentFolder(), L"\\Device Software\\Tests\\Tests");
    EXPECT_TRUE(manager->SetCurrentFolder(L"\\Hard Disk\\UI"));
    EXPECT_STREQ(manager->CurrentFolder(), L"\\Hard Disk\\UI");
    EXPECT_EQ(control->put_CurrentFolder(nullptr), E_FAIL);
    EXPECT_FALSE(manager->SetCurrentFolder(nullptr));
    EXPECT_EQ(capture.Lines(),
              (Lines{L"put_CurrentFolder - null folder name.\r\n", L"SetCurrentFolder: null curDir.\r\n"}));

    short mb = 0;
    EXPECT_EQ(control->get_FreeStoreMB(&mb), S_OK);
    EXPECT_GT(mb, 0);
    EXPECT_EQ(CTestManager::MegabytesCapped(40ULL << 30), 32767);
    EXPECT_EQ(CTestManager::MegabytesCapped(32768ULL << 20), 32767);
    EXPECT_EQ(CTestManager::MegabytesCapped((32767ULL << 20) + 1), 32767);
    EXPECT_EQ(CTestManager::MegabytesCapped((3ULL << 20) - 1), 2);
}

}  // namespace
