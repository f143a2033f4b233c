// The watch operations on the host thread, fed with response records as the
// command thread would post them (whole saves and the whole destroy sequence
// run against the simulator in sim_test.cpp).
#include "tests/watch/WatchFixture.h"

#include "tests/support/TestClock.h"
#include "watch/WatchDestroySteps.h"

namespace {

std::string ParmReply(const std::string& address)
{
    return "\rBRENNOCK WATCH V2.1\rID 00AF\r" + address + "\rBATT 3.0V";
}

class OperationsTest : public WatchFixture
{
protected:
    void ReadParms(const std::string& address)
    {
        watch->OnWatchResponse(Response(kWatchRespParmsRead, true, ParmReply(address)));
    }

    // The script starts a save. The block read it queues fails on the
    // command thread (no watch is visible); that response is taken off the
    // window's queue unhandled, so the blocks come from the test.
    void StartSave()
    {
        ASSERT_EQ(SaveStart(), S_OK);
        ASSERT_EQ(watch->BlockAddress(), 0);
        MSG msg;
        while (!PeekMessageW(&msg, watch->Window(), CWatch::kResponseMessage, CWatch::kResponseMessage, PM_REMOVE))
            ASSERT_NE(MsgWaitForMultipleObjects(0, nullptr, FALSE, 30000, QS_POSTMESSAGE), WAIT_TIMEOUT)
                << "the command thread never answered";
        FreeWatchCmdResp(reinterpret_cast<WatchCmdResp*>(msg.lParam));
        sink.events.clear();
        capture.Clear();
    }

    void Blocks(std::initializer_list<bool> success)
    {
        for (bool ok : success)
            watch->OnWatchResponse(Response(kWatchRespBlockRead, ok, std::string(ok ? CWatch::kBlockBytes : 0, 1)));
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

TEST_F(OperationsTest, ASaveIsRefusedUntilItCanRunThenReadsUpToTheAddressAndEndsWith103Or102)
{
    // Units of 256 bytes, one more when the address is not a multiple of 255,
    // and at least one; the save reads them 16 to a block.
    for (auto [recorded, units] : {std::pair{0x1000L, 17L}, {0x0FF0L, 15L}, {0L, 1L}, {0x100L, 2L}, {0x2000L, 33L}})
        EXPECT_EQ(CWatch::BlocksToRead(recorded), units) << recorded;

    // Refused without parameters, without a name and while one runs.
    const std::wstring failed = L"WatchSaveStart - WatchSaveStart failed.\r\n";
    EXPECT_EQ(SaveStart(), E_FAIL);
    EXPECT_EQ(capture.Lines(),
              (std::vector<std::wstring>{L"ERROR: WatchSaveStart called, but parameters haven't been read.\r\n", failed}));
    ReadParms("1000");
    capture.Clear();
    EXPECT_EQ(control->WatchSaveStart(nullptr), E_FAIL);
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{L"WatchSaveStart - null dataName.\r\n"});
    // A cancel with no save running changes nothing, and the next save is not
    // cancelled by it.
    EXPECT_EQ(control->WatchSaveCancel(), S_OK);
    StartSave();
    EXPECT_EQ(SaveStart(), E_FAIL);
    EXPECT_EQ(capture.Lines(),
              (std::vector<std::wstring>{L"ERROR: WatchSaveStart called while data save in progress.\r\n", failed}));
    capture.Clear();
    Blocks({true});
    EXPECT_EQ(control->WatchSaveCancel(), S_OK);
    Blocks({true});
    EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchSaveProgress, {94}), Ev(kWatchSaveEnded, {103})}));
    EXPECT_EQ(watch->BlockAddress(), -1);

    StartSave();
    Blocks({true, false});
    EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchSaveProgress, {94}), Ev(kWatchSaveEnded, {102})}));

    // A folder where the file should go.
    StartSave();
    ASSERT_TRUE(CreateDirectoryW(watch->SaveFileName(), nullptr));
    Blocks({true, true});
    EXPECT_EQ(Events(kWatchSaveEnded), std::vector<GpioEvent>{Ev(kWatchSaveEnded, {102})});
    EXPECT_TRUE(capture.Contains(L"ERROR: SaveRecordedWatchData: could not open file for writing.\r\n"));
    EXPECT_TRUE(TempFiles(L".trem").empty());
}

TEST_F(OperationsTest, TheDestroySequencesNameFailuresAndLogPointer)
{
    SYSTEMTIME st = {2026, 11, 1, 23, 11, 5, 0, 0};
    const BYTE name[] = {0x00, 0x0A, 0xFF, 0x42};
    WatchDestroyStep steps[kWatchSetupSteps];
    MakeWatchSetupSteps(st, name, sizeof name, steps);
    EXPECT_STREQ(steps[0].command, L"***B000AFF42");
    EXPECT_STREQ(steps[7].failure, L"ExecuteWatchDestroySequence: restart data acq failed.\r\n");

    struct Case
    {
        ULONGLONG seconds;
        bool fixed;
        const wchar_t* command;
    } cases[] = {
        {900, false, L"***HFFFEBE"},  // 128 - 450 in 24 bits
        {256, false, L"***H000000"},
        {0, false, L"***H000080"},
        {900, true, L"***H01F000"},
    };
    for (const Case& c : cases) {
        WatchDestroyStep step;
        MakeWatchLogPointerStep(c.seconds, c.fixed, &step);
        EXPECT_STREQ(step.command, c.command);
    }
    // Sent at once, the pointer counts 905 s: the 900 and 5 s of rounding.
    const ULONGLONG now = TimeCount(L"Mon 23 Nov 2026 10:50:00"), start = now + 9000000000ULL;
    EXPECT_EQ(WatchSecondsToStart(start, now), 905u);
    EXPECT_EQ(WatchSecondsToStart(start, now + 54999999ULL), 899u);
}

}  // namespace
