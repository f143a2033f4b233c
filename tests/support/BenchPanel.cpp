#include "tests/support/BenchPanel.h"

#include <algorithm>
#include <sstream>

namespace {

PanelEntry Parse(const std::string& raw)
{
    PanelEntry e;
    std::istringstream in(raw);
    in >> e.ms >> e.what;
    if (e.what == "line")
        in >> e.line >> e.state;
    std::getline(in >> std::ws, e.text);
    return e;
}

}  // namespace

bool BenchPanel::Sync(std::vector<PanelEntry>* entries, DWORD timeoutMs)
{
    return SimChannel::Sync(entries, Parse, timeoutMs);
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
    std::vector<std::string> levels = LineStates(entries, line);
    std::erase_if(levels, [](const std::string& s) { return s != "high" && s != "low"; });
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
