// Faults on both serial lines, driven by the simulators, through the
// registered control with an advised sink, as a UI script meets them.
//
//   bench_faults [--rounds N] [--mcu-only | --watch-only]   (default 2 rounds)
//
// The microcontroller part runs a tapping test (so finger packets pass the
// gate) and, for each fault kind and round, has the simulator send known
// valid packets around the fault: four before it; after a quiet 300 ms a
// probe; after another quiet 300 ms four more and a fence. Each packet
// carries its own number (a Digito packet's delta ticks, a pegs map's two
// bytes). The link drops input on purpose in two ways when damage puts it
// out of step (a frame that fails its checksum, a drain of the line); each
// such recovery it logs may take one valid packet sent while the line was
// out of step (the reset note, the probe, a packet just after damage).
// Every other valid packet must reach the sink. The watch part saves a
// two-block recording while each watch fault strikes, and counts whole,
// undamaged blocks the watch sent against the blocks the save took in.
// A hang is a command, Open or Close that does not return within its limits,
// or a save that never ends. Prints a table; exit code 0 when nothing valid
// was lost outside the designed recoveries and nothing hung.
#include <windows.h>
#include <mmsystem.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/ControlTestKit.h"
#include "tests/support/DebugCapture.h"
#include "tests/support/DeviceDisk.h"
#include "tests/support/McuSim.h"
#include "tests/support/MessagePump.h"
#include "tests/support/WatchSim.h"

namespace {

constexpr DISPID kTimerGo = 3;
constexpr DISPID kDigitoLeftDownward = 5;
constexpr DISPID kPegsMap = 13;
constexpr DISPID kHC08Reset = 19;
constexpr DISPID kWatchSaveProgress = 15;
constexpr DISPID kWatchSaveEnded = 16;
constexpr DISPID kWatchParametersRead = 27;

// The limits a call must return within: Open waits up to 8 s for the
// microcontroller and 3 s for the watch thread, Close up to 1 s for the
// reader and 3 s for the watch thread; every other command returns at once.
// Each gets a second more for a loaded machine.
constexpr DWORD kOpenLimitMs = 8000 + 3000 + 1000;
constexpr DWORD kCloseLimitMs = 1000 + 3000 + 1000;
constexpr DWORD kCommandLimitMs = 1000;
// A save of two blocks ends well within this, whatever the fault (a block
// read gives up after 2 s without a byte, a sync after three such tries).
constexpr DWORD kSaveLimitMs = 60000;

const auto I2 = ScriptObject::I2;
const auto Str = ScriptObject::Str;

struct Row
{
    std::string kind;
    bool blocks = false;  // a watch row counts data blocks
    unsigned faults = 0, sent = 0, received = 0, lost = 0, dropped = 0, hangs = 0;
};

long ArgInt(const VARIANT& v)
{
    return v.vt == VT_I2 ? v.iVal : v.vt == VT_I4 ? v.lVal : -1;
}

// The number a packet from the log carries, or -1 for another packet.
long PacketNumber(const std::string& hex)
{
    std::vector<int> b;
    std::istringstream in(hex);
    std::string pair;
    while (in >> pair)
        b.push_back(std::stoi(pair, nullptr, 16));
    if (b.size() == 9 && b[0] == 0x10 && b[5] == 0x30)
        return (b[6] << 8) | b[7];
    if (b.size() == 9 && b[0] == 0x10 && b[5] == 0x40)
        return ((~b[7]) & 0xFF) | (((~b[6]) & 0xFF) << 8);
    return -1;
}

class FaultRun
{
public:
    int Run(unsigned rounds, bool mcu, bool watch);

private:
    bool Call(const wchar_t* name, std::vector<VARIANT> args = {}, DWORD limitMs = kCommandLimitMs);
    bool OpenControl();
    void CloseControl();
    bool Pump(const std::function<bool()>& done, DWORD ms) { return PumpUntil(done, ms); }
    size_t Count(DISPID id) const;

    std::string Packet(long number) const;
    void McuRound(Row* row, unsigned round);
    void WatchRound(Row* row, unsigned round);
    void WaitWatchIdle();
    void Print() const;

    DebugCapture m_capture;
    RecordingSink m_sink;
    ComPtr<IBrennock> m_control;
    DWORD m_cookie = 0;
    McuSim m_mcu;
    WatchSim m_watch;
    long m_next = 1;  // the next packet number
    std::vector<Row> m_rows;
    unsigned m_hangs = 0;
};

bool FaultRun::Call(const wchar_t* name, std::vector<VARIANT> args, DWORD limitMs)
{
    ScriptObject script(m_control.Get());
    const DWORD start = timeGetTime();
    const HRESULT hr = script.Call(name, std::move(args));
    const DWORD took = timeGetTime() - start;
    if (took > limitMs) {
        std::printf("hang: %ls took %lu ms (limit %lu ms)\n", name, static_cast<unsigned long>(took),
                    static_cast<unsigned long>(limitMs));
        ++m_hangs;
    }
    return hr == S_OK;
}

size_t FaultRun::Count(DISPID id) const
{
    size_t n = 0;
    for (const ReceivedEvent& e : m_sink.events)
        n += (e.id == id);
    return n;
}

bool FaultRun::OpenControl()
{
    m_control = CreateRegisteredControl();
    if (!m_control)
        return false;
    m_cookie = AdviseSink(m_control.Get(), &m_sink);
    short ok = 0;
    const DWORD start = timeGetTime();
    m_control->Open(&ok);
    const DWORD took = timeGetTime() - start;
    if (took > kOpenLimitMs) {
        std::printf("hang: Open took %lu ms\n", static_cast<unsigned long>(took));
        ++m_hangs;
    }
    return ok == 1;
}

void FaultRun::CloseControl()
{
    if (!m_control)
        return;
    const DWORD start = timeGetTime();
    m_control->Close();
    const DWORD took = timeGetTime() - start;
    if (took > kCloseLimitMs) {
        std::printf("hang: Close took %lu ms (limit %lu ms)\n", static_cast<unsigned long>(took),
                    static_cast<unsigned long>(kCloseLimitMs));
        ++m_hangs;
    }
    UnadviseSink(m_control.Get(), m_cookie);
    m_control.Reset();
}

// Even numbers go as a left finger going down, odd ones as a pegs map.
std::string FaultRun::Packet(long number) const
{
    char text[64];
    if (number % 2 == 0)
        std::snprintf(text, sizeof text, "digito left down %ld", number);
    else
        std::snprintf(text, sizeof text, "pegs %ld %ld", number & 0xFF, (number >> 8) & 0xFF);
    return text;
}

void FaultRun::McuRound(Row* row, unsigned round)
{
    const std::string& kind = row->kind;
    std::vector<std::string> commands;
    auto packets = [&](int n, bool spaced = false) {
        for (int i = 0; i < n; ++i) {
            commands.push_back(Packet(m_next++ & 0xFFFF));
            if (spaced)
                commands.push_back("wait 250");
        }
    };
    // Packet numbers stay below 2^16 and never 0 (a fresh log reads as 0).
    if (m_next >= 0xFFF0)
        m_next = 1;
    packets(4);
    if (kind == "noise") {
        commands.push_back("noise " + std::to_string(4 + round % 13));
    } else if (kind == "drop" || kind == "dup") {
        commands.push_back(kind + " next");
        packets(1);
    } else if (kind == "stall") {
        commands.push_back("split " + std::to_string(1 + round % 8) + " 150 " + Packet(m_next++));
    } else if (kind == "hangup") {
        commands.push_back("raw 10 07 00 00");
        commands.push_back("hangup 400");
    } else if (kind == "reset") {
        commands.push_back("raw 10 07 00 00 30");
        commands.push_back("reset");
    } else if (kind == "rates") {
        commands.push_back("drop rate 15");
        commands.push_back("dup rate 15");
        packets(8, true);
        commands.push_back("drop off");
        commands.push_back("dup off");
    }
    commands.push_back("wait 300");
    const long probeNumber = m_next & 0xFFFF;
    packets(1);
    commands.push_back("wait 300");
    packets(4);
    commands.push_back("wait 300");
    const long fence = m_next & 0xFFFF;
    packets(1);

    const size_t firstEvent = m_sink.events.size();
    const size_t resetsBefore = Count(kHC08Reset);
    m_capture.Clear();
    for (const std::string& c : commands)
        m_mcu.Send(c);
    std::vector<McuEntry> entries;
    if (!m_mcu.Sync(&entries, 60000)) {
        std::printf("bench_faults: the microcontroller simulator did not answer\n");
        ++m_hangs;
        return;
    }
    auto received = [&](std::set<long>* numbers) {
        for (size_t k = firstEvent; k < m_sink.events.size(); ++k) {
            const ReceivedEvent& e = m_sink.events[k];
            if (e.id == kDigitoLeftDownward && e.args.size() == 2)
                numbers->insert(ArgInt(e.args[0]));
            else if (e.id == kPegsMap && e.args.size() == 3)
                numbers->insert(ArgInt(e.args[1]) | (ArgInt(e.args[0]) << 8));
        }
    };
    // The fence comes last; once it is in, so is everything before it.
    std::set<long> got;
    Pump([&] {
        got.clear();
        received(&got);
        return got.count(fence) > 0;
    }, 10000);
    Pump([] { return false; }, 20);  // anything posted with the fence

    // What the simulator sent: valid packets (no fault line after them),
    // faults, reset notes.
    // At a rate, the packet after a damaged one is sent while the line may
    // be out of step, like the probe.
    std::vector<long> valid;
    std::set<long> atRisk;
    bool afterDamage = false;
    unsigned resetNotes = 0;
    for (size_t k = 0; k < entries.size(); ++k) {
        const std::string& t = entries[k].text;
        const bool damaged = k + 1 < entries.size() && entries[k + 1].text.rfind("fault: ", 0) == 0;
        if (t.rfind("send packet: ", 0) == 0 && kind == "rates") {
            if (afterDamage && !damaged)
                atRisk.insert(PacketNumber(t.substr(13)));
            afterDamage = damaged;
        }
        if (t.rfind("fault", 0) == 0 || t == "> reset" || t.rfind("send split", 0) == 0)
            ++row->faults;
        if (t.rfind("send reset note: ", 0) == 0 && !damaged)
            ++resetNotes;
        if (t.rfind("send packet: ", 0) == 0 && !damaged) {
            long n = PacketNumber(t.substr(13));
            if (n >= 0)
                valid.push_back(n);
        }
        if (t.rfind("send split ", 0) == 0) {
            // "send split HEAD | TAIL, N ms between": a whole packet, late.
            std::string hex = t.substr(11, t.find(',') - 11);
            hex.erase(hex.find(" | "), 2);
            long n = PacketNumber(hex);
            if (n >= 0)
                valid.push_back(n);
        }
    }
    got.clear();
    received(&got);
    // The link has two designed recoveries, and it logs each: a frame whose
    // length is valid but whose checksum fails is dropped whole (after a lost
    // byte or a reset in the middle of a packet, that frame holds the first
    // bytes of the next packet: "HC08 packet checksum failed"), and a
    // resynchronisation that finds no packet drains the line until it has
    // been quiet 200 ms (it starts with "Bad lenFollowing"). Each logged
    // recovery may take one packet sent while the line was out of step:
    // the reset note, the probe, a packet just after damage at a rate.
    // Any other loss, or more losses than logged recoveries, is a fault.
    const std::wstring debug = m_capture.Text();
    auto occurrences = [&](const wchar_t* text) {
        unsigned n = 0;
        for (size_t at = debug.find(text); at != std::wstring::npos; at = debug.find(text, at + 1))
            ++n;
        return n;
    };
    unsigned recoveries = occurrences(L"HC08 packet checksum failed") + occurrences(L"Bad lenFollowing");
    auto lose = [&](bool atRiskPacket, const char* what) {
        if (atRiskPacket && recoveries > 0) {
            --recoveries;
            ++row->dropped;
        } else {
            ++row->lost;
            std::printf("lost: %s round %u %s\n", kind.c_str(), round, what);
        }
    };
    if (resetNotes > 0) {
        Pump([&] { return Count(kHC08Reset) >= resetsBefore + resetNotes; }, 10000);
        const unsigned resets = static_cast<unsigned>(Count(kHC08Reset) - resetsBefore);
        row->sent += resetNotes;
        row->received += std::min(resets, resetNotes);
        for (unsigned k = resets; k < resetNotes; ++k)
            lose(true, "reset note");
    }
    for (long n : valid) {
        ++row->sent;
        if (got.count(n))
            ++row->received;
        else
            lose(n == probeNumber || atRisk.count(n) > 0, ("packet " + std::to_string(n)).c_str());
    }
}

void FaultRun::WatchRound(Row* row, unsigned round)
{
    const std::string& kind = row->kind;
    const unsigned at = 100 + (round * 397) % 3800;
    std::string fault;
    if (kind == "watch noise")
        fault = "noise " + std::to_string(20 + round % 40);
    else if (kind == "watch drop" || kind == "watch dup")
        fault = kind.substr(6) + " next " + std::to_string(at);
    else if (kind == "watch stall")
        fault = "stall " + std::to_string(at) + " " + std::to_string(round % 2 ? 1500 : 2500);
    else if (kind == "watch vanish")
        fault = "vanish " + std::to_string(at);
    WaitWatchIdle();
    m_watch.Sync();
    if (!fault.empty())
        m_watch.Send(fault);
    const size_t ends = Count(kWatchSaveEnded);
    const size_t progressBefore = Count(kWatchSaveProgress);
    if (!Call(L"WatchSaveStart", {Str(L"Faults")})) {
        std::printf("bench_faults: WatchSaveStart refused (%s round %u)\n", kind.c_str(), round);
        return;
    }
    if (kind == "watch hangup") {
        // The port closes in the middle of the first block.
        Pump([] { return false; }, 300);
        m_watch.Send("hangup 1500");
    }
    if (!Pump([&] { return Count(kWatchSaveEnded) > ends; }, kSaveLimitMs)) {
        std::printf("hang: %s round %u: the save never ended\n", kind.c_str(), round);
        ++row->hangs;
        ++m_hangs;
        return;
    }
    std::vector<WatchEntry> entries;
    m_watch.Sync(&entries);
    unsigned validBlocks = 0;
    for (size_t k = 0; k < entries.size(); ++k) {
        const std::string& t = entries[k].text;
        if (t.rfind("fault", 0) == 0 || t.rfind("watch: this block", 0) == 0)
            ++row->faults;
        if (t.rfind("block a=", 0) == 0) {
            bool damaged = false;
            // The damage line comes just before its block's "send block" line.
            for (size_t j = k; j-- > 0;) {
                if (entries[j].text.rfind("send block", 0) == 0) {
                    damaged = j > 0 && entries[j - 1].text.rfind("fault: block", 0) == 0;
                    break;
                }
            }
            if (!damaged && t.find("bytes=4096") != std::string::npos)
                ++validBlocks;
        }
    }
    // A block the control took is one progress event; a damaged block it
    // took anyway (a doubled byte passes unseen) is not counted as valid.
    const unsigned taken = static_cast<unsigned>(Count(kWatchSaveProgress) - progressBefore);
    row->sent += validBlocks;
    row->received += std::min(taken, validBlocks);
    // A save stops at its first failed block, by design; a valid block it
    // never took is lost only if no failure came before it.
    const long endCause = ArgInt(m_sink.events.back().id == kWatchSaveEnded ? m_sink.events.back().args[0]
                                                                           : VARIANT());
    if (taken < validBlocks && endCause == 0) {
        row->lost += validBlocks - taken;
        std::printf("lost: %s round %u: %u blocks sent whole, %u taken\n", kind.c_str(), round, validBlocks,
                    taken);
    }
    if (kind == "watch vanish" || kind == "watch hangup") {
        // Back in the cradle (or the port open again): wait for a fresh reading.
        const size_t reads = Count(kWatchParametersRead);
        if (kind == "watch vanish")
            m_watch.Send("seat");
        if (kind == "watch vanish" &&
            !Pump([&] { return Count(kWatchParametersRead) > reads; }, 30000)) {
            std::printf("hang: %s round %u: the watch was never read again\n", kind.c_str(), round);
            ++row->hangs;
            ++m_hangs;
        }
    }
}

// A block the control gave up on still goes out, and the watch waits for
// the line speed to come back: the next round starts once it is idle.
void FaultRun::WaitWatchIdle()
{
    for (int i = 0; i < 60; ++i) {
        std::string text;
        m_watch.Send("state");
        if (m_watch.Wait("state ", &text, 10000) && text.find(", idle") != std::string::npos)
            return;
        Pump([] { return false; }, 500);
    }
}

int FaultRun::Run(unsigned rounds, bool mcu, bool watch)
{
    const DWORD started = timeGetTime();
    if (!OpenControl()) {
        std::printf("bench_faults: Open failed\n");
        return 1;
    }
    if (mcu) {
        Call(L"SessionStart");
        Call(L"ActivityConfig", {I2(1), Str(L"Tapping"), I2(0), I2(0)});
        Call(L"ActivityStart", {I2(1)});
        if (!Pump([&] { return Count(kTimerGo) > 0; }, 10000))
            std::printf("bench_faults: no timer go\n");
        m_mcu.Sync();  // the rounds count from here
        for (const char* kind : {"noise", "drop", "dup", "stall", "hangup", "reset", "rates"}) {
            Row row;
            row.kind = kind;
            for (unsigned r = 0; r < rounds; ++r)
                McuRound(&row, r);
            m_rows.push_back(row);
        }
        Call(L"ActivityEndNormal");
        Call(L"SessionCancel");
    }
    if (watch) {
        m_watch.Send("logaddr 0x1000");
        m_watch.Send("seat");
        if (!Pump([&] { return Count(kWatchParametersRead) > 0; }, 30000)) {
            std::printf("bench_faults: the watch was never read\n");
            ++m_hangs;
        } else {
            for (const char* kind : {"watch noise", "watch drop", "watch dup", "watch stall", "watch vanish",
                                     "watch hangup"}) {
                Row row;
                row.kind = kind;
                row.blocks = true;
                for (unsigned r = 0; r < rounds; ++r)
                    WatchRound(&row, r);
                m_rows.push_back(row);
            }
        }
    }
    CloseControl();
    // Open and Close once more: the control comes back after all of it.
    const unsigned before = m_hangs;
    if (!OpenControl())
        std::printf("bench_faults: Open after the faults failed\n");
    CloseControl();
    if (m_hangs > before)
        std::printf("bench_faults: the last Open/Close hung\n");

    Print();
    std::printf("%u rounds in %.1f s\n", rounds, (timeGetTime() - started) / 1000.0);
    unsigned lost = 0;
    for (const Row& r : m_rows)
        lost += r.lost;
    return (lost == 0 && m_hangs == 0) ? 0 : 1;
}

void FaultRun::Print() const
{
    std::printf("| fault kind | faults injected | packets sent | packets received | lost outside designed "
                "recoveries | dropped by designed recoveries | hangs |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|\n");
    for (const Row& r : m_rows)
        std::printf("| %s | %u | %u%s | %u | %u | %u | %u |\n", r.kind.c_str(), r.faults, r.sent,
                    r.blocks ? " blocks" : "", r.received, r.lost, r.dropped, r.hangs);
    std::printf("hangs in all (commands, Open, Close, saves): %u\n", m_hangs);
}

}  // namespace

int main(int argc, char** argv)
{
    ComApartment com;
    unsigned rounds = 2;
    bool mcu = true, watch = true;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc)
            rounds = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (std::strcmp(argv[i], "--mcu-only") == 0)
            watch = false;
        else if (std::strcmp(argv[i], "--watch-only") == 0)
            mcu = false;
        else {
            std::printf("usage: bench_faults [--rounds N] [--mcu-only | --watch-only]\n");
            return 2;
        }
    }
    if (!McuSim::Running() || !WatchSim::Running()) {
        std::printf("bench_faults: run it through scripts/simrun (both simulators)\n");
        return 1;
    }
    ProvisionDisk();
    FaultRun run;
    return run.Run(rounds == 0 ? 1 : rounds, mcu, watch);
}
