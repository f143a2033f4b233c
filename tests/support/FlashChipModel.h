// A model of the board's flash: two 16-bit chips side by side on the 32-bit
// bus, each with its own command state machine, status register, block lock
// bits and erase geometry. It holds the 128 KB erase block of the
// configuration block, checks every command sequence the programmer sends
// (doubled commands, confirm codes, no command while busy, no programming of
// bits that are not erased, no reads in a setup state) and can be told to
// fail an operation with chosen status bits on either chip.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "session/FlashAccess.h"
#include "session/FlashProgrammer.h"

class FlashChipModel final : public IFlashBus
{
public:
    enum class Op { ClearLocks, Erase, Program };
    static constexpr DWORD kVirtualBase = 0xA0040000;
    static constexpr DWORD kPhysicalBase = 0x00040000;

    // eraseUnitBytes: what one erase command erases, both chips together.
    FlashChipModel(WORD manufacturer, WORD device, DWORD eraseUnitBytes);

    DWORD Read(DWORD wordIndex) override;
    void Write(DWORD wordIndex, DWORD value) override;
    DWORD VirtualAddress(DWORD wordIndex) override { return kVirtualBase + wordIndex * 4; }
    DWORD PhysicalAddress(DWORD wordIndex) override { return kPhysicalBase + wordIndex * 4; }

    // The next op on chip half (0 lower, 1 upper) ends with these status bits
    // and does nothing.
    void Inject(Op op, int half, WORD bits) { m_chips[half].injectOp = op; m_chips[half].injectBits = bits; }
    // The word keeps this value through the next erase of its block.
    void Stick(DWORD wordIndex, DWORD value) { m_stuck.emplace_back(wordIndex, value); }
    // Puts the configuration block's bytes into the array (as provisioning did).
    void Load(const std::string& block);
    // The configuration block's bytes as the array holds them.
    std::string Block() const { return std::string(reinterpret_cast<const char*>(array.data()), kConfigBlockWords * 4); }
    bool InReadArray() const { return m_chips[0].mode == Mode::ReadArray && m_chips[1].mode == Mode::ReadArray; }

    std::vector<DWORD> array;         // the erase block, as read in array mode
    std::vector<std::string> faults;  // protocol breaches, in order
    int erases = 0, lockClears = 0;   // confirmed block erases and lock clears (per chip pair)
    int programs = 0;
    long long accesses = 0;

private:
    enum class Mode { ReadArray, ReadStatus, ReadId, ProgramSetup, EraseSetup, LockSetup };
    struct Chip
    {
        Mode mode = Mode::ReadArray;
        WORD status = 0x80;
        int busy = 0;
        DWORD setupWord = 0;
        Op injectOp = Op::Program;
        WORD injectBits = 0;
    };

    static constexpr int kBusyReads = 2;  // status reads that answer busy after each op
    WORD Half(DWORD word, int half) const { return half == 0 ? LOWORD(word) : HIWORD(word); }
    static void SetHalf(DWORD& word, int half, WORD value)
    {
        word = half == 0 ? (word & 0xFFFF0000) | value : (word & 0x0000FFFF) | (static_cast<DWORD>(value) << 16);
    }
    // An operation begins: the chip answers busy for a while, then ready.
    static void StartOp(Chip& chip) { chip.mode = Mode::ReadStatus; chip.busy = kBusyReads; chip.status = 0x80; }
    bool TakeInjection(Chip& chip, Op op);
    void Command(int half, DWORD wordIndex, WORD command);
    void Fault(const std::string& text, DWORD wordIndex) { faults.push_back(text + " at word " + std::to_string(wordIndex)); }
    DWORD UnitOf(DWORD wordIndex) const { return wordIndex * 4 / m_unitBytes; }

    WORD m_ids[2];
    DWORD m_unitBytes;
    Chip m_chips[2];
    std::vector<std::vector<bool>> m_locked;  // [half][unit]
    std::vector<std::pair<DWORD, DWORD>> m_stuck;
};
