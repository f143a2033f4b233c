// The GPIO operations other managers call (go request, microcontroller reset,
// watch power and carrier) and the tick counter's wrap, on the control built
// into this program, with the bench panel watching the lines.
#include "tests/panel/PanelFixture.h"

#include <mmsystem.h>

#include "panel/GpioPins.h"
#include "panel/TickCount.h"

namespace {

class ManagerTest : public LocalFixture
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(LocalFixture::SetUp());
        gpio = site->GetGpio();
        ASSERT_NE(gpio, nullptr);
    }

    void TearDown() override
    {
        GpioTickCountShift(0);
        LocalFixture::TearDown();
    }

    // The level changes seen since the last look (the carrier pulses from Open on).
    std::vector<std::string> Changes(bool carrier = false)
    {
        std::vector<std::string> changes = LineChanges(Seen());
        std::erase_if(changes,
                      [&](const std::string& c) { return c.ends_with("output") || (!carrier && c.starts_with("41 ")); });
        return changes;
    }

    CGpioPins* gpio = nullptr;
};

TEST_F(ManagerTest, TheGoStrobeStaysHighForTwoHeartbeatsWithTheBeepRequestSetFirst)
{
    ASSERT_TRUE(PumpHeartbeats(1));
    Seen();
    auto go = [&](bool beep) { return [this, beep] { gpio->hC08Go(beep); }; };
    auto beat = [this] { EXPECT_TRUE(PumpHeartbeats(1)); };
    // A second request while the strobe is up warns, drops the strobe, sets
    // the beep request afresh and starts the two heartbeats again.
    const std::vector<std::pair<std::function<void()>, std::vector<std::string>>> steps = {
        {go(true), {"20 high", "21 high"}}, {beat, {}}, {beat, {"21 low"}}, {go(false), {"20 low", "21 high"}},
        {beat, {}}, {go(true), {"21 low", "20 high", "21 high"}}, {beat, {}}, {beat, {"21 low"}}};
    for (size_t i = 0; i < steps.size(); ++i) {
        steps[i].first();
        EXPECT_EQ(Changes(), steps[i].second) << "step " << i;
    }
    EXPECT_EQ(capture.Lines(),
              std::vector<std::wstring>{L"WARNING: hC08Go: Second Go request before first is complete.\r\n"});
}

TEST_F(ManagerTest, EveryResetPulseIsSeenWhole)
{
    // A pulse lasts microseconds, far less than the panel's look at the block.
    for (int i = 0; i < 3; ++i)
        gpio->ResetHC08();
    EXPECT_EQ(LineStates(Seen(), 13), (std::vector<std::string>{"output", "high", "low", "input", "output", "high",
                                                                "low", "input", "output", "high", "low", "input"}));
}

TEST_F(ManagerTest, WatchPowerOffDropsTheCarrierFirst)
{
    EXPECT_EQ(control->SimWatchVisible(1), S_OK);
    gpio->SetWatchCarrier(true);
    gpio->SetWatchPower(false);
    EXPECT_EQ(Changes(true), (std::vector<std::string>{"41 high", "41 low", "36 low"}));

    EXPECT_EQ(control->SimWatchVisible(1), E_FAIL);
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{L"ERROR: SimWatchVisible(TRUE) with watch power off.\r\n",
                                                          L"SimWatchVisible - pWatch->SimWatchVisible failed.\r\n"}));
}

TEST_F(ManagerTest, ATimerDueAcrossTheTickCountersWrapRunsOutInItsTurn)
{
    // One second before the counter wraps: B ends before the wrap, A one
    // second after it, C later still.
    GpioTickCountShift(0xFFFFFFFFu - 1000u - timeGetTime());
    ASSERT_GT(GpioTickCount(), 0xFFFFFFFFu - 2000u) << "A's due time must lie beyond the wrap";
    ASSERT_EQ(control->TimerStart(1, 0.2), S_OK);  // B
    ASSERT_EQ(control->TimerStart(2, 2.0), S_OK);  // A
    ASSERT_EQ(control->TimerStart(3, 3.0), S_OK);  // C
    ASSERT_TRUE(PumpUntilEvents(kTimerEnded, 3));
    EXPECT_EQ(Events(kTimerEnded), (std::vector<GpioEvent>{Ev(kTimerEnded, {0, 1}), Ev(kTimerEnded, {0, 2}),
                                                           Ev(kTimerEnded, {0, 3})}));
    EXPECT_LT(GpioTickCount(), 0x80000000u) << "the counter has wrapped";
}

}  // namespace
