// CWatch: the link to the wrist-worn recorder (the watch) in the cradle.
//
// The watch talks a prompt-driven text protocol on "COM1:" at 600 baud: wake
// it with carriage returns until it shows ">", type a command whose
// characters it echoes one by one, read the reply up to the next ">". The
// data-block read "***N" answers with 4096 binary bytes at 4800 baud.
//
// Commands take seconds, so they run on a command thread of their own: the
// host thread queues WatchCmdResp records on a CWatchQueue; the thread runs
// each over the line and posts the outcome to the hidden "WatchMessageWin"
// window, whose procedure (host thread) turns it into the script's events
// through the control's watch event sink. The same window pulses the cradle's
// carrier line while the carrier is off, and the GPIO heartbeat hands this
// object the watch-present input (UpdateWatchVisibility).
//
// With no watch in the cradle nothing answers on the line: Open succeeds and
// each command fails to sync (three 2-second tries). On the desktop "COM1:"
// is the Wine prefix's dosdevices link, which scripts/simrun points at the
// bench watch simulator; where the port cannot be opened at all (simrun
// --no-watch), Open fails.
//
// The implementation is in three files: Watch.cpp (open, close, thread,
// window, carrier, visibility), WatchProtocol.cpp (the port; the protocol
// itself is CWatchLine's) and WatchOperations.cpp (parameters, saving, the
// destroy sequence).
#pragma once

#include <windows.h>

#include "control/EventSinks.h"
#include "control/ManagerSite.h"
#include "watch/WatchCmdResp.h"
#include "watch/WatchLine.h"

class CGpioPins;
class CNVRAMBoard;
class CTestManager;
class CWatchQueue;

class CWatch
{
public:
    // Bytes in one data block, and the address units (of 256 bytes) it spans.
    static constexpr DWORD kBlockBytes = CWatchLine::kBlockBytes;
    static constexpr long kBlockAddressStep = 16;

    // The message that carries a response record to the window, and the
    // window timer of the carrier pulse.
    static constexpr UINT kResponseMessage = WM_USER + 1;
    static constexpr UINT_PTR kCarrierTimer = 2;
    static constexpr UINT kCarrierTickMs = 100;

    CWatch(HINSTANCE instance, IManagerSite* site);
    virtual ~CWatch();

    CWatch(const CWatch&) = delete;
    CWatch& operator=(const CWatch&) = delete;

    // Window, ready event, "COM1:" at 600 8N1, watch power on, carrier
    // pulsing, command queue and thread; true once the thread is ready.
    bool Open();
    // Safe to call more than once. Drops a save in progress without an event.
    void Close();

    // Script operations.
    void SetWatchPower(bool on);
    bool WatchSaveStart(const wchar_t* dataName);
    bool WatchSaveCancel();
    bool WatchDataDestroyStart();

    // The GPIO heartbeat's watch-presence step (host thread).
    void UpdateWatchVisibility(bool present);
    void SetWatchCarrier(bool on);

    // Queues a command for the command thread; false if it could not be made
    // or there is no queue (not open).
    bool QueueCmd(short cmdRespID, DWORD size, const void* data);

    // Host-side handling of a response record (the window procedure's work,
    // public so that tests can hand in records of their own). OnWatchResponse
    // and ProcessReadDataBlock take ownership of the record.
    void OnWatchResponse(WatchCmdResp* record);
    void ProcessReadParms(const WatchCmdResp* record);
    void ProcessReadDataBlock(WatchCmdResp* record);
    bool SaveRecordedWatchData();

    // The end-of-save rule and the progress it reports.
    static long BlocksToRead(long samplesRecorded);
    static short SaveProgress(long blockAddress, long blocksToRead);

    // The serial protocol (command thread only, once open).
    bool FlushSerialInput(DWORD limitMs);
    bool SyncWithWatch();
    bool ExecuteWatchCmd(const wchar_t* command, BYTE** ppResponse, DWORD* pSize);
    bool ExecuteWatchDestroySequence();

    // State, for the control's tests and diagnosis.
    bool WatchVisible() const { return m_watchVisible != 0; }
    bool CarrierOn() const { return m_carrierOn; }
    long ParmSamplesRecorded() const { return m_parmSamplesRecorded; }
    long BlockAddress() const { return m_blockAddress; }
    const wchar_t* ParameterText() const { return m_parmText; }
    const wchar_t* SaveFileName() const { return m_saveFileName; }
    HWND Window() const { return m_hWnd; }

    LRESULT WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);

private:
    bool OpenPort();
    static DWORD WINAPI ThreadProc(LPVOID param);
    DWORD Run();
    void RunCommand(const WatchCmdResp* command);
    void SendWatchResponse(short cmdRespID, bool success, DWORD size, const void* data);
    void OnCarrierTick();
    void DropSave();
    IWatchEventSink* Sink();


    HINSTANCE m_hInstance;
    IManagerSite* m_pSite;
    CGpioPins* m_pGpio;
    IWatchEventSink* m_pSink;
    CTestManager* m_pTestManager;
    CNVRAMBoard* m_pNVRAM;
    HWND m_hWnd;

    wchar_t* m_portName;
    CWatchLine m_line;  // holds the port once open
    HANDLE m_hThread;
    DWORD m_threadId;
    volatile LONG m_exitFlag;
    CWatchQueue* m_pCmdQueue;
    HANDLE m_hReady;

    // Visibility and carrier (host thread; the visible flag is read by the
    // command thread before it talks to the watch).
    volatile LONG m_watchVisible;
    DWORD m_visibleSince;  // millisecond clock; 0 when not visible or already acted on
    bool m_carrierOn;
    UINT_PTR m_carrierTimerId;
    short m_carrierTicks;

    // Parameters and saving (host thread).
    wchar_t* m_parmText;           // last "***C" reply, each CR followed by LF; null until read
    long m_parmSamplesRecorded;    // the watch's next log address; -1 until read or when garbled
    long m_blockAddress;           // next block to read; -1 when no save is in progress
    LONG m_cancelFlag;
    wchar_t* m_saveFileName;
    CWatchQueue* m_pBlockQueue;
    LONG m_fixedLogPointer;        // selects the fixed "***H" argument; never set today
};
