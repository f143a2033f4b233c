// A ".trem" watch data file through the study's decoder and its CSV.
#include <cstdint>
#include <string>

#include "tools/trem/TremDecoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string file(reinterpret_cast<const char*>(data), size);
    tools::trem::Trem trem;
    std::string error;
    if (tools::trem::Decode(file, &trem, &error)) {
        if (trem.memory.size() != tools::trem::BlocksFor(trem.logAddress) * tools::trem::kBlockBytes)
            __builtin_trap();
        volatile size_t csv = tools::trem::ParameterCsv(trem).size();
        (void)csv;
    } else if (error.empty()) {
        __builtin_trap();
    }
    return 0;
}
