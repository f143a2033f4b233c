// What the watch tests share: the control built into the test program,
// opened next to the bench panel with an advised recording sink, its watch
// manager, and the watch events as the script got them.
#pragma once

#include "tests/panel/PanelFixture.h"

#include "watch/Watch.h"
#include "watch/WatchCmdResp.h"

// Dispatch ids of the watch events.
constexpr DISPID kWatchVisible = 2, kWatchSaveProgress = 15, kWatchSaveEnded = 16, kWatchDataDestroyEnded = 17,
                 kWatchParametersRead = 27;

class WatchFixture : public LocalFixture
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(LocalFixture::SetUp());
        watch = site->GetWatch();
        ASSERT_NE(watch, nullptr);
        for (const std::wstring& name : TempFiles(L".trem"))
            DeleteDiskFile(L"\\Device Temp\\" + name);
    }

    // The watch events so far (the lid's and the microcontroller's left out).
    std::vector<GpioEvent> WatchEvents() const
    {
        return Events([](DISPID id) {
            return id == kWatchVisible || id == kWatchSaveProgress || id == kWatchSaveEnded ||
                   id == kWatchDataDestroyEnded || id == kWatchParametersRead;
        });
    }

    // The script's WatchSaveStart("Watch").
    HRESULT SaveStart() { return ScriptObject(control.Get()).Call(L"WatchSaveStart", {ScriptObject::Str(L"Watch")}); }

    // A response record as the command thread would post it.
    static WatchCmdResp* Response(short id, bool success, const std::string& data = {})
    {
        return MakeWatchCmdResp(id, success, static_cast<DWORD>(data.size()), data.data());
    }

    CWatch* watch = nullptr;
};
