// The device disk of the packaging tests: a provisioned study's key block,
// the compression library, and a place to leave packages for the checks
// that run after the program (tests/scripts/package_test.sh).
#pragma once

#include <windows.h>

#include <string>

// BRENNOCK_STUDY/flashblock.bin
std::string StudyBlock();
// Installs the compression library at "\Device Software\MarrowbyGzip.dll",
// or removes it.
bool InstallCompressLibrary(bool present);
// Copies a disk file into the folder the shell checks read (BRENNOCK_PACKAGE_OUT)
// under the given name; does nothing when the variable is unset.
void KeepForChecks(const std::wstring& diskPath, const std::wstring& name);

DWORD Field32(const std::string& bytes, size_t offset);
