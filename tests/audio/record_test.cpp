// Recording on the bench's microphone; audio_check.py checks the samples after the run.
#include <tuple>

#include "tests/audio/AudioFixture.h"

namespace {

using S = ScriptObject;

using RecordTest = AudioFixture;

TEST_F(RecordTest, SpeechStartsAndStopsARecordingThatKeepsTheHalfSecondBefore)
{
    StartActivity();
    const size_t asserts = AssertLines();
    ASSERT_EQ(control->AudioRecord(3, 30), S_OK);
    // Three codec registers read and written back with driver-private
    // messages that no desktop driver takes: six assertions a recording.
    EXPECT_EQ(AssertLines(), asserts + 6);
    Feed("speech.wav");  // 1 s silence, 2 s speech, 3 s silence
    ASSERT_TRUE(WaitFor(kAudioRecordEnded));
    KeepRecording(L"speech");  // its events are checked with its samples
}

TEST_F(RecordTest, ARecordingThatNeverTriggersEndsAfterTheStartTimeout)
{
    StartActivity();
    ASSERT_EQ(Script().Put(L"RecStartTimeoutS", S::I2(2)), S_OK);
    ASSERT_EQ(control->AudioRecord(1, 30), S_OK);
    ASSERT_TRUE(WaitFor(kAudioRecordEnded));
    // Four silent half seconds, then the end: the trigger never came.
    const AudioEvent quiet{kAudioRecordProgress, {0, 0}};
    EXPECT_EQ(Events(), (std::vector<AudioEvent>{quiet, quiet, quiet, quiet, {kAudioRecordEnded, {103}}}));
    EXPECT_EQ(ReadFileBytes(DiskPath((L"\\Device Temp\\" + Recordings().at(0)).c_str())).size(), 46u) << "nothing stored";
    KeepRecording(L"untriggered");
}

TEST_F(RecordTest, MaxSecondsEndsALoudRecordingAfterTwoBuffersAndDontStoreWritesNoFile)
{
    StartActivity();
    Feed("tone.wav");
    ASSERT_TRUE(sound.WaitText("mic start", nullptr, 10000));
    ASSERT_EQ(control->AudioRecord(0, 1), S_OK);
    ASSERT_TRUE(WaitFor(kAudioRecordEnded));
    KeepRecording(L"maxseconds");
    ASSERT_EQ(control->AudioRecord(6, 1), S_OK);  // DONT_STORE | STOP_ON_VOLUME
    ASSERT_TRUE(WaitFor(kAudioRecordEnded, 2));
    EXPECT_EQ(Recordings().size(), 1u);
}

TEST_F(RecordTest, ACancelFromTheProgressHandlerEndsWith103AndLeavesAWellFormedFile)
{
    StartActivity();
    ASSERT_EQ(control->AudioRecord(0, 30), S_OK);
    // As a script does: cancel while the recorder is still handing out the
    // buffer; nothing of the stream may be used after that.
    sink.onEvent = [this](DISPID id) {
        if (id == kAudioRecordProgress)
            control->CancelAudioRecord();
    };
    ASSERT_TRUE(WaitFor(kAudioRecordEnded));
    // A second cancel, with nothing running, is silent; no buffer comes after the first.
    ASSERT_EQ(control->CancelAudioRecord(), S_OK);
    PumpFor(700);
    EXPECT_EQ(Events(), (std::vector<AudioEvent>{{kAudioRecordProgress, {0, 0}}, {kAudioRecordEnded, {103}}}));
    KeepRecording(L"cancelled");
}

TEST_F(RecordTest, ClosingTheControlMidRecordingRaisesNothingAndFinishesTheFile)
{
    StartActivity();
    Feed("tone.wav");
    ASSERT_EQ(control->AudioRecord(0, 30), S_OK);
    ASSERT_TRUE(WaitFor(kAudioRecordProgress, 2));
    ASSERT_EQ(control->Close(), S_OK);
    PumpFor(700);
    EXPECT_TRUE(Events(kAudioRecordEnded).empty());
    KeepRecording(L"closed");
}

TEST_F(RecordTest, RefusalsFailTheCallWithTheirMessagesAndFormatsTheRecorderCannotUseFailOrEndWith103)
{
    EXPECT_EQ(control->AudioRecord(0, 5), E_FAIL) << "no capture format yet";
    ASSERT_TRUE(WriteDiskFile(L"\\Device Software\\Rec200.wav", EmptyWave(200)));
    ASSERT_TRUE(WriteDiskFile(L"\\Device Software\\NoData.wav", EmptyWave(kBenchRate).substr(0, 38)));
    const std::wstring formatFailed = L"put_RecFormat - SetRecFormatFromFile failed.\r\n";
    const std::tuple<const wchar_t*, VARIANT, HRESULT, std::vector<std::wstring>> puts[] = {
        {L"RecFormat", S::Str(L"Rec200.wav"), E_FAIL, {L"FRACSEC_AVG too small for this speed.\r\n", formatFailed}},
        {L"RecFormat", S::Str(L"Missing.wav"), E_FAIL,
         {L"File open failed: \\Device Software\\Missing.wav\r\n", formatFailed}},
        {L"RecFormat", S::Str(L"NoData.wav"), E_FAIL, {formatFailed}},
        {L"RecFormat", S::Str(L"\\Device Software\\Rec22k.wav"), S_OK, {}},
        {L"RecStartTimeoutS", S::I2(0), E_FAIL,
         {L"SetRecStartTimeoutS - timeout < 1\r\n", L"put_RecStartTimeoutS: SetRecStartTimeoutS failed.\r\n"}},
    };
    for (const auto& [property, value, result, lines] : puts) {
        SCOPED_TRACE(property);
        debug.Clear();
        EXPECT_EQ(Script().Put(property, value), result);
        EXPECT_EQ(debug.Lines(), lines);
    }
    const std::wstring failed = L"AudioRecord: Record failed.\r\n";
    const std::tuple<short, short, std::vector<std::wstring>> calls[] = {
        {0, 5, {L"ERROR: Record: not running a test activity.\r\n", failed}},
        {5, 5, {L"ERROR: DONT_STORE combined with START/STOP ON VOLUME\r\n.", failed}},
        {7, 5, {L"ERROR: DONT_STORE combined with START/STOP ON VOLUME\r\n.", failed}},
        {0, 0, {failed}},
        {2, -1, {failed}},
    };
    for (const auto& [flags, maxSeconds, lines] : calls) {
        SCOPED_TRACE(flags * 100 + maxSeconds);
        debug.Clear();
        EXPECT_EQ(control->AudioRecord(flags, maxSeconds), E_FAIL);
        EXPECT_EQ(debug.Lines(), lines);
    }
    EXPECT_EQ(control->CancelAudioRecord(), S_OK);
    EXPECT_EQ(control->CancelAudioPlay(), S_OK);
    PumpFor(200);
    EXPECT_TRUE(Events().empty());

    // Capture formats the recorder cannot use.
    StartActivity();
    // No device opens it: refused, and the file made for it is gone again.
    ASSERT_TRUE(WriteDiskFile(L"\\Device Software\\RecOdd.wav", EmptyWave(kBenchRate, 16, 1, 0x1234)));
    ASSERT_EQ(Script().Put(L"RecFormat", S::Str(L"RecOdd.wav")), S_OK);
    debug.Clear();
    EXPECT_EQ(control->AudioRecord(0, 30), E_FAIL);
    EXPECT_EQ(debug.Lines(), std::vector<std::wstring>{failed});
    EXPECT_TRUE(Recordings().empty());
    // An 8-bit format opens, but the recorder scans and stores 16-bit mono
    // only: the recording fails at its first buffer.
    ASSERT_TRUE(WriteDiskFile(L"\\Device Software\\Rec8bit.wav", EmptyWave(kBenchRate, 8)));
    ASSERT_EQ(Script().Put(L"RecFormat", S::Str(L"Rec8bit.wav")), S_OK);
    ASSERT_EQ(control->AudioRecord(0, 30), S_OK);
    ASSERT_TRUE(WaitFor(kAudioRecordEnded));
    EXPECT_EQ(Events(kAudioRecordEnded)[0].args, std::vector<int>{103});
    EXPECT_TRUE(debug.Contains(L"FindPowerMinMax: sample != 16 bits or nChannels != 1.\r\n"));
    KeepRecording(L"eightbit");
}

// Run with "\Device Temp" on a small file system (see audio_test.sh).
TEST_F(RecordTest, FullDiskEndsTheRecordingWith103AndAFileWhoseSizesAreRight)
{
    StartActivity();
    Feed("tone.wav");
    ASSERT_EQ(control->AudioRecord(0, 30), S_OK);
    ASSERT_TRUE(WaitFor(kAudioRecordEnded));
    EXPECT_EQ(Events(kAudioRecordEnded)[0].args, std::vector<int>{103});
    EXPECT_LT(Events(kAudioRecordProgress).size(), 20u);
    KeepRecording(L"fulldisk");
}

}  // namespace
