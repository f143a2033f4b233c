// The watch's side of the line through the protocol: the flush and the
// prompt sync, the command's echo, and the reply up to the prompt (text) or
// the 4096-byte block and the prompt after it (binary).
//
// Input: byte 0 picks the command; the rest is what the watch sends, in
// bursts: FF 00 is a silence (a read that times out), FF FF a data FF, FF and
// any other byte that byte. The flush that starts every command drains the
// first burst.
#include <cstdint>
#include <vector>

#include "fuzz/shim/Win32Shim.h"
#include "watch/WatchLine.h"

namespace {

const wchar_t* const kCommands[] = {L"***C", L"***N0000", L"***N0010", L"***H01F000", L"***A02031E", L"***B",
                                    L"***CTOOLONGTOOLONGTOOLONGTOOLONGTOOLONGTOOLONGTOOLONGTOOLONGTOOLONGTOOLONG"
                                    L"TOOLONGTOOLONGTOOLONG"};

std::vector<std::vector<BYTE>> Bursts(const uint8_t* data, size_t size)
{
    std::vector<std::vector<BYTE>> bursts(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0xFF && i + 1 < size) {
            ++i;
            if (data[i] == 0x00) {
                bursts.emplace_back();
                continue;
            }
        }
        bursts.back().push_back(data[i]);
    }
    return bursts;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const wchar_t* command = kCommands[data[0] % (sizeof(kCommands) / sizeof(kCommands[0]))];
    volatile LONG visible = 1;
    volatile LONG exitFlag = 0;
    CWatchLine line(&visible, &exitFlag);
    line.Attach(shim::OpenLine(Bursts(data + 1, size - 1)));
    BYTE* response = nullptr;
    DWORD responseSize = 0;
    if (line.ExecuteWatchCmd(command, &response, &responseSize)) {
        if (responseSize > CWatchLine::kBlockBytes)
            __builtin_trap();
        volatile BYTE last = responseSize > 0 ? response[responseSize - 1] : 0;
        (void)last;
    }
    delete[] response;
    CloseHandle(line.Detach());
    return 0;
}
