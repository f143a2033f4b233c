// The watch link through COM1 with the bench watch simulator in fast mode
// (run by scripts/simrun --watch "--rate fast"; see CMakeLists.txt): a watch
// seated in the cradle is found, its parameters read, its memory saved into
// a ".trem" file, and it is wiped and re-armed at a fixed clock.
#include "tests/watch/WatchFixture.h"

#include <algorithm>
#include <cstdio>

#include "tests/support/TestClock.h"
#include "tests/support/WatchSim.h"

namespace {

// The ".trem" file a save makes of these parameters and bytes, written here
// from the file format rather than by the control's writer.
std::string TremFile(const std::wstring& parameters, const std::string& bytes)
{
    std::string file = "TREM Version 1\r\n" + std::string(parameters.begin(), parameters.end()) + "\r\nData\r\n";
    char hex[3];
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(bytes[i]));
        file += i % 32 == 31 ? std::string(hex) + "\r\n" : std::string(hex);
    }
    return file;
}

class WithAWatch : public WatchFixture
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(WatchSim::Running()) << "run with the watch simulator on COM1";
        WatchFixture::SetUp();
    }

    void Seat(const char* logAddress = "0x1000")
    {
        ASSERT_TRUE(sim.Send(std::string("logaddr ") + logAddress));
        ASSERT_TRUE(sim.Send("seat"));
        ASSERT_TRUE(PumpUntilEvents(kWatchParametersRead, 1));
        ASSERT_TRUE(sim.Sync());
    }

    void SaveIntoAStall()
    {
        Seat();
        ASSERT_TRUE(sim.Send("stall 100 60000"));
        ASSERT_TRUE(sim.Sync());
        sink.events.clear();
        ASSERT_EQ(SaveStart(), S_OK);
        ASSERT_TRUE(sim.Wait("watch: block 0x0000 stalled", nullptr));
    }

    std::vector<std::string> Commands()
    {
        std::vector<SimEntry> entries;
        EXPECT_TRUE(sim.Sync(&entries));
        std::vector<std::string> commands = SimTexts(entries, "command: ");
        for (std::string& c : commands)
            c.erase(0, 9);
        return commands;
    }

    WatchSim sim;
};

TEST_F(WithAWatch, ASeatedWatchIsFoundAndItsWholeMemorySaved)
{
    struct Case
    {
        const char* logAddress;
        uint32_t value;
        int n;  // the address the save reads up to, in 256-byte units
    } cases[] = {
        {"0x1000", 0x1000, 17},     // two blocks
        {"0x0FF0", 0x0FF0, 15},     // one block
        {"0x10000", 0x10000, 257},  // seventeen blocks
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.logAddress);
        sink.events.clear();
        Seat(c.logAddress);
        EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchVisible, {1}), Ev(kWatchParametersRead, {0})}));
        ASSERT_EQ(watch->ParmSamplesRecorded(), static_cast<long>(c.value));
        sink.events.clear();
        ASSERT_EQ(SaveStart(), S_OK);
        ASSERT_TRUE(PumpUntilEvents(kWatchSaveEnded, 1));
        // One block per 16 units; progress after each, capped at 100.
        std::vector<GpioEvent> expected;
        std::vector<std::string> reads;
        const int blocks = (c.n + 15) / 16;
        for (int k = 1; k <= blocks; ++k) {
            expected.push_back(Ev(kWatchSaveProgress, {std::min(16 * k * 100 / c.n, 100)}));
            char read[16];
            snprintf(read, sizeof(read), "***N%04x", 16 * (k - 1));
            reads.push_back(read);
        }
        expected.push_back(Ev(kWatchSaveEnded, {0}));
        EXPECT_EQ(WatchEvents(), expected);
        EXPECT_EQ(Commands(), reads);

        // The file: the parameter text as read, and every byte of the memory.
        std::vector<std::wstring> files = TempFiles(L".trem");
        ASSERT_EQ(files.size(), 1u);
        EXPECT_NE(files[0].find(L"Watch.trem"), std::wstring::npos);
        const std::string file = ReadFileBytes(DiskPath((L"\\Device Temp\\" + files[0]).c_str()));
        DeleteDiskFile(L"\\Device Temp\\" + files[0]);
        const std::string trem = TremFile(watch->ParameterText(), WatchSim::Memory(c.value, blocks));
        EXPECT_TRUE(file == trem) << file.size() << " bytes, not " << trem.size();

        // A new log address reaches the control with a new reading.
        sink.events.clear();
        ASSERT_TRUE(sim.Send("remove"));
        ASSERT_TRUE(PumpUntilEvents(kWatchVisible, 1));
        EXPECT_EQ(WatchEvents(), std::vector<GpioEvent>{Ev(kWatchVisible, {0})});
    }
}

TEST_F(WithAWatch, AWatchTakenOutDuringADownloadEndsTheSaveWith102AndACloseDuringOneEndsTheThread)
{
    SaveIntoAStall();
    ASSERT_TRUE(sim.Send("remove"));
    ASSERT_TRUE(PumpUntilEvents(kWatchSaveEnded, 1));
    EXPECT_EQ(Events(kWatchSaveEnded), std::vector<GpioEvent>{Ev(kWatchSaveEnded, {102})});
    EXPECT_TRUE(capture.Contains(L"Short read.\r\n"));
    EXPECT_TRUE(TempFiles(L".trem").empty());
    // The port is back at 600 baud: the watch seated again is read.
    sink.events.clear();
    Seat();
    EXPECT_EQ(Events(kWatchParametersRead), std::vector<GpioEvent>{Ev(kWatchParametersRead, {0})});

    // Closed in the middle of a block, the command thread ends all the same.
    SaveIntoAStall();
    capture.Clear();
    control->Close();
    EXPECT_TRUE(capture.Contains(L"CWatch command thread exiting.\r\n"));
    EXPECT_FALSE(capture.Contains(L"Warning: Watch command thread has not exited.\r\n"));
    EXPECT_TRUE(Events(kWatchSaveEnded).empty());
}

// A watch that answers badly: the parameters are not read, the reason is
// on the debug output, and a save is refused until a good reading.
TEST_F(WithAWatch, AWatchThatAnswersBadlyIsNotReadAndAGoodOneIsThenReadAndDestroyed)
{
    struct Case
    {
        const char* scenario;
        std::wstring line;  // a debug line the failure writes (a prefix)
    } cases[] = {
        {"silent", L"ERROR: Didn't sync with watch after several tries.\r\n"},
        {"garble address", L"Garbled next address in parameter.\r\n"},
        {"echo 2", L"Wanted '*', got '"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.scenario);
        sink.events.clear();
        capture.Clear();
        ASSERT_TRUE(sim.Send(c.scenario));
        ASSERT_TRUE(sim.Send("seat"));
        ASSERT_TRUE(PumpUntilEvents(kWatchParametersRead, 1));
        EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchVisible, {1}), Ev(kWatchParametersRead, {102})}));
        const std::vector<std::wstring> lines = capture.Lines();
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const std::wstring& l) {
            return l.compare(0, c.line.size(), c.line) == 0;
        })) << testing::PrintToString(lines);
        EXPECT_EQ(SaveStart(), E_FAIL);
        ASSERT_TRUE(sim.Send("silent off"));
        ASSERT_TRUE(sim.Send("remove"));
        ASSERT_TRUE(PumpUntilEvents(kWatchVisible, 2));
    }
    // The line is left as it should be: a good watch is read at once. Its
    // data destroyed, it is re-armed to start fifteen minutes ahead.
    TestClock clock;
    clock.SetLocal(L"Mon 23 Nov 2026 10:50:00");
    sink.events.clear();
    Seat();
    EXPECT_EQ(Events(kWatchParametersRead), std::vector<GpioEvent>{Ev(kWatchParametersRead, {0})});
    sink.events.clear();
    ASSERT_EQ(control->WatchDataDestroyStart(), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kWatchParametersRead, 1));
    // "Brennock default", the blank NVRAM's key blob, is the anonymous name;
    // at a standing clock the log pointer counts 905 s: 128 - 452.
    EXPECT_EQ(Commands(), (std::vector<std::string>{"***B4272656E6E6F636B2064656661756C74", "***D231126",
                                                  "***E1105", "***A02031E", "***S1E",
                                                  "***Q14FF1502090100060010400306", "***I02", "***GU",
                                                  "***HFFFEBC", "***C"}));
    // The re-armed watch is seen to go and come back, and read again.
    EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchDataDestroyEnded, {0}), Ev(kWatchVisible, {0}),
                                                    Ev(kWatchVisible, {1}), Ev(kWatchParametersRead, {0})}));
}

}  // namespace
