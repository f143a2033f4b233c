#include "tests/support/DeviceDisk.h"

#include "session/FlashAccess.h"
#include "session/NVRAMBoard.h"

const char kBenchParams[] =
    "# bench device\r\n"
    "FirstSessionDateTime=Mon 02 Feb 2004 09:00:00\r\n"
    "SessionWindowHours=2\r\n"
    "EndPracticeDate=Mon 09 Feb 2004\r\n"
    "RealTestIntervalDays=7\r\n"
    "PracticeTestIntervalDays=1\r\n"
    "MakeupDays=2\r\n"
    "MinFreeSpaceMB=50\r\n"
    "Debug=0\r\n"
    "StudySite=Lab 3  \r\n";

bool WriteDiskFile(const std::wstring& path, const std::string& bytes)
{
    CreateDirectoryW(L"\\Hard Disk", nullptr);
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    DWORD written = 0;
    const BOOL ok = WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(h);
    return ok && written == bytes.size();
}

std::vector<std::wstring> FilesIn(const std::wstring& folder)
{
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return names;
    do {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            names.push_back(found.cFileName);
    } while (FindNextFileW(search, &found));
    FindClose(search);
    return names;
}

void ProvisionDisk(const std::string& params)
{
    WriteDiskFile(L"\\Hard Disk\\params.txt", params);
    DeleteDiskFile(kFlashBlockFile);
    DeleteDiskFile(kSimNVRAMFile);
    DeleteDiskFile(L"\\Hard Disk\\SrvrInfo.bin");
}

std::string NVRAMImage(DWORD deviceId, ULONGLONG prevSession, short pictureIndex, const std::string& keyBlob,
                       BYTE version, const char* magic)
{
    std::string image(magic, 4);
    image += static_cast<char>(version);
    for (int shift = 24; shift >= 0; shift -= 8)
        image += static_cast<char>(deviceId >> shift);
    for (int shift = 56; shift >= 0; shift -= 8)
        image += static_cast<char>(prevSession >> shift);
    image += static_cast<char>(static_cast<WORD>(pictureIndex) >> 8);
    image += static_cast<char>(pictureIndex);
    image += keyBlob.substr(0, 16);
    image.resize(kNVRAMImageBytes, '\0');
    return image;
}

std::string ConfigBlock(const std::string& nvram)
{
    std::string block(kConfigBlockBytes, '\xFF');
    block.replace(kConfigMagicWord * 4, 4, "\x00\x20\x23\x11", 4);
    block.replace(kNVRAMAreaOffset, nvram.size(), nvram);
    return block;
}
