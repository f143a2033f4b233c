// CWatch: the port "COM1:", set up by Open on the host thread; after that only
// the command thread touches it, through the line (WatchLine.h). See Watch.h.
#include "watch/Watch.h"

#include <cstring>
#include <cwchar>
#include <new>

#include "diag/Assert.h"
#include "diag/DebugOut.h"

namespace {

const wchar_t kPortName[] = L"COM1:";

constexpr DWORD kTextBaud = 600;

}  // namespace

bool CWatch::OpenPort()
{
    const size_t nameLength = wcslen(kPortName);
    ASSERT(nameLength < 30);
    m_portName = new (std::nothrow) wchar_t[nameLength + 1];
    if (m_portName == nullptr) {
        ASSERT(false);
        return false;
    }
    wcscpy(m_portName, kPortName);

    HANDLE port = CreateFileW(m_portName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (port == INVALID_HANDLE_VALUE) {
        ASSERT(false);
        DebugOut(L"CWatch: CreateFile Failed.\n");
        return false;
    }
    m_line.Attach(port);

    DCB dcb;
    memset(&dcb, 0, sizeof(dcb));
    dcb.DCBlength = sizeof(dcb);
    if (!GetCommState(port, &dcb)) {
        ASSERT(false);
        DebugOut(L"CWatch: GetCommState Failed.\n");
        return false;
    }
    dcb.BaudRate = kTextBaud;
    dcb.ByteSize = 8;
    dcb.Parity = NOPARITY;
    dcb.StopBits = ONESTOPBIT;
    dcb.fBinary = TRUE;
    dcb.fParity = FALSE;
    dcb.fOutxCtsFlow = FALSE;
    dcb.fOutxDsrFlow = FALSE;
    dcb.fDtrControl = DTR_CONTROL_DISABLE;
    dcb.fDsrSensitivity = FALSE;
    dcb.fRtsControl = RTS_CONTROL_ENABLE;
    dcb.fTXContinueOnXoff = TRUE;
    dcb.fOutX = FALSE;
    dcb.fInX = FALSE;
    dcb.fErrorChar = FALSE;
    dcb.fNull = FALSE;
    dcb.fAbortOnError = FALSE;
    dcb.XonLim = 3;
    dcb.XoffLim = 3;
    dcb.XonChar = 0x11;
    dcb.XoffChar = 0x13;
    dcb.ErrorChar = static_cast<char>(0xFF);
    dcb.EofChar = 0x1A;
    dcb.EvtChar = 0x1A;
    if (!SetCommState(port, &dcb)) {
        ASSERT(false);
        DebugOut(L"CWatch: SetCommState failed.\n");
        return false;
    }
    if (!GetCommState(port, &dcb)) {
        ASSERT(false);
        DebugOut(L"CWatch: GetCommState failed.\n");
        return false;
    }

    // A one-byte read gives up after 2 s.
    COMMTIMEOUTS timeouts;
    if (!GetCommTimeouts(port, &timeouts)) {
        ASSERT(false);
        DebugOut(L"CWatch: GetCommTimeouts failed.\n");
        return false;
    }
    timeouts.ReadIntervalTimeout = 5000;
    timeouts.ReadTotalTimeoutMultiplier = 1000;
    timeouts.ReadTotalTimeoutConstant = 1000;
    timeouts.WriteTotalTimeoutMultiplier = 0;
    timeouts.WriteTotalTimeoutConstant = 0;
    if (!SetCommTimeouts(port, &timeouts)) {
        ASSERT(false);
        DebugOut(L"CWatch: SetCommTimeouts failed.\n");
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// The protocol itself is the line's (command thread only).

bool CWatch::FlushSerialInput(DWORD limitMs)
{
    return m_line.FlushSerialInput(limitMs);
}

bool CWatch::SyncWithWatch()
{
    return m_line.SyncWithWatch();
}

bool CWatch::ExecuteWatchCmd(const wchar_t* command, BYTE** ppResponse, DWORD* pSize)
{
    return m_line.ExecuteWatchCmd(command, ppResponse, pSize);
}
