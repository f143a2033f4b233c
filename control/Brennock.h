// CBrennock: the control object. It owns the eight managers, opens and closes
// them in their fixed orders, guards every script method on the manager it
// needs, and turns the managers' sink calls into script events.
#pragma once

#include <windows.h>
#include <ocidl.h>

#include "control/ConnectionPoint.h"
#include "control/EventSinks.h"
#include "control/Guids.h"
#include "control/ManagerSite.h"
#include "control/OleControl.h"

class CAudio;

class CBrennock final : public IBrennock,
                        public IConnectionPointContainer,
                        public COleControlBase,
                        public IManagerSite,
                        public IHC08EventSink,
                        public IGpioEventSink,
                        public IWatchEventSink,
                        public IAudioEventSink,
                        public ITestManagerEventSink
{
public:
    // The class factory's creation function: a plain object, or an aggregated
    // one when outer is given (then riid must be IID_IUnknown).
    static HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** ppv);

    // IUnknown (delegates to the controlling unknown)
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;

    // IDispatch, over the type library
    STDMETHODIMP GetTypeInfoCount(UINT* pctinfo) override;
    STDMETHODIMP GetTypeInfo(UINT iTInfo, LCID lcid, ITypeInfo** ppTInfo) override;
    STDMETHODIMP GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID lcid,
                               DISPID* ids) override;
    STDMETHODIMP Invoke(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params,
                        VARIANT* result, EXCEPINFO* excep, UINT* argErr) override;

    // IBrennock, in slot order
    STDMETHODIMP Open(short* pRetVal) override;
    STDMETHODIMP Close() override;
    STDMETHODIMP SetWatchPower(short powerOn) override;
    STDMETHODIMP SetBacklightPower(short powerOn) override;
    STDMETHODIMP CancelBlinkLed(short ledID) override;
    STDMETHODIMP BlinkLed(short ledID, short numBlinks, short msPerBlink) override;
    STDMETHODIMP SetLedState(short ledID, short turnOn) override;
    STDMETHODIMP get_PracticeMode(short* pVal) override;
    STDMETHODIMP put_PracticeMode(short newVal) override;
    STDMETHODIMP ActivityConfig(short testID, BSTR testName, short maxDurationSecs,
                                short uiTimeoutSecs) override;
    STDMETHODIMP ActivityStart(short doBeep) override;
    STDMETHODIMP ActivityEndNormal() override;
    STDMETHODIMP ActivityCancel() override;
    STDMETHODIMP QuestionResponse(BSTR questionID, BSTR responseID) override;
    STDMETHODIMP WatchSaveStart(BSTR dataName) override;
    STDMETHODIMP WatchSaveCancel() override;
    STDMETHODIMP WatchDataDestroyStart() override;
    STDMETHODIMP SimHC08Reset(short hc08Rev, short hc08Build, short resetSource, double tickHz,
                              short postResult) override;
    STDMETHODIMP SimTimerGo(LONG ticksAtGo) override;
    STDMETHODIMP SimTimerRollover() override;
    STDMETHODIMP SimDigitoLeftDownward(LONG ticksSinceGo, LONG bDeltaTicks) override;
    STDMETHODIMP SimDigitoLeftUpward(LONG ticksSinceGo, LONG bDeltaTicks) override;
    STDMETHODIMP SimDigitoRightDownward(LONG ticksSinceGo, LONG bDeltaTicks) override;
    STDMETHODIMP SimDigitoRightUpward(LONG ticksSinceGo, LONG bDeltaTicks) override;
    STDMETHODIMP SimCapsitLeftDown(LONG ticksSinceGo) override;
    STDMETHODIMP SimCapsitLeftUp(LONG ticksSinceGo) override;
    STDMETHODIMP SimCapsitRightDown(LONG ticksSinceGo) override;
    STDMETHODIMP SimCapsitRightUp(LONG ticksSinceGo) override;
    STDMETHODIMP SimPegsMap(LONG ticksSinceGo, short pegsInLeft, short pegsInRight) override;
    STDMETHODIMP SimWatchVisible(short isVisible) override;
    STDMETHODIMP SimWatchSaveProgress(short percent) override;
    STDMETHODIMP AudioPlay(BSTR filename) override;
    STDMETHODIMP CancelAudioPlay() override;
    STDMETHODIMP TimerStart(short timerID, double intervalSecs) override;
    STDMETHODIMP CancelTimer(short timerID) override;
    STDMETHODIMP get_CurrentFolder(BSTR* pVal) override;
    STDMETHODIMP put_CurrentFolder(BSTR newVal) override;
    STDMETHODIMP ActivityBeep() override;
    STDMETHODIMP get_HaveHardware(short* pVal) override;
    STDMETHODIMP SimLidMoved(short isOpen) override;
    STDMETHODIMP get_FreeStoreMB(short* pVal) override;
    STDMETHODIMP get_RecFormat(BSTR* pVal) override;
    STDMETHODIMP put_RecFormat(BSTR newVal) override;
    STDMETHODIMP get_RecStartTimeoutS(short* pVal) override;
    STDMETHODIMP put_RecStartTimeoutS(short newVal) override;
    STDMETHODIMP AudioRecord(short recordFlags, short maxSeconds) override;
    STDMETHODIMP CancelAudioRecord() override;
    STDMETHODIMP DebugWrite(BSTR message) override;
    STDMETHODIMP Reboot() override;
    STDMETHODIMP get_InSessionWindow(short* pVal) override;
    STDMETHODIMP GetNextSessionStart(BSTR* whenDateTime) override;
    STDMETHODIMP GetNextSessionEnd(BSTR* whenDateTime) override;
    STDMETHODIMP SessionStart() override;
    STDMETHODIMP SessionEndNormal() override;
    STDMETHODIMP SessionCancel() override;
    STDMETHODIMP NVParameterRead(BSTR keyName, BSTR defaultVal, BSTR* value) override;
    STDMETHODIMP NVParameterWrite(BSTR keyName, BSTR value) override;
    STDMETHODIMP ParameterRead(BSTR keyName, BSTR defaultVal, BSTR* value) override;
    STDMETHODIMP get_RecAvgVolumeStart(short* pVal) override;
    STDMETHODIMP put_RecAvgVolumeStart(short newVal) override;
    STDMETHODIMP get_RecAvgVolumeStop(short* pVal) override;
    STDMETHODIMP put_RecAvgVolumeStop(short newVal) override;
    STDMETHODIMP SimDataStoreVisible(short isVisible) override;
    STDMETHODIMP SimWatchDataDestroyEnded(short endCauseID) override;
    STDMETHODIMP get_MaskWithNoise(short* pVal) override;
    STDMETHODIMP put_MaskWithNoise(short newVal) override;
    STDMETHODIMP AssertWrite(BSTR filename, short lineNum, BSTR message) override;

    // IConnectionPointContainer
    STDMETHODIMP EnumConnectionPoints(IEnumConnectionPoints** ppEnum) override;
    STDMETHODIMP FindConnectionPoint(REFIID riid, IConnectionPoint** ppCP) override;

    // IManagerSite
    CTestManager* GetTestManager() override;
    CDebugLog* GetDebugLog() override;
    CGpioPins* GetGpio() override;
    CWatch* GetWatch() override;
    CHC08* GetHC08() override;
    CNVRAMBoard* GetNVRAM() override;
    CStoredParams* GetStoredParams() override;
    IHC08EventSink* GetHC08EventSink() override;
    IGpioEventSink* GetGpioEventSink() override;
    IWatchEventSink* GetWatchEventSink() override;
    IAudioEventSink* GetAudioEventSink() override;
    ITestManagerEventSink* GetTestManagerEventSink() override;

    // IHC08EventSink
    void Attach(CHC08* pHC08) override;
    void TimerGo(long ticksAtGo) override;
    void TimerRollover() override;
    void DigitoLeftDownward(long ticksSinceGo, long bDeltaTicks) override;
    void DigitoLeftUpward(long ticksSinceGo, long bDeltaTicks) override;
    void DigitoRightDownward(long ticksSinceGo, long bDeltaTicks) override;
    void DigitoRightUpward(long ticksSinceGo, long bDeltaTicks) override;
    void CapsitLeftDown(long ticksSinceGo) override;
    void CapsitLeftUp(long ticksSinceGo) override;
    void CapsitRightDown(long ticksSinceGo) override;
    void CapsitRightUp(long ticksSinceGo) override;
    void PegsMap(long ticksSinceGo, short pegsInLeft, short pegsInRight) override;
    void HC08Reset(short hc08Rev, short hc08Build, short resetSource, long tickHz,
                   short postResult) override;

    // IGpioEventSink
    void Attach(CGpioPins* pGpio) override;
    void BlinkEnded(short ledID) override;
    void TimerEnded(short endCauseID, short timerID) override;
    void LidMoved(bool isOpen) override;
    long DataStoreVisible(short isVisible) override;

    // IWatchEventSink
    void WatchVisible(bool isVisible) override;
    long WatchParametersRead(short endCauseID) override;
    void WatchSaveProgress(short percent) override;
    void WatchSaveEnded(short endCauseID) override;
    void WatchDataDestroyEnded(short endCauseID) override;

    // IAudioEventSink
    void AudioPlayEnded(short endCauseID) override;
    void AudioRecordEnded(short endCauseID) override;
    void AudioRecordProgress(short maxVolume, short secondsRecorded) override;

    // ITestManagerEventSink
    long SessionEnded(short endCauseID) override;
    void ActivityEnded(short causeID, short testID) override;

protected:
    HRESULT AdviseEventSink(IUnknown* sink, DWORD* cookie) override;

private:
    explicit CBrennock(IUnknown* outer);
    ~CBrennock();

    // The object's own (non-delegating) unknown: the identity when aggregated.
    class CInnerUnknown final : public IUnknown
    {
    public:
        explicit CInnerUnknown(CBrennock* owner) : m_owner(owner) {}
        STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
        STDMETHODIMP_(ULONG) AddRef() override;
        STDMETHODIMP_(ULONG) Release() override;

    private:
        CBrennock* m_owner;
    };

    struct EventArg
    {
        VARTYPE vt;
        union {
            SHORT i2;
            LONG i4;
            double r8;
        };
    };
    static EventArg I2(short v);
    static EventArg I4(long v);
    static EventArg R8(double v);

    // Fires one event to every advised sink; for the events that return a
    // value, hands back the value field of the last sink's result.
    long Fire(DISPID id, const EventArg* args, int count, bool wantResult);
    template <size_t N>
    long Fire(DISPID id, const EventArg (&args)[N], bool wantResult = false)
    {
        return Fire(id, args, static_cast<int>(N), wantResult);
    }

    HRESULT InternalQueryInterface(REFIID riid, void** ppv);
    void FinalRelease();
    ITypeInfo* TypeInfo();

    // Managers, all owned; the control counts as open for a method when the
    // manager it needs exists.
    CTestManager* m_pTestManager;
    CDebugLog* m_pDebugLog;
    CGpioPins* m_pGpio;
    CWatch* m_pWatch;
    CHC08* m_pHC08;
    CAudio* m_pAudio;
    CNVRAMBoard* m_pNVRAM;
    CStoredParams* m_pStoredParams;

    LONG m_refs;
    IUnknown* m_pOuter;
    CInnerUnknown m_inner;
    // The object lock. Its own member, declared before the connection point,
    // so that it is deleted after the connection point's destructor, which
    // still takes it.
    struct ObjectLock
    {
        ObjectLock() { InitializeCriticalSection(&section); }
        ~ObjectLock() { DeleteCriticalSection(&section); }
        ObjectLock(const ObjectLock&) = delete;
        ObjectLock& operator=(const ObjectLock&) = delete;
        CRITICAL_SECTION section;
    } m_lock;
    CEventConnectionPoint m_eventPoint;
    ITypeInfo* m_pTypeInfo;
};
