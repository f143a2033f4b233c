#include "session/StoredParams.h"

#include <cwchar>
#include <memory>
#include <new>

#include "diag/Assert.h"
#include "diag/DebugOut.h"

// ---------------------------------------------------------------------------
// Date and time helpers

namespace {

const wchar_t* const kDayNames[7] = {L"Sun", L"Mon", L"Tue", L"Wed", L"Thu", L"Fri", L"Sat"};

// Indexed by month 1..12; slot 0 is never matched when parsing.
const wchar_t* const kMonthNames[13] = {L"ERR", L"Jan", L"Feb", L"Mar", L"Apr", L"May", L"Jun",
                                        L"Jul", L"Aug", L"Sep", L"Oct", L"Nov", L"Dec"};

// Year range of the text writer; the parser accepts only from 2000 (below).
constexpr int kWriteFirstYear = 1960;
constexpr int kParseFirstYear = 2000;
constexpr int kLastYear = 3000;

constexpr size_t kShortTextLength = 15;  // "Tue 03 Feb 2004"
constexpr size_t kLongTextLength = 24;   // "Tue 03 Feb 2004 09:05:00"

// Index of a three-letter name in table[first..count), compared without case
// on its first three characters, or -1.
int FindName(const wchar_t* word, const wchar_t* const* table, int first, int count)
{
    for (int i = first; i < count; ++i) {
        if (_wcsnicmp(word, table[i], 3) == 0)
            return i;
    }
    return -1;
}

}  // namespace

bool SystemTimeToULongLong(const SYSTEMTIME* pSt, ULONGLONG* pUll)
{
    if (pSt == nullptr) {
        DebugOut(L"SystemTimeToULongLong: null pSt.\r\n");
        return false;
    }
    if (pUll == nullptr) {
        DebugOut(L"SystemTimeToULongLong: null pUll.\r\n");
        return false;
    }
    *pUll = 0;
    FILETIME ft;
    if (!SystemTimeToFileTime(pSt, &ft)) {
        DebugOut(L"SystemTimeToULongLong date/time didn't convert to FILETIME\r\n");
        return false;
    }
    ULARGE_INTEGER value;
    value.LowPart = ft.dwLowDateTime;
    value.HighPart = ft.dwHighDateTime;
    *pUll = value.QuadPart;
    return true;
}

bool ULongLongToSystemTime(const ULONGLONG* pUll, SYSTEMTIME* pSt)
{
    if (pUll == nullptr) {
        DebugOut(L"ULongLongToSystemTime: null pUll.\r\n");
        return false;
    }
    if (pSt == nullptr) {
        DebugOut(L"ULongLongToSystemTime: null pSt.\r\n");
        return false;
    }
    ULARGE_INTEGER value;
    value.QuadPart = *pUll;
    FILETIME ft;
    ft.dwLowDateTime = value.LowPart;
    ft.dwHighDateTime = value.HighPart;
    if (!FileTimeToSystemTime(&ft, pSt)) {
        DebugOut(L"ULongLongToSystemTime: FILETIME didn't convert.\r\n");
        return false;
    }
    return true;
}

int CompareSystemTime(const SYSTEMTIME* a, const SYSTEMTIME* b)
{
    ASSERT(a != nullptr && b != nullptr);
    if (a == nullptr || b == nullptr)
        return 0;

    const WORD left[] = {a->wYear, a->wMonth, a->wDay, a->wHour, a->wMinute, a->wSecond, a->wMilliseconds};
    const WORD right[] = {b->wYear, b->wMonth, b->wDay, b->wHour, b->wMinute, b->wSecond, b->wMilliseconds};
    for (size_t i = 0; i < sizeof(left) / sizeof(left[0]); ++i) {
        if (left[i] < right[i])
            return -1;
        if (left[i] > right[i])
            return 1;
    }
    return 0;
}

wchar_t* SystemDateTimeToScript(const SYSTEMTIME* st, bool withTime)
{
    ASSERT(st != nullptr);
    if (st == nullptr)
        return nullptr;

    wchar_t text[64];
    const size_t room = sizeof(text) / sizeof(text[0]);
    size_t used = 0;

    // Out-of-range fields give no text and no message: callers pass whatever
    // the clock or the script gave them and decide for themselves.
    if (st->wDayOfWeek >= 7)
        return nullptr;
    used += swprintf(text + used, room - used, L"%ls", kDayNames[st->wDayOfWeek]);

    if (st->wDay < 1 || st->wDay > 31)
        return nullptr;
    used += swprintf(text + used, room - used, L" %02d ", static_cast<int>(st->wDay));

    if (st->wMonth < 1 || st->wMonth > 12)
        return nullptr;
    used += swprintf(text + used, room - used, L"%ls", kMonthNames[st->wMonth]);

    if (st->wYear < kWriteFirstYear || st->wYear > kLastYear)
        return nullptr;
    used += swprintf(text + used, room - used, L" %d", static_cast<int>(st->wYear));

    if (withTime) {
        if (st->wHour > 23)
            return nullptr;
        used += swprintf(text + used, room - used, L" %02d", static_cast<int>(st->wHour));
        if (st->wMinute > 59)
            return nullptr;
        used += swprintf(text + used, room - used, L":%02d", static_cast<int>(st->wMinute));
        if (st->wSecond > 61)
            return nullptr;
        used += swprintf(text + used, room - used, L":%02d", static_cast<int>(st->wSecond));
    }

    wchar_t* result = new (std::nothrow) wchar_t[used + 1];
    if (result == nullptr) {
        DebugOut(L"SystemDateTimeToScript: out of memory.\r\n");
        return nullptr;
    }
    wmemcpy(result, text, used + 1);
    return result;
}

bool ScriptToSystemDateTime(const wchar_t* text, SYSTEMTIME* out)
{
    ASSERT(out != nullptr);
    if (out == nullptr) {
        DebugOut(L"ScriptToSystemDateTime: null pSt.\r\n");
        return false;
    }
    ZeroMemory(out, sizeof(*out));
    ASSERT(text != nullptr);
    if (text == nullptr) {
        DebugOut(L"ScriptToSystemDateTime: null date time string.\r\n");
        return false;
    }

    const size_t length = wcslen(text);
    if (length != kShortTextLength && length < kLongTextLength) {
        DebugOut(L"ScriptToSystemDateTime: unexpected length date time string.\r\n");
        return false;
    }

    // A word can be as long as the whole text; size the word buffers to it so
    // that a long word is judged by its length rather than split.
    std::unique_ptr<wchar_t[]> dayName(new (std::nothrow) wchar_t[length + 1]);
    std::unique_ptr<wchar_t[]> monthName(new (std::nothrow) wchar_t[length + 1]);
    if (!dayName || !monthName) {
        DebugOut(L"ScriptToSystemDateTime: out of memory.\r\n");
        return false;
    }

    int day = 0, year = 0, hour = 0, minute = 0, second = 0;
    if (length == kShortTextLength) {
        if (swscanf(text, L"%ls %d %ls %d", dayName.get(), &day, monthName.get(), &year) != 4) {
            DebugOut(L"ScriptToSystemDateTime: garbled date string.\r\n");
            return false;
        }
    } else {
        if (swscanf(text, L"%ls %d %ls %d %d:%d:%d", dayName.get(), &day, monthName.get(), &year, &hour,
                    &minute, &second) != 7) {
            DebugOut(L"ScriptToSystemDateTime: garbled date string.\r\n");
            return false;
        }
    }

    // The day name is taken as given; it is not checked against the date.
    if (wcslen(dayName.get()) != 3) {
        DebugOut(L"ScriptToSystemDateTime: garbled day of week.\r\n");
        return false;
    }
    const int dayOfWeek = FindName(dayName.get(), kDayNames, 0, 7);
    if (dayOfWeek < 0) {
        DebugOut(L"ScriptToSystemDateTime: Unknown day of week.\r\n");
        return false;
    }
    out->wDayOfWeek = static_cast<WORD>(dayOfWeek);

    // Not checked against the month's length.
    if (day < 1 || day > 31) {
        DebugOut(L"ScriptToSystemDateTime: invalid day of month.\r\n");
        return false;
    }
    out->wDay = static_cast<WORD>(day);

    if (wcslen(monthName.get()) != 3) {
        DebugOut(L"ScriptToSystemDateTime: garbled month.\r\n");
        return false;
    }
    const int month = FindName(monthName.get(), kMonthNames, 1, 13);
    if (month < 0) {
        DebugOut(L"ScriptToSystemDateTime: Unknown month.\r\n");
        return false;
    }
    out->wMonth = static_cast<WORD>(month);

    if (year < kParseFirstYear || year > kLastYear) {
        DebugOut(L"ScriptToSystemDateTime: garbled year.\r\n");
        return false;
    }
    out->wYear = static_cast<WORD>(year);

    // Hours up to 59 pass here on purpose; the platform's conversion rejects
    // 24..59 when the time is used.
    if (hour < 0 || hour > 59) {
        DebugOut(L"ScriptToSystemDateTime: invalid hour.\r\n");
        return false;
    }
    out->wHour = static_cast<WORD>(hour);

    if (minute < 0 || minute > 59) {
        DebugOut(L"ScriptToSystemDateTime: invalid minute.\r\n");
        return false;
    }
    out->wMinute = static_cast<WORD>(minute);

    // The second shares the minute's message.
    if (second < 0 || second > 61) {
        DebugOut(L"ScriptToSystemDateTime: invalid minute.\r\n");
        return false;
    }
    out->wSecond = static_cast<WORD>(second);
    out->wMilliseconds = 0;
    return true;
}

char* NativeToAscii(const wchar_t* native)
{
    ASSERT(native != nullptr);
    if (native == nullptr) {
        DebugOut(L"ERROR: NativeToAscii - null pNative.\r\n");
        return nullptr;
    }

    // First call sizes the buffer (terminator included), second converts.
    const int size = WideCharToMultiByte(CP_ACP, 0, native, -1, nullptr, 0, nullptr, nullptr);
    if (size == 0) {
        DebugOut(L"ERROR: NativeToAscii: string didn't convert.\r\n");
        return nullptr;
    }
    char* narrow = new (std::nothrow) char[size];
    if (narrow == nullptr) {
        DebugOut(L"ERROR: NativeToAscii: out of memory.\r\n");
        return nullptr;
    }
    if (WideCharToMultiByte(CP_ACP, 0, native, -1, narrow, size, nullptr, nullptr) == 0) {
        DebugOut(L"ERROR: NativeToAscii: string didn't convert the second time.\r\n");
        delete[] narrow;
        return nullptr;
    }
    return narrow;
}
