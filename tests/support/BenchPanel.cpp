#include "tests/support/BenchPanel.h"

#include <sstream>

namespace {

PanelEntry Parse(const std::string& raw)
{
    PanelEntry e;
    std::istringstream in(raw);
    in >> e.ms >> e.what;
    if (e.what == "line")
        in >> e.line >> e.state;
    std::getline(in, e.text);
    size_t start = e.text.find_first_not_of(' ');
    e.text = (start == std::string::npos) ? "" : e.text.substr(start);
    return e;
}

}  // namespace

bool BenchPanel::Running()
{
    return BenchPanel().m_channel.Running();
}

bool BenchPanel::Send(const std::string& command)
{
    return m_channel.Send(command);
}

bool BenchPanel::Sync(std::vector<PanelEntry>* entries, DWORD timeoutMs)
{
    return m_channel.Sync(entries, Parse, timeoutMs);
}

std::vector<std::string> LineStates(const std::vector<PanelEntry>& entries, int line)
{
    std::vector<std::string> states;
    for (const PanelEntry& e : entries)
        if (e.what == "line" && e.line == line)
            states.push_back(e.state);
    return states;
}

std::vector<std::string> LineLevels(const std::vector<PanelEntry>& entries, int line)
{
    std::vector<std::string> levels;
    for (const PanelEntry& e : entries)
        if (e.what == "line" && e.line == line && (e.state == "high" || e.state == "low"))
            levels.push_back(e.state);
    return levels;
}

std::vector<std::string> LineChanges(const std::vector<PanelEntry>& entries)
{
    std::vector<std::string> changes;
    for (const PanelEntry& e : entries)
        if (e.what == "line")
            changes.push_back(std::to_string(e.line) + " " + e.state);
    return changes;
}
