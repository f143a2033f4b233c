// CBrennock's script surface: every IBrennock method but Open and Close.
// Each checks that the manager it needs exists, then forwards to it; a
// refused or failed call writes its line and answers E_FAIL.
#include "control/Brennock.h"

#include <new>

#include "audio/Audio.h"
#include "diag/Assert.h"
#include "diag/DebugLog.h"
#include "diag/DebugOut.h"
#include "mcu/HC08.h"
#include "panel/GpioPins.h"
#include "session/NVRAMBoard.h"
#include "session/StoredParams.h"
#include "session/TestManager.h"
#include "watch/Watch.h"

// A method whose manager does not exist yet writes its guard text and fails.
#define BRENNOCK_GUARD(manager, text) \
    do {                              \
        if ((manager) == nullptr) {   \
            DebugOut(text);           \
            return E_FAIL;            \
        }                             \
    } while (0)


STDMETHODIMP CBrennock::SetWatchPower(short powerOn)
{
    BRENNOCK_GUARD(m_pWatch, L"SetWatchPower - Open() not called beforehand.\r\n");
    m_pWatch->SetWatchPower(powerOn != 0);
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

STDMETHODIMP CBrennock::WatchSaveStart(BSTR dataName)
{
    BRENNOCK_GUARD(m_pWatch, L"WatchSaveStart - Open() not called beforehand.\r\n");
    if (dataName == nullptr) {
        DebugOut(L"WatchSaveStart - null dataName.\r\n");
        return E_FAIL;
    }
    if (!m_pWatch->WatchSaveStart(dataName)) {
        DebugOut(L"WatchSaveStart - WatchSaveStart failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::WatchSaveCancel()
{
    BRENNOCK_GUARD(m_pWatch, L"WatchSaveCancel - Open() not called beforehand.\r\n");
    if (!m_pWatch->WatchSaveCancel()) {
        DebugOut(L"WatchSaveCancel - WatchSaveCancel failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::WatchDataDestroyStart()
{
    BRENNOCK_GUARD(m_pWatch, L"WatchDataDestroyStart - Open() not called beforehand.\r\n");
    if (!m_pWatch->WatchDataDestroyStart()) {
        DebugOut(L"WatchDataDestroyStart - WatchDataDestroyStart failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
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

STDMETHODIMP CBrennock::AudioPlay(BSTR filename)
{
    BRENNOCK_GUARD(m_pAudio, L"AudioPlay - Open() not called beforehand.\r\n");
    if (filename == nullptr) {
        DebugOut(L"AudioPlay - null filename.\r\n");
        return E_FAIL;
    }
    if (!m_pAudio->Play(filename)) {
        DebugOut(L"AudioPlay - Play failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::CancelAudioPlay()
{
    // The guard reports with AudioPlay's name.
    BRENNOCK_GUARD(m_pAudio, L"AudioPlay - Open() not called beforehand.\r\n");
    m_pAudio->EndPlay(0);
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

STDMETHODIMP CBrennock::get_RecFormat(BSTR* pVal)
{
    BRENNOCK_GUARD(m_pAudio, L"get_RecFormat - Open() not called beforehand.\r\n");
    if (pVal == nullptr)
        return E_FAIL;
    const wchar_t* name = m_pAudio->RecFormatFile();
    ASSERT(name != nullptr);
    *pVal = SysAllocString(name != nullptr ? name : L"");
    return S_OK;
}

STDMETHODIMP CBrennock::put_RecFormat(BSTR newVal)
{
    BRENNOCK_GUARD(m_pAudio, L"put_RecFormat - Open() not called beforehand.\r\n");
    if (newVal == nullptr) {
        DebugOut(L"put_RecFormat - null folder name.\r\n");
        return E_FAIL;
    }
    if (!m_pAudio->SetRecFormatFromFile(newVal)) {
        DebugOut(L"put_RecFormat - SetRecFormatFromFile failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::get_RecStartTimeoutS(short* pVal)
{
    // The getter reports with the putter's name.
    BRENNOCK_GUARD(m_pAudio, L"put_RecStartTimeoutS - Open() not called beforehand.\r\n");
    if (pVal == nullptr)
        return E_FAIL;
    *pVal = m_pAudio->RecStartTimeoutS();
    return S_OK;
}

STDMETHODIMP CBrennock::put_RecStartTimeoutS(short newVal)
{
    BRENNOCK_GUARD(m_pAudio, L"put_RecStartTimeoutS - Open() not called beforehand.\r\n");
    if (!m_pAudio->SetRecStartTimeoutS(newVal)) {
        DebugOut(L"put_RecStartTimeoutS: SetRecStartTimeoutS failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::AudioRecord(short recordFlags, short maxSeconds)
{
    BRENNOCK_GUARD(m_pAudio, L"AudioRecord - Open() not called beforehand.\r\n");
    if (!m_pAudio->Record(recordFlags, maxSeconds)) {
        DebugOut(L"AudioRecord: Record failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::CancelAudioRecord()
{
    BRENNOCK_GUARD(m_pAudio, L"CancelAudioRecord - Open() not called beforehand.\r\n");
    m_pAudio->EndRecording(0);
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

STDMETHODIMP CBrennock::get_RecAvgVolumeStart(short* pVal)
{
    BRENNOCK_GUARD(m_pAudio, L"get_RecAvgVolumeStart - Open() not called beforehand.\r\n");
    if (pVal == nullptr)
        return E_FAIL;
    *pVal = m_pAudio->RecAvgVolumeStart();
    return S_OK;
}

STDMETHODIMP CBrennock::put_RecAvgVolumeStart(short newVal)
{
    BRENNOCK_GUARD(m_pAudio, L"put_RecAvgVolumeStart - Open() not called beforehand.\r\n");
    if (!m_pAudio->SetRecAvgVolumeStart(newVal)) {
        DebugOut(L"put_RecAvgVolumeStart: failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
}

STDMETHODIMP CBrennock::get_RecAvgVolumeStop(short* pVal)
{
    BRENNOCK_GUARD(m_pAudio, L"get_RecAvgVolumeStop - Open() not called beforehand.\r\n");
    if (pVal == nullptr)
        return E_FAIL;
    *pVal = m_pAudio->RecAvgVolumeStop();
    return S_OK;
}

STDMETHODIMP CBrennock::put_RecAvgVolumeStop(short newVal)
{
    BRENNOCK_GUARD(m_pAudio, L"put_RecAvgVolumeStop - Open() not called beforehand.\r\n");
    if (!m_pAudio->SetRecAvgVolumeStop(newVal)) {
        DebugOut(L"put_RecAvgVolumeStop: failed.\r\n");
        return E_FAIL;
    }
    return S_OK;
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
