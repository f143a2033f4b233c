// The bench panel next to a Windows test or benchmark run by scripts/simrun.
#pragma once

#include "tests/support/SimChannel.h"

// One line of the panel's log.
struct PanelEntry
{
    double ms = 0;
    std::string what;   // "line", "mark", ">", "panel" or "state"
    int line = -1;      // for "line": the GPIO line
    std::string state;  // for "line": high, low, input or output
    std::string text;   // the rest: the line's role, the mark, the command ...
};

class BenchPanel : public SimChannel
{
public:
    BenchPanel() : SimChannel(L"\\panel.log", L"\\panel.cmd") {}
    static bool Running() { return BenchPanel().SimChannel::Running(); }
    // Everything the control did before the call is in the log by then.
    bool Sync(std::vector<PanelEntry>* entries, DWORD timeoutMs = 30000);
};

// The level and direction changes of one line, in order ("high", "low", ...).
std::vector<std::string> LineStates(const std::vector<PanelEntry>& entries, int line);
// Only the level changes (high, low) of one line.
std::vector<std::string> LineLevels(const std::vector<PanelEntry>& entries, int line);
// Every "line" entry as "<line> <state>", in order.
std::vector<std::string> LineChanges(const std::vector<PanelEntry>& entries);
