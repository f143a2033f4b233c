#include "tests/support/McuSim.h"

#include <cstdio>
#include <sstream>

#include "tests/support/ControlTestKit.h"

int McuSim::s_marks = 0;

namespace {

const wchar_t kLog[] = L"\\mcu.log";
const wchar_t kCommands[] = L"\\mcu.cmd";

McuEntry Parse(const std::string& raw)
{
    McuEntry e;
    std::istringstream in(raw);
    in >> e.ms;
    std::getline(in, e.text);
    size_t start = e.text.find_first_not_of(' ');
    e.text = (start == std::string::npos) ? "" : e.text.substr(start);
    return e;
}

std::vector<McuEntry> ParseLines(const std::string& text)
{
    std::vector<McuEntry> entries;
    std::istringstream lines(text);
    std::string raw;
    while (std::getline(lines, raw))
        if (!raw.empty())
            entries.push_back(Parse(raw));
    return entries;
}

}  // namespace

bool McuSim::Running()
{
    return GetFileAttributesW(kLog) != INVALID_FILE_ATTRIBUTES;
}

bool McuSim::Send(const std::string& command)
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

bool McuSim::Sync(std::vector<McuEntry>* entries, DWORD timeoutMs)
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
            size_t lineStart = log.rfind('\n', at);
            lineStart = (lineStart == std::string::npos || lineStart < m_offset) ? m_offset : lineStart + 1;
            if (entries != nullptr)
                *entries = ParseLines(log.substr(m_offset, lineStart - m_offset));
            m_offset = at + wanted.size();
            return true;
        }
        if (GetTickCount64() >= deadline)
            return false;
        Sleep(2);
    }
}

bool McuSim::Wait(const std::string& prefix, std::string* text, DWORD timeoutMs)
{
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    for (;;) {
        std::string log = ReadFileBytes(kLog);
        size_t end = log.rfind('\n');
        if (end != std::string::npos && end + 1 > m_offset) {
            size_t pos = m_offset;
            while (pos <= end) {
                size_t nl = log.find('\n', pos);
                McuEntry e = Parse(log.substr(pos, nl - pos));
                pos = nl + 1;
                if (e.text.compare(0, prefix.size(), prefix) == 0) {
                    if (text != nullptr)
                        *text = e.text;
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

bool McuSim::ParseLatency(const std::string& text, McuLatency* out)
{
    return std::sscanf(text.c_str(), "latency n=%u median_us=%lf p99_us=%lf worst_us=%lf missed=%u", &out->n,
                       &out->medianUs, &out->p99Us, &out->worstUs, &out->missed) == 5;
}

bool McuSim::ParseBurst(const std::string& text, McuBurst* out)
{
    return std::sscanf(text.c_str(), "burst sent=%u bytes=%llu ms=%lf", &out->sent, &out->bytes, &out->ms) == 3;
}

std::vector<std::string> McuTexts(const std::vector<McuEntry>& entries, const std::string& prefix)
{
    std::vector<std::string> texts;
    for (const McuEntry& e : entries)
        if (e.text.compare(0, prefix.size(), prefix) == 0)
            texts.push_back(e.text);
    return texts;
}
