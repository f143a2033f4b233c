// Packets as the sensor microcontroller sends them, built natively for the
// bench simulator and its tests.
//
// Layout (multi-byte fields big-endian):
//   0      class (0x10 device event, 0x11 system note, 0x12 system error)
//   1      lenFollowing: the bytes after this one, checksum included
//   2..4   the microcontroller's 24-bit tick counter
//   5      code within the class
//   6..    0 to 9 data bytes
//   last   checksum: two's complement of the sum of every byte before it
// The host's one command, noise masking, is 5A 02 (FF on | 00 off) checksum.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sim::mcu {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kClassDeviceEvent = 0x10;
constexpr uint8_t kClassSystemNote = 0x11;
constexpr uint8_t kClassSystemError = 0x12;

constexpr uint8_t kEvtTimerGo = 0x20;
constexpr uint8_t kEvtTimerRollover = 0x21;
constexpr uint8_t kEvtDigitoLeftDown = 0x30;
constexpr uint8_t kEvtDigitoLeftUp = 0x31;
constexpr uint8_t kEvtDigitoRightDown = 0x34;
constexpr uint8_t kEvtDigitoRightUp = 0x35;
constexpr uint8_t kEvtCapsitRightDown = 0x38;
constexpr uint8_t kEvtCapsitRightUp = 0x39;
constexpr uint8_t kEvtCapsitLeftDown = 0x3B;
constexpr uint8_t kEvtCapsitLeftUp = 0x3C;
constexpr uint8_t kEvtPegsMap = 0x40;

constexpr uint8_t kNoteReset = 0x00;
constexpr uint8_t kNoteUnnamed01 = 0x01;
constexpr uint8_t kNoteCmdResponse = 0x03;

constexpr uint8_t kErrOverflow = 0x01;
constexpr uint8_t kErrBadVCore = 0x80;
constexpr uint8_t kErrBad5V = 0x81;
constexpr uint8_t kErrBad3V = 0x82;

constexpr uint8_t kCmdNoise = 0x5A;

// Status bytes of the command response.
constexpr uint8_t kStatusAccepted = 0x00;
constexpr uint8_t kStatusBadChecksum = 0x01;
constexpr uint8_t kStatusUnknownCommand = 0x02;

constexpr uint32_t kTickModulus = 1u << 24;

// Two's complement of the byte sum of bytes[0 .. n-1].
uint8_t Checksum(const uint8_t* bytes, size_t n);

// class, lenFollowing, ticks (low 24 bits), code, data, checksum.
Bytes Build(uint8_t msgClass, uint32_t ticks, uint8_t code, const Bytes& data = {});

// What the microcontroller says after a reset: revision, build, reset source,
// tick rate (32 bits) and power-on self-test result. 15 bytes.
struct ResetInfo
{
    uint8_t rev = 1;
    uint8_t build = 0;
    uint8_t source = 0;
    uint32_t tickHz = 1000;
    uint8_t post = 0;
};
Bytes Reset(uint32_t ticks, const ResetInfo& info);

Bytes TimerGo(uint32_t ticks);
Bytes TimerRollover(uint32_t ticks);
// A finger-button packet (code one of the four Digito codes), the delta ticks
// in 16 bits. 9 bytes.
Bytes Digito(uint8_t code, uint32_t ticks, uint32_t delta);
Bytes Capsit(uint8_t code, uint32_t ticks);
// The pegs maps go out inverted (active low): byte 6 ~right, byte 7 ~left. 9 bytes.
Bytes PegsMap(uint32_t ticks, uint8_t left, uint8_t right);
Bytes CmdResponse(uint32_t ticks, uint8_t status);
Bytes SystemError(uint32_t ticks, uint8_t code);
Bytes NoteUnnamed01(uint32_t ticks);

// The host's noise command, as the host builds it.
Bytes NoiseCommand(bool on);

// Reads what the host sent. Returns how many bytes of `in` (from the start)
// make up one command, 0 when more bytes are needed. *status is the answer the
// microcontroller gives; *noiseOn is set for an accepted noise command. A
// length the framing cannot hold consumes one byte with *status =
// kStatusUnknownCommand and *garbage set.
size_t ParseHostCommand(const uint8_t* in, size_t n, uint8_t* status, bool* noiseOn, bool* garbage);

// "10 05 00 34 56 20 41"
std::string Hex(const uint8_t* bytes, size_t n);
inline std::string Hex(const Bytes& b)
{
    return Hex(b.data(), b.size());
}

}  // namespace sim::mcu
