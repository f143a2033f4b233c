// CWatch: opening and closing, the command thread, the message window, the
// carrier and the watch's visibility. See Watch.h.
#include "watch/Watch.h"

#include <objbase.h>
#include <mmsystem.h>

#include <cwchar>
#include <new>

#include "control/MessageWindow.h"
#include "diag/Assert.h"
#include "diag/DebugOut.h"
#include "panel/GpioPins.h"
#include "watch/WatchQueue.h"

namespace {

const wchar_t kClassName[] = L"WatchMessageWin";

constexpr DWORD kReadyWaitMs = 3000;
constexpr DWORD kThreadExitWaitMs = 3000;
// A watch must have been visible this long before its parameters are read.
constexpr DWORD kParmsReadDelayMs = 1001;
// The carrier pulse: ten 100 ms ticks a period, on for the last one.
constexpr short kCarrierPeriodTicks = 10;

}  // namespace

CWatch::CWatch(HINSTANCE instance, IManagerSite* site)
    : m_hInstance(instance),
      m_pSite(site),
      m_pGpio(nullptr),
      m_pSink(nullptr),
      m_pTestManager(nullptr),
      m_pNVRAM(nullptr),
      m_hWnd(nullptr),
      m_portName(nullptr),
      m_line(&m_watchVisible, &m_exitFlag),
      m_hThread(nullptr),
      m_threadId(0),
      m_exitFlag(0),
      m_pCmdQueue(nullptr),
      m_hReady(nullptr),
      m_watchVisible(0),
      m_visibleSince(0),
      m_carrierOn(false),
      m_carrierTimerId(0),
      m_carrierTicks(0),
      m_parmText(nullptr),
      m_parmSamplesRecorded(-1),
      m_blockAddress(-1),
      m_cancelFlag(0),
      m_saveFileName(nullptr),
      m_pBlockQueue(nullptr),
      m_fixedLogPointer(0)
{
    ASSERT(instance != nullptr);
    ASSERT(site != nullptr);
}

CWatch::~CWatch()
{
    Close();
}

IWatchEventSink* CWatch::Sink()
{
    ASSERT(m_pSink != nullptr);
    return m_pSink;
}

// ---------------------------------------------------------------------------
// Opening and closing

bool CWatch::Open()
{
    m_pTestManager = m_pSite->GetTestManager();
    m_pGpio = m_pSite->GetGpio();
    m_pSink = m_pSite->GetWatchEventSink();
    m_pNVRAM = m_pSite->GetNVRAM();
    if (m_line.Port() != INVALID_HANDLE_VALUE)
        return true;

    if (!MessageWindowRegister(m_hInstance, kClassName, MessageWindowProc<CWatch>)) {
        ASSERT(false);
        Close();
        return false;
    }
    m_hWnd = MessageWindowCreate(m_hInstance, kClassName, L"CWatch Messages", this);
    if (m_hWnd == nullptr) {
        ASSERT(false);
        Close();
        return false;
    }

    m_hReady = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (m_hReady == nullptr) {
        ASSERT(false);
        DebugOut(L"CWatch::Open: CreateEvent failed.\r\n");
        Close();
        return false;
    }

    if (!OpenPort()) {
        Close();
        return false;
    }

    InterlockedExchange(&m_watchVisible, 0);
    m_visibleSince = 0;
    if (m_pGpio == nullptr) {
        ASSERT(false);
        Close();
        return false;
    }
    m_pGpio->SetWatchPower(true);
    // Whatever the line was left at, the carrier starts off, that is pulsing:
    // take it as on so that switching it off starts the pulse.
    m_carrierOn = true;
    SetWatchCarrier(false);

    m_pCmdQueue = new (std::nothrow) CWatchQueue();
    if (m_pCmdQueue == nullptr || !m_pCmdQueue->IsValid()) {
        ASSERT(false);
        DebugOut(L"CWatch: new CWatchQueue failed.\r\n");
        Close();
        return false;
    }
    m_line.SetWakeEvent(m_pCmdQueue->Event());
    InterlockedExchange(&m_exitFlag, 0);
    m_hThread = CreateThread(nullptr, 0, ThreadProc, this, 0, &m_threadId);
    if (m_hThread == nullptr) {
        ASSERT(false);
        DebugOut(L"CWatch: CreateThread failed.\r\n");
        Close();
        return false;
    }

    DWORD wait = WaitForSingleObject(m_hReady, kReadyWaitMs);
    if (wait == WAIT_TIMEOUT) {
        ASSERT(false);
        DebugOut(L"Watch thread never signaled ready.\r\n");
        Close();
        return false;
    }
    if (wait != WAIT_OBJECT_0) {
        ASSERT(false);
        DebugOut(L"Watch wait for init failed.\r\n");
        Close();
        return false;
    }
    return true;
}

void CWatch::Close()
{
    if (m_hThread != nullptr) {
        InterlockedExchange(&m_exitFlag, 1);
        if (m_pCmdQueue != nullptr)
            m_pCmdQueue->Signal();
    }
    // A command under way fails at its next read or write on the closed port.
    HANDLE port = m_line.Port();
    if (port != INVALID_HANDLE_VALUE) {
        if (m_pGpio != nullptr)
            m_pGpio->SetWatchPower(false);
        m_line.Detach();
        CloseHandle(port);
    }
    delete[] m_portName;
    m_portName = nullptr;
    if (m_hThread != nullptr) {
        if (WaitForSingleObject(m_hThread, kThreadExitWaitMs) == WAIT_TIMEOUT)
            DebugOut(L"Warning: Watch command thread has not exited.\r\n");
        CloseHandle(m_hThread);
        m_hThread = nullptr;
    }
    m_threadId = 0;
    if (m_hReady != nullptr) {
        CloseHandle(m_hReady);
        m_hReady = nullptr;
    }
    m_line.SetWakeEvent(nullptr);
    delete m_pCmdQueue;
    m_pCmdQueue = nullptr;
    if (m_hWnd != nullptr) {
        SetWindowLongPtrW(m_hWnd, GWLP_USERDATA, 0);
        // Responses still queued for the window are freed here, not lost.
        MSG msg;
        while (PeekMessageW(&msg, m_hWnd, kResponseMessage, kResponseMessage, PM_REMOVE))
            FreeWatchCmdResp(reinterpret_cast<WatchCmdResp*>(msg.lParam));
        MessageWindowDestroy(m_hWnd, m_hInstance, kClassName, L"CWatch: DestroyWindow failed.\r\n");
        m_carrierTimerId = 0;
    }
    delete[] m_parmText;
    m_parmText = nullptr;
    delete[] m_saveFileName;
    m_saveFileName = nullptr;
    m_blockAddress = -1;
    delete m_pBlockQueue;
    m_pBlockQueue = nullptr;
}

bool CWatch::QueueCmd(short cmdRespID, DWORD size, const void* data)
{
    if (m_pCmdQueue == nullptr)
        return false;
    WatchCmdResp* record = MakeWatchCmdResp(cmdRespID, false, size, data);
    if (record == nullptr)
        return false;
    m_pCmdQueue->AddTail(record);
    return true;
}

// ---------------------------------------------------------------------------
// Script operations that only queue or set state

void CWatch::SetWatchPower(bool on)
{
    if (m_pGpio != nullptr)
        m_pGpio->SetWatchPower(on);
}

bool CWatch::WatchDataDestroyStart()
{
    if (!QueueCmd(kWatchCmdDestroy, 0, nullptr)) {
        ASSERT(false);
        DebugOut(L"WatchDataDestroyStart: QueueCmd failed.\r\n");
        return false;
    }
    return true;
}

bool CWatch::WatchSaveCancel()
{
    // The save ends at its next block response.
    if (m_blockAddress >= 0)
        m_cancelFlag = 1;
    return true;
}

// ---------------------------------------------------------------------------
// The command thread

DWORD WINAPI CWatch::ThreadProc(LPVOID param)
{
    return static_cast<CWatch*>(param)->Run();
}

DWORD CWatch::Run()
{
    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
        ASSERT(false);
        DebugOut(L"CWatch::run: CoinitializeEx failed.\n");
        DebugOut(L"CWatch command thread exiting.\r\n");
        return 0;
    }
    if (!SetEvent(m_hReady)) {
        ASSERT(false);
        DebugOut(L"Watch::run: SetEvent failed.\r\n");
        DebugOut(L"CWatch command thread exiting.\r\n");
        CoUninitialize();
        return 0;
    }
    // Close signals the queue after setting the exit flag, so the flag is
    // always seen before the next wait.
    while (m_exitFlag == 0) {
        if (WaitForSingleObject(m_pCmdQueue->Event(), INFINITE) != WAIT_OBJECT_0) {
            ASSERT(false);
            DebugOut(L"CWatch::run: WaitForSingleObject failed.\r\n");
            break;
        }
        while (m_exitFlag == 0) {
            WatchCmdResp* command = m_pCmdQueue->RemoveHead();
            if (command == nullptr)
                break;
            RunCommand(command);
            FreeWatchCmdResp(command);
        }
    }
    DebugOut(L"CWatch command thread exiting.\r\n");
    CoUninitialize();
    return 0;
}

void CWatch::RunCommand(const WatchCmdResp* command)
{
    BYTE* response = nullptr;
    DWORD size = 0;
    bool ok = false;
    switch (command->cmdRespID) {
    case kWatchCmdReadParms:
        ok = ExecuteWatchCmd(L"***C", &response, &size);
        SendWatchResponse(kWatchRespParmsRead, ok, size, response);
        break;
    case kWatchCmdReadBlock: {
        DWORD address = 0;
        if (command->size >= sizeof(address))
            memcpy(&address, command->Data(), sizeof(address));
        wchar_t text[32];
        swprintf(text, 32, L"%ls%04lx", L"***N", static_cast<unsigned long>(address));
        ok = ExecuteWatchCmd(text, &response, &size);
        SendWatchResponse(kWatchRespBlockRead, ok, size, response);
        break;
    }
    case kWatchCmdDestroy:
        ok = ExecuteWatchDestroySequence();
        SendWatchResponse(kWatchRespDestroyEnded, ok, 0, nullptr);
        break;
    default:
        ASSERT(false);
        DebugOut(L"Watch::Run(): unknown high-level command.\r\n");
        break;
    }
    delete[] response;
}

void CWatch::SendWatchResponse(short cmdRespID, bool success, DWORD size, const void* data)
{
    // A failed command carries no data.
    WatchCmdResp* record = success ? MakeWatchCmdResp(cmdRespID, true, size, data)
                                   : MakeWatchCmdResp(cmdRespID, false, 0, nullptr);
    if (record == nullptr) {
        ASSERT(false);
        DebugOut(L"SendWatchResponse: MakeWatchCmdResp failed.\r\n");
        return;
    }
    if (!PostMessageW(m_hWnd, kResponseMessage, 0, reinterpret_cast<LPARAM>(record))) {
        ASSERT(false);
        DebugOut(L"SendWatchResponse: PostMessage failed.\n");
        FreeWatchCmdResp(record);
    }
}

// ---------------------------------------------------------------------------
// The window (host thread)

LRESULT CWatch::WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == WM_TIMER && wParam == kCarrierTimer) {
        OnCarrierTick();
        return 0;
    }
    if (msg != kResponseMessage)
        return MessageWindowDefault(hwnd, msg, wParam, lParam, L"Watch");
    WatchCmdResp* record = reinterpret_cast<WatchCmdResp*>(lParam);
    if (record == nullptr) {
        ASSERT(false);
        DebugOut(L"ERROR: CWatch::WndProcMethod: received a null WatchCmdResp pointer.\r\n");
        return 0;
    }
    OnWatchResponse(record);
    return 0;
}

void CWatch::OnWatchResponse(WatchCmdResp* record)
{
    if (record == nullptr) {
        ASSERT(false);
        DebugOut(L"ERROR: OnWatchResponse: null parameter.\r\n");
        return;
    }
    switch (record->cmdRespID) {
    case kWatchRespParmsRead:
        ProcessReadParms(record);
        break;
    case kWatchRespBlockRead:
        ProcessReadDataBlock(record);  // keeps the block
        return;
    case kWatchRespDestroyEnded:
        // A re-armed watch is looked for afresh: the carrier goes back to
        // pulsing, so the watch is seen to go and come back and its new
        // parameters are read.
        if (record->success)
            SetWatchCarrier(false);
        if (IWatchEventSink* sink = Sink())
            sink->WatchDataDestroyEnded(record->success ? 0 : 102);
        break;
    default:
        ASSERT(false);
        DebugOut(L"ERROR: OnWatchResponse: unknown cmdRespID.\r\n");
        break;
    }
    FreeWatchCmdResp(record);
}

// ---------------------------------------------------------------------------
// The carrier and the watch's visibility (host thread)
//
// A watch in the cradle shows itself on the presence input only while the
// carrier reaches it, and it is talked to only while the carrier is on. While
// no watch is seen the carrier is off, that is pulsing: on for 100 ms in every
// second. The watch answers each pulse by holding its presence output high
// for 1.5 s, so the 200 ms heartbeat always sees it, although the pulse
// itself is high for only half a heartbeat. How a seated watch is found and
// lost (nothing else in the device switches the carrier on):
//  - presence high while the carrier is off: the carrier goes on for good;
//    the next update, with the carrier on, makes the watch visible
//    (WatchVisible(1)), and its parameters are read once, about a second
//    later;
//  - presence low while the watch is visible (it was taken out): the watch
//    is no longer visible (WatchVisible(0)) and the carrier goes back to
//    pulsing, so that the next watch seated is found.

void CWatch::SetWatchCarrier(bool on)
{
    if (on == m_carrierOn)
        return;
    m_carrierOn = on;
    if (m_pGpio != nullptr)
        m_pGpio->SetWatchCarrier(on);
    if (!on) {
        m_carrierTicks = 0;
        m_carrierTimerId = SetTimer(m_hWnd, kCarrierTimer, kCarrierTickMs, nullptr);
        if (m_carrierTimerId == 0) {
            ASSERT(false);
            DebugOut(L"ERROR: SetWatchCarrier: failed to set timer.\r\n");
        }
    } else {
        KillTimer(m_hWnd, kCarrierTimer);
        m_carrierTimerId = 0;
    }
}

void CWatch::OnCarrierTick()
{
    if (++m_carrierTicks >= kCarrierPeriodTicks)
        m_carrierTicks = 0;
    if (m_pGpio != nullptr)
        m_pGpio->SetWatchCarrier(m_carrierTicks == kCarrierPeriodTicks - 1);
}

void CWatch::UpdateWatchVisibility(bool present)
{
    const bool wasVisible = m_watchVisible != 0;
    const bool visible = m_carrierOn && present;
    DWORD now = timeGetTime();
    if (now == 0)
        now = 1;  // 0 stands for "not visible"

    if (wasVisible && visible && m_visibleSince != 0 && now - m_visibleSince >= kParmsReadDelayMs) {
        m_visibleSince = 0;
        if (!QueueCmd(kWatchCmdReadParms, 0, nullptr)) {
            ASSERT(false);
            DebugOut(L"ERROR: Watch QueueCmd failed.\r\n");
        }
    }
    if (visible != wasVisible) {
        InterlockedExchange(&m_watchVisible, visible ? 1 : 0);
        m_visibleSince = visible ? now : 0;
        if (IWatchEventSink* sink = Sink())
            sink->WatchVisible(visible);
    }

    if (!m_carrierOn && present)
        SetWatchCarrier(true);  // found: visible at the next update
    else if (m_carrierOn && !present)
        SetWatchCarrier(false);  // taken out (or gone before it was seen): look again
}
