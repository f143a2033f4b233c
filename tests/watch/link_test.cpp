// The watch link without a watch: the cradle's lines at Open and Close, the
// carrier pulse, how a seated watch is found and lost, and commands run by
// the command thread while no watch can be talked to. COM1 leads to the
// watch simulator with no watch in the cradle, where nothing answers.
#include "tests/watch/WatchFixture.h"

namespace {

using LinkTest = WatchFixture;

TEST_F(LinkTest, OpenPowersTheCradleWithoutAssertsAndCloseTakesThePowerAway)
{
    // SetUp has opened the control: the watch steps of Open left no assert.
    control->Close();
    const size_t asserts = AssertLines();
    short ok = 0;
    ASSERT_EQ(control->Open(&ok), S_OK);
    EXPECT_EQ(ok, 1);
    EXPECT_EQ(AssertLines(), asserts);
    watch = AsControl(control.Get())->GetWatch();
    EXPECT_FALSE(watch->WatchVisible());
    EXPECT_FALSE(watch->CarrierOn());
    EXPECT_EQ(watch->ParmSamplesRecorded(), -1);
    EXPECT_EQ(LineLevels(Seen(), 36), (std::vector<std::string>{"low", "high"}));

    EXPECT_EQ(control->SetWatchPower(0), S_OK);
    EXPECT_EQ(control->SetWatchPower(1), S_OK);
    EXPECT_EQ(LineLevels(Seen(), 36), (std::vector<std::string>{"low", "high"}));

    control->Close();
    EXPECT_EQ(LineLevels(Seen(), 36), (std::vector<std::string>{"low"}));
    EXPECT_EQ(control->SetWatchPower(1), E_FAIL);
}

TEST_F(LinkTest, TheCarrierIsHighForOneTickInTen)
{
    for (int tick = 0; tick < 20; ++tick)
        watch->WindowProc(watch->Window(), WM_TIMER, CWatch::kCarrierTimer, 0);
    EXPECT_EQ(LineLevels(Seen(), 41), (std::vector<std::string>{"high", "low", "high", "low"}));

    // Switched on it stays on: the pulse timer is gone.
    watch->SetWatchCarrier(true);
    EXPECT_EQ(LineLevels(Seen(), 41), (std::vector<std::string>{"high"}));
    EXPECT_FALSE(KillTimer(watch->Window(), CWatch::kCarrierTimer));
    watch->SetWatchCarrier(false);
    EXPECT_TRUE(KillTimer(watch->Window(), CWatch::kCarrierTimer));

    // A presence meeting the pulse switches the carrier on; the next update
    // but one shows the watch.
    watch->UpdateWatchVisibility(true);
    EXPECT_TRUE(WatchEvents().empty());
    EXPECT_TRUE(watch->CarrierOn());
    EXPECT_EQ(LineLevels(Seen(), 41), (std::vector<std::string>{"low", "high"}));  // off above, then on

    watch->UpdateWatchVisibility(true);
    watch->UpdateWatchVisibility(true);
    EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchVisible, {1})}));
    EXPECT_TRUE(watch->WatchVisible());

    // Taken out: gone at once, and the carrier pulses again for the next one.
    watch->UpdateWatchVisibility(false);
    EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchVisible, {1}), Ev(kWatchVisible, {0})}));
    EXPECT_FALSE(watch->CarrierOn());
    EXPECT_EQ(LineLevels(Seen(), 41), (std::vector<std::string>{"low"}));
    watch->UpdateWatchVisibility(false);
    EXPECT_EQ(WatchEvents().size(), 2u);

    // A presence gone again before it was shown puts the carrier back too.
    watch->UpdateWatchVisibility(true);
    watch->UpdateWatchVisibility(false);
    EXPECT_FALSE(watch->CarrierOn());
    EXPECT_EQ(WatchEvents().size(), 2u);
}

TEST_F(LinkTest, ASeatedWatchIsShownByTheHeartbeatAndItsParametersAreReadOnce)
{
    // No watch answers on COM1, so the read fails; it is asked for once only.
    ASSERT_EQ(control->SimWatchVisible(1), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kWatchParametersRead, 1));
    ASSERT_TRUE(PumpHeartbeats(10));
    EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchVisible, {1}), Ev(kWatchParametersRead, {102})}));
    EXPECT_GE(Events(kWatchParametersRead)[0].beat - Events(kWatchVisible)[0].beat, 5)
        << "read before the watch was visible a second";
    EXPECT_EQ(capture.Count(L"To watch: "), 1u);
    EXPECT_TRUE(capture.Contains(L"ERROR: SyncWithWatch failed.\r\n"));
    EXPECT_EQ(watch->ParmSamplesRecorded(), -1);

    ASSERT_EQ(control->SimWatchVisible(0), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kWatchVisible, 2));
    EXPECT_EQ(Events(kWatchVisible).back(), Ev(kWatchVisible, {0}));
    EXPECT_FALSE(watch->CarrierOn());
}

TEST_F(LinkTest, QueuedCommandsRunInOrderAndEachFailsWithoutAVisibleWatch)
{
    ASSERT_TRUE(watch->QueueCmd(kWatchCmdReadParms, 0, nullptr));
    ASSERT_TRUE(watch->QueueCmd(kWatchCmdDestroy, 0, nullptr));
    ASSERT_TRUE(watch->QueueCmd(kWatchCmdReadParms, 0, nullptr));
    ASSERT_TRUE(PumpUntilEvents(kWatchParametersRead, 2));
    EXPECT_EQ(WatchEvents(), (std::vector<GpioEvent>{Ev(kWatchParametersRead, {102}),
                                                    Ev(kWatchDataDestroyEnded, {102}),
                                                    Ev(kWatchParametersRead, {102})}));
    // The destroy sequence stopped at its first command.
    EXPECT_EQ(capture.Count(L"ExecuteWatchCmd: watch is not visible - ignoring cmd.\r\n"), 3u);
    EXPECT_TRUE(capture.Contains(L"ExecuteWatchDestroySequence: set identity failed.\r\n"));
}

TEST_F(LinkTest, MalformedRecordsAreRefused)
{
    const size_t asserts = AssertLines();
    EXPECT_EQ(MakeWatchCmdResp(0, false, 0, nullptr), nullptr);
    EXPECT_EQ(MakeWatchCmdResp(7, false, 0, nullptr), nullptr);
    EXPECT_EQ(MakeWatchCmdResp(kWatchCmdReadBlock, false, 4, nullptr), nullptr);
    EXPECT_EQ(AssertLines(), asserts + 3);
    watch->OnWatchResponse(MakeWatchCmdResp(kWatchCmdReadParms, false, 0, nullptr));
    watch->OnWatchResponse(nullptr);
    SendMessageW(watch->Window(), CWatch::kResponseMessage, 0, 0);
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{
                                   L"ERROR: MakeWatchCmdResp: unknown cmdRespID.\r\n",
                                   L"ERROR: MakeWatchCmdResp: unknown cmdRespID.\r\n",
                                   L"ERROR: MakeWatchCmdResp: non-zero sized null pBlk.\r\n",
                                   L"ERROR: OnWatchResponse: unknown cmdRespID.\r\n",
                                   L"ERROR: OnWatchResponse: null parameter.\r\n",
                                   L"ERROR: CWatch::WndProcMethod: received a null WatchCmdResp pointer.\r\n"}));
    EXPECT_TRUE(WatchEvents().empty());
}

}  // namespace
