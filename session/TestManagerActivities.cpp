// CTestManager: activities, the tests a session runs one at a time, with the
// recording of a sensor test's packets and the questionnaire's answers.
#include "session/TestManager.h"

#include <mmsystem.h>

#include <cstring>
#include <cwchar>
#include <new>

#include "diag/Assert.h"
#include "diag/DebugOut.h"
#include "mcu/HC08.h"
#include "mcu/HC08Pack.h"
#include "mcu/HC08PackList.h"
#include "panel/GpioPins.h"
#include "session/Questions.h"
#include "session/StoredParams.h"

// ---------------------------------------------------------------------------
// Activities

void CTestManager::SetRunning(bool running)
{
    // The reader thread looks at the flag under the lock before it records.
    EnterCriticalSection(&m_lock);
    m_activityRunning = running;
    LeaveCriticalSection(&m_lock);
}

CHC08PackList* CTestManager::TakePacketList()
{
    EnterCriticalSection(&m_lock);
    CHC08PackList* list = m_pPackList;
    m_pPackList = nullptr;
    LeaveCriticalSection(&m_lock);
    return list;
}

bool CTestManager::SetTestConfig(int testID, const wchar_t* testName, int maxDurationSecs, int uiTimeout)
{
    if (!IsOpen()) {
        DebugOut(L"SetTestConfig: not open.\r\n");
        return false;
    }
    if (m_activityRunning) {
        DebugOut(L"SetTestConfig: a test is running.\r\n");
        return false;
    }
    if (testID < kFirstSensorTest || testID > kQuestionnaireTest) {
        DebugOut(L"setTestConfig: unknown testID.\r\n");
        return false;
    }
    if (testName == nullptr) {
        DebugOut(L"setTestConfig: null testName.\r\n");
        return false;
    }
    if (maxDurationSecs < 0 || maxDurationSecs > kMaxTestSeconds) {
        DebugOut(L"setTestConfig: maxDurationSecs out of range.\r\n");
        return false;
    }
    if (uiTimeout < 0 || uiTimeout > kMaxTestSeconds) {
        DebugOut(L"setTestConfig: uiTimeout out of range\r\n");
        return false;
    }
    // The name goes into file names, which have room for ten characters.
    if (wcslen(testName) > kMaxTestNameLength) {
        DebugOut(L"setTestConfig: testName too long.\r\n");
        return false;
    }
    wchar_t* name = CopyOf(testName);
    if (name == nullptr)
        return false;
    delete[] m_testName;
    m_testName = name;
    m_curTestID = testID;
    m_maxDurationSecs = maxDurationSecs;
    m_uiTimeout = uiTimeout;
    return true;
}

bool CTestManager::ActivityStart(bool goArg)
{
    if (!IsOpen()) {
        DebugOut(L"ActivityStart: not open.\r\n");
        return false;
    }
    if (m_activityRunning) {
        DebugOut(L"ActivityStart: a test is running.\r\n");
        return false;
    }
    if (m_curTestID < kFirstSensorTest || m_curTestID > kQuestionnaireTest) {
        DebugOut(L"ActivityStart: unknown m_curTestID.\r\n");
        return false;
    }

    // Whatever a timed-out activity left in memory goes now, so that this
    // activity can never save it under its own name.
    delete TakePacketList();
    if (m_curTestID <= kLastSensorTest) {
        // Without a recording the test still runs; it just saves nothing.
        InitHC08PacketList();
    } else {
        delete m_pQuestions;
        m_pQuestions = new (std::nothrow) CQuestions;
        if (m_pQuestions == nullptr) {
            DebugOut(L"ActivityStart: new CQuestions failed.\r\n");
            return false;
        }
    }

    SetRunning(true);
    // The finger buttons reach the script only while a test runs; every end
    // of the activity (normal, cancel, time-out) closes the gate again.
    // Recording does not depend on the gate.
    if (m_pHC08 != nullptr)
        m_pHC08->SetDigitoGate(true);
    // The go strobe starts the microcontroller's test timer; it answers with
    // its timer-go packet.
    if (m_pGpio != nullptr)
        m_pGpio->hC08Go(goArg);

    m_deadline = 0;
    if (m_maxDurationSecs >= 1) {
        m_deadline = timeGetTime() + static_cast<DWORD>(m_maxDurationSecs) * 1000u;
        // 0 means "no deadline"; a deadline that lands on it moves by 1 ms.
        if (m_deadline == 0)
            m_deadline = 1;
    }
    return true;
}

bool CTestManager::InitHC08PacketList()
{
    CHC08PackList* list = new (std::nothrow) CHC08PackList;
    if (list == nullptr) {
        DebugOut(L"InitHC08PacketList: out of memory for CHC08PackList.\r\n");
        return false;
    }
    if (m_pHC08 == nullptr) {
        DebugOut(L"InitHC08PacketList: null m_pHC08.\r\n");
        delete list;
        return false;
    }
    const BYTE* reset = m_pHC08->GetResetPacket();
    if (reset == nullptr) {
        DebugOut(L"InitHC08PacketList: null GetResetPacket.\r\n");
        delete list;
        return false;
    }
    WORD left = 0, right = 0;
    m_pHC08->GetPegsMap(&left, &right);
    StartRecording(list, reset, left, right);
    return true;
}

namespace {

void AppendPacket(CHC08PackList* list, const BYTE* packet)
{
    const int size = CHC08Pack::CalcSizePacket(packet, false);
    if (size < 0)
        return;
    BYTE* slot = list->OpenPacket();
    if (slot == nullptr)
        return;  // full: the recording stops growing
    memcpy(slot, packet, size);
    list->ClosePacket();
}

}  // namespace

// A recording opens with the microcontroller's reset note (its revision,
// reset source and tick rate, which the study server needs to read the
// ticks) and the pegs board as it stood when the test began.
void CTestManager::StartRecording(CHC08PackList* pList, const BYTE* pResetPacket, WORD pegsInLeft,
                                  WORD pegsInRight)
{
    ASSERT(pList != nullptr);
    if (pList == nullptr)
        return;
    if (pResetPacket != nullptr)
        AppendPacket(pList, pResetPacket);
    int size = 0;
    BYTE* pegs = CHC08Pack::BuildPegsMap(&size, 0, pegsInLeft, pegsInRight);
    if (pegs != nullptr)
        AppendPacket(pList, pegs);
    delete[] pegs;

    EnterCriticalSection(&m_lock);
    CHC08PackList* old = m_pPackList;
    m_pPackList = pList;
    LeaveCriticalSection(&m_lock);
    delete old;
}

void CTestManager::RecordHC08Packet(const BYTE* pPacket)
{
    if (!IsOpen()) {
        DebugOut(L"RecordHC08Packet: not open.\r\n");
        return;
    }
    if (pPacket == nullptr)
        return;
    EnterCriticalSection(&m_lock);
    if (m_activityRunning && m_pPackList != nullptr)
        AppendPacket(m_pPackList, pPacket);
    LeaveCriticalSection(&m_lock);
}

bool CTestManager::RecordQuestionResponse(const wchar_t* questionID, const wchar_t* responseID)
{
    if (!IsOpen()) {
        DebugOut(L"RecordHC08Packet: not open.\r\n");
        return false;
    }
    if (!m_activityRunning || m_curTestID != kQuestionnaireTest) {
        DebugOut(L"RecordQuestionResponse: not running a questionnaire test.\r\n");
        return false;
    }
    if (questionID == nullptr) {
        DebugOut(L"RecordQuestionResponse: null questionID.\r\n");
        return false;
    }
    if (responseID == nullptr) {
        DebugOut(L"RecordQuestionResponse: null responseID.\r\n");
        return false;
    }
    if (m_pQuestions == nullptr) {
        DebugOut(L"RecordQuestionResponse: no in memory list.\r\n");
        return false;
    }
    return m_pQuestions->AddQuestionResponse(questionID, responseID);
}

bool CTestManager::ActivityEnd(bool normal)
{
    if (!IsOpen()) {
        DebugOut(L"ActivityEnd: not open.\r\n");
        return false;
    }
    if (!m_activityRunning)
        return true;

    // Once taken out, the list is this thread's alone: the reader finds no
    // recording and records nothing more.
    CHC08PackList* list = TakePacketList();
    if (list != nullptr) {
        wchar_t* fname = MakeTempFilename(nullptr, L".motr");
        SaveHC08PackList(list, fname);
        delete[] fname;
        delete list;
    }

    if (m_curTestID == kQuestionnaireTest) {
        if (m_pQuestions != nullptr) {
            wchar_t* fname = MakeTempFilename(nullptr, L".txt");
            m_pQuestions->WriteToFile(fname);
            delete[] fname;
        } else {
            DebugOut(L"ActivityEnd: no questionnaire to store.\r\n");
        }
        delete m_pQuestions;
        m_pQuestions = nullptr;
    }

    SetRunning(false);
    m_deadline = 0;
    if (m_pHC08 != nullptr)
        m_pHC08->SetDigitoGate(false);
    if (m_pSink != nullptr)
        m_pSink->ActivityEnded(normal ? kEndCompleted : kEndCancelled, static_cast<short>(m_curTestID));
    return true;
}

bool CTestManager::ActivityBeep()
{
    if (!IsOpen()) {
        DebugOut(L"ActivityBeep: not open.\r\n");
        return false;
    }
    if (m_pGpio != nullptr)
        m_pGpio->hC08Go(true);
    return true;
}

// ".motr": "MOTR", the format version (16 bits, little-endian), then every
// packet exactly as it came off the wire, back to back. The packets are
// gathered into 2048-byte blocks so the disk sees few, whole writes; a packet
// that does not fit the rest of a block is split across two.
bool CTestManager::SaveHC08PackList(CHC08PackList* pList, const wchar_t* fname)
{
    if (pList == nullptr) {
        DebugOut(L"SaveHC08... null packlist.\r\n");
        return false;
    }
    if (fname == nullptr) {
        DebugOut(L"SaveHC08... null fname.\r\n");
        return false;
    }
    HANDLE file = CreateFileW(fname, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        // The detail, with the system's reason, is kept for a debugger.
        wchar_t detail[64];
        swprintf(detail, 64, L"file create failed.  GetLastError= 0x%08lx", GetLastError());
        (void)detail;
        DebugOut(L"ERROR: SaveHC08...: could not open file for writing.\r\n");
        return false;
    }

    auto put = [file](const BYTE* bytes, DWORD length) {
        DWORD written = 0;
        if (!WriteFile(file, bytes, length, &written, nullptr)) {
            DebugOut(L"ERROR: SaveHC08..: write error on output.\r\n");
            return false;
        }
        if (written != length) {
            DebugOut(L"ERROR: SaveHC08... failed: short write.\r\n");
            return false;
        }
        return true;
    };

    constexpr int kStageSize = 2048;
    const BYTE header[6] = {'M', 'O', 'T', 'R', 0x00, 0x01};  // version 256
    bool ok = put(header, sizeof(header));
    BYTE stage[kStageSize];
    int used = 0;
    for (const BYTE* packet = pList->GetFirstPacket(); ok && packet != nullptr; packet = pList->GetNextPacket()) {
        const int size = CHC08Pack::CalcSizePacket(packet, false);
        if (size < 0) {
            DebugOut(L"ERROR: SaveHC08...: bad length packet in block; skipped.\r\n");
            continue;
        }
        for (int done = 0; ok && done < size;) {
            const int part = size - done < kStageSize - used ? size - done : kStageSize - used;
            memcpy(stage + used, packet + done, part);
            used += part;
            done += part;
            if (used == kStageSize) {
                ok = put(stage, kStageSize);
                used = 0;
            }
        }
    }
    if (ok && used > 0)
        ok = put(stage, used);
    CloseHandle(file);
    return ok;
}
