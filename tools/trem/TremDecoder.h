// TremDecoder: reads a ".trem" watch data file back into the
// watch's parameter fields and its raw memory, checking that the file has
// the structure the control writes.
//
// File layout, 8-bit text:
//   "TREM Version 1" CR LF
//   the parameter text: the watch's "***C" reply without the prompt and the
//     byte before it, with an LF after every CR. The reply begins with CR and
//     holds at least four, so the text begins with an empty line and has at
//     least four line ends; field k is the text after the k-th CR, and field
//     3 is the watch's next log address in hexadecimal.
//   CR LF "Data" CR LF   (the first line "Data" after the header ends the text)
//   the memory: 32 bytes a line as 64 lower-case hexadecimal digits and CR
//     LF, 128 lines for each 4096-byte block, the blocks in address order.
//
// The number of blocks must be the one the control reads for the log
// address, by its end-of-save rule: a log address with bit 23 set counts as
// 0; n = (address >> 8) + 1 when address mod 255 is not 0, else address >> 8,
// and at least 1; blocks are read at block addresses 0, 16, 32 ... while the
// address is below n, so blocks = (n + 15) / 16.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tools::trem {

constexpr size_t kBlockBytes = 4096;
constexpr size_t kLineBytes = 32;
constexpr size_t kLinesPerBlock = kBlockBytes / kLineBytes;

struct Trem
{
    // The parameter reply's fields: fields[k - 1] is field k, the text after
    // the k-th CR (the empty text before the first CR is not kept).
    std::vector<std::string> fields;
    uint32_t logAddress = 0;    // field 3 as the control reads it (bit 23 set: 0)
    std::vector<uint8_t> memory;  // every block, in order
};

// The blocks the control reads for a log address (see above).
uint32_t BlocksFor(uint32_t logAddress);

// Decodes a whole file. False at the first fault, with a one-line reason
// that begins "line N: " (lines counted from 1).
bool Decode(const std::string& file, Trem* trem, std::string* error);

// "field,text" and one row per parameter field, quoted where CSV needs it.
std::string ParameterCsv(const Trem& trem);

}  // namespace tools::trem
