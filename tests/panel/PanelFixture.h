// What the tests of the control next to the bench panel share (they run under
// scripts/simrun): a control with an advised recording sink, a message loop
// that counts the GPIO heartbeats it dispatches, and the panel; and the
// registered control bound late, as a UI script meets it.
#pragma once

#include <gtest/gtest.h>

#include <cwchar>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/BenchPanel.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/MessagePump.h"

// Dispatch ids of the GPIO events, and of the microcontroller's reset note.
constexpr DISPID kBlinkEnded = 1, kTimerEnded = 21, kLidMoved = 22, kDataStoreVisible = 26, kHC08ResetEvent = 19;

// One event as the script got it: 16-bit integer arguments in declaration
// order (-99999 for any other type), and the heartbeats dispatched by then.
struct GpioEvent
{
    DISPID id;
    std::vector<int> args;
    int beat;
    bool operator==(const GpioEvent& o) const { return id == o.id && args == o.args; }
};

inline std::ostream& operator<<(std::ostream& os, const GpioEvent& e)
{
    return os << "{" << e.id << ": " << testing::PrintToString(e.args) << " @" << e.beat << "}";
}

inline GpioEvent Ev(DISPID id, std::vector<int> args) { return GpioEvent{id, std::move(args), 0}; }

inline std::vector<std::wstring> TempFiles(const std::wstring& suffix)
{
    std::vector<std::wstring> names = FilesIn(L"\\Device Temp");
    std::erase_if(names, [&](const std::wstring& name) { return !name.ends_with(suffix); });
    return names;
}

class PanelFixture : public ::testing::Test
{
protected:
    // Advises the sink on the control (Open needs the params file).
    void Start(IUnknown* control)
    {
        ASSERT_HRESULT_SUCCEEDED(com.Result());
        ASSERT_TRUE(BenchPanel::Running()) << "run this program through scripts/simrun";
        ProvisionDisk();
        m_control = control;
        sink.onEvent = [this](DISPID) { m_beats.push_back(heartbeats); };
        m_cookie = AdviseSink(control, &sink);
        ASSERT_NE(m_cookie, 0u);
    }

    void TearDown() override
    {
        if (m_cookie != 0)
            UnadviseSink(m_control, m_cookie);
    }

    bool Pump(const std::function<bool()>& done)
    {
        return PumpUntil(done, 30000, [this](const MSG& msg) {
            wchar_t name[64];
            if (msg.message == WM_TIMER && msg.wParam == 50 && msg.hwnd != nullptr &&
                GetClassNameW(msg.hwnd, name, 64) && wcscmp(name, L"GpioMessageWin") == 0)
                ++heartbeats;
        });
    }

    bool PumpHeartbeats(int n) { return Pump([&, target = heartbeats + n] { return heartbeats >= target; }); }
    bool PumpUntilEvents(DISPID id, size_t count) { return Pump([&] { return Events(id).size() >= count; }); }

    std::vector<GpioEvent> Events(const std::function<bool(DISPID)>& keep = [](DISPID) { return true; }) const
    {
        std::vector<GpioEvent> out;
        for (size_t i = 0; i < sink.events.size(); ++i) {
            const ReceivedEvent& r = sink.events[i];
            GpioEvent e{r.id, {}, i < m_beats.size() ? m_beats[i] : -1};
            for (size_t k = r.args.size(); k-- > 0;)
                e.args.push_back(r.args[k].vt == VT_I2 ? r.args[k].iVal : -99999);
            if (keep(r.id))
                out.push_back(e);
        }
        return out;
    }

    std::vector<GpioEvent> Events(DISPID id) const { return Events([id](DISPID e) { return e == id; }); }

    // Everything but the lid, whose first report comes on the first heartbeat
    // of every fresh control, and the microcontroller's reset note at Open.
    std::vector<GpioEvent> EventsButLid() const
    {
        return Events([](DISPID e) { return e != kLidMoved && e != kHC08ResetEvent; });
    }

    std::vector<PanelEntry> Seen()
    {
        std::vector<PanelEntry> entries;
        EXPECT_TRUE(panel.Sync(&entries)) << "the bench panel does not answer";
        return entries;
    }

    ComApartment com;
    RecordingSink sink;
    DebugCapture capture;
    BenchPanel panel;
    int heartbeats = 0;

private:
    IUnknown* m_control = nullptr;
    DWORD m_cookie = 0;
    std::vector<int> m_beats;
};

// The control built into the test program (its managers within reach),
// advised and opened.
class LocalFixture : public PanelFixture
{
protected:
    void SetUp() override
    {
        control = CreateLocalControl();
        ASSERT_TRUE(control);
        ASSERT_NO_FATAL_FAILURE(Start(control.Get()));
        short ok = 0;
        ASSERT_EQ(control->Open(&ok), S_OK);
        ASSERT_EQ(ok, 1);
        site = AsControl(control.Get());
        Seen();
        capture.Clear();
    }

    void TearDown() override
    {
        if (control)
            control->Close();
        PanelFixture::TearDown();
        control.Reset();
    }

    ComPtr<IBrennock> control;
    IManagerSite* site = nullptr;
};

// The registered control, created by ProgID and called late-bound through
// IDispatch with an advised sink; Open is the test's to call.
class ScriptFixture : public PanelFixture
{
protected:
    void SetUp() override
    {
        CLSID clsid;
        ASSERT_HRESULT_SUCCEEDED(CLSIDFromProgID(L"BrennockControl.Brennock", &clsid));
        ASSERT_HRESULT_SUCCEEDED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch,
                                                  reinterpret_cast<void**>(disp.GetAddressOf())));
        Start(disp.Get());
        script = std::make_unique<ScriptObject>(disp.Get());
    }

    void TearDown() override
    {
        if (script)
            Call(L"Close");
        PanelFixture::TearDown();
        script.reset();
        disp.Reset();
    }

    HRESULT Call(const wchar_t* name, std::vector<VARIANT> args = {}, VARIANT* result = nullptr)
    {
        return script->Call(name, std::move(args), result);
    }

    // Open's out value, -1 when it is not a 16-bit integer.
    short Open()
    {
        VARIANT ok;
        VariantInit(&ok);
        EXPECT_EQ(Call(L"Open", {}, &ok), S_OK);
        return ok.vt == VT_I2 ? ok.iVal : -1;
    }

    ComPtr<IDispatch> disp;
    std::unique_ptr<ScriptObject> script;
};
