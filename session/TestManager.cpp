#include "session/TestManager.h"

#include <mmsystem.h>

#include <cstring>
#include <cwchar>
#include <new>

#include "control/MessageWindow.h"
#include "diag/Assert.h"
#include "diag/DebugOut.h"
#include "mcu/HC08.h"
#include "mcu/HC08Pack.h"
#include "mcu/HC08PackList.h"
#include "panel/GpioPins.h"
#include "session/LocalClock.h"
#include "session/NVRAMBoard.h"
#include "session/Questions.h"
#include "session/SessionFolders.h"
#include "session/StoredParams.h"

namespace {

const wchar_t kClassName[] = L"TestManangerMessageWin";
const wchar_t kWindowTitle[] = L"Test Manager Messages";
const wchar_t kWindowLabel[] = L"Test Manager";
constexpr UINT_PTR kActivityTimer = 1;
constexpr UINT kActivityTimerMs = 500;

const wchar_t kLoginFile[] = L"\\HARD DISK\\SrvrInfo.bin";
const wchar_t kStartFolder[] = L"\\Device Software";

// Session and activity end causes.
constexpr short kEndCompleted = 0;
constexpr short kEndTimedOut = 1;
constexpr short kEndFailed = 102;
constexpr short kEndCancelled = 103;

// Tests 1..6 record the sensors; 7 is the questionnaire.
constexpr int kFirstSensorTest = 1;
constexpr int kLastSensorTest = 6;
constexpr int kQuestionnaireTest = 7;
constexpr int kMaxTestSeconds = 1200;
constexpr size_t kMaxTestNameLength = 10;

constexpr ULONGLONG kHour = 36000000000ULL;
constexpr ULONGLONG kDay = 864000000000ULL;

}  // namespace

CTestManager::CTestManager(HINSTANCE instance, IManagerSite* site)
    : m_hInstance(instance),
      m_pSite(site),
      m_pSink(nullptr),
      m_hWnd(nullptr),
      m_timerId(0),
      m_pHC08(nullptr),
      m_pWatch(nullptr),
      m_pGpio(nullptr),
      m_pNVRAM(nullptr),
      m_pStoredParams(nullptr),
      m_pAudio(nullptr),
      m_inSession(false),
      m_sessionStart(),
      m_fileSequence(0),
      m_currentFolder(nullptr),
      m_activityRunning(false),
      m_deadline(0),
      m_curTestID(0),
      m_testName(nullptr),
      m_maxDurationSecs(0),
      m_uiTimeout(0),
      m_pPackList(nullptr),
      m_pQuestions(nullptr)
{
    InitializeCriticalSection(&m_lock);
}

CTestManager::~CTestManager()
{
    Close();
    DeleteCriticalSection(&m_lock);
}

// ---------------------------------------------------------------------------
// Open and close

bool CTestManager::Open()
{
    ASSERT(!IsOpen());
    if (IsOpen())
        return false;
    ASSERT(m_pSite != nullptr);
    if (m_pSite == nullptr)
        return false;

    // Every manager exists by now; those that are missing come back null
    // (the site records that) and the work that needs them is skipped.
    m_pSink = m_pSite->GetTestManagerEventSink();
    m_pHC08 = m_pSite->GetHC08();
    m_pWatch = m_pSite->GetWatch();
    m_pGpio = m_pSite->GetGpio();
    m_pNVRAM = m_pSite->GetNVRAM();
    m_pStoredParams = m_pSite->GetStoredParams();

    m_fileSequence = 0;
    delete[] m_currentFolder;
    m_currentFolder = CopyOf(kStartFolder);

    if (!MessageWindowRegister(m_hInstance, kClassName, MessageWindowProc<CTestManager>) ||
        (m_hWnd = MessageWindowCreate(m_hInstance, kClassName, kWindowTitle, this)) == nullptr) {
        ASSERT(false);
        DebugOut(L"TestManager::Open: CreateWin failed.\r\n");
        return false;
    }
    m_timerId = SetTimer(m_hWnd, kActivityTimer, kActivityTimerMs, nullptr);
    if (m_timerId == 0) {
        ASSERT(false);
        DebugOut(L"Test Manager Open: SetTimer failed.\r\n");
        return false;
    }
    if (!WriteLoginFile()) {
        ASSERT(false);
        DebugOut(L"Login file creation failed.\r\n");
        return false;
    }
    return true;
}

void CTestManager::Close()
{
    delete[] m_currentFolder;
    m_currentFolder = nullptr;
    // The configured test goes with its name; an activity still running
    // ends without a word (nothing is listening any more).
    delete[] m_testName;
    m_testName = nullptr;
    m_curTestID = 0;
    SetRunning(false);
    m_deadline = 0;
    delete TakePacketList();
    delete m_pQuestions;
    m_pQuestions = nullptr;
    // Destroying the window ends its timer.
    if (m_hWnd != nullptr)
        MessageWindowDestroy(m_hWnd, m_hInstance, kClassName, L"CTestManager: DestroyWindow failed.\r\n");
    m_timerId = 0;
}

// The login file tells the study server's upload step who this device is:
// the device ID (little-endian) and the first four bytes of its key blob.
bool CTestManager::WriteLoginFile()
{
    if (m_pNVRAM == nullptr)
        return false;
    BYTE blob[kKeyBlobBytes];
    DWORD length = sizeof(blob);
    if (!m_pNVRAM->GetKeyBlob(blob, &length))
        return false;
    const DWORD id = m_pNVRAM->ReadDeviceID();
    const BYTE login[8] = {static_cast<BYTE>(id),       static_cast<BYTE>(id >> 8),
                           static_cast<BYTE>(id >> 16), static_cast<BYTE>(id >> 24),
                           blob[0], blob[1], blob[2], blob[3]};

    HANDLE file = CreateFileW(kLoginFile, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                              nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    DWORD written = 0;
    const BOOL ok = WriteFile(file, login, sizeof(login), &written, nullptr);
    CloseHandle(file);
    return ok && written == sizeof(login);
}

LRESULT CTestManager::WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == WM_TIMER && wParam == kActivityTimer) {
        OnTimer();
        return 0;
    }
    return MessageWindowDefault(hwnd, msg, wParam, lParam, kWindowLabel);
}

// An activity whose time is up ends here, and nothing of it is saved: a
// test that ran out of time is not a complete test.
void CTestManager::OnTimer()
{
    if (!m_activityRunning || m_deadline == 0 || !DeadlinePassed(timeGetTime(), m_deadline))
        return;
    SetRunning(false);
    m_deadline = 0;
    if (m_pHC08 != nullptr)
        m_pHC08->SetDigitoGate(false);
    if (m_pSink != nullptr)
        m_pSink->ActivityEnded(kEndTimedOut, static_cast<short>(m_curTestID));
}

bool CTestManager::DeadlinePassed(DWORD now, DWORD deadline)
{
    // The tick wraps every 49.7 days; a deadline is at most 20 minutes
    // ahead, so "deadline - now" read as unsigned is small while it lies
    // ahead and huge once it has passed.
    return now == deadline || static_cast<DWORD>(deadline - now) > 0x80000000u;
}

// ---------------------------------------------------------------------------
// Schedule

bool CTestManager::InPracticeMode()
{
    if (!IsOpen()) {
        DebugOut(L"InPracticeMode: not open.\r\n");
        return false;
    }
    SYSTEMTIME end;
    if (m_pStoredParams == nullptr || !m_pStoredParams->ReadEndPracticeDate(&end))
        return false;
    SYSTEMTIME now;
    LocalClockNow(&now);
    return CompareSystemTime(&now, &end) < 0;
}

// A session falls due at the same hour of the day whatever the season: if a
// daylight-saving change ever shows in the step (it moves the hour by one
// either way), the step is corrected by an hour. On counts of local time the
// hours agree at once.
ULONGLONG CTestManager::AddDays(ULONGLONG count, int days)
{
    SYSTEMTIME from, to;
    if (!ULongLongToSystemTime(&count, &from))
        return 0;
    ULONGLONG u = count + static_cast<ULONGLONG>(static_cast<LONGLONG>(days) * static_cast<LONGLONG>(kDay));
    if (!ULongLongToSystemTime(&u, &to))
        return 0;
    if (to.wHour == from.wHour)
        return u;
    u -= kHour;
    if (!ULongLongToSystemTime(&u, &to))
        return 0;
    if (to.wHour == from.wHour)
        return u;
    u += 2 * kHour;
    if (!ULongLongToSystemTime(&u, &to))
        return 0;
    ASSERT(to.wHour == from.wHour);
    return u;
}

bool CTestManager::GetNextSessionBounds(SYSTEMTIME* pStart, SYSTEMTIME* pEnd, bool* pInWindow)
{
    if (!IsOpen()) {
        DebugOut(L"GetNextSessionBounds: not open.\r\n");
        return false;
    }
    if (pStart == nullptr) {
        DebugOut(L"GetNextSessionBounds: null pStart.\r\n");
        return false;
    }
    if (pEnd == nullptr) {
        DebugOut(L"GetNextSessionBounds: null pEnd.\r\n");
        return false;
    }
    if (pInWindow == nullptr) {
        DebugOut(L"GetNextSessionBounds: null pInWindow.\r\n");
        return false;
    }
    *pInWindow = false;
    // A date no answer can have; the checks at the end must never see it.
    const SYSTEMTIME sentinel = {1700, 1, 5, 1, 0, 0, 0, 0};
    *pStart = sentinel;
    *pEnd = sentinel;

    SYSTEMTIME now;
    LocalClockNow(&now);

    ASSERT(m_pStoredParams != nullptr && m_pNVRAM != nullptr);
    if (m_pStoredParams == nullptr || m_pNVRAM == nullptr)
        return false;
    SYSTEMTIME firstSt, endPractice;
    short windowHours, realDays, practiceDays, makeupDays;
    if (!m_pStoredParams->ReadFirstSessionDateTime(&firstSt) || !m_pStoredParams->ReadEndPracticeDate(&endPractice) ||
        !m_pStoredParams->ReadSessionWindowHours(&windowHours) ||
        !m_pStoredParams->ReadRealTestIntervalDays(&realDays) ||
        !m_pStoredParams->ReadPracticeTestIntervalDays(&practiceDays) ||
        !m_pStoredParams->ReadMakeupDays(&makeupDays))
        return false;
    // An unreadable previous session counts as none ever done.
    ULONGLONG prev = 0;
    SYSTEMTIME prevSt;
    if (ULongLongToSystemTime(&prev, &prevSt))
        m_pNVRAM->NVReadPrevSessionDateTime(&prevSt);

    ULONGLONG nowCount, first;
    if (!SystemTimeToULongLong(&now, &nowCount) || !SystemTimeToULongLong(&firstSt, &first) ||
        !SystemTimeToULongLong(&prevSt, &prev)) {
        DebugOut(L"GetNextSessionBounds: conversion failed.\r\n");
        return false;
    }

    // The practice interval runs until the day practice ends.
    SYSTEMTIME today = now;
    today.wHour = today.wMinute = today.wSecond = today.wMilliseconds = 0;
    const int interval = CompareSystemTime(&today, &endPractice) < 0 ? practiceDays : realDays;
    const ULONGLONG window = static_cast<ULONGLONG>(windowHours) * kHour;

    // Walk the regular slots to the first one not done that is still ahead
    // or open now.
    ULONGLONG old = first, next = 0;
    bool openNow = false;
    for (;;) {
        next = AddDays(old, interval);
        if (next == 0) {
            DebugOut(L"GetNextSessionBounds: conversion failed.\r\n");
            return false;
        }
        if (next <= prev) {
            old = next;  // done
        } else if (nowCount < next) {
            break;
        } else if (nowCount < next + window) {
            openNow = true;
            break;
        } else {
            old = next;  // missed
        }
    }

    // The regular answer, and the slot whose makeups may still be offered.
    ULONGLONG regular, makeup;
    if (!openNow && old > prev) {
        regular = next;
        makeup = old;
    } else {
        regular = AddDays(next, interval);
        makeup = next;
    }
    ULONGLONG start = regular, end = regular + window;

    // A missed slot is offered again at the same hour on each makeup day.
    int k = 0;
    for (; k <= makeupDays; ++k) {
        if (nowCount < makeup || nowCount < makeup + window)
            break;
        makeup = AddDays(makeup, 1);
        if (makeup == 0) {
            DebugOut(L"GetNextSessionBounds: conversion failed.\r\n");
            return false;
        }
    }
    if (k <= makeupDays) {
        start = makeup;
        end = makeup + window;
    }

    SYSTEMTIME startSt, endSt;
    if (regular == 0 || !ULongLongToSystemTime(&start, &startSt) || !ULongLongToSystemTime(&end, &endSt)) {
        DebugOut(L"GetNextSessionBounds: conversion failed.\r\n");
        return false;
    }
    ASSERT(startSt.wYear > 2000);
    ASSERT(endSt.wYear >= 2000);
    ASSERT(CompareSystemTime(&endSt, &now) > 0);
    *pStart = startSt;
    *pEnd = endSt;
    *pInWindow = CompareSystemTime(&startSt, &now) <= 0 && CompareSystemTime(&now, &endSt) < 0;
    return true;
}

// ---------------------------------------------------------------------------
// Sessions

bool CTestManager::SessionStart()
{
    if (!IsOpen()) {
        DebugOut(L"SessionStart: not open.\r\n");
        return false;
    }
    if (m_inSession) {
        DebugOut(L"SessionStart: already in a session.\r\n");
        return false;
    }
    // Proves the temporary folder and the device ID before anything changes.
    wchar_t* probe = MakeTempFilename(L"dummy", L".txt");
    if (probe == nullptr) {
        DebugOut(L"SessionStart: couldn't create temp file.\r\n");
        return false;
    }
    delete[] probe;
    ClearTempFiles(true);
    LocalClockNow(&m_sessionStart);
    // Reaches flash with the commit at the session's normal end.
    if (m_pNVRAM != nullptr)
        m_pNVRAM->NVWritePrevSessionDateTime(&m_sessionStart);
    m_fileSequence = 0;
    m_inSession = true;
    return true;
}

bool CTestManager::SessionEnd(bool normal)
{
    if (!IsOpen()) {
        DebugOut(L"SessionEndNormal: not open.\r\n");
        return false;
    }
    if (!m_inSession)
        return true;

    if (!normal) {
        ClearTempFiles(true);
        m_inSession = false;
        if (m_pSink != nullptr)
            m_pSink->SessionEnded(kEndCancelled);
        return true;
    }

    if (m_pNVRAM == nullptr || !m_pNVRAM->Commit())
        DebugOut(L"SessionEnd: NVRAM Commit failed.\r\n");
    const bool packaged = PackageSession();
    ClearTempFiles(true);
    DeleteFileW(kCompressFile);
    m_inSession = false;
    if (m_pSink != nullptr)
        m_pSink->SessionEnded(packaged ? kEndCompleted : kEndFailed);
    return packaged;
}

// ---------------------------------------------------------------------------
// File names and folders

// True when path is a folder, made now if need be. (A file of that name is
// not a folder, though creating one then fails as "already exists".)
bool CTestManager::EnsureFolder(const wchar_t* path)
{
    CreateDirectoryW(path, nullptr);
    const DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

wchar_t* CTestManager::DeviceIdText()
{
    return m_pNVRAM != nullptr ? m_pNVRAM->NVParameterRead(L"DEVICEID", L"NOID") : nullptr;
}

wchar_t* CTestManager::MakeTempFilename(const wchar_t* name, const wchar_t* suffix)
{
    if (suffix == nullptr) {
        DebugOut(L"MakeTempFilename: no suffix.\r\n");
        ASSERT(false);
        return nullptr;
    }
    if (!EnsureFolder(kTempFolder)) {
        DebugOut(L"Could not create temp data folder.\r\n");
        return nullptr;
    }
    // No name: the file belongs to the configured test.
    if (name == nullptr) {
        if (m_testName == nullptr) {
            DebugOut(L"ERROR: MakeTempFilename: suffix missing a name because we're not in a test.\r\n");
            return nullptr;
        }
        name = m_testName;
    }
    wchar_t* id = DeviceIdText();
    if (id == nullptr) {
        DebugOut(L"no Device Name\r\n");
        return nullptr;
    }
    SYSTEMTIME now;
    LocalClockNow(&now);
    const size_t room = wcslen(kTempFolder) + wcslen(id) + wcslen(name) + wcslen(suffix) + 48;
    wchar_t* path = new (std::nothrow) wchar_t[room];
    if (path != nullptr) {
        swprintf(path, room, L"%ls\\%ls\\%ls_%04d%02d%02d%02d%02d_%03u%ls%ls", L"", L"Device Temp", id,
                 now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, m_fileSequence, name, suffix);
        ++m_fileSequence;
    }
    delete[] id;
    return path;
}

wchar_t* CTestManager::MakePermFilename(const wchar_t* suffix)
{
    if (suffix == nullptr) {
        DebugOut(L"MakePermFilename: no suffix.\r\n");
        return nullptr;
    }
    if (!EnsureFolder(kPermFolder)) {
        DebugOut(L"Could not create perm data folder.\r\n");
        return nullptr;
    }
    wchar_t* id = DeviceIdText();
    if (id == nullptr) {
        DebugOut(L"no Device ID\r\n");
        return nullptr;
    }
    SYSTEMTIME now;
    LocalClockNow(&now);
    const size_t room = wcslen(kPermFolder) + wcslen(id) + wcslen(suffix) + 32;
    wchar_t* path = new (std::nothrow) wchar_t[room];
    if (path != nullptr)
        swprintf(path, room, L"%ls\\%ls\\%ls_%04d%02d%02d%02d%02d%ls", kHardDisk, kPermFolderName, id, now.wYear,
                 now.wMonth, now.wDay, now.wHour, now.wMinute, suffix);
    delete[] id;
    return path;
}

bool CTestManager::SetCurrentFolder(const wchar_t* dir)
{
    if (dir == nullptr) {
        DebugOut(L"SetCurrentFolder: null curDir.\r\n");
        return false;
    }
    ASSERT(dir[0] != L'\0');
    wchar_t* folder = nullptr;
    if (dir[0] == L'\\') {
        folder = CopyOf(dir);
    } else {
        const wchar_t* base = m_currentFolder != nullptr ? m_currentFolder : L"";
        const size_t room = wcslen(base) + 1 + wcslen(dir) + 1;
        folder = new (std::nothrow) wchar_t[room];
        if (folder != nullptr)
            swprintf(folder, room, L"%ls\\%ls", base, dir);
    }
    if (folder == nullptr)
        return false;
    delete[] m_currentFolder;
    m_currentFolder = folder;
    return true;
}

short CTestManager::MegabytesCapped(ULONGLONG bytes)
{
    const ULONGLONG megabytes = bytes >> 20;
    return megabytes >= 32768 ? 32767 : static_cast<short>(megabytes);
}

short CTestManager::FreeStoreMB()
{
    ULARGE_INTEGER available, total, free;
    if (!GetDiskFreeSpaceExW(kHardDisk, &available, &total, &free)) {
        DebugOut(L"GetDiskFreeSpaceEx failed.\r\n");
        return 0;
    }
    return MegabytesCapped(free.QuadPart);
}

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
