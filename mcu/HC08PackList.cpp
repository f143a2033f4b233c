#include "mcu/HC08PackList.h"

#include <cstring>
#include <new>

#include "diag/Assert.h"
#include "diag/DebugOut.h"
#include "mcu/HC08Pack.h"

CHC08PackList::CHC08PackList()
    : m_blocks{}, m_blockCount(0), m_head(nullptr), m_tail(nullptr), m_iterBlock(nullptr),
      m_iterPos(nullptr), m_count(0)
{
}

CHC08PackList::~CHC08PackList()
{
    BYTE* block = m_head;
    while (block != nullptr) {
        BYTE* next = NextBlock(block);
        delete[] block;
        block = next;
    }
    m_head = nullptr;
    m_tail = nullptr;
}

BYTE* CHC08PackList::NextBlock(BYTE* block) const
{
    DWORD next = Header(block)->next;
    return (next >= 1 && next <= static_cast<DWORD>(m_blockCount)) ? m_blocks[next - 1] : nullptr;
}

BYTE* CHC08PackList::OpenPacket()
{
    if (m_count >= kMaxPackets)
        return nullptr;  // the recording simply stops growing

    if (m_tail == nullptr || Header(m_tail)->end - Header(m_tail)->write < kSlotSize) {
        BYTE* block = (m_blockCount < kMaxBlocks) ? new (std::nothrow) BYTE[kBlockSize] : nullptr;
        if (block == nullptr) {
            ASSERT(block != nullptr);
            DebugOut(L"CHC08PackList: out of memory for block.\r\n");
            return nullptr;
        }
        BlockHeader* h = Header(block);
        h->next = 0;
        h->count = 0;
        h->end = kBlockSize;
        h->write = kHeaderSize;
        h->open = 0;
        std::memset(block + kHeaderSize, 0, kBlockSize - kHeaderSize);
        m_blocks[m_blockCount++] = block;
        if (m_head == nullptr)
            m_head = block;
        if (m_tail != nullptr)
            Header(m_tail)->next = static_cast<DWORD>(m_blockCount);
        m_tail = block;
    }

    BlockHeader* tail = Header(m_tail);
    if (tail->open != 0) {
        ASSERT(tail->open == 0);
        DebugOut(L"CHC08PackList: OpenPacket called twice without ClosePacket.\r\n");
        return nullptr;
    }
    tail->open = 1;
    return m_tail + tail->write;
}

bool CHC08PackList::ClosePacket()
{
    if (m_tail == nullptr || Header(m_tail)->open == 0) {
        ASSERT(false);
        DebugOut(L"CHC08PackList: ClosePacket called without OpenPacket.\r\n");
        return false;
    }
    BlockHeader* tail = Header(m_tail);
    BYTE* slot = m_tail + tail->write;
    int size = CHC08Pack::CalcSizePacket(slot, true);
    if (size < 0) {
        // Reads as end of data; the next slot reuses the space.
        std::memset(slot, 0, kSlotSize);
        tail->open = 0;
        return false;
    }
    ++m_count;
    ++tail->count;
    tail->write += static_cast<DWORD>(size);
    if (tail->end - tail->write < kSlotSize)
        tail->end = tail->write;  // sealed
    tail->open = 0;
    return true;
}

const BYTE* CHC08PackList::GetFirstPacket()
{
    if (m_tail == nullptr)
        return nullptr;
    if (m_head == nullptr) {
        ASSERT(m_head != nullptr);
        DebugOut(L"CHC08PackList: corrupt list.\r\n");
        return nullptr;
    }
    if (Header(m_tail)->open != 0) {
        ASSERT(Header(m_tail)->open == 0);
        DebugOut(L"CHC08PackList: Attempt to get packet while open.\r\n");
        return nullptr;
    }
    m_iterBlock = m_head;
    m_iterPos = m_head + kHeaderSize;
    return GetNextPacket();
}

const BYTE* CHC08PackList::GetNextPacket()
{
    if (m_iterBlock == nullptr || m_iterPos == nullptr)
        return nullptr;
    if (m_iterPos[0] == 0 && m_iterPos[1] == 0) {
        m_iterBlock = nullptr;
        m_iterPos = nullptr;
        return nullptr;
    }
    int size = CHC08Pack::CalcSizePacket(m_iterPos, true);
    if (size < 0) {
        ASSERT(size >= 0);
        DebugOut(L"GetNextPacket: corrupt packet\r\n");
        m_iterBlock = nullptr;
        m_iterPos = nullptr;
        return nullptr;
    }
    const BYTE* packet = m_iterPos;
    m_iterPos += size;
    if (m_iterPos < m_iterBlock + Header(m_iterBlock)->end)
        return packet;
    m_iterBlock = NextBlock(m_iterBlock);
    m_iterPos = (m_iterBlock != nullptr) ? m_iterBlock + kHeaderSize : nullptr;
    return packet;
}
