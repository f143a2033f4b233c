#include "session/FlashAccess.h"

#include <cstring>
#include <string>

#include "diag/Assert.h"
#include "diag/DebugOut.h"
#include "session/FlashProgrammer.h"
#include "session/MappedFlash.h"

const wchar_t kFlashBlockFile[] = L"\\Hard Disk\\flashblock.bin";

namespace {

IConfigBlockStore* g_installed = nullptr;

DWORD ReadLE32(const BYTE* p)
{
    return static_cast<DWORD>(p[0]) | (static_cast<DWORD>(p[1]) << 8) |
           (static_cast<DWORD>(p[2]) << 16) | (static_cast<DWORD>(p[3]) << 24);
}

bool ValidNVRAMRange(int offset, int length)
{
    return offset >= 0 && length >= 1 && offset + length <= static_cast<int>(kNVRAMAreaBytes);
}

// Reads the block and checks the boot loader's magic; a block without it is
// still used, the boot loader having its own defaults for the rest.
bool ReadConfigBlock(BYTE* block)
{
    if (!FlashStore()->ReadBlock(block))
        return false;
    if (ReadLE32(block + kConfigMagicWord * 4) != kConfigMagic)
        DebugOut(L"Bad eboot config magic number\r\n");
    return true;
}

// One key blob: its length replaces *capacity; the bytes are copied when the
// buffer is big enough. A length that would run past the end of the block is
// a damaged block: the blob reads as empty.
void ReadKeyBlob(const BYTE* block, DWORD offset, BYTE* buffer, DWORD* capacity)
{
    DWORD length = ReadLE32(block + offset);
    if (length > kConfigBlockBytes - offset - 4)
        length = 0;
    if (buffer != nullptr && *capacity >= length)
        memcpy(buffer, block + offset + 4, length);
    *capacity = length;
}

}  // namespace

// ---------------------------------------------------------------------------
// The desktop's block image

CFileBlockStore::CFileBlockStore(const wchar_t* path) : m_path(path) {}

bool CFileBlockStore::ReadBlock(BYTE* block)
{
    // What is not in the file reads as erased flash.
    memset(block, 0xFF, kConfigBlockBytes);
    HANDLE file = CreateFileW(m_path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
    }
    DWORD got = 0;
    const BOOL ok = ReadFile(file, block, kConfigBlockBytes, &got, nullptr);
    CloseHandle(file);
    return ok != FALSE;
}

// The new image goes to a file beside the old one and then takes its name,
// so a process killed in the middle leaves the old block or the new one,
// never a block cut short (which would read as erased flash past the cut).
bool CFileBlockStore::WriteBlock(const BYTE* block)
{
    std::wstring next(m_path);
    next += L".new";
    HANDLE file = CreateFileW(next.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    DWORD written = 0;
    const BOOL ok = WriteFile(file, block, kConfigBlockBytes, &written, nullptr) &&
                    FlushFileBuffers(file);
    CloseHandle(file);
    if (!ok || written != kConfigBlockBytes ||
        !MoveFileExW(next.c_str(), m_path, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        DeleteFileW(next.c_str());
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Store selection

IConfigBlockStore* FlashStore()
{
    if (g_installed != nullptr)
        return g_installed;
#if defined(_WIN32_WCE)
    static CMappedFlashBus bus;
    static CFlashProgrammer flash(&bus);
    return &flash;
#else
    static CFileBlockStore image(kFlashBlockFile);
    return &image;
#endif
}

IConfigBlockStore* FlashStoreInstall(IConfigBlockStore* store)
{
    IConfigBlockStore* previous = g_installed;
    g_installed = store;
    return previous;
}

// ---------------------------------------------------------------------------
// NVRAM area and key blobs

bool GetNVRAM(int offset, int length, BYTE* buffer)
{
    ASSERT(buffer != nullptr);
    if (buffer == nullptr || !ValidNVRAMRange(offset, length))
        return false;
    BYTE block[kConfigBlockBytes];
    if (!ReadConfigBlock(block))
        return false;
    memcpy(buffer, block + kNVRAMAreaOffset + offset, static_cast<size_t>(length));
    return true;
}

bool PutNVRAM(int offset, int length, const BYTE* buffer)
{
    ASSERT(buffer != nullptr);
    if (buffer == nullptr || !ValidNVRAMRange(offset, length))
        return false;
    BYTE block[kConfigBlockBytes];
    if (!ReadConfigBlock(block))
        return false;
    memcpy(block + kNVRAMAreaOffset + offset, buffer, static_cast<size_t>(length));
    return FlashStore()->WriteBlock(block);
}

bool GetFlashKeyBlobs(BYTE* authorityPublic, DWORD* authorityPublicLength, BYTE* devicePrivate,
                      DWORD* devicePrivateLength, BYTE* serverPublic, DWORD* serverPublicLength)
{
    BYTE block[kConfigBlockBytes];
    if (!ReadConfigBlock(block))
        return false;
    if (memcmp(block + kKeyTagOffset, "ZOLW", 4) != 0)
        return false;
    bool asked = false;
    if (authorityPublicLength != nullptr) {
        ReadKeyBlob(block, kAuthorityPublicKeyOffset, authorityPublic, authorityPublicLength);
        asked = true;
    }
    if (devicePrivateLength != nullptr) {
        ReadKeyBlob(block, kDevicePrivateKeyOffset, devicePrivate, devicePrivateLength);
        asked = true;
    }
    if (serverPublicLength != nullptr) {
        ReadKeyBlob(block, kServerPublicKeyOffset, serverPublic, serverPublicLength);
        asked = true;
    }
    return asked;
}
