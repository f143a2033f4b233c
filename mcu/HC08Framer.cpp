// CHC08Framer: cuts the microcontroller's byte stream into packets. See
// HC08Framer.h.
#include "mcu/HC08Framer.h"

#include <cstring>

#include "diag/Assert.h"
#include "mcu/HC08Pack.h"

CHC08Framer::CHC08Framer(IHC08FrameSink* sink) : m_pSink(sink), m_buffer(), m_held(0)
{
    ASSERT(sink != nullptr);
}

void CHC08Framer::Commit(int got)
{
    ASSERT(got >= 0 && got <= FreeBytes());
    if (got <= 0 || got > FreeBytes())
        return;
    BYTE* buffer = m_buffer;
    const int total = m_held + got;
    int offset = 0;
    while (total - offset >= 2) {
        int size = CHC08Pack::CalcSizePacket(buffer + offset, true);
        if (size == -1) {
            // Out of step: look for the next byte that starts a packet whose
            // checksum matches. Anything less certain is thrown away with
            // whatever the line still holds.
            bool found = false;
            for (++offset; offset < total; ++offset) {
                if (total - offset < 2)
                    break;
                int candidate = CHC08Pack::CalcSizePacket(buffer + offset, false);
                if (offset + candidate > total)
                    break;
                if (candidate > 0 &&
                    buffer[offset + candidate - 1] == CHC08Pack::CalcChecksum(buffer + offset)) {
                    found = true;
                    size = candidate;
                    break;
                }
            }
            if (!found) {
                m_pSink->OnOutOfStep();
                m_held = 0;
                return;
            }
        }
        if (offset + size > total)
            break;  // the rest of this packet is still on the line
        m_pSink->OnPacket(buffer + offset, size);
        offset += size;
    }
    m_held = total - offset;
    if (m_held > 0 && offset > 0)
        memmove(buffer, buffer + offset, m_held);
}
