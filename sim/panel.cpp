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
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "sim/GpioBlock.h"
#include "sim/SimConsole.h"

namespace {

using sim::CommandSource;

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

class Panel
{
public:
    bool Start(int argc, char** argv);
    int Run();

private:
    void Usage();
    void Line(unsigned line, const char* state, const char* text);
    void DrainEdges();
    void ShowEdge(const sim::GpioEdgeReader::Edge& e);
    void Execute(CommandSource& source, const std::string& command);
    void SetInput(unsigned line, bool high);
    void PrintState();

    sim::SimConsole m_console{"brennock-panel", 512};
    sim::GpioBlockFile m_block;
    sim::GpioEdgeReader* m_reader = nullptr;
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
    sim::ConsoleOptions options;
    bool lidOpen = false, watchPresent = false;
    for (int i = 1; i < argc; ++i) {
        if (options.Take(argc, argv, &i, "panel"))
            continue;
        std::string a = argv[i];
        auto value = [&](std::string& into) {
            if (i + 1 >= argc)
                return false;
            into = argv[++i];
            return true;
        };
        std::string v;
        if (a == "--lid" && value(v) && (v == "open" || v == "closed")) {
            lidOpen = (v == "open");
        } else if (a == "--watch" && value(v) && (v == "present" || v == "absent")) {
            watchPresent = (v == "present");
        } else {
            Usage();
            return false;
        }
    }
    if (options.block.empty()) {
        Usage();
        return false;
    }

    if (!m_console.Begin(options, &m_block))
        return false;
    m_reader = new sim::GpioEdgeReader(m_block);
    if (!m_console.OpenSources(options))
        return false;

    m_console.Out("panel: block %s, lid %s, watch %s", options.block.c_str(), lidOpen ? "open" : "closed",
        watchPresent ? "present" : "absent");
    SetInput(kLineLid, lidOpen);
    SetInput(kLineWatchPresent, watchPresent);

    m_console.MakeReady(options);
    return true;
}

void Panel::Line(unsigned line, const char* state, const char* text)
{
    m_console.Out("line %3u %-6s %s", line, state, text);
}

void Panel::DrainEdges()
{
    m_reader->Drain([this](const sim::GpioEdgeReader::Edge& e) { ShowEdge(e); },
                    [this](uint32_t lost) { m_console.Out("panel: %u edges lost (the panel fell behind)", lost); });
}

void Panel::ShowEdge(const sim::GpioEdgeReader::Edge& e)
{
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
            m_console.Out("state line %3u input  %s", r.line, high ? r.high : r.low);
            continue;
        }
        const char* drive = "never driven";
        switch (m_block.Output(r.line)) {
        case sim::GpioBlockFile::Drive::kHigh: drive = r.high; break;
        case sim::GpioBlockFile::Drive::kLow: drive = r.low; break;
        default: break;
        }
        m_console.Out("state line %3u %-6s %s", r.line, m_block.IsOutput(r.line) ? "output" : "input", drive);
    }
}

void Panel::Execute(CommandSource& source, const std::string& raw)
{
    const std::string command = sim::Trimmed(raw);
    if (command.empty() || command[0] == '#')
        return;

    // Every edge the control made before this command is reported before it.
    DrainEdges();

    std::string verb = command.substr(0, command.find(' '));
    std::string rest = (command.size() > verb.size()) ? command.substr(verb.size() + 1) : "";
    if (verb == "mark") {
        m_console.Out("mark %s", rest.c_str());
        return;
    }
    m_console.Out("> %s", command.c_str());
    if (command == "lid open") {
        SetInput(kLineLid, true);
    } else if (command == "lid closed" || command == "lid close") {
        SetInput(kLineLid, false);
    } else if (command == "watch present") {
        SetInput(kLineWatchPresent, true);
    } else if (command == "watch absent") {
        SetInput(kLineWatchPresent, false);
    } else if (verb == "wait" && !rest.empty() && std::atoi(rest.c_str()) >= 0) {
        source.Pause(std::atoi(rest.c_str()));
    } else if (command == "state") {
        PrintState();
    } else if (command == "quit") {
        m_console.Quit();
    } else if (command == "help") {
        m_console.Out("commands: lid open | lid closed | watch present | watch absent | state | "
            "mark TEXT | wait MS | quit");
    } else {
        m_console.Out("panel: unknown command \"%s\" (try help)", command.c_str());
    }
}

int Panel::Run()
{
    while (m_console.Running()) {
        DrainEdges();
        m_console.ServeCommands([this](CommandSource& source, const std::string& line) { Execute(source, line); });
        // About a thousand looks a second: an edge is stamped within a
        // millisecond or so of the control making it.
        timespec pause = {0, 1000000};
        ::nanosleep(&pause, nullptr);
    }
    DrainEdges();
    m_console.Out("panel: stopped");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    sim::InstallStopHandlers();
    Panel panel;
    if (!panel.Start(argc, argv))
        return 2;
    return panel.Run();
}
