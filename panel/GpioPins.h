// CGpioPins: the manager of the device's general-purpose I/O lines.
//
// It drives the six front-panel LEDs (steady or blinking), the backlight, the
// watch cradle's power and carrier, the microcontroller's go strobe, beep
// request and reset lines and the auxiliary enable line; it polls the lid
// switch and the watch-present input; it keeps the script's user timers; and
// it relays the system-wide "Brennock Flash Change" (in) and "Brennock Sys
// Reboot" (out) messages. Everything runs on the host thread through the
// hidden window "GpioMessageWin": a 200 ms heartbeat (timer 50) and one blink
// timer per LED (timers 1 to 6).
#pragma once

#include <windows.h>

#include "control/EventSinks.h"
#include "control/ManagerSite.h"

class CGpioBlock;
class CUserTimer;

class CGpioPins final
{
public:
    // Lines in use.
    static constexpr int kLineLid = 1;
    static constexpr int kLineMcuReset = 13;
    static constexpr int kLineBeep = 20;
    static constexpr int kLineGo = 21;
    static constexpr int kLineWatchPower = 36;
    static constexpr int kLineBacklight = 38;
    static constexpr int kLineWatchPresent = 40;
    static constexpr int kLineWatchCarrier = 41;
    static constexpr int kLineAuxEnable = 99;

    // The line of each LED, indexed by the script's ledID (index 0 is none).
    static constexpr int kLedLine[7] = {-1, 84, 52, 53, 54, 81, 83};

    // Window timers on the hidden window.
    static constexpr UINT_PTR kHeartbeatTimer = 50;
    static constexpr UINT kHeartbeatMs = 200;

    // Both must be non-null. Drives the go strobe (line 21) low; touches no
    // other line.
    CGpioPins(HINSTANCE instance, IManagerSite* site);

    // Tears the window down if Close has not, then deletes the user-timer
    // list without raising TimerEnded. Lines keep their last levels.
    ~CGpioPins();

    CGpioPins(const CGpioPins&) = delete;
    CGpioPins& operator=(const CGpioPins&) = delete;

    // Fetches the event sink, makes the hidden window, registers the two
    // system messages, drives the auxiliary enable line high and starts the
    // heartbeat.
    bool Init();

    // Destroys the hidden window (and with it the heartbeat and the blink
    // timers). Safe to call more than once.
    void Close();

    // Script operations; false is a refused call (the reason is on the debug
    // output).
    bool SetLedState(int ledID, bool turnOn);
    bool BlinkLed(int ledID, int numBlinks, int msPerBlink);
    bool CancelBlinkLed(int ledID);
    bool SetBacklightPower(bool powerOn);
    bool TimerStart(short timerID, double intervalSecs);
    bool CancelTimer(short timerID);
    void Reboot();
    bool SimLidMoved(int isOpen);
    bool SimWatchVisible(int isVisible);
    bool SimDataStoreVisible(short isVisible);

    // For the other managers.
    void SetWatchPower(bool on);    // the watch manager
    void SetWatchCarrier(bool on);  // the watch manager
    void hC08Go(bool doBeep);       // the test manager: go strobe (with beep request)
    void ResetHC08();               // the microcontroller link, when it opens its port

    // The hidden window (null before Init and after Close).
    HWND Window() const { return m_hWnd; }

    // The window procedure, called through MessageWindowProc.
    LRESULT WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);

private:
    // Line primitives.
    void SetPin(int line, DWORD value);
    void ReleasePin(int line);
    DWORD GetPin(int line);
    void SetLed(int ledID, DWORD state);

    void OnHeartbeat();
    void OnBlinkTick(int ledID);
    void ExpireTimers();
    IGpioEventSink* Sink();

    // A walk over the timer list that an event handler may change under it:
    // the walk keeps its next record here, and every unlink moves it on.
    struct TimerWalk
    {
        CUserTimer* next;
        TimerWalk* outer;
    };
    void UnlinkTimer(CUserTimer* record);

    HINSTANCE m_hInstance;
    IManagerSite* m_pSite;
    HWND m_hWnd;
    CWatch* m_pWatch;  // told of the watch's presence by the heartbeat
    IGpioEventSink* m_pSink;
    CGpioBlock* m_pRegs;
    long m_blinkCount[7];  // 0 = not blinking
    DWORD m_goCountdown;   // heartbeats until the go strobe drops; 0 = none pending
    bool m_watchPowerOn;
    DWORD m_ticksSinceWatchPower;
    bool m_simWatchOn;
    bool m_simWatchPresent;
    bool m_simLidOn;
    bool m_simLidOpen;
    bool m_lidKnown;
    bool m_lidLastOpen;
    CUserTimer* m_pTimers;
    bool m_heartbeatSeen;
    DWORD m_lastHeartbeat;
    DWORD m_longestHeartbeatGap;  // for diagnosis in a debugger; reported nowhere
    UINT m_msgFlashChange;
    UINT m_msgReboot;
    TimerWalk* m_pTimerWalks;
};
