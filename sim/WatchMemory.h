// The bench watch's memory (brennock-watch): a deterministic synthetic
// recording that any test can rebuild byte for byte, on Linux (the
// simulator, its native tests, the .trem decoder's tests) and in the Windows
// tests that check the .trem file the control writes.
//
// The watch's memory is 16 MiB, byte addresses 0 to 0xFFFFFF (a block read
// that runs past the end wraps round to 0). Addresses below the recording's
// length hold
//
//     byte(i) = (i + 3 * (i >> 8) + 7 * (i >> 16)) mod 256
//
// and every other address holds 0xFF (erased flash). The formula changes
// with the byte's place inside its 256-byte unit, with the unit and with the
// 64 KiB page, so a block read from the wrong address, blocks in the wrong
// order or a byte dropped all show.
//
// Addresses: the "***N" command names a block by its first 256-byte unit
// (block address a: bytes a * 256 to a * 256 + 4095); the log address the
// "***C" reply reports is a byte address, the length of the recording. Bit
// 23 of a log address set means "nothing recorded".
//
// Plain C++ without the standard library's containers, so that both builds
// compile it.
#pragma once

#include <cstdint>

namespace watchsim {

constexpr uint32_t kMemoryBytes = 0x1000000;    // 16 MiB, 24-bit byte addresses
constexpr uint32_t kUnitBytes = 256;            // one unit of a block address
constexpr uint32_t kBlockBytes = 4096;          // one "***N" block: 16 units
constexpr uint32_t kNothingRecorded = 0x800000; // bit 23 of a log address

// The recorded byte at address i (whatever the recording's length).
constexpr uint8_t SyntheticByte(uint32_t i)
{
    return static_cast<uint8_t>(i + 3 * (i >> 8) + 7 * (i >> 16));
}

// What the watch holds at address (taken modulo the memory size) when its
// recording is recordedBytes long.
constexpr uint8_t MemoryByte(uint32_t recordedBytes, uint32_t address)
{
    address %= kMemoryBytes;
    return address < recordedBytes ? SyntheticByte(address) : 0xFF;
}

// The recording's length a log address stands for: the address itself, or 0
// when bit 23 says nothing was recorded.
constexpr uint32_t RecordedBytesFor(uint32_t logAddress)
{
    return (logAddress & kNothingRecorded) ? 0 : (logAddress % kMemoryBytes);
}

// Fills out[0..4095] with the block at block address a (units of 256 bytes).
inline void ReadBlock(uint32_t recordedBytes, uint32_t blockAddress, uint8_t* out)
{
    const uint32_t start = blockAddress * kUnitBytes;
    for (uint32_t k = 0; k < kBlockBytes; ++k)
        out[k] = MemoryByte(recordedBytes, start + k);
}

}  // namespace watchsim
