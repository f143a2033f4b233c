#include "panel/UserTimer.h"

#include "diag/Assert.h"

CUserTimer::CUserTimer(long timerID, DWORD dueTime)
    : m_timerID(timerID), m_dueTime(dueTime), m_pNext(nullptr)
{
    ASSERT(timerID >= 0);
}

CUserTimer::~CUserTimer()
{
    // The successors go first, one by one rather than by recursion, so that a
    // long list cannot exhaust the stack.
    CUserTimer* next = m_pNext;
    m_pNext = nullptr;
    while (next != nullptr) {
        CUserTimer* after = next->m_pNext;
        next->m_pNext = nullptr;
        delete next;
        next = after;
    }
    m_timerID = -1;
    m_dueTime = 0;
}

bool CUserTimer::IsDue(DWORD now) const
{
    return m_dueTime == now || static_cast<DWORD>(m_dueTime - now) > 0x80000000u;
}

CUserTimer* CUserTimer::Find(CUserTimer* head, long timerID)
{
    for (CUserTimer* r = head; r != nullptr; r = r->m_pNext)
        if (static_cast<WORD>(r->m_timerID) == static_cast<WORD>(timerID))
            return r;
    return nullptr;
}

void CUserTimer::Insert(CUserTimer* record, CUserTimer*& head)
{
    if (record == nullptr) {
        ASSERT(record != nullptr);
        return;
    }
    ASSERT(record->m_pNext == nullptr);
    record->m_pNext = head;
    head = record;
}

void CUserTimer::Remove(CUserTimer* record, CUserTimer*& head)
{
    if (record == nullptr)
        return;
    for (CUserTimer** link = &head; *link != nullptr; link = &(*link)->m_pNext) {
        if (*link == record) {
            *link = record->m_pNext;
            break;
        }
    }
    record->m_pNext = nullptr;
}
