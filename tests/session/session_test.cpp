#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mcu/HC08.h"
#include "mcu/HC08Pack.h"
#include "mcu/HC08PackList.h"
#include "session/FlashAccess.h"
#include "session/NVRAMBoard.h"
#include "session/TestManager.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/MessagePump.h"
#include "tests/support/TestClock.h"

namespace {

using Lines = std::vector<std::wstring>;
using Names = std::vector<std::wstring>;
using Fired = std::vector<std::vector<short>>;
using S = ScriptObject;

constexpr DISPID kActivityEnded = 14;  // (cause, testID)
constexpr DISPID kSessionEnded = 25;   // (cause)
const wchar_t kTemp[] = L"\\Device Temp";
const wchar_t kTapMotr[] = L"\\Device Temp\\0000065535_200402030905_000Tap.motr";
const wchar_t kTempFile[] = L"\\Device Temp\\left-over.bin";
const wchar_t kWindowClass[] = L"TestManangerMessageWin";

template <class F>
std::string Packet(F build)
{
    int size = 0;
    std::unique_ptr<BYTE[]> bytes(build(&size));
    return bytes ? std::string(reinterpret_cast<const char*>(bytes.get()), size) : std::string();
}
std::string ResetNote()
{
    return Packet([](int* n) { return CHC08Pack::BuildHC08Reset(n, 0x123456, 3, 17, 2, 1000, 0); });
}
// Every recording opens with its header, the reset note and the pegs at the start.
std::string Opening()
{
    return std::string("MOTR\x00\x01", 6) + ResetNote() +
           Packet([](int* n) { return CHC08Pack::BuildPegsMap(n, 0, 0x0F, 0xF0); });
}
std::wstring Take(wchar_t* text)
{
    std::unique_ptr<wchar_t[]> owned(text);
    return owned ? owned.get() : L"<null>";
}
Names TempFiles() { return FilesIn(kTemp); }
void RemoveTempFolder()
{
    for (const std::wstring& name : TempFiles())
        DeleteFileW((std::wstring(kTemp) + L"\\" + name).c_str());
    RemoveDirectoryW(kTemp);
    DeleteFileW(kTemp);
}

class ActivityTest : public ::testing::Test
{
protected:
    void SetUp() override { RemoveTempFolder(); Open(kBenchParams, L"Tue 03 Feb 2004 09:05:00"); }
    void TearDown() override { Close(); }
    // A control opened (again) on a disk with these params at this moment.
    void Open(const std::string& params, const wchar_t* at = L"Sun 01 Feb 2004 08:00:00")
    {
        Close();
        ProvisionDisk(params);
        clock.SetLocal(at);
        control = CreateLocalControl();
        short ok = 0;
        ASSERT_EQ(control->Open(&ok), S_OK);
        ASSERT_EQ(ok, 1);
        manager = AsControl(control.Get())->GetTestManager();
        cookie = AdviseSink(control.Get(), &sink);
        capture.Clear();
    }
    void Close()
    {
        if (control) {
            UnadviseSink(control.Get(), cookie);
            control->Close();
        }
    }
    // The events fired with this id, each one's arguments in declaration order
    // (a sink receives them last first).
    Fired Events(DISPID id) const
    {
        Fired fired;
        for (const ReceivedEvent& e : sink.events)
            if (e.id == id) {
                fired.emplace_back();
                for (auto arg = e.args.rbegin(); arg != e.args.rend(); ++arg)
                    fired.back().push_back(arg->vt == VT_I2 ? arg->iVal : -999);
            }
        return fired;
    }
    // The debug lines since the last look.
    Lines Debug()
    {
        const Lines lines = capture.Lines();
        capture.Clear();
        return lines;
    }
    HRESULT Call(const wchar_t* method, std::vector<VARIANT> args = {})
    {
        return ScriptObject(control.Get()).Call(method, std::move(args));
    }
    // A null name goes as a null BSTR, as VB passes an empty string.
    HRESULT Config(short id, const wchar_t* name, short maxSecs, short uiSecs = 0)
    {
        return Call(L"ActivityConfig", {S::I2(id), S::Str(name), S::I2(maxSecs), S::I2(uiSecs)});
    }
    // A sensor activity whose recording starts from a known reset note.
    void StartRecordedActivity(short testID)
    {
        BSTR name = SysAllocString(L"Tap");  // early-bound, as a compiled client calls it
        ASSERT_EQ(control->ActivityConfig(testID, name, 0, 0), S_OK);
        SysFreeString(name);
        ASSERT_EQ(control->ActivityStart(0), S_OK);
        const std::string reset = ResetNote();
        manager->StartRecording(new CHC08PackList, reinterpret_cast<const BYTE*>(reset.data()), 0x0F, 0xF0);
        capture.Clear();
    }
    void Record(const std::string& packet) { manager->RecordHC08Packet(reinterpret_cast<const BYTE*>(packet.data())); }
    bool Gate() { return AsControl(control.Get())->GetHC08()->DigitoGate(); }

    ComApartment com;
    TestClock clock;
    DebugCapture capture;
    RecordingSink sink;
    ComPtr<IBrennock> control;
    CTestManager* manager = nullptr;
    DWORD cookie = 0;
};
using SessionTest = ActivityTest;

TEST_F(SessionTest, OpenNamesFilesAndKeepsTheCurrentFolder)
{
    EXPECT_EQ(Take(manager->MakeTempFilename(L"Pegs", L".wav")), L"\\Device Temp\\0000065535_200402030905_000Pegs.wav");
    EXPECT_EQ(Take(manager->MakeTempFilename(L"Pegs", L".wav")), L"\\Device Temp\\0000065535_200402030905_001Pegs.wav");
    EXPECT_EQ(Take(manager->MakePermFilename(L".ezip")), L"\\Hard Disk\\Device Data\\0000065535_200402030905.ezip");
    EXPECT_TRUE(DiskFileExists(kTemp) && DiskFileExists(L"\\Hard Disk\\Device Data"));
    // The session start's probe takes 002; the session restarts at 000.
    ASSERT_EQ(control->SessionStart(), S_OK);
    clock.SetLocal(L"Tue 03 Feb 2004 10:12:00");
    EXPECT_EQ(Take(manager->MakeTempFilename(L"Quest", L".txt")),
              L"\\Device Temp\\0000065535_200402031012_000Quest.txt");
    EXPECT_STREQ(manager->CurrentFolder(), L"\\Device Software");
    EXPECT_TRUE(manager->SetCurrentFolder(L"Tests") && manager->SetCurrentFolder(L"Tests"));
    EXPECT_STREQ(manager->CurrentFolder(), L"\\Device Software\\Tests\\Tests");
    EXPECT_EQ(control->put_CurrentFolder(nullptr), E_FAIL);
    EXPECT_EQ(Debug(), Lines{L"put_CurrentFolder - null folder name.\r\n"});
    for (ULONGLONG bytes : {40ULL << 30, 32768ULL << 20, (32767ULL << 20) + 1})
        EXPECT_EQ(CTestManager::MegabytesCapped(bytes), 32767);
    EXPECT_EQ(CTestManager::MegabytesCapped((3ULL << 20) - 1), 2);
    // The manager's window lives as long as the control is open.
    const HWND window = FindThreadWindow(kWindowClass);
    ASSERT_NE(window, nullptr);
    wchar_t title[64] = {};
    GetWindowTextW(window, title, 64);
    EXPECT_STREQ(title, L"Test Manager Messages");
    EXPECT_EQ(control->Close(), S_OK);
    EXPECT_EQ(FindThreadWindow(kWindowClass), nullptr);
}

TEST_F(SessionTest, SessionsClearTheTempFolderAndEndWithTheirCauseWhateverFailsToBeWritten)
{
    CreateDirectoryW(kTemp, nullptr);
    WriteDiskFile(kTempFile, "old");
    ASSERT_EQ(control->SessionStart(), S_OK);
    EXPECT_FALSE(DiskFileExists(kTempFile));
    EXPECT_EQ(control->SessionStart(), E_FAIL);
    EXPECT_EQ(Debug(), Lines{L"SessionStart: already in a session.\r\n"});
    // An activity whose file's name is taken by a folder still ends.
    CreateDirectoryW(kTapMotr, nullptr);
    StartRecordedActivity(5);
    EXPECT_EQ(control->ActivityEndNormal(), S_OK);
    RemoveDirectoryW(kTapMotr);
    EXPECT_EQ(Debug(), Lines{L"ERROR: SaveHC08...: could not open file for writing.\r\n"});
    // A cancel commits nothing.
    EXPECT_EQ(control->SessionCancel(), S_OK);
    EXPECT_FALSE(DiskFileExists(kFlashBlockFile));
    // Outside a session an end does nothing and raises nothing.
    EXPECT_EQ(control->SessionEndNormal(), S_OK);
    EXPECT_EQ(control->SessionCancel(), S_OK);

    // A normal end commits the session's start to flash.
    clock.SetLocal(L"Tue 03 Feb 2004 09:30:00");
    ASSERT_EQ(control->SessionStart(), S_OK);
    clock.SetLocal(L"Tue 03 Feb 2004 10:00:00");
    EXPECT_EQ(control->SessionEndNormal(), S_OK);
    EXPECT_EQ(ReadFileBytes(kFlashBlockFile).substr(kNVRAMAreaOffset, kNVRAMImageBytes),
              NVRAMImage(65535, TimeCount(L"Tue 03 Feb 2004 09:30:00"), 0, "Brennock default"));

    // No temp folder can be made: an activity still ends, a start fails. A
    // commit that fails does not stop the end.
    RemoveTempFolder();
    WriteDiskFile(kTemp, "a file where the folder should be");
    StartRecordedActivity(5);
    EXPECT_EQ(control->ActivityEndNormal(), S_OK);
    EXPECT_EQ(control->SessionStart(), E_FAIL);
    DeleteFileW(kTemp);
    ASSERT_EQ(control->SessionStart(), S_OK);
    DeleteDiskFile(kFlashBlockFile);
    CreateDirectoryW(kFlashBlockFile, nullptr);
    EXPECT_EQ(control->SessionEndNormal(), S_OK);
    RemoveDirectoryW(kFlashBlockFile);
    EXPECT_EQ(Debug(), (Lines{L"Could not create temp data folder.\r\n", L"SaveHC08... null fname.\r\n",
                              L"Could not create temp data folder.\r\n", L"SessionStart: couldn't create temp file.\r\n",
                              L"PutNVRAM failed.\r\n", L"SessionEnd: NVRAM Commit failed.\r\n"}));
    EXPECT_EQ(Events(kSessionEnded), (Fired{{103}, {0}, {0}}));
    EXPECT_EQ(Events(kActivityEnded), (Fired{{0, 5}, {0, 5}}));
}

TEST_F(ActivityTest, ConfigurationIsCheckedInOrderAndEndingsRaiseTheirCauseAndTest)
{
    const std::wstring failed = L"ActivityConfig - SetTestConfig failed.\r\n";
    const std::wstring unknown = L"setTestConfig: unknown testID.\r\n";
    const std::wstring startFailed = L"ActivityStart - ActivityStart failed.\r\n";
    EXPECT_EQ(Call(L"ActivityStart", {S::I2(1)}), E_FAIL);
    EXPECT_EQ(Config(0, L"Tap", 10, 10), E_FAIL);
    EXPECT_EQ(Config(8, L"Tap", 10, 10), E_FAIL);
    EXPECT_EQ(Config(1, nullptr, 10, 10), E_FAIL);
    EXPECT_EQ(Config(1, L"Tap", 1201, 10), E_FAIL);
    EXPECT_EQ(Config(1, L"Tap", 10, 1201), E_FAIL);
    EXPECT_EQ(Config(1, L"ElevenChars", 10, 10), E_FAIL);
    EXPECT_EQ(Config(7, L"TenCharsOK", 1200, 1200), S_OK);
    EXPECT_STREQ(manager->TestName(), L"TenCharsOK");
    EXPECT_EQ(Config(7, L"Quest", 0), S_OK);
    EXPECT_EQ(Call(L"ActivityStart", {S::I2(0)}), S_OK);
    EXPECT_EQ(Config(3, L"Tap", 0), E_FAIL);
    EXPECT_EQ(Call(L"ActivityStart", {S::I2(0)}), E_FAIL);
    EXPECT_EQ(Debug(), (Lines{L"ActivityStart: unknown m_curTestID.\r\n", startFailed, unknown, failed, unknown,
                              failed, L"ActivityConfig - null testName.\r\n",
                              L"setTestConfig: maxDurationSecs out of range.\r\n", failed,
                              L"setTestConfig: uiTimeout out of range\r\n", failed,
                              L"setTestConfig: testName too long.\r\n", failed,
                              L"SetTestConfig: a test is running.\r\n", failed,
                              L"ActivityStart: a test is running.\r\n", startFailed}));
    // The configuration outlives the activity.
    EXPECT_EQ(Call(L"ActivityCancel"), S_OK);
    EXPECT_STREQ(manager->TestName(), L"Quest");

    EXPECT_FALSE(Gate());
    ASSERT_EQ(Call(L"ActivityStart", {S::I2(1)}), S_OK);
    EXPECT_TRUE(Gate());  // open exactly while an activity runs, of any kind
    // A handler may start the next activity from inside the event.
    HRESULT restarted = E_UNEXPECTED;
    sink.onEvent = [&](DISPID id) {
        if (id == kActivityEnded && Events(id).size() == 2)
            restarted = Config(6, L"Again", 0) == S_OK ? control->ActivityStart(0) : E_FAIL;
    };
    EXPECT_EQ(Call(L"ActivityEndNormal"), S_OK);
    EXPECT_EQ(restarted, S_OK);
    EXPECT_TRUE(manager->ActivityRunning() && Gate());
    EXPECT_EQ(Call(L"ActivityCancel"), S_OK);
    EXPECT_FALSE(Gate());
    // With nothing running an end does nothing and raises nothing.
    EXPECT_EQ(Call(L"ActivityEndNormal"), S_OK);
    EXPECT_EQ(Call(L"ActivityCancel"), S_OK);
    EXPECT_EQ(Events(kActivityEnded), (Fired{{103, 7}, {0, 7}, {103, 6}}));
}

TEST_F(ActivityTest, QuestionnaireKeepsAHundredAnswersAndWritesThem)
{
    const auto answer = [&](auto q, auto r) { return Call(L"QuestionResponse", {S::Str(q), S::Str(r)}); };
    ASSERT_EQ(Config(7, L"Quest", 0), S_OK);
    ASSERT_EQ(control->ActivityStart(0), S_OK);
    std::string expected;
    for (int i = 1; i <= 100; ++i) {
        const std::wstring q = L"Q" + std::to_wstring(i), r = L"R" + std::to_wstring(i % 7);
        ASSERT_EQ(answer(q.c_str(), r.c_str()), S_OK) << i;
        expected += "Q" + std::to_string(i) + ",R" + std::to_string(i % 7) + "\r\n";
    }
    EXPECT_EQ(answer(L"Q101", L"R1"), E_FAIL);
    EXPECT_EQ(answer(nullptr, nullptr), E_FAIL);
    EXPECT_EQ(answer(L"Q1", nullptr), E_FAIL);
    const std::wstring failed = L"QuestionResponse - RecordQuestionResponse failed.\r\n";
    EXPECT_EQ(Debug(), (Lines{L"AddQuestionResponse: too many questions.\r\n", failed,
                              L"QuestionResponse - null questionID.\r\n", L"QuestionResponse - null responseID.\r\n"}));
    EXPECT_EQ(Call(L"ActivityEndNormal"), S_OK);
    EXPECT_EQ(TempFiles(), Names{L"0000065535_200402030905_000Quest.txt"});
    EXPECT_EQ(ReadFileBytes(L"\\Device Temp\\0000065535_200402030905_000Quest.txt"), expected);
    // The answers went with the file: the next questionnaire starts empty.
    ASSERT_EQ(control->ActivityStart(0), S_OK);
    ASSERT_EQ(control->ActivityEndNormal(), S_OK);
    EXPECT_EQ(ReadFileBytes(L"\\Device Temp\\0000065535_200402030905_001Quest.txt"), "");
    // Answers belong to questionnaires only.
    ASSERT_EQ(Config(3, L"Tap", 0), S_OK);
    ASSERT_EQ(control->ActivityStart(0), S_OK);
    capture.Clear();
    EXPECT_EQ(answer(L"Q1", L"R1"), E_FAIL);
    EXPECT_EQ(Debug(), (Lines{L"RecordQuestionResponse: not running a questionnaire test.\r\n", failed}));
}

TEST_F(ActivityTest, ALongRecordingIsWrittenByteForByte)
{
    StartRecordedActivity(4);
    // Mixed sizes, some 5600 bytes: the packets cross the 2048-byte staging
    // blocks at odd places and fill more than one list block.
    std::string expected = Opening();
    for (DWORD i = 0; i < 700; ++i) {
        const DWORD ticks = 0xFFFF00 + i * 3;  // across the 24-bit wrap
        const std::string p = Packet([&](int* n) {
            return i % 4 == 0   ? CHC08Pack::BuildDigitoLeftDownward(n, ticks, i * 37)
                   : i % 4 == 1 ? CHC08Pack::BuildCapsitRightUp(n, ticks)
                   : i % 4 == 2 ? CHC08Pack::BuildPegsMap(n, ticks, i & 0xFF, ~i & 0xFF)
                                : CHC08Pack::BuildTimerRollover(n, ticks);
        });
        expected += p;
        Record(p);
    }
    // Cancelled or not, what was recorded is kept.
    ASSERT_EQ(control->ActivityCancel(), S_OK);
    const std::string file = ReadFileBytes(kTapMotr);
    EXPECT_TRUE(file == expected) << file.size() << " bytes, not " << expected.size();
    EXPECT_EQ(Events(kActivityEnded), (Fired{{103, 4}}));
    // Packets after the end are not recorded anywhere.
    Record(Packet([](int* n) { return CHC08Pack::BuildTimerGo(n, 5); }));
    EXPECT_EQ(ReadFileBytes(kTapMotr), file);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(ActivityTest, TheReaderThreadRecordsWhileTheHostEnds)
{
    std::string taps;  // 20000 packets of 9 bytes
    for (DWORD t = 0; t < 20000; ++t)
        taps += Packet([&](int* n) { return CHC08Pack::BuildDigitoRightDownward(n, t, t); });
    const std::string opening = Opening();
    // Several rounds, so the end meets the reader at different moments.
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        RemoveTempFolder();
        StartRecordedActivity(1);
        std::atomic<size_t> sent{0};
        std::atomic<bool> stop{false};
        std::thread reader([&] {
            for (size_t t = 0; t < taps.size() && !stop; t += 9, ++sent)
                Record(taps.substr(t, 9));
        });
        while (sent < 500)
            std::this_thread::yield();
        EXPECT_EQ(control->ActivityEndNormal(), S_OK);
        stop = true;
        reader.join();
        // The file holds an unbroken run of the packets from the first, whole.
        const Names files = TempFiles();
        ASSERT_EQ(files.size(), 1u);
        const std::string file = ReadFileBytes(std::wstring(kTemp) + L"\\" + files[0]);
        const size_t body = file.size() - opening.size();
        EXPECT_TRUE(body % 9 == 0 && body / 9 >= 500 && file == opening + taps.substr(0, body)) << file.size();
    }
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(ActivityTest, ATimeOutEndsAtTheFirstTimerTickPastItsLimit)
{
    // Deadlines hold across the tick counter's wrap: set before it and due
    // after it, or due before it and checked after it.
    struct Case { DWORD now, due; bool passed; };
    const Case cases[] = {{5000, 5000, true}, {5001, 5000, true}, {4999, 5000, false}, {0xFFFFF000u, 0x100, false},
                          {0xFF, 0x100, false}, {0x101, 0x100, true}, {0x10, 0xFFFFFF00u, true}};
    for (const Case& c : cases)
        EXPECT_EQ(CTestManager::DeadlinePassed(c.now, c.due), c.passed) << c.now << " " << c.due;
    // Counted in ticks of the manager's own 500 ms timer (its id 1): started
    // just after one tick, a 1 s activity is due by the second and ended by
    // the third.
    const HWND window = FindThreadWindow(kWindowClass);
    ASSERT_NE(window, nullptr);
    int ticks = 0;
    const auto countTicks = [&](const MSG& msg) {
        ticks += msg.hwnd == window && msg.message == WM_TIMER && msg.wParam == 1;
    };
    ASSERT_EQ(Config(2, L"Seat", 1), S_OK);
    // The first tick may have waited in the queue; the second comes on time.
    ASSERT_TRUE(PumpUntil([&] { return ticks == 2; }, 30000, countTicks));
    ASSERT_EQ(control->ActivityStart(0), S_OK);
    ticks = 0;
    ASSERT_TRUE(PumpUntil([&] { return !Events(kActivityEnded).empty(); }, 30000, countTicks));
    EXPECT_LE(ticks, 3);
    // Timed out: the gate closes, nothing is written, a later end finds
    // nothing to end, and the next activity, of another kind, does not save
    // the recording left behind either.
    EXPECT_FALSE(Gate());
    EXPECT_EQ(control->ActivityEndNormal(), S_OK);
    ASSERT_EQ(Config(7, L"Quest", 0), S_OK);
    ASSERT_EQ(control->ActivityStart(0), S_OK);
    ASSERT_EQ(control->ActivityEndNormal(), S_OK);
    EXPECT_EQ(TempFiles(), Names{L"0000065535_200402030905_000Quest.txt"});
    EXPECT_EQ(Events(kActivityEnded), (Fired{{1, 2}, {0, 7}}));
}

std::string Params(const char* first, const char* endPractice, int makeupDays = 0)
{
    return std::string("FirstSessionDateTime=") + first + "\r\nSessionWindowHours=2\r\nEndPracticeDate=" +
           endPractice + "\r\nRealTestIntervalDays=7\r\nPracticeTestIntervalDays=1\r\nMakeupDays=" +
           std::to_string(makeupDays) + "\r\nMinFreeSpaceMB=10\r\nDebug=0\r\n";
}

// Weekly at Monday 09:00 for 2 hours, 2 makeup days, practice long over.
const std::string kWeekly = Params("Mon 02 Feb 2004 09:00:00", "Thu 01 Jan 2004", 2);

// What the script reads at a moment (local, or a UTC instant shown in the
// UK's zone): the next window, whether it is in it and in practice mode. A
// row without an end checks the start only, one without practice no mode.
struct Row { const wchar_t* now; const wchar_t* start; const wchar_t* end = nullptr; short in = -1, practice = -1; };

class ScheduleTest : public ActivityTest
{
protected:
    void SetUp() override {}
    void Expect(const Row& row, bool utc = false)
    {
        SCOPED_TRACE(testing::PrintToString(std::wstring(row.now)));
        utc ? clock.SetInstant(row.now, UkTimeZone()) : clock.SetLocal(row.now);
        BSTR start = nullptr, end = nullptr;
        short in = -1, practice = -1;
        EXPECT_EQ(control->GetNextSessionStart(&start) | control->GetNextSessionEnd(&end) |
                      control->get_InSessionWindow(&in) | control->get_PracticeMode(&practice), S_OK);
        EXPECT_TRUE(row.practice < 0 || practice == row.practice) << practice;
        EXPECT_EQ(std::wstring(start ? start : L"<null>"), row.start);
        if (row.end)
            EXPECT_EQ(std::make_pair(std::wstring(end ? end : L"<null>"), in),
                      std::make_pair(std::wstring(row.end), row.in));
        SysFreeString(start);
        SysFreeString(end);
    }
};

TEST_F(ScheduleTest, WeeklySlotsWithTwoMakeupDaysAndNothingDoneYet)
{
    Open(kWeekly);
    const Row rows[] = {
        {L"Sun 01 Feb 2004 12:00:00", L"Mon 02 Feb 2004 09:00:00", L"Mon 02 Feb 2004 11:00:00", 0},  // before the first
        {L"Mon 02 Feb 2004 09:00:00", L"Mon 02 Feb 2004 09:00:00", L"Mon 02 Feb 2004 11:00:00", 1},
        {L"Mon 02 Feb 2004 11:00:00", L"Tue 03 Feb 2004 09:00:00", L"Tue 03 Feb 2004 11:00:00", 0},  // first makeup
        {L"Tue 03 Feb 2004 10:59:59", L"Tue 03 Feb 2004 09:00:00", L"Tue 03 Feb 2004 11:00:00", 1},
        {L"Wed 04 Feb 2004 08:00:00", L"Wed 04 Feb 2004 09:00:00", L"Wed 04 Feb 2004 11:00:00", 0},  // second makeup
        {L"Wed 04 Feb 2004 12:00:00", L"Mon 09 Feb 2004 09:00:00", L"Mon 09 Feb 2004 11:00:00", 0},  // makeups over
        {L"Mon 09 Feb 2004 10:00:00", L"Mon 09 Feb 2004 09:00:00", L"Mon 09 Feb 2004 11:00:00", 1},
        {L"Sat 14 Feb 2004 12:00:00", L"Mon 16 Feb 2004 09:00:00", L"Mon 16 Feb 2004 11:00:00", 0},
        {L"Mon 06 Dec 2004 10:30:00", L"Mon 06 Dec 2004 09:00:00", L"Mon 06 Dec 2004 11:00:00", 1},
    };
    for (const Row& row : rows)
        Expect(row);
}

TEST_F(ScheduleTest, ASessionDoneCountsForItsSlotAndEveryEarlierOne)
{
    const wchar_t *week2 = L"Mon 09 Feb 2004 09:00:00", *week2End = L"Mon 09 Feb 2004 11:00:00";
    const wchar_t *week3 = L"Mon 16 Feb 2004 09:00:00", *week3End = L"Mon 16 Feb 2004 11:00:00";
    struct Case { const wchar_t* done; Row row; };
    const Case cases[] = {
        {L"Mon 02 Feb 2004 09:30:00", {L"Mon 02 Feb 2004 12:00:00", week2, week2End, 0}},
        // Done, so not offered again although its window is still open.
        {L"Mon 02 Feb 2004 09:30:00", {L"Mon 02 Feb 2004 10:00:00", week2, week2End, 0}},
        // Made up on Tuesday: no more makeups that week.
        {L"Tue 03 Feb 2004 10:00:00", {L"Wed 04 Feb 2004 09:30:00", week2, week2End, 0}},
        {L"Mon 09 Feb 2004 10:00:00", {L"Mon 09 Feb 2004 10:30:00", week3, week3End, 0}},
        // Started the very moment its window opened.
        {L"Mon 09 Feb 2004 09:00:00", {L"Mon 09 Feb 2004 10:00:00", week3, week3End, 0}},
        // Weeks done long ago: the current week's missed slot gets its makeup.
        {L"Mon 09 Feb 2004 10:00:00",
         {L"Tue 24 Feb 2004 08:00:00", L"Tue 24 Feb 2004 09:00:00", L"Tue 24 Feb 2004 11:00:00", 0}},
    };
    for (const Case& c : cases) {
        Open(kWeekly);
        const SYSTEMTIME done = ParseTime(c.done);
        ASSERT_TRUE(AsControl(control.Get())->GetNVRAM()->NVWritePrevSessionDateTime(&done));
        Expect(c.row);
    }
}

TEST_F(ScheduleTest, PracticeRunsUntilItsDayAndSlotsKeepTheirLocalHourAcrossDaylightSaving)
{
    Open(Params("Mon 02 Feb 2004 09:00:00", "Mon 09 Feb 2004"));
    Expect({L"Mon 02 Feb 2004 12:00:00", L"Tue 03 Feb 2004 09:00:00"});
    Expect({L"Sun 08 Feb 2004 23:59:59", L"Mon 09 Feb 2004 09:00:00", nullptr, -1, 1});
    Expect({L"Mon 09 Feb 2004 00:00:00", L"Mon 09 Feb 2004 09:00:00", nullptr, -1, 0});
    Expect({L"Mon 09 Feb 2004 12:00:00", L"Mon 16 Feb 2004 09:00:00"});
    // Practice ending at midday: practice mode follows the clock, the
    // interval the date, so the afternoon still runs on the daily interval.
    Open(Params("Mon 02 Feb 2004 09:00:00", "Mon 09 Feb 2004 12:00:00"));
    Expect({L"Mon 09 Feb 2004 11:59:59", L"Tue 10 Feb 2004 09:00:00", nullptr, -1, 1});
    Expect({L"Mon 09 Feb 2004 13:00:00", L"Tue 10 Feb 2004 09:00:00", nullptr, -1, 0});
    Expect({L"Tue 10 Feb 2004 13:00:00", L"Mon 16 Feb 2004 09:00:00"});

    // Slots keep their local hour across daylight saving changes. Rows of UTC
    // instants. Sundays at 09:00 local; clocks go forward at 01:00 UTC on 28 March 2004.
    const auto walk = [&](const char* first, const wchar_t* opened, std::vector<Row> rows) {
        Open(Params(first, "Thu 01 Jan 2004"), opened);
        for (const Row& row : rows)
            Expect(row, true);
    };
    const wchar_t *nine = L"Sun 28 Mar 2004 09:00:00", *eleven = L"Sun 28 Mar 2004 11:00:00";
    walk("Sun 21 Mar 2004 09:00:00", L"Sat 20 Mar 2004 08:00:00",
         {{L"Sun 28 Mar 2004 00:30:00", nine, eleven, 0},  // 00:30 GMT
          {L"Sun 28 Mar 2004 07:30:00", nine, eleven, 0},  // 08:30 BST: not yet
          {L"Sun 28 Mar 2004 08:30:00", nine, eleven, 1},  // 09:30 BST
          {L"Sun 28 Mar 2004 09:59:59", nine, eleven, 1},
          {L"Sun 28 Mar 2004 10:00:00", L"Sun 04 Apr 2004 09:00:00"}});
    // A window across the change is measured in local hours: at night in
    // spring it lasts one real hour...
    walk("Sun 21 Mar 2004 00:30:00", L"Sat 20 Mar 2004 08:00:00",
         {{L"Sun 28 Mar 2004 01:15:00", L"Sun 28 Mar 2004 00:30:00", L"Sun 28 Mar 2004 02:30:00", 1},
          {L"Sun 28 Mar 2004 01:30:00", L"Sun 04 Apr 2004 00:30:00"}});
    // ...and in autumn, when 01:00 to 02:00 comes twice, three.
    const wchar_t *start = L"Sun 31 Oct 2004 00:30:00", *end = L"Sun 31 Oct 2004 02:30:00";
    walk("Sun 24 Oct 2004 00:30:00", L"Sat 23 Oct 2004 08:00:00",
         {{L"Sat 30 Oct 2004 23:45:00", start, end, 1},  // 00:45 BST
          {L"Sun 31 Oct 2004 01:15:00", start, end, 1},  // 01:15 GMT, the second time
          {L"Sun 31 Oct 2004 02:29:59", start, end, 1},
          {L"Sun 31 Oct 2004 02:30:00", L"Sun 07 Nov 2004 00:30:00"}});
}

}  // namespace
