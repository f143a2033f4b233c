// The native stand-ins for the Win32 calls the parsers make. See windows.h
// and Win32Shim.h in this folder.
#include "fuzz/shim/Win32Shim.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <utility>

namespace {

std::wstring Folded(const wchar_t* name)
{
    std::wstring key;
    for (; *name != L'\0'; ++name)
        key.push_back(static_cast<wchar_t>(towlower(static_cast<wint_t>(*name))));
    return key;
}

std::map<std::wstring, std::vector<BYTE>>& Files()
{
    static std::map<std::wstring, std::vector<BYTE>> files;
    return files;
}

DWORD g_lastError = 0;

// One open handle: a file (its bytes live in the map) or a line.
struct Handle
{
    bool line = false;
    std::vector<BYTE>* file = nullptr;
    bool writable = false;
    uint64_t position = 0;
    std::vector<std::vector<BYTE>> bursts;
    size_t burst = 0;
    DCB dcb{};
    COMMTIMEOUTS timeouts{};
};

Handle* AsHandle(HANDLE h)
{
    return h == nullptr || h == INVALID_HANDLE_VALUE ? nullptr : static_cast<Handle*>(h);
}

bool Seek(Handle* h, LONGLONG distance, DWORD method, uint64_t* pNew)
{
    if (h == nullptr || h->line)
        return false;
    LONGLONG base = 0;
    if (method == FILE_CURRENT)
        base = static_cast<LONGLONG>(h->position);
    else if (method == FILE_END)
        base = static_cast<LONGLONG>(h->file->size());
    else if (method != FILE_BEGIN)
        return false;
    if ((distance > 0 && base > INT64_MAX - distance) || base + distance < 0)
        return false;
    h->position = static_cast<uint64_t>(base + distance);
    if (pNew != nullptr)
        *pNew = h->position;
    return true;
}

// Days since 1601-01-01 of a proleptic Gregorian date.
int64_t DaysFrom1601(int64_t y, unsigned m, unsigned d)
{
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    const int64_t fromEpoch1970 = era * 146097 + static_cast<int64_t>(doe) - 719468;
    return fromEpoch1970 + 134774;  // 1601-01-01 to 1970-01-01
}

bool IsLeap(unsigned y)
{
    return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
}

}  // namespace

namespace shim {

void ResetFiles()
{
    Files().clear();
}

void PutFile(const wchar_t* name, const void* bytes, size_t size)
{
    const BYTE* p = static_cast<const BYTE*>(bytes);
    Files()[Folded(name)] = std::vector<BYTE>(p, p + size);
}

const std::vector<BYTE>* FindFile(const wchar_t* name)
{
    auto it = Files().find(Folded(name));
    return it == Files().end() ? nullptr : &it->second;
}

HANDLE OpenLine(std::vector<std::vector<BYTE>> bursts)
{
    Handle* h = new Handle;
    h->line = true;
    h->bursts = std::move(bursts);
    h->dcb.DCBlength = sizeof(DCB);
    h->dcb.BaudRate = 600;
    return h;
}

}  // namespace shim

HANDLE CreateFileW(const wchar_t* name, DWORD access, DWORD, SECURITY_ATTRIBUTES*, DWORD disposition, DWORD,
                   HANDLE)
{
    if (name == nullptr) {
        g_lastError = ERROR_PATH_NOT_FOUND;
        return INVALID_HANDLE_VALUE;
    }
    auto& files = Files();
    std::vector<BYTE>* file = nullptr;
    if (disposition == CREATE_ALWAYS) {
        file = &files[Folded(name)];
        file->clear();
    } else {
        auto it = files.find(Folded(name));
        if (it == files.end()) {
            g_lastError = ERROR_FILE_NOT_FOUND;
            return INVALID_HANDLE_VALUE;
        }
        file = &it->second;
    }
    Handle* h = new Handle;
    h->file = file;
    h->writable = (access & GENERIC_WRITE) != 0;
    return h;
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD count, DWORD* pRead, OVERLAPPED*)
{
    Handle* h = AsHandle(file);
    if (pRead != nullptr)
        *pRead = 0;
    if (h == nullptr) {
        g_lastError = ERROR_INVALID_HANDLE;
        return FALSE;
    }
    if (h->line) {
        // The end of a burst reads as one silence, then the next begins.
        if (h->burst < h->bursts.size() && h->position >= h->bursts[h->burst].size()) {
            ++h->burst;
            h->position = 0;
            return TRUE;
        }
        if (h->burst >= h->bursts.size())
            return TRUE;
    }
    const std::vector<BYTE>& bytes = h->line ? h->bursts[h->burst] : *h->file;
    uint64_t n = 0;
    if (h->position < bytes.size())
        n = std::min<uint64_t>(count, bytes.size() - h->position);
    if (n > 0)
        std::memcpy(buffer, bytes.data() + h->position, n);
    h->position += n;
    if (pRead != nullptr)
        *pRead = static_cast<DWORD>(n);
    return TRUE;
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD count, DWORD* pWritten, OVERLAPPED*)
{
    Handle* h = AsHandle(file);
    if (pWritten != nullptr)
        *pWritten = 0;
    if (h == nullptr) {
        g_lastError = ERROR_INVALID_HANDLE;
        return FALSE;
    }
    if (!h->line) {
        if (!h->writable)
            return FALSE;
        std::vector<BYTE>& bytes = *h->file;
        if (bytes.size() < h->position + count)
            bytes.resize(h->position + count);
        if (count > 0)
            std::memcpy(bytes.data() + h->position, buffer, count);
        h->position += count;
    }
    if (pWritten != nullptr)
        *pWritten = count;
    return TRUE;
}

DWORD SetFilePointer(HANDLE file, LONG distance, LONG* pHigh, DWORD method)
{
    LONGLONG move = pHigh != nullptr ? (static_cast<LONGLONG>(*pHigh) << 32) | static_cast<DWORD>(distance)
                                     : distance;
    uint64_t position = 0;
    if (!Seek(AsHandle(file), move, method, &position))
        return INVALID_SET_FILE_POINTER;
    if (pHigh != nullptr)
        *pHigh = static_cast<LONG>(position >> 32);
    return static_cast<DWORD>(position);
}

BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* pNew, DWORD method)
{
    uint64_t position = 0;
    if (!Seek(AsHandle(file), distance.QuadPart, method, &position))
        return FALSE;
    if (pNew != nullptr)
        pNew->QuadPart = static_cast<LONGLONG>(position);
    return TRUE;
}

BOOL SetEndOfFile(HANDLE file)
{
    Handle* h = AsHandle(file);
    if (h == nullptr || h->line || !h->writable)
        return FALSE;
    h->file->resize(h->position);
    return TRUE;
}

BOOL FlushFileBuffers(HANDLE file)
{
    return AsHandle(file) != nullptr;
}

BOOL MoveFileExW(const wchar_t* from, const wchar_t* to, DWORD flags)
{
    auto& files = Files();
    auto it = files.find(Folded(from));
    if (it == files.end() || (!(flags & MOVEFILE_REPLACE_EXISTING) && files.count(Folded(to)))) {
        g_lastError = ERROR_FILE_NOT_FOUND;
        return FALSE;
    }
    std::vector<BYTE> bytes = std::move(it->second);
    files.erase(it);
    files[Folded(to)] = std::move(bytes);
    return TRUE;
}

BOOL DeleteFileW(const wchar_t* name)
{
    return Files().erase(Folded(name)) > 0;
}

BOOL CloseHandle(HANDLE handle)
{
    Handle* h = AsHandle(handle);
    if (h == nullptr)
        return FALSE;
    delete h;
    return TRUE;
}

DWORD GetLastError()
{
    return g_lastError;
}

BOOL GetCommState(HANDLE port, DCB* dcb)
{
    Handle* h = AsHandle(port);
    if (h == nullptr || !h->line)
        return FALSE;
    *dcb = h->dcb;
    return TRUE;
}

BOOL SetCommState(HANDLE port, DCB* dcb)
{
    Handle* h = AsHandle(port);
    if (h == nullptr || !h->line)
        return FALSE;
    h->dcb = *dcb;
    return TRUE;
}

BOOL GetCommTimeouts(HANDLE port, COMMTIMEOUTS* timeouts)
{
    Handle* h = AsHandle(port);
    if (h == nullptr || !h->line)
        return FALSE;
    *timeouts = h->timeouts;
    return TRUE;
}

BOOL SetCommTimeouts(HANDLE port, COMMTIMEOUTS* timeouts)
{
    Handle* h = AsHandle(port);
    if (h == nullptr || !h->line)
        return FALSE;
    h->timeouts = *timeouts;
    return TRUE;
}

DWORD GetTickCount()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<DWORD>(now.tv_sec * 1000 + now.tv_nsec / 1000000);
}

DWORD WaitForSingleObject(HANDLE, DWORD)
{
    return WAIT_TIMEOUT;
}

BOOL SetEvent(HANDLE event)
{
    return event != nullptr;
}

// Windows' rules: years 1601..30827, real dates, hours < 24, minutes and
// seconds < 60, milliseconds < 1000.
BOOL SystemTimeToFileTime(const SYSTEMTIME* st, FILETIME* ft)
{
    static const unsigned kDays[13] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (st->wYear < 1601 || st->wYear > 30827 || st->wMonth < 1 || st->wMonth > 12 || st->wDay < 1 ||
        st->wHour > 23 || st->wMinute > 59 || st->wSecond > 59 || st->wMilliseconds > 999)
        return FALSE;
    const unsigned monthDays = kDays[st->wMonth] + (st->wMonth == 2 && IsLeap(st->wYear) ? 1 : 0);
    if (st->wDay > monthDays)
        return FALSE;
    const int64_t days = DaysFrom1601(st->wYear, st->wMonth, st->wDay);
    const uint64_t ms = ((static_cast<uint64_t>(days) * 24 + st->wHour) * 60 + st->wMinute) * 60000ULL +
                        st->wSecond * 1000ULL + st->wMilliseconds;
    const uint64_t count = ms * 10000ULL;
    ft->dwLowDateTime = static_cast<DWORD>(count);
    ft->dwHighDateTime = static_cast<DWORD>(count >> 32);
    return TRUE;
}

BOOL FileTimeToSystemTime(const FILETIME* ft, SYSTEMTIME* st)
{
    const uint64_t count = (static_cast<uint64_t>(ft->dwHighDateTime) << 32) | ft->dwLowDateTime;
    if (count >= 0x8000000000000000ULL)
        return FALSE;
    const uint64_t ms = count / 10000ULL;
    int64_t days = static_cast<int64_t>(ms / 86400000ULL);
    uint64_t inDay = ms % 86400000ULL;
    st->wDayOfWeek = static_cast<WORD>((days + 1) % 7);  // 1601-01-01 was a Monday
    // Civil date from days since 1970-01-01.
    int64_t z = days - 134774 + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    int64_t y = static_cast<int64_t>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned d = doy - (153 * mp + 2) / 5 + 1;
    const unsigned m = mp < 10 ? mp + 3 : mp - 9;
    y += m <= 2;
    st->wYear = static_cast<WORD>(y);
    st->wMonth = static_cast<WORD>(m);
    st->wDay = static_cast<WORD>(d);
    st->wHour = static_cast<WORD>(inDay / 3600000);
    inDay %= 3600000;
    st->wMinute = static_cast<WORD>(inDay / 60000);
    inDay %= 60000;
    st->wSecond = static_cast<WORD>(inDay / 1000);
    st->wMilliseconds = static_cast<WORD>(inDay % 1000);
    return TRUE;
}

// A fixed local time: the fuzz targets must not depend on the clock.
void GetLocalTime(SYSTEMTIME* st)
{
    *st = SYSTEMTIME{2025, 11, 0, 23, 9, 36, 29, 0};
    FILETIME ft;
    SystemTimeToFileTime(st, &ft);
    FileTimeToSystemTime(&ft, st);
}

int MultiByteToWideChar(UINT, DWORD, const char* in, int inBytes, wchar_t* out, int outChars)
{
    const size_t n = inBytes < 0 ? std::strlen(in) + 1 : static_cast<size_t>(inBytes);
    if (out == nullptr || outChars == 0)
        return static_cast<int>(n);
    if (static_cast<size_t>(outChars) < n)
        return 0;
    for (size_t i = 0; i < n; ++i)
        out[i] = static_cast<wchar_t>(static_cast<unsigned char>(in[i]));
    return static_cast<int>(n);
}

int WideCharToMultiByte(UINT, DWORD, const wchar_t* in, int inChars, char* out, int outBytes, const char*,
                        BOOL* usedDefault)
{
    const size_t n = inChars < 0 ? std::wcslen(in) + 1 : static_cast<size_t>(inChars);
    if (usedDefault != nullptr)
        *usedDefault = FALSE;
    if (out == nullptr || outBytes == 0)
        return static_cast<int>(n);
    if (static_cast<size_t>(outBytes) < n)
        return 0;
    for (size_t i = 0; i < n; ++i)
        out[i] = in[i] <= 0xFF ? static_cast<char>(in[i]) : '?';
    return static_cast<int>(n);
}

int _wcsicmp(const wchar_t* a, const wchar_t* b)
{
    return wcscasecmp(a, b);
}

int _wcsnicmp(const wchar_t* a, const wchar_t* b, size_t count)
{
    return wcsncasecmp(a, b, count);
}
