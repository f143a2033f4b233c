// The watch operations on the host thread, fed with response records made
// here as the command thread would post them: the parameter reply, saving
// blocks into a ".trem" file (read back by a reader written from the file
// format), cancels and failures; and the destroy sequence's command texts.
#include "tests/watch/WatchFixture.h"

#include <cstdio>

#include "tests/support/TestClock.h"
#include "watch/WatchDestroySteps.h"

namespace {

// A parameter reply whose third field is the log address.
std::string ParmReply(const std::string& address)
{
    return "\rBRENNOCK WATCH V2.1\rID 00AF\r" + address + "\rBATT 3.0V";
}

// A block of 4096 recognisable bytes.
std::string Block(int seed)
{
    std::string bytes(CWatch::kBlockBytes, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>((i * 7 + seed * 31 + (i >> 8)) & 0xFF);
    return bytes;
}

class OperationsTest : public WatchFixture
{
protected:
    void SetUp() override
    {
        WatchFixture::SetUp();
        for (const std::wstring& name : TremFiles())
            DeleteDiskFile(L"\\Device Temp\\" + name);
    }

    void ReadParms(const std::string& address)
    {
        watch->OnWatchResponse(Response(kWatchRespParmsRead, true, ParmReply(address)));
    }

    // The script starts a save. The block read it queues fails on the
    // command thread (no watch is visible); that response is waited for and
    // thrown away, so that the thread's lines come before the test's and
    // nothing of it reaches the save: the blocks come from the test.
    void StartSave()
    {
        BSTR name = SysAllocString(L"Watch");
        ASSERT_EQ(control->WatchSaveStart(name), S_OK);
        SysFreeString(name);
        ASSERT_EQ(watch->BlockAddress(), 0);
        ASSERT_TRUE(DiscardThreadResponse());
    }

    // Takes the command thread's next response off the window's queue
    // without handling it.
    bool DiscardThreadResponse()
    {
        const DWORD deadline = GetTickCount() + 30000;
        for (;;) {
            MSG msg;
            if (PeekMessageW(&msg, watch->Window(), CWatch::kResponseMessage, CWatch::kResponseMessage, PM_REMOVE)) {
                FreeWatchCmdResp(reinterpret_cast<WatchCmdResp*>(msg.lParam));
                return true;
            }
            const LONG left = static_cast<LONG>(deadline - GetTickCount());
            if (left <= 0)
                return false;
            MsgWaitForMultipleObjects(0, nullptr, FALSE, static_cast<DWORD>(left), QS_POSTMESSAGE);
        }
    }
};

TEST_F(OperationsTest, TheParameterReplyGivesTheLogAddress)
{
    struct Case
    {
        std::string reply;
        long address;  // -1: refused
        const wchar_t* line;
    } cases[] = {
        {ParmReply("1000"), 0x1000, nullptr},
        {ParmReply("0ff0"), 0x0FF0, nullptr},
        {ParmReply("800123"), 0, nullptr},  // bit 23: nothing recorded
        {"\rA\rB\r7FFFFF\r", 0x7FFFFF, nullptr},
        {ParmReply("FFFFFFFF"), -1, L"Garbled next address in parameter.\r\n"},
        {ParmReply("zz"), -1, L"Garbled next address in parameter.\r\n"},
        {"BRENNOCK\rID\r1000\r", -1, L"Garbled response from watch.\r\n"},
        {"\rBRENNOCK\rID\r1000", -1, L"Garbled response from watch.\r\n"},
        {"", -1, L"ERROR: ProcessReadParms: response failed to convert.\r\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.reply);
        ReadParms("10");  // a good read first, so every case changes something
        sink.events.clear();
        capture.Clear();
        watch->OnWatchResponse(Response(kWatchRespParmsRead, true, c.reply));
        EXPECT_EQ(watch->ParmSamplesRecorded(), c.address);
        EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchParametersRead, {c.address < 0 ? 102 : 0})}));
        EXPECT_EQ(capture.Lines(), c.line ? std::vector<std::wstring>{c.line} : std::vector<std::wstring>{});
    }

    // The text is kept with CR LF line ends; a failed read leaves everything.
    ReadParms("1000");
    EXPECT_STREQ(watch->ParameterText(), L"\r\nBRENNOCK WATCH V2.1\r\nID 00AF\r\n1000\r\nBATT 3.0V");
    sink.events.clear();
    watch->OnWatchResponse(Response(kWatchRespParmsRead, false));
    EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchParametersRead, {102})}));
    EXPECT_EQ(watch->ParmSamplesRecorded(), 0x1000);
}

TEST_F(OperationsTest, TheSaveEndsWhenTheBlockAddressReachesTheRule)
{
    // n counts 256-byte address units and the address grows by 16 a block.
    struct Case
    {
        long recorded;
        long n;
        std::vector<int> progress;
    } cases[] = {
        {0x1000, 17, {94, 100}},    // 0x1000 % 255 = 16: one more unit, two blocks
        {0x0FF0, 15, {100}},        // 4080 % 255 = 0: one block
        {0, 1, {100}},              // nothing recorded: still one block
        {0x100, 2, {100}},          // 256 % 255 = 1
        {0x2000, 33, {48, 96, 100}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.recorded);
        EXPECT_EQ(CWatch::BlocksToRead(c.recorded), c.n);
        char address[16];
        std::snprintf(address, sizeof address, "%lx", c.recorded);
        ReadParms(address);
        StartSave();
        sink.events.clear();
        for (size_t block = 0; block < c.progress.size(); ++block)
            watch->OnWatchResponse(Response(kWatchRespBlockRead, true, Block(static_cast<int>(block))));
        std::vector<GpioEvent> expected;
        for (int percent : c.progress)
            expected.push_back(Ev(kWatchSaveProgress, {percent}));
        expected.push_back(Ev(kWatchSaveEnded, {0}));
        EXPECT_EQ(WatchEvents(), expected);
        EXPECT_EQ(watch->BlockAddress(), -1);
    }
}

TEST_F(OperationsTest, TheTremFileHoldsTheParametersAndEveryByteOfEveryBlock)
{
    ReadParms("1000");
    StartSave();
    watch->OnWatchResponse(Response(kWatchRespBlockRead, true, Block(1)));
    watch->OnWatchResponse(Response(kWatchRespBlockRead, true, Block(2)));
    ASSERT_EQ(Events(kWatchSaveEnded), std::vector<GpioEvent>{Ev(kWatchSaveEnded, {0})});

    std::vector<std::wstring> files = TremFiles();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_NE(files[0].find(L"Watch.trem"), std::wstring::npos) << files[0].c_str();
    Trem trem = ReadTrem(ReadFileBytes(DiskPath((L"\\Device Temp\\" + files[0]).c_str())));
    ASSERT_TRUE(trem.ok) << trem.error;
    EXPECT_EQ(trem.parameters, "\r\nBRENNOCK WATCH V2.1\r\nID 00AF\r\n1000\r\nBATT 3.0V");
    EXPECT_EQ(trem.dataLines.size(), 256u);
    EXPECT_TRUE(trem.bytes == Block(1) + Block(2));
}

TEST_F(OperationsTest, ACancelEndsTheSaveAtTheNextBlockWithNoFile)
{
    ReadParms("1000");
    StartSave();
    sink.events.clear();
    watch->OnWatchResponse(Response(kWatchRespBlockRead, true, Block(1)));
    EXPECT_EQ(control->WatchSaveCancel(), S_OK);
    watch->OnWatchResponse(Response(kWatchRespBlockRead, true, Block(2)));
    EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchSaveProgress, {94}), Ev(kWatchSaveEnded, {103})}));
    EXPECT_TRUE(TremFiles().empty());
    EXPECT_EQ(watch->BlockAddress(), -1);

    // With no save running a cancel changes nothing, and the next save is
    // not cancelled by it.
    EXPECT_EQ(control->WatchSaveCancel(), S_OK);
    StartSave();
    sink.events.clear();
    watch->OnWatchResponse(Response(kWatchRespBlockRead, true, Block(1)));
    watch->OnWatchResponse(Response(kWatchRespBlockRead, true, Block(2)));
    EXPECT_EQ(Events(kWatchSaveEnded), std::vector<GpioEvent>{Ev(kWatchSaveEnded, {0})});
}

TEST_F(OperationsTest, AFailedBlockOrAnUnwritableFileEndsTheSaveWith102)
{
    ReadParms("1000");
    StartSave();
    sink.events.clear();
    watch->OnWatchResponse(Response(kWatchRespBlockRead, true, Block(1)));
    watch->OnWatchResponse(Response(kWatchRespBlockRead, false));
    EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchSaveProgress, {94}), Ev(kWatchSaveEnded, {102})}));
    EXPECT_TRUE(TremFiles().empty());

    // A folder where the file should go.
    StartSave();
    ASSERT_NE(watch->SaveFileName(), nullptr);
    ASSERT_TRUE(CreateDirectoryW(watch->SaveFileName(), nullptr));
    sink.events.clear();
    capture.Clear();
    watch->OnWatchResponse(Response(kWatchRespBlockRead, true, Block(1)));
    watch->OnWatchResponse(Response(kWatchRespBlockRead, true, Block(2)));
    EXPECT_EQ(Events(kWatchSaveEnded), std::vector<GpioEvent>{Ev(kWatchSaveEnded, {102})});
    EXPECT_TRUE(capture.Contains(L"ERROR: SaveRecordedWatchData: could not open file for writing.\r\n"));
}

TEST_F(OperationsTest, ASaveIsRefusedWithoutParametersWhileOneRunsAndWithoutAName)
{
    BSTR name = SysAllocString(L"Watch");
    EXPECT_EQ(control->WatchSaveStart(name), E_FAIL);
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{
                                   L"ERROR: WatchSaveStart called, but parameters haven't been read.\r\n",
                                   L"WatchSaveStart - WatchSaveStart failed.\r\n"}));

    ReadParms("1000");
    capture.Clear();
    EXPECT_EQ(control->WatchSaveStart(nullptr), E_FAIL);
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{L"WatchSaveStart - null dataName.\r\n"});

    StartSave();
    capture.Clear();
    EXPECT_EQ(control->WatchSaveStart(name), E_FAIL);
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{
                                   L"ERROR: WatchSaveStart called while data save in progress.\r\n",
                                   L"WatchSaveStart - WatchSaveStart failed.\r\n"}));
    SysFreeString(name);
}

TEST_F(OperationsTest, TheDestroySequenceSendsTheStartFifteenMinutesAheadAndTheLogPointer)
{
    // At 10:50 the recording starts at 11:05.
    const ULONGLONG now = TimeCount(L"Mon 23 Nov 2026 10:50:00");
    const ULONGLONG start = now + 9000000000ULL;
    SYSTEMTIME st;
    ASSERT_TRUE(FileTimeToSystemTime(reinterpret_cast<const FILETIME*>(&start), &st));
    const BYTE name[] = {0x00, 0x0A, 0xFF, 0x42};
    WatchDestroyStep steps[kWatchSetupSteps];
    MakeWatchSetupSteps(st, name, sizeof name, steps);
    std::vector<std::wstring> commands;
    for (const WatchDestroyStep& s : steps)
        commands.push_back(s.command);
    EXPECT_EQ(commands, (std::vector<std::wstring>{L"***B000AFF42", L"***D231126", L"***E1105", L"***A02031E",
                                                   L"***S1E", L"***Q14FF1502090100060010400306", L"***I02",
                                                   L"***GU"}));
    EXPECT_STREQ(steps[0].failure, L"ExecuteWatchDestroySequence: set identity failed.\r\n");
    EXPECT_STREQ(steps[7].failure, L"ExecuteWatchDestroySequence: restart data acq failed.\r\n");

    struct Case
    {
        ULONGLONG seconds;
        bool fixed;
        const wchar_t* command;
    } cases[] = {
        {900, false, L"***HFFFEBE"},  // 128 - 450 in 24 bits
        {905, false, L"***HFFFEBC"},
        {256, false, L"***H000000"},
        {0, false, L"***H000080"},
        {900, true, L"***H01F000"},
    };
    for (const Case& c : cases) {
        WatchDestroyStep step;
        MakeWatchLogPointerStep(c.seconds, c.fixed, &step);
        EXPECT_STREQ(step.command, c.command);
    }
    // Sent at once, the pointer counts 905 s: 900 and the 5 s rounding.
    EXPECT_EQ(WatchSecondsToStart(start, now), 905u);
    EXPECT_EQ(WatchSecondsToStart(start, now + 54999999ULL), 899u);
}

}  // namespace
