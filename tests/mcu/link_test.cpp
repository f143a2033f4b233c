// The microcontroller link as a UI script meets it: the registered control,
// bound late, with an advised sink, inside a running message loop, and the
// microcontroller simulator at the other end of a real pseudo-terminal mapped
// to COM2. Run by scripts/simrun with the simulator's tick counter stopped
// (every tick exact) and known reset-note fields; see CMakeLists.txt.
#include <gtest/gtest.h>

#include <windows.h>
#include <mmsystem.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "mcu/HC08Pack.h"
#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/McuSim.h"
#include "tests/support/MessagePump.h"

namespace {

// Event dispatch ids.
constexpr DISPID kTimerGo = 3;
constexpr DISPID kTimerRollover = 4;
constexpr DISPID kDigitoLeftDownward = 5;
constexpr DISPID kDigitoLeftUpward = 6;
constexpr DISPID kDigitoRightDownward = 7;
constexpr DISPID kDigitoRightUpward = 8;
constexpr DISPID kCapsitLeftDown = 9;
constexpr DISPID kCapsitLeftUp = 10;
constexpr DISPID kCapsitRightDown = 11;
constexpr DISPID kPegsMap = 13;
constexpr DISPID kActivityEnded = 14;
constexpr DISPID kHC08Reset = 19;

constexpr long kTicksPerRollover = 0x1000000;

// The reset note the simulator is started with (CMakeLists.txt).
constexpr short kRev = 3, kBuild = 7, kSource = 2, kPost = 5;
constexpr long kTickHz = 1000;

const auto I2 = ScriptObject::I2;
const auto I4 = ScriptObject::I4;
const auto R8 = ScriptObject::R8;

std::string Hex(const BYTE* p, int n)
{
    std::string s;
    char t[4];
    for (int i = 0; i < n; ++i) {
        std::snprintf(t, sizeof t, i ? " %02X" : "%02X", p[i]);
        s += t;
    }
    return s;
}

// "10 05 00 34 56 20 41" -> bytes.
std::string Unhex(const std::string& text)
{
    std::string bytes;
    std::istringstream in(text);
    std::string pair;
    while (in >> pair)
        bytes += static_cast<char>(std::stoi(pair, nullptr, 16));
    return bytes;
}

// The bytes of every packet the simulator logged as sent ("send ...: HEX").
std::string SentBytes(const std::vector<McuEntry>& entries)
{
    std::string bytes;
    for (const McuEntry& e : entries) {
        if (e.text.rfind("send ", 0) != 0)
            continue;
        size_t colon = e.text.find(": ");
        if (colon == std::string::npos)
            continue;
        bytes += Unhex(e.text.substr(colon + 2));
    }
    return bytes;
}

// One event's arguments in declaration order, as numbers.
std::vector<double> Args(const ReceivedEvent& e)
{
    std::vector<double> out;
    for (size_t k = e.args.size(); k-- > 0;) {
        const VARIANT& v = e.args[k];
        out.push_back(v.vt == VT_I2 ? v.iVal : v.vt == VT_I4 ? v.lVal : v.vt == VT_R8 ? v.dblVal : -99999);
    }
    return out;
}

std::vector<std::wstring> FilesIn(const wchar_t* pattern)
{
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW(pattern, &found);
    if (search == INVALID_HANDLE_VALUE)
        return names;
    do {
        names.push_back(found.cFileName);
    } while (FindNextFileW(search, &found));
    FindClose(search);
    return names;
}

class LinkFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_HRESULT_SUCCEEDED(com.Result());
        ProvisionDisk();
        CLSID clsid;
        ASSERT_HRESULT_SUCCEEDED(CLSIDFromProgID(L"BrennockControl.Brennock", &clsid));
        ASSERT_HRESULT_SUCCEEDED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch,
                                                  reinterpret_cast<void**>(disp.GetAddressOf())));
        cookie = AdviseSink(disp.Get(), &sink);
        ASSERT_NE(cookie, 0u);
        script = std::make_unique<ScriptObject>(disp.Get());
    }

    void TearDown() override
    {
        if (script)
            script->Call(L"Close");
        if (cookie != 0)
            UnadviseSink(disp.Get(), cookie);
        script.reset();
        disp.Reset();
    }

    short Open()
    {
        VARIANT ok;
        VariantInit(&ok);
        EXPECT_EQ(script->Call(L"Open", {}, &ok), S_OK);
        return ok.vt == VT_I2 ? ok.iVal : -1;
    }

    std::vector<ReceivedEvent> Events(DISPID id) const
    {
        std::vector<ReceivedEvent> out;
        for (const ReceivedEvent& e : sink.events)
            if (e.id == id)
                out.push_back(e);
        return out;
    }

    bool PumpUntilEvents(DISPID id, size_t count)
    {
        return PumpUntil([&] { return Events(id).size() >= count; });
    }

    // Sends the commands, then a fence packet (capsit left up) and runs the
    // message loop until its event arrives: everything before it has then
    // been read, framed, dispatched.
    bool SendAndFence(const std::vector<std::string>& commands)
    {
        for (const std::string& c : commands)
            if (!mcu.Send(c))
                return false;
        size_t fences = Events(kCapsitLeftUp).size();
        if (!mcu.Send("capsit left up"))
            return false;
        return PumpUntilEvents(kCapsitLeftUp, fences + 1);
    }

    std::vector<std::wstring> LinesBut(const std::vector<std::wstring>& lines, const wchar_t* noise) const
    {
        std::vector<std::wstring> out;
        for (const std::wstring& l : lines)
            if (l != noise)
                out.push_back(l);
        return out;
    }

    ComApartment com;
    DebugCapture capture;
    RecordingSink sink;
    McuSim mcu;
    ComPtr<IDispatch> disp;
    std::unique_ptr<ScriptObject> script;
    DWORD cookie = 0;
};

// ---------------------------------------------------------------------------
// The link with a microcontroller that answers

class LinkTest : public LinkFixture
{
protected:
    void SetUp() override
    {
        LinkFixture::SetUp();
        ASSERT_TRUE(McuSim::Running()) << "run this program through scripts/simrun";
        ASSERT_TRUE(mcu.Sync());
        ASSERT_EQ(Open(), 1) << "the reset handshake";
        ASSERT_TRUE(PumpUntilEvents(kHC08Reset, 1));
        capture.Clear();
    }
};

TEST_F(LinkTest, OpenPulsesTheResetLineSetsTheLineAndRaisesHC08ResetWithTheNotesFields)
{
    std::vector<McuEntry> seen;
    ASSERT_TRUE(mcu.Sync(&seen));
    EXPECT_FALSE(McuTexts(seen, "line 13 high").empty());

    std::vector<ReceivedEvent> resets = Events(kHC08Reset);
    ASSERT_EQ(resets.size(), 1u);
    ASSERT_EQ(resets[0].args.size(), 5u);
    // Arguments arrive last first; tickHz is a double.
    EXPECT_EQ(resets[0].args[1].vt, VT_R8);
    EXPECT_EQ(resets[0].args[4].vt, VT_I2);
    EXPECT_EQ(Args(resets[0]), (std::vector<double>{kRev, kBuild, kSource, kTickHz, kPost}));

    // A later reset of the microcontroller is reported again.
    ASSERT_TRUE(mcu.Send("reset"));
    ASSERT_TRUE(PumpUntilEvents(kHC08Reset, 2));
}

TEST_F(LinkTest, AnIdleLineKeepsTheReaderQuiet)
{
    // The reader waits for characters; it does not spin on the port.
    capture.Clear();
    ASSERT_TRUE(SendAndFence({"wait 300"}));
    std::vector<std::wstring> lines = capture.Lines();
    EXPECT_TRUE(lines.empty()) << lines.size() << " debug lines, the first "
                               << (lines.empty() ? std::string() : std::string(lines[0].begin(), lines[0].end()));
}

TEST_F(LinkTest, ATappingTestEndToEnd)
{
    VARIANT ok;
    ASSERT_EQ(script->Call(L"SessionStart"), S_OK);
    ASSERT_EQ(script->Call(L"ActivityConfig", {I2(1), ScriptObject::Str(L"Tapping"), I2(0), I2(0)}), S_OK);
    ASSERT_TRUE(mcu.Send("ticks 1000"));
    std::vector<McuEntry> before;
    ASSERT_TRUE(mcu.Sync(&before));

    // The go strobe comes back as the microcontroller's timer go.
    ASSERT_EQ(script->Call(L"ActivityStart", {I2(1)}), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kTimerGo, 1));
    EXPECT_EQ(Args(Events(kTimerGo)[0]), std::vector<double>{1000});

    BYTE damaged[7];
    {
        int size = 0;
        BYTE* p = CHC08Pack::BuildCapsitRightDown(&size, 1250);
        memcpy(damaged, p, 7);
        delete[] p;
        damaged[6] ^= 0x55;
    }
    ASSERT_TRUE(SendAndFence({
        "digito left down 120 at 1100",
        "digito left up 30 at 1150",
        "capsit right down at 1200",
        "raw " + Hex(damaged, 7),
        "pegs 15 240 at 1300",
        "ticks 0xFFFFF0",
        "rollover",
        "capsit left down at 16",
    }));

    EXPECT_EQ(Args(Events(kDigitoLeftDownward).at(0)), (std::vector<double>{100, 120}));
    EXPECT_EQ(Args(Events(kDigitoLeftUpward).at(0)), (std::vector<double>{150, 30}));
    EXPECT_EQ(Events(kCapsitRightDown).size(), 1u) << "the damaged packet is not dispatched";
    EXPECT_EQ(Args(Events(kCapsitRightDown).at(0)), std::vector<double>{200});
    EXPECT_EQ(Args(Events(kPegsMap).at(0)), (std::vector<double>{300, 15, 240}));
    EXPECT_EQ(Events(kTimerRollover).size(), 1u);
    EXPECT_EQ(Args(Events(kCapsitLeftDown).at(0)), std::vector<double>{16 - 1000 + 2 * kTicksPerRollover});
    wchar_t checksum[80];
    swprintf(checksum, 80, L"HC08 packet checksum failed: expected 0x%02x, got 0x%02x\r\n", damaged[6] ^ 0x55,
             damaged[6]);
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{checksum});

    std::vector<McuEntry> during;
    ASSERT_TRUE(mcu.Sync(&during));
    ASSERT_EQ(script->Call(L"ActivityEndNormal"), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kActivityEnded, 1));
    EXPECT_EQ(Args(Events(kActivityEnded)[0]), (std::vector<double>{0, 1}));

    // The recording: header, the reset note kept at Open, the pegs map as it
    // stood at the start (none seen yet), then every packet from the line,
    // the damaged one included, byte for byte.
    std::vector<std::wstring> files = FilesIn(L"\\Device Temp\\*Tapping.motr");
    ASSERT_EQ(files.size(), 1u);
    std::string motr = ReadFileBytes(L"\\Device Temp\\" + files[0]);

    std::string expected("MOTR\x00\x01", 6);
    std::string resetNote;
    {
        std::string log = ReadFileBytes(L"\\mcu.log");
        size_t at = log.find("send reset note: ");
        ASSERT_NE(at, std::string::npos);
        resetNote = Unhex(log.substr(at + 17, log.find('\n', at) - at - 17));
    }
    ASSERT_EQ(resetNote.size(), 15u);
    expected += resetNote;
    int size = 0;
    BYTE* pegs = CHC08Pack::BuildPegsMap(&size, 0, 0, 0);
    expected.append(reinterpret_cast<char*>(pegs), size);
    delete[] pegs;
    expected += SentBytes(during);
    EXPECT_EQ(Hex(reinterpret_cast<const BYTE*>(motr.data()), static_cast<int>(motr.size())),
              Hex(reinterpret_cast<const BYTE*>(expected.data()), static_cast<int>(expected.size())));

    ASSERT_EQ(script->Call(L"SessionCancel"), S_OK);
}

TEST_F(LinkTest, ATimedOutActivityEndsWithCauseOneAndWritesNothing)
{
    ASSERT_EQ(script->Call(L"SessionStart"), S_OK);
    ASSERT_EQ(script->Call(L"ActivityConfig", {I2(2), ScriptObject::Str(L"Seat"), I2(1), I2(0)}), S_OK);
    DWORD started = timeGetTime();
    ASSERT_EQ(script->Call(L"ActivityStart", {I2(0)}), S_OK);
    ASSERT_TRUE(SendAndFence({"capsit right down"}));
    ASSERT_TRUE(PumpUntilEvents(kActivityEnded, 1));
    DWORD ended = timeGetTime();
    EXPECT_EQ(Args(Events(kActivityEnded)[0]), (std::vector<double>{1, 2}));
    EXPECT_GE(ended - started, 1000u) << "not before its limit";
    std::printf("time-out after %lu ms (limit 1000 ms)\n", static_cast<unsigned long>(ended - started));
    EXPECT_EQ(script->Call(L"ActivityEndNormal"), S_OK);
    EXPECT_EQ(Events(kActivityEnded).size(), 1u);
    EXPECT_TRUE(FilesIn(L"\\Device Temp\\*.motr").empty());
    ASSERT_EQ(script->Call(L"SessionCancel"), S_OK);
}

TEST_F(LinkTest, FramingSplitPacketsGarbageAndTheDigitoGate)
{
    capture.Clear();
    // A packet over two reads.
    ASSERT_TRUE(SendAndFence({"split 3 30 go at 0x3456"}));
    ASSERT_EQ(Events(kTimerGo).size(), 1u);
    EXPECT_EQ(Args(Events(kTimerGo)[0]), std::vector<double>{0x3456});

    // Garbage in front of a packet in the same read: the length is refused,
    // the scan passes over a start with a valid length (AA 05) whose
    // checksum does not match and finds the packet by its checksum.
    int size = 0;
    BYTE* capsit = CHC08Pack::BuildCapsitLeftDown(&size, 0x3460);
    std::string garbage = "raw 00 00 AA 05 " + Hex(capsit, size);
    delete[] capsit;
    ASSERT_TRUE(SendAndFence({garbage}));
    EXPECT_EQ(Args(Events(kCapsitLeftDown).at(0)), std::vector<double>{10});
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{L"Bad lenFollowing: 0\r\n"});

    // Finger taps from the line, of either hand, are dropped between
    // activities; simulated ones go straight to the script.
    ASSERT_TRUE(SendAndFence({"digito left down 7", "digito right down 7"}));
    EXPECT_TRUE(Events(kDigitoLeftDownward).empty());
    EXPECT_TRUE(Events(kDigitoRightDownward).empty());
    ASSERT_EQ(script->Call(L"SimTimerGo", {I4(500)}), S_OK);
    ASSERT_EQ(script->Call(L"SimDigitoLeftDownward", {I4(20), I4(7)}), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kDigitoLeftDownward, 1));
    EXPECT_EQ(Args(Events(kDigitoLeftDownward)[0]), (std::vector<double>{20, 7}));

    // While an activity runs, taps of both hands come through from the line.
    ASSERT_EQ(script->Call(L"ActivityConfig", {I2(1), ScriptObject::Str(L"Tapping"), I2(0), I2(0)}), S_OK);
    ASSERT_EQ(script->Call(L"ActivityStart", {I2(0)}), S_OK);
    ASSERT_TRUE(SendAndFence({"digito left up 5", "digito right up 6"}));
    EXPECT_EQ(Events(kDigitoLeftUpward).size(), 1u);
    EXPECT_EQ(Events(kDigitoRightUpward).size(), 1u);
    ASSERT_EQ(script->Call(L"ActivityCancel"), S_OK);
}

TEST_F(LinkTest, SystemNotesErrorsAndUnknownPackets)
{
    capture.Clear();
    ASSERT_TRUE(SendAndFence({"error overflow", "error vcore", "error 5v", "error 3v", "error 0", "note01",
                              "packet 13 20", "packet 10 7E", "packet 11 44", "packet 12 55"}));
    // The class warning comes from the reader thread, the rest from the
    // dispatch on the host thread, in packet order.
    const wchar_t kWarning[] = L"Warning: Unknown HC08 message class.\n";
    std::vector<std::wstring> lines = capture.Lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), std::wstring(kWarning)), 1);
    EXPECT_EQ(LinesBut(lines, kWarning), (std::vector<std::wstring>{
                                   L"HC08 Overflow\r\n",
                                   L"HC08: Bad V Core\r\n",
                                   L"HC08: Bad 5V\r\n",
                                   L"HC08: Bad 3V\r\n",
                                   L"Unknown msgClass: 1302x ignored.\n",
                                   L"Unknown device event: 7e02x ignored.\n",
                                   L"Unknown system notification: 0x44 ignored.\r\n",
                                   L"Unknown system error: 5502x ignored.\n",
                               }));
}

TEST_F(LinkTest, MaskWithNoiseSendsTheCommandAndReadsBack)
{
    VARIANT v;
    VariantInit(&v);
    ASSERT_EQ(script->Get(L"MaskWithNoise", &v), S_OK);
    EXPECT_EQ(v.iVal, 0);
    ASSERT_EQ(script->Put(L"MaskWithNoise", I2(1)), S_OK);
    ASSERT_EQ(script->Get(L"MaskWithNoise", &v), S_OK);
    EXPECT_EQ(v.vt, VT_I2);
    EXPECT_EQ(v.iVal, 1);
    ASSERT_EQ(script->Put(L"MaskWithNoise", I2(0)), S_OK);
    std::vector<McuEntry> seen;
    ASSERT_TRUE(mcu.Sync(&seen));
    EXPECT_EQ(McuTexts(seen, "host:"),
              (std::vector<std::string>{"host: noise on (5A 02 FF A5)", "host: noise off (5A 02 00 A4)"}));
    // The microcontroller's acceptance raises nothing and logs nothing.
    ASSERT_TRUE(SendAndFence({}));
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(LinkTest, SimulatedPacketsCountTicksFromGoAcrossRollovers)
{
    ASSERT_EQ(script->Call(L"SimTimerGo", {I4(kTicksPerRollover - 16)}), S_OK);
    ASSERT_EQ(script->Call(L"SimCapsitLeftDown", {I4(32)}), S_OK);
    ASSERT_EQ(script->Call(L"SimTimerRollover"), S_OK);
    ASSERT_EQ(script->Call(L"SimCapsitLeftDown", {I4(32)}), S_OK);
    ASSERT_EQ(script->Call(L"SimPegsMap", {I4(40), I2(0x0F), I2(0xF0)}), S_OK);
    ASSERT_EQ(script->Call(L"SimHC08Reset", {I2(1), I2(2), I2(3), R8(999.9), I2(4)}), S_OK);
    ASSERT_TRUE(PumpUntilEvents(kHC08Reset, 2));

    EXPECT_EQ(Args(Events(kTimerGo).at(0)), std::vector<double>{kTicksPerRollover - 16});
    ASSERT_EQ(Events(kCapsitLeftDown).size(), 2u);
    EXPECT_EQ(Args(Events(kCapsitLeftDown)[0]), std::vector<double>{32});
    EXPECT_EQ(Args(Events(kCapsitLeftDown)[1]), std::vector<double>{kTicksPerRollover + 32});
    EXPECT_EQ(Args(Events(kPegsMap).at(0)), (std::vector<double>{kTicksPerRollover + 40, 0x0F, 0xF0}));
    EXPECT_EQ(Args(Events(kHC08Reset)[1]), (std::vector<double>{1, 2, 3, 999, 4}));
}

// ---------------------------------------------------------------------------
// A microcontroller that never answers, and no microcontroller at all

TEST_F(LinkFixture, SilentMicrocontrollerOpenGivesUpAfterEightSeconds)
{
    ASSERT_TRUE(McuSim::Running());
    DWORD started = GetTickCount();
    EXPECT_EQ(Open(), 0);
    DWORD took = GetTickCount() - started;
    EXPECT_GE(took, 7900u);
    std::vector<std::wstring> lines = capture.Lines();
    for (const std::wstring& l : lines)
        std::printf("%ls", l.c_str());
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), std::wstring(L"HC08 thread never signaled ready.\r\n")), 1);
    EXPECT_EQ(lines.back(), L"Open - HC08 open failed.\r\n");

    // The managers before the link are open and usable.
    VARIANT v;
    VariantInit(&v);
    ASSERT_EQ(script->Call(L"ParameterRead", {ScriptObject::Str(L"SessionWindowHours"), ScriptObject::Str(L"x")}, &v),
              S_OK);
    EXPECT_STREQ(v.bstrVal, L"2");
    VariantClear(&v);
    EXPECT_EQ(script->Call(L"SessionStart"), S_OK);
    EXPECT_EQ(script->Call(L"SessionCancel"), S_OK);
}

TEST_F(LinkFixture, NoPortOpenFailsAtOnceAndTheRestWorks)
{
    ASSERT_FALSE(McuSim::Running());
    EXPECT_EQ(Open(), 0);
    std::vector<std::wstring> lines = capture.Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), L"Open - HC08 open failed.\r\n");
    VARIANT v;
    VariantInit(&v);
    ASSERT_EQ(script->Call(L"NVParameterRead", {ScriptObject::Str(L"deviceid"), ScriptObject::Str(L"x")}, &v), S_OK);
    EXPECT_STREQ(v.bstrVal, L"0000065535");
    VariantClear(&v);
    // The noise flag is kept though nothing can be sent.
    EXPECT_EQ(script->Put(L"MaskWithNoise", I2(1)), E_FAIL);
    EXPECT_EQ(capture.Lines().back(), L"put_MaskWithNoise - CHC08::SetNoiseOn failed.\r\n");
    ASSERT_EQ(script->Get(L"MaskWithNoise", &v), S_OK);
    EXPECT_EQ(v.iVal, 1);
    // Simulated packets have no window to go to: they fail with their
    // messages, and nothing is left queued on this thread.
    capture.Clear();
    EXPECT_EQ(script->Call(L"SimTimerGo", {ScriptObject::I4(5)}), E_FAIL);
    EXPECT_EQ(script->Call(L"SimCapsitLeftDown", {ScriptObject::I4(7)}), E_FAIL);
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{
                                   L"CHC08::SendCopyOfPacket: PostMessage failed.\n",
                                   L"SimTimerGo - CHC08::SimTimerGo failed.\r\n",
                                   L"CHC08::SendCopyOfPacket: PostMessage failed.\n",
                                   L"SimCapsitLeftDown - CHC08::SimCapsitLeftDown failed.\r\n",
                               }));
    MSG msg;
    EXPECT_FALSE(PeekMessageW(&msg, reinterpret_cast<HWND>(-1), 0, 0, PM_NOREMOVE)) << "a packet on the thread queue";
}

}  // namespace
