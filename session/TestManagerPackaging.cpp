// CTestManager: packing a session's files for the server at its normal end.
//
// The files the session left in "\Device Temp" (with a copy of the study's
// manifest) are zipped by the compression library into "\compress.zip",
// which is then encrypted and signed into the permanent folder as one
// ".ezip". A device without the library copies the files over as they are.
#include "session/TestManager.h"

#include <oleauto.h>

#include <cwchar>

#include "compress/MarrowbyGzip.h"
#include "diag/Assert.h"
#include "diag/DebugOut.h"
#include "session/SessionFolders.h"

namespace {

const wchar_t kWarningNoLibrary[] =
    L"WARNING: compression dll not found...copying uncompressed, non-encrypted user files to USB Flash.";
// What the library is asked for beyond the files: its reserved argument and
// the deflate level.
constexpr DWORD kZipReserved = 0;
constexpr DWORD kZipLevel = 6;

// "<folder>\<name>" into path (room characters); false when it does not fit.
bool JoinPath(wchar_t* path, size_t room, const wchar_t* folder, const wchar_t* name)
{
    const int n = swprintf(path, room, L"%ls\\%ls", folder, name);
    return n > 0 && static_cast<size_t>(n) < room;
}

}  // namespace

bool CTestManager::PackageSession()
{
    wchar_t* tempName = MakeTempFilename(L"ALLDATA", L".zip");
    if (tempName == nullptr) {
        DebugOut(L"SessionEnd: MakeTempFilename failed.\r\n");
        return false;
    }
    // The archive is built at the root instead; the name only uses up its
    // sequence number.
    delete[] tempName;
    wchar_t* destination = MakePermFilename(L".ezip");
    if (destination == nullptr) {
        DebugOut(L"SessionEnd: MakePermFilename failed.\r\n");
        return false;
    }

    wchar_t manifestCopy[MAX_PATH];
    if (JoinPath(manifestCopy, MAX_PATH, kTempFolder, L"Manifest.txt"))
        CopyFileW(kManifestFile, manifestCopy, FALSE);
    DeleteFileW(kCompressFile);

    bool packaged = false;
    bool noDll = false;
    if (CompressTempFiles(kCompressFile, &noDll)) {
        packaged = EncryptFile(kCompressFile, destination);
        if (!packaged)
            DebugOut(L"Encryption failed.\r\n");
    } else if (noDll) {
        AssertWrite(BRN_WFILE, static_cast<short>(__LINE__), kWarningNoLibrary);
        packaged = CopyTempFiles();
    } else {
        DebugOut(L"Compression failed.\r\n");
    }
    delete[] destination;
    return packaged;
}

bool CTestManager::CompressTempFiles(const wchar_t* destZip, bool* pNoDll)
{
    if (pNoDll == nullptr) {
        DebugOut(L"CompressTempFiles: null pNoDll name.\r\n");
        return false;
    }
    if (destZip == nullptr) {
        DebugOut(L"CompressTempFiles: null destZip name.\r\n");
        return false;
    }
    *pNoDll = false;
    HMODULE library = LoadLibraryW(kCompressLibrary);
    if (library == nullptr) {
        if (GetLastError() == ERROR_MOD_NOT_FOUND)
            *pNoDll = true;
        else
            DebugOut(L"CompressTempFiles: LoadLibrary failed.\r\n");
        return false;
    }

    bool compressed = false;
    wchar_t pattern[MAX_PATH];
    swprintf(pattern, MAX_PATH, L"%ls\\%ls\\*", L"", L"Device Temp");
    BSTR source = SysAllocString(pattern);
    BSTR destination = SysAllocString(destZip);
    if (source == nullptr || destination == nullptr) {
        DebugOut(L"CompressTempFiles: SysAllocString failed.\r\n");
    } else {
        SZipProc sZip = reinterpret_cast<SZipProc>(GetProcAddress(library, "sZip"));
        if (sZip == nullptr)
            DebugOut(L"CompressTempFiles: failed to find szip entry point.\r\n");
        else if (sZip(source, destination, kZipReserved, kZipLevel) != 0)
            DebugOut(L"CompressTempFiles: sZip failed.\r\n");
        else
            compressed = true;
    }
    SysFreeString(source);
    SysFreeString(destination);
    FreeLibrary(library);
    return compressed;
}

bool CTestManager::CopyTempFiles()
{
    wchar_t pattern[MAX_PATH];
    swprintf(pattern, MAX_PATH, L"%ls\\%ls\\*", L"", L"Device Temp");
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW(pattern, &found);
    if (search == INVALID_HANDLE_VALUE)
        return true;  // no folder, or nothing in it
    bool copied = true;
    do {
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            continue;
        wchar_t from[MAX_PATH];
        wchar_t to[MAX_PATH];
        swprintf(from, MAX_PATH, L"%ls\\%ls\\%ls", L"", L"Device Temp", found.cFileName);
        swprintf(to, MAX_PATH, L"%ls\\%ls\\%ls", kHardDisk, kPermFolderName, found.cFileName);
        if (!CopyFileW(from, to, FALSE)) {
            DebugOut(L"CopyTempFiles: CopyFile failed.\r\n");
            copied = false;
            break;
        }
    } while (FindNextFileW(search, &found));
    FindClose(search);
    return copied;
}

bool CTestManager::EncryptFile(const wchar_t* fromFile, const wchar_t* toFile)
{
    if (fromFile == nullptr) {
        DebugOut(L"EncryptFile: null fromFile.\r\n");
        ASSERT(false);
        return false;
    }
    if (toFile == nullptr) {
        DebugOut(L"EncryptFile: null toFile.\r\n");
        ASSERT(false);
        return false;
    }
    if (!::EncryptFile(fromFile, toFile)) {
        ASSERT(false);
        DebugOut(L"EncryptFile: File encryption and signing failed.\r\n");
    }
    // The session's end does not fail on a failed encryption.
    return true;
}

bool CTestManager::ClearTempFiles(bool deleteThem)
{
    wchar_t pattern[MAX_PATH];
    swprintf(pattern, MAX_PATH, L"%ls\\*", kTempFolder);
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW(pattern, &found);
    if (search == INVALID_HANDLE_VALUE)
        return true;
    do {
        if (!deleteThem || (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            continue;
        wchar_t path[MAX_PATH];
        if (!JoinPath(path, MAX_PATH, kTempFolder, found.cFileName) || !DeleteFileW(path))
            DebugOut(L"Warning: DeleteFile failed.\r\n");
    } while (FindNextFileW(search, &found));
    FindClose(search);
    return true;
}
