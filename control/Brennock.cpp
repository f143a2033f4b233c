#include "control/Brennock.h"

#include <new>

#include <olectl.h>

#include "control/Module.h"
#include "diag/Assert.h"
#include "diag/DebugLog.h"
#include "diag/DebugOut.h"
#include "mcu/HC08.h"
#include "panel/GpioPins.h"
#include "session/NVRAMBoard.h"
#include "session/StoredParams.h"
#include "session/TestManager.h"

// A method whose manager does not exist yet writes its guard text and fails.
#define BRENNOCK_GUARD(manager, text) \
    do {                              \
        if ((manager) == nullptr) {   \
            DebugOut(text);           \
            return E_FAIL;            \
        }                             \
    } while (0)

// Records an assertion against this source file at the given line.
static void AssertAt(short line)
{
    ::AssertWrite(BRN_WFILE, line, L"assert");
}

// ---------------------------------------------------------------------------
// Creation, identity and lifetime

HRESULT CBrennock::CreateInstance(IUnknown* outer, REFIID riid, void** ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    *ppv = nullptr;
    if (outer != nullptr && riid != IID_IUnknown)
        return CLASS_E_NOAGGREGATION;

    CBrennock* object = new (std::nothrow) CBrennock(outer);
    if (object == nullptr)
        return E_OUTOFMEMORY;
    object->m_inner.AddRef();
    HRESULT hr = object->m_inner.QueryInterface(riid, ppv);
    object->m_inner.Release();
    return hr;
}

CBrennock::CBrennock(IUnknown* outer)
    : COleControlBase(CLSID_Brennock, LIBID_BRENNOCKCONTROLLib, 1, 0, DIID__IBrennockEvents,
                      131473),
      m_pTestManager(nullptr),
      m_pDebugLog(nullptr),
      m_pGpio(nullptr),
      m_pWatch(nullptr),
      m_pHC08(nullptr),
      m_pAudio(nullptr),
      m_pNVRAM(nullptr),
      m_pStoredParams(nullptr),
      m_refs(0),
      m_pOuter(outer != nullptr ? outer : &m_inner),
      m_inner(this),
      m_eventPoint(this, DIID__IBrennockEvents, &m_lock),
      m_pTypeInfo(nullptr)
{
    InitializeCriticalSection(&m_lock);
    BrennockModule::Lock();
}

CBrennock::~CBrennock()
{
    m_eventPoint.UnadviseAll();
    if (m_pTypeInfo != nullptr)
        m_pTypeInfo->Release();
    DeleteCriticalSection(&m_lock);
    BrennockModule::Unlock();
}

void CBrennock::FinalRelease()
{
    Close();
    OleTeardown();
    m_eventPoint.UnadviseAll();
}

STDMETHODIMP CBrennock::CInnerUnknown::QueryInterface(REFIID riid, void** ppv)
{
    return m_owner->InternalQueryInterface(riid, ppv);
}

STDMETHODIMP_(ULONG) CBrennock::CInnerUnknown::AddRef()
{
    return static_cast<ULONG>(InterlockedIncrement(&m_owner->m_refs));
}

STDMETHODIMP_(ULONG) CBrennock::CInnerUnknown::Release()
{
    LONG n = InterlockedDecrement(&m_owner->m_refs);
    if (n == 0) {
        // Keep the object alive while its own teardown hands out references.
        m_owner->m_refs = 1;
        m_owner->FinalRelease();
        delete m_owner;
    }
    return static_cast<ULONG>(n);
}

HRESULT CBrennock::InternalQueryInterface(REFIID riid, void** ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    *ppv = nullptr;
    if (riid == IID_IUnknown) {
        *ppv = static_cast<IUnknown*>(&m_inner);
        m_inner.AddRef();
        return S_OK;
    }
    if (riid == IID_IDispatch || riid == IID_IBrennock)
        *ppv = static_cast<IBrennock*>(this);
    else if (riid == IID_IConnectionPointContainer)
        *ppv = static_cast<IConnectionPointContainer*>(this);
    else
        return OleQueryInterface(riid, ppv);
    AddRef();
    return S_OK;
}

STDMETHODIMP CBrennock::QueryInterface(REFIID riid, void** ppv)
{
    return m_pOuter->QueryInterface(riid, ppv);
}

STDMETHODIMP_(ULONG) CBrennock::AddRef()
{
    return m_pOuter->AddRef();
}

STDMETHODIMP_(ULONG) CBrennock::Release()
{
    return m_pOuter->Release();
}

// ---------------------------------------------------------------------------
// IDispatch: names, ids and argument coercion come from the type library.

ITypeInfo* CBrennock::TypeInfo()
{
    EnterCriticalSection(&m_lock);
    if (m_pTypeInfo == nullptr) {
        ITypeLib* lib = nullptr;
        HRESULT hr = LoadRegTypeLib(LIBID_BRENNOCKCONTROLLib, 1, 0, kTypeLibLcid, &lib);
        if (FAILED(hr)) {
            wchar_t path[MAX_PATH];
            if (BrennockModule::ModulePath(path, MAX_PATH))
                hr = LoadTypeLibEx(path, REGKIND_NONE, &lib);
        }
        if (SUCCEEDED(hr) && lib != nullptr) {
            lib->GetTypeInfoOfGuid(IID_IBrennock, &m_pTypeInfo);
            lib->Release();
        }
    }
    ITypeInfo* info = m_pTypeInfo;
    LeaveCriticalSection(&m_lock);
    return info;
}

STDMETHODIMP CBrennock::GetTypeInfoCount(UINT* pctinfo)
{
    if (pctinfo == nullptr)
        return E_POINTER;
    *pctinfo = 1;
    return S_OK;
}

STDMETHODIMP CBrennock::GetTypeInfo(UINT iTInfo, LCID, ITypeInfo** ppTInfo)
{
    if (ppTInfo == nullptr)
        return E_POINTER;
    *ppTInfo = nullptr;
    if (iTInfo != 0)
        return DISP_E_BADINDEX;
    ITypeInfo* info = TypeInfo();
    if (info == nullptr)
        return TYPE_E_CANTLOADLIBRARY;
    info->AddRef();
    *ppTInfo = info;
    return S_OK;
}

STDMETHODIMP CBrennock::GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID,
                                      DISPID* ids)
{
    if (riid != IID_NULL)
        return DISP_E_UNKNOWNINTERFACE;
    ITypeInfo* info = TypeInfo();
    if (info == nullptr)
        return TYPE_E_CANTLOADLIBRARY;
    return DispGetIDsOfNames(info, names, count, ids);
}

STDMETHODIMP CBrennock::Invoke(DISPID id, REFIID riid, LCID, WORD flags, DISPPARAMS* params,
                               VARIANT* result, EXCEPINFO* excep, UINT* argErr)
{
    if (riid != IID_NULL)
        return DISP_E_UNKNOWNINTERFACE;
    ITypeInfo* info = TypeInfo();
    if (info == nullptr)
        return TYPE_E_CANTLOADLIBRARY;
    return DispInvoke(static_cast<IBrennock*>(this), info, id, flags, params, result, excep,
                      argErr);
}

// ---------------------------------------------------------------------------
// Connection points

STDMETHODIMP CBrennock::EnumConnectionPoints(IEnumConnectionPoints** ppEnum)
{
    return CreateConnectionPointEnum(&m_eventPoint, ppEnum);
}

STDMETHODIMP CBrennock::FindConnectionPoint(REFIID riid, IConnectionPoint** ppCP)
{
    if (ppCP == nullptr)
        return E_POINTER;
    *ppCP = nullptr;
    if (riid != DIID__IBrennockEvents)
        return CONNECT_E_NOCONNECTION;
    *ppCP = &m_eventPoint;
    m_eventPoint.AddRef();
    return S_OK;
}

HRESULT CBrennock::AdviseEventSink(IUnknown* sink, DWORD* cookie)
{
    return m_eventPoint.Advise(sink, cookie);
}

// ---------------------------------------------------------------------------
// Lifecycle

STDMETHODIMP CBrennock::Open(short* pRetVal)
{
    short ignored = 0;
    short& ok = (pRetVal != nullptr) ? *pRetVal : ignored;
    ok = 0;

    if (BrennockModule::Instance() == nullptr) {
        AssertAt(164);
        DebugOut(L"Open - No Instance.\r\n");
        return S_OK;
    }

    // Creation, in its fixed order. Every manager exists before any is opened,
    // so an open may fetch any other manager from the site.
    m_pDebugLog = new (std::nothrow) CDebugLog();
    if (m_pDebugLog == nullptr) {
        AssertAt(172);
        DebugOut(L"Open - new CDebugLog failed.\r\n");
        return S_OK;
    }
    m_pNVRAM = new (std::nothrow) CNVRAMBoard();
    if (m_pNVRAM == nullptr) {
        AssertAt(180);
        DebugOut(L"Open - new CNVRAMBoard failed.\r\n");
        return S_OK;
    }
    m_pStoredParams = new (std::nothrow) CStoredParams();
    if (m_pStoredParams == nullptr) {
        AssertAt(188);
        DebugOut(L"Open - new CStoredParams failed.\r\n");
        return S_OK;
    }
    m_pTestManager = new (std::nothrow) CTestManager(BrennockModule::Instance(), this);
    if (m_pTestManager == nullptr) {
        AssertAt(196);
        DebugOut(L"Open - new CTestManager failed.\r\n");
        return S_OK;
    }

    m_pGpio = new (std::nothrow) CGpioPins(BrennockModule::Instance(), static_cast<IManagerSite*>(this));
    if (m_pGpio == nullptr) {
        AssertAt(204);
        DebugOut(L"Open - Gpio manager create failed.\r\n");
        return S_OK;
    }
    m_pHC08 = new (std::nothrow) CHC08(BrennockModule::Instance(), static_cast<IManagerSite*>(this));
    if (m_pHC08 == nullptr) {
        AssertAt(212);
        DebugOut(L"Open - new HC08 failed.\r\n");
        return S_OK;
    }

    // Opening, in its own order: audio, NVRAM, stored parameters, test
    // manager, GPIO, microcontroller link, watch. The debug log is never
    // opened. A failure stops here with nothing undone; Close cleans up.
    if (!m_pNVRAM->Open()) {
        DebugOut(L"Open - on-board NVRAM open failed.\r\n");
        return S_OK;
    }
    if (!m_pStoredParams->Open()) {
        DebugOut(L"Open - USB Flash parameters open failed.\r\n");
        return S_OK;
    }
    if (!m_pTestManager->Open()) {
        AssertAt(256);
        DebugOut(L"Open - Test manager open failed.\r\n");
        return S_OK;
    }

    if (!m_pGpio->Init()) {
        AssertAt(264);
        DebugOut(L"Open - Gpio manager open failed.\r\n");
        return S_OK;
    }
    if (!m_pHC08->Open()) {
        DebugOut(L"Open - HC08 open failed.\r\n");
        return S_OK;
    }

    ok = 1;
    return S_OK;
}

STDMETHODIMP CBrennock::Close()
{
    // Close pass: GPIO, watch, microcontroller link, NVRAM, stored
    // parameters, test manager. The audio manager and the debug log are only
    // deleted.
    if (m_pGpio != nullptr)
        m_pGpio->Close();
    if (m_pHC08 != nullptr)
        m_pHC08->Close();
    if (m_pNVRAM != nullptr)
        m_pNVRAM->Close();
    if (m_pStoredParams != nullptr)
        m_pStoredParams->Close();
    if (m_pTestManager != nullptr)
        m_pTestManager->Close();

    // Delete pass: GPIO, watch, microcontroller link, NVRAM, stored
    // parameters, audio, test manager, debug log.
    if (m_pGpio != nullptr) {
        delete m_pGpio;
        m_pGpio = nullptr;
    }
    if (m_pHC08 != nullptr) {
        delete m_pHC08;
        m_pHC08 = nullptr;
    }
    if (m_pNVRAM != nullptr) {
        delete m_pNVRAM;
        m_pNVRAM = nullptr;
    }
    if (m_pStoredParams != nullptr) {
        delete m_pStoredParams;
        m_pStoredParams = nullptr;
    }
    if (m_pTestManager != nullptr) {
        delete m_pTestManager;
        m_pTestManager = nullptr;
    }
    if (m_pDebugLog != nullptr) {
        delete m_pDebugLog;
        m_pDebugLog = nullptr;
    }
    return S_OK;
}

// ---------------------------------------------------------------------------
// Script methods. Each checks that its manager exists; the forwarding to the
// manager arrives with the manager.

STDMETHODIMP CBrennock::SetWatchPower(short)
{
    BRENNOCK_GUARD(m_pWatch, L"SetWatchPower - Open() not called beforehand.\r\n");
    return S_OK;
}

STDMETHODIMP CBrennock::SetBacklightPower(short powerOn)
{
    BRENNOCK_GUARD(m_pGpio, L"SetBacklightPower - Open() not called beforehand.\r\n");
    if (!m_pGpio->SetBacklightPower(powerOn != 0)) {
        DebugOut(L"SetBacklightPower: setBacklightPower() failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::CancelBlinkLed(short ledID)
{
    BRENNOCK_GUARD(m_pGpio, L"CancelBlinkLed - Open() not called beforehand.\r\n");
    if (!m_pGpio->CancelBlinkLed(ledID)) {
        DebugOut(L"CancelBlinkLed: cancelBlinkLed() failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::BlinkLed(short ledID, short numBlinks, short msPerBlink)
{
    BRENNOCK_GUARD(m_pGpio, L"BlinkLed - Open() not called beforehand.\r\n");
    if (!m_pGpio->BlinkLed(ledID, numBlinks, msPerBlink)) {
        DebugOut(L"BlinkLed: blinkLed() failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SetLedState(short ledID, short turnOn)
{
    BRENNOCK_GUARD(m_pGpio, L"SetLedState - Open() not called beforehand.\r\n");
    if (!m_pGpio->SetLedState(ledID, turnOn != 0)) {
        DebugOut(L"SetLedState: setLedState() failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::get_PracticeMode(short* pVal)
{
    BRENNOCK_GUARD(m_pTestManager, L"get_PracticeMode - Open() not called beforehand.\r\n");
    if (pVal == nullptr)
        return E_FAIL;
    *pVal = m_pTestManager->InPracticeMode() ? 1 : 0;
    return S_OK;
}

STDMETHODIMP CBrennock::put_PracticeMode(short)
{
    // Practice mode follows from the provisioning; scripts cannot set it.
    return E_FAIL;
}

STDMETHODIMP CBrennock::ActivityConfig(short testID, BSTR testName, short maxDurationSecs, short uiTimeoutSecs)
{
    BRENNOCK_GUARD(m_pTestManager, L"ActivityConfig - Open() not called beforehand.\r\n");
    if (testName == nullptr) {
        DebugOut(L"ActivityConfig - null testName.\r\n");
        return E_FAIL;
    }
    if (!m_pTestManager->SetTestConfig(testID, testName, maxDurationSecs, uiTimeoutSecs)) {
        DebugOut(L"ActivityConfig - SetTestConfig failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::ActivityStart(short doBeep)
{
    BRENNOCK_GUARD(m_pTestManager, L"ActivityStart - Open() not called beforehand.\r\n");
    if (!m_pTestManager->ActivityStart(doBeep != 0)) {
        DebugOut(L"ActivityStart - ActivityStart failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::ActivityEndNormal()
{
    BRENNOCK_GUARD(m_pTestManager, L"ActivityEndNormal - Open() not called beforehand.\r\n");
    if (!m_pTestManager->ActivityEnd(true)) {
        DebugOut(L"ActivityEndNormal - ActivityEnd failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::ActivityCancel()
{
    BRENNOCK_GUARD(m_pTestManager, L"ActivityCancel - Open() not called beforehand.\r\n");
    if (!m_pTestManager->ActivityEnd(false)) {
        DebugOut(L"ActivityCancel - ActivityEnd failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::QuestionResponse(BSTR questionID, BSTR responseID)
{
    BRENNOCK_GUARD(m_pTestManager, L"QuestionResponse - Open() not called beforehand.\r\n");
    if (questionID == nullptr) {
        DebugOut(L"QuestionResponse - null questionID.\r\n");
        return E_FAIL;
    }
    if (responseID == nullptr) {
        DebugOut(L"QuestionResponse - null responseID.\r\n");
        return E_FAIL;
    }
    if (!m_pTestManager->RecordQuestionResponse(questionID, responseID)) {
        DebugOut(L"QuestionResponse - RecordQuestionResponse failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::WatchSaveStart(BSTR)
{
    BRENNOCK_GUARD(m_pWatch, L"WatchSaveStart - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::WatchSaveCancel()
{
    BRENNOCK_GUARD(m_pWatch, L"WatchSaveCancel - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::WatchDataDestroyStart()
{
    BRENNOCK_GUARD(m_pWatch, L"WatchDataDestroyStart - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::SimHC08Reset(short hc08Rev, short hc08Build, short resetSource, double tickHz, short postResult)
{
    BRENNOCK_GUARD(m_pHC08, L"SimHC08Reset - Open() not called beforehand.\r\n");
    if (!m_pHC08->SimHC08Reset(hc08Rev, hc08Build, resetSource, static_cast<long>(tickHz), postResult)) {
        DebugOut(L"SimHC08Reset - CHC08::SimHC08Reset failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimTimerGo(LONG ticksAtGo)
{
    BRENNOCK_GUARD(m_pHC08, L"SimTimerGo - Open() not called beforehand.\r\n");
    if (!m_pHC08->SimTimerGo(static_cast<DWORD>(ticksAtGo))) {
        DebugOut(L"SimTimerGo - CHC08::SimTimerGo failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimTimerRollover()
{
    BRENNOCK_GUARD(m_pHC08, L"SimTimerRollover - Open() not called beforehand.\r\n");
    if (!m_pHC08->SimTimerRollover()) {
        DebugOut(L"SimTimerRollover - CHC08::SimTimerRollover failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimDigitoLeftDownward(LONG ticksSinceGo, LONG bDeltaTicks)
{
    BRENNOCK_GUARD(m_pHC08, L"SimDigitoLeftDownward - Open() not called beforehand.\r\n");
    if (!m_pHC08->SimDigitoLeftDownward(static_cast<DWORD>(ticksSinceGo), static_cast<DWORD>(bDeltaTicks))) {
        DebugOut(L"SimDigitoLeftDownward - CHC08::SimDigitoLeftDownward failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimDigitoLeftUpward(LONG ticksSinceGo, LONG bDeltaTicks)
{
    BRENNOCK_GUARD(m_pHC08, L"SimDigitoLeftUpward - Open() not called beforehand.\r\n");
    if (!m_pHC08->SimDigitoLeftUpward(static_cast<DWORD>(ticksSinceGo), static_cast<DWORD>(bDeltaTicks))) {
        DebugOut(L"SimDigitoLeftUpward - CHC08::SimDigitoLeftUpward failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimDigitoRightDownward(LONG ticksSinceGo, LONG bDeltaTicks)
{
    BRENNOCK_GUARD(m_pHC08, L"SimDigitoRightDownward - Open() not called beforehand.\r\n");
    if (!m_pHC08->SimDigitoRightDownward(static_cast<DWORD>(ticksSinceGo), static_cast<DWORD>(bDeltaTicks))) {
        DebugOut(L"SimDigitoRightDownward - CHC08::SimDigitoRightDownward failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimDigitoRightUpward(LONG ticksSinceGo, LONG bDeltaTicks)
{
    BRENNOCK_GUARD(m_pHC08, L"SimDigitoRightUpward - Open() not called beforehand.\r\n");
    if (!m_pHC08->SimDigitoRightUpward(static_cast<DWORD>(ticksSinceGo), static_cast<DWORD>(bDeltaTicks))) {
        DebugOut(L"SimDigitoRightUpward - CHC08::SimDigitoRightUpward failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimCapsitLeftDown(LONG ticksSinceGo)
{
    BRENNOCK_GUARD(m_pHC08, L"SimCapsitLeftDown - Open() not called beforehand.\r\n");
    if (!m_pHC08->SimCapsitLeftDown(static_cast<DWORD>(ticksSinceGo))) {
        DebugOut(L"SimCapsitLeftDown - CHC08::SimCapsitLeftDown failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimCapsitLeftUp(LONG ticksSinceGo)
{
    BRENNOCK_GUARD(m_pHC08, L"SimCapsitLeftUp - Open() not called beforehand.\r\n");
    if (!m_pHC08->SimCapsitLeftUp(static_cast<DWORD>(ticksSinceGo))) {
        DebugOut(L"SimCapsitLeftUp - CHC08::SimCapsitLeftUp failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimCapsitRightDown(LONG ticksSinceGo)
{
    BRENNOCK_GUARD(m_pHC08, L"SimCapsitRightDown - Open() not called beforehand.\r\n");
    if (!m_pHC08->SimCapsitRightDown(static_cast<DWORD>(ticksSinceGo))) {
        DebugOut(L"SimCapsitRightDown - CHC08::SimCapsitRightDown failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimCapsitRightUp(LONG ticksSinceGo)
{
    BRENNOCK_GUARD(m_pHC08, L"SimCapsitRightUp - Open() not called beforehand.\r\n");
    if (!m_pHC08->SimCapsitRightUp(static_cast<DWORD>(ticksSinceGo))) {
        DebugOut(L"SimCapsitRightUp - CHC08::SimCapsitRightUp failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimPegsMap(LONG ticksSinceGo, short pegsInLeft, short pegsInRight)
{
    BRENNOCK_GUARD(m_pHC08, L"SimPegsMap - Open() not called beforehand.\r\n");
    if (!m_pHC08->SimPegsMap(static_cast<DWORD>(ticksSinceGo), static_cast<WORD>(pegsInLeft), static_cast<WORD>(pegsInRight))) {
        DebugOut(L"SimPegsMap - CHC08::SimPegsMap failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimWatchVisible(short isVisible)
{
    // Watch presence is a GPIO input, so this goes to the GPIO manager.
    BRENNOCK_GUARD(m_pGpio, L"SimWatchVisible - Open() not called beforehand.\r\n");
    if (!m_pGpio->SimWatchVisible(isVisible)) {
        DebugOut(L"SimWatchVisible - pWatch->SimWatchVisible failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimWatchSaveProgress(short)
{
    return S_OK;
}

STDMETHODIMP CBrennock::AudioPlay(BSTR)
{
    BRENNOCK_GUARD(m_pAudio, L"AudioPlay - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::CancelAudioPlay()
{
    BRENNOCK_GUARD(m_pAudio, L"AudioPlay - Open() not called beforehand.\r\n");
    return S_OK;
}

STDMETHODIMP CBrennock::TimerStart(short timerID, double intervalSecs)
{
    BRENNOCK_GUARD(m_pGpio, L"TimerStart - Open() not called beforehand.\r\n");
    if (!m_pGpio->TimerStart(timerID, intervalSecs)) {
        DebugOut(L"TimerStart: m_pGpio->TimerStart() failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::CancelTimer(short timerID)
{
    BRENNOCK_GUARD(m_pGpio, L"CancelTimer - Open() not called beforehand.\r\n");
    if (!m_pGpio->CancelTimer(timerID)) {
        DebugOut(L"CancelTimer: m_pGpio->CancelTimer() failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::get_CurrentFolder(BSTR* pVal)
{
    BRENNOCK_GUARD(m_pTestManager, L"get_CurrentFolder - Open() not called beforehand.\r\n");
    if (pVal == nullptr)
        return E_FAIL;
    const wchar_t* folder = m_pTestManager->CurrentFolder();
    ASSERT(folder != nullptr);
    *pVal = SysAllocString(folder != nullptr ? folder : L"");
    return S_OK;
}

STDMETHODIMP CBrennock::put_CurrentFolder(BSTR newVal)
{
    BRENNOCK_GUARD(m_pTestManager, L"put_CurrentFolder - Open() not called beforehand.\r\n");
    if (newVal == nullptr) {
        DebugOut(L"put_CurrentFolder - null folder name.\r\n");
        return E_FAIL;
    }
    if (!m_pTestManager->SetCurrentFolder(newVal)) {
        DebugOut(L"put_CurrentFolder - SetCurrentFolder failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::ActivityBeep()
{
    BRENNOCK_GUARD(m_pTestManager, L"ActivityBeep - Open() not called beforehand.\r\n");
    if (!m_pTestManager->ActivityBeep()) {
        DebugOut(L"ActivityBeep - ActivityBeep failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::get_HaveHardware(short* pVal)
{
    BRENNOCK_GUARD(m_pTestManager, L"get_HaveHardware - Open() not called beforehand.\r\n");
    if (pVal == nullptr)
        return E_FAIL;
    *pVal = m_pTestManager->HaveHardware() ? 1 : 0;
    return S_OK;
}

STDMETHODIMP CBrennock::SimLidMoved(short isOpen)
{
    BRENNOCK_GUARD(m_pGpio, L"SimLidMoved - Open() not called beforehand.\r\n");
    if (!m_pGpio->SimLidMoved(isOpen)) {
        DebugOut(L"SimLidMoved: CGpio::SimLidMoved() failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::get_FreeStoreMB(short* pVal)
{
    BRENNOCK_GUARD(m_pTestManager, L"get_FreeStoreMB - Open() not called beforehand.\r\n");
    if (pVal == nullptr)
        return E_FAIL;
    *pVal = m_pTestManager->FreeStoreMB();
    return S_OK;
}

STDMETHODIMP CBrennock::get_RecFormat(BSTR*)
{
    BRENNOCK_GUARD(m_pAudio, L"get_RecFormat - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::put_RecFormat(BSTR)
{
    BRENNOCK_GUARD(m_pAudio, L"put_RecFormat - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::get_RecStartTimeoutS(short*)
{
    // The getter reports with the putter's name.
    BRENNOCK_GUARD(m_pAudio, L"put_RecStartTimeoutS - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::put_RecStartTimeoutS(short)
{
    BRENNOCK_GUARD(m_pAudio, L"put_RecStartTimeoutS - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::AudioRecord(short, short)
{
    BRENNOCK_GUARD(m_pAudio, L"AudioRecord - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::CancelAudioRecord()
{
    BRENNOCK_GUARD(m_pAudio, L"CancelAudioRecord - Open() not called beforehand.\r\n");
    return S_OK;
}

STDMETHODIMP CBrennock::DebugWrite(BSTR message)
{
    BRENNOCK_GUARD(m_pDebugLog, L"DebugWrite - Open() not called beforehand.\r\n");
    if (message == nullptr) {
        DebugOut(L"DebugWrite - null message.\r\n");
        return E_FAIL;
    }
    m_pDebugLog->Write(message);
    return S_OK;
}

STDMETHODIMP CBrennock::Reboot()
{
    BRENNOCK_GUARD(m_pGpio, L"Reboot - Open() not called beforehand.\r\n");
    m_pGpio->Reboot();
    return S_OK;
}

STDMETHODIMP CBrennock::get_InSessionWindow(short* pVal)
{
    BRENNOCK_GUARD(m_pTestManager, L"get_InSessionWindow - Open() not called beforehand.\r\n");
    SYSTEMTIME start, end;
    bool inWindow = false;
    if (pVal == nullptr || !m_pTestManager->GetNextSessionBounds(&start, &end, &inWindow))
        return E_FAIL;
    *pVal = inWindow ? 1 : 0;
    return S_OK;
}

// The start or end of the next session window as long date/time text.
static HRESULT SessionBoundText(CTestManager* manager, bool wantStart, BSTR* whenDateTime)
{
    SYSTEMTIME start, end;
    bool inWindow = false;
    if (whenDateTime == nullptr || !manager->GetNextSessionBounds(&start, &end, &inWindow))
        return E_FAIL;
    wchar_t* text = SystemDateTimeToScript(wantStart ? &start : &end, true);
    if (text == nullptr)
        return E_FAIL;
    *whenDateTime = SysAllocString(text);
    delete[] text;
    return S_OK;
}

STDMETHODIMP CBrennock::GetNextSessionStart(BSTR* whenDateTime)
{
    // Both bounds report with the window query's name.
    BRENNOCK_GUARD(m_pTestManager, L"get_InSessionWindow - Open() not called beforehand.\r\n");
    return SessionBoundText(m_pTestManager, true, whenDateTime);
}

STDMETHODIMP CBrennock::GetNextSessionEnd(BSTR* whenDateTime)
{
    BRENNOCK_GUARD(m_pTestManager, L"get_InSessionWindow - Open() not called beforehand.\r\n");
    return SessionBoundText(m_pTestManager, false, whenDateTime);
}

STDMETHODIMP CBrennock::SessionStart()
{
    BRENNOCK_GUARD(m_pTestManager, L"SessionStart - Open() not called beforehand.\r\n");
    return m_pTestManager->SessionStart() ? S_OK : E_FAIL;
}

STDMETHODIMP CBrennock::SessionEndNormal()
{
    BRENNOCK_GUARD(m_pTestManager, L"SessionEndNormal - Open() not called beforehand.\r\n");
    return m_pTestManager->SessionEnd(true) ? S_OK : E_FAIL;
}

STDMETHODIMP CBrennock::SessionCancel()
{
    BRENNOCK_GUARD(m_pTestManager, L"SessionCancel - Open() not called beforehand.\r\n");
    return m_pTestManager->SessionEnd(false) ? S_OK : E_FAIL;
}

// A manager's new[] text as the script's string: a null text (the manager
// failed and said why) reads as empty. The manager's text is released here.
static void TakeText(wchar_t* text, BSTR* value)
{
    *value = SysAllocString(text != nullptr ? text : L"");
    delete[] text;
}

STDMETHODIMP CBrennock::NVParameterRead(BSTR keyName, BSTR defaultVal, BSTR* value)
{
    BRENNOCK_GUARD(m_pNVRAM, L"NVParameterRead - Open() not called beforehand.\r\n");
    if (keyName == nullptr) {
        DebugOut(L"NVParameterRead - null keyName.\r\n");
        return E_FAIL;
    }
    if (defaultVal == nullptr) {
        DebugOut(L"NVParameterRead - null defaultVal.\r\n");
        return E_FAIL;
    }
    if (value == nullptr)
        return E_FAIL;
    TakeText(m_pNVRAM->NVParameterRead(keyName, defaultVal), value);
    return S_OK;
}

STDMETHODIMP CBrennock::NVParameterWrite(BSTR keyName, BSTR value)
{
    BRENNOCK_GUARD(m_pNVRAM, L"NVParameterWrite - Open() not called beforehand.\r\n");
    if (keyName == nullptr) {
        DebugOut(L"NVParameterWrite - null keyName.\r\n");
        return E_FAIL;
    }
    if (value == nullptr) {
        DebugOut(L"NVParameterWrite - null value.\r\n");
        return E_FAIL;
    }
    return m_pNVRAM->NVParameterWrite(keyName, value) ? S_OK : E_FAIL;
}

STDMETHODIMP CBrennock::ParameterRead(BSTR keyName, BSTR defaultVal, BSTR* value)
{
    BRENNOCK_GUARD(m_pStoredParams, L"ParameterRead - Open() not called beforehand.\r\n");
    if (keyName == nullptr) {
        DebugOut(L"ParameterRead - null keyName.\r\n");
        return E_FAIL;
    }
    if (defaultVal == nullptr) {
        DebugOut(L"ParameterRead - null defaultVal.\r\n");
        return E_FAIL;
    }
    if (value == nullptr)
        return E_FAIL;
    TakeText(m_pStoredParams->ParameterRead(keyName, defaultVal), value);
    return S_OK;
}

STDMETHODIMP CBrennock::get_RecAvgVolumeStart(short*)
{
    BRENNOCK_GUARD(m_pAudio, L"get_RecAvgVolumeStart - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::put_RecAvgVolumeStart(short)
{
    BRENNOCK_GUARD(m_pAudio, L"put_RecAvgVolumeStart - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::get_RecAvgVolumeStop(short*)
{
    BRENNOCK_GUARD(m_pAudio, L"get_RecAvgVolumeStop - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::put_RecAvgVolumeStop(short)
{
    BRENNOCK_GUARD(m_pAudio, L"put_RecAvgVolumeStop - Open() not called beforehand.\r\n");
    return E_FAIL;
}

STDMETHODIMP CBrennock::SimDataStoreVisible(short isVisible)
{
    BRENNOCK_GUARD(m_pGpio, L"SimDataStoreVisible - Open() not called beforehand.\r\n");
    if (!m_pGpio->SimDataStoreVisible(isVisible)) {
        DebugOut(L"SimDataStoreVisible: SimDataStoreVisible() failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::SimWatchDataDestroyEnded(short)
{
    // Kept in the interface for old scripts; it never did anything.
    return E_FAIL;
}

STDMETHODIMP CBrennock::get_MaskWithNoise(short* pVal)
{
    BRENNOCK_GUARD(m_pHC08, L"get_MaskWithNoise - Open() not called beforehand.\r\n");
    if (pVal == nullptr)
        return E_FAIL;
    *pVal = m_pHC08->NoiseOn() ? 1 : 0;
    return S_OK;
}

STDMETHODIMP CBrennock::put_MaskWithNoise(short newVal)
{
    BRENNOCK_GUARD(m_pHC08, L"put_MaskWithNoise - Open() not called beforehand.\r\n");
    if (!m_pHC08->SetNoiseOn(newVal != 0)) {
        DebugOut(L"put_MaskWithNoise - CHC08::SetNoiseOn failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::AssertWrite(BSTR filename, short lineNum, BSTR message)
{
    if (filename == nullptr) {
        DebugOut(L"AssertWrite: null filename.\r\n");
        return E_FAIL;
    }
    if (message == nullptr) {
        DebugOut(L"AssertWrite: null message.\r\n");
        return E_FAIL;
    }
    ::AssertWrite(filename, lineNum, message);
    return S_OK;
}

// ---------------------------------------------------------------------------
// IManagerSite

CTestManager* CBrennock::GetTestManager()
{
    ASSERT(m_pTestManager != nullptr);
    return m_pTestManager;
}

CDebugLog* CBrennock::GetDebugLog()
{
    ASSERT(m_pDebugLog != nullptr);
    return m_pDebugLog;
}

CGpioPins* CBrennock::GetGpio()
{
    ASSERT(m_pGpio != nullptr);
    return m_pGpio;
}

CWatch* CBrennock::GetWatch()
{
    ASSERT(m_pWatch != nullptr);
    return m_pWatch;
}

CHC08* CBrennock::GetHC08()
{
    ASSERT(m_pHC08 != nullptr);
    return m_pHC08;
}

CNVRAMBoard* CBrennock::GetNVRAM()
{
    ASSERT(m_pNVRAM != nullptr);
    return m_pNVRAM;
}

CStoredParams* CBrennock::GetStoredParams()
{
    ASSERT(m_pStoredParams != nullptr);
    return m_pStoredParams;
}

IHC08EventSink* CBrennock::GetHC08EventSink()
{
    return this;
}

IGpioEventSink* CBrennock::GetGpioEventSink()
{
    return this;
}

IWatchEventSink* CBrennock::GetWatchEventSink()
{
    return this;
}

IAudioEventSink* CBrennock::GetAudioEventSink()
{
    return this;
}

ITestManagerEventSink* CBrennock::GetTestManagerEventSink()
{
    return this;
}

// ---------------------------------------------------------------------------
// Event firing

CBrennock::EventArg CBrennock::I2(short v)
{
    EventArg a;
    a.vt = VT_I2;
    a.i2 = v;
    return a;
}

CBrennock::EventArg CBrennock::I4(long v)
{
    EventArg a;
    a.vt = VT_I4;
    a.i4 = v;
    return a;
}

CBrennock::EventArg CBrennock::R8(double v)
{
    EventArg a;
    a.vt = VT_R8;
    a.r8 = v;
    return a;
}

long CBrennock::Fire(DISPID id, const EventArg* args, int count, bool wantResult)
{
    VARIANT* vars = nullptr;
    if (count > 0) {
        vars = new (std::nothrow) VARIANT[count];
        if (vars == nullptr)
            return 0;  // no room for the arguments: the event is dropped
        for (int i = 0; i < count; ++i)
            VariantInit(&vars[i]);
    }
    VARIANT result;
    ZeroMemory(&result, sizeof(result));
    VariantInit(&result);

    const int slots = m_eventPoint.SlotCount();
    for (int slot = 0; slot < slots; ++slot) {
        IDispatch* sink = m_eventPoint.SinkAt(slot);
        if (sink == nullptr)
            continue;

        // Fresh arguments for every sink, last parameter first.
        for (int i = 0; i < count; ++i) {
            const EventArg& a = args[count - 1 - i];
            VariantClear(&vars[i]);
            vars[i].vt = a.vt;
            switch (a.vt) {
            case VT_I2: vars[i].iVal = a.i2; break;
            case VT_I4: vars[i].lVal = a.i4; break;
            case VT_R8: vars[i].dblVal = a.r8; break;
            default: break;
            }
        }
        DISPPARAMS params = {vars, nullptr, static_cast<UINT>(count), 0};
        if (wantResult)
            VariantClear(&result);
        sink->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params,
                     wantResult ? &result : nullptr, nullptr, nullptr);
        sink->Release();
    }

    if (vars != nullptr) {
        for (int i = 0; i < count; ++i)
            VariantClear(&vars[i]);
        delete[] vars;
    }
    long value = result.lVal;
    VariantClear(&result);
    return value;
}

// IHC08EventSink

void CBrennock::Attach(CHC08*) {}

void CBrennock::TimerGo(long ticksAtGo)
{
    Fire(3, {I4(ticksAtGo)});
}

void CBrennock::TimerRollover()
{
    Fire(4, nullptr, 0, false);
}

void CBrennock::DigitoLeftDownward(long ticksSinceGo, long bDeltaTicks)
{
    Fire(5, {I4(ticksSinceGo), I4(bDeltaTicks)});
}

void CBrennock::DigitoLeftUpward(long ticksSinceGo, long bDeltaTicks)
{
    Fire(6, {I4(ticksSinceGo), I4(bDeltaTicks)});
}

void CBrennock::DigitoRightDownward(long ticksSinceGo, long bDeltaTicks)
{
    Fire(7, {I4(ticksSinceGo), I4(bDeltaTicks)});
}

void CBrennock::DigitoRightUpward(long ticksSinceGo, long bDeltaTicks)
{
    Fire(8, {I4(ticksSinceGo), I4(bDeltaTicks)});
}

void CBrennock::CapsitLeftDown(long ticksSinceGo)
{
    Fire(9, {I4(ticksSinceGo)});
}

void CBrennock::CapsitLeftUp(long ticksSinceGo)
{
    Fire(10, {I4(ticksSinceGo)});
}

void CBrennock::CapsitRightDown(long ticksSinceGo)
{
    Fire(11, {I4(ticksSinceGo)});
}

void CBrennock::CapsitRightUp(long ticksSinceGo)
{
    Fire(12, {I4(ticksSinceGo)});
}

void CBrennock::PegsMap(long ticksSinceGo, short pegsInLeft, short pegsInRight)
{
    Fire(13, {I4(ticksSinceGo), I2(pegsInLeft), I2(pegsInRight)});
}

void CBrennock::HC08Reset(short hc08Rev, short hc08Build, short resetSource, long tickHz,
                          short postResult)
{
    Fire(19, {I2(hc08Rev), I2(hc08Build), I2(resetSource), R8(static_cast<double>(tickHz)),
              I2(postResult)});
}

// IGpioEventSink

void CBrennock::Attach(CGpioPins*) {}

void CBrennock::BlinkEnded(short ledID)
{
    Fire(1, {I2(-1), I2(ledID)});
}

void CBrennock::TimerEnded(short endCauseID, short timerID)
{
    Fire(21, {I2(endCauseID), I2(timerID)});
}

void CBrennock::LidMoved(bool isOpen)
{
    Fire(22, {I2(isOpen ? 1 : 0)});
}

long CBrennock::DataStoreVisible(short isVisible)
{
    return Fire(26, {I2(isVisible)}, true);
}

// IWatchEventSink

void CBrennock::WatchVisible(bool isVisible)
{
    Fire(2, {I2(isVisible ? 1 : 0)});
}

long CBrennock::WatchParametersRead(short endCauseID)
{
    return Fire(27, {I2(endCauseID)}, true);
}

void CBrennock::WatchSaveProgress(short percent)
{
    Fire(15, {I2(percent)});
}

void CBrennock::WatchSaveEnded(short endCauseID)
{
    Fire(16, {I2(endCauseID)});
}

void CBrennock::WatchDataDestroyEnded(short endCauseID)
{
    Fire(17, {I2(endCauseID)});
}

// IAudioEventSink

void CBrennock::AudioPlayEnded(short endCauseID)
{
    Fire(20, {I2(endCauseID)});
}

void CBrennock::AudioRecordEnded(short endCauseID)
{
    Fire(23, {I2(endCauseID)});
}

void CBrennock::AudioRecordProgress(short maxVolume, short secondsRecorded)
{
    Fire(24, {I2(maxVolume), I2(secondsRecorded)});
}

// ITestManagerEventSink

long CBrennock::SessionEnded(short endCauseID)
{
    return Fire(25, {I2(endCauseID)}, true);
}

void CBrennock::ActivityEnded(short causeID, short testID)
{
    Fire(14, {I2(causeID), I2(testID)});
}
