// brennock-watch end to end (native): the simulator runs as its own process
// on a temporary device disk; the test plays the control, opening the
// pseudo-terminal slave as the control opens COM1 (600 baud, switched to 4800
// for a block), writing the power and carrier edges into the GPIO block file
// and reading the presence line there.
#include <gtest/gtest.h>

#include <string>
#include <termios.h>
#include <vector>

#include "sim/GpioBlock.h"
#include "sim/WatchMemory.h"
#include "sim/WatchProtocol.h"
#include "tests/sim/SimProcess.h"

namespace {

using simtest::NowMs;
using simtest::SleepMs;

constexpr unsigned kLinePower = 36;
constexpr unsigned kLinePresent = 40;
constexpr unsigned kLineCarrier = 41;

class WatchTest : public simtest::SimProcess
{
protected:
    WatchTest() : SimProcess(BRENNOCK_WATCH_BIN, "watch") {}

    // A fast watch in the cradle, powered, with its port open at 600 baud.
    void StartSeated(std::vector<std::string> more = {})
    {
        std::vector<std::string> args = {"--rate", "fast", "--seated"};
        args.insert(args.end(), more.begin(), more.end());
        Start(args, 600);
        Line(kLinePower, true);
    }

    void Line(unsigned line, bool high)
    {
        gpio::JournalAppend(block.Base(), line, gpio::kEdgeOutput);
        gpio::JournalAppend(block.Base(), line, high ? gpio::kEdgeHigh : gpio::kEdgeLow);
    }

    bool Present() { return block.Level(kLinePresent); }

    // SetCommState's baud rate, as the watch sees it on its side.
    void Baud(int baud)
    {
        termios t;
        ASSERT_EQ(tcgetattr(port, &t), 0);
        cfsetispeed(&t, baud == 4800 ? B4800 : B600);
        cfsetospeed(&t, baud == 4800 ? B4800 : B600);
        ASSERT_EQ(tcsetattr(port, TCSANOW, &t), 0);
    }

    // SyncWithWatch's carriage return.
    void Wake()
    {
        WriteText("\r");
        EXPECT_EQ(ReadUntil('>'), "\r\n>");
    }

    // A command typed one character at a time, each echo read before the
    // next; returns the echoes.
    std::string Type(const std::string& command)
    {
        std::string echoes;
        for (char c : command) {
            WriteText(std::string(1, c));
            std::vector<uint8_t> echo = Read(1);
            if (echo.empty())
                break;
            echoes.push_back(static_cast<char>(echo[0]));
        }
        return echoes;
    }

    static std::string Block(uint32_t recorded, uint32_t address, size_t bytes = watchsim::kBlockBytes)
    {
        std::string b(watchsim::kBlockBytes, '\0');
        watchsim::ReadBlock(recorded, address, reinterpret_cast<uint8_t*>(b.data()));
        return b.substr(0, bytes);
    }

    static std::string Text(const std::vector<uint8_t>& bytes) { return std::string(bytes.begin(), bytes.end()); }
};

TEST_F(WatchTest, TheHostWakesItReadsItsParametersAndABlockAndConfiguresIt)
{
    StartSeated({"--log-address", "0x1234"});
    sim::watch::WatchFacts facts;
    facts.logAddress = 0x1234;

    Wake();
    EXPECT_EQ(Type("***C"), "***C");
    EXPECT_EQ(ReadUntil('>'), sim::watch::ParameterReply(facts, sim::watch::Garble::kNone));
    EXPECT_EQ(sim::watch::ParameterReply(facts, sim::watch::Garble::kNone),
              "\rSIMWATCH 01\rFW 2.10\r001234\rID -\rSTART ------ ----\r>");
    EXPECT_TRUE(Read(1, 100).empty()) << "nothing after the prompt";

    // The block comes only at 4800 baud, the prompt only back at 600.
    Wake();
    EXPECT_EQ(Type("***N0010"), "***N0010");
    EXPECT_TRUE(Read(1, 150).empty()) << "sent before the host switched to 4800 baud";
    Baud(4800);
    EXPECT_EQ(Text(Read(4096)), Block(0x1234, 0x10)) << "bytes 0x1000..0x1FFF: 0x234 recorded, then 0xFF";
    EXPECT_TRUE(Read(1, 150).empty()) << "the prompt before the host switched back";
    Baud(600);
    EXPECT_EQ(ReadUntil('>'), ">");

    // Configuration commands: fixed length, and the identity ended by the quiet gap.
    Wake();
    EXPECT_EQ(Type("***D241126"), "***D241126");
    EXPECT_EQ(ReadUntil('>'), "\rOK\r>");
    Wake();
    EXPECT_EQ(Type("***B4A6F65"), "***B4A6F65");
    EXPECT_EQ(ReadUntil('>'), "\rOK\r>");
    Wake();
    Type("***C");
    facts.identity = "4A6F65";
    facts.date = "241126";
    EXPECT_EQ(ReadUntil('>'), sim::watch::ParameterReply(facts, sim::watch::Garble::kNone));

    const std::string log = WaitLog("command: ***B4A6F65\n");
    for (const char* line : {"command: ***N0010\n", "line settings 4800 8N1\n", "block a=0x0010 bytes=4096 ",
                             "line settings 600 8N1\n", "command: ***D241126\n"})
        EXPECT_NE(log.find(line), std::string::npos) << line << " missing from\n" << log;
}

TEST_F(WatchTest, PresenceNeedsTheWatchSeatedPoweredAndTheCarrierSeenWithin1500Ms)
{
    Start({"--rate", "fast"}, 600);
    Line(kLinePower, true);
    Line(kLineCarrier, false);

    // The control's pulse: 100 ms high in every second. Returns the time of
    // the first high sample, and whether a low one came after it.
    auto pulse = [&](double ms, double* firstHigh, bool* lowAfter) {
        const double t0 = NowMs();
        *firstHigh = -1;
        *lowAfter = false;
        bool high = false;
        for (double t = 0; t < ms; t = NowMs() - t0) {
            const bool want = static_cast<long>(t) % 1000 >= 900;
            if (want != high)
                gpio::JournalAppend(block.Base(), kLineCarrier, want ? gpio::kEdgeHigh : gpio::kEdgeLow);
            high = want;
            if (Present() && *firstHigh < 0)
                *firstHigh = t;
            if (!Present() && *firstHigh >= 0)
                *lowAfter = true;
            SleepMs(5);
        }
        if (high)
            gpio::JournalAppend(block.Base(), kLineCarrier, gpio::kEdgeLow);
    };
    double firstHigh = 0;
    bool lowAfter = false;
    pulse(1100, &firstHigh, &lowAfter);
    EXPECT_LT(firstHigh, 0) << "present with no watch in the cradle";

    Do("seat");
    pulse(2950, &firstHigh, &lowAfter);
    EXPECT_GE(firstHigh, 880) << "present before the first pulse it saw";
    EXPECT_FALSE(lowAfter) << "the heartbeat could meet an absent watch between pulses";

    // No more pulses: the presence holds 1.5 s after the last one, then drops.
    const double fell = NowMs();
    while (Present() && NowMs() - fell < simtest::kDeadlineMs)
        SleepMs(2);
    EXPECT_GE(NowMs() - fell, 1400) << "dropped before the hold was over";
    EXPECT_FALSE(Present());

    // A pulse too short to see by looking at the registers is still seen.
    gpio::JournalAppend(block.Base(), kLineCarrier, gpio::kEdgeHigh);
    gpio::JournalAppend(block.Base(), kLineCarrier, gpio::kEdgeLow);
    Do("state");
    EXPECT_TRUE(Present());

    // The carrier steadily on: present for good; removal and power off end it at once.
    Line(kLineCarrier, true);
    SleepMs(1800);
    Do("state");
    EXPECT_TRUE(Present());
    Do("remove");
    EXPECT_FALSE(Present());
    Do("seat");
    EXPECT_TRUE(Present());
    Line(kLinePower, false);
    Do("state");
    EXPECT_FALSE(Present());
    const std::string log = Log();
    for (const char* line : {"presence high: seated, power on, carrier seen\n",
                             "presence low: no carrier for 1500 ms\n", "presence low: watch removed\n",
                             "presence low: watch power off\n"})
        EXPECT_NE(log.find(line), std::string::npos) << line << " missing from\n" << log;
}

TEST_F(WatchTest, AWrongEchoEndsTheCommandAndTheNextCarriageReturnWakesItAgain)
{
    StartSeated();
    Do("echo 2");
    Wake();
    EXPECT_EQ(Type("**"), "*+") << "the second character echoed wrong";
    Wake();
    EXPECT_EQ(Type("***C"), "***C") << "the fault was for one command";
    EXPECT_EQ(ReadUntil('>').substr(0, 12), "\rSIMWATCH 01");
    WaitLog("watch: command \"**\" abandoned at a CR\n");
}

TEST_F(WatchTest, ABlockThatStopsHalfWaySendsNoPromptAndTheWatchAnswersAgainAfter)
{
    StartSeated({"--log-address", "0x3000"});
    Do("stop 100");
    Wake();
    Type("***N0020");
    Baud(4800);
    EXPECT_EQ(Text(Read(4096, 600)), Block(0x3000, 0x20, 100));
    Baud(600);
    Wake();
    Type("***N0020");
    Baud(4800);
    EXPECT_EQ(Text(Read(4096)), Block(0x3000, 0x20));
    Baud(600);
    EXPECT_EQ(ReadUntil('>'), ">");
    WaitLog("watch: block 0x0020 stopped after 100 bytes; no prompt\n");
}

}  // namespace
