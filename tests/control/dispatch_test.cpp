// The control as a script meets it: created by ProgID from the registered
// DLL, bound late by name, called through IDispatch with VARIANT arguments.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/InterfaceTable.h"

namespace {

class DispatchTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_HRESULT_SUCCEEDED(com.Result());
        ProvisionDisk();
        CLSID clsid;
        ASSERT_HRESULT_SUCCEEDED(CLSIDFromProgID(L"BrennockControl.Brennock", &clsid));
        ASSERT_HRESULT_SUCCEEDED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER,
                                                  IID_IDispatch,
                                                  reinterpret_cast<void**>(disp.GetAddressOf())));
    }

    DISPID IdOf(const wchar_t* name)
    {
        DISPID id = DISPID_UNKNOWN;
        LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
        EXPECT_HRESULT_SUCCEEDED(disp->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id));
        return id;
    }

    // Calls a member by name, arguments in declaration order.
    HRESULT Call(const wchar_t* name, std::vector<VARIANT> args, VARIANT* result = nullptr,
                 WORD flags = DISPATCH_METHOD)
    {
        std::vector<VARIANT> reversed(args.rbegin(), args.rend());
        DISPID putId = DISPID_PROPERTYPUT;
        DISPPARAMS params = {reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
        if (flags == DISPATCH_PROPERTYPUT) {
            params.rgdispidNamedArgs = &putId;
            params.cNamedArgs = 1;
        }
        EXCEPINFO excep = {};
        HRESULT hr = disp->Invoke(IdOf(name), IID_NULL, LOCALE_USER_DEFAULT, flags, &params,
                                  result, &excep, nullptr);
        SysFreeString(excep.bstrSource);
        SysFreeString(excep.bstrDescription);
        SysFreeString(excep.bstrHelpFile);
        // A method's own failure arrives as an exception carrying its code.
        if (hr == DISP_E_EXCEPTION && excep.scode != 0)
            hr = excep.scode;
        for (auto& v : args)
            VariantClear(&v);
        return hr;
    }

    static VARIANT I2(short v)
    {
        VARIANT r;
        VariantInit(&r);
        r.vt = VT_I2;
        r.iVal = v;
        return r;
    }
    static VARIANT Str(const wchar_t* s)
    {
        VARIANT r;
        VariantInit(&r);
        r.vt = VT_BSTR;
        r.bstrVal = SysAllocString(s);
        return r;
    }

    ComApartment com;
    ComPtr<IDispatch> disp;
};

TEST_F(DispatchTest, ProgIdsNameTheClass)
{
    CLSID clsid;
    ASSERT_HRESULT_SUCCEEDED(CLSIDFromProgID(L"BrennockControl.Brennock.1", &clsid));
    EXPECT_EQ(clsid, CLSID_Brennock);
    LPOLESTR progId = nullptr;
    ASSERT_HRESULT_SUCCEEDED(ProgIDFromCLSID(CLSID_Brennock, &progId));
    EXPECT_STREQ(progId, L"BrennockControl.Brennock.1");
    CoTaskMemFree(progId);
}

TEST_F(DispatchTest, EveryMemberBindsToItsDispatchId)
{
    for (const MemberSpec& m : BrennockMembers())
        EXPECT_EQ(IdOf(m.name), m.id) << testing::PrintToString(std::wstring(m.name));

    // Parameter names bind too, after the member name.
    LPOLESTR names[] = {const_cast<LPOLESTR>(L"AssertWrite"), const_cast<LPOLESTR>(L"filename"),
                        const_cast<LPOLESTR>(L"lineNum"), const_cast<LPOLESTR>(L"message")};
    DISPID ids[4] = {};
    ASSERT_HRESULT_SUCCEEDED(disp->GetIDsOfNames(IID_NULL, names, 4, LOCALE_USER_DEFAULT, ids));
    EXPECT_EQ(ids[0], 61);
    EXPECT_EQ(ids[1], 0);
    EXPECT_EQ(ids[2], 1);
    EXPECT_EQ(ids[3], 2);

    // Case does not matter to a script; unknown names do.
    LPOLESTR lower[] = {const_cast<LPOLESTR>(L"debugwrite")};
    DISPID id = 0;
    ASSERT_HRESULT_SUCCEEDED(disp->GetIDsOfNames(IID_NULL, lower, 1, LOCALE_USER_DEFAULT, &id));
    EXPECT_EQ(id, 45);
    LPOLESTR unknown[] = {const_cast<LPOLESTR>(L"NoSuchMember")};
    EXPECT_EQ(disp->GetIDsOfNames(IID_NULL, unknown, 1, LOCALE_USER_DEFAULT, &id),
              DISP_E_UNKNOWNNAME);
    // Dispatch id 17 belongs to nobody.
    VARIANT r;
    VariantInit(&r);
    DISPPARAMS none = {};
    EXPECT_EQ(disp->Invoke(17, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, &r, nullptr,
                           nullptr),
              DISP_E_MEMBERNOTFOUND);
}

TEST_F(DispatchTest, OpenDebugWriteAssertWriteAndCloseByName)
{
    DebugCapture capture;

    // Before Open a guarded method fails with its guard text.
    EXPECT_EQ(Call(L"DebugWrite", {Str(L"too early")}), E_FAIL);
    EXPECT_EQ(capture.Lines(),
              std::vector<std::wstring>{L"DebugWrite - Open() not called beforehand.\r\n"});

    VARIANT result;
    VariantInit(&result);
    ASSERT_EQ(Call(L"Open", {}, &result), S_OK);
    EXPECT_EQ(result.vt, VT_I2);
    EXPECT_EQ(result.iVal, 1);

    capture.Clear();
    EXPECT_EQ(Call(L"DebugWrite", {Str(L"hello from a script")}), S_OK);
    EXPECT_TRUE(capture.Lines().empty());

    // Script numbers arrive as VT_I4 and are coerced to the declared short.
    VARIANT line;
    VariantInit(&line);
    line.vt = VT_I4;
    line.lVal = 77;
    EXPECT_EQ(Call(L"AssertWrite", {Str(L"ui.js"), line, Str(L"script check")}), S_OK);
    std::string asserts = ReadFileBytes(L"\\Hard Disk\\asserts.txt");
    EXPECT_NE(asserts.find(" ui.js line 77 script check\r\n"), std::string::npos) << asserts;

    EXPECT_EQ(Call(L"Close", {}), S_OK);
    EXPECT_EQ(Call(L"DebugWrite", {Str(L"after close")}), E_FAIL);
}

TEST_F(DispatchTest, PropertiesDispatchAsGetAndPut)
{
    VARIANT result;
    VariantInit(&result);
    DebugCapture capture;
    EXPECT_EQ(Call(L"PracticeMode", {}, &result, DISPATCH_PROPERTYGET), E_FAIL);
    EXPECT_EQ(Call(L"RecStartTimeoutS", {}, &result, DISPATCH_PROPERTYGET), E_FAIL);
    EXPECT_EQ(Call(L"CurrentFolder", {Str(L"x")}, nullptr, DISPATCH_PROPERTYPUT), E_FAIL);
    EXPECT_EQ(capture.Lines(),
              (std::vector<std::wstring>{L"get_PracticeMode - Open() not called beforehand.\r\n",
                                         L"put_RecStartTimeoutS - Open() not called beforehand.\r\n",
                                         L"put_CurrentFolder - Open() not called beforehand.\r\n"}));
}

}  // namespace
