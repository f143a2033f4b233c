#include "tests/support/FlashChipModel.h"

#include <algorithm>
#include <cstring>

static constexpr DWORD kWords = kFlashEraseBlockBytes / 4;

FlashChipModel::FlashChipModel(WORD manufacturer, WORD device, DWORD eraseUnitBytes)
    : array(kWords, 0xFFFFFFFF), m_ids{manufacturer, device}, m_unitBytes(eraseUnitBytes)
{
    // The chips power up with every block locked.
    const DWORD units = (kFlashEraseBlockBytes + eraseUnitBytes - 1) / eraseUnitBytes;
    m_locked.assign(2, std::vector<bool>(units, true));
}

bool FlashChipModel::TakeInjection(Chip& chip, Op op)
{
    if (chip.injectBits == 0 || chip.injectOp != op)
        return false;
    chip.status = 0x80 | chip.injectBits;
    chip.injectBits = 0;
    return true;
}

// The words are little-endian, as the processor and this host see them.
void FlashChipModel::Load(const std::string& block)
{
    memcpy(array.data(), block.data(), std::min<size_t>(block.size(), kWords * 4) & ~size_t{3});
}

DWORD FlashChipModel::Read(DWORD wordIndex)
{
    ++accesses;
    if (wordIndex >= kWords) {
        Fault("read outside the erase block", wordIndex);
        return 0;
    }
    DWORD value = 0;
    for (int half = 0; half < 2; ++half) {
        Chip& chip = m_chips[half];
        WORD answer = chip.status;
        if (chip.mode == Mode::ReadArray)
            answer = Half(array[wordIndex], half);
        else if (chip.mode == Mode::ReadStatus && chip.busy > 0 && chip.busy--)
            answer = chip.status & ~0x80;
        else if (chip.mode == Mode::ReadId)
            answer = wordIndex < 2 ? m_ids[wordIndex] : 0;
        else if (chip.mode != Mode::ReadStatus)
            Fault("read in the middle of a command", wordIndex);
        SetHalf(value, half, answer);
    }
    return value;
}

void FlashChipModel::Write(DWORD wordIndex, DWORD value)
{
    ++accesses;
    if (wordIndex >= kWords) {
        Fault("write outside the erase block", wordIndex);
        return;
    }
    if (m_chips[0].mode != m_chips[1].mode)
        Fault("chips in different states", wordIndex);
    if (m_chips[0].mode == Mode::ProgramSetup) {
        // The data word of a program: each chip takes its own half.
        bool any = false;
        for (int half = 0; half < 2; ++half) {
            Chip& chip = m_chips[half];
            StartOp(chip);
            if (wordIndex != chip.setupWord)
                Fault("program data at another word than its command", wordIndex);
            if (TakeInjection(chip, Op::Program))
                continue;
            if (m_locked[half][UnitOf(wordIndex)]) {
                chip.status = 0x80 | 0x10 | 0x02;
                continue;
            }
            const WORD old = Half(array[wordIndex], half), data = Half(value, half);
            if ((old & data) != data)
                Fault("programmed over bits that were not erased", wordIndex);
            SetHalf(array[wordIndex], half, old & data);
            any = true;
        }
        programs += any;
        return;
    }
    if (LOWORD(value) != HIWORD(value)) {
        Fault("command not doubled for both chips", wordIndex);
        return;
    }
    for (int half = 0; half < 2; ++half)
        Command(half, wordIndex, LOWORD(value));
}

void FlashChipModel::Command(int half, DWORD wordIndex, WORD command)
{
    Chip& chip = m_chips[half];
    if (chip.busy > 0 && command != FlashCmd::kReadStatus)
        Fault("command while the chip is busy", wordIndex);
    const DWORD unit = UnitOf(wordIndex);
    switch (chip.mode) {
    case Mode::EraseSetup:
    case Mode::LockSetup: {
        const bool erase = chip.mode == Mode::EraseSetup;
        StartOp(chip);
        if (command != FlashCmd::kConfirm || wordIndex != chip.setupWord) {
            Fault(erase ? "bad erase confirm" : "bad lock-bit confirm", wordIndex);
            chip.status = 0x80 | 0x30;
            return;
        }
        if (TakeInjection(chip, erase ? Op::Erase : Op::ClearLocks))
            return;
        if (!erase) {
            m_locked[half][unit] = false;
            lockClears += half == 0;  // counted once per chip pair
            return;
        }
        if (m_locked[half][unit]) {
            chip.status = 0x80 | 0x20 | 0x02;
            return;
        }
        const DWORD first = unit * m_unitBytes / 4;
        const DWORD last = first + m_unitBytes / 4 < kWords ? first + m_unitBytes / 4 : kWords;
        for (DWORD i = first; i < last; ++i)
            SetHalf(array[i], half, 0xFFFF);
        for (const auto& [word, stuck] : m_stuck)
            if (word >= first && word < last)
                SetHalf(array[word], half, Half(stuck, half));
        erases += half == 1;
        return;
    }
    default:
        break;
    }
    switch (command) {
    case FlashCmd::kReadArray: chip.mode = Mode::ReadArray; break;
    case FlashCmd::kReadStatus: chip.mode = Mode::ReadStatus; break;
    case FlashCmd::kReadId: chip.mode = Mode::ReadId; break;
    case FlashCmd::kClearStatus: chip.status = 0x80; break;
    case FlashCmd::kWordProgram: chip.mode = Mode::ProgramSetup; chip.setupWord = wordIndex; break;
    case FlashCmd::kBlockErase: chip.mode = Mode::EraseSetup; chip.setupWord = wordIndex; break;
    case FlashCmd::kClearLockBits: chip.mode = Mode::LockSetup; chip.setupWord = wordIndex; break;
    default: Fault("unknown command", wordIndex); break;
    }
}
