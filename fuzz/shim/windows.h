// The few Win32 types and calls the control's parsers use, for the native
// fuzz build only (fuzz/CMakeLists.txt puts this folder first on the include
// path). Files live in memory (see Win32Shim.h); a serial line is a byte
// string that answers reads until it runs dry, then times out.
//
// wchar_t is 32 bits here, not 16 as on the device: the parsers' text is
// the same characters, only wider.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <cwctype>
#include <cstdio>

using BYTE = uint8_t;
using WORD = uint16_t;
using DWORD = uint32_t;
using LONG = int32_t;
using ULONG = uint32_t;
using BOOL = int;
using UINT = unsigned int;
using SHORT = int16_t;
using LONGLONG = int64_t;
using ULONGLONG = uint64_t;
using UINT_PTR = uintptr_t;
using LONG_PTR = intptr_t;
using HANDLE = void*;
using LPVOID = void*;
using LPCVOID = const void*;
using HRESULT = int32_t;
using WPARAM = uintptr_t;
using LPARAM = intptr_t;
using LRESULT = intptr_t;
struct HWND__;
using HWND = HWND__*;
struct HINSTANCE__;
using HINSTANCE = HINSTANCE__*;

#define TRUE 1
#define FALSE 0
#define WINAPI
#define CALLBACK
#define WM_USER 0x0400
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<intptr_t>(-1)))
#define INVALID_SET_FILE_POINTER (static_cast<DWORD>(-1))

#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define FILE_SHARE_READ 1u
#define CREATE_ALWAYS 2u
#define OPEN_EXISTING 3u
#define FILE_ATTRIBUTE_NORMAL 0x80u
#define FILE_FLAG_RANDOM_ACCESS 0x10000000u
#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u
#define ERROR_FILE_NOT_FOUND 2u
#define ERROR_PATH_NOT_FOUND 3u
#define ERROR_INVALID_HANDLE 6u
#define WAIT_OBJECT_0 0u
#define WAIT_TIMEOUT 258u
#define INFINITE 0xFFFFFFFFu
#define CP_ACP 0u
#define MB_PRECOMPOSED 1u
#define NOPARITY 0
#define ONESTOPBIT 0
#define DTR_CONTROL_DISABLE 0
#define DTR_CONTROL_ENABLE 1
#define RTS_CONTROL_ENABLE 1

typedef union _LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    };
    LONGLONG QuadPart;
} LARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    };
    ULONGLONG QuadPart;
} ULARGE_INTEGER;

struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

struct SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
};

struct DCB {
    DWORD DCBlength;
    DWORD BaudRate;
    DWORD fBinary : 1;
    DWORD fParity : 1;
    DWORD fOutxCtsFlow : 1;
    DWORD fOutxDsrFlow : 1;
    DWORD fDtrControl : 2;
    DWORD fDsrSensitivity : 1;
    DWORD fTXContinueOnXoff : 1;
    DWORD fOutX : 1;
    DWORD fInX : 1;
    DWORD fErrorChar : 1;
    DWORD fNull : 1;
    DWORD fRtsControl : 2;
    DWORD fAbortOnError : 1;
    DWORD fDummy2 : 17;
    WORD wReserved;
    WORD XonLim;
    WORD XoffLim;
    BYTE ByteSize;
    BYTE Parity;
    BYTE StopBits;
    char XonChar;
    char XoffChar;
    char ErrorChar;
    char EofChar;
    char EvtChar;
    WORD wReserved1;
};

struct COMMTIMEOUTS {
    DWORD ReadIntervalTimeout;
    DWORD ReadTotalTimeoutMultiplier;
    DWORD ReadTotalTimeoutConstant;
    DWORD WriteTotalTimeoutMultiplier;
    DWORD WriteTotalTimeoutConstant;
};

struct SECURITY_ATTRIBUTES;
struct OVERLAPPED;

HANDLE CreateFileW(const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                   DWORD disposition, DWORD flags, HANDLE templateFile);
BOOL ReadFile(HANDLE file, void* buffer, DWORD count, DWORD* pRead, OVERLAPPED* overlapped);
BOOL WriteFile(HANDLE file, const void* buffer, DWORD count, DWORD* pWritten, OVERLAPPED* overlapped);
DWORD SetFilePointer(HANDLE file, LONG distance, LONG* pHigh, DWORD method);
BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* pNew, DWORD method);
BOOL SetEndOfFile(HANDLE file);
BOOL FlushFileBuffers(HANDLE file);
#define MOVEFILE_REPLACE_EXISTING 0x1u
#define MOVEFILE_WRITE_THROUGH 0x8u
BOOL MoveFileExW(const wchar_t* from, const wchar_t* to, DWORD flags);
BOOL DeleteFileW(const wchar_t* name);
BOOL CloseHandle(HANDLE handle);
DWORD GetLastError();

BOOL GetCommState(HANDLE port, DCB* dcb);
BOOL SetCommState(HANDLE port, DCB* dcb);
BOOL GetCommTimeouts(HANDLE port, COMMTIMEOUTS* timeouts);
BOOL SetCommTimeouts(HANDLE port, COMMTIMEOUTS* timeouts);

DWORD GetTickCount();
DWORD WaitForSingleObject(HANDLE handle, DWORD ms);
BOOL SetEvent(HANDLE event);

BOOL SystemTimeToFileTime(const SYSTEMTIME* st, FILETIME* ft);
BOOL FileTimeToSystemTime(const FILETIME* ft, SYSTEMTIME* st);
void GetLocalTime(SYSTEMTIME* st);

// CP_ACP is taken as Latin-1: one byte, one character.
int MultiByteToWideChar(UINT codePage, DWORD flags, const char* in, int inBytes, wchar_t* out, int outChars);
int WideCharToMultiByte(UINT codePage, DWORD flags, const wchar_t* in, int inChars, char* out, int outBytes,
                        const char* defaultChar, BOOL* usedDefault);

int _wcsicmp(const wchar_t* a, const wchar_t* b);
int _wcsnicmp(const wchar_t* a, const wchar_t* b, size_t count);

inline LONG InterlockedExchange(volatile LONG* target, LONG value)
{
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}

#define ZeroMemory(p, n) memset((p), 0, (n))
#include <cstring>
