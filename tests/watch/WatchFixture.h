// What the watch tests share: the control built into the test program,
// opened next to the bench panel with an advised recording sink, its watch
// manager, and the watch events as the script got them.
#pragma once

#include "tests/panel/PanelFixture.h"

#include "watch/Watch.h"
#include "watch/WatchCmdResp.h"

// A ".trem" file taken apart (header, parameter text, data lines, bytes),
// read from the file format rather than by the control's writer.
struct Trem
{
    bool ok = false;
    std::string error;
    std::string parameters;
    std::vector<std::string> dataLines;
    std::string bytes;
};

inline Trem ReadTrem(const std::string& file)
{
    Trem t;
    const std::string header = "TREM Version 1\r\n";
    const std::string data = "\r\nData\r\n";
    if (file.compare(0, header.size(), header) != 0) {
        t.error = "no header";
        return t;
    }
    size_t at = file.find(data, header.size());
    if (at == std::string::npos) {
        t.error = "no Data line";
        return t;
    }
    t.parameters = file.substr(header.size(), at - header.size());
    for (size_t pos = at + data.size(); pos < file.size();) {
        size_t end = file.find("\r\n", pos);
        if (end == std::string::npos) {
            t.error = "unterminated data line";
            return t;
        }
        std::string line = file.substr(pos, end - pos);
        if (line.size() != 64 || line.find_first_not_of("0123456789abcdef") != std::string::npos) {
            t.error = "bad data line " + line;
            return t;
        }
        t.dataLines.push_back(line);
        for (size_t i = 0; i < line.size(); i += 2)
            t.bytes += static_cast<char>(std::stoi(line.substr(i, 2), nullptr, 16));
        pos = end + 2;
    }
    t.ok = true;
    return t;
}

inline std::vector<std::wstring> TremFiles()
{
    std::vector<std::wstring> names;
    for (const std::wstring& name : FilesIn(L"\\Device Temp"))
        if (name.size() > 5 && name.compare(name.size() - 5, 5, L".trem") == 0)
            names.push_back(name);
    return names;
}


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
        ASSERT_NO_FATAL_FAILURE(OpenLocalControl(&control));
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
