// The GPIO register block as the control and the bench simulators share it.
//
// 128 lines in four banks of 32 (bank = line / 32, bit = 1 << (line % 32)),
// four 32-bit registers per bank at the offsets below. On the device the block
// is memory-mapped hardware. On the desktop it is a file of kBlockBytes on the
// device disk (kBlockFileName at the disk root), mapped shared by the control
// and by the simulators:
//
//   - pin direction, pin set and pin clear are written by the control only.
//     The set register holds the lines last driven high, the clear register
//     the lines last driven low (the control writes both by read-modify-write).
//   - pin level is written by the simulators only, with atomic bit operations:
//     the input lines (lid, watch present) they drive.
//   - the edge journal, in space the device block does not use, makes output
//     edges impossible to miss: every write that raises a bit in a set, clear
//     or direction register appends one record per raised (or, for direction,
//     changed) bit. A simulator that polls the registers could miss a reset
//     pulse or a set-then-clear within one of its polls; one that reads the
//     journal sees every edge, in order, or is told how many it lost when it
//     fell more than kJournalSlots records behind.
//
// This header is plain C++ so that the Windows control and the native
// simulators compile the same layout.
#pragma once

#include <cstdint>

namespace gpio {

constexpr uint32_t kLineCount = 128;

// One page: the device's registers and, in the desktop file, the journal.
constexpr uint32_t kBlockBytes = 0x1000;

// Name of the block file at the root of the device disk (desktop only).
#define BRENNOCK_GPIO_BLOCK_FILE "gpioblock.bin"

constexpr uint32_t kLevelReg[4] = {0x000, 0x004, 0x008, 0x100};
constexpr uint32_t kDirectionReg[4] = {0x00C, 0x010, 0x014, 0x10C};
constexpr uint32_t kSetReg[4] = {0x018, 0x01C, 0x020, 0x118};
constexpr uint32_t kClearReg[4] = {0x024, 0x028, 0x02C, 0x124};

constexpr uint32_t BankOf(uint32_t line)
{
    return line / 32;
}

constexpr uint32_t BitOf(uint32_t line)
{
    return 1u << (line % 32);
}

// Which bank's register of a kind sits at offset; -1 when none does.
constexpr int BankAt(const uint32_t (&regs)[4], uint32_t offset)
{
    for (int b = 0; b < 4; ++b)
        if (regs[b] == offset)
            return b;
    return -1;
}

// Edge journal. kJournalCount holds a 32-bit count of the records ever
// appended; record i sits in slot i % kJournalSlots of the ring as one 64-bit
// word: (i + 1) << 32 | kind << 8 | line. The serial (i + 1) is stored in the
// same atomic write as the record, so a reader knows whether a slot holds the
// record it waits for, an older one (not written yet) or a newer one (it fell
// behind and the ring overwrote what it had not read).
constexpr uint32_t kJournalCount = 0x400;
constexpr uint32_t kJournalRing = 0x800;
constexpr uint32_t kJournalSlots = 256;
static_assert(kJournalRing + kJournalSlots * 8 <= kBlockBytes, "journal fits the block");

enum EdgeKind : uint32_t
{
    kEdgeLow = 0,     // pin clear: driven low
    kEdgeHigh = 1,    // pin set: driven high
    kEdgeInput = 2,   // direction bit cleared: released
    kEdgeOutput = 3,  // direction bit set: driven
};

constexpr uint64_t PackEdge(uint32_t index, uint32_t line, uint32_t kind)
{
    return (static_cast<uint64_t>(index + 1) << 32) | ((kind & 0xFF) << 8) | (line & 0xFF);
}

constexpr uint32_t EdgeSerial(uint64_t slot)
{
    return static_cast<uint32_t>(slot >> 32);
}

constexpr uint32_t EdgeLine(uint64_t slot)
{
    return static_cast<uint32_t>(slot & 0xFF);
}

constexpr uint32_t EdgeKindOf(uint64_t slot)
{
    return static_cast<uint32_t>((slot >> 8) & 0xFF);
}

inline uint32_t* BlockWord(void* block, uint32_t offset)
{
    return reinterpret_cast<uint32_t*>(static_cast<unsigned char*>(block) + offset);
}

inline uint64_t* JournalSlot(void* block, uint32_t index)
{
    return reinterpret_cast<uint64_t*>(static_cast<unsigned char*>(block) + kJournalRing) +
           index % kJournalSlots;
}

// Appends one edge record. Safe against other writers in any process.
inline void JournalAppend(void* block, uint32_t line, uint32_t kind)
{
    uint32_t index = __atomic_fetch_add(BlockWord(block, kJournalCount), 1u, __ATOMIC_ACQ_REL);
    __atomic_store_n(JournalSlot(block, index), PackEdge(index, line, kind), __ATOMIC_RELEASE);
}

// Appends one record of the given kind for every bit set in bits, lowest line first.
inline void JournalBits(void* block, uint32_t bank, uint32_t bits, uint32_t kind)
{
    for (uint32_t bit = 0; bit < 32; ++bit)
        if (bits & (1u << bit))
            JournalAppend(block, bank * 32 + bit, kind);
}

}  // namespace gpio
