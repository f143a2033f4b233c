#include "tests/support/PackageDisk.h"

#include "tests/support/ControlTestKit.h"

std::string StudyBlock()
{
    return ReadFileBytes(WindowsPathFromEnv(L"BRENNOCK_STUDY") + L"\\flashblock.bin");
}

bool InstallCompressLibrary(bool present)
{
    const wchar_t kInstalled[] = L"\\Device Software\\MarrowbyGzip.dll";
    if (!present) {
        DeleteFileW(kInstalled);
        return GetFileAttributesW(kInstalled) == INVALID_FILE_ATTRIBUTES;
    }
    // Built next to the control.
    std::wstring built = BuiltDllPath();
    built = built.substr(0, built.find_last_of(L'\\') + 1) + L"MarrowbyGzip.dll";
    CreateDirectoryW(L"\\Device Software", nullptr);
    return CopyFileW(built.c_str(), kInstalled, FALSE) != 0;
}

void KeepForChecks(const std::wstring& diskPath, const std::wstring& name)
{
    const std::wstring out = WindowsPathFromEnv(L"BRENNOCK_PACKAGE_OUT");
    if (out.empty())
        return;
    CreateDirectoryW(out.c_str(), nullptr);
    CopyFileW(diskPath.c_str(), (out + L"\\" + name).c_str(), FALSE);
}

DWORD Field32(const std::string& bytes, size_t offset)
{
    DWORD value = 0xFFFFFFFF;  // (little-endian, as the device)
    return offset + 4 <= bytes.size() ? (memcpy(&value, bytes.data() + offset, 4), value) : value;
}
