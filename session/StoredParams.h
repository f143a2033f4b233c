// Stored parameters module: the device's provisioning parameters, and the
// date/time helpers shared by every part of the control.
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

// A new[] copy of a wide string, or null when memory is short.
wchar_t* CopyOf(const wchar_t* text);

// The device's provisioning parameters, read once at start-up from the
// key=value lines of "\Hard Disk\params.txt". Keys match without regard to
// case; values are kept as text and parsed again on every typed read.
class CStoredParams
{
public:
    CStoredParams();
    virtual ~CStoredParams();

    CStoredParams(const CStoredParams&) = delete;
    CStoredParams& operator=(const CStoredParams&) = delete;

    // Reads the file and checks the schedule keys; on failure the object
    // holds nothing (Close has run).
    bool Open();
    void Close();

    // The first slot with no key takes copies of both strings. A key already
    // present is recorded as an assertion but stored as well; lookups find
    // the first.
    bool AddKey(const wchar_t* key, const wchar_t* value);
    // Slot index of key (case-insensitive), or -1.
    int FindKey(const wchar_t* key) const;

    // A new[] copy of the value of key, or of defaultValue when key is absent.
    wchar_t* ParameterRead(const wchar_t* key, const wchar_t* defaultValue) const;
    // The value of key as one "%d" integer within [min, max]; out untouched
    // otherwise.
    bool ReadShortParam(const wchar_t* key, short min, short max, short* out) const;

    bool ReadSessionWindowHours(short* out) const;
    bool ReadRealTestIntervalDays(short* out) const;
    bool ReadPracticeTestIntervalDays(short* out) const;
    bool ReadMakeupDays(short* out) const;
    bool ReadMinFreeSpaceMB(short* out) const;
    bool ReadDebug(short* out) const;
    // Local times, from the script's date/time text.
    bool ReadFirstSessionDateTime(SYSTEMTIME* pDateTimeLocal) const;
    bool ReadEndPracticeDate(SYSTEMTIME* pDateTimeLocal) const;

private:
    // One pass of the scanner over the file: counts the entries, and when
    // store is set hands each to AddKey. The entry count, or -1 on any error.
    int ScanFile(bool store);
    bool ReadDateParam(const wchar_t* key, SYSTEMTIME* out) const;
    bool IsOpen() const;

    short m_count;
    wchar_t** m_keys;
    wchar_t** m_values;
};
