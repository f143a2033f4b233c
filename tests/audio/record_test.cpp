// Recording through the control with an advised sink, on the bench's
// microphone. The sample checks (the file against the capture, the loudness
// the script got) run after the program, in tests/scripts/audio_check.py.
#include <string>
#include <vector>

#include "tests/audio/AudioFixture.h"

namespace {

using S = ScriptObject;

// The three codec registers are read and written back with driver-private
// messages that no desktop driver takes: six assertions a recording.
constexpr size_t kCodecAsserts = 6;

class RecordTest : public AudioFixture
{
protected:
    // The one recording in "\Device Temp", kept for the checks.
    void KeepRecording(const std::wstring& name)
    {
        const std::vector<std::wstring> files = Recordings();
        ASSERT_EQ(files.size(), 1u);
        EXPECT_NE(files[0].find(L"Voice.wav"), std::wstring::npos) << "named for the test";
        Keep(L"\\Device Temp\\" + files[0], name + L".wav");
        KeepEvents(name + L".events");
    }
    void Feed(const char* file)
    {
        ASSERT_TRUE(sound.Send(std::string("mic ") + file));
    }
};

TEST_F(RecordTest, SpeechStartsAndStopsARecordingThatKeepsTheHalfSecondBefore)
{
    OpenInActivity();
    const size_t asserts = AssertLines();
    ASSERT_EQ(control->AudioRecord(3, 30), S_OK);
    EXPECT_EQ(AssertLines(), asserts + kCodecAsserts);
    Feed("speech.wav");  // 1 s silence, 2 s speech, 3 s silence
    ASSERT_TRUE(WaitFor(kAudioRecordEnded));
    const std::vector<AudioEvent> ended = Events(kAudioRecordEnded);
    EXPECT_EQ(ended[0].args, std::vector<int>{0});
    const std::vector<AudioEvent> progress = Events(kAudioRecordProgress);
    ASSERT_GE(progress.size(), 5u);
    EXPECT_EQ(progress[0].args, (std::vector<int>{0, 0})) << "silence, waiting";
    KeepRecording(L"speech");
}

TEST_F(RecordTest, ARecordingThatNeverTriggersEndsAfterTheStartTimeout)
{
    OpenInActivity();
    ASSERT_EQ(Script().Put(L"RecStartTimeoutS", S::I2(2)), S_OK);
    ASSERT_EQ(control->AudioRecord(1, 30), S_OK);
    ASSERT_TRUE(WaitFor(kAudioRecordEnded));
    std::vector<std::vector<int>> seen;
    for (const AudioEvent& e : Events())
        seen.push_back(e.args);
    // Four silent half seconds, then the end: the trigger never came.
    EXPECT_EQ(seen, (std::vector<std::vector<int>>{{0, 0}, {0, 0}, {0, 0}, {0, 0}, {103}}));
    KeepRecording(L"untriggered");
}

TEST_F(RecordTest, MaxSecondsEndsALoudRecordingAfterTwoBuffers)
{
    OpenInActivity();
    Feed("tone.wav");
    ASSERT_TRUE(sound.WaitText("mic start", nullptr, 10000));
    ASSERT_EQ(control->AudioRecord(0, 1), S_OK);
    ASSERT_TRUE(WaitFor(kAudioRecordEnded));
    std::vector<std::vector<int>> seen;
    for (const AudioEvent& e : Events())
        seen.push_back(e.args);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0][1], 0);
    EXPECT_EQ(seen[1][1], 1);
    EXPECT_EQ(seen[2], std::vector<int>{0});
    KeepRecording(L"maxseconds");
}

TEST_F(RecordTest, ACancelFromTheProgressHandlerEndsWith103AndLeavesAWellFormedFile)
{
    OpenInActivity();
    ASSERT_EQ(control->AudioRecord(0, 30), S_OK);
    // As a script does: cancel while the recorder is still handing out the
    // buffer; nothing of the stream may be used after that.
    sink.onEvent = [this](DISPID id) {
        ticks.push_back(GetTickCount());
        if (id == kAudioRecordProgress)
            control->CancelAudioRecord();
    };
    ASSERT_TRUE(WaitFor(kAudioRecordEnded));
    EXPECT_EQ(Events(kAudioRecordEnded)[0].args, std::vector<int>{103});
    // A second cancel, with nothing running, is silent.
    ASSERT_EQ(control->CancelAudioRecord(), S_OK);
    PumpFor(700);
    EXPECT_EQ(Events(kAudioRecordEnded).size(), 1u);
    EXPECT_EQ(Events(kAudioRecordProgress).size(), 1u) << "no buffer after the cancel";
    KeepRecording(L"cancelled");
}

TEST_F(RecordTest, ClosingTheControlMidRecordingRaisesNothingAndFinishesTheFile)
{
    OpenInActivity();
    Feed("tone.wav");
    ASSERT_EQ(control->AudioRecord(0, 30), S_OK);
    ASSERT_TRUE(WaitFor(kAudioRecordProgress, 2));
    ASSERT_EQ(control->Close(), S_OK);
    PumpFor(700);
    EXPECT_TRUE(Events(kAudioRecordEnded).empty());
    KeepRecording(L"closed");
}

TEST_F(RecordTest, CaptureFormatsTheRecorderCannotUse)
{
    OpenInActivity();
    // No device opens it: refused, and the file made for it is gone again.
    ASSERT_TRUE(WriteDiskFile(L"\\Device Software\\RecOdd.wav", EmptyWave(kBenchRate, 16, 1, 0x1234)));
    ASSERT_EQ(Script().Put(L"RecFormat", S::Str(L"RecOdd.wav")), S_OK);
    debug.Clear();
    EXPECT_EQ(control->AudioRecord(0, 30), E_FAIL);
    EXPECT_EQ(debug.Lines(), std::vector<std::wstring>{L"AudioRecord: Record failed.\r\n"});
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

TEST_F(RecordTest, DontStoreWithStopOnVolumeRecordsNothingToDisk)
{
    OpenInActivity();
    ASSERT_EQ(control->AudioRecord(6, 1), S_OK);
    ASSERT_TRUE(WaitFor(kAudioRecordEnded));
    EXPECT_EQ(Events(kAudioRecordEnded)[0].args, std::vector<int>{0});
    EXPECT_TRUE(Recordings().empty());
}

TEST_F(RecordTest, RefusalsFailTheCallWithTheirMessagesAndRaiseNothing)
{
    short ok = 0;
    ASSERT_EQ(control->Open(&ok), S_OK);
    EXPECT_EQ(control->AudioRecord(0, 5), E_FAIL) << "no capture format yet";
    ASSERT_TRUE(WriteDiskFile(L"\\Device Software\\Rec200.wav", EmptyWave(200)));
    ASSERT_TRUE(WriteDiskFile(L"\\Device Software\\NoData.wav", EmptyWave(kBenchRate).substr(0, 38)));
    struct Put
    {
        const wchar_t* property;
        VARIANT value;
        HRESULT result;
        std::vector<std::wstring> lines;
    };
    const std::vector<Put> puts = {
        {L"RecFormat", S::Str(L"Rec200.wav"), E_FAIL,
         {L"FRACSEC_AVG too small for this speed.\r\n", L"put_RecFormat - SetRecFormatFromFile failed.\r\n"}},
        {L"RecFormat", S::Str(L"Missing.wav"), E_FAIL,
         {L"File open failed: \\Device Software\\Missing.wav\r\n", L"put_RecFormat - SetRecFormatFromFile failed.\r\n"}},
        {L"RecFormat", S::Str(L"NoData.wav"), E_FAIL, {L"put_RecFormat - SetRecFormatFromFile failed.\r\n"}},
        {L"RecFormat", S::Str(L"\\Device Software\\Rec22k.wav"), S_OK, {}},
        {L"RecStartTimeoutS", S::I2(0), E_FAIL,
         {L"SetRecStartTimeoutS - timeout < 1\r\n", L"put_RecStartTimeoutS: SetRecStartTimeoutS failed.\r\n"}},
        {L"RecStartTimeoutS", S::I2(4), S_OK, {}},
        {L"RecAvgVolumeStart", S::I2(300), S_OK, {}},
        {L"RecAvgVolumeStop", S::I2(-1), S_OK, {}},
    };
    for (const Put& p : puts) {
        SCOPED_TRACE(p.property);
        debug.Clear();
        VARIANT value = p.value;
        EXPECT_EQ(Script().Put(p.property, value), p.result);
        EXPECT_EQ(debug.Lines(), p.lines);
    }
    VARIANT v;
    ASSERT_EQ(Script().Get(L"RecFormat", &v), S_OK);
    EXPECT_STREQ(v.bstrVal, L"\\Device Software\\Rec22k.wav");
    VariantClear(&v);
    short value = 0;
    EXPECT_EQ(control->get_RecStartTimeoutS(&value), S_OK);
    EXPECT_EQ(value, 4);
    EXPECT_EQ(control->get_RecAvgVolumeStart(&value), S_OK);
    EXPECT_EQ(value, 300);
    EXPECT_EQ(control->get_RecAvgVolumeStop(&value), S_OK);
    EXPECT_EQ(value, -1);

    struct Call
    {
        short flags, maxSeconds;
        std::vector<std::wstring> lines;
    };
    const std::wstring failed = L"AudioRecord: Record failed.\r\n";
    const std::vector<Call> calls = {
        {0, 5, {L"ERROR: Record: not running a test activity.\r\n", failed}},
        {5, 5, {L"ERROR: DONT_STORE combined with START/STOP ON VOLUME\r\n.", failed}},
        {7, 5, {L"ERROR: DONT_STORE combined with START/STOP ON VOLUME\r\n.", failed}},
        {0, 0, {failed}},
        {2, -1, {failed}},
    };
    for (const Call& c : calls) {
        SCOPED_TRACE(c.flags * 100 + c.maxSeconds);
        debug.Clear();
        EXPECT_EQ(control->AudioRecord(c.flags, c.maxSeconds), E_FAIL);
        EXPECT_EQ(debug.Lines(), c.lines);
    }
    EXPECT_EQ(control->CancelAudioRecord(), S_OK);
    EXPECT_EQ(control->CancelAudioPlay(), S_OK);
    PumpFor(200);
    EXPECT_TRUE(Events().empty());
}

// Run with "\Device Temp" on a small file system (see audio_test.sh).
TEST_F(RecordTest, FullDiskEndsTheRecordingWith103AndAFileWhoseSizesAreRight)
{
    OpenInActivity();
    Feed("tone.wav");
    ASSERT_EQ(control->AudioRecord(0, 30), S_OK);
    ASSERT_TRUE(WaitFor(kAudioRecordEnded));
    EXPECT_EQ(Events(kAudioRecordEnded)[0].args, std::vector<int>{103});
    EXPECT_LT(Events(kAudioRecordProgress).size(), 20u);
    KeepRecording(L"fulldisk");
}

}  // namespace
