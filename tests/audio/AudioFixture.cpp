#include "tests/audio/AudioFixture.h"

#include <cstdio>

void AudioFixture::SetUp()
{
    ASSERT_HRESULT_SUCCEEDED(com.Result());
    ASSERT_TRUE(sound.Running()) << "run this program through scripts/simrun --sound";
    ProvisionDisk();
    CreateDirectoryW(L"\\Device Software", nullptr);
    ASSERT_TRUE(WriteDiskFile(L"\\Device Software\\Rec22k.wav", EmptyWave(kBenchRate)));
    control = CreateLocalControl();
    ASSERT_TRUE(control);
    cookie = AdviseSink(control.Get(), &sink);
    ASSERT_NE(cookie, 0u);
    short ok = 0;
    ASSERT_EQ(control->Open(&ok), S_OK);
    ASSERT_EQ(ok, 1);
}

void AudioFixture::TearDown()
{
    if (control) {
        UnadviseSink(control.Get(), cookie);
        control->Close();
    }
    // The next test starts with a silent microphone.
    sound.Send("mic stop");
    sound.Sync(nullptr, 10000);
}

void AudioFixture::StartActivity()
{
    ASSERT_EQ(control->SessionStart(), S_OK);
    ASSERT_EQ(Script().Call(L"ActivityConfig", {ScriptObject::I2(7), ScriptObject::Str(L"Voice"),
                                                ScriptObject::I2(0), ScriptObject::I2(0)}),
              S_OK);
    ASSERT_EQ(control->ActivityStart(0), S_OK);
    ASSERT_EQ(Script().Put(L"RecFormat", ScriptObject::Str(L"Rec22k.wav")), S_OK);
}

std::vector<AudioEvent> AudioFixture::Events(DISPID only) const
{
    std::vector<AudioEvent> out;
    for (const ReceivedEvent& e : sink.events) {
        if (only ? e.id != only : e.id != kAudioPlayEnded && e.id != kAudioRecordEnded && e.id != kAudioRecordProgress)
            continue;
        // The sink holds the arguments last first.
        AudioEvent& a = out.emplace_back(AudioEvent{e.id, {}});
        for (auto it = e.args.rbegin(); it != e.args.rend(); ++it)
            a.args.push_back(it->vt == VT_I2 ? it->iVal : -99999);
    }
    return out;
}

bool AudioFixture::WaitFor(DISPID id, size_t count)
{
    return PumpUntil([&] { return Events(id).size() >= count; }, 30000);
}

std::vector<std::wstring> AudioFixture::Recordings() const
{
    std::vector<std::wstring> names = FilesIn(L"\\Device Temp");
    std::erase_if(names, [](const std::wstring& name) { return !name.ends_with(L".wav"); });
    return names;
}

// The recording, and its events one a line: a name and the arguments.
void AudioFixture::KeepRecording(const std::wstring& name) const
{
    const std::vector<std::wstring> files = Recordings();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_NE(files[0].find(L"Voice.wav"), std::wstring::npos) << "named for the test";
    const std::wstring out = WindowsPathFromEnv(L"BRENNOCK_AUDIO_OUT");
    if (out.empty())
        return;
    CreateDirectoryW(out.c_str(), nullptr);
    CopyFileW((L"\\Device Temp\\" + files[0]).c_str(), (out + L"\\" + name + L".wav").c_str(), FALSE);
    FILE* f = _wfopen((out + L"\\" + name + L".events").c_str(), L"wb");
    ASSERT_NE(f, nullptr);
    for (const AudioEvent& e : Events()) {
        std::fprintf(f, "%s", e.id == kAudioRecordProgress ? "progress"
                              : e.id == kAudioRecordEnded  ? "recordended"
                                                           : "playended");
        for (int a : e.args)
            std::fprintf(f, " %d", a);
        std::fprintf(f, "\n");
    }
    std::fclose(f);
}
