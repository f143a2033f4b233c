// What a fuzz target sets up for the code under test in the native shim:
// files in memory and a serial line made of the input's bytes.
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

namespace shim {

// Files by name, compared without case as on the device. Reset removes them
// all (and closes nothing: targets close what they open).
void ResetFiles();
void PutFile(const wchar_t* name, const void* bytes, size_t size);
// The file's bytes, or null when there is no such file.
const std::vector<BYTE>* FindFile(const wchar_t* name);

// A serial line that answers reads with the bursts in order: a read takes
// what is left of the current burst (up to its count); between bursts the
// line is silent for one read (the port's time-out), and after the last one
// for ever. Writes are taken and dropped. Closed with CloseHandle.
HANDLE OpenLine(std::vector<std::vector<BYTE>> bursts);

}  // namespace shim
