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

// The capture format of the bench: 22050 Hz, mono, 16-bit.
constexpr DWORD kBenchRate = 22050;

// An audio event with its arguments in declaration order.
struct AudioEvent
{
    DISPID id;
    std::vector<int> args;
    bool operator==(const AudioEvent&) const = default;
};

// A 46-byte wave file of a PCM format with an empty data chunk.
std::string EmptyWave(DWORD rate, WORD bits = 16, WORD channels = 1, WORD tag = WAVE_FORMAT_PCM);

class AudioFixture : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Opens the control, starts a session and a questionnaire activity.
    void OpenInActivity();
    ScriptObject Script() { return ScriptObject(control.Get()); }

    // The audio events so far, or those of one kind.
    std::vector<AudioEvent> Events(DISPID only = 0) const;
    // Runs the message loop until so many events of that kind have come (or 30 s).
    bool WaitFor(DISPID id, size_t count = 1);
    // Runs the message loop for ms, so that an event that should not come
    // has had its chance.
    void PumpFor(DWORD ms) { PumpUntil([] { return false; }, ms); }

    // The ".wav" files in "\Device Temp".
    std::vector<std::wstring> Recordings() const;
    // Copies the one recording in "\Device Temp" into the checks folder as
    // NAME.wav, and writes the events beside it as NAME.events.
    void KeepRecording(const std::wstring& name) const;
    void Feed(const char* file) { ASSERT_TRUE(sound.Send(std::string("mic ") + file)); }

    ComApartment com;
    RecordingSink sink;
    ComPtr<IBrennock> control;
    DWORD cookie = 0;
    DebugCapture debug;
    SimChannel sound{L"\\sound.log", L"\\sound.cmd"};
};
