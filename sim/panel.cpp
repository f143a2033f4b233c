// brennock-panel: the bench panel. It maps the GPIO block file of a device
// disk, prints every change of the control's output lines with a time stamp
// and the line's role, and works the lid switch and the watch-present input
// on command.
//
//   brennock-panel --disk DIR [options]
//   brennock-panel --block FILE [options]
//
// Commands (standard input, the --script file, and lines appended to the
// command file): lid open | lid closed | watch present | watch absent |
// state | mark TEXT | wait MS | help | quit. See README.md, "Bench panel".
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "sim/GpioBlock.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;

void OnSignal(int)
{
    g_stop = 1;
}

// What each line in use does, as the bench engineer reads it.
struct Role
{
    unsigned line;
    const char* name;
    const char* high;
    const char* low;
};

const Role kRoles[] = {
    {1, "lid switch", "lid open", "lid closed"},
    {13, "MCU reset", "MCU reset pulse start", "MCU reset pulse end"},
    {20, "beep request", "beep request on", "beep request off"},
    {21, "go strobe", "go strobe high", "go strobe low"},
    {36, "watch power", "watch power on", "watch power off"},
    {38, "backlight", "backlight on", "backlight off"},
    {40, "watch present", "watch present", "watch absent"},
    {41, "watch carrier", "watch carrier on", "watch carrier off"},
    {52, "LED 2", "LED 2 on", "LED 2 off"},
    {53, "LED 3", "LED 3 on", "LED 3 off"},
    {54, "LED 4", "LED 4 on", "LED 4 off"},
    {81, "LED 5", "LED 5 on", "LED 5 off"},
    {83, "LED 6", "LED 6 on", "LED 6 off"},
    {84, "LED 1", "LED 1 on", "LED 1 off"},
    {99, "aux enable", "aux enable on", "aux enable off"},
};

const Role* RoleOf(unsigned line)
{
    for (const Role& r : kRoles)
        if (r.line == line)
            return &r;
    return nullptr;
}

constexpr unsigned kLineLid = 1;
constexpr unsigned kLineWatchPresent = 40;

double NowMs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000.0 + ts.tv_nsec / 1e6;
}

// A source of command lines: a file read as it grows, or standard input.
struct CommandSource
{
    const char* what;
    int fd = -1;
    bool follow = false;   // a file others append to: keep reading at its end
    bool done = false;
    std::string pending;   // a partial line
    std::vector<std::string> lines;
    double resumeAt = 0;   // after "wait"
};

class Panel
{
public:
    bool Start(int argc, char** argv);
    int Run();

private:
    void Usage();
    void Out(const char* format, ...);
    void Line(unsigned line, const char* state, const char* text);
    void DrainEdges();
    void Execute(CommandSource& source, const std::string& command);
    void SetInput(unsigned line, bool high);
    void PrintState();
    void ReadSource(CommandSource& source);
    void ServeSource(CommandSource& source);

    sim::GpioBlockFile m_block;
    sim::GpioEdgeReader* m_reader = nullptr;
    double m_t0 = 0;
    int m_log = -1;
    bool m_quiet = false;
    bool m_quit = false;
    std::vector<CommandSource> m_sources;
};

void Panel::Usage()
{
    std::fprintf(stderr,
                 "usage: brennock-panel (--disk DIR | --block FILE) [--log FILE] [--commands FILE]\n"
                 "                      [--script FILE] [--ready FILE] [--lid open|closed]\n"
                 "                      [--watch present|absent] [--quiet]\n"
                 "  --disk DIR      the device disk: block DIR/" BRENNOCK_GPIO_BLOCK_FILE
                 ", log DIR/panel.log,\n"
                 "                  commands appended to DIR/panel.cmd\n"
                 "  --block FILE    the block file (no log or command file unless given)\n"
                 "  --script FILE   commands to run first (wait MS pauses the script)\n"
                 "  --ready FILE    made once the block is mapped and the inputs are set\n"
                 "  --lid, --watch  the inputs at start (default: lid closed, watch absent)\n"
                 "  --quiet         nothing on standard output (the log still gets everything)\n");
}

bool Panel::Start(int argc, char** argv)
{
    std::string block, log, commands, script, ready;
    bool lidOpen = false, watchPresent = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](std::string& into) {
            if (i + 1 >= argc)
                return false;
            into = argv[++i];
            return true;
        };
        std::string v;
        if (a == "--disk" && value(v)) {
            block = v + "/" BRENNOCK_GPIO_BLOCK_FILE;
            log = v + "/panel.log";
            commands = v + "/panel.cmd";
        } else if (a == "--block" && value(v)) {
            block = v;
        } else if (a == "--log" && value(v)) {
            log = v;
        } else if (a == "--commands" && value(v)) {
            commands = v;
        } else if (a == "--script" && value(v)) {
            script = v;
        } else if (a == "--ready" && value(v)) {
            ready = v;
        } else if (a == "--lid" && value(v) && (v == "open" || v == "closed")) {
            lidOpen = (v == "open");
        } else if (a == "--watch" && value(v) && (v == "present" || v == "absent")) {
            watchPresent = (v == "present");
        } else if (a == "--quiet") {
            m_quiet = true;
        } else {
            Usage();
            return false;
        }
    }
    if (block.empty()) {
        Usage();
        return false;
    }

    m_t0 = NowMs();
    if (!log.empty()) {
        m_log = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (m_log < 0) {
            std::fprintf(stderr, "brennock-panel: %s: %s\n", log.c_str(), std::strerror(errno));
            return false;
        }
    }
    std::string error;
    if (!m_block.Open(block, &error)) {
        std::fprintf(stderr, "brennock-panel: %s\n", error.c_str());
        return false;
    }
    m_reader = new sim::GpioEdgeReader(m_block);

    if (!script.empty()) {
        CommandSource s;
        s.what = "script";
        s.fd = ::open(script.c_str(), O_RDONLY);
        if (s.fd < 0) {
            std::fprintf(stderr, "brennock-panel: %s: %s\n", script.c_str(), std::strerror(errno));
            return false;
        }
        m_sources.push_back(s);
    }
    if (!commands.empty()) {
        CommandSource s;
        s.what = "command file";
        s.follow = true;
        // Only what is appended from now on counts.
        s.fd = ::open(commands.c_str(), O_RDONLY | O_CREAT, 0644);
        if (s.fd < 0) {
            std::fprintf(stderr, "brennock-panel: %s: %s\n", commands.c_str(), std::strerror(errno));
            return false;
        }
        ::lseek(s.fd, 0, SEEK_END);
        m_sources.push_back(s);
    }
    CommandSource in;
    in.what = "stdin";
    in.fd = 0;
    m_sources.push_back(in);

    Out("panel: block %s, lid %s, watch %s", block.c_str(), lidOpen ? "open" : "closed",
        watchPresent ? "present" : "absent");
    SetInput(kLineLid, lidOpen);
    SetInput(kLineWatchPresent, watchPresent);

    if (!ready.empty()) {
        int fd = ::open(ready.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0)
            ::close(fd);
    }
    return true;
}

// One line of output: milliseconds since start, then the text.
void Panel::Out(const char* format, ...)
{
    char text[512];
    int n = std::snprintf(text, sizeof(text), "%10.3f ", NowMs() - m_t0);
    va_list args;
    va_start(args, format);
    std::vsnprintf(text + n, sizeof(text) - n - 1, format, args);
    va_end(args);
    std::string line = std::string(text) + "\n";
    if (!m_quiet) {
        std::fputs(line.c_str(), stdout);
        std::fflush(stdout);
    }
    if (m_log >= 0) {
        ssize_t w = ::write(m_log, line.data(), line.size());
        (void)w;
    }
}

void Panel::Line(unsigned line, const char* state, const char* text)
{
    Out("line %3u %-6s %s", line, state, text);
}

void Panel::DrainEdges()
{
    sim::GpioEdgeReader::Edge e;
    uint32_t lost = 0;
    while (m_reader->Next(&e, &lost)) {
        if (lost != 0) {
            Out("panel: %u edges lost (the panel fell behind)", lost);
            lost = 0;
        }
        const Role* role = RoleOf(e.line);
        char text[96];
        switch (e.kind) {
        case gpio::kEdgeHigh:
            std::snprintf(text, sizeof(text), "%s", role ? role->high : "");
            break;
        case gpio::kEdgeLow:
            std::snprintf(text, sizeof(text), "%s", role ? role->low : "");
            break;
        case gpio::kEdgeInput:
            std::snprintf(text, sizeof(text), "%s released", role ? role->name : "line");
            break;
        default:
            std::snprintf(text, sizeof(text), "%s driven", role ? role->name : "line");
            break;
        }
        Line(e.line, sim::EdgeKindName(e.kind), text);
    }
    if (lost != 0)
        Out("panel: %u edges lost (the panel fell behind)", lost);
}

void Panel::SetInput(unsigned line, bool high)
{
    if (m_block.Level(line) == high)
        return;
    m_block.SetLevel(line, high);
    const Role* role = RoleOf(line);
    Line(line, high ? "high" : "low", high ? role->high : role->low);
}

void Panel::PrintState()
{
    for (const Role& r : kRoles) {
        if (r.line == kLineLid || r.line == kLineWatchPresent) {
            const bool high = m_block.Level(r.line);
            Out("state line %3u input  %s", r.line, high ? r.high : r.low);
            continue;
        }
        const char* drive = "never driven";
        switch (m_block.Output(r.line)) {
        case sim::GpioBlockFile::Drive::kHigh: drive = r.high; break;
        case sim::GpioBlockFile::Drive::kLow: drive = r.low; break;
        default: break;
        }
        Out("state line %3u %-6s %s", r.line, m_block.IsOutput(r.line) ? "output" : "input", drive);
    }
}

void Panel::Execute(CommandSource& source, const std::string& raw)
{
    std::string command = raw;
    while (!command.empty() && (command.back() == '\r' || command.back() == ' ' || command.back() == '\t'))
        command.pop_back();
    size_t start = command.find_first_not_of(" \t");
    if (start == std::string::npos || command[start] == '#')
        return;
    command = command.substr(start);

    // Every edge the control made before this command is reported before it.
    DrainEdges();

    std::string verb = command.substr(0, command.find(' '));
    std::string rest = (command.size() > verb.size()) ? command.substr(verb.size() + 1) : "";
    if (verb == "mark") {
        Out("mark %s", rest.c_str());
        return;
    }
    Out("> %s", command.c_str());
    if (command == "lid open") {
        SetInput(kLineLid, true);
    } else if (command == "lid closed" || command == "lid close") {
        SetInput(kLineLid, false);
    } else if (command == "watch present") {
        SetInput(kLineWatchPresent, true);
    } else if (command == "watch absent") {
        SetInput(kLineWatchPresent, false);
    } else if (verb == "wait" && !rest.empty() && std::atoi(rest.c_str()) >= 0) {
        source.resumeAt = NowMs() + std::atoi(rest.c_str());
    } else if (command == "state") {
        PrintState();
    } else if (command == "quit") {
        m_quit = true;
    } else if (command == "help") {
        Out("commands: lid open | lid closed | watch present | watch absent | state | "
            "mark TEXT | wait MS | quit");
    } else {
        Out("panel: unknown command \"%s\" (try help)", command.c_str());
    }
}

void Panel::ReadSource(CommandSource& source)
{
    if (source.done)
        return;
    if (source.fd == 0) {
        pollfd p = {0, POLLIN, 0};
        if (::poll(&p, 1, 0) <= 0 || !(p.revents & (POLLIN | POLLHUP | POLLERR)))
            return;
    }
    char buffer[4096];
    for (;;) {
        ssize_t n = ::read(source.fd, buffer, sizeof(buffer));
        if (n > 0) {
            source.pending.append(buffer, static_cast<size_t>(n));
            if (source.fd == 0)
                break;  // read more on the next round, never block
            continue;
        }
        if (n == 0 && !source.follow) {
            // End of a script or of standard input: a last line without its
            // newline still counts; the panel runs on until stopped.
            if (!source.pending.empty())
                source.pending.push_back('\n');
            source.done = true;
        }
        break;
    }
    size_t nl;
    while ((nl = source.pending.find('\n')) != std::string::npos) {
        source.lines.push_back(source.pending.substr(0, nl));
        source.pending.erase(0, nl + 1);
    }
}

void Panel::ServeSource(CommandSource& source)
{
    ReadSource(source);
    while (!source.lines.empty() && !m_quit) {
        if (source.resumeAt > NowMs())
            return;
        std::string line = source.lines.front();
        source.lines.erase(source.lines.begin());
        Execute(source, line);
    }
}

int Panel::Run()
{
    while (!g_stop && !m_quit) {
        DrainEdges();
        for (CommandSource& s : m_sources)
            ServeSource(s);
        // About a thousand looks a second: an edge is stamped within a
        // millisecond or so of the control making it.
        timespec pause = {0, 1000000};
        ::nanosleep(&pause, nullptr);
    }
    DrainEdges();
    Out("panel: stopped");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    std::signal(SIGTERM, OnSignal);
    std::signal(SIGINT, OnSignal);
    std::signal(SIGPIPE, SIG_IGN);
    Panel panel;
    if (!panel.Start(argc, argv))
        return 2;
    return panel.Run();
}
