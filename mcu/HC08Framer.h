// CHC08Framer: cuts the microcontroller's byte stream into packets.
//
// The reader thread reads straight into FreeSpace() and hands the count to
// Commit, which frames every whole packet now held and keeps the rest (a
// packet still on the line) for the next read. A length byte out of range
// starts a resynchronisation: the first later offset whose length is good
// and whose checksum matches is taken as the next packet. When none is
// found, or a candidate would run past what has arrived, the sink is told
// the line is out of step (the reader then drains the port) and everything
// held is dropped.
//
// A packet found directly is handed on even with a bad checksum (the sink
// tests it); a packet found by resynchronisation already matched its own.
#pragma once

#include <windows.h>

// Where the framer's output goes (the reader thread).
class IHC08FrameSink
{
public:
    // One framed packet of size bytes (6..16).
    virtual void OnPacket(const BYTE* pPack, int size) = 0;
    // Resynchronisation gave up; what was held is dropped after this call.
    virtual void OnOutOfStep() = 0;

protected:
    ~IHC08FrameSink() = default;
};

class CHC08Framer
{
public:
    static constexpr int kBufferSize = 1024;

    explicit CHC08Framer(IHC08FrameSink* sink);

    CHC08Framer(const CHC08Framer&) = delete;
    CHC08Framer& operator=(const CHC08Framer&) = delete;

    // Where the next read goes, and how much room it has.
    BYTE* FreeSpace() { return m_buffer + m_held; }
    int FreeBytes() const { return kBufferSize - m_held; }
    // Frames after got more bytes arrived in FreeSpace().
    void Commit(int got);
    // Bytes kept for the next read.
    int Held() const { return m_held; }

private:
    IHC08FrameSink* m_pSink;
    BYTE m_buffer[kBufferSize];
    int m_held;
};
