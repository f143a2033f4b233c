// The one path every debug line of the control takes.
//
// Texts are wide and are written exactly as given (line endings included);
// the platform's debug-output call carries them to a debugger or monitor.
#pragma once

#include <windows.h>

// Writes one debug line.
void DebugOut(const wchar_t* text);

// Formats into a local buffer with swprintf, then writes the result as one line.
void DebugOutF(const wchar_t* format, ...);
