// Rewriting the configuration block in the on-board flash.
//
// The flash is two 16-bit chips side by side on a 32-bit bus: the "lower"
// chip holds the low half of every word, the "upper" chip the high half.
// Every command is therefore written doubled into both halves, and every
// status word carries two status registers.
//
// A rewrite erases the 128 KB erase block that starts with the configuration
// block (clearing its lock bits first), checks that it reads blank, programs
// the block's words back one at a time and returns the chips to read mode.
// A failed program is reported and given up (the caller does not retry). A
// failed erase leaves the boot loader's block destroyed: the device halts
// there. The desktop build cannot stop the machine; it writes the same line
// and this programmer refuses every later read and write, so the control
// stops using flash for the rest of the process.
#pragma once

#include <windows.h>

#include "session/FlashAccess.h"

// 32-bit word access to the erase block, as the processor sees it.
struct IFlashBus
{
    virtual DWORD Read(DWORD wordIndex) = 0;
    virtual void Write(DWORD wordIndex, DWORD value) = 0;
    // Addresses of a word for the error report.
    virtual DWORD VirtualAddress(DWORD wordIndex) = 0;
    virtual DWORD PhysicalAddress(DWORD wordIndex) = 0;

protected:
    ~IFlashBus() = default;
};

// Chip commands and status bits, as one chip sees them.
namespace FlashCmd {
constexpr WORD kReadArray = 0xFF;
constexpr WORD kReadId = 0x90;
constexpr WORD kReadStatus = 0x70;
constexpr WORD kClearStatus = 0x50;
constexpr WORD kWordProgram = 0x40;
constexpr WORD kBlockErase = 0x20;
constexpr WORD kClearLockBits = 0x60;
constexpr WORD kConfirm = 0xD0;
}  // namespace FlashCmd

namespace FlashStatus {
constexpr WORD kReady = 0x80;
constexpr WORD kEraseError = 0x20;    // erase, or clearing lock bits
constexpr WORD kProgramError = 0x10;  // with kEraseError: a bad command sequence
constexpr WORD kVoltageRange = 0x08;
constexpr WORD kDeviceProtect = 0x02; // the block's lock bit is set
}  // namespace FlashStatus

// The erase geometry of a flash part: how the 128 KB erase block is walked.
// Class 0 is an unknown part; it is walked in the smallest step any known
// part needs, since erasing a larger block again does no harm.
struct FlashPart
{
    WORD manufacturer;
    WORD device;
    int geometryClass;
};
constexpr int kFlashGeometryClasses = 5;
// Bytes (both chips together) erased by one erase command, per class.
DWORD FlashEraseStep(int geometryClass);
// The class of a part from its identification codes; 0 when unknown.
int FlashGeometryClass(WORD manufacturer, WORD device);

class CFlashProgrammer final : public IConfigBlockStore
{
public:
    explicit CFlashProgrammer(IFlashBus* bus);

    bool ReadBlock(BYTE* block) override;
    bool WriteBlock(const BYTE* block) override;

    // True once an erase has failed: nothing touches the flash any more.
    bool Halted() const { return m_halted; }
    // The class in use, once the part has been identified (else -1).
    int GeometryClass() const { return m_geometryClass; }

private:
    void Command(DWORD wordIndex, WORD command);
    bool WaitReady(DWORD wordIndex, DWORD* status);
    int Identify();
    bool Erase();
    bool EraseStepFailed(DWORD status, bool clearingLocks);
    bool Program(const BYTE* block);
    void Halt();

    IFlashBus* m_bus;
    int m_geometryClass;
    bool m_halted;
};
