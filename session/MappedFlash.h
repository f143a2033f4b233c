// The device's flash, seen through a fixed memory mapping of the erase block
// that holds the boot loader's configuration block.
#pragma once

#include <windows.h>

#include "session/FlashProgrammer.h"

// Where the boot loader keeps its configuration block on the boards.
constexpr DWORD kConfigFlashPhysical = 0x00040000;

class CMappedFlashBus final : public IFlashBus
{
public:
    // Maps the erase block on the device; elsewhere the bus stays unmapped
    // and reads as erased flash.
    CMappedFlashBus();
    // A bus over a mapping someone else made.
    explicit CMappedFlashBus(volatile DWORD* mapped);

    DWORD Read(DWORD wordIndex) override;
    void Write(DWORD wordIndex, DWORD value) override;
    DWORD VirtualAddress(DWORD wordIndex) override;
    DWORD PhysicalAddress(DWORD wordIndex) override;

private:
    volatile DWORD* m_words;
};
