// sZip, the entry point of MarrowbyGzip.dll (contract in MarrowbyGzip.h).
#include "compress/MarrowbyGzip.h"

#include <algorithm>
#include <cwchar>

#include "compress/Owned.h"
#include "compress/ZipWriter.h"

using marrowby::CFile;
using marrowby::CFind;
using marrowby::CHeapArray;
using marrowby::CZipWriter;

namespace {

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

// text + suffix, zero-terminated.
bool Join(CHeapArray<wchar_t>& out, const wchar_t* text, size_t length, const wchar_t* suffix)
{
    return out.Resize(0) && out.Append(text, length) && out.Append(suffix, wcslen(suffix) + 1);
}

bool FullPath(const wchar_t* path, CHeapArray<wchar_t>& full)
{
    DWORD n = GetFullPathNameW(path, 0, nullptr, nullptr);
    if (n == 0 || !full.Resize(n))
        return false;
    DWORD m = GetFullPathNameW(path, n, full.Data(), nullptr);
    return m != 0 && m < n;
}

bool SamePath(const wchar_t* a, const wchar_t* b)
{
    return CompareStringOrdinal(a, -1, b, -1, TRUE) == CSTR_EQUAL;
}

// The names of the regular files the pattern matches, as zero-terminated
// strings one after the other in names, their starts in starts. A pattern
// whose files or folder do not exist matches nothing.
int ListMatches(const wchar_t* pattern, CHeapArray<wchar_t>& names, CHeapArray<size_t>& starts)
{
    WIN32_FIND_DATAW found;
    CFind find(FindFirstFileW(pattern, &found));
    if (!find.Valid()) {
        DWORD error = GetLastError();
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || error == ERROR_NO_MORE_FILES
                   ? SZIP_OK
                   : SZIP_E_SOURCE;
    }
    do {
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            continue;
        if (!starts.Push(names.Size()) || !names.Append(found.cFileName, wcslen(found.cFileName) + 1))
            return SZIP_E_MEMORY;
    } while (FindNextFileW(find.Get(), &found));
    return GetLastError() == ERROR_NO_MORE_FILES ? SZIP_OK : SZIP_E_SOURCE;
}

int Pack(const wchar_t* pattern, const wchar_t* destination, int level)
{
    // The destination needs a file name; its temporary file sits beside it.
    size_t destLength = wcslen(destination);
    wchar_t last = destination[destLength - 1];
    if (IsSeparator(last) || last == L':')
        return SZIP_E_ARGUMENTS;
    CHeapArray<wchar_t> destFull, tempFull;
    if (!FullPath(destination, destFull))
        return SZIP_E_DESTINATION;
    if (!Join(tempFull, destFull.Data(), wcslen(destFull.Data()), L".tmp"))
        return SZIP_E_MEMORY;

    CHeapArray<wchar_t> names;
    CHeapArray<size_t> starts;
    int rc = ListMatches(pattern, names, starts);
    if (rc != SZIP_OK)
        return rc;
    std::sort(starts.Data(), starts.Data() + starts.Size(),
              [&names](size_t a, size_t b) { return wcscmp(names.Data() + a, names.Data() + b) < 0; });

    CZipWriter writer;
    rc = writer.Begin(tempFull.Data(), level);
    if (rc != SZIP_OK)
        return rc;

    // A matched file is named by the pattern's folder (up to its last
    // separator or drive colon) and the file's name.
    size_t folderLength = wcslen(pattern);
    while (folderLength > 0 && !IsSeparator(pattern[folderLength - 1]) && pattern[folderLength - 1] != L':')
        --folderLength;
    CHeapArray<wchar_t> path, full;
    for (size_t i = 0; i < starts.Size(); ++i) {
        const wchar_t* name = names.Data() + starts[i];
        if (!Join(path, pattern, folderLength, name))
            return SZIP_E_MEMORY;
        if (!FullPath(path.Data(), full))
            return SZIP_E_SOURCE;
        if (SamePath(full.Data(), destFull.Data()) || SamePath(full.Data(), tempFull.Data()))
            continue;
        CFile source(CreateFileW(path.Data(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
        BY_HANDLE_FILE_INFORMATION info;
        if (!source.Valid() || !GetFileInformationByHandle(source.Get(), &info))
            return SZIP_E_SOURCE;
        if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || writer.IsTemporary(info))
            continue;
        rc = writer.AddFile(source.Get(), info, name);
        if (rc != SZIP_OK)
            return rc;
    }
    return writer.Finish(destFull.Data());
}

}  // namespace

extern "C" int WINAPI sZip(BSTR pattern, BSTR destination, DWORD reserved, DWORD level)
{
    if (pattern == nullptr || destination == nullptr || pattern[0] == L'\0' || destination[0] == L'\0' ||
        reserved != 0 || level > 9)
        return SZIP_E_ARGUMENTS;
    return Pack(pattern, destination, static_cast<int>(level));
}

// The library's entry point. It is linked without the C runtime's start-up
// code: nothing here needs initialising, and that code would give the DLL a
// static thread-local storage directory, which the platform's loader must
// then patch into every running thread at each load and unload. The library
// is loaded and freed at every session end, in a host whose threads come and
// go; a DLL without TLS keeps that path out of the loader altogether.
extern "C" BOOL WINAPI MarrowbyDllEntry(HINSTANCE, DWORD, LPVOID)
{
    return TRUE;
}
