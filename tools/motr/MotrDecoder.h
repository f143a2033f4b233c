// MotrDecoder: reads a ".motr" sensor recording into one decoded row per
// microcontroller packet, the way the control's link would have seen it.
//
// File layout (header numbers little-endian):
//   0..3   "MOTR"
//   4..5   format version, 256
//   6..    the packets as they came off the line, back to back
// Packet layout (multi-byte fields big-endian):
//   0      class (0x10 device event, 0x11 system note, 0x12 system error)
//   1      lenFollowing: the bytes after this one, checksum included
//   2..4   the microcontroller's 24-bit tick counter
//   5      code within the class
//   6..    0 to 9 data bytes
//   last   checksum: two's complement of the sum of every byte before it
// A packet is 6 to 16 bytes long.
//
// Time since go follows the link: the last good timer-go packet sets the tick
// at go and clears the rollover count, each good rollover packet adds one, and
// ticks since go = ((ticks - tick at go) mod 2^24) + rollovers x 2^24. Before
// the first go in the file it is unknown. Milliseconds use the tick rate of
// the last good reset note.
//
// The recorder keeps every packet the link framed, damaged ones included, so a
// bad checksum or a payload the link would refuse is flagged on its row (the
// link raised no event for it and it moves no go bookkeeping) and decoding
// goes on. What the recorder can never have written stops decoding: a wrong
// magic or version, a header or packet cut short, an impossible length byte,
// and an unknown class under a good checksum.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tools::motr {

constexpr size_t kHeaderSize = 6;
constexpr uint16_t kVersion = 256;

// The per-kind fields, one CSV column each, in column order.
enum Field
{
    kDeltaTicks,
    kPegsLeft,
    kPegsRight,
    kHC08Rev,
    kHC08Build,
    kResetSource,
    kTickHz,
    kPostResult,
    kCmdStatus,
    kFieldCount
};

struct Row
{
    size_t index = 0;
    size_t offset = 0;                     // of the packet's first byte in the file
    std::vector<uint8_t> bytes;            // the whole packet, checksum included
    uint32_t ticks = 0;                    // 24-bit tick counter
    std::optional<uint32_t> ticksSinceGo;  // unknown before the first go
    std::optional<double> msSinceGo;       // also unknown without a tick rate
    std::string event;                     // script event name, or the packet's own name
    std::optional<uint32_t> fields[kFieldCount];
    std::string problem;                   // empty for a packet the link took as it was
};

struct Recording
{
    uint16_t version = 0;
    std::vector<Row> rows;
    size_t flagged = 0;  // rows with a problem
};

class MotrDecoder
{
public:
    // Decodes a whole file image. False at the first fault that leaves the
    // file unreadable, with *error one line naming the byte offset (and the
    // packet index for a packet).
    bool Decode(const std::vector<uint8_t>& file, Recording* out, std::string* error);

    // The CSV: a line of column names, then one line per row.
    static std::string Csv(const Recording& recording);
    // The header's fields as a two-column CSV.
    static std::string HeaderCsv(const Recording& recording);

private:
    bool DecodePacket(const uint8_t* p, size_t size, Row* row, std::string* error);
    void DecodeDeviceEvent(const uint8_t* p, size_t size, bool good, Row* row);
    void DecodeNote(const uint8_t* p, size_t size, bool good, Row* row);
    void DecodeError(const uint8_t* p, size_t size, Row* row);
    static void AddProblem(Row* row, const std::string& problem);

    // The link's go bookkeeping and the reset note's tick rate.
    bool m_goSeen = false;
    uint32_t m_tickAtGo = 0;
    uint32_t m_rollovers = 0;
    uint32_t m_tickHz = 0;
};

}  // namespace tools::motr
