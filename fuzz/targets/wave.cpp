// A wave file opened for playback and read to its end, in reads of varying
// sizes (across chunk boundaries), as the audio manager reads it.
//
// Input: the file.
#include <cstdint>
#include <vector>

#include "audio/WaveFile.h"
#include "fuzz/shim/Win32Shim.h"

namespace {
const wchar_t kName[] = L"\\Hard Disk\\fuzz.wav";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    shim::ResetFiles();
    shim::PutFile(kName, data, size);
    CWaveFile wave;
    WAVEFORMATEX* format = nullptr;
    if (wave.Open(kName, &format)) {
        // The copy is as long as the record says.
        const DWORD bytes = CWaveFile::FormatBytes(format);
        volatile BYTE last = reinterpret_cast<const BYTE*>(format)[bytes - 1];
        (void)last;
        std::vector<BYTE> buffer(4096);
        const DWORD sizes[] = {1, 7, 512, 4096, 3};
        for (int i = 0; i < 64; ++i) {
            const DWORD count = sizes[i % 5];
            DWORD got = 0;
            if (!wave.Read(buffer.data(), count, &got))
                break;
            if (got > count)
                __builtin_trap();
            if (got < count)
                break;
        }
        CWaveFile::FreeFormat(format);
    }
    wave.Close();
    return 0;
}
