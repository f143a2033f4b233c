// MarrowbyGzip.dll: the device's compression library. It packs the files of a
// session into one ZIP archive for the session-end packaging (the test
// manager's CompressTempFiles). The control loads it at run time:
//
//   HMODULE h = LoadLibraryW(L"\\Device Software\\MarrowbyGzip.dll");
//   auto zip = reinterpret_cast<SZipProc>(GetProcAddress(h, "sZip"));
//   int rc = zip(SysAllocString(L"\\Device Temp\\*"), SysAllocString(L"\\compress.zip"), 0, 6);
//
// The contract:
//
// int WINAPI sZip(BSTR pattern, BSTR destination, DWORD reserved, DWORD level)
//   The library's only export (undecorated, C linkage).
//   pattern      a FindFirstFileW wildcard (for example \Device Temp\*). Every
//                regular file it matches is packed; directories are skipped,
//                and so are the destination and the library's temporary file
//                should they match. An entry is named by the file's name only.
//                Entries are written in ordinal order of their names. A
//                pattern that matches nothing (also one whose folder does not
//                exist) gives a valid empty archive.
//   destination  the archive to create or replace (for example \compress.zip).
//   reserved     must be 0.
//   level        the deflate level, 0 to 9 (the control passes 6); 0 stores.
//   Both strings are read up to their terminating zero (a BSTR or a plain wide
//   string). Paths are Windows paths, drive-relative ones included.
//
// Returns SZIP_OK (0) or one of the small codes below. Nothing half-written is
// ever left: the archive is written to "<destination>.tmp" in the
// destination's folder, flushed, and renamed over the destination
// (MoveFileExW with MOVEFILE_REPLACE_EXISTING). On any failure the temporary
// file is deleted and an existing destination is left untouched.
//
// The archive: a plain ZIP (no ZIP64). Each entry has a local header, its data
// deflated (method 8, raw deflate from zlib) or stored (method 0: level 0 and
// empty files), CRC-32 and sizes, the DOS date and time of the file's last
// write in local time, and the extended-timestamp extra field (0x5455) with
// the UTC modification time; then the central directory and its end record.
// Names are UTF-8, with general-purpose flag bit 11 set when a name is not
// plain ASCII. A file of 4 GiB - 1 bytes or more, an archive that would reach
// that size, or 65535 entries or more cannot be written as a plain ZIP
// (0xFFFFFFFF and 0xFFFF mean ZIP64 there): SZIP_E_TOO_LARGE.
//
// A source is opened for reading with read sharing only, so a file another
// program holds open for writing (or without sharing) is unreadable rather
// than packed half-written. Each file is read once, in 256 KiB chunks; the
// local header is patched with the CRC and sizes after its data.
//
// No exception or C++ runtime state crosses the boundary: the library is
// built without exceptions on zlib and the Win32 API only, linked statically,
// and needs nothing but system DLLs. Calls may run in parallel on different
// destinations; two calls on one destination at the same time make one of
// them fail with SZIP_E_DESTINATION (its temporary file is in use).
#pragma once

#include <windows.h>
#include <wtypes.h>

enum SZipResult : int {
    SZIP_OK = 0,
    SZIP_E_ARGUMENTS = 1,    // a null or empty string, a destination without a file name,
                             // reserved not 0, level above 9
    SZIP_E_SOURCE = 2,       // a matched file cannot be opened or read, or the folder cannot be listed
    SZIP_E_DESTINATION = 3,  // the temporary file cannot be created or written (a missing folder,
                             // a full disk, ...), or cannot be renamed over the destination
    SZIP_E_TOO_LARGE = 4,    // beyond a plain ZIP: see above
    SZIP_E_MEMORY = 5,       // out of memory (or zlib could not start)
};

typedef int(WINAPI* SZipProc)(BSTR pattern, BSTR destination, DWORD reserved, DWORD level);

extern "C" int WINAPI sZip(BSTR pattern, BSTR destination, DWORD reserved, DWORD level);
