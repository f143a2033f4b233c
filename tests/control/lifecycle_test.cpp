// The control's lifecycle and method guards, through its vtable as compiled
// clients call it.
#include <gtest/gtest.h>

#include <functional>

#include "control/Module.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"

namespace {

struct GuardCase
{
    const wchar_t* text;
    std::function<HRESULT(IBrennock*)> call;
};

std::vector<GuardCase> GuardedMethods()
{
    BSTR s = nullptr;  // guards come before argument checks
    return {
        {L"SetWatchPower - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SetWatchPower(1); }},
        {L"SetBacklightPower - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SetBacklightPower(1); }},
        {L"CancelBlinkLed - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->CancelBlinkLed(1); }},
        {L"BlinkLed - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->BlinkLed(1, 2, 500); }},
        {L"SetLedState - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SetLedState(1, 1); }},
        {L"get_PracticeMode - Open() not called beforehand.\r\n", [](IBrennock* c) { short v; return c->get_PracticeMode(&v); }},
        {L"ActivityConfig - Open() not called beforehand.\r\n", [s](IBrennock* c) { return c->ActivityConfig(1, s, 10, 10); }},
        {L"ActivityStart - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->ActivityStart(0); }},
        {L"ActivityEndNormal - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->ActivityEndNormal(); }},
        {L"ActivityCancel - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->ActivityCancel(); }},
        {L"QuestionResponse - Open() not called beforehand.\r\n", [s](IBrennock* c) { return c->QuestionResponse(s, s); }},
        {L"WatchSaveStart - Open() not called beforehand.\r\n", [s](IBrennock* c) { return c->WatchSaveStart(s); }},
        {L"WatchSaveCancel - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->WatchSaveCancel(); }},
        {L"WatchDataDestroyStart - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->WatchDataDestroyStart(); }},
        {L"SimHC08Reset - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimHC08Reset(1, 2, 3, 999.9, 0); }},
        {L"SimTimerGo - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimTimerGo(5); }},
        {L"SimTimerRollover - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimTimerRollover(); }},
        {L"SimDigitoLeftDownward - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimDigitoLeftDownward(1, 2); }},
        {L"SimDigitoLeftUpward - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimDigitoLeftUpward(1, 2); }},
        {L"SimDigitoRightDownward - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimDigitoRightDownward(1, 2); }},
        {L"SimDigitoRightUpward - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimDigitoRightUpward(1, 2); }},
        {L"SimCapsitLeftDown - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimCapsitLeftDown(1); }},
        {L"SimCapsitLeftUp - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimCapsitLeftUp(1); }},
        {L"SimCapsitRightDown - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimCapsitRightDown(1); }},
        {L"SimCapsitRightUp - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimCapsitRightUp(1); }},
        {L"SimPegsMap - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimPegsMap(1, 2, 3); }},
        {L"SimWatchVisible - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimWatchVisible(1); }},
        {L"AudioPlay - Open() not called beforehand.\r\n", [s](IBrennock* c) { return c->AudioPlay(s); }},
        {L"AudioPlay - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->CancelAudioPlay(); }},
        {L"TimerStart - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->TimerStart(1, 0.5); }},
        {L"CancelTimer - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->CancelTimer(-1); }},
        {L"get_CurrentFolder - Open() not called beforehand.\r\n", [](IBrennock* c) { BSTR v = nullptr; return c->get_CurrentFolder(&v); }},
        {L"put_CurrentFolder - Open() not called beforehand.\r\n", [s](IBrennock* c) { return c->put_CurrentFolder(s); }},
        {L"ActivityBeep - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->ActivityBeep(); }},
        {L"get_HaveHardware - Open() not called beforehand.\r\n", [](IBrennock* c) { short v; return c->get_HaveHardware(&v); }},
        {L"SimLidMoved - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimLidMoved(1); }},
        {L"get_FreeStoreMB - Open() not called beforehand.\r\n", [](IBrennock* c) { short v; return c->get_FreeStoreMB(&v); }},
        {L"get_RecFormat - Open() not called beforehand.\r\n", [](IBrennock* c) { BSTR v = nullptr; return c->get_RecFormat(&v); }},
        {L"put_RecFormat - Open() not called beforehand.\r\n", [s](IBrennock* c) { return c->put_RecFormat(s); }},
        {L"put_RecStartTimeoutS - Open() not called beforehand.\r\n", [](IBrennock* c) { short v; return c->get_RecStartTimeoutS(&v); }},
        {L"put_RecStartTimeoutS - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->put_RecStartTimeoutS(3); }},
        {L"AudioRecord - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->AudioRecord(0, 10); }},
        {L"CancelAudioRecord - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->CancelAudioRecord(); }},
        {L"DebugWrite - Open() not called beforehand.\r\n", [s](IBrennock* c) { return c->DebugWrite(s); }},
        {L"Reboot - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->Reboot(); }},
        {L"get_InSessionWindow - Open() not called beforehand.\r\n", [](IBrennock* c) { short v; return c->get_InSessionWindow(&v); }},
        {L"get_InSessionWindow - Open() not called beforehand.\r\n", [](IBrennock* c) { BSTR v = nullptr; return c->GetNextSessionStart(&v); }},
        {L"get_InSessionWindow - Open() not called beforehand.\r\n", [](IBrennock* c) { BSTR v = nullptr; return c->GetNextSessionEnd(&v); }},
        {L"SessionStart - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SessionStart(); }},
        {L"SessionEndNormal - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SessionEndNormal(); }},
        {L"SessionCancel - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SessionCancel(); }},
        {L"NVParameterRead - Open() not called beforehand.\r\n", [s](IBrennock* c) { BSTR v = nullptr; return c->NVParameterRead(s, s, &v); }},
        {L"NVParameterWrite - Open() not called beforehand.\r\n", [s](IBrennock* c) { return c->NVParameterWrite(s, s); }},
        {L"ParameterRead - Open() not called beforehand.\r\n", [s](IBrennock* c) { BSTR v = nullptr; return c->ParameterRead(s, s, &v); }},
        {L"get_RecAvgVolumeStart - Open() not called beforehand.\r\n", [](IBrennock* c) { short v; return c->get_RecAvgVolumeStart(&v); }},
        {L"put_RecAvgVolumeStart - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->put_RecAvgVolumeStart(5); }},
        {L"get_RecAvgVolumeStop - Open() not called beforehand.\r\n", [](IBrennock* c) { short v; return c->get_RecAvgVolumeStop(&v); }},
        {L"put_RecAvgVolumeStop - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->put_RecAvgVolumeStop(5); }},
        {L"SimDataStoreVisible - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->SimDataStoreVisible(1); }},
        {L"get_MaskWithNoise - Open() not called beforehand.\r\n", [](IBrennock* c) { short v; return c->get_MaskWithNoise(&v); }},
        {L"put_MaskWithNoise - Open() not called beforehand.\r\n", [](IBrennock* c) { return c->put_MaskWithNoise(1); }},
    };
}

class LifecycleTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_HRESULT_SUCCEEDED(com.Result());
        ProvisionDisk();
        control = CreateRegisteredControl();
        ASSERT_TRUE(control);
    }
    ComApartment com;
    ComPtr<IBrennock> control;
};

TEST_F(LifecycleTest, EveryGuardedMethodFailsWithItsTextBeforeOpen)
{
    DebugCapture capture;
    for (const GuardCase& g : GuardedMethods()) {
        capture.Clear();
        EXPECT_EQ(g.call(control.Get()), E_FAIL) << testing::PrintToString(std::wstring(g.text));
        EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{g.text});
    }
}

TEST_F(LifecycleTest, UnguardedMembersBehaveTheSameBeforeAndAfterOpen)
{
    DebugCapture capture;
    for (int pass = 0; pass < 2; ++pass) {
        SCOPED_TRACE(pass == 0 ? "before Open" : "after Open");
        EXPECT_EQ(control->put_PracticeMode(1), E_FAIL);
        EXPECT_EQ(control->SimWatchDataDestroyEnded(0), E_FAIL);
        EXPECT_EQ(control->SimWatchSaveProgress(50), S_OK);
        EXPECT_TRUE(capture.Lines().empty());
        if (pass == 0) {
            short ok = -1;
            ASSERT_EQ(control->Open(&ok), S_OK);
            EXPECT_EQ(ok, 1);
            capture.Clear();
        }
    }
}

TEST_F(LifecycleTest, CloseIsSafeAtAnyTimeAndOpenAgainWorks)
{
    DebugCapture capture;
    EXPECT_EQ(control->Close(), S_OK);
    EXPECT_EQ(control->Close(), S_OK);
    short ok = 0;
    EXPECT_EQ(control->Open(&ok), S_OK);
    EXPECT_EQ(ok, 1);
    capture.Clear();
    EXPECT_EQ(control->DebugWrite(nullptr), E_FAIL);
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{L"DebugWrite - null message.\r\n"});
    EXPECT_EQ(control->Close(), S_OK);
    EXPECT_EQ(control->Close(), S_OK);
    ok = 0;
    EXPECT_EQ(control->Open(&ok), S_OK);
    EXPECT_EQ(ok, 1);
    BSTR text = SysAllocString(L"x");
    EXPECT_EQ(control->DebugWrite(text), S_OK);
    SysFreeString(text);
    // Final release closes whatever is still open.
    control.Reset();
}

TEST_F(LifecycleTest, AssertWriteChecksItsStringsBeforeAnything)
{
    DebugCapture capture;
    BSTR file = SysAllocString(L"f.js");
    EXPECT_EQ(control->AssertWrite(nullptr, 1, nullptr), E_FAIL);
    EXPECT_EQ(control->AssertWrite(file, 1, nullptr), E_FAIL);
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{L"AssertWrite: null filename.\r\n",
                                                          L"AssertWrite: null message.\r\n"}));
    SysFreeString(file);
}

TEST_F(LifecycleTest, DllCanUnloadNowFollowsLiveObjects)
{
    HMODULE dll = GetModuleHandleW(L"BrennockControl.dll");
    ASSERT_NE(dll, nullptr);
    auto canUnload = reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
        reinterpret_cast<void*>(GetProcAddress(dll, "DllCanUnloadNow")));
    ASSERT_NE(canUnload, nullptr);
    EXPECT_EQ(canUnload(), S_FALSE);
    control.Reset();
    EXPECT_EQ(canUnload(), S_OK);
}

TEST_F(LifecycleTest, ClassObjectLookupAndAggregation)
{
    HMODULE dll = GetModuleHandleW(L"BrennockControl.dll");
    ASSERT_NE(dll, nullptr);
    auto getClassObject = reinterpret_cast<HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**)>(
        reinterpret_cast<void*>(GetProcAddress(dll, "DllGetClassObject")));
    ASSERT_NE(getClassObject, nullptr);

    void* p = reinterpret_cast<void*>(1);
    EXPECT_EQ(getClassObject(IID_IBrennock, IID_IClassFactory, &p), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(getClassObject(CLSID_Brennock, IID_IClassFactory, nullptr), E_POINTER);

    ComPtr<IClassFactory> factory;
    ASSERT_HRESULT_SUCCEEDED(getClassObject(CLSID_Brennock, IID_IClassFactory,
                                            reinterpret_cast<void**>(factory.GetAddressOf())));

    // An outer object that counts its references.
    struct Outer : IUnknown
    {
        LONG refs = 1;
        IUnknown* inner = nullptr;
        STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
        {
            if (riid == IID_IUnknown) {
                *ppv = this;
                AddRef();
                return S_OK;
            }
            return inner ? inner->QueryInterface(riid, ppv) : E_NOINTERFACE;
        }
        STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
        STDMETHODIMP_(ULONG) Release() override { return --refs; }
    } outer;

    void* wrong = nullptr;
    EXPECT_EQ(factory->CreateInstance(&outer, IID_IDispatch, &wrong), CLASS_E_NOAGGREGATION);

    ASSERT_HRESULT_SUCCEEDED(factory->CreateInstance(&outer, IID_IUnknown,
                                                     reinterpret_cast<void**>(&outer.inner)));
    // Interfaces of the inner object count on the outer object and answer
    // with the outer identity.
    IBrennock* brennock = nullptr;
    ASSERT_HRESULT_SUCCEEDED(outer.inner->QueryInterface(IID_IBrennock,
                                                         reinterpret_cast<void**>(&brennock)));
    EXPECT_EQ(outer.refs, 2);
    IUnknown* identity = nullptr;
    ASSERT_HRESULT_SUCCEEDED(brennock->QueryInterface(IID_IUnknown,
                                                      reinterpret_cast<void**>(&identity)));
    EXPECT_EQ(identity, static_cast<IUnknown*>(&outer));
    identity->Release();
    short ok = 0;
    EXPECT_EQ(brennock->Open(&ok), S_OK);
    EXPECT_EQ(ok, 1);
    brennock->Release();
    EXPECT_EQ(outer.refs, 1);
    EXPECT_EQ(outer.inner->Release(), 0u);
}

TEST_F(LifecycleTest, SiteAccessorsAssertOnMissingManagers)
{
    ComPtr<IBrennock> local = CreateLocalControl();
    IManagerSite* site = AsControl(local.Get());
    std::string before = ReadFileBytes(L"\\Hard Disk\\asserts.txt");
    EXPECT_EQ(site->GetTestManager(), nullptr);
    EXPECT_EQ(site->GetGpio(), nullptr);
    EXPECT_EQ(site->GetDebugLog(), nullptr);
    std::string after = ReadFileBytes(L"\\Hard Disk\\asserts.txt");
    std::string added = after.substr(before.size());
    size_t lines = 0;
    for (char c : added)
        lines += (c == '\n');
    EXPECT_EQ(lines, 3u) << added;
    EXPECT_NE(added.find("Brennock.cpp line "), std::string::npos) << added;
    EXPECT_NE(added.find(" assert\r\n"), std::string::npos) << added;

    short ok = 0;
    local->Open(&ok);
    EXPECT_NE(site->GetDebugLog(), nullptr);
    // The sink accessors always answer.
    EXPECT_NE(site->GetHC08EventSink(), nullptr);
    EXPECT_NE(site->GetGpioEventSink(), nullptr);
    EXPECT_NE(site->GetWatchEventSink(), nullptr);
    EXPECT_NE(site->GetAudioEventSink(), nullptr);
    EXPECT_NE(site->GetTestManagerEventSink(), nullptr);
}

}  // namespace
