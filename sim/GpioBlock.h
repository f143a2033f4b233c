// The GPIO block file as a bench simulator sees it: the control's outputs
// (with every edge, from the block's edge journal) and the inputs the
// simulator drives. Used by the bench panel and by any simulator that has to
// follow the control's lines (the microcontroller's reset and go lines).
//
// Layout and rules: panel/GpioBlockLayout.h.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "panel/GpioBlockLayout.h"

namespace sim {

class GpioBlockFile
{
public:
    GpioBlockFile() = default;
    ~GpioBlockFile();
    GpioBlockFile(const GpioBlockFile&) = delete;
    GpioBlockFile& operator=(const GpioBlockFile&) = delete;

    // Maps the block file, making it (zero-filled, the block's size) if it is
    // missing or short. On failure returns false with the reason in *error.
    bool Open(const std::string& path, std::string* error);
    void Close();
    bool IsOpen() const { return m_base != nullptr; }

    // The level bit of a line: what the control reads from an input line.
    bool Level(unsigned line) const;
    // Drives an input line (atomic on its bank's level register, so several
    // simulators may drive different lines of one bank).
    void SetLevel(unsigned line, bool high);

    // How the control last drove a line (from the set and clear registers),
    // and whether the line is an output now (direction register).
    enum class Drive { kNever, kLow, kHigh };
    Drive Output(unsigned line) const;
    bool IsOutput(unsigned line) const;

    // Count of edge records the control has appended since the file was made.
    uint32_t JournalCount() const;

    void* Base() const { return m_base; }

private:
    uint32_t Word(uint32_t offset) const;
    void* m_base = nullptr;
};

// Follows the control's output edges in order, from the edge journal.
class GpioEdgeReader
{
public:
    struct Edge
    {
        unsigned line;
        uint32_t kind;  // gpio::kEdgeLow, kEdgeHigh, kEdgeInput, kEdgeOutput
    };

    // Starts at the journal's end: edges from before are not reported.
    explicit GpioEdgeReader(const GpioBlockFile& block);

    // The next edge, if one is there. Records the reader fell too far behind
    // to see (the ring overwrote them) are added to *lost; a record that a
    // writer reserved but never finished (a writer killed half-way) counts as
    // lost once it has been missing for more than stuckPolls calls.
    bool Next(Edge* edge, uint32_t* lost, unsigned stuckPolls = 1000);

    // Every edge there now, in order, to onEdge. Records lost on the way are
    // counted to onLost where they fell: before the edge after them, or last.
    void Drain(const std::function<void(const Edge& edge)>& onEdge,
               const std::function<void(uint32_t lost)>& onLost);

private:
    const GpioBlockFile& m_block;
    uint32_t m_next;
    unsigned m_pendingPolls = 0;
};

// "high", "low", "input" or "output".
const char* EdgeKindName(uint32_t kind);

}  // namespace sim
