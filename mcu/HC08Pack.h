// CHC08Pack: operations on one microcontroller packet held as a plain byte
// array. Nothing here keeps state.
//
// Layout (multi-byte fields big-endian):
//   0      class
//   1      lenFollowing: bytes after this one, checksum included
//   2..4   ticks, the microcontroller's 24-bit tick counter
//   5      code within the class
//   6..    0 to 9 data bytes
//   last   checksum: two's complement of the sum of every byte before it
// A packet is 6 to 16 bytes long (lenFollowing 4 to 14). The one command the
// host sends, noise masking, uses the same framing without ticks or code.
#pragma once

#include <windows.h>

// Message classes.
constexpr BYTE CLASS_DEVICE_EVENT = 0x10;
constexpr BYTE CLASS_SYSTEM_NOTE = 0x11;
constexpr BYTE CLASS_SYSTEM_ERROR = 0x12;

// Device event codes (ASCII characters on the wire).
constexpr BYTE EVT_TIMER_GO = 0x20;
constexpr BYTE EVT_TIMER_ROLLOVER = 0x21;
constexpr BYTE EVT_DIGITO_LEFT_DOWNWARD = 0x30;
constexpr BYTE EVT_DIGITO_LEFT_UPWARD = 0x31;
constexpr BYTE EVT_DIGITO_RIGHT_DOWNWARD = 0x34;
constexpr BYTE EVT_DIGITO_RIGHT_UPWARD = 0x35;
constexpr BYTE EVT_CAPSIT_RIGHT_DOWN = 0x38;
constexpr BYTE EVT_CAPSIT_RIGHT_UP = 0x39;
constexpr BYTE EVT_CAPSIT_LEFT_DOWN = 0x3B;
constexpr BYTE EVT_CAPSIT_LEFT_UP = 0x3C;
constexpr BYTE EVT_PEGS_MAP = 0x40;

// System note codes.
constexpr BYTE NOTE_RESET = 0x00;
constexpr BYTE NOTE_UNNAMED_01 = 0x01;  // sent by the microcontroller, meaning unknown; ignored
constexpr BYTE NOTE_CMD_RESPONSE = 0x03;

// System error codes.
constexpr BYTE ERR_NONE = 0x00;
constexpr BYTE ERR_OVERFLOW = 0x01;
constexpr BYTE ERR_BAD_VCORE = 0x80;
constexpr BYTE ERR_BAD_5V = 0x81;
constexpr BYTE ERR_BAD_3V = 0x82;

// The host's noise-masking command: 5A 02 (FF on | 00 off) checksum.
constexpr BYTE CMD_NOISE = 0x5A;
constexpr int kNoiseCommandSize = 4;

constexpr int kMinPacketSize = 6;
constexpr int kMaxPacketSize = 16;

// True for the four finger-tapping codes.
bool IsDigitoCode(BYTE code);

class CHC08Pack
{
public:
    // Total size (6..16) from the length byte, or -1. With report set, a bad
    // length is logged with the raw lenFollowing byte.
    static int CalcSizePacket(const BYTE* pPack, bool report);

    // Code byte plus data bytes (size - 6), or -1 when the length is bad.
    static int GetPayloadSize(const BYTE* pPack);

    static DWORD GetTicks(const BYTE* pPack);
    static void SetTicks(BYTE* pPack, DWORD ticks);

    // Finger-tapping packets only.
    static WORD GetDeltaTicks(const BYTE* pPack);
    static void SetDeltaTicks(BYTE* pPack, DWORD delta);

    // Pegs-map packets only. The wire carries the maps inverted (active low);
    // these read and write the maps as the pegs are.
    static WORD GetPegsInLeft(const BYTE* pPack);
    static void SetPegsInLeft(BYTE* pPack, WORD map);
    static WORD GetPegsInRight(const BYTE* pPack);
    static void SetPegsInRight(BYTE* pPack, WORD map);

    // Reset notes only.
    static DWORD GetTickHz(const BYTE* pPack);
    static void SetTickHz(BYTE* pPack, DWORD hz);

    // The checksum the last byte should hold.
    static BYTE CalcChecksum(const BYTE* pPack);

    // Builders: each sets *pSize, returns a new BYTE[] (caller delete[]s)
    // holding the complete packet with its checksum, or null.
    static BYTE* BuildHC08Reset(int* pSize, DWORD ticks, short hc08Rev, short hc08Build,
                                short resetSource, long tickHz, short postResult);
    static BYTE* BuildTimerGo(int* pSize, DWORD ticks);
    static BYTE* BuildTimerRollover(int* pSize, DWORD ticks);
    static BYTE* BuildDigitoLeftDownward(int* pSize, DWORD ticks, DWORD deltaTicks);
    static BYTE* BuildDigitoLeftUpward(int* pSize, DWORD ticks, DWORD deltaTicks);
    static BYTE* BuildDigitoRightDownward(int* pSize, DWORD ticks, DWORD deltaTicks);
    static BYTE* BuildDigitoRightUpward(int* pSize, DWORD ticks, DWORD deltaTicks);
    static BYTE* BuildCapsitLeftDown(int* pSize, DWORD ticks);
    static BYTE* BuildCapsitLeftUp(int* pSize, DWORD ticks);
    static BYTE* BuildCapsitRightDown(int* pSize, DWORD ticks);
    static BYTE* BuildCapsitRightUp(int* pSize, DWORD ticks);
    static BYTE* BuildPegsMap(int* pSize, DWORD ticks, WORD pegsInLeft, WORD pegsInRight);

    // The 4-byte noise command into out.
    static void BuildNoiseCommand(bool on, BYTE out[kNoiseCommandSize]);
};
