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

using PlayTest = AudioFixture;

TEST_F(PlayTest, AFileFromAnotherToolAndOneShorterThanABufferPlayWholeAndEndOnceOrAreCancelled)
{
    // Made by sox (audio_test.sh): 1.3 s and 0.2 s sweeps at 22050 Hz.
    for (auto [file, cancel] :
         {std::pair{L"sweep.wav", false}, {L"\\Device Software\\blip.wav", false}, {L"sweep.wav", true}}) {
        SCOPED_TRACE(testing::Message() << file << (cancel ? " cancelled" : ""));
        sink.events.clear();
        ASSERT_EQ(Script().Call(L"AudioPlay", {S::Str(file)}), S_OK);
        if (cancel) {
            EXPECT_EQ(Script().Call(L"AudioPlay", {S::Str(file)}), E_FAIL) << "one sound at a time";
            ASSERT_EQ(control->CancelAudioPlay(), S_OK);
        }
        // Completion notices for headers the streams never queued change
        // nothing.
        WAVEHDR stranger = {};
        EnumThreadWindows(GetCurrentThreadId(), PostStrangers, reinterpret_cast<LPARAM>(&stranger));
        ASSERT_TRUE(WaitFor(kAudioPlayEnded));
        PumpFor(700);
        EXPECT_EQ(Events(), (std::vector<AudioEvent>{{kAudioPlayEnded, {cancel ? 103 : 0}}}));
    }
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
