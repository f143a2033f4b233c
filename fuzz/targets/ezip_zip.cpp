// The ZIP archive inside a package, read as the study's server reads it:
// the end record, the central directory, every local header, and every
// entry inflated and checked (nothing is written).
//
// Input: the archive.
#include <cstdint>
#include <string>

#include "tools/ezip/ZipArchive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    study::ZipArchive zip;
    std::string error;
    if (zip.Parse(study::ByteView(data, size), &error))
        zip.Extract({}, &error);
    else if (error.empty())
        __builtin_trap();
    return 0;
}
