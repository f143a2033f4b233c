// Placeholder until the link itself lands: constructs, never opens.
#include "mcu/HC08.h"

CHC08::CHC08(HINSTANCE instance, IManagerSite* site)
    : m_hInstance(instance), m_pSite(site), m_pTestManager(nullptr), m_pGpio(nullptr), m_pSink(nullptr),
      m_hWnd(nullptr), m_portName(nullptr), m_digitoGate(0), m_hPort(INVALID_HANDLE_VALUE), m_hThread(nullptr),
      m_threadId(0), m_wantReset(0), m_pResetPacket(nullptr), m_hReady(nullptr), m_rollovers(0), m_ticksAtGo(0),
      m_simTickBase(0), m_pegsInLeft(0), m_pegsInRight(0), m_lockInitialised(false), m_noiseOn(0)
{
}
CHC08::~CHC08() {}
bool CHC08::Open() { return false; }
void CHC08::Close() {}
bool CHC08::GetPegsMap(WORD* pLeft, WORD* pRight)
{
    if (pLeft == nullptr || pRight == nullptr)
        return false;
    *pLeft = m_pegsInLeft;
    *pRight = m_pegsInRight;
    return true;
}
