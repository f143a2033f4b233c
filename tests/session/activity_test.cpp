// Activities as the script runs them: configuring, starting, ending,
// cancelling and timing out; the ".motr" recording of a sensor test and the
// questionnaire file; the finger-tapping gate.
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
#include "session/TestManager.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/MessagePump.h"
#include "tests/support/TestClock.h"

namespace {

using Lines = std::vector<std::wstring>;
using Names = std::vector<std::wstring>;
using Ending = std::pair<short, short>;  // cause, test
using S = ScriptObject;

// Names the test clock gives the first temp file of each kind.
const wchar_t kTapMotr[] = L"\\Device Temp\\0000065535_200402030905_000Tap.motr";
const wchar_t kQuestTxt[] = L"\\Device Temp\\0000065535_200402030905_000Quest.txt";

// A built packet as bytes.
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

std::string PegsAtStart(WORD left, WORD right)
{
    return Packet([=](int* n) { return CHC08Pack::BuildPegsMap(n, 0, left, right); });
}

const char kMotrHeader[] = {'M', 'O', 'T', 'R', 0x00, 0x01};

VARIANT NullString()
{
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_BSTR;
    v.bstrVal = nullptr;
    return v;
}

Names TempFiles();

// Earlier tests on this disk leave their files; each test starts without the
// folder.
void RemoveTempFolder()
{
    for (const std::wstring& name : TempFiles())
        DeleteFileW((L"\\Device Temp\\" + name).c_str());
    RemoveDirectoryW(L"\\Device Temp");
    DeleteFileW(L"\\Device Temp");
}

Names TempFiles()
{
    return FilesIn(L"\\Device Temp");
}

class ActivityTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ProvisionDisk();
        RemoveTempFolder();
        clock.SetLocal(L"Tue 03 Feb 2004 09:05:00");
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
        UnadviseSink(control.Get(), cookie);
        control->Close();
    }
    std::vector<Ending> Endings() const
    {
        std::vector<Ending> endings;
        for (const ReceivedEvent& e : sink.events)
            if (e.id == 14) {
                // Delivered last parameter first: testID, then causeID.
                EXPECT_EQ(e.args.size(), 2u);
                EXPECT_EQ(e.args[0].vt, VT_I2);
                EXPECT_EQ(e.args[1].vt, VT_I2);
                endings.emplace_back(e.args[1].iVal, e.args[0].iVal);
            }
        return endings;
    }
    HRESULT Config(short id, const wchar_t* name, short maxSecs, short uiSecs)
    {
        return script().Call(L"ActivityConfig", {S::I2(id), S::Str(name), S::I2(maxSecs), S::I2(uiSecs)});
    }
    ScriptObject script() { return ScriptObject(control.Get()); }
    // ActivityConfig called early-bound, as a compiled client calls it.
    HRESULT Configure(short id, const wchar_t* name, short maxSecs)
    {
        BSTR text = SysAllocString(name);
        const HRESULT hr = control->ActivityConfig(id, text, maxSecs, 0);
        SysFreeString(text);
        return hr;
    }

    // A sensor activity whose recording starts from a known reset note.
    void StartRecordedActivity(short testID, const wchar_t* name)
    {
        ASSERT_EQ(Configure(testID, name, 0), S_OK);
        ASSERT_EQ(control->ActivityStart(0), S_OK);
        const std::string reset = ResetNote();
        manager->StartRecording(new CHC08PackList, reinterpret_cast<const BYTE*>(reset.data()), 0x0F, 0xF0);
        capture.Clear();
    }
    void Record(const std::string& packet) { manager->RecordHC08Packet(reinterpret_cast<const BYTE*>(packet.data())); }

    ComApartment com;
    TestClock clock;
    DebugCapture capture;
    RecordingSink sink;
    ComPtr<IBrennock> control;
    CTestManager* manager = nullptr;
    DWORD cookie = 0;
};

TEST_F(ActivityTest, ConfigurationIsCheckedInOrderAndRefusedWhileRunning)
{
    EXPECT_EQ(script().Call(L"ActivityStart", {S::I2(1)}), E_FAIL);
    EXPECT_EQ(Config(0, L"Tap", 10, 10), E_FAIL);
    EXPECT_EQ(Config(8, L"Tap", 10, 10), E_FAIL);
    EXPECT_EQ(script().Call(L"ActivityConfig", {S::I2(1), NullString(), S::I2(10), S::I2(10)}), E_FAIL);
    EXPECT_EQ(Config(1, L"Tap", 1201, 10), E_FAIL);
    EXPECT_EQ(Config(1, L"Tap", 10, 1201), E_FAIL);
    EXPECT_EQ(Config(1, L"ElevenChars", 10, 10), E_FAIL);
    const std::wstring failed = L"ActivityConfig - SetTestConfig failed.\r\n";
    EXPECT_EQ(capture.Lines(),
              (Lines{L"ActivityStart: unknown m_curTestID.\r\n", L"ActivityStart - ActivityStart failed.\r\n",
                     L"setTestConfig: unknown testID.\r\n", failed, L"setTestConfig: unknown testID.\r\n", failed,
                     L"ActivityConfig - null testName.\r\n",
                     L"setTestConfig: maxDurationSecs out of range.\r\n", failed,
                     L"setTestConfig: uiTimeout out of range\r\n", failed,
                     L"setTestConfig: testName too long.\r\n", failed}));

    EXPECT_EQ(Config(7, L"TenCharsOK", 1200, 1200), S_OK);
    EXPECT_STREQ(manager->TestName(), L"TenCharsOK");
    EXPECT_EQ(Config(7, L"Quest", 0, 0), S_OK);
    EXPECT_EQ(script().Call(L"ActivityStart", {S::I2(0)}), S_OK);
    capture.Clear();
    EXPECT_EQ(Config(3, L"Tap", 0, 0), E_FAIL);
    EXPECT_EQ(script().Call(L"ActivityStart", {S::I2(0)}), E_FAIL);
    EXPECT_EQ(capture.Lines(),
              (Lines{L"SetTestConfig: a test is running.\r\n", failed, L"ActivityStart: a test is running.\r\n",
                     L"ActivityStart - ActivityStart failed.\r\n"}));
    // The configuration outlives the activity.
    EXPECT_EQ(script().Call(L"ActivityCancel"), S_OK);
    EXPECT_EQ(manager->CurrentTestID(), 7);
    EXPECT_STREQ(manager->TestName(), L"Quest");
    EXPECT_EQ(script().Call(L"ActivityBeep"), S_OK);
}

TEST_F(ActivityTest, EndingsRaiseTheirCauseAndTestInOrder)
{
    ASSERT_EQ(Config(7, L"Quest", 0, 0), S_OK);
    ASSERT_EQ(script().Call(L"ActivityStart", {S::I2(1)}), S_OK);
    // A handler may start the next activity from inside the event.
    HRESULT restarted = E_UNEXPECTED;
    sink.onEvent = [&](DISPID id) {
        if (id == 14 && Endings().size() == 1) {
            Configure(7, L"Again", 0);
            restarted = control->ActivityStart(0);
        }
    };
    EXPECT_EQ(script().Call(L"ActivityEndNormal"), S_OK);
    EXPECT_EQ(restarted, S_OK);
    EXPECT_TRUE(manager->ActivityRunning());
    EXPECT_EQ(script().Call(L"ActivityCancel"), S_OK);
    // With nothing running an end does nothing and raises nothing.
    EXPECT_EQ(script().Call(L"ActivityEndNormal"), S_OK);
    EXPECT_EQ(script().Call(L"ActivityCancel"), S_OK);
    EXPECT_EQ(Endings(), (std::vector<Ending>{{0, 7}, {103, 7}}));
}

TEST_F(ActivityTest, QuestionnaireKeepsAHundredAnswersAndWritesThem)
{
    ASSERT_EQ(Config(7, L"Quest", 0, 0), S_OK);
    ASSERT_EQ(control->ActivityStart(0), S_OK);
    std::string expected;
    for (int i = 1; i <= 100; ++i) {
        const std::wstring q = L"Q" + std::to_wstring(i), r = L"R" + std::to_wstring(i % 7);
        ASSERT_EQ(script().Call(L"QuestionResponse", {S::Str(q.c_str()), S::Str(r.c_str())}), S_OK) << i;
        expected += "Q" + std::to_string(i) + ",R" + std::to_string(i % 7) + "\r\n";
    }
    capture.Clear();
    EXPECT_EQ(script().Call(L"QuestionResponse", {S::Str(L"Q101"), S::Str(L"R1")}), E_FAIL);
    EXPECT_EQ(script().Call(L"QuestionResponse", {NullString(), NullString()}), E_FAIL);
    EXPECT_EQ(script().Call(L"QuestionResponse", {S::Str(L"Q1"), NullString()}), E_FAIL);
    EXPECT_EQ(capture.Lines(), (Lines{L"AddQuestionResponse: too many questions.\r\n",
                                      L"QuestionResponse - RecordQuestionResponse failed.\r\n",
                                      L"QuestionResponse - null questionID.\r\n",
                                      L"QuestionResponse - null responseID.\r\n"}));
    EXPECT_EQ(script().Call(L"ActivityEndNormal"), S_OK);
    EXPECT_EQ(TempFiles(), Names{L"0000065535_200402030905_000Quest.txt"});
    EXPECT_EQ(ReadFileBytes(kQuestTxt), expected);
    // The answers went with the file: the next questionnaire starts empty.
    ASSERT_EQ(control->ActivityStart(0), S_OK);
    ASSERT_EQ(control->ActivityEndNormal(), S_OK);
    EXPECT_EQ(ReadFileBytes(L"\\Device Temp\\0000065535_200402030905_001Quest.txt"), "");

    // Answers belong to questionnaires only.
    ASSERT_EQ(Config(3, L"Tap", 0, 0), S_OK);
    ASSERT_EQ(control->ActivityStart(0), S_OK);
    capture.Clear();
    EXPECT_EQ(script().Call(L"QuestionResponse", {S::Str(L"Q1"), S::Str(L"R1")}), E_FAIL);
    EXPECT_EQ(capture.Lines(), (Lines{L"RecordQuestionResponse: not running a questionnaire test.\r\n",
                                      L"QuestionResponse - RecordQuestionResponse failed.\r\n"}));
}

TEST_F(ActivityTest, ARecordingWithNothingReceivedHoldsItsTwoOpeningPackets)
{
    StartRecordedActivity(2, L"Tap");
    ASSERT_EQ(control->ActivityEndNormal(), S_OK);
    EXPECT_EQ(ReadFileBytes(kTapMotr),
              std::string(kMotrHeader, 6) + ResetNote() + PegsAtStart(0x0F, 0xF0));
    EXPECT_EQ(Endings(), (std::vector<Ending>{{0, 2}}));
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(ActivityTest, ALongRecordingIsWrittenByteForByte)
{
    StartRecordedActivity(4, L"Tap");
    // Mixed sizes, some 5600 bytes: the packets cross the 2048-byte staging
    // blocks at odd places and fill more than one list block.
    std::string packets = ResetNote() + PegsAtStart(0x0F, 0xF0);
    size_t splits = 0;
    for (DWORD i = 0; i < 700; ++i) {
        const DWORD ticks = 0xFFFF00 + i * 3;  // across the 24-bit wrap
        std::string p;
        switch (i % 4) {
        case 0: p = Packet([&](int* n) { return CHC08Pack::BuildDigitoLeftDownward(n, ticks, i * 37); }); break;
        case 1: p = Packet([&](int* n) { return CHC08Pack::BuildCapsitRightUp(n, ticks); }); break;
        case 2: p = Packet([&](int* n) { return CHC08Pack::BuildPegsMap(n, ticks, i & 0xFF, ~i & 0xFF); }); break;
        default: p = Packet([&](int* n) { return CHC08Pack::BuildTimerRollover(n, ticks); }); break;
        }
        if (packets.size() / 2048 != (packets.size() + p.size() - 1) / 2048)
            ++splits;
        packets += p;
        Record(p);
    }
    ASSERT_GE(splits, 2u);
    // Cancelled or not, what was recorded is kept.
    ASSERT_EQ(control->ActivityCancel(), S_OK);
    const std::string file = ReadFileBytes(kTapMotr);
    EXPECT_EQ(file.size(), 6 + packets.size());
    EXPECT_TRUE(file == std::string(kMotrHeader, 6) + packets);
    EXPECT_EQ(Endings(), (std::vector<Ending>{{103, 4}}));

    // Packets after the end are not recorded anywhere.
    Record(Packet([](int* n) { return CHC08Pack::BuildTimerGo(n, 5); }));
    EXPECT_EQ(ReadFileBytes(kTapMotr), file);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(ActivityTest, TheReaderThreadRecordsWhileTheHostEnds)
{
    std::vector<std::string> taps(20000);
    for (DWORD t = 0; t < taps.size(); ++t)
        taps[t] = Packet([&](int* n) { return CHC08Pack::BuildDigitoRightDownward(n, t, t); });
    const std::string opening = std::string(kMotrHeader, 6) + ResetNote() + PegsAtStart(0x0F, 0xF0);
    // Several rounds, so the end meets the reader at different moments.
    for (int round = 0; round < 10; ++round) {
        RemoveTempFolder();
        StartRecordedActivity(1, L"Tap");
        std::atomic<size_t> sent{0};
        std::atomic<bool> stop{false};
        std::thread reader([&] {
            for (size_t t = 0; t < taps.size() && !stop; ++t) {
                Record(taps[t]);
                sent = t + 1;
            }
        });
        while (sent < 500)
            std::this_thread::yield();
        EXPECT_EQ(control->ActivityEndNormal(), S_OK);
        stop = true;
        reader.join();

        // The file holds an unbroken run of the packets from the first, whole.
        const Names files = TempFiles();
        ASSERT_EQ(files.size(), 1u);
        const std::string file = ReadFileBytes(L"\\Device Temp\\" + files[0]);
        ASSERT_EQ(file.compare(0, opening.size(), opening), 0) << round;
        const size_t body = file.size() - opening.size();
        ASSERT_EQ(body % 9, 0u) << round;
        ASSERT_GE(body / 9, 500u) << round;
        for (size_t t = 0; t < body / 9; ++t)
            ASSERT_EQ(file.compare(opening.size() + t * 9, 9, taps[t]), 0) << round << " " << t;
    }
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(ActivityTest, AFailedSaveStillEndsTheActivity)
{
    // The file's name is taken by a folder.
    CreateDirectoryW(L"\\Device Temp", nullptr);
    CreateDirectoryW(kTapMotr, nullptr);
    StartRecordedActivity(5, L"Tap");
    EXPECT_EQ(control->ActivityEndNormal(), S_OK);
    EXPECT_EQ(capture.Lines(), Lines{L"ERROR: SaveHC08...: could not open file for writing.\r\n"});
    RemoveDirectoryW(kTapMotr);
    // No folder for the files at all.
    RemoveDirectoryW(L"\\Device Temp");
    WriteDiskFile(L"\\Device Temp", "a file where the folder should be");
    StartRecordedActivity(5, L"Tap");
    EXPECT_EQ(control->ActivityEndNormal(), S_OK);
    DeleteFileW(L"\\Device Temp");
    EXPECT_EQ(capture.Lines(), (Lines{L"Could not create temp data folder.\r\n", L"SaveHC08... null fname.\r\n"}));
    EXPECT_EQ(Endings(), (std::vector<Ending>{{0, 5}, {0, 5}}));
    EXPECT_FALSE(CTestManager::SaveHC08PackList(nullptr, L"\\Hard Disk\\x.motr"));
}

TEST_F(ActivityTest, ATimeOutEndsAtTheFirstTimerTickPastItsLimit)
{
    // Counted in ticks of the manager's own 500 ms timer: started just after
    // one tick, a 1 s activity is due by the second and ended by the third.
    const HWND window = FindThreadWindow(L"TestManangerMessageWin");
    ASSERT_NE(window, nullptr);
    int ticks = 0;
    const auto countTicks = [&](const MSG& msg) {
        if (msg.hwnd == window && msg.message == WM_TIMER)
            ++ticks;
    };
    ASSERT_EQ(Config(2, L"Seat", 1, 0), S_OK);
    // The first tick may have waited in the queue; the second comes on time.
    ASSERT_TRUE(PumpUntil([&] { return ticks == 2; }, 30000, countTicks));
    ASSERT_EQ(control->ActivityStart(0), S_OK);
    ticks = 0;
    ASSERT_TRUE(PumpUntil([&] { return !Endings().empty(); }, 30000, countTicks));
    EXPECT_EQ(Endings(), (std::vector<Ending>{{1, 2}}));
    EXPECT_LE(ticks, 3);
}

TEST_F(ActivityTest, DeadlinesSurviveTheTickWrap)
{
    EXPECT_TRUE(CTestManager::DeadlinePassed(5000, 5000));
    EXPECT_TRUE(CTestManager::DeadlinePassed(5001, 5000));
    EXPECT_FALSE(CTestManager::DeadlinePassed(4999, 5000));
    // Set just before the wrap, due just after it.
    EXPECT_FALSE(CTestManager::DeadlinePassed(0xFFFFF000u, 0x00000100u));
    EXPECT_FALSE(CTestManager::DeadlinePassed(0x000000FFu, 0x00000100u));
    EXPECT_TRUE(CTestManager::DeadlinePassed(0x00000101u, 0x00000100u));
    // Due just before the wrap, checked just after it.
    EXPECT_TRUE(CTestManager::DeadlinePassed(0x00000010u, 0xFFFFFF00u));
}

TEST_F(ActivityTest, AnswersToAClosedManagerAreReportedAsPackets)
{
    CTestManager closed(GetModuleHandleW(nullptr), AsControl(control.Get()));
    EXPECT_FALSE(closed.RecordQuestionResponse(L"q", L"r"));
    EXPECT_FALSE(closed.ActivityEnd(true));
    EXPECT_EQ(capture.Lines(), (Lines{L"RecordHC08Packet: not open.\r\n", L"ActivityEnd: not open.\r\n"}));
}

// The control's own managers, except for a microcontroller link of the
// test's that is never opened (so it has no reset note to give).
class SiteWithLink final : public IManagerSite
{
public:
    explicit SiteWithLink(IManagerSite* control) : m_control(control), link(GetModuleHandleW(nullptr), this) {}
    CTestManager* GetTestManager() override { return m_control->GetTestManager(); }
    CDebugLog* GetDebugLog() override { return m_control->GetDebugLog(); }
    CGpioPins* GetGpio() override { return m_control->GetGpio(); }
    CWatch* GetWatch() override { return nullptr; }
    CHC08* GetHC08() override { return &link; }
    CNVRAMBoard* GetNVRAM() override { return m_control->GetNVRAM(); }
    CStoredParams* GetStoredParams() override { return m_control->GetStoredParams(); }
    IHC08EventSink* GetHC08EventSink() override { return m_control->GetHC08EventSink(); }
    IGpioEventSink* GetGpioEventSink() override { return m_control->GetGpioEventSink(); }
    IWatchEventSink* GetWatchEventSink() override { return m_control->GetWatchEventSink(); }
    IAudioEventSink* GetAudioEventSink() override { return m_control->GetAudioEventSink(); }
    ITestManagerEventSink* GetTestManagerEventSink() override { return m_control->GetTestManagerEventSink(); }

private:
    IManagerSite* m_control;

public:
    CHC08 link;
};

TEST_F(ActivityTest, TheTappingGateIsOpenExactlyWhileAnActivityRuns)
{
    SiteWithLink site(AsControl(control.Get()));
    CTestManager tests(GetModuleHandleW(nullptr), &site);
    ASSERT_TRUE(tests.Open());
    EXPECT_FALSE(site.link.DigitoGate());

    ASSERT_TRUE(tests.SetTestConfig(1, L"Tap", 0, 0));
    ASSERT_TRUE(tests.ActivityStart(true));
    EXPECT_TRUE(site.link.DigitoGate());
    // A link that never saw its reset note leaves the test unrecorded.
    EXPECT_EQ(capture.Lines(), Lines{L"InitHC08PacketList: null GetResetPacket.\r\n"});
    EXPECT_TRUE(tests.ActivityEnd(true));
    EXPECT_FALSE(site.link.DigitoGate());
    EXPECT_TRUE(TempFiles().empty());

    ASSERT_TRUE(tests.SetTestConfig(7, L"Quest", 0, 0));
    ASSERT_TRUE(tests.ActivityStart(false));
    EXPECT_TRUE(site.link.DigitoGate());
    EXPECT_TRUE(tests.ActivityEnd(false));
    EXPECT_FALSE(site.link.DigitoGate());

    // Timed out: nothing is written, a later end finds nothing to end, and
    // the next activity, of another kind, does not save the recording left
    // behind either.
    RemoveTempFolder();
    ASSERT_TRUE(tests.SetTestConfig(6, L"Tap", 1, 0));
    ASSERT_TRUE(tests.ActivityStart(false));
    const std::string reset = ResetNote();
    tests.StartRecording(new CHC08PackList, reinterpret_cast<const BYTE*>(reset.data()), 1, 2);
    const std::string seat = Packet([](int* n) { return CHC08Pack::BuildCapsitLeftDown(n, 77); });
    tests.RecordHC08Packet(reinterpret_cast<const BYTE*>(seat.data()));
    EXPECT_TRUE(site.link.DigitoGate());
    EXPECT_TRUE(PumpUntil([&] { return Endings().size() == 3; }));
    EXPECT_FALSE(site.link.DigitoGate());
    EXPECT_FALSE(tests.ActivityRunning());
    EXPECT_TRUE(tests.ActivityEnd(true));
    EXPECT_TRUE(TempFiles().empty());
    ASSERT_TRUE(tests.SetTestConfig(7, L"Quest", 0, 0));
    ASSERT_TRUE(tests.ActivityStart(false));
    ASSERT_TRUE(tests.ActivityEnd(true));
    EXPECT_EQ(TempFiles().size(), 1u);
    EXPECT_EQ(TempFiles()[0].substr(TempFiles()[0].size() - 9), L"Quest.txt");
    EXPECT_EQ(Endings(), (std::vector<Ending>{{0, 1}, {103, 7}, {1, 6}, {0, 7}}));
    tests.Close();
}

}  // namespace
