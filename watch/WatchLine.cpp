// CWatchLine: the watch's serial protocol on an open port. See WatchLine.h.
#include "watch/WatchLine.h"

#include <cstring>
#include <cwchar>
#include <new>

#include "diag/Assert.h"
#include "diag/DebugOut.h"

namespace {

constexpr DWORD kBinaryBaud = 4800;
constexpr DWORD kSyncFlushMs = 400;
constexpr int kSyncTries = 3;
constexpr int kMaxCommandChars = 100;
constexpr BYTE kPrompt = '>';
constexpr DWORD kTerminatorWaitMs = 5000;

}  // namespace

CWatchLine::CWatchLine(const volatile LONG* visible, const volatile LONG* exitFlag)
    : m_hPort(INVALID_HANDLE_VALUE), m_pVisible(visible), m_pExitFlag(exitFlag), m_hWake(nullptr)
{
}

HANDLE CWatchLine::Detach()
{
    HANDLE port = m_hPort;
    m_hPort = INVALID_HANDLE_VALUE;
    return port;
}

// ---------------------------------------------------------------------------
// Bytes on the line. Close may invalidate the port at any time; every call
// after that fails at once.

int CWatchLine::ReadByte(BYTE* c)
{
    DWORD got = 0;
    if (!ReadFile(m_hPort, c, 1, &got, nullptr))
        return -1;
    return got == 1 ? 1 : 0;
}

bool CWatchLine::WriteByte(BYTE c)
{
    DWORD written = 0;
    return WriteFile(m_hPort, &c, 1, &written, nullptr) && written == 1;
}

bool CWatchLine::SetBaud(const DCB& saved, DWORD baud)
{
    DCB dcb = saved;
    dcb.BaudRate = baud;
    return SetCommState(m_hPort, &dcb) != FALSE;
}

// Gives the watch time to settle. Close cuts the pause short: it sets the
// exit flag and signals the queue's event (the wake event here). A command queued meanwhile also
// signals it; the thread empties the queue after every command, so taking
// that signal here loses nothing.
void CWatchLine::PauseUnlessClosing(DWORD ms)
{
    const DWORD start = GetTickCount();
    while (*m_pExitFlag == 0 && m_hWake != nullptr) {
        const DWORD elapsed = GetTickCount() - start;
        if (elapsed >= ms)
            break;
        WaitForSingleObject(m_hWake, ms - elapsed);
    }
}

bool CWatchLine::FlushSerialInput(DWORD limitMs)
{
    COMMTIMEOUTS saved;
    if (!GetCommTimeouts(m_hPort, &saved)) {
        ASSERT(false);
        DebugOut(L"CWatchLine::FlushSerialInput: GetCommTimeouts failed.\r\n");
        return false;
    }
    COMMTIMEOUTS draining = saved;
    draining.ReadIntervalTimeout = 0;
    draining.ReadTotalTimeoutMultiplier = 0;
    draining.ReadTotalTimeoutConstant = limitMs != 0 ? limitMs : 1;
    if (!SetCommTimeouts(m_hPort, &draining)) {
        ASSERT(false);
        DebugOut(L"watch FlushSerialInput: SetCommTimeouts failed.\r\n");
        return false;
    }

    bool readFailed = false;
    for (;;) {
        BYTE c = 0;
        int got = ReadByte(&c);
        if (got < 0)
            readFailed = true;
        if (got <= 0)
            break;
        DebugOutF(L"ignoring watch char: 0x%02x\r\n", c);
    }

    if (!SetCommTimeouts(m_hPort, &saved)) {
        ASSERT(false);
        DebugOut(L"WatchFlushSerialInput: SetCommTimeouts failed.\r\n");
        return false;
    }
    DebugOut(L"Watch FlushSerialInput: done.\r\n");
    return !readFailed;
}

bool CWatchLine::SyncWithWatch()
{
    if (!FlushSerialInput(kSyncFlushMs)) {
        DebugOut(L"FlushSerialInput failed.\r\n");
        return false;
    }
    for (int attempt = 0; attempt < kSyncTries; ++attempt) {
        DebugOut(L"writing newline\r\n");
        if (!WriteByte('\r')) {
            ASSERT(false);
            DebugOut(L"watch write failed.\r\n");
            return false;
        }
        for (;;) {
            BYTE c = 0;
            int got = ReadByte(&c);
            if (got < 0) {
                DebugOut(L"Read failed.\r\n");
                break;
            }
            if (got == 0) {
                DebugOut(L"Carriage Return didn't produce watch output.\r\n");
                break;
            }
            DebugOutF(L"pre-read '%lc'\r\n", static_cast<wint_t>(c));
            if (c == kPrompt)
                return true;
        }
    }
    DebugOut(L"ERROR: Didn't sync with watch after several tries.\r\n");
    return false;
}

bool CWatchLine::ExecuteWatchCmd(const wchar_t* command, BYTE** ppResponse, DWORD* pSize)
{
    if (pSize == nullptr) {
        ASSERT(false);
        DebugOut(L"ERROR: ExecuteWatchCmd: null pDataSize.\r\n");
        return false;
    }
    if (ppResponse == nullptr || command == nullptr) {
        ASSERT(false);
        DebugOut(L"ERROR: ExecuteWatchCmd: null pData.\r\n");
        return false;
    }
    *ppResponse = nullptr;
    *pSize = 0;
    DebugOut(L"To watch: ");
    DebugOut(command);
    DebugOut(L"\r\n");

    DCB saved;
    memset(&saved, 0, sizeof(saved));
    saved.DCBlength = sizeof(saved);
    if (!GetCommState(m_hPort, &saved)) {
        ASSERT(false);
        DebugOut(L"ExecuteWatchCmd: GetCommState failed.\r\n");
        return false;
    }
    // "***N" is the one command whose reply is a binary block at 4800 baud.
    const bool binary = wcsncmp(command, L"***N", 4) == 0;

    char narrow[kMaxCommandChars + 1];
    if (WideCharToMultiByte(CP_ACP, 0, command, -1, narrow, sizeof(narrow), nullptr, nullptr) == 0) {
        ASSERT(false);
        DebugOut(L"WideCharToMultiByte failed.\r\n");
        return false;
    }

    if (*m_pVisible == 0) {
        ASSERT(false);
        DebugOut(L"ExecuteWatchCmd: watch is not visible - ignoring cmd.\r\n");
        return false;
    }

    BYTE* response = new (std::nothrow) BYTE[kBlockBytes];
    if (response == nullptr) {
        ASSERT(false);
        DebugOut(L"ERROR: ExecuteWatchCmd: out of memory for watch response.\r\n");
        return false;
    }
    if (!SyncWithWatch()) {
        DebugOut(L"ERROR: SyncWithWatch failed.\r\n");
        delete[] response;
        return false;
    }
    DWORD size = 0;
    bool ok = SendCommandEchoed(narrow) &&
              (binary ? ExecuteBinaryCommand(narrow, saved, response, &size)
                      : ExecuteTextCommand(narrow, response, &size));
    if (!ok) {
        delete[] response;
        return false;
    }
    *ppResponse = response;
    *pSize = size;
    return true;
}

bool CWatchLine::SendCommandEchoed(const char* command)
{
    // Each character goes out alone and must come back before the next; no
    // line end follows the command.
    for (const char* p = command; *p != '\0'; ++p) {
        const BYTE wanted = static_cast<BYTE>(*p);
        if (!WriteByte(wanted)) {
            DebugOut(L"write failed.\r\n");
            return false;
        }
        BYTE got = 0;
        int n = ReadByte(&got);
        if (n < 0) {
            DebugOut(L"Read failed.\r\n");
            return false;
        }
        if (n == 0) {
            DebugOut(L"Output produced no watch output.\r\n");
            return false;
        }
        if (got != wanted) {
            DebugOutF(L"Wanted '%lc', got '%lc'.\n", static_cast<wint_t>(wanted), static_cast<wint_t>(got));
            return false;
        }
    }
    return true;
}

bool CWatchLine::ExecuteTextCommand(const char*, BYTE* response, DWORD* pSize)
{
    DWORD count = 0;
    for (;;) {
        BYTE c = 0;
        int n = ReadByte(&c);
        if (n < 0) {
            ASSERT(false);
            DebugOut(L"Read failed.\r\n");
            return false;
        }
        if (n == 0) {
            DebugOut(L"Timeout waiting for end of response.\r\n");
            return false;
        }
        // The reply is bounded by the response buffer.
        if (count >= kBlockBytes) {
            DebugOut(L"ERROR: ExecuteWatchCmd: response too long.\r\n");
            return false;
        }
        response[count++] = c;
        DebugOutF(L"%lc", static_cast<wint_t>(c));
        if (c == kPrompt)
            break;
    }
    DebugOut(L"\r\n");
    // Neither the prompt nor the line end before it belongs to the reply.
    *pSize = count >= 2 ? count - 2 : 0;
    return true;
}

bool CWatchLine::ExecuteBinaryCommand(const char*, const DCB& saved, BYTE* response, DWORD* pSize)
{
    if (!SetBaud(saved, kBinaryBaud)) {
        ASSERT(false);
        DebugOut(L"SetCommState failed.\r\n");
        return false;
    }
    // From here on every way out puts the saved rate back.
    bool ok = true;
    DebugOut(L"4800 baud binary Response:\r\n");
    for (DWORD i = 0; i < kBlockBytes; ++i) {
        int n = ReadByte(&response[i]);
        if (n <= 0) {
            ASSERT(false);
            DebugOut(n < 0 ? L"Read failed.\r\n" : L"Short read.\r\n");
            ok = false;
            break;
        }
    }
    if (ok)
        DebugOut(L"\r\nEnd of 4800-baud Response.\r\n");
    if (!SetCommState(m_hPort, const_cast<DCB*>(&saved))) {
        ASSERT(false);
        DebugOut(L"SetCommState failed.\r\n");
        return false;
    }
    if (!ok)
        return false;

    DebugOut(L"600 baud prompt: ");
    for (;;) {
        BYTE c = 0;
        int n = ReadByte(&c);
        if (n < 0) {
            ASSERT(false);
            DebugOut(L"Read failed.\r\n");
            return false;
        }
        if (n == 0) {
            // The block is all there; a lost prompt is no reason to drop it.
            DebugOut(L"Warning: timeout waiting for data block terminator.\r\n");
            PauseUnlessClosing(kTerminatorWaitMs);
            break;
        }
        DebugOutF(L"read '%lc'\r\n", static_cast<wint_t>(c));
        if (c == kPrompt)
            break;
    }
    *pSize = kBlockBytes;
    return true;
}
