// CWaveFile: RIFF/WAVE sound files, read for playback and written for
// recordings.
//
// Only the RIFF container, the "fmt " chunk and "data" chunks are known; the
// samples pass through untouched, except WriteDecimated, which keeps every
// n-th sample of 16-bit mono sound. A written file is always
//   "RIFF" size "WAVE" "fmt " F <format, F bytes> "data" D <D sample bytes>
// with F = 18 for PCM (the extra-size field is written too) and 18 + extra
// size otherwise; no pad byte after an odd data chunk, no other chunks. The
// sizes are patched in by Close: a writer destroyed without Close leaves
// RIFF and data sizes of 0.
//
// Results are 1 for success and 0 for failure, as the audio manager expects.
#pragma once

#include <windows.h>
#include <mmsystem.h>

class CWaveFile
{
public:
    CWaveFile();
    virtual ~CWaveFile();

    CWaveFile(const CWaveFile&) = delete;
    CWaveFile& operator=(const CWaveFile&) = delete;

    // Opens fileName for reading and positions at the first data chunk.
    // *ppFormat gets a new[] copy of the format (BYTE array, 18 bytes for
    // PCM, 18 + extra size otherwise) that the caller frees with
    // FreeFormat.
    BOOL Open(const wchar_t* fileName, WAVEFORMATEX** ppFormat);
    // Creates (replaces) fileName for writing with the headers for format.
    BOOL Create(const wchar_t* fileName, const WAVEFORMATEX* pFormat);
    BOOL Write(const BYTE* bytes, DWORD count);
    // Writes 16-bit mono samples captured in sourceFormat at a whole
    // multiple of this file's rate, keeping sample 0, n, 2n, ...
    BOOL WriteDecimated(const WAVEFORMATEX* sourceFormat, const BYTE* samples, DWORD byteCount);
    // Reads up to count sample bytes, continuing across at most one chunk
    // boundary; *pGot < count at the end of the sound.
    BOOL Read(BYTE* buffer, DWORD count, DWORD* pGot);
    // Patches the headers of a written file, then closes. 1 when nothing
    // was open.
    BOOL Close();

    bool IsOpen() const { return m_hFile != INVALID_HANDLE_VALUE; }

    // Bytes a format record takes: 18 for PCM, 18 + extra size otherwise.
    static DWORD FormatBytes(const WAVEFORMATEX* pFormat);
    // A new[] copy of a format record (null when out of memory).
    static WAVEFORMATEX* CopyFormat(const WAVEFORMATEX* pFormat);
    static void FreeFormat(WAVEFORMATEX* pFormat);
    // "<prefix><name or '<filename too long>'>\r\n"
    static void PrintFileError(const wchar_t* prefix, const wchar_t* name);

private:
    bool CopyName(const wchar_t* fileName);
    bool WriteHeaders();
    bool PatchHeaders();
    bool ReadHeader();
    bool FindDataChunk();
    // Writes all of count bytes; a failed write prints failText (if any).
    bool WriteAll(const void* bytes, DWORD count, const wchar_t* failText);
    bool ReadAll(void* bytes, DWORD count, DWORD* pRead);
    void Release();

    HANDLE m_hFile;
    BOOL m_reading;
    wchar_t* m_name;
    WAVEFORMATEX* m_pFormat;
    DWORD m_riffLeft;
    DWORD m_dataLeft;
    DWORD m_riffSize;
    DWORD m_dataSize;
    LONG m_dataHeaderPos;
};
