// The wave format record, for the native fuzz build (see windows.h here).
#pragma once

#include <windows.h>

#define WAVE_FORMAT_PCM 1

#pragma pack(push, 1)
struct WAVEFORMATEX {
    WORD wFormatTag;
    WORD nChannels;
    DWORD nSamplesPerSec;
    DWORD nAvgBytesPerSec;
    WORD nBlockAlign;
    WORD wBitsPerSample;
    WORD cbSize;
};
#pragma pack(pop)
static_assert(sizeof(WAVEFORMATEX) == 18, "the format record is 18 bytes");
