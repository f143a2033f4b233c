// CHC08: the serial link to the sensor microcontroller. See HC08.h.
#include "mcu/HC08.h"

#include <objbase.h>

#include <cstring>
#include <cwchar>
#include <new>

#include "control/MessageWindow.h"
#include "diag/Assert.h"
#include "diag/DebugOut.h"
#include "mcu/HC08Framer.h"
#include "mcu/HC08Pack.h"
#include "panel/GpioPins.h"
#include "session/TestManager.h"

namespace {

const wchar_t kClassName[] = L"HC08MessageWin";
const wchar_t kPortName[] = L"COM2:";

constexpr DWORD kTickMask = 0x00FFFFFF;  // the microcontroller counts 24 bits
constexpr DWORD kTicksPerRollover = 0x01000000;
constexpr DWORD kReadyWaitMs = 8000;
constexpr DWORD kReaderExitWaitMs = 1000;

}  // namespace

CHC08::CHC08(HINSTANCE instance, IManagerSite* site)
    : m_hInstance(instance),
      m_pSite(site),
      m_pTestManager(nullptr),
      m_pGpio(nullptr),
      m_pSink(nullptr),
      m_hWnd(nullptr),
      m_portName(nullptr),
      m_digitoGate(0),
      m_hPort(INVALID_HANDLE_VALUE),
      m_hThread(nullptr),
      m_threadId(0),
      m_wantReset(0),
      m_pResetPacket(nullptr),
      m_hReady(nullptr),
      m_rollovers(0),
      m_ticksAtGo(0),
      m_simTickBase(0),
      m_pegsInLeft(0),
      m_pegsInRight(0),
      m_lockInitialised(false),
      m_noiseOn(0)
{
    ASSERT(instance != nullptr);
    ASSERT(site != nullptr);
    InitializeCriticalSection(&m_portLock);
    m_lockInitialised = true;
}

CHC08::~CHC08()
{
    Close();
}

// ---------------------------------------------------------------------------
// Opening and closing

bool CHC08::Open()
{
    m_pTestManager = m_pSite->GetTestManager();
    m_pGpio = m_pSite->GetGpio();
    m_pSink = m_pSite->GetHC08EventSink();
    if (m_hPort != INVALID_HANDLE_VALUE)
        return true;
    if (!m_lockInitialised) {
        InitializeCriticalSection(&m_portLock);
        m_lockInitialised = true;
    }

    if (!MessageWindowRegister(m_hInstance, kClassName, MessageWindowProc<CHC08>)) {
        ASSERT(false);
        Close();
        return false;
    }
    m_hWnd = MessageWindowCreate(m_hInstance, kClassName, L"HC08 Messages", this);
    if (m_hWnd == nullptr) {
        ASSERT(false);
        Close();
        return false;
    }

    m_hReady = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (m_hReady == nullptr) {
        ASSERT(false);
        DebugOut(L"CHC08::Open: CreateEvent failed.\r\n");
        Close();
        return false;
    }

    size_t nameLength = wcslen(kPortName);
    ASSERT(nameLength < 30);
    m_portName = new (std::nothrow) wchar_t[nameLength + 1];
    if (m_portName == nullptr) {
        ASSERT(false);
        Close();
        return false;
    }
    wcscpy(m_portName, kPortName);

    m_hPort = CreateFileW(m_portName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (m_hPort == INVALID_HANDLE_VALUE) {
        ASSERT(false);
        Close();
        return false;
    }
    if (!SetupComm(m_hPort, 100, 100)) {
        ASSERT(false);
        Close();
        return false;
    }

    DCB dcb;
    memset(&dcb, 0, sizeof(dcb));
    dcb.DCBlength = sizeof(dcb);
    if (!GetCommState(m_hPort, &dcb) || dcb.DCBlength < 28) {
        ASSERT(false);
        Close();
        return false;
    }
    dcb.BaudRate = CBR_115200;
    dcb.ByteSize = 8;
    dcb.Parity = NOPARITY;
    dcb.StopBits = ONESTOPBIT;
    dcb.fBinary = TRUE;
    dcb.fParity = FALSE;
    dcb.fOutxCtsFlow = FALSE;
    dcb.fOutxDsrFlow = FALSE;
    dcb.fDtrControl = DTR_CONTROL_ENABLE;
    dcb.fDsrSensitivity = FALSE;
    dcb.fTXContinueOnXoff = TRUE;
    dcb.fOutX = FALSE;
    dcb.fInX = FALSE;
    dcb.fErrorChar = TRUE;  // the error character itself stays as the driver has it
    dcb.fNull = FALSE;
    dcb.fRtsControl = RTS_CONTROL_ENABLE;
    dcb.fAbortOnError = FALSE;
    dcb.XonLim = 500;
    dcb.XoffLim = 0;
    if (!SetCommState(m_hPort, &dcb) || !GetCommState(m_hPort, &dcb)) {
        ASSERT(false);
        Close();
        return false;
    }

    // A read returns whatever is there after at most 1 ms.
    COMMTIMEOUTS timeouts;
    timeouts.ReadIntervalTimeout = 0;
    timeouts.ReadTotalTimeoutMultiplier = 0;
    timeouts.ReadTotalTimeoutConstant = 1;
    timeouts.WriteTotalTimeoutMultiplier = 0;
    timeouts.WriteTotalTimeoutConstant = 0;
    if (!SetCommTimeouts(m_hPort, &timeouts)) {
        ASSERT(false);
        Close();
        return false;
    }
    COMMPROP properties;
    GetCommProperties(m_hPort, &properties);

    FlushSerialInput(0);

    // Restart the microcontroller: it answers with its reset note.
    if (m_pGpio == nullptr) {
        ASSERT(false);
        Close();
        return false;
    }
    m_pGpio->ResetHC08();

    if (m_pSink == nullptr) {
        ASSERT(false);
        Close();
        return false;
    }
    m_pSink->Attach(this);

    m_hThread = CreateThread(nullptr, 0, ThreadProc, this, 0, &m_threadId);
    if (m_hThread == nullptr) {
        ASSERT(false);
        Close();
        return false;
    }

    DWORD wait = WaitForSingleObject(m_hReady, kReadyWaitMs);
    if (wait == WAIT_TIMEOUT) {
        ASSERT(false);
        DebugOut(L"HC08 thread never signaled ready.\r\n");
        Close();
        return false;
    }
    if (wait != WAIT_OBJECT_0) {
        ASSERT(false);
        DebugOut(L"HC08 wait for init failed.\r\n");
        Close();
        return false;
    }
    return true;
}

void CHC08::Close()
{
    // Closing the port makes the reader's port-event wait fail, which ends it.
    HANDLE port = m_hPort;
    m_hPort = INVALID_HANDLE_VALUE;
    if (port != INVALID_HANDLE_VALUE)
        CloseHandle(port);
    delete[] m_portName;
    m_portName = nullptr;
    m_threadId = 0;
    bool readerGone = true;
    if (m_hThread != nullptr) {
        if (WaitForSingleObject(m_hThread, kReaderExitWaitMs) == WAIT_TIMEOUT) {
            DebugOut(L"Warning: HC08 reader thread has not exited.\r\n");
            readerGone = false;
        }
        CloseHandle(m_hThread);
        m_hThread = nullptr;
    }
    if (m_hReady != nullptr) {
        CloseHandle(m_hReady);
        m_hReady = nullptr;
    }
    // A reader that is still running may yet take the lock: leave it be.
    if (m_lockInitialised && readerGone) {
        DeleteCriticalSection(&m_portLock);
        m_lockInitialised = false;
    }
    if (m_hWnd != nullptr) {
        SetWindowLongPtrW(m_hWnd, GWLP_USERDATA, 0);
        // Packet copies still queued for the window are freed here, not lost.
        MSG msg;
        while (PeekMessageW(&msg, m_hWnd, kPacketMessage, kPacketMessage, PM_REMOVE))
            CoTaskMemFree(reinterpret_cast<void*>(msg.lParam));
        MessageWindowDestroy(m_hWnd, m_hInstance, kClassName, L"CHC08: DestroyWindow failed.\r\n");
    }
    delete[] m_pResetPacket;
    m_pResetPacket = nullptr;
}

// ---------------------------------------------------------------------------
// Host-side operations

bool CHC08::SetNoiseOn(bool on)
{
    InterlockedExchange(&m_noiseOn, on ? 1 : 0);
    BYTE command[kNoiseCommandSize];
    CHC08Pack::BuildNoiseCommand(on, command);

    // After a failed Open the lock is gone with the port; the write then
    // simply fails on the closed handle.
    const bool locked = m_lockInitialised;
    DWORD written = 0;
    if (locked)
        EnterCriticalSection(&m_portLock);
    BOOL ok = WriteFile(m_hPort, command, kNoiseCommandSize, &written, nullptr);
    if (locked)
        LeaveCriticalSection(&m_portLock);
    if (!ok) {
        DebugOut(L"SendCmdNoise: WriteFile failed.\r\n");
        return false;
    }
    if (written != kNoiseCommandSize) {
        DebugOut(L"SendCmdNoise: short write.\r\n");
        return false;
    }
    return true;
}

bool CHC08::GetPegsMap(WORD* pLeft, WORD* pRight)
{
    if (pLeft == nullptr || pRight == nullptr) {
        DebugOut(L"GetPegsMap: null pointer passed.\r\n");
        return false;
    }
    *pLeft = m_pegsInLeft;
    *pRight = m_pegsInRight;
    return true;
}

bool CHC08::FlushSerialInput(DWORD timeoutMs)
{
    COMMTIMEOUTS saved;
    if (!GetCommTimeouts(m_hPort, &saved)) {
        ASSERT(false);
        DebugOut(L"FlushSerialInput: GetCommTimeouts failed.\r\n");
        return false;
    }
    COMMTIMEOUTS draining = saved;
    draining.ReadIntervalTimeout = 0;
    draining.ReadTotalTimeoutMultiplier = 0;
    draining.ReadTotalTimeoutConstant = timeoutMs != 0 ? timeoutMs : 1;
    if (!SetCommTimeouts(m_hPort, &draining)) {
        ASSERT(false);
        DebugOut(L"FlushSerialInput: SetCommTimeouts failed.\r\n");
        return false;
    }

    // The drain is silent: the discarded bytes are formatted for a debugger
    // and never written out.
    bool readFailed = false;
    for (;;) {
        BYTE c = 0;
        DWORD got = 0;
        EnterCriticalSection(&m_portLock);
        BOOL ok = ReadFile(m_hPort, &c, 1, &got, nullptr);
        LeaveCriticalSection(&m_portLock);
        if (!ok) {
            readFailed = true;
            break;
        }
        if (got == 0)
            break;
        wchar_t ignored[64];
        swprintf(ignored, 64, L"ignoring HC08 char: 0x%02x\r\n", c);
    }

    if (!SetCommTimeouts(m_hPort, &saved)) {
        ASSERT(false);
        DebugOut(L"FlushSerialInput: SetCommTimeouts failed.\r\n");
        return false;
    }
    return !readFailed;
}

// ---------------------------------------------------------------------------
// The reader thread

DWORD WINAPI CHC08::ThreadProc(LPVOID param)
{
    return static_cast<CHC08*>(param)->Run();
}

DWORD CHC08::Run()
{
    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
        ASSERT(false);
        DebugOut(L"HC08::run: CoinitializeEx failed.\n");
        DebugOut(L"HC08 reader thread Exiting.\r\n");
        return 0;
    }
    InterlockedExchange(&m_wantReset, 1);
    if (!SetCommMask(m_hPort, EV_RXCHAR)) {
        DebugOut(L"HC08::run: SetCommMask failed.\r\n");
        DebugOut(L"HC08 reader thread Exiting.\r\n");
        CoUninitialize();
        return 0;
    }

    CHC08Framer framer(this);
    for (;;) {
        DWORD got = 0;
        EnterCriticalSection(&m_portLock);
        BOOL ok = ReadFile(m_hPort, framer.FreeSpace(), framer.FreeBytes(), &got, nullptr);
        LeaveCriticalSection(&m_portLock);
        if (!ok)
            got = 0;
        if (got == 0) {
            DWORD event = 0;
            if (!WaitCommEvent(m_hPort, &event, nullptr)) {
                DebugOut(L"HC08::run: WaitCommEvent failed.\r\n");
                break;
            }
            if ((event & EV_RXCHAR) == 0)
                DebugOut(L"HC08::run: WaitCommEvent awoke prematurely.\r\n");
            continue;
        }
        framer.Commit(static_cast<int>(got));
    }
    DebugOut(L"HC08 reader thread Exiting.\r\n");
    CoUninitialize();
    return 0;
}

void CHC08::OnPacket(const BYTE* pPack, int size)
{
    ProcessPacket(pPack, size);
}

void CHC08::OnOutOfStep()
{
    FlushSerialInput(200);
}

void CHC08::ProcessPacket(const BYTE* pPack, int size)
{
    ASSERT(m_pTestManager != nullptr);
    // Damaged packets are recorded too: the recording is the raw line.
    if (m_pTestManager != nullptr && m_pTestManager->InSession())
        m_pTestManager->RecordHC08Packet(pPack);

    BYTE expected = CHC08Pack::CalcChecksum(pPack);
    BYTE received = pPack[size - 1];
    if (received != expected) {
        DebugOutF(L"HC08 packet checksum failed: expected 0x%02x, got 0x%02x\r\n", expected, received);
        return;
    }

    BYTE msgClass = pPack[0];
    if (msgClass == CLASS_DEVICE_EVENT && size > 5 && IsDigitoCode(pPack[5]) && m_digitoGate == 0)
        return;
    if (msgClass < CLASS_DEVICE_EVENT || msgClass > CLASS_SYSTEM_ERROR)
        DebugOut(L"Warning: Unknown HC08 message class.\n");

    if (m_wantReset != 0 && msgClass == CLASS_SYSTEM_NOTE && size > 5 && pPack[5] == NOTE_RESET) {
        InterlockedExchange(&m_wantReset, 0);
        BYTE* copy = new (std::nothrow) BYTE[size];
        if (copy == nullptr) {
            ASSERT(false);
            DebugOut(L"HC08: Out of memory to copy reset packet.\r\n");
        } else {
            memcpy(copy, pPack, size);
            m_pResetPacket = copy;
        }
        if (!SetEvent(m_hReady)) {
            ASSERT(false);
            DebugOut(L"HC08::run: SetEvent failed.\r\n");
            return;
        }
    }
    SendCopyOfPacket(pPack, size);
}

bool CHC08::SendCopyOfPacket(const BYTE* pPack, int size)
{
    BYTE* copy = static_cast<BYTE*>(CoTaskMemAlloc(size));
    if (copy == nullptr) {
        ASSERT(false);
        DebugOut(L"HC08::ClonePacket: CoTaskMemAlloc() failed.\n");
        return false;
    }
    memcpy(copy, pPack, size);
    // No window after a failed or closed Open: a post to no window would go
    // to the thread's queue, where nothing frees the copy.
    if (m_hWnd == nullptr || !PostMessageW(m_hWnd, kPacketMessage, 0, reinterpret_cast<LPARAM>(copy))) {
        ASSERT(false);
        DebugOut(L"CHC08::SendCopyOfPacket: PostMessage failed.\n");
        CoTaskMemFree(copy);
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// The window and the dispatch (host thread)

LRESULT CHC08::WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg != kPacketMessage)
        return MessageWindowDefault(hwnd, msg, wParam, lParam, L"HC08");
    BYTE* pPack = reinterpret_cast<BYTE*>(lParam);
    if (pPack == nullptr) {
        ASSERT(false);
        DebugOut(L"CHC08::WndProcMethod: received a null packet pointer.\n");
        return 0;
    }
    DispatchPacket(pPack);
    CoTaskMemFree(pPack);
    return 0;
}

void CHC08::DispatchPacket(const BYTE* pPack)
{
    DWORD ticksSinceGo = ((CHC08Pack::GetTicks(pPack) - m_ticksAtGo) & kTickMask) + m_rollovers * kTicksPerRollover;
    int payload = CHC08Pack::GetPayloadSize(pPack);
    switch (pPack[0]) {
    case CLASS_DEVICE_EVENT:
        DispatchDeviceEvent(pPack, payload, ticksSinceGo);
        break;
    case CLASS_SYSTEM_NOTE:
        DispatchSystemNote(pPack, payload);
        break;
    case CLASS_SYSTEM_ERROR:
        DispatchSystemError(pPack, payload);
        break;
    default:
        DebugOutF(L"Unknown msgClass: %0x02x ignored.\n", pPack[0]);
        break;
    }
}

void CHC08::DispatchDeviceEvent(const BYTE* pPack, int payload, DWORD ticksSinceGo)
{
    ASSERT(m_pSink != nullptr);
    if (m_pSink == nullptr)
        return;
    if (payload < 1) {
        ASSERT(false);
        DebugOut(L"CLASS_DEVICE_EVENT payload too small\n");
        return;
    }
    const long since = static_cast<long>(ticksSinceGo);
    BYTE code = pPack[5];
    switch (code) {
    case EVT_TIMER_GO:
        m_rollovers = 0;
        m_ticksAtGo = CHC08Pack::GetTicks(pPack);
        m_pSink->TimerGo(static_cast<long>(m_ticksAtGo));
        return;
    case EVT_TIMER_ROLLOVER:
        ++m_rollovers;
        m_pSink->TimerRollover();
        return;
    case EVT_DIGITO_LEFT_DOWNWARD:
    case EVT_DIGITO_LEFT_UPWARD:
    case EVT_DIGITO_RIGHT_DOWNWARD:
    case EVT_DIGITO_RIGHT_UPWARD: {
        if (payload != 3 && payload != 1) {
            ASSERT(false);
            DebugOut(L"EVT_DIGITO_* payload too small\n");
            return;
        }
        long delta = payload == 3 ? static_cast<long>(CHC08Pack::GetDeltaTicks(pPack)) : 0;
        if (code == EVT_DIGITO_LEFT_DOWNWARD)
            m_pSink->DigitoLeftDownward(since, delta);
        else if (code == EVT_DIGITO_LEFT_UPWARD)
            m_pSink->DigitoLeftUpward(since, delta);
        else if (code == EVT_DIGITO_RIGHT_DOWNWARD)
            m_pSink->DigitoRightDownward(since, delta);
        else
            m_pSink->DigitoRightUpward(since, delta);
        return;
    }
    case EVT_CAPSIT_LEFT_DOWN:
        m_pSink->CapsitLeftDown(since);
        return;
    case EVT_CAPSIT_LEFT_UP:
        m_pSink->CapsitLeftUp(since);
        return;
    case EVT_CAPSIT_RIGHT_DOWN:
        m_pSink->CapsitRightDown(since);
        return;
    case EVT_CAPSIT_RIGHT_UP:
        m_pSink->CapsitRightUp(since);
        return;
    case EVT_PEGS_MAP:
        if (payload < 3) {
            ASSERT(false);
            DebugOut(L"EVT_PEGS_MAP payload too small\n");
            return;
        }
        m_pegsInLeft = CHC08Pack::GetPegsInLeft(pPack);
        m_pegsInRight = CHC08Pack::GetPegsInRight(pPack);
        m_pSink->PegsMap(since, static_cast<short>(m_pegsInLeft), static_cast<short>(m_pegsInRight));
        return;
    default:
        DebugOutF(L"Unknown device event: %0x02x ignored.\n", code);
        return;
    }
}

void CHC08::DispatchSystemNote(const BYTE* pPack, int payload)
{
    if (payload < 1) {
        ASSERT(false);
        DebugOut(L"CLASS_SYSTEM_NOTE payload too small\n");
        return;
    }
    switch (pPack[5]) {
    case NOTE_RESET:
        if (payload < 9) {
            ASSERT(false);
            DebugOut(L"NOTE_RESET payload too small\r\n");
            return;
        }
        ASSERT(m_pSink != nullptr);
        if (m_pSink != nullptr)
            m_pSink->HC08Reset(pPack[6], pPack[7], pPack[8], static_cast<long>(CHC08Pack::GetTickHz(pPack)),
                               pPack[13]);
        return;
    case NOTE_UNNAMED_01:
        return;
    case NOTE_CMD_RESPONSE:
        if (payload < 2) {
            ASSERT(false);
            DebugOut(L"NOTE_CMD_RESPONSE payload too small\r\n");
            return;
        }
        if (pPack[6] != 0)
            DebugOut(L"NOTE_CMD_RESPONSE says incoming command failed.\r\n");
        return;
    default:
        DebugOutF(L"Unknown system notification: 0x%02x ignored.\r\n", pPack[5]);
        return;
    }
}

void CHC08::DispatchSystemError(const BYTE* pPack, int payload)
{
    if (payload < 1) {
        ASSERT(false);
        DebugOut(L"CLASS_SYSTEM_ERROR payload too small\n");
        return;
    }
    switch (pPack[5]) {
    case ERR_NONE:
        return;
    case ERR_OVERFLOW:
        DebugOut(L"HC08 Overflow\r\n");
        return;
    case ERR_BAD_VCORE:
        DebugOut(L"HC08: Bad V Core\r\n");
        return;
    case ERR_BAD_5V:
        DebugOut(L"HC08: Bad 5V\r\n");
        return;
    case ERR_BAD_3V:
        DebugOut(L"HC08: Bad 3V\r\n");
        return;
    default:
        DebugOutF(L"Unknown system error: %0x02x ignored.\n", pPack[5]);
        return;
    }
}

// ---------------------------------------------------------------------------
// Simulated packets: they enter at the dispatch, as if just received.

DWORD CHC08::SimTicks(DWORD ticksSinceGo) const
{
    return (m_simTickBase + ticksSinceGo) & kTickMask;
}

bool CHC08::PostBuilt(BYTE* pPack, int size)
{
    if (pPack == nullptr) {
        ASSERT(false);
        return false;
    }
    // A failed post has already been reported and asserted.
    bool posted = SendCopyOfPacket(pPack, size);
    delete[] pPack;
    return posted;
}

bool CHC08::SimHC08Reset(short hc08Rev, short hc08Build, short resetSource, long tickHz, short postResult)
{
    m_simTickBase = 0;
    int size = 0;
    BYTE* pPack = CHC08Pack::BuildHC08Reset(&size, 0, hc08Rev, hc08Build, resetSource, tickHz, postResult);
    return PostBuilt(pPack, size);
}

bool CHC08::SimTimerGo(DWORD ticksAtGo)
{
    m_simTickBase = ticksAtGo & kTickMask;
    int size = 0;
    BYTE* pPack = CHC08Pack::BuildTimerGo(&size, m_simTickBase);
    return PostBuilt(pPack, size);
}

bool CHC08::SimTimerRollover()
{
    int size = 0;
    BYTE* pPack = CHC08Pack::BuildTimerRollover(&size, 0);
    return PostBuilt(pPack, size);
}

bool CHC08::SimDigitoLeftDownward(DWORD ticksSinceGo, DWORD deltaTicks)
{
    int size = 0;
    BYTE* pPack = CHC08Pack::BuildDigitoLeftDownward(&size, SimTicks(ticksSinceGo), deltaTicks & kTickMask);
    return PostBuilt(pPack, size);
}

bool CHC08::SimDigitoLeftUpward(DWORD ticksSinceGo, DWORD deltaTicks)
{
    int size = 0;
    BYTE* pPack = CHC08Pack::BuildDigitoLeftUpward(&size, SimTicks(ticksSinceGo), deltaTicks & kTickMask);
    return PostBuilt(pPack, size);
}

bool CHC08::SimDigitoRightDownward(DWORD ticksSinceGo, DWORD deltaTicks)
{
    int size = 0;
    BYTE* pPack = CHC08Pack::BuildDigitoRightDownward(&size, SimTicks(ticksSinceGo), deltaTicks & kTickMask);
    return PostBuilt(pPack, size);
}

bool CHC08::SimDigitoRightUpward(DWORD ticksSinceGo, DWORD deltaTicks)
{
    int size = 0;
    BYTE* pPack = CHC08Pack::BuildDigitoRightUpward(&size, SimTicks(ticksSinceGo), deltaTicks & kTickMask);
    return PostBuilt(pPack, size);
}

bool CHC08::SimCapsitLeftDown(DWORD ticksSinceGo)
{
    int size = 0;
    BYTE* pPack = CHC08Pack::BuildCapsitLeftDown(&size, SimTicks(ticksSinceGo));
    return PostBuilt(pPack, size);
}

bool CHC08::SimCapsitLeftUp(DWORD ticksSinceGo)
{
    int size = 0;
    BYTE* pPack = CHC08Pack::BuildCapsitLeftUp(&size, SimTicks(ticksSinceGo));
    return PostBuilt(pPack, size);
}

bool CHC08::SimCapsitRightDown(DWORD ticksSinceGo)
{
    int size = 0;
    BYTE* pPack = CHC08Pack::BuildCapsitRightDown(&size, SimTicks(ticksSinceGo));
    return PostBuilt(pPack, size);
}

bool CHC08::SimCapsitRightUp(DWORD ticksSinceGo)
{
    int size = 0;
    BYTE* pPack = CHC08Pack::BuildCapsitRightUp(&size, SimTicks(ticksSinceGo));
    return PostBuilt(pPack, size);
}

bool CHC08::SimPegsMap(DWORD ticksSinceGo, WORD pegsInLeft, WORD pegsInRight)
{
    int size = 0;
    BYTE* pPack = CHC08Pack::BuildPegsMap(&size, SimTicks(ticksSinceGo), pegsInLeft, pegsInRight);
    return PostBuilt(pPack, size);
}
