// CWatchQueue: a first-in first-out list of WatchCmdResp records, shared by
// the host thread (which adds commands) and the watch command thread (which
// takes them). A critical section guards the two ends; an auto-reset event is
// signalled by every AddTail, and the taker empties the queue on each wake,
// so no record waits for a second signal.
#pragma once

#include <windows.h>

#include "watch/WatchCmdResp.h"

class CWatchQueue
{
public:
    CWatchQueue();
    // Frees every record still queued.
    ~CWatchQueue();

    CWatchQueue(const CWatchQueue&) = delete;
    CWatchQueue& operator=(const CWatchQueue&) = delete;

    // False when the event could not be made (the queue is then unusable).
    bool IsValid() const { return m_hEvent != nullptr; }

    // Links an unlinked record at the tail and signals the event.
    void AddTail(WatchCmdResp* record);
    // The head record, unlinked, or null when the queue is empty.
    WatchCmdResp* RemoveHead();

    // Signalled (auto-reset) after every AddTail.
    HANDLE Event() const { return m_hEvent; }
    // Wakes the taker without adding anything.
    void Signal() { SetEvent(m_hEvent); }

private:
    WatchCmdResp* m_pHead;
    WatchCmdResp* m_pTail;
    CRITICAL_SECTION m_lock;
    HANDLE m_hEvent;
};
