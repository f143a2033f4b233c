// Provisioning, NVRAM and sessions as a script meets them: the registered
// control, bound late by name, on the real clock.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "session/FlashAccess.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"

namespace {

using Lines = std::vector<std::wstring>;
using S = ScriptObject;

// The first session lies ahead of any real clock this runs on, so the
// schedule's answer is that session whatever the date.
const char kFutureParams[] =
    "FirstSessionDateTime=Mon 03 Jan 2050 09:00:00\r\n"
    "SessionWindowHours=2\r\nEndPracticeDate=Tue 03 Jan 2051\r\nRealTestIntervalDays=7\r\n"
    "PracticeTestIntervalDays=1\r\nMakeupDays=2\r\nMinFreeSpaceMB=10\r\nDebug=0\r\nStudySite=Lab 3\r\n";

std::wstring Text(VARIANT& v)
{
    std::wstring text = v.vt == VT_BSTR && v.bstrVal ? v.bstrVal : L"<not a string>";
    VariantClear(&v);
    return text;
}

class SessionScriptTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_HRESULT_SUCCEEDED(com.Result());
        CLSID clsid;
        ASSERT_HRESULT_SUCCEEDED(CLSIDFromProgID(L"BrennockControl.Brennock", &clsid));
        ASSERT_HRESULT_SUCCEEDED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch,
                                                  reinterpret_cast<void**>(object.GetAddressOf())));
    }
    short OpenResult()
    {
        VARIANT r;
        VariantInit(&r);
        EXPECT_EQ(script().Call(L"Open", {}, &r), S_OK);
        return r.vt == VT_I2 ? r.iVal : -1;
    }
    std::wstring CallText(const wchar_t* name, std::vector<VARIANT> args = {})
    {
        VARIANT r;
        VariantInit(&r);
        EXPECT_EQ(script().Call(name, std::move(args), &r), S_OK) << testing::PrintToString(std::wstring(name));
        return Text(r);
    }
    short Property(const wchar_t* name)
    {
        VARIANT r;
        VariantInit(&r);
        EXPECT_EQ(script().Get(name, &r), S_OK) << testing::PrintToString(std::wstring(name));
        return r.vt == VT_I2 ? r.iVal : -1;
    }
    ScriptObject script() { return ScriptObject(object.Get()); }

    ComApartment com;
    ComPtr<IDispatch> object;
    DebugCapture capture;
};

TEST_F(SessionScriptTest, AProvisionedDeviceByName)
{
    ProvisionDisk(kFutureParams);
    RecordingSink sink;
    const DWORD cookie = AdviseSink(object.Get(), &sink);
    ASSERT_EQ(OpenResult(), 1);

    EXPECT_EQ(CallText(L"ParameterRead", {S::Str(L"studysite"), S::Str(L"none")}), L"Lab 3");
    EXPECT_EQ(CallText(L"ParameterRead", {S::Str(L"Absent"), S::Str(L"dflt")}), L"dflt");
    EXPECT_EQ(CallText(L"NVParameterRead", {S::Str(L"deviceid"), S::Str(L"")}), L"0000065535");
    EXPECT_EQ(CallText(L"GetNextSessionStart"), L"Mon 03 Jan 2050 09:00:00");
    EXPECT_EQ(CallText(L"GetNextSessionEnd"), L"Mon 03 Jan 2050 11:00:00");
    EXPECT_EQ(Property(L"InSessionWindow"), 0);
    EXPECT_EQ(Property(L"PracticeMode"), 1);
    EXPECT_EQ(Property(L"HaveHardware"), 1);

    capture.Clear();
    EXPECT_EQ(script().Call(L"NVParameterWrite", {S::Str(L"NextPictureIndex"), S::Str(L"-3")}), S_OK);
    EXPECT_EQ(script().Call(L"NVParameterWrite", {S::Str(L"NextPictureIndex"), S::Str(L"abc")}), E_FAIL);
    EXPECT_EQ(CallText(L"NVParameterRead", {S::Str(L"NextPictureIndex"), S::Str(L"")}), L"-3");
    VARIANT nullText;
    VariantInit(&nullText);
    nullText.vt = VT_BSTR;
    nullText.bstrVal = nullptr;
    EXPECT_EQ(script().Call(L"ParameterRead", {nullText, S::Str(L"x")}), E_FAIL);
    EXPECT_EQ(script().Call(L"NVParameterRead", {S::Str(L"x"), nullText}), E_FAIL);
    EXPECT_EQ(capture.Lines(), (Lines{L"Warning: NVparameterRead: NextPictureIndex < 0\r\n",
                                      L"ERROR: NVParameterWrite: bad NextPictureIndex.\r\n",
                                      L"Warning: NVparameterRead: NextPictureIndex < 0\r\n",
                                      L"ParameterRead - null keyName.\r\n",
                                      L"NVParameterRead - null defaultVal.\r\n"}));

    EXPECT_EQ(script().Call(L"SessionStart"), S_OK);
    EXPECT_EQ(script().Call(L"SessionStart"), E_FAIL);
    EXPECT_EQ(script().Call(L"SessionCancel"), S_OK);
    ASSERT_EQ(sink.events.size(), 1u);
    EXPECT_EQ(sink.events[0].id, 25);
    ASSERT_EQ(sink.events[0].args.size(), 1u);
    EXPECT_EQ(sink.events[0].args[0].vt, VT_I2);
    EXPECT_EQ(sink.events[0].args[0].iVal, 103);
    // Nothing was committed: the cancel keeps flash as it was.
    EXPECT_FALSE(DiskFileExists(kFlashBlockFile));

    EXPECT_EQ(script().Call(L"Close"), S_OK);
    UnadviseSink(object.Get(), cookie);
}

TEST_F(SessionScriptTest, WithoutParamsOpenReportsZeroAndTheRestStaysUsable)
{
    ProvisionDisk();
    DeleteDiskFile(L"\\Hard Disk\\params.txt");
    EXPECT_EQ(OpenResult(), 0);
    EXPECT_EQ(capture.Lines(), (Lines{L"Bad eboot config magic number\r\n",
                                      L"ERROR: Corrupted/uninitialized on-board NVRAM\r\n",
                                      L"LoadSimNVRAM: file doesn't exist - using defaults.\r\n",
                                      L"ERROR: Failed to open params file.\r\n",
                                      L"ERROR: CStoredParams::Open: failed to read file.\r\n",
                                      L"Open - USB Flash parameters open failed.\r\n"}));
    capture.Clear();
    EXPECT_EQ(CallText(L"NVParameterRead", {S::Str(L"DEVICEID"), S::Str(L"")}), L"0000065535");
    EXPECT_EQ(CallText(L"ParameterRead", {S::Str(L"Debug"), S::Str(L"dflt")}), L"dflt");
    EXPECT_EQ(script().Call(L"DebugWrite", {S::Str(L"still here")}), S_OK);
    EXPECT_EQ(Property(L"HaveHardware"), 1);
    EXPECT_EQ(script().Call(L"SessionStart"), E_FAIL);
    VARIANT r;
    VariantInit(&r);
    EXPECT_EQ(script().Call(L"GetNextSessionStart", {}, &r), E_FAIL);
    EXPECT_EQ(capture.Lines(), (Lines{L"SessionStart: not open.\r\n", L"GetNextSessionBounds: not open.\r\n"}));
}

TEST_F(SessionScriptTest, AnUnreadableFlashStopsOpenAtTheNVRAM)
{
    ProvisionDisk(kFutureParams);
    CreateDirectoryW(kFlashBlockFile, nullptr);
    EXPECT_EQ(OpenResult(), 0);
    EXPECT_EQ(capture.Lines(), (Lines{L"GetNVRAM failed.\r\n", L"Open - on-board NVRAM open failed.\r\n"}));
    capture.Clear();
    // The NVRAM object exists but is not open: an empty answer.
    EXPECT_EQ(CallText(L"NVParameterRead", {S::Str(L"DEVICEID"), S::Str(L"x")}), L"");
    EXPECT_EQ(capture.Lines(), Lines{L"NVParameterRead: not open\r\n"});
    RemoveDirectoryW(kFlashBlockFile);
}

}  // namespace
