#include "sim/McuPacket.h"

#include <cstdio>

namespace sim::mcu {

uint8_t Checksum(const uint8_t* bytes, size_t n)
{
    unsigned sum = 0;
    for (size_t i = 0; i < n; ++i)
        sum += bytes[i];
    return static_cast<uint8_t>(0x100 - (sum & 0xFF));
}

Bytes Build(uint8_t msgClass, uint32_t ticks, uint8_t code, const Bytes& data)
{
    Bytes p;
    p.reserve(7 + data.size());
    p.push_back(msgClass);
    p.push_back(static_cast<uint8_t>(5 + data.size()));  // lenFollowing = size - 2
    p.push_back(static_cast<uint8_t>(ticks >> 16));
    p.push_back(static_cast<uint8_t>(ticks >> 8));
    p.push_back(static_cast<uint8_t>(ticks));
    p.push_back(code);
    p.insert(p.end(), data.begin(), data.end());
    p.push_back(Checksum(p.data(), p.size()));
    return p;
}

Bytes Reset(uint32_t ticks, const ResetInfo& info)
{
    return Build(kClassSystemNote, ticks, kNoteReset,
                 {info.rev, info.build, info.source, static_cast<uint8_t>(info.tickHz >> 24),
                  static_cast<uint8_t>(info.tickHz >> 16), static_cast<uint8_t>(info.tickHz >> 8),
                  static_cast<uint8_t>(info.tickHz), info.post});
}

Bytes TimerGo(uint32_t ticks)
{
    return Build(kClassDeviceEvent, ticks, kEvtTimerGo);
}

Bytes TimerRollover(uint32_t ticks)
{
    return Build(kClassDeviceEvent, ticks, kEvtTimerRollover);
}

Bytes Digito(uint8_t code, uint32_t ticks, uint32_t delta)
{
    return Build(kClassDeviceEvent, ticks, code, {static_cast<uint8_t>(delta >> 8), static_cast<uint8_t>(delta)});
}

Bytes Capsit(uint8_t code, uint32_t ticks)
{
    return Build(kClassDeviceEvent, ticks, code);
}

Bytes PegsMap(uint32_t ticks, uint8_t left, uint8_t right)
{
    return Build(kClassDeviceEvent, ticks, kEvtPegsMap,
                 {static_cast<uint8_t>(~right), static_cast<uint8_t>(~left)});
}

Bytes CmdResponse(uint32_t ticks, uint8_t status)
{
    return Build(kClassSystemNote, ticks, kNoteCmdResponse, {status});
}

Bytes SystemError(uint32_t ticks, uint8_t code)
{
    return Build(kClassSystemError, ticks, code);
}

Bytes NoteUnnamed01(uint32_t ticks)
{
    return Build(kClassSystemNote, ticks, kNoteUnnamed01);
}

Bytes NoiseCommand(bool on)
{
    Bytes c = {kCmdNoise, 0x02, static_cast<uint8_t>(on ? 0xFF : 0x00)};
    c.push_back(Checksum(c.data(), c.size()));
    return c;
}

size_t ParseHostCommand(const uint8_t* in, size_t n, uint8_t* status, bool* noiseOn, bool* garbage)
{
    *garbage = false;
    *noiseOn = false;
    if (n < 2)
        return 0;
    const size_t size = static_cast<size_t>(in[1]) + 2;
    if (size < 3 || size > 16) {
        *garbage = true;
        *status = kStatusUnknownCommand;
        return 1;
    }
    if (n < size)
        return 0;
    unsigned sum = 0;
    for (size_t i = 0; i < size; ++i)
        sum += in[i];
    if ((sum & 0xFF) != 0)
        *status = kStatusBadChecksum;
    else if (in[0] != kCmdNoise || size != 4 || (in[2] != 0x00 && in[2] != 0xFF))
        *status = kStatusUnknownCommand;
    else {
        *status = kStatusAccepted;
        *noiseOn = (in[2] == 0xFF);
    }
    return size;
}

std::string Hex(const uint8_t* bytes, size_t n)
{
    std::string s;
    char b[4];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof(b), i ? " %02X" : "%02X", bytes[i]);
        s += b;
    }
    return s;
}

}  // namespace sim::mcu
