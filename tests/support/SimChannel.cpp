#include "tests/support/SimChannel.h"

#include <cstdio>
#include <sstream>

#include "tests/support/ControlTestKit.h"

int SimChannel::s_marks = 0;

bool SimChannel::Running() const
{
    return GetFileAttributesW(m_log) != INVALID_FILE_ATTRIBUTES;
}

bool SimChannel::Send(const std::string& command) const
{
    HANDLE h = CreateFileW(m_commands, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                           OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    std::string line = command + "\n";
    DWORD written = 0;
    BOOL ok = WriteFile(h, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    CloseHandle(h);
    return ok && written == line.size();
}

bool SimChannel::Sync(std::string* logged, DWORD timeoutMs)
{
    char mark[64];
    std::snprintf(mark, sizeof(mark), "sync %lu.%d", GetCurrentProcessId(), ++s_marks);
    if (!Send(std::string("mark ") + mark))
        return false;
    const std::string wanted = std::string(" mark ") + mark + "\n";
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    for (;;) {
        std::string log = ReadFileBytes(m_log);
        size_t at = log.find(wanted, m_offset);
        if (at != std::string::npos) {
            // Back to the start of the mark's line.
            size_t lineStart = log.rfind('\n', at);
            lineStart = (lineStart == std::string::npos || lineStart < m_offset) ? m_offset : lineStart + 1;
            if (logged != nullptr)
                *logged = log.substr(m_offset, lineStart - m_offset);
            m_offset = at + wanted.size();
            return true;
        }
        if (GetTickCount64() >= deadline)
            return false;
        Sleep(2);
    }
}

bool SimChannel::WaitLine(const std::function<bool(const std::string& line)>& matches, std::string* line,
                          DWORD timeoutMs)
{
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    for (;;) {
        std::string log = ReadFileBytes(m_log);
        size_t end = log.rfind('\n');
        if (end != std::string::npos && end + 1 > m_offset) {
            size_t pos = m_offset;
            while (pos <= end) {
                size_t nl = log.find('\n', pos);
                std::string raw = log.substr(pos, nl - pos);
                pos = nl + 1;
                if (matches(raw)) {
                    if (line != nullptr)
                        *line = raw;
                    m_offset = pos;
                    return true;
                }
            }
        }
        if (GetTickCount64() >= deadline)
            return false;
        Sleep(5);
    }
}

std::vector<std::string> SimChannel::Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string raw; std::getline(in, raw);)
        if (!raw.empty())
            lines.push_back(raw);
    return lines;
}

SimEntry SimChannel::ParseEntry(const std::string& line)
{
    SimEntry e;
    std::istringstream in(line);
    in >> e.ms;
    std::getline(in >> std::ws, e.text);
    return e;
}

bool SimChannel::WaitText(const std::string& prefix, std::string* text, DWORD timeoutMs)
{
    auto begins = [&prefix](const std::string& line) { return ParseEntry(line).text.starts_with(prefix); };
    std::string raw;
    if (!WaitLine(begins, &raw, timeoutMs))
        return false;
    if (text != nullptr)
        *text = ParseEntry(raw).text;
    return true;
}

std::vector<std::string> SimTexts(const std::vector<SimEntry>& entries, const std::string& prefix)
{
    std::vector<std::string> texts;
    for (const SimEntry& e : entries)
        if (e.text.starts_with(prefix))
            texts.push_back(e.text);
    return texts;
}
