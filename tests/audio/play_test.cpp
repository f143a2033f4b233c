// Playback into the bench's speaker; audio_check.py checks the samples after the run.
#include "tests/audio/AudioFixture.h"

namespace {

using S = ScriptObject;

BOOL CALLBACK PostStrangers(HWND hwnd, LPARAM header)
{
    wchar_t name[64] = {};
    GetClassNameW(hwnd, name, 64);
    if (std::wstring(name) == L"AudioMessageWin") {
        PostMessageW(hwnd, MM_WOM_DONE, 0, header);
        PostMessageW(hwnd, MM_WIM_DATA, 0, header);
    }
    return TRUE;
}

class PlayTest : public AudioFixture
{
protected:
    void SetUp() override
    {
        AudioFixture::SetUp();
        short ok = 0;
        ASSERT_TRUE(control->Open(&ok) == S_OK && ok == 1);
    }
};

TEST_F(PlayTest, AFileFromAnotherToolAndOneShorterThanABufferPlayWholeAndEndOnce)
{
    // Made by sox (audio_test.sh): 1.3 s and 0.2 s sweeps at 22050 Hz.
    for (const wchar_t* file : {L"sweep.wav", L"\\Device Software\\blip.wav"}) {
        SCOPED_TRACE(file);
        sink.events.clear();
        ASSERT_EQ(Script().Call(L"AudioPlay", {S::Str(file)}), S_OK);
        // Completion notices for headers the streams never queued change
        // nothing.
        WAVEHDR stranger = {};
        EnumThreadWindows(GetCurrentThreadId(), PostStrangers, reinterpret_cast<LPARAM>(&stranger));
        ASSERT_TRUE(WaitFor(kAudioPlayEnded));
        PumpFor(700);
        ASSERT_EQ(Events().size(), 1u);
        EXPECT_EQ(Events()[0].args, std::vector<int>{0});
    }
}

TEST_F(PlayTest, CancelStopsPlaybackWith103)
{
    ASSERT_EQ(Script().Call(L"AudioPlay", {S::Str(L"sweep.wav")}), S_OK);
    EXPECT_EQ(Script().Call(L"AudioPlay", {S::Str(L"sweep.wav")}), E_FAIL) << "one sound at a time";
    ASSERT_EQ(control->CancelAudioPlay(), S_OK);
    PumpFor(700);
    ASSERT_EQ(Events().size(), 1u);
    EXPECT_EQ(Events()[0].args, std::vector<int>{103});
}

TEST_F(PlayTest, FilesThatCannotPlayFailTheCallAndRaiseNothing)
{
    ASSERT_TRUE(WriteDiskFile(L"\\Device Software\\odd.wav", EmptyWave(kBenchRate, 16, 1, 0x1234)));
    ASSERT_TRUE(WriteDiskFile(L"\\Device Software\\junk.wav", "RIFF junk"));
    const std::wstring failed = L"AudioPlay - Play failed.\r\n";
    const std::pair<const wchar_t*, std::vector<std::wstring>> cases[] = {
        {L"missing.wav",
         {L"File open failed: \\Device Software\\missing.wav\r\n", L"File open failed: \\Device Software\\missing.wav\r\n",
          failed}},
        {L"junk.wav", {L"File open failed: \\Device Software\\junk.wav\r\n", failed}},
        {L"odd.wav", {failed}},  // a format no device takes
    };
    for (const auto& [file, lines] : cases) {
        SCOPED_TRACE(file);
        debug.Clear();
        EXPECT_EQ(Script().Call(L"AudioPlay", {S::Str(file)}), E_FAIL);
        EXPECT_EQ(debug.Lines(), lines);
    }
    debug.Clear();
    EXPECT_EQ(control->AudioPlay(nullptr), E_FAIL);
    EXPECT_EQ(debug.Lines(), std::vector<std::wstring>{L"AudioPlay - null filename.\r\n"});
    PumpFor(300);
    EXPECT_TRUE(Events().empty());
}

}  // namespace
