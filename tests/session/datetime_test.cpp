// Date/time helpers: the script's text forms, the 64-bit form, comparison and
// the narrow conversion.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "session/StoredParams.h"
#include "tests/support/DebugCapture.h"

namespace {

using Lines = std::vector<std::wstring>;

SYSTEMTIME Feb3()  // Tue 03 Feb 2004 09:05:00
{
    SYSTEMTIME st = {2004, 2, 2, 3, 9, 5, 0, 0};
    return st;
}

bool Same(const SYSTEMTIME& a, const SYSTEMTIME& b) { return memcmp(&a, &b, sizeof(a)) == 0; }

std::wstring ToScript(const SYSTEMTIME& st, bool withTime)
{
    wchar_t* text = SystemDateTimeToScript(&st, withTime);
    std::wstring result = text ? text : L"<null>";
    delete[] text;
    return result;
}

class DateTimeTest : public ::testing::Test
{
protected:
    DebugCapture capture;
};

TEST_F(DateTimeTest, WritesLongAndShortFormsWithinFieldRanges)
{
    SYSTEMTIME st = Feb3();
    EXPECT_EQ(ToScript(st, true), L"Tue 03 Feb 2004 09:05:00");
    EXPECT_EQ(ToScript(st, false), L"Tue 03 Feb 2004");
    st = {1960, 12, 6, 31, 23, 59, 61, 0};
    EXPECT_EQ(ToScript(st, true), L"Sat 31 Dec 1960 23:59:61");
    st.wHour = 24;  // time fields do not matter to the short form
    EXPECT_EQ(ToScript(st, false), L"Sat 31 Dec 1960");

    struct Case { WORD SYSTEMTIME::*field; WORD value; };
    const Case refused[] = {{&SYSTEMTIME::wDayOfWeek, 7}, {&SYSTEMTIME::wDay, 0},     {&SYSTEMTIME::wDay, 32},
                            {&SYSTEMTIME::wMonth, 0},     {&SYSTEMTIME::wMonth, 13},  {&SYSTEMTIME::wYear, 1959},
                            {&SYSTEMTIME::wYear, 3001},   {&SYSTEMTIME::wHour, 24},   {&SYSTEMTIME::wMinute, 60},
                            {&SYSTEMTIME::wSecond, 62}};
    for (const Case& c : refused) {
        st = Feb3();
        st.*c.field = c.value;
        EXPECT_EQ(ToScript(st, true), L"<null>") << c.value;
    }
    st = Feb3();
    st.wYear = 1999;  // below what the parser takes, still written
    EXPECT_EQ(ToScript(st, false), L"Tue 03 Feb 1999");
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(DateTimeTest, ParsesBothForms)
{
    SYSTEMTIME st, expected = Feb3();
    ASSERT_TRUE(ScriptToSystemDateTime(L"Tue 03 Feb 2004 09:05:00", &st));
    EXPECT_TRUE(Same(st, expected));
    memset(&st, 0xA5, sizeof(st));
    ASSERT_TRUE(ScriptToSystemDateTime(L"Tue 03 Feb 2004", &st));
    expected.wHour = expected.wMinute = 0;
    EXPECT_TRUE(Same(st, expected));

    // Names in any case; the day name is taken as given, not checked against the date.
    ASSERT_TRUE(ScriptToSystemDateTime(L"sun 03 fEB 2004", &st));
    expected.wDayOfWeek = 0;
    EXPECT_TRUE(Same(st, expected));

    // Upper bounds that pass (an hour up to 59); text beyond 24 characters is ignored.
    ASSERT_TRUE(ScriptToSystemDateTime(L"Sat 31 Dec 3000 59:59:61 and more", &st));
    expected = {3000, 12, 6, 31, 59, 59, 61, 0};
    EXPECT_TRUE(Same(st, expected));
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(DateTimeTest, ParserReportsEachFaultAndLeavesTheRecordCleared)
{
    const std::wstring length = L"ScriptToSystemDateTime: unexpected length date time string.\r\n";
    const std::wstring garbled = L"ScriptToSystemDateTime: garbled date string.\r\n";
    const std::wstring minute = L"ScriptToSystemDateTime: invalid minute.\r\n";
    const std::pair<const wchar_t*, std::wstring> cases[] = {
        {L"Tue 3 Feb 2004", length},
        {L"Tue 03 Feb 2004 09:05", length},
        {L"Tue 03 Feb 2004 09:05:0", length},
        {L"Tue xx Feb 2004", garbled},
        {L"Tue 03 Feb 2004 09-05-00", garbled},
        {L"Tues 3 Feb 2004", L"ScriptToSystemDateTime: garbled day of week.\r\n"},
        {L"Xyz 03 Feb 2004", L"ScriptToSystemDateTime: Unknown day of week.\r\n"},
        {L"Tue 00 Feb 2004", L"ScriptToSystemDateTime: invalid day of month.\r\n"},
        {L"Tue 32 Feb 2004", L"ScriptToSystemDateTime: invalid day of month.\r\n"},
        {L"Tue 3 Febr 2004", L"ScriptToSystemDateTime: garbled month.\r\n"},
        {L"Tue 03 Err 2004", L"ScriptToSystemDateTime: Unknown month.\r\n"},
        {L"Tue 03 Feb 1999", L"ScriptToSystemDateTime: garbled year.\r\n"},
        {L"Tue 03 Feb 3001", L"ScriptToSystemDateTime: garbled year.\r\n"},
        {L"Tue 03 Feb 2004 60:00:00", L"ScriptToSystemDateTime: invalid hour.\r\n"},
        {L"Tue 03 Feb 2004 -1:00:00", L"ScriptToSystemDateTime: invalid hour.\r\n"},
        {L"Tue 03 Feb 2004 09:60:00", minute},
        {L"Tue 03 Feb 2004 09:05:62", minute},
    };
    const SYSTEMTIME zero = {};
    for (const auto& [text, message] : cases) {
        capture.Clear();
        SYSTEMTIME st;
        memset(&st, 0xA5, sizeof(st));
        EXPECT_FALSE(ScriptToSystemDateTime(text, &st)) << text;
        EXPECT_EQ(capture.Lines(), Lines{message}) << text;
        if (message == length) {
            EXPECT_TRUE(Same(st, zero)) << text;
        }
    }
}

TEST_F(DateTimeTest, ConvertsToAndFromTheSixtyFourBitForm)
{
    SYSTEMTIME st = Feb3();
    ULONGLONG ticks = 1, later = 0;
    ASSERT_TRUE(SystemTimeToULongLong(&st, &ticks));
    EXPECT_EQ(ticks, 127202727000000000ULL);
    st.wHour = 10;
    ASSERT_TRUE(SystemTimeToULongLong(&st, &later));
    EXPECT_EQ(later - ticks, 36000000000ULL);  // one hour

    SYSTEMTIME back = {};  // the day of week comes back from the date
    ASSERT_TRUE(ULongLongToSystemTime(&ticks, &back));
    EXPECT_TRUE(Same(back, Feb3()));
    EXPECT_TRUE(capture.Lines().empty());

    st.wMonth = 13;
    EXPECT_FALSE(SystemTimeToULongLong(&st, &ticks));
    EXPECT_EQ(ticks, 0u);
    const ULONGLONG tooLarge = 0x8000000000000000ULL;
    EXPECT_FALSE(ULongLongToSystemTime(&tooLarge, &back));
    EXPECT_FALSE(SystemTimeToULongLong(nullptr, &ticks));
    EXPECT_FALSE(SystemTimeToULongLong(&st, nullptr));
    EXPECT_FALSE(ULongLongToSystemTime(nullptr, &back));
    EXPECT_FALSE(ULongLongToSystemTime(&ticks, nullptr));
    EXPECT_EQ(capture.Lines(), (Lines{L"SystemTimeToULongLong date/time didn't convert to FILETIME\r\n",
                                      L"ULongLongToSystemTime: FILETIME didn't convert.\r\n",
                                      L"SystemTimeToULongLong: null pSt.\r\n", L"SystemTimeToULongLong: null pUll.\r\n",
                                      L"ULongLongToSystemTime: null pUll.\r\n", L"ULongLongToSystemTime: null pSt.\r\n"}));
}

TEST_F(DateTimeTest, ComparesFieldsInOrderIgnoringDayOfWeek)
{
    const SYSTEMTIME base = Feb3();
    SYSTEMTIME other = base;
    other.wDayOfWeek = 5;
    EXPECT_EQ(CompareSystemTime(&base, &other), 0);

    // Each field decides only when all the larger ones are equal.
    WORD SYSTEMTIME::*const order[] = {&SYSTEMTIME::wYear, &SYSTEMTIME::wMonth,  &SYSTEMTIME::wDay,
                                       &SYSTEMTIME::wHour, &SYSTEMTIME::wMinute, &SYSTEMTIME::wSecond,
                                       &SYSTEMTIME::wMilliseconds};
    for (size_t i = 0; i < 7; ++i) {
        SYSTEMTIME later = base;
        later.*order[i] += 1;
        for (size_t j = i + 1; j < 7; ++j)
            later.*order[j] = 0;
        EXPECT_EQ(CompareSystemTime(&base, &later), -1) << i;
        EXPECT_EQ(CompareSystemTime(&later, &base), 1) << i;
    }
}

TEST_F(DateTimeTest, NativeToAsciiMakesANewNarrowCopy)
{
    for (const wchar_t* text : {L"Tue 03 Feb 2004 C:\\x line -1 assert\r\n", L""}) {
        char* narrow = NativeToAscii(text);
        ASSERT_NE(narrow, nullptr);
        EXPECT_EQ(std::wstring(narrow, narrow + strlen(narrow)), text);
        delete[] narrow;
    }
    EXPECT_TRUE(capture.Lines().empty());

    // A null string is a contract breach: a debug line and an assert record.
    DeleteFileW(L"\\Hard Disk\\asserts.txt");
    EXPECT_EQ(NativeToAscii(nullptr), nullptr);
    EXPECT_EQ(capture.Lines(), Lines{L"ERROR: NativeToAscii - null pNative.\r\n"});
    HANDLE h = CreateFileW(L"\\Hard Disk\\asserts.txt", GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    std::string record(1024, '\0');
    DWORD got = 0;
    ReadFile(h, record.data(), static_cast<DWORD>(record.size()), &got, nullptr);
    CloseHandle(h);
    record.resize(got);
    EXPECT_NE(record.find("StoredParams.cpp line "), std::string::npos) << record;
    EXPECT_TRUE(record.ends_with(" assert\r\n")) << record;
}

}  // namespace
