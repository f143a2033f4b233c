// brennock-watch: the recording watch in its cradle, on the bench. It holds
// the master of a pseudo-terminal whose slave the control opens as "COM1:",
// speaks the watch's side of the serial protocol (wake-up on
// carriage returns, echoes, the "***C" parameter reply, "***N" data blocks at
// 4800 baud, the configuration commands of the destroy sequence), keeps a
// deterministic synthetic recording in its memory (sim/WatchMemory.h), and
// drives the watch-present input in the GPIO block file.
//
//   brennock-watch --disk DIR [options]
//
// The cradle, as the team decided it (README.md, "Watch simulator"): the
// presence line (40, an input) is high only while the watch is seated, the
// watch power (line 36) is on, and the watch has seen the carrier line (41)
// high within the last 1500 ms. The watch answers each carrier pulse by
// holding its presence output for 1.5 s after the carrier was last high, so
// the control's 200 ms heartbeat always meets it although the pulse is high
// only 100 ms in every second; while the carrier is steadily on, presence
// stays high. The serial line reaches the watch only while it is seated and
// powered. Lines 36 and 41 are followed edge by edge through the block's edge
// journal, so no 100 ms pulse is missed.
//
// Commands (the --script file, lines appended to the command file, standard
// input): see sim/WatchScript.h and README.md.
#include "sim/WatchDevice.h"

#include <csignal>

namespace watchsim {

void Watch::Usage()
{
    std::fprintf(stderr,
                 "usage: brennock-watch --disk DIR [--pty-path FILE] [--ready FILE] [--script FILE]\n"
                 "                      [--log FILE] [--commands FILE] [--quiet] [--rate paced|fast]\n"
                 "                      [--seated] [--log-address ADDRESS] [--id-gap MS]\n"
                 "  --disk DIR          block DIR/" BRENNOCK_GPIO_BLOCK_FILE
                 ", log DIR/watch.log, commands appended to DIR/watch.cmd\n"
                 "  --pty-path FILE     written with the pseudo-terminal slave's path (the COM port)\n"
                 "  --ready FILE        made once the terminal is open and the block mapped\n"
                 "  --rate paced|fast   each byte at the wire time of the baud rate in force (default),\n"
                 "                      or as fast as the terminal takes them\n"
                 "  --seated            the watch starts in the cradle (default: out of it)\n"
                 "  --log-address A     the recording's length in bytes, the log address it reports\n"
                 "                      (default 0x2A00; bit 23 set: nothing recorded)\n"
                 "  --id-gap MS         quiet time that ends a ***B command (default 300 fast,\n"
                 "                      20 character times paced)\n"
                 "  --quiet             nothing on standard output (the log still gets everything)\n");
}

bool Watch::Start(int argc, char** argv)
{
    sim::ConsoleOptions options;
    std::string ptyPath;
    uint32_t logAddress = 0x2A00;
    for (int i = 1; i < argc; ++i) {
        if (options.Take(argc, argv, &i, "watch"))
            continue;
        const std::string a = argv[i];
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
        } else if (a == "--rate" && v && (std::string(v) == "paced" || std::string(v) == "fast")) {
            m_paced = (std::string(v) == "paced");
            ++i;
        } else if (a == "--seated") {
            m_seated = true;
        } else if (a == "--log-address" && number(watchsim::kMemoryBytes - 1)) {
            logAddress = static_cast<uint32_t>(n);
        } else if (a == "--id-gap" && number(600000)) {
            m_gapOptionMs = static_cast<double>(n);
        } else {
            Usage();
            return false;
        }
    }
    if (options.block.empty()) {
        Usage();
        return false;
    }
    m_facts.logAddress = logAddress;
    m_recorded = watchsim::RecordedBytesFor(logAddress);

    if (!m_console.Begin(options, &m_block))
        return false;
    m_reader = std::make_unique<sim::GpioEdgeReader>(m_block);
    std::string error;
    if (!m_pty.Open(&error, kTextBaud) || !m_pty.ClaimAsControllingTerminal(&error)) {
        m_console.Error(error);
        return false;
    }
    if (!m_console.OpenSources(options))
        return false;

    // The lines as the control left them; from here on, edge by edge.
    m_power = m_block.IsOutput(kLinePower) && m_block.Output(kLinePower) == sim::GpioBlockFile::Drive::kHigh;
    m_carrierHigh =
        m_block.IsOutput(kLineCarrier) && m_block.Output(kLineCarrier) == sim::GpioBlockFile::Drive::kHigh;
    m_statsSinceMs = NowMs();
    m_console.Out("watch: port %s, block %s, rate %s", m_pty.SlavePath().c_str(), options.block.c_str(),
        m_paced ? "paced" : "fast");
    m_console.Out("watch: %s, power %s, carrier %s; log address 0x%06X, %u bytes recorded",
        m_seated ? "seated" : "not seated", m_power ? "on" : "off", m_carrierHigh ? "high" : "low",
        m_facts.logAddress, m_recorded);
    UpdatePresence();
    CheckLine();

    if (!ptyPath.empty() && !m_console.WriteLineFile(ptyPath, m_pty.SlavePath()))
        return false;
    m_console.MakeReady(options);
    return true;
}

// --- The cradle -------------------------------------------------------------

void Watch::DrainEdges()
{
    m_reader->Drain([this](const sim::GpioEdgeReader::Edge& e) { FollowEdge(e); },
                    [this](uint32_t lost) { m_console.Out("watch: %u edges lost (fell behind the control)", lost); });
}

void Watch::FollowEdge(const sim::GpioEdgeReader::Edge& e)
{
    const bool high = (e.kind == gpio::kEdgeHigh);
    const bool low = (e.kind == gpio::kEdgeLow || e.kind == gpio::kEdgeInput);
    if (e.line == kLinePower && (high || low)) {
        if (high == m_power)
            return;
        m_power = high;
        m_console.Out("line 36 %s: watch power %s", high ? "high" : "low", high ? "on" : "off");
        if (!m_power)
            LoseWatch("power off");
    } else if (e.line == kLineCarrier && (high || low)) {
        if (high == m_carrierHigh)
            return;
        // A pulse is seen at both its edges, however short it was.
        if (Reachable()) {
            m_carrierSeenMs = NowMs();
            if (high)
                ++m_pulsesSeen;
        }
        m_carrierHigh = high;
    }
}

void Watch::SeeCarrier()
{
    if (m_carrierHigh && Reachable())
        m_carrierSeenMs = NowMs();
}

void Watch::UpdatePresence()
{
    SeeCarrier();
    const double now = NowMs();
    const bool seen = m_carrierSeenMs >= 0 && now - m_carrierSeenMs < kPresenceHoldMs;
    const bool present = Reachable() && seen;
    if (present != m_present) {
        m_present = present;
        const char* why = present              ? "seated, power on, carrier seen"
                          : !m_seated          ? "watch removed"
                          : !m_power           ? "watch power off"
                                               : "no carrier for 1500 ms";
        m_console.Out("presence %s: %s", present ? "high" : "low", why);
        m_block.SetLevel(kLinePresent, m_present);
    } else if (!m_lineSet) {
        // At start the line is set to what the watch shows, whatever an
        // earlier run left. After that it is written only when the presence
        // changes, so the bench panel's "watch present" and "watch absent"
        // still work in between (the last writer wins).
        m_block.SetLevel(kLinePresent, m_present);
    }
    m_lineSet = true;
}

// The serial line no longer reaches the watch: what it was doing ends.
void Watch::LoseWatch(const char* why)
{
    if (m_state == State::kWaitUp || m_state == State::kSending || m_state == State::kWaitBack)
        m_console.Out("watch: block 0x%04X cut after %zu of %zu bytes: %s", m_blockAddress, m_blockWritten,
            m_blockSize, why);
    else if (m_state == State::kCommand)
        m_console.Out("watch: command \"%s\" cut: %s", w::Escaped(m_cmd).c_str(), why);
    m_out.Clear();
    m_state = State::kIdle;
    m_cmd.clear();
    m_awake = false;
    m_carrierSeenMs = -1;
}

// --- The line ---------------------------------------------------------------

void Watch::CheckLine()
{
    const std::string now = sim::LineSettings(m_pty.Fd());
    if (now != m_lineSettings) {
        m_lineSettings = now;
        m_baud = sim::LineBaud(m_pty.Fd());
        m_console.Out("line settings %s", now.c_str());
    }
}

double Watch::GapMs() const
{
    if (m_gapOptionMs >= 0)
        return m_gapOptionMs;
    return m_paced ? kPacedGapChars * ByteMs(m_baud) : kFastGapMs;
}

void Watch::ReadHost()
{
    uint8_t buffer[512];
    for (;;) {
        const ssize_t n = ::read(m_pty.Fd(), buffer, sizeof(buffer));
        if (n <= 0)
            break;
        const double now = NowMs();
        for (ssize_t k = 0; k < n; ++k) {
            m_inFreeMs = m_paced ? std::max(m_inFreeMs, now) + ByteMs(m_baud) : now;
            m_in.push_back({buffer[k], m_inFreeMs});
            ++m_hostBytes;
            m_wireMs += ByteMs(m_baud);
        }
    }
}

void Watch::ServeInput()
{
    std::string ignored;
    const char* why = nullptr;
    while (!m_in.empty() && m_in.front().dueMs <= NowMs()) {
        const uint8_t b = m_in.front().byte;
        m_in.pop_front();
        m_lastActivityMs = NowMs();
        const bool busy = m_state == State::kWaitUp || m_state == State::kSending || m_state == State::kWaitBack;
        const char* skip = HungUp()                                       ? "port closed"
                           : !Reachable()                                 ? "no watch in the cradle"
                           : m_silent                                     ? "silent"
                           : busy                                         ? "busy with a block"
                           : (m_state == State::kIdle && !m_awake && b != '\r') ? "asleep"
                                                                          : nullptr;
        if (skip != nullptr) {
            if (why != nullptr && why != skip) {
                m_console.Out("host: %s ignored (%s)", w::Escaped(ignored).c_str(), why);
                ignored.clear();
            }
            why = skip;
            ignored.push_back(static_cast<char>(b));
            continue;
        }
        HostByte(b);
    }
    if (!ignored.empty())
        m_console.Out("host: %s ignored (%s)", w::Escaped(ignored).c_str(), why);
}

void Watch::HostByte(uint8_t b)
{
    if (b == '\r') {
        if (m_state == State::kCommand)
            m_console.Out("watch: command \"%s\" abandoned at a CR", w::Escaped(m_cmd).c_str());
        m_state = State::kIdle;
        m_cmd.clear();
        m_awake = true;
        m_console.Out("host CR: prompt");
        Queue(w::kWakeReply);
        return;
    }
    if (m_state == State::kIdle) {
        m_state = State::kCommand;
        m_cmd.clear();
        m_echoAt = m_echoArmedAt;
        m_echoByte = m_echoArmedByte;
        m_echoArmedAt = 0;
    }
    TakeCommandByte(b);
}

void Watch::TakeCommandByte(uint8_t b)
{
    m_cmd.push_back(static_cast<char>(b));
    uint8_t echo = b;
    if (m_echoAt == m_cmd.size()) {
        echo = (m_echoByte >= 0) ? static_cast<uint8_t>(m_echoByte) : static_cast<uint8_t>(b + 1);
        m_console.Out("echo fault: character %zu '%s' echoed as '%s'", m_cmd.size(),
            w::Escaped(std::string(1, static_cast<char>(b))).c_str(),
            w::Escaped(std::string(1, static_cast<char>(echo))).c_str());
        m_echoAt = 0;
    }
    Queue(std::string(1, static_cast<char>(echo)));
    if (m_cmd.size() >= 4 && w::FixedLength(m_cmd) == m_cmd.size())
        RunCommand();
}

void Watch::RunCommand()
{
    const w::Examined e = w::Examine(m_cmd);
    const std::string shown = w::Escaped(m_cmd);
    ++m_commands;
    m_state = State::kIdle;
    m_cmd.clear();
    m_echoAt = 0;
    if (!e.good) {
        m_console.Out("command: %s (refused)", shown.c_str());
        Queue(w::kRefusedReply);
        return;
    }
    m_console.Out("command: %s", shown.c_str());
    switch (e.kind) {
    case w::Kind::kReadParams: {
        const std::string reply = w::ParameterReply(m_facts, m_garble);
        m_console.Out("send parameters%s: %s", m_garble == w::Garble::kNone ? "" : " (garbled)",
            w::Escaped(reply).c_str());
        m_garble = w::Garble::kNone;
        Queue(reply);
        return;
    }
    case w::Kind::kReadBlock:
        m_blockAddress = static_cast<uint32_t>(std::strtoul(e.argument.c_str(), nullptr, 16));
        m_state = State::kWaitUp;
        m_waitSinceMs = NowMs();
        return;
    case w::Kind::kIdentity: m_facts.identity = e.argument; break;
    case w::Kind::kDate: m_facts.date = e.argument; break;
    case w::Kind::kTime: m_facts.time = e.argument; break;
    case w::Kind::kAnalysis: m_settings['A'] = e.argument; break;
    case w::Kind::kGLimit: m_settings['S'] = e.argument; break;
    case w::Kind::kParams13: m_settings['Q'] = e.argument; break;
    case w::Kind::kThreshold: m_settings['I'] = e.argument; break;
    case w::Kind::kRestart:
        m_recorded = 0;
        m_console.Out("watch: acquisition restarted, memory erased");
        break;
    case w::Kind::kLogPointer:
        m_facts.logAddress = static_cast<uint32_t>(std::strtoul(e.argument.c_str(), nullptr, 16));
        break;
    case w::Kind::kUnknown: break;
    }
    Queue(w::kOkReply);
}

void Watch::QueueBlock(const char* note)
{
    std::string block(watchsim::kBlockBytes, '\0');
    watchsim::ReadBlock(m_recorded, m_blockAddress, reinterpret_cast<uint8_t*>(block.data()));
    std::string damage;
    block = m_faults.Damage(block, &damage);
    if (!damage.empty())
        m_console.Out("fault: block 0x%04X %s, %zu bytes", m_blockAddress, damage.c_str(), block.size());
    const uint32_t first = (m_blockAddress * watchsim::kUnitBytes) % watchsim::kMemoryBytes;
    m_console.Out("send block 0x%04X: bytes 0x%06X to 0x%06X at %d baud%s", m_blockAddress, first,
        (first + watchsim::kBlockBytes - 1) % watchsim::kMemoryBytes, m_baud, note);
    m_blockSize = block.size();
    m_blockWritten = 0;
    m_blockFirstMs = -1;
    m_state = State::kSending;
    switch (m_blockFault) {
    case BlockFault::kStall:
        m_console.Out("watch: this block stalls for %u ms after %u bytes", m_stallMs, m_faultBytes);
        Queue(block.substr(0, m_faultBytes), kBlockPart, m_stallMs);
        Queue(block.substr(m_faultBytes), kBlockEnd);
        break;
    case BlockFault::kStop:
    case BlockFault::kVanish:
        m_vanishing = (m_blockFault == BlockFault::kVanish);
        m_console.Out("watch: this block stops after %u bytes%s", m_faultBytes,
            m_vanishing ? "; then the watch leaves the cradle" : "");
        m_blockSize = m_faultBytes;
        Queue(block.substr(0, m_faultBytes), kBlockStopped);
        break;
    default:
        Queue(block, kBlockEnd);
        break;
    }
    m_blockFault = BlockFault::kNone;
}

void Watch::ServeProtocol()
{
    const double now = NowMs();
    if (!m_out.Empty()) {
        // Waits count from the moment the last byte left.
        m_waitSinceMs = now;
        return;
    }
    switch (m_state) {
    case State::kCommand:
        if ((m_cmd.size() < 4 || w::FixedLength(m_cmd) == 0) && now - m_lastActivityMs >= GapMs())
            RunCommand();
        break;
    case State::kWaitUp:
        if (m_baud == kBlockBaud)
            QueueBlock("");
        else if (now - m_waitSinceMs >= kSwitchUpWaitMs)
            QueueBlock(" (the host never switched to 4800 baud)");
        break;
    case State::kWaitBack:
        if (m_baud != kBlockBaud || now - m_waitSinceMs >= kSwitchBackWaitMs) {
            if (m_baud == kBlockBaud)
                m_console.Out("watch: the host never switched back from 4800 baud; prompt sent anyway");
            m_state = State::kIdle;
            Queue(w::kBlockPrompt);
        }
        break;
    default:
        break;
    }
}

void Watch::Queue(std::string bytes, ChunkTag tag, double pauseAfterMs)
{
    m_out.Queue(std::move(bytes), tag, pauseAfterMs);
}

void Watch::ServeOutput()
{
    const double byteMs = ByteMs(m_baud);
    std::string error;
    const bool written = m_out.Serve(
        m_pty.Fd(), OutByteMs(),
        [this, byteMs](const sim::SerialOut::Chunk& chunk, size_t n, double startMs) {
            m_watchBytes += n;
            m_wireMs += n * byteMs;
            m_lastActivityMs = NowMs();
            if (chunk.tag != kText) {
                if (m_blockFirstMs < 0)
                    m_blockFirstMs = startMs;
                m_blockWritten += n;
            }
        },
        [this](const sim::SerialOut::Chunk& chunk) { ChunkDone(chunk); }, &error);
    if (!written)
        m_console.Out("watch: write failed: %s", error.c_str());
}

void Watch::ChunkDone(const sim::SerialOut::Chunk& chunk)
{
    if (chunk.tag == kBlockPart) {
        m_console.Out("watch: block 0x%04X stalled after %zu bytes", m_blockAddress, m_blockWritten);
    } else if (chunk.tag == kBlockEnd) {
        // From the start of the first byte's wire time (paced) or its
        // hand-over (fast) to the hand-over of the last byte.
        ++m_blocks;
        m_console.Out("block a=0x%04X bytes=%zu ms=%.3f wire_ms=%.3f baud=%d rate=%s", m_blockAddress,
            m_blockWritten, m_blockFirstMs >= 0 ? NowMs() - m_blockFirstMs : 0.0,
            m_blockWritten * ByteMs(m_baud), m_baud, m_paced ? "paced" : "fast");
        m_state = State::kWaitBack;
        m_waitSinceMs = NowMs();
    } else if (chunk.tag == kBlockStopped) {
        m_console.Out("watch: block 0x%04X stopped after %zu bytes; no prompt", m_blockAddress, m_blockWritten);
        m_state = State::kIdle;
        if (m_vanishing) {
            m_vanishing = false;
            LoseWatch("watch vanished");
            m_seated = false;
            UpdatePresence();
        }
    }
}

int Watch::Run()
{
    while (m_console.Running()) {
        DrainEdges();
        UpdatePresence();
        CheckLine();
        if (HungUp() && NowMs() >= m_openAgainAt) {
            m_openAgainAt = -1;
            m_console.Out("fault hangup: port open again");
        }
        ReadHost();
        ServeInput();
        ServeOutput();
        ServeProtocol();
        ServeOutput();
        m_console.ServeCommands([this](CommandSource& source, const std::string& line) { Execute(source, line); });
        ServeOutput();

        // Sleep until the host writes, the line can take the next byte, or a
        // millisecond has passed (edges, the line speed and commands are
        // looked at that often).
        double waitMs = m_out.WaitMs(OutByteMs(), 1.0);
        if (!m_in.empty()) {
            const double next = m_in.front().dueMs - NowMs();
            waitMs = std::min(waitMs, next <= 0 ? 0.0 : std::max(next, kPollMs));
        }
        sim::WaitForTerminal(m_pty.Fd(), m_out.WaitingForRoom(), waitMs);
    }
    DrainEdges();
    m_console.Out("watch: stopped");
    return 0;
}

}  // namespace watchsim

int main(int argc, char** argv)
{
    sim::InstallStopHandlers();
    std::signal(SIGHUP, SIG_IGN);
    watchsim::Watch watch;
    if (!watch.Start(argc, argv))
        return 2;
    return watch.Run();
}
