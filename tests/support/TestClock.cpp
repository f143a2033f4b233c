#include "tests/support/TestClock.h"

#include "session/StoredParams.h"

SYSTEMTIME ParseTime(const wchar_t* text)
{
    SYSTEMTIME st = {};
    ULONGLONG count = 0;
    if (ScriptToSystemDateTime(text, &st) && SystemTimeToULongLong(&st, &count))
        ULongLongToSystemTime(&count, &st);
    return st;
}

std::wstring TimeText(const SYSTEMTIME& st)
{
    wchar_t* text = SystemDateTimeToScript(&st, true);
    std::wstring result = text != nullptr ? text : L"<none>";
    delete[] text;
    return result;
}

ULONGLONG TimeCount(const wchar_t* text)
{
    SYSTEMTIME st = ParseTime(text);
    ULONGLONG count = 0;
    SystemTimeToULongLong(&st, &count);
    return count;
}

void TestClock::SetInstant(const wchar_t* utcText, const TIME_ZONE_INFORMATION& zone)
{
    SYSTEMTIME utc = ParseTime(utcText);
    TIME_ZONE_INFORMATION z = zone;
    SystemTimeToTzSpecificLocalTime(&z, &utc, &m_local);
}

TIME_ZONE_INFORMATION UkTimeZone()
{
    TIME_ZONE_INFORMATION zone = {};  // no bias in winter
    zone.DaylightBias = -60;
    // Month, last (5th) Sunday, at the local hour the change happens.
    zone.StandardDate = {0, 10, 0, 5, 2, 0, 0, 0};
    zone.DaylightDate = {0, 3, 0, 5, 1, 0, 0, 0};
    return zone;
}
