// Provisioning the device disk a test runs on: the params file, the flash
// block image, the NVRAM simulation file.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

// A params file with every key the control checks: sessions weekly from
// Mon 02 Feb 2004 09:00 for 2 hours, 2 makeup days, daily practice sessions
// until Mon 09 Feb 2004.
extern const char kBenchParams[];

bool WriteDiskFile(const std::wstring& path, const std::string& bytes);
inline void DeleteDiskFile(const std::wstring& path) { DeleteFileW(path.c_str()); }
inline bool DiskFileExists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }
// Files only, not folders, in the order listed.
std::vector<std::wstring> FilesIn(const std::wstring& folder);

// params.txt as given, and a device whose flash was never written and that
// has no simulation file: the NVRAM comes up with its defaults.
void ProvisionDisk(const std::string& params = kBenchParams);

std::string NVRAMImage(DWORD deviceId, ULONGLONG prevSession, short pictureIndex, const std::string& keyBlob,
                       BYTE version = 2, const char* magic = "QVMR");
std::string ConfigBlock(const std::string& nvram);
