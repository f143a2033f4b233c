// A clock the tests set: local times given directly, or UTC instants shown
// in a time zone the way the system shows its own clock.
#pragma once

#include <windows.h>

#include <string>

#include "session/LocalClock.h"

// With its true day of week.
SYSTEMTIME ParseTime(const wchar_t* text);

class TestClock final : public ILocalClock
{
public:
    TestClock() : m_local(ParseTime(L"Mon 02 Feb 2004 09:00:00")), m_previous(LocalClockInstall(this)) {}
    ~TestClock() { LocalClockInstall(m_previous); }

    // "Mon 02 Feb 2004 09:30:00"; the day of week is worked out from the date.
    void SetLocal(const wchar_t* text) { m_local = ParseTime(text); }
    // A UTC instant (same text form) as local time in zone.
    void SetInstant(const wchar_t* utcText, const TIME_ZONE_INFORMATION& zone);
    void Now(SYSTEMTIME* local) override { *local = m_local; }

private:
    SYSTEMTIME m_local;
    ILocalClock* m_previous;
};

// GMT with British Summer Time: clocks go forward at 01:00 UTC on the last
// Sunday of March and back at 01:00 UTC on the last Sunday of October.
TIME_ZONE_INFORMATION UkTimeZone();

std::wstring TimeText(const SYSTEMTIME& st);
ULONGLONG TimeCount(const wchar_t* text);
