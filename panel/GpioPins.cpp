#include "panel/GpioPins.h"

#include <cmath>
#include <new>

#include "control/MessageWindow.h"
#include "diag/Assert.h"
#include "diag/DebugOut.h"
#include "panel/GpioBlock.h"
#include "panel/GpioBlockLayout.h"
#include "panel/TickCount.h"
#include "panel/UserTimer.h"
#include "watch/Watch.h"

namespace {

const wchar_t kClassName[] = L"GpioMessageWin";
const wchar_t kTitle[] = L"Gpio Messages";
const wchar_t kLabel[] = L"Gpio";

// Four hours, the longest user timer.
constexpr DWORD kMaxTimerMs = 14400000;

// Heartbeats after watch power on before the presence input is trusted.
constexpr DWORD kWatchSettleTicks = 5;

bool ValidLed(int ledID)
{
    return ledID >= 1 && ledID <= 6;
}

// Seconds to milliseconds, truncated toward zero to 32 bits. Values the
// conversion cannot hold give 0x80000000, as the processor's own conversion
// does, which the four-hour check then refuses.
long IntervalMs(double intervalSecs)
{
    double ms = intervalSecs * 1000.0;
    if (!(ms > -2147483649.0 && ms < 2147483648.0))
        return static_cast<long>(0x80000000u);
    return static_cast<long>(std::trunc(ms));
}

}  // namespace

CGpioPins::CGpioPins(HINSTANCE instance, IManagerSite* site)
    : m_hInstance(instance),
      m_pSite(site),
      m_hWnd(nullptr),
      m_pWatch(nullptr),
      m_pSink(nullptr),
      m_pRegs(nullptr),
      m_blinkCount{},
      m_goCountdown(0),
      m_watchPowerOn(false),
      m_ticksSinceWatchPower(0),
      m_simWatchOn(false),
      m_simWatchPresent(false),
      m_simLidOn(false),
      m_simLidOpen(true),
      m_lidKnown(false),
      m_lidLastOpen(false),
      m_pTimers(nullptr),
      m_heartbeatSeen(false),
      m_lastHeartbeat(0),
      m_longestHeartbeatGap(0),
      m_msgFlashChange(0),
      m_msgReboot(0),
      m_pTimerWalks(nullptr)
{
    ASSERT(instance != nullptr);
    ASSERT(site != nullptr);
    m_pRegs = GpioRegisterBlock();
    // The go strobe must be low before the microcontroller ever sees it.
    SetPin(kLineGo, 0);
}

CGpioPins::~CGpioPins()
{
    Close();
    delete m_pTimers;
    m_pTimers = nullptr;
}

bool CGpioPins::Init()
{
    m_pWatch = (m_pSite != nullptr) ? m_pSite->GetWatch() : nullptr;
    m_pSink = (m_pSite != nullptr) ? m_pSite->GetGpioEventSink() : nullptr;

    if (!MessageWindowRegister(m_hInstance, kClassName, MessageWindowProc<CGpioPins>)) {
        ASSERT(false);
        return false;
    }
    m_hWnd = MessageWindowCreate(m_hInstance, kClassName, kTitle, this);
    if (m_hWnd == nullptr) {
        ASSERT(false);
        return false;
    }

    m_msgFlashChange = RegisterWindowMessageW(L"Brennock Flash Change");
    if (m_msgFlashChange == 0) {
        ASSERT(false);
        DebugOut(L"Registration for flash changed failed.\r\n");
        return false;
    }
    m_msgReboot = RegisterWindowMessageW(L"Brennock Sys Reboot");
    // This check has always looked at the flash-change message again, so a
    // missing reboot message is never reported here: Reboot then posts
    // nothing, and the device runs on.
    if (m_msgFlashChange == 0) {
        ASSERT(false);
        DebugOut(L"Registration for reboot request failed.\r\n");
        return false;
    }

    if (m_pSink != nullptr)
        m_pSink->Attach(this);
    SetPin(kLineAuxEnable, 1);

    if (SetTimer(m_hWnd, kHeartbeatTimer, kHeartbeatMs, nullptr) == 0) {
        ASSERT(false);
        return false;
    }
    return true;
}

void CGpioPins::Close()
{
    MessageWindowDestroy(m_hWnd, m_hInstance, kClassName, L"CGpioPins: DestroyWindow failed.\r\n");
}

IGpioEventSink* CGpioPins::Sink()
{
    ASSERT(m_pSink != nullptr);
    return m_pSink;
}

// ---------------------------------------------------------------------------
// Line primitives. Set and clear are read-modify-write on both registers, so
// that each holds exactly the lines last driven its way.

void CGpioPins::SetPin(int line, DWORD value)
{
    if (line < 0 || line >= static_cast<int>(gpio::kLineCount) || m_pRegs == nullptr) {
        ASSERT(false);
        return;
    }
    const DWORD bank = gpio::BankOf(line);
    const DWORD bit = gpio::BitOf(line);
    m_pRegs->Write(gpio::kDirectionReg[bank], m_pRegs->Read(gpio::kDirectionReg[bank]) | bit);
    if (value == 0) {
        m_pRegs->Write(gpio::kSetReg[bank], m_pRegs->Read(gpio::kSetReg[bank]) & ~bit);
        m_pRegs->Write(gpio::kClearReg[bank], m_pRegs->Read(gpio::kClearReg[bank]) | bit);
    } else {
        m_pRegs->Write(gpio::kClearReg[bank], m_pRegs->Read(gpio::kClearReg[bank]) & ~bit);
        m_pRegs->Write(gpio::kSetReg[bank], m_pRegs->Read(gpio::kSetReg[bank]) | bit);
    }
}

void CGpioPins::ReleasePin(int line)
{
    if (line < 0 || line >= static_cast<int>(gpio::kLineCount) || m_pRegs == nullptr) {
        ASSERT(false);
        return;
    }
    const DWORD bank = gpio::BankOf(line);
    m_pRegs->Write(gpio::kDirectionReg[bank],
                   m_pRegs->Read(gpio::kDirectionReg[bank]) & ~gpio::BitOf(line));
}

DWORD CGpioPins::GetPin(int line)
{
    if (line < 0 || line >= static_cast<int>(gpio::kLineCount) || m_pRegs == nullptr) {
        ASSERT(false);
        return 0;
    }
    return (m_pRegs->Read(gpio::kLevelReg[gpio::BankOf(line)]) & gpio::BitOf(line)) ? 1 : 0;
}

void CGpioPins::SetLed(int ledID, DWORD state)
{
    if (!ValidLed(ledID)) {
        ASSERT(false);
        DebugOut(L"SetLed: Unknown LED ID\r\n");
        return;
    }
    SetPin(kLedLine[ledID], state);
}

// ---------------------------------------------------------------------------
// LEDs

bool CGpioPins::SetLedState(int ledID, bool turnOn)
{
    if (!ValidLed(ledID)) {
        DebugOut(L"SetLedState: unknown led id.\r\n");
        return false;
    }
    if (m_blinkCount[ledID] != 0)
        CancelBlinkLed(ledID);
    SetLed(ledID, turnOn ? 1 : 0);
    return true;
}

bool CGpioPins::BlinkLed(int ledID, int numBlinks, int msPerBlink)
{
    if (!ValidLed(ledID)) {
        ASSERT(false);
        DebugOut(L"BlinkLed: unknown led id.\r\n");
        return false;
    }
    if (numBlinks < 1) {
        ASSERT(false);
        DebugOut(L"BlinkLed: non-positive numBlinks.\r\n");
        return false;
    }
    // A negative period is taken as a very long one.
    const DWORD period = static_cast<DWORD>(msPerBlink);
    if (period == 0) {
        ASSERT(false);
        DebugOut(L"BlinkLed: msPerBlink too small.\r\n");
        return false;
    }
    if (m_blinkCount[ledID] != 0)
        CancelBlinkLed(ledID);

    SetLed(ledID, 1);
    m_blinkCount[ledID] = 2 * numBlinks;

    // A 1 ms period has no half period to time. The LED stays lit and counts
    // as blinking until SetLedState, CancelBlinkLed or another BlinkLed ends
    // it, each of which reports BlinkEnded.
    if (period / 2 == 0) {
        ASSERT(false);
        DebugOut(L"BlinkLed: msPerBlink too small.\r\n");
        return false;
    }
    if (m_hWnd == nullptr || SetTimer(m_hWnd, static_cast<UINT_PTR>(ledID), period / 2, nullptr) == 0) {
        ASSERT(false);
        SetLed(ledID, 0);
        return false;
    }
    return true;
}

bool CGpioPins::CancelBlinkLed(int ledID)
{
    if (!ValidLed(ledID)) {
        DebugOut(L"CancelBlinkLed: unknown led id.\r\n");
        return false;
    }
    if (m_blinkCount[ledID] == 0)
        return true;
    SetLed(ledID, 0);
    if (m_hWnd != nullptr)
        KillTimer(m_hWnd, static_cast<UINT_PTR>(ledID));
    m_blinkCount[ledID] = 0;
    if (IGpioEventSink* sink = Sink())
        sink->BlinkEnded(static_cast<short>(ledID));
    return true;
}

// One half period has passed: the LED is lit while the remaining count is
// even and dark while it is odd; the event comes half a period after the
// last extinction.
void CGpioPins::OnBlinkTick(int ledID)
{
    const long count = m_blinkCount[ledID];
    if (count <= 0)
        return;
    m_blinkCount[ledID] = count - 1;
    if (count == 1) {
        KillTimer(m_hWnd, static_cast<UINT_PTR>(ledID));
        if (IGpioEventSink* sink = Sink())
            sink->BlinkEnded(static_cast<short>(ledID));
        return;
    }
    SetLed(ledID, ((count - 1) % 2 == 0) ? 1 : 0);
}

// ---------------------------------------------------------------------------
// Power, strobes and the reset line

bool CGpioPins::SetBacklightPower(bool powerOn)
{
    SetPin(kLineBacklight, powerOn ? 1 : 0);
    return true;
}

void CGpioPins::SetWatchPower(bool on)
{
    if (on) {
        m_watchPowerOn = true;
        m_ticksSinceWatchPower = 0;
    } else {
        // Never leave the carrier running into an unpowered cradle.
        SetPin(kLineWatchCarrier, 0);
        m_watchPowerOn = false;
    }
    SetPin(kLineWatchPower, on ? 1 : 0);
}

void CGpioPins::SetWatchCarrier(bool on)
{
    SetPin(kLineWatchCarrier, on ? 1 : 0);
}

void CGpioPins::hC08Go(bool doBeep)
{
    if (m_goCountdown != 0)
        DebugOut(L"WARNING: hC08Go: Second Go request before first is complete.\r\n");
    m_goCountdown = 0;
    SetPin(kLineGo, 0);
    SetPin(kLineBeep, doBeep ? 1 : 0);
    SetPin(kLineGo, 1);
    // Dropped by the second heartbeat from now: 200 to 400 ms high.
    m_goCountdown = 2;
}

void CGpioPins::ResetHC08()
{
    SetPin(kLineMcuReset, 1);
    SetPin(kLineMcuReset, 0);
    ReleasePin(kLineMcuReset);
}

// ---------------------------------------------------------------------------
// System messages

void CGpioPins::Reboot()
{
    DebugOut(L"Reboot requested.\r\n");
    // Another process on the device listens for this and reboots it.
    if (m_msgReboot != 0 && !PostMessageW(HWND_BROADCAST, m_msgReboot, 0, 0))
        DebugOut(L"ERROR: reboot: PostMessage failed.\r\n");
}

bool CGpioPins::SimDataStoreVisible(short isVisible)
{
    ASSERT(m_msgFlashChange != 0);
    if (m_hWnd == nullptr ||
        !PostMessageW(m_hWnd, m_msgFlashChange, static_cast<WPARAM>(static_cast<WORD>(isVisible)), 0)) {
        DebugOut(L"ERROR: SimDataStoreVisible: PostMessage failed.\r\n");
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Simulated inputs

bool CGpioPins::SimLidMoved(int isOpen)
{
    // From now on the real switch is ignored.
    m_simLidOn = true;
    m_simLidOpen = (isOpen != 0);
    return true;
}

bool CGpioPins::SimWatchVisible(int isVisible)
{
    if (!m_watchPowerOn && isVisible != 0) {
        DebugOut(L"ERROR: SimWatchVisible(TRUE) with watch power off.\r\n");
        return false;
    }
    m_simWatchOn = true;
    m_simWatchPresent = (isVisible != 0);
    return true;
}

// ---------------------------------------------------------------------------
// User timers

bool CGpioPins::TimerStart(short timerID, double intervalSecs)
{
    const DWORD now = GpioTickCount();
    if (timerID < 0) {
        DebugOut(L"TimerStart: userTimerID < 0.\r\n");
        return false;
    }
    const long interval = IntervalMs(intervalSecs);
    // Taken unsigned, so a negative interval is refused here too.
    if (static_cast<DWORD>(interval) > kMaxTimerMs) {
        DebugOut(L"TimerStart: intervalSecs too large.\r\n");
        return false;
    }
    if (CUserTimer::Find(m_pTimers, timerID) != nullptr) {
        DebugOut(L"TimerStart: timerID already running.\r\n");
        return false;
    }
    CUserTimer* record = new (std::nothrow) CUserTimer(timerID, now + static_cast<DWORD>(interval));
    if (record == nullptr) {
        ASSERT(false);
        return false;
    }
    CUserTimer::Insert(record, m_pTimers);
    return true;
}

bool CGpioPins::CancelTimer(short timerID)
{
    if (timerID == -1) {
        // From the head on. Timers that a handler starts meanwhile go to the
        // head, behind this walk, and keep running.
        TimerWalk walk = {m_pTimers, m_pTimerWalks};
        m_pTimerWalks = &walk;
        while (walk.next != nullptr) {
            CUserTimer* record = walk.next;
            walk.next = record->Next();
            UnlinkTimer(record);
            const short id = static_cast<short>(record->TimerID());
            if (IGpioEventSink* sink = Sink())
                sink->TimerEnded(103, id);
            delete record;
        }
        m_pTimerWalks = walk.outer;
        return true;
    }
    if (timerID < 0) {
        DebugOut(L"CancelTimer: userTimerID < 0, but not -1.\r\n");
        return false;
    }
    CUserTimer* record = CUserTimer::Find(m_pTimers, timerID);
    if (record != nullptr) {
        UnlinkTimer(record);
        if (IGpioEventSink* sink = Sink())
            sink->TimerEnded(103, timerID);
        delete record;
    }
    return true;
}

void CGpioPins::UnlinkTimer(CUserTimer* record)
{
    for (TimerWalk* w = m_pTimerWalks; w != nullptr; w = w->outer)
        if (w->next == record)
            w->next = record->Next();
    CUserTimer::Remove(record, m_pTimers);
}

// Every timer that is due is reported, newest first. A handler may start,
// restart or cancel timers: new ones go to the head and wait for the next
// heartbeat; cancelled ones are skipped.
void CGpioPins::ExpireTimers()
{
    const DWORD now = GpioTickCount();
    TimerWalk walk = {m_pTimers, m_pTimerWalks};
    m_pTimerWalks = &walk;
    while (walk.next != nullptr) {
        CUserTimer* record = walk.next;
        walk.next = record->Next();
        if (!record->IsDue(now))
            continue;
        UnlinkTimer(record);
        const long id = record->TimerID();
        ASSERT(id >= 0);
        if (IGpioEventSink* sink = Sink())
            sink->TimerEnded(0, static_cast<short>(id));
        delete record;
    }
    m_pTimerWalks = walk.outer;
}

// ---------------------------------------------------------------------------
// Heartbeat

void CGpioPins::OnHeartbeat()
{
    const DWORD now = GpioTickCount();
    if (m_heartbeatSeen) {
        const DWORD gap = now - m_lastHeartbeat;
        if (gap > m_longestHeartbeatGap)
            m_longestHeartbeatGap = gap;
    }
    m_lastHeartbeat = now;
    m_heartbeatSeen = true;

    // The watch's presence input settles for five heartbeats after power on.
    if (m_watchPowerOn) {
        if (m_ticksSinceWatchPower < kWatchSettleTicks) {
            ++m_ticksSinceWatchPower;
        } else {
            const bool present =
                m_simWatchOn ? m_simWatchPresent : (GetPin(kLineWatchPresent) != 0);
            if (m_pWatch != nullptr)
                m_pWatch->UpdateWatchVisibility(present);  // it decides what to report
        }
    }

    const bool lidOpen = m_simLidOn ? m_simLidOpen : (GetPin(kLineLid) != 0);
    if (!m_lidKnown || lidOpen != m_lidLastOpen) {
        m_lidKnown = true;
        m_lidLastOpen = lidOpen;
        if (IGpioEventSink* sink = Sink())
            sink->LidMoved(lidOpen);
    }

    ExpireTimers();

    if (m_goCountdown != 0) {
        --m_goCountdown;
        if (m_goCountdown == 0)
            SetPin(kLineGo, 0);
    }
}

// ---------------------------------------------------------------------------
// Window procedure

LRESULT CGpioPins::WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    switch (msg) {
    case WM_CREATE:
    case WM_DESTROY:
    case WM_COMMAND:
    case WM_PAINT:
        return MessageWindowDefault(hwnd, msg, wParam, lParam, kLabel);
    case WM_TIMER:
        if (wParam == kHeartbeatTimer)
            OnHeartbeat();
        else if (ValidLed(static_cast<int>(wParam)))
            OnBlinkTick(static_cast<int>(wParam));
        return 0;
    default:
        break;
    }
    if (m_msgFlashChange != 0 && msg == m_msgFlashChange) {
        // The removable data store came or went; the message goes on to the
        // default procedure like any broadcast.
        if (IGpioEventSink* sink = Sink())
            sink->DataStoreVisible(static_cast<short>(LOWORD(wParam)));
    }
    return DefWindowProcW(hwnd, msg, wParam, lParam);
}
