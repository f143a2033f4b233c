// What the GPIO tests share: a control with an advised recording sink, a
// message loop that counts the GPIO heartbeats it dispatches, and the bench
// panel (the tests run under scripts/simrun).
#pragma once

#include <gtest/gtest.h>

#include <cwchar>
#include <string>
#include <vector>

#include "tests/support/BenchPanel.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/MessagePump.h"

// Dispatch ids of the GPIO events.
constexpr DISPID kBlinkEnded = 1;
constexpr DISPID kTimerEnded = 21;
constexpr DISPID kLidMoved = 22;
constexpr DISPID kDataStoreVisible = 26;

// One event as the script got it: arguments in declaration order, and the
// number of heartbeats the loop had dispatched when it came.
struct GpioEvent
{
    DISPID id;
    std::vector<int> args;
    int beat;
    bool operator==(const GpioEvent& o) const { return id == o.id && args == o.args; }
};

inline std::ostream& operator<<(std::ostream& os, const GpioEvent& e)
{
    os << "{" << e.id << ":";
    for (int a : e.args)
        os << " " << a;
    return os << " @" << e.beat << "}";
}

// Raised once by every Open, when the microcontroller answers its reset.
constexpr DISPID kHC08ResetEvent = 19;

class PanelFixture : public ::testing::Test
{
protected:
    // Advises the sink on the control and opens it.
    void Start(IUnknown* control)
    {
        ASSERT_HRESULT_SUCCEEDED(com.Result());
        ASSERT_TRUE(BenchPanel::Running()) << "run this program through scripts/simrun";
        ProvisionDisk();  // Open needs the params file
        m_control = control;
        sink.onEvent = [this](DISPID) { m_beats.push_back(heartbeats); };
        m_cookie = AdviseSink(control, &sink);
        ASSERT_NE(m_cookie, 0u);
    }

    // A control built into the test program, advised and opened (Open
    // reporting 1).
    void OpenLocalControl(ComPtr<IBrennock>* control)
    {
        *control = CreateLocalControl();
        ASSERT_TRUE(*control);
        Start(control->Get());
        short ok = 0;
        ASSERT_EQ((*control)->Open(&ok), S_OK);
        ASSERT_EQ(ok, 1);
    }

    void Stop()
    {
        if (m_control != nullptr && m_cookie != 0)
            UnadviseSink(m_control, m_cookie);
        m_cookie = 0;
    }

    // Runs the loop until done(); every heartbeat of a GPIO window on this
    // thread is counted just before it is dispatched.
    bool Pump(const std::function<bool()>& done)
    {
        return PumpUntil(done, 30000, [this](const MSG& msg) {
            if (msg.message == WM_TIMER && msg.wParam == 50 && msg.hwnd != nullptr) {
                wchar_t name[64];
                if (GetClassNameW(msg.hwnd, name, 64) && wcscmp(name, L"GpioMessageWin") == 0)
                    ++heartbeats;
            }
        });
    }

    // Runs the loop until n more heartbeats have been handled.
    bool PumpHeartbeats(int n)
    {
        const int target = heartbeats + n;
        return Pump([&] { return heartbeats >= target; });
    }

    // Runs the loop until `count` events with this id have arrived in all.
    bool PumpUntilEvents(DISPID id, size_t count)
    {
        return Pump([&] { return Events(id).size() >= count; });
    }

    std::vector<GpioEvent> Events() const
    {
        std::vector<GpioEvent> out;
        for (size_t i = 0; i < sink.events.size(); ++i) {
            const ReceivedEvent& r = sink.events[i];
            if (r.id == kHC08ResetEvent)
                continue;  // the microcontroller link's own opening
            GpioEvent e{r.id, {}, i < m_beats.size() ? m_beats[i] : -1};
            for (size_t k = r.args.size(); k-- > 0;)
                e.args.push_back(r.args[k].vt == VT_I2 ? r.args[k].iVal : -99999);
            out.push_back(e);
        }
        return out;
    }

    std::vector<GpioEvent> Events(DISPID id) const
    {
        std::vector<GpioEvent> out;
        for (const GpioEvent& e : Events())
            if (e.id == id)
                out.push_back(e);
        return out;
    }

    // Everything but the lid, whose first report comes on the first heartbeat
    // of every fresh control.
    std::vector<GpioEvent> EventsButLid() const
    {
        std::vector<GpioEvent> out;
        for (const GpioEvent& e : Events())
            if (e.id != kLidMoved)
                out.push_back(e);
        return out;
    }

    // What the panel saw since the last call.
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

inline GpioEvent Ev(DISPID id, std::vector<int> args)
{
    return GpioEvent{id, std::move(args), 0};
}
