// The microcontroller link as a UI script meets it, with the microcontroller
// simulator on COM2, run by scripts/simrun with its tick counter stopped
// (every tick exact) and known reset-note fields; see CMakeLists.txt.
#include <algorithm>
#include <sstream>

#include "mcu/HC08Pack.h"
#include "tests/panel/PanelFixture.h"
#include "tests/support/McuSim.h"

namespace {

constexpr DISPID kTimerGo = 3, kTimerRollover = 4, kDigitoLeftDownward = 5, kDigitoLeftUpward = 6,
                 kDigitoRightDownward = 7, kDigitoRightUpward = 8, kCapsitLeftDown = 9, kCapsitLeftUp = 10,
                 kCapsitRightDown = 11, kPegsMap = 13, kActivityEnded = 14, kHC08Reset = 19;
constexpr long kTicksPerRollover = 0x1000000;
const auto I2 = ScriptObject::I2;
const auto I4 = ScriptObject::I4;
using Numbers = std::vector<double>;

std::string Hex(const std::string& bytes)
{
    std::string s;
    for (unsigned char b : bytes)
        s += std::string(s.empty() ? "" : " ") + "0123456789ABCDEF"[b >> 4] + "0123456789ABCDEF"[b & 15];
    return s;
}

// "10 05 00 34 56 20 41" -> bytes.
std::string Unhex(const std::string& text)
{
    std::string bytes, pair;
    for (std::istringstream in(text); in >> pair;)
        bytes += static_cast<char>(std::stoi(pair, nullptr, 16));
    return bytes;
}

template <class F>
std::string Packet(F build)
{
    int size = 0;
    std::unique_ptr<BYTE[]> p(build(&size));
    return std::string(reinterpret_cast<const char*>(p.get()), size);
}

// The bytes of every packet the simulator logged as sent ("send ...: HEX").
std::string SentBytes(const std::vector<McuEntry>& entries)
{
    std::string bytes;
    for (const McuEntry& e : entries)
        if (size_t colon = e.text.find(": "); e.text.rfind("send ", 0) == 0 && colon != std::string::npos)
            bytes += Unhex(e.text.substr(colon + 2));
    return bytes;
}

class LinkFixture : public ScriptFixture
{
protected:
    // The nth such event's arguments in declaration order (-99999: a type no event uses).
    Numbers ArgsOf(DISPID id, size_t n = 0) const
    {
        for (const ReceivedEvent& e : sink.events) {
            if (e.id != id || n-- > 0)
                continue;
            Numbers out;
            for (size_t k = e.args.size(); k-- > 0;) {
                const VARIANT& v = e.args[k];
                out.push_back(v.vt == VT_I2 ? v.iVal : v.vt == VT_I4 ? v.lVal : v.vt == VT_R8 ? v.dblVal : -99999);
            }
            return out;
        }
        return {-1};
    }

    // Sends the commands and a fence packet (capsit left up), and runs the
    // loop until its event: everything before is then read and dispatched.
    bool SendAndFence(const std::vector<std::string>& commands)
    {
        for (const std::string& c : commands)
            if (!mcu.Send(c))
                return false;
        size_t fences = Events(kCapsitLeftUp).size();
        return mcu.Send("capsit left up") && PumpUntilEvents(kCapsitLeftUp, fences + 1);
    }

    McuSim mcu;
};

class LinkTest : public LinkFixture
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(LinkFixture::SetUp());
        ASSERT_TRUE(McuSim::Running()) << "run this program through scripts/simrun";
        ASSERT_TRUE(mcu.Sync());
        ASSERT_EQ(Open(), 1) << "the reset handshake";
        ASSERT_TRUE(PumpUntilEvents(kHC08Reset, 1));
        capture.Clear();
    }
};

TEST_F(LinkTest, ATappingTestEndToEnd)
{
    ASSERT_EQ(Call(L"SessionStart"), S_OK);
    ASSERT_EQ(Call(L"ActivityConfig", {I2(1), ScriptObject::Str(L"Tapping"), I2(0), I2(0)}), S_OK);
    ASSERT_TRUE(mcu.Send("ticks 1000"));
    ASSERT_TRUE(mcu.Sync());
    // The go strobe comes back as the microcontroller's timer go.
    ASSERT_EQ(Call(L"ActivityStart", {I2(1)}), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kTimerGo, 1));
    EXPECT_EQ(ArgsOf(kTimerGo), Numbers{1000});

    // The raw packet is a capsit right down at 1250 whose checksum (CD) is damaged.
    ASSERT_TRUE(SendAndFence({"digito left down 120 at 1100", "digito left up 30 at 1150", "capsit right down at 1200",
                              "raw 10 05 00 04 E2 38 98", "pegs 15 240 at 1300", "ticks 0xFFFFF0", "rollover",
                              "capsit left down at 16"}));
    EXPECT_EQ(ArgsOf(kDigitoLeftDownward), (Numbers{100, 120}));
    EXPECT_EQ(ArgsOf(kDigitoLeftUpward), (Numbers{150, 30}));
    EXPECT_EQ(Events(kCapsitRightDown).size(), 1u) << "the damaged packet is not dispatched";
    EXPECT_EQ(ArgsOf(kCapsitRightDown), Numbers{200});
    EXPECT_EQ(ArgsOf(kPegsMap), (Numbers{300, 15, 240}));
    EXPECT_EQ(Events(kTimerRollover).size(), 1u);
    EXPECT_EQ(ArgsOf(kCapsitLeftDown), Numbers{16 - 1000 + 2 * kTicksPerRollover});
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{L"HC08 packet checksum failed: expected 0xcd, got 0x98\r\n"});

    std::vector<McuEntry> during;
    ASSERT_TRUE(mcu.Sync(&during));
    ASSERT_EQ(Call(L"ActivityEndNormal"), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kActivityEnded, 1));
    EXPECT_EQ(ArgsOf(kActivityEnded), (Numbers{0, 1}));

    // The recording: header, the reset note kept at Open, the pegs map as it
    // stood at the start (none seen yet), then every packet from the line,
    // the damaged one included, byte for byte.
    std::vector<std::wstring> files = TempFiles(L".motr");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_NE(files[0].find(L"Tapping.motr"), std::wstring::npos);
    EXPECT_EQ(Hex(ReadFileBytes(L"\\Device Temp\\" + files[0])),
              Hex(std::string("MOTR\x00\x01", 6) +
                  Packet([](int* n) { return CHC08Pack::BuildHC08Reset(n, 0, 3, 7, 2, 1000, 5); }) +
                  Packet([](int* n) { return CHC08Pack::BuildPegsMap(n, 0, 0, 0); }) + SentBytes(during)));
    ASSERT_EQ(Call(L"SessionCancel"), S_OK);
}

TEST_F(LinkTest, FramingSplitPacketsGarbageAndTheDigitoGate)
{
    ASSERT_TRUE(SendAndFence({"split 3 30 go at 0x3456"}));
    ASSERT_EQ(Events(kTimerGo).size(), 1u);
    EXPECT_EQ(ArgsOf(kTimerGo), Numbers{0x3456});

    // Garbage in front of a packet in the same read: the length is refused,
    // the scan passes over a start with a valid length (AA 05) whose
    // checksum does not match and finds the packet by its checksum.
    ASSERT_TRUE(SendAndFence(
        {"raw 00 00 AA 05 " + Hex(Packet([](int* n) { return CHC08Pack::BuildCapsitLeftDown(n, 0x3460); }))}));
    EXPECT_EQ(ArgsOf(kCapsitLeftDown), Numbers{10});
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{L"Bad lenFollowing: 0\r\n"});

    // Finger taps from the line, of either hand, are dropped between
    // activities (simulated ones are not: surface.js).
    ASSERT_TRUE(SendAndFence({"digito left down 7", "digito right down 7"}));
    EXPECT_TRUE(Events(kDigitoLeftDownward).empty());
    EXPECT_TRUE(Events(kDigitoRightDownward).empty());

    // While an activity runs, taps of both hands come through from the line.
    ASSERT_EQ(Call(L"ActivityConfig", {I2(1), ScriptObject::Str(L"Tapping"), I2(0), I2(0)}), S_OK);
    ASSERT_EQ(Call(L"ActivityStart", {I2(0)}), S_OK);
    ASSERT_TRUE(SendAndFence({"digito left up 5", "digito right up 6"}));
    EXPECT_EQ(Events(kDigitoLeftUpward).size(), 1u);
    EXPECT_EQ(Events(kDigitoRightUpward).size(), 1u);
    ASSERT_EQ(Call(L"ActivityCancel"), S_OK);
}

TEST_F(LinkTest, SystemNotesErrorsAndUnknownPackets)
{
    ASSERT_TRUE(SendAndFence({"error overflow", "error vcore", "error 5v", "error 3v", "error 0", "note01",
                              "packet 13 20", "packet 10 7E", "packet 11 44", "packet 12 55"}));
    // The class warning comes from the reader thread, the rest from the
    // dispatch on the host thread, in packet order.
    std::vector<std::wstring> lines = capture.Lines();
    EXPECT_EQ(std::erase(lines, L"Warning: Unknown HC08 message class.\n"), 1u);
    EXPECT_EQ(lines, (std::vector<std::wstring>{L"HC08 Overflow\r\n", L"HC08: Bad V Core\r\n", L"HC08: Bad 5V\r\n",
                                                L"HC08: Bad 3V\r\n", L"Unknown msgClass: 1302x ignored.\n",
                                                L"Unknown device event: 7e02x ignored.\n",
                                                L"Unknown system notification: 0x44 ignored.\r\n",
                                                L"Unknown system error: 5502x ignored.\n"}));
}

TEST_F(LinkTest, OpenPulsesTheResetLineAndTheNoiseCommandsAndSimulatedPacketsFollow)
{
    // The simulator's reset note: rev 3, build 7, source 2, 1000 Hz, post 5.
    EXPECT_EQ(Events(kHC08Reset).size(), 1u);
    EXPECT_EQ(ArgsOf(kHC08Reset), (Numbers{3, 7, 2, 1000, 5}));
    // A later reset of the microcontroller is reported again.
    ASSERT_TRUE(mcu.Send("reset"));
    ASSERT_TRUE(PumpUntilEvents(kHC08Reset, 2));

    VARIANT v;
    VariantInit(&v);
    ASSERT_EQ(script->Get(L"MaskWithNoise", &v), S_OK);
    EXPECT_EQ(v.iVal, 0);
    ASSERT_EQ(script->Put(L"MaskWithNoise", I2(1)), S_OK);
    ASSERT_EQ(script->Put(L"MaskWithNoise", I2(0)), S_OK);
    std::vector<McuEntry> seen;
    ASSERT_TRUE(mcu.Sync(&seen));
    EXPECT_EQ(SimTexts(seen, "host:"),
              (std::vector<std::string>{"host: noise on (5A 02 FF A5)", "host: noise off (5A 02 00 A4)"}));
    // The microcontroller's acceptance raises nothing and logs nothing, and
    // the reader waits on an idle line without a word (it does not spin).
    ASSERT_TRUE(SendAndFence({"wait 300"}));
    EXPECT_TRUE(capture.Lines().empty()) << testing::PrintToString(capture.Lines());

    // Simulated packets count ticks from go across rollovers.
    ASSERT_EQ(Call(L"SimTimerGo", {I4(kTicksPerRollover - 16)}), S_OK);
    ASSERT_EQ(Call(L"SimTimerRollover"), S_OK);
    ASSERT_EQ(Call(L"SimPegsMap", {I4(40), I2(0x0F), I2(0xF0)}), S_OK);
    ASSERT_EQ(Call(L"SimHC08Reset", {I2(1), I2(2), I2(3), ScriptObject::R8(999.9), I2(4)}), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kHC08Reset, 3));
    EXPECT_EQ(ArgsOf(kTimerGo), Numbers{kTicksPerRollover - 16});
    EXPECT_EQ(ArgsOf(kPegsMap), (Numbers{kTicksPerRollover + 40, 0x0F, 0xF0}));
    EXPECT_EQ(ArgsOf(kHC08Reset, 2), (Numbers{1, 2, 3, 999, 4}));
}

TEST_F(LinkFixture, SilentMicrocontrollerOpenGivesUpAfterEightSeconds)
{
    ASSERT_TRUE(McuSim::Running());
    EXPECT_EQ(Open(), 0);
    std::vector<std::wstring> lines = capture.Lines();
    ASSERT_GE(lines.size(), 2u) << testing::PrintToString(lines);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), std::wstring(L"HC08 thread never signaled ready.\r\n")), 1);
    EXPECT_EQ(lines.back(), L"Open - HC08 open failed.\r\n");
}

TEST_F(LinkFixture, NoPortOpenFailsAtOnceAndTheRestWorks)
{
    ASSERT_FALSE(McuSim::Running());
    EXPECT_EQ(Open(), 0);
    ASSERT_FALSE(capture.Lines().empty());
    EXPECT_EQ(capture.Lines().back(), L"Open - HC08 open failed.\r\n");
    // The managers before the link are open and usable.
    VARIANT v;
    VariantInit(&v);
    ASSERT_EQ(Call(L"NVParameterRead", {ScriptObject::Str(L"deviceid"), ScriptObject::Str(L"x")}, &v), S_OK);
    EXPECT_STREQ(v.bstrVal, L"0000065535");
    VariantClear(&v);
    ASSERT_EQ(Call(L"ParameterRead", {ScriptObject::Str(L"SessionWindowHours"), ScriptObject::Str(L"x")}, &v), S_OK);
    EXPECT_STREQ(v.bstrVal, L"2");
    VariantClear(&v);
    EXPECT_EQ(Call(L"SessionStart"), S_OK);
    EXPECT_EQ(Call(L"SessionCancel"), S_OK);
    // The noise flag is kept though nothing can be sent.
    EXPECT_EQ(script->Put(L"MaskWithNoise", I2(1)), E_FAIL);
    EXPECT_EQ(capture.Lines().back(), L"put_MaskWithNoise - CHC08::SetNoiseOn failed.\r\n");
    ASSERT_EQ(script->Get(L"MaskWithNoise", &v), S_OK);
    EXPECT_EQ(v.iVal, 1);
    // Simulated packets have no window to go to: they fail with their
    // messages, and nothing is left queued on this thread.
    capture.Clear();
    EXPECT_EQ(Call(L"SimTimerGo", {I4(5)}), E_FAIL);
    EXPECT_EQ(Call(L"SimCapsitLeftDown", {I4(7)}), E_FAIL);
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{L"CHC08::SendCopyOfPacket: PostMessage failed.\n",
                                                          L"SimTimerGo - CHC08::SimTimerGo failed.\r\n",
                                                          L"CHC08::SendCopyOfPacket: PostMessage failed.\n",
                                                          L"SimCapsitLeftDown - CHC08::SimCapsitLeftDown failed.\r\n"}));
    MSG msg;
    EXPECT_FALSE(PeekMessageW(&msg, reinterpret_cast<HWND>(-1), 0, 0, PM_NOREMOVE)) << "a packet on the thread queue";
}

}  // namespace
