// The folders and fixed files of a session's data on the device disk.
#pragma once

// The session's temporary files, emptied at every session start and end.
inline constexpr wchar_t kTempFolder[] = L"\\Device Temp";
// The permanent folder ("Device Data" under "\Hard Disk") leaves the device
// on the USB flash store.
inline constexpr wchar_t kHardDisk[] = L"\\Hard Disk";
inline constexpr wchar_t kPermFolderName[] = L"Device Data";
inline constexpr wchar_t kPermFolder[] = L"\\Hard Disk\\Device Data";
// Where the session's archive is built before it is encrypted.
inline constexpr wchar_t kCompressFile[] = L"\\compress.zip";
// The study's manifest, packed with every session.
inline constexpr wchar_t kManifestFile[] = L"\\Hard Disk\\Manifest.txt";
// The compression library, loaded only while a session is packed.
inline constexpr wchar_t kCompressLibrary[] = L"\\Device Software\\MarrowbyGzip.dll";
