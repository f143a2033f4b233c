// The watch's parameter reply ("***C"), read into what the control keeps.
//
// The reply is 8-bit text: CR, field, CR, field, CR, the watch's next log
// address in hexadecimal, CR, and maybe more. The address with bit 23 set is
// the watch's way of saying it has recorded nothing (0 samples); one that is
// unreadable or negative makes the reply garbled. The text is kept with an
// LF after every CR, as it goes into the ".trem" file.
#pragma once

#include <windows.h>

struct WatchParms
{
    long samplesRecorded;  // the next log address, 0 for "nothing recorded"
    wchar_t* text;         // new[], CR LF line ends; the caller delete[]s it
};

// Parses size reply bytes. On failure *pFailure is the debug line to write
// and nothing is allocated.
bool ParseWatchParms(const BYTE* reply, DWORD size, WatchParms* out, const wchar_t** pFailure);
