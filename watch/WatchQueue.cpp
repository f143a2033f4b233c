#include "watch/WatchQueue.h"

#include "diag/Assert.h"
#include "diag/DebugOut.h"

CWatchQueue::CWatchQueue() : m_pHead(nullptr), m_pTail(nullptr), m_hEvent(nullptr)
{
    InitializeCriticalSection(&m_lock);
    m_hEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (m_hEvent == nullptr) {
        ASSERT(false);
        DebugOut(L"CWatchQueue: CreateEvent failed.\r\n");
    }
}

CWatchQueue::~CWatchQueue()
{
    DeleteCriticalSection(&m_lock);
    if (m_hEvent != nullptr)
        CloseHandle(m_hEvent);
    while (m_pHead != nullptr) {
        WatchCmdResp* next = m_pHead->next;
        FreeWatchCmdResp(m_pHead);
        m_pHead = next;
    }
    m_pTail = nullptr;
}

void CWatchQueue::AddTail(WatchCmdResp* record)
{
    ASSERT(record != nullptr);
    if (record == nullptr)
        return;
    ASSERT(record->next == nullptr);
    record->next = nullptr;
    EnterCriticalSection(&m_lock);
    if (m_pTail != nullptr)
        m_pTail->next = record;
    else
        m_pHead = record;
    m_pTail = record;
    LeaveCriticalSection(&m_lock);
    if (!SetEvent(m_hEvent)) {
        ASSERT(false);
        DebugOut(L"CWatchQueue::AddTail: SetEvent failed.\r\n");
    }
}

WatchCmdResp* CWatchQueue::RemoveHead()
{
    EnterCriticalSection(&m_lock);
    WatchCmdResp* record = m_pHead;
    if (record != nullptr) {
        m_pHead = record->next;
        if (m_pHead == nullptr)
            m_pTail = nullptr;
        record->next = nullptr;
    }
    LeaveCriticalSection(&m_lock);
    return record;
}
