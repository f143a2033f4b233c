#include "session/MappedFlash.h"

#include <cstdint>

#include "session/FlashAccess.h"

#if defined(_WIN32_WCE)
namespace {

// The kernel's mapping calls: reserve a window of address space and point it
// at the flash, uncached, so that every access reaches the chips.
volatile DWORD* MapConfigFlash()
{
    void* window = VirtualAlloc(nullptr, kFlashEraseBlockBytes, MEM_RESERVE, PAGE_NOACCESS);
    if (window == nullptr)
        return nullptr;
    if (!VirtualCopy(window, reinterpret_cast<void*>(kConfigFlashPhysical >> 8), kFlashEraseBlockBytes,
                     PAGE_READWRITE | PAGE_NOCACHE | PAGE_PHYSICAL)) {
        VirtualFree(window, 0, MEM_RELEASE);
        return nullptr;
    }
    return static_cast<volatile DWORD*>(window);
}

}  // namespace

CMappedFlashBus::CMappedFlashBus() : m_words(MapConfigFlash()) {}
#else
CMappedFlashBus::CMappedFlashBus() : m_words(nullptr) {}
#endif

CMappedFlashBus::CMappedFlashBus(volatile DWORD* mapped) : m_words(mapped) {}

DWORD CMappedFlashBus::Read(DWORD wordIndex)
{
    return m_words != nullptr ? m_words[wordIndex] : 0xFFFFFFFF;
}

void CMappedFlashBus::Write(DWORD wordIndex, DWORD value)
{
    if (m_words != nullptr)
        m_words[wordIndex] = value;
}

DWORD CMappedFlashBus::VirtualAddress(DWORD wordIndex)
{
    return static_cast<DWORD>(reinterpret_cast<uintptr_t>(m_words + wordIndex));
}

DWORD CMappedFlashBus::PhysicalAddress(DWORD wordIndex)
{
    return kConfigFlashPhysical + wordIndex * 4;
}
