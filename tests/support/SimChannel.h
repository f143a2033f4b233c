// A bench simulator next to a Windows test or benchmark run by scripts/simrun:
// command lines are appended to its command file on the device disk, and what
// it did is read back from its log there, each line "<ms> <text>".
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

// One line of a simulator's log: its time stamp and the text after it.
struct SimEntry
{
    double ms = 0;     // milliseconds since the simulator started
    std::string text;  // e.g. "send timer go: 10 05 00 34 56 20 41", "command: ***D241126"
};

class SimChannel
{
public:
    // Device-disk paths, e.g. L"\\panel.log" and L"\\panel.cmd".
    SimChannel(const wchar_t* log, const wchar_t* commands) : m_log(log), m_commands(commands) {}

    // True when the simulator is logging on this device disk.
    bool Running() const;
    bool Send(const std::string& command) const;

    // Writes a mark and waits (without pumping messages) until the simulator
    // has logged it. *logged gets the log's lines from the previous Sync or
    // WaitLine up to the mark's line, which is left out. False if the
    // simulator never answered.
    bool Sync(std::string* logged, DWORD timeoutMs);

    // The same, with each line logged before the mark made an entry by parse.
    template <typename Entry>
    bool Sync(std::vector<Entry>* entries, Entry (*parse)(const std::string& line), DWORD timeoutMs)
    {
        std::string logged;
        if (!Sync(&logged, timeoutMs))
            return false;
        if (entries != nullptr) {
            entries->clear();
            for (const std::string& line : Lines(logged))
                entries->push_back(parse(line));
        }
        return true;
    }

    // Waits until a whole line logged after the previous Sync or WaitLine
    // matches, and returns it. The lines before it are passed over.
    bool WaitLine(const std::function<bool(const std::string& line)>& matches, std::string* line,
                  DWORD timeoutMs);

    static std::vector<std::string> Lines(const std::string& text);
    static SimEntry ParseEntry(const std::string& line);

    // Waits for a line whose text begins with prefix (see WaitLine) and
    // returns that text.
    bool WaitText(const std::string& prefix, std::string* text, DWORD timeoutMs);

private:
    const wchar_t* m_log;
    const wchar_t* m_commands;
    size_t m_offset = 0;
    static int s_marks;
};

// A simulator whose log lines are plain entries (the microcontroller's, the
// watch's): Sync waits until every command sent before has run and every
// line edge the control made before has been answered.
class SimLog : public SimChannel
{
public:
    using SimChannel::SimChannel;
    bool Sync(std::vector<SimEntry>* entries = nullptr, DWORD timeoutMs = 30000)
    {
        return SimChannel::Sync(entries, ParseEntry, timeoutMs);
    }
    // A timeout to match for results that take long (a 60-second burst).
    bool Wait(const std::string& prefix, std::string* text, DWORD timeoutMs = 30000)
    {
        return WaitText(prefix, text, timeoutMs);
    }
};

// The texts of the entries that begin with prefix, in order.
std::vector<std::string> SimTexts(const std::vector<SimEntry>& entries, const std::string& prefix);
