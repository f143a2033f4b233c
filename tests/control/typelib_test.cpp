// The registered type library, read back as a client or script engine reads it.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "tests/support/ControlTestKit.h"

namespace {

const std::vector<std::wstring> kMembers = {
    L"1 Open(retval short* pRetVal)",
    L"2 Close()",
    L"3 SetWatchPower(short powerOn)",
    L"4 SetBacklightPower(short powerOn)",
    L"5 CancelBlinkLed(short ledID)",
    L"6 BlinkLed(short ledID, short numBlinks, short msPerBlink)",
    L"7 SetLedState(short ledID, short turnOn)",
    L"8 get PracticeMode(retval short* pVal)", L"8 put PracticeMode(short)",
    L"9 ActivityConfig(short testID, BSTR testName, short maxDurationSecs, short uiTimeoutSecs)",
    L"10 ActivityStart(short doBeep)",
    L"11 ActivityEndNormal()",
    L"12 ActivityCancel()",
    L"13 QuestionResponse(BSTR questionID, BSTR responseID)",
    L"14 WatchSaveStart(BSTR dataName)",
    L"15 WatchSaveCancel()",
    L"16 WatchDataDestroyStart()",
    L"18 SimHC08Reset(short hc08Rev, short hc08Build, short resetSource, double tickHz, short postResult)",
    L"19 SimTimerGo(long ticksAtGo)",
    L"20 SimTimerRollover()",
    L"21 SimDigitoLeftDownward(long ticksSinceGo, long bDeltaTicks)",
    L"22 SimDigitoLeftUpward(long ticksSinceGo, long bDeltaTicks)",
    L"23 SimDigitoRightDownward(long ticksSinceGo, long bDeltaTicks)",
    L"24 SimDigitoRightUpward(long ticksSinceGo, long bDeltaTicks)",
    L"25 SimCapsitLeftDown(long ticksSinceGo)",
    L"26 SimCapsitLeftUp(long ticksSinceGo)",
    L"27 SimCapsitRightDown(long ticksSinceGo)",
    L"28 SimCapsitRightUp(long ticksSinceGo)",
    L"29 SimPegsMap(long ticksSinceGo, short pegsInLeft, short pegsInRight)",
    L"30 SimWatchVisible(short isVisible)",
    L"31 SimWatchSaveProgress(short percent)",
    L"32 AudioPlay(BSTR filename)",
    L"33 CancelAudioPlay()",
    L"34 TimerStart(short timerID, double intervalSecs)",
    L"35 CancelTimer(short timerID)",
    L"36 get CurrentFolder(retval BSTR* pVal)", L"36 put CurrentFolder(BSTR)",
    L"37 ActivityBeep()",
    L"38 get HaveHardware(retval short* pVal)",
    L"39 SimLidMoved(short isOpen)",
    L"40 get FreeStoreMB(retval short* pVal)",
    L"41 get RecFormat(retval BSTR* pVal)", L"41 put RecFormat(BSTR)",
    L"42 get RecStartTimeoutS(retval short* pVal)", L"42 put RecStartTimeoutS(short)",
    L"43 AudioRecord(short recordFlags, short maxSeconds)",
    L"44 CancelAudioRecord()",
    L"45 DebugWrite(BSTR message)",
    L"46 Reboot()",
    L"47 get InSessionWindow(retval short* pVal)",
    L"48 GetNextSessionStart(retval BSTR* whenDateTime)",
    L"49 GetNextSessionEnd(retval BSTR* whenDateTime)",
    L"50 SessionStart()",
    L"51 SessionEndNormal()",
    L"52 SessionCancel()",
    L"53 NVParameterRead(BSTR keyName, BSTR defaultVal, retval BSTR* value)",
    L"54 NVParameterWrite(BSTR keyName, BSTR value)",
    L"55 ParameterRead(BSTR keyName, BSTR defaultVal, retval BSTR* value)",
    L"56 get RecAvgVolumeStart(retval short* pVal)", L"56 put RecAvgVolumeStart(short)",
    L"57 get RecAvgVolumeStop(retval short* pVal)", L"57 put RecAvgVolumeStop(short)",
    L"58 SimDataStoreVisible(short isVisible)",
    L"59 SimWatchDataDestroyEnded(short endCauseID)",
    L"60 get MaskWithNoise(retval short* pVal)", L"60 put MaskWithNoise(short)",
    L"61 AssertWrite(BSTR filename, short lineNum, BSTR message)",
};

const std::vector<std::wstring> kEvents = {
    L"1 BlinkEnded(short endCauseID, short ledID)",
    L"2 WatchVisible(short isVisible)",
    L"3 TimerGo(long ticksAtGo)",
    L"4 TimerRollover()",
    L"5 DigitoLeftDownward(long ticksSinceGo, long bDeltaTicks)",
    L"6 DigitoLeftUpward(long ticksSinceGo, long bDeltaTicks)",
    L"7 DigitoRightDownward(long ticksSinceGo, long bDeltaTicks)",
    L"8 DigitoRightUpward(long ticksSinceGo, long bDeltaTicks)",
    L"9 CapsitLeftDown(long ticksSinceGo)",
    L"10 CapsitLeftUp(long ticksSinceGo)",
    L"11 CapsitRightDown(long ticksSinceGo)",
    L"12 CapsitRightUp(long ticksSinceGo)",
    L"13 PegsMap(long ticksSinceGo, short pegsInLeft, short pegsInRight)",
    L"14 ActivityEnded(short causeID, short testID)",
    L"15 WatchSaveProgress(short percent)",
    L"16 WatchSaveEnded(short endCauseID)",
    L"17 WatchDataDestroyEnded(short endCauseID)",
    L"19 HC08Reset(short hc08Rev, short hc08Build, short resetSource, double tickHz, short postResult)",
    L"20 AudioPlayEnded(short endCauseID)",
    L"21 TimerEnded(short endCauseID, short timerID)",
    L"22 LidMoved(short isOpen)",
    L"23 AudioRecordEnded(short endCauseID)",
    L"24 AudioRecordProgress(short maxVolume, short secondsRecorded)",
    L"25 SessionEnded(short endCauseID) HRESULT",
    L"26 DataStoreVisible(short isVisible) HRESULT",
    L"27 WatchParametersRead(short endCauseID) HRESULT",
};

std::wstring TypeName(const TYPEDESC& t)
{
    return t.vt == VT_PTR ? TypeName(*t.lptdesc) + L"*"
           : t.vt == VT_I2    ? L"short"
           : t.vt == VT_I4    ? L"long"
           : t.vt == VT_R8    ? L"double"
           : t.vt == VT_BSTR  ? L"BSTR"
                              : L"vt" + std::to_wstring(t.vt);
}

// Every function of a type as its transcript line, "id [get |put ]Name(params)"
// and " HRESULT" for an event that returns one; vtable functions in slot order
// after IDispatch's seven, each documented as "method X" or "property X".
std::vector<std::wstring> Transcript(ITypeInfo* info)
{
    std::vector<std::wstring> out;
    FUNCDESC* fd = nullptr;
    for (WORD i = 0; info && SUCCEEDED(info->GetFuncDesc(i, &fd)); ++i) {
        BSTR names[16] = {}, help = nullptr;
        UINT count = 0;
        info->GetNames(fd->memid, names, 16, &count);
        info->GetDocumentation(fd->memid, nullptr, &help, nullptr, nullptr);
        std::wstring s = std::to_wstring(fd->memid) + L" ";
        s += fd->invkind == INVOKE_PROPERTYGET ? L"get " : fd->invkind == INVOKE_PROPERTYPUT ? L"put " : L"";
        s += (count ? names[0] : L"?") + std::wstring(L"(");
        for (SHORT p = 0; p < fd->cParams; ++p) {
            const ELEMDESC& e = fd->lprgelemdescParam[p];
            const USHORT flags = e.paramdesc.wParamFlags;
            s += p ? L", " : L"";
            s += (flags & PARAMFLAG_FRETVAL) && (flags & PARAMFLAG_FOUT) ? L"retval "
                 : (flags & PARAMFLAG_FIN) || fd->funckind == FUNC_DISPATCH ? L"" : L"? ";
            s += TypeName(e.tdesc);
            if (fd->invkind != INVOKE_PROPERTYPUT && UINT(p + 1) < count)
                s += std::wstring(L" ") + names[p + 1];
        }
        s += L")";
        if (fd->funckind == FUNC_DISPATCH) {
            s += fd->elemdescFunc.tdesc.vt == VT_HRESULT ? L" HRESULT" : fd->elemdescFunc.tdesc.vt == VT_VOID ? L"" : L" ?";
        } else {
            EXPECT_EQ(fd->oVft, static_cast<SHORT>((7 + i) * sizeof(void*))) << testing::PrintToString(s);
            EXPECT_EQ(fd->elemdescFunc.tdesc.vt, VT_HRESULT) << testing::PrintToString(s);
        }
        EXPECT_EQ(std::wstring(help ? help : L""),
                  (fd->invkind == INVOKE_FUNC ? L"method " : L"property ") + std::wstring(count ? names[0] : L""));
        for (BSTR b : names)
            SysFreeString(b);
        SysFreeString(help);
        info->ReleaseFuncDesc(fd);
        out.push_back(s);
    }
    return out;
}

class TypeLibTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_HRESULT_SUCCEEDED(LoadRegTypeLib(LIBID_BRENNOCKCONTROLLib, 1, 0, kTypeLibLcid, &lib)); }
    ComPtr<ITypeInfo> Info(REFGUID guid)
    {
        ComPtr<ITypeInfo> info;
        EXPECT_HRESULT_SUCCEEDED(lib->GetTypeInfoOfGuid(guid, info.GetAddressOf()));
        return info;
    }
    // The type a type refers to (impl -1: a dual interface's vtable half).
    static ComPtr<ITypeInfo> Ref(ITypeInfo* info, UINT impl)
    {
        HREFTYPE ref = 0;
        ComPtr<ITypeInfo> out;
        EXPECT_TRUE(info && SUCCEEDED(info->GetRefTypeOfImplType(impl, &ref)) &&
                    SUCCEEDED(info->GetRefTypeInfo(ref, out.GetAddressOf())));
        return out;
    }
    // Kind, flags and guid only: the rest points into memory given back.
    static TYPEATTR Attr(ITypeInfo* info)
    {
        TYPEATTR *ta = nullptr, out = {};
        if (info && SUCCEEDED(info->GetTypeAttr(&ta)))
            out = *ta, info->ReleaseTypeAttr(ta);
        return out;
    }
    ComApartment com;
    ComPtr<ITypeLib> lib;
};

TEST_F(TypeLibTest, LibraryTypesAndFlags)
{
    TLIBATTR* attr = nullptr;
    ASSERT_HRESULT_SUCCEEDED(lib->GetLibAttr(&attr));
    EXPECT_EQ(std::make_tuple(attr->guid, attr->wMajorVerNum, attr->wMinorVerNum, attr->lcid),
              std::make_tuple(LIBID_BRENNOCKCONTROLLib, 1, 0, 0x0409u));
    lib->ReleaseTLibAttr(attr);
    const struct
    {
        const wchar_t *name, *help;
        TYPEKIND kind;
        GUID guid;
        WORD flags;
    } types[] = {
        {L"BRENNOCKCONTROLLib", L"BrennockControl 1.0 Type Library", TKIND_MAX, GUID_NULL, 0},
        {L"_IBrennockEvents", L"_IBrennockEvents Interface", TKIND_DISPATCH, DIID__IBrennockEvents, TYPEFLAG_FDISPATCHABLE},
        {L"Brennock", L"Brennock Class", TKIND_COCLASS, CLSID_Brennock, TYPEFLAG_FCANCREATE},
        {L"IBrennock", L"IBrennock Interface", TKIND_DISPATCH, IID_IBrennock, TYPEFLAG_FDUAL | TYPEFLAG_FDISPATCHABLE},
    };
    ASSERT_EQ(lib->GetTypeInfoCount(), 3u);
    const WORD mask = TYPEFLAG_FDISPATCHABLE | TYPEFLAG_FDUAL | TYPEFLAG_FCANCREATE | TYPEFLAG_FNONEXTENSIBLE;
    for (INT i = -1; i < 3; ++i) {
        const auto& want = types[i + 1];
        BSTR name = nullptr, help = nullptr;
        ASSERT_HRESULT_SUCCEEDED(lib->GetDocumentation(i, &name, &help, nullptr, nullptr));
        EXPECT_EQ(std::wstring(name) + L": " + help, std::wstring(want.name) + L": " + want.help);
        SysFreeString(name), SysFreeString(help);
        ComPtr<ITypeInfo> info;
        if (i >= 0 && SUCCEEDED(lib->GetTypeInfo(i, info.GetAddressOf()))) {
            const TYPEATTR ta = Attr(info.Get());
            EXPECT_EQ(std::make_tuple(ta.typekind, ta.wTypeFlags & mask, ta.guid),
                      std::make_tuple(want.kind, int(want.flags), want.guid));
        }
    }

    // The dual interface's vtable half derives from IDispatch.
    ComPtr<ITypeInfo> vtbl = Ref(Info(IID_IBrennock).Get(), UINT(-1));
    EXPECT_EQ(Attr(vtbl.Get()).wTypeFlags, TYPEFLAG_FDUAL | TYPEFLAG_FOLEAUTOMATION | TYPEFLAG_FDISPATCHABLE);
    EXPECT_EQ(Attr(Ref(vtbl.Get(), 0).Get()).guid, IID_IDispatch);
}

// (The control's own IDispatch binds names through this same type library.)
TEST_F(TypeLibTest, MembersInSlotOrderAndEvents)
{
    EXPECT_EQ(Transcript(Ref(Info(IID_IBrennock).Get(), UINT(-1)).Get()), kMembers);
    EXPECT_EQ(Transcript(Info(DIID__IBrennockEvents).Get()), kEvents);
}

}  // namespace
