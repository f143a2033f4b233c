// Writes a plain ZIP archive into a temporary file, one entry per source
// file, and renames it over the destination once it is complete. See
// MarrowbyGzip.h for the archive's format and limits.
#pragma once

#include <windows.h>

#include <zlib.h>

#include "compress/Owned.h"

namespace marrowby {

class CZipWriter {
public:
    CZipWriter() = default;
    // A temporary file that was not renamed over the destination is closed and deleted.
    ~CZipWriter();
    CZipWriter(const CZipWriter&) = delete;
    CZipWriter& operator=(const CZipWriter&) = delete;

    // Creates (or truncates) the temporary file tempPath and prepares deflate
    // at level (0 stores). Returns an SZipResult.
    int Begin(const wchar_t* tempPath, int level);
    // Whether info (of an open source) is the temporary file itself.
    bool IsTemporary(const BY_HANDLE_FILE_INFORMATION& info) const;
    // Appends the entry name for the open source, reading it to its end once.
    int AddFile(HANDLE source, const BY_HANDLE_FILE_INFORMATION& info, const wchar_t* name);
    // Writes the central directory and the end record, flushes, closes and
    // renames the temporary file over destination.
    int Finish(const wchar_t* destination);

private:
    ULONGLONG Position() const { return m_flushed + m_used; }
    bool Put(const void* data, size_t size);
    bool Flush();
    bool Patch(ULONGLONG offset, const BYTE* data, size_t size);
    int CopyData(HANDLE source, bool deflated, DWORD& crc, ULONGLONG& size);

    CFile m_file;
    CHeapArray<wchar_t> m_tempPath;
    bool m_created = false;
    bool m_finished = false;
    bool m_haveTempInfo = false;
    BY_HANDLE_FILE_INFORMATION m_tempInfo{};

    int m_level = 6;
    z_stream m_zs{};
    bool m_zsReady = false;

    CHeapArray<BYTE> m_in;   // one chunk of a source
    CHeapArray<BYTE> m_out;  // archive bytes not yet written to the file
    size_t m_used = 0;       // bytes of m_out in use
    ULONGLONG m_flushed = 0; // archive bytes already in the file

    CHeapArray<BYTE> m_central;  // the central directory, built as entries are added
    DWORD m_entries = 0;
};

}  // namespace marrowby
