// brennock-mcu end to end (native): the simulator runs as its own process on
// a temporary device disk; the test plays the control's part, opening the
// pseudo-terminal slave as the control opens its serial port and writing the
// control's line edges into the GPIO block file.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "sim/GpioBlock.h"
#include "sim/McuPacket.h"
#include "tests/sim/SimProcess.h"

namespace {

using sim::mcu::Bytes;

class McuTest : public simtest::SimProcess
{
protected:
    McuTest() : SimProcess(BRENNOCK_MCU_BIN, "mcu") {}

    // Starts the simulator and opens its port as the host does.
    void Start(std::vector<std::string> args) { SimProcess::Start(std::move(args), 115200); }

    // What the control does on opening its port: line 13 driven, high, low, released.
    void ResetPulse()
    {
        gpio::JournalAppend(block.Base(), 13, gpio::kEdgeOutput);
        gpio::JournalAppend(block.Base(), 13, gpio::kEdgeHigh);
        gpio::JournalAppend(block.Base(), 13, gpio::kEdgeLow);
        gpio::JournalAppend(block.Base(), 13, gpio::kEdgeInput);
    }

    // A go request: strobe low, beep line, strobe high.
    void GoStrobe(bool beep)
    {
        gpio::JournalAppend(block.Base(), 21, gpio::kEdgeLow);
        gpio::JournalAppend(block.Base(), 20, beep ? gpio::kEdgeHigh : gpio::kEdgeLow);
        gpio::JournalAppend(block.Base(), 21, gpio::kEdgeHigh);
    }
};

TEST_F(McuTest, AResetPulseIsAnsweredWithTheConfiguredResetNote)
{
    Start({"--tick-rate", "0", "--tick-start", "0x123", "--rev", "2", "--build", "7", "--reset-source", "1",
           "--tick-hz", "1000000", "--post", "0x55"});
    ResetPulse();
    sim::mcu::ResetInfo info;
    info.rev = 2;
    info.build = 7;
    info.source = 1;
    info.tickHz = 1000000;
    info.post = 0x55;
    EXPECT_EQ(sim::mcu::Hex(Read(15)), sim::mcu::Hex(sim::mcu::Reset(0x123, info)));

    // A second open of the port pulses again; the note comes again.
    Command("ticks 0x500");
    WaitLog("> ticks 0x500");
    ResetPulse();
    EXPECT_EQ(sim::mcu::Hex(Read(15)), sim::mcu::Hex(sim::mcu::Reset(0x123, info)))
        << "the reset puts the counter back to its start";
    WaitLog("reset note");
}

TEST_F(McuTest, TheGoStrobeIsAnsweredWithTimerGoAtTheCurrentTick)
{
    Start({"--tick-rate", "0", "--tick-start", "0x3456"});
    ResetPulse();
    ASSERT_EQ(Read(15).size(), 15u);
    GoStrobe(true);
    EXPECT_EQ(sim::mcu::Hex(Read(7)), "10 05 00 34 56 20 41");
    WaitLog("line 21 high: go strobe, beep on, timer go at ticks 0x003456");

    // The strobe going low again is not a second go.
    Command("ticks 0xFFFFF0");
    WaitLog("> ticks 0xFFFFF0");
    gpio::JournalAppend(block.Base(), 21, gpio::kEdgeLow);
    GoStrobe(false);
    EXPECT_EQ(sim::mcu::Hex(Read(7)), sim::mcu::Hex(sim::mcu::TimerGo(0xFFFFF0)));
    WaitLog("beep off, timer go at ticks 0xFFFFF0");
}

TEST_F(McuTest, TheNoiseCommandIsAnsweredWithACommandResponse)
{
    Start({"--tick-rate", "0", "--tick-start", "0x10"});
    Write(sim::mcu::NoiseCommand(true));
    EXPECT_EQ(sim::mcu::Hex(Read(8)), sim::mcu::Hex(sim::mcu::CmdResponse(0x10, 0)));
    Write({0x5A, 0x02, 0xFF, 0x00});  // bad checksum
    EXPECT_EQ(sim::mcu::Hex(Read(8)), sim::mcu::Hex(sim::mcu::CmdResponse(0x10, sim::mcu::kStatusBadChecksum)));
    // The command in two writes, after a byte no command starts with.
    Write({0x5A, 0x00});
    Write({0x5A, 0x02});
    Write({0x00, 0xA4});
    EXPECT_EQ(sim::mcu::Hex(Read(8)), sim::mcu::Hex(sim::mcu::CmdResponse(0x10, 0)));
    std::string log = WaitLog("host: noise off (5A 02 00 A4)");
    EXPECT_NE(log.find("host: noise on (5A 02 FF A5)"), std::string::npos);
    EXPECT_NE(log.find("host: bad checksum (5A 02 FF 00), status 1"), std::string::npos);
    EXPECT_NE(log.find("host: garbage byte 5A dropped"), std::string::npos);
}

TEST_F(McuTest, TheCounterWrapsAt2To24AndSaysSo)
{
    // 16 ticks before the wrap at 1000 a second.
    Start({"--tick-start", "0xFFFFF0"});
    Bytes wrap = Read(7);
    ASSERT_EQ(wrap.size(), 7u);
    EXPECT_EQ(wrap[0], 0x10);
    EXPECT_EQ(wrap[1], 0x05);
    EXPECT_EQ(wrap[5], 0x21);
    EXPECT_EQ(wrap[6], sim::mcu::Checksum(wrap.data(), 6));
    const uint32_t ticks = (wrap[2] << 16) | (wrap[3] << 8) | wrap[4];
    EXPECT_LT(ticks, 0x800000u) << "sent just after the wrap";
    WaitLog("send timer rollover");
}

TEST_F(McuTest, AScriptPlaysPacketsFaultsAndBadBytesInOrder)
{
    {
        std::ofstream script(dir + "/scenario.txt");
        script << "# a tapping test\n"
                  "digito left down 5 at 0x10\n"
                  "split 3 20 digito left up 7 at 0x20\n"
                  "raw 00 00\n"
                  "packet 13 01\n"
                  "pegs 0x0F 0xF0\n"
                  "error 5v\n"
                  "note01\n"
                  "capsit left down at 0x30\n"
                  "wait 5\n"
                  "mark scenario done\n";
    }
    Start({"--tick-rate", "0", "--tick-start", "0x77", "--script", dir + "/scenario.txt", "--rate", "line"});
    Bytes expected;
    auto add = [&](const Bytes& b) { expected.insert(expected.end(), b.begin(), b.end()); };
    add(sim::mcu::Digito(sim::mcu::kEvtDigitoLeftDown, 0x10, 5));
    add(sim::mcu::Digito(sim::mcu::kEvtDigitoLeftUp, 0x20, 7));
    add({0x00, 0x00});
    add(sim::mcu::Build(0x13, 0x77, 0x01));
    add(sim::mcu::PegsMap(0x77, 0x0F, 0xF0));
    add(sim::mcu::SystemError(0x77, sim::mcu::kErrBad5V));
    add(sim::mcu::NoteUnnamed01(0x77));
    add(sim::mcu::Capsit(sim::mcu::kEvtCapsitLeftDown, 0x30));
    EXPECT_EQ(sim::mcu::Hex(Read(expected.size())), sim::mcu::Hex(expected));
    std::string log = WaitLog("mark scenario done");
    EXPECT_NE(log.find("send split 10 07 00 | 00 20 31 00 07 91, 20 ms between"), std::string::npos) << log;
}

}  // namespace
