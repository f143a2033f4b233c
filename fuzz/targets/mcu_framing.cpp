// The microcontroller's byte stream through the reader's framer, in reads of
// varying sizes, and every framed packet through the packet accessors the
// host-thread dispatch uses, each packet in a block of exactly its size (as
// the posted copy is).
//
// Input: byte 0 seeds the read sizes; the rest is the line.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "mcu/HC08Framer.h"
#include "mcu/HC08Pack.h"

namespace {

class Sink final : public IHC08FrameSink
{
public:
    void OnPacket(const BYTE* pPack, int size) override
    {
        if (size < kMinPacketSize || size > kMaxPacketSize || CHC08Pack::CalcSizePacket(pPack, false) != size)
            abort();
        std::vector<BYTE> copy(pPack, pPack + size);
        const BYTE* p = copy.data();
        const int payload = CHC08Pack::GetPayloadSize(p);
        volatile DWORD sink = CHC08Pack::GetTicks(p) + CHC08Pack::CalcChecksum(p);
        if (payload < 1)
            return;
        // What the dispatch reads for each class and code, under its checks.
        if (p[0] == CLASS_DEVICE_EVENT) {
            if (IsDigitoCode(p[5]) && payload == 3)
                sink = sink + CHC08Pack::GetDeltaTicks(p);
            if (p[5] == EVT_PEGS_MAP && payload >= 3)
                sink = sink + CHC08Pack::GetPegsInLeft(p) + CHC08Pack::GetPegsInRight(p);
        } else if (p[0] == CLASS_SYSTEM_NOTE) {
            if (p[5] == NOTE_RESET && payload >= 9)
                sink = sink + CHC08Pack::GetTickHz(p) + p[6] + p[7] + p[8] + p[13];
            if (p[5] == NOTE_CMD_RESPONSE && payload >= 2)
                sink = sink + p[6];
        }
        (void)sink;
    }
    void OnOutOfStep() override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    uint32_t state = data[0] * 2654435761u + 1;
    ++data;
    --size;
    Sink sink;
    CHC08Framer framer(&sink);
    while (size > 0) {
        state = state * 1103515245u + 12345u;
        int want = 1 + static_cast<int>((state >> 16) % 40);
        if (want > framer.FreeBytes())
            want = framer.FreeBytes();
        if (static_cast<size_t>(want) > size)
            want = static_cast<int>(size);
        // What the framer keeps is less than one packet, so a read always has room.
        if (want <= 0 || framer.Held() >= kMaxPacketSize)
            abort();
        memcpy(framer.FreeSpace(), data, want);
        framer.Commit(want);
        data += want;
        size -= want;
    }
    return 0;
}
