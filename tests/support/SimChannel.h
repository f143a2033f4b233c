// A bench simulator next to a Windows test or benchmark run by scripts/simrun:
// command lines are appended to its command file on the device disk, and what
// it did is read back from its log there, each line "<ms> <text>".
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

class SimChannel
{
public:
    // Device-disk paths, e.g. L"\\panel.log" and L"\\panel.cmd".
    SimChannel(const wchar_t* log, const wchar_t* commands);

    // True when the simulator is logging on this device disk.
    bool Running() const;

    // Appends one command line.
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

    // The lines of text that are not empty, in order.
    static std::vector<std::string> Lines(const std::string& text);

private:
    const wchar_t* m_log;
    const wchar_t* m_commands;
    size_t m_offset = 0;
    static int s_marks;
};
