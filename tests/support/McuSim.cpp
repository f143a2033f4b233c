#include "tests/support/McuSim.h"

#include <cstdio>

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
    return m_channel.Sync(entries, SimChannel::ParseEntry, timeoutMs);
}

bool McuSim::Wait(const std::string& prefix, std::string* text, DWORD timeoutMs)
{
    return m_channel.WaitText(prefix, text, timeoutMs);
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
    return SimTexts(entries, prefix);
}
