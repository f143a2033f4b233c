#include "sim/SerialOut.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "sim/SimConsole.h"

namespace sim {

namespace {

// The shortest sleep between paced writes: bytes that fall due meanwhile go
// out together, a few at a time like a UART's FIFO.
constexpr double kPollMs = 0.5;

}  // namespace

void SerialOut::Queue(std::string bytes, int tag, double pauseAfterMs)
{
    if (m_chunks.empty())
        m_nextByteMs = std::max(m_nextByteMs, std::max(NowMs(), m_holdUntil));
    Chunk c;
    c.bytes = std::move(bytes);
    c.tag = tag;
    c.pauseAfterMs = pauseAfterMs;
    m_chunks.push_back(std::move(c));
}

bool SerialOut::Serve(int fd, double byteMs, const OnWrite& onWrite, const OnDone& onDone, std::string* error)
{
    m_waitWritable = false;
    const double dueAfter = (m_handOver == HandOver::kAtEnd) ? byteMs : 0.0;
    while (!m_chunks.empty()) {
        const double now = NowMs();
        if (now < m_holdUntil)
            return true;
        Chunk& c = m_chunks.front();
        size_t allowed = c.bytes.size() - c.offset;
        if (byteMs > 0) {
            if (now < m_nextByteMs + dueAfter)
                return true;
            const size_t due = static_cast<size_t>((now - m_nextByteMs - dueAfter) / byteMs) + 1;
            allowed = std::min(allowed, due);
        }
        ssize_t n = 0;
        if (allowed > 0) {
            n = ::write(fd, c.bytes.data() + c.offset, allowed);
            if (n < 0) {
                if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EIO) {
                    m_waitWritable = true;  // the terminal is full (nobody reading)
                    return true;
                }
                *error = std::strerror(errno);
                return false;
            }
        }
        c.offset += static_cast<size_t>(n);
        const double startMs = byteMs > 0 ? m_nextByteMs : now;
        if (byteMs > 0)
            m_nextByteMs += n * byteMs;
        if (n > 0 && onWrite)
            onWrite(c, static_cast<size_t>(n), startMs);
        if (c.offset < c.bytes.size())
            continue;
        Chunk done = std::move(c);
        m_chunks.pop_front();
        if (done.pauseAfterMs > 0) {
            m_holdUntil = NowMs() + done.pauseAfterMs;
            m_nextByteMs = std::max(m_nextByteMs, m_holdUntil);
        }
        if (onDone)
            onDone(done);
    }
    return true;
}

double SerialOut::WaitMs(double byteMs, double limitMs) const
{
    if (m_chunks.empty() || m_waitWritable)
        return limitMs;
    const double dueAfter = (m_handOver == HandOver::kAtEnd) ? byteMs : 0.0;
    const double next = std::max(m_holdUntil, byteMs > 0 ? m_nextByteMs + dueAfter : 0.0) - NowMs();
    return std::min(limitMs, next <= 0 ? 0.0 : std::max(next, kPollMs));
}

bool SerialOut::Idle() const
{
    return m_chunks.empty() && NowMs() >= m_holdUntil;
}

size_t SerialOut::QueuedBytes() const
{
    size_t queued = 0;
    for (const Chunk& c : m_chunks)
        queued += c.bytes.size() - c.offset;
    return queued;
}

void SerialOut::Clear()
{
    m_chunks.clear();
    m_holdUntil = 0;
}

}  // namespace sim
