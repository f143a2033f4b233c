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
// Within a session the script runs tests one at a time: a test is configured
// (SetTestConfig), then run as an activity (ActivityStart .. ActivityEnd).
// Tests 1 to 6 are sensor tests: every microcontroller packet that arrives
// while one runs is recorded and saved to its ".motr" file at the end.
// Test 7 is the questionnaire: its answers are saved as a small text file.
// The hidden message window ("TestManangerMessageWin") ticks every 500 ms to
// end an activity whose time is up; m_lock guards the recording, which the
// microcontroller link's reader thread appends to.
#pragma once

#include <windows.h>

#include "control/EventSinks.h"
#include "control/ManagerSite.h"
#include "session/FileEncryption.h"

class CAudio;
class CHC08PackList;
class CQuestions;

// End causes of SessionEnded and ActivityEnded.
constexpr short kEndCompleted = 0;
constexpr short kEndTimedOut = 1;
constexpr short kEndFailed = 102;
constexpr short kEndCancelled = 103;

// Tests 1..6 record the sensors; 7 is the questionnaire.
constexpr int kFirstSensorTest = 1;
constexpr int kLastSensorTest = 6;
constexpr int kQuestionnaireTest = 7;
constexpr int kMaxTestSeconds = 1200;
constexpr size_t kMaxTestNameLength = 10;

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
    // A file name resolved as folders are: one that begins with "\" as it
    // is, any other under the current folder. New[], or null.
    wchar_t* MakeFullPath(const wchar_t* name) const;
    const wchar_t* CurrentFolder() const { return m_currentFolder; }
    // Megabytes free on "\Hard Disk", at most 32767.
    short FreeStoreMB();
    // Megabytes in a byte count, as FreeStoreMB reports them.
    static short MegabytesCapped(ULONGLONG bytes);

    // Session-end packaging (TestManagerPackaging.cpp).
    // Packs every file in "\Device Temp" into destZip with the compression
    // library; *pNoDll is set when the library is not on the device.
    bool CompressTempFiles(const wchar_t* destZip, bool* pNoDll);
    // Copies every file in "\Device Temp" into the permanent folder as it is.
    bool CopyTempFiles();
    // Encrypts and signs fromFile into toFile for the server. False only for
    // a null name: a failed encryption is reported and still returns true.
    bool EncryptFile(const wchar_t* fromFile, const wchar_t* toFile);
    // Goes through "\Device Temp", deleting every file when deleteThem.
    bool ClearTempFiles(bool deleteThem);

    // Activities.
    bool SetTestConfig(int testID, const wchar_t* testName, int maxDurationSecs, int uiTimeout);
    bool ActivityStart(bool goArg);
    // normal: the script ended it; else a cancel.
    bool ActivityEnd(bool normal);
    bool ActivityBeep();
    bool ActivityRunning() const { return m_activityRunning; }
    int CurrentTestID() const { return m_curTestID; }
    const wchar_t* TestName() const { return m_testName; }

    // One packet as received from the microcontroller, for the running
    // recording. Called on the link's reader thread.
    void RecordHC08Packet(const BYTE* pPacket);
    bool RecordQuestionResponse(const wchar_t* questionID, const wchar_t* responseID);

    // Seeds pList (taken over) with the reset note and a pegs map at tick 0
    // and makes it the running activity's recording. ActivityStart does this
    // with what the microcontroller link holds.
    void StartRecording(CHC08PackList* pList, const BYTE* pResetPacket, WORD pegsInLeft, WORD pegsInRight);

    // Writes pList to fname as a ".motr" file.
    static bool SaveHC08PackList(CHC08PackList* pList, const wchar_t* fname);

    // The 500 ms check: whether a deadline on the millisecond tick has come,
    // across the tick's 49.7-day wrap.
    static bool DeadlinePassed(DWORD now, DWORD deadline);

    LRESULT WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);

private:
    bool WriteLoginFile();
    bool EnsureFolder(const wchar_t* path);
    wchar_t* DeviceIdText();
    // Packages the session's files for the server at a normal end.
    bool PackageSession();
    void OnTimer();
    bool InitHC08PacketList();
    // Takes the recording out of the manager (under the lock).
    CHC08PackList* TakePacketList();
    void SetRunning(bool running);

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

    // The activity: running, its deadline on the ms tick (0 = none), and
    // the configured test.
    bool m_activityRunning;
    DWORD m_deadline;
    int m_curTestID;
    wchar_t* m_testName;
    int m_maxDurationSecs;
    int m_uiTimeout;  // kept for the script host
    // The running sensor test's packets; guarded by m_lock, which the reader
    // thread takes to append.
    CHC08PackList* m_pPackList;
    CQuestions* m_pQuestions;
    CRITICAL_SECTION m_lock;
};
