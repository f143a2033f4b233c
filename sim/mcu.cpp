// brennock-mcu: the sensor microcontroller on the bench. It holds the master
// of a pseudo-terminal whose slave the control opens as its serial port,
// follows the control's reset and go lines in the GPIO block file, answers
// them (reset note, timer go) at its own tick counter, answers the noise
// command and plays a scenario of sensor packets, faults and bad bytes.
//
//   brennock-mcu --disk DIR [options]
//
// Commands (the --script file, lines appended to the command file, standard
// input): see sim/McuScript.h and README.md, "Microcontroller simulator".
#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

#include "sim/GpioBlock.h"
#include "sim/LineFaults.h"
#include "sim/McuPacket.h"
#include "sim/McuScript.h"
#include "sim/Pty.h"
#include "sim/SerialOut.h"
#include "sim/SimConsole.h"

namespace {

using sim::CommandSource;
using sim::NowMs;
using sim::mcu::Bytes;

constexpr unsigned kLineReset = 13;
constexpr unsigned kLineBeep = 20;
constexpr unsigned kLineGo = 21;

// 115200 baud, start + 8 data + stop bits: one byte every 86.8 microseconds.
constexpr double kByteMs = 10.0 * 1000.0 / 115200.0;

// How long a latency round waits for the host's noise command.
constexpr double kLatencyTimeoutMs = 5000;

// How the simulator marks the chunks it queues.
enum ChunkTag
{
    kPlain,
    kLatencyProbe,
    kBurstLast,
};

class Mcu
{
public:
    bool Start(int argc, char** argv);
    int Run();

private:
    void Usage();
    void Send(const Bytes& bytes, const char* what);
    void Queue(const Bytes& bytes, double pauseAfterMs = 0, ChunkTag tag = kPlain);
    bool Idle() const;

    uint64_t UnwrappedTicks() const;
    uint32_t Ticks() const { return static_cast<uint32_t>(UnwrappedTicks() % sim::mcu::kTickModulus); }
    void SetTicks(uint64_t value);
    void CheckRollover();

    void Restart(const char* why);
    void DrainEdges();
    void FollowEdge(const sim::GpioEdgeReader::Edge& e);
    void CheckLineSettings();
    void ReadHost();
    void HostCommand(const uint8_t* bytes, size_t n, uint8_t status, bool noiseOn, bool garbage);
    void ServeOutput();
    void Generate();
    void ChunkDone(const sim::SerialOut::Chunk& chunk);
    void ServeLatency();
    void ReportLatency();

    void Execute(CommandSource& source, const std::string& line);
    void Fault(const sim::LineFaultCommand& fault);
    bool HungUp() const { return m_openAgainAt >= 0; }
    void ServeHangup();

    sim::SimConsole m_console{"brennock-mcu", 768};
    sim::GpioBlockFile m_block;
    sim::GpioEdgeReader* m_reader = nullptr;
    sim::PtyMaster m_pty;

    // What the microcontroller is.
    sim::mcu::ResetInfo m_info;
    double m_tickRate = -1;       // ticks a second; default the reported tickHz
    uint32_t m_tickStart = 0;
    double m_resetDelayMs = 0;
    bool m_silent = false;
    bool m_fullRate = false;

    // Tick counter: m_tickBase at m_tickBaseMs, counting on at m_tickRate.
    uint64_t m_tickBase = 0;
    double m_tickBaseMs = 0;
    uint64_t m_wrapsSent = 0;

    // Lines.
    bool m_inReset = false;
    bool m_beep = false;
    double m_resetNoteAt = -1;
    std::string m_lineSettings;

    // Output.
    sim::SerialOut m_out{sim::SerialOut::HandOver::kAtStart};

    // Faults on the line: packets damaged on their way out, the far end's
    // port closed until m_openAgainAt (-1: open).
    sim::LineFaults m_faults;
    double m_openAgainAt = -1;

    // Host bytes.
    Bytes m_rx;
    bool m_noiseOn = false;

    // burst N
    bool m_burst = false;
    uint32_t m_burstSent = 0, m_burstCount = 0, m_burstMade = 0;
    uint64_t m_burstBytes = 0;
    std::string m_burstKind;
    double m_burstStart = -1;

    // latency N
    bool m_latency = false;
    uint32_t m_latencyLeft = 0, m_latencyCount = 0, m_latencyMissed = 0;
    std::string m_latencyKind;
    enum { kProbeNext, kProbeQueued, kProbeOut } m_probe = kProbeNext;
    double m_probeSentMs = 0;
    std::vector<double> m_samplesUs;
};

void Mcu::Usage()
{
    std::fprintf(stderr,
                 "usage: brennock-mcu --disk DIR [--pty-path FILE] [--ready FILE] [--script FILE]\n"
                 "                    [--log FILE] [--commands FILE] [--quiet] [--silent]\n"
                 "                    [--rate line|full] [--reset-delay MS] [--rev N] [--build N]\n"
                 "                    [--reset-source N] [--tick-hz N] [--post N]\n"
                 "                    [--tick-rate N] [--tick-start N]\n"
                 "  --disk DIR        block DIR/" BRENNOCK_GPIO_BLOCK_FILE
                 ", log DIR/mcu.log, commands appended to DIR/mcu.cmd\n"
                 "  --pty-path FILE   written with the pseudo-terminal slave's path (the COM port)\n"
                 "  --ready FILE      made once the terminal is open and the block mapped\n"
                 "  --silent          never answer a reset pulse\n"
                 "  --rate line|full  pace bytes at 115200 baud (default), or as fast as the terminal takes them\n"
                 "  --reset-delay MS  between the end of a reset pulse and the reset note (default 0)\n"
                 "  --rev, --build, --reset-source, --tick-hz, --post   the reset note's fields\n"
                 "                    (defaults 1, 0, 0, 1000, 0)\n"
                 "  --tick-rate N     ticks a second (default: the tick-hz; 0 stops the counter)\n"
                 "  --tick-start N    the counter after a reset (default 0)\n"
                 "  --quiet           nothing on standard output (the log still gets everything)\n");
}

bool Mcu::Start(int argc, char** argv)
{
    sim::ConsoleOptions options;
    std::string ptyPath;
    for (int i = 1; i < argc; ++i) {
        if (options.Take(argc, argv, &i, "mcu"))
            continue;
        std::string a = argv[i];
        const char* v = (i + 1 < argc) ? argv[i + 1] : nullptr;
        unsigned long n = 0;
        auto number = [&](unsigned long max) {
            if (v == nullptr || !sim::ParseNumber(v, max, &n))
                return false;
            ++i;
            return true;
        };
        if (a == "--pty-path" && v) {
            ptyPath = v, ++i;
        } else if (a == "--silent") {
            m_silent = true;
        } else if (a == "--rate" && v && (std::string(v) == "line" || std::string(v) == "full")) {
            m_fullRate = (std::string(v) == "full");
            ++i;
        } else if (a == "--reset-delay" && number(600000)) {
            m_resetDelayMs = static_cast<double>(n);
        } else if (a == "--rev" && number(0xFF)) {
            m_info.rev = static_cast<uint8_t>(n);
        } else if (a == "--build" && number(0xFF)) {
            m_info.build = static_cast<uint8_t>(n);
        } else if (a == "--reset-source" && number(0xFF)) {
            m_info.source = static_cast<uint8_t>(n);
        } else if (a == "--tick-hz" && number(0xFFFFFFFF)) {
            m_info.tickHz = static_cast<uint32_t>(n);
        } else if (a == "--post" && number(0xFF)) {
            m_info.post = static_cast<uint8_t>(n);
        } else if (a == "--tick-rate" && number(100000000)) {
            m_tickRate = static_cast<double>(n);
        } else if (a == "--tick-start" && number(sim::mcu::kTickModulus - 1)) {
            m_tickStart = static_cast<uint32_t>(n);
        } else {
            Usage();
            return false;
        }
    }
    if (options.block.empty()) {
        Usage();
        return false;
    }
    if (m_tickRate < 0)
        m_tickRate = m_info.tickHz;

    if (!m_console.Begin(options, &m_block))
        return false;
    m_reader = new sim::GpioEdgeReader(m_block);
    std::string error;
    if (!m_pty.Open(&error) || !m_pty.ClaimAsControllingTerminal(&error)) {
        m_console.Error(error);
        return false;
    }
    if (!m_console.OpenSources(options))
        return false;

    SetTicks(m_tickStart);
    m_console.Out("mcu: port %s, block %s, rate %s%s", m_pty.SlavePath().c_str(), options.block.c_str(),
        m_fullRate ? "full" : "line", m_silent ? ", silent" : "");
    m_console.Out("mcu: reset note rev %u build %u source %u tickHz %u post %u, delay %.0f ms; "
        "ticks from 0x%06X at %.0f a second",
        m_info.rev, m_info.build, m_info.source, m_info.tickHz, m_info.post, m_resetDelayMs, m_tickStart,
        m_tickRate);
    CheckLineSettings();

    if (!ptyPath.empty() && !m_console.WriteLineFile(ptyPath, m_pty.SlavePath()))
        return false;
    m_console.MakeReady(options);
    return true;
}

uint64_t Mcu::UnwrappedTicks() const
{
    return m_tickBase + static_cast<uint64_t>(std::floor((NowMs() - m_tickBaseMs) * m_tickRate / 1000.0));
}

void Mcu::SetTicks(uint64_t value)
{
    m_tickBase = value;
    m_tickBaseMs = NowMs();
    m_wrapsSent = 0;
}

// Each time the counter passes 2^24 the microcontroller says so.
void Mcu::CheckRollover()
{
    const uint64_t wraps = UnwrappedTicks() / sim::mcu::kTickModulus;
    while (m_wrapsSent < wraps && !m_inReset) {
        ++m_wrapsSent;
        Send(sim::mcu::TimerRollover(Ticks()), "timer rollover");
    }
}

// Every packet the log shows as sent goes through the armed line faults: a
// damaged one is followed by a "fault:" line with the bytes that went out.
void Mcu::Send(const Bytes& bytes, const char* what)
{
    m_console.Out("send %s: %s", what, sim::mcu::Hex(bytes).c_str());
    if (HungUp()) {
        m_console.Out("fault: port closed, not sent");
        return;
    }
    std::string note;
    const std::string out = m_faults.Damage(std::string(bytes.begin(), bytes.end()), &note);
    if (!note.empty())
        m_console.Out("fault: %s; sent %s", note.c_str(),
            sim::mcu::Hex(reinterpret_cast<const uint8_t*>(out.data()), out.size()).c_str());
    m_out.Queue(out);
}

void Mcu::Fault(const sim::LineFaultCommand& fault)
{
    switch (fault.verb) {
    case sim::LineFaultCommand::kNoise: {
        const std::string noise = m_faults.Noise(fault.number);
        m_console.Out("fault noise: %s",
            sim::mcu::Hex(reinterpret_cast<const uint8_t*>(noise.data()), noise.size()).c_str());
        if (!HungUp())
            m_out.Queue(noise);
        break;
    }
    case sim::LineFaultCommand::kHangup:
        // The port closes under whatever was going out; what the host
        // writes meanwhile is lost; the port opens again empty.
        m_console.Out("fault hangup: port closed for %u ms, %zu bytes cut", fault.number, m_out.QueuedBytes());
        m_out.Clear();
        m_burst = false;
        m_latency = false;
        m_rx.clear();
        m_openAgainAt = NowMs() + fault.number;
        break;
    default:
        m_faults.Arm(fault);
        break;
    }
}

void Mcu::ServeHangup()
{
    if (!HungUp())
        return;
    uint8_t buffer[512];
    ssize_t n;
    size_t lost = 0;
    while ((n = ::read(m_pty.Fd(), buffer, sizeof(buffer))) > 0)
        lost += static_cast<size_t>(n);
    if (lost > 0)
        m_console.Out("fault hangup: %zu host bytes lost", lost);
    if (NowMs() >= m_openAgainAt) {
        m_openAgainAt = -1;
        m_console.Out("fault hangup: port open again");
    }
}

void Mcu::Queue(const Bytes& bytes, double pauseAfterMs, ChunkTag tag)
{
    m_out.Queue(std::string(bytes.begin(), bytes.end()), tag, pauseAfterMs);
}

bool Mcu::Idle() const
{
    return m_out.Idle() && !m_burst && !m_latency && !HungUp();
}

void Mcu::Restart(const char* why)
{
    SetTicks(m_tickStart);
    if (m_silent) {
        m_console.Out("mcu: restarted (%s), ticks 0x%06X; silent: no reset note", why, m_tickStart);
        return;
    }
    m_console.Out("mcu: restarted (%s), ticks 0x%06X", why, m_tickStart);
    m_resetNoteAt = NowMs() + m_resetDelayMs;
}

void Mcu::DrainEdges()
{
    m_reader->Drain([this](const sim::GpioEdgeReader::Edge& e) { FollowEdge(e); },
                    [this](uint32_t lost) { m_console.Out("mcu: %u edges lost (fell behind the control)", lost); });
}

void Mcu::FollowEdge(const sim::GpioEdgeReader::Edge& e)
{
    if (e.line == kLineReset && e.kind == gpio::kEdgeHigh) {
        // Held in reset: whatever it was sending is gone.
        m_console.Out("line 13 high: reset held");
        m_inReset = true;
        m_resetNoteAt = -1;
        if (!m_out.Empty() || m_burst || m_latency)
            m_console.Out("mcu: output dropped by the reset");
        m_out.Clear();
        m_burst = false;
        m_latency = false;
    } else if (e.line == kLineReset && e.kind == gpio::kEdgeLow) {
        m_console.Out("line 13 low: reset released");
        if (m_inReset) {
            m_inReset = false;
            Restart("reset pulse");
        }
    } else if (e.line == kLineBeep && (e.kind == gpio::kEdgeHigh || e.kind == gpio::kEdgeLow)) {
        m_beep = (e.kind == gpio::kEdgeHigh);
        m_console.Out("line 20 %s: beep request %s", m_beep ? "high" : "low", m_beep ? "on" : "off");
    } else if (e.line == kLineGo && e.kind == gpio::kEdgeHigh) {
        const uint32_t t = Ticks();
        m_console.Out("line 21 high: go strobe, beep %s, timer go at ticks 0x%06X", m_beep ? "on" : "off", t);
        if (m_inReset)
            m_console.Out("mcu: in reset, go ignored");
        else
            Send(sim::mcu::TimerGo(t), "timer go");
    } else if (e.line == kLineGo && e.kind == gpio::kEdgeLow) {
        m_console.Out("line 21 low: go strobe end");
    }
}

void Mcu::CheckLineSettings()
{
    std::string now = sim::LineSettings(m_pty.Fd());
    if (now != m_lineSettings) {
        m_lineSettings = now;
        m_console.Out("line settings %s", now.c_str());
    }
}

void Mcu::ReadHost()
{
    uint8_t buffer[512];
    for (;;) {
        ssize_t n = ::read(m_pty.Fd(), buffer, sizeof(buffer));
        if (n <= 0)
            break;
        m_rx.insert(m_rx.end(), buffer, buffer + n);
    }
    for (;;) {
        uint8_t status = 0;
        bool noiseOn = false, garbage = false;
        size_t used = sim::mcu::ParseHostCommand(m_rx.data(), m_rx.size(), &status, &noiseOn, &garbage);
        if (used == 0)
            break;
        HostCommand(m_rx.data(), used, status, noiseOn, garbage);
        m_rx.erase(m_rx.begin(), m_rx.begin() + used);
    }
}

void Mcu::HostCommand(const uint8_t* bytes, size_t n, uint8_t status, bool noiseOn, bool garbage)
{
    const double now = NowMs();
    if (garbage) {
        m_console.Out("host: garbage byte %02X dropped", bytes[0]);
        return;
    }
    if (m_latency && m_probe == kProbeOut) {
        m_samplesUs.push_back((now - m_probeSentMs) * 1000.0);
        m_probe = kProbeNext;
        --m_latencyLeft;
    }
    const std::string hex = sim::mcu::Hex(bytes, n);
    if (status == sim::mcu::kStatusAccepted) {
        m_noiseOn = noiseOn;
        m_console.Out("host: noise %s (%s)", noiseOn ? "on" : "off", hex.c_str());
    } else if (status == sim::mcu::kStatusBadChecksum) {
        m_console.Out("host: bad checksum (%s), status %u", hex.c_str(), status);
    } else {
        m_console.Out("host: unknown command (%s), status %u", hex.c_str(), status);
    }
    if (m_inReset)
        return;
    // During a latency run the answers stay off the log: the run's line says it all.
    Bytes answer = sim::mcu::CmdResponse(Ticks(), status);
    if (m_latency)
        Queue(answer);
    else
        Send(answer, "command response");
}

// Packets of a burst are made as the line drains, so a burst of any length
// needs little memory and each carries the tick it leaves at.
void Mcu::Generate()
{
    size_t queued = m_out.QueuedBytes();
    const size_t want = m_fullRate ? 4096 : 64;
    while (m_burst && m_burstMade < m_burstCount && queued < want) {
        Bytes p = sim::mcu::StreamPacket(m_burstKind, Ticks(), m_burstMade);
        ++m_burstMade;
        queued += p.size();
        Queue(p, 0, m_burstMade == m_burstCount ? kBurstLast : kPlain);
    }
}

void Mcu::ChunkDone(const sim::SerialOut::Chunk& chunk)
{
    const double now = NowMs();
    if (m_burst) {
        ++m_burstSent;  // counts packets written
        m_burstBytes += chunk.bytes.size();
    }
    if (chunk.tag == kLatencyProbe && m_latency) {
        m_probe = kProbeOut;
        m_probeSentMs = now;
    } else if (chunk.tag == kBurstLast && m_burst) {
        m_burst = false;
        const double ms = now - m_burstStart;
        m_console.Out("burst sent=%u bytes=%llu ms=%.3f kind=%s rate=%s packets_per_s=%.0f", m_burstSent,
            static_cast<unsigned long long>(m_burstBytes), ms, m_burstKind.c_str(), m_fullRate ? "full" : "line",
            ms > 0 ? m_burstSent * 1000.0 / ms : 0.0);
    }
}

void Mcu::ServeOutput()
{
    Generate();
    std::string error;
    const bool written = m_out.Serve(
        m_pty.Fd(), m_fullRate ? 0.0 : kByteMs,
        [this](const sim::SerialOut::Chunk&, size_t, double startMs) {
            if (m_burst && m_burstStart < 0)
                m_burstStart = startMs;
        },
        [this](const sim::SerialOut::Chunk& chunk) {
            ChunkDone(chunk);
            Generate();
        },
        &error);
    if (!written)
        m_console.Out("mcu: write failed: %s", error.c_str());
}

void Mcu::ServeLatency()
{
    if (!m_latency)
        return;
    if (m_probe == kProbeOut && NowMs() - m_probeSentMs > kLatencyTimeoutMs) {
        ++m_latencyMissed;
        --m_latencyLeft;
        m_probe = kProbeNext;
    }
    if (m_probe == kProbeNext) {
        if (m_latencyLeft == 0) {
            ReportLatency();
            return;
        }
        if (!m_out.Empty())
            return;  // the previous answer goes out first
        m_probe = kProbeQueued;
        Queue(sim::mcu::StreamPacket(m_latencyKind, Ticks(), m_latencyCount - m_latencyLeft), 0,
              kLatencyProbe);
    }
}

void Mcu::ReportLatency()
{
    m_latency = false;
    std::vector<double> s = m_samplesUs;
    std::sort(s.begin(), s.end());
    double median = 0, p99 = 0, worst = 0;
    if (!s.empty()) {
        median = s[s.size() / 2];
        size_t i99 = static_cast<size_t>(std::ceil(0.99 * s.size()));
        p99 = s[std::min(s.size(), std::max<size_t>(i99, 1)) - 1];
        worst = s.back();
    }
    m_console.Out("latency n=%zu median_us=%.0f p99_us=%.0f worst_us=%.0f missed=%u kind=%s rate=%s", s.size(), median,
        p99, worst, m_latencyMissed, m_latencyKind.c_str(), m_fullRate ? "full" : "line");
}

void Mcu::Execute(CommandSource& source, const std::string& line)
{
    sim::mcu::Command c;
    std::string error;
    if (!sim::mcu::ParseCommand(line, &c, &error)) {
        std::string shown = line;
        while (!shown.empty() && (shown.back() == '\r' || shown.back() == ' '))
            shown.pop_back();
        m_console.Out("mcu: bad command \"%s\": %s (try help)", shown.c_str(), error.c_str());
        return;
    }
    if (c.kind == sim::mcu::Command::kNothing)
        return;
    // Every edge the control made before this command is answered before it.
    DrainEdges();
    if (c.kind == sim::mcu::Command::kMark) {
        m_console.Out("mark %s", c.text.c_str());
        return;
    }
    m_console.Out("> %s", sim::Trimmed(line).c_str());
    switch (c.kind) {
    case sim::mcu::Command::kPacket:
        Send(c.packet.Make(Ticks()), c.packet.raw ? "raw" : "packet");
        break;
    case sim::mcu::Command::kSplit: {
        Bytes p = c.packet.Make(Ticks());
        const size_t at = std::min<size_t>(c.splitAt, p.size());
        Bytes head(p.begin(), p.begin() + at), tail(p.begin() + at, p.end());
        m_console.Out("send split %s | %s, %u ms between", sim::mcu::Hex(head).c_str(), sim::mcu::Hex(tail).c_str(),
            c.number);
        Queue(head, c.number);
        if (!tail.empty())
            Queue(tail);
        break;
    }
    case sim::mcu::Command::kWait:
        source.Pause(c.number);
        break;
    case sim::mcu::Command::kTicks:
        SetTicks(c.number);
        break;
    case sim::mcu::Command::kRollover:
        SetTicks(sim::mcu::kTickModulus);  // the next look at the counter sends the rollover
        CheckRollover();
        break;
    case sim::mcu::Command::kReset:
        m_inReset = false;
        m_out.Clear();
        Restart("reset command");
        break;
    case sim::mcu::Command::kBurst:
        m_burst = true;
        m_burstCount = c.number;
        m_burstMade = 0;
        m_burstSent = 0;
        m_burstBytes = 0;
        m_burstKind = c.text;
        m_burstStart = -1;
        break;
    case sim::mcu::Command::kLatency:
        m_latency = true;
        m_latencyCount = m_latencyLeft = c.number;
        m_latencyMissed = 0;
        m_latencyKind = c.text;
        m_samplesUs.clear();
        m_probe = kProbeNext;
        break;
    case sim::mcu::Command::kFault:
        Fault(c.fault);
        break;
    case sim::mcu::Command::kState:
        m_console.Out("state ticks 0x%06X, noise %s, %s, %s; faults: %s%s", Ticks(), m_noiseOn ? "on" : "off",
            m_inReset ? "in reset" : "running", m_lineSettings.c_str(), m_faults.Describe().c_str(),
            HungUp() ? ", port closed" : "");
        break;
    case sim::mcu::Command::kHelp:
        m_console.Out("%s", sim::mcu::CommandHelp());
        break;
    case sim::mcu::Command::kQuit:
        m_console.Quit();
        break;
    default:
        break;
    }
}

int Mcu::Run()
{
    while (m_console.Running()) {
        DrainEdges();
        CheckLineSettings();
        ServeHangup();
        if (!HungUp())
            ReadHost();
        if (m_resetNoteAt >= 0 && NowMs() >= m_resetNoteAt) {
            m_resetNoteAt = -1;
            Send(sim::mcu::Reset(Ticks(), m_info), "reset note");
        }
        CheckRollover();
        ServeLatency();
        ServeOutput();
        // A command runs once everything before it is on the line, so a mark
        // is logged only after the bytes of the commands before it were written.
        m_console.ServeCommands([this](CommandSource& source, const std::string& line) { Execute(source, line); },
                                [this] { return Idle(); });
        ServeOutput();

        // Sleep until the host writes, the line can take the next byte, or a
        // millisecond has passed (edges and commands are looked at that often).
        // At line rate the bytes that fell due meanwhile go out together, a
        // few at a time like a UART's FIFO, rather than waking for each one.
        sim::WaitForTerminal(m_pty.Fd(), m_out.WaitingForRoom(), m_out.WaitMs(m_fullRate ? 0.0 : kByteMs, 1.0));
    }
    DrainEdges();
    m_console.Out("mcu: stopped");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    sim::InstallStopHandlers();
    std::signal(SIGHUP, SIG_IGN);
    Mcu mcu;
    if (!mcu.Start(argc, argv))
        return 2;
    return mcu.Run();
}
