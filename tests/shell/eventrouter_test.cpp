// The shell's event routing, with the real script engines and type information.
#include "shell/EventRouter.h"
#include "shell/ScriptHost.h"
#include "shell/ShellRun.h"

#include <gtest/gtest.h>
#include <windows.h>
#include <wrl/client.h>

#include <tuple>

using Microsoft::WRL::ComPtr;

namespace {

constexpr DISPID kSessionEnded = 25;

const struct
{
    const char* what;
    const wchar_t *engine, *script;
    LONG expected;
    int handlerErrors;
} kCases[] = {
    {"JScript value", L"JScript", L"function Brennock_SessionEnded(c) { return c + 40; }", 143, 0},
    {"VBScript function", L"VBScript",
     L"Function Brennock_SessionEnded(c)\nBrennock_SessionEnded = c + 40\nEnd Function\n", 143, 0},
    {"JScript text", L"JScript", L"function Brennock_SessionEnded(c) { return '12'; }", 12, 0},
    {"JScript nothing", L"JScript", L"function Brennock_SessionEnded(c) { }", 0, 0},
    {"VBScript sub", L"VBScript", L"Sub Brennock_SessionEnded(c)\nEnd Sub\n", 0, 0},
    {"no handler", L"JScript", L"var x = 1;", 0, 0},
    {"handler throws", L"JScript", L"function Brennock_SessionEnded(c) { throw new Error('no'); }", 0, 1},
};

TEST(EventRouter, HandlersValueReachesTheControlAsALong)
{
    ASSERT_HRESULT_SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED));
    ComPtr<IUnknown> control;
    CLSID clsid;
    ASSERT_HRESULT_SUCCEEDED(CLSIDFromProgID(L"BrennockControl.Brennock", &clsid));
    ASSERT_HRESULT_SUCCEEDED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(control.GetAddressOf())));
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        ShellRun run;
        ScriptHost script(run, L"handler");
        ASSERT_HRESULT_SUCCEEDED(script.Start(c.engine));
        ASSERT_TRUE(script.RunGlobalCode(c.script));
        ComPtr<EventRouter> router;
        router.Attach(new EventRouter(run, script));
        ASSERT_HRESULT_SUCCEEDED(router->ReadEvents(control.Get()));
        ASSERT_EQ(router->EventName(kSessionEnded), L"SessionEnded");

        VARIANT cause = {}, result = {};
        V_VT(&cause) = VT_I2, V_I2(&cause) = 103;
        DISPPARAMS params{&cause, nullptr, 1, 0};
        EXPECT_HRESULT_SUCCEEDED(
            router->Invoke(kSessionEnded, IID_NULL, 0x0400, DISPATCH_METHOD, &params, &result, nullptr, nullptr));
        EXPECT_EQ(std::make_tuple(result.vt, result.lVal, run.HandlerErrors()),
                  std::make_tuple(VARTYPE(VT_I4), c.expected, c.handlerErrors));
        VariantClear(&result);
        script.Close();
    }
    control.Reset();
    CoUninitialize();
}

}  // namespace
