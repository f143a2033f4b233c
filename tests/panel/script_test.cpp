// The panel lines and user timers as a UI script meets them, while the bench
// panel watches the GPIO block and works the inputs.
#include "tests/panel/PanelFixture.h"

#include "panel/GpioBlock.h"
#include "panel/GpioBlockLayout.h"

namespace {

const auto I2 = ScriptObject::I2;
const auto R8 = ScriptObject::R8;

class ScriptTest : public ScriptFixture
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(ScriptFixture::SetUp());
        ASSERT_EQ(Open(), 1);
        Seen();  // the lines Open drove
        capture.Clear();
    }

    // Runs the loop until everything posted to this thread before has been
    // handled; onMessage sees each message first.
    void PumpPosted(const std::function<void(const MSG&)>& onMessage = [](const MSG&) {})
    {
        bool marker = false;
        ASSERT_TRUE(PostThreadMessageW(GetCurrentThreadId(), WM_APP + 7, 0, 0));
        PumpUntil([&] { return marker; }, 30000, [&](const MSG& m) {
            onMessage(m);
            marker |= (m.message == WM_APP + 7);
        });
    }
};

TEST_F(ScriptTest, BlinksEndHalfAPeriodAfterTheLastExtinctionOrWhenAnythingElseTakesTheLed)
{
    // When the script hears of the end, the whole blink is on the line already.
    std::vector<std::string> atEnd;
    sink.onEvent = [&, previous = sink.onEvent](DISPID id) {
        previous(id);
        if (id == kBlinkEnded && atEnd.empty()) {
            std::vector<PanelEntry> entries;
            panel.Sync(&entries);
            atEnd = LineLevels(entries, 53);
        }
    };
    ASSERT_EQ(Call(L"BlinkLed", {I2(3), I2(2), I2(500)}), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kBlinkEnded, 1));
    EXPECT_EQ(atEnd, (std::vector<std::string>{"high", "low", "high", "low"}));
    EXPECT_EQ(EventsButLid(), std::vector<GpioEvent>{Ev(kBlinkEnded, {-1, 3})});
    // Nothing else moved, and the blink timer is gone.
    ASSERT_TRUE(PumpHeartbeats(3));
    EXPECT_TRUE(LineChanges(Seen()).empty());

    // A second blink ends the first (dark), lights the LED again and darkens
    // it after its one blink.
    ASSERT_EQ(Call(L"BlinkLed", {I2(2), I2(50), I2(400)}), S_OK);
    ASSERT_EQ(Call(L"BlinkLed", {I2(2), I2(1), I2(200)}), S_OK);
    EXPECT_EQ(Events(kBlinkEnded).back(), Ev(kBlinkEnded, {-1, 2}));
    ASSERT_TRUE(PumpUntilEvents(kBlinkEnded, 3));
    EXPECT_EQ(LineLevels(Seen(), 52), (std::vector<std::string>{"high", "low", "high", "low"}));

    // A steady state ends a blink, whose timer leaves the LED alone from then;
    // cancelling an LED that does not blink is fine and quiet.
    ASSERT_EQ(Call(L"BlinkLed", {I2(4), I2(50), I2(400)}), S_OK);
    ASSERT_EQ(Call(L"SetLedState", {I2(4), I2(0)}), S_OK);
    ASSERT_TRUE(PumpHeartbeats(4));
    ASSERT_EQ(Call(L"CancelBlinkLed", {I2(4)}), S_OK);
    EXPECT_EQ(LineLevels(Seen(), 54), (std::vector<std::string>{"high", "low"}));
    EXPECT_EQ(Events(kBlinkEnded).size(), 4u);
    EXPECT_EQ(Events(kBlinkEnded).back(), Ev(kBlinkEnded, {-1, 4}));

    // A period of one lights the LED and fails (the first words logged). No
    // timer runs for it, but it counts as blinking: a steady state ends it.
    size_t asserts = AssertLines();
    EXPECT_EQ(Call(L"BlinkLed", {I2(5), I2(2), I2(1)}), E_FAIL);
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{L"BlinkLed: msPerBlink too small.\r\n",
                                                          L"BlinkLed: blinkLed() failed.\r\n"}));
    EXPECT_EQ(AssertLines(), asserts + 1);
    ASSERT_TRUE(PumpHeartbeats(3));
    EXPECT_EQ(Events(kBlinkEnded).size(), 4u);
    ASSERT_EQ(Call(L"SetLedState", {I2(5), I2(0)}), S_OK);
    EXPECT_EQ(Events(kBlinkEnded).back(), Ev(kBlinkEnded, {-1, 5}));
    EXPECT_EQ(LineLevels(Seen(), 81), (std::vector<std::string>{"high", "low"}));

    // A negative period is a very long one, not a refusal.
    capture.Clear();
    ASSERT_EQ(Call(L"BlinkLed", {I2(6), I2(1), I2(-2)}), S_OK);
    ASSERT_EQ(Call(L"CancelBlinkLed", {I2(6)}), S_OK);
    EXPECT_EQ(Events(kBlinkEnded).back(), Ev(kBlinkEnded, {-1, 6}));
    EXPECT_EQ(LineLevels(Seen(), 83), (std::vector<std::string>{"high", "low"}));
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(ScriptTest, EveryLedIdDrivesItsOwnLine)
{
    for (short on : {1, 0})
        for (short led = 1; led <= 6; ++led)
            ASSERT_EQ(Call(L"SetLedState", {I2(led), I2(on)}), S_OK);
    ASSERT_EQ(Call(L"SetBacklightPower", {I2(1)}), S_OK);
    ASSERT_EQ(Call(L"SetBacklightPower", {I2(0)}), S_OK);

    std::vector<std::string> levels = LineChanges(Seen());
    std::erase_if(levels, [](const std::string& c) { return c.ends_with("output"); });
    EXPECT_EQ(levels, (std::vector<std::string>{"84 high", "52 high", "53 high", "54 high", "81 high",
                                                "83 high", "84 low", "52 low", "53 low", "54 low",
                                                "81 low", "83 low", "38 high", "38 low"}));
    EXPECT_TRUE(EventsButLid().empty());
}

TEST_F(ScriptTest, BadArgumentsAreRefusedWithTheirTextsAndChangeNothing)
{
    struct Case
    {
        const wchar_t* member;
        std::vector<VARIANT> args;
        std::wstring line, failed;
        size_t asserts;
    };
    const std::wstring blink = L"BlinkLed: blinkLed() failed.\r\n", led = L"SetLedState: setLedState() failed.\r\n";
    const std::wstring timer = L"TimerStart: m_pGpio->TimerStart() failed.\r\n";
    const std::vector<Case> cases = {
        {L"BlinkLed", {I2(0), I2(1), I2(500)}, L"BlinkLed: unknown led id.\r\n", blink, 1},
        {L"BlinkLed", {I2(7), I2(1), I2(500)}, L"BlinkLed: unknown led id.\r\n", blink, 1},
        {L"BlinkLed", {I2(1), I2(0), I2(500)}, L"BlinkLed: non-positive numBlinks.\r\n", blink, 1},
        {L"BlinkLed", {I2(1), I2(2), I2(0)}, L"BlinkLed: msPerBlink too small.\r\n", blink, 1},
        {L"SetLedState", {I2(0), I2(1)}, L"SetLedState: unknown led id.\r\n", led, 0},
        {L"SetLedState", {I2(7), I2(0)}, L"SetLedState: unknown led id.\r\n", led, 0},
        {L"CancelBlinkLed", {I2(-1)}, L"CancelBlinkLed: unknown led id.\r\n",
         L"CancelBlinkLed: cancelBlinkLed() failed.\r\n", 0},
        {L"TimerStart", {I2(-1), R8(1.0)}, L"TimerStart: userTimerID < 0.\r\n", timer, 0},
        {L"TimerStart", {I2(5), R8(14400.001)}, L"TimerStart: intervalSecs too large.\r\n", timer, 0},
        {L"TimerStart", {I2(5), R8(-1.0)}, L"TimerStart: intervalSecs too large.\r\n", timer, 0},
        {L"TimerStart", {I2(5), R8(1e12)}, L"TimerStart: intervalSecs too large.\r\n", timer, 0},
        {L"CancelTimer", {I2(-2)}, L"CancelTimer: userTimerID < 0, but not -1.\r\n",
         L"CancelTimer: m_pGpio->CancelTimer() failed.\r\n", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.line));
        capture.Clear();
        size_t asserts = AssertLines();
        EXPECT_EQ(Call(c.member, c.args), E_FAIL);
        EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{c.line, c.failed}));
        EXPECT_EQ(AssertLines(), asserts + c.asserts);
    }

    // No line moved, no timer was started, nothing was reported.
    EXPECT_TRUE(LineChanges(Seen()).empty());
    ASSERT_TRUE(PumpHeartbeats(2));
    EXPECT_TRUE(EventsButLid().empty());
    EXPECT_EQ(Call(L"TimerStart", {I2(5), R8(0)}), S_OK);
}

TEST_F(ScriptTest, TimersEndNewestFirstTheirHandlersMayRestartAndCancelTimersAndTheirIdsComeFree)
{
    // Timers 1, 2 and 3 run out in the same heartbeat, newest first. Timer
    // 3's handler starts 3 again and cancels 2, which the running pass was
    // about to look at next.
    int restarts = 0;
    sink.onEvent = [&, previous = sink.onEvent](DISPID id) {
        previous(id);
        const ReceivedEvent& e = sink.events.back();
        if (id == kTimerEnded && e.args[1].iVal == 0 && e.args[0].iVal == 3 && restarts++ == 0) {
            EXPECT_EQ(Call(L"TimerStart", {I2(3), R8(0)}), S_OK);
            EXPECT_EQ(Call(L"CancelTimer", {I2(2)}), S_OK);
        }
    };
    ASSERT_TRUE(PumpHeartbeats(1));
    const int started = heartbeats;
    for (short id : {1, 2, 3})
        ASSERT_EQ(Call(L"TimerStart", {I2(id), R8(0)}), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kTimerEnded, 4));
    ASSERT_TRUE(PumpHeartbeats(2));

    // Four hours is the longest interval; a running id is refused.
    ASSERT_EQ(Call(L"TimerStart", {I2(5), R8(14400)}), S_OK);
    EXPECT_EQ(Call(L"TimerStart", {I2(5), R8(1)}), E_FAIL);
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{L"TimerStart: timerID already running.\r\n",
                                                          L"TimerStart: m_pGpio->TimerStart() failed.\r\n"}));
    ASSERT_EQ(Call(L"CancelTimer", {I2(5)}), S_OK);
    ASSERT_EQ(Call(L"TimerStart", {I2(5), R8(0.0001)}), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kTimerEnded, 6));

    // An unknown timer is cancelled silently; -1 cancels all, newest first.
    capture.Clear();
    ASSERT_EQ(Call(L"CancelTimer", {I2(7)}), S_OK);
    for (short id : {1, 2, 3})
        ASSERT_EQ(Call(L"TimerStart", {I2(id), R8(30)}), S_OK);
    ASSERT_EQ(Call(L"CancelTimer", {I2(-1)}), S_OK);
    ASSERT_EQ(Call(L"CancelTimer", {I2(-1)}), S_OK);
    ASSERT_EQ(Call(L"TimerStart", {I2(3), R8(0)}), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kTimerEnded, 10));
    const std::vector<GpioEvent> ended = Events(kTimerEnded);
    EXPECT_EQ(ended, (std::vector<GpioEvent>{Ev(kTimerEnded, {0, 3}), Ev(kTimerEnded, {103, 2}), Ev(kTimerEnded, {0, 1}),
                                             Ev(kTimerEnded, {0, 3}), Ev(kTimerEnded, {103, 5}), Ev(kTimerEnded, {0, 5}),
                                             Ev(kTimerEnded, {103, 3}), Ev(kTimerEnded, {103, 2}),
                                             Ev(kTimerEnded, {103, 1}), Ev(kTimerEnded, {0, 3})}));
    // A timer started inside the pass waits for the next heartbeat.
    EXPECT_EQ((std::vector<int>{ended[0].beat, ended[1].beat, ended[2].beat, ended[3].beat}),
              (std::vector<int>{started + 1, started + 1, started + 1, started + 2}));
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(ScriptTest, TheLidIsReportedOnTheFirstHeartbeatAndOnEveryChangeUntilASimulatedOneTakesOver)
{
    ASSERT_TRUE(PumpHeartbeats(6));  // an unchanged lid says nothing

    // The bench engineer opens the lid and closes it; the next heartbeat reports each.
    ASSERT_TRUE(panel.Send("lid open"));
    EXPECT_EQ(LineLevels(Seen(), 1), std::vector<std::string>{"high"});
    const int opened = heartbeats;
    ASSERT_TRUE(PumpHeartbeats(1));
    ASSERT_TRUE(panel.Send("lid closed"));
    Seen();
    ASSERT_TRUE(PumpHeartbeats(1));

    // A simulated lid in the state already reported says nothing; another is
    // reported, and from then the real switch is not looked at.
    ASSERT_EQ(Call(L"SimLidMoved", {I2(0)}), S_OK);
    ASSERT_EQ(Call(L"SimLidMoved", {I2(0)}), S_OK);
    ASSERT_TRUE(PumpHeartbeats(2));
    ASSERT_EQ(Call(L"SimLidMoved", {I2(5)}), S_OK);
    ASSERT_TRUE(PumpHeartbeats(1));
    for (const char* move : {"lid open", "lid closed"}) {
        ASSERT_TRUE(panel.Send(move));
        Seen();
        ASSERT_TRUE(PumpHeartbeats(2));
    }
    const std::vector<GpioEvent> lid = Events(kLidMoved);
    ASSERT_EQ(lid, (std::vector<GpioEvent>{Ev(kLidMoved, {0}), Ev(kLidMoved, {1}), Ev(kLidMoved, {0}),
                                           Ev(kLidMoved, {1})}));
    EXPECT_EQ(lid[0].beat, 1);
    EXPECT_EQ(lid[1].beat, opened + 1);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(ScriptTest, DataStoreNoticesReachTheScriptThroughTheRegisteredMessage)
{
    ASSERT_EQ(Call(L"SimDataStoreVisible", {I2(1)}), S_OK);
    EXPECT_TRUE(Events(kDataStoreVisible).empty()) << "the notice is posted, not sent";
    ASSERT_TRUE(PumpUntilEvents(kDataStoreVisible, 1));
    EXPECT_EQ(Events(kDataStoreVisible).back(), Ev(kDataStoreVisible, {1}));
    EXPECT_TRUE(sink.events.back().resultRequested);

    // The same notice as the data store's watcher posts it, by the message's name.
    HWND gpioWindow = FindThreadWindow(L"GpioMessageWin");
    ASSERT_NE(gpioWindow, nullptr);
    ASSERT_TRUE(PostMessageW(gpioWindow, RegisterWindowMessageW(L"Brennock Flash Change"), 0, 0));
    ASSERT_TRUE(PumpUntilEvents(kDataStoreVisible, 2));
    EXPECT_EQ(Events(kDataStoreVisible).back(), Ev(kDataStoreVisible, {0}));
}

TEST_F(ScriptTest, RebootIsBroadcastToEveryTopLevelWindow)
{
    // A top-level window of this process hears it as one of another would.
    HWND listener = CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(listener, nullptr);
    ASSERT_EQ(Call(L"Reboot"), S_OK);
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{L"Reboot requested.\r\n"});
    std::vector<std::pair<WPARAM, LPARAM>> heard;
    PumpPosted([&](const MSG& m) {
        if (m.hwnd == listener && m.message == RegisterWindowMessageW(L"Brennock Sys Reboot"))
            heard.emplace_back(m.wParam, m.lParam);
    });
    EXPECT_EQ(heard, (std::vector<std::pair<WPARAM, LPARAM>>{{0, 0}}));
    DestroyWindow(listener);
}

TEST_F(ScriptTest, OpenLeavesTheGoStrobeLowAndTheAuxiliaryEnableHighAndCloseStopsTheHeartbeat)
{
    CGpioBlock* block = GpioRegisterBlock();
    ASSERT_NE(block, nullptr);
    auto bit = [&](const uint32_t* regs, int line) {
        return (block->Read(regs[gpio::BankOf(line)]) & gpio::BitOf(line)) != 0;
    };
    EXPECT_TRUE(bit(gpio::kClearReg, 21) && !bit(gpio::kSetReg, 21) && bit(gpio::kDirectionReg, 21));
    EXPECT_TRUE(bit(gpio::kSetReg, 99) && !bit(gpio::kClearReg, 99) && bit(gpio::kDirectionReg, 99));

    // Close stops the heartbeat and drops the notices still queued.
    ASSERT_EQ(Call(L"TimerStart", {I2(9), R8(0)}), S_OK);
    ASSERT_EQ(Call(L"SimDataStoreVisible", {I2(1)}), S_OK);
    ASSERT_EQ(Call(L"Close"), S_OK);
    ASSERT_EQ(Call(L"Close"), S_OK);
    PumpPosted();
    EXPECT_TRUE(EventsButLid().empty());
    EXPECT_EQ(FindThreadWindow(L"GpioMessageWin"), nullptr);
    EXPECT_EQ(Call(L"TimerStart", {I2(9), R8(0)}), E_FAIL);
    EXPECT_EQ(capture.Lines().back(), L"TimerStart - Open() not called beforehand.\r\n");
}

}  // namespace
