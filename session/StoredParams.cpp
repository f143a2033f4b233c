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

wchar_t* CopyOf(const wchar_t* text)
{
    const size_t length = wcslen(text);
    wchar_t* copy = new (std::nothrow) wchar_t[length + 1];
    if (copy != nullptr)
        wmemcpy(copy, text, length + 1);
    return copy;
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

// ---------------------------------------------------------------------------
// Stored parameters

namespace {

const wchar_t kParamsFile[] = L"\\Hard Disk\\params.txt";

// Only this much of the file is read; the rest is ignored.
constexpr DWORD kParamsFileMax = 8192;

bool IsLineBreak(wchar_t c)
{
    return c == L'\r' || c == L'\n';
}

bool IsKeyChar(wchar_t c)
{
    return iswupper(c) || iswlower(c) || iswdigit(c) || iswalpha(c);
}

wchar_t* CopyString(const wchar_t* text, size_t length)
{
    wchar_t* copy = new (std::nothrow) wchar_t[length + 1];
    if (copy != nullptr) {
        wmemcpy(copy, text, length);
        copy[length] = L'\0';
    }
    return copy;
}

// The params file as wide text, NUL-terminated, or null after its message.
std::unique_ptr<wchar_t[]> ReadParamsText()
{
    HANDLE file = CreateFileW(kParamsFile, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        DebugOut(L"ERROR: Failed to open params file.\r\n");
        return nullptr;
    }
    // A NUL byte in the file ends the text, like the terminator placed after
    // the bytes read.
    std::unique_ptr<char[]> bytes(new (std::nothrow) char[kParamsFileMax + 1]);
    if (!bytes) {
        CloseHandle(file);
        DebugOut(L"ERROR: out of memory reading params file.\r\n");
        return nullptr;
    }
    DWORD got = 0;
    const BOOL read = ReadFile(file, bytes.get(), kParamsFileMax, &got, nullptr);
    CloseHandle(file);
    if (!read) {
        DebugOut(L"ERROR: read of params file failed.\r\n");
        return nullptr;
    }
    bytes[got] = '\0';

    const int length = MultiByteToWideChar(CP_ACP, MB_PRECOMPOSED, bytes.get(), -1, nullptr, 0);
    if (length == 0) {
        DebugOut(L"ERROR: params file contents failed to convert.\r\n");
        return nullptr;
    }
    std::unique_ptr<wchar_t[]> text(new (std::nothrow) wchar_t[length]);
    if (!text) {
        DebugOut(L"ERROR: out of memory reading params file.\r\n");
        return nullptr;
    }
    if (MultiByteToWideChar(CP_ACP, MB_PRECOMPOSED, bytes.get(), -1, text.get(), length) != length) {
        DebugOut(L"ERROR: params file contents failed to convert.\r\n");
        return nullptr;
    }
    return text;
}

}  // namespace

CStoredParams::CStoredParams() : m_count(0), m_keys(nullptr), m_values(nullptr) {}

CStoredParams::~CStoredParams()
{
    Close();
}

bool CStoredParams::IsOpen() const
{
    return m_keys != nullptr && m_values != nullptr;
}

int CStoredParams::ScanFile(bool store)
{
    std::unique_ptr<wchar_t[]> buffer = ReadParamsText();
    if (!buffer)
        return -1;
    const wchar_t* p = buffer.get();
    int entries = 0;

    for (;;) {
        while (IsLineBreak(*p))
            ++p;
        // A comment only where a line begins; "#" after blanks is a key error.
        if (*p == L'#') {
            while (*p != L'\0' && !IsLineBreak(*p))
                ++p;
            continue;
        }
        while (iswspace(*p))
            ++p;
        if (*p == L'\0')
            return entries;

        const wchar_t* key = p;
        while (IsKeyChar(*p))
            ++p;
        const size_t keyLength = static_cast<size_t>(p - key);
        if (*p == L'\0') {
            DebugOut(L"ERROR: Missing '=' in param file.\r\n");
            return -1;
        }
        while (iswspace(*p))
            ++p;
        if (*p != L'=') {
            DebugOut(L"ERROR: Missing '=' in param file.\r\n");
            return -1;
        }
        ++p;
        // Line breaks count as blanks here: an empty value takes the next
        // line as its value. Every key in a provisioned file has a value.
        while (iswspace(*p))
            ++p;
        if (*p == L'\0') {
            DebugOut(L"ERROR: Missing value in param file.\r\n");
            return -1;
        }
        const wchar_t* value = p;
        while (*p != L'\0' && !IsLineBreak(*p))
            ++p;
        const size_t valueLength = static_cast<size_t>(p - value);
        ++entries;

        if (store) {
            std::unique_ptr<wchar_t[]> keyText(CopyString(key, keyLength));
            std::unique_ptr<wchar_t[]> valueText(CopyString(value, valueLength));
            if (!keyText || !valueText) {
                DebugOut(L"ERROR: out of memory reading params file.\r\n");
                return -1;
            }
            if (!AddKey(keyText.get(), valueText.get()))
                return -1;
        }
    }
}

bool CStoredParams::Open()
{
    Close();
    const int count = ScanFile(false);
    if (count < 0) {
        DebugOut(L"ERROR: CStoredParams::Open: failed to read file.\r\n");
        Close();
        return false;
    }
    m_keys = new (std::nothrow) wchar_t*[count]();
    if (m_keys == nullptr) {
        DebugOut(L"CStoredParams::Open: out of memory for keys.\r\n");
        Close();
        return false;
    }
    m_values = new (std::nothrow) wchar_t*[count]();
    if (m_values == nullptr) {
        DebugOut(L"CStoredParams::Open: out of memory for values.\r\n");
        Close();
        return false;
    }
    m_count = static_cast<short>(count);
    // The file was read a moment ago; a failure now leaves the keys found so
    // far, and the checks below decide.
    ScanFile(true);

    // The schedule cannot run without these; there are no built-in defaults.
    SYSTEMTIME date;
    short number;
    const wchar_t* failure = nullptr;
    if (!ReadDateParam(L"FirstSessionDateTime", &date))
        failure = L"ERROR: CStoredParams::Open: bad/missing FirstSessionDateTime.\r\n";
    else if (!ReadShortParam(L"SessionWindowHours", 1, 24, &number))
        failure = L"ERROR: CStoredParams::Open: bad/missing SessionWindowHours.\r\n";
    else if (!ReadDateParam(L"EndPracticeDate", &date))
        failure = L"ERROR: CStoredParams::Open: bad/missing EndPracticeDate.\r\n";
    else if (!ReadShortParam(L"RealTestIntervalDays", 1, 365, &number))
        failure = L"ERROR: CStoredParams::Open: bad/missing RealTestIntervalDays.\r\n";
    else if (!ReadShortParam(L"PracticeTestIntervalDays", 1, 365, &number))
        failure = L"ERROR: CStoredParams::Open: bad/missing PracticeTestIntervalDays.\r\n";
    else if (!ReadShortParam(L"MakeupDays", 0, 365, &number))
        failure = L"ERROR: CStoredParams::Open: bad/missing MakeupDays.\r\n";
    else if (!ReadShortParam(L"MinFreeSpaceMB", -32768, 32767, &number))
        failure = L"ERROR: CStoredParams::Open: bad/missing MinFreeSpaceMB.\r\n";
    else if (!ReadShortParam(L"Debug", -32768, 32767, &number))
        failure = L"ERROR: CStoredParams::Open: bad/missing Debug.\r\n";
    if (failure != nullptr) {
        DebugOut(failure);
        Close();
        return false;
    }
    return true;
}

void CStoredParams::Close()
{
    for (int i = 0; i < m_count; ++i) {
        if (m_keys != nullptr)
            delete[] m_keys[i];
        if (m_values != nullptr)
            delete[] m_values[i];
    }
    delete[] m_keys;
    delete[] m_values;
    m_keys = nullptr;
    m_values = nullptr;
    m_count = 0;
}

bool CStoredParams::AddKey(const wchar_t* key, const wchar_t* value)
{
    ASSERT(key != nullptr && value != nullptr);
    ASSERT(IsOpen());
    if (key == nullptr || value == nullptr || !IsOpen())
        return false;
    ASSERT(FindKey(key) < 0);

    int slot = 0;
    while (slot < m_count && m_keys[slot] != nullptr)
        ++slot;
    if (slot >= m_count) {
        DebugOut(L"ERROR: CStoredParams::AddKey - no available slots.\r\n");
        return false;
    }
    wchar_t* keyCopy = CopyString(key, wcslen(key));
    if (keyCopy == nullptr) {
        DebugOut(L"ERROR: CStoredParams::AddKey - out of memory.\r\n");
        return false;
    }
    wchar_t* valueCopy = CopyString(value, wcslen(value));
    if (valueCopy == nullptr) {
        delete[] keyCopy;
        DebugOut(L"ERROR: CStoredParams::AddKey - out of memory.\r\n");
        return false;
    }
    m_keys[slot] = keyCopy;
    m_values[slot] = valueCopy;
    return true;
}

int CStoredParams::FindKey(const wchar_t* key) const
{
    if (key == nullptr || !IsOpen())
        return -1;
    for (int i = 0; i < m_count; ++i) {
        if (m_keys[i] != nullptr && m_values[i] != nullptr && _wcsicmp(m_keys[i], key) == 0)
            return i;
    }
    return -1;
}

wchar_t* CStoredParams::ParameterRead(const wchar_t* key, const wchar_t* defaultValue) const
{
    ASSERT(key != nullptr);
    ASSERT(defaultValue != nullptr);
    ASSERT(IsOpen());
    if (key == nullptr || defaultValue == nullptr)
        return nullptr;
    const int slot = FindKey(key);
    const wchar_t* text = (slot >= 0) ? m_values[slot] : defaultValue;
    wchar_t* copy = CopyString(text, wcslen(text));
    if (copy == nullptr)
        DebugOut(L"ParameterRead: out of memory.\r\n");
    return copy;
}

bool CStoredParams::ReadShortParam(const wchar_t* key, short min, short max, short* out) const
{
    ASSERT(IsOpen());
    ASSERT(min <= max);
    ASSERT(out != nullptr);
    if (out == nullptr)
        return false;
    const int slot = FindKey(key);
    if (slot < 0)
        return false;
    int value = 0;
    if (swscanf(m_values[slot], L"%d", &value) != 1)
        return false;
    if (value < min || value > max)
        return false;
    *out = static_cast<short>(value);
    return true;
}

bool CStoredParams::ReadDateParam(const wchar_t* key, SYSTEMTIME* out) const
{
    const int slot = FindKey(key);
    if (slot < 0)
        return false;
    return ScriptToSystemDateTime(m_values[slot], out);
}

bool CStoredParams::ReadSessionWindowHours(short* out) const
{
    if (ReadShortParam(L"SessionWindowHours", 1, 24, out))
        return true;
    DebugOut(L"ERROR: ReadSessionWindowHours: invalid/missing value.\r\n");
    return false;
}

bool CStoredParams::ReadRealTestIntervalDays(short* out) const
{
    if (ReadShortParam(L"RealTestIntervalDays", 1, 365, out))
        return true;
    DebugOut(L"ERROR: ReadRealTestIntervalDays: invalid/missing value.\r\n");
    return false;
}

bool CStoredParams::ReadPracticeTestIntervalDays(short* out) const
{
    if (ReadShortParam(L"PracticeTestIntervalDays", 1, 365, out))
        return true;
    DebugOut(L"ERROR: ReadPracticeTestIntervalDays: invalid/missing value.\r\n");
    return false;
}

bool CStoredParams::ReadMakeupDays(short* out) const
{
    if (ReadShortParam(L"MakeupDays", 0, 365, out))
        return true;
    DebugOut(L"ERROR: ReadMakeupDays: invalid/missing value.\r\n");
    return false;
}

bool CStoredParams::ReadMinFreeSpaceMB(short* out) const
{
    if (ReadShortParam(L"MinFreeSpaceMB", -32768, 32767, out))
        return true;
    DebugOut(L"ERROR: ReadMinFreeSpaceMB: invalid/missing value.\r\n");
    return false;
}

bool CStoredParams::ReadDebug(short* out) const
{
    if (ReadShortParam(L"Debug", -32768, 32767, out))
        return true;
    DebugOut(L"ERROR: ReadDebug: invalid/missing value.\r\n");
    return false;
}

bool CStoredParams::ReadFirstSessionDateTime(SYSTEMTIME* pDateTimeLocal) const
{
    if (pDateTimeLocal == nullptr) {
        DebugOut(L"ReadFirstSessionDateTime: null pDateTimeLocal.\r\n");
        return false;
    }
    ASSERT(IsOpen());
    const int slot = FindKey(L"FirstSessionDateTime");
    if (slot < 0) {
        DebugOut(L"Corrupted StoredParams: no FirstSessionDateTime.\r\n");
        return false;
    }
    return ScriptToSystemDateTime(m_values[slot], pDateTimeLocal);
}

bool CStoredParams::ReadEndPracticeDate(SYSTEMTIME* pDateTimeLocal) const
{
    if (pDateTimeLocal == nullptr) {
        DebugOut(L"ReadEndPracticeDate: null pDateTimeLocal.\r\n");
        return false;
    }
    ASSERT(IsOpen());
    const int slot = FindKey(L"EndPracticeDate");
    if (slot < 0) {
        DebugOut(L"Corrupted StoredParams: no EndPracticeDate.\r\n");
        return false;
    }
    return ScriptToSystemDateTime(m_values[slot], pDateTimeLocal);
}
