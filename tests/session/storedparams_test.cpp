#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "session/StoredParams.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"

namespace {

using Lines = std::vector<std::wstring>;
const wchar_t kParams[] = L"\\Hard Disk\\params.txt";
const wchar_t kReadFailed[] = L"ERROR: CStoredParams::Open: failed to read file.\r\n";
const wchar_t kNoEquals[] = L"ERROR: Missing '=' in param file.\r\n";

// The bench params with one line replaced (or dropped, for an empty line).
std::string With(const std::string& key, const std::string& line)
{
    std::string text = kBenchParams;
    const size_t at = text.find(key + "=");
    return text.replace(at, text.find("\r\n", at) + 2 - at, line.empty() ? "" : line + "\r\n");
}


std::wstring Take(wchar_t* text)
{
    std::unique_ptr<wchar_t[]> owned(text);
    return owned ? owned.get() : L"<null>";
}
std::wstring Read(const CStoredParams& params, const wchar_t* key) { return Take(params.ParameterRead(key, L"<default>")); }

TEST(StoredParamsTest, EveryBadFileFailsOpenWithItsOwnLines)
{
    DebugCapture capture;
    const std::string bench = kBenchParams;
    const std::string noDebug = With("Debug", "");
    const std::wstring badOrMissing = L"ERROR: CStoredParams::Open: bad/missing ";
    const auto bad = [&](const wchar_t* key) { return badOrMissing + key + L".\r\n"; };
    struct Case { const char* what; std::string text; Lines lines; };
    const Case cases[] = {
        {"no file", "", {L"ERROR: Failed to open params file.\r\n", kReadFailed}},
        {"comment after blanks", "  # set by the study team\r\n" + bench, {kNoEquals, kReadFailed}},
        {"key without =", With("Debug", "Debug 0"), {kNoEquals, kReadFailed}},
        {"underscore in a key", bench + "Study_Site=Lab 3\r\n", {kNoEquals, kReadFailed}},
        {"cut after a key", noDebug + "Debug", {kNoEquals, kReadFailed}},
        {"key without a value", noDebug + "Debug=  ", {L"ERROR: Missing value in param file.\r\n", kReadFailed}},
        // Only the first 8192 bytes are read: they end just after "Debug=".
        {"value past byte 8192", noDebug + "#" + std::string(8192 - noDebug.size() - 9, 'x') + "\r\nDebug=1234\r\n",
         {L"ERROR: Missing value in param file.\r\n", kReadFailed}},
        {"window of 25 hours", With("SessionWindowHours", "SessionWindowHours=25"), {bad(L"SessionWindowHours")}},
        {"interval of 0 days", With("RealTestIntervalDays", "RealTestIntervalDays=0"), {bad(L"RealTestIntervalDays")}},
        {"practice interval not a number", With("PracticeTestIntervalDays", "PracticeTestIntervalDays=daily"),
         {bad(L"PracticeTestIntervalDays")}},
        {"no MakeupDays", With("MakeupDays", ""), {bad(L"MakeupDays")}},
        {"MinFreeSpaceMB past 16 bits", With("MinFreeSpaceMB", "MinFreeSpaceMB=32768"), {bad(L"MinFreeSpaceMB")}},
        {"no Debug", noDebug, {bad(L"Debug")}},
        {"date without leading zero", With("FirstSessionDateTime", "FirstSessionDateTime=Mon 2 Feb 2004"),
         {L"ScriptToSystemDateTime: unexpected length date time string.\r\n", bad(L"FirstSessionDateTime")}},
        {"practice end in 1999", With("EndPracticeDate", "EndPracticeDate=Mon 08 Feb 1999"),
         {L"ScriptToSystemDateTime: garbled year.\r\n", bad(L"EndPracticeDate")}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        DeleteDiskFile(kParams);
        ASSERT_TRUE(c.text.empty() || WriteDiskFile(kParams, c.text));
        capture.Clear();
        CStoredParams params;
        EXPECT_FALSE(params.Open());
        EXPECT_EQ(capture.Lines(), c.lines);
        EXPECT_EQ(Read(params, L"StudySite"), L"<default>");  // nothing held after a failed Open
    }
}

TEST(StoredParamsTest, ScannerKeepsValuesAsWrittenAndKeysWithoutCase)
{
    DebugCapture capture;
    ASSERT_TRUE(WriteDiskFile(kParams, "#comment at the very start\r\n" +
                                           With("SessionWindowHours", "sessionwindowhours = 4") +
                                           "\n\n#another\nNote=\r\nOther=5\r\nMakeupDays=9\r\nEmpty\r\n=x\n"));
    const size_t asserts = AssertLines();
    CStoredParams params;
    ASSERT_TRUE(params.Open());
    short hours = 0, makeup = 0;
    EXPECT_TRUE(params.ReadSessionWindowHours(&hours) && hours == 4) << hours;
    // Trailing blanks belong to the value; an empty value takes the next line;
    // a line break between a key and "=" is a blank too.
    EXPECT_EQ(Read(params, L"STUDYSITE"), L"Lab 3  ");
    EXPECT_EQ(Read(params, L"Note"), L"Other=5");
    EXPECT_EQ(Read(params, L"Other"), L"<default>");
    EXPECT_EQ(Read(params, L"Empty"), L"x");
    // A duplicate key is recorded as an assertion; the first one counts.
    EXPECT_EQ(AssertLines(), asserts + 1);
    EXPECT_TRUE(params.ReadMakeupDays(&makeup) && makeup == 2) << makeup;
    SYSTEMTIME first, end;
    ASSERT_TRUE(params.ReadFirstSessionDateTime(&first) && params.ReadEndPracticeDate(&end));
    EXPECT_EQ((std::vector<int>{first.wYear, first.wMonth, first.wDay, first.wHour, end.wDay, end.wHour}),
              (std::vector<int>{2004, 2, 2, 9, 9, 0}));
    EXPECT_TRUE(capture.Lines().empty());
}

const SYSTEMTIME kFeb3 = {2004, 2, 2, 3, 9, 5, 0, 0};  // Tue 03 Feb 2004 09:05:00

bool Same(const SYSTEMTIME& a, const SYSTEMTIME& b) { return memcmp(&a, &b, sizeof(a)) == 0; }

TEST(DateTimeTest, WritesBothFormsParsesConvertsAndComparesThemAndReportsEachFault)
{
    // The short form ignores the time; any field out of its range gives no text.
    struct Text { SYSTEMTIME st; bool withTime; const wchar_t* text; };
    const Text texts[] = {{{1960, 12, 6, 31, 23, 59, 61, 0}, true, L"Sat 31 Dec 1960 23:59:61"},
                          {{1960, 12, 6, 31, 24, 59, 61, 0}, false, L"Sat 31 Dec 1960"},
                          {{1960, 12, 6, 31, 24, 59, 61, 0}, true, L"<null>"}, {{2004, 2, 62, 3, 9, 5}, true, L"<null>"},
                          {{2004, 62, 2, 3, 9, 5}, true, L"<null>"}, {{2004, 2, 2, 3, 9, 5, 62}, true, L"<null>"}};
    for (const Text& t : texts)
        EXPECT_EQ(Take(SystemDateTimeToScript(&t.st, t.withTime)), t.text);
    DebugCapture capture;
    const auto line = [](const wchar_t* fault) { return L"ScriptToSystemDateTime: " + std::wstring(fault) + L".\r\n"; };
    const std::wstring length = line(L"unexpected length date time string"), garbled = line(L"garbled date string"),
                       day = line(L"invalid day of month"), year = line(L"garbled year"), hour = line(L"invalid hour"),
                       minute = line(L"invalid minute");
    struct Case { const wchar_t* text; std::wstring line; SYSTEMTIME st; };
    const Case cases[] = {
        {L"Tue 03 Feb 2004 09:05:00", L"", kFeb3},
        {L"Tue 03 Feb 2004", L"", {2004, 2, 2, 3, 0, 0, 0, 0}},
        // Names in any case; the day name is taken as given, not checked.
        {L"sun 03 fEB 2004", L"", {2004, 2, 0, 3, 0, 0, 0, 0}},
        // Upper bounds that pass (an hour up to 59); text past 24 characters is ignored.
        {L"Sat 31 Dec 3000 59:59:61 and more", L"", {3000, 12, 6, 31, 59, 59, 61, 0}},
        // A wrong length leaves the record cleared.
        {L"Tue 3 Feb 2004", length, {}}, {L"Tue 03 Feb 2004 09:05", length, {}},
        {L"Tue 03 Feb 2004 09:05:0", length, {}}, {L"Tue xx Feb 2004", garbled}, {L"Tue 03 Feb 2004 09-05-00", garbled},
        {L"Tues 3 Feb 2004", line(L"garbled day of week")}, {L"Xyz 03 Feb 2004", line(L"Unknown day of week")},
        {L"Tue 00 Feb 2004", day}, {L"Tue 32 Feb 2004", day},
        {L"Tue 3 Febr 2004", line(L"garbled month")}, {L"Tue 03 Err 2004", line(L"Unknown month")},
        {L"Tue 03 Feb 1999", year}, {L"Tue 03 Feb 3001", year},
        {L"Tue 03 Feb 2004 60:00:00", hour}, {L"Tue 03 Feb 2004 -1:00:00", hour},
        {L"Tue 03 Feb 2004 09:60:00", minute}, {L"Tue 03 Feb 2004 09:05:62", minute},
    };
    for (const Case& c : cases) {
        capture.Clear();
        SYSTEMTIME st;
        memset(&st, 0xA5, sizeof(st));
        EXPECT_EQ(ScriptToSystemDateTime(c.text, &st), c.line.empty()) << c.text;
        EXPECT_EQ(capture.Lines(), c.line.empty() ? Lines{} : Lines{c.line}) << c.text;
        EXPECT_TRUE(Same(st, c.st) || !(c.line.empty() || c.line == length)) << c.text;
    }

    // A good conversion to and from the 64-bit form shows in every date the schedule gives.
    capture.Clear();
    SYSTEMTIME st = kFeb3, back = {};
    ULONGLONG ticks = 1;
    st.wMonth = 13;
    EXPECT_FALSE(SystemTimeToULongLong(&st, &ticks));
    EXPECT_EQ(ticks, 0u);
    const ULONGLONG tooLarge = 0x8000000000000000ULL;
    EXPECT_FALSE(ULongLongToSystemTime(&tooLarge, &back));
    EXPECT_EQ(capture.Lines(), (Lines{L"SystemTimeToULongLong date/time didn't convert to FILETIME\r\n",
                                      L"ULongLongToSystemTime: FILETIME didn't convert.\r\n"}));

    // Each field decides only when all the larger ones are equal; the day of week never.
    SYSTEMTIME other = kFeb3;
    other.wDayOfWeek = 5;
    EXPECT_EQ(CompareSystemTime(&kFeb3, &other), 0);
    WORD SYSTEMTIME::*const order[] = {&SYSTEMTIME::wYear, &SYSTEMTIME::wMonth,  &SYSTEMTIME::wDay,
                                       &SYSTEMTIME::wHour, &SYSTEMTIME::wMinute, &SYSTEMTIME::wSecond,
                                       &SYSTEMTIME::wMilliseconds};
    for (size_t i = 0; i < 7; ++i) {
        SYSTEMTIME larger = kFeb3;
        larger.*order[i] += 1;
        for (size_t j = i + 1; j < 7; ++j)
            larger.*order[j] = 0;
        EXPECT_EQ(CompareSystemTime(&kFeb3, &larger), -1) << i;
        EXPECT_EQ(CompareSystemTime(&larger, &kFeb3), 1) << i;
    }
}

}  // namespace
