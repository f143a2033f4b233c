// CHC08: the serial link to the sensor microcontroller.
//
// A reader thread pulls bytes from "COM2:", cuts them into packets, hands
// every packet to the test manager for the running recording, and posts a
// copy to the hidden "HC08MessageWin" window. On the host thread the window
// procedure decodes the packet by class and code and calls the control's
// event sink, which fires the script event of the same name.
//
// Opening pulses the microcontroller's reset line and waits (up to 8 s) for
// its reset note; the note is kept for the recordings (GetResetPacket).
#pragma once

#include <windows.h>

#include "control/EventSinks.h"
#include "control/ManagerSite.h"
#include "mcu/HC08Framer.h"

class CTestManager;
class CGpioPins;

class CHC08 : private IHC08FrameSink
{
public:
    CHC08(HINSTANCE instance, IManagerSite* site);
    virtual ~CHC08();

    CHC08(const CHC08&) = delete;
    CHC08& operator=(const CHC08&) = delete;

    bool Open();
    void Close();

    // Stores the flag (read back by MaskWithNoise) and sends the noise
    // command; true only when all four bytes went out.
    bool SetNoiseOn(bool on);
    bool NoiseOn() const { return m_noiseOn != 0; }

    // The first reset note seen after Open, or null before the handshake.
    const BYTE* GetResetPacket() const { return m_pResetPacket; }
    // The last pegs map dispatched on the host thread.
    bool GetPegsMap(WORD* pLeft, WORD* pRight);

    // The finger-tapping gate. Digito packets from the port reach the script
    // only while it is open; the test manager opens it when an activity
    // starts and closes it when the activity ends, so the script hears the
    // finger buttons during a test and not between tests. Recording does not
    // look at the gate. Simulated packets bypass it.
    void SetDigitoGate(bool open) { InterlockedExchange(&m_digitoGate, open ? 1 : 0); }
    bool DigitoGate() const { return m_digitoGate != 0; }

    // Drains the port until it has been silent for timeoutMs (1 ms for 0).
    bool FlushSerialInput(DWORD timeoutMs);

    // Simulated packets: built here and posted to the window exactly as the
    // reader posts a received one (no recording, no checksum test, no gate).
    bool SimHC08Reset(short hc08Rev, short hc08Build, short resetSource, long tickHz, short postResult);
    bool SimTimerGo(DWORD ticksAtGo);
    bool SimTimerRollover();
    bool SimDigitoLeftDownward(DWORD ticksSinceGo, DWORD deltaTicks);
    bool SimDigitoLeftUpward(DWORD ticksSinceGo, DWORD deltaTicks);
    bool SimDigitoRightDownward(DWORD ticksSinceGo, DWORD deltaTicks);
    bool SimDigitoRightUpward(DWORD ticksSinceGo, DWORD deltaTicks);
    bool SimCapsitLeftDown(DWORD ticksSinceGo);
    bool SimCapsitLeftUp(DWORD ticksSinceGo);
    bool SimCapsitRightDown(DWORD ticksSinceGo);
    bool SimCapsitRightUp(DWORD ticksSinceGo);
    bool SimPegsMap(DWORD ticksSinceGo, WORD pegsInLeft, WORD pegsInRight);

    LRESULT WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);

    // The message that carries a packet copy to the window.
    static constexpr UINT kPacketMessage = WM_USER + 1;

private:
    static DWORD WINAPI ThreadProc(LPVOID param);
    DWORD Run();
    // The reader's framer hands packets on here, and asks for a drain when
    // the line is out of step.
    void OnPacket(const BYTE* pPack, int size) override;
    void OnOutOfStep() override;
    void ProcessPacket(const BYTE* pPack, int size);
    bool SendCopyOfPacket(const BYTE* pPack, int size);
    bool PostBuilt(BYTE* pPack, int size);
    void DispatchPacket(const BYTE* pPack);
    void DispatchDeviceEvent(const BYTE* pPack, int payload, DWORD ticksSinceGo);
    void DispatchSystemNote(const BYTE* pPack, int payload);
    void DispatchSystemError(const BYTE* pPack, int payload);
    DWORD SimTicks(DWORD ticksSinceGo) const;

    HINSTANCE m_hInstance;
    IManagerSite* m_pSite;
    CTestManager* m_pTestManager;
    CGpioPins* m_pGpio;
    IHC08EventSink* m_pSink;
    HWND m_hWnd;
    wchar_t* m_portName;
    volatile LONG m_digitoGate;
    HANDLE m_hPort;
    HANDLE m_hThread;
    DWORD m_threadId;
    volatile LONG m_wantReset;
    BYTE* m_pResetPacket;
    HANDLE m_hReady;
    DWORD m_rollovers;
    DWORD m_ticksAtGo;
    DWORD m_simTickBase;
    WORD m_pegsInLeft;
    WORD m_pegsInRight;
    CRITICAL_SECTION m_portLock;
    bool m_lockInitialised;
    LONG m_noiseOn;
};
