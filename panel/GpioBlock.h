// How the GPIO manager reaches the register block: the one place where the
// device and the desktop differ.
//
// On the device the block is hardware at a fixed, statically mapped address.
// On the desktop it is the block file on the device disk, mapped shared so
// that the bench simulators watch the outputs and drive the inputs; writes to
// the set, clear and direction registers also append to the file's edge
// journal (see GpioBlockLayout.h). The GPIO manager cannot tell which one it
// has.
#pragma once

#include <windows.h>

class CGpioBlock
{
public:
    // Register access at a byte offset inside the block (32-bit registers).
    virtual DWORD Read(DWORD offset) = 0;
    virtual void Write(DWORD offset, DWORD value) = 0;

protected:
    ~CGpioBlock() = default;
};

// The process's register block, mapped on first use and kept for the life of
// the process, as the device's static mapping is. Null when the block cannot
// be reached (desktop: the block file cannot be opened or mapped).
CGpioBlock* GpioRegisterBlock();
