// Stored parameters module: the date/time helpers shared by every part of
// the control.
//
// Times are SYSTEMTIME records in local time, or their 64-bit FILETIME count
// (100 ns units since 1 January 1601). The script exchanges dates as text:
// long form "Tue 03 Feb 2004 09:05:00", short form "Tue 03 Feb 2004".
// Strings returned here are new[] allocations that the caller delete[]s.
#pragma once

#include <windows.h>

// SYSTEMTIME to its 64-bit FILETIME count. *pUll is zeroed before converting.
bool SystemTimeToULongLong(const SYSTEMTIME* pSt, ULONGLONG* pUll);

// 64-bit FILETIME count back to a SYSTEMTIME (day of week filled in).
bool ULongLongToSystemTime(const ULONGLONG* pUll, SYSTEMTIME* pSt);

// -1, 0 or 1 by year, month, day, hour, minute, second, milliseconds; the day
// of week is not compared.
int CompareSystemTime(const SYSTEMTIME* a, const SYSTEMTIME* b);

// The script text of a time, long form when withTime, else short form. Null,
// silently, when a field is out of range (years 1960..3000 are written).
wchar_t* SystemDateTimeToScript(const SYSTEMTIME* st, bool withTime);

// Parses either script text form into *out (cleared first). Years 2000..3000
// are accepted; the day name is taken as given, not checked against the date.
bool ScriptToSystemDateTime(const wchar_t* text, SYSTEMTIME* out);

// A wide string as a new narrow string in the ANSI code page.
char* NativeToAscii(const wchar_t* native);
