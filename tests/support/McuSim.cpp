#include "tests/support/McuSim.h"

#include <cstdio>
#include <sstream>

namespace {

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

}  // namespace

bool McuSim::Running()
{
    return McuSim().m_channel.Running();
}

bool McuSim::Send(const std::string& command)
{
    return m_channel.Send(command);
}

bool McuSim::Sync(std::vector<McuEntry>* entries, DWORD timeoutMs)
{
    return m_channel.Sync(entries, Parse, timeoutMs);
}

bool McuSim::Wait(const std::string& prefix, std::string* text, DWORD timeoutMs)
{
    auto begins = [&prefix](const std::string& line) {
        return Parse(line).text.compare(0, prefix.size(), prefix) == 0;
    };
    std::string raw;
    if (!m_channel.WaitLine(begins, &raw, timeoutMs))
        return false;
    if (text != nullptr)
        *text = Parse(raw).text;
    return true;
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
