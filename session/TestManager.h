// CTestManager: the user's session schedule, sessions, and the names of the
// files a session produces.
//
// The schedule comes from the provisioning parameters (first session, window
// length, real and practice intervals, makeup days) and from the start time
// of the last session, which the NVRAM keeps across restarts. Times are local
// (read through LocalClockNow), and all arithmetic is on 64-bit FILETIME
// counts of local time, so a session due at 09:00 stays at 09:00 across a
// daylight-saving change.
//
// The manager also owns a hidden message window ("TestManangerMessageWin")
// with a 500 ms timer and a lock for the recording of a running activity;
// the activities themselves are run by the activity half of this class.
#pragma once

#include <windows.h>

#include "control/EventSinks.h"
#include "control/ManagerSite.h"

class CAudio;

class CTestManager
{
public:
    CTestManager(HINSTANCE instance, IManagerSite* site);
    virtual ~CTestManager();

    CTestManager(const CTestManager&) = delete;
    CTestManager& operator=(const CTestManager&) = delete;

    bool Open();
    void Close();
    // Open exactly while the timer runs.
    bool IsOpen() const { return m_timerId != 0; }

    // Always true: the device has its hardware.
    bool HaveHardware() const { return true; }
    bool InPracticeMode();

    // The next (or current) session window and whether now lies inside it.
    bool GetNextSessionBounds(SYSTEMTIME* pStart, SYSTEMTIME* pEnd, bool* pInWindow);
    // count plus days whole days, at the same hour of the day; 0 when the
    // count does not convert.
    static ULONGLONG AddDays(ULONGLONG count, int days);

    bool SessionStart();
    // normal: the end the script asks for; else a cancel.
    bool SessionEnd(bool normal);
    bool InSession() const { return m_inSession; }

    // New[] names of session files, or null.
    wchar_t* MakeTempFilename(const wchar_t* name, const wchar_t* suffix);
    wchar_t* MakePermFilename(const wchar_t* suffix);

    bool SetCurrentFolder(const wchar_t* dir);
    const wchar_t* CurrentFolder() const { return m_currentFolder; }
    // Megabytes free on "\Hard Disk", at most 32767.
    short FreeStoreMB();
    // Megabytes in a byte count, as FreeStoreMB reports them.
    static short MegabytesCapped(ULONGLONG bytes);

    // One packet received from the microcontroller, for the running
    // recording (called on the link's reader thread).
    void RecordHC08Packet(const BYTE* pPack);

    // Deletes every file in "\Device Temp".
    void ClearTempFiles();

    LRESULT WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);

private:
    bool WriteLoginFile();
    bool EnsureFolder(const wchar_t* path);
    wchar_t* DeviceIdText();
    // Packages the session's files for the server at a normal end.
    bool PackageSession();
    void OnTimer();

    HINSTANCE m_hInstance;
    IManagerSite* m_pSite;
    ITestManagerEventSink* m_pSink;
    HWND m_hWnd;
    UINT_PTR m_timerId;

    // Collaborators, taken from the site at Open. Nothing reaches the audio
    // manager through the site, so m_pAudio stays null.
    CHC08* m_pHC08;
    CWatch* m_pWatch;
    CGpioPins* m_pGpio;
    CNVRAMBoard* m_pNVRAM;
    CStoredParams* m_pStoredParams;
    CAudio* m_pAudio;

    bool m_inSession;
    SYSTEMTIME m_sessionStart;
    unsigned m_fileSequence;
    wchar_t* m_currentFolder;

    // The running activity's state; the activity half keeps it.
    bool m_activityRunning;
    wchar_t* m_testName;
    CRITICAL_SECTION m_lock;
};
