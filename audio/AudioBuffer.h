// CAudioBuffer: one slot of an audio stream's ring, a block of samples with
// the WAVEHDR the wave device fills or plays.
#pragma once

#include <windows.h>
#include <mmsystem.h>

class CAudioBuffer
{
public:
    CAudioBuffer();
    ~CAudioBuffer();

    CAudioBuffer(const CAudioBuffer&) = delete;
    CAudioBuffer& operator=(const CAudioBuffer&) = delete;

    // The header and capacity bytes of data. The block is allocated with a
    // zeroed tail of spareBytes behind the capacity, which the loudness scan
    // may read. Once only (a second call is an assertion); on failure
    // nothing is kept and 0 returned.
    BOOL Allocate(DWORD capacity, DWORD spareBytes = 0);

    DWORD Capacity() const { return m_capacity; }
    BYTE* Data() { return m_pData; }
    WAVEHDR* Header() { return m_pHeader; }

    void SetLast(bool last) { m_last = last; }
    bool IsLast() const { return m_last; }

    // Sets the header's length to frames of silence in format (mono only)
    // and fills them: 128 for 8-bit samples, 0 for 16-bit.
    void FillSilence(const WAVEFORMATEX* pFormat, DWORD frames);

    // Output: clears the header's flags and links, prepares and writes.
    MMRESULT Write(HWAVEOUT device);
    void UnprepareOut(HWAVEOUT device);
    // Input: clears the header's flags and links, prepares and adds.
    MMRESULT Add(HWAVEIN device);
    void UnprepareIn(HWAVEIN device);

private:
    bool m_last;
    WAVEHDR* m_pHeader;
    DWORD m_capacity;
    BYTE* m_pData;
};
