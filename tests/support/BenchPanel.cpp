#include "tests/support/BenchPanel.h"

#include <cstdio>
#include <sstream>

#include "tests/support/ControlTestKit.h"

int BenchPanel::s_marks = 0;

namespace {

const wchar_t kLog[] = L"\\panel.log";
const wchar_t kCommands[] = L"\\panel.cmd";

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
    return GetFileAttributesW(kLog) != INVALID_FILE_ATTRIBUTES;
}

bool BenchPanel::Send(const std::string& command)
{
    HANDLE h = CreateFileW(kCommands, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                           OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    std::string line = command + "\n";
    DWORD written = 0;
    BOOL ok = WriteFile(h, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    CloseHandle(h);
    return ok && written == line.size();
}

bool BenchPanel::Sync(std::vector<PanelEntry>* entries, DWORD timeoutMs)
{
    char mark[64];
    std::snprintf(mark, sizeof(mark), "sync %lu.%d", GetCurrentProcessId(), ++s_marks);
    if (!Send(std::string("mark ") + mark))
        return false;
    const std::string wanted = std::string(" mark ") + mark + "\n";
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    for (;;) {
        std::string log = ReadFileBytes(kLog);
        size_t at = log.find(wanted, m_offset);
        if (at != std::string::npos) {
            // Back to the start of the mark's line.
            size_t lineStart = log.rfind('\n', at);
            lineStart = (lineStart == std::string::npos || lineStart < m_offset) ? m_offset : lineStart + 1;
            if (entries != nullptr) {
                entries->clear();
                std::istringstream lines(log.substr(m_offset, lineStart - m_offset));
                std::string raw;
                while (std::getline(lines, raw))
                    if (!raw.empty())
                        entries->push_back(Parse(raw));
            }
            m_offset = at + wanted.size();
            return true;
        }
        if (GetTickCount64() >= deadline)
            return false;
        Sleep(2);
    }
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
