#include "control/Brennock.h"

#include <new>

#include <olectl.h>

#include "audio/Audio.h"
#include "control/Module.h"
#include "diag/Assert.h"
#include "diag/DebugLog.h"
#include "diag/DebugOut.h"
#include "mcu/HC08.h"
#include "panel/GpioPins.h"
#include "session/NVRAMBoard.h"
#include "session/StoredParams.h"
#include "session/TestManager.h"
#include "watch/Watch.h"

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
      m_eventPoint(this, DIID__IBrennockEvents, &m_lock.section),
      m_pTypeInfo(nullptr)
{
    BrennockModule::Lock();
}

CBrennock::~CBrennock()
{
    m_eventPoint.UnadviseAll();
    if (m_pTypeInfo != nullptr)
        m_pTypeInfo->Release();
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
    EnterCriticalSection(&m_lock.section);
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
    LeaveCriticalSection(&m_lock.section);
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
    m_pWatch = new (std::nothrow) CWatch(BrennockModule::Instance(), static_cast<IManagerSite*>(this));
    if (m_pWatch == nullptr) {
        AssertAt(220);
        DebugOut(L"Open - new CWatch failed.\r\n");
        return S_OK;
    }
    m_pAudio = new (std::nothrow) CAudio(BrennockModule::Instance(), static_cast<IManagerSite*>(this));
    if (m_pAudio == nullptr) {
        AssertAt(228);
        DebugOut(L"Open - new CAudio failed.\r\n");
        return S_OK;
    }

    // Opening, in its own order: audio, NVRAM, stored parameters, test
    // manager, GPIO, microcontroller link, watch. The debug log is never
    // opened. A failure stops here with nothing undone; Close cleans up.
    if (!m_pAudio->Init()) {
        AssertAt(233);
        DebugOut(L"Open - CAudio::Init failed.");
        return S_OK;
    }
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
    if (!m_pWatch->Open()) {
        AssertAt(278);
        DebugOut(L"Open - Watch open failed.\r\n");
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
    if (m_pWatch != nullptr)
        m_pWatch->Close();
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
    if (m_pWatch != nullptr) {
        delete m_pWatch;
        m_pWatch = nullptr;
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
    if (m_pAudio != nullptr) {
        delete m_pAudio;
        m_pAudio = nullptr;
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
