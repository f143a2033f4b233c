// What the audio tests share: an opened control with an advised sink inside a
// running test activity, the bench's sound simulator (the tests run under
// scripts/simrun --sound, see tests/scripts/audio_test.sh), and the folder
// where a run leaves recordings and event lists for the sample checks that
// follow it (BRENNOCK_AUDIO_OUT).
#pragma once

#include <gtest/gtest.h>

#include <windows.h>
#include <mmsystem.h>

#include <string>
#include <vector>

#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/MessagePump.h"
#include "tests/support/SimChannel.h"

constexpr DISPID kAudioPlayEnded = 20;
constexpr DISPID kAudioRecordEnded = 23;
constexpr DISPID kAudioRecordProgress = 24;

constexpr DWORD kBenchRate = 22050;

// Arguments in declaration order.
struct AudioEvent
{
    DISPID id;
    std::vector<int> args;
    bool operator==(const AudioEvent&) const = default;
};

// Wave files made byte by byte.
inline std::string U32(DWORD v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
inline std::string Chunk(const char* id, const std::string& body) { return id + U32(DWORD(body.size())) + body; }
inline std::string Riff(const std::string& chunks) { return "RIFF" + U32(DWORD(4 + chunks.size())) + "WAVE" + chunks; }
inline WAVEFORMATEX Pcm(DWORD rate, WORD bits = 16, WORD channels = 1, WORD tag = WAVE_FORMAT_PCM)
{
    const WORD align = static_cast<WORD>(bits / 8 * channels);
    return {tag, channels, rate, rate * align, align, bits, 0};
}
// A format record of size bytes (14, 16 or 18): the structure's first bytes.
inline std::string Fmt(const WAVEFORMATEX& f, size_t size = 18)
{
    return std::string(reinterpret_cast<const char*>(&f), size);
}
// A 46-byte wave file with an empty data chunk.
inline std::string EmptyWave(DWORD rate, WORD bits = 16, WORD channels = 1, WORD tag = WAVE_FORMAT_PCM)
{
    return Riff(Chunk("fmt ", Fmt(Pcm(rate, bits, channels, tag))) + Chunk("data", ""));
}

class AudioFixture : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // SetUp has opened the control.
    void StartActivity();
    ScriptObject Script() { return ScriptObject(control.Get()); }

    std::vector<AudioEvent> Events(DISPID only = 0) const;
    // (at most 30 s)
    bool WaitFor(DISPID id, size_t count = 1);
    // So that an event that should not come has had its chance.
    void PumpFor(DWORD ms) { PumpUntil([] { return false; }, ms); }

    std::vector<std::wstring> Recordings() const;
    // NAME.wav and NAME.events, for the sample checks after the run.
    void KeepRecording(const std::wstring& name) const;
    void Feed(const char* file) { ASSERT_TRUE(sound.Send(std::string("mic ") + file)); }

    ComApartment com;
    RecordingSink sink;
    ComPtr<IBrennock> control;
    DWORD cookie = 0;
    DebugCapture debug;
    SimChannel sound{L"\\sound.log", L"\\sound.cmd"};
};
