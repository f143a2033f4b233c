// brennock-watch's commands: the state and counters it reports and the
// bench's commands, faults among them (see sim/WatchScript.h).
#include "sim/WatchDevice.h"

namespace watchsim {

void Watch::ShowState()
{
    const double now = NowMs();
    char carrier[64];
    if (m_carrierSeenMs < 0)
        std::snprintf(carrier, sizeof(carrier), "not seen");
    else
        std::snprintf(carrier, sizeof(carrier), "seen %.0f ms ago", now - m_carrierSeenMs);
    static const char* const kStates[] = {"idle", "taking a command", "waiting for 4800 baud", "sending a block",
                                          "waiting for 600 baud"};
    std::string settings;
    for (const auto& [letter, value] : m_settings)
        settings += std::string(" ***") + letter + value;
    m_console.Out("state %s, power %s, carrier %s (%s, %u pulses), presence %s; %s, %s%s; log address 0x%06X, "
        "%u bytes recorded; set:%s; rate %s, line %s",
        m_seated ? "seated" : "not seated", m_power ? "on" : "off", m_carrierHigh ? "high" : "low", carrier,
        m_pulsesSeen, m_present ? "high" : "low", m_awake ? "awake" : "asleep",
        kStates[static_cast<int>(m_state)], m_silent ? ", silent" : "", m_facts.logAddress, m_recorded,
        settings.empty() ? " nothing" : settings.c_str(), m_paced ? "paced" : "fast", m_lineSettings.c_str());
}

void Watch::ShowStats(bool reset)
{
    const double now = NowMs();
    m_console.Out("stats commands=%u blocks=%u host_bytes=%llu watch_bytes=%llu wire_ms=%.3f elapsed_ms=%.3f",
        m_commands, m_blocks, m_hostBytes, m_watchBytes, m_wireMs, now - m_statsSinceMs);
    if (reset) {
        m_commands = m_blocks = 0;
        m_hostBytes = m_watchBytes = 0;
        m_wireMs = 0;
        m_statsSinceMs = now;
    }
}

void Watch::Fault(const sim::LineFaultCommand& fault)
{
    if (fault.verb == sim::LineFaultCommand::kNoise) {
        const std::string noise = m_faults.Noise(fault.number);
        m_console.Out("fault noise: %s", w::Escaped(noise).c_str());
        if (!HungUp())
            Queue(noise);
    } else if (fault.verb == sim::LineFaultCommand::kHangup) {
        // The watch's port closes under whatever it was doing and opens
        // again asleep; what the host writes meanwhile is lost.
        m_console.Out("fault hangup: port closed for %u ms", fault.number);
        const double seen = m_carrierSeenMs;  // the cradle's lines do not go through the port
        LoseWatch("port closed");
        m_carrierSeenMs = seen;
        m_in.clear();
        m_openAgainAt = NowMs() + fault.number;
    } else {
        m_faults.Arm(fault);
    }
}

void Watch::Execute(CommandSource& source, const std::string& line)
{
    w::Command c;
    std::string error;
    if (!w::ParseCommand(line, &c, &error)) {
        m_console.Out("watch: bad command \"%s\": %s (try help)", sim::Trimmed(line).c_str(), error.c_str());
        return;
    }
    if (c.kind == w::Command::kNothing)
        return;
    // Every edge the control made before this command is followed before it.
    DrainEdges();
    UpdatePresence();
    if (c.kind == w::Command::kMark) {
        m_console.Out("mark %s", c.text.c_str());
        return;
    }
    m_console.Out("> %s", sim::Trimmed(line).c_str());
    switch (c.kind) {
    case w::Command::kSeat:
        m_seated = true;
        break;
    case w::Command::kRemove:
        if (m_seated)
            LoseWatch("watch removed");
        m_seated = false;
        break;
    case w::Command::kSilent:
        m_silent = c.flag;
        break;
    case w::Command::kGarble:
        m_garble = c.garble;
        break;
    case w::Command::kEcho:
        m_echoArmedAt = c.number;
        m_echoArmedByte = c.echo;
        break;
    case w::Command::kFault:
        Fault(c.fault);
        break;
    case w::Command::kStall:
    case w::Command::kStop:
    case w::Command::kVanish:
        m_blockFault = (c.kind == w::Command::kStall)  ? BlockFault::kStall
                       : (c.kind == w::Command::kStop) ? BlockFault::kStop
                                                       : BlockFault::kVanish;
        m_faultBytes = c.number;
        m_stallMs = c.number2;
        break;
    case w::Command::kLie:
        m_facts.logAddress = c.number;
        break;
    case w::Command::kLogAddr:
        m_facts.logAddress = c.number;
        m_recorded = watchsim::RecordedBytesFor(c.number);
        break;
    case w::Command::kRate:
        m_paced = c.flag;
        break;
    case w::Command::kStats:
        ShowStats(c.flag);
        break;
    case w::Command::kWait:
        source.Pause(c.number);
        break;
    case w::Command::kState:
        ShowState();
        break;
    case w::Command::kHelp:
        m_console.Out("%s", w::CommandHelp());
        break;
    case w::Command::kQuit:
        m_console.Quit();
        break;
    default:
        break;
    }
    UpdatePresence();
}

}  // namespace watchsim
