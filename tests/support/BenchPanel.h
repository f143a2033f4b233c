// The bench panel next to a Windows test or benchmark run by scripts/simrun:
// commands are appended to "\panel.cmd" on the device disk, and what the
// panel saw is read back from its log "\panel.log".
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "tests/support/SimChannel.h"

// One line of the panel's log.
struct PanelEntry
{
    double ms = 0;        // the panel's time stamp (milliseconds since it started)
    std::string what;     // "line", "mark", ">", "panel" or "state"
    int line = -1;        // for "line": the GPIO line
    std::string state;    // for "line": high, low, input or output
    std::string text;     // the rest: the line's role, the mark, the command ...
};

class BenchPanel
{
public:
    // True when a panel is logging on this device disk.
    static bool Running();

    // Appends one command line for the panel.
    bool Send(const std::string& command);

    // Writes a mark and waits (without pumping messages) until the panel has
    // logged it. Everything the control did before the call is in the log by
    // then. *entries gets what the panel logged since the previous Sync, the
    // mark itself left out. False if the panel never answered.
    bool Sync(std::vector<PanelEntry>* entries, DWORD timeoutMs = 30000);

private:
    SimChannel m_channel{L"\\panel.log", L"\\panel.cmd"};
};

// The level and direction changes of one line, in order ("high", "low", ...).
std::vector<std::string> LineStates(const std::vector<PanelEntry>& entries, int line);

// Only the level changes (high, low) of one line.
std::vector<std::string> LineLevels(const std::vector<PanelEntry>& entries, int line);

// Every "line" entry as "<line> <state>", in order, for whole-sequence checks.
std::vector<std::string> LineChanges(const std::vector<PanelEntry>& entries);
