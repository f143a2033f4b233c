// The control's lifecycle and method guards.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "session/FlashAccess.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"

namespace {

using Lines = std::vector<std::wstring>;

class LifecycleTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ProvisionDisk();
        ASSERT_NE((control = CreateRegisteredControl()).Get(), nullptr);
    }
    short Open()
    {
        short ok = -1;
        EXPECT_EQ(control->Open(&ok), S_OK);
        return ok;
    }
    ComApartment com;
    ComPtr<IBrennock> control;
    DebugCapture capture;
};

// Every member of the interface but a few fails before Open with the line
// "<member> - Open() not called beforehand." (a few name another member).
TEST_F(LifecycleTest, EveryGuardedMemberFailsWithItsTextBeforeOpen)
{
    const std::set<std::wstring> unguarded = {L"Open", L"Close", L"put_PracticeMode", L"SimWatchDataDestroyEnded",
                                              L"SimWatchSaveProgress", L"AssertWrite"};
    const std::map<std::wstring, std::wstring> textOf = {{L"CancelAudioPlay", L"AudioPlay"},
                                                         {L"get_RecStartTimeoutS", L"put_RecStartTimeoutS"},
                                                         {L"GetNextSessionStart", L"get_InSessionWindow"},
                                                         {L"GetNextSessionEnd", L"get_InSessionWindow"}};
    ComPtr<ITypeInfo> disp, info;  // the dual interface's vtable half: its own members only
    HREFTYPE vtable = 0;
    ASSERT_HRESULT_SUCCEEDED(control->GetTypeInfo(0, 0, disp.GetAddressOf()));
    ASSERT_HRESULT_SUCCEEDED(disp->GetRefTypeOfImplType(-1, &vtable));
    ASSERT_HRESULT_SUCCEEDED(disp->GetRefTypeInfo(vtable, info.GetAddressOf()));
    ScriptObject script(control.Get());
    size_t guarded = 0;
    FUNCDESC* fd = nullptr;
    for (WORD i = 0; SUCCEEDED(info->GetFuncDesc(i, &fd)); info->ReleaseFuncDesc(fd), ++i) {
        BSTR member = nullptr;
        info->GetDocumentation(fd->memid, &member, nullptr, nullptr, nullptr);
        const INVOKEKIND kind = fd->invkind;
        const std::wstring name = member;
        const std::wstring full = (kind == INVOKE_PROPERTYGET ? L"get_" : kind == INVOKE_PROPERTYPUT ? L"put_" : L"") + name;
        SysFreeString(member);
        if (unguarded.count(full))
            continue;
        std::vector<VARIANT> args;
        for (SHORT p = 0; p < fd->cParams; ++p) {
            const VARTYPE vt = fd->lprgelemdescParam[p].tdesc.vt;
            if (!(fd->lprgelemdescParam[p].paramdesc.wParamFlags & PARAMFLAG_FRETVAL))
                args.push_back(vt == VT_BSTR ? ScriptObject::Str(L"x") : vt == VT_R8 ? ScriptObject::R8(0.5)
                               : vt == VT_I4 ? ScriptObject::I4(1) : ScriptObject::I2(1));
        }
        ++guarded;
        capture.Clear();
        VARIANT result = {};
        HRESULT hr = kind == INVOKE_PROPERTYGET   ? script.Get(name.c_str(), &result)
                     : kind == INVOKE_PROPERTYPUT ? script.Put(name.c_str(), args[0])
                                                  : script.Call(name.c_str(), std::move(args), &result);
        VariantClear(&result);
        EXPECT_EQ(hr, E_FAIL) << testing::PrintToString(full);
        auto other = textOf.find(full);
        EXPECT_EQ(capture.Lines(),
                  Lines{(other == textOf.end() ? full : other->second) + L" - Open() not called beforehand.\r\n"});
    }
    EXPECT_EQ(guarded, 61u);
}

// Close is safe at any time, twice, and Open works again after it.
TEST_F(LifecycleTest, UnguardedMembersBehaveTheSameBeforeAndAfterOpenAndCloseIsSafeAtAnyTime)
{
    for (int pass = 0; pass < 2; ++pass) {
        SCOPED_TRACE(pass == 0 ? "before Open" : "after Open");
        EXPECT_EQ(control->put_PracticeMode(1), E_FAIL);
        EXPECT_EQ(control->SimWatchDataDestroyEnded(0), E_FAIL);
        EXPECT_EQ(control->SimWatchSaveProgress(50), S_OK);
        EXPECT_TRUE(capture.Lines().empty());
        EXPECT_EQ(std::make_pair(control->Close(), control->Close()), std::make_pair(S_OK, S_OK));
        ASSERT_EQ(Open(), 1);
        capture.Clear();
    }
    EXPECT_EQ(ScriptObject(control.Get()).Call(L"DebugWrite", {ScriptObject::Str(L"x")}), S_OK);
    control.Reset();  // the final release closes what is still open
}

TEST_F(LifecycleTest, NullStringsAreRefusedWithTheirText)
{
    BSTR s = SysAllocString(L"f.js"), v = nullptr;
    EXPECT_EQ(control->AssertWrite(nullptr, 1, nullptr), E_FAIL);  // before Open, too
    EXPECT_EQ(control->AssertWrite(s, 1, nullptr), E_FAIL);
    EXPECT_EQ(capture.Lines(), (Lines{L"AssertWrite: null filename.\r\n", L"AssertWrite: null message.\r\n"}));
    ASSERT_EQ(Open(), 1);
    capture.Clear();
    EXPECT_EQ(control->DebugWrite(nullptr), E_FAIL);
    EXPECT_EQ(control->ParameterRead(nullptr, s, &v), E_FAIL);
    EXPECT_EQ(control->NVParameterRead(s, nullptr, &v), E_FAIL);
    EXPECT_EQ(capture.Lines(), (Lines{L"DebugWrite - null message.\r\n", L"ParameterRead - null keyName.\r\n",
                                      L"NVParameterRead - null defaultVal.\r\n"}));
    SysFreeString(s);
}

// Open answers 0 and says which store did not open; what needs no store
// still works.
TEST_F(LifecycleTest, OpenReportsTheStoreThatDidNotOpen)
{
    DeleteDiskFile(L"\\Hard Disk\\params.txt");
    EXPECT_EQ(Open(), 0);
    ASSERT_FALSE(capture.Lines().empty());
    EXPECT_EQ(capture.Lines().back(), L"Open - USB Flash parameters open failed.\r\n");
    EXPECT_EQ(ScriptObject(control.Get()).Call(L"DebugWrite", {ScriptObject::Str(L"still here")}), S_OK);
    control->Close();

    ProvisionDisk();
    ASSERT_TRUE(CreateDirectoryW(kFlashBlockFile, nullptr));
    capture.Clear();
    EXPECT_EQ(Open(), 0);
    EXPECT_EQ(capture.Lines(), (Lines{L"GetNVRAM failed.\r\n", L"Open - on-board NVRAM open failed.\r\n"}));
    control->Close();
    RemoveDirectoryW(kFlashBlockFile);
}

template <class F>
F Export(const char* name)
{
    HMODULE dll = GetModuleHandleW(L"BrennockControl.dll");
    return dll ? reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(dll, name))) : nullptr;
}

TEST_F(LifecycleTest, ClassObjectLookupAggregationAndUnloading)
{
    auto getClassObject = Export<HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**)>("DllGetClassObject");
    ASSERT_NE(getClassObject, nullptr);
    void* p = reinterpret_cast<void*>(1);
    EXPECT_EQ(getClassObject(IID_IBrennock, IID_IClassFactory, &p), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(getClassObject(CLSID_Brennock, IID_IClassFactory, nullptr), E_POINTER);
    ComPtr<IClassFactory> factory;
    ASSERT_HRESULT_SUCCEEDED(getClassObject(CLSID_Brennock, IID_PPV_ARGS(factory.GetAddressOf())));

    struct Outer : IUnknown
    {
        LONG refs = 1;
        IUnknown* inner = nullptr;
        STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
        {
            return riid != IID_IUnknown ? (inner ? inner->QueryInterface(riid, ppv) : E_NOINTERFACE)
                                        : (*ppv = this, AddRef(), S_OK);
        }
        STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
        STDMETHODIMP_(ULONG) Release() override { return --refs; }
    } outer;
    void* wrong = nullptr;
    EXPECT_EQ(factory->CreateInstance(&outer, IID_IDispatch, &wrong), CLASS_E_NOAGGREGATION);
    ASSERT_HRESULT_SUCCEEDED(factory->CreateInstance(&outer, IID_IUnknown, reinterpret_cast<void**>(&outer.inner)));

    // The inner object's interfaces count on the outer one and answer with its identity.
    IBrennock* brennock = nullptr;
    ASSERT_HRESULT_SUCCEEDED(outer.inner->QueryInterface(IID_IBrennock, reinterpret_cast<void**>(&brennock)));
    EXPECT_EQ(outer.refs, 2);
    IUnknown* identity = nullptr;
    ASSERT_HRESULT_SUCCEEDED(brennock->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity)));
    EXPECT_EQ(identity, static_cast<IUnknown*>(&outer));
    identity->Release();
    short ok = 0;
    EXPECT_EQ(brennock->Open(&ok), S_OK);
    EXPECT_EQ(ok, 1);
    brennock->Release();
    EXPECT_EQ(outer.refs, 1);
    EXPECT_EQ(outer.inner->Release(), 0u);

    auto canUnload = Export<HRESULT(STDAPICALLTYPE*)()>("DllCanUnloadNow");
    ASSERT_NE(canUnload, nullptr);
    EXPECT_EQ(canUnload(), S_FALSE);
    factory.Reset();
    control.Reset();
    EXPECT_EQ(canUnload(), S_OK);
}

TEST_F(LifecycleTest, SiteAccessorsAssertOnMissingManagers)
{
    ComPtr<IBrennock> local = CreateLocalControl();
    IManagerSite* site = AsControl(local.Get());
    const size_t before = AssertLines();
    EXPECT_TRUE(!site->GetTestManager() && !site->GetGpio() && !site->GetDebugLog());
    EXPECT_EQ(AssertLines(), before + 3);
    std::string asserts = ReadFileBytes(L"\\Hard Disk\\asserts.txt");
    EXPECT_NE(asserts.rfind("Brennock.cpp line "), std::string::npos) << asserts;
    EXPECT_EQ(asserts.substr(asserts.size() - 9), " assert\r\n");

    short ok = 0;
    local->Open(&ok);
    EXPECT_TRUE(site->GetDebugLog());  // (the event sinks are the control itself, open or not: EventsTest)
}

}  // namespace
