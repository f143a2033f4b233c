// The on-board NVRAM image as the control loads it from the configuration
// block (and, when the block's image is foreign, from the simulation file),
// every field read back as the script sees it, a change committed, and the
// block's provisioned key blobs.
//
// Input: the block image (what is missing reads as erased flash); bytes past
// the block's 4660 are the simulation file.
#include <cstdint>
#include <vector>

#include "fuzz/shim/Win32Shim.h"
#include "session/FlashAccess.h"
#include "session/NVRAMBoard.h"

namespace {
const wchar_t* const kKeys[] = {L"DEVICEID", L"PrevSessionDateTime", L"NextPictureIndex", L"AnonymousName",
                                L"other"};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    shim::ResetFiles();
    const size_t blockBytes = size < kConfigBlockBytes ? size : kConfigBlockBytes;
    shim::PutFile(kFlashBlockFile, data, blockBytes);
    if (size > kConfigBlockBytes)
        shim::PutFile(kSimNVRAMFile, data + kConfigBlockBytes, size - kConfigBlockBytes);

    CNVRAMBoard nvram;
    if (nvram.Open()) {
        SYSTEMTIME when;
        nvram.NVReadPrevSessionDateTime(&when);
        for (const wchar_t* key : kKeys)
            delete[] nvram.NVParameterRead(key, L"default");
        BYTE blob[kKeyBlobBytes];
        DWORD length = sizeof(blob);
        nvram.GetKeyBlob(blob, &length);
        nvram.NVParameterWrite(L"NextPictureIndex", L"7");
        nvram.Commit();
        nvram.Close();
    }

    DWORD lengths[3] = {0, 0, 0};
    if (GetFlashKeyBlobs(nullptr, &lengths[0], nullptr, &lengths[1], nullptr, &lengths[2])) {
        std::vector<BYTE> a(lengths[0]), b(lengths[1]), c(lengths[2]);
        GetFlashKeyBlobs(a.data(), &lengths[0], b.data(), &lengths[1], c.data(), &lengths[2]);
    }
    return 0;
}
