#include "session/FlashProgrammer.h"

#include "diag/DebugOut.h"

namespace {

// Polls of the status register before a chip counts as hung. Far beyond the
// longest block erase the parts take.
constexpr DWORD kMaxReadyPolls = 100000000;

constexpr DWORD Doubled(WORD value)
{
    return (static_cast<DWORD>(value) << 16) | value;
}

WORD LowerHalf(DWORD word)
{
    return static_cast<WORD>(word & 0xFFFF);
}

WORD UpperHalf(DWORD word)
{
    return static_cast<WORD>(word >> 16);
}

// The parts fitted to the boards, by manufacturer and device code, with the
// erase step each needs over the configuration block's erase block.
const FlashPart kKnownParts[] = {
    {0x0089, 0x0016, 1}, {0x0089, 0x0017, 1}, {0x0089, 0x0018, 1},  // uniform blocks
    {0x0089, 0x8817, 2}, {0x0089, 0x881A, 2},                       // 64 KB steps
    {0x0089, 0x88C4, 3}, {0x0089, 0x88C5, 3},                       // 32 KB steps
    {0x0089, 0x88C2, 4}, {0x0089, 0x88C3, 4},                       // 16 KB steps
};

}  // namespace

DWORD FlashEraseStep(int geometryClass)
{
    switch (geometryClass) {
    case 1: return 0x20000;
    case 2: return 0x10000;
    case 3: return 0x8000;
    default: return 0x4000;  // 4, and an unknown part
    }
}

int FlashGeometryClass(WORD manufacturer, WORD device)
{
    for (const FlashPart& part : kKnownParts) {
        if (part.manufacturer == manufacturer && part.device == device)
            return part.geometryClass;
    }
    return 0;
}

CFlashProgrammer::CFlashProgrammer(IFlashBus* bus) : m_bus(bus), m_geometryClass(-1), m_halted(false)
{
}

void CFlashProgrammer::Command(DWORD wordIndex, WORD command)
{
    m_bus->Write(wordIndex, Doubled(command));
}

bool CFlashProgrammer::WaitReady(DWORD wordIndex, DWORD* status)
{
    const DWORD ready = Doubled(FlashStatus::kReady);
    for (DWORD poll = 0; poll < kMaxReadyPolls; ++poll) {
        const DWORD value = m_bus->Read(wordIndex);
        if ((value & ready) == ready) {
            *status = value;
            return true;
        }
    }
    DebugOut(L"Flash never became ready.\r\n");
    return false;
}

// The part's identification codes are read once per process; a pair whose
// two chips answer differently is treated as unknown.
int CFlashProgrammer::Identify()
{
    if (m_geometryClass < 0) {
        Command(0, FlashCmd::kReadId);
        const DWORD manufacturer = m_bus->Read(0);
        const DWORD device = m_bus->Read(1);
        Command(0, FlashCmd::kReadArray);
        if (LowerHalf(manufacturer) != UpperHalf(manufacturer) || LowerHalf(device) != UpperHalf(device))
            m_geometryClass = 0;
        else
            m_geometryClass = FlashGeometryClass(LowerHalf(manufacturer), LowerHalf(device));
    }
    return m_geometryClass;
}

bool CFlashProgrammer::ReadBlock(BYTE* block)
{
    if (m_halted)
        return false;
    for (DWORD i = 0; i < kConfigBlockWords; ++i) {
        const DWORD word = m_bus->Read(i);
        block[i * 4 + 0] = static_cast<BYTE>(word);
        block[i * 4 + 1] = static_cast<BYTE>(word >> 8);
        block[i * 4 + 2] = static_cast<BYTE>(word >> 16);
        block[i * 4 + 3] = static_cast<BYTE>(word >> 24);
    }
    return true;
}

bool CFlashProgrammer::WriteBlock(const BYTE* block)
{
    if (m_halted)
        return false;
    Identify();
    if (!Erase()) {
        Halt();
        return false;
    }
    return Program(block);
}

// Reports the status of both chips after clearing lock bits or erasing; true
// when either failed.
bool CFlashProgrammer::EraseStepFailed(DWORD status, bool clearingLocks)
{
    using namespace FlashStatus;
    bool failed = false;
    for (int half = 0; half < 2; ++half) {
        const WORD sr = half == 0 ? LowerHalf(status) : UpperHalf(status);
        const bool lower = half == 0;
        if (sr & kVoltageRange) {
            DebugOut(lower ? L"\r\nVoltage Range Error ... Lower flash.\r\n"
                           : L"\r\nVoltage Range Error ... Upper flash.\r\n");
            failed = true;
        } else if ((sr & (kEraseError | kProgramError)) == (kEraseError | kProgramError)) {
            DebugOut(lower ? L"\r\nCommand Sequence Error ... Lower flash.\r\n"
                           : L"\r\nCommand Sequence Error ... Upper flash.\r\n");
            failed = true;
        } else if (clearingLocks && (sr & kEraseError)) {
            DebugOut(lower ? L"\r\nClear Lock Bits Error ... Lower flash.\r\n"
                           : L"\r\nClear Lock Bits Error ... Upper flash.\r\n");
            failed = true;
        } else if (!clearingLocks && (sr & kDeviceProtect)) {
            DebugOut(lower ? L"\n\rBlock erase failure.  Lock bit lower flash set!\r\n"
                           : L"\n\rBlock erase failure.  Lock bit upper flash set!\r\n");
            failed = true;
        } else if (sr & kEraseError) {
            failed = true;  // a plain erase failure: the halt line says it
        }
    }
    return failed;
}

bool CFlashProgrammer::Erase()
{
    const DWORD step = FlashEraseStep(m_geometryClass) / 4;
    DWORD status = 0;
    for (DWORD unit = 0; unit < kFlashEraseBlockBytes / 4; unit += step) {
        Command(unit, FlashCmd::kClearStatus);
        Command(unit, FlashCmd::kClearLockBits);
        Command(unit, FlashCmd::kConfirm);
        if (!WaitReady(unit, &status) || EraseStepFailed(status, true))
            return false;
        Command(unit, FlashCmd::kClearStatus);
        Command(unit, FlashCmd::kBlockErase);
        Command(unit, FlashCmd::kConfirm);
        if (!WaitReady(unit, &status) || EraseStepFailed(status, false))
            return false;
    }
    Command(0, FlashCmd::kReadArray);
    for (DWORD i = 0; i < kFlashEraseBlockBytes / 4; ++i) {
        const DWORD data = m_bus->Read(i);
        if (data != 0xFFFFFFFF) {
            DebugOutF(L"Erase verification failure at Virtual Addr 0x%X Physical Addr 0x%X Data 0x%X]\r\n",
                      m_bus->VirtualAddress(i), m_bus->PhysicalAddress(i), data);
            return false;
        }
    }
    return true;
}

bool CFlashProgrammer::Program(const BYTE* block)
{
    using namespace FlashStatus;
    DWORD status = 0;
    for (DWORD i = 0; i < kConfigBlockWords; ++i) {
        const DWORD word = static_cast<DWORD>(block[i * 4]) | (static_cast<DWORD>(block[i * 4 + 1]) << 8) |
                           (static_cast<DWORD>(block[i * 4 + 2]) << 16) |
                           (static_cast<DWORD>(block[i * 4 + 3]) << 24);
        Command(i, FlashCmd::kWordProgram);
        m_bus->Write(i, word);
        if (!WaitReady(i, &status)) {
            Command(0, FlashCmd::kReadArray);
            return false;
        }
        const WORD sr = LowerHalf(status) | UpperHalf(status);
        const wchar_t* error = nullptr;
        if (sr & kVoltageRange)
            error = L"Voltage Range Error ... \r\n";
        else if (sr & kDeviceProtect)
            error = L"Device Protect Error ... \r\n";
        else if (sr & kProgramError)
            error = L"Programming Error ... \r\n";
        if (error != nullptr) {
            DebugOut(error);
            Command(0, FlashCmd::kClearStatus);
            Command(0, FlashCmd::kReadArray);
            return false;
        }
    }
    Command(0, FlashCmd::kReadArray);
    return true;
}

void CFlashProgrammer::Halt()
{
    DebugOut(L"Unrecoverable failure encountered while erasing flash.  System halted!\r\n");
    m_halted = true;
#if defined(_WIN32_WCE)
    // The boot loader's block is gone; running on could only make it worse.
    for (;;)
        Sleep(INFINITE);
#endif
}
