// What a serial simulator has to send, in order, written to the master of
// its pseudo-terminal either at the pace of the line (each byte taking its
// wire time) or as fast as the terminal takes them. The microcontroller and
// the watch simulators both send through one.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <string>

namespace sim {

class SerialOut
{
public:
    struct Chunk
    {
        std::string bytes;
        size_t offset = 0;        // bytes already written
        double pauseAfterMs = 0;  // the line stays quiet this long after the chunk
        int tag = 0;              // the simulator's own mark
    };

    // When a paced byte is handed to the terminal: as its wire time begins
    // (the line is busy with it) or once it is over (a receiver has it whole).
    enum class HandOver
    {
        kAtStart,
        kAtEnd,
    };

    explicit SerialOut(HandOver handOver) : m_handOver(handOver) {}

    void Queue(std::string bytes, int tag = 0, double pauseAfterMs = 0);

    // Called after n bytes of a chunk were written; startMs is when the
    // first of them began on the wire (paced) or now (fast).
    using OnWrite = std::function<void(const Chunk& chunk, size_t n, double startMs)>;
    // Called once a chunk is all written (its pause already begun).
    using OnDone = std::function<void(const Chunk& chunk)>;

    // Writes what is due to the terminal fd: byteMs is one byte's wire time,
    // 0 to write as fast as the terminal takes them. False with the reason in
    // *error when a write fails for another reason than a full terminal.
    bool Serve(int fd, double byteMs, const OnWrite& onWrite, const OnDone& onDone, std::string* error);

    // How long the caller may sleep before Serve has something to do, at
    // most limitMs: 0 when a byte is due, limitMs when nothing is queued or
    // the terminal is full (wait for it to take bytes: WaitingForRoom).
    double WaitMs(double byteMs, double limitMs) const;

    bool WaitingForRoom() const { return m_waitWritable; }
    bool Empty() const { return m_chunks.empty(); }
    // Nothing queued and no pause running.
    bool Idle() const;
    size_t QueuedBytes() const;
    // Drops everything not yet written, and any pause.
    void Clear();

    // When the line is free for the next byte's wire time to begin (paced).
    double LineFreeMs() const { return m_nextByteMs; }

private:
    HandOver m_handOver;
    std::deque<Chunk> m_chunks;
    double m_nextByteMs = 0;
    double m_holdUntil = 0;
    bool m_waitWritable = false;
};

}  // namespace sim
