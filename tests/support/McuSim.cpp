#include "tests/support/McuSim.h"

#include <cstdio>

bool McuSim::ParseLatency(const std::string& text, McuLatency* out)
{
    return std::sscanf(text.c_str(), "latency n=%u median_us=%lf p99_us=%lf worst_us=%lf missed=%u", &out->n,
                       &out->medianUs, &out->p99Us, &out->worstUs, &out->missed) == 5;
}

bool McuSim::ParseBurst(const std::string& text, McuBurst* out)
{
    return std::sscanf(text.c_str(), "burst sent=%u bytes=%llu ms=%lf", &out->sent, &out->bytes, &out->ms) == 3;
}
