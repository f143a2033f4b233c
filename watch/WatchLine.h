// CWatchLine: the watch's prompt-driven serial protocol on an open port.
//
// Wake the watch with carriage returns until it shows ">", send a command
// one character at a time, each echoed before the next goes out, then read
// the reply up to the next ">" (the prompt and the line end before it are not
// part of the reply). "***N" answers with a 4096-byte binary block at 4800
// baud, then the prompt at 600 baud again.
//
// CWatch owns the port and hands it over with Attach; the command thread is
// the only one that talks on it. Its owner's flags are read here: the watch
// must be visible for a command to go out, and the exit flag (with the wake
// event) cuts the settling pause short when the link closes.
#pragma once

#include <windows.h>

class CWatchLine
{
public:
    // Bytes in one data block.
    static constexpr DWORD kBlockBytes = 4096;

    CWatchLine(const volatile LONG* visible, const volatile LONG* exitFlag);

    CWatchLine(const CWatchLine&) = delete;
    CWatchLine& operator=(const CWatchLine&) = delete;

    void Attach(HANDLE port) { m_hPort = port; }
    // The port, no longer used here (the caller closes it).
    HANDLE Detach();
    HANDLE Port() const { return m_hPort; }
    // What the settling pause waits on; null: no pause.
    void SetWakeEvent(HANDLE wake) { m_hWake = wake; }

    // Drains the port until it has been silent for limitMs (1 ms for 0).
    bool FlushSerialInput(DWORD limitMs);
    // Carriage returns until the prompt shows (three tries).
    bool SyncWithWatch();
    // Runs one command; *ppResponse gets a new[] reply of *pSize bytes.
    bool ExecuteWatchCmd(const wchar_t* command, BYTE** ppResponse, DWORD* pSize);

private:
    // One byte from the port under the current time-outs: 1 read, 0 nothing
    // came in time, -1 the read failed.
    int ReadByte(BYTE* c);
    bool WriteByte(BYTE c);
    bool SetBaud(const DCB& saved, DWORD baud);
    bool ExecuteTextCommand(const char* command, BYTE* response, DWORD* pSize);
    bool ExecuteBinaryCommand(const char* command, const DCB& saved, BYTE* response, DWORD* pSize);
    bool SendCommandEchoed(const char* command);
    void PauseUnlessClosing(DWORD ms);

    HANDLE volatile m_hPort;
    const volatile LONG* m_pVisible;
    const volatile LONG* m_pExitFlag;
    HANDLE m_hWake;
};
