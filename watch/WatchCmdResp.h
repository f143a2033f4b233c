// WatchCmdResp: one watch command or its response, as it crosses between the
// host thread and the watch command thread.
//
// A record is one block from the COM task allocator: this header followed by
// `size` data bytes. Whoever takes it off a queue or receives it by message
// frees it with FreeWatchCmdResp.
#pragma once

#include <windows.h>

// Commands (host thread to command thread)...
constexpr short kWatchCmdReadParms = 1;     // "***C", no data
constexpr short kWatchCmdReadBlock = 2;     // "***N" and the 32-bit block address in the data
constexpr short kWatchCmdDestroy = 3;       // the destroy sequence, no data
// ...and their responses (command thread to the host thread's window).
constexpr short kWatchRespParmsRead = 4;    // the parameter text
constexpr short kWatchRespBlockRead = 5;    // the 4096-byte block
constexpr short kWatchRespDestroyEnded = 6; // no data

struct WatchCmdResp
{
    WatchCmdResp* next;  // queue link, null when not queued
    short cmdRespID;
    LONG success;        // always 0 in a queued command
    DWORD size;          // number of data bytes
    BYTE* Data() { return reinterpret_cast<BYTE*>(this + 1); }
    const BYTE* Data() const { return reinterpret_cast<const BYTE*>(this + 1); }
};

// A new record holding a copy of size bytes of data (null data only with
// size 0). Null, with its debug line and an assertion, for an unknown id,
// null data of non-zero size or no memory.
WatchCmdResp* MakeWatchCmdResp(short cmdRespID, bool success, DWORD size, const void* data);

void FreeWatchCmdResp(WatchCmdResp* record);
