// The command texts of the watch's destroy sequence (wipe and re-arm), built
// from the recording's start time and the device's anonymous name. Each step
// is one watch command; the first that fails ends the sequence with its line.
#pragma once

#include <windows.h>

struct WatchDestroyStep
{
    wchar_t command[64];
    const wchar_t* failure;  // the debug line when the command fails
};

// The anonymous name may have at most this many bytes.
constexpr DWORD kWatchMaxNameBytes = 25;

// Steps before the log pointer, in order: identity ("***B" and the name in
// hex), date and time of the start ("***D", "***E"), analysis period, G-limit,
// the 13 parameters, analog threshold, restart of data acquisition.
constexpr int kWatchSetupSteps = 8;
void MakeWatchSetupSteps(const SYSTEMTIME& start, const BYTE* name, DWORD nameBytes,
                         WatchDestroyStep steps[kWatchSetupSteps]);

// Whole seconds from now to the start, rounded by adding 5 s (both are
// FILETIME counts of local time; unsigned arithmetic, as the watch expects).
ULONGLONG WatchSecondsToStart(ULONGLONG start, ULONGLONG now);

// The last step: the log pointer ("***H"), 128 - seconds / 2 in 24 bits, or
// the fixed pointer 01F000.
void MakeWatchLogPointerStep(ULONGLONG seconds, bool fixedPointer, WatchDestroyStep* step);
