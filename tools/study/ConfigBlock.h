// The image of the boot loader's 4660-byte configuration block, as the
// desktop keeps it in "\Hard Disk\flashblock.bin", and its read-only key
// region: the letters "ZOLW" at byte 2612, then three slots, each a 32-bit
// little-endian length followed by the blob.
//
//   slot                          length at   bytes      room
//   authority's public signature  2624        2628..     504
//   device's private signature    3132        3136..     1016
//   server's public encryption    4152        4156..     504
#pragma once

#include <string>

#include "tools/crypto/OpenSsl.h"

namespace study {

class ConfigBlock
{
public:
    static constexpr size_t kBytes = 4660;
    static constexpr size_t kMagicOffset = 11 * 4;  // word 11: 0x11232000
    static constexpr uint32_t kMagic = 0x11232000;
    static constexpr size_t kNVRAMOffset = 1588;
    static constexpr size_t kNVRAMBytes = 256;
    static constexpr size_t kTagOffset = 2612;  // the key region runs from here to the end

    enum Slot { kAuthorityPublic, kDevicePrivate, kServerPublic, kSlots };
    static size_t SlotOffset(Slot slot);  // where the length is
    static size_t SlotRoom(Slot slot);    // bytes the blob may take
    static const char* SlotName(Slot slot);

    // An erased block (all 0xFF) with the boot loader's magic, as nvimage
    // --block makes one, but with its NVRAM area erased too.
    ConfigBlock();

    // Takes a block image file; it must be exactly kBytes long.
    bool Load(const std::string& path, std::string* error);
    // Replaces path with the image (through a new file renamed over it).
    bool Save(const std::string& path, std::string* error) const;

    bool HasTag() const;
    bool HasMagic() const;

    // Erases the key region and writes the tag and the three blobs. False
    // when a blob does not fit its slot.
    bool PutKeys(ByteView authorityPublic, ByteView devicePrivate, ByteView serverPublic, std::string* error);

    // A slot's blob; false when its length runs past its slot.
    bool Blob(Slot slot, ByteView* blob, std::string* error) const;

    // The device ID of the NVRAM image in the NVRAM area ("QVMR" image);
    // false when the area holds none.
    bool NVRAMDeviceId(uint32_t* id) const;

    const Bytes& bytes() const { return m_bytes; }

private:
    Bytes m_bytes;
};

}  // namespace study
