// The session schedule at fixed clock values: the slots, the makeup days,
// sessions already done, practice mode and daylight-saving changes. Read
// through the control's methods, as the script reads it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "session/NVRAMBoard.h"
#include "session/TestManager.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/TestClock.h"

namespace {

std::string Params(const char* first, int windowHours, const char* endPractice, int realDays, int practiceDays,
                   int makeupDays)
{
    return std::string("FirstSessionDateTime=") + first + "\r\nSessionWindowHours=" + std::to_string(windowHours) +
           "\r\nEndPracticeDate=" + endPractice + "\r\nRealTestIntervalDays=" + std::to_string(realDays) +
           "\r\nPracticeTestIntervalDays=" + std::to_string(practiceDays) +
           "\r\nMakeupDays=" + std::to_string(makeupDays) + "\r\nMinFreeSpaceMB=10\r\nDebug=0\r\n";
}

// Weekly at Monday 09:00 for 2 hours, 2 makeup days, practice long over.
const std::string kWeekly = Params("Mon 02 Feb 2004 09:00:00", 2, "Thu 01 Jan 2004", 7, 1, 2);

struct Window
{
    std::wstring start, end;
    short inWindow = -1;
    bool operator==(const Window& o) const { return start == o.start && end == o.end && inWindow == o.inWindow; }
};

void PrintTo(const Window& w, std::ostream* os)
{
    *os << testing::PrintToString(w.start) << ".." << testing::PrintToString(w.end) << " in=" << w.inWindow;
}

class ScheduleTest : public ::testing::Test
{
protected:
    void Open(const std::string& params, const wchar_t* openedAt)
    {
        if (control)
            control->Close();
        ProvisionDisk(params);
        clock.SetLocal(openedAt);
        control = CreateLocalControl();
        short ok = 0;
        ASSERT_EQ(control->Open(&ok), S_OK);
        ASSERT_EQ(ok, 1);
    }
    void SessionDoneAt(const wchar_t* when)
    {
        const SYSTEMTIME st = ParseTime(when);
        ASSERT_TRUE(AsControl(control.Get())->GetNVRAM()->NVWritePrevSessionDateTime(&st));
    }
    Window At(const wchar_t* now)
    {
        clock.SetLocal(now);
        return Next();
    }
    Window AtInstant(const wchar_t* utc)
    {
        clock.SetInstant(utc, UkTimeZone());
        return Next();
    }
    Window Next()
    {
        Window w;
        BSTR start = nullptr, end = nullptr;
        EXPECT_EQ(control->GetNextSessionStart(&start), S_OK);
        EXPECT_EQ(control->GetNextSessionEnd(&end), S_OK);
        EXPECT_EQ(control->get_InSessionWindow(&w.inWindow), S_OK);
        w.start = start ? start : L"<null>";
        w.end = end ? end : L"<null>";
        SysFreeString(start);
        SysFreeString(end);
        return w;
    }
    short PracticeAt(const wchar_t* now)
    {
        clock.SetLocal(now);
        short v = -1;
        EXPECT_EQ(control->get_PracticeMode(&v), S_OK);
        return v;
    }

    ComApartment com;
    TestClock clock;
    ComPtr<IBrennock> control;
};

TEST_F(ScheduleTest, WeeklySlotsWithTwoMakeupDaysAndNothingDoneYet)
{
    Open(kWeekly, L"Sun 01 Feb 2004 08:00:00");
    struct Case
    {
        const wchar_t* now;
        Window expected;
    };
    const Case cases[] = {
        {L"Sun 01 Feb 2004 12:00:00", {L"Mon 02 Feb 2004 09:00:00", L"Mon 02 Feb 2004 11:00:00", 0}},  // before the first
        {L"Mon 02 Feb 2004 09:00:00", {L"Mon 02 Feb 2004 09:00:00", L"Mon 02 Feb 2004 11:00:00", 1}},
        {L"Mon 02 Feb 2004 09:30:00", {L"Mon 02 Feb 2004 09:00:00", L"Mon 02 Feb 2004 11:00:00", 1}},
        {L"Mon 02 Feb 2004 11:00:00", {L"Tue 03 Feb 2004 09:00:00", L"Tue 03 Feb 2004 11:00:00", 0}},  // first makeup
        {L"Tue 03 Feb 2004 10:59:59", {L"Tue 03 Feb 2004 09:00:00", L"Tue 03 Feb 2004 11:00:00", 1}},
        {L"Wed 04 Feb 2004 08:00:00", {L"Wed 04 Feb 2004 09:00:00", L"Wed 04 Feb 2004 11:00:00", 0}},  // second makeup
        {L"Wed 04 Feb 2004 12:00:00", {L"Mon 09 Feb 2004 09:00:00", L"Mon 09 Feb 2004 11:00:00", 0}},  // makeups over
        {L"Mon 09 Feb 2004 10:00:00", {L"Mon 09 Feb 2004 09:00:00", L"Mon 09 Feb 2004 11:00:00", 1}},
        {L"Sat 14 Feb 2004 12:00:00", {L"Mon 16 Feb 2004 09:00:00", L"Mon 16 Feb 2004 11:00:00", 0}},
        {L"Mon 06 Dec 2004 10:30:00", {L"Mon 06 Dec 2004 09:00:00", L"Mon 06 Dec 2004 11:00:00", 1}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(At(c.now), c.expected) << testing::PrintToString(std::wstring(c.now));
}

TEST_F(ScheduleTest, ASessionDoneCountsForItsSlotAndEveryEarlierOne)
{
    struct Case
    {
        const wchar_t* done;
        const wchar_t* now;
        Window expected;
    };
    const Case cases[] = {
        {L"Mon 02 Feb 2004 09:30:00", L"Mon 02 Feb 2004 12:00:00",
         {L"Mon 09 Feb 2004 09:00:00", L"Mon 09 Feb 2004 11:00:00", 0}},
        // Done, so not offered again although its window is still open.
        {L"Mon 02 Feb 2004 09:30:00", L"Mon 02 Feb 2004 10:00:00",
         {L"Mon 09 Feb 2004 09:00:00", L"Mon 09 Feb 2004 11:00:00", 0}},
        // Made up on Tuesday: no more makeups that week.
        {L"Tue 03 Feb 2004 10:00:00", L"Wed 04 Feb 2004 09:30:00",
         {L"Mon 09 Feb 2004 09:00:00", L"Mon 09 Feb 2004 11:00:00", 0}},
        {L"Mon 09 Feb 2004 10:00:00", L"Mon 09 Feb 2004 10:30:00",
         {L"Mon 16 Feb 2004 09:00:00", L"Mon 16 Feb 2004 11:00:00", 0}},
        // Started the very moment its window opened.
        {L"Mon 09 Feb 2004 09:00:00", L"Mon 09 Feb 2004 10:00:00",
         {L"Mon 16 Feb 2004 09:00:00", L"Mon 16 Feb 2004 11:00:00", 0}},
        // Weeks done long ago: the current week's missed slot gets its makeup.
        {L"Mon 09 Feb 2004 10:00:00", L"Tue 24 Feb 2004 08:00:00",
         {L"Tue 24 Feb 2004 09:00:00", L"Tue 24 Feb 2004 11:00:00", 0}},
    };
    for (const Case& c : cases) {
        Open(kWeekly, L"Sun 01 Feb 2004 08:00:00");
        SessionDoneAt(c.done);
        EXPECT_EQ(At(c.now), c.expected) << testing::PrintToString(std::wstring(c.done));
    }
}

TEST_F(ScheduleTest, PracticeIntervalRunsUntilTheDayPracticeEnds)
{
    Open(Params("Mon 02 Feb 2004 09:00:00", 2, "Mon 09 Feb 2004", 7, 1, 0), L"Sun 01 Feb 2004 08:00:00");
    EXPECT_EQ(At(L"Mon 02 Feb 2004 12:00:00").start, L"Tue 03 Feb 2004 09:00:00");
    EXPECT_EQ(At(L"Sun 08 Feb 2004 12:00:00").start, L"Mon 09 Feb 2004 09:00:00");
    EXPECT_EQ(At(L"Mon 09 Feb 2004 12:00:00").start, L"Mon 16 Feb 2004 09:00:00");
    EXPECT_EQ(PracticeAt(L"Sun 08 Feb 2004 23:59:59"), 1);
    EXPECT_EQ(PracticeAt(L"Mon 09 Feb 2004 00:00:00"), 0);

    // Practice ending at midday: practice mode follows the clock, the
    // interval the date, so the afternoon still runs on the daily interval.
    Open(Params("Mon 02 Feb 2004 09:00:00", 2, "Mon 09 Feb 2004 12:00:00", 7, 1, 0), L"Sun 01 Feb 2004 08:00:00");
    EXPECT_EQ(PracticeAt(L"Mon 09 Feb 2004 11:59:59"), 1);
    EXPECT_EQ(PracticeAt(L"Mon 09 Feb 2004 13:00:00"), 0);
    EXPECT_EQ(At(L"Mon 09 Feb 2004 13:00:00").start, L"Tue 10 Feb 2004 09:00:00");
    EXPECT_EQ(At(L"Tue 10 Feb 2004 13:00:00").start, L"Mon 16 Feb 2004 09:00:00");
}

TEST_F(ScheduleTest, SlotsKeepTheirLocalHourAcrossDaylightSavingChanges)
{
    // Sundays at 09:00 local; clocks go forward at 01:00 UTC on 28 March 2004.
    Open(Params("Sun 21 Mar 2004 09:00:00", 2, "Thu 01 Jan 2004", 7, 1, 0), L"Sat 20 Mar 2004 08:00:00");
    const Window sunday{L"Sun 28 Mar 2004 09:00:00", L"Sun 28 Mar 2004 11:00:00", 0};
    EXPECT_EQ(AtInstant(L"Sun 28 Mar 2004 00:30:00"), sunday);  // 00:30 GMT
    EXPECT_EQ(AtInstant(L"Sun 28 Mar 2004 07:30:00"), sunday);  // 08:30 BST: not yet
    Window open = sunday;
    open.inWindow = 1;
    EXPECT_EQ(AtInstant(L"Sun 28 Mar 2004 08:30:00"), open);    // 09:30 BST
    EXPECT_EQ(AtInstant(L"Sun 28 Mar 2004 09:59:59").inWindow, 1);
    EXPECT_EQ(AtInstant(L"Sun 28 Mar 2004 10:00:00").start, L"Sun 04 Apr 2004 09:00:00");

    // A window across the change is measured in local hours: at night in
    // spring it lasts one real hour...
    Open(Params("Sun 21 Mar 2004 00:30:00", 2, "Thu 01 Jan 2004", 7, 1, 0), L"Sat 20 Mar 2004 08:00:00");
    EXPECT_EQ(AtInstant(L"Sun 28 Mar 2004 01:15:00"),
              (Window{L"Sun 28 Mar 2004 00:30:00", L"Sun 28 Mar 2004 02:30:00", 1}));  // 02:15 BST
    EXPECT_EQ(AtInstant(L"Sun 28 Mar 2004 01:30:00").start, L"Sun 04 Apr 2004 00:30:00");

    // ...and in autumn, when 01:00 to 02:00 comes twice, three.
    Open(Params("Sun 24 Oct 2004 00:30:00", 2, "Thu 01 Jan 2004", 7, 1, 0), L"Sat 23 Oct 2004 08:00:00");
    EXPECT_EQ(AtInstant(L"Sat 30 Oct 2004 23:45:00").inWindow, 1);  // 00:45 BST
    EXPECT_EQ(AtInstant(L"Sun 31 Oct 2004 01:15:00").inWindow, 1);  // 01:15 GMT, the second time
    EXPECT_EQ(AtInstant(L"Sun 31 Oct 2004 02:29:59").inWindow, 1);
    EXPECT_EQ(AtInstant(L"Sun 31 Oct 2004 02:30:00").start, L"Sun 07 Nov 2004 00:30:00");
}

TEST_F(ScheduleTest, AddDaysAndTheBoundsQuery)
{
    const ULONGLONG sunday = TimeCount(L"Sun 21 Mar 2004 09:00:00");
    EXPECT_EQ(CTestManager::AddDays(sunday, 7), TimeCount(L"Sun 28 Mar 2004 09:00:00"));
    EXPECT_EQ(CTestManager::AddDays(sunday, 1), TimeCount(L"Mon 22 Mar 2004 09:00:00"));
    DebugCapture capture;
    EXPECT_EQ(CTestManager::AddDays(0x8000000000000000ULL, 1), 0u);
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{L"ULongLongToSystemTime: FILETIME didn't convert.\r\n"});

    Open(kWeekly, L"Sun 01 Feb 2004 08:00:00");
    CTestManager* manager = AsControl(control.Get())->GetTestManager();
    SYSTEMTIME start, end;
    bool in = true;
    capture.Clear();
    EXPECT_FALSE(manager->GetNextSessionBounds(nullptr, &end, &in));
    EXPECT_FALSE(manager->GetNextSessionBounds(&start, nullptr, &in));
    EXPECT_FALSE(manager->GetNextSessionBounds(&start, &end, nullptr));
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{L"GetNextSessionBounds: null pStart.\r\n",
                                                          L"GetNextSessionBounds: null pEnd.\r\n",
                                                          L"GetNextSessionBounds: null pInWindow.\r\n"}));
    control->Close();
    capture.Clear();  // the link's reader thread ending
    CTestManager closed(GetModuleHandleW(nullptr), AsControl(control.Get()));
    EXPECT_FALSE(closed.GetNextSessionBounds(&start, &end, &in));
    EXPECT_FALSE(closed.InPracticeMode());
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{L"GetNextSessionBounds: not open.\r\n",
                                                          L"InPracticeMode: not open.\r\n"}));
}

}  // namespace
