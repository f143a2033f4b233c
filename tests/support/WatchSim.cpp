#include "tests/support/WatchSim.h"

#include <cstdio>

#include "sim/WatchMemory.h"

bool WatchSim::ParseStats(const std::string& text, WatchStats* out)
{
    return std::sscanf(text.c_str(),
                       "stats commands=%u blocks=%u host_bytes=%llu watch_bytes=%llu wire_ms=%lf elapsed_ms=%lf",
                       &out->commands, &out->blocks, &out->hostBytes, &out->watchBytes, &out->wireMs,
                       &out->elapsedMs) == 6;
}

std::string WatchSim::Memory(uint32_t logAddress, uint32_t blocks)
{
    std::string memory(blocks * watchsim::kBlockBytes, '\0');
    for (uint32_t b = 0; b < blocks; ++b)
        watchsim::ReadBlock(watchsim::RecordedBytesFor(logAddress), b * (watchsim::kBlockBytes / watchsim::kUnitBytes),
                            reinterpret_cast<uint8_t*>(memory.data()) + b * watchsim::kBlockBytes);
    return memory;
}
