// CHC08PackList: the packets of one test activity, in arrival order, kept
// for the activity's recording file.
//
// An append-only chain of 4096-byte blocks with packets back to back, so
// that recording a packet costs no allocation. Each block starts with a
// 20-byte header; on every build (64-bit included) the header is these five
// 32-bit fields, the links and positions held as numbers rather than
// pointers so that the block layout stays the same:
//   next   number of the next block (1-based, 0 for the last)
//   count  packets in this block
//   end    offset one past the last usable byte: 4096, or the write
//          position once the block is sealed
//   write  offset where the next packet goes (starts at 20)
//   open   a slot has been handed out and not yet closed
// Inside an unsealed block the bytes after the last packet start with two
// zeros, which ends iteration. At most 30720 packets are kept.
//
// No lock of its own: the reader thread appends and the host thread reads
// under the test manager's lock.
#pragma once

#include <windows.h>

class CHC08PackList
{
public:
    static constexpr int kBlockSize = 4096;
    static constexpr int kHeaderSize = 20;
    static constexpr int kMaxPackets = 30720;
    static constexpr int kSlotSize = 16;  // the largest packet

    CHC08PackList();
    ~CHC08PackList();
    CHC08PackList(const CHC08PackList&) = delete;
    CHC08PackList& operator=(const CHC08PackList&) = delete;

    // A slot of at least 16 bytes to write one packet into, or null.
    BYTE* OpenPacket();
    // Keeps the packet written into the open slot if its length is valid.
    bool ClosePacket();

    // Iteration, front to back; GetFirstPacket restarts it.
    const BYTE* GetFirstPacket();
    const BYTE* GetNextPacket();

    // Packets kept.
    LONG Count() const { return m_count; }
    // Blocks allocated (for tests and figures).
    int BlockCount() const { return m_blockCount; }

private:
    // The most blocks 30720 packets can fill (254 sixteen-byte packets fit
    // in one block), with room to spare.
    static constexpr int kMaxBlocks = 128;

    struct BlockHeader
    {
        DWORD next;
        DWORD count;
        DWORD end;
        DWORD write;
        DWORD open;
    };
    static_assert(sizeof(BlockHeader) == kHeaderSize, "block header is 20 bytes");

    static BlockHeader* Header(BYTE* block) { return reinterpret_cast<BlockHeader*>(block); }
    BYTE* NextBlock(BYTE* block) const;

    BYTE* m_blocks[kMaxBlocks];
    int m_blockCount;
    BYTE* m_head;
    BYTE* m_tail;
    BYTE* m_iterBlock;
    BYTE* m_iterPos;
    LONG m_count;
};
