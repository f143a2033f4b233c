// CUserTimer: one running script timer, a record in the singly linked list
// that the GPIO manager owns and checks on every heartbeat. New records go to
// the head, so the list runs from the newest timer to the oldest.
#pragma once

#include <windows.h>

class CUserTimer
{
public:
    // A negative identifier is a caller's mistake and records an assertion.
    CUserTimer(long timerID, DWORD dueTime);

    // Deletes the successors first (deleting the head deletes the whole
    // list), then marks the record spent (identifier -1, due time 0). Unlink
    // a record before deleting it alone.
    ~CUserTimer();

    CUserTimer(const CUserTimer&) = delete;
    CUserTimer& operator=(const CUserTimer&) = delete;

    long TimerID() const { return m_timerID; }
    DWORD DueTime() const { return m_dueTime; }
    CUserTimer* Next() const { return m_pNext; }

    // True when the tick counter has reached the due time or passed it by
    // less than 2^31 ms; survives the counter's wrap at 2^32.
    bool IsDue(DWORD now) const;

    // The first record whose identifier matches in its low 16 bits, or null.
    static CUserTimer* Find(CUserTimer* head, long timerID);

    // Puts an unlinked record at the head.
    static void Insert(CUserTimer* record, CUserTimer*& head);

    // Unlinks the record if it is in the list; a record not in the list
    // leaves the list alone. Either way its next becomes null.
    static void Remove(CUserTimer* record, CUserTimer*& head);

private:
    long m_timerID;
    DWORD m_dueTime;
    CUserTimer* m_pNext;
};
