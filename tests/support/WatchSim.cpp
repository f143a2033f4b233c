#include "tests/support/WatchSim.h"

#include <cstdio>

#include "sim/WatchMemory.h"

bool WatchSim::Running()
{
    return WatchSim().m_channel.Running();
}

bool WatchSim::Send(const std::string& command)
{
    return m_channel.Send(command);
}

bool WatchSim::Sync(std::vector<WatchEntry>* entries, DWORD timeoutMs)
{
    return m_channel.Sync(entries, SimChannel::ParseEntry, timeoutMs);
}

bool WatchSim::Wait(const std::string& prefix, std::string* text, DWORD timeoutMs)
{
    return m_channel.WaitText(prefix, text, timeoutMs);
}

bool WatchSim::Commands(std::vector<std::string>* commands, DWORD timeoutMs)
{
    std::vector<WatchEntry> entries;
    if (!Sync(&entries, timeoutMs))
        return false;
    commands->clear();
    const std::string prefix = "command: ";
    for (const std::string& text : SimTexts(entries, prefix))
        commands->push_back(text.substr(prefix.size()));
    return true;
}

bool WatchSim::ParseBlock(const std::string& text, WatchBlock* out)
{
    return std::sscanf(text.c_str(), "block a=0x%x bytes=%u ms=%lf wire_ms=%lf", &out->address, &out->bytes,
                       &out->ms, &out->wireMs) == 4;
}

bool WatchSim::ParseStats(const std::string& text, WatchStats* out)
{
    return std::sscanf(text.c_str(),
                       "stats commands=%u blocks=%u host_bytes=%llu watch_bytes=%llu wire_ms=%lf elapsed_ms=%lf",
                       &out->commands, &out->blocks, &out->hostBytes, &out->watchBytes, &out->wireMs,
                       &out->elapsedMs) == 6;
}

std::string WatchSim::Block(uint32_t logAddress, uint32_t blockAddress)
{
    std::string block(watchsim::kBlockBytes, '\0');
    watchsim::ReadBlock(watchsim::RecordedBytesFor(logAddress), blockAddress,
                        reinterpret_cast<uint8_t*>(block.data()));
    return block;
}

std::string WatchSim::Memory(uint32_t logAddress, uint32_t blocks)
{
    std::string memory;
    for (uint32_t b = 0; b < blocks; ++b)
        memory += Block(logAddress, b * (watchsim::kBlockBytes / watchsim::kUnitBytes));
    return memory;
}
