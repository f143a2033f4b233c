// What the watch tests share: the control built into the test program,
// opened next to the bench panel with an advised recording sink, its watch
// manager, and the watch events as the script got them.
#pragma once

#include "tests/panel/PanelFixture.h"

#include "watch/Watch.h"
#include "watch/WatchCmdResp.h"

// Dispatch ids of the watch events.
constexpr DISPID kWatchVisible = 2;
constexpr DISPID kWatchSaveProgress = 15;
constexpr DISPID kWatchSaveEnded = 16;
constexpr DISPID kWatchDataDestroyEnded = 17;
constexpr DISPID kWatchParametersRead = 27;

class WatchFixture : public PanelFixture
{
protected:
    void SetUp() override
    {
        control = CreateLocalControl();
        ASSERT_TRUE(control);
        Start(control.Get());
        short ok = 0;
        ASSERT_EQ(control->Open(&ok), S_OK);
        ASSERT_EQ(ok, 1);
        IManagerSite* site = AsControl(control.Get());
        watch = site->GetWatch();
        ASSERT_NE(watch, nullptr);
        Seen();
        capture.Clear();
    }

    void TearDown() override
    {
        if (control)
            control->Close();
        Stop();
        control.Reset();
    }

    // The watch events so far (the lid's and the microcontroller's left out).
    std::vector<GpioEvent> WatchEvents() const
    {
        std::vector<GpioEvent> out;
        for (const GpioEvent& e : Events())
            if (e.id == kWatchVisible || e.id == kWatchSaveProgress || e.id == kWatchSaveEnded ||
                e.id == kWatchDataDestroyEnded || e.id == kWatchParametersRead)
                out.push_back(e);
        return out;
    }

    // A response record as the command thread would post it.
    static WatchCmdResp* Response(short id, bool success, const std::string& data = {})
    {
        return MakeWatchCmdResp(id, success, static_cast<DWORD>(data.size()), data.data());
    }

    ComPtr<IBrennock> control;
    CWatch* watch = nullptr;
};
