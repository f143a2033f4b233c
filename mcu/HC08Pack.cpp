#include "mcu/HC08Pack.h"

#include <new>

#include "diag/Assert.h"
#include "diag/DebugOut.h"

namespace {

constexpr int kDeviceEventSize = 7;   // no data
constexpr int kDigitoSize = 9;        // 16-bit delta
constexpr int kPegsMapSize = 9;       // two maps
constexpr int kResetNoteSize = 15;    // rev, build, source, 32-bit rate, POST

bool IsDevice(const BYTE* p, BYTE code)
{
    return p != nullptr && p[0] == CLASS_DEVICE_EVENT && p[5] == code;
}

bool IsDigito(const BYTE* p)
{
    return p != nullptr && p[0] == CLASS_DEVICE_EVENT && IsDigitoCode(p[5]);
}

bool IsResetNote(const BYTE* p)
{
    return p != nullptr && p[0] == CLASS_SYSTEM_NOTE && p[5] == NOTE_RESET;
}

// Allocates a packet of the given size and fills its header; the caller adds
// the data and then the checksum.
BYTE* NewPacket(int* pSize, int size, BYTE msgClass, DWORD ticks, BYTE code,
                const wchar_t* failText)
{
    if (pSize != nullptr)
        *pSize = size;
    BYTE* p = new (std::nothrow) BYTE[size];
    if (p == nullptr) {
        ASSERT(p != nullptr);
        DebugOut(failText);
        return nullptr;
    }
    p[0] = msgClass;
    p[1] = static_cast<BYTE>((size - 1 - 1) & 0xFF);
    CHC08Pack::SetTicks(p, ticks);
    p[5] = code;
    for (int i = 6; i < size; ++i)
        p[i] = 0;
    return p;
}

BYTE* Finish(BYTE* p, int size)
{
    if (p != nullptr)
        p[size - 1] = CHC08Pack::CalcChecksum(p);
    return p;
}

BYTE* BuildPlain(int* pSize, DWORD ticks, BYTE code, const wchar_t* failText)
{
    return Finish(NewPacket(pSize, kDeviceEventSize, CLASS_DEVICE_EVENT, ticks, code, failText),
                  kDeviceEventSize);
}

BYTE* BuildDigito(int* pSize, DWORD ticks, BYTE code, DWORD delta, const wchar_t* failText)
{
    BYTE* p = NewPacket(pSize, kDigitoSize, CLASS_DEVICE_EVENT, ticks, code, failText);
    if (p != nullptr)
        CHC08Pack::SetDeltaTicks(p, delta);
    return Finish(p, kDigitoSize);
}

}  // namespace

bool IsDigitoCode(BYTE code)
{
    return code == EVT_DIGITO_LEFT_DOWNWARD || code == EVT_DIGITO_LEFT_UPWARD ||
           code == EVT_DIGITO_RIGHT_DOWNWARD || code == EVT_DIGITO_RIGHT_UPWARD;
}

int CHC08Pack::CalcSizePacket(const BYTE* pPack, bool report)
{
    if (pPack == nullptr) {
        ASSERT(pPack != nullptr);
        DebugOut(L"CHC08Pack::CalcSizePacket: null pPack\n");
        return -1;
    }
    // One byte before the length, the length itself, then lenFollowing bytes.
    int size = pPack[1] + 1 + 1;
    if (size < kMinPacketSize || size > kMaxPacketSize) {
        if (report)
            DebugOutF(L"Bad lenFollowing: %d\r\n", static_cast<int>(pPack[1]));
        return -1;
    }
    return size;
}

int CHC08Pack::GetPayloadSize(const BYTE* pPack)
{
    int size = CalcSizePacket(pPack, true);
    return size < 0 ? -1 : size - 6;
}

DWORD CHC08Pack::GetTicks(const BYTE* pPack)
{
    if (pPack == nullptr) {
        ASSERT(pPack != nullptr);
        return 0;
    }
    return (static_cast<DWORD>(pPack[2]) << 16) | (static_cast<DWORD>(pPack[3]) << 8) | pPack[4];
}

void CHC08Pack::SetTicks(BYTE* pPack, DWORD ticks)
{
    if (pPack == nullptr) {
        ASSERT(pPack != nullptr);
        return;
    }
    pPack[2] = static_cast<BYTE>((ticks >> 16) & 0xFF);
    pPack[3] = static_cast<BYTE>((ticks >> 8) & 0xFF);
    pPack[4] = static_cast<BYTE>(ticks & 0xFF);
}

WORD CHC08Pack::GetDeltaTicks(const BYTE* pPack)
{
    if (!IsDigito(pPack)) {
        ASSERT(IsDigito(pPack));
        return 0;
    }
    return static_cast<WORD>((pPack[6] << 8) | pPack[7]);
}

void CHC08Pack::SetDeltaTicks(BYTE* pPack, DWORD delta)
{
    if (!IsDigito(pPack)) {
        ASSERT(IsDigito(pPack));
        return;
    }
    pPack[6] = static_cast<BYTE>((delta >> 8) & 0xFF);
    pPack[7] = static_cast<BYTE>(delta & 0xFF);
    pPack[8] = 0;
}

WORD CHC08Pack::GetPegsInLeft(const BYTE* pPack)
{
    if (!IsDevice(pPack, EVT_PEGS_MAP)) {
        ASSERT(IsDevice(pPack, EVT_PEGS_MAP));
        return 0;
    }
    return static_cast<WORD>(~pPack[7] & 0xFF);
}

void CHC08Pack::SetPegsInLeft(BYTE* pPack, WORD map)
{
    if (!IsDevice(pPack, EVT_PEGS_MAP)) {
        ASSERT(IsDevice(pPack, EVT_PEGS_MAP));
        return;
    }
    pPack[7] = static_cast<BYTE>(~map & 0xFF);
}

WORD CHC08Pack::GetPegsInRight(const BYTE* pPack)
{
    if (!IsDevice(pPack, EVT_PEGS_MAP)) {
        ASSERT(IsDevice(pPack, EVT_PEGS_MAP));
        return 0;
    }
    return static_cast<WORD>(~pPack[6] & 0xFF);
}

void CHC08Pack::SetPegsInRight(BYTE* pPack, WORD map)
{
    if (!IsDevice(pPack, EVT_PEGS_MAP)) {
        ASSERT(IsDevice(pPack, EVT_PEGS_MAP));
        return;
    }
    pPack[6] = static_cast<BYTE>(~map & 0xFF);
}

DWORD CHC08Pack::GetTickHz(const BYTE* pPack)
{
    if (!IsResetNote(pPack)) {
        ASSERT(IsResetNote(pPack));
        return 0;
    }
    return (static_cast<DWORD>(pPack[9]) << 24) | (static_cast<DWORD>(pPack[10]) << 16) |
           (static_cast<DWORD>(pPack[11]) << 8) | pPack[12];
}

void CHC08Pack::SetTickHz(BYTE* pPack, DWORD hz)
{
    if (!IsResetNote(pPack)) {
        ASSERT(IsResetNote(pPack));
        return;
    }
    pPack[9] = static_cast<BYTE>((hz >> 24) & 0xFF);
    pPack[10] = static_cast<BYTE>((hz >> 16) & 0xFF);
    pPack[11] = static_cast<BYTE>((hz >> 8) & 0xFF);
    pPack[12] = static_cast<BYTE>(hz & 0xFF);
}

BYTE CHC08Pack::CalcChecksum(const BYTE* pPack)
{
    int size = CalcSizePacket(pPack, true);
    if (size - 1 < 1)
        return 0;
    unsigned sum = 0;
    for (int i = 0; i < size - 1; ++i)
        sum = (sum + pPack[i]) & 0xFF;
    return static_cast<BYTE>((256 - sum) & 0xFF);
}

BYTE* CHC08Pack::BuildHC08Reset(int* pSize, DWORD ticks, short hc08Rev, short hc08Build,
                                short resetSource, long tickHz, short postResult)
{
    BYTE* p = NewPacket(pSize, kResetNoteSize, CLASS_SYSTEM_NOTE, ticks, NOTE_RESET,
                        L"BuildHC08Reset: new BYTE[] failed.\r\n");
    if (p != nullptr) {
        p[6] = static_cast<BYTE>(hc08Rev);
        p[7] = static_cast<BYTE>(hc08Build);
        p[8] = static_cast<BYTE>(resetSource);
        SetTickHz(p, static_cast<DWORD>(tickHz));
        p[13] = static_cast<BYTE>(postResult);
    }
    return Finish(p, kResetNoteSize);
}

BYTE* CHC08Pack::BuildTimerGo(int* pSize, DWORD ticks)
{
    return BuildPlain(pSize, ticks, EVT_TIMER_GO, L"BuildTimerGo: new BYTE[] failed.\r\n");
}

BYTE* CHC08Pack::BuildTimerRollover(int* pSize, DWORD ticks)
{
    return BuildPlain(pSize, ticks, EVT_TIMER_ROLLOVER,
                      L"BuildTimerRollover: new BYTE[] failed.\r\n");
}

BYTE* CHC08Pack::BuildDigitoLeftDownward(int* pSize, DWORD ticks, DWORD deltaTicks)
{
    return BuildDigito(pSize, ticks, EVT_DIGITO_LEFT_DOWNWARD, deltaTicks,
                       L"BuildDigitoLeftDownward: new BYTE[] failed.\r\n");
}

BYTE* CHC08Pack::BuildDigitoLeftUpward(int* pSize, DWORD ticks, DWORD deltaTicks)
{
    return BuildDigito(pSize, ticks, EVT_DIGITO_LEFT_UPWARD, deltaTicks,
                       L"BuildDigitoLeftUpward: new BYTE[] failed.\r\n");
}

BYTE* CHC08Pack::BuildDigitoRightDownward(int* pSize, DWORD ticks, DWORD deltaTicks)
{
    return BuildDigito(pSize, ticks, EVT_DIGITO_RIGHT_DOWNWARD, deltaTicks,
                       L"BuildDigitoRightDownward: new BYTE[] failed.\r\n");
}

BYTE* CHC08Pack::BuildDigitoRightUpward(int* pSize, DWORD ticks, DWORD deltaTicks)
{
    // Its failure line has always named its Downward sibling; log readers
    // match on that text.
    return BuildDigito(pSize, ticks, EVT_DIGITO_RIGHT_UPWARD, deltaTicks,
                       L"BuildDigitoRightDownward: new BYTE[] failed.\r\n");
}

BYTE* CHC08Pack::BuildCapsitLeftDown(int* pSize, DWORD ticks)
{
    return BuildPlain(pSize, ticks, EVT_CAPSIT_LEFT_DOWN,
                      L"BuildCapsitLeftDown: new BYTE[] failed.\r\n");
}

BYTE* CHC08Pack::BuildCapsitLeftUp(int* pSize, DWORD ticks)
{
    return BuildPlain(pSize, ticks, EVT_CAPSIT_LEFT_UP, L"BuildCapsitLeftUp: new BYTE[] failed.\r\n");
}

BYTE* CHC08Pack::BuildCapsitRightDown(int* pSize, DWORD ticks)
{
    return BuildPlain(pSize, ticks, EVT_CAPSIT_RIGHT_DOWN,
                      L"BuildCapsitRightDown: new BYTE[] failed.\r\n");
}

BYTE* CHC08Pack::BuildCapsitRightUp(int* pSize, DWORD ticks)
{
    return BuildPlain(pSize, ticks, EVT_CAPSIT_RIGHT_UP,
                      L"BuildCapsitRightUp: new BYTE[] failed.\r\n");
}

BYTE* CHC08Pack::BuildPegsMap(int* pSize, DWORD ticks, WORD pegsInLeft, WORD pegsInRight)
{
    BYTE* p = NewPacket(pSize, kPegsMapSize, CLASS_DEVICE_EVENT, ticks, EVT_PEGS_MAP,
                        L"BuildPegsMap: new BYTE[] failed.\r\n");
    if (p != nullptr) {
        SetPegsInLeft(p, pegsInLeft);
        SetPegsInRight(p, pegsInRight);
    }
    return Finish(p, kPegsMapSize);
}

void CHC08Pack::BuildNoiseCommand(bool on, BYTE out[kNoiseCommandSize])
{
    out[0] = CMD_NOISE;
    out[1] = 0x02;
    out[2] = on ? 0xFF : 0x00;
    out[3] = static_cast<BYTE>((256 - ((out[0] + out[1] + out[2]) & 0xFF)) & 0xFF);
}
