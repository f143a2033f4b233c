// A ".motr" sensor recording through the study's decoder and both CSVs.
#include <cstdint>
#include <string>
#include <vector>

#include "tools/motr/MotrDecoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<uint8_t> file(data, data + size);
    tools::motr::MotrDecoder decoder;
    tools::motr::Recording recording;
    std::string error;
    if (decoder.Decode(file, &recording, &error)) {
        volatile size_t csv = tools::motr::MotrDecoder::Csv(recording).size() +
                              tools::motr::MotrDecoder::HeaderCsv(recording).size();
        (void)csv;
    } else if (error.empty()) {
        __builtin_trap();
    }
    return 0;
}
